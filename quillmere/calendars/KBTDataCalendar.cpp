#include <quillmere/calendars/KBTDataCalendar.h>
#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/base/NSBundle.h>
#include <quillmere/platform/base/makeObject.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillmere {
namespace {

using std::string_view;

// The components that become objects.
bool isItem(std::optional<string_view> component) {
  return component == "VEVENT" || component == "VTODO";
}

std::optional<std::string> copied(std::optional<string_view> text) {
  if (!text) return std::nullopt;
  return std::string(*text);
}

}  // namespace

// One fetch under way.
struct KBTDataCalendar::Fetch {
  OrderedSet remaining;  // known before the fetch and not found yet
  OrderedViewSet seen;   // found, so that a second item of the name is skipped

  // What the lines so far have told. Nothing of this is cleared between items, so an item that
  // lacks one takes it over from the item before: a version (which sticks once it was made up), or
  // a UID (which makes it a duplicate). Hosts keep names and versions between runs, so this must
  // not change.
  std::optional<string_view> uid;  // good until the fetch ends, like every name in `seen`
  std::optional<std::string> version;
  std::optional<std::string> sequence;
  std::shared_ptr<KBTCalObject>
      item;  // a reader over the item that began last; null before the first

  // A name that lasts as long as the fetch: as it stands in the document, or a copy where that was
  // folded or escaped.
  string_view lasting(string_view name) {
    const std::less_equal<> notBehind;
    const bool standsInDocument =
        notBehind(document.view().data(), name.data()) &&
        notBehind(name.data() + name.size(), document.view().data() + document.length());
    return standsInDocument ? name : copiedNames.emplace_back(name);
  }

  NSData document;
  std::deque<std::string> copiedNames;
};

std::shared_ptr<KBTDataCalendar> KBTDataCalendar::init() { return makeObject<KBTDataCalendar>(); }

void KBTDataCalendar::fetchExternalChanges() {
  const auto self = keptAlive();
  const auto reader = _getCalendarData();
  Fetch fetch;
  if (reader) fetch.document = reader->data();
  for (std::string& name : objectsByUniqueName().keys()) fetch.remaining.insert(std::move(name));

  delegate()->synchingCalendarBeganFetchExternalChanges(*this);
  while (reader && reader->nextLine()) visitLine(*reader, fetch);
  reportDeletions(fetch);
  delegate()->synchingCalendarCompletedFetchExternalChanges_withError(*this, nullptr);
}

// Nesting is not tracked: once an item has begun, the UID, DTSTAMP and SEQUENCE of whatever
// component comes (an alarm's, a journal's) count.
void KBTDataCalendar::visitLine(KBTCalObject& reader, Fetch& fetch) {
  const auto key = reader.key();
  if (key == "X-WR-CALNAME") {
    setCalendarName(copied(reader.value()));
  } else if (key == "BEGIN" && isItem(reader.value())) {
    fetch.item = reader.subparserForCurrentEntry();
  } else if (key == "UID" && fetch.item) {
    const auto name = reader.value();
    fetch.uid = name ? std::optional(fetch.lasting(*name)) : std::nullopt;
  } else if (key == "DTSTAMP" && fetch.item) {
    fetch.version = reader.value();
  } else if (key == "SEQUENCE" && fetch.item) {
    fetch.sequence = reader.value();
  } else if (key == "END" && isItem(reader.value())) {
    finishItem(fetch);
  }
}

void KBTDataCalendar::finishItem(Fetch& fetch) {
  if (!fetch.version) fetch.version = fetch.sequence.value_or("1");
  if (!fetch.uid) fetch.uid = fetch.lasting(CFUUIDCreateString());
  if (!fetch.seen.insert(*fetch.uid)) return;
  std::string name(*fetch.uid);

  // An item that ends without any having begun: the delegate gets a reader all the same, one
  // without lines; but lines outside items go on counting nothing.
  const auto reader = fetch.item ? fetch.item : KBTCalObject::initWithData(std::nullopt);
  if (const KBTClientObject* known = objectsByUniqueName().find(name)) {
    const KBTClientObject object = *known;
    if (delegate()->synchingCalendar_versionStringForObject(*this, object) != fetch.version) {
      delegate()->synchingCalendar_updateForObject_versionString_data(*this, object, *fetch.version,
                                                                      reader);
    }
    fetch.remaining.erase(name);
    return;
  }
  auto object = delegate()->synchingCalendar_newObjectNamed_versionString_data(
      *this, name, *fetch.version, reader);
  if (object) objectsByUniqueName().set(std::move(name), std::move(object));
}

void KBTDataCalendar::reportDeletions(const Fetch& fetch) {
  for (const std::string& name : fetch.remaining.names()) {
    const KBTClientObject* known = objectsByUniqueName().find(name);
    if (!known) continue;  // the host itself took it away during the fetch
    const KBTClientObject object = *known;
    delegate()->synchingCalendar_deletionForObject(*this, object);
    objectsByUniqueName().erase(name);
  }
}

void KBTDataCalendar::saveChanges() {
  const auto self = keptAlive();
  std::string document = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n";
  if (const auto name = calendarName()) document += "X-WR-CALNAME:" + *name + "\r\n";
  const auto hostVersion =
      NSBundle::mainBundle().objectForInfoDictionaryKey("CFBundleShortVersionString");
  document += "PRODID:-//Tessaly//Ridgeline " + hostVersion.value_or("") + "//EN\r\n";
  document += "CALSCALE:GREGORIAN\r\n";

  for (const std::string& name : objectsByUniqueName().keys()) {
    const KBTClientObject* known = objectsByUniqueName().find(name);
    if (!known) continue;  // the host itself took it away during the save
    const KBTClientObject object = *known;
    if (const auto source = delegate()->synchingCalendar_icsDataForObject(*this, object)) {
      document += source->icsData().view();
    }
  }

  document += "END:VCALENDAR\r\n";
  _writeCalendarData(NSData::dataWithString(std::move(document)));
}

std::shared_ptr<KBTCalObject> KBTDataCalendar::_getCalendarData() { return nullptr; }

void KBTDataCalendar::_writeCalendarData(const NSData&) { _wroteCalendarData(nullptr); }

void KBTDataCalendar::_wroteCalendarData(const NSErrorPtr& error) {
  if (error) {
    delegate()->synchingCalendar_failedSavingObject_withError(*this, KBTClientObject(), error);
  } else {
    KBTSynchingCalendar::saveChanges();
  }
}

}  // namespace quillmere
