#ifndef QUILLMERE_PLATFORM_EVENTS_EKEVENT_H
#define QUILLMERE_PLATFORM_EVENTS_EKEVENT_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/dates/NSTimeZone.h>
#include <quillmere/platform/events/EKCalendar.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmere {

class EKEventStore;
struct EventRecord;

/// A reminder that goes with an event.
struct QUILLMERE_EXPORT EKAlarm {
  std::int64_t relativeOffset = 0;  ///< seconds after the event's start; negative before it

  friend bool operator==(const EKAlarm&, const EKAlarm&) = default;
};

/// An event of an event store: one that is not repeated, one occurrence of a recurring one, or a
/// new one. It shows what the store held when it was asked; changes stay here until
/// `EKEventStore::saveEvent_span_commit_error` takes them.
///
/// An event's times are meant in one of three ways:
///   - in a time zone (`timeZone()`): it begins at that instant, wherever one is;
///   - floating (no time zone): at the same wall time in every zone, so its instants are those of
///     the default zone when it was fetched;
///   - all day: on the same days in every zone. `startDate()` is the first instant of its first day
///     and `endDate()` that of the day after its last, both in the default zone; an event on 5
///     January ends with 6 January, 0 o'clock. Other times of day are rounded outwards when it is
///     saved.
class QUILLMERE_EXPORT EKEvent {
 public:
  /// A new event, without calendar, times and texts, in the default time zone. It has its external
  /// identifier already.
  static std::shared_ptr<EKEvent> eventWithEventStore(const std::shared_ptr<EKEventStore>& store);

  EKEvent(const EKEvent&) = delete;
  EKEvent& operator=(const EKEvent&) = delete;
  ~EKEvent();

  /// The identifier by which all processes, and other systems that the event is sent to, know it
  /// (the UID of RFC 5545 section 3.8.4.7). All occurrences of a recurring event share it.
  const std::string& calendarItemExternalIdentifier() const;

  /// Null as long as none was set.
  const std::shared_ptr<EKCalendar>& calendar() const { return calendar_; }
  void setCalendar(std::shared_ptr<EKCalendar> calendar);

  const std::optional<std::string>& title() const;
  void setTitle(std::optional<std::string> title);
  std::optional<std::string> notes() const;
  void setNotes(const std::optional<std::string>& notes);

  /// Null in a new event only. An event that is saved without an end ends as it starts, or with its
  /// first day.
  std::optional<NSDate> startDate() const;
  void setStartDate(std::optional<NSDate> date);
  std::optional<NSDate> endDate() const;
  void setEndDate(std::optional<NSDate> date);
  bool isAllDay() const;
  void setAllDay(bool isAllDay);
  /// Null: floating. Has no meaning for an all-day event.
  std::optional<NSTimeZone> timeZone() const;
  void setTimeZone(std::optional<NSTimeZone> zone);

  /// Whether it belongs to a recurring event, as an occurrence or changed occurrence of it.
  bool hasRecurrenceRules() const { return recurrenceRule().has_value(); }
  /// The rule, a recurrence-rule value of RFC 5545 section 3.3.10 such as "FREQ=WEEKLY;COUNT=4".
  /// The event's start is its first occurrence.
  const std::optional<std::string>& recurrenceRule() const;
  void setRecurrenceRule(std::optional<std::string> rule);
  /// The starts of occurrences that the rule gives but that are left out. Occurrences from a date
  /// range do not have them, the item found by its identifier does.
  const std::vector<NSDate>& exceptionDates() const;
  void setExceptionDates(std::vector<NSDate> dates);
  /// Where the occurrence lies by the rule, also when it was moved; the start of an event that is
  /// not repeated. Null in a new event.
  std::optional<NSDate> occurrenceDate() const;
  /// Whether it is an occurrence that was changed by itself.
  bool isDetached() const;

  /// When it was last saved; null in a new event.
  std::optional<NSDate> lastModifiedDate() const;

  const std::vector<EKAlarm>& alarms() const;
  void setAlarms(std::vector<EKAlarm> alarms);
  void addAlarm(EKAlarm alarm);
  /// Takes out every alarm equal to this one.
  void removeAlarm(EKAlarm alarm);

 protected:
  EKEvent(std::weak_ptr<EKEventStore> store, std::shared_ptr<EKCalendar> calendar,
          std::shared_ptr<const EventRecord> stored);

 private:
  friend class EKEventStore;
  const EventRecord& record() const;
  EventRecord& editedRecord();

  std::weak_ptr<EKEventStore> store_;
  std::shared_ptr<EKCalendar> calendar_;
  std::shared_ptr<const EventRecord> stored_;  // null in a new event
  std::unique_ptr<EventRecord> edited_;        // null until something is set
};

}  // namespace quillmere

#endif
