#ifndef QUILLMERE_CALDAV_KBTDAVREQUESTOR_H
#define QUILLMERE_CALDAV_KBTDAVREQUESTOR_H

#include <quillmere/caldav/KBTDavRequest.h>
#include <quillmere/platform/net/NSURLSession.h>

#include <any>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace quillmere {

/// What speaks HTTP to a server: the base of calendar collections and principals. It runs its
/// requests strictly one after another, in the order in which they were issued, through one session
/// of its own. Each ends in exactly one call of the completion method that it was issued with; a
/// request that this method issues starts when it has returned, after those that were waiting.
///
/// - Every status but 200 to 299 is an error (see `KBTDavRequest::error`). No request is repeated.
/// - A challenge is answered once with the user name and password of `_getUsername` and
///   `_getPassword`; a second one, NTLM and Negotiate with no credential, so that the 401 is the
///   answer. A request that was issued with a field Authorization is never answered for.
/// - A redirect is followed with the issued request's method and body and its Content-Type, Accept,
///   Depth and If-Match, and no other field: not Authorization, and not the conditional fields of
///   collections, whose names end in a colon.
/// - A minute without a byte is a time-out.
///
/// While the preference "KBTDavRequestorLogLevel" is greater than 0, every final response and every
/// redirected request is logged with its body (GLib's log, domain "Quillmere", level message). No
/// password and no field is ever logged.
///
/// Everything happens on the loop of the queue that was current when the requestor was made, and is
/// to be asked for from there.
class KBTDavRequestor : public NSURLSessionDelegate,
                        public std::enable_shared_from_this<KBTDavRequestor> {
 public:
  static std::shared_ptr<KBTDavRequestor> init();

  const std::shared_ptr<NSURLSession>& urlSession() const { return _urlSession; }
  void setUrlSession(std::shared_ptr<NSURLSession> session) { _urlSession = std::move(session); }

  // What the session tells.

  void URLSession_task_willPerformHTTPRedirection_newRequest_completionHandler(
      NSURLSession& session, NSURLSessionDataTask& task, const NSHTTPURLResponse& response,
      const NSURLRequest& newRequest,
      std::function<void(const std::optional<NSURLRequest>&)> completionHandler) override;
  void URLSession_didReceiveChallenge_completionHandler(
      NSURLSession& session, const NSURLAuthenticationChallenge& challenge,
      NSURLSessionChallengeCompletionHandler completionHandler) override;
  void URLSession_task_didReceiveChallenge_completionHandler(
      NSURLSession& session, NSURLSessionDataTask& task,
      const NSURLAuthenticationChallenge& challenge,
      NSURLSessionChallengeCompletionHandler completionHandler) override;
  void URLSession_dataTask_didReceiveResponse_completionHandler(
      NSURLSession& session, NSURLSessionDataTask& task,
      const std::shared_ptr<const NSHTTPURLResponse>& response,
      std::function<void(NSURLSessionResponseDisposition)> completionHandler) override;
  void URLSession_dataTask_didReceiveData(NSURLSession& session, NSURLSessionDataTask& task,
                                          const NSData& data) override;
  void URLSession_task_didCompleteWithError(NSURLSession& session, NSURLSessionDataTask& task,
                                            const NSErrorPtr& error) override;

 protected:
  KBTDavRequestor() = default;

  /// Makes the session; the last step of every `init...`.
  void openSession();

  /// For challenges; null in this class, which answers them with empty texts.
  virtual std::optional<std::string> _getUsername() const { return std::nullopt; }
  virtual std::optional<std::string> _getPassword() const { return std::nullopt; }

  /// Issues a request that has its method, URL, fields and body: it starts at once when no other
  /// runs or waits. The cache policy and the time-out of 60 seconds are set here. `context` comes
  /// back with the outcome.
  void _createConnectionWithRequest_context_completionSelector_internal(
      NSMutableURLRequest request, std::any context, KBTDavCompletionSelector selector,
      bool internal);

  /// Cancels all requests, running or waiting; each ends with `NSURLErrorCancelled`, later.
  void cancelRequests();

  /// Ends the requestor for good: what it has and what it is still asked for is cancelled, and once
  /// nothing is left `letGo` is called.
  void endRequests();
  virtual void letGo() {}
  /// Whether nothing more will be heard of any request, now or later.
  bool isOver() const { return hasEnded_ && requestQueue_.empty(); }

 private:
  std::shared_ptr<KBTDavRequest> recordOf(const NSURLSessionDataTask& task) const;
  void answerChallenge(const NSURLAuthenticationChallenge& challenge, bool isPreset,
                       const NSURLSessionChallengeCompletionHandler& completionHandler) const;
  void _doneWithRequest_forDataTask(const std::shared_ptr<KBTDavRequest>& request,
                                    NSURLSessionDataTask& task);

  std::unordered_map<const NSURLSessionDataTask*, std::shared_ptr<KBTDavRequest>> connectionMap_;
  std::deque<std::shared_ptr<NSURLSessionDataTask>> requestQueue_;  // the first one runs
  std::shared_ptr<NSURLSession> _urlSession;
  bool hasEnded_ = false;
};

}  // namespace quillmere

#endif
