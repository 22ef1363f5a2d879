#ifndef QUILLMERE_CALDAV_KBTDAVPRINCIPAL_H
#define QUILLMERE_CALDAV_KBTDAVPRINCIPAL_H

#include <quillmere/caldav/KBTDavPrincipalDelegate.h>
#include <quillmere/caldav/KBTDavRequestor.h>
#include <quillmere/caldav/KBTPrincipalInfo.h>
#include <quillmere/platform/base/AtomicOptional.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/base/NSKeyValueObserving.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/net/NSURL.h>
#include <quillmere/platform/net/NSURLRequest.h>

#include <any>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillmere {

class HWXMLElement;
class KBTDavConnection;

/// A user's account on a CalDAV server (a principal, RFC 3744 section 2). It finds out what the
/// server knows of the user, lists the calendars (`login`), and offers the server's other services.
/// It sends nothing until it is asked to, and runs one request at a time.
///
/// By contract it keeps its delegate alive, and its collections keep it and their delegates alive.
/// A host that comes and goes with accounts calls `invalidate` for each that it is done with.
///
/// Changes of "calendars" and "principalLookupFailure" are announced to observers
/// (`observeKey_changeHandler`).
class QUILLMERE_EXPORT KBTDavPrincipal : public KBTDavRequestor, public NSKeyValueObserving {
 public:
  /// An account of `username` at `server`, an http or https URL. `delegate` may be null. Challenges
  /// are answered with the user and the password; null counts as empty. `isCurrent` is stored for
  /// the host.
  static std::shared_ptr<KBTDavPrincipal> initWithDelegate_username_andPassword_forServer_isCurrent(
      std::shared_ptr<KBTDavPrincipalDelegate> delegate, std::optional<std::string> username,
      std::optional<std::string> password, const NSURL& server, bool isCurrent);
  /// The same with true for `isCurrent`.
  static std::shared_ptr<KBTDavPrincipal> initWithDelegate_username_andPassword_forServer(
      std::shared_ptr<KBTDavPrincipalDelegate> delegate, std::optional<std::string> username,
      std::optional<std::string> password, const NSURL& server);
  /// There is no principal without a server.
  static std::shared_ptr<KBTDavRequestor> init() = delete;

  /// A principal for what a search has found, with the class, delegate, user and password of this
  /// one. It has not logged in. Null when `info` has no URL.
  std::shared_ptr<KBTDavPrincipal> principalFromInfo(const KBTPrincipalInfo& info) const;

  /// Finds the user's own principal from the server's URL (RFC 5397), reads it (RFC 4791 section
  /// 6.2.1, RFC 6638 section 2.1.1), and lists the calendars of its home:
  /// `calDavPrincipal_loggedInWithError`.
  ///
  /// If the server's URL fails with a status from 400 to 499 other than 401, "principals/",
  /// "calendars/" and "/" are tried, relative to it. A server without a scheduling outbox cannot be
  /// logged into. Only the first propstat of an answer is read. A calendar is listed when it has a
  /// name and was found with the status "HTTP/1.1 200 OK"; it is writable when "write-content" is
  /// granted by itself, not by a privilege that contains it.
  ///
  /// A login may be repeated. It starts from `principalURL` as it is then, replaces `calendars` and
  /// `readWriteProxies`, and appends the email addresses once more.
  void login();
  /// The same. Nobody sees the context.
  void findPrincipalURLForCurrentUserWithContext(std::any context);

  // What a login finds out. When a step fails, what the steps before it have found stays: first
  // `principalURL`, then the user's properties. The last step lists `calendars`; a login to a
  // server without an outbox does not come so far.

  /// The user's name for people. Null until it is found, and when the server has none.
  const std::optional<std::string>& displayName() const { return displayName_; }
  /// The address from which the user asks for free/busy time: the last one that begins with "urn:",
  /// or else the first one with "mailto:". Null when there is none.
  std::optional<std::string> originator() const;
  /// The principals of other users for whom this user may act ("calendar-proxy-write").
  const std::vector<NSURL>& readWriteProxies() const { return readWriteProxies_; }
  /// The error, code 1, of the last login that failed because the server lacks a calendar home or
  /// an outbox. Null when none has.
  const NSErrorPtr& principalLookupFailure() const { return principalLookupFailure_; }

  /// The collections of the calendar home, and those created since the login.
  const std::vector<std::shared_ptr<KBTDavConnection>>& calendars() const { return calendars_; }
  /// The first calendar of exactly that name. Null when there is none.
  std::shared_ptr<KBTDavConnection> calendarNamed(std::string_view name) const;
  /// The same, ignoring case (Unicode case folding).
  std::shared_ptr<KBTDavConnection> caseInsensitiveCalendarNamed(std::string_view name) const;

  // Services, for after a login. Each returns at once. A failure is told to
  // `calDavPrincipal_loggedInWithError`.

  /// Asks the scheduling outbox when somebody is busy (RFC 6638 section 5): `didReceiveFreebusy`.
  /// `urn` is a calendar user address such as "mailto:bob@example.com". Nothing in it is escaped,
  /// so a text with line breaks fails.
  void requestFreebusyForPrincipalURN_fromDate_toDate_context(const std::string& urn, NSDate from,
                                                              NSDate to, std::any context);

  /// Searches for principals that have a calendar user address with `address` in it, in the same
  /// case (RFC 3744 section 9.4): `foundPrincipalInfo`. It is sent before this returns when
  /// `address` is one of the user's own email addresses, with "mailto:". Search for one at a time:
  /// another search changes what the answer to the first is compared with.
  void reportPrincipalInfoForUserAddress_context(const std::string& address, std::any context);

  /// Makes a calendar (RFC 4791 section 5.3.1) at a path relative to the calendar home:
  /// `createdCalendar`. The result is the calendar to be; use it once it is created. Null for a
  /// path that makes no URL; that fails, too.
  std::shared_ptr<KBTDavConnection> createCalendarAtPath_withName_andDescription(
      const std::string& path, const std::string& name, const std::string& description);

  /// The principal's URL. Until a login finds it, the server's.
  const NSURL& principalURL() const { return principalURL_; }
  /// Where principals are searched for. Until a login finds it, the server's URL.
  const NSURL& principalCollectionURL() const { return principalCollectionURL_; }
  const std::optional<std::string>& user() const { return user_; }
  const std::optional<std::string>& password() const { return password_; }
  bool isCurrentPrincipal() const { return isCurrentPrincipal_; }

  /// The value of the field Authorization (RFC 9110 section 11.6.2) of every request made from now
  /// on. Null, as at first, for none. With one, no challenge is answered. Any thread may set it.
  std::optional<std::string> authorization() const { return _authorization.get(); }
  void setAuthorization(std::optional<std::string> authorization) {
    _authorization.set(std::move(authorization));
  }
  /// A null pointer is no text: null is `std::nullopt`.
  void setAuthorization(std::same_as<std::nullptr_t> auto) = delete;

  /// A request with nothing but the field Authorization, if `authorization` is set.
  NSMutableURLRequest newRequest() const;

  /// Ends the account for good. Cancels every request of it and of its collections, also those
  /// issued from now on, and once they have ended lets go of `calendars` and of all delegates.
  /// Until then the delegates hear of each request as of any that fails. So do not call it during a
  /// calendar's check, whose failure stops the process.
  void invalidate();

 protected:
  KBTDavPrincipal(std::shared_ptr<KBTDavPrincipalDelegate> delegate,
                  std::optional<std::string> username, std::optional<std::string> password,
                  const NSURL& server, bool isCurrent);

  std::optional<std::string> _getUsername() const override { return user_; }
  std::optional<std::string> _getPassword() const override { return password_; }
  const std::shared_ptr<KBTDavPrincipalDelegate>& delegate() const { return delegate_; }
  /// For `principalFromInfo`: a current principal for `server` with the delegate, user and password
  /// of this one. A derived class makes one of its own kind.
  virtual std::shared_ptr<KBTDavPrincipal> newPrincipalForServer(const NSURL& server) const;
  void letGo() override;

  static std::string _randomUID();
  NSMutableURLRequest _principalInfoRequest(const std::string& address) const;

 private:
  friend class KBTDavConnection;
  using Completion = void (KBTDavPrincipal::*)(const std::shared_ptr<KBTDavRequest>&);

  NSMutableURLRequest propertyRequest(const NSURL& url, const char* depth, NSData body) const;
  void issue(NSMutableURLRequest request, Completion completion, std::any context = {});
  void tellLoggedInWithError(const NSErrorPtr& error);
  static NSErrorPtr errorOfCode(std::int64_t code, std::string description);

  void _findCurrentPrincipalAtURL_withContext(const NSURL& url, std::any context);
  void _didGetPrincipalInfoForCurrentUser(const std::shared_ptr<KBTDavRequest>& request);
  void _beginLogin();
  void _didLogin(const std::shared_ptr<KBTDavRequest>& request);
  void _findCalendars();
  void _foundCalendars(const std::shared_ptr<KBTDavRequest>& request);
  void _error(NSErrorPtr error);

  std::optional<NSURL> nextCandidate(const NSURL& failed) const;
  std::optional<NSURL> folderFromHref(std::optional<std::string_view> href) const;
  void readAddresses(const HWXMLElement& addressSet);
  void readMemberships(const HWXMLElement& membership);
  void readProperty(const HWXMLElement& property);
  std::shared_ptr<KBTDavConnection> calendarFromResponse(const HWXMLElement& response);

  std::shared_ptr<KBTPrincipalInfo> infoFromResponse(const HWXMLElement& response) const;
  void _didGetFreebusyForUser(const std::shared_ptr<KBTDavRequest>& request);
  void _didGetPrincipalInfoForUserAddress(const std::shared_ptr<KBTDavRequest>& request);
  void _didCreateCalendar(const std::shared_ptr<KBTDavRequest>& request);

  void addConnection(const std::shared_ptr<KBTDavConnection>& connection);

  // A collection of the principal, for `invalidate` alone: its delegates may outlive it.
  struct Collection {
    std::weak_ptr<KBTDavConnection> connection;
    std::weak_ptr<void> keptDelegates;
  };

  std::shared_ptr<KBTDavPrincipalDelegate> delegate_;
  std::optional<std::string> user_;
  std::optional<std::string> password_;
  NSURL principalCollectionURL_;
  NSURL principalURL_;
  bool isCurrentPrincipal_;
  AtomicOptional<std::string> _authorization;

  std::optional<std::string> desiredUserAddress_;
  std::optional<std::string> displayName_;
  std::optional<NSURL> originator_;
  std::optional<NSURL> outboxURL_;
  std::optional<NSURL> calendarHomeURL_;
  std::vector<std::string> emailAddresses_;
  std::vector<NSURL> readWriteProxies_;
  NSErrorPtr principalLookupFailure_;
  std::vector<std::shared_ptr<KBTDavConnection>> calendars_;

  std::vector<Collection> collections_;
  bool isInvalid_ = false;
};

}  // namespace quillmere

#endif
