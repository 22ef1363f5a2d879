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

TEST(NSHTTPURLResponse, JoinsFieldsOfANameAndReadsTheLength) {
  const std::pair<const char*, std::uint64_t> table[] = {
      {"content-LENGTH", 12}, {"Content-Lengt", 0}, {"Content-Length:", 0}};
  for (const auto& [name, length] : table) {
    const auto response = NSHTTPURLResponse::initWithURL_statusCode_HTTPVersion_headerFields(
        NSURL::URLWithString("http://h/").value(), 201, "HTTP/2",
        {{"A", "1"}, {name, "12"}, {"a", "2"}});
    EXPECT_EQ(response->expectedContentLength(), length) << name;
    EXPECT_EQ(response->valueForHTTPHeaderField("a"), "1, 2");
    EXPECT_EQ(response->valueForHTTPHeaderField("B"), std::nullopt);
    EXPECT_EQ(response->HTTPVersion(), "HTTP/2");
  }
}

}  // namespace
}  // namespace quillmere
