#ifndef QUILLMERE_PLATFORM_BASE_ATOMICOPTIONAL_H
#define QUILLMERE_PLATFORM_BASE_ATOMICOPTIONAL_H

#include <atomic>
#include <memory>
#include <optional>
#include <utility>

namespace quillmere {

/// A value, or none, that any thread may read and replace; none at first.
template <class Value>
class AtomicOptional {
 public:
  std::optional<Value> get() const {
    const auto value = value_.load();
    if (!value) return std::nullopt;
    return *value;
  }
  void set(std::optional<Value> value) {
    value_.store(value ? std::make_shared<const Value>(std::move(*value)) : nullptr);
  }

 private:
  std::atomic<std::shared_ptr<const Value>> value_;
};

}  // namespace quillmere

#endif
