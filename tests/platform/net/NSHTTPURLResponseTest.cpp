#include <gtest/gtest.h>
#include <quillmere/platform/net/NSHTTPURLResponse.h>

namespace quillmere {
namespace {

TEST(NSHTTPURLResponse, JoinsTheFieldsOfOneName) {
  const auto response = NSHTTPURLResponse::initWithURL_statusCode_HTTPVersion_headerFields(
      NSURL::URLWithString("http://h/").value(), 207, "HTTP/1.1",
      {{"DAV", "1, 2"}, {"ETag", "\"a\""}, {"dav", ""}, {"Dav", "calendar-access"}});
  EXPECT_EQ(response->valueForHTTPHeaderField("dAV"), "1, 2, , calendar-access");
  EXPECT_EQ(response->valueForHTTPHeaderField("Etag"), "\"a\"");
  EXPECT_EQ(response->valueForHTTPHeaderField("DA"), std::nullopt);
}

TEST(NSHTTPURLResponse, PutsStatusCodesInWords) {
  const struct {
    std::int64_t code;
    const char* text;
  } table[] = {
      {207, "multi-status"}, {299, "success"},
      {404, "not found"},    {418, "client error"},
      {306, "redirected"},   {199, "informational"},
      {599, "server error"}, {507, "insufficient storage"},
      {99, "unknown"},       {600, "unknown"},
      {0, "unknown"},        {-404, "unknown"},
  };
  for (const auto& [code, text] : table) {
    EXPECT_EQ(NSHTTPURLResponse::localizedStringForStatusCode(code), text) << code;
  }
}

}  // namespace
}  // namespace quillmere
