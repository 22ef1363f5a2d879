#ifndef QUILLMERE_PLATFORM_EVENTS_EVENTRECORD_H
#define QUILLMERE_PLATFORM_EVENTS_EVENTRECORD_H

#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/dates/NSTimeZone.h>
#include <quillmere/platform/events/EKEvent.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Internal: what event stores keep, and the times in it.
namespace quillmere {

/// The ends of the calendar, in microseconds since 1970 UTC: its first instant, and the first one
/// after it. The days beside them are left out, so that every zone has all of it.
extern const NSDate firstDate;
extern const NSDate lastDate;

struct CalendarRecord {
  std::string identifier;
  std::optional<std::string> title;
};

/// An event, a recurring event by its first occurrence, or an occurrence. A saved one has a start
/// and an end.
struct EventRecord {
  std::string identifier;
  std::string calendar;  // its identifier, empty for none
  std::optional<std::string> title;
  std::optional<NSData> notes;  // which may be long: shared by all occurrences
  std::optional<NSDate> start;
  std::optional<NSDate> end;
  bool isAllDay = false;
  std::optional<NSTimeZone> timeZone;
  std::optional<std::string> recurrenceRule;
  std::vector<NSDate> exceptionDates;
  std::optional<NSDate> occurrenceDate;
  bool isDetached = false;
  std::optional<NSDate> lastModified;
  std::vector<EKAlarm> alarms;

  bool isZoned() const { return !isAllDay && timeZone; }
  /// The zone that its wall times are of: its own, or the default zone.
  NSTimeZone wallZone() const;
  bool hasTimesOf(const EventRecord& other) const;
};

/// Puts the times of an event that is to be saved in order: an end, and whole days for an all-day
/// event. Throws an `EventError` when they cannot be.
void normalizeTimes(EventRecord& event);

/// Throws an `EventError` when `edited` has what `original`, one occurrence, cannot have alone.
void requireChangeOfOneOccurrence(const EventRecord& original, const EventRecord& edited);

/// `current` with what `edited` has other than `original`. The times are taken together.
EventRecord merged(const EventRecord& original, const EventRecord& edited, EventRecord current);

/// A wall time is given as the instant at which UTC shows it.
NSDate wallTime(NSDate date, const NSTimeZone& zone);
/// Of a wall time that a change to daylight saving skips, the one as much later; of a repeated one
/// the first.
NSDate dateOfWallTime(NSDate wall, const NSTimeZone& zone);

NSDate dateAfter(NSDate date, std::int64_t microseconds);
std::int64_t microsecondsBetween(NSDate from, NSDate to);

/// How long an event lasts: by the clock, an all-day event by its wall time.
std::int64_t lengthOf(const EventRecord& event);
/// The end of an occurrence of `event` that starts at `start`: all-day events last so many days,
/// others so much time.
NSDate endOfOccurrence(const EventRecord& event, NSDate start);
/// The occurrence of a series that starts at `start`.
EventRecord occurrenceOf(EventRecord series, NSDate start);

/// Whether an event lies in the range `from` to before `to`: it ends after `from`, or begins at it.
bool isInRange(const EventRecord& event, NSDate from, NSDate to);

}  // namespace quillmere

#endif
