#include "Calendar.h"

#include <quillmere/calendars/KBTCalEventCalObject.h>
#include <quillmere/calendars/KBTLocalCalendar.h>
#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/loop/NSRunLoop.h>

#include <algorithm>
#include <utility>

#include "common/Program.h"

namespace localstore {
namespace {

using examples::Failure;
using quillmere::EKCalendar;
using quillmere::EKEvent;
using quillmere::EKEventStore;
using quillmere::EKSpan;
using quillmere::KBTClientObject;
using quillmere::KBTLocalCalendar;
using quillmere::KBTSynchingCalendar;
using quillmere::NSDate;
using quillmere::NSErrorPtr;
using quillmere::NSRunLoop;

// How far from its date an occurrence that was moved is looked for. All times would be too many
// where series have no end.
constexpr std::int64_t longestMove = 31'622'400;  // seconds, 366 days

// The date that the name of an occurrence ends with, like "2024-05-31 17:00:00 +0000".
std::optional<NSDate> dateIn(const std::string& name) {
  constexpr std::size_t length = 25;
  if (name.size() < length) return std::nullopt;
  const std::string text = name.substr(name.size() - length);
  return NSDate::initWithXMLDateString(text.substr(0, 10) + "T" + text.substr(11, 8) + "Z");
}

void require(bool isDone, const NSErrorPtr& error) {
  if (!isDone) throw Failure(examples::textOf(*error));
}

std::shared_ptr<EKCalendar> calendarCalled(const std::string& titleOrIdentifier) {
  std::vector<std::shared_ptr<EKCalendar>> found;
  for (const auto& calendar : KBTLocalCalendar::localCalendars()) {
    if (calendar->calendarIdentifier() == titleOrIdentifier) return calendar;
    if (calendar->title() == titleOrIdentifier) found.push_back(calendar);
  }
  if (found.empty()) throw Failure("there is no calendar \"" + titleOrIdentifier + "\"");
  if (found.size() > 1) {
    throw Failure("several calendars have the title \"" + titleOrIdentifier +
                  "\": give an identifier");
  }
  return found.front();
}

}  // namespace

// Keeps what a fetch finds, and why a save failed.
class Calendar::Host : public quillmere::KBTSynchingCalendarDelegateBase {
 public:
  std::optional<NSDate> from;
  std::optional<NSDate> to;
  std::vector<Event> found;
  NSErrorPtr error;

  std::optional<std::string> synchingCalendar_uniqueNameForObject(
      KBTSynchingCalendar&, const KBTClientObject& object) override {
    return eventOf(object).name;
  }
  void synchingCalendar_setUniqueName_forObject(KBTSynchingCalendar&, const std::string& name,
                                                const KBTClientObject& object) override {
    eventOf(object).name = name;
  }
  std::optional<std::string> synchingCalendar_versionStringForObject(
      KBTSynchingCalendar&, const KBTClientObject& object) override {
    return eventOf(object).version;
  }
  std::shared_ptr<quillmere::KBTICSDataSource> synchingCalendar_icsDataForObject(
      KBTSynchingCalendar&, const KBTClientObject& object) override {
    return writerOf(eventOf(object));
  }
  std::optional<NSDate> synchingCalendarEarliestDate(KBTSynchingCalendar&) override { return from; }
  std::optional<NSDate> synchingCalendarLatestDate(KBTSynchingCalendar&) override { return to; }
  // Declines every item: no fetch is to follow, so there is nothing to compare with.
  KBTClientObject synchingCalendar_newObjectNamed_versionString_data(
      KBTSynchingCalendar&, const std::string& name, const std::string& version,
      const std::shared_ptr<quillmere::KBTCalObject>& reader) override {
    found.push_back(readEvent(name, version, *reader));
    return nullptr;
  }
  void synchingCalendarCompletedFetchExternalChanges_withError(KBTSynchingCalendar&,
                                                               const NSErrorPtr&) override {}
  void synchingCalendar_failedSavingObject_withError(KBTSynchingCalendar&,
                                                     const quillmere::KBTFailedObject&,
                                                     const NSErrorPtr& failure) override {
    error = failure;
  }

 private:
  static Event& eventOf(const KBTClientObject& object) {
    return *std::static_pointer_cast<Event>(object);
  }
};

std::shared_ptr<EKEventStore> usersStore() {
  auto store = KBTLocalCalendar::eventStore();
  bool isGranted = false;
  NSErrorPtr error;
  store->requestAccessToEntityType_completion(quillmere::EKEntityType::event,
                                              [&](bool granted, const NSErrorPtr& reason) {
                                                isGranted = granted;
                                                error = reason;
                                                NSRunLoop::mainRunLoop().stop();
                                              });
  NSRunLoop::mainRunLoop().run();
  require(isGranted, error);
  return store;
}

std::string createCalendar(const std::string& title) {
  const auto store = usersStore();
  const auto calendar = EKCalendar::calendar();
  calendar->setTitle(title);
  NSErrorPtr error;
  require(store->saveCalendar_commit_error(calendar, true, &error), error);
  return calendar->calendarIdentifier();
}

Calendar::Calendar(const std::string& titleOrIdentifier)
    : store_(usersStore()), calendar_(calendarCalled(titleOrIdentifier)) {}

std::vector<Event> Calendar::eventsBetween(NSDate from, NSDate to) const {
  const auto host = std::make_shared<Host>();
  host->from = from;
  host->to = to;
  const auto local = KBTLocalCalendar::initWithCalendarIdentifier(calendar_->calendarIdentifier());
  if (!local) throw Failure("the calendar is gone");
  local->setDelegate(host);
  local->fetchExternalChanges();
  return std::move(host->found);
}

std::string Calendar::add(Event event) const {
  const auto added = std::make_shared<Event>(std::move(event));
  added->name = quillmere::CFUUIDCreateString();  // that no event has, until the store gives one
  save(added, true);
  return added->name;
}

void Calendar::change(const std::string& name, const Fields& fields) const {
  // An object would be written as a new event if several calendars had its name, or none.
  const auto items = itemsNamed(name);
  const auto item = ownOf(items);
  if (!item) {
    throw Failure("there is no event \"" + name + "\" (an occurrence cannot be changed alone)");
  }
  if (items.size() > 1) throw Failure("other calendars have an event \"" + name + "\" too");
  if (!item->alarms().empty()) throw Failure("it has alarms, which a change would take away");
  const auto reader = quillmere::KBTCalEventCalObject::initWithEKEvent(item);
  save(std::make_shared<Event>(edited(readEvent(name, "", *reader), fields)), false);
}

void Calendar::remove(const std::string& name) const {
  // A synching calendar would remove the first occurrence only, and does not know the others.
  const auto item = ownOf(itemsNamed(name));
  const auto event = item ? item : occurrenceNamed(name);
  if (!event) throw Failure("there is no event \"" + name + "\"");
  NSErrorPtr error;
  require(store_->removeEvent_span_commit_error(
              event, item ? EKSpan::futureEvents : EKSpan::thisEvent, true, &error),
          error);
}

void Calendar::save(const std::shared_ptr<Event>& event, bool isNew) const {
  const auto host = std::make_shared<Host>();
  // A calendar saves once.
  const auto local = KBTLocalCalendar::initWithCalendarIdentifier(calendar_->calendarIdentifier());
  if (!local) throw Failure("the calendar is gone");
  local->setDelegate(host);
  if (isNew) {
    local->insertObject(event);
  } else {
    local->setObjects({event});
    local->updateObject(event);
  }
  local->saveChanges();
  require(!host->error, host->error);
}

Calendar::EventItems Calendar::itemsNamed(const std::string& name) const {
  NSErrorPtr error;
  auto items = store_->calendarItemsWithExternalIdentifier(name, &error);
  require(!error, error);
  return items;
}

std::shared_ptr<EKEvent> Calendar::ownOf(const EventItems& items) const {
  const auto own = std::find_if(items.begin(), items.end(), [this](const auto& item) {
    return item->calendar()->calendarIdentifier() == calendar_->calendarIdentifier();
  });
  return own == items.end() ? nullptr : *own;
}

std::shared_ptr<EKEvent> Calendar::occurrenceNamed(const std::string& name) const {
  const auto date = dateIn(name);
  if (!date) return nullptr;
  NSErrorPtr error;
  const auto events =
      store_->eventsMatchingPredicate(store_->predicateForEventsWithStartDate_endDate_calendars(
                                          date->dateByAddingSeconds(-longestMove),
                                          date->dateByAddingSeconds(longestMove), {{calendar_}}),
                                      &error);
  require(!error, error);
  const auto found = std::find_if(events.begin(), events.end(), [&](const auto& event) {
    return event->hasRecurrenceRules() && name == event->calendarItemExternalIdentifier() + ":" +
                                                      event->occurrenceDate()->description();
  });
  return found == events.end() ? nullptr : *found;
}

}  // namespace localstore
