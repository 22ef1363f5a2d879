#include <quillmere/caldav/DavXML.h>
#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/caldav/KBTDavPrincipal.h>
#include <quillmere/platform/base/UTF8.h>
#include <quillmere/platform/base/makeObject.h>

#include <algorithm>
#include <utility>

namespace quillmere {
namespace {

template <class Condition>
std::shared_ptr<KBTDavConnection> firstOf(
    const std::vector<std::shared_ptr<KBTDavConnection>>& calendars, const Condition& isWanted) {
  const auto found = std::find_if(calendars.begin(), calendars.end(), isWanted);
  return found == calendars.end() ? nullptr : *found;
}

}  // namespace

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

NSMutableURLRequest KBTDavPrincipal::newRequest() const {
  NSMutableURLRequest request;
  if (auto value = authorization()) {
    request.setValue_forHTTPHeaderField(std::move(value), "Authorization");
  }
  return request;
}

NSMutableURLRequest KBTDavPrincipal::propertyRequest(const NSURL& url, const char* depth,
                                                     NSData body) const {
  NSMutableURLRequest request = newRequest();
  request.setURL(url);
  request.setHTTPMethod("PROPFIND");
  request.setValue_forHTTPHeaderField(xmlContentType, "Content-Type");
  request.setValue_forHTTPHeaderField("text/xml", "Accept");
  request.setValue_forHTTPHeaderField(depth, "Depth");
  request.setHTTPBody(std::move(body));
  return request;
}

void KBTDavPrincipal::issue(NSMutableURLRequest request, Completion completion, std::any context) {
  _createConnectionWithRequest_context_completionSelector_internal(
      std::move(request), std::move(context), static_cast<KBTDavCompletionSelector>(completion),
      true);
}

void KBTDavPrincipal::tellLoggedInWithError(const NSErrorPtr& error) {
  if (const auto delegate = delegate_) delegate->calDavPrincipal_loggedInWithError(*this, error);
}

NSErrorPtr KBTDavPrincipal::errorOfCode(std::int64_t code, std::string description) {
  return NSError::errorWithDomain_code_userInfo(
      KBTDavConnectionErrorDomain, code, {{NSLocalizedDescriptionKey, std::move(description)}});
}

std::shared_ptr<KBTDavPrincipal> KBTDavPrincipal::principalFromInfo(
    const KBTPrincipalInfo& info) const {
  const auto server = info.principalURL();
  return server ? newPrincipalForServer(*server) : nullptr;
}

std::shared_ptr<KBTDavPrincipal> KBTDavPrincipal::newPrincipalForServer(const NSURL& server) const {
  return initWithDelegate_username_andPassword_forServer(delegate_, user_, password_, server);
}

std::optional<std::string> KBTDavPrincipal::originator() const {
  if (!originator_) return std::nullopt;
  return originator_->absoluteString();
}

std::shared_ptr<KBTDavConnection> KBTDavPrincipal::calendarNamed(std::string_view name) const {
  return firstOf(calendars_, [&](const auto& calendar) { return calendar->name() == name; });
}

std::shared_ptr<KBTDavConnection> KBTDavPrincipal::caseInsensitiveCalendarNamed(
    std::string_view name) const {
  return firstOf(calendars_, [&](const auto& calendar) {
    return calendar->name() && equalCaseFolded(*calendar->name(), name);
  });
}

void KBTDavPrincipal::addConnection(const std::shared_ptr<KBTDavConnection>& connection) {
  if (collections_.size() == collections_.capacity()) {
    std::erase_if(collections_, [](const auto& known) { return known.keptDelegates.expired(); });
  }
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

void KBTDavPrincipal::letGo() {
  const auto delegate = std::exchange(delegate_, nullptr);
  const auto calendars = std::exchange(calendars_, {});
}

}  // namespace quillmere
