// Fetches a month of events from SQLite event stores of different sizes, and saves events beside
// bare SQLite: by the store, and by a local calendar.

#include <quillmere/calendars/KBTLocalCalendar.h>
#include <quillmere/ical/KBTMutableCalObject.h>
#include <quillmere/platform/events/EKEventStore.h>
#include <sqlite3.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "Process.h"
#include "Race.h"
#include "RecordingHost.h"

namespace {

using namespace benchmarks;
using quillmere::EKCalendar, quillmere::EKEvent, quillmere::EKEventStore, quillmere::NSDate;
using quillmere::KBTLocalCalendar, quillmere::KBTMutableCalObject;

namespace fs = std::filesystem;

constexpr std::size_t manyEvents = 100'000;
constexpr std::size_t fewEvents = 10'000;
constexpr std::size_t eventsOfAMonth = 300;
constexpr std::size_t saves = 1'000;
constexpr std::size_t turn = 20;  // saves by one, before the other comes
constexpr std::int64_t secondsOfAMonth = std::int64_t{30} * 86'400;
constexpr std::int64_t eventInterval = secondsOfAMonth / std::int64_t(eventsOfAMonth);
constexpr std::int64_t firstSecond = 1'704'067'200;  // 2024
constexpr const char* notes =
    "What there is to say about it, in a sentence or two of usual length.";

NSDate dateAt(std::int64_t seconds) {
  return NSDate::dateWithMicrosecondsSince1970(seconds * NSDate::microsecondsPerSecond);
}

std::int64_t startOf(std::size_t number) {
  return firstSecond + std::int64_t(number) * eventInterval;
}

std::string titleOf(std::size_t number) { return "Event " + std::to_string(number); }

// A folder in memory where there is one: making a store waits for the disk with every event.
class Folder {
 public:
  explicit Folder(const fs::path& parent) {
    std::string name = (parent / "quillmere-XXXXXX").string();
    require(::mkdtemp(name.data()) != nullptr, "there is no temporary folder");
    path_ = name;
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() { fs::remove_all(path_); }

  std::string operator/(const char* name) const { return path_ / name; }

 private:
  fs::path path_;
};

struct Store {
  explicit Store(const std::string& path)
      : store(EKEventStore::initWithDatabasePath_error(path, nullptr)) {
    require(store != nullptr, "a store was not opened");
    const auto calendars = store->calendarsForEntityType(quillmere::EKEntityType::event);
    calendar = calendars.empty() ? EKCalendar::calendar() : calendars.front();
    if (calendars.empty()) store->saveCalendar_commit_error(calendar, true, nullptr);
  }

  // Every fortieth is repeated weekly, four times. The others happen once.
  void save(std::size_t number) const {
    const auto event = EKEvent::eventWithEventStore(store);
    event->setCalendar(calendar);
    event->setTitle(titleOf(number));
    event->setNotes(notes);
    event->setStartDate(dateAt(startOf(number)));
    event->setEndDate(dateAt(startOf(number) + 3'600));
    if (number % 40 == 0) event->setRecurrenceRule("FREQ=WEEKLY;COUNT=4");
    require(store->saveEvent_span_commit_error(event, quillmere::EKSpan::thisEvent, true, nullptr),
            "an event was not saved");
  }

  // The events of so many months, from the tenth on.
  std::size_t fetch(std::int64_t months = 1) const {
    constexpr std::int64_t from = firstSecond + 10 * secondsOfAMonth;
    return store
        ->eventsMatchingPredicate(store->predicateForEventsWithStartDate_endDate_calendars(
            dateAt(from), dateAt(from + months * secondsOfAMonth), {{calendar}}))
        .size();
  }

  std::shared_ptr<EKEventStore> store;
  std::shared_ptr<EKCalendar> calendar;
};

void fill(const std::string& path, std::size_t events) {
  const Store store(path);
  for (std::size_t i = 0; i != events; ++i) store.save(i);
}

void measureQueries(const std::string& manyPath, const std::string& fewPath) {
  const Store many(manyPath);
  const Store few(fewPath);
  const auto passOf = [](const Store& store) {
    return [&store] {
      const std::size_t found = store.fetch();
      require(found > eventsOfAMonth && found < 2 * eventsOfAMonth, "a month has other events");
      return nullptr;
    };
  };
  Race race;
  const auto& ofMany = race.add("month of 100,000 events", 1, passOf(many), 20);
  const auto& ofFew = race.add("month of 10,000 events", 1, passOf(few), 20);
  race.run();

  const double ratio = ofMany.seconds / ofFew.seconds;
  const std::string ours = formatted(1e3 * ofMany.seconds, "%.2f ms");
  print({"EKEventStore: a month (" + std::to_string(many.fetch()) + " events) of 100,000", ours, "",
         "", "under 5 ms", yesNo(ofMany.seconds < 5e-3)});
  print({"the same month of 10,000 events", ours, formatted(1e3 * ofFew.seconds, "%.2f ms"),
         times(ratio), "at most 1.5 x", yesNo(ratio <= 1.5)});
}

// A row of what an event is, committed as the store does it: with a log, flushed every time.
class BareSQLite {
 public:
  explicit BareSQLite(const std::string& path) {
    require(sqlite3_open(path.c_str(), &database_) == SQLITE_OK, "SQLite did not open a file");
    run("PRAGMA journal_mode = WAL");
    run("PRAGMA synchronous = FULL");
    run("CREATE TABLE events(id INTEGER PRIMARY KEY, identifier TEXT, start INTEGER, end INTEGER,"
        " title TEXT, notes TEXT)");
    run("CREATE INDEX by_identifier ON events(identifier)");
    run("CREATE INDEX by_start ON events(start)");
    sqlite3_prepare_v2(database_,
                       "INSERT INTO events(identifier, start, end, title, notes)"
                       " VALUES(?1, ?2, ?3, ?4, ?5)",
                       -1, &insert_, nullptr);
  }
  BareSQLite(const BareSQLite&) = delete;
  BareSQLite& operator=(const BareSQLite&) = delete;
  ~BareSQLite() {
    sqlite3_finalize(insert_);
    sqlite3_close(database_);
  }

  void save(std::size_t number) {
    const std::int64_t start = startOf(number);
    const std::string title = titleOf(number);
    const std::string identifier = title + " of 36 characters, like a UUID";
    run("BEGIN IMMEDIATE");
    sqlite3_bind_text(insert_, 1, identifier.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(insert_, 2, start);
    sqlite3_bind_int64(insert_, 3, start + 3'600);
    sqlite3_bind_text(insert_, 4, title.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(insert_, 5, notes, -1, SQLITE_STATIC);
    require(sqlite3_step(insert_) == SQLITE_DONE, "SQLite did not insert a row");
    sqlite3_reset(insert_);
    run("COMMIT");
  }

 private:
  void run(const char* sql) {
    require(sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) == SQLITE_OK,
            "SQLite did not run a statement");
  }

  sqlite3* database_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
};

// Where saves go, and how they are timed there: without a disk to wait for, the processor's time is
// what counts, and a single round takes too little of it.
struct Place {
  const char* name;
  fs::path path;
  double Times::*clock;
  int rounds;
};

void printRates(const char* measure, const Place& place, const Times& ours, const Times& theirs) {
  const auto rate = [&](const Times& times) {
    return formatted(place.rounds * static_cast<double>(saves) / times.*place.clock, "%.0f/s");
  };
  const double ratio = theirs.*place.clock / ours.*place.clock;
  print({std::string(measure) + " " + place.name + ", each committed; bare SQLite", rate(ours),
         rate(theirs), percent(ratio), "at least 50 %", yesNo(ratio >= 0.5)});
}

// In turns: how long the disk takes changes from second to second.
void measureSaves(const Place& place) {
  const Folder folder(place.path);
  const Store store(folder / "ours");
  BareSQLite bare(folder / "bare");
  Times ours{0, 0};
  Times theirs{0, 0};
  for (std::size_t i = 0; i != std::size_t(place.rounds) * saves; i += turn) {
    const Times start = Times::now();
    for (std::size_t j = i; j != i + turn; ++j) store.save(j);
    const Times between = Times::now();
    for (std::size_t j = i; j != i + turn; ++j) bare.save(j);
    const Times end = Times::now();
    ours += between - start;
    theirs += end - between;
  }
  printRates("EKEventStore: 1,000 saves", place, ours, theirs);
}

// A host whose objects are new events. Whenever some of them were saved, as many rows are saved by
// bare SQLite: in turns, since how long the disk takes changes from second to second.
class SavingHost : public RecordingHost {
 public:
  explicit SavingHost(BareSQLite& bare) : bare_(bare) {}

  Times bareTimes{0, 0};
  std::size_t failures = 0;

 private:
  std::shared_ptr<quillmere::KBTICSDataSource> synchingCalendar_icsDataForObject(
      quillmere::KBTSynchingCalendar&, const quillmere::KBTClientObject& object) override {
    const std::size_t number = std::stoul(static_cast<const Object*>(object.get())->uniqueName);
    if (number % turn == 0) saveBare(number);
    auto writer =
        KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration("VEVENT", false);
    writer->appendKey_stringValue("SUMMARY", titleOf(number));
    writer->appendKey_stringValue("DESCRIPTION", notes);
    writer->appendKey_datetimeValue("DTSTART", dateAt(startOf(number)));
    writer->appendKey_datetimeValue("DTEND", dateAt(startOf(number) + 3'600));
    return writer;
  }
  void synchingCalendar_failedSavingObject_withError(quillmere::KBTSynchingCalendar&,
                                                     const quillmere::KBTFailedObject&,
                                                     const quillmere::NSErrorPtr&) override {
    ++failures;
  }

  void saveBare(std::size_t first) {
    const Times start = Times::now();
    for (std::size_t i = first; i != first + turn; ++i) bare_.save(i);
    bareTimes += Times::now() - start;
  }

  BareSQLite& bare_;
};

// The times of one save with all the events in it, and of bare SQLite.
std::pair<Times, Times> timesOfLocalSave(const std::string& identifier, BareSQLite& bare) {
  const auto host = std::make_shared<SavingHost>(bare);
  const auto calendar = KBTLocalCalendar::initWithCalendarIdentifier(identifier);
  calendar->setDelegate(host);
  for (std::size_t i = 0; i != saves; ++i) {
    calendar->insertObject(
        std::make_shared<RecordingHost::Object>(RecordingHost::Object{std::to_string(i), ""}));
  }
  const Times start = Times::now();
  calendar->saveChanges();
  const Times all = Times::now() - start;
  require(host->failures == 0, "a local calendar did not save its events");
  return {all - host->bareTimes, host->bareTimes};
}

// In a process of its own, since a process has one user's store.
void measureLocalSaves(const Place& place) {
  struct Result {
    Times ours{0, 0}, theirs{0, 0};
  };
  const auto [ours, theirs] = resultOfChild([&] {
    const Folder folder(place.path);
    ::setenv("XDG_DATA_HOME", (folder / "").c_str(), 1);
    const auto stored = EKCalendar::calendar();
    require(KBTLocalCalendar::eventStore()->saveCalendar_commit_error(stored, true, nullptr),
            "a calendar was not saved");
    BareSQLite bare(folder / "bare");
    Result sum;
    for (int round = 0; round != place.rounds; ++round) {
      const auto [ourTimes, theirTimes] = timesOfLocalSave(stored->calendarIdentifier(), bare);
      sum.ours += ourTimes;
      sum.theirs += theirTimes;
    }
    return sum;
  });
  printRates("KBTLocalCalendar: 1,000 events in one save", place, ours, theirs);
}

// Bytes by which a fetch raises the memory of a process that has only opened the store.
double memoryOfFetch(const std::string& path, std::int64_t months) {
  return resultOfChild([&] {
    const Store store(path);
    const double before = Memory::now().resident;
    require(store.fetch(months) > eventsOfAMonth, "a fetch found too few events");
    return Memory::now().peak - before;
  });
}

void measureMemory(const std::string& manyPath, const std::string& fewPath) {
  const double ofMany = memoryOfFetch(manyPath, 1);
  const double ofFew = memoryOfFetch(fewPath, 1);
  const auto kilobytes = [](double bytes) { return formatted(bytes / 1e3, "%.0f kB"); };
  const double ratio = ofMany / ofFew;
  print({"EKEventStore: memory of fetching a month of 100,000; of 10,000 events", kilobytes(ofMany),
         kilobytes(ofFew), times(ratio), "at most 1.5 x", yesNo(ratio <= 1.5)});
  const double ofYears = memoryOfFetch(manyPath, 120);
  print({"the same, ten years of 100,000; a month", kilobytes(ofYears), kilobytes(ofMany),
         times(ofYears / ofMany), "", ""});
}

}  // namespace

int main() {
  const fs::path temporary = fs::temp_directory_path();
  const Place disk{"on disk", temporary, &Times::wall, 1};
  const Place memory{"in memory", fs::is_directory("/dev/shm") ? "/dev/shm" : temporary,
                     &Times::processor, 10};
  const Folder folder(memory.path);
  // In processes of their own, so that no memory lies ready for the fetches.
  waitForChild(startChild([&] {
    fill(folder / "many", manyEvents);
    fill(folder / "few", fewEvents);
  }));
  measureMemory(folder / "many", folder / "few");
  measureQueries(folder / "many", folder / "few");
  for (const Place& place : {disk, memory}) {
    measureSaves(place);
    measureLocalSaves(place);
  }
}
