// What would let other tests pass though a request was not as it must be, or was never made: of this
// server and of RawServer.

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "tests/support/RawServer.h"
#include "tests/support/ScriptedServer.h"

namespace quillmere::testing {
namespace {

// The status of the answer to a GET by a client that knows nothing of this library.
long statusOf(const std::string& url, const std::vector<std::string>& headers = {},
              const char* body = "") {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(),
                                                                 &curl_easy_cleanup);
  curl_slist* lines = nullptr;
  for (const std::string& header : headers) lines = curl_slist_append(lines, header.c_str());
  const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> owner(lines,
                                                                          &curl_slist_free_all);
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, lines);
  if (*body) curl_easy_setopt(curl.get(), CURLOPT_COPYPOSTFIELDS, body);
  curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, "GET");
  const auto discard = [](const char*, std::size_t, std::size_t count, void*) { return count; };
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, +discard);
  curl_easy_perform(curl.get());
  long status = 0;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  return status;
}

TEST(ScriptedServer, TellsWhatWasNotAsExpected) {
  const struct {
    ExpectedRequest expected;
    std::vector<std::string> headers;
    const char *body, *problem;
  } cases[] = {
      {{.method = "PUT"}, {}, "", "request 1, GET /: expected PUT /"},
      {{.path = "/a"}, {}, "", "request 1, GET /: expected GET /a"},
      {{.fields = {{"Depth", "0"}}}, {"depth: 0"}, "", "depth: 0; expected Depth: 0"},
      {{.fields = {{"Depth", "0"}}}, {"Depth: 0", "depth: 0"}, "", "expected Depth: 0"},
      {{.fields = {{"If-Match:", "1"}}}, {"If-Match: 1"}, "", "none; expected If-Match:: 1"},
      {{.absent = {"DEPTH"}}, {"Depth: 1"}, "", "must not have Depth: 1"},
      {{}, {"Authorization: Basic YTpi"}, "", "must not have Authorization"},
      {{.fields = {{"B", "1"}, {"A", "1"}}, .noOtherFields = true},
       {"A: 1", "B: 1", "Accept:"},
       "",
       "A: 1, B: 1; expected B: 1, A: 1"},
      {{}, {}, "y", "body is \"y\" (1 bytes), expected \"\" (0 bytes)"},
      {{.credential = {{AuthScheme::basic, "u", "p"}}},
       {"Authorization: Basic dTpx"},
       "",
       "Authorization is Basic dTpx, expected Basic dTpw"},
  };
  for (const auto& [expected, headers, body, problem] : cases) {
    ScriptedServer server;
    server.expect(expected);
    EXPECT_EQ(statusOf(server.url("/"), headers, body), 599);
    EXPECT_THAT(server.problems(), ::testing::ElementsAre(::testing::HasSubstr(problem)));
    server.finish();
  }
}

TEST(ScriptedServer, ReportsWhatIsMissingAndWhatIsTooMuch) {
  EXPECT_NONFATAL_FAILURE(ScriptedServer().expect({.path = "/left"}), "never came: GET /left");
  EXPECT_NONFATAL_FAILURE(RawServer().play({}), "connection 1 was never made");
  const auto ask = [](const auto& server) { statusOf(server.url("/more")); };
  EXPECT_NONFATAL_FAILURE(ask(ScriptedServer()), "GET /more: expected no further request");
  EXPECT_NONFATAL_FAILURE(ask(RawServer()), "a connection more than the 0 listed");
}

}  // namespace
}  // namespace quillmere::testing
