#ifndef EXAMPLES_COMMON_ARGUMENTS_H
#define EXAMPLES_COMMON_ARGUMENTS_H

#include <quillmere/platform/dates/NSDate.h>

#include <cstdint>
#include <string_view>

// Reads what people write behind an option. Each function throws UsageProblem if the text is wrong.
namespace examples {

/// A day ("2024-05-31") or a time ("2024-05-31T17:00").
struct TypedTime {
  quillmere::NSDate date;  ///< when clocks in UTC show it
  bool isDay;
};

TypedTime parseTime(std::string_view text);

/// Takes only a day.
TypedTime parseDay(std::string_view text);

/// Takes a number from 1 to `maximum`.
std::int64_t parseNumber(std::string_view text, std::int64_t maximum);

}  // namespace examples

#endif
