#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/base/makeObject.h>

#include <string_view>
#include <system_error>
#include <utility>

namespace quillmere {
namespace {

// Null where the key has no value, or one of another type.
template <class Value>
const Value* valueIn(const NSErrorUserInfo& userInfo, const char* key) {
  const auto entry = userInfo.find(key);
  return entry == userInfo.end() ? nullptr : std::get_if<Value>(&entry->second);
}

template <class Value>
std::optional<Value> copied(const Value* value) {
  return value ? std::optional(*value) : std::nullopt;
}

}  // namespace

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
  if (const auto* text = valueIn<std::string>(userInfo_, NSLocalizedDescriptionKey)) return *text;
  return "The operation could not be completed. (" + domain_ + " error " + std::to_string(code_) +
         ".)";
}

std::optional<std::string> NSError::localizedRecoverySuggestion() const {
  return copied(valueIn<std::string>(userInfo_, NSLocalizedRecoverySuggestionErrorKey));
}

std::optional<std::string> NSError::failingURLString() const {
  return copied(valueIn<std::string>(userInfo_, NSURLErrorFailingURLStringErrorKey));
}

std::optional<NSData> NSError::responseData() const {
  return copied(valueIn<NSData>(userInfo_, NSErrorResponseDataKey));
}

NSErrorPtr NSError::underlyingError() const {
  const auto* error = valueIn<NSErrorPtr>(userInfo_, NSUnderlyingErrorKey);
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
