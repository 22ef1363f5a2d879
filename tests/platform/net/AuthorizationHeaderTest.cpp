#include <gtest/gtest.h>
#include <quillmere/platform/net/AuthorizationHeader.h>

namespace quillmere {
namespace {

// The first two are the examples of RFC 7616, section 3.9.1.
TEST(AuthorizationHeader, AnswersEveryKindOfChallenge) {
  const std::string cnonce = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";
  const std::string nonce = "nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\"";
  const std::string realm = "realm=\"http-auth@example.org\"", opaque = "opaque=\"FQhe/qa\"";
  const std::string mufasa = "Digest username=\"Mufasa\", " + realm + ", " + nonce +
                             ", uri=\"/dir/index.html\", response=";
  const std::string odd = "Digest username=\"us\\\"er\\\\\", ";
  const struct {
    std::string challenge;
    const char *cnonce, *method, *target, *body;
    std::string expected;
  } rows[] = {
      {"Digest " + realm + ", qop=\"auth-int, auth\", algorithm=MD5, " + nonce + ", " + opaque,
       cnonce.c_str(), "GET", "/dir/index.html", nullptr,
       mufasa + "\"8ca523f5e9506fed4657c9700eebdbec\", algorithm=MD5, " + opaque +
           ", qop=auth, nc=00000001, cnonce=\"" + cnonce + '"'},
      {"Digest " + realm + ", qop=\"auth\", algorithm=SHA-256, " + nonce, cnonce.c_str(), "GET",
       "/dir/index.html", nullptr,
       mufasa +
           "\"753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1\", "
           "algorithm=SHA-256, qop=auth, nc=00000001, cnonce=\"" +
           cnonce + '"'},
      {R"(Digest realm="a \"b\"\\", nonce=n, opaque="\\")", "c", "GET", "/dir/index.html", nullptr,
       odd + R"(realm="a \"b\"\\", nonce="n", uri="/dir/index.html", )"
             R"(response="a6f54c66e7682e46f9320cdbc74d6669", opaque="\\")"},
      {"Digest realm=r, nonce=n, algorithm=Md5-Sess", "c", "GET", "/dir/index.html", nullptr,
       odd + "realm=\"r\", nonce=\"n\", uri=\"/dir/index.html\", response="
             "\"10686a23bc5426d5137b1331b52bb5a8\", algorithm=Md5-Sess, cnonce=\"c\""},
      {"Digest realm=r, nonce=n, algorithm=SHA-256-sess, qop=auth-int", "c", "PUT", "/a b?q=/",
       "text",
       odd + "realm=\"r\", nonce=\"n\", uri=\"/a%20b?q=/\", response="
             "\"685fa1198e899fb8c79e3c5b73938a4f78a7c3a1b5af1b8767edd9af9d6b7e32\", "
             "algorithm=SHA-256-sess, qop=auth-int, nc=00000001, cnonce=\"c\""},
      {"Digest nonce=n, qop=auth-int", "c", "GET", "", nullptr,
       odd + "realm=\"\", nonce=\"n\", uri=\"/\", response=\"0be8b4a64927027a3014392835067d55\", "
             "qop=auth-int, nc=00000001, cnonce=\"c\""},
      {"Basic realm=r", "c", "GET", "/", nullptr, "Basic dXMiZXJcOnBhc3M6d29yZA=="},
  };
  for (const auto& row : rows) {
    const bool isExample = row.cnonce == cnonce;
    const auto credential = NSURLCredential::credentialWithUser_password_persistence(
        isExample ? "Mufasa" : "us\"er\\", isExample ? "Circle of Life" : "pass:word",
        NSURLCredentialPersistenceNone);
    auto request = NSMutableURLRequest::requestWithURL(
        NSURL::URLWithString(std::string("http://h") + row.target).value());
    request.setHTTPMethod(row.method);
    if (row.body) request.setHTTPBody(NSData::dataWithBytes(row.body));
    const auto challenges = parseAuthenticateHeader(row.challenge);
    EXPECT_EQ(authorizationFor(challenges.at(0), *credential, request, row.cnonce), row.expected);
  }
}

}  // namespace
}  // namespace quillmere
