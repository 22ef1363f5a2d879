#ifndef QUILLMERE_TESTS_SUPPORT_RAWSERVER_H
#define QUILLMERE_TESTS_SUPPORT_RAWSERVER_H

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/LoopbackServer.h"

namespace quillmere::testing {

/// One thing that a RawServer does on a connection; made by the functions below.
struct RawStep {
  enum class Kind { readHead, readBytes, write, waitUntilTold, close, reset };
  Kind kind;
  std::string bytes{};
  std::size_t count = 0;
};

namespace raw {

/// Reads to the empty line that ends a request's head.
inline RawStep readHead() { return {RawStep::Kind::readHead}; }
/// Takes in so many bytes more.
inline RawStep readBytes(std::size_t count) { return {RawStep::Kind::readBytes, {}, count}; }
inline RawStep write(std::string_view bytes, std::size_t times = 1) {
  RawStep step{RawStep::Kind::write};
  while (times-- > 0) step.bytes += bytes;
  return step;
}
inline RawStep waitUntilTold() { return {RawStep::Kind::waitUntilTold}; }
/// Ends the stream in good order: all that was written arrives, then the end.
inline RawStep close() { return {RawStep::Kind::close}; }
/// Breaks the connection; what was written and not yet read by the client may be lost.
inline RawStep reset() { return {RawStep::Kind::reset}; }

}  // namespace raw

/// A server on 127.0.0.1 that does to each connection, in a thread of its own, what is listed,
/// right or wrong as HTTP. Nothing is read or written but by a step; after the last one the
/// connection is read until the client ends it. A connection beyond those listed is reset; that it
/// came, and one that never came, fails the test when the server goes.
class RawServer {
 public:
  using Steps = std::vector<RawStep>;

  RawServer() = default;
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;
  ~RawServer();

  std::string url(std::string_view path) const { return server_.url(path); }

  /// Lists the steps of one more connection, at any time.
  void play(Steps steps);

  /// Lets one step that waits to be told go on. What nobody waits for yet is kept for later.
  void tell();

 private:
  void serve(int socket, std::size_t index);
  bool carryOut(const RawStep& step, int socket, std::string& received);

  std::mutex mutex_;  // of all below
  std::condition_variable told_;
  std::vector<Steps> scripts_;
  std::size_t permits_ = 0;
  bool stopping_ = false;

  LoopbackServer server_{[this](int socket, std::size_t index) { serve(socket, index); }};
};

}  // namespace quillmere::testing

#endif
