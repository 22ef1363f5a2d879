#ifndef QUILLMERE_CALENDARS_KBTURLCALENDAR_H
#define QUILLMERE_CALENDARS_KBTURLCALENDAR_H

#include <quillmere/calendars/KBTDataCalendar.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/net/NSURL.h>
#include <quillmere/platform/net/NSURLSession.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace quillmere {

/// Domain of the errors of subscriptions. The code is the HTTP status.
inline constexpr const char* KBTURLCalendarErrorDomain = "URLCalendar";

/// A calendar whose document lies at an http or https address: a subscription, or, where the server
/// takes PUT, a shared file. The caching string is the document's entity tag (RFC 9110 section
/// 8.8.3), without the "W/" of a weak one. Redirects are followed.
///
/// Every operation returns at once; its result comes on the loop on which the calendar was made.
/// One operation is in flight at a time. A further one takes its place without cancelling it, and
/// the result of the first is then taken for that of the second: so wait, or cancel and wait.
///
/// Intended: every request, but for the GET after a 303, says that its content is "text/xml"; a
/// save never forgets the pending changes; the entity tag is that of the last answer to a fetch or
/// a save, whatever its status. docs/behaviours.md lists all that may surprise you,
/// docs/subscriptions.md what each operation comes to.
class QUILLMERE_EXPORT KBTURLCalendar : public KBTDataCalendar, public NSURLSessionDelegate {
 public:
  static std::shared_ptr<KBTURLCalendar> initWithURL(NSURL url);
  /// There is no calendar without an address.
  static std::shared_ptr<KBTDataCalendar> init() = delete;

  const NSURL& url() const { return url_; }

  const std::shared_ptr<NSURLSession>& urlSession() const { return _urlSession; }
  /// Sets the session of all further operations. Its delegate must be this calendar.
  void setUrlSession(std::shared_ptr<NSURLSession> session) { _urlSession = std::move(session); }
  /// The task in flight. Null when there is none.
  const std::shared_ptr<NSURLSessionDataTask>& dataTask() const { return _dataTask; }
  void setDataTask(std::shared_ptr<NSURLSessionDataTask> task) { _dataTask = std::move(task); }

  /// The entity tag. Null before the first answer, and after an answer that had none.
  std::optional<std::string> cachingString() const override { return eTag_; }
  void setCachingString(const std::optional<std::string>& cachingString) override {
    eTag_ = cachingString;
  }
  void setCachingString(std::same_as<std::nullptr_t> auto) = delete;
  /// Whether the other has the same address.
  bool isEqualToCalendar(const KBTSynchingCalendar& other) const override;

  /// Asks for the document's head (HEAD) and compares the entity tag, whatever the status is. A
  /// transport error counts as no change.
  void checkForExternalChanges() override;

  /// Fetches the document unless it still has the known entity tag (If-None-Match, RFC 9110 section
  /// 13.1.2). Completes with an error of `KBTURLCalendarErrorDomain` for a status other than 304
  /// and 200 to 299, or of `NSURLErrorDomain` when no whole answer came; then nothing else is
  /// reported.
  void fetchExternalChanges() override;

  /// Cancels what is in flight. It completes later, with `NSURLErrorCancelled`.
  void cancel() override;

  // What the session tells. Not for hosts.

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
  /// Makes no session. The first operation makes one, unless `setUrlSession` has set it by then.
  explicit KBTURLCalendar(NSURL url);

  /// The downloaded document, which the calendar then lets go of.
  std::shared_ptr<KBTCalObject> _getCalendarData() override;
  /// Puts the document. When an entity tag is known, the request has the condition If-Match (RFC
  /// 9110 section 13.1.1).
  void _writeCalendarData(const NSData& document) override;

 private:
  void openSession();
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
