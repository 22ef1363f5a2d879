#ifndef QUILLMERE_PLATFORM_BASE_NSERROR_H
#define QUILLMERE_PLATFORM_BASE_NSERROR_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/KSDiagnostics.h>
#include <quillmere/platform/base/NSData.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace quillmere {

class NSError;

/// An error, or null for success.
using NSErrorPtr = std::shared_ptr<const NSError>;

/// User info: text, bytes, a nested error or a number by key.
using NSErrorUserInfo =
    std::map<std::string, std::variant<std::string, NSData, NSErrorPtr, std::int64_t>>;

/// Key of the text for people.
inline constexpr const char* NSLocalizedDescriptionKey = "NSLocalizedDescription";
/// Key of the text that tells people more, such as what to do about it.
inline constexpr const char* NSLocalizedRecoverySuggestionErrorKey =
    "NSLocalizedRecoverySuggestion";
/// Key of the error that led to this one.
inline constexpr const char* NSUnderlyingErrorKey = "NSUnderlyingError";
/// Key of the URL that failed, as text without user and password; not there for one that is neither
/// of http nor of https, and for one too long to be sent.
inline constexpr const char* NSURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";
/// Key of the body of the response that the error is about (an `NSData`).
inline constexpr const char* NSErrorResponseDataKey = "ResponseData";
/// Keys of the place in the library's source that made the error: the file's name without folder,
/// and the line, a number.
inline constexpr const char* KSErrorFileKey = "KSErrorFile";
inline constexpr const char* KSErrorLineKey = "KSErrorLine";
/// Domain of the operating system's errors; the code is an `errno` value.
inline constexpr const char* NSPOSIXErrorDomain = "NSPOSIXErrorDomain";

/// One failure: a domain, a code in it, and what else is known. Immutable and shared.
class QUILLMERE_EXPORT NSError {
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
  // These give what the user info has under the key that is named. Null when it has nothing there,
  // or a value of another type.

  /// What people can do about it: `NSLocalizedRecoverySuggestionErrorKey`.
  std::optional<std::string> localizedRecoverySuggestion() const;
  /// The URL that a session could not load, as it was on the wire:
  /// `NSURLErrorFailingURLStringErrorKey`.
  std::optional<std::string> failingURLString() const;
  /// The body of the response whose status is the error: `NSErrorResponseDataKey`. Errors of
  /// CalDAV requests have it; it may be empty.
  std::optional<NSData> responseData() const;
  /// The error that led to this one: `NSUnderlyingErrorKey`.
  NSErrorPtr underlyingError() const;

 protected:
  NSError(std::string domain, std::int64_t code, NSErrorUserInfo userInfo);

 private:
  std::string domain_;
  std::int64_t code_;
  NSErrorUserInfo userInfo_;
};

/// Stores a new error in the caller's out-argument; does nothing when `error` is null. The error
/// that the out-argument held, if any, becomes the underlying one. The caller's place in the source
/// goes into the user info.
QUILLMERE_EXPORT void KSWrapUnderlyingError(
    NSErrorPtr* error, std::string domain, std::int64_t code, NSErrorUserInfo userInfo,
    KSSourceLocation location = KSSourceLocation::current());

}  // namespace quillmere

#endif
