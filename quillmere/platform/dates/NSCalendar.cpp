#include <quillmere/platform/dates/CivilTime.h>
#include <quillmere/platform/dates/NSCalendar.h>

namespace quillmere {
namespace {

using cctz::civil_day, cctz::civil_second;

std::int64_t amount(std::optional<std::int64_t> component, std::int64_t ifUndefined = 0) {
  return boundedAmount(component.value_or(ifUndefined));
}

std::optional<NSDate> dateWithinYears(const civil_second& civil, const cctz::time_zone& zone) {
  if (!isInCalendar(civil.year())) return std::nullopt;
  return dateOfCivil(civil, zone);
}

}  // namespace

NSDateComponents NSCalendar::componentsFromDate(NSDate date) const {
  const civil_second civil = cctz::convert(timePoint(date), cctzZone(zone_));
  return {civil.year(), civil.month(), civil.day(), civil.hour(), civil.minute(), civil.second()};
}

std::optional<NSDate> NSCalendar::dateFromComponents(const NSDateComponents& components) const {
  return dateWithinYears(civil_second(amount(components.year, 1), amount(components.month, 1),
                                      amount(components.day, 1), amount(components.hour),
                                      amount(components.minute), amount(components.second)),
                         cctzZone(zone_));
}

std::optional<NSDate> NSCalendar::dateByAddingComponents_toDate(const NSDateComponents& components,
                                                                NSDate date) const {
  const cctz::time_zone& zone = cctzZone(zone_);
  const civil_second start = cctz::convert(timePoint(date), zone);

  NSDate moved = date;
  const CivilDate inMonth = addYearsAndMonths({start.year(), start.month(), start.day()},
                                              amount(components.year), amount(components.month));
  const civil_day day =
      civil_day(inMonth.year, inMonth.month, inMonth.day) + amount(components.day);
  // Fields that do not move the civil day must not move the instant either: in a repeated hour the
  // date may be the second of the two.
  if (day != civil_day(start)) {
    const auto onDay = dateWithinYears(civil_second(day.year(), day.month(), day.day(),
                                                    start.hour(), start.minute(), start.second()),
                                       zone);
    if (!onDay) return std::nullopt;
    moved = NSDate::dateWithMicrosecondsSince1970(onDay->microsecondsSince1970() +
                                                  date.microsecondsOfSecond());
  }

  const std::int64_t seconds = amount(components.hour) * secondsPerHour +
                               amount(components.minute) * secondsPerMinute +
                               amount(components.second);
  moved = moved.dateByAddingSeconds(seconds);
  if (!isInCalendar(cctz::convert(timePoint(moved), zone).year())) return std::nullopt;
  return moved;
}

NSDate NSCalendar::startOfDayForDate(NSDate date) const {
  const cctz::time_zone& zone = cctzZone(zone_);
  return startOfDay(civil_day(cctz::convert(timePoint(date), zone)), zone);
}

}  // namespace quillmere
