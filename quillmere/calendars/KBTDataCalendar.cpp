#include <quillmere/calendars/KBTDataCalendar.h>
#include <quillmere/ical/KBTCalObjectEntry.h>
#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/base/NSBundle.h>
#include <quillmere/platform/base/makeObject.h>

#include <string_view>
#include <utility>

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
  OrderedSet seen;       // found, so that a second item of the name is skipped

  // What the lines so far have told. Nothing of this is cleared between items, so an item that
  // lacks one takes it over from the item before: a version (which sticks once it was made up), or
  // a UID (which makes it a duplicate). Hosts keep names and versions between runs, so this must
  // not change.
  std::optional<std::string> uid;
  std::optional<std::string> version;
  std::optional<std::string> sequence;
  std::shared_ptr<KBTCalObject>
      item;  // a reader over the item that began last; null before the first
};

std::shared_ptr<KBTDataCalendar> KBTDataCalendar::init() { return makeObject<KBTDataCalendar>(); }

void KBTDataCalendar::fetchExternalChanges() {
  const auto self = shared_from_this();  // the delegate may let go of this calendar
  const auto reader = _getCalendarData();
  Fetch fetch;
  for (const std::string& name : objectsByUniqueName().keys()) fetch.remaining.insert(name);

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
    fetch.uid = copied(reader.value());
  } else if (key == "DTSTAMP" && fetch.item) {
    fetch.version = copied(reader.value());
  } else if (key == "SEQUENCE" && fetch.item) {
    fetch.sequence = copied(reader.value());
  } else if (key == "END" && isItem(reader.value())) {
    finishItem(fetch);
  }
}

void KBTDataCalendar::finishItem(Fetch& fetch) {
  if (!fetch.version) fetch.version = fetch.sequence.value_or("1");
  if (!fetch.uid) fetch.uid = CFUUIDCreateString();
  // An item that ends without having begun: the delegate gets a reader all the same, one without
  // lines.
  if (!fetch.item) fetch.item = KBTCalObject::initWithData(std::nullopt);

  const std::string& name = *fetch.uid;
  if (fetch.seen.contains(name)) return;
  fetch.seen.insert(name);

  if (const KBTClientObject* known = objectsByUniqueName().find(name)) {
    const KBTClientObject object = *known;
    const auto host = delegate();
    if (host->synchingCalendar_versionStringForObject(*this, object) != fetch.version) {
      host->synchingCalendar_updateForObject_versionString_data(*this, object, *fetch.version,
                                                                fetch.item);
    }
    fetch.remaining.erase(name);
    return;
  }
  auto object = delegate()->synchingCalendar_newObjectNamed_versionString_data(
      *this, name, *fetch.version, fetch.item);
  if (object) objectsByUniqueName().set(name, std::move(object));
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
  const auto self = shared_from_this();
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
