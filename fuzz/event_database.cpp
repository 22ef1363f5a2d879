// Any bytes as the file of an event database: opened, read, and written to. The seeds have the smallest
// pages that there are.

#include <quillmere/platform/events/EKEventStore.h>
#include <quillmere/platform/loop/NSRunLoop.h>

#include <filesystem>

#include "fuzz/Fuzzing.h"
#include "tests/support/TemporaryFolder.h"

namespace quillmere {
namespace {

namespace fs = std::filesystem;
using fuzzing::require;

// In memory, where there is such a folder.
const testing::TemporaryFolder& folder() {
  static const testing::TemporaryFolder made = [] {
    const char* const memory = "/dev/shm";
    if (fs::is_directory(memory)) ::setenv("TMPDIR", memory, 0);
    return testing::TemporaryFolder();
  }();
  return made;
}

NSDate date(const char* text) { return NSDate::initWithICSDateString(text).value(); }

// Reads everything. A damaged database may fail at any operation, with an error; what it gave can be
// used all the same.
void read(EKEventStore& store) {
  const auto calendars = store.calendarsForEntityType(EKEntityType::event);
  const NSDate from = date("20240101T000000Z");
  const NSDate to = date("20240201T000000Z");
  NSErrorPtr error;
  const auto events = store.eventsMatchingPredicate(
      store.predicateForEventsWithStartDate_endDate_calendars(from, to, std::nullopt), &error);
  require(!error || events.empty(), "there is an error or there are events");
  for (const auto& event : events) {
    require(*event->startDate() < to && (*event->endDate() > from || *event->startDate() >= from),
            "an event lies in the range that was asked for");
  }
}

void write(EKEventStore& store, std::size_t which) {
  const NSDate start = date("20240105T090000Z");
  const auto all =
      store.predicateForEventsWithStartDate_endDate_calendars(start, date("20240120T000000Z"), {});
  const EKSpan span = which % 2 == 0 ? EKSpan::thisEvent : EKSpan::futureEvents;
  auto events = store.eventsMatchingPredicate(all);
  if (!events.empty()) {
    const auto& event = events[which % events.size()];
    event->setTitle("new");
    event->setStartDate(event->startDate()->dateByAddingSeconds(-60));
    NSErrorPtr error;
    const bool isSaved = store.saveEvent_span_commit_error(event, span, true, &error);
    require(isSaved == (error == nullptr), "a save succeeds or has an error");
    for (const auto& item :
         store.calendarItemsWithExternalIdentifier(event->calendarItemExternalIdentifier())) {
      store.removeEvent_span_commit_error(item, span, true, nullptr);
    }
  }
  const auto calendars = store.calendarsForEntityType(EKEntityType::event);
  if (calendars.empty()) return;
  const auto event = EKEvent::eventWithEventStore(store.shared_from_this());
  event->setCalendar(calendars[which % calendars.size()]);
  event->setStartDate(start);
  store.saveEvent_span_commit_error(event, span, true, nullptr);
  store.removeCalendar_commit_error(event->calendar(), true, nullptr);
}

void check(std::string_view bytes) {
  const std::string path = folder() / "events";
  testing::writeFile(path, bytes);
  NSErrorPtr error;
  if (const auto store = EKEventStore::initWithDatabasePath_error(path, &error)) {
    read(*store);
    write(*store, bytes.size());
    read(*store);
    NSRunLoop::mainRunLoop().runUntilDate(NSDate::date());  // what was put off is done
  } else {
    require(error != nullptr, "a refusal has a reason");
    require(testing::readFile(path) == bytes, "a refused file stays as it is");
    require(folder().entryCount() == 1, "and nothing lies beside it");
  }
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) fs::remove(path + suffix);
}

}  // namespace
}  // namespace quillmere

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  quillmere::check(quillmere::fuzzing::viewOf(bytes, count));
  return 0;
}
