#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "tests/support/SyncModel.h"

namespace quillmere {
namespace {

TEST(KBTDavCalendarModel, RandomSequencesBehaveAsTheModelSays) {
  constexpr unsigned sequences = 1'000;
  constexpr unsigned steps = 14;
  testing::ScriptedServer server;
  for (unsigned seed = 0; seed < sequences; ++seed) {
    std::mt19937 engine(seed);
    const auto difference = testing::differenceFromSyncModel(
        server, steps, [&](unsigned bound) { return static_cast<unsigned>(engine()) % bound; });
    ASSERT_EQ(difference, "") << "seed " << seed;
  }
}

}  // namespace
}  // namespace quillmere
