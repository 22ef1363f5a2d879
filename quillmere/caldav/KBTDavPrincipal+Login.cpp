#include <quillmere/caldav/DavXML.h>
#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/caldav/KBTDavPrincipal.h>
#include <quillmere/platform/base/KSStringTable.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>

namespace quillmere {
namespace {

using std::string_view;

constexpr std::int64_t unauthorized = 401;

// Where the user's own principal is asked for after the server's URL, relative to it, in this order.
constexpr std::array<string_view, 3> _attemptedPaths = {"principals/", "calendars/", "/"};
constexpr std::size_t mostPrincipalRequests = 1 + _attemptedPaths.size();

// The context of a request for the principal. The requests are counted, because candidates are told
// by the address that answered: below a root, or with redirects, they would come round again.
struct PrincipalSearch {
  std::size_t requests;
  std::any context;
};

// That is, refused in a way that lets another path be worth a try.
bool isClientError(const NSError& error) {
  return error.domain() == KBTDavConnectionErrorDomain && error.code() >= 400 &&
         error.code() <= 499 && error.code() != unauthorized;
}

std::optional<std::string> textOf(const HWXMLElement& element) {
  const auto text = element.text();
  if (!text) return std::nullopt;
  return std::string(*text);
}

std::string closedBySlash(string_view path) {
  std::string closed(path);
  if (!closed.ends_with('/')) closed += '/';
  return closed;
}

// Whether "write-content" is granted by itself; a privilege that contains it does not count.
bool isWritable(const HWXMLElement& prop) {
  const auto granted = prop.firstChildNamed("current-user-privilege-set");
  if (!granted) return false;
  const auto privileges = granted->childElementsNamed("privilege");
  return std::any_of(privileges.begin(), privileges.end(), [](const HWXMLElement& privilege) {
    return privilege.firstChildNamed("write-content").has_value();
  });
}

}  // namespace

void KBTDavPrincipal::login() { findPrincipalURLForCurrentUserWithContext({}); }

void KBTDavPrincipal::findPrincipalURLForCurrentUserWithContext(std::any context) {
  _findCurrentPrincipalAtURL_withContext(principalURL_, PrincipalSearch{1, std::move(context)});
}

void KBTDavPrincipal::_findCurrentPrincipalAtURL_withContext(const NSURL& url, std::any context) {
  DavBody body("propfind", davNamespace);
  body.push("prop").empty("current-user-principal");
  issue(propertyRequest(url, "0", body.data()),
        &KBTDavPrincipal::_didGetPrincipalInfoForCurrentUser, std::move(context));
}

std::optional<NSURL> KBTDavPrincipal::nextCandidate(const NSURL& failed) const {
  const auto* next = _attemptedPaths.begin();
  if (failed != principalURL_) {
    const std::string path = closedBySlash(failed.lastPathComponent());
    const auto* const known = std::find(_attemptedPaths.begin(), _attemptedPaths.end(), path);
    next = known == _attemptedPaths.end() ? known : std::next(known);
  }
  if (next == _attemptedPaths.end()) return std::nullopt;
  return NSURL::URLWithString_relativeToURL(*next, principalURL_);
}

void KBTDavPrincipal::_didGetPrincipalInfoForCurrentUser(
    const std::shared_ptr<KBTDavRequest>& request) {
  if (request->error()) {
    auto search = std::any_cast<PrincipalSearch>(request->context());
    if (isClientError(*request->error()) && search.requests < mostPrincipalRequests) {
      if (const auto candidate = nextCandidate(request->response()->URL())) {
        ++search.requests;
        return _findCurrentPrincipalAtURL_withContext(*candidate, std::move(search));
      }
    }
    return tellLoggedInWithError(request->error());
  }
  const auto root = rootOf(*request);
  const auto href =
      root ? hrefAt(*root, "response/propstat/prop/current-user-principal/href") : std::nullopt;
  const auto url = href ? NSURL::URLWithString_relativeToURL(*href, principalURL_) : std::nullopt;
  if (!url) {
    return tellLoggedInWithError(errorOfCode(3, KSLocalizedString("unknown CalDav error")));
  }
  principalURL_ = *url;
  _beginLogin();
}

void KBTDavPrincipal::_beginLogin() {
  DavBody body("propfind", davNamespace);
  body.push("prop")
      .empty("displayname", davNamespace)
      .empty("calendar-user-address-set", caldavNamespace)
      .empty("calendar-home-set", caldavNamespace)
      .empty("schedule-outbox-URL", caldavNamespace)
      .empty("group-membership", davNamespace)
      .empty("principal-collection-set", davNamespace);
  issue(propertyRequest(principalURL_, "0", body.data()), &KBTDavPrincipal::_didLogin);
}

// Intended: only the first response's first propstat is read, whatever its status.
void KBTDavPrincipal::_didLogin(const std::shared_ptr<KBTDavRequest>& request) {
  if (request->error()) return tellLoggedInWithError(request->error());
  const auto root = rootOf(*request);
  if (const auto prop = root ? root->firstChildAtPath("response/propstat/prop") : std::nullopt) {
    for (const HWXMLElement& property : prop->childElements()) readProperty(property);
  }
  if (!outboxURL_ || !calendarHomeURL_) {
    return _error(errorOfCode(
        1, KSLocalizedString("Not able to determine outbox or calendar home from server")));
  }
  _findCalendars();
}

void KBTDavPrincipal::readProperty(const HWXMLElement& property) {
  const string_view name = property.name();
  if (name == "displayname") {
    displayName_ = textOf(property);
  } else if (name == "calendar-user-address-set") {
    readAddresses(property);
  } else if (name == "calendar-home-set") {
    if (const auto url = folderFromHref(hrefAt(property, "href"))) calendarHomeURL_ = url;
  } else if (name == "schedule-outbox-URL") {
    const auto href = property.firstChildNamed("href");
    if (const auto url = folderFromHref(hrefOf(href.value_or(property)))) outboxURL_ = url;
  } else if (name == "group-membership") {
    readMemberships(property);
  } else if (name == "principal-collection-set") {
    for (const HWXMLElement& href : property.childElementsNamed("href")) {
      const auto url = NSURL::URLWithString_relativeToURL(hrefOf(href).value_or(""), principalURL_);
      if (url) principalCollectionURL_ = *url;
    }
  }
}

void KBTDavPrincipal::readAddresses(const HWXMLElement& addressSet) {
  for (const HWXMLElement& href : addressSet.childElementsNamed("href")) {
    const string_view address = hrefOf(href).value_or("");
    if (address.starts_with("urn:")) {
      originator_ = NSURL::URLWithString(address);
    } else if (address.starts_with("mailto:")) {
      emailAddresses_.emplace_back(address);
    }
  }
  if (!originator_ && !emailAddresses_.empty()) {
    originator_ = NSURL::URLWithString(emailAddresses_.front());
  }
}

void KBTDavPrincipal::readMemberships(const HWXMLElement& membership) {
  constexpr string_view asProxy = "/calendar-proxy-write/";
  readWriteProxies_.clear();
  for (const HWXMLElement& href : membership.childElementsNamed("href")) {
    string_view group = hrefOf(href).value_or("");
    if (!group.ends_with(asProxy)) continue;
    group.remove_suffix(asProxy.size());
    if (const auto url = NSURL::URLWithString_relativeToURL(group, principalURL_)) {
      readWriteProxies_.push_back(*url);
    }
  }
}

// Null for no text and for text that makes no URL.
std::optional<NSURL> KBTDavPrincipal::folderFromHref(std::optional<string_view> href) const {
  if (!href) return std::nullopt;
  return NSURL::URLWithString_relativeToURL(closedBySlash(*href), principalURL_);
}

// "owner" is asked for though nobody reads it: the request is part of the contract.
void KBTDavPrincipal::_findCalendars() {
  DavBody body("propfind", davNamespace);
  body.push("prop")
      .empty("resourcetype", davNamespace)
      .empty("displayname", davNamespace)
      .empty("current-user-privilege-set", davNamespace)
      .empty("owner", davNamespace)
      .empty("calendar-description", caldavNamespace)
      .empty("supported-calendar-component-set", caldavNamespace);
  issue(propertyRequest(*calendarHomeURL_, "1", body.data()), &KBTDavPrincipal::_foundCalendars);
}

void KBTDavPrincipal::_foundCalendars(const std::shared_ptr<KBTDavRequest>& request) {
  if (request->error()) return tellLoggedInWithError(request->error());
  const auto replaced = std::exchange(calendars_, {});
  if (const auto root = rootOf(*request)) {
    for (const HWXMLElement& response : root->childElementsNamed("response")) {
      if (auto calendar = calendarFromResponse(response)) calendars_.push_back(std::move(calendar));
    }
  }
  didChangeValueForKey("calendars");
  tellLoggedInWithError(nullptr);
}

// Null for what is not a calendar to be listed. Intended: one without a name is none.
std::shared_ptr<KBTDavConnection> KBTDavPrincipal::calendarFromResponse(
    const HWXMLElement& response) {
  const auto propstat = response.firstChildNamed("propstat");
  if (!propstat || textAt(*propstat, "status") != statusOfFound) return nullptr;
  const auto prop = propstat->firstChildNamed("prop");
  if (!prop || !prop->firstChildAtPath("resourcetype/calendar")) return nullptr;
  const auto name = textAt(*prop, "displayname");
  const auto href = hrefAt(response, "href");
  const auto url =
      href ? NSURL::URLWithString_relativeToURL(*href, *calendarHomeURL_) : std::nullopt;
  if (!name || !url) return nullptr;
  const auto description = prop->firstChildNamed("calendar-description");
  auto calendar =
      KBTDavConnection::initWithCalendarName_description_URL_forPrincipal_supportedComponents(
          std::string(*name), description ? textOf(*description) : std::nullopt, *url,
          std::static_pointer_cast<KBTDavPrincipal>(shared_from_this()),
          prop->firstChildNamed("supported-calendar-component-set"));
  calendar->setWritable(isWritable(*prop));
  return calendar;
}

void KBTDavPrincipal::_error(NSErrorPtr error) {
  principalLookupFailure_ = std::move(error);
  didChangeValueForKey("principalLookupFailure");
  tellLoggedInWithError(principalLookupFailure_);
}

}  // namespace quillmere
