#ifndef QUILLMERE_TESTS_PLATFORM_EVENTS_EVENTHOST_H
#define QUILLMERE_TESTS_PLATFORM_EVENTS_EVENTHOST_H

#include <gtest/gtest.h>
#include <quillmere/platform/base/HWPreference.h>
#include <quillmere/platform/events/EKEventStore.h>
#include <quillmere/platform/loop/NSRunLoop.h>
#include <quillmere/platform/notifications/NSNotificationCenter.h>
#include <sqlite3.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace quillmere {

/// Says more than a test's failure would of a pointer.
inline void PrintTo(const NSErrorPtr& error, std::ostream* out) {
  if (!error) {
    *out << "no error";
    return;
  }
  *out << error->localizedDescription();
  PrintTo(error->underlyingError(), &(*out << " / "));
}

namespace testing {

using Event = std::shared_ptr<EKEvent>;
using Events = std::vector<Event>;

/// Of a UTC text such as "20240105T093000Z".
inline NSDate utc(std::string_view text) { return NSDate::initWithICSDateString(text).value(); }

inline const NSDate january = utc("20240101T000000Z");
inline const NSDate february = utc("20240201T000000Z");

inline NSTimeZone zone(std::string_view name) { return NSTimeZone::timeZoneWithName(name).value(); }

/// Runs the main run loop until that holds, for so many seconds at most. Whether it does.
inline bool runUntil(const std::function<bool()>& holds, int secondsToWait = 10) {
  const NSDate end = NSDate::date().dateByAddingSeconds(secondsToWait);
  while (!holds() && NSDate::date() < end) {
    NSRunLoop::mainRunLoop().runUntilDate(
        NSDate::dateWithMicrosecondsSince1970(NSDate::date().microsecondsSince1970() + 2'000));
  }
  return holds();
}

/// How often the main run loop has told of a store's changes.
struct ChangeCount {
  explicit ChangeCount(const std::shared_ptr<EKEventStore>& store)
      : observation(NSNotificationCenter::defaultCenter().addObserverForName_object_usingBlock(
            EKEventStoreChangedNotification, store, [this](const NSNotification&) { ++count; })) {}

  int count = 0;
  const std::shared_ptr<NSNotificationObservation> observation;
};

/// The first column of the last row, or the error: SQLite itself, beside the store.
inline std::string query(const std::string& path, const std::string& sql) {
  sqlite3* database = nullptr;
  std::string result;
  const auto take = [](void* text, int, char** columns, char**) {
    if (columns[0]) *static_cast<std::string*>(text) = columns[0];
    return 0;
  };
  sqlite3_open(path.c_str(), &database);
  sqlite3_busy_timeout(database, 10'000);
  if (sqlite3_exec(database, sql.c_str(), take, &result, nullptr) != SQLITE_OK) {
    result = sqlite3_errmsg(database);
  }
  sqlite3_close(database);
  return result;
}

/// Runs the main run loop while stores end on another thread, and a third one writes without pause.
inline void endStores(int count, const std::function<std::shared_ptr<EKEventStore>()>& open,
                      const std::function<void()>& write) {
  std::atomic<bool> isOver = false;
  std::thread ending([&] {
    for (int i = 0; i != count; ++i) EXPECT_NE(open(), nullptr);
    isOver = true;
  });
  std::thread writing([&] {
    while (!isOver) write();
  });
  constexpr int longEnough = 60;  // on a busy machine, too
  EXPECT_TRUE(runUntil([&] { return isOver.load(); }, longEnough));
  ending.join();
  writing.join();
}

/// A store and a calendar in it. The program's tests run twice: where QUILLMERE_TEST_EVOLUTION is
/// set, a store without a path of its own is Evolution's, where every host has a new calendar.
class EventHost {
 public:
  static bool usesEvolution() { return std::getenv("QUILLMERE_TEST_EVOLUTION") != nullptr; }

  EventHost() : EventHost(usesEvolution() ? evolutionStore() : storeAt(":memory:")) {}
  /// A new calendar in that store.
  explicit EventHost(std::shared_ptr<EKEventStore> given) : store(std::move(given)) {
    calendar->setTitle("test");
    EXPECT_TRUE(store->saveCalendar_commit_error(calendar, true, nullptr));
  }
  // Evolution's calendars would become more and more.
  ~EventHost() {
    if (usesEvolution()) store->removeCalendar_commit_error(calendar, true, nullptr);
  }
  EventHost(const EventHost&) = delete;
  EventHost& operator=(const EventHost&) = delete;
  explicit EventHost(const std::string& path) : store(storeAt(path)) {
    const auto calendars = store->calendarsForEntityType(EKEntityType::event);
    if (!calendars.empty()) calendar = calendars.front();
    if (calendars.empty()) store->saveCalendar_commit_error(calendar, true, nullptr);
  }

  /// A new event in UTC, not yet saved.
  Event newEvent(const std::optional<std::string>& title, NSDate start, NSDate end) const {
    Event event = EKEvent::eventWithEventStore(store);
    event->setCalendar(calendar);
    event->setTitle(title);
    event->setStartDate(start);
    event->setEndDate(end);
    event->setTimeZone(zone("UTC"));
    return event;
  }

  /// Null, or the error.
  NSErrorPtr save(const Event& event, EKSpan span = EKSpan::thisEvent) const {
    NSErrorPtr error;
    const bool isSaved = store->saveEvent_span_commit_error(event, span, true, &error);
    EXPECT_EQ(isSaved, error == nullptr);
    return error;
  }
  NSErrorPtr remove(const Event& event, EKSpan span = EKSpan::thisEvent) const {
    NSErrorPtr error;
    store->removeEvent_span_commit_error(event, span, true, &error);
    return error;
  }

  Events events(NSDate from = january, NSDate to = february) const {
    NSErrorPtr error;
    Events found = store->eventsMatchingPredicate(
        store->predicateForEventsWithStartDate_endDate_calendars(from, to, {{calendar}}), &error);
    if (error) ADD_FAILURE() << error->localizedDescription();
    return found;
  }

  /// The items with the identifier of an event.
  Events items(const Event& event) const {
    return store->calendarItemsWithExternalIdentifier(event->calendarItemExternalIdentifier());
  }

  /// "0105T0900-1000 title" for each event, with the day of the end where it is another, and
  /// " (was 0104T0900)" where it was moved.
  std::string listing(NSDate from = january, NSDate to = february) const {
    const auto textOf = [](NSDate date) { return date.icsDateString().substr(4, 9); };
    std::string lines;
    for (const Event& event : events(from, to)) {
      const std::string start = textOf(*event->startDate());
      const std::string end = textOf(*event->endDate());
      constexpr std::size_t dayLength = 5;
      const bool isOneDay = start.substr(0, dayLength) == end.substr(0, dayLength);
      lines += (lines.empty() ? "" : ", ") + start + "-" + end.substr(isOneDay ? dayLength : 0) +
               " " + event->title().value_or("(none)");
      if (event->occurrenceDate() == event->startDate()) continue;
      lines += " (was " + textOf(*event->occurrenceDate()) + ")";
    }
    return lines;
  }

  std::shared_ptr<EKEventStore> store;
  std::shared_ptr<EKCalendar> calendar = EKCalendar::calendar();

 private:
  static std::shared_ptr<EKEventStore> storeAt(const std::string& path) {
    NSErrorPtr error;
    auto store = EKEventStore::initWithDatabasePath_error(path, &error);
    if (!store) ADD_FAILURE() << error->localizedDescription();
    return store;
  }
  static std::shared_ptr<EKEventStore> evolutionStore() {
    HWPreference::preferenceForKey("EKEventStoreBackend")->setStringValue("evolution");
    return EKEventStore::init();
  }
};

}  // namespace testing
}  // namespace quillmere

#endif
