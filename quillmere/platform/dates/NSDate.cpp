#include <quillmere/platform/dates/NSDate.h>

#include <chrono>
#include <cmath>
#include <limits>

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
  std::int64_t added = 0;
  if (__builtin_mul_overflow(seconds, microsecondsPerSecond, &added) ||
      __builtin_add_overflow(microseconds_, added, &added)) {
    return NSDate(seconds < 0 ? Limits::min() : Limits::max());
  }
  return NSDate(added);
}

}  // namespace quillmere
