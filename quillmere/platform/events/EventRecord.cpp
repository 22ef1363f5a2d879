#include <quillmere/platform/dates/CivilTime.h>
#include <quillmere/platform/events/EventBackend.h>
#include <quillmere/platform/events/EventRecord.h>

#include <algorithm>

namespace quillmere {
namespace {

constexpr std::int64_t microsecondsPerDay = secondsPerDay * NSDate::microsecondsPerSecond;

constexpr NSDate startOfDayNumber(std::int64_t day) {
  return NSDate::dateWithMicrosecondsSince1970(day * microsecondsPerDay);
}

// `up`: midnight itself stays.
NSDate wallMidnight(NSDate wall, bool up) {
  const std::int64_t microseconds =
      wall.microsecondsSince1970() + (up ? microsecondsPerDay - 1 : 0);
  return startOfDayNumber(floorDivide(microseconds, microsecondsPerDay));
}

}  // namespace

const NSDate firstDate = startOfDayNumber(dayNumber({NSCalendar::minimumYear, 1, 2}));
const NSDate lastDate = startOfDayNumber(dayNumber({NSCalendar::maximumYear, 12, 31}));

NSTimeZone EventRecord::wallZone() const {
  return isZoned() ? *timeZone : NSTimeZone::defaultTimeZone();
}

bool EventRecord::hasTimesOf(const EventRecord& other) const {
  return start == other.start && end == other.end && isAllDay == other.isAllDay &&
         timeZone == other.timeZone;
}

NSDate dateAfter(NSDate date, std::int64_t microseconds) {
  return NSDate::dateWithMicrosecondsSince1970(date.microsecondsSince1970() + microseconds);
}

std::int64_t microsecondsBetween(NSDate from, NSDate to) {
  return to.microsecondsSince1970() - from.microsecondsSince1970();
}

NSDate wallTime(NSDate date, const NSTimeZone& zone) {
  return date.dateByAddingSeconds(zone.secondsFromGMTForDate(date));
}

NSDate dateOfWallTime(NSDate wall, const NSTimeZone& zone) {
  return dateAfter(dateOfCivil(civilUTC(wall), cctzZone(zone)), wall.microsecondsOfSecond());
}

std::int64_t lengthOf(const EventRecord& event) {
  if (!event.isAllDay) return microsecondsBetween(*event.start, *event.end);
  const NSTimeZone zone = event.wallZone();
  return microsecondsBetween(wallTime(*event.start, zone), wallTime(*event.end, zone));
}

NSDate endOfOccurrence(const EventRecord& event, NSDate start) {
  if (!event.isAllDay) return dateAfter(start, lengthOf(event));
  const NSTimeZone zone = event.wallZone();
  return dateOfWallTime(dateAfter(wallTime(start, zone), lengthOf(event)), zone);
}

EventRecord occurrenceOf(EventRecord series, NSDate start) {
  series.end = endOfOccurrence(series, start);
  series.start = series.occurrenceDate = start;
  return series;
}

bool isInRange(const EventRecord& event, NSDate from, NSDate to) {
  return *event.start < to && (*event.end > from || *event.start >= from);
}

void normalizeTimes(EventRecord& event) {
  if (!event.start) throw EventError(EKErrorNoStartDate, "The event has no start.");
  if (!event.end) event.end = event.start;
  if (*event.end < *event.start) {
    throw EventError(EKErrorDatesInverted, "The event ends before it starts.");
  }
  if (*event.start < firstDate || *event.end >= lastDate) {
    throw EventError(EKErrorStartDateTooFarInFuture,
                     "The event lies outside the years of the calendar.");
  }
  if (!event.isAllDay) return;
  const NSTimeZone zone = event.wallZone();
  const NSDate first = wallMidnight(wallTime(*event.start, zone), false);
  const NSDate last = wallMidnight(wallTime(*event.end, zone), true);
  event.start = dateOfWallTime(first, zone);
  event.end = dateOfWallTime(std::max(last, dateAfter(first, microsecondsPerDay)), zone);
}

void requireChangeOfOneOccurrence(const EventRecord& original, const EventRecord& edited) {
  if (edited.recurrenceRule != original.recurrenceRule || edited.calendar != original.calendar ||
      edited.exceptionDates != original.exceptionDates) {
    throw EventError(EKErrorInvalidSpan,
                     "One occurrence cannot have a rule, exceptions or a calendar of its own.");
  }
}

EventRecord merged(const EventRecord& original, const EventRecord& edited, EventRecord current) {
  const auto take = [&](auto EventRecord::*field) {
    if (edited.*field != original.*field) current.*field = edited.*field;
  };
  take(&EventRecord::calendar);
  take(&EventRecord::title);
  take(&EventRecord::notes);
  take(&EventRecord::recurrenceRule);
  take(&EventRecord::exceptionDates);
  take(&EventRecord::alarms);
  if (!edited.hasTimesOf(original)) {
    current.start = edited.start;
    current.end = edited.end;
    current.isAllDay = edited.isAllDay;
    current.timeZone = edited.timeZone;
  }
  return current;
}

}  // namespace quillmere
