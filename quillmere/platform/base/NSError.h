#ifndef QUILLMERE_PLATFORM_BASE_NSERROR_H
#define QUILLMERE_PLATFORM_BASE_NSERROR_H

#include <quillmere/platform/base/NSData.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <variant>

namespace quillmere {

class NSError;

/// An error, or null for success.
using NSErrorPtr = std::shared_ptr<const NSError>;

/// User info: text, bytes or a nested error by key.
using NSErrorUserInfo = std::map<std::string, std::variant<std::string, NSData, NSErrorPtr>>;

/// Key of the text for people.
inline constexpr const char* NSLocalizedDescriptionKey = "NSLocalizedDescription";
/// Key of the error that led to this one.
inline constexpr const char* NSUnderlyingErrorKey = "NSUnderlyingError";
/// Domain of the operating system's errors; the code is an `errno` value.
inline constexpr const char* NSPOSIXErrorDomain = "NSPOSIXErrorDomain";

/// One failure: a domain, a code in it, and what else is known. Immutable and shared.
class NSError {
 public:
  static NSErrorPtr errorWithDomain_code_userInfo(std::string domain, std::int64_t code,
                                                  NSErrorUserInfo userInfo);
  /// An error of `NSPOSIXErrorDomain` with the system's text for `code`.
  static NSErrorPtr errorWithPOSIXCode(int code);

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }
  const NSErrorUserInfo& userInfo() const { return userInfo_; }
  /// The user info's text for people, or a text made of domain and code when there is none.
  std::string localizedDescription() const;
  /// The user info's underlying error; null when there is none.
  NSErrorPtr underlyingError() const;

 protected:
  NSError(std::string domain, std::int64_t code, NSErrorUserInfo userInfo);

 private:
  std::string domain_;
  std::int64_t code_;
  NSErrorUserInfo userInfo_;
};

}  // namespace quillmere

#endif
