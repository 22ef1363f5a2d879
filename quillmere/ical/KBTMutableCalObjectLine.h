#ifndef QUILLMERE_ICAL_KBTMUTABLECALOBJECTLINE_H
#define QUILLMERE_ICAL_KBTMUTABLECALOBJECTLINE_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/dates/NSDate.h>

#include <cstdint>
#include <string>
#include <utility>
#include <variant>

namespace quillmere {

/// A value before it is written.
using KBTMutableCalObjectValue = std::variant<std::string, NSDate, std::int64_t, double>;

/// One line that waits to be written. Immutable.
class QUILLMERE_EXPORT KBTMutableCalObjectLine {
 public:
  /// How the value is written. A line of any other type is written like one of `stringType`.
  static constexpr std::int32_t stringType = 0;
  static constexpr std::int32_t dateType = 1;
  static constexpr std::int32_t datetimeType = 2;
  static constexpr std::int32_t integerType = 3;
  static constexpr std::int32_t doubleType = 4;

  KBTMutableCalObjectLine(std::string key, KBTMutableCalObjectValue value, std::int32_t type)
      : key_(std::move(key)), value_(std::move(value)), type_(type) {}

  const std::string& key() const { return key_; }
  const KBTMutableCalObjectValue& value() const { return value_; }
  std::int32_t type() const { return type_; }

 private:
  std::string key_;
  KBTMutableCalObjectValue value_;
  std::int32_t type_;
};

}  // namespace quillmere

#endif
