#include <quillmere/caldav/DavXML.h>
#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/base/makeObject.h>

#include <cstdint>
#include <mutex>
#include <set>
#include <string_view>
#include <utility>

namespace quillmere {
namespace {

DavBody& addTimeRange(DavBody& body, NSDate from, NSDate to) {
  return body.push("time-range")
      .attribute("start", KBTCalObject::datetimeAsZuluString(from))
      .attribute("end", KBTCalObject::datetimeAsZuluString(to))
      .pop();
}

using KeptDelegates = std::shared_ptr<std::vector<std::shared_ptr<KBTDavConnectionDelegate>>>;

// The delegates of all collections that ever had one, whichever thread theirs is. Never destroyed,
// since nothing in it ever is without being asked for.
class DelegatesOfTheProcess {
 public:
  static void add(const KeptDelegates& delegates) {
    const std::lock_guard lock(all().mutex_);
    all().lists_.insert(delegates);
  }
  static void remove(const KeptDelegates& delegates) {
    const std::lock_guard lock(all().mutex_);
    all().lists_.erase(delegates);
  }

 private:
  static DelegatesOfTheProcess& all() {
    static auto& all = *new DelegatesOfTheProcess;
    return all;
  }

  std::mutex mutex_;
  std::set<KeptDelegates> lists_;
};

}  // namespace

std::shared_ptr<KBTDavConnection>
KBTDavConnection::initWithCalendarName_description_URL_forPrincipal_supportedComponents(
    std::optional<std::string> name, std::optional<std::string> description, const NSURL& URL,
    std::shared_ptr<KBTDavPrincipal> principal,
    const std::optional<HWXMLElement>& supportedComponents) {
  auto connection = makeObject<KBTDavConnection>(std::move(name), std::move(description), URL,
                                                 std::move(principal), supportedComponents);
  connection->openSession();
  return connection;
}

std::shared_ptr<KBTDavConnection>
KBTDavConnection::initWithCalendarName_description_URL_forPrincipal(
    std::optional<std::string> name, std::optional<std::string> description, const NSURL& URL,
    std::shared_ptr<KBTDavPrincipal> principal) {
  return initWithCalendarName_description_URL_forPrincipal_supportedComponents(
      std::move(name), std::move(description), URL, std::move(principal), std::nullopt);
}

KBTDavConnection::KBTDavConnection(std::optional<std::string> name,
                                   std::optional<std::string> description, NSURL URL,
                                   std::shared_ptr<KBTDavPrincipal> principal,
                                   const std::optional<HWXMLElement>& supportedComponents)
    : principal_(std::move(principal)),
      calendarURL_(std::move(URL)),
      name_(std::move(name)),
      description_(std::move(description)) {
  if (!supportedComponents) return;
  canContainEvents_ = canContainTodos_ = false;
  for (const HWXMLElement& component : supportedComponents->childElementsNamed("comp")) {
    const auto kind = component.attributeNamed("name");
    canContainEvents_ = canContainEvents_ || kind == "VEVENT";
    canContainTodos_ = canContainTodos_ || kind == "VTODO";
  }
}

void KBTDavConnection::openSession() {
  KBTDavRequestor::openSession();
  principal_->addConnection(std::static_pointer_cast<KBTDavConnection>(shared_from_this()));
}

void KBTDavConnection::setDelegate(std::shared_ptr<KBTDavConnectionDelegate> delegate) {
  if (isOver()) return;
  delegate_ = delegate.get();
  if (!delegate) return;
  DelegatesOfTheProcess::add(keptDelegates_);
  keptDelegates_->push_back(std::move(delegate));
}

void KBTDavConnection::invalidate() {
  const auto kept = shared_from_this();
  endRequests();
}

void KBTDavConnection::letGo() {
  delegate_ = nullptr;
  letGoOf(keptDelegates_);
}

void KBTDavConnection::letGoOf(const std::shared_ptr<void>& keptDelegates) {
  const auto delegates = std::static_pointer_cast<DelegateList>(keptDelegates);
  if (!delegates) return;
  DelegatesOfTheProcess::remove(delegates);
  const DelegateList gone = std::exchange(*delegates, {});
}

// Requests.

NSMutableURLRequest KBTDavConnection::requestWithMethod(const char* method,
                                                        const std::optional<NSURL>& url) const {
  NSMutableURLRequest request = principal_->newRequest();
  request.setURL(url);
  request.setHTTPMethod(method);
  return request;
}

std::optional<NSURL> KBTDavConnection::addressOfResource(const std::string& name) const {
  return NSURL::URLWithString_relativeToURL(name + ".ics", calendarURL_);
}

void KBTDavConnection::issue(NSMutableURLRequest request, Completion completion, std::any context) {
  _createConnectionWithRequest_context_completionSelector_internal(
      std::move(request), std::move(context), static_cast<KBTDavCompletionSelector>(completion),
      false);
}

void KBTDavConnection::reportCTagWithContext(std::any context) {
  NSMutableURLRequest request = requestWithMethod("PROPFIND", calendarURL_);
  request.setValue_forHTTPHeaderField(xmlContentType, "Content-Type");
  request.setValue_forHTTPHeaderField("text/xml", "Accept");
  request.setValue_forHTTPHeaderField("0", "Depth");
  request.setHTTPBody(DavBody("propfind", davNamespace)
                          .push("prop")
                          .empty("getctag", calendarServerNamespace)
                          .data());
  issue(std::move(request), &KBTDavConnection::_didGetCTag, std::move(context));
}

void KBTDavConnection::reportFreebusyFromDate_toDate_context(NSDate from, NSDate to,
                                                             std::any context) {
  NSMutableURLRequest request = requestWithMethod("REPORT", calendarURL_);
  request.setValue_forHTTPHeaderField(xmlContentType, "Content-Type");
  request.setValue_forHTTPHeaderField("text/calendar", "Accept");
  DavBody body("free-busy-query", caldavNamespace);
  request.setHTTPBody(addTimeRange(body, from, to).data());
  issue(std::move(request), &KBTDavConnection::_didGetFreeBusyForCalendar, std::move(context));
}

NSMutableURLRequest KBTDavConnection::reportWithBody(NSData body) const {
  NSMutableURLRequest request = requestWithMethod("REPORT", calendarURL_);
  request.setValue_forHTTPHeaderField(xmlContentType, "Content-Type");
  request.setValue_forHTTPHeaderField("text/calendar", "Accept");
  request.setValue_forHTTPHeaderField("gzip", "Accept-Encoding");
  request.setHTTPBody(std::move(body));
  return request;
}

void KBTDavConnection::reportEvents_includingContents_fromDate_toDate_context(
    bool events, bool includingContents, std::optional<NSDate> from, std::optional<NSDate> to,
    std::any context) {
  DavBody body("calendar-query", caldavNamespace);
  body.push("prop", davNamespace).empty("getetag", davNamespace);
  if (includingContents) body.empty("calendar-data", caldavNamespace);
  body.pop().push("filter", caldavNamespace);
  body.push("comp-filter").attribute("name", "VCALENDAR");
  body.push("comp-filter").attribute("name", events ? "VEVENT" : "VTODO");
  if (from && to) addTimeRange(body, *from, *to);
  issue(reportWithBody(body.data()), &KBTDavConnection::_didGetEventsForCalendar,
        std::move(context));
}

void KBTDavConnection::multigetEventsForAddresses_context(const std::vector<std::string>& addresses,
                                                          std::any context) {
  DavBody body("calendar-multiget", caldavNamespace);
  body.push("prop", davNamespace)
      .empty("getetag", davNamespace)
      .empty("calendar-data", caldavNamespace)
      .pop();
  for (const std::string& address : addresses) body.text("href", davNamespace, address);
  issue(reportWithBody(body.data()), &KBTDavConnection::_didGetEventsForCalendar,
        std::move(context));
}

void KBTDavConnection::createResource_withName_context(const NSData& resource,
                                                       const std::string& name, std::any context) {
  createResource_withName_allowOverwrite_context(resource, name, false, std::move(context));
}

// The colons in the names of the conditional fields are intended.

void KBTDavConnection::createResource_withName_allowOverwrite_context(const NSData& resource,
                                                                      const std::string& name,
                                                                      bool allowOverwrite,
                                                                      std::any context) {
  NSMutableURLRequest request = requestWithMethod("PUT", addressOfResource(name));
  request.setValue_forHTTPHeaderField("text/calendar", "Content-Type");
  if (!allowOverwrite) request.setValue_forHTTPHeaderField("*", "If-None-Match:");
  request.setHTTPBody(resource);
  issue(std::move(request), &KBTDavConnection::_didCreateResource, std::move(context));
}

void KBTDavConnection::updateResource_withName_andETag_context(
    const NSData& resource, const std::string& name, const std::optional<std::string>& etag,
    std::any context) {
  NSMutableURLRequest request = requestWithMethod("PUT", addressOfResource(name));
  request.setValue_forHTTPHeaderField("text/calendar", "Content-Type");
  if (etag) request.setValue_forHTTPHeaderField(etag, "If-Match:");
  request.setHTTPBody(resource);
  issue(std::move(request), &KBTDavConnection::_didUpdateResource, std::move(context));
}

void KBTDavConnection::deleteResourceWithName_andETag_context(
    const std::string& name, const std::optional<std::string>& etag, std::any context) {
  NSMutableURLRequest request = requestWithMethod("DELETE", addressOfResource(name));
  if (etag) request.setValue_forHTTPHeaderField(etag, "If-Match:");
  issue(std::move(request), &KBTDavConnection::_didDeleteResource, std::move(context));
}

void KBTDavConnection::removeCalendar() {
  issue(requestWithMethod("DELETE", calendarURL_), &KBTDavConnection::_didDeleteCalendar, {});
}

// Answers. Without a delegate nobody is told.

bool KBTDavConnection::tellFailure(const KBTDavRequest& request) {
  if (!request.error()) return false;
  if (delegate_) {
    delegate_->calDavConnection_requestDidFail_context(*this, request.error(), request.context());
  }
  return true;
}

void KBTDavConnection::_didGetCTag(const std::shared_ptr<KBTDavRequest>& request) {
  if (tellFailure(*request) || !delegate_) return;
  std::optional<std::string> ctag;
  if (const auto root = rootOf(*request)) {
    if (const auto text = textAt(*root, "response/propstat/prop/getctag")) ctag = *text;
  }
  delegate_->calDavConnection_didReceiveCTag_context(*this, ctag, request->context());
}

void KBTDavConnection::_didGetFreeBusyForCalendar(const std::shared_ptr<KBTDavRequest>& request) {
  NSErrorPtr error;
  const auto periods = request->error()
                           ? std::nullopt
                           : KBTFreeBusy::freeBusyInfoFromICSData(request->data(), &error);
  if (error) request->setError(error);
  if (tellFailure(*request) || !delegate_) return;
  delegate_->calDavConnection_didReceiveFreebusy_context(*this, *periods, request->context());
}

void KBTDavConnection::_didGetEventsForCalendar(const std::shared_ptr<KBTDavRequest>& request) {
  if (tellFailure(*request) || !delegate_) return;
  KBTDavResourceTexts etags;
  KBTDavResourceContents contents;
  if (const auto root = rootOf(*request)) {
    for (const HWXMLElement& response : root->childElementsNamed("response")) {
      // Intended: only the first propstat is looked at, and its status must be this very text.
      const auto propstat = response.firstChildNamed("propstat");
      if (!propstat || textAt(*propstat, "status") != statusOfFound) continue;
      const auto address = hrefAt(response, "href");
      const auto prop = propstat->firstChildNamed("prop");
      if (!address || !prop) continue;
      if (const auto etag = textAt(*prop, "getetag")) etags[std::string(*address)] = *etag;
      const auto content = prop->firstChildNamed("calendar-data");
      if (const auto text = content ? content->textData() : std::nullopt) {
        contents[std::string(*address)] = *text;
      }
    }
  }
  delegate_->calDavConnection_didReceiveEventsWithETags_andContents_context(*this, etags, contents,
                                                                            request->context());
}

// The entity tag that a write gave the resource. Where the answer has none, asks for it, with no
// end but a failure, and gives null.
std::optional<std::string> KBTDavConnection::etagAfterWrite(const KBTDavRequest& request,
                                                            Completion completion) {
  if (tellFailure(request)) return std::nullopt;
  auto etag = request.response()->valueForHTTPHeaderField("Etag");
  if (!etag) {
    issue(requestWithMethod("GET", request.response()->URL()), completion, request.context());
  }
  return etag;
}

void KBTDavConnection::_didCreateResource(const std::shared_ptr<KBTDavRequest>& request) {
  const auto etag = etagAfterWrite(*request, &KBTDavConnection::_didCreateResource);
  if (!etag || !delegate_) return;
  delegate_->calDavConnection_didCreateResourceWithETag_context(*this, *etag, request->context());
}

void KBTDavConnection::_didUpdateResource(const std::shared_ptr<KBTDavRequest>& request) {
  const auto etag = etagAfterWrite(*request, &KBTDavConnection::_didUpdateResource);
  if (!etag || !delegate_) return;
  delegate_->calDavConnection_didUpdateResourceWithETag_context(*this, *etag, request->context());
}

void KBTDavConnection::_didDeleteResource(const std::shared_ptr<KBTDavRequest>& request) {
  constexpr std::int64_t notFound = 404;
  if (request->response() && request->response()->statusCode() == notFound) {
    request->setError(nullptr);
  }
  if (tellFailure(*request) || !delegate_) return;
  delegate_->calDavConnectionDidDeleteResource_context(*this, request->context());
}

void KBTDavConnection::_didDeleteCalendar(const std::shared_ptr<KBTDavRequest>&) {
  if (delegate_) delegate_->calDavConnectionDidRemoveCalendar(*this);
}

std::vector<KBTDavResourceTexts> KBTDavConnection::_arrayForReportResponse_withKeys(
    const KBTDavRequest& request, const std::vector<std::string>& keys) {
  std::vector<KBTDavResourceTexts> rows;
  const auto document = HWXMLDocument::initWithData(request.data());
  if (!document) return rows;
  for (const HWXMLElement& response : document->rootElement().childElements()) {
    const auto prop = response.firstChildAtPath("propstat/prop");
    if (!prop) continue;
    KBTDavResourceTexts row;
    for (const std::string& key : keys) {
      if (const auto text = textAt(*prop, key)) row[key] = *text;
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

}  // namespace quillmere
