#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "tests/support/ScriptedServer.h"
#include "tests/support/SessionHost.h"

// What libcurl and its loop need of the system, and do not get.
namespace quillmere {
namespace {

std::size_t untilFault = 0;  // the allocation of libcurl that fails, counted from now; 0 for none
bool hasDescriptors = true;

bool fails() { return untilFault > 0 && --untilFault == 0; }

void* allocate(std::size_t size) { return fails() ? nullptr : std::malloc(size); }
void* reallocate(void* block, std::size_t size) {
  return fails() ? nullptr : std::realloc(block, size);
}
char* duplicate(const char* text) { return fails() ? nullptr : ::strdup(text); }
void* allocateZeros(std::size_t count, std::size_t size) {
  return fails() ? nullptr : std::calloc(count, size);
}

// Before anybody else starts libcurl, which then keeps to it.
[[maybe_unused]] const CURLcode started = curl_global_init_mem(
    CURL_GLOBAL_DEFAULT, &allocate, &std::free, &reallocate, &duplicate, &allocateZeros);

// A request without one of its fields, a condition say, would be another request.
TEST(SystemFaults, ARequestTravelsWithAllItsFieldsOrNotAtAll) {
  testing::ScriptedServer server;
  server.setOnRequest([&](const testing::ReceivedRequest&) {
    server.expect({.method = "PUT",
                   .path = "/a",
                   .fields = {{"If-Match", "\"tag\""}, {"X-Empty", ""}, {"Depth", "1"}},
                   .body = "text",
                   .noOtherFields = true});
  });
  auto request = NSMutableURLRequest::requestWithURL(*NSURL::URLWithString(server.url("/a")));
  request.setHTTPMethod("PUT");
  request.setTimeoutInterval(0.5);  // libcurl forgets about a request where it has no memory
  request.setHTTPBody(NSData::dataWithString("text"));
  for (const auto& [name, value] :
       {std::pair{"If-Match", "\"tag\""}, {"X-Empty", ""}, {"Depth", "1"}}) {
    request.setValue_forHTTPHeaderField(value, name);
  }
  std::size_t failures = 0;
  for (std::size_t nth = 1;; ++nth) {
    const auto host = testing::SessionHost::make();
    untilFault = nth;
    const std::string events = host->fetch(request);
    const bool hasFailed = untilFault == 0;
    untilFault = 0;
    ASSERT_TRUE(events == "response 200, end" || events.starts_with("error -")) << nth << events;
    if (events != "response 200, end") ++failures;
    if (!hasFailed) break;
  }
  EXPECT_GT(failures, 10U);
}

TEST(SystemFaults, WithoutDescriptorsARequestFailsAndTheNextOneMaySucceed) {
  testing::ScriptedServer server;
  const auto host = testing::SessionHost::make();
  const auto request = NSMutableURLRequest::requestWithURL(*NSURL::URLWithString(server.url("/a")));
  hasDescriptors = false;
  EXPECT_EQ(host->fetch(request), "error -1");
  EXPECT_EQ(host->error->localizedDescription(), "The request failed. (Too many open files)");
  hasDescriptors = true;
  server.expect({.path = "/a"}, {.body = "x"});
  EXPECT_EQ(host->fetch(request), "response 200, data, end");
}

}  // namespace
}  // namespace quillmere

// In place of the C library's.
extern "C" int epoll_create1(int flags) noexcept {
  if (quillmere::hasDescriptors) return static_cast<int>(syscall(SYS_epoll_create1, flags));
  errno = EMFILE;
  return -1;
}
