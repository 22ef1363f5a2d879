#include "tests/support/CuttingProxy.h"

#include <algorithm>
#include <thread>

namespace quillmere::testing {

void CuttingProxy::cutAfter(std::size_t bytes, Direction direction) {
  const std::lock_guard lock(mutex_);
  passed_ = {};
  cutAfter_ = bytes;
  cutDirection_ = direction;
  hasCut_ = false;
}

bool CuttingProxy::hasCut() const {
  const std::lock_guard lock(mutex_);
  return hasCut_;
}

std::size_t CuttingProxy::passed(Direction direction) const {
  const std::lock_guard lock(mutex_);
  return passed_[static_cast<std::size_t>(direction)];
}

void CuttingProxy::serve(int client) {
  const FileDescriptor server(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto* name = reinterpret_cast<const sockaddr*>(&address_);
  if (::connect(server.get(), name, sizeof address_) != 0) ::shutdown(client, SHUT_RDWR);
  std::thread back([&] { pass(server.get(), client, Direction::toClient); });
  pass(client, server.get(), Direction::toServer);
  ::shutdown(server.get(), SHUT_RDWR);  // nobody waits for its answer
  back.join();
}

// What comes from `from`, until it ends or until the cut. The sockets stay open: closing one with
// bytes unread would take back what was written to it.
void CuttingProxy::pass(int from, int to, Direction direction) {
  std::array<char, 65536> bytes;
  for (bool isCut = false; !isCut;) {
    const ssize_t count = ::recv(from, bytes.data(), bytes.size(), 0);
    if (count <= 0) break;
    auto length = static_cast<std::size_t>(count);
    {
      const std::lock_guard lock(mutex_);
      std::size_t& passed = passed_[static_cast<std::size_t>(direction)];
      const bool mayCut = cutAfter_ > 0 && direction == cutDirection_ && !hasCut_;
      if (mayCut) length = std::min(length, cutAfter_ - passed);
      passed += length;
      isCut = mayCut && passed == cutAfter_;
      hasCut_ = hasCut_ || isCut;
    }
    sendAll(to, {bytes.data(), length});
  }
  ::shutdown(from, SHUT_RDWR);
  ::shutdown(to, SHUT_WR);
}

}  // namespace quillmere::testing
