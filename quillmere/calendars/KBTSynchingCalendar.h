#ifndef QUILLMERE_CALENDARS_KBTSYNCHINGCALENDAR_H
#define QUILLMERE_CALENDARS_KBTSYNCHINGCALENDAR_H

#include <quillmere/calendars/KBTSynchingCalendarDelegate.h>
#include <quillmere/platform/base/OrderedMap.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmere {

/// A calendar that keeps a host's objects in step with a store: the base of every kind of calendar.
///
/// It knows objects by their unique names, which the delegate gives, and remembers which of them
/// are to be inserted, updated or deleted. A host
///
///   1. makes a calendar, sets itself as delegate, and seeds it with the objects (`setObjects`) and
///      the caching string (`setCachingString`) that it kept from the last run;
///   2. calls `fetchExternalChanges()`, and hears what is new, changed and gone;
///   3. records its own changes (`insertObject`, `updateObject`, `deleteObject`), then calls
///      `saveChanges()`;
///   4. keeps its objects, `cachingString()` and `calendarName()` for the next run. They belong
///      together: a caching string without the objects lets the next save write a calendar that
///      lacks them.
///
/// Every outcome is a callback of the delegate, sent on the thread that uses the calendar. The
/// calendar never keeps its delegate alive: a delegate that is gone, like one that was never set,
/// hears nothing and answers null.
///
/// The base class is complete by itself: it has no store, so nothing changes outside and every save
/// succeeds.
class KBTSynchingCalendar : public std::enable_shared_from_this<KBTSynchingCalendar> {
 public:
  static std::shared_ptr<KBTSynchingCalendar> init();

  KBTSynchingCalendar(const KBTSynchingCalendar&) = delete;
  KBTSynchingCalendar& operator=(const KBTSynchingCalendar&) = delete;
  virtual ~KBTSynchingCalendar() = default;

  virtual void setDelegate(std::weak_ptr<KBTSynchingCalendarDelegate> delegate);

  /// Replaces the known objects; of several with one name the last stays. Pending changes are left
  /// as they are.
  void setObjects(std::vector<KBTClientObject> objects);

  /// The name for people, null until one is set or read from the store.
  virtual std::optional<std::string> calendarName() const;
  virtual void setCalendarName(std::optional<std::string> name);

  /// A short text that lets a later run skip work: a modification date, an entity tag. Null when
  /// there is none, as always in the base.
  virtual std::optional<std::string> cachingString() const;
  virtual void setCachingString(const std::optional<std::string>& cachingString);

  /// Whether both stand for the same store. The base has none and answers false.
  virtual bool isEqualToCalendar(const KBTSynchingCalendar& other) const;

  /// A check or a fetch, or a save, is in flight.
  bool isChecking() const { return isChecking_; }
  bool isSaving() const { return isSaving_; }

  /// Asks whether the store has changed since the last fetch. The base: no.
  virtual void checkForExternalChanges();

  /// Brings the known objects in line with the store. The base: nothing to do.
  virtual void fetchExternalChanges();

  /// Whether any insertion, update or deletion waits to be saved.
  bool hasPendingChanges() const;

  /// Forgets what waits to be saved.
  void resetChanges();

  /// These three record a change of the host's for the next save. While a save is in flight the
  /// change is dropped silently. Each change stands for itself: an object may be pending for
  /// several. Null is no object and is not recorded. A calendar that saves whole documents forgets
  /// what was recorded while it asked for the objects' data; record changes before `saveChanges()`.
  ///
  /// Also makes the object known, in place of any other of its name.
  void insertObject(KBTClientObject object);
  /// The object is expected to be the one that is known.
  void updateObject(const KBTClientObject& object);
  /// The object stays known until it is saved.
  void deleteObject(const KBTClientObject& object);

  /// Writes the pending changes to the store. The base: forgets the deleted objects and all pending
  /// changes, and reports the save as completed.
  virtual void saveChanges();

  /// Stops what is in flight. The base: nothing is.
  virtual void cancel();

 protected:
  KBTSynchingCalendar() = default;

  /// This calendar, to be held by an operation that goes on after a callback, in which the host may
  /// let go of it. Null for a calendar that no shared pointer owns.
  std::shared_ptr<KBTSynchingCalendar> keptAlive();

  /// The delegate, or one that hears nothing and answers null; never null.
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
