#ifndef QUILLMERE_PLATFORM_DATES_CIVILTIME_H
#define QUILLMERE_PLATFORM_DATES_CIVILTIME_H

#include <quillmere/platform/dates/CivilDate.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/dates/NSTimeZone.h>

#include <cstdint>

#include <cctz/civil_time.h>
#include <cctz/time_zone.h>

// Internal: the one bridge between the date classes and the library beneath them.
namespace quillmere {

/// The zone that an `NSTimeZone` stands for.
const cctz::time_zone& cctzZone(const NSTimeZone& zone);

/// The zone of `NSTimeZone::defaultTimeZone()`, good until the host sets another. To ask for it
/// costs nothing, which copying the `NSTimeZone` does.
const cctz::time_zone& cctzDefaultZone();

inline cctz::time_point<cctz::seconds> timePoint(NSDate date) {
  return cctz::time_point<cctz::seconds>(cctz::seconds(date.secondsSince1970()));
}

inline NSDate dateAt(cctz::time_point<cctz::seconds> point) {
  return NSDate::dateWithMicrosecondsSince1970(0).dateByAddingSeconds(
      point.time_since_epoch().count());
}

/// The civil time of `date` in UTC.
inline cctz::civil_second civilUTC(NSDate date) {
  const std::int64_t day = floorDivide(date.secondsSince1970(), secondsPerDay);
  const CivilDate civil = civilDate(day);
  return cctz::civil_second(civil.year, civil.month, civil.day, 0, 0,
                            date.secondsSince1970() - day * secondsPerDay);
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
