#ifndef QUILLMERE_TESTS_SUPPORT_RAWSERVER_H
#define QUILLMERE_TESTS_SUPPORT_RAWSERVER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillmere::testing {

/// One thing that a RawServer does on a connection; made by the functions below.
struct RawStep {
  enum class Kind { readHead, readBytes, write, waitUntilTold, close, reset };
  Kind kind;
  std::string bytes{};
  std::size_t count = 1;
};

namespace raw {

/// Reads to the empty line that ends a request's head.
inline RawStep readHead() { return {RawStep::Kind::readHead}; }
/// Takes in so many bytes more.
inline RawStep readBytes(std::size_t count) { return {RawStep::Kind::readBytes, {}, count}; }
inline RawStep write(std::string bytes, std::size_t times = 1) {
  return {RawStep::Kind::write, std::move(bytes), times};
}
inline RawStep waitUntilTold() { return {RawStep::Kind::waitUntilTold}; }
/// Ends the stream in good order: all that was written arrives, then the end.
inline RawStep close() { return {RawStep::Kind::close}; }
/// Breaks the connection; what was written and not yet read by the client may be lost.
inline RawStep reset() { return {RawStep::Kind::reset}; }

}  // namespace raw

/// A server on 127.0.0.1, in a thread of its own, that does to each connection what is listed,
/// right or wrong as HTTP. Nothing is read or written but by a step; after the last one the
/// connection stays open and is read until the client ends it. A connection beyond those listed is
/// reset and is a problem; so is one that never came. Problems that nobody has taken by `finish()`
/// fail the test when the server goes.
class RawServer {
 public:
  using Steps = std::vector<RawStep>;

  RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;
  ~RawServer();

  std::uint16_t port() const;
  std::string url(std::string_view path) const;

  /// Lists the steps of one more connection, at any time.
  void play(Steps steps);

  /// Lets a step that waits to be told go on: one of the earliest connection first. What nobody
  /// waits for yet is kept for later.
  void tell();

  /// Breaks all connections, ends the thread and gives the problems.
  std::vector<std::string> finish();

 private:
  class Loop;
  std::unique_ptr<Loop> loop_;
};

}  // namespace quillmere::testing

#endif
