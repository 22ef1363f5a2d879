// What would let other tests pass though nothing was tried: what each step does is seen by the tests
// of the session.

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "tests/support/CurlClient.h"
#include "tests/support/RawServer.h"

namespace quillmere::testing {
namespace {

TEST(RawServer, ReportsConnectionsMissingAndTooMany) {
  EXPECT_NONFATAL_FAILURE(RawServer().play({}), "connection 1 was never made");
  EXPECT_NONFATAL_FAILURE(
      {
        RawServer none;
        EXPECT_NE(CurlClient().perform("GET", none.url("/")).code, CURLE_OK);
      },
      "a connection more than the 0 listed");
}

}  // namespace
}  // namespace quillmere::testing
