#include <gtest/gtest.h>
#include <quillmere/platform/net/AuthenticateHeader.h>
#include <quillmere/platform/net/NSURLProtectionSpace.h>

namespace quillmere {
namespace {

using std::string;
using std::string_view;

// Each challenge as "scheme token68 {name=value}...", separated by bars.
string challengesIn(string_view header) {
  string text;
  for (const AuthenticateChallenge& challenge : parseAuthenticateHeader(header)) {
    text += (text.empty() ? "" : "|") + challenge.scheme;
    if (challenge.token68) text += ' ' + *challenge.token68;
    for (const auto& [name, value] : challenge.parameters) {
      text.append(" {").append(name).append("=").append(value).append("}");
    }
  }
  return text;
}

TEST(AuthenticateHeader, TellsTheChallengesOfAField) {
  const struct {
    string_view header, challenges;
  } table[] = {
      {"Basic realm=\"a b\"", "basic {realm=a b}"},
      {"BASIC\tRealm\t=\tplain , Charset=\"UTF-8\"", "basic {charset=UTF-8} {realm=plain}"},
      {"Basic realm=\"a, \\\"b\\\\\", Digest nonce=\"n==\", qop=\"auth,auth-int\"",
       "basic {realm=a, \"b\\}|digest {nonce=n==} {qop=auth,auth-int}"},
      {"Negotiate YII/+.~-_==, Basic realm=x", "negotiate YII/+.~-_==|basic {realm=x}"},
      {"NTLM abc= ,Basic realm=a, realm=b", "ntlm abc=|basic {realm=b}"},
      {" , ", ""},
      {"realm=\"no scheme\"", ""},
      {"Basic realm=\"ends so\\", "basic {realm=ends so}"},
      {"Basic realm=@@Digest nonce=x, a=b", "basic {a=b} {realm=}"},
      {"Bearer an error occurred: Digest nonce=x, Basic", "bearer|basic"},
      {"Basic realm=x Digest nonce=x", "basic {realm=x}"},
      {"\"Basic\", Digest nonce=n", "digest {nonce=n}"},
      {"Basic realm=\"\xFF\xFE\"", "basic {realm=\xFF\xFE}"},
  };
  for (const auto& [header, challenges] : table) EXPECT_EQ(challengesIn(header), challenges);
}

TEST(AuthenticateHeader, RaisesTheStrongestThatCanBeAnswered) {
  const struct {
    const char *header, *method;
  } table[] = {
      {"Negotiate, NTLM, Basic realm=r, Digest nonce=n", NSURLAuthenticationMethodHTTPDigest},
      {"Negotiate, NTLM, Basic realm=r, Bearer", NSURLAuthenticationMethodHTTPBasic},
      {"Negotiate", NSURLAuthenticationMethodNegotiate},
      {"Bearer realm=r", nullptr},
      {"Digest nonce=n, algorithm=md5, qop=\"\"", NSURLAuthenticationMethodHTTPDigest},
      {"Digest nonce=n, algorithm=MD5-sess, qop=\"x, AUTH\"", NSURLAuthenticationMethodHTTPDigest},
      {"Digest nonce=n, algorithm=SHA-256-SESS, qop=auth-int", NSURLAuthenticationMethodHTTPDigest},
      {"Digest nonce=n, qop=\"auth-conf,auth \t\"", NSURLAuthenticationMethodHTTPDigest},
      {"Digest nonce=n, algorithm=SHA-512-256, Digest nonce=n",
       NSURLAuthenticationMethodHTTPDigest},
      {"Digest realm=r", nullptr},
      {"Digest nonce=n, qop=\"xauth, auth-conf\"", nullptr},
      {"Digest nonce=n, algorithm=unknown, Basic realm=r", NSURLAuthenticationMethodHTTPBasic},
  };
  for (const auto& [header, method] : table) {
    const auto challenges = parseAuthenticateHeader(header);
    const AuthenticateChallenge* raised = challengeToRaise(challenges);
    EXPECT_STREQ(raised ? raised->authenticationMethod() : nullptr, method) << header;
  }
}

// In linear time: a square would outlast every time limit.
TEST(AuthenticateHeader, TakesLongFields) {
  constexpr std::size_t size = 1 << 20;
  for (const string_view piece : {"a ", "a=", "a b=", "\"", "\\", "=", "a,", "a b, "}) {
    string header = "Basic ";
    while (header.size() < size) header += piece;
    challengeToRaise(parseAuthenticateHeader(header));
  }
  const string qualities(size, ',');
  challengeToRaise(parseAuthenticateHeader("Digest nonce=n, qop=\"" + qualities + '"'));
}

TEST(AuthenticateHeader, KnowsADeadEnd) {
  const std::pair<const char*, bool> table[] = {{"Digest realm=r", true},
                                                {"Bearer, Digest", true},
                                                {"Digest nonce=n", false},
                                                {"Digest nonce=n, algorithm=x", false},
                                                {"Digest, Basic", false},
                                                {"Bearer", false},
                                                {"", false}};
  for (const auto& [header, is] : table) {
    EXPECT_EQ(isDeadEnd(parseAuthenticateHeader(header)), is) << header;
  }
}

TEST(NSURLProtectionSpace, IsOfAServerOrOfAProxyAndHasNoRealmThatIsNotText) {
  using Space = NSURLProtectionSpace;
  for (const bool isProxy : {false, true}) {
    const auto init = isProxy ? Space::initWithProxyHost_port_type_realm_authenticationMethod
                              : Space::initWithHost_port_protocol_realm_authenticationMethod;
    const Space space = init("h", 81, "https", "Käse", NSURLAuthenticationMethodHTTPBasic);
    EXPECT_EQ(space.host() + std::to_string(space.port()) + space.protocol(), "h81https");
    EXPECT_EQ(space.realm(), "Käse");
    EXPECT_EQ(space.authenticationMethod(), NSURLAuthenticationMethodHTTPBasic);
    EXPECT_EQ(space.isProxy(), isProxy);
    EXPECT_EQ(init("h", 80, "http", "K\xE4se", "").realm(), std::nullopt);
  }
}

}  // namespace
}  // namespace quillmere
