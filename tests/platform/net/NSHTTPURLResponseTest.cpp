#include <gtest/gtest.h>
#include <quillmere/platform/net/NSHTTPURLResponse.h>

namespace quillmere {
namespace {

TEST(NSHTTPURLResponse, PutsStatusCodesInWords) {
  const struct {
    std::int64_t code;
    const char* text;
  } table[] = {{207, "multi-status"}, {299, "success"}, {418, "client error"},
               {599, "server error"}, {99, "unknown"},  {600, "unknown"}};
  for (const auto& [code, text] : table) {
    EXPECT_EQ(NSHTTPURLResponse::localizedStringForStatusCode(code), text) << code;
  }
}

}  // namespace
}  // namespace quillmere
