#include "tests/support/RawServer.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>
#include <list>
#include <mutex>
#include <optional>
#include <thread>

#include "tests/support/LoopbackServer.h"

namespace quillmere::testing {
namespace {

// One connection and how far its steps have come.
class Player {
 public:
  Player(int socket, RawServer::Steps steps)
      : socket_(std::in_place, socket), steps_(std::move(steps)) {}

  int descriptor() const { return socket_->get(); }
  bool isOpen() const { return socket_.has_value(); }

  // Closes, so that the client's next call fails.
  void reset() {
    const linger now{1, 0};
    if (isOpen()) ::setsockopt(descriptor(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    socket_.reset();
  }

  // What to poll for. The client's end of the stream is of interest always.
  short events() const {
    const bool isOver = stepsDone_ == steps_.size();
    if (!isOver && currentStep().kind == RawStep::Kind::write) return POLLOUT | POLLRDHUP;
    if (!isOver && currentStep().kind == RawStep::Kind::waitUntilTold) return POLLRDHUP;
    return POLLIN | POLLRDHUP;
  }

  void handle(short events) {
    if ((events & POLLIN) != 0) {
      read();
    } else if ((events & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0) {
      socket_.reset();
    }
  }

  // Goes on as far as it can without waiting.
  void advance(std::size_t& permits) {
    while (isOpen() && stepsDone_ < steps_.size() && play(currentStep(), permits)) {
      ++stepsDone_;
      written_ = 0;
    }
  }

 private:
  const RawStep& currentStep() const { return steps_[stepsDone_]; }

  // Whether the step is done.
  bool play(const RawStep& step, std::size_t& permits) {
    switch (step.kind) {
      case RawStep::Kind::readHead: {
        const auto end = received_.find("\r\n\r\n");
        if (end == std::string::npos) return false;
        received_.erase(0, end + 4);
        return true;
      }
      case RawStep::Kind::readBytes:
        if (received_.size() < step.count) return false;
        received_.erase(0, step.count);
        return true;
      case RawStep::Kind::write:
        while (written_ < step.bytes.size() * step.count) {
          if (!send(std::string_view(step.bytes).substr(written_ % step.bytes.size()))) {
            return false;
          }
        }
        return true;
      case RawStep::Kind::waitUntilTold:
        if (permits == 0) return false;
        --permits;
        return true;
      case RawStep::Kind::close:
        // Closing a socket with bytes unread would break the connection, so the rest is read until
        // the client ends it, too.
        ::shutdown(descriptor(), SHUT_WR);
        return true;
      case RawStep::Kind::reset:
        reset();
        return true;
    }
    return true;
  }

  bool send(std::string_view bytes) {
    const ssize_t count =
        ::send(descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0) {
      if (errno != EAGAIN && errno != EINTR) socket_.reset();
      return false;
    }
    written_ += static_cast<std::size_t>(count);
    return true;
  }

  void read() {
    char bytes[65536];
    const ssize_t count = ::recv(descriptor(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (count > 0) {
      received_.append(bytes, static_cast<std::size_t>(count));
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
      socket_.reset();
    }
  }

  std::optional<FileDescriptor> socket_;
  RawServer::Steps steps_;
  std::size_t stepsDone_ = 0;
  std::size_t written_ = 0;  // of the current step
  std::string received_;     // and not yet used by a step
};

}  // namespace

class RawServer::Loop : public LoopbackServer {
 public:
  Loop() : thread_([this] { run(); }) {}
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  ~Loop() {
    stop();
    if (problemsTaken_) return;
    for (const std::string& problem : problems_) ADD_FAILURE() << problem;
  }

  void play(Steps steps) {
    const std::lock_guard lock(mutex_);
    scripts_.push_back(std::move(steps));
  }

  void tell() {
    const std::lock_guard lock(mutex_);
    ++permits_;
    ring();
  }

  std::vector<std::string> finish() {
    stop();
    problemsTaken_ = true;
    return problems_;
  }

 private:
  void stop() {
    if (!thread_.joinable()) return;
    {
      const std::lock_guard lock(mutex_);
      stopping_ = true;
      ring();
    }
    thread_.join();
    for (Player& player : players_) player.reset();
    for (std::size_t i = players_.size(); i < scripts_.size(); ++i) {
      problems_.push_back("connection " + std::to_string(i + 1) + " was never made");
    }
  }

  void run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
      std::vector<Player*> open;
      std::vector<pollfd> polled{{bell.get(), POLLIN, 0}, {listener.get(), POLLIN, 0}};
      for (Player& player : players_) {
        player.advance(permits_);
        if (!player.isOpen()) continue;
        open.push_back(&player);
        polled.push_back({player.descriptor(), player.events(), 0});
      }
      lock.unlock();
      ::poll(polled.data(), polled.size(), -1);
      lock.lock();
      eventfd_t rings = 0;
      ::eventfd_read(bell.get(), &rings);
      for (std::size_t i = 0; i < open.size(); ++i) open[i]->handle(polled[i + 2].revents);
      if (polled[1].revents != 0) acceptOne();
    }
  }

  void acceptOne() {
    const int socket = accept();
    if (socket < 0) return;
    if (const auto index = players_.size(); index < scripts_.size()) {
      players_.emplace_back(socket, scripts_[index]);
    } else {
      problems_.push_back("a connection more than the " + std::to_string(index) + " listed");
      Player(socket, {}).reset();
    }
  }

  bool problemsTaken_ = false;

  mutable std::mutex mutex_;  // of all below
  std::vector<Steps> scripts_;
  std::list<Player> players_;
  std::size_t permits_ = 0;
  bool stopping_ = false;
  std::vector<std::string> problems_;

  std::thread thread_;
};

RawServer::RawServer() : loop_(std::make_unique<Loop>()) {}

RawServer::~RawServer() = default;

std::uint16_t RawServer::port() const { return loop_->port; }

std::string RawServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(port()) + std::string(path);
}

void RawServer::play(Steps steps) { loop_->play(std::move(steps)); }

void RawServer::tell() { loop_->tell(); }

std::vector<std::string> RawServer::finish() { return loop_->finish(); }

}  // namespace quillmere::testing
