// Any bytes as what a CalDAV server sends, head and body, request after request. An account logs in
// and asks for everything, and then a collection does. The input is the answers, divided by lines of
// "%%".

#include <arpa/inet.h>
#include <netinet/in.h>
#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/caldav/KBTDavPrincipal.h>
#include <quillmere/platform/loop/NSRunLoop.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "fuzz/Fuzzing.h"
#include "tests/support/CollectionHost.h"
#include "tests/support/PrincipalHost.h"

namespace quillmere {
namespace {

using fuzzing::require;

/// Takes one request from each connection, sends the next answer, whatever it is, and hangs up.
class Server {
 public:
  Server() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    require(::bind(listener_, generic, length) == 0 && ::listen(listener_, 16) == 0 &&
                ::getsockname(listener_, generic, &length) == 0,
            "there is a server");
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    // Answers name other hosts. Requests to these come here, too.
    for (const char* name : {"http_proxy", "https_proxy", "ALL_PROXY"}) {
      ::setenv(name, url_.c_str(), 1);
    }
    ::unsetenv("no_proxy");
    std::thread([this] { serve(); }).detach();
  }

  const std::string& url() const { return url_; }

  void answerWith(std::string_view input) {
    constexpr std::string_view divider = "\n%%\n";
    const std::lock_guard lock(mutex_);
    answers_.clear();
    for (std::size_t end = 0; end != std::string_view::npos;) {
      end = input.find(divider);
      answers_.emplace_back(input.substr(0, end));
      input.remove_prefix(std::min(input.size(), end + divider.size()));
    }
  }

 private:
  [[noreturn]] void serve() {
    for (;;) {
      const int connection = ::accept(listener_, nullptr, nullptr);
      if (connection < 0) continue;
      if (readRequest(connection)) {
        const std::string answer = nextAnswer();
        ::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
      }
      ::close(connection);
    }
  }

  // With its body: to hang up on unread bytes would take the answer back.
  static bool readRequest(int connection) {
    constexpr std::string_view field = "\r\nContent-Length: ";
    std::string request;
    std::size_t length = std::string::npos;
    while (request.size() < length) {
      char piece[4096];
      const ssize_t count = ::recv(connection, piece, sizeof piece, 0);
      if (count <= 0) return false;
      request.append(piece, static_cast<std::size_t>(count));
      const std::size_t end = request.find("\r\n\r\n");
      if (length != std::string::npos || end == std::string::npos) continue;
      const std::size_t at = request.find(field);
      length = end + 4;
      if (at < end) length += std::strtoul(&request[at + field.size()], nullptr, 10);
    }
    return true;
  }

  std::string nextAnswer() {
    const std::lock_guard lock(mutex_);
    if (answers_.empty()) return "HTTP/1.1 500 Enough\r\nContent-Length: 0\r\n\r\n";
    std::string answer = std::move(answers_.front());
    answers_.pop_front();
    return answer;
  }

  int listener_;
  std::string url_;
  std::mutex mutex_;
  std::deque<std::string> answers_;
};

// Every operation has one outcome.
template <class Host>
void await(Host& host, const std::function<void()>& operation) {
  host.events.clear();
  host.onEvent = [] { NSRunLoop::currentRunLoop().stop(); };
  operation();
  if (host.events.empty()) NSRunLoop::currentRunLoop().run();
  NSRunLoop::currentRunLoop().runUntilDate(NSDate::date());
  require(host.events.size() == 1, "an operation has one outcome");
}

void check(std::string_view input) {
  static Server& server = *new Server;
  server.answerWith(input);
  const NSDate from = NSDate::initWithICSDateString("20240101T000000Z").value();
  const NSDate to = from.dateByAddingSeconds(86'400);
  const NSURL url = NSURL::URLWithString(server.url()).value();

  const auto host = std::make_shared<testing::PrincipalHost>();
  const auto principal = KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
      host, "alice", "secret", url);
  await(*host, [&] { principal->login(); });
  const bool isLoggedIn = host->events[0] == "logged in";
  for (const auto& calendar : principal->calendars()) {
    require(isLoggedIn && calendar->name(), "calendars are those of a login, and have names");
  }
  await(*host, [&] {
    principal->requestFreebusyForPrincipalURN_fromDate_toDate_context("mailto:bob@example.com",
                                                                      from, to, {});
  });
  await(*host, [&] { principal->reportPrincipalInfoForUserAddress_context("bob", {}); });
  await(*host, [&] {
    principal->createCalendarAtPath_withName_andDescription("new/", "New", "A new one");
  });

  const auto collectionHost = std::make_shared<testing::CollectionHost>();
  const auto collection = KBTDavConnection::initWithCalendarName_description_URL_forPrincipal(
      "Work", std::nullopt, url, principal);
  collection->setDelegate(collectionHost);
  await(*collectionHost, [&] { collection->reportCTagWithContext({}); });
  await(*collectionHost, [&] {
    collection->reportEvents_includingContents_fromDate_toDate_context(true, true, from, to, {});
  });
  await(*collectionHost, [&] { collection->multigetEventsForAddresses_context({"/a.ics"}, {}); });
  await(*collectionHost, [&] {
    collection->createResource_withName_context(NSData::dataWithBytes("text"), "a.ics", {});
  });
  await(*collectionHost, [&] { collection->reportFreebusyFromDate_toDate_context(from, to, {}); });
  principal->invalidate();
  NSRunLoop::currentRunLoop().runUntilDate(NSDate::date());
}

}  // namespace
}  // namespace quillmere

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  quillmere::check(quillmere::fuzzing::viewOf(bytes, count));
  return 0;
}
