#include <gtest/gtest.h>
#include <malloc.h>
#include <quillmere/platform/net/NSURL.h>

#include <clocale>
#include <string>
#include <vector>

namespace quillmere {
namespace {

using std::string;
using std::string_view;

NSURL urlOf(string_view text) { return NSURL::URLWithString(text).value(); }

string resolved(string_view text, string_view base) {
  const auto url = NSURL::URLWithString_relativeToURL(text, urlOf(base));
  return url ? url->absoluteString() : "(null)";
}

struct Resolution {
  const char* text;
  const char* expected;
};

// Of RFC 3986, sections 5.4.1 and 5.4.2.
TEST(NSURL, ResolvesTheExamplesOfTheRFC) {
  const Resolution examples[] = {
      {"g:h", "g:h"},
      {"g", "http://a/b/c/g"},
      {"/g", "http://a/g"},
      {"//g", "http://g"},
      {"g?y", "http://a/b/c/g?y"},
      {"#s", "http://a/b/c/d;p?q#s"},
      {"g#s", "http://a/b/c/g#s"},
      {"g;x?y#s", "http://a/b/c/g;x?y#s"},
      {"", "http://a/b/c/d;p?q"},
      {".", "http://a/b/c/"},
      {"..", "http://a/b/"},
      {"../..", "http://a/"},
      {"../../g", "http://a/g"},
      {"../../../../g", "http://a/g"},
      {"/../g", "http://a/g"},
      {".g", "http://a/b/c/.g"},
      {"g..", "http://a/b/c/g.."},
      {"./g/.", "http://a/b/c/g/"},
      {"g/../h", "http://a/b/c/h"},
      {"g;x=1/../y", "http://a/b/c/y"},
      {"g?y/../x", "http://a/b/c/g?y/../x"},
      {"g#s/../x", "http://a/b/c/g#s/../x"},
  };
  for (const auto& [text, expected] : examples) {
    EXPECT_EQ(resolved(text, "http://a/b/c/d;p?q"), expected) << text;
  }
}

TEST(NSURL, ResolvesNamesAndAddressesWithoutEncodingThem) {
  const Resolution table[] = {
      {"two words.ics", "http://h/c/two words.ics"},
      {"100%.ics", "http://h/c/100%.ics"},
      {"a?b.ics", "http://h/c/a?b.ics"},
      {"urn:x.ics", "urn:x.ics"},
      {"a+b.c-1:x", "a+b.c-1:x"},
      {"2024:x.ics", "http://h/c/2024:x.ics"},  // a scheme begins with a letter
      {"HTTP://Other/x/../y", "HTTP://Other/y"},
      {"//u:p@h:81", "http://u:p@h:81"},
      {"/.//x", "http://h//x"},
  };
  for (const auto& [text, expected] : table) {
    EXPECT_EQ(resolved(text, "http://h/c/old#f"), expected) << text;
  }
  const char* others[][3] = {
      {"x", "http://h", "http://h/x"},
      {"", "http://h/./c?q#f", "http://h/./c?q"},
      {"?x", "http://h/c?q", "http://h/c?x"},
      {"c", "urn:a:b", "urn:c"},
      {"c", "urn:", "urn:c"},
      {"/.//x", "urn:a", "urn:/.//x"},  // not the host x
      {"c", "a/b", "a/c"},
      // Neither has a root.
      {"./../c", "b", "c"},
      {"a/../c", "b", "/c"},
      {"..", "b", "(null)"},
      {".", "b", "(null)"},
  };
  for (const auto& [text, base, expected] : others) {
    EXPECT_EQ(resolved(text, base), expected) << text << " " << base;
  }
}

TEST(NSURL, IsNoneForTextThatCannotBeOne) {
  EXPECT_FALSE(NSURL::URLWithString(""));
  const string_view never[] = {"http://h/a\tb",
                               "http://h/\r\nX: y",
                               string_view("http://h/\0", 10),
                               "http://h/\x7F",
                               "http://h/\xFF",
                               "http://h/\xC3",
                               "http://h/a\x01/..",
                               "\n"};
  for (const string_view text : never) {
    EXPECT_FALSE(NSURL::URLWithString(text)) << text;
    EXPECT_FALSE(NSURL::URLWithString_relativeToURL(text, urlOf("http://h/"))) << text;
  }
  EXPECT_FALSE(NSURL::URLWithString_relativeToURL("", urlOf("#f")));
}

TEST(NSURL, TellsItsComponents) {
  struct Row {
    const char* text;
    std::optional<string> scheme, host;
    std::optional<std::uint16_t> port;
    const char *path, *last;
  };
  const Row table[] = {
      {"HTTPS://u:p@Host:0443/a/b%2F/?q/x#f/y", "https", "Host", 443, "/a/b%2F/", "b%2F"},
      {"http://[2001:db8::1]:8080", "http", "[2001:db8::1]", 8080, "", ""},
      {"http://h:/", "http", "h", {}, "/", ""},
      {"http://münchen.example/x y", "http", "münchen.example", {}, "/x y", "x y"},
      {"http://%30x7f.1/c//", "http", "127.0.0.1", {}, "/c//", "c"},
      {"webcal://h:1/x", "webcal", "h", 1, "/x", "x"},
      {"mailto:a@b", "mailto", {}, {}, "a@b", "a@b"},
      {"file:///etc/x", "file", {}, {}, "/etc/x", "x"},
      {"two words", {}, {}, {}, "two words", "two words"},
      {"http://h:65536/x", "http", {}, {}, "/x", "x"},
  };
  for (const Row& row : table) {
    const NSURL url = urlOf(row.text);
    EXPECT_EQ(url.absoluteString(), row.text);
    EXPECT_EQ(url.scheme(), row.scheme) << row.text;
    EXPECT_EQ(url.host(), row.host) << row.text;
    EXPECT_EQ(url.port(), row.port) << row.text;
    EXPECT_EQ(url.path(), row.path) << row.text;
    EXPECT_EQ(url.lastPathComponent(), row.last) << row.text;
  }
}

TEST(NSURL, EncodesOnTheWireWhatMayNotTravel) {
  const Resolution table[] = {
      {"http://h", "http://h/"},
      {"HTTP://h?q", "http://h/?q"},
      {"https://h:443/c/two words.ics#f g", "https://h:443/c/two%20words.ics"},
      {"http://h/Fête/🗓?ü=[a b]", "http://h/F%C3%AAte/%F0%9F%97%93?%C3%BC=%5Ba%20b%5D"},
      {"http://h/a%40b%2f%zz%4x%4", "http://h/a%40b%2f%25zz%254x%254"},
      {"http://h/%40", "http://h/%40"},
      {"http://h#f", "http://h/"},
      {"http://a.b-c_d~e/", "http://a.b-c_d~e/"},
      {"http://h/\"<>\\^`{|}[]", "http://h/%22%3C%3E%5C%5E%60%7B%7C%7D%5B%5D"},
      {"http://h/-._~!$&'()*+,;=:@/?/?", "http://h/-._~!$&'()*+,;=:@/?/?"},
      {"http://h/a/../../b/./c", "http://h/b/c"},
      {"http://user:se@cret@h:81/", "http://h:81/"},
      {"http://evil\\@h/", "http://h/"},
      {"http://münchen.example/", "http://xn--mnchen-3ya.example/"},  // in the C locale too
      {"http://stra%C3%9Fe.example/", "http://xn--strae-oqa.example/"},
      {"http://[fe80::1%25eth0]:8/", "http://[fe80::1%25eth0]:8/"},
  };
  ::uselocale(LC_GLOBAL_LOCALE);
  for (const auto& [text, expected] : table) {
    EXPECT_EQ(urlOf(text).wireString(), expected) << text;
    EXPECT_TRUE(urlOf(text).isHTTP()) << text;
  }
  EXPECT_EQ(::uselocale(locale_t{}), LC_GLOBAL_LOCALE) << "as before";
}

TEST(NSURL, IsHTTPOnlyWithAServerToAsk) {
  for (const char* text : {"ftp://h/",         "//h/x",           "/x",
                           "http:/h/x",        "http://",         "http:///h",
                           "http://:80/",      "http://h:65536/", "http://h:-1/",
                           "http://h\\x/",     "http://a%2Fb/",   "http://a%00b/",
                           "http://%FF/",      "http://[::g]/",   "http://[fe80::1%`]/",
                           "http://ü%zz/",     "http://\u034F/x", "http://h\uFF1A80/",
                           "http://h\uFF0Fx/", "http://[::1]x/",  " http://h/"}) {
    const NSURL url = urlOf(text);
    EXPECT_FALSE(url.isHTTP()) << text;
    EXPECT_EQ(url.wireString(), "") << text;
  }
}

// In linear time: a square would outlast every time limit.
TEST(NSURL, TakesLongTexts) {
  constexpr std::size_t size = 1 << 20;
  for (const string_view piece : {"../", "a/", "a/../", "//", "@", "%", "[", "é"}) {
    string text;
    while (text.size() < size) text += piece;
    NSURL::URLWithString_relativeToURL(text, urlOf("http://h/c/"))->lastPathComponent();
    urlOf("http://h/" + text).wireString();
    urlOf("http://" + text).wireString();
  }
}

// What the user info says; the last "@" ends it.
TEST(NSURL, ReadsUserAndPassword) {
  const struct {
    const char* text;
    std::optional<string> user, password;
  } rows[] = {
      {"http://alice:secret@h/", "alice", "secret"},
      {"http://a%3ab:c%40:d@h/", "a:b", "c@:d"},
      {"http://a@b:c@h/", "a@b", "c"},
      {"http://alice@h/", "alice", {}},
      {"http://:@h/", "", ""},
      {"http://a%zz:%00@h/", {}, {}},
      {"http://h/a:b@c", {}, {}},
      {"mailto:a:b@h", {}, {}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(urlOf(row.text).user(), row.user) << row.text;
    EXPECT_EQ(urlOf(row.text).password(), row.password) << row.text;
  }
}

// Thousands of addresses below a long one cost what they add to it, and are like any other.
TEST(NSURL, SharesALongTextWithWhatIsResolvedAgainstIt) {
  const string longText = "http://" + string(100'000, 'u') + "@h/home/";
  const NSURL base = urlOf(longText);
  const std::size_t before = ::mallinfo2().uordblks;
  std::vector<NSURL> urls;
  for (int i = 0; i < 1000; ++i) {
    const NSURL folder = *NSURL::URLWithString_relativeToURL("c" + std::to_string(i) + "/", base);
    urls.push_back(*NSURL::URLWithString_relativeToURL("../d/e.ics?x", folder));
  }
  EXPECT_LT(::mallinfo2().uordblks - before, std::size_t{1} << 20);
  for (const NSURL& url : urls) ASSERT_EQ(url.absoluteString(), longText + "d/e.ics?x");
  EXPECT_EQ(urls.front(), urlOf(longText + "d/e.ics?x"));
  EXPECT_LT(urls.front(), urlOf(longText + "d/e.icsa"));
  EXPECT_EQ(urls.front().wireString(), "http://h/home/d/e.ics?x");
  EXPECT_EQ(urls.front().lastPathComponent(), "e.ics");
  // Beside, above and elsewhere; and texts about the length from which they are shared.
  for (const char* text : {"/x", "//other/x", "?q", "#f", "http://g/"}) {
    const auto url = NSURL::URLWithString_relativeToURL(text, base);
    const auto again =
        NSURL::URLWithString_relativeToURL(url->absoluteString(), urlOf("http://z/"));
    EXPECT_EQ(url, again) << text;
  }
  for (const std::size_t length : {1013U, 1014U, 1015U, 3000U}) {
    const string text = "http://h/" + string(length, 'x');
    const auto below = NSURL::URLWithString_relativeToURL(string(length, 'y') + "/z", urlOf(text));
    EXPECT_EQ(below->absoluteString(), "http://h/" + string(length, 'y') + "/z");
    EXPECT_EQ(NSURL::URLWithString_relativeToURL("../q", *below)->absoluteString(), "http://h/q");
  }
}

}  // namespace
}  // namespace quillmere
