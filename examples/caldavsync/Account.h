#ifndef CALDAVSYNC_ACCOUNT_H
#define CALDAVSYNC_ACCOUNT_H

#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/caldav/KBTDavPrincipal.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace caldavsync {

using ConnectionPtr = std::shared_ptr<quillmere::KBTDavConnection>;

/// A user's account at a server. Operations wait for their end; what fails throws
/// examples::Failure.
class Account {
 public:
  /// Null user and password for a server that asks for none.
  Account(const quillmere::NSURL& server, std::optional<std::string> user,
          std::optional<std::string> password);
  Account(const Account&) = delete;
  Account& operator=(const Account&) = delete;
  ~Account() { principal_->invalidate(); }

  void login();
  /// After a login, unless there is a calendar of that name.
  void createCalendar(const std::string& name);
  /// What the login has found.
  const std::vector<ConnectionPtr>& calendars() const { return principal_->calendars(); }
  /// Another connection to the same collection, since one serves one kind of objects.
  ConnectionPtr secondConnection(const quillmere::KBTDavConnection& first) const;

 private:
  class Outcome;

  void waitForEnd();

  std::shared_ptr<Outcome> outcome_;
  std::shared_ptr<quillmere::KBTDavPrincipal> principal_;
};

}  // namespace caldavsync

#endif
