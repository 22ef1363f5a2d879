#ifndef QUILLMERE_PLATFORM_BASE_NSKEYVALUEOBSERVING_H
#define QUILLMERE_PLATFORM_BASE_NSKEYVALUEOBSERVING_H

#include <quillmere/platform/base/Export.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillmere {

/// A handler that hears of changes as long as this object lives.
class QUILLMERE_EXPORT NSKeyValueObservation {
 public:
  NSKeyValueObservation(std::string key, std::function<void()> handler)
      : key_(std::move(key)), handler_(std::move(handler)) {}

 private:
  friend class NSKeyValueObserving;
  std::string key_;
  std::function<void()> handler_;
};

/// What tells observers that a value of it has changed. Each class says of which of its values it
/// does so; the key is the name of the accessor.
class QUILLMERE_EXPORT NSKeyValueObserving {
 public:
  /// Calls `handler` right after each change of the value named `key`, from where it is changed,
  /// until the result is destroyed.
  [[nodiscard]] std::shared_ptr<NSKeyValueObservation> observeKey_changeHandler(
      std::string key, std::function<void()> handler);

 protected:
  NSKeyValueObserving() = default;
  ~NSKeyValueObserving() = default;

  void didChangeValueForKey(std::string_view key);

 private:
  std::vector<std::weak_ptr<NSKeyValueObservation>> observations_;
};

}  // namespace quillmere

#endif
