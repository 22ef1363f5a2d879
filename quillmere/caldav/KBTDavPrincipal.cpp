#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/caldav/KBTDavPrincipal.h>
#include <quillmere/platform/base/makeObject.h>

#include <utility>

namespace quillmere {

std::shared_ptr<KBTDavPrincipal>
KBTDavPrincipal::initWithDelegate_username_andPassword_forServer_isCurrent(
    std::shared_ptr<KBTDavPrincipalDelegate> delegate, std::optional<std::string> username,
    std::optional<std::string> password, const NSURL& server, bool isCurrent) {
  auto principal = makeObject<KBTDavPrincipal>(std::move(delegate), std::move(username),
                                               std::move(password), server, isCurrent);
  principal->openSession();
  return principal;
}

std::shared_ptr<KBTDavPrincipal> KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
    std::shared_ptr<KBTDavPrincipalDelegate> delegate, std::optional<std::string> username,
    std::optional<std::string> password, const NSURL& server) {
  return initWithDelegate_username_andPassword_forServer_isCurrent(
      std::move(delegate), std::move(username), std::move(password), server, true);
}

KBTDavPrincipal::KBTDavPrincipal(std::shared_ptr<KBTDavPrincipalDelegate> delegate,
                                 std::optional<std::string> username,
                                 std::optional<std::string> password, const NSURL& server,
                                 bool isCurrent)
    : delegate_(std::move(delegate)),
      user_(std::move(username)),
      password_(std::move(password)),
      principalCollectionURL_(server),
      principalURL_(server),
      isCurrentPrincipal_(isCurrent) {}

std::optional<std::string> KBTDavPrincipal::authorization() const {
  const auto value = _authorization.load();
  if (!value) return std::nullopt;
  return *value;
}

void KBTDavPrincipal::setAuthorization(std::optional<std::string> authorization) {
  _authorization.store(
      authorization ? std::make_shared<const std::string>(std::move(*authorization)) : nullptr);
}

NSMutableURLRequest KBTDavPrincipal::newRequest() const {
  NSMutableURLRequest request;
  if (auto value = authorization()) {
    request.setValue_forHTTPHeaderField(std::move(value), "Authorization");
  }
  return request;
}

void KBTDavPrincipal::addConnection(const std::shared_ptr<KBTDavConnection>& connection) {
  std::erase_if(collections_, [](const auto& known) { return known.keptDelegates.expired(); });
  collections_.push_back({connection, connection->keptDelegates_});
  if (isInvalid_) connection->invalidate();
}

void KBTDavPrincipal::invalidate() {
  const auto kept = shared_from_this();
  isInvalid_ = true;
  const auto collections = collections_;
  for (const Collection& known : collections) {
    if (const auto connection = known.connection.lock()) {
      connection->invalidate();
    } else {
      KBTDavConnection::letGoOf(known.keptDelegates.lock());
    }
  }
  endRequests();
}

void KBTDavPrincipal::letGo() { const auto gone = std::exchange(delegate_, nullptr); }

}  // namespace quillmere
