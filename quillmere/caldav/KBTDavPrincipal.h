#ifndef QUILLMERE_CALDAV_KBTDAVPRINCIPAL_H
#define QUILLMERE_CALDAV_KBTDAVPRINCIPAL_H

#include <quillmere/caldav/KBTDavPrincipalDelegate.h>
#include <quillmere/caldav/KBTDavRequestor.h>
#include <quillmere/platform/net/NSURL.h>
#include <quillmere/platform/net/NSURLRequest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmere {

class KBTDavConnection;

/// A user's account on a CalDAV server (a principal, RFC 3744 section 2). It makes every request of
/// itself and of its calendar collections, and has the user name and password with which their
/// challenges are answered. It sends nothing until it is asked to.
///
/// It keeps its delegate alive, and its collections keep it and their delegates alive, by contract.
/// A host that comes and goes with accounts calls `invalidate` for each that it is done with.
class KBTDavPrincipal : public KBTDavRequestor {
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

  /// The server's URL, until the principal's own is found.
  const NSURL& principalURL() const { return principalURL_; }
  /// Where principals are searched for: the server's URL.
  const NSURL& principalCollectionURL() const { return principalCollectionURL_; }
  const std::optional<std::string>& user() const { return user_; }
  const std::optional<std::string>& password() const { return password_; }
  bool isCurrentPrincipal() const { return isCurrentPrincipal_; }

  /// A value for the field Authorization of every request made from now on; null for none, which it
  /// is at first. With one no challenge is answered. Any thread may set it.
  std::optional<std::string> authorization() const;
  void setAuthorization(std::optional<std::string> authorization);

  /// A request without anything but the field Authorization, where `authorization` is set.
  NSMutableURLRequest newRequest() const;

  /// Ends the principal for good: cancels every request of it and of its collections, as well as
  /// those issued from now on, and once they have ended lets go of the delegates of all of them.
  /// Until then they hear of each as of any failed request.
  void invalidate();

 protected:
  KBTDavPrincipal(std::shared_ptr<KBTDavPrincipalDelegate> delegate,
                  std::optional<std::string> username, std::optional<std::string> password,
                  const NSURL& server, bool isCurrent);

  std::optional<std::string> _getUsername() const override { return user_; }
  std::optional<std::string> _getPassword() const override { return password_; }
  const std::shared_ptr<KBTDavPrincipalDelegate>& delegate() const { return delegate_; }
  void letGo() override;

 private:
  friend class KBTDavConnection;
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
  std::atomic<std::shared_ptr<const std::string>> _authorization;

  std::vector<Collection> collections_;
  bool isInvalid_ = false;
};

}  // namespace quillmere

#endif
