#ifndef QUILLMERE_TESTS_SUPPORT_SCOPEDTIMEZONE_H
#define QUILLMERE_TESTS_SUPPORT_SCOPEDTIMEZONE_H

#include <quillmere/platform/dates/NSTimeZone.h>

#include <string_view>

namespace quillmere::testing {

/// Makes a zone the default for the length of a scope.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(std::string_view name) {
    NSTimeZone::setDefaultTimeZone(NSTimeZone::timeZoneWithName(name).value());
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;
  ~ScopedTimeZone() { NSTimeZone::setDefaultTimeZone(std::nullopt); }
};

}  // namespace quillmere::testing

#endif
