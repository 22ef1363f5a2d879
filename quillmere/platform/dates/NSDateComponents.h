#ifndef QUILLMERE_PLATFORM_DATES_NSDATECOMPONENTS_H
#define QUILLMERE_PLATFORM_DATES_NSDATECOMPONENTS_H

#include <quillmere/platform/base/Export.h>

#include <cstdint>
#include <optional>

namespace quillmere {

/// Calendar fields: of a date, or an amount of time to add to one. A component that was never set
/// is undefined, which is not zero.
struct QUILLMERE_EXPORT NSDateComponents {
  std::optional<std::int64_t> year;
  std::optional<std::int64_t> month;
  std::optional<std::int64_t> day;
  std::optional<std::int64_t> hour;
  std::optional<std::int64_t> minute;
  std::optional<std::int64_t> second;

  friend bool operator==(const NSDateComponents&, const NSDateComponents&) = default;
};

}  // namespace quillmere

#endif
