#ifndef AGENDA_CALENDARHOST_H
#define AGENDA_CALENDARHOST_H

#include <quillmere/calendars/KBTFileCalendar.h>
#include <quillmere/calendars/KBTSynchingCalendarDelegate.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ComponentEditing.h"
#include "DocumentParts.h"
#include "Entry.h"
#include "StateFile.h"

namespace agenda {

/// Keeps the document that a calendar read or wrote last, where the host looks for what is none of
/// its objects.
class DocumentKeeper {
 public:
  /// The bytes that the store held at the last fetch, or should hold since the last save.
  const quillmere::NSData& document() const { return document_; }
  void forgetDocument() { document_ = {}; }

 protected:
  ~DocumentKeeper() = default;

  quillmere::NSData document_;
};

/// A calendar file.
class AgendaCalendar : public quillmere::KBTFileCalendar, public DocumentKeeper {
 public:
  static std::shared_ptr<AgendaCalendar> initWithPath(std::string path);

  /// Only the date that the file has now: the calendar looks for a younger file alone, but an older
  /// one that was put back is another, too.
  void setCachingString(const std::optional<std::string>& cachingString) override;

 protected:
  using KBTFileCalendar::KBTFileCalendar;

  std::shared_ptr<quillmere::KBTCalObject> _getCalendarData() override;
  void _writeCalendarData(const quillmere::NSData& document) override;
};

/// What a fetch found; the texts are titles.
struct Changes {
  bool wasRead = false;  ///< false: the calendar is as it was, and was not read
  std::vector<std::string> added;
  std::vector<std::string> updated;
  std::vector<std::string> gone;
};

/// The delegate of one calendar: it holds the calendar's objects and, where that is a file, carries
/// out the user's changes without losing what else the file holds.
class CalendarHost : public quillmere::KBTSynchingCalendarDelegateBase {
 public:
  /// Called with the count so far for every item that a fetch meets, and with null at its end.
  using Progress = std::function<void(std::optional<std::size_t> items)>;

  /// The file need not exist. A calendar does not keep its delegate alive, so the caller does.
  static std::shared_ptr<CalendarHost> hostForFile(std::string path, Progress progress);

  /// Takes over what an earlier run kept, and gives what a later one needs.
  void restore(const KeptCalendar& kept);
  KeptCalendar kept() const;

  /// Brings the objects in line with the file, or with what a server has. The second half waits for
  /// the first, and throws CalendarProblem when that has failed.
  void beginFetch();
  Changes endFetch();

  /// The same at once, but always reads, so that a save can follow. Throws CalendarProblem when the
  /// file cannot be saved without loss.
  Changes fetchForSaving();

  /// These three need a `fetchForSaving()` just before. They save, look whether the file holds what
  /// was saved, and throw CalendarProblem when not, or when there is no object of that UID.
  ///
  /// The new event's UID.
  std::string add(const Fields& fields);
  void edit(const std::string& uid, const Fields& fields);
  void remove(const std::string& uid);

  /// The calendar's name; that of its place when it has none.
  std::string name() const;
  /// By UID.
  const std::map<std::string, std::shared_ptr<AgendaObject>>& objects() const { return objects_; }
  const SplitEvents& splitEvents() const { return splitEvents_; }

 protected:
  /// The place is a path or a URL.
  template <class KeepingCalendar>
  CalendarHost(std::string place, const std::shared_ptr<KeepingCalendar>& calendar,
               Progress progress)
      : place_(std::move(place)),
        calendar_(calendar),
        keeper_(*calendar),
        progress_(std::move(progress)) {}

  virtual std::string nameOfPlace() const;

  using Calendar = quillmere::KBTSynchingCalendar;
  void synchingCalendarCompletedFetchExternalChanges_withError(
      Calendar&, const quillmere::NSErrorPtr& error) override;

  std::optional<std::string> problem_;  // of the operation under way, or the last one

 private:
  using Object = quillmere::KBTClientObject;
  using Reader = std::shared_ptr<quillmere::KBTCalObject>;

  /// An object's text in the document that is to be saved, next to what always stays.
  struct SavedText {
    std::vector<std::string_view> components;  ///< those of its UID
    std::vector<std::string_view> followers;   ///< those of nobody that stand behind it
    std::string written;                       ///< holds a component that this host wrote
  };

  enum class Items { changed, every };
  void beginReading(Items items);
  void endReading();
  bool changedOutside();
  void readItem(AgendaObject& object, const std::string& version, quillmere::KBTCalObject& item);
  void readSplitEvents();
  void countItem();
  std::shared_ptr<AgendaObject> objectNamed(const std::string& uid) const;

  void takeDocumentApart();
  std::vector<AgendaObject*> ownersOf(const std::vector<Component>& components) const;
  std::map<std::size_t, AgendaObject*> objectsByPlace() const;
  void putObjectsInOrder();
  void save();
  void checkFileHolds(const quillmere::NSData& document) const;

  // What agenda has to tell and to hear.
  std::optional<std::string> synchingCalendar_uniqueNameForObject(Calendar&,
                                                                  const Object&) override;
  std::optional<std::string> synchingCalendar_versionStringForObject(Calendar&,
                                                                     const Object&) override;
  std::shared_ptr<quillmere::KBTICSDataSource> synchingCalendar_icsDataForObject(
      Calendar&, const Object&) override;
  void synchingCalendarBeganFetchExternalChanges(Calendar&) override;
  Object synchingCalendar_newObjectNamed_versionString_data(Calendar&,
                                                            const std::string& uniqueName,
                                                            const std::string& version,
                                                            const Reader& item) override;
  void synchingCalendar_updateForObject_versionString_data(Calendar&, const Object&,
                                                           const std::string& version,
                                                           const Reader& item) override;
  void synchingCalendar_deletionForObject(Calendar&, const Object&) override;
  void synchingCalendarCompletedCheckForExternalChanges_changes(Calendar&, bool changes) override;
  void synchingCalendar_failedSavingObject_withError(Calendar&, const quillmere::KBTFailedObject&,
                                                     const quillmere::NSErrorPtr& error) override;

  std::string place_;
  std::shared_ptr<quillmere::KBTDataCalendar> calendar_;
  DocumentKeeper& keeper_;
  Progress progress_;
  std::optional<std::string> cachingString_;  // that belongs to the objects
  std::map<std::string, std::shared_ptr<AgendaObject>> objects_;
  SplitEvents splitEvents_;

  // The fetch or check under way, or the last one.
  Changes changes_;
  std::size_t items_ = 0;
  Items wanted_ = Items::changed;
  bool isReading_ = false;
  bool changedOutside_ = false;

  // The save that is being prepared.
  quillmere::NSData source_;  // what the texts point into
  std::map<const AgendaObject*, SavedText> texts_;
  std::string beforeObjects_;  // written in front of the first object's text
};

}  // namespace agenda

#endif
