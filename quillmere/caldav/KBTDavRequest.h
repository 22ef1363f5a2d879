#ifndef QUILLMERE_CALDAV_KBTDAVREQUEST_H
#define QUILLMERE_CALDAV_KBTDAVREQUEST_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/net/NSHTTPURLResponse.h>
#include <quillmere/platform/net/NSURLRequest.h>

#include <any>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace quillmere {

class KBTDavRequest;
class KBTDavRequestor;

/// The method of a requestor to which a finished request is handed. A derived class passes its own
/// by `static_cast<KBTDavCompletionSelector>(&Derived::_didGetSomething)`.
using KBTDavCompletionSelector =
    void (KBTDavRequestor::*)(const std::shared_ptr<KBTDavRequest>& request);

/// One request of a requestor: what was asked, and how it went.
class QUILLMERE_EXPORT KBTDavRequest {
 public:
  static std::shared_ptr<KBTDavRequest> initWithRequest_withCompletionSelector_context_internal(
      const NSURLRequest& request, KBTDavCompletionSelector selector, std::any context,
      bool internal);

  /// The request exactly as it was issued, whatever redirects have made of it.
  const NSURLRequest& originalRequest() const { return request_; }
  KBTDavCompletionSelector selector() const { return selector_; }

  /// The response's body so far.
  NSData data() const;
  /// The same without making data of it; good until more comes or it is taken out.
  std::string_view dataView() const { return data_.length() > 0 ? data_.view() : received_; }
  /// The same, taken out: afterwards the body is empty.
  std::string takeData();
  void appendData(const NSData& data);
  /// Drops what has come, and makes room for `expectedLength` bytes.
  void beginData(std::uint64_t expectedLength);

  /// The last response. Null before the first.
  const std::shared_ptr<const NSHTTPURLResponse>& response() const { return response_; }
  void setResponse(std::shared_ptr<const NSHTTPURLResponse> response);

  /// A mark of the issuer: collections issue false, principals true.
  bool internal() const { return internal_; }

  /// Null for success. Otherwise an error of `NSURLErrorDomain`, or of
  /// `KBTDavConnectionErrorDomain`: its code is the HTTP status, with the body in the user info
  /// under `KBTDavResponseDataKey`, or 3 for a malformed free/busy answer.
  const NSErrorPtr& error() const { return error_; }
  void setError(NSErrorPtr error);

  /// A value of the issuer.
  const std::any& context() const { return context_; }

 protected:
  KBTDavRequest(NSURLRequest request, KBTDavCompletionSelector selector, std::any context,
                bool internal);

 private:
  NSURLRequest request_;
  KBTDavCompletionSelector selector_;
  // The body comes into a text, which becomes data the first time it is asked for.
  mutable std::string received_;
  mutable NSData data_;
  std::shared_ptr<const NSHTTPURLResponse> response_;
  bool internal_;
  NSErrorPtr error_;
  std::any context_;
};

/// User-info key of a response's body (an `NSData`), in the error that its status became.
inline constexpr const char* KBTDavResponseDataKey = NSErrorResponseDataKey;

}  // namespace quillmere

#endif
