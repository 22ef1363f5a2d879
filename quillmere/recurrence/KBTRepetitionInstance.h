#ifndef QUILLMERE_RECURRENCE_KBTREPETITIONINSTANCE_H
#define QUILLMERE_RECURRENCE_KBTREPETITIONINSTANCE_H

#include <quillmere/platform/base/Export.h>

#include <cstdint>

namespace quillmere {

/// One occurrence of a recurrence rule, as calendar fields in the zone that was the default when it
/// was made. A plain record, passed by value. It means something only to the rule that made it.
/// Requires: whoever fills one in by hand names a day, a weekday and a month that exist, and the
/// month's length.
struct QUILLMERE_EXPORT KBTRepetitionInstance {
  std::int64_t occurrence = 0;  ///< its number in the series, 0 for the first
  std::uint8_t second = 0;
  std::uint8_t minute = 0;
  std::uint8_t hour = 0;
  std::uint8_t day = 0;          ///< 1 to 31; 0 is the end marker: there is no such occurrence
  std::uint8_t weekday = 0;      ///< 0 Sunday to 6 Saturday; of MINUTELY and HOURLY rules see below
  std::uint8_t month = 0;        ///< 1 to 12
  std::uint8_t daysInMonth = 0;  ///< the length of `month` in `year`
  std::int64_t year = 0;

  // After the first one, the instances of MINUTELY and HOURLY rules carry 1 Sunday to 7 Saturday in
  // `weekday`. That is intended: it has always been so, and those rules never read it.

  friend bool operator==(const KBTRepetitionInstance&, const KBTRepetitionInstance&) = default;
};

}  // namespace quillmere

#endif
