#ifndef QUILLMERE_PLATFORM_DATES_NSCALENDAR_H
#define QUILLMERE_PLATFORM_DATES_NSCALENDAR_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/dates/NSDateComponents.h>
#include <quillmere/platform/dates/NSTimeZone.h>

#include <cstdint>
#include <optional>
#include <utility>

namespace quillmere {

/// The proleptic Gregorian calendar in one time zone: turns instants into civil fields and back,
/// and adds fields to instants. The dates it makes lie in the years 1 to 144683.
///
/// A wall time that a change to daylight saving skips moves forward by the gap, of a repeated one
/// the first is meant. In America/New_York, 10 March 2024, 02:30 is 03:30 (07:30 UTC), and 3
/// November 2024, 01:30 is the one at 05:30 UTC.
class QUILLMERE_EXPORT NSCalendar {
 public:
  static constexpr std::int64_t minimumYear = 1;
  static constexpr std::int64_t maximumYear = 144683;

  explicit NSCalendar(NSTimeZone zone) : zone_(std::move(zone)) {}

  /// The calendar in the default zone of this moment.
  static NSCalendar currentCalendar() { return NSCalendar(NSTimeZone::defaultTimeZone()); }

  const NSTimeZone& timeZone() const { return zone_; }

  /// Year, month, day, hour, minute and second of `date`, all of them defined.
  NSDateComponents componentsFromDate(NSDate date) const;

  /// The instant of the given fields. Undefined ones count as the first of their kind (year 1,
  /// month 1, day 1, 0 o'clock); ones beyond their range carry over into the next larger, so that
  /// day 0 is the day before the first. Null when the result lies outside the calendar's years.
  std::optional<NSDate> dateFromComponents(const NSDateComponents& components) const;

  /// `date` and so much time; undefined components add nothing. The largest come first: years, then
  /// months (after each, a day past the month's end becomes its last, so 29 February 2024 and one
  /// year and one month is 28 March 2025), then days, all in wall time; then hours, minutes and
  /// seconds as elapsed time. Null when the result lies outside the calendar's years.
  std::optional<NSDate> dateByAddingComponents_toDate(const NSDateComponents& components,
                                                      NSDate date) const;

  /// The first instant of the day that `date` lies in: midnight, or the end of the gap that a
  /// change to daylight saving puts in its place.
  NSDate startOfDayForDate(NSDate date) const;

 private:
  NSTimeZone zone_;
};

}  // namespace quillmere

#endif
