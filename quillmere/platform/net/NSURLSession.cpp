#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/net/DataTaskRun.h>
#include <quillmere/platform/net/NSURLSession.h>
#include <quillmere/platform/net/URLError.h>

#include <utility>

namespace quillmere {
namespace {

// In place of a delegate that is null or gone.
class NobodysDelegate final : public NSURLSessionDelegate {
  void URLSession_task_didCompleteWithError(NSURLSession&, NSURLSessionDataTask&,
                                            const NSErrorPtr&) override {}
};

}  // namespace

std::shared_ptr<NSURLSession> NSURLSession::sessionWithConfiguration_delegate_delegateQueue(
    const NSURLSessionConfiguration& configuration,
    const std::shared_ptr<NSURLSessionDelegate>& delegate,
    const std::optional<NSOperationQueue>& queue) {
  return makeObject<NSURLSession>(configuration, delegate,
                                  queue.value_or(NSOperationQueue::currentQueue()));
}

NSURLSession::NSURLSession(const NSURLSessionConfiguration& configuration,
                           const std::shared_ptr<NSURLSessionDelegate>& delegate,
                           NSOperationQueue queue)
    : configuration_(configuration),
      delegate_(delegate),
      queue_(std::move(queue)),
      loop_(CurlLoop::loopOf(queue_)),
      cookies_(std::make_shared<CookieJar>()) {}

std::shared_ptr<NSURLSessionDataTask> NSURLSession::dataTaskWithRequest(
    const NSURLRequest& request) {
  return makeObject<NSURLSessionDataTask>(shared_from_this(), request);
}

NSURLSessionDataTask::NSURLSessionDataTask(std::shared_ptr<NSURLSession> session,
                                           NSURLRequest request)
    : session_(std::move(session)), originalRequest_(std::move(request)) {}

NSURLSessionDataTask::~NSURLSessionDataTask() = default;

void NSURLSessionDataTask::resume() {
  if (state_ != NSURLSessionTaskState::suspended) return;
  state_ = NSURLSessionTaskState::running;
  begin();
  session_->delegateQueue().addOperationWithBlock([run = run_] { run->start(); });
}

// From now on, and not before, the delegate is kept: it may hold tasks that it never starts.
void NSURLSessionDataTask::begin() {
  delegate_ = session_->delegate_.lock();
  if (!delegate_) delegate_ = std::make_shared<NobodysDelegate>();
  run_ = std::make_shared<DataTaskRun>(shared_from_this());
}

void NSURLSessionDataTask::cancel() {
  if (state_ == NSURLSessionTaskState::canceling || state_ == NSURLSessionTaskState::completed) {
    return;
  }
  state_ = NSURLSessionTaskState::canceling;
  if (!run_) begin();
  session_->delegateQueue().addOperationWithBlock(
      [run = run_] { run->complete(urlError(NSURLErrorCancelled, run->currentURL())); });
}

// What happens when nobody answers. The handlers come by value, for those who keep them.
// NOLINTBEGIN(performance-unnecessary-value-param)

void NSURLSessionDelegate::URLSession_task_willPerformHTTPRedirection_newRequest_completionHandler(
    NSURLSession&, NSURLSessionDataTask&, const NSHTTPURLResponse&, const NSURLRequest& newRequest,
    std::function<void(const std::optional<NSURLRequest>&)> completionHandler) {
  completionHandler(newRequest);
}

void NSURLSessionDelegate::URLSession_didReceiveChallenge_completionHandler(
    NSURLSession&, const NSURLAuthenticationChallenge&,
    NSURLSessionChallengeCompletionHandler completionHandler) {
  completionHandler(NSURLSessionAuthChallengeDisposition::performDefaultHandling, nullptr);
}

void NSURLSessionDelegate::URLSession_task_didReceiveChallenge_completionHandler(
    NSURLSession&, NSURLSessionDataTask&, const NSURLAuthenticationChallenge&,
    NSURLSessionChallengeCompletionHandler completionHandler) {
  completionHandler(NSURLSessionAuthChallengeDisposition::performDefaultHandling, nullptr);
}

void NSURLSessionDelegate::URLSession_dataTask_didReceiveResponse_completionHandler(
    NSURLSession&, NSURLSessionDataTask&, const std::shared_ptr<const NSHTTPURLResponse>&,
    std::function<void(NSURLSessionResponseDisposition)> completionHandler) {
  completionHandler(NSURLSessionResponseAllow);
}

// NOLINTEND(performance-unnecessary-value-param)

void NSURLSessionDelegate::URLSession_dataTask_didReceiveData(NSURLSession&, NSURLSessionDataTask&,
                                                              const NSData&) {}

}  // namespace quillmere
