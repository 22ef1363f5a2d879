#include <quillmere/platform/base/HWPreference.h>
#include <quillmere/platform/base/makeObject.h>

#include <charconv>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>

namespace quillmere {

std::shared_ptr<HWPreference> HWPreference::preferenceForKey(std::string_view key) {
  static std::map<std::string, std::shared_ptr<HWPreference>, std::less<>> preferences;
  static std::mutex mutex;  // the library asks from every thread that it is used on
  const std::lock_guard lock(mutex);
  const auto known = preferences.find(key);
  if (known != preferences.end()) return known->second;
  return preferences.emplace(key, makeObject<HWPreference>(key)).first->second;
}

std::optional<std::string> HWPreference::stringValue() const {
  if (value_) return value_;
  const char* const fromEnvironment = std::getenv(key_.c_str());
  if (!fromEnvironment) return std::nullopt;
  return fromEnvironment;
}

std::int64_t HWPreference::integerValue() const {
  const std::string text = stringValue().value_or("");
  std::int64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

}  // namespace quillmere
