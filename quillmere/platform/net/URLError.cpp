#include <quillmere/platform/base/KSStringTable.h>
#include <quillmere/platform/net/URLError.h>

#include <string>
#include <utility>

namespace quillmere {
namespace {

const char* descriptionOf(NSURLErrorCode code) {
  switch (code) {
    case NSURLErrorCancelled:
      return "The request was cancelled.";
    case NSURLErrorBadURL:
      return "The request cannot be sent.";
    case NSURLErrorTimedOut:
      return "The server did not answer in time.";
    case NSURLErrorUnsupportedURL:
      return "The address is neither of http nor of https.";
    case NSURLErrorCannotFindHost:
      return "The server's name is not known.";
    case NSURLErrorCannotConnectToHost:
      return "The server cannot be reached.";
    case NSURLErrorNetworkConnectionLost:
      return "The connection was lost.";
    case NSURLErrorHTTPTooManyRedirects:
      return "The server redirects too often.";
    case NSURLErrorBadServerResponse:
      return "The server's answer cannot be understood.";
    case NSURLErrorCannotDecodeRawData:
      return "The server's answer is damaged.";
    case NSURLErrorCannotDecodeContentData:
      return "The server's answer is in a coding that is not known.";
    case NSURLErrorDataLengthExceedsMaximum:
      return "The server's answer is too long.";
    case NSURLErrorSecureConnectionFailed:
      return "No secure connection to the server can be made.";
    case NSURLErrorServerCertificateHasBadDate:
      return "The server's certificate has expired.";
    case NSURLErrorServerCertificateUntrusted:
      return "The server's certificate is not to be trusted.";
    case NSURLErrorServerCertificateHasUnknownRoot:
      return "The server's certificate is of an unknown authority.";
    case NSURLErrorServerCertificateNotYetValid:
      return "The server's certificate is not valid yet.";
    case NSURLErrorUnknown:
      break;
  }
  return "The request failed.";
}

}  // namespace

NSErrorPtr urlError(NSURLErrorCode code, const std::optional<NSURL>& url, std::string_view detail) {
  NSErrorUserInfo userInfo;
  std::string text = KSLocalizedString(descriptionOf(code));
  if (!detail.empty()) text.append(" (").append(detail).append(")");
  userInfo[NSLocalizedDescriptionKey] = std::move(text);
  std::string address = url ? url->wireString() : "";
  if (!address.empty() && address.size() <= NSURLRequest::maximumURLLength) {
    userInfo[NSURLErrorFailingURLStringErrorKey] = std::move(address);
  }
  return NSError::errorWithDomain_code_userInfo(NSURLErrorDomain, code, std::move(userInfo));
}

}  // namespace quillmere
