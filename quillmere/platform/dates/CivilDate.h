#ifndef QUILLMERE_PLATFORM_DATES_CIVILDATE_H
#define QUILLMERE_PLATFORM_DATES_CIVILDATE_H

#include <quillmere/platform/dates/NSCalendar.h>

#include <algorithm>
#include <chrono>
#include <compare>
#include <cstdint>
#include <limits>

// Internal: arithmetic on days of the calendar, without zones. It takes the standard library's,
// whose years fit 16 bits, on from there: the calendar is the same every 400 years.
namespace quillmere {

inline constexpr std::int64_t secondsPerMinute = 60;
inline constexpr std::int64_t secondsPerHour = 60 * secondsPerMinute;
inline constexpr std::int64_t secondsPerDay = 24 * secondsPerHour;

inline constexpr std::int64_t yearsPerCycle = 400;
inline constexpr std::int64_t daysPerCycle = 146'097;

struct CivilDate {
  std::int64_t year;
  int month;  // 1 to 12
  int day;    // 1 to 31

  friend auto operator<=>(const CivilDate&, const CivilDate&) = default;
};

constexpr bool isInCalendar(std::int64_t year) {
  return year >= NSCalendar::minimumYear && year <= NSCalendar::maximumYear;
}

/// An amount of any calendar unit, held so far from the ends of 64 bits that arithmetic on it
/// cannot overflow, and so far beyond the calendar that it does not matter.
constexpr std::int64_t boundedAmount(std::int64_t amount) {
  constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max() / 1'000'000;
  return std::clamp(amount, -largest, largest);
}

/// The product of two amounts that are positive, held within the same bounds.
constexpr std::int64_t boundedProduct(std::int64_t a, std::int64_t b) {
  constexpr std::int64_t largest = boundedAmount(std::numeric_limits<std::int64_t>::max());
  return a > largest / b ? largest : a * b;
}

/// Rounds down; `divisor` is positive.
constexpr std::int64_t floorDivide(std::int64_t number, std::int64_t divisor) {
  return number / divisor - (number % divisor < 0 ? 1 : 0);
}

/// Days since 1970.
constexpr std::int64_t dayNumber(const CivilDate& date) {
  using namespace std::chrono;
  const std::int64_t cycle = floorDivide(date.year, yearsPerCycle);
  const year_month_day inCycle(year(static_cast<int>(date.year - cycle * yearsPerCycle)),
                               month(static_cast<unsigned>(date.month)),
                               day(static_cast<unsigned>(date.day)));
  return sys_days(inCycle).time_since_epoch().count() + cycle * daysPerCycle;
}

constexpr CivilDate civilDate(std::int64_t dayNumber) {
  using namespace std::chrono;
  const std::int64_t cycle = floorDivide(dayNumber, daysPerCycle);
  const year_month_day inCycle{sys_days(days(static_cast<int>(dayNumber - cycle * daysPerCycle)))};
  return {int{inCycle.year()} + cycle * yearsPerCycle, static_cast<int>(unsigned{inCycle.month()}),
          static_cast<int>(unsigned{inCycle.day()})};
}

/// 0 Sunday to 6 Saturday.
constexpr int weekdayOf(std::int64_t dayNumber) {
  constexpr int daysPerWeek = 7;
  constexpr int thursday = 4;  // 1 January 1970
  return static_cast<int>(thursday + dayNumber -
                          floorDivide(thursday + dayNumber, daysPerWeek) * daysPerWeek);
}

/// `month` is 1 to 12.
constexpr int daysInMonth(std::int64_t year, int month) {
  constexpr int lengths[] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool isLeapYear = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  return lengths[month] + (month == 2 && isLeapYear ? 1 : 0);
}

/// The same day so many months on; past that month's end its last day.
constexpr CivilDate addMonths(const CivilDate& date, std::int64_t months) {
  constexpr int monthsPerYear = 12;
  const std::int64_t count = date.year * monthsPerYear + date.month - 1 + boundedAmount(months);
  const std::int64_t year = floorDivide(count, monthsPerYear);
  const int month = static_cast<int>(count - year * monthsPerYear) + 1;
  return {year, month, std::min(date.day, daysInMonth(year, month))};
}

/// So many years on and then so many months, each of them as above.
constexpr CivilDate addYearsAndMonths(const CivilDate& date, std::int64_t years,
                                      std::int64_t months) {
  return addMonths(years == 0 ? date : addMonths(date, 12 * boundedAmount(years)), months);
}

}  // namespace quillmere

#endif
