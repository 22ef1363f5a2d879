#include <gtest/gtest.h>
#include <quillmere/platform/net/NSHTTPURLResponse.h>

namespace quillmere {
namespace {

TEST(NSHTTPURLResponse, PutsStatusCodesInWords) {
  const struct {
    std::int64_t code;
    const char* text;
  } table[] = {{100, "continue"},
               {199, "informational"},
               {207, "multi-status"},
               {226, "im used"},
               {299, "success"},
               {308, "permanent redirect"},
               {399, "redirected"},
               {412, "precondition failed"},
               {418, "client error"},
               {423, "locked"},
               {511, "network authentication required"},
               {599, "server error"},
               {99, "unknown"},
               {600, "unknown"}};
  for (const auto& [code, text] : table) {
    EXPECT_EQ(NSHTTPURLResponse::localizedStringForStatusCode(code), text) << code;
  }
}

TEST(NSHTTPURLResponse, ReadsTheLength) {
  const std::pair<const char*, std::uint64_t> table[] = {{"content-LENGTH", 12}, {"Length", 0}};
  for (const auto& [name, length] : table) {
    const auto response = NSHTTPURLResponse::initWithURL_statusCode_HTTPVersion_headerFields(
        NSURL::URLWithString("http://h/").value(), 200, "HTTP/2", {{name, "12"}});
    EXPECT_EQ(response->expectedContentLength(), length) << name;
  }
}

}  // namespace
}  // namespace quillmere
