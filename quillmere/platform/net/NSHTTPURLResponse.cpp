#include <quillmere/platform/base/KSStringTable.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/net/HTTPFields.h>
#include <quillmere/platform/net/NSHTTPURLResponse.h>

#include <algorithm>
#include <charconv>

namespace quillmere {
namespace {

struct StatusText {
  std::int64_t code;
  const char* english;
};

constexpr StatusText statusTexts[] = {
    {100, "continue"},
    {101, "switching protocols"},
    {102, "processing"},
    {103, "early hints"},
    {200, "ok"},
    {201, "created"},
    {202, "accepted"},
    {203, "non-authoritative information"},
    {204, "no content"},
    {205, "reset content"},
    {206, "partial content"},
    {207, "multi-status"},
    {208, "already reported"},
    {226, "im used"},
    {300, "multiple choices"},
    {301, "moved permanently"},
    {302, "found"},
    {303, "see other"},
    {304, "not modified"},
    {305, "use proxy"},
    {307, "temporary redirect"},
    {308, "permanent redirect"},
    {400, "bad request"},
    {401, "unauthorized"},
    {402, "payment required"},
    {403, "forbidden"},
    {404, "not found"},
    {405, "method not allowed"},
    {406, "not acceptable"},
    {407, "proxy authentication required"},
    {408, "request timeout"},
    {409, "conflict"},
    {410, "gone"},
    {411, "length required"},
    {412, "precondition failed"},
    {413, "content too large"},
    {414, "uri too long"},
    {415, "unsupported media type"},
    {416, "range not satisfiable"},
    {417, "expectation failed"},
    {421, "misdirected request"},
    {422, "unprocessable content"},
    {423, "locked"},
    {424, "failed dependency"},
    {425, "too early"},
    {426, "upgrade required"},
    {428, "precondition required"},
    {429, "too many requests"},
    {431, "request header fields too large"},
    {451, "unavailable for legal reasons"},
    {500, "internal server error"},
    {501, "not implemented"},
    {502, "bad gateway"},
    {503, "service unavailable"},
    {504, "gateway timeout"},
    {505, "http version not supported"},
    {506, "variant also negotiates"},
    {507, "insufficient storage"},
    {508, "loop detected"},
    {511, "network authentication required"},
};

const char* classText(std::int64_t statusCode) {
  switch (statusCode / 100) {
    case 1:
      return "informational";
    case 2:
      return "success";
    case 3:
      return "redirected";
    case 4:
      return "client error";
    case 5:
      return "server error";
    default:
      return "unknown";
  }
}

}  // namespace

NSHTTPURLResponse::NSHTTPURLResponse(NSURL URL, std::int64_t statusCode, std::string HTTPVersion,
                                     std::vector<std::pair<std::string, std::string>> headerFields)
    : URL_(std::move(URL)),
      statusCode_(statusCode),
      HTTPVersion_(std::move(HTTPVersion)),
      headerFields_(std::move(headerFields)) {}

std::shared_ptr<const NSHTTPURLResponse>
NSHTTPURLResponse::initWithURL_statusCode_HTTPVersion_headerFields(
    NSURL URL, std::int64_t statusCode, std::string HTTPVersion,
    std::vector<std::pair<std::string, std::string>> headerFields) {
  return makeObject<NSHTTPURLResponse>(std::move(URL), std::move(statusCode),
                                       std::move(HTTPVersion), std::move(headerFields));
}

std::optional<std::string> NSHTTPURLResponse::valueForHTTPHeaderField(
    std::string_view field) const {
  return joinedFieldValue(headerFields_, field);
}

std::uint64_t NSHTTPURLResponse::expectedContentLength() const {
  const std::string text = valueForHTTPHeaderField("Content-Length").value_or("");
  std::uint64_t length = 0;
  std::from_chars(text.data(), text.data() + text.size(), length);
  return length;
}

std::string NSHTTPURLResponse::localizedStringForStatusCode(std::int64_t statusCode) {
  const auto* const known =
      std::find_if(std::begin(statusTexts), std::end(statusTexts),
                   [statusCode](const StatusText& status) { return status.code == statusCode; });
  return KSLocalizedString(known != std::end(statusTexts) ? known->english : classText(statusCode));
}

}  // namespace quillmere
