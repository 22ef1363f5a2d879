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
      {"", 0}, {"x", 0}, {"12", 12}, {"18446744073709551615", ~std::uint64_t{0}}, {"7, 7", 7}};
  for (const auto& [text, length] : table) {
    const auto response = NSHTTPURLResponse::initWithURL_statusCode_HTTPVersion_headerFields(
        NSURL::URLWithString("http://h/").value(), 201, "HTTP/2",
        {{"A", "1"}, {"content-LENGTH", text}, {"a", "2"}});
    EXPECT_EQ(response->expectedContentLength(), length) << text;
    EXPECT_EQ(response->valueForHTTPHeaderField("a"), "1, 2");
    EXPECT_EQ(response->valueForHTTPHeaderField("B"), std::nullopt);
    EXPECT_EQ(response->HTTPVersion(), "HTTP/2");
    EXPECT_EQ(response->statusCode(), 201);
    EXPECT_EQ(response->URL().absoluteString(), "http://h/");
  }
  const auto bare = NSHTTPURLResponse::initWithURL_statusCode_HTTPVersion_headerFields(
      NSURL::URLWithString("http://h/").value(), 200, "HTTP/1.1", {});
  EXPECT_EQ(bare->expectedContentLength(), 0U);
}

}  // namespace
}  // namespace quillmere
