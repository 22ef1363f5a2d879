// Runs small requests of calendar collections, beside a bare loop over libcurl, and many
// collections at once. The server is a process of its own on this machine.

#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/platform/loop/NSRunLoop.h>
#include <quillmere/platform/xml/HWXMLDocument.h>

#include <any>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "BareClient.h"
#include "CannedServer.h"
#include "Process.h"
#include "Race.h"

namespace {

using namespace benchmarks;
using quillmere::HWXMLDocument, quillmere::NSData, quillmere::NSURL;
using quillmere::KBTDavConnection, quillmere::KBTDavPrincipal;
using quillmere::NSErrorPtr, quillmere::NSRunLoop;
using std::string_view;

constexpr std::size_t sequentialRequests = 2'000;
constexpr std::size_t requestors = 1'000;
constexpr std::size_t requestsEach = 10;

constexpr string_view collectionPath = "/calendars/user/work/";
constexpr string_view ctag = "\"2024-01-31T10:00:00Z-000017\"";

// Every request is given the same answer.
Responder makeResponder() {
  const std::string answer = multiStatusAnswer(
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
      "<D:multistatus xmlns:D=\"DAV:\" xmlns:CS=\"http://calendarserver.org/ns/\">\n"
      "  <D:response>\n"
      "    <D:href>/calendars/user/work/</D:href>\n"
      "    <D:propstat>\n"
      "      <D:prop>\n"
      "        <CS:getctag>" +
      std::string(ctag) +
      "</CS:getctag>\n"
      "      </D:prop>\n"
      "      <D:status>HTTP/1.1 200 OK</D:status>\n"
      "    </D:propstat>\n"
      "  </D:response>\n"
      "</D:multistatus>\n");
  return [answer](const ServedRequest&) -> string_view { return answer; };
}

// Hears of outcomes, which have to be good, and calls back after each.
class Host : public quillmere::KBTDavConnectionDelegateBase {
 public:
  explicit Host(std::function<void(KBTDavConnection&)> onAnswer) : onAnswer_(std::move(onAnswer)) {}

  void calDavConnection_didReceiveCTag_context(KBTDavConnection& connection,
                                               const std::optional<std::string>& found,
                                               const std::any&) override {
    require(found == ctag, "a collection was given another tag");
    onAnswer_(connection);
  }
  void calDavConnection_requestDidFail_context(KBTDavConnection&, const NSErrorPtr&,
                                               const std::any&) override {
    require(false, "a request failed");
  }

 private:
  std::function<void(KBTDavConnection&)> onAnswer_;
};

std::shared_ptr<KBTDavPrincipal> principalAt(const NSURL& url) {
  return KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(nullptr, std::nullopt,
                                                                          std::nullopt, url);
}

// One request after another through a collection.
void runCollection(const std::string& address) {
  const NSURL url = NSURL::URLWithString(address).value();
  const auto principal = principalAt(url);
  const auto connection = KBTDavConnection::initWithCalendarName_description_URL_forPrincipal(
      "work", {}, url, principal);
  const NSRunLoop loop = NSRunLoop::currentRunLoop();
  std::size_t answers = 0;
  connection->setDelegate(std::make_shared<Host>([&](KBTDavConnection& asked) {
    if (++answers == sequentialRequests) return loop.stop();
    asked.reportCTagWithContext({});
  }));
  connection->reportCTagWithContext({});
  loop.run();
  principal->invalidate();
}

// The same through one easy handle. The request's body is made once; the answer's is read as the
// collection reads it.
void runBareLoop(const std::string& address) {
  constexpr string_view requestBody =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
      "<propfind xmlns=\"DAV:\"><prop><getctag xmlns=\"http://calendarserver.org/ns/\"/>"
      "</prop></propfind>";
  BareClient client(address, "PROPFIND",
                    {"Content-Type: text/xml; charset=\"utf-8\"", "Accept: text/xml", "Depth: 0"});
  for (std::size_t request = 0; request != sequentialRequests; ++request) {
    const auto document =
        HWXMLDocument::initWithData(NSData::dataWithBytes(client.answerTo(requestBody)));
    require(document != nullptr, "the bare loop was given no XML");
    const auto found =
        document->rootElement().firstChildAtPath("response/propstat/prop/getctag").value();
    require(found.text() == ctag, "the bare loop was given another tag");
  }
}

struct Pass {
  Times times;
  CannedServer::Counts counts;
};

Pass runPass(const CannedServer& server, void (*client)(const std::string&)) {
  const CannedServer::Counts before = server.counts();
  const Times start = Times::now();
  client(server.url(collectionPath));
  const Times times = Times::now() - start;
  return {times, server.counts() - before};
}

void printTimes(const std::string& measure, double ours, double bare) {
  constexpr double mostOfBare = 1.5;
  const auto each = [](double seconds) {
    return formatted(1e6 * seconds / static_cast<double>(sequentialRequests), "%.1f µs");
  };
  print({measure, each(ours), each(bare), formatted(ours / bare, "%.2f x"),
         "at most " + times(mostOfBare), yesNo(ours <= mostOfBare * bare)});
}

void measureSequence(const CannedServer& server) {
  constexpr int rounds = 7;
  Times ours, bare;
  for (int round = 0; round < rounds; ++round) {
    const Pass ourPass = runPass(server, runCollection);
    const Pass barePass = runPass(server, runBareLoop);
    require(ourPass.counts.connections == 1, "the collection did not keep to one connection");
    require(barePass.counts.connections == 1, "the bare loop did not keep to one connection");
    require(ourPass.counts.requests == sequentialRequests && ourPass.counts == barePass.counts,
            "the clients sent different requests");
    ours.take(ourPass.times);
    bare.take(barePass.times);
  }
  const std::string count = std::to_string(sequentialRequests);
  printTimes(count + " requests in turn, wall time each", ours.wall, bare.wall);
  printTimes(count + " requests in turn, processor time each", ours.processor, bare.processor);
}

// Only idle requestors are held to the target.
void printMemory(const std::string& state, bool isIdle, const Memory& before, const Memory& now) {
  constexpr double most = 64 << 10;
  const auto row = [&](const std::string& kind, double bytes) {
    const double each = bytes / static_cast<double>(requestors);
    print({"a requestor, " + state + ", " + kind, formatted(each, "%.0f bytes"), "", "",
           isIdle ? "at most 64 KiB" : "", isIdle ? yesNo(each <= most) : ""});
  };
  row("resident memory", now.resident - before.resident);
  row("allocated memory", now.inUse - before.inUse);
}

// Must come first: memory that was freed before would be taken into use again, and not be seen to
// become resident.
void measureCrowd(const CannedServer& server) {
  constexpr std::size_t requests = requestors * requestsEach;
  const NSURL url = NSURL::URLWithString(server.url(collectionPath)).value();
  const NSRunLoop loop = NSRunLoop::currentRunLoop();
  std::unordered_map<const KBTDavConnection*, std::size_t> answersOf;
  std::size_t answers = 0;
  const auto host = std::make_shared<Host>([&](KBTDavConnection& connection) {
    ++answersOf[&connection];
    if (++answers % requestors == 0) require(threadCount() == 1, "there is more than one thread");
    if (answers == requests) loop.stop();
  });
  std::vector<std::shared_ptr<KBTDavConnection>> crowd;
  crowd.reserve(requestors);
  answersOf.reserve(requestors);

  const Memory before = Memory::now();
  const auto principal = principalAt(url);
  for (std::size_t i = 0; i != requestors; ++i) {
    crowd.push_back(KBTDavConnection::initWithCalendarName_description_URL_forPrincipal(
        "work", {}, url, principal));
    crowd.back()->setDelegate(host);
  }
  const Memory fresh = Memory::now();

  const Times start = Times::now();
  for (const auto& connection : crowd) {
    for (std::size_t i = 0; i != requestsEach; ++i) connection->reportCTagWithContext({});
  }
  const Memory waiting = Memory::now();
  loop.run();
  const double seconds = (Times::now() - start).wall;
  // Carries out what the last answer left to be done.
  loop.runUntilDate(quillmere::NSDate::dateWithMicrosecondsSince1970(0));
  const Memory idle = Memory::now();

  require(answersOf.size() == requestors, "a requestor was left out");
  for (const auto& [connection, count] : answersOf) {
    require(count == requestsEach, "a requestor has more or fewer answers than requests");
  }
  const CannedServer::Counts counts = server.counts();
  require(counts.requests == requests, "the server has seen more or fewer requests");
  const std::string crowdName = std::to_string(requestors) + " requestors at once";
  print({crowdName + ", wall time of a request, over " + std::to_string(counts.connections) +
             " connections",
         formatted(1e6 * seconds / static_cast<double>(requests), "%.1f µs"), "", "", "", ""});
  printMemory("new", true, before, fresh);
  printMemory("with " + std::to_string(requestsEach) + " requests waiting", false, before, waiting);
  printMemory("idle again", true, before, idle);
  principal->invalidate();
}

}  // namespace

int main() {
  raiseDescriptorLimit();
  {
    const CannedServer server(makeResponder);
    measureCrowd(server);
  }
  stayOnOneProcessor();
  measureSequence(CannedServer(makeResponder));
}
