#include "tests/support/CuttingProxy.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <list>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/LoopbackServer.h"

namespace quillmere::testing {
namespace {

using Direction = CuttingProxy::Direction;

// A connection: one end is gone when the other is only read until it ends, too. Closing that with
// bytes unread would take back what was written to it.
struct Pair {
  std::optional<FileDescriptor> client, server;

  std::optional<FileDescriptor>& from(Direction direction) {
    return direction == Direction::toServer ? client : server;
  }
  std::optional<FileDescriptor>& to(Direction direction) {
    return direction == Direction::toServer ? server : client;
  }
  void end(Direction direction) {
    from(direction).reset();
    if (to(direction)) ::shutdown(to(direction)->get(), SHUT_WR);
  }
};

void sendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return;  // its reader is gone
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

}  // namespace

class CuttingProxy::Loop : public LoopbackServer {
 public:
  explicit Loop(std::uint16_t serverPort)
      : server_(loopback(serverPort)), thread_([this] { run(); }) {}
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  ~Loop() {
    ring();
    thread_.join();
  }

  void cutAfter(std::size_t bytes, Direction direction) {
    const std::lock_guard lock(mutex_);
    passed_ = {};
    cutAfter_ = bytes;
    cutDirection_ = direction;
    hasCut_ = false;
  }

  bool hasCut() const {
    const std::lock_guard lock(mutex_);
    return hasCut_;
  }

  std::size_t passed(Direction direction) const {
    const std::lock_guard lock(mutex_);
    return passed_[static_cast<std::size_t>(direction)];
  }

 private:
  void run() {
    for (;;) {
      std::vector<pollfd> polled{{bell.get(), POLLIN, 0}, {listener.get(), POLLIN, 0}};
      std::vector<std::pair<Pair*, Direction>> sources;
      for (Pair& pair : pairs_) {
        for (const auto direction : {Direction::toServer, Direction::toClient}) {
          if (!pair.from(direction)) continue;
          polled.push_back({pair.from(direction)->get(), POLLIN, 0});
          sources.emplace_back(&pair, direction);
        }
      }
      ::poll(polled.data(), polled.size(), -1);
      if (polled[0].revents != 0) return;
      for (std::size_t i = 0; i < sources.size(); ++i) {
        const auto [pair, direction] = sources[i];
        if (polled[i + 2].revents != 0 && pair->from(direction)) pass(*pair, direction);
      }
      std::erase_if(pairs_, [](const Pair& pair) { return !pair.client && !pair.server; });
      if (polled[1].revents != 0) acceptOne();
    }
  }

  void acceptOne() {
    Pair& pair = pairs_.emplace_back();
    pair.client.emplace(accept());
    pair.server.emplace(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(pair.server->get(), reinterpret_cast<const sockaddr*>(&server_),
                  sizeof server_) != 0) {
      pairs_.pop_back();
    }
  }

  void pass(Pair& pair, Direction direction) {
    std::array<char, 65536> bytes;
    const ssize_t count = ::recv(pair.from(direction)->get(), bytes.data(), bytes.size(), 0);
    const std::lock_guard lock(mutex_);
    if (count <= 0) {
      pair.end(direction);
    } else if (pair.to(direction)) {
      std::size_t& passed = passed_[static_cast<std::size_t>(direction)];
      auto length = static_cast<std::size_t>(count);
      const bool mayCut = cutAfter_ > 0 && direction == cutDirection_ && !hasCut_;
      if (mayCut) length = std::min(length, cutAfter_ - passed);
      sendAll(pair.to(direction)->get(), {bytes.data(), length});
      passed += length;
      if (mayCut && passed == cutAfter_) {
        hasCut_ = true;
        pair.end(direction);
      }
    }
  }

  const sockaddr_in server_;
  std::list<Pair> pairs_;  // of the thread

  mutable std::mutex mutex_;  // of all below
  std::array<std::size_t, 2> passed_{};
  std::size_t cutAfter_ = 0;
  Direction cutDirection_ = Direction::toServer;
  bool hasCut_ = false;

  std::thread thread_;
};

CuttingProxy::CuttingProxy(std::uint16_t serverPort) : loop_(std::make_unique<Loop>(serverPort)) {}

CuttingProxy::~CuttingProxy() = default;

std::string CuttingProxy::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(loop_->port) + std::string(path);
}

void CuttingProxy::cutAfter(std::size_t bytes, Direction direction) {
  loop_->cutAfter(bytes, direction);
}

bool CuttingProxy::hasCut() const { return loop_->hasCut(); }

std::size_t CuttingProxy::passed(Direction direction) const { return loop_->passed(direction); }

}  // namespace quillmere::testing
