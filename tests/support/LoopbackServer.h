#ifndef QUILLMERE_TESTS_SUPPORT_LOOPBACKSERVER_H
#define QUILLMERE_TESTS_SUPPORT_LOOPBACKSERVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <quillmere/platform/base/FileDescriptor.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cstdint>
#include <stdexcept>

namespace quillmere::testing {

inline sockaddr_in loopback(std::uint16_t port) {
  return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}

/// What a server in a thread of its own polls: a socket that listens on 127.0.0.1, and a bell.
struct LoopbackServer {
  LoopbackServer() {
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    auto* name = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener.get(), name, size) != 0 || ::listen(listener.get(), SOMAXCONN) != 0 ||
        ::getsockname(listener.get(), name, &size) != 0 || !bell.isOpen()) {
      throw std::runtime_error("the test server does not start");
    }
    port = ntohs(address.sin_port);
  }
  void ring() const { ::eventfd_write(bell.get(), 1); }
  int accept() const { return ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC); }

  const FileDescriptor listener{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  const FileDescriptor bell{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  std::uint16_t port = 0;
};

}  // namespace quillmere::testing

#endif
