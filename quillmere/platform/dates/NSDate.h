#ifndef QUILLMERE_PLATFORM_DATES_NSDATE_H
#define QUILLMERE_PLATFORM_DATES_NSDATE_H

#include <quillmere/platform/base/Export.h>

#include <chrono>
#include <compare>  // IWYU pragma: keep
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace quillmere {

/// An instant: microseconds since 1 January 1970, 00:00 UTC, without leap seconds. It has no zone;
/// what day it is, `NSCalendar` tells.
class QUILLMERE_EXPORT NSDate {
 public:
  static constexpr std::int64_t microsecondsPerSecond = 1'000'000;

  static constexpr NSDate dateWithMicrosecondsSince1970(std::int64_t microseconds) {
    return NSDate(microseconds);
  }
  /// The same instant: system time, too, counts from 1970 UTC without leap seconds.
  static constexpr NSDate dateWithSysTime(std::chrono::sys_time<std::chrono::microseconds> time) {
    return NSDate(time.time_since_epoch().count());
  }
  /// Seconds since 1970, rounded to microseconds. Beyond what 64 bits hold it stays at the end of
  /// the range; a NaN is 1970.
  static NSDate dateWithTimeIntervalSince1970(double seconds);
  /// The present instant.
  static NSDate date();

  constexpr std::int64_t microsecondsSince1970() const { return microseconds_; }
  constexpr std::chrono::sys_time<std::chrono::microseconds> sysTime() const {
    return std::chrono::sys_time<std::chrono::microseconds>(
        std::chrono::microseconds(microseconds_));
  }
  /// Whole seconds since 1970, rounded down.
  constexpr std::int64_t secondsSince1970() const {
    const std::int64_t seconds = microseconds_ / microsecondsPerSecond;
    return microseconds_ % microsecondsPerSecond < 0 ? seconds - 1 : seconds;
  }
  /// The rest of the instant after that second, 0 to 999999.
  constexpr std::int64_t microsecondsOfSecond() const {
    const std::int64_t rest = microseconds_ % microsecondsPerSecond;
    return rest < 0 ? rest + microsecondsPerSecond : rest;
  }
  double timeIntervalSince1970() const;

  /// The instant `seconds` later (earlier when negative); stays at the end of the range beyond it.
  NSDate dateByAddingSeconds(std::int64_t seconds) const;

  friend constexpr auto operator<=>(NSDate, NSDate) = default;

  /// "2024-01-05 09:30:00 +0000": in UTC, the fraction of the second left out. For local
  /// time, ask `NSCalendar::currentCalendar().componentsFromDate`.
  std::string description() const;

  /// Parses a DATE-TIME (RFC 5545 section 3.3.5) as UTC: eight digits, "T", six digits and an
  /// optional "Z", e.g. "20240105T093000Z". Text without "Z" is read as UTC as well. Second 60 is
  /// the next minute's 0. Null for null, for any other text, and for a day or time that does not
  /// exist.
  static std::optional<NSDate> initWithICSDateString(std::optional<std::string_view> text);
  /// Parses a DATE (RFC 5545 section 3.3.4), e.g. "20240105": the start of that day in the default
  /// zone. Null for null, for any other text, and for a day that does not exist.
  static std::optional<NSDate> initWithICSDateOnlyString(std::optional<std::string_view> text);
  /// The UTC DATE-TIME form, "20240105T093000Z". It has four digits for the year, so a date outside
  /// the years 1 to 9999 is written as the nearest one inside.
  std::string icsDateString() const;
  /// The DATE form, "20240105", of the date's day in the default zone.
  std::string icsDateOnlyString() const;

  /// Parses an ISO 8601 date-time with a zone: "2024-01-05T09:30:00.25Z",
  /// "2024-01-05T10:30:00+01:00". Any number of fraction digits is taken, those after the sixth
  /// count nothing. Null for null and for any other text.
  static std::optional<NSDate> initWithXMLDateString(std::optional<std::string_view> text);
  /// The ISO 8601 UTC form with all six fraction digits, "2024-01-05T09:30:00.250000Z". In the
  /// years 1 to 9999 parsing it gives the same date.
  std::string xmlDateString() const;

 private:
  explicit constexpr NSDate(std::int64_t microseconds) : microseconds_(microseconds) {}

  std::int64_t microseconds_;
};

/// Writes `xmlDateString()`, "2024-01-05T09:30:00.250000Z": in UTC, as RFC 3339 has it.
QUILLMERE_EXPORT std::ostream& operator<<(std::ostream& stream, NSDate date);

}  // namespace quillmere

#endif
