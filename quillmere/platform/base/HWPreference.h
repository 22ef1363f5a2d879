#ifndef QUILLMERE_PLATFORM_BASE_HWPREFERENCE_H
#define QUILLMERE_PLATFORM_BASE_HWPREFERENCE_H

#include <quillmere/platform/base/Export.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quillmere {

/// One setting of the process: what the host has set, else the environment variable of the same
/// name. A host sets one before it uses the library on a second thread. The library reads
/// "KBTDavRequestorLogLevel" (see `KBTDavRequestor`) and those that `EKEventStore` names.
class QUILLMERE_EXPORT HWPreference {
 public:
  /// The preference of a key; the same object every time.
  static std::shared_ptr<HWPreference> preferenceForKey(std::string_view key);

  /// Null when it is set nowhere.
  std::optional<std::string> stringValue() const;
  /// The number that the text begins with; 0 for any other text, and when it is set nowhere.
  std::int64_t integerValue() const;

  /// Null goes back to the environment.
  void setStringValue(std::optional<std::string> value) { value_ = std::move(value); }
  void setIntegerValue(std::int64_t value) { value_ = std::to_string(value); }

 protected:
  explicit HWPreference(std::string_view key) : key_(key) {}

 private:
  std::string key_;
  std::optional<std::string> value_;
};

}  // namespace quillmere

#endif
