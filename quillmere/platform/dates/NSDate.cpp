#include <quillmere/platform/dates/NSDate.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <ostream>

namespace quillmere {
namespace {

using Limits = std::numeric_limits<std::int64_t>;

}  // namespace

NSDate NSDate::dateWithTimeIntervalSince1970(double seconds) {
  const double microseconds = std::round(seconds * static_cast<double>(microsecondsPerSecond));
  // 2^63 itself is representable as a double, the largest 64-bit integer is not.
  constexpr double limit = 9223372036854775808.0;
  if (std::isnan(microseconds)) return NSDate(0);
  if (microseconds >= limit) return NSDate(Limits::max());
  if (microseconds < -limit) return NSDate(Limits::min());
  return NSDate(static_cast<std::int64_t>(microseconds));
}

NSDate NSDate::date() {
  using std::chrono::duration_cast, std::chrono::microseconds, std::chrono::system_clock;
  return NSDate(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

double NSDate::timeIntervalSince1970() const {
  return static_cast<double>(microseconds_) / static_cast<double>(microsecondsPerSecond);
}

NSDate NSDate::dateByAddingSeconds(std::int64_t seconds) const {
  __extension__ using Wide = __int128;
  const Wide sum = static_cast<Wide>(seconds) * microsecondsPerSecond + microseconds_;
  return NSDate(static_cast<std::int64_t>(
      std::clamp(sum, static_cast<Wide>(Limits::min()), static_cast<Wide>(Limits::max()))));
}

std::ostream& operator<<(std::ostream& stream, NSDate date) {
  return stream << date.xmlDateString();
}

}  // namespace quillmere
