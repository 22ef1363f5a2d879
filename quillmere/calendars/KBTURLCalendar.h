#ifndef QUILLMERE_CALENDARS_KBTURLCALENDAR_H
#define QUILLMERE_CALENDARS_KBTURLCALENDAR_H

#include <quillmere/calendars/KBTDataCalendar.h>
#include <quillmere/platform/net/NSURL.h>
#include <quillmere/platform/net/NSURLSession.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace quillmere {

/// User-facing domain of the errors of subscriptions; the code is the HTTP status.
inline constexpr const char* KBTURLCalendarErrorDomain = "URLCalendar";

/// A calendar whose document lies at an HTTP address: a subscription, or, where the server takes
/// PUT, a shared file. The caching string is the document's entity tag (RFC 9110 section 8.8.3),
/// without the "W/" of a weak one. Redirects are followed.
///
/// Every operation returns at once; its outcome comes on the loop on which the calendar was made.
/// One is in flight at a time: a further one takes its place without cancelling it, and then what
/// the first comes to is taken for an outcome of the second. So a host waits, or cancels and waits.
///
/// What a host should know (all intended):
///
/// - Every request says that its content is "text/xml".
/// - A document that is none, such as a page with status 200, is one without objects: all known
///   ones are reported as deleted.
/// - A save never forgets the pending changes, whatever became of it; `resetChanges` does.
/// - A save that fails is reported as failed and then as completed as well. One whose answer has no
///   entity tag is never reported as completed.
/// - The entity tag is the last answer's, also of one that failed or told none.
class KBTURLCalendar : public KBTDataCalendar, public NSURLSessionDelegate {
 public:
  static std::shared_ptr<KBTURLCalendar> initWithURL(NSURL url);
  /// Without an address there is no calendar.
  static std::shared_ptr<KBTDataCalendar> init() = delete;

  const NSURL& url() const { return url_; }

  const std::shared_ptr<NSURLSession>& urlSession() const { return _urlSession; }
  void setUrlSession(std::shared_ptr<NSURLSession> session) { _urlSession = std::move(session); }
  /// What is in flight; null when nothing is.
  const std::shared_ptr<NSURLSessionDataTask>& dataTask() const { return _dataTask; }
  void setDataTask(std::shared_ptr<NSURLSessionDataTask> task) { _dataTask = std::move(task); }

  /// The entity tag.
  std::optional<std::string> cachingString() const override { return eTag_; }
  void setCachingString(const std::optional<std::string>& cachingString) override {
    eTag_ = cachingString;
  }
  /// Whether the other has the same address.
  bool isEqualToCalendar(const KBTSynchingCalendar& other) const override;

  /// Asks for the document's head and compares the entity tag, whatever the status. A transport
  /// error counts as no change.
  void checkForExternalChanges() override;

  /// Fetches the document unless it has the known entity tag (RFC 9110 section 13.1.2). A status
  /// other than 304 and 200 to 299 is an error of `KBTURLCalendarErrorDomain`; then nothing is
  /// reported but that.
  void fetchExternalChanges() override;

  /// Cancels what is in flight, which completes, later, with `NSURLErrorCancelled`.
  void cancel() override;

  // What the session tells.

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
  explicit KBTURLCalendar(NSURL url);

  /// The downloaded document, which is then let go of.
  std::shared_ptr<KBTCalObject> _getCalendarData() override;
  /// Puts the document, where the entity tag is known on the condition that it is still that.
  void _writeCalendarData(const NSData& document) override;

 private:
  NSMutableURLRequest requestWithMethod(const char* method) const;
  std::shared_ptr<NSURLSessionDataTask> makeTask(const NSURLRequest& request);
  NSErrorPtr errorOfStatus() const;
  void completeCheck(const NSErrorPtr& error);
  void completeFetch(const NSErrorPtr& error);
  void completeSave(const NSErrorPtr& error);

  NSURL url_;
  std::optional<std::string> eTag_;
  std::optional<std::string> downloadData_;  // while a fetch is in flight
  std::int64_t statusCode_ = 0;
  bool justChecking_ = false;
  bool checkFoundChanges_ = false;
  std::shared_ptr<NSURLSession> _urlSession;
  std::shared_ptr<NSURLSessionDataTask> _dataTask;
};

}  // namespace quillmere

#endif
