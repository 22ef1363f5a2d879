#ifndef QUILLMERE_TESTS_SUPPORT_LOOPBACKSERVER_H
#define QUILLMERE_TESTS_SUPPORT_LOOPBACKSERVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <quillmere/platform/base/FileDescriptor.h>
#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace quillmere::testing {

inline sockaddr_in loopback(std::uint16_t port) {
  return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}

/// Listens on 127.0.0.1 and serves each connection in a thread of its own. The sockets stay open
/// until the server goes.
class LoopbackServer {
 public:
  /// Is given the socket of a connection and how many there were before it.
  using Serve = std::function<void(int socket, std::size_t index)>;

  explicit LoopbackServer(Serve serve) : serve_(std::move(serve)) {
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    auto* name = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener_.get(), name, size) != 0 || ::listen(listener_.get(), SOMAXCONN) != 0 ||
        ::getsockname(listener_.get(), name, &size) != 0) {
      throw std::runtime_error("the test server does not start");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { acceptAll(); });
  }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;
  ~LoopbackServer() { stop(); }

  std::string url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
  }

  /// Ends all connections and waits for their threads. How many there were.
  std::size_t stop() {
    if (acceptor_.joinable()) {
      ::shutdown(listener_.get(), SHUT_RDWR);
      acceptor_.join();
    }
    for (const FileDescriptor& socket : sockets_) ::shutdown(socket.get(), SHUT_RDWR);
    for (std::thread& thread : std::exchange(threads_, {})) thread.join();
    return sockets_.size();
  }

 private:
  void acceptAll() {
    for (;;) {
      const int socket = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
      if (socket < 0) return;
      sockets_.emplace_back(socket);
      threads_.emplace_back(serve_, socket, threads_.size());
    }
  }

  const Serve serve_;
  const FileDescriptor listener_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::uint16_t port_ = 0;
  std::list<FileDescriptor> sockets_;
  std::list<std::thread> threads_;
  std::thread acceptor_;  // the only one to touch those two while it runs
};

/// Sends all, unless the reader is gone.
inline bool sendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace quillmere::testing

#endif
