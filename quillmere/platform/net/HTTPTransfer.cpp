#include <quillmere/platform/base/KSStringTable.h>
#include <quillmere/platform/net/AuthenticateHeader.h>
#include <quillmere/platform/net/HTTPTransfer.h>

#include <algorithm>
#include <cstdlib>

namespace quillmere {
namespace {

constexpr const char* userAgent = "Quillmere/" QUILLMERE_VERSION;

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Repeating such a request does what doing it once does (RFC 9110 section 9.2.2, RFC 4918, RFC
// 3253).
bool isIdempotent(const std::string& method) {
  constexpr std::string_view methods[] = {"GET",      "HEAD",   "PUT",    "DELETE",
                                          "PROPFIND", "REPORT", "OPTIONS"};
  return std::find(std::begin(methods), std::end(methods), method) != std::end(methods);
}

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

// By the codes of X.509 verification.
NSURLErrorCode certificateError(long verification) {
  constexpr long notYetValid = 9;
  constexpr long expired = 10;
  constexpr long unknownRoots[] = {2, 18, 19, 20, 21};
  if (verification == notYetValid) return NSURLErrorServerCertificateNotYetValid;
  if (verification == expired) return NSURLErrorServerCertificateHasBadDate;
  const bool isOfUnknownRoot = std::find(std::begin(unknownRoots), std::end(unknownRoots),
                                         verification) != std::end(unknownRoots);
  return isOfUnknownRoot ? NSURLErrorServerCertificateHasUnknownRoot
                         : NSURLErrorServerCertificateUntrusted;
}

NSURLErrorCode errorCodeFor(CURLcode result) {
  switch (result) {
    case CURLE_URL_MALFORMAT:
      return NSURLErrorBadURL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return NSURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return NSURLErrorCannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return NSURLErrorTimedOut;
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return NSURLErrorNetworkConnectionLost;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_UNSUPPORTED_PROTOCOL:  // an answer without a status line
      return NSURLErrorBadServerResponse;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CERTPROBLEM:
      return NSURLErrorSecureConnectionFailed;
    default:
      return NSURLErrorUnknown;
  }
}

}  // namespace

NSErrorPtr urlError(NSURLErrorCode code, const std::optional<NSURL>& url, std::string_view detail) {
  NSErrorUserInfo userInfo;
  std::string text = KSLocalizedString(descriptionOf(code));
  if (!detail.empty()) text.append(" (").append(detail).append(")");
  userInfo[NSLocalizedDescriptionKey] = std::move(text);
  if (url && url->isHTTP()) userInfo[NSURLErrorFailingURLStringErrorKey] = url->wireString();
  return NSError::errorWithDomain_code_userInfo(NSURLErrorDomain, code, std::move(userInfo));
}

CookieJar::CookieJar() : share_(curl_share_init()) {
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
}
CookieJar::~CookieJar() { curl_share_cleanup(share_); }

NSErrorPtr HTTPTransfer::errorBeforeSending(const NSURLRequest& request) {
  if (request.isSendable()) return nullptr;
  const bool isOfOtherScheme = request.URL() && !request.URL()->isHTTP();
  return urlError(isOfOtherScheme ? NSURLErrorUnsupportedURL : NSURLErrorBadURL, request.URL());
}

HTTPTransfer::HTTPTransfer(std::shared_ptr<CurlLoop> loop, NSURLRequest request,
                           const NSURLSessionConfiguration& configuration,
                           std::shared_ptr<CookieJar> cookies, Connection connection, Owner& owner)
    : loop_(std::move(loop)),
      request_(std::move(request)),
      configuration_(configuration),
      cookies_(std::move(cookies)),
      owner_(&owner),
      curl_(curl_easy_init()),
      silence_(loop_->context(), [this] { lookForSilence(); }) {
  setOptions(connection);
  setHeaderFields();
}

HTTPTransfer::~HTTPTransfer() {
  stop();
  curl_easy_cleanup(curl_);
  curl_slist_free_all(fields_);
}

void HTTPTransfer::setOptions(Connection connection) {
  curl_easy_setopt(curl_, CURLOPT_URL, request_.URL()->wireString().c_str());
  curl_easy_setopt(curl_, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl_, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl_, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  curl_easy_setopt(curl_, CURLOPT_COOKIEFILE, "");
  curl_easy_setopt(curl_, CURLOPT_SHARE, cookies_->share());
  curl_easy_setopt(curl_, CURLOPT_USERAGENT, userAgent);
  // What the library takes for its own settings of the system, it takes from the environment.
  if (const char* authorities = std::getenv("SSL_CERT_FILE")) {
    curl_easy_setopt(curl_, CURLOPT_CAINFO, authorities);
    curl_easy_setopt(curl_, CURLOPT_CAPATH, nullptr);
  }
  // A host that is still being looked up must not be waited for when a request is cancelled.
  curl_easy_setopt(curl_, CURLOPT_QUICK_EXIT, 1L);

  const std::string& method = request_.HTTPMethod();
  const auto& body = request_.HTTPBody();
  if (method == "HEAD") {
    curl_easy_setopt(curl_, CURLOPT_NOBODY, 1L);
  } else if (body || method == "POST" || method == "PUT") {
    const bool isEmpty = !body || body->length() == 0;
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE_LARGE,
                     isEmpty ? curl_off_t{0} : static_cast<curl_off_t>(body->length()));
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDS,
                     isEmpty ? "" : static_cast<const void*>(body->bytes()));
  }
  curl_easy_setopt(curl_, CURLOPT_CUSTOMREQUEST, method.c_str());
  const bool needsNewConnection =
      connection == Connection::fresh ||
      (connection == Connection::asTheMethodNeeds && !isIdempotent(method));
  curl_easy_setopt(curl_, CURLOPT_FRESH_CONNECT, needsNewConnection ? 1L : 0L);
  if (connection == Connection::keptThenClosed) curl_easy_setopt(curl_, CURLOPT_FORBID_REUSE, 1L);

  curl_easy_setopt(curl_, CURLOPT_HEADERFUNCTION, &HTTPTransfer::receiveHead);
  curl_easy_setopt(curl_, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &HTTPTransfer::receiveBody);
  curl_easy_setopt(curl_, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(curl_, CURLOPT_XFERINFOFUNCTION, &HTTPTransfer::watchProgress);
  curl_easy_setopt(curl_, CURLOPT_XFERINFODATA, this);
  curl_easy_setopt(curl_, CURLOPT_NOPROGRESS, 0L);
}

void HTTPTransfer::setHeaderFields() {
  const auto append = [this](const std::string& line) {
    fields_ = curl_slist_append(fields_, line.c_str());
  };
  for (const auto& [name, value] : request_.allHTTPHeaderFields()) {
    std::string line = name;
    if (!trimmed(value).empty() || name.ends_with(':')) {
      append(line.append(": ").append(value));
    } else {
      // A semicolon instead of the colon is how libcurl is told of a field without a value.
      append(line.append(";"));
    }
  }
  // What libcurl would add of its own accord.
  for (const char* name : {"Accept", "Content-Type", "Expect", "Transfer-Encoding"}) {
    if (!request_.valueForHTTPHeaderField(name)) append(std::string(name) + ":");
  }
  curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, fields_);
}

void HTTPTransfer::beginAnew() {
  headFields_.clear();
  headSize_ = 0;
  hasStatusLine_ = isHeadComplete_ = false;
  response_.reset();
  decoder_.reset();
  bodySize_ = 0;
  body_.clear();
}

void HTTPTransfer::start() {
  beginAnew();
  bytesSent_ = 0;
  watchForSilence();
  loop_->add(curl_, shared_from_this());
}

void HTTPTransfer::stop() {
  silence_.setTime(Alarm::never);
  loop_->remove(curl_);
}

void HTTPTransfer::pause() {
  silence_.setTime(Alarm::never);
  curl_easy_pause(curl_, CURLPAUSE_RECV);
}

void HTTPTransfer::goOn() {
  watchForSilence();
  curl_easy_pause(curl_, CURLPAUSE_CONT);
}

std::size_t HTTPTransfer::receiveHead(char* bytes, std::size_t size, std::size_t count,
                                      void* self) {
  auto& transfer = *static_cast<HTTPTransfer*>(self);
  transfer.lastByteTime_ = g_get_monotonic_time();
  return transfer.takeHeadLine({bytes, size * count}) ? size * count : 0;
}

// Responses before the last (1xx) begin with a status line like that one. Fields after the body do
// not count.
bool HTTPTransfer::takeHeadLine(std::string_view line) {
  if (isHeadComplete_) return true;
  headSize_ += line.size();
  if (headSize_ > configuration_.maximumResponseHeadSize) {
    failure_ = NSURLErrorBadServerResponse;
    return false;
  }
  if (!hasStatusLine_) {
    hasStatusLine_ = true;
  } else if (trimmed(line).empty()) {
    completeHead();
  } else if ((line.front() == ' ' || line.front() == '\t') && !headFields_.empty()) {
    headFields_.back().second.append(" ").append(trimmed(line));
  } else if (const std::size_t colon = line.find(':'); colon != std::string_view::npos) {
    headFields_.emplace_back(trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
  }
  return true;
}

void HTTPTransfer::completeHead() {
  long status = 0;
  long version = CURL_HTTP_VERSION_NONE;
  curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_getinfo(curl_, CURLINFO_HTTP_VERSION, &version);
  constexpr long firstFinalStatus = 200;
  constexpr long switchingProtocols = 101;
  if (status < firstFinalStatus && status != switchingProtocols) {  // another follows
    hasStatusLine_ = false;
    headFields_.clear();
    return;
  }
  const char* const versionText = version == CURL_HTTP_VERSION_1_0   ? "HTTP/1.0"
                                  : version == CURL_HTTP_VERSION_1_1 ? "HTTP/1.1"
                                  : version == CURL_HTTP_VERSION_3   ? "HTTP/3"
                                                                     : "HTTP/2";
  isHeadComplete_ = true;
  curl_easy_getinfo(curl_, CURLINFO_LOCAL_PORT, &connectionPort_);
  long peerPort = 0;
  const char* peerAddress = nullptr;
  curl_easy_getinfo(curl_, CURLINFO_PRIMARY_PORT, &peerPort);
  curl_easy_getinfo(curl_, CURLINFO_PRIMARY_IP, &peerAddress);
  peer_ = {peerAddress ? peerAddress : "", static_cast<std::uint16_t>(peerPort)};
  response_ = NSHTTPURLResponse::initWithURL_statusCode_HTTPVersion_headerFields(
      *request_.URL(), status, versionText, std::move(headFields_));
  if (request_.valueForHTTPHeaderField("Accept-Encoding")) {
    if (const auto coding = response_->valueForHTTPHeaderField("Content-Encoding")) {
      decoder_ = ContentDecoder::decoderFor(*coding);
    }
  }
  const auto challenge = response_->valueForHTTPHeaderField("WWW-Authenticate");
  if (challenge && isDeadEnd(parseAuthenticateHeader(*challenge))) {
    curl_easy_setopt(curl_, CURLOPT_FORBID_REUSE, 1L);
  }
  loop_->tellSoon(curl_);
}

std::size_t HTTPTransfer::receiveBody(char* bytes, std::size_t size, std::size_t count,
                                      void* self) {
  auto& transfer = *static_cast<HTTPTransfer*>(self);
  transfer.lastByteTime_ = g_get_monotonic_time();
  return transfer.takeBodyBytes({bytes, size * count}) ? size * count : 0;
}

bool HTTPTransfer::takeBodyBytes(std::string_view bytes) {
  const std::size_t before = body_.size();
  const std::uint64_t rest = configuration_.maximumResponseBodySize - bodySize_;
  if (!decoder_) {
    if (bytes.size() <= rest) body_.append(bytes);
  } else if (!decoder_->decode(bytes, before + rest, body_)) {
    failure_ = NSURLErrorCannotDecodeRawData;
    return false;
  }
  const std::uint64_t received = decoder_ ? body_.size() - before : bytes.size();
  if (received > rest) {
    body_.resize(before);
    failure_ = NSURLErrorDataLengthExceedsMaximum;
    return false;
  }
  bodySize_ += received;
  loop_->tellSoon(curl_);
  return true;
}

int HTTPTransfer::watchProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent) {
  auto& transfer = *static_cast<HTTPTransfer*>(self);
  if (sent != transfer.bytesSent_) transfer.lastByteTime_ = g_get_monotonic_time();
  transfer.bytesSent_ = sent;
  return 0;
}

void HTTPTransfer::watchForSilence() {
  lastByteTime_ = g_get_monotonic_time();
  silence_.setTime(timeOfSilence());
}

gint64 HTTPTransfer::timeOfSilence() const {
  constexpr double microsecondsPerSecond = 1e6;
  constexpr double longest = 1e9;  // seconds; a NaN is that as well
  const double interval =
      request_.timeoutInterval() < longest ? request_.timeoutInterval() : longest;
  return lastByteTime_ + static_cast<gint64>(std::max(interval, 0.0) * microsecondsPerSecond);
}

// The alarm is left alone while bytes come; when it rings, it may have been too early.
void HTTPTransfer::lookForSilence() {
  if (g_get_monotonic_time() < timeOfSilence()) {
    silence_.setTime(timeOfSilence());
    return;
  }
  const auto kept = shared_from_this();
  stop();
  owner_->transferEnded(urlError(NSURLErrorTimedOut, request_.URL()));
}

void HTTPTransfer::transferEnded(CURLcode result) {
  silence_.setTime(Alarm::never);
  if (failure_ == 0 && result == CURLE_OK && decoder_ && !decoder_->isComplete()) {
    failure_ = NSURLErrorCannotDecodeRawData;
  }
  const bool isGood = failure_ == 0 && result == CURLE_OK && response_;
  owner_->transferEnded(isGood ? nullptr : errorFor(result));
}

NSErrorPtr HTTPTransfer::errorFor(CURLcode result) const {
  if (failure_ != 0) return urlError(failure_, request_.URL());
  if (result == CURLE_PEER_FAILED_VERIFICATION) {
    long verification = 0;
    curl_easy_getinfo(curl_, CURLINFO_SSL_VERIFYRESULT, &verification);
    return urlError(certificateError(verification), request_.URL());
  }
  // Without any error and without a whole head: the connection was closed within it.
  if (result == CURLE_OUT_OF_MEMORY && !isHeadComplete_) {  // what libcurl says of a long line
    return urlError(NSURLErrorBadServerResponse, request_.URL());
  }
  const auto code = result == CURLE_OK ? NSURLErrorNetworkConnectionLost : errorCodeFor(result);
  return urlError(code, request_.URL(), result == CURLE_OK ? "" : curl_easy_strerror(result));
}

}  // namespace quillmere
