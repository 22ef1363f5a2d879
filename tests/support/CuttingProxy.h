#ifndef QUILLMERE_TESTS_SUPPORT_CUTTINGPROXY_H
#define QUILLMERE_TESTS_SUPPORT_CUTTINGPROXY_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace quillmere::testing {

/// Stands on 127.0.0.1 between a client and a server there, in a thread of its own, and passes on
/// what they send. Once, it ends the connection under way after so many bytes; those arrive on the
/// other side, and nothing after them. The connections before and after are left alone.
class CuttingProxy {
 public:
  enum class Direction { toServer, toClient };

  explicit CuttingProxy(std::uint16_t serverPort);
  CuttingProxy(const CuttingProxy&) = delete;
  CuttingProxy& operator=(const CuttingProxy&) = delete;
  ~CuttingProxy();

  std::string url(std::string_view path) const;

  /// Counts the bytes of all connections from now on. 0: no cut.
  void cutAfter(std::size_t bytes, Direction direction);

  /// Whether it has come to the cut.
  bool hasCut() const;

  /// The bytes passed on so far.
  std::size_t passed(Direction direction) const;

 private:
  class Loop;
  std::unique_ptr<Loop> loop_;
};

}  // namespace quillmere::testing

#endif
