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
#include <vector>

#include "ComponentEditing.h"
#include "DocumentParts.h"
#include "Entry.h"
#include "StateFile.h"

namespace agenda {

/// A calendar file that keeps the document it read or wrote last, which the host needs to carry
/// over what is none of its objects.
class AgendaCalendar : public quillmere::KBTFileCalendar {
 public:
  static std::shared_ptr<AgendaCalendar> initWithPath(std::string path);

  /// The bytes that the file held at the last fetch, or should hold since the last save.
  const quillmere::NSData& document() const { return document_; }
  void forgetDocument() { document_ = {}; }

 protected:
  using KBTFileCalendar::KBTFileCalendar;

  std::shared_ptr<quillmere::KBTCalObject> _getCalendarData() override;
  void _writeCalendarData(const quillmere::NSData& document) override;

 private:
  quillmere::NSData document_;
};

/// What a fetch found; the texts are titles.
struct Changes {
  bool wasRead = false;  ///< false: the file is as it was, and was not read
  std::vector<std::string> added;
  std::vector<std::string> updated;
  std::vector<std::string> gone;
};

/// The delegate of one calendar file: it holds the file's objects and carries out the user's
/// changes without losing what else the file holds.
class CalendarHost : public quillmere::KBTSynchingCalendarDelegate {
 public:
  /// Called with the count so far for every item that a fetch meets, and with null at its end.
  using Progress = std::function<void(std::optional<std::size_t> items)>;

  /// The file need not exist. A calendar does not keep its delegate alive, so the caller does.
  static std::shared_ptr<CalendarHost> hostForFile(std::string path, Progress progress);

  /// Takes over what an earlier run kept, and gives what a later one needs.
  void restore(const KeptCalendar& kept);
  KeptCalendar kept() const;

  /// Brings the objects in line with the file.
  Changes fetch();

  /// The same, but always reads the file, so that a save can follow. Throws CalendarProblem when
  /// the file cannot be saved without loss.
  Changes fetchForSaving();

  /// These three need a `fetchForSaving()` just before. They save, look whether the file holds what
  /// was saved, and throw CalendarProblem when not, or when there is no object of that UID.
  ///
  /// The new event's UID.
  std::string add(const Fields& fields);
  void edit(const std::string& uid, const Fields& fields);
  void remove(const std::string& uid);

  /// The calendar's name; the file's name when it has none.
  std::string name() const;
  /// By UID.
  const std::map<std::string, std::shared_ptr<AgendaObject>>& objects() const { return objects_; }
  const SplitEvents& splitEvents() const { return splitEvents_; }

 protected:
  CalendarHost(std::string path, Progress progress);

 private:
  using Calendar = quillmere::KBTSynchingCalendar;
  using Object = quillmere::KBTClientObject;
  using Reader = std::shared_ptr<quillmere::KBTCalObject>;

  /// An object's text in the document that is to be saved, next to what always stays.
  struct SavedText {
    std::vector<std::string_view> components;  ///< those of its UID
    std::vector<std::string_view> followers;   ///< those of nobody that stand behind it
    std::string written;                       ///< holds a component that this host wrote
  };

  enum class Items { changed, every };
  void readFile(Items items);
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
  void synchingCalendarCompletedFetchExternalChanges_withError(
      Calendar&, const quillmere::NSErrorPtr& error) override;
  void synchingCalendarCompletedCheckForExternalChanges_changes(Calendar&, bool changes) override;
  void synchingCalendar_failedSavingObject_withError(Calendar&, const quillmere::KBTFailedObject&,
                                                     const quillmere::NSErrorPtr& error) override;

  // What calendar files never ask or tell: ranges, and saves object by object.
  std::optional<quillmere::NSDate> synchingCalendarEarliestDate(Calendar&) override { return {}; }
  std::optional<quillmere::NSDate> synchingCalendarLatestDate(Calendar&) override { return {}; }
  void synchingCalendar_setUniqueName_forObject(Calendar&, const std::string&,
                                                const Object&) override {}
  void synchingCalendar_didInsert_versionString(Calendar&, const Object&,
                                                const std::string&) override {}
  void synchingCalendar_didUpdate_versionString(Calendar&, const Object&,
                                                const std::string&) override {}
  void synchingCalendar_didDelete(Calendar&, const Object&) override {}
  void synchingCalendarCompletedSave(Calendar&) override {}

  std::shared_ptr<AgendaCalendar> calendar_;
  Progress progress_;
  std::map<std::string, std::shared_ptr<AgendaObject>> objects_;
  SplitEvents splitEvents_;

  // The fetch or check under way, or the last one.
  Changes changes_;
  std::size_t items_ = 0;
  Items wanted_ = Items::changed;
  bool changedOutside_ = false;
  quillmere::NSErrorPtr error_;

  // The save that is being prepared.
  quillmere::NSData source_;  // what the texts point into
  std::map<const AgendaObject*, SavedText> texts_;
  std::string beforeObjects_;  // written in front of the first object's text
};

}  // namespace agenda

#endif
