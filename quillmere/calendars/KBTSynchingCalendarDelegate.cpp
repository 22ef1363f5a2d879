#include <quillmere/calendars/KBTSynchingCalendarDelegate.h>

namespace quillmere {

void KBTSynchingCalendarDelegate::synchingCalendar_didReceiveChallenge_completionHandler(
    KBTSynchingCalendar&, const std::shared_ptr<NSURLAuthenticationChallenge>&,
    const NSURLSessionChallengeCompletionHandler& completionHandler) {
  completionHandler(NSURLSessionAuthChallengeDisposition::useCredential, nullptr);
}

}  // namespace quillmere
