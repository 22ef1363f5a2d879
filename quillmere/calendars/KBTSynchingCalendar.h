#ifndef QUILLMERE_CALENDARS_KBTSYNCHINGCALENDAR_H
#define QUILLMERE_CALENDARS_KBTSYNCHINGCALENDAR_H

#include <quillmere/calendars/KBTSynchingCalendarDelegate.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/OrderedMap.h>

#include <concepts>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmere {

/// A calendar keeps a host's objects in step with a store. This is the base of every kind of
/// calendar.
///
/// It knows objects by their unique names, which the delegate gives, and remembers which of them
/// are to be inserted, updated or deleted. A host
///
///   1. makes a calendar, sets its delegate, and seeds it with the objects (`setObjects`) and the
///      caching string (`setCachingString`) that it kept from the last run;
///   2. calls `fetchExternalChanges()`, and hears what is new, changed and gone;
///   3. records its own changes (`insertObject`, `updateObject`, `deleteObject`), then calls
///      `saveChanges()`;
///   4. keeps its objects, `cachingString()` and `calendarName()` for the next run. They belong
///      together: after a caching string without its objects, a save writes a calendar that lacks
///      them.
///
/// Every result is a callback of the delegate, sent on the thread that uses the calendar. A
/// calendar holds its delegate weakly: a delegate that is gone, like one that was never set, hears
/// nothing and answers null.
///
/// The base class is complete by itself. It has no store, so nothing changes outside and every save
/// succeeds.
///
/// docs/guide.md has a host for each kind of calendar; docs/behaviours.md tells what may surprise
/// you.
class QUILLMERE_EXPORT KBTSynchingCalendar
    : public std::enable_shared_from_this<KBTSynchingCalendar> {
 public:
  static std::shared_ptr<KBTSynchingCalendar> init();

  KBTSynchingCalendar(const KBTSynchingCalendar&) = delete;
  KBTSynchingCalendar& operator=(const KBTSynchingCalendar&) = delete;
  virtual ~KBTSynchingCalendar() = default;

  /// `{}` takes the delegate away; the calendar does not keep it alive.
  virtual void setDelegate(std::weak_ptr<KBTSynchingCalendarDelegate> delegate);

  /// Replaces the known objects. The delegate, which must be set before, is asked for the name of
  /// each. Null objects and objects without a name are left out, and of several with one name the
  /// last one stays. Pending changes stay as they are.
  void setObjects(std::vector<KBTClientObject> objects);

  /// The calendar's name for people. Null until it is set or read from the store.
  virtual std::optional<std::string> calendarName() const;
  virtual void setCalendarName(std::optional<std::string> name);
  /// A null pointer is no text: null is `std::nullopt`.
  void setCalendarName(std::same_as<std::nullptr_t> auto) = delete;

  /// A short text that lets a later run skip work: a modification date, an entity tag or a
  /// collection's tag. Null when there is none. The base always answers null and ignores what is
  /// set.
  virtual std::optional<std::string> cachingString() const;
  virtual void setCachingString(const std::optional<std::string>& cachingString);
  /// As above.
  void setCachingString(std::same_as<std::nullptr_t> auto) = delete;

  /// Whether both calendars stand for the same store. The base has none and answers false.
  virtual bool isEqualToCalendar(const KBTSynchingCalendar& other) const;

  /// Whether a check or a fetch, or a save, is in flight. Only CalDAV calendars tell; local
  /// calendars go on saving for good, and all others always answer false.
  bool isChecking() const { return isChecking_; }
  bool isSaving() const { return isSaving_; }

  /// Asks whether the store has changed since the last fetch: `completedCheckForExternalChanges`.
  /// The base answers no.
  virtual void checkForExternalChanges();

  /// Brings the known objects in line with the store: `beganFetchExternalChanges`, then items and
  /// deletions, then `completedFetchExternalChanges`. In the base there is nothing to do.
  virtual void fetchExternalChanges();

  /// Whether any insertion, update or deletion waits to be saved.
  bool hasPendingChanges() const;

  /// Forgets all pending changes. The known objects stay as they are.
  void resetChanges();

  /// These three record a change of the host's for the next save. Each change stands for itself: an
  /// object may wait for several. Nothing is recorded for a null object, for an object without a
  /// name, and while `isSaving()`. A data or file calendar forgets what is recorded while it asks
  /// for the objects' data, so record changes before `saveChanges()`.
  ///
  /// This one also makes the object known, in place of any other of its name.
  void insertObject(KBTClientObject object);
  /// Requires: the object is the one that is known under its name.
  void updateObject(const KBTClientObject& object);
  /// The object stays known until it is saved.
  void deleteObject(const KBTClientObject& object);

  /// Writes the pending changes to the store: `completedSave`. The base forgets the deleted objects
  /// and all pending changes, and reports the save as completed.
  virtual void saveChanges();

  /// Stops what is in flight. In the base nothing is.
  virtual void cancel();

 protected:
  KBTSynchingCalendar() = default;

  /// This calendar, for an operation that goes on after a callback: in the callback the host may
  /// let go of the calendar. Null for a calendar that no shared pointer owns.
  std::shared_ptr<KBTSynchingCalendar> keptAlive();

  /// The delegate, or a silent one that hears nothing and answers null. Never null.
  std::shared_ptr<KBTSynchingCalendarDelegate> delegate() const;

  OrderedMap<KBTClientObject>& objectsByUniqueName() { return objectsByUniqueName_; }
  OrderedSet& insertSet() { return insertSet_; }
  OrderedSet& updateSet() { return updateSet_; }
  OrderedSet& deleteSet() { return deleteSet_; }

  void setIsChecking(bool isChecking) { isChecking_ = isChecking; }
  void setIsSaving(bool isSaving) { isSaving_ = isSaving; }

 private:
  std::optional<std::string> nameOf(const KBTClientObject& object);
  std::optional<std::string> recordChange(const KBTClientObject& object, OrderedSet& pending);

  std::optional<std::string> calendarName_;
  OrderedMap<KBTClientObject> objectsByUniqueName_;
  OrderedSet insertSet_;
  OrderedSet updateSet_;
  OrderedSet deleteSet_;
  std::weak_ptr<KBTSynchingCalendarDelegate> nonretainedDelegate_;
  bool isSaving_ = false;
  bool isChecking_ = false;
};

}  // namespace quillmere

#endif
