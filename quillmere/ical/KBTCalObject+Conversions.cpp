// Dates and durations as iCalendar text, and back.

#include <quillmere/ical/KBTCalObject.h>

#include <cstdint>

namespace quillmere {
namespace {

using std::string_view;

// Appends a digit to a number that wraps around at 32 bits.
std::int32_t appendDigit(std::int32_t number, char digit) {
  const auto appended =
      static_cast<std::uint32_t>(number) * 10U + static_cast<std::uint32_t>(digit - '0');
  return static_cast<std::int32_t>(appended);
}

}  // namespace

std::optional<NSDate> KBTCalObject::zuluStringAsDate(std::optional<string_view> text) {
  return NSDate::initWithICSDateString(text);
}

std::optional<NSDate> KBTCalObject::dateOnlyStringAsDate(std::optional<string_view> text) {
  return NSDate::initWithICSDateOnlyString(text);
}

std::string KBTCalObject::datetimeAsZuluString(NSDate date) { return date.icsDateString(); }

std::string KBTCalObject::dateAsZuluString(NSDate date) { return date.icsDateOnlyString(); }

std::optional<NSDateComponents> KBTCalObject::icalDurationAsDateComponents(
    std::optional<string_view> text) {
  if (!text || !(text->starts_with('P') || text->starts_with('p'))) return std::nullopt;

  NSDateComponents components;
  std::int32_t number = 0;
  bool inTime = false;
  for (const char character : text->substr(1)) {
    if (character >= '0' && character <= '9') {
      number = appendDigit(number, character);
      continue;
    }
    switch (character) {
      case 'Y':
      case 'y':
        components.year = number;
        break;
      case 'M':
      case 'm':
        (inTime ? components.minute : components.month) = number;
        break;
      case 'D':
      case 'd':
        components.day = number;
        break;
      case 'T':
      case 't':
        inTime = true;
        break;
      case 'H':
      case 'h':
        components.hour = number;
        break;
      case 'S':
      case 's':
        components.second = number;
        break;
      default:  // weeks, signs and anything unknown set nothing
        break;
    }
    number = 0;
  }
  return components;
}

}  // namespace quillmere
