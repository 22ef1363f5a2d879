#ifndef QUILLMERE_PLATFORM_NET_NSURLAUTHENTICATIONCHALLENGE_H
#define QUILLMERE_PLATFORM_NET_NSURLAUTHENTICATIONCHALLENGE_H

#include <functional>
#include <memory>

namespace quillmere {

class NSURLAuthenticationChallenge;
class NSURLCredential;

/// What is to be done about an authentication challenge. The values are part of the contract.
enum class NSURLSessionAuthChallengeDisposition {
  useCredential = 0,  ///< use the given credential; with none, go on without
  performDefaultHandling = 1,
  cancelAuthenticationChallenge = 2,
  rejectProtectionSpace = 3,
};

/// Answers a challenge: the disposition, and the credential or null.
using NSURLSessionChallengeCompletionHandler = std::function<void(
    NSURLSessionAuthChallengeDisposition, std::shared_ptr<NSURLCredential> credential)>;

}  // namespace quillmere

#endif
