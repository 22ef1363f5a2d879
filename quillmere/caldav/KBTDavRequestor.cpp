#include <quillmere/caldav/KBTDavRequestor.h>
#include <quillmere/ical/KBTFreeBusy.h>
#include <quillmere/platform/base/HWPreference.h>
#include <quillmere/platform/base/NSLog.h>
#include <quillmere/platform/base/UTF8.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/net/NSURLCredential.h>
#include <quillmere/platform/net/URLError.h>
#include <quillmere/platform/xml/HWXMLDocument.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace quillmere {
namespace {

constexpr double timeoutInterval = 60.0;  // seconds

// All that a redirected request has of the issued one's fields.
constexpr const char* fieldsOfRedirects[] = {"Content-Type", "Accept", "Depth", "If-Match"};

bool isLogging() {
  static const std::shared_ptr<HWPreference> level =
      HWPreference::preferenceForKey("KBTDavRequestorLogLevel");
  return level->integerValue() > 0;
}

std::string textOf(const NSData& data) {
  return isValidUTF8(data.view()) ? std::string(data.view()) : "(null)";
}

bool isSuccess(std::int64_t status) { return status >= 200 && status <= 299; }

// Whether an answer takes far more memory to read than it took to send. A listing or a multiget
// takes up to some eight times its text, and a server packs it to a fortieth at best.
bool isOutOfProportion(std::string_view body, std::uint64_t bytesReceived) {
  constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;
  constexpr std::uint64_t alwaysAllowed = 160 * mebibyte;
  constexpr std::uint64_t mostTimesMore = 512;  // of what came after the first mebibyte
  constexpr std::uint64_t mostTimesText = 9;
  constexpr std::uint64_t mostTimesAnyText = 32;
  if (body.size() <= alwaysAllowed / mostTimesAnyText) return false;
  const std::uint64_t more = bytesReceived - std::min(bytesReceived, mebibyte);
  const std::uint64_t most = std::min(alwaysAllowed + mostTimesMore * more,
                                      std::max(alwaysAllowed, mostTimesText * body.size()));
  return HWXMLDocument::memoryToRead(body) > most;
}

}  // namespace

std::shared_ptr<KBTDavRequestor> KBTDavRequestor::init() {
  auto requestor = makeObject<KBTDavRequestor>();
  requestor->openSession();
  return requestor;
}

void KBTDavRequestor::openSession() {
  setUrlSession(NSURLSession::sessionWithConfiguration_delegate_delegateQueue(
      NSURLSessionConfiguration::ephemeralSessionConfiguration(), shared_from_this(),
      NSOperationQueue::currentQueue()));
}

void KBTDavRequestor::_createConnectionWithRequest_context_completionSelector_internal(
    NSMutableURLRequest request, std::any context, KBTDavCompletionSelector selector,
    bool internal) {
  request.setCachePolicy(NSURLRequestReloadIgnoringLocalCacheData);
  request.setTimeoutInterval(timeoutInterval);
  const auto task = _urlSession->dataTaskWithRequest(request);
  connectionMap_[task.get()] =
      KBTDavRequest::initWithRequest_withCompletionSelector_context_internal(
          request, selector, std::move(context), internal);
  requestQueue_.push_back(task);
  if (hasEnded_) return task->cancel();
  if (requestQueue_.size() == 1) task->resume();
}

void KBTDavRequestor::cancelRequests() {
  const auto tasks = requestQueue_;
  for (const auto& task : tasks) task->cancel();
}

void KBTDavRequestor::endRequests() {
  hasEnded_ = true;
  cancelRequests();
  if (requestQueue_.empty()) letGo();
}

// Null for a task that somebody else made with the session.
std::shared_ptr<KBTDavRequest> KBTDavRequestor::recordOf(const NSURLSessionDataTask& task) const {
  const auto found = connectionMap_.find(&task);
  return found == connectionMap_.end() ? nullptr : found->second;
}

void KBTDavRequestor::URLSession_task_willPerformHTTPRedirection_newRequest_completionHandler(
    NSURLSession&, NSURLSessionDataTask& task, const NSHTTPURLResponse&,
    const NSURLRequest& newRequest,
    std::function<void(const std::optional<NSURLRequest>&)> completionHandler) {
  const auto record = recordOf(task);
  if (!record) return completionHandler(newRequest);
  const NSURLRequest& issued = record->originalRequest();
  NSMutableURLRequest request;
  request.setURL(newRequest.URL());
  request.setHTTPMethod(issued.HTTPMethod());
  request.setHTTPBody(issued.HTTPBody());
  for (const char* field : fieldsOfRedirects) {
    if (auto value = issued.valueForHTTPHeaderField(field)) {
      request.setValue_forHTTPHeaderField(std::move(value), field);
    }
  }
  if (isLogging()) {
    NSLog("KBT: " + request.HTTPMethod() + " " + request.URL()->wireString() + "\n" +
          (request.HTTPBody() ? textOf(*request.HTTPBody()) : "(null)"));
  }
  completionHandler(request);
}

void KBTDavRequestor::URLSession_didReceiveChallenge_completionHandler(
    NSURLSession&, const NSURLAuthenticationChallenge& challenge,
    NSURLSessionChallengeCompletionHandler completionHandler) {
  answerChallenge(challenge, false, completionHandler);
}

// A redirect drops a preset Authorization; user and password must not go out in its place.
void KBTDavRequestor::URLSession_task_didReceiveChallenge_completionHandler(
    NSURLSession&, NSURLSessionDataTask& task, const NSURLAuthenticationChallenge& challenge,
    NSURLSessionChallengeCompletionHandler completionHandler) {
  const auto record = recordOf(task);
  const bool isPreset =
      !record || record->originalRequest().valueForHTTPHeaderField("Authorization").has_value();
  answerChallenge(challenge, isPreset, completionHandler);
}

void KBTDavRequestor::answerChallenge(
    const NSURLAuthenticationChallenge& challenge, bool isPreset,
    const NSURLSessionChallengeCompletionHandler& completionHandler) const {
  const std::string& method = challenge.protectionSpace().authenticationMethod();
  const bool isHopeless = isPreset || method == NSURLAuthenticationMethodNTLM ||
                          method == NSURLAuthenticationMethodNegotiate ||
                          challenge.previousFailureCount() != 0;
  completionHandler(NSURLSessionAuthChallengeUseCredential,
                    isHopeless ? nullptr
                               : NSURLCredential::credentialWithUser_password_persistence(
                                     _getUsername().value_or(""), _getPassword().value_or(""),
                                     NSURLCredentialPersistenceNone));
}

void KBTDavRequestor::URLSession_dataTask_didReceiveResponse_completionHandler(
    NSURLSession&, NSURLSessionDataTask& task,
    const std::shared_ptr<const NSHTTPURLResponse>& response,
    std::function<void(NSURLSessionResponseDisposition)> completionHandler) {
  if (const auto request = recordOf(task)) {
    request->setResponse(response);
    request->beginData(response->expectedContentLength());
  }
  completionHandler(NSURLSessionResponseAllow);
}

void KBTDavRequestor::URLSession_dataTask_didReceiveData(NSURLSession&, NSURLSessionDataTask& task,
                                                         const NSData& data) {
  if (const auto request = recordOf(task)) request->appendData(data);
}

void KBTDavRequestor::URLSession_task_didCompleteWithError(NSURLSession&,
                                                           NSURLSessionDataTask& task,
                                                           const NSErrorPtr& error) {
  const auto request = recordOf(task);
  if (!request) return;
  if (error) {
    request->setError(error);
  } else {
    const auto& response = request->response();
    const std::int64_t status = response ? response->statusCode() : 0;
    if (isLogging()) NSLog("KBT: " + std::to_string(status) + "\n" + textOf(request->data()));
    if (isSuccess(status) && isOutOfProportion(request->dataView(), task.countOfBytesReceived())) {
      request->setError(urlError(NSURLErrorDataLengthExceedsMaximum, response->URL()));
    } else if (!isSuccess(status)) {
      request->setError(NSError::errorWithDomain_code_userInfo(
          KBTDavConnectionErrorDomain, status,
          {{NSLocalizedDescriptionKey, NSHTTPURLResponse::localizedStringForStatusCode(status)},
           {KBTDavResponseDataKey, request->data()}}));
    }
  }
  _doneWithRequest_forDataTask(request, task);
}

// The finished request is the first of the queue until its completion method has returned; so what
// that issues waits behind those that were waiting already.
void KBTDavRequestor::_doneWithRequest_forDataTask(const std::shared_ptr<KBTDavRequest>& request,
                                                   NSURLSessionDataTask& task) {
  const auto kept = shared_from_this();
  (this->*request->selector())(request);
  connectionMap_.erase(&task);
  std::erase_if(requestQueue_, [&](const auto& queued) { return queued.get() == &task; });
  if (!requestQueue_.empty()) {
    const auto next = requestQueue_.front();
    next->resume();
  } else if (hasEnded_) {
    letGo();
  }
}

}  // namespace quillmere
