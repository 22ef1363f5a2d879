#include <gtest/gtest.h>
#include <quillmere/platform/net/NSURLRequest.h>

namespace quillmere {
namespace {

using std::string;
using Fields = std::vector<std::pair<string, string>>;

NSMutableURLRequest requestTo(const char* url) {
  return NSMutableURLRequest::requestWithURL(NSURL::URLWithString(url).value());
}

TEST(NSURLRequest, KeepsItsFieldsInOrderWhateverTheirCase) {
  NSMutableURLRequest request = requestTo("http://h/");
  request.setValue_forHTTPHeaderField("1", "Depth");
  request.setValue_forHTTPHeaderField("text/xml", "Accept");
  request.setValue_forHTTPHeaderField("*", "If-None-Match:");
  request.setValue_forHTTPHeaderField("0", "DEPTH");
  const NSURLRequest copy = request;
  request.setValue_forHTTPHeaderField(std::nullopt, "accept");
  request.setValue_forHTTPHeaderField(std::nullopt, "If-None-Match");  // without colon: another
  EXPECT_EQ(request.allHTTPHeaderFields(), (Fields{{"Depth", "0"}, {"If-None-Match:", "*"}}));
  EXPECT_EQ(copy.allHTTPHeaderFields(),
            (Fields{{"Depth", "0"}, {"Accept", "text/xml"}, {"If-None-Match:", "*"}}));
  EXPECT_EQ(copy.valueForHTTPHeaderField("dEPTH"), "0");
  EXPECT_EQ(copy.valueForHTTPHeaderField("If-None-Match"), std::nullopt);
}

TEST(NSURLRequest, KnowsWhatCannotTravel) {
  EXPECT_FALSE(NSURLRequest().isSendable());
  EXPECT_FALSE(requestTo("mailto:a@b").isSendable());
  for (const char mark : string("a!#$%&'*+-.^_`|~ \"(),/:;<=>?@[\\]{}\x7F\r\xC9")) {
    NSMutableURLRequest request = requestTo("http://h/");
    request.setHTTPMethod(string("GET") + mark);
    EXPECT_EQ(request.isSendable(), string("a!#$%&'*+-.^_`|~").find(mark) != string::npos) << mark;
    request.setHTTPMethod("");
    EXPECT_FALSE(request.isSendable());
  }
  const struct {
    string name, value;
    bool isSendable;
  } table[] = {
      {"X-Text", "Fête\t!", true},
      {"", "x", false},
      {"a::", "x", false},
      {"X ", "x", false},
      {string("X\0", 2), "x", false},
      {"Fête", "x", false},
      {"X", "a\nb", false},
      {"X", "a\rb", false},
      {"X", string("a\0b", 3), false},
  };
  for (const auto& row : table) {
    NSMutableURLRequest request = requestTo("http://h/");
    request.setHTTPMethod("PROPFIND");
    request.setValue_forHTTPHeaderField(row.value, row.name);
    EXPECT_EQ(request.isSendable(), row.isSendable) << row.name << ": " << row.value;
  }
}

}  // namespace
}  // namespace quillmere
