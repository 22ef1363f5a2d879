#include <gtest/gtest.h>

#include "tests/support/LibicalRules.h"

namespace quillmere {
namespace {

TEST(LibicalComparison, TenThousandRulesGiveTheSameOccurrences) {
  for (std::uint64_t seed = 0; seed < 10'000; ++seed) {
    ASSERT_EQ(testing::differenceFromLibical(seed), "") << "seed " << seed;
  }
}

}  // namespace
}  // namespace quillmere
