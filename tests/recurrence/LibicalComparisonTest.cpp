#include <gtest/gtest.h>

#include "tests/support/LibicalRules.h"

namespace quillmere {
namespace {

TEST(LibicalComparison, TenThousandRulesGiveTheSameOccurrences) {
  int differences = 0;
  for (std::uint64_t seed = 0; seed < 10'000 && differences < 10; ++seed) {
    const std::string difference = testing::differenceFromLibical(seed);
    EXPECT_EQ(difference, "") << "seed " << seed;
    differences += difference.empty() ? 0 : 1;
  }
}

}  // namespace
}  // namespace quillmere
