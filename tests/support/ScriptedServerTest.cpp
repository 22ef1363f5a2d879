#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <future>

#include "tests/support/CurlClient.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryFolder.h"

namespace quillmere::testing {
namespace {

using ::testing::AllOf, ::testing::ElementsAre, ::testing::HasSubstr, ::testing::IsEmpty;

TEST(ScriptedServer, PlaysItsScriptOnOneConnection) {
  ScriptedServer server;
  const std::string body("<a>\r\n\0</a>", 10);
  server.play(
      {{{.method = "PROPFIND",
         .path = "/cal%40x/?a=%2F",
         .fields = {{"Depth", "0"},
                    {"If-Match:", "\"1\""},
                    {"x-Twice", "1"},
                    {"x-Twice", "2"},
                    {"If-None-Match", ": *"}},
         .absent = {"If-Match", "Accept"},
         .body = body,
         .noOtherFields = true},
        {.status = 207,
         .fields = {{"Etag", "\"z\""}, {"X-a", "1"}, {"Content-Type", "text/xml"}, {"X-a", "2"}},
         .body = "<multistatus/>"}},
       {{.method = "DELETE", .path = "/gone", .absent = {"accept"}},
        {.status = 204, .closes = true}},
       {{.path = "/again", .fields = {{"Host", "127.0.0.1:" + std::to_string(server.port())}}},
        {.body = "end"}}});

  CurlClient client;
  const auto found = client.perform("PROPFIND", server.url("/cal%40x/?a=%2F"),
                                    {"Depth: 0", "If-Match:: \"1\"", "x-Twice: 1", "x-Twice: 2",
                                     "If-None-Match:: *", "Accept:", "Content-Type:"},
                                    body);
  EXPECT_EQ(found.status, 207);
  EXPECT_EQ(found.body, "<multistatus/>");
  EXPECT_THAT(found.heads,
              ElementsAre("HTTP/1.1 207 Multi-Status", "Etag: \"z\"", "X-a: 1",
                          "Content-Type: text/xml", "X-a: 2", "Content-Length: 14", ""));
  EXPECT_EQ(client.perform("DELETE", server.url("/gone"), {"Accept:"}).status, 204);
  EXPECT_EQ(client.perform("GET", server.url("/again")).body, "end");

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[0].value("IF-MATCH:"), "\"1\"");
  EXPECT_EQ(requests[0].value("If-Match"), std::nullopt);
  EXPECT_EQ(requests[0].body, body);
  EXPECT_EQ(requests[0].connection, 1U);
  EXPECT_EQ(requests[1].connection, 1U);
  EXPECT_EQ(requests[2].connection, 2U);
  EXPECT_EQ(server.connectionCount(), 2U);
  EXPECT_THAT(server.problems(), IsEmpty());
  EXPECT_THAT(server.finish(), IsEmpty());
}

TEST(ScriptedServer, TakesAndGivesLargeBodies) {
  const std::string large(5'000'000, 'a');
  ScriptedServer server;
  server.expect({.method = "PUT", .path = "/large", .body = large}, {.body = large});
  CurlClient client;
  const auto outcome = client.perform("PUT", server.url("/large"), {"Expect: 100-continue"}, large);
  EXPECT_THAT(outcome.heads, ElementsAre("HTTP/1.1 100 Continue", "", "HTTP/1.1 200 OK",
                                         "Content-Length: 5000000", ""));
  EXPECT_TRUE(outcome.body == large);
}

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
    CurlClient client;
    const auto refused = client.perform("PUT", server.url("/a"), each.headers, each.body);
    EXPECT_EQ(refused.status, 599);
    const auto problems = server.problems();
    EXPECT_THAT(problems, ElementsAre(HasSubstr(each.problem)));
    EXPECT_THAT(problems, ElementsAre(refused.body));
    server.finish();
  }
}

TEST(ScriptedServer, ReportsWhatIsMissingAndWhatIsTooMuch) {
  CurlClient client;
  ScriptedServer server;
  server.expect({.body = anyBody});
  server.expect({.method = "REPORT", .path = "/never"});
  EXPECT_EQ(client.perform("GET", server.url("/"), {}, "whatever").status, 200);
  EXPECT_THAT(server.problems(), IsEmpty());
  EXPECT_THAT(server.finish(), ElementsAre("never came: REPORT /never"));
  EXPECT_EQ(client.perform("GET", server.url("/")).code, CURLE_COULDNT_CONNECT);

  // Nobody asks this one.
  EXPECT_NONFATAL_FAILURE(ScriptedServer().expect({.path = "/left"}), "never came: GET /left");
  EXPECT_NONFATAL_FAILURE(
      {
        ScriptedServer empty;
        EXPECT_EQ(client.perform("GET", empty.url("/more")).status, 599);
      },
      "request 1, GET /more: expected no further request");
}

TEST(ScriptedServer, HoldsAnswersUntilTold) {
  ScriptedServer server;
  std::promise<void> arrived;
  server.setOnRequest([&](const ReceivedRequest& request) {
    if (request.path == "/held") arrived.set_value();
  });
  server.play({{{.path = "/held"}, {.body = "one", .held = true}},
               {{.path = "/other"}, {.body = "two"}},
               {{.path = "/told"}, {.body = "three", .held = true}},
               {{.path = "/forever"}, {.held = true}}});

  auto held = std::async(std::launch::async,
                         [&] { return CurlClient().perform("GET", server.url("/held")).body; });
  arrived.get_future().wait();
  EXPECT_EQ(CurlClient().perform("GET", server.url("/other")).body, "two");
  server.release();
  EXPECT_EQ(held.get(), "one");
  server.release();
  EXPECT_EQ(CurlClient().perform("GET", server.url("/told")).body, "three");

  // A client that gives up, and one that is still waiting when the server ends.
  CurlClient hasty;
  hasty.set(CURLOPT_TIMEOUT_MS, 50L);
  EXPECT_EQ(hasty.perform("GET", server.url("/forever")).code, CURLE_OPERATION_TIMEDOUT);
  std::promise<void> waiting;
  server.expect({.path = "/patient"}, {.held = true});
  server.setOnRequest([&](const ReceivedRequest&) { waiting.set_value(); });
  auto patient = std::async(
      std::launch::async, [&] { return CurlClient().perform("GET", server.url("/patient")).code; });
  waiting.get_future().wait();
  EXPECT_THAT(server.finish(), IsEmpty());
  patient.get();
}

TEST(ScriptedServer, ChecksBasicAndDigest) {
  struct Case {
    Challenge challenge;
    unsigned long curlScheme;
  };
  const std::vector<Case> cases{
      {{.realm = "a \"realm\""}, CURLAUTH_BASIC},
      {{.scheme = AuthScheme::digest}, CURLAUTH_DIGEST},
      {{.scheme = AuthScheme::digest, .realm = "a \"realm\"", .algorithm = "SHA-256"},
       CURLAUTH_DIGEST},
      {{.scheme = AuthScheme::digest, .qop = ""}, CURLAUTH_DIGEST},
      {{.scheme = AuthScheme::digest, .qop = "auth-int,auth"}, CURLAUTH_DIGEST},
      {{.scheme = AuthScheme::digest, .algorithm = "SHA-256", .qop = "auth-int"}, CURLAUTH_DIGEST},
  };
  for (const auto& [challenge, curlScheme] : cases) {
    SCOPED_TRACE(challenge.algorithm + " " + challenge.qop);
    const Credential right{challenge.scheme, "us\"er", "pass:word"};
    Credential wrong = right;
    wrong.password = "other";
    for (const bool knows : {true, false}) {
      ScriptedServer server;
      server.expect({.path = "/a?b=c"}, {.status = 401, .challenges = {challenge}});
      server.expect({.path = "/a?b=c", .credential = right}, {.body = "in"});
      CurlClient client;
      // Allowing any keeps libcurl from sending a credential before it was asked.
      client.set(CURLOPT_HTTPAUTH, curlScheme | CURLAUTH_NEGOTIATE);
      client.set(CURLOPT_USERNAME, "us\"er");
      client.set(CURLOPT_PASSWORD, knows ? "pass:word" : "other");
      const auto outcome = client.perform("GET", server.url("/a?b=c"));
      EXPECT_EQ(outcome.status, knows ? 200 : 599);
      if (knows) {
        EXPECT_THAT(server.finish(), IsEmpty());
      } else {
        EXPECT_THAT(server.finish(),
                    ElementsAre(AllOf(HasSubstr("request 2"), HasSubstr("expected"))));
      }
    }
  }
}

TEST(ScriptedServer, CallsNoncesStale) {
  const Challenge first{.scheme = AuthScheme::digest, .algorithm = "SHA-256"};
  Challenge second = first;
  second.stale = true;
  const Credential credential{AuthScheme::digest, "user", "password"};
  ScriptedServer server;
  server.play(
      {{{.path = "/1"}, {.status = 401, .challenges = {first, {}}}},
       {{.path = "/1", .credential = credential}, {}},
       {{.path = "/2", .credential = credential}, {}},
       {{.path = "/3", .credential = credential}, {.status = 401, .challenges = {{}, second}}},
       {{.path = "/3", .credential = credential}, {.body = "in"}},
       {{.path = "/4", .credential = credential}, {}}});
  CurlClient client;
  client.set(CURLOPT_HTTPAUTH, CURLAUTH_ANY);
  client.set(CURLOPT_USERPWD, "user:password");
  EXPECT_EQ(client.perform("GET", server.url("/1")).status, 200);
  EXPECT_EQ(client.perform("GET", server.url("/2")).status, 200);
  const auto again = client.perform("GET", server.url("/3"));
  EXPECT_EQ(again.body, "in");
  EXPECT_THAT(again.heads,
              ::testing::Contains(AllOf(HasSubstr("WWW-Authenticate: Digest realm=\"calendars\""),
                                        HasSubstr("stale=true"))));

  // What was used before, or belongs to a nonce called stale, is no proof.
  const auto used = server.requests();
  server.expect({.path = "/3", .credential = credential});
  const auto replayed = [&](const ReceivedRequest& request) {
    return CurlClient()
        .perform("GET", server.url(request.path),
                 {"Authorization: " + request.value("Authorization").value()})
        .body;
  };
  EXPECT_EQ(client.perform("GET", server.url("/4")).status, 200);
  EXPECT_THAT(replayed(used[4]), HasSubstr("Digest nc 00000001 has been used"));
  server.expect({.path = "/2", .credential = credential});
  EXPECT_THAT(replayed(used[2]), HasSubstr("is not in force"));
  EXPECT_EQ(server.finish().size(), 2U);
}

TEST(ScriptedServer, SpeaksTls) {
  struct Case {
    std::string identity;
    std::string host;
    bool knowsAuthority;
    CURLcode code;
  };
  const std::vector<Case> cases{
      {"good", "localhost", true, CURLE_OK},
      {"good", "127.0.0.1", true, CURLE_OK},
      {"good", "localhost", false, CURLE_PEER_FAILED_VERIFICATION},
      {"wrong-host", "localhost", true, CURLE_PEER_FAILED_VERIFICATION},
      {"wrong-host", "elsewhere.example", true, CURLE_OK},
      {"expired", "localhost", true, CURLE_PEER_FAILED_VERIFICATION},
      {"self-signed", "localhost", true, CURLE_PEER_FAILED_VERIFICATION},
  };
  const TemporaryFolder folder;
  const std::string otherAuthority = folder / "other.pem";
  writeFile(otherAuthority, TlsIdentity::named("self-signed").certificate);
  for (const Case& each : cases) {
    SCOPED_TRACE(each.identity + " as " + each.host);
    ScriptedServer server(TlsIdentity::named(each.identity));
    CurlClient client;
    client.set(CURLOPT_CAINFO,
               each.knowsAuthority ? certificateAuthorityFile().c_str() : otherAuthority.c_str());
    const std::string address = each.host + ":" + std::to_string(server.port()) + ":127.0.0.1";
    const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> addresses(
        curl_slist_append(nullptr, address.c_str()), &curl_slist_free_all);
    client.set(CURLOPT_RESOLVE, addresses.get());
    if (each.code == CURLE_OK) server.expect({.path = "/safe"}, {.body = "in"});
    const auto outcome = client.perform("GET", server.url("/safe", each.host));
    EXPECT_EQ(outcome.code, each.code) << curl_easy_strerror(outcome.code);
    EXPECT_EQ(outcome.body, each.code == CURLE_OK ? "in" : "");
    EXPECT_THAT(server.finish(), IsEmpty());
  }
  EXPECT_THROW(TlsIdentity::named("none"), std::runtime_error);
}

}  // namespace
}  // namespace quillmere::testing
