#ifndef QUILLMERE_TESTS_SUPPORT_SESSIONHOST_H
#define QUILLMERE_TESTS_SUPPORT_SESSIONHOST_H

#include <quillmere/platform/loop/NSRunLoop.h>
#include <quillmere/platform/net/NSURLSession.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quillmere::testing {

/// Runs the loop until the condition holds; false when it does not within so many seconds.
inline bool runUntil(const std::function<bool()>& condition, int secondsToWait = 10) {
  const std::int64_t microsecondsToWait = std::int64_t{secondsToWait} * 1'000'000;
  constexpr std::int64_t turn = 2'000;
  const auto now = [] { return NSDate::date().microsecondsSince1970(); };
  const std::int64_t deadline = now() + microsecondsToWait;
  while (!condition()) {
    if (now() > deadline) return false;
    NSRunLoop::currentRunLoop().runUntilDate(NSDate::dateWithMicrosecondsSince1970(now() + turn));
  }
  return true;
}

/// A session and its delegate, which writes down what it is told, a line for each call, and answers
/// as the test says.
class SessionHost : public NSURLSessionDelegate, public std::enable_shared_from_this<SessionHost> {
 public:
  using Task = std::shared_ptr<NSURLSessionDataTask>;
  using Redirect = std::function<std::optional<NSURLRequest>(const NSURLRequest&)>;
  using Credential =
      std::function<std::shared_ptr<NSURLCredential>(const NSURLAuthenticationChallenge&)>;

  std::vector<std::string> events;
  std::string body;
  NSErrorPtr error;
  int completions = 0;
  std::shared_ptr<const NSHTTPURLResponse> response;

  NSURLSessionConfiguration configuration;
  Redirect redirect = [](const NSURLRequest& proposed) { return proposed; };
  Credential credential = [](const NSURLAuthenticationChallenge&) { return nullptr; };
  std::function<void()> onEvent = [] {};
  // Where set, takes the completion handler of a response instead of it being called.
  std::function<void(std::function<void(NSURLSessionResponseDisposition)>)> onResponse;

  static std::shared_ptr<SessionHost> make() { return std::make_shared<SessionHost>(); }

  const std::shared_ptr<NSURLSession>& session() {
    if (!session_) {
      session_ = NSURLSession::sessionWithConfiguration_delegate_delegateQueue(
          configuration, shared_from_this(), std::nullopt);
    }
    return session_;
  }
  void endSession() { session_.reset(); }

  Task start(const NSURLRequest& request) {
    auto task = session()->dataTaskWithRequest(request);
    task->resume();
    return task;
  }

  /// Runs a request to its end; what happened, joined by commas.
  std::string fetch(const NSURLRequest& request) {
    events.clear();
    body.clear();
    const int before = completions;
    const Task task = start(request);
    if (!runUntil([&] { return completions > before; })) return "nothing: " + eventText();
    return eventText();
  }

  std::string eventText() const {
    std::string text;
    for (const std::string& event : events) text += (text.empty() ? "" : ", ") + event;
    return text;
  }

  void URLSession_task_willPerformHTTPRedirection_newRequest_completionHandler(
      NSURLSession&, NSURLSessionDataTask&, const NSHTTPURLResponse& from,
      const NSURLRequest& newRequest,
      std::function<void(const std::optional<NSURLRequest>&)> completionHandler) override {
    note("redirect " + std::to_string(from.statusCode()));
    completionHandler(redirect(newRequest));
  }
  void URLSession_didReceiveChallenge_completionHandler(
      NSURLSession&, const NSURLAuthenticationChallenge& challenge,
      NSURLSessionChallengeCompletionHandler completionHandler) override {
    note("session challenge " + descriptionOf(challenge));
    completionHandler(NSURLSessionAuthChallengeDisposition::useCredential, credential(challenge));
  }
  void URLSession_task_didReceiveChallenge_completionHandler(
      NSURLSession&, NSURLSessionDataTask&, const NSURLAuthenticationChallenge& challenge,
      NSURLSessionChallengeCompletionHandler completionHandler) override {
    note("challenge " + descriptionOf(challenge));
    completionHandler(NSURLSessionAuthChallengeDisposition::useCredential, credential(challenge));
  }
  void URLSession_dataTask_didReceiveResponse_completionHandler(
      NSURLSession&, NSURLSessionDataTask&,
      const std::shared_ptr<const NSHTTPURLResponse>& received,
      std::function<void(NSURLSessionResponseDisposition)> completionHandler) override {
    response = received;
    note("response " + std::to_string(received->statusCode()));
    if (onResponse) return onResponse(completionHandler);
    completionHandler(NSURLSessionResponseAllow);
  }
  void URLSession_dataTask_didReceiveData(NSURLSession&, NSURLSessionDataTask&,
                                          const NSData& data) override {
    if (body.empty()) note("data");
    body += data.view();
  }
  void URLSession_task_didCompleteWithError(NSURLSession&, NSURLSessionDataTask& task,
                                            const NSErrorPtr& ended) override {
    ++completions;
    error = ended;
    completed.push_back(task.originalRequest().URL() ? task.originalRequest().URL()->path() : "");
    note(ended ? "error " + std::to_string(ended->code()) : "end");
  }

  std::vector<std::string> completed;  // the paths of completed tasks

 private:
  static std::string descriptionOf(const NSURLAuthenticationChallenge& challenge) {
    const NSURLProtectionSpace& space = challenge.protectionSpace();
    constexpr std::size_t prefix = sizeof("NSURLAuthenticationMethod") - 1;
    return space.authenticationMethod().substr(prefix) + " " + space.realm().value_or("-") + " " +
           std::to_string(challenge.previousFailureCount());
  }
  void note(std::string event) {
    events.push_back(std::move(event));
    onEvent();
  }

  std::shared_ptr<NSURLSession> session_;
};

}  // namespace quillmere::testing

#endif
