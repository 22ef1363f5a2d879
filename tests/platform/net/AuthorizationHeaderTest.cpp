#include <gtest/gtest.h>
#include <quillmere/platform/net/AuthorizationHeader.h>

namespace quillmere {
namespace {

std::string authorization(const std::string& challenge, const std::string& target, const char* body,
                          const std::string& cnonce) {
  const auto mufasa = NSURLCredential::credentialWithUser_password_persistence(
      "Mufasa", "Circle of Life", NSURLCredentialPersistenceNone);
  auto request =
      NSMutableURLRequest::requestWithURL(NSURL::URLWithString("http://h" + target).value());
  if (body) request.setHTTPBody(NSData::dataWithBytes(body));
  return authorizationFor(parseAuthenticateHeader(challenge).at(0), *mufasa, request, cnonce);
}

// The first two are the examples of RFC 7616, section 3.9.1.
TEST(AuthorizationHeader, AnswersEveryKindOfChallenge) {
  const std::string cnonce = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";
  const std::string nonce = ", nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\"";
  const char* const realm = "http-auth@example.org";
  const char* const index = "/dir/index.html";
  const struct {
    const char *realm, *challenge, *target, *body, *response, *rest;
  } rows[] = {
      {realm, ", qop=\"auth-int, auth\", algorithm=MD5, opaque=\"\\\\\"", index, nullptr,
       "8ca523f5e9506fed4657c9700eebdbec",
       ", algorithm=MD5, opaque=\"\\\\\", qop=auth, nc=00000001, cnonce="},
      {realm, ", qop=auth, algorithm=SHA-256", index, nullptr,
       "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1",
       ", algorithm=SHA-256, qop=auth, nc=00000001, cnonce="},
      {"a \\\"b\\\"\\\\", "", index, nullptr, "e83c13833ddc7d308fff2f56d16ef034", ""},
      {realm, ", algorithm=Md5-Sess", index, nullptr, "37a7f42db2090a3fcac4e26e747d4fc8",
       ", algorithm=Md5-Sess, cnonce="},
      {realm, ", algorithm=SHA-256-sess, qop=auth-int", "/a%20b?q=/", "text",
       "7d856594ead165fbecfd9839ca2438ef3ff12f47ed2c9d55fdd3c9d6cbd5fc25",
       ", algorithm=SHA-256-sess, qop=auth-int, nc=00000001, cnonce="},
      {realm, ", qop=auth-int", "/", nullptr, "122e08a450b311d0745496ea92bc749b",
       ", qop=auth-int, nc=00000001, cnonce="},
  };
  for (const auto& row : rows) {
    const std::string space = std::string("realm=\"") + row.realm + '"' + nonce;
    EXPECT_EQ(authorization("Digest " + space + row.challenge, row.target, row.body, cnonce),
              "Digest username=\"Mufasa\", " + space + ", uri=\"" + row.target + "\", response=\"" +
                  row.response + '"' + row.rest + (*row.rest ? '"' + cnonce + '"' : ""));
  }
  EXPECT_EQ(authorization("Basic realm=r", "/", nullptr, ""), "Basic TXVmYXNhOkNpcmNsZSBvZiBMaWZl");
}

}  // namespace
}  // namespace quillmere
