#ifndef QUILLMERE_TESTS_SUPPORT_CUTTINGPROXY_H
#define QUILLMERE_TESTS_SUPPORT_CUTTINGPROXY_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "tests/support/LoopbackServer.h"

namespace quillmere::testing {

/// Stands on 127.0.0.1 between a client and a server there, in threads of its own, and passes on
/// what they send. Once, it ends the connection under way after so many bytes; those arrive on the
/// other side, and nothing after them. The connections before and after are left alone.
class CuttingProxy {
 public:
  enum class Direction { toServer, toClient };

  explicit CuttingProxy(std::uint16_t serverPort) : address_(loopback(serverPort)) {}

  std::string url(std::string_view path) const { return proxy_.url(path); }

  /// Counts the bytes of all connections from now on. 0: no cut.
  void cutAfter(std::size_t bytes, Direction direction);

  /// Whether it has come to the cut.
  bool hasCut() const;

  /// The bytes passed on so far.
  std::size_t passed(Direction direction) const;

 private:
  void serve(int client);
  void pass(int from, int to, Direction direction);

  const sockaddr_in address_;  // the server's

  mutable std::mutex mutex_;  // of all below
  std::array<std::size_t, 2> passed_{};
  std::size_t cutAfter_ = 0;
  Direction cutDirection_ = Direction::toServer;
  bool hasCut_ = false;

  LoopbackServer proxy_{[this](int client, std::size_t) { serve(client); }};
};

}  // namespace quillmere::testing

#endif
