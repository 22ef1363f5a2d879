#ifndef QUILLMERE_BENCHMARKS_CANNEDSERVER_H
#define QUILLMERE_BENCHMARKS_CANNEDSERVER_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace benchmarks {

/// A request as its server sees it.
struct ServedRequest {
  std::string_view method;
  std::string_view path;
  std::string_view body;
  int edition;  // what `CannedServer::setEdition` last said
};

/// Gives the whole answer to a request, good until the next one.
using Responder = std::function<std::string_view(const ServedRequest&)>;

/// The answer 207 with that body.
std::string multiStatusAnswer(std::string_view body);

/// An HTTP server on this machine, in a child process, which keeps every connection. It answers one
/// request after another, so clients have to read large answers while they come.
class CannedServer {
 public:
  /// `makeResponder` is called in the child, whose memory alone holds what the responder does.
  explicit CannedServer(const std::function<Responder()>& makeResponder);
  CannedServer(const CannedServer&) = delete;
  CannedServer& operator=(const CannedServer&) = delete;
  ~CannedServer();

  std::string url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
  }

  /// Lets the responder tell of another state; at first it is 0.
  void setEdition(int edition) const { shared_->edition = edition; }

  struct Counts {
    std::size_t connections = 0;
    std::size_t requests = 0;
    std::size_t requestBytes = 0;

    friend bool operator==(const Counts&, const Counts&) = default;
    friend Counts operator-(const Counts& a, const Counts& b) {
      return {a.connections - b.connections, a.requests - b.requests,
              a.requestBytes - b.requestBytes};
    }
  };
  Counts counts() const { return {shared_->connections, shared_->requests, shared_->requestBytes}; }

 private:
  // In memory that all processes see.
  struct Shared {
    std::atomic<std::size_t> connections = 0;
    std::atomic<std::size_t> requests = 0;
    std::atomic<std::size_t> requestBytes = 0;
    std::atomic<int> edition = 0;
  };

  [[noreturn]] void serve(const Responder& responder) const;
  void answer(int connection, std::string& received, const Responder& responder) const;

  Shared* shared_;
  int listener_;
  std::uint16_t port_ = 0;
  pid_t child_;
};

}  // namespace benchmarks

#endif
