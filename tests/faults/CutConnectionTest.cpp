#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/faults/SyncRun.h"
#include "tests/support/CuttingProxy.h"

// A whole run of a host whose connection ends after so many bytes, and a run after it that comes
// through. Every n-th byte is tried; QUILLMERE_CUT_STEP=1 tries all.

namespace quillmere {
namespace {

using testing::CuttingProxy, testing::expectAgreement, testing::Host, testing::Server;

// How many bytes a run without a cut takes.
std::size_t bytesOfARun(CuttingProxy::Direction direction) {
  Server server;
  CuttingProxy proxy(server.port());
  const auto host = std::make_shared<Host>();
  host->run(proxy.url("/"));
  expectAgreement(*host, server);
  return proxy.passed(direction);
}

class CutConnection : public ::testing::TestWithParam<CuttingProxy::Direction> {};

TEST_P(CutConnection, HasOneOutcomeAndTheNextRunRecovers) {
  constexpr std::size_t usualStep = 43;
  const char* const wanted = std::getenv("QUILLMERE_CUT_STEP");
  const std::size_t step = wanted ? std::strtoul(wanted, nullptr, 10) : usualStep;
  const std::size_t bytes = bytesOfARun(GetParam());
  ASSERT_GT(bytes, 1000U);
  for (std::size_t n = 1; n <= bytes; n += step) {
    SCOPED_TRACE("cut after byte " + std::to_string(n) + " of " + std::to_string(bytes));
    Server server;
    CuttingProxy proxy(server.port());
    const auto host = std::make_shared<Host>();
    proxy.cutAfter(n, GetParam());
    host->run(proxy.url("/"));
    EXPECT_TRUE(proxy.hasCut());
    host->run(proxy.url("/"));
    expectAgreement(*host, server);
    if (HasFailure()) break;
  }
}

INSTANTIATE_TEST_SUITE_P(, CutConnection,
                         ::testing::Values(CuttingProxy::Direction::toServer,
                                           CuttingProxy::Direction::toClient),
                         [](const auto& tested) {
                           return tested.param == CuttingProxy::Direction::toServer
                                      ? "OnTheWayOut"
                                      : "OnTheWayBack";
                         });

}  // namespace
}  // namespace quillmere
