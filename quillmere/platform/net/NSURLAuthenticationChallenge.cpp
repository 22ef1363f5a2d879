#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/net/NSURLAuthenticationChallenge.h>

#include <utility>

namespace quillmere {

NSURLAuthenticationChallenge::NSURLAuthenticationChallenge(
    NSURLProtectionSpace protectionSpace, std::shared_ptr<NSURLCredential> proposedCredential,
    std::int64_t previousFailureCount, std::shared_ptr<const NSHTTPURLResponse> failureResponse)
    : protectionSpace_(std::move(protectionSpace)),
      proposedCredential_(std::move(proposedCredential)),
      previousFailureCount_(previousFailureCount),
      failureResponse_(std::move(failureResponse)) {}

std::shared_ptr<NSURLAuthenticationChallenge> NSURLAuthenticationChallenge::
    initWithProtectionSpace_proposedCredential_previousFailureCount_failureResponse(
        NSURLProtectionSpace protectionSpace, std::shared_ptr<NSURLCredential> proposedCredential,
        std::int64_t previousFailureCount,
        std::shared_ptr<const NSHTTPURLResponse> failureResponse) {
  return makeObject<NSURLAuthenticationChallenge>(
      std::move(protectionSpace), std::move(proposedCredential), std::move(previousFailureCount),
      std::move(failureResponse));
}

}  // namespace quillmere
