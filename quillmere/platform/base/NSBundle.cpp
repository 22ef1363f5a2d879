#include <quillmere/platform/base/NSBundle.h>

#include <utility>

namespace quillmere {

NSBundle::NSBundle() : infoDictionary_{{"CFBundleShortVersionString", QUILLMERE_VERSION}} {}

NSBundle& NSBundle::mainBundle() {
  static NSBundle bundle;
  return bundle;
}

void NSBundle::setObject_forInfoDictionaryKey(std::string value, std::string_view key) {
  infoDictionary_.insert_or_assign(std::string(key), std::move(value));
}

std::optional<std::string> NSBundle::objectForInfoDictionaryKey(std::string_view key) const {
  const auto entry = infoDictionary_.find(key);
  if (entry == infoDictionary_.end()) return std::nullopt;
  return entry->second;
}

}  // namespace quillmere
