#include <quillmere/caldav/KBTDavRequest.h>
#include <quillmere/platform/base/LargePages.h>
#include <quillmere/platform/base/makeObject.h>

#include <utility>

namespace quillmere {

std::shared_ptr<KBTDavRequest>
KBTDavRequest::initWithRequest_withCompletionSelector_context_internal(
    const NSURLRequest& request, KBTDavCompletionSelector selector, std::any context,
    bool internal) {
  return makeObject<KBTDavRequest>(request, selector, std::move(context), internal);
}

KBTDavRequest::KBTDavRequest(NSURLRequest request, KBTDavCompletionSelector selector,
                             std::any context, bool internal)
    : request_(std::move(request)),
      selector_(selector),
      internal_(internal),
      context_(std::move(context)) {}

NSData KBTDavRequest::data() const {
  if (!received_.empty()) data_ = NSData::dataWithString(std::exchange(received_, {}));
  return data_;
}

std::string KBTDavRequest::takeData() {
  const NSData data = std::exchange(data_, {});
  return data.length() > 0 ? std::string(data.view()) : std::exchange(received_, {});
}

void KBTDavRequest::appendData(const NSData& data) {
  if (data_.length() > 0) received_ = std::exchange(data_, {}).view();
  received_ += data.view();
}

void KBTDavRequest::beginData(std::uint64_t expectedLength) {
  received_.clear();
  reserveForStranger(received_, expectedLength);
  data_ = {};
}

void KBTDavRequest::setResponse(std::shared_ptr<const NSHTTPURLResponse> response) {
  response_ = std::move(response);
}

void KBTDavRequest::setError(NSErrorPtr error) { error_ = std::move(error); }

}  // namespace quillmere
