#include <quillmere/platform/base/HWPreference.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/events/EKEventStore.h>
#include <quillmere/platform/events/EventBackend.h>
#ifdef QUILLMERE_HAS_EVOLUTION
#include <quillmere/platform/events/EvolutionEventBackend.h>
#endif
#include <quillmere/platform/events/EventDatabaseFile.h>
#include <quillmere/platform/events/SQLiteEventBackend.h>
#include <quillmere/platform/loop/NSOperationQueue.h>
#include <quillmere/platform/notifications/NSNotificationCenter.h>

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>
#include <variant>

namespace quillmere {
namespace {

NSErrorPtr errorOf(EKErrorCode code, std::string description, NSErrorPtr underlying) {
  NSErrorUserInfo userInfo{{NSLocalizedDescriptionKey, std::move(description)}};
  if (underlying) userInfo[NSUnderlyingErrorKey] = std::move(underlying);
  return NSError::errorWithDomain_code_userInfo(EKErrorDomain, code, std::move(userInfo));
}

std::string preference(const char* key) {
  return HWPreference::preferenceForKey(key)->stringValue().value_or(std::string());
}

#ifndef QUILLMERE_HAS_EVOLUTION
std::shared_ptr<EventBackend> openEvolutionEventBackend() {
  throw EventError(EKErrorInternalFailure, "This library was built without Evolution.");
}
#endif

std::shared_ptr<EventBackend> openUsersBackend() {
  const std::string wanted = preference("EKEventStoreBackend");
  if (wanted == "evolution") return openEvolutionEventBackend();
  if (wanted == "auto") {
    try {
      return openEvolutionEventBackend();
    } catch (const EventError&) {
      // Where the desktop has no store, ours serves.
    }
  }
  const std::string path = preference("EKEventStoreDatabasePath");
  return openSQLiteEventBackend(path.empty() ? defaultEventDatabasePath() : path);
}

}  // namespace

EventError::EventError(EKErrorCode code, std::string description, NSErrorPtr underlying)
    : error_(errorOf(code, std::move(description), std::move(underlying))) {}

EKEventStore::EKEventStore(std::shared_ptr<EventBackend> backend, NSErrorPtr openingError)
    : backend_(std::move(backend)),
      openingError_(std::move(openingError)),
      isDenied_(preference("EKEventStoreAccess") == "denied") {}

EKEventStore::~EKEventStore() = default;

std::shared_ptr<EKEventStore> EKEventStore::storeOver(std::shared_ptr<EventBackend> backend,
                                                      NSErrorPtr openingError) {
  auto store = makeObject<EKEventStore>(std::move(backend), std::move(openingError));
  if (!store->backend_) return store;
  store->backend_->setChangeHandler([weak = std::weak_ptr<EKEventStore>(store)] {
    if (const auto changed = weak.lock()) changed->noteChange();
  });
  return store;
}

std::shared_ptr<EKEventStore> EKEventStore::init() {
  try {
    return storeOver(openUsersBackend(), nullptr);
  } catch (const EventError& failure) {
    return storeOver(nullptr, failure.error());
  }
}

std::shared_ptr<EKEventStore> EKEventStore::initWithDatabasePath_error(const std::string& path,
                                                                       NSErrorPtr* error) {
  try {
    return storeOver(openSQLiteEventBackend(path), nullptr);
  } catch (const EventError& failure) {
    if (error) *error = failure.error();
    return nullptr;
  }
}

void EKEventStore::requestAccessToEntityType_completion(
    EKEntityType, std::function<void(bool granted, NSErrorPtr error)> completion) {
  NSErrorPtr error = openingError_;
  if (isDenied_) {
    error = EventError(EKErrorEventStoreNotAuthorized, "Access to the event store was refused.")
                .error();
  }
  NSOperationQueue::mainQueue().addOperationWithBlock(
      [completion = std::move(completion), error = std::move(error)] {
        completion(error == nullptr, error);
      });
}

// Carries out what needs the backend. Whether it worked; `error` is left alone then.
template <class Operation>
bool EKEventStore::attempt(NSErrorPtr* error, const Operation& operation) {
  try {
    if (isDenied_) {
      throw EventError(EKErrorEventStoreNotAuthorized, "Access to the event store was refused.");
    }
    if (!backend_) throw EventError(openingError_);
    operation();
    return true;
  } catch (const EventError& failure) {
    if (error) *error = failure.error();
    return false;
  }
}

std::vector<std::shared_ptr<EKCalendar>> EKEventStore::readCalendars() {
  std::vector<std::shared_ptr<EKCalendar>> calendars;
  for (CalendarRecord& record : backend_->calendars()) {
    calendars.push_back(
        makeObject<EKCalendar>(std::move(record.identifier), std::move(record.title)));
  }
  return calendars;
}

std::vector<std::shared_ptr<EKCalendar>> EKEventStore::calendarsForEntityType(EKEntityType type) {
  std::vector<std::shared_ptr<EKCalendar>> calendars;
  if (type == EKEntityType::event) attempt(nullptr, [&] { calendars = readCalendars(); });
  return calendars;
}

std::shared_ptr<EKCalendar> EKEventStore::calendarWithIdentifier(const std::string& identifier) {
  const auto calendars = calendarsForEntityType(EKEntityType::event);
  const auto found = std::find_if(calendars.begin(), calendars.end(), [&](const auto& calendar) {
    return calendar->calendarIdentifier() == identifier;
  });
  return found == calendars.end() ? nullptr : *found;
}

bool EKEventStore::saveCalendar_commit_error(const std::shared_ptr<EKCalendar>& calendar, bool,
                                             NSErrorPtr* error) {
  return attempt(error, [&] {
    CalendarRecord record{calendar->identifier_, calendar->title_};
    backend_->saveCalendar(record);
    calendar->identifier_ = std::move(record.identifier);
    noteChange();
  });
}

bool EKEventStore::removeCalendar_commit_error(const std::shared_ptr<EKCalendar>& calendar, bool,
                                               NSErrorPtr* error) {
  return attempt(error, [&] {
    backend_->removeCalendar(calendar->identifier_);
    noteChange();
  });
}

EKEventPredicate EKEventStore::predicateForEventsWithStartDate_endDate_calendars(
    NSDate startDate, NSDate endDate,
    const std::optional<std::vector<std::shared_ptr<EKCalendar>>>& calendars) const {
  EKEventPredicate predicate{startDate, endDate, std::nullopt};
  if (!calendars) return predicate;
  predicate.calendarIdentifiers.emplace();
  for (const auto& calendar : *calendars) {
    predicate.calendarIdentifiers->push_back(calendar->calendarIdentifier());
  }
  return predicate;
}

std::vector<std::shared_ptr<EKEvent>> EKEventStore::eventsMatchingPredicate(
    const EKEventPredicate& predicate, NSErrorPtr* error) {
  std::vector<std::shared_ptr<EKEvent>> events;
  const auto& wanted = predicate.calendarIdentifiers;
  const bool isRead = attempt(error, [&] {
    if (predicate.endDate <= predicate.startDate) return;
    for (const auto& calendar : readCalendars()) {
      const std::string& identifier = calendar->calendarIdentifier();
      if (wanted && std::find(wanted->begin(), wanted->end(), identifier) == wanted->end()) {
        continue;
      }
      backend_->readEvents(
          identifier, predicate.startDate, predicate.endDate, [&](EventRecord record) {
            events.push_back(
                makeObject<EKEvent>(weak_from_this(), calendar,
                                    std::make_shared<const EventRecord>(std::move(record))));
          });
    }
  });
  if (!isRead) return {};
  std::stable_sort(events.begin(), events.end(), [](const auto& a, const auto& b) {
    return std::tie(*a->stored_->start, a->stored_->identifier) <
           std::tie(*b->stored_->start, b->stored_->identifier);
  });
  return events;
}

std::vector<std::shared_ptr<EKEvent>> EKEventStore::calendarItemsWithExternalIdentifier(
    const std::string& identifier, NSErrorPtr* error) {
  std::vector<std::shared_ptr<EKEvent>> events;
  const bool isRead = attempt(error, [&] {
    const auto calendars = readCalendars();
    backend_->readItems(identifier, [&](EventRecord record) {
      const auto calendar = std::find_if(
          calendars.begin(), calendars.end(),
          [&](const auto& known) { return known->calendarIdentifier() == record.calendar; });
      if (calendar == calendars.end()) return;  // one made since
      events.push_back(makeObject<EKEvent>(weak_from_this(), *calendar,
                                           std::make_shared<const EventRecord>(std::move(record))));
    });
  });
  if (!isRead) return {};
  return events;
}

bool EKEventStore::saveEvent_span_commit_error(const std::shared_ptr<EKEvent>& event, EKSpan span,
                                               bool, NSErrorPtr* error) {
  return attempt(error, [&] {
    if (event->store_.lock().get() != this) {
      throw EventError(EKErrorObjectBelongsToDifferentStore, "The event is of another store.");
    }
    EventRecord record = event->record();
    if (record.calendar.empty()) throw EventError(EKErrorNoCalendar, "The event has no calendar.");
    normalizeTimes(record);
    backend_->saveEvent(event->stored_.get(), record, span);
    event->stored_ = std::make_shared<const EventRecord>(std::move(record));
    event->edited_.reset();
    noteChange();
  });
}

bool EKEventStore::removeEvent_span_commit_error(const std::shared_ptr<EKEvent>& event, EKSpan span,
                                                 bool, NSErrorPtr* error) {
  return attempt(error, [&] {
    if (event->store_.lock().get() != this) {
      throw EventError(EKErrorObjectBelongsToDifferentStore, "The event is of another store.");
    }
    if (!event->stored_) {
      throw EventError(EKErrorInternalFailure, "The event has never been saved.");
    }
    backend_->removeEvent(*event->stored_, span);
    noteChange();
  });
}

void EKEventStore::noteChange() {
  if (isChangeNoted_.exchange(true)) return;
  NSOperationQueue::mainQueue().addOperationWithBlock([weak = weak_from_this()] {
    const auto store = weak.lock();
    if (!store) return;
    store->isChangeNoted_ = false;
    NSNotificationCenter::defaultCenter().postNotificationName_object_userInfo(
        EKEventStoreChangedNotification, store, {});
  });
}

}  // namespace quillmere
