#ifndef QUILLMERE_PLATFORM_NET_NSURLSESSION_H
#define QUILLMERE_PLATFORM_NET_NSURLSESSION_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/loop/NSOperationQueue.h>
#include <quillmere/platform/net/NSURLAuthenticationChallenge.h>
#include <quillmere/platform/net/NSURLRequest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace quillmere {

class CurlLoop;
class CookieJar;
class DataTaskRun;
class NSHTTPURLResponse;
class NSURLSessionDataTask;
class NSURLSessionDelegate;

/// Domain of transport errors; the codes are the published ones.
inline constexpr const char* NSURLErrorDomain = "NSURLErrorDomain";

enum NSURLErrorCode : std::int64_t {
  NSURLErrorUnknown = -1,
  NSURLErrorCancelled = -999,
  NSURLErrorBadURL = -1000,    ///< longer than 64 KiB; also a header field that may not travel
  NSURLErrorTimedOut = -1001,  ///< no byte for the request's time-out interval
  NSURLErrorUnsupportedURL = -1002,  ///< neither http nor https, or a malformed authority
  NSURLErrorCannotFindHost = -1003,
  NSURLErrorCannotConnectToHost = -1004,
  NSURLErrorNetworkConnectionLost = -1005,
  NSURLErrorHTTPTooManyRedirects = -1007,
  NSURLErrorBadServerResponse = -1011,    ///< not HTTP, or a head beyond the configuration's limit
  NSURLErrorCannotDecodeRawData = -1015,  ///< a compressed body is damaged or cut off
  NSURLErrorCannotDecodeContentData = -1016,   ///< a body in a content coding that is not known
  NSURLErrorDataLengthExceedsMaximum = -1103,  ///< a body beyond a limit of the configuration
  NSURLErrorSecureConnectionFailed = -1200,
  NSURLErrorServerCertificateHasBadDate = -1201,
  NSURLErrorServerCertificateUntrusted = -1202,  ///< also of another host
  NSURLErrorServerCertificateHasUnknownRoot = -1203,
  NSURLErrorServerCertificateNotYetValid = -1204,
};

/// What a session does with every request.
struct QUILLMERE_EXPORT NSURLSessionConfiguration {
  /// Cookies in memory, for the session's life; no cache, no stored credentials.
  static NSURLSessionConfiguration ephemeralSessionConfiguration() { return {}; }

  /// Limits against hostile servers, in bytes: a response's status line and fields, those after the
  /// body included, and its body after decompression. libcurl has bounds of its own for the head,
  /// 100 KiB a line and 300 KiB in all. Whatever the limit, a body may unpack to 16 MiB or a hundred
  /// times what came of it, and to no more.
  std::uint64_t maximumResponseHeadSize = std::uint64_t{256} << 10;
  std::uint64_t maximumResponseBodySize = std::uint64_t{1} << 30;
};

enum class NSURLSessionTaskState : std::uint8_t { running, suspended, canceling, completed };

enum class NSURLSessionResponseDisposition : std::uint8_t { cancel, allow };
/// The values by their published names.
inline constexpr auto NSURLSessionResponseCancel = NSURLSessionResponseDisposition::cancel;
inline constexpr auto NSURLSessionResponseAllow = NSURLSessionResponseDisposition::allow;

/// Requests over HTTP and HTTPS, which run side by side, over up to 256 connections of all sessions
/// of a loop (others wait for one; their time-outs begin when they have it); everything about them
/// is told to one delegate, on the loop of one queue.
///
/// TLS is 1.2 at least and always verified, against the system's authorities, or those of the file
/// that the environment variable SSL_CERT_FILE names. The only fields added to a request are Host,
/// Content-Length, User-Agent and the session's cookies. A body is decoded as its Content-Encoding
/// says, asked for or not (RFC 9110 section 12.5.3): gzip, x-gzip, deflate and identity, up to five
/// in a row; with any other a success fails with `NSURLErrorCannotDecodeContentData`, while any
/// other status is reported without the body.
///
/// A proxy is that of the environment variables http_proxy, https_proxy or HTTPS_PROXY, all_proxy or
/// ALL_PROXY, but for the hosts of no_proxy or NO_PROXY. It is answered with the user and password of
/// that variable's URL and with nothing else; a 407 that is left is a response like any other.
class QUILLMERE_EXPORT NSURLSession : public std::enable_shared_from_this<NSURLSession> {
 public:
  /// The session holds its delegate strongly while a task that was resumed or cancelled is not
  /// completed, weakly otherwise. Null `queue`: that of the calling thread.
  static std::shared_ptr<NSURLSession> sessionWithConfiguration_delegate_delegateQueue(
      const NSURLSessionConfiguration& configuration,
      const std::shared_ptr<NSURLSessionDelegate>& delegate,
      const std::optional<NSOperationQueue>& queue);

  const NSURLSessionConfiguration& configuration() const { return configuration_; }
  const NSOperationQueue& delegateQueue() const { return queue_; }

  /// A new task for the request as it is now, suspended.
  std::shared_ptr<NSURLSessionDataTask> dataTaskWithRequest(const NSURLRequest& request);

 protected:
  NSURLSession(const NSURLSessionConfiguration& configuration,
               const std::shared_ptr<NSURLSessionDelegate>& delegate, NSOperationQueue queue);

 private:
  friend class DataTaskRun;
  friend class NSURLSessionDataTask;

  NSURLSessionConfiguration configuration_;
  std::weak_ptr<NSURLSessionDelegate> delegate_;
  NSOperationQueue queue_;
  std::shared_ptr<CurlLoop> loop_;
  std::shared_ptr<CookieJar> cookies_;
};

/// One request, from its first sending to its completion, redirects and challenges included.
class QUILLMERE_EXPORT NSURLSessionDataTask
    : public std::enable_shared_from_this<NSURLSessionDataTask> {
 public:
  /// Starts a suspended task; nothing for any other. Nothing is sent before this returns.
  void resume();

  /// Ends a suspended or running task: it completes with `NSURLErrorCancelled`, once and later, and
  /// nothing else is told of it. Nothing for one that is completed.
  void cancel();

  NSURLSessionTaskState state() const { return state_; }
  const NSURLRequest& originalRequest() const { return originalRequest_; }
  /// The last response told to the delegate; null before.
  std::shared_ptr<const NSHTTPURLResponse> response() const { return response_; }
  /// How many bytes of that response's body have come, counted before they are decompressed.
  std::uint64_t countOfBytesReceived() const { return countOfBytesReceived_; }

  ~NSURLSessionDataTask();

 protected:
  NSURLSessionDataTask(std::shared_ptr<NSURLSession> session, NSURLRequest request);

 private:
  friend class DataTaskRun;

  void begin();

  std::shared_ptr<NSURLSession> session_;
  std::shared_ptr<NSURLSessionDelegate> delegate_;  // while it runs
  NSURLRequest originalRequest_;
  std::shared_ptr<const NSHTTPURLResponse> response_;
  std::uint64_t countOfBytesReceived_ = 0;
  NSURLSessionTaskState state_ = NSURLSessionTaskState::suspended;
  std::shared_ptr<DataTaskRun> run_;
};

/// What a session tells, and asks. Every call comes from the delegate queue's loop. A completion
/// handler may be called at once or later, once; the task waits for it. In any call the delegate
/// may make, resume and cancel tasks, and let go of the session.
class QUILLMERE_EXPORT NSURLSessionDelegate {
 public:
  virtual ~NSURLSessionDelegate() = default;

  /// A 301, 302, 303, 307 or 308 with a Location of http or https. `newRequest` is what the
  /// platform would send: the same, without Authorization, Proxy-Authorization and Cookie where
  /// host, port or scheme change; with GET and no body after a 303 (but for HEAD) and after a 301
  /// or 302 to a POST (RFC 9110 section 15.4). The handler takes what is to be sent; with null the
  /// redirect itself is the response. Default: `newRequest`.
  virtual void URLSession_task_willPerformHTTPRedirection_newRequest_completionHandler(
      NSURLSession& session, NSURLSessionDataTask& task, const NSHTTPURLResponse& response,
      const NSURLRequest& newRequest,
      std::function<void(const std::optional<NSURLRequest>&)> completionHandler);

  /// A 401 that asks for NTLM or Negotiate. Default: no credential. For the handler see the
  /// next.
  virtual void URLSession_didReceiveChallenge_completionHandler(
      NSURLSession& session, const NSURLAuthenticationChallenge& challenge,
      NSURLSessionChallengeCompletionHandler completionHandler);

  /// A 401 that asks for Digest or Basic, of a request without a field Authorization of its own. The
  /// proposed credential is the user and password of the task's URL, where it has both, the first
  /// time its server asks. The handler takes a disposition and a credential: with one to use the request is sent
  /// again with it; `cancelAuthenticationChallenge` cancels the task; in any other case the
  /// response is this one. Default: no credential.
  virtual void URLSession_task_didReceiveChallenge_completionHandler(
      NSURLSession& session, NSURLSessionDataTask& task,
      const NSURLAuthenticationChallenge& challenge,
      NSURLSessionChallengeCompletionHandler completionHandler);

  /// The head of the response that counts. Default: allows it.
  virtual void URLSession_dataTask_didReceiveResponse_completionHandler(
      NSURLSession& session, NSURLSessionDataTask& task,
      const std::shared_ptr<const NSHTTPURLResponse>& response,
      std::function<void(NSURLSessionResponseDisposition)> completionHandler);

  /// The next piece of its body. Default: drops it.
  virtual void URLSession_dataTask_didReceiveData(NSURLSession& session, NSURLSessionDataTask& task,
                                                  const NSData& data);

  /// The end of the task, told exactly once for each that was resumed or cancelled. Null when a
  /// response came whole, whatever its status.
  virtual void URLSession_task_didCompleteWithError(NSURLSession& session,
                                                    NSURLSessionDataTask& task,
                                                    const NSErrorPtr& error) = 0;
};

}  // namespace quillmere

#endif
