#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <future>

#include "tests/support/CurlClient.h"
#include "tests/support/Gzip.h"
#include "tests/support/RawServer.h"

namespace quillmere::testing {
namespace {

using ::testing::ElementsAre, ::testing::HasSubstr, ::testing::IsEmpty, ::testing::StartsWith;

TEST(RawServer, MisbehavesAsTold) {
  struct Case {
    std::string name;
    RawServer::Steps steps;
    CURLcode code;
    std::string body;
  };
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::vector<Case> cases{
      {"closed before the head", {raw::readHead(), raw::close()}, CURLE_GOT_NOTHING, ""},
      {"closed unread", {raw::close()}, CURLE_GOT_NOTHING, ""},
      {"reset before the head", {raw::readHead(), raw::reset()}, CURLE_RECV_ERROR, ""},
      {"closed within the body",
       {raw::readHead(), raw::write(ok + "Content-Length: 9\r\n\r\nhalf"), raw::close()},
       CURLE_PARTIAL_FILE,
       "half"},
      {"body to the end",
       {raw::readHead(), raw::write("HTTP/1.0 200 OK\r\n\r\n"), raw::write("ab", 3), raw::close()},
       CURLE_OK,
       "ababab"},
      {"interim answers",
       {raw::readHead(), raw::write("HTTP/1.1 103 Early\r\n\r\nHTTP/1.1 102 Busy\r\n\r\n"),
        raw::write(ok + "Content-Length: 2\r\n\r\nin")},
       CURLE_OK,
       "in"},
      {"broken chunks",
       {raw::readHead(), raw::write(ok + "Transfer-Encoding: chunked\r\n\r\nxyz\r\n")},
       CURLE_RECV_ERROR,
       ""},
      {"large head",
       {raw::readHead(), raw::write(ok), raw::write("X-Filling: 0123456789\r\n", 500'000),
        raw::close()},
       CURLE_RECV_ERROR,
       ""},
      {"gzip",
       {raw::readHead(), raw::write(ok + "Content-Encoding: gzip\r\n\r\n" + gzipOf("abc", 2)),
        raw::close()},
       CURLE_OK,
       "abcabc"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    RawServer server;
    server.play(each.steps);
    CurlClient client;
    client.set(CURLOPT_ACCEPT_ENCODING, "gzip");
    const auto outcome = client.perform("GET", server.url("/"));
    EXPECT_EQ(outcome.code, each.code) << curl_easy_strerror(outcome.code);
    EXPECT_EQ(outcome.body, each.body);
    EXPECT_THAT(server.finish(), IsEmpty());
  }
}

TEST(RawServer, PlaysConnectionsSideBySideAndWaits) {
  const std::string small = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n";
  RawServer server;
  server.play({raw::readHead(), raw::readBytes(4), raw::write(small + "ab"), raw::readHead(),
               raw::write(small), raw::drip("cd"), raw::close()});
  server.play({raw::readHead(), raw::waitUntilTold(), raw::write(small + "ef")});
  CurlClient client;
  EXPECT_EQ(client.perform("PUT", server.url("/1"), {}, "body").body, "ab");

  // A client that gives up ends its connection; the server goes on.
  client.set(CURLOPT_TIMEOUT_MS, 50L);
  EXPECT_EQ(client.perform("GET", server.url("/2")).code, CURLE_OPERATION_TIMEDOUT);
  auto waiting = std::async(std::launch::async,
                            [&] { return CurlClient().perform("GET", server.url("/3")).body; });
  server.tell();
  EXPECT_EQ(waiting.get(), "ef");
  EXPECT_THAT(server.problems(), IsEmpty());

  const auto connections = server.connections();
  ASSERT_EQ(connections.size(), 2U);
  EXPECT_THAT(connections[0].received, StartsWith("PUT /1 HTTP/1.1\r\n"));
  EXPECT_THAT(connections[0].received, HasSubstr("\r\n\r\nbodyGET /2 HTTP/1.1\r\n"));
  EXPECT_EQ(connections[0].stepsDone, 5U);
  EXPECT_TRUE(connections[0].ended);
  EXPECT_EQ(connections[1].stepsDone, 3U);
  EXPECT_THAT(server.finish(), IsEmpty());
}

TEST(RawServer, DripsAByteEachTimeItIsTold) {
  RawServer server;
  server.play({raw::readHead(), raw::drip("HTTP/1.0 200 OK\r\n\r\nabc"), raw::close()});
  server.tell(std::string("HTTP/1.0 200 OK\r\n\r\nab").size());
  CurlClient client;
  client.set(CURLOPT_TIMEOUT_MS, 100L);
  const auto cutOff = client.perform("GET", server.url("/"));
  EXPECT_EQ(cutOff.code, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(cutOff.body, "ab");
  EXPECT_THAT(server.finish(), IsEmpty());
}

TEST(RawServer, ReportsConnectionsMissingAndTooMany) {
  EXPECT_NONFATAL_FAILURE(RawServer().play({}), "connection 1 was never made");
  RawServer none;
  EXPECT_NE(CurlClient().perform("GET", none.url("/")).code, CURLE_OK);
  EXPECT_THAT(none.finish(), ElementsAre("a connection more than the 0 listed"));
}

TEST(Gzip, MakesBombs) {
  EXPECT_LT(gzipOf(std::string(1U << 20U, '\0'), 64).size(), std::size_t{1} << 17U);
}

}  // namespace
}  // namespace quillmere::testing
