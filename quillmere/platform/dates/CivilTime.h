#ifndef QUILLMERE_PLATFORM_DATES_CIVILTIME_H
#define QUILLMERE_PLATFORM_DATES_CIVILTIME_H

#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/dates/NSTimeZone.h>

#include <chrono>

#include <cctz/civil_time.h>
#include <cctz/time_zone.h>

// Internal: the one bridge between the date classes and the library beneath them.
namespace quillmere {

/// The zone that an `NSTimeZone` stands for.
const cctz::time_zone& cctzZone(const NSTimeZone& zone);

inline cctz::time_point<cctz::seconds> timePoint(NSDate date) {
  return cctz::time_point<cctz::seconds>(cctz::seconds(date.secondsSince1970()));
}

inline NSDate dateAt(cctz::time_point<cctz::seconds> point) {
  return NSDate::dateWithMicrosecondsSince1970(0).dateByAddingSeconds(
      point.time_since_epoch().count());
}

/// The civil time of `date` in UTC.
inline cctz::civil_second civilUTC(NSDate date) {
  return cctz::convert(timePoint(date), cctz::utc_time_zone());
}

/// The instant of a civil time. A time that a change to daylight saving skips moves forward by the
/// gap, of a repeated one the first is taken: both are what the offset before the change gives.
inline NSDate dateOfCivil(const cctz::civil_second& civil, const cctz::time_zone& zone) {
  return dateAt(zone.lookup(civil).pre);
}

}  // namespace quillmere

#endif
