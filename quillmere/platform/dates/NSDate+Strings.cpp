// The texts of dates: the description, the iCalendar forms and the XML (ISO 8601) form.

#include <quillmere/platform/dates/CivilTime.h>
#include <quillmere/platform/dates/NSDate.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace quillmere {
namespace {

using std::string_view;

constexpr bool isDigit(char character) { return character >= '0' && character <= '9'; }

// Takes fixed fields off the front of a text; after the first mismatch every further step fails
// too.
class FieldReader {
 public:
  explicit FieldReader(string_view text) : rest_(text) {}

  // A number of exactly `count` digits.
  int digits(std::size_t count) {
    if (rest_.size() < count || !std::all_of(rest_.begin(), rest_.begin() + count, isDigit)) {
      return fail();
    }
    int number = 0;
    for (const char digit : rest_.substr(0, count)) number = number * 10 + (digit - '0');
    rest_.remove_prefix(count);
    return number;
  }

  void literal(char character) {
    if (!skip(character)) fail();
  }

  // True when the next character was `character`, which is then taken.
  bool skip(char character) {
    if (!rest_.starts_with(character)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  // A run of one or more digits as the fraction of a second, in microseconds.
  std::int64_t fraction() {
    if (rest_.empty() || !isDigit(rest_.front())) return fail();
    std::int64_t microseconds = 0;
    std::int64_t unit = NSDate::microsecondsPerSecond;
    for (; !rest_.empty() && isDigit(rest_.front()); rest_.remove_prefix(1)) {
      unit /= 10;
      microseconds += (rest_.front() - '0') * unit;
    }
    return microseconds;
  }

  bool ended() const { return ok_ && rest_.empty(); }

 private:
  int fail() {
    ok_ = false;
    rest_ = {};
    return 0;
  }

  string_view rest_;
  bool ok_ = true;
};

// Null when a field lies outside the calendar or the clock. Second 60, a leap second, is allowed.
std::optional<cctz::civil_second> civilTime(int year, int month, int day, int hour, int minute,
                                            int second) {
  const cctz::civil_day civilDay(year, month, day);
  const bool exists = year >= 1 && civilDay.month() == month && civilDay.day() == day;
  if (!exists || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  return cctz::civil_second(year, month, day, hour, minute, second);
}

std::string formatted(const char* format, const cctz::civil_second& civil) {
  char text[64];
  const int length =
      std::snprintf(text, sizeof text, format, static_cast<long long>(civil.year()), civil.month(),
                    civil.day(), civil.hour(), civil.minute(), civil.second());
  return {text, static_cast<std::size_t>(length)};
}

// "20240105T093000Z". The form has four digits for the year: a date that lies outside is written as
// the nearest one inside, which zone offsets need at the ends ("for ever" is often 31 December
// 9999).
std::string icsText(cctz::civil_second civil) {
  civil = std::clamp(civil, cctz::civil_second(1, 1, 1, 0, 0, 0),
                     cctz::civil_second(9999, 12, 31, 23, 59, 59));
  std::string text("00000000T000000Z");
  const auto put = [&text](std::size_t at, int number) {
    text[at] = static_cast<char>('0' + number / 10);
    text[at + 1] = static_cast<char>('0' + number % 10);
  };
  const int year = static_cast<int>(civil.year());
  put(0, year / 100);
  put(2, year % 100);
  put(4, civil.month());
  put(6, civil.day());
  put(9, civil.hour());
  put(11, civil.minute());
  put(13, civil.second());
  return text;
}

}  // namespace

std::string NSDate::description() const {
  return formatted("%04lld-%02d-%02d %02d:%02d:%02d +0000", civilUTC(*this));
}

std::optional<NSDate> NSDate::initWithICSDateString(std::optional<string_view> text) {
  if (!text) return std::nullopt;
  FieldReader reader(*text);
  const int year = reader.digits(4), month = reader.digits(2), day = reader.digits(2);
  reader.literal('T');
  const int hour = reader.digits(2), minute = reader.digits(2), second = reader.digits(2);
  reader.skip('Z');
  const auto civil = civilTime(year, month, day, hour, minute, second);
  if (!reader.ended() || !civil) return std::nullopt;
  return dateOfCivil(*civil, cctz::utc_time_zone());
}

std::optional<NSDate> NSDate::initWithICSDateOnlyString(std::optional<string_view> text) {
  if (!text) return std::nullopt;
  FieldReader reader(*text);
  const int year = reader.digits(4), month = reader.digits(2), day = reader.digits(2);
  const auto midnight = civilTime(year, month, day, 0, 0, 0);
  if (!reader.ended() || !midnight) return std::nullopt;
  return startOfDay(cctz::civil_day(*midnight), cctzZone(NSTimeZone::defaultTimeZone()));
}

std::string NSDate::icsDateString() const { return icsText(civilUTC(*this)); }

std::string NSDate::icsDateOnlyString() const {
  const cctz::time_zone& zone = cctzZone(NSTimeZone::defaultTimeZone());
  constexpr std::size_t dateLength = 8;
  return icsText(cctz::convert(timePoint(*this), zone)).substr(0, dateLength);
}

std::optional<NSDate> NSDate::initWithXMLDateString(std::optional<string_view> text) {
  if (!text) return std::nullopt;
  FieldReader reader(*text);
  const int year = reader.digits(4);
  reader.literal('-');
  const int month = reader.digits(2);
  reader.literal('-');
  const int day = reader.digits(2);
  reader.literal('T');
  const int hour = reader.digits(2);
  reader.literal(':');
  const int minute = reader.digits(2);
  reader.literal(':');
  const int second = reader.digits(2);
  const std::int64_t fraction = reader.skip('.') ? reader.fraction() : 0;

  int offset = 0;  // seconds east of UTC
  if (!reader.skip('Z')) {
    const bool west = reader.skip('-');
    if (!west) reader.literal('+');
    const int hours = reader.digits(2);
    reader.literal(':');
    const int minutes = reader.digits(2);
    if (hours > 23 || minutes > 59) return std::nullopt;
    offset = (hours * 60 + minutes) * (west ? -60 : 60);
  }

  const auto civil = civilTime(year, month, day, hour, minute, second);
  if (!reader.ended() || !civil) return std::nullopt;
  const NSDate date = dateOfCivil(*civil, cctz::utc_time_zone()).dateByAddingSeconds(-offset);
  return NSDate(date.microseconds_ + fraction);
}

std::string NSDate::xmlDateString() const {
  char digits[16];
  std::snprintf(digits, sizeof digits, ".%06dZ", static_cast<int>(microsecondsOfSecond()));
  return formatted("%04lld-%02d-%02dT%02d:%02d:%02d", civilUTC(*this)) + digits;
}

}  // namespace quillmere
