#include "Arguments.h"

#include <algorithm>
#include <charconv>
#include <string>

#include "Program.h"

namespace examples {
namespace {

using quillmere::NSDate;
using std::string_view;

// Whether `text` is laid out as `pattern`, in which every "0" stands for a digit.
bool hasForm(string_view text, string_view pattern) {
  return std::equal(text.begin(), text.end(), pattern.begin(), pattern.end(),
                    [](char c, char p) { return p == '0' ? c >= '0' && c <= '9' : c == p; });
}

}  // namespace

TypedTime parseTime(string_view text) {
  const bool isDay = hasForm(text, "0000-00-00");
  if (isDay || hasForm(text, "0000-00-00T00:00")) {
    std::string digits(text);
    std::erase_if(digits, [](char c) { return c == '-' || c == ':'; });
    const auto date = NSDate::initWithICSDateString(digits + (isDay ? "T000000" : "00"));
    if (date) return {*date, isDay};
  }
  throw UsageProblem("\"" + std::string(text) +
                     "\" is neither a day (2024-05-31) nor a time (2024-05-31T17:00)");
}

TypedTime parseDay(string_view text) {
  const TypedTime time = parseTime(text);
  if (!time.isDay) throw UsageProblem("\"" + std::string(text) + "\" is not a day (2024-05-31)");
  return time;
}

std::int64_t parseNumber(string_view text, std::int64_t maximum) {
  std::int64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = result.ec == std::errc() && result.ptr == text.data() + text.size();
  if (!isNumber || number < 1 || number > maximum) {
    throw UsageProblem("\"" + std::string(text) + "\" is not a number from 1 to " +
                       std::to_string(maximum));
  }
  return number;
}

}  // namespace examples
