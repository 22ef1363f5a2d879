#ifndef QUILLMERE_PLATFORM_NET_NSURLREQUEST_H
#define QUILLMERE_PLATFORM_NET_NSURLREQUEST_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/net/NSURL.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillmere {

/// What a request asks of a cache. The values are part of the contract. Sessions keep no cache, so
/// every policy loads from the server.
enum NSURLRequestCachePolicy {
  NSURLRequestUseProtocolCachePolicy = 0,
  NSURLRequestReloadIgnoringLocalCacheData = 1,
};

/// What to ask of a server. A value; `NSMutableURLRequest` is the one to fill in.
class QUILLMERE_EXPORT NSURLRequest {
 public:
  /// A GET without URL.
  NSURLRequest() = default;

  /// Null until set.
  const std::optional<NSURL>& URL() const { return URL_; }
  /// "GET" unless set. Case matters.
  const std::string& HTTPMethod() const { return HTTPMethod_; }
  /// Null when there is no such field. The case of the name does not matter (RFC 9110 section 5.1).
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  /// Names and values in the order and the spelling in which they were first set.
  const std::vector<std::pair<std::string, std::string>>& allHTTPHeaderFields() const {
    return allHTTPHeaderFields_;
  }
  /// Null for a request without body.
  const std::optional<NSData>& HTTPBody() const { return HTTPBody_; }
  NSURLRequestCachePolicy cachePolicy() const { return cachePolicy_; }
  /// Seconds without a byte after which the request fails; 60 unless set.
  double timeoutInterval() const { return timeoutInterval_; }

  /// The longest URL, in bytes on the wire, for which a session asks: RFC 9110 section 4.1 wants
  /// 8000 to be understood, and few servers take much more.
  static constexpr std::size_t maximumURLLength = std::size_t{64} << 10;

  /// Whether the request can travel as it is: its URL is of http or https (`NSURL::isHTTP`) and has
  /// at most `maximumURLLength` bytes on the wire, its
  /// method is a token, and every header field's name is one (RFC 9110 section 5.6.2), which one
  /// colon may follow ("If-Match:" is a name that hosts use), and no value has CR, LF or NUL.
  /// A session fails a request that cannot.
  bool isSendable() const;

 private:
  friend class NSMutableURLRequest;

  std::optional<NSURL> URL_;
  std::string HTTPMethod_ = "GET";
  std::vector<std::pair<std::string, std::string>> allHTTPHeaderFields_;
  std::optional<NSData> HTTPBody_;
  NSURLRequestCachePolicy cachePolicy_ = NSURLRequestUseProtocolCachePolicy;
  double timeoutInterval_ = 60.0;
};

/// A request that can be changed. Copied to an `NSURLRequest` it gives the request as it is then.
class QUILLMERE_EXPORT NSMutableURLRequest : public NSURLRequest {
 public:
  NSMutableURLRequest() = default;
  static NSMutableURLRequest requestWithURL(const NSURL& URL);

  void setURL(std::optional<NSURL> URL) { URL_ = std::move(URL); }
  void setHTTPMethod(std::string method) { HTTPMethod_ = std::move(method); }
  /// Sets a header field, or removes it where `value` is null. A field of that name in any case is
  /// replaced, keeping its place and spelling; a new one goes last.
  void setValue_forHTTPHeaderField(std::optional<std::string> value, std::string_view field);
  void setHTTPBody(std::optional<NSData> body) { HTTPBody_ = std::move(body); }
  void setCachePolicy(NSURLRequestCachePolicy policy) { cachePolicy_ = policy; }
  void setTimeoutInterval(double seconds) { timeoutInterval_ = seconds; }
};

}  // namespace quillmere

#endif
