#include <quillmere/calendars/KBTCalEventCalObject.h>
#include <quillmere/calendars/KBTLocalCalendar.h>
#include <quillmere/ical/KBTMutableCalObject.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/loop/NSOperationQueue.h>
#include <quillmere/platform/loop/NSRunLoop.h>
#include <quillmere/platform/notifications/NSDistributedNotificationCenter.h>
#include <quillmere/platform/notifications/NSNotificationCenter.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>
#include <variant>

namespace quillmere {
namespace {

constexpr const char* calendarsKey = "localCalendars";

// What the desktop's calendar program and its sandboxed companions tell each other.
constexpr const char* storeNotifications[] = {
    "com.apple.CalendarStore.CalDistributedEventsChangedNotification",
    "com.apple.CalendarStore.CalDistributedTasksChangedNotification",
    "com.apple.CalendarStore.CalDistributedCalendarStoreChangedNotification"};
constexpr const char* directoryKey = "CalCalendarsDirectoryKey";

NSDate dayOf(const char* text) { return NSDate::initWithICSDateString(text).value(); }

std::string uniqueNameOf(const EKEvent& event) {
  std::string name = event.calendarItemExternalIdentifier();
  const auto date = event.occurrenceDate();
  if (event.hasRecurrenceRules() && date) name += ":" + date->description();
  return name;
}

template <class Value>
std::optional<Value> valueOf(const KBTMutableCalObject* writer, const char* key) {
  const auto value = writer ? writer->valueForKey(key) : std::nullopt;
  const auto* known = value ? std::get_if<Value>(&*value) : nullptr;
  return known ? std::optional(*known) : std::nullopt;
}

// Everything is null without a writer, so the store refuses the event.
void fill(EKEvent& event, const KBTMutableCalObject* writer) {
  event.setTitle(valueOf<std::string>(writer, "SUMMARY"));
  event.setNotes(valueOf<std::string>(writer, "DESCRIPTION"));
  event.setStartDate(valueOf<NSDate>(writer, "DTSTART"));
  event.setEndDate(valueOf<NSDate>(writer, "DTEND"));
  event.setAllDay(writer && writer->valueForKeyIsAllDay("DTSTART"));
  event.setAlarms({});  // Intended: no alarm survives a save.
}

}  // namespace

// What all local calendars have in common. Never destroyed, since notifications may come late.
struct KBTLocalCalendar::Process : NSKeyValueObserving {
  using NSKeyValueObserving::didChangeValueForKey;

  std::once_flag storeOnce;
  std::shared_ptr<EKEventStore> store;
  int accessAnswers = 0;
  std::optional<std::vector<std::shared_ptr<EKCalendar>>> calendars;
  bool isSaving = false;
  std::vector<std::shared_ptr<NSNotificationObservation>> observations;
};

// A save as long as it lasts. A delegate may begin another one in it, or throw.
class KBTLocalCalendar::Saving {
 public:
  Saving() : wasSaving_(std::exchange(process().isSaving, true)) {}
  Saving(const Saving&) = delete;
  Saving& operator=(const Saving&) = delete;
  ~Saving() { process().isSaving = wasSaving_; }

 private:
  const bool wasSaving_;
};

KBTLocalCalendar::Process& KBTLocalCalendar::process() {
  static Process& process = []() -> Process& {
    auto& made = *new Process;
    for (const char* name : storeNotifications) {
      made.observations.push_back(
          NSDistributedNotificationCenter::defaultCenter().addObserverForName_object_usingBlock(
              name, std::nullopt, &KBTLocalCalendar::_calStoreDidChange));
    }
    return made;
  }();
  return process;
}

std::shared_ptr<EKEventStore> KBTLocalCalendar::eventStore() {
  constexpr int requests = 2;
  constexpr std::int64_t stepInMicroseconds = 10'000;
  Process& shared = process();
  std::call_once(shared.storeOnce, [&shared] {
    shared.store = EKEventStore::init();
    for (const EKEntityType type : {EKEntityType::event, EKEntityType::reminder}) {
      shared.store->requestAccessToEntityType_completion(
          type, [&shared](bool, const NSErrorPtr&) { ++shared.accessAnswers; });
    }
    shared.observations.push_back(
        NSNotificationCenter::defaultCenter().addObserverForName_object_usingBlock(
            EKEventStoreChangedNotification, shared.store,
            [](const NSNotification&) { _eventStoreChanged(); }));
  });
  while (shared.accessAnswers < requests) {
    NSRunLoop::mainRunLoop().runUntilDate(NSDate::dateWithMicrosecondsSince1970(
        NSDate::date().microsecondsSince1970() + stepInMicroseconds));
  }
  return shared.store;
}

std::vector<std::shared_ptr<EKCalendar>> KBTLocalCalendar::localCalendars() {
  if (!process().calendars) _refetchLocalCalendars();
  return *process().calendars;
}

std::shared_ptr<NSKeyValueObservation> KBTLocalCalendar::observeKey_changeHandler(
    std::string key, std::function<void()> handler) {
  return process().observeKey_changeHandler(std::move(key), std::move(handler));
}

bool KBTLocalCalendar::isSavingAnyCalendar() { return process().isSaving; }

void KBTLocalCalendar::_refetchLocalCalendars() {
  process().calendars = eventStore()->calendarsForEntityType(EKEntityType::event);
  process().didChangeValueForKey(calendarsKey);
}

// Intended: a change that is noticed during a save is not looked at later either.
void KBTLocalCalendar::_eventStoreChanged() {
  NSOperationQueue::mainQueue().addOperationWithBlock([] {
    if (!isSavingAnyCalendar()) _refetchLocalCalendars();
  });
}

void KBTLocalCalendar::_calStoreDidChange(const NSDistributedNotification& notification) {
  NSNotificationUserInfo userInfo = notification.userInfo;
  const auto found = userInfo.find(directoryKey);
  if (found == userInfo.end()) return;
  auto* directory = std::get_if<std::string>(&found->second);
  const auto container = directory ? directory->find("/Containers/") : std::string::npos;
  if (container == std::string::npos) return;
  directory->resize(container);
  if (!directory->empty() && !directory->ends_with('/')) *directory += '/';
  *directory += "Calendars";
  NSDistributedNotificationCenter::defaultCenter().postNotificationName_object_userInfo(
      notification.name, notification.object, std::move(userInfo));
}

std::shared_ptr<KBTLocalCalendar> KBTLocalCalendar::initWithCalendarIdentifier(
    std::string identifier) {
  auto calendar = makeObject<KBTLocalCalendar>(std::move(identifier));
  return calendar->_externalCalendar() ? calendar : nullptr;
}

KBTLocalCalendar::KBTLocalCalendar(std::string identifier)
    : calendarIdentifier_(std::move(identifier)) {}

std::shared_ptr<EKCalendar> KBTLocalCalendar::_externalCalendar() const {
  if (!externalCalendar_) {
    externalCalendar_ = eventStore()->calendarWithIdentifier(calendarIdentifier_);
  }
  return externalCalendar_;
}

std::optional<std::string> KBTLocalCalendar::calendarName() const {
  return _externalCalendar()->title();
}

bool KBTLocalCalendar::isEqualToCalendar(const KBTSynchingCalendar& other) const {
  const auto* calendar = dynamic_cast<const KBTLocalCalendar*>(&other);
  return calendar && calendar->calendarIdentifier_ == calendarIdentifier_;
}

KBTClientObject KBTLocalCalendar::objectNamed(const std::string& name) {
  const KBTClientObject* known = objectsByUniqueName().find(name);
  return known ? *known : nullptr;
}

void KBTLocalCalendar::fetchExternalChanges() {
  const auto self = keptAlive();
  delegate()->synchingCalendarBeganFetchExternalChanges(*this);
  _fullExternalChanges();
  delegate()->synchingCalendarCompletedFetchExternalChanges_withError(*this, nullptr);
}

void KBTLocalCalendar::_fullExternalChanges() {
  const NSDate earliest =
      delegate()->synchingCalendarEarliestDate(*this).value_or(dayOf("00010101T000000Z"));
  const NSDate latest =
      delegate()->synchingCalendarLatestDate(*this).value_or(dayOf("99991231T000000Z"));
  const auto store = eventStore();
  NSErrorPtr error;
  const auto events = store->eventsMatchingPredicate(
      store->predicateForEventsWithStartDate_endDate_calendars(
          earliest, latest, std::vector<std::shared_ptr<EKCalendar>>{_externalCalendar()}),
      &error);
  if (error) return;  // what could not be read is not gone
  OrderedSet remaining;
  for (std::string& name : objectsByUniqueName().keys()) remaining.insert(std::move(name));
  for (const auto& event : events) {
    _checkEKEvent(event);
    // Intended: the bare identifier is not the name of an occurrence. So every fetch reports every
    // occurrence and then deletes it.
    remaining.insert(uniqueNameOf(*event));
    remaining.erase(event->calendarItemExternalIdentifier());
  }
  for (const std::string& name : remaining.names()) {
    const auto object = objectNamed(name);
    if (!object) continue;  // the host declined it, or took it away during the fetch
    delegate()->synchingCalendar_deletionForObject(*this, object);
    objectsByUniqueName().erase(name);
  }
}

void KBTLocalCalendar::_checkEKEvent(const std::shared_ptr<EKEvent>& event) {
  std::string name = uniqueNameOf(*event);
  const auto changed = event->lastModifiedDate();
  const std::string version = changed ? KBTCalObject::datetimeAsZuluString(*changed) : "";
  if (const auto known = objectNamed(name)) {
    if (delegate()->synchingCalendar_versionStringForObject(*this, known) != version) {
      delegate()->synchingCalendar_updateForObject_versionString_data(
          *this, known, version, KBTCalEventCalObject::initWithEKEvent(event));
    }
    return;
  }
  auto object = delegate()->synchingCalendar_newObjectNamed_versionString_data(
      *this, name, version, KBTCalEventCalObject::initWithEKEvent(event));
  if (object) objectsByUniqueName().set(std::move(name), std::move(object));
}

void KBTLocalCalendar::saveChanges() {
  const auto self = keptAlive();
  setIsSaving(true);  // Intended: for good.
  const Saving saving;
  for (const std::string& name : insertSet().names()) _writeEventForEventIdentifier(name);
  for (const std::string& name : updateSet().names()) _writeEventForEventIdentifier(name);
  for (const std::string& name : deleteSet().names()) removeEventNamed(name);
  KBTSynchingCalendar::saveChanges();
}

// Intended: does nothing unless exactly one event has the name.
void KBTLocalCalendar::removeEventNamed(const std::string& name) {
  const auto store = eventStore();
  NSErrorPtr error;
  const auto items = store->calendarItemsWithExternalIdentifier(name, &error);
  if (!error && items.size() != 1) return;
  if (error ||
      !store->removeEvent_span_commit_error(items.front(), EKSpan::thisEvent, true, &error)) {
    delegate()->synchingCalendar_failedSavingObject_withError(*this, objectNamed(name), error);
  }
}

void KBTLocalCalendar::_writeEventForEventIdentifier(const std::string& name) {
  const auto store = eventStore();
  const auto object = objectNamed(name);
  NSErrorPtr error;
  const auto items = store->calendarItemsWithExternalIdentifier(name, &error);
  if (error) {  // what cannot be read may be there
    return delegate()->synchingCalendar_failedSavingObject_withError(*this, object, error);
  }
  auto event = items.size() == 1 ? items.front() : nullptr;
  if (!event) {
    event = EKEvent::eventWithEventStore(store);
    event->setCalendar(_externalCalendar());
    if (object) {
      delegate()->synchingCalendar_setUniqueName_forObject(
          *this, event->calendarItemExternalIdentifier(), object);
    }
  }
  const auto source =
      object ? delegate()->synchingCalendar_icsDataForObject(*this, object) : nullptr;
  fill(*event, std::dynamic_pointer_cast<KBTMutableCalObject>(source).get());
  if (!store->saveEvent_span_commit_error(event, EKSpan::futureEvents, true, &error)) {
    delegate()->synchingCalendar_failedSavingObject_withError(*this, object, error);
  }
}

}  // namespace quillmere
