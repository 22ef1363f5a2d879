#ifndef QUILLMERE_PLATFORM_DATES_CIVILTIME_H
#define QUILLMERE_PLATFORM_DATES_CIVILTIME_H

#include <quillmere/platform/dates/NSCalendar.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/dates/NSTimeZone.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>

#include <cctz/civil_time.h>
#include <cctz/time_zone.h>

// Internal: the one bridge between the date classes and the library beneath them.
namespace quillmere {

/// The zone that an `NSTimeZone` stands for.
const cctz::time_zone& cctzZone(const NSTimeZone& zone);

/// The zone of `NSTimeZone::defaultTimeZone()`, good until the host sets another. To ask for it
/// costs nothing, which copying the `NSTimeZone` does.
const cctz::time_zone& cctzDefaultZone();

/// An amount of any calendar unit, held so far from the ends of 64 bits that arithmetic on it cannot
/// overflow, and so far beyond the calendar that it does not matter.
inline std::int64_t boundedAmount(std::int64_t amount) {
  constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max() / 1'000'000;
  return std::clamp(amount, -largest, largest);
}

inline bool isInCalendar(cctz::year_t year) {
  return year >= NSCalendar::minimumYear && year <= NSCalendar::maximumYear;
}

/// `month` is 1 to 12.
inline int daysInMonth(cctz::year_t year, int month) {
  constexpr int lengths[] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool isLeapYear = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  return lengths[month] + (month == 2 && isLeapYear ? 1 : 0);
}

/// The same day so many months on; past that month's end its last day.
inline cctz::civil_day addMonths(cctz::civil_day day, std::int64_t months) {
  const cctz::civil_month month = cctz::civil_month(day) + months;
  return cctz::civil_day(month.year(), month.month(),
                         std::min(day.day(), daysInMonth(month.year(), month.month())));
}

/// So many years on and then so many months, each of them as above.
inline cctz::civil_day addYearsAndMonths(cctz::civil_day day, std::int64_t years,
                                         std::int64_t months) {
  if (years != 0) day = addMonths(day, 12 * boundedAmount(years));
  return addMonths(day, boundedAmount(months));
}

inline cctz::time_point<cctz::seconds> timePoint(NSDate date) {
  return cctz::time_point<cctz::seconds>(cctz::seconds(date.secondsSince1970()));
}

inline NSDate dateAt(cctz::time_point<cctz::seconds> point) {
  return NSDate::dateWithMicrosecondsSince1970(0).dateByAddingSeconds(
      point.time_since_epoch().count());
}

/// The civil time of `date` in UTC.
inline cctz::civil_second civilUTC(NSDate date) {
  using namespace std::chrono;
  const sys_seconds instant{seconds(date.secondsSince1970())};
  const auto day = floor<days>(instant);
  // The standard's calendar is quicker by far, but ends where the year no longer fits 16 bits.
  if (day < sys_days(year::min() / January / 1) || day > sys_days(year::max() / December / 31)) {
    return cctz::convert(timePoint(date), cctz::utc_time_zone());
  }
  const year_month_day civil(day);
  const hh_mm_ss time(instant - day);
  return cctz::civil_second(int{civil.year()}, unsigned{civil.month()}, unsigned{civil.day()},
                            time.hours().count(), time.minutes().count(), time.seconds().count());
}

/// The instant of a civil time. A time that a change to daylight saving skips moves forward by the
/// gap, of a repeated one the first is taken: both are what the offset before the change gives.
inline NSDate dateOfCivil(const cctz::civil_second& civil, const cctz::time_zone& zone) {
  return dateAt(zone.lookup(civil).pre);
}

/// The first instant of a day: midnight, or the end of the gap that midnight lies in.
inline NSDate startOfDay(cctz::civil_day day, const cctz::time_zone& zone) {
  const auto midnight = zone.lookup(cctz::civil_second(day));
  const bool skipped = midnight.kind == cctz::time_zone::civil_lookup::SKIPPED;
  return dateAt(skipped ? midnight.trans : midnight.pre);
}

}  // namespace quillmere

#endif
