#ifndef CALDAVSYNC_REMOTE_H
#define CALDAVSYNC_REMOTE_H

#include <quillmere/calendars/KBTDavCalendar.h>
#include <quillmere/calendars/KBTSynchingCalendarDelegate.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "State.h"

namespace caldavsync {

/// An object that is new at the server or has another version.
struct Arrival {
  Kind kind;
  std::string name;
  std::string etag;
  std::string text;  ///< with the line ends of iCalendar; empty when the server gave none
};

/// What has happened at the server.
struct Fetched {
  std::vector<Arrival> arrivals;
  std::vector<ObjectPtr> deletions;
};

/// The objects of one kind in a collection at the server, as delegate of their calendar. Every
/// operation waits for its end.
class Remote : public quillmere::KBTSynchingCalendarDelegateBase {
 public:
  /// The connection must be nobody else's. `known` is what an earlier run left of the collection.
  static std::shared_ptr<Remote> open(std::shared_ptr<quillmere::KBTDavConnection> connection,
                                      Kind kind, const Calendar& known);

  Kind kind() const { return kind_; }

  /// Adds what has happened since the last run. Throws examples::Failure, and then nothing of it
  /// counts.
  void fetch(Fetched& fetched);
  /// What a fetch found, which holds once all that it found is put on disk.
  std::optional<std::string> cachingString() const { return calendar_->cachingString(); }

  // What `send` will do; none of these objects may be among what the fetch found.
  void insert(const Object& object, std::string text);
  void update(const Object& object, std::string text);
  void remove(const Object& object);

  /// Called for each object: with its new entity tag, which is empty when it was deleted, or with an
  /// error.
  using Outcome = std::function<void(const std::string& uniqueName, const std::string& etag,
                                     const quillmere::NSErrorPtr& error)>;
  void send(Outcome outcome);

 private:
  using Dav = quillmere::KBTSynchingCalendar;
  using Client = quillmere::KBTClientObject;
  using Reader = std::shared_ptr<quillmere::KBTCalObject>;

  explicit Remote(Kind kind) : kind_(kind) {}
  void waitForEnd();
  void end();

  std::optional<std::string> synchingCalendar_uniqueNameForObject(Dav&, const Client&) override;
  std::optional<std::string> synchingCalendar_versionStringForObject(Dav&, const Client&) override;
  std::shared_ptr<quillmere::KBTICSDataSource> synchingCalendar_icsDataForObject(
      Dav&, const Client&) override;
  Client synchingCalendar_newObjectNamed_versionString_data(Dav&, const std::string& uniqueName,
                                                            const std::string& version,
                                                            const Reader& data) override;
  void synchingCalendar_updateForObject_versionString_data(Dav&, const Client&,
                                                           const std::string& version,
                                                           const Reader& data) override;
  void synchingCalendar_deletionForObject(Dav&, const Client&) override;
  void synchingCalendarCompletedFetchExternalChanges_withError(
      Dav&, const quillmere::NSErrorPtr& error) override;
  void synchingCalendar_didInsert_versionString(Dav&, const Client&,
                                                const std::string& version) override;
  void synchingCalendar_didUpdate_versionString(Dav&, const Client&,
                                                const std::string& version) override;
  void synchingCalendar_didDelete(Dav&, const Client&) override;
  void synchingCalendar_failedSavingObject_withError(Dav&, const quillmere::KBTFailedObject&,
                                                     const quillmere::NSErrorPtr& error) override;
  void synchingCalendarCompletedSave(Dav&) override { end(); }

  Kind kind_;
  std::shared_ptr<quillmere::KBTDavCalendar> calendar_;
  bool isOver_ = false;
  quillmere::NSErrorPtr error_;  // of a fetch
  Fetched fetched_;
  std::map<std::string, std::string> texts_;  // to be sent, by unique name
  Outcome outcome_;
};

}  // namespace caldavsync

#endif
