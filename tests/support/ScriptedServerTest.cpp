// What would let other tests pass though a request was not as it must be.

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "tests/support/CurlClient.h"
#include "tests/support/ScriptedServer.h"

namespace quillmere::testing {
namespace {

using ::testing::ElementsAre, ::testing::HasSubstr;

TEST(ScriptedServer, TellsWhatWasNotAsExpected) {
  struct Case {
    ExpectedRequest expected;
    std::vector<std::string> headers;
    std::string body;
    std::string problem;
  };
  const std::vector<Case> cases{
      {{.method = "PUT", .path = "/b"}, {}, "", "request 1, PUT /a: expected PUT /b"},
      {{.method = "POST", .path = "/a"}, {}, "", "request 1, PUT /a: expected POST /a"},
      {{.fields = {{"Depth", "0"}}}, {"Depth: 1"}, "", "Depth: 1; expected Depth: 0"},
      {{.fields = {{"Depth", "0"}}}, {"depth: 0"}, "", "depth: 0; expected Depth: 0"},
      {{.fields = {{"Depth", "0"}}}, {"Depth: 0", "depth: 0"}, "", "expected Depth: 0"},
      {{.fields = {{"If-Match:", "1"}}}, {"If-Match: 1"}, "", "none; expected If-Match:: 1"},
      {{.fields = {{"If-Match", "1"}}}, {"If-Match:: 1"}, "", "none; expected If-Match: 1"},
      {{.absent = {"DEPTH"}}, {"Depth: 1"}, "", "must not have Depth: 1"},
      {{}, {"Authorization: Basic YTpi"}, "", "must not have Authorization"},
      {{.fields = {{"B", "1"}, {"A", "1"}}, .noOtherFields = true},
       {"A: 1", "B: 1", "Accept:"},
       "",
       "A: 1, B: 1; expected B: 1, A: 1"},
      {{.noOtherFields = true}, {}, "", "Accept: */*; expected none"},
      {{.body = "x"}, {}, "y", "body is \"y\" (1 bytes), expected \"x\" (1 bytes)"},
      {{}, {}, "y", "expected \"\" (0 bytes)"},
      {{.credential = Credential{.user = "u", .password = "p"}},
       {"Authorization: Basic dTpx"},
       "",
       "Authorization is Basic dTpx, expected Basic dTpw"},
  };
  for (Case each : cases) {
    SCOPED_TRACE(each.problem);
    if (each.expected.method == "GET") each.expected.method = "PUT";
    if (each.expected.path == "/") each.expected.path = "/a";
    ScriptedServer server;
    server.expect(each.expected);
    const auto refused = CurlClient().perform("PUT", server.url("/a"), each.headers, each.body);
    EXPECT_EQ(refused.status, 599);
    EXPECT_THAT(server.problems(), ElementsAre(HasSubstr(each.problem)));
    server.finish();
  }
}

TEST(ScriptedServer, ReportsWhatIsMissingAndWhatIsTooMuch) {
  EXPECT_NONFATAL_FAILURE(ScriptedServer().expect({.path = "/left"}), "never came: GET /left");
  EXPECT_NONFATAL_FAILURE(
      {
        ScriptedServer empty;
        EXPECT_EQ(CurlClient().perform("GET", empty.url("/more")).status, 599);
      },
      "request 1, GET /more: expected no further request");
}

// With the right password libcurl answers as the server wants it, and with no other.
TEST(ScriptedServer, RefusesWrongDigests) {
  const Challenge challenges[] = {
      {.scheme = AuthScheme::digest},
      {.scheme = AuthScheme::digest, .qop = ""},
      {.scheme = AuthScheme::digest, .algorithm = "SHA-256", .qop = "auth-int"}};
  for (const Challenge& challenge : challenges) {
    for (const char* password : {"right", "wrong"}) {
      ScriptedServer server;
      server.expect({}, {.status = 401, .challenges = {challenge}});
      server.expect({.credential = Credential{AuthScheme::digest, "us\"er", "right"}});
      CurlClient client;
      // Allowing any keeps libcurl from sending a credential before it was asked.
      client.set(CURLOPT_HTTPAUTH, CURLAUTH_DIGEST | CURLAUTH_NEGOTIATE);
      client.set(CURLOPT_USERNAME, "us\"er");
      client.set(CURLOPT_PASSWORD, password);
      const bool isRight = password == std::string("right");
      EXPECT_EQ(client.perform("GET", server.url("/")).status, isRight ? 200 : 599);
      EXPECT_EQ(server.finish().size(), isRight ? 0U : 1U);
    }
  }
}

// An answer that was used before, or is to a nonce called stale, is no proof.
TEST(ScriptedServer, RefusesDigestsThatWereUsedBefore) {
  const Challenge challenge{.scheme = AuthScheme::digest};
  const Credential credential{AuthScheme::digest, "user", "password"};
  ScriptedServer server;
  server.expect({}, {.status = 401, .challenges = {challenge}});
  server.expect({.credential = credential});
  CurlClient client;
  client.set(CURLOPT_HTTPAUTH, CURLAUTH_ANY);
  client.set(CURLOPT_USERPWD, "user:password");
  EXPECT_EQ(client.perform("GET", server.url("/")).status, 200);
  const std::string used =
      "Authorization: " + server.requests().back().value("Authorization").value();
  const auto replayed = [&] {
    server.expect({.credential = credential});
    return CurlClient().perform("GET", server.url("/"), {used}).body;
  };
  EXPECT_THAT(replayed(), HasSubstr("has been used"));
  Challenge stale = challenge;
  stale.stale = true;
  server.expect({}, {.status = 401, .challenges = {stale}});
  CurlClient().perform("GET", server.url("/"));
  EXPECT_THAT(replayed(), HasSubstr("is not in force"));
  EXPECT_EQ(server.finish().size(), 2U);
}

}  // namespace
}  // namespace quillmere::testing
