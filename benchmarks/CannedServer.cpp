#include "CannedServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <csignal>
#include <new>
#include <unordered_map>

#include "Process.h"
#include "Race.h"

namespace benchmarks {
namespace {

using std::string_view;

constexpr string_view endOfHead = "\r\n\r\n";

// The length of the request that the bytes begin with; 0 when it is not there in whole.
std::size_t lengthOfRequest(string_view bytes) {
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

ServedRequest requestFrom(string_view bytes, int edition) {
  const std::size_t path = bytes.find(' ') + 1;
  return {bytes.substr(0, path - 1), bytes.substr(path, bytes.find(' ', path) - path),
          bytes.substr(bytes.find(endOfHead) + endOfHead.size()), edition};
}

}  // namespace

std::string multiStatusAnswer(string_view body) {
  std::string answer =
      "HTTP/1.1 207 Multi-Status\r\nContent-Type: text/xml; charset=\"utf-8\"\r\n"
      "Content-Length: ";
  answer += std::to_string(body.size());
  return answer.append(endOfHead).append(body);
}

CannedServer::CannedServer(const std::function<Responder()>& makeResponder)
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
  child_ = startChild([&] { serve(makeResponder()); });
  ::close(listener_);
}

CannedServer::~CannedServer() {
  kill(child_, SIGKILL);
  waitForChild(child_);
  munmap(shared_, sizeof(Shared));
}

void CannedServer::serve(const Responder& responder) const {
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
    answer(event.data.fd, text, responder);
  }
}

void CannedServer::answer(int connection, std::string& received, const Responder& responder) const {
  while (const std::size_t length = lengthOfRequest(received)) {
    ++shared_->requests;
    shared_->requestBytes += length;
    string_view answer =
        responder(requestFrom(string_view(received).substr(0, length), shared_->edition));
    while (!answer.empty()) {
      const ssize_t sent = ::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
      require(sent > 0, "an answer was not taken");
      answer.remove_prefix(static_cast<std::size_t>(sent));
    }
    received.erase(0, length);
  }
}

}  // namespace benchmarks
