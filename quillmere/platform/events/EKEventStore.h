#ifndef QUILLMERE_PLATFORM_EVENTS_EKEVENTSTORE_H
#define QUILLMERE_PLATFORM_EVENTS_EKEVENTSTORE_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/events/EKCalendar.h>
#include <quillmere/platform/events/EKEvent.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmere {

class EventBackend;

/// The notification that a store's calendars or events have changed, by this process or by another.
/// Its object is the store; it is posted to the default `NSNotificationCenter` from the main queue,
/// once for changes that follow each other closely.
inline constexpr const char* EKEventStoreChangedNotification = "EKEventStoreChangedNotification";

/// Domain of the stores' errors.
inline constexpr const char* EKErrorDomain = "EKErrorDomain";

enum EKErrorCode : std::int64_t {
  EKErrorNoCalendar = 1,        ///< the event has no calendar, or the store none of its calendar's
  EKErrorNoStartDate = 2,       ///< the event has no start
  EKErrorDatesInverted = 4,     ///< the event ends before it starts
  EKErrorInternalFailure = 5,   ///< the underlying error says what happened, where there is one
  EKErrorCalendarReadOnly = 6,  ///< the calendar, or the whole database
  EKErrorStartDateTooFarInFuture = 9,  ///< or in the past: outside the calendar's years
  EKErrorObjectBelongsToDifferentStore = 11,
  EKErrorInvalidSpan = 13,             ///< one occurrence cannot have a rule or calendar of its own
  EKErrorEventStoreNotAuthorized = 29  ///< access was refused
};

/// Which occurrences of a recurring event a change is for. It means nothing for other events.
enum class EKSpan : std::uint8_t { thisEvent = 0, futureEvents = 1 };

/// What events to fetch; made by `EKEventStore::predicateForEventsWithStartDate_endDate_calendars`.
struct QUILLMERE_EXPORT EKEventPredicate {
  NSDate startDate;
  NSDate endDate;
  std::optional<std::vector<std::string>> calendarIdentifiers;  ///< null: of all calendars
};

/// The user's calendars and events, which all programs share: either Quillmere's own database, an
/// SQLite file, or the desktop's store, Evolution Data Server, where the library was built with it.
///
/// The database is meant for any number of processes at once. Every save and every removal is one
/// transaction, which is on the disk when the operation returns (WAL, `synchronous=FULL`) and of
/// which nothing is there when the process ends earlier. A process that finds the database busy
/// waits for ten seconds before it reports an error. A file that is not such a database, is damaged,
/// was written by a later version or has other tables, indexes, views or triggers is refused and left
/// as it is.
///
/// Three preferences (`HWPreference`) are read when a store is made:
///   - "EKEventStoreBackend": "sqlite", "evolution", or "auto", which is Evolution where the library
///     has it and `DBUS_SESSION_BUS_ADDRESS` offers a bus on which it answers, and SQLite otherwise.
///     Unset means sqlite.
///   - "EKEventStoreDatabasePath": the database file that `init` opens, or ":memory:", as with
///     `initWithDatabasePath_error`.
///   - "EKEventStoreAccess": "denied" refuses access: the store has no calendars and no events then,
///     and saves nothing. A host that asks its user sets it according to the answer.
///
/// Evolution keeps events as iCalendar data: times to the second, and no difference between an empty
/// text and none. It may give a new event another identifier, which the event has once it is saved. A
/// change from an occurrence on is several requests to it: one that fails in between leaves the
/// changed occurrences out, or both the old series and the new one. Its server works out every
/// occurrence of a rule itself, however long that takes. Its connection to the session bus no longer
/// ends the process when the bus goes away.
///
/// Any thread may use a store, and let go of it last. Operations run on the caller's thread and
/// block it.
class QUILLMERE_EXPORT EKEventStore : public std::enable_shared_from_this<EKEventStore> {
 public:
  /// The user's store. Never null: when it cannot be opened, access requests and saves tell the
  /// reason and there are no calendars. Unless the preference says otherwise the database is the file
  /// "quillmere/events.sqlite" in `$XDG_DATA_HOME` (`~/.local/share`), made when it is missing.
  static std::shared_ptr<EKEventStore> init();

  /// A store in the SQLite database at `path`, which is made when it is missing; its folder must
  /// exist. ":memory:" is a new database of this store's own, which ends with it. Null, with the
  /// reason in `error` unless that is null, when it cannot be opened.
  static std::shared_ptr<EKEventStore> initWithDatabasePath_error(const std::string& path,
                                                                  NSErrorPtr* error);

  EKEventStore(const EKEventStore&) = delete;
  EKEventStore& operator=(const EKEventStore&) = delete;
  ~EKEventStore();

  /// Answers on the main queue, after this has returned, whether the store may be used; with an
  /// error when it cannot be.
  void requestAccessToEntityType_completion(
      EKEntityType type, std::function<void(bool granted, NSErrorPtr error)> completion);

  /// Null when the store has no such calendar, or cannot be read.
  std::shared_ptr<EKCalendar> calendarWithIdentifier(const std::string& identifier);
  /// By title; none of reminders. None also when the store cannot be read.
  std::vector<std::shared_ptr<EKCalendar>> calendarsForEntityType(EKEntityType type);
  /// Adds a calendar, or gives a known one its new title. Whether it was saved; the reason of a
  /// failure is stored in `error` unless that is null, as in the operations below. `commit` has no
  /// meaning in any of them: every change is committed at once.
  bool saveCalendar_commit_error(const std::shared_ptr<EKCalendar>& calendar, bool commit,
                                 NSErrorPtr* error);
  /// With all its events.
  bool removeCalendar_commit_error(const std::shared_ptr<EKCalendar>& calendar, bool commit,
                                   NSErrorPtr* error);

  /// Events of these calendars (null: of all) that lie at least partly in the time from `startDate`
  /// to before `endDate`.
  EKEventPredicate predicateForEventsWithStartDate_endDate_calendars(
      NSDate startDate, NSDate endDate,
      const std::optional<std::vector<std::shared_ptr<EKCalendar>>>& calendars) const;
  /// By start, then by external identifier. Every occurrence of a recurring event is an event of its
  /// own (of one event at most 100,000). The rules are expanded by libical, which ends with the year
  /// 2582. Empty also when the store cannot be read; then `error`, unless it is null, has the reason.
  std::vector<std::shared_ptr<EKEvent>> eventsMatchingPredicate(const EKEventPredicate& predicate,
                                                                NSErrorPtr* error = nullptr);
  /// The stored events of that identifier: usually one or none, several when calendars share it. A
  /// recurring event is one, the first of its occurrences that is left; first by `occurrenceDate()`,
  /// wherever it was moved. Calendars of Evolution's that cannot be opened, such as a server's that
  /// cannot be reached, are passed over as long as others can be.
  std::vector<std::shared_ptr<EKEvent>> calendarItemsWithExternalIdentifier(
      const std::string& identifier, NSErrorPtr* error = nullptr);

  /// Adds a new event, or stores what was changed in a fetched one; what other processes have
  /// changed of it meanwhile stays. A changed occurrence is stored as an exception of its series
  /// with `thisEvent`; with `futureEvents` the series changes from there on, which for all but the
  /// first occurrence makes a new series of the rest, with an identifier of its own. Exceptions move
  /// with their series. An occurrence that is no longer there, since it was removed or its series
  /// moved away from it, cannot be saved.
  bool saveEvent_span_commit_error(const std::shared_ptr<EKEvent>& event, EKSpan span, bool commit,
                                   NSErrorPtr* error);
  /// Removes an event. Of a recurring one it removes the occurrence, or this and the later ones; the
  /// series goes with its last occurrence. Fails when the occurrence is no longer there.
  bool removeEvent_span_commit_error(const std::shared_ptr<EKEvent>& event, EKSpan span,
                                     bool commit, NSErrorPtr* error);

 protected:
  explicit EKEventStore(std::shared_ptr<EventBackend> backend, NSErrorPtr openingError);

 private:
  static std::shared_ptr<EKEventStore> storeOver(std::shared_ptr<EventBackend> backend,
                                                 NSErrorPtr openingError);
  template <class Operation>
  bool attempt(NSErrorPtr* error, const Operation& operation);
  std::vector<std::shared_ptr<EKCalendar>> readCalendars();
  void noteChange();

  std::shared_ptr<EventBackend> backend_;  // null when it could not be opened
  NSErrorPtr openingError_;
  bool isDenied_;
  std::atomic<bool> isChangeNoted_ = false;
};

}  // namespace quillmere

#endif
