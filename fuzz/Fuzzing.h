#ifndef QUILLMERE_FUZZ_FUZZING_H
#define QUILLMERE_FUZZ_FUZZING_H

#include <quillmere/platform/base/NSData.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string_view>

namespace quillmere::fuzzing {

/// The input as text bytes.
inline std::string_view viewOf(const std::uint8_t* bytes, std::size_t count) {
  return {reinterpret_cast<const char*>(bytes), count};
}

/// Aborts, after telling what, where a property does not hold.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "property violated: " << what << '\n';
  std::abort();
}

}  // namespace quillmere::fuzzing

#endif
