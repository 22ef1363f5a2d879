#include "tests/support/RawServer.h"

#include <gtest/gtest.h>

namespace quillmere::testing {
namespace {

// Whether more has come.
bool receive(int socket, std::string& received) {
  char bytes[65536];
  const ssize_t count = ::recv(socket, bytes, sizeof bytes, 0);
  if (count > 0) received.append(bytes, static_cast<std::size_t>(count));
  return count > 0;
}

void reset(int socket) {
  const sockaddr nowhere{AF_UNSPEC, {}};
  if (::connect(socket, &nowhere, sizeof nowhere) != 0) ::shutdown(socket, SHUT_RDWR);
}

}  // namespace

RawServer::~RawServer() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  told_.notify_all();
  const std::size_t connections = server_.stop();
  for (std::size_t i = connections; i < scripts_.size(); ++i) {
    ADD_FAILURE() << "connection " << i + 1 << " was never made";
  }
  if (connections > scripts_.size()) {
    ADD_FAILURE() << "a connection more than the " << scripts_.size() << " listed";
  }
}

void RawServer::play(Steps steps) {
  const std::lock_guard lock(mutex_);
  scripts_.push_back(std::move(steps));
}

void RawServer::tell() {
  const std::lock_guard lock(mutex_);
  ++permits_;
  told_.notify_one();
}

void RawServer::serve(int socket, std::size_t index) {
  std::unique_lock lock(mutex_);
  const Steps steps = index < scripts_.size() ? scripts_[index] : Steps{raw::reset()};
  lock.unlock();
  std::string received;
  for (const RawStep& step : steps) {
    if (!carryOut(step, socket, received)) return;
  }
  while (receive(socket, received)) received.clear();
}

// Whether the connection goes on.
bool RawServer::carryOut(const RawStep& step, int socket, std::string& received) {
  switch (step.kind) {
    case RawStep::Kind::readHead:
      while (received.find("\r\n\r\n") == std::string::npos) {
        if (!receive(socket, received)) return false;
      }
      received.erase(0, received.find("\r\n\r\n") + 4);
      return true;
    case RawStep::Kind::readBytes:
      while (received.size() < step.count) {
        if (!receive(socket, received)) return false;
      }
      received.erase(0, step.count);
      return true;
    case RawStep::Kind::write:
      return sendAll(socket, step.bytes);
    case RawStep::Kind::waitUntilTold: {
      std::unique_lock lock(mutex_);
      told_.wait(lock, [this] { return permits_ > 0 || stopping_; });
      if (!stopping_) --permits_;
      return !stopping_;
    }
    case RawStep::Kind::close:
      return ::shutdown(socket, SHUT_WR) == 0;
    case RawStep::Kind::reset:
      reset(socket);
      return false;
  }
  return false;
}

}  // namespace quillmere::testing
