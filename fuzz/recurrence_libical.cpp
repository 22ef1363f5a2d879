// Random rules, chosen by the bytes, expanded here and by libical.

#include <algorithm>
#include <cstring>
#include <iostream>

#include "fuzz/Fuzzing.h"
#include "tests/support/LibicalRules.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  std::uint64_t seed = 0;
  if (count > 0) std::memcpy(&seed, bytes, std::min(count, sizeof seed));
  const std::string difference = quillmere::testing::differenceFromLibical(seed);
  if (!difference.empty()) std::cerr << difference << '\n';
  quillmere::fuzzing::require(difference.empty(), "libical gives the same occurrences");
  return 0;
}
