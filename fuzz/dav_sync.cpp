// Changes on both sides of a CalDAV calendar, operations and failures, chosen by the bytes, compared
// with a plain model.

#include "fuzz/Fuzzing.h"
#include "tests/support/SyncModel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  using namespace quillmere;
  constexpr unsigned mostSteps = 40;
  testing::ScriptedServer server;
  std::size_t at = 0;
  const auto random = [&](unsigned bound) { return at < count ? bytes[at++] % bound : bound - 1; };
  const unsigned steps = random(mostSteps);
  const std::string difference = testing::differenceFromSyncModel(server, steps, random);
  if (!difference.empty()) std::cerr << difference << '\n';
  fuzzing::require(difference.empty(), "the calendar does what the model does");
  return 0;
}
