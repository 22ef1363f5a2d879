#include <quillmere/caldav/DavXML.h>
#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/caldav/KBTDavPrincipal.h>
#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/base/KSStringTable.h>

#include <algorithm>
#include <utility>
#include <variant>

namespace quillmere {
namespace {

using std::string_view;

// The texts of an element, in order: its own, and those of the elements in it.
std::string stringValueOf(const HWXMLElement& element) {
  std::string value;
  for (const HWXMLNode& child : element.children()) {
    const auto* text = std::get_if<string_view>(&child);
    value += text ? *text : std::get<HWXMLElement>(child).text().value_or("");
  }
  return value;
}

}  // namespace

std::string KBTDavPrincipal::_randomUID() { return CFUUIDCreateString(); }

// Busy time of others.

// Intended: lines end in a line feed alone, and the product is named after the collection's class.
void KBTDavPrincipal::requestFreebusyForPrincipalURN_fromDate_toDate_context(const std::string& urn,
                                                                             NSDate from, NSDate to,
                                                                             std::any context) {
  NSMutableURLRequest request = newRequest();
  request.setURL(outboxURL_);
  request.setHTTPMethod("POST");
  request.setValue_forHTTPHeaderField("text/calendar", "Content-Type");
  request.setValue_forHTTPHeaderField("text/xml", "Accept");
  request.setValue_forHTTPHeaderField("gzip", "Accept-Encoding");
  request.setValue_forHTTPHeaderField(originator(), "Originator");
  request.setValue_forHTTPHeaderField(urn, "Recipient");
  const auto dateLine = [](const char* key, NSDate date) {
    return key + (":" + KBTCalObject::datetimeAsZuluString(date)) + "\n";
  };
  request.setHTTPBody(NSData::dataWithString(
      "BEGIN:VCALENDAR\n"
      "VERSION:2.0\n"
      "PRODID:-//Tessaly//KBTDavConnection//EN\n"
      "METHOD:REQUEST\n"
      "BEGIN:VFREEBUSY\n" +
      dateLine("DTSTAMP", NSDate::date()) + "ORGANIZER:" + originator().value_or("") + "\n" +
      dateLine("DTSTART", from) + dateLine("DTEND", to) + "UID:" + _randomUID() + "\n" +
      "ATTENDEE:" + urn + "\n" +
      "END:VFREEBUSY\n"
      "END:VCALENDAR\n"));
  issue(std::move(request), &KBTDavPrincipal::_didGetFreebusyForUser, std::move(context));
}

// Intended: the body is read whatever the request's outcome, so that of a failed one the schedule
// status is told, or else that the error is unknown.
void KBTDavPrincipal::_didGetFreebusyForUser(const std::shared_ptr<KBTDavRequest>& request) {
  const auto root = rootOf(*request);
  if (const auto data = root ? root->firstChildAtPath("response/calendar-data") : std::nullopt) {
    NSErrorPtr error;
    const auto periods =
        KBTFreeBusy::freeBusyInfoFromICSData(NSData::dataWithString(stringValueOf(*data)), &error);
    if (!periods) return tellLoggedInWithError(error);  // a period that is malformed
    if (const auto delegate = delegate_) {
      delegate->calDavPrincipal_didReceiveFreebusy_withContext(*this, *periods, request->context());
    }
    return;
  }
  const auto status = root ? textAt(*root, "response/request-status") : std::nullopt;
  std::string message;
  if (!status) {
    message = KSLocalizedString("unknown CalDav error");
  } else if (status->substr(0, status->find(';')) == "3.8") {  // no authority (RFC 5546 3.6)
    message = KSLocalizedString(
        "The CalDAV server at %@ denied request for free/busy information for recipient %@",
        outboxURL_ ? outboxURL_->host().value_or("") : "",
        hrefAt(*root, "response/recipient/href").value_or(""));
  } else {
    message = *status;
  }
  tellLoggedInWithError(errorOfCode(3, std::move(message)));
}

// Search.

void KBTDavPrincipal::reportPrincipalInfoForUserAddress_context(const std::string& address,
                                                                std::any context) {
  if (std::find(emailAddresses_.begin(), emailAddresses_.end(), address) == emailAddresses_.end()) {
    desiredUserAddress_ = address;
    return issue(_principalInfoRequest(address),
                 &KBTDavPrincipal::_didGetPrincipalInfoForUserAddress, std::move(context));
  }
  const auto kept = shared_from_this();
  const auto own = KBTPrincipalInfo::init();
  own->setName(displayName_);
  own->setEmail(address);
  own->setUrn(originator());
  own->setPrincipalURL(principalURL_);
  if (const auto delegate = delegate_) {
    delegate->calDavPrincipal_foundPrincipalInfo_withContext(*this, {own}, context);
  }
}

NSMutableURLRequest KBTDavPrincipal::_principalInfoRequest(const std::string& address) const {
  NSMutableURLRequest request = newRequest();
  request.setURL(principalCollectionURL_);
  request.setHTTPMethod("REPORT");
  request.setValue_forHTTPHeaderField(xmlContentType, "Content-Type");
  request.setValue_forHTTPHeaderField("text/xml", "Accept");
  DavBody body("principal-property-search", davNamespace);
  body.push("property-search")
      .push("prop")
      .empty("calendar-user-address-set", caldavNamespace)
      .pop()
      .text("match", nullptr, address)
      .pop();
  body.push("prop")
      .empty("displayname")
      .empty("calendar-user-address-set", caldavNamespace)
      .empty("principal-URL");
  request.setHTTPBody(body.data());
  return request;
}

// Servers match in their own way, so every address is compared once more.
void KBTDavPrincipal::_didGetPrincipalInfoForUserAddress(
    const std::shared_ptr<KBTDavRequest>& request) {
  if (request->error()) return tellLoggedInWithError(request->error());
  std::vector<std::shared_ptr<KBTPrincipalInfo>> found;
  if (const auto root = rootOf(*request)) {
    for (const HWXMLElement& response : root->childElements()) {
      if (auto info = infoFromResponse(response)) found.push_back(std::move(info));
    }
  }
  if (const auto delegate = delegate_) {
    delegate->calDavPrincipal_foundPrincipalInfo_withContext(*this, found, request->context());
  }
}

// Null for a principal that does not have the desired address.
std::shared_ptr<KBTPrincipalInfo> KBTDavPrincipal::infoFromResponse(
    const HWXMLElement& response) const {
  const auto prop = response.firstChildAtPath("propstat/prop");
  if (!prop) return nullptr;
  auto info = KBTPrincipalInfo::init();
  if (const auto href = hrefAt(response, "href")) {
    info->setPrincipalURL(NSURL::URLWithString_relativeToURL(*href, principalURL_));
  }
  if (const auto name = textAt(*prop, "displayname")) info->setName(std::string(*name));
  if (!desiredUserAddress_) return info;
  bool matches = false;
  const auto addressSet = prop->firstChildNamed("calendar-user-address-set");
  if (!addressSet) return nullptr;
  for (const HWXMLElement& href : addressSet->childElementsNamed("href")) {
    const std::string address(hrefOf(href).value_or(""));
    if (address.starts_with("mailto:")) {
      info->setEmail(address);
    } else if (address.starts_with("urn:")) {
      info->setUrn(address);
    }
    matches = matches || address.find(*desiredUserAddress_) != std::string::npos;
  }
  return matches ? info : nullptr;
}

// Creation.

std::shared_ptr<KBTDavConnection> KBTDavPrincipal::createCalendarAtPath_withName_andDescription(
    const std::string& path, const std::string& name, const std::string& description) {
  const std::string folder = path.ends_with('/') ? path : path + "/";
  const auto url = calendarHomeURL_ ? NSURL::URLWithString_relativeToURL(folder, *calendarHomeURL_)
                                    : NSURL::URLWithString(folder);
  NSMutableURLRequest request = newRequest();
  request.setURL(url);
  request.setHTTPMethod("MKCALENDAR");
  request.setValue_forHTTPHeaderField(xmlContentType, "Content-Type");
  DavBody body("mkcalendar", caldavNamespace);
  body.push("set", davNamespace)
      .push("prop", davNamespace)
      .text("displayname", davNamespace, name)
      .text("calendar-description", caldavNamespace, description);
  request.setHTTPBody(body.data());
  std::shared_ptr<KBTDavConnection> calendar;
  if (url) {
    calendar =
        KBTDavConnection::initWithCalendarName_description_URL_forPrincipal_supportedComponents(
            name, description, *url, std::static_pointer_cast<KBTDavPrincipal>(shared_from_this()),
            std::nullopt);
  }
  issue(std::move(request), &KBTDavPrincipal::_didCreateCalendar, calendar);
  return calendar;
}

// Intended: observers of "calendars" do not hear of it; the delegate does.
void KBTDavPrincipal::_didCreateCalendar(const std::shared_ptr<KBTDavRequest>& request) {
  if (request->error()) return tellLoggedInWithError(request->error());
  const auto calendar = std::any_cast<std::shared_ptr<KBTDavConnection>>(request->context());
  calendars_.push_back(calendar);
  if (const auto delegate = delegate_) delegate->calDavPrincipal_createdCalendar(*this, calendar);
}

}  // namespace quillmere
