#include <quillmere/calendars/KBTURLCalendar.h>
#include <quillmere/platform/base/LargePages.h>
#include <quillmere/platform/base/makeObject.h>

#include <utility>

namespace quillmere {
namespace {

bool isSuccess(std::int64_t status) { return status >= 200 && status <= 299; }

// One with an end of line in it is none: no request could be sent with it again.
std::optional<std::string> entityTagOf(const NSHTTPURLResponse& response) {
  auto tag = response.valueForHTTPHeaderField("Etag");
  if (!tag) return std::nullopt;
  if (tag->find_first_of("\r\n") != std::string::npos) return std::nullopt;
  if (tag->starts_with("W/")) tag->erase(0, 2);
  return tag;
}

}  // namespace

std::shared_ptr<KBTURLCalendar> KBTURLCalendar::initWithURL(NSURL url) {
  auto calendar = makeObject<KBTURLCalendar>(std::move(url));
  calendar->openSession();
  return calendar;
}

KBTURLCalendar::KBTURLCalendar(NSURL url) : url_(std::move(url)) {}

void KBTURLCalendar::openSession() {
  setUrlSession(NSURLSession::sessionWithConfiguration_delegate_delegateQueue(
      NSURLSessionConfiguration::ephemeralSessionConfiguration(),
      std::static_pointer_cast<KBTURLCalendar>(keptAlive()), NSOperationQueue::currentQueue()));
}

bool KBTURLCalendar::isEqualToCalendar(const KBTSynchingCalendar& other) const {
  const auto* calendar = dynamic_cast<const KBTURLCalendar*>(&other);
  return calendar && calendar->url_ == url_;
}

// Intended: the content type, whatever the method and the body.
NSMutableURLRequest KBTURLCalendar::requestWithMethod(const char* method) const {
  auto request = NSMutableURLRequest::requestWithURL(url_);
  request.setHTTPMethod(method);
  request.setValue_forHTTPHeaderField("text/xml", "Content-Type");
  return request;
}

std::shared_ptr<NSURLSessionDataTask> KBTURLCalendar::makeTask(const NSURLRequest& request) {
  if (!_urlSession) openSession();  // that of a subclass which has set none
  setDataTask(_urlSession->dataTaskWithRequest(request));
  return dataTask();
}

void KBTURLCalendar::checkForExternalChanges() {
  justChecking_ = true;
  makeTask(requestWithMethod("HEAD"))->resume();
}

void KBTURLCalendar::fetchExternalChanges() {
  justChecking_ = false;
  NSMutableURLRequest request = requestWithMethod("GET");
  request.setValue_forHTTPHeaderField(eTag_, "If-None-Match");
  downloadData_.emplace();
  makeTask(request)->resume();
}

void KBTURLCalendar::_writeCalendarData(const NSData& document) {
  justChecking_ = false;
  downloadData_.reset();  // of a fetch that this takes the place of
  NSMutableURLRequest request = requestWithMethod("PUT");
  request.setValue_forHTTPHeaderField(eTag_, "If-Match");
  request.setHTTPBody(document);
  makeTask(request)->resume();
}

std::shared_ptr<KBTCalObject> KBTURLCalendar::_getCalendarData() {
  if (!downloadData_) return nullptr;
  auto document = NSData::dataWithString(std::move(*downloadData_));
  downloadData_.reset();
  return KBTCalObject::initWithData(std::move(document));
}

void KBTURLCalendar::cancel() {
  const auto task = std::exchange(_dataTask, nullptr);
  if (task) task->cancel();
}

void KBTURLCalendar::URLSession_didReceiveChallenge_completionHandler(
    NSURLSession&, const NSURLAuthenticationChallenge& challenge,
    NSURLSessionChallengeCompletionHandler completionHandler) {
  const auto shared = NSURLAuthenticationChallenge::
      initWithProtectionSpace_proposedCredential_previousFailureCount_failureResponse(
          challenge.protectionSpace(), challenge.proposedCredential(),
          challenge.previousFailureCount(), challenge.failureResponse());
  delegate()->synchingCalendar_didReceiveChallenge_completionHandler(*this, shared,
                                                                     completionHandler);
}

void KBTURLCalendar::URLSession_task_didReceiveChallenge_completionHandler(
    NSURLSession& session, NSURLSessionDataTask&, const NSURLAuthenticationChallenge& challenge,
    NSURLSessionChallengeCompletionHandler completionHandler) {
  URLSession_didReceiveChallenge_completionHandler(session, challenge,
                                                   std::move(completionHandler));
}

// Intended: a check goes by the tag alone; anything else takes the tag over, whatever the status.
void KBTURLCalendar::URLSession_dataTask_didReceiveResponse_completionHandler(
    NSURLSession&, NSURLSessionDataTask&, const std::shared_ptr<const NSHTTPURLResponse>& response,
    std::function<void(NSURLSessionResponseDisposition)> completionHandler) {
  statusCode_ = response->statusCode();
  auto tag = entityTagOf(*response);
  if (justChecking_) {
    checkFoundChanges_ = tag != eTag_;
  } else {
    eTag_ = std::move(tag);
  }
  if (downloadData_) reserveForStranger(*downloadData_, response->expectedContentLength());
  completionHandler(NSURLSessionResponseAllow);
}

void KBTURLCalendar::URLSession_dataTask_didReceiveData(NSURLSession&, NSURLSessionDataTask&,
                                                        const NSData& data) {
  if (downloadData_) downloadData_->append(data.view());
}

// What the task was for is told by what the calendar is doing now. A task that the delegate starts
// in a callback stays the one in flight.
void KBTURLCalendar::URLSession_task_didCompleteWithError(NSURLSession&, NSURLSessionDataTask&,
                                                          const NSErrorPtr& error) {
  const auto inFlight = dataTask();
  if (justChecking_) {
    completeCheck(error);
  } else if (downloadData_) {
    completeFetch(error);
  } else {
    completeSave(error);
  }
  if (dataTask() == inFlight) setDataTask(nullptr);
}

void KBTURLCalendar::completeCheck(const NSErrorPtr& error) {
  delegate()->synchingCalendarCompletedCheckForExternalChanges_changes(
      *this, !error && checkFoundChanges_);
}

void KBTURLCalendar::completeFetch(const NSErrorPtr& error) {
  constexpr std::int64_t notModified = 304;
  if (!error && isSuccess(statusCode_)) return KBTDataCalendar::fetchExternalChanges();
  downloadData_.reset();
  delegate()->synchingCalendarCompletedFetchExternalChanges_withError(
      *this, error || statusCode_ == notModified ? error : errorOfStatus());
}

// Intended: a failed save is completed as well, the pending changes are never reset, and without an
// entity tag there is no end: a request that would ask for it is made and not sent.
void KBTURLCalendar::completeSave(const NSErrorPtr& error) {
  constexpr std::int64_t firstFailure = 400;
  const auto inFlight = dataTask();
  if (error || statusCode_ >= firstFailure) {
    delegate()->synchingCalendar_failedSavingObject_withError(*this, KBTClientObject(),
                                                              error ? error : errorOfStatus());
  }
  if (error || eTag_) {
    delegate()->synchingCalendarCompletedSave(*this);
  } else if (dataTask() == inFlight) {
    makeTask(requestWithMethod("HEAD"));
  }
}

NSErrorPtr KBTURLCalendar::errorOfStatus() const {
  return NSError::errorWithDomain_code_userInfo(
      KBTURLCalendarErrorDomain, statusCode_,
      {{NSLocalizedDescriptionKey, NSHTTPURLResponse::localizedStringForStatusCode(statusCode_)}});
}

}  // namespace quillmere
