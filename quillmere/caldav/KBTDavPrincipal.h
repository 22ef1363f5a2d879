#ifndef QUILLMERE_CALDAV_KBTDAVPRINCIPAL_H
#define QUILLMERE_CALDAV_KBTDAVPRINCIPAL_H

#include <quillmere/caldav/KBTDavPrincipalDelegate.h>
#include <quillmere/caldav/KBTDavRequestor.h>
#include <quillmere/caldav/KBTPrincipalInfo.h>
#include <quillmere/platform/base/AtomicOptional.h>
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
/// server knows of the user and lists the calendars (`login`), and offers what a server does for a
/// user beyond those. It sends nothing until it is asked to, and runs one request at a time.
///
/// It keeps its delegate alive, and its collections keep it and their delegates alive, by contract.
/// A host that comes and goes with accounts calls `invalidate` for each that it is done with.
///
/// Changes of "calendars" and "principalLookupFailure" are announced to observers.
class KBTDavPrincipal : public KBTDavRequestor, public NSKeyValueObserving {
 public:
  /// `delegate` may be null. Null user and password: challenges are answered with empty texts.
  /// `isCurrent` is stored for the host.
  static std::shared_ptr<KBTDavPrincipal> initWithDelegate_username_andPassword_forServer_isCurrent(
      std::shared_ptr<KBTDavPrincipalDelegate> delegate, std::optional<std::string> username,
      std::optional<std::string> password, const NSURL& server, bool isCurrent);
  /// The same for the current principal.
  static std::shared_ptr<KBTDavPrincipal> initWithDelegate_username_andPassword_forServer(
      std::shared_ptr<KBTDavPrincipalDelegate> delegate, std::optional<std::string> username,
      std::optional<std::string> password, const NSURL& server);
  /// Without a server there is no principal.
  static std::shared_ptr<KBTDavRequestor> init() = delete;

  /// A new principal of this one's class with its delegate, user and password, for what a search
  /// has found; it has not logged in. Null when `info` has no URL.
  std::shared_ptr<KBTDavPrincipal> principalFromInfo(const KBTPrincipalInfo& info) const;

  /// Finds the user's own principal from the server's URL (RFC 5397), reads it (RFC 4791 section
  /// 6.2.1, RFC 6638 section 2.1.1), and lists the calendars of its home:
  /// `calDavPrincipal_loggedInWithError`.
  ///
  /// Where the server's URL fails with a status from 400 to 499 other than 401, "principals/",
  /// "calendars/" and "/" are tried, relative to it. A server without scheduling outbox cannot be
  /// logged into. Only the first propstat of an answer is read. A calendar is listed when it has a
  /// name and was found with the status "HTTP/1.1 200 OK", and is writable when "write-content" is
  /// granted by itself, not by a privilege that contains it.
  ///
  /// A login may be repeated. It starts from `principalURL` as it is then, replaces `calendars` and
  /// `readWriteProxies`, and appends the email addresses once more.
  void login();
  /// The same; the context is the search's own, which nobody sees.
  void findPrincipalURLForCurrentUserWithContext(std::any context);

  // What a login finds out; what has been found stays when a later step fails.

  /// Null until found, and when the server has none.
  const std::optional<std::string>& displayName() const { return displayName_; }
  /// The address by which the user asks others for free/busy time: the last that begins with
  /// "urn:", or else the first with "mailto:".
  std::optional<std::string> originator() const;
  /// The users' principals as whom this user may act with "calendar-proxy-write".
  const std::vector<NSURL>& readWriteProxies() const { return readWriteProxies_; }
  /// What the server lacks for a login, if it was that which failed: code 1.
  const NSErrorPtr& principalLookupFailure() const { return principalLookupFailure_; }

  /// The collections of the calendar home, and those created since.
  const std::vector<std::shared_ptr<KBTDavConnection>>& calendars() const { return calendars_; }
  /// The first calendar of exactly that name; null when there is none.
  std::shared_ptr<KBTDavConnection> calendarNamed(std::string_view name) const;
  /// The same, ignoring case (Unicode case folding).
  std::shared_ptr<KBTDavConnection> caseInsensitiveCalendarNamed(std::string_view name) const;

  // Services, to be asked for after a login. Each returns at once.

  /// Asks the scheduling outbox when somebody is busy (RFC 6638 section 5); `urn` is a calendar user
  /// address such as "mailto:bob@example.com": `didReceiveFreebusy`. Nothing in it is escaped, so a
  /// text with line breaks fails.
  void requestFreebusyForPrincipalURN_fromDate_toDate_context(const std::string& urn, NSDate from,
                                                              NSDate to, std::any context);

  /// Searches the principals one of whose calendar user addresses contains `address`, in the same
  /// case (RFC 3744 section 9.4): `foundPrincipalInfo`, before this returns when it is one of the
  /// user's own email addresses ("mailto:" included). One search at a time: another one changes
  /// what the answer to the first is compared with.
  void reportPrincipalInfoForUserAddress_context(const std::string& address, std::any context);

  /// Makes a calendar (RFC 4791 section 5.3.1) at a path relative to the calendar home:
  /// `createdCalendar`. The result is the calendar to be, good to use once it is created; null for
  /// a path that makes no URL, which fails.
  std::shared_ptr<KBTDavConnection> createCalendarAtPath_withName_andDescription(
      const std::string& path, const std::string& name, const std::string& description);

  /// The server's URL, until the principal's own is found.
  const NSURL& principalURL() const { return principalURL_; }
  /// Where principals are searched for: the server's URL until a login finds it.
  const NSURL& principalCollectionURL() const { return principalCollectionURL_; }
  const std::optional<std::string>& user() const { return user_; }
  const std::optional<std::string>& password() const { return password_; }
  bool isCurrentPrincipal() const { return isCurrentPrincipal_; }

  /// A value for the field Authorization of every request made from now on; null for none, which it
  /// is at first. With one no challenge is answered. Any thread may set it.
  std::optional<std::string> authorization() const { return _authorization.get(); }
  void setAuthorization(std::optional<std::string> authorization) {
    _authorization.set(std::move(authorization));
  }

  /// A request without anything but the field Authorization, where `authorization` is set.
  NSMutableURLRequest newRequest() const;

  /// Ends the principal for good: cancels every request of it and of its collections, as well as
  /// those issued from now on, and once they have ended lets go of `calendars` and of the delegates
  /// of all of them.
  /// Until then they hear of each as of any failed request; so not during a calendar's check, of
  /// which a failure stops the process.
  void invalidate();

 protected:
  KBTDavPrincipal(std::shared_ptr<KBTDavPrincipalDelegate> delegate,
                  std::optional<std::string> username, std::optional<std::string> password,
                  const NSURL& server, bool isCurrent);

  std::optional<std::string> _getUsername() const override { return user_; }
  std::optional<std::string> _getPassword() const override { return password_; }
  const std::shared_ptr<KBTDavPrincipalDelegate>& delegate() const { return delegate_; }
  /// For `principalFromInfo`: a current principal for `server` with this one's delegate, user and
  /// password. A derived class makes one of its own.
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
