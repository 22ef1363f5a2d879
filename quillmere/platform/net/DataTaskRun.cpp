#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/net/AuthorizationHeader.h>
#include <quillmere/platform/net/DataTaskRun.h>
#include <quillmere/platform/net/HTTPFields.h>
#include <quillmere/platform/net/NSURLCredential.h>
#include <quillmere/platform/net/URLError.h>

#include <algorithm>
#include <utility>

namespace quillmere {
namespace {

constexpr int maximumRedirects = 20;
constexpr int maximumStaleNonces = 3;  // of one credential
constexpr std::int64_t unauthorized = 401;

bool isRedirect(std::int64_t status) {
  constexpr std::int64_t statuses[] = {301, 302, 303, 307, 308};
  return std::find(std::begin(statuses), std::end(statuses), status) != std::end(statuses);
}

std::uint16_t portOf(const NSURL& url) {
  constexpr std::uint16_t httpPort = 80;
  constexpr std::uint16_t httpsPort = 443;
  return url.port().value_or(url.scheme() == "https" ? httpsPort : httpPort);
}

std::string serverOf(const NSURL& url) {
  return url.scheme().value_or("") + "://" + lowerCaseASCII(url.host().value_or("")) + ":" +
         std::to_string(portOf(url));
}

bool isSameServer(const NSURL& a, const NSURL& b) { return serverOf(a) == serverOf(b); }

// What the platform would send to the new address (RFC 9110 section 15.4).
NSURLRequest redirected(const NSURLRequest& request, std::int64_t status, const NSURL& target) {
  constexpr std::int64_t seeOther = 303;
  constexpr std::int64_t temporaryRedirect = 307;
  NSMutableURLRequest proposed;
  static_cast<NSURLRequest&>(proposed) = request;
  const std::string& method = request.HTTPMethod();
  const bool becomesGet =
      status == seeOther ? method != "HEAD" : status < temporaryRedirect && method == "POST";
  if (becomesGet) {
    proposed.setHTTPMethod("GET");
    proposed.setHTTPBody(std::nullopt);
    proposed.setValue_forHTTPHeaderField(std::nullopt, "Content-Type");
  }
  if (!isSameServer(*request.URL(), target)) {
    for (const char* field : {"Authorization", "Proxy-Authorization", "Cookie"}) {
      proposed.setValue_forHTTPHeaderField(std::nullopt, field);
    }
  }
  proposed.setURL(target);
  return proposed;
}

}  // namespace

DataTaskRun::DataTaskRun(std::shared_ptr<NSURLSessionDataTask> task)
    : task_(std::move(task)), request_(task_->originalRequest()) {}

template <class... Answer, class Handle>
auto DataTaskRun::answerHandler(Handle handle) {
  const std::uint64_t question = ++questions_;
  return [self = shared_from_this(), question, handle](const Answer&... answer) {
    if (self->questions_ != question) return;
    ++self->questions_;
    if (!self->isOver()) handle(*self, answer...);
  };
}

void DataTaskRun::start() {
  if (!isOver()) send(request_);
}

void DataTaskRun::send(const NSURLRequest& request) {
  request_ = request;
  isAfresh_ = false;
  transfer(request, HTTPTransfer::Connection::asTheMethodNeeds);
}

void DataTaskRun::transfer(const NSURLRequest& request, HTTPTransfer::Connection connection) {
  purpose_ = Purpose::unknown;
  isAllowed_ = isPaused_ = hasEnded_ = false;
  if (transfer_) transfer_->stop();
  if (const NSErrorPtr error = HTTPTransfer::errorBeforeSending(request)) return complete(error);
  const NSURLSession& session = *task_->session_;
  transfer_ = std::make_shared<HTTPTransfer>(session.loop_, request, session.configuration_,
                                             session.cookies_, connection, *this);
  if (const NSErrorPtr error = transfer_->start()) complete(error);
}

void DataTaskRun::complete(const NSErrorPtr& error) {
  if (!task_) return;
  const auto kept = shared_from_this();
  const std::shared_ptr<NSURLSessionDataTask> task = std::exchange(task_, nullptr);
  ++questions_;
  if (transfer_) transfer_->stop();
  task->state_ = NSURLSessionTaskState::completed;
  const std::shared_ptr<NSURLSessionDelegate> delegate = std::exchange(task->delegate_, nullptr);
  task->run_.reset();
  if (delegate) delegate->URLSession_task_didCompleteWithError(*task->session_, *task, error);
}

void DataTaskRun::transferMoved() {
  if (isOver() || !transfer_->response()) return;
  const auto kept = shared_from_this();
  if (purpose_ == Purpose::unknown) {
    purpose_ = purposeOf(*transfer_->response());
    if (purpose_ == Purpose::answer) askAboutResponse();
  }
  deliverBody();
}

// Redirects and challenges are taken in whole before the delegate is asked, so that their
// connection can serve again; when they turn out to be the answer, their body is there.
void DataTaskRun::transferEnded(const NSErrorPtr& error) {
  if (isOver()) return;
  const auto kept = shared_from_this();
  hasEnded_ = true;
  if (error) return complete(error);
  if (purpose_ == Purpose::unknown) transferMoved();
  if (isOver()) return;
  switch (purpose_) {
    case Purpose::redirect:
      return askAboutRedirect();
    case Purpose::challenge:
      return askForCredential();
    case Purpose::deadEnd:
      isAfresh_ = true;
      task_->session_->loop_->noteSingleLogin(serverOf(*request_.URL()));
      return transfer(request_, HTTPTransfer::Connection::fresh);
    default:
      return deliverBody();
  }
}

DataTaskRun::Purpose DataTaskRun::purposeOf(const NSHTTPURLResponse& response) {
  const std::int64_t status = response.statusCode();
  if (isRedirect(status) && redirectTarget(response)) return Purpose::redirect;
  if (status != unauthorized) return Purpose::answer;
  const bool isPreset = request_.valueForHTTPHeaderField("Authorization").has_value();
  const auto field = response.valueForHTTPHeaderField("WWW-Authenticate");
  challenges_ = field ? parseAuthenticateHeader(*field) : std::vector<AuthenticateChallenge>();
  if (isPreset) return Purpose::answer;
  if (challengeToRaise(challenges_)) return Purpose::challenge;
  return isDeadEnd(challenges_) && !isAfresh_ ? Purpose::deadEnd : Purpose::answer;
}

// Null for an address that is missing, malformed, or neither of http nor of https.
std::optional<NSURL> DataTaskRun::redirectTarget(const NSHTTPURLResponse& response) const {
  const auto location = response.valueForHTTPHeaderField("Location");
  if (!location || location->empty()) return std::nullopt;
  const auto target = NSURL::URLWithString_relativeToURL(*location, *request_.URL());
  return target && target->isHTTP() ? target : std::nullopt;
}

void DataTaskRun::askAboutRedirect() {
  if (++redirects_ > maximumRedirects) {
    return complete(urlError(NSURLErrorHTTPTooManyRedirects, request_.URL()));
  }
  const auto response = transfer_->response();
  const NSURLRequest proposed =
      redirected(request_, response->statusCode(), *redirectTarget(*response));
  login_ = {};
  const auto task = task_;
  const auto delegate = task->delegate_;
  delegate->URLSession_task_willPerformHTTPRedirection_newRequest_completionHandler(
      *task->session_, *task, *response, proposed,
      answerHandler<std::optional<NSURLRequest>>(
          [](DataTaskRun& run, const std::optional<NSURLRequest>& request) {
            if (request) return run.send(*request);
            run.purpose_ = Purpose::answer;
            run.askAboutResponse();
          }));
}

// A Digest nonce that has become stale says nothing about the credential (RFC 7616 section 3.3),
// and neither does one that went out over another connection than it came over.
bool DataTaskRun::asksForNonceAlone(const AuthenticateChallenge& offer) const {
  const bool isSameRealm = login_.credential && login_.answered.scheme == "digest" &&
                           offer.scheme == "digest" &&
                           offer.parameter("realm") == login_.answered.parameter("realm");
  const bool isElsewhere =
      login_.staleNonces == 0 && transfer_->connectionPort() != login_.connectionPort;
  return isSameRealm && login_.staleNonces < maximumStaleNonces &&
         (isElsewhere || equalIgnoringCase(offer.parameter("stale").value_or(""), "true"));
}

// Null without user and password, for another server than that of the task's URL, and once the
// server has refused a credential.
std::shared_ptr<NSURLCredential> DataTaskRun::credentialOfURL() const {
  const NSURL& url = *task_->originalRequest().URL();
  const auto user = url.user();
  const auto password = url.password();
  if (!user || !password || login_.refusedCredentials > 0) return nullptr;
  if (!isSameServer(url, *request_.URL())) return nullptr;
  return NSURLCredential::credentialWithUser_password_persistence(*user, *password,
                                                                  NSURLCredentialPersistenceNone);
}

void DataTaskRun::askForCredential() {
  const AuthenticateChallenge offer = *challengeToRaise(challenges_);
  if (asksForNonceAlone(offer)) {
    ++login_.staleNonces;
    return answer(offer);
  }
  const NSURL& url = *request_.URL();
  const auto challenge = NSURLAuthenticationChallenge::
      initWithProtectionSpace_proposedCredential_previousFailureCount_failureResponse(
          NSURLProtectionSpace::initWithHost_port_protocol_realm_authenticationMethod(
              url.host().value_or(""), portOf(url), url.scheme().value_or(""),
              offer.parameter("realm"), offer.authenticationMethod()),
          credentialOfURL(), login_.refusedCredentials, transfer_->response());
  const bool isAnswerable = offer.scheme == "digest" || offer.scheme == "basic";
  const auto handler =
      answerHandler<NSURLSessionAuthChallengeDisposition, std::shared_ptr<NSURLCredential>>(
          [offer, isAnswerable](DataTaskRun& run, NSURLSessionAuthChallengeDisposition disposition,
                                const std::shared_ptr<NSURLCredential>& credential) {
            using enum NSURLSessionAuthChallengeDisposition;
            if (disposition == cancelAuthenticationChallenge) return run.task_->cancel();
            if (disposition == useCredential && credential && isAnswerable) {
              ++run.login_.refusedCredentials;
              run.login_.credential = credential;
              run.login_.staleNonces = 0;
              return run.answer(offer);
            }
            run.purpose_ = Purpose::answer;
            run.askAboutResponse();
          });
  const auto task = task_;
  const auto delegate = task->delegate_;
  if (isAnswerable) {
    delegate->URLSession_task_didReceiveChallenge_completionHandler(*task->session_, *task,
                                                                    *challenge, handler);
  } else {
    delegate->URLSession_didReceiveChallenge_completionHandler(*task->session_, *challenge,
                                                               handler);
  }
}

// The credential goes into what is sent alone: neither a redirect nor another request has it.
void DataTaskRun::answer(const AuthenticateChallenge& offer) {
  login_.answered = offer;
  login_.connectionPort = transfer_->connectionPort();
  NSMutableURLRequest request;
  static_cast<NSURLRequest&>(request) = request_;
  request.setValue_forHTTPHeaderField(
      authorizationFor(offer, *login_.credential, request_, CFUUIDCreateString()), "Authorization");
  // A nonce may be good for the connection alone that it came over, the last one that was used.
  using enum HTTPTransfer::Connection;
  const bool hasNonce = offer.scheme == "digest";
  const bool isOnce = task_->session_->loop_->isSingleLogin(serverOf(*request_.URL()));
  transfer(request, !hasNonce ? asTheMethodNeeds : isOnce ? keptThenClosed : kept);
}

void DataTaskRun::askAboutResponse() {
  const auto task = task_;
  const auto delegate = task->delegate_;
  task->response_ = transfer_->response();
  delegate->URLSession_dataTask_didReceiveResponse_completionHandler(
      *task->session_, *task, task->response_,
      answerHandler<NSURLSessionResponseDisposition>(
          [](DataTaskRun& run, NSURLSessionResponseDisposition disposition) {
            if (disposition == NSURLSessionResponseCancel) return run.task_->cancel();
            run.isAllowed_ = true;
            if (run.isPaused_) run.goOn();
          }));
  if (isAllowed_) return deliverBody();
  if (isOver()) return;
  isPaused_ = true;
  if (!hasEnded_) transfer_->pause();
}

void DataTaskRun::goOn() {
  isPaused_ = false;
  if (!hasEnded_) transfer_->goOn();
  deliverBody();
}

void DataTaskRun::deliverBody() {
  if (isOver() || purpose_ != Purpose::answer || !isAllowed_) return;
  task_->countOfBytesReceived_ = transfer_->bytesReceived();
  std::string bytes = transfer_->takeBody();
  if (!bytes.empty()) {
    const auto task = task_;
    const auto delegate = task->delegate_;
    delegate->URLSession_dataTask_didReceiveData(*task->session_, *task,
                                                 NSData::dataWithString(std::move(bytes)));
  }
  if (hasEnded_ && !isOver()) complete(nullptr);
}

}  // namespace quillmere
