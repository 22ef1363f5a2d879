#ifndef QUILLMERE_CALDAV_KBTDAVPRINCIPALDELEGATE_H
#define QUILLMERE_CALDAV_KBTDAVPRINCIPALDELEGATE_H

#include <quillmere/caldav/KBTPrincipalInfo.h>
#include <quillmere/ical/KBTFreeBusy.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSError.h>

#include <any>
#include <memory>
#include <vector>

namespace quillmere {

class KBTDavConnection;
class KBTDavPrincipal;

/// Hears what an account finds out, on the loop on which the principal was made. `context` is what
/// the operation was given. A delegate may call any operation of the principal in any call.
/// Deriving from `KBTDavPrincipalDelegateBase` leaves it only logins and failures to implement.
class QUILLMERE_EXPORT KBTDavPrincipalDelegate {
 public:
  virtual ~KBTDavPrincipalDelegate() = default;

  /// A login is over. Null means success, and `calendars` is filled. An error is of
  /// `NSURLErrorDomain`, or of `KBTDavConnectionErrorDomain`: its code is the HTTP status, 1 (the
  /// server names no calendar home or no scheduling outbox) or 3 (it names no principal).
  ///
  /// Intended: failed searches, failed creations of a calendar and failed free/busy requests are
  /// told here, too, with the request's error or with code 3, and without their context.
  virtual void calDavPrincipal_loggedInWithError(KBTDavPrincipal& principal,
                                                 const NSErrorPtr& error) = 0;

  /// `requestFreebusyForPrincipalURN_fromDate_toDate_context` has succeeded. `periods` may be
  /// empty.
  virtual void calDavPrincipal_didReceiveFreebusy_withContext(
      KBTDavPrincipal& principal, const std::vector<std::shared_ptr<KBTFreeBusy>>& periods,
      const std::any& context) = 0;

  /// `reportPrincipalInfoForUserAddress_context` has succeeded. `found` may be empty.
  virtual void calDavPrincipal_foundPrincipalInfo_withContext(
      KBTDavPrincipal& principal, const std::vector<std::shared_ptr<KBTPrincipalInfo>>& found,
      const std::any& context) = 0;

  /// `createCalendarAtPath_withName_andDescription` has succeeded; `calendars` has it now.
  virtual void calDavPrincipal_createdCalendar(
      KBTDavPrincipal& principal, const std::shared_ptr<KBTDavConnection>& calendar) = 0;
};

/// A delegate that hears logins and failures, and of the other services only what it overrides.
class QUILLMERE_EXPORT KBTDavPrincipalDelegateBase : public KBTDavPrincipalDelegate {
 public:
  void calDavPrincipal_didReceiveFreebusy_withContext(
      KBTDavPrincipal&, const std::vector<std::shared_ptr<KBTFreeBusy>>&,
      const std::any&) override {}
  void calDavPrincipal_foundPrincipalInfo_withContext(
      KBTDavPrincipal&, const std::vector<std::shared_ptr<KBTPrincipalInfo>>&,
      const std::any&) override {}
  void calDavPrincipal_createdCalendar(KBTDavPrincipal&,
                                       const std::shared_ptr<KBTDavConnection>&) override {}
};

}  // namespace quillmere

#endif
