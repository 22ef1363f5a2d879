#ifndef QUILLMERE_PLATFORM_NET_NSURLAUTHENTICATIONCHALLENGE_H
#define QUILLMERE_PLATFORM_NET_NSURLAUTHENTICATIONCHALLENGE_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/net/NSHTTPURLResponse.h>
#include <quillmere/platform/net/NSURLCredential.h>
#include <quillmere/platform/net/NSURLProtectionSpace.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace quillmere {

/// What is to be done about an authentication challenge. The values are part of the contract.
enum class NSURLSessionAuthChallengeDisposition {
  useCredential = 0,  ///< use the given credential; with none, go on without
  performDefaultHandling = 1,
  cancelAuthenticationChallenge = 2,
  rejectProtectionSpace = 3,
};

/// The first by its published name.
inline constexpr auto NSURLSessionAuthChallengeUseCredential =
    NSURLSessionAuthChallengeDisposition::useCredential;

/// Answers a challenge: the disposition, and the credential or null.
using NSURLSessionChallengeCompletionHandler = std::function<void(
    NSURLSessionAuthChallengeDisposition, std::shared_ptr<NSURLCredential> credential)>;

/// A server asks who is there (RFC 9110 section 11). Immutable and shared.
class QUILLMERE_EXPORT NSURLAuthenticationChallenge {
 public:
  static std::shared_ptr<NSURLAuthenticationChallenge>
  initWithProtectionSpace_proposedCredential_previousFailureCount_failureResponse(
      NSURLProtectionSpace protectionSpace, std::shared_ptr<NSURLCredential> proposedCredential,
      std::int64_t previousFailureCount, std::shared_ptr<const NSHTTPURLResponse> failureResponse);

  const NSURLProtectionSpace& protectionSpace() const { return protectionSpace_; }
  /// A credential that is known already, such as that of the URL; null when there is none.
  const std::shared_ptr<NSURLCredential>& proposedCredential() const { return proposedCredential_; }
  /// How many credentials the server has refused since it was first asked; 0 the first time.
  std::int64_t previousFailureCount() const { return previousFailureCount_; }
  /// The answer that asks, a 401.
  const std::shared_ptr<const NSHTTPURLResponse>& failureResponse() const {
    return failureResponse_;
  }

 protected:
  NSURLAuthenticationChallenge(NSURLProtectionSpace protectionSpace,
                               std::shared_ptr<NSURLCredential> proposedCredential,
                               std::int64_t previousFailureCount,
                               std::shared_ptr<const NSHTTPURLResponse> failureResponse);

 private:
  NSURLProtectionSpace protectionSpace_;
  std::shared_ptr<NSURLCredential> proposedCredential_;
  std::int64_t previousFailureCount_;
  std::shared_ptr<const NSHTTPURLResponse> failureResponse_;
};

}  // namespace quillmere

#endif
