#ifndef QUILLMERE_PLATFORM_NET_NSHTTPURLRESPONSE_H
#define QUILLMERE_PLATFORM_NET_NSHTTPURLRESPONSE_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/net/NSURL.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillmere {

/// The head of a server's answer. Immutable and shared.
class QUILLMERE_EXPORT NSHTTPURLResponse {
 public:
  static std::shared_ptr<const NSHTTPURLResponse> initWithURL_statusCode_HTTPVersion_headerFields(
      NSURL URL, std::int64_t statusCode, std::string HTTPVersion,
      std::vector<std::pair<std::string, std::string>> headerFields);

  /// The address that answered.
  const NSURL& URL() const { return URL_; }
  std::int64_t statusCode() const { return statusCode_; }
  /// "HTTP/1.1", "HTTP/2" and so on.
  const std::string& HTTPVersion() const { return HTTPVersion_; }
  /// The bytes of a header field as the server sent them; those of several fields of that name are
  /// joined by ", " (RFC 9110 section 5.3). Null when there is none. The name's case does not
  /// matter.
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  /// Every field as the server sent it, in its order.
  const std::vector<std::pair<std::string, std::string>>& allHeaderFields() const {
    return headerFields_;
  }

  /// What the field Content-Length says that the body has, in bytes; 0 when it says nothing of use.
  std::uint64_t expectedContentLength() const;

  /// A status code for people, in their language. In English the registered reason phrase in lower
  /// case (RFC 9110 section 15 and the IANA registry), "not found"; for another code that of its
  /// class: "informational", "success", "redirected", "client error", "server error"; for what is
  /// no status code "unknown".
  static std::string localizedStringForStatusCode(std::int64_t statusCode);

 protected:
  NSHTTPURLResponse(NSURL URL, std::int64_t statusCode, std::string HTTPVersion,
                    std::vector<std::pair<std::string, std::string>> headerFields);

 private:
  NSURL URL_;
  std::int64_t statusCode_;
  std::string HTTPVersion_;
  std::vector<std::pair<std::string, std::string>> headerFields_;
};

}  // namespace quillmere

#endif
