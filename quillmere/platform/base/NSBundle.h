#ifndef QUILLMERE_PLATFORM_BASE_NSBUNDLE_H
#define QUILLMERE_PLATFORM_BASE_NSBUNDLE_H

#include <quillmere/platform/base/Export.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace quillmere {

/// What the host application tells of itself.
///
/// One entry is read by the library: "CFBundleShortVersionString", the host's version, which saved
/// documents name in their PRODID. A host that wants its own version there sets it once at start,
/// before it uses the library on a second thread.
class QUILLMERE_EXPORT NSBundle {
 public:
  /// The host application's bundle.
  static NSBundle& mainBundle();

  void setObject_forInfoDictionaryKey(std::string value, std::string_view key);

  /// The entry as the host set it; "CFBundleShortVersionString" is the library's own version as
  /// long as the host has set none; any other entry that was never set is null.
  std::optional<std::string> objectForInfoDictionaryKey(std::string_view key) const;

 private:
  NSBundle();

  std::map<std::string, std::string, std::less<>> infoDictionary_;
};

}  // namespace quillmere

#endif
