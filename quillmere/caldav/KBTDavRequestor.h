#ifndef QUILLMERE_CALDAV_KBTDAVREQUESTOR_H
#define QUILLMERE_CALDAV_KBTDAVREQUESTOR_H

#include <quillmere/caldav/KBTDavRequest.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/net/NSURLSession.h>

#include <any>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace quillmere {

/// Speaks HTTP to a server: the base of calendar collections and principals. It runs its requests
/// one after another, in the order in which they were issued, through a session of its own. Each
/// request ends in exactly one call of its completion method. A request that this method issues
/// starts after it has returned, and after those that were waiting.
///
/// - Every status other than 200 to 299 is an error (see `KBTDavRequest::error`). No request is
///   repeated after a failure.
/// - A challenge is answered with the user name and password of `_getUsername` and `_getPassword`.
///   When these are refused, and to NTLM and Negotiate, the 401 is the answer. A Digest nonce that
///   has become stale is replaced, up to three times. No challenge is answered for a request that
///   was issued with a field Authorization, not even after a redirect has dropped that.
/// - A redirect is followed with the method and body of the issued request and with its fields
///   Content-Type, Accept, Depth and If-Match. All other fields are dropped: Authorization, and
///   also the conditional fields of collections, whose names end in a colon.
/// - A minute without a byte is a time-out.
///
/// While the preference "KBTDavRequestorLogLevel" is greater than 0, every final response and every
/// redirected request is logged with its body (GLib's log, domain "Quillmere", level message).
/// Passwords and fields are never logged.
///
/// Everything happens on the loop of the queue that was current when the requestor was made, and
/// must be asked for there.
class QUILLMERE_EXPORT KBTDavRequestor : public NSURLSessionDelegate,
                                         public std::enable_shared_from_this<KBTDavRequestor> {
 public:
  static std::shared_ptr<KBTDavRequestor> init();

  const std::shared_ptr<NSURLSession>& urlSession() const { return _urlSession; }
  void setUrlSession(std::shared_ptr<NSURLSession> session) { _urlSession = std::move(session); }

  // What the session tells. Not for hosts.

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

  /// Makes the session. It is the last step of every `init...`.
  void openSession();

  /// For challenges. This class answers null, which counts as empty.
  virtual std::optional<std::string> _getUsername() const { return std::nullopt; }
  virtual std::optional<std::string> _getPassword() const { return std::nullopt; }

  /// Issues a request that has its method, URL, fields and body. It starts at once when no other
  /// runs or waits. This sets the cache policy and the time-out of 60 seconds. `context` comes back
  /// with the outcome.
  void _createConnectionWithRequest_context_completionSelector_internal(
      NSMutableURLRequest request, std::any context, KBTDavCompletionSelector selector,
      bool internal);

  /// Cancels all requests, running or waiting. Each ends later, with `NSURLErrorCancelled`.
  void cancelRequests();

  /// Ends the requestor for good: cancels all requests, also those issued later, and calls `letGo`
  /// once none is left.
  void endRequests();
  virtual void letGo() {}
  /// Whether nothing more will ever be heard of any request.
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
