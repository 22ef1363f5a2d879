// Runs small requests of calendar collections, beside a bare loop over libcurl, and many
// collections at once. The server is a process of its own on this machine.

#include <arpa/inet.h>
#include <curl/curl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/platform/loop/NSRunLoop.h>
#include <quillmere/platform/xml/HWXMLDocument.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <any>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

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

constexpr string_view ctag = "\"2024-01-31T10:00:00Z-000017\"";

std::string cannedAnswer() {
  const std::string body =
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
      "</D:multistatus>\n";
  return "HTTP/1.1 207 Multi-Status\r\nContent-Type: text/xml; charset=\"utf-8\"\r\n"
         "Content-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

// The length of the request that the bytes begin with; 0 when it is not there in whole.
std::size_t lengthOfRequest(string_view bytes) {
  constexpr string_view endOfHead = "\r\n\r\n";
  constexpr string_view lengthField = "\r\nContent-Length: ";
  const std::size_t head = bytes.find(endOfHead);
  if (head == string_view::npos) return 0;
  std::size_t body = 0;
  if (const std::size_t field = bytes.substr(0, head).find(lengthField);
      field != string_view::npos) {
    std::from_chars(bytes.data() + field + lengthField.size(), bytes.data() + head, body);
  }
  const std::size_t length = head + endOfHead.size() + body;
  return length <= bytes.size() ? length : 0;
}

// An HTTP server in a child process, which gives every request the same answer and keeps every
// connection.
class CannedServer {
 public:
  CannedServer();
  CannedServer(const CannedServer&) = delete;
  CannedServer& operator=(const CannedServer&) = delete;
  ~CannedServer();

  std::string url() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/calendars/user/work/";
  }

  struct Counts {
    std::size_t connections = 0;
    std::size_t requests = 0;
    std::size_t requestBytes = 0;
    friend bool operator==(const Counts&, const Counts&) = default;
  };
  Counts counts() const { return {shared_->connections, shared_->requests, shared_->requestBytes}; }

 private:
  // In memory that both processes see.
  struct Shared {
    std::atomic<std::size_t> connections = 0;
    std::atomic<std::size_t> requests = 0;
    std::atomic<std::size_t> requestBytes = 0;
  };

  [[noreturn]] void serve() const;
  void answer(int connection, std::string& received) const;

  Shared* shared_;
  int listener_;
  std::uint16_t port_ = 0;
  std::string answer_ = cannedAnswer();
  pid_t child_;
};

CannedServer::CannedServer()
    : shared_(static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS, -1, 0))),
      listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  require(shared_ != MAP_FAILED, "the processes cannot share memory");
  new (shared_) Shared;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  require(::bind(listener_, generic, size) == 0 && ::listen(listener_, SOMAXCONN) == 0 &&
              ::getsockname(listener_, generic, &size) == 0,
          "the server cannot listen");
  port_ = ntohs(address.sin_port);

  const pid_t parent = getpid();
  child_ = fork();
  require(child_ != -1, "the server cannot be started");
  if (child_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(EXIT_FAILURE);
    serve();
  }
  ::close(listener_);
}

CannedServer::~CannedServer() {
  kill(child_, SIGKILL);
  waitpid(child_, nullptr, 0);
  munmap(shared_, sizeof(Shared));
}

void CannedServer::serve() const {
  const int epoll = ::epoll_create1(0);
  const auto watch = [epoll](int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    require(::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) == 0, "a socket was refused");
  };
  watch(listener_);
  std::unordered_map<int, std::string> received;  // by connection: what is not answered yet
  while (true) {
    epoll_event event{};
    if (::epoll_wait(epoll, &event, 1, -1) != 1) continue;
    if (event.data.fd == listener_) {
      const int connection = ::accept(listener_, nullptr, nullptr);
      require(connection != -1, "the server cannot accept a connection");
      const int on = 1;
      ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      ++shared_->connections;
      watch(connection);
      continue;
    }
    char bytes[16384];
    const ssize_t count = ::recv(event.data.fd, bytes, sizeof bytes, 0);
    if (count <= 0) {
      received.erase(event.data.fd);
      ::close(event.data.fd);
      continue;
    }
    std::string& text = received[event.data.fd];
    text.append(bytes, static_cast<std::size_t>(count));
    answer(event.data.fd, text);
  }
}

void CannedServer::answer(int connection, std::string& received) const {
  while (const std::size_t length = lengthOfRequest(received)) {
    received.erase(0, length);
    ++shared_->requests;
    shared_->requestBytes += length;
    // It fits into the socket's buffer, since no client here asks again before it has read.
    require(::send(connection, answer_.data(), answer_.size(), MSG_NOSIGNAL) ==
                static_cast<ssize_t>(answer_.size()),
            "an answer was not taken");
  }
}

// Hears of outcomes, which have to be good, and calls back after each.
class Host : public quillmere::KBTDavConnectionDelegate {
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

  // Nobody asks for these.
  void calDavConnection_didReceiveFreebusy_context(
      KBTDavConnection&, const std::vector<std::shared_ptr<quillmere::KBTFreeBusy>>&,
      const std::any&) override {}
  void calDavConnection_didReceiveEventsWithETags_andContents_context(
      KBTDavConnection&, const quillmere::KBTDavResourceTexts&,
      const quillmere::KBTDavResourceTexts&, const std::any&) override {}
  void calDavConnection_didCreateResourceWithETag_context(KBTDavConnection&, const std::string&,
                                                          const std::any&) override {}
  void calDavConnection_didUpdateResourceWithETag_context(KBTDavConnection&, const std::string&,
                                                          const std::any&) override {}
  void calDavConnectionDidDeleteResource_context(KBTDavConnection&, const std::any&) override {}
  void calDavConnectionDidRemoveCalendar(KBTDavConnection&) override {}

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

std::size_t appendBody(const char* bytes, std::size_t, std::size_t count, void* body) {
  static_cast<std::string*>(body)->append(bytes, count);
  return count;
}

// The same through one easy handle. The request's body is made once; the answer's is read as the
// collection reads it.
void runBareLoop(const std::string& address) {
  constexpr string_view requestBody =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
      "<propfind xmlns=\"DAV:\"><prop><getctag xmlns=\"http://calendarserver.org/ns/\"/>"
      "</prop></propfind>";
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(),
                                                                 &curl_easy_cleanup);
  curl_slist* lines = nullptr;
  for (const char* line : {"Content-Type: text/xml; charset=\"utf-8\"", "Accept: text/xml",
                           "Depth: 0", "Expect:", "Transfer-Encoding:"}) {
    lines = curl_slist_append(lines, line);
  }
  const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> fields(lines,
                                                                           &curl_slist_free_all);
  std::string body;
  curl_easy_setopt(curl.get(), CURLOPT_URL, address.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_USERAGENT, "Quillmere/" QUILLMERE_VERSION);
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, fields.get());
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(requestBody.size()));
  curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, requestBody.data());
  curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, "PROPFIND");
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &appendBody);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &body);

  for (std::size_t request = 0; request != sequentialRequests; ++request) {
    body.clear();
    long status = 0;
    require(curl_easy_perform(curl.get()) == CURLE_OK, "a request of the bare loop failed");
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    const auto document = HWXMLDocument::initWithData(NSData::dataWithBytes(body));
    require(status == 207 && document, "the bare loop was given no answer");
    const auto found =
        document->rootElement().firstChildAtPath("response/propstat/prop/getctag").value();
    require(found.text() == ctag, "the bare loop was given another tag");
  }
}

double secondsOf(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

struct Times {
  double wall = std::numeric_limits<double>::infinity();
  double processor = std::numeric_limits<double>::infinity();

  // Takes over what a pass did better.
  void take(const Times& pass) {
    wall = std::min(wall, pass.wall);
    processor = std::min(processor, pass.processor);
  }
};

struct Pass {
  Times times;
  CannedServer::Counts counts;
};

Pass runPass(const CannedServer& server, void (*client)(const std::string&)) {
  const CannedServer::Counts before = server.counts();
  const double wall = secondsOf(CLOCK_MONOTONIC);
  const double processor = secondsOf(CLOCK_PROCESS_CPUTIME_ID);
  client(server.url());
  const Times times{secondsOf(CLOCK_MONOTONIC) - wall,
                    secondsOf(CLOCK_PROCESS_CPUTIME_ID) - processor};
  const CannedServer::Counts after = server.counts();
  return {times,
          {after.connections - before.connections, after.requests - before.requests,
           after.requestBytes - before.requestBytes}};
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

struct Memory {
  double resident = 0;  // bytes of the process
  double inUse = 0;     // bytes that the allocator has handed out

  static Memory now() {
    std::size_t total = 0, resident = 0;
    require(static_cast<bool>(std::ifstream("/proc/self/statm") >> total >> resident),
            "the memory of the process cannot be told");
    const struct mallinfo2 heap = mallinfo2();
    return {static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)),
            static_cast<double>(heap.uordblks + heap.hblkhd)};
  }
};

std::size_t threadCount() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    std::size_t count = 0;
    if (word == "Threads:" && status >> count) return count;
  }
  return 0;
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
  const NSURL url = NSURL::URLWithString(server.url()).value();
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

  const double start = secondsOf(CLOCK_MONOTONIC);
  for (const auto& connection : crowd) {
    for (std::size_t i = 0; i != requestsEach; ++i) connection->reportCTagWithContext({});
  }
  const Memory waiting = Memory::now();
  loop.run();
  const double seconds = secondsOf(CLOCK_MONOTONIC) - start;
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

// Both processes have a descriptor for each connection.
void raiseDescriptorLimit() {
  rlimit limit{};
  require(getrlimit(RLIMIT_NOFILE, &limit) == 0, "the limit of descriptors cannot be told");
  limit.rlim_cur = limit.rlim_max;
  require(setrlimit(RLIMIT_NOFILE, &limit) == 0, "the limit of descriptors cannot be raised");
}

// Keeps this process and those that it starts on one processor: to wake a process on another one
// takes about as long as a request, and how long differs from run to run.
void stayOnOneProcessor() {
  cpu_set_t processors;
  CPU_ZERO(&processors);
  CPU_SET(static_cast<std::size_t>(sched_getcpu()), &processors);
  require(sched_setaffinity(0, sizeof processors, &processors) == 0,
          "the process cannot be kept on one processor");
}

}  // namespace

int main() {
  raiseDescriptorLimit();
  {
    const CannedServer server;
    measureCrowd(server);
  }
  stayOnOneProcessor();
  measureSequence(CannedServer());
}
