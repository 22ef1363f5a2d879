#ifndef QUILLMERE_CALDAV_KBTDAVPRINCIPALDELEGATE_H
#define QUILLMERE_CALDAV_KBTDAVPRINCIPALDELEGATE_H

#include <quillmere/caldav/KBTPrincipalInfo.h>
#include <quillmere/ical/KBTFreeBusy.h>
#include <quillmere/platform/base/NSError.h>

#include <any>
#include <memory>
#include <vector>

namespace quillmere {

class KBTDavConnection;
class KBTDavPrincipal;

/// Receives what a principal finds out, on the loop on which the principal was made. `context` is
/// what the operation was given. A delegate may call any operation of the principal from any call.
class KBTDavPrincipalDelegate {
 public:
  virtual ~KBTDavPrincipalDelegate() = default;

  /// A login is over: with null once `calendars` is filled, else with what ended it, an error of
  /// `KBTDavConnectionErrorDomain`, whose code is the HTTP status, 1 (the server names no calendar
  /// home or no scheduling outbox) or 3 (it names no principal), or of `NSURLErrorDomain`.
  ///
  /// Intended: failed searches, creations of a calendar and free/busy questions are reported here
  /// too, with the request's error or with code 3; these come without their context.
  virtual void calDavPrincipal_loggedInWithError(KBTDavPrincipal& principal,
                                                 const NSErrorPtr& error) = 0;

  /// `requestFreebusyForPrincipalURN_fromDate_toDate_context` has succeeded.
  virtual void calDavPrincipal_didReceiveFreebusy_withContext(
      KBTDavPrincipal& principal, const std::vector<std::shared_ptr<KBTFreeBusy>>& periods,
      const std::any& context) = 0;

  /// `reportPrincipalInfoForUserAddress_context` has succeeded, perhaps without finding anybody.
  virtual void calDavPrincipal_foundPrincipalInfo_withContext(
      KBTDavPrincipal& principal, const std::vector<std::shared_ptr<KBTPrincipalInfo>>& found,
      const std::any& context) = 0;

  /// `createCalendarAtPath_withName_andDescription` has succeeded; `calendars` has it now.
  virtual void calDavPrincipal_createdCalendar(
      KBTDavPrincipal& principal, const std::shared_ptr<KBTDavConnection>& calendar) = 0;
};

}  // namespace quillmere

#endif
