#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/base/makeObject.h>

#include <string_view>
#include <system_error>
#include <utility>

namespace quillmere {

NSError::NSError(std::string domain, std::int64_t code, NSErrorUserInfo userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

NSErrorPtr NSError::errorWithDomain_code_userInfo(std::string domain, std::int64_t code,
                                                  NSErrorUserInfo userInfo) {
  return makeObject<NSError>(std::move(domain), std::move(code), std::move(userInfo));
}

NSErrorPtr NSError::errorWithPOSIXCode(int code) {
  return errorWithDomain_code_userInfo(
      NSPOSIXErrorDomain, code,
      {{NSLocalizedDescriptionKey, std::generic_category().message(code)}});
}

std::string NSError::localizedDescription() const {
  const auto entry = userInfo_.find(NSLocalizedDescriptionKey);
  if (entry != userInfo_.end()) {
    if (const auto* text = std::get_if<std::string>(&entry->second)) return *text;
  }
  return "The operation could not be completed. (" + domain_ + " error " + std::to_string(code_) +
         ".)";
}

NSErrorPtr NSError::underlyingError() const {
  const auto entry = userInfo_.find(NSUnderlyingErrorKey);
  if (entry == userInfo_.end()) return nullptr;
  const auto* error = std::get_if<NSErrorPtr>(&entry->second);
  return error ? *error : nullptr;
}

void KSWrapUnderlyingError(NSErrorPtr* error, std::string domain, std::int64_t code,
                           NSErrorUserInfo userInfo, KSSourceLocation location) {
  if (!error) return;
  const std::string_view path = location.file;
  userInfo[KSErrorFileKey] = std::string(path.substr(path.rfind('/') + 1));
  userInfo[KSErrorLineKey] = std::int64_t{location.line};
  if (*error) userInfo[NSUnderlyingErrorKey] = *error;
  *error = NSError::errorWithDomain_code_userInfo(std::move(domain), code, std::move(userInfo));
}

}  // namespace quillmere
