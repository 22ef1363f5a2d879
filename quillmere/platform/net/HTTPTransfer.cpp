#include <quillmere/platform/base/KSStringTable.h>
#include <quillmere/platform/net/AuthenticateHeader.h>
#include <quillmere/platform/net/HTTPFields.h>
#include <quillmere/platform/net/HTTPTransfer.h>
#include <quillmere/platform/net/URLError.h>

#include <algorithm>
#include <cstdlib>

namespace quillmere {
namespace {

constexpr const char* userAgent = "Quillmere/" QUILLMERE_VERSION;

// Repeating such a request does what doing it once does (RFC 9110 section 9.2.2, RFC 4918, RFC
// 3253).
bool isIdempotent(const std::string& method) {
  constexpr std::string_view methods[] = {"GET",      "HEAD",   "PUT",    "DELETE",
                                          "PROPFIND", "REPORT", "OPTIONS"};
  return std::find(std::begin(methods), std::end(methods), method) != std::end(methods);
}

bool isSuccess(const NSHTTPURLResponse& response) {
  return response.statusCode() >= 200 && response.statusCode() <= 299;
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

CookieJar::CookieJar() : share_(curl_share_init()) {
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
}
CookieJar::~CookieJar() { curl_share_cleanup(share_); }

NSErrorPtr HTTPTransfer::errorBeforeSending(const NSURLRequest& request) {
  if (request.isSendable()) return nullptr;
  const auto& url = request.URL();
  if (url && !url->isHTTP()) return urlError(NSURLErrorUnsupportedURL, url);
  const bool isTooLong = url && url->wireString().size() > NSURLRequest::maximumURLLength;
  return urlError(NSURLErrorBadURL, url,
                  isTooLong ? KSLocalizedString("its address is longer than 64 KiB") : "");
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

// Without one of its options, for which there was no memory, a request would be another one.
template <class Value>
void HTTPTransfer::set(CURLoption option, Value value) {
  isWhole_ = isWhole_ && curl_easy_setopt(curl_, option, value) == CURLE_OK;
}

void HTTPTransfer::setOptions(Connection connection) {
  set(CURLOPT_URL, request_.URL()->wireString().c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_PATH_AS_IS, 1L);
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_HTTP_CONTENT_DECODING, 0L);
  set(CURLOPT_COOKIEFILE, "");
  set(CURLOPT_SHARE, cookies_->share());
  set(CURLOPT_USERAGENT, userAgent);
  // Whatever the system's settings of OpenSSL allow (RFC 8996).
  set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
  set(CURLOPT_PROXY_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
  // libcurl finds the proxy, and answers it with the user and password of the proxy's own URL.
  set(CURLOPT_PROXYAUTH, CURLAUTH_ANY);
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  // What the library takes for its own settings of the system, it takes from the environment.
  if (const char* authorities = std::getenv("SSL_CERT_FILE")) {
    set(CURLOPT_CAINFO, authorities);
    set(CURLOPT_CAPATH, nullptr);
  }
  // A host that is still being looked up must not be waited for when a request is cancelled.
  set(CURLOPT_QUICK_EXIT, 1L);

  const std::string& method = request_.HTTPMethod();
  const auto& body = request_.HTTPBody();
  if (method == "HEAD") {
    set(CURLOPT_NOBODY, 1L);
  } else if (body || method == "POST" || method == "PUT") {
    const bool isEmpty = !body || body->length() == 0;
    set(CURLOPT_POSTFIELDSIZE_LARGE,
        isEmpty ? curl_off_t{0} : static_cast<curl_off_t>(body->length()));
    set(CURLOPT_POSTFIELDS, isEmpty ? "" : static_cast<const void*>(body->bytes()));
  }
  set(CURLOPT_CUSTOMREQUEST, method.c_str());
  const bool needsNewConnection =
      connection == Connection::fresh ||
      (connection == Connection::asTheMethodNeeds && !isIdempotent(method));
  set(CURLOPT_FRESH_CONNECT, needsNewConnection ? 1L : 0L);
  if (connection == Connection::keptThenClosed) set(CURLOPT_FORBID_REUSE, 1L);

  set(CURLOPT_HEADERFUNCTION, &HTTPTransfer::receiveHead);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_WRITEFUNCTION, &HTTPTransfer::receiveBody);
  set(CURLOPT_WRITEDATA, this);
  set(CURLOPT_XFERINFOFUNCTION, &HTTPTransfer::watchProgress);
  set(CURLOPT_XFERINFODATA, this);
  set(CURLOPT_NOPROGRESS, 0L);
}

void HTTPTransfer::setHeaderFields() {
  const auto append = [this](const std::string& line) {
    curl_slist* const longer = curl_slist_append(fields_, line.c_str());
    isWhole_ = isWhole_ && longer;
    if (longer) fields_ = longer;
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
  set(CURLOPT_HTTPHEADER, fields_);
}

void HTTPTransfer::beginAnew() {
  headFields_.clear();
  headSize_ = 0;
  hasStatusLine_ = isHeadComplete_ = false;
  response_.reset();
  decoder_.reset();
  isCodingKnown_ = true;
  losesBody_ = false;
  bytesReceived_ = bodySize_ = 0;
  body_.clear();
}

NSErrorPtr HTTPTransfer::start() {
  beginAnew();
  bytesSent_ = 0;
  hasConnection_ = false;
  const char* const obstacle =
      isWhole_ ? loop_->add(curl_, shared_from_this()) : curl_easy_strerror(CURLE_OUT_OF_MEMORY);
  return obstacle ? urlError(NSURLErrorUnknown, request_.URL(), obstacle) : nullptr;
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

// Responses before the last (1xx) begin with a status line like that one. Fields after the body
// count to the head's size alone.
bool HTTPTransfer::takeHeadLine(std::string_view line) {
  headSize_ += line.size();
  if (headSize_ > configuration_.maximumResponseHeadSize) {
    failure_ = NSURLErrorBadServerResponse;
    return false;
  }
  if (isHeadComplete_) return true;
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
  curl_easy_getinfo(curl_, CURLINFO_LOCAL_PORT, &connectionPort_);
  response_ = NSHTTPURLResponse::initWithURL_statusCode_HTTPVersion_headerFields(
      *request_.URL(), status, versionText, std::exchange(headFields_, {}));
  // Asked for or not, a coding is to be undone (RFC 9110 section 12.5.3).
  if (const auto coding = response_->valueForHTTPHeaderField("Content-Encoding")) {
    decoder_ = ContentDecoder::decoderFor(*coding);
    isCodingKnown_ = decoder_ != nullptr;
  }
  // Where libcurl answers a proxy, another head follows this one, and its body is left out.
  constexpr long proxyAuthenticationRequired = 407;
  if (status == proxyAuthenticationRequired) {
    hasStatusLine_ = false;
    return;
  }
  isHeadComplete_ = true;
  const auto challenge = response_->valueForHTTPHeaderField("WWW-Authenticate");
  if (challenge && isDeadEnd(parseAuthenticateHeader(*challenge))) {
    curl_easy_setopt(curl_, CURLOPT_FORBID_REUSE, 1L);
  }
  // Of a body that cannot be decoded nobody is told before it has turned out to be empty.
  if (isCodingKnown_ || !isSuccess(*response_)) loop_->tellSoon(curl_);
}

std::size_t HTTPTransfer::receiveBody(char* bytes, std::size_t size, std::size_t count,
                                      void* self) {
  auto& transfer = *static_cast<HTTPTransfer*>(self);
  transfer.lastByteTime_ = g_get_monotonic_time();
  return transfer.takeBodyBytes({bytes, size * count}) ? size * count : 0;
}

// A redirect, a challenge or a failure says what it says whether its body can be decoded or not.
bool HTTPTransfer::takeBodyBytes(std::string_view bytes) {
  isHeadComplete_ = true;
  bytesReceived_ += bytes.size();
  const std::size_t before = body_.size();
  if (bytesReceived_ > configuration_.maximumResponseBodySize) {
    failure_ = NSURLErrorDataLengthExceedsMaximum;
  } else if (const auto fault = losesBody_ ? std::nullopt : decodeBody(bytes)) {
    body_.resize(before);
    if (isSuccess(*response_)) failure_ = *fault;
    losesBody_ = true;
  }
  if (failure_ != 0) return false;
  bodySize_ += body_.size() - before;
  loop_->tellSoon(curl_);
  return true;
}

// Appends to the body what the bytes decode to; returns why that cannot be.
std::optional<NSURLErrorCode> HTTPTransfer::decodeBody(std::string_view bytes) {
  if (!isCodingKnown_) return NSURLErrorCannotDecodeContentData;
  if (!decoder_) {
    body_.append(bytes);
    return std::nullopt;
  }
  // Documents are rarely packed to less than a twentieth.
  constexpr std::uint64_t mostTimes = 100;
  constexpr std::uint64_t alwaysAllowed = std::uint64_t{16} << 20;
  const std::uint64_t mostInAll = std::min(std::max(mostTimes * bytesReceived_, alwaysAllowed),
                                           configuration_.maximumResponseBodySize);
  const std::uint64_t most = body_.size() + mostInAll - std::min(bodySize_, mostInAll);
  if (!decoder_->decode(bytes, most, body_)) return NSURLErrorCannotDecodeRawData;
  if (body_.size() > most) return NSURLErrorDataLengthExceedsMaximum;
  return std::nullopt;
}

// The first call is the sign that the request has a connection: until then it may have waited for
// one that others held.
int HTTPTransfer::watchProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent) {
  auto& transfer = *static_cast<HTTPTransfer*>(self);
  if (!std::exchange(transfer.hasConnection_, true)) transfer.watchForSilence();
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
  if (failure_ == 0 && result == CURLE_OK && decoder_ && !decoder_->isComplete() &&
      isSuccess(*response_)) {
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
