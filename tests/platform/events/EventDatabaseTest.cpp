#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <quillmere/platform/base/HWPreference.h>
#include <quillmere/platform/events/EKEventStore.h>
#include <quillmere/platform/notifications/NSNotificationCenter.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/platform/events/EventHost.h"
#include "tests/support/TemporaryFolder.h"

namespace quillmere {
namespace {

namespace fs = std::filesystem;
using testing::Event, testing::EventHost, testing::readFile, testing::runUntil,
    testing::TemporaryFolder, testing::utc, testing::writeFile;
using ::testing::HasSubstr, ::testing::IsEmpty, ::testing::SizeIs;

const NSDate january = utc("20240101T000000Z");
const NSDate february = utc("20240201T000000Z");

Event anEvent(const EventHost& host, const std::string& title = "a") {
  return host.newEvent(title, utc("20240105T090000Z"), utc("20240105T100000Z"));
}

// The first column of the first row; SQLite itself, beside the store.
std::string query(const std::string& path, const char* sql) {
  sqlite3* database = nullptr;
  std::string result;
  const auto take = [](void* text, int, char** columns, char**) {
    if (columns[0]) *static_cast<std::string*>(text) = columns[0];
    return 0;
  };
  char* error = nullptr;
  if (sqlite3_open(path.c_str(), &database) != SQLITE_OK ||
      sqlite3_exec(database, sql, take, &result, &error) != SQLITE_OK) {
    result = error ? error : "not opened";
  }
  sqlite3_free(error);
  sqlite3_close(database);
  return result;
}

// A process that works until it is told to end or is killed. It begins when it is told to, since a
// process must not start another one while it has a database open that both use.
class Child {
 public:
  explicit Child(const std::function<void(int reports)>& work) {
    int start[2];
    int reports[2];
    if (::pipe(start) != 0 || ::pipe(reports) != 0) return;
    process_ = ::fork();
    if (process_ == 0) {
      char c = 0;
      ::close(start[1]);
      if (::read(start[0], &c, 1) == 1) work(reports[1]);
      ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    ::close(start[0]);
    ::close(reports[1]);
    start_ = start[1];
    reports_ = reports[0];
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    ::close(start_);
    ::close(reports_);
  }

  void begin() const { EXPECT_EQ(::write(start_, "x", 1), 1); }
  void waitForReport() const {
    pollfd reports{reports_, POLLIN, 0};
    EXPECT_EQ(::poll(&reports, 1, 10'000), 1);
  }
  void kill() const { ::kill(process_, SIGKILL); }
  /// What it has reported, once it has ended; `status` is its exit status.
  std::string wait(int* status = nullptr) const {
    std::string text;
    char buffer[4096];
    for (ssize_t length = 0; (length = ::read(reports_, buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<std::size_t>(length));
    }
    int ended = 0;
    ::waitpid(process_, &ended, 0);
    if (status) *status = ended;
    return text;
  }

 private:
  pid_t process_ = 0;
  int start_ = -1;
  int reports_ = -1;
};

TEST(EventDatabase, HasEveryReportedSaveWholeAfterAKill) {
  constexpr std::size_t exceptions = 5;
  constexpr int rounds = 200;
  constexpr int roundsOfAFile = 10;
  const TemporaryFolder folder;
  std::mt19937 random(1);
  std::size_t saves = 0;
  for (int round = 0; round < rounds; ++round) {
    const std::string path = folder / ("events" + std::to_string(round / roundsOfAFile));
    // Each event is several rows; every other one is removed again.
    const Child writer([&](int reports) {
      const EventHost host(path);
      for (int i = 0;; ++i) {
        const Event event = anEvent(host);
        event->setRecurrenceRule("FREQ=DAILY;COUNT=20");
        std::vector<NSDate> dates;
        for (std::size_t day = 1; day <= exceptions; ++day) {
          dates.push_back(event->startDate()->dateByAddingSeconds(86'400 * std::int64_t(day)));
        }
        event->setExceptionDates(dates);
        EXPECT_EQ(host.save(event), nullptr);
        if (i % 2 == 1) {
          EXPECT_EQ(host.remove(event, EKSpan::futureEvents), nullptr);
          continue;
        }
        const std::string line = event->calendarItemExternalIdentifier() + "\n";
        EXPECT_EQ(::write(reports, line.data(), line.size()), ssize_t(line.size()));
      }
    });
    // While it opens or makes the database, or while it writes.
    writer.begin();
    if (round % 2 == 0) writer.waitForReport();
    ::usleep(std::uniform_int_distribution<unsigned>(0, 15'000)(random));
    writer.kill();
    const std::string reports = writer.wait();

    ASSERT_EQ(query(path, "PRAGMA integrity_check"), "ok");
    ASSERT_EQ(query(path, "PRAGMA foreign_key_check"), "");
    const EventHost host(path);
    std::set<std::string> found;
    for (const Event& event : host.events(january, february)) {
      found.insert(event->calendarItemExternalIdentifier());
    }
    for (const std::string& identifier : found) {
      const auto items = host.store->calendarItemsWithExternalIdentifier(identifier);
      ASSERT_THAT(items, SizeIs(1));
      ASSERT_THAT(items[0]->exceptionDates(), SizeIs(exceptions)) << "half-written";
    }
    constexpr std::size_t lineLength = 37;
    for (std::size_t at = 0; at + lineLength <= reports.size(); at += lineLength) {
      ASSERT_TRUE(found.contains(reports.substr(at, lineLength - 1))) << "a reported save is lost";
      ++saves;
    }
  }
  EXPECT_GE(saves, 100U) << "the writers were killed before they wrote";
}

TEST(EventDatabase, TakesTheWritesOfTwoProcesses) {
  constexpr std::size_t events = 150;
  const TemporaryFolder folder;
  const std::string path = folder / "events";
  const auto write = [&](const std::string& title) {
    const EventHost host(path);
    for (std::size_t i = 0; i != events; ++i) {
      ASSERT_EQ(host.save(anEvent(host, title)), nullptr);
    }
  };
  const Child other([&](int) { write("theirs"); });
  const Child third([&](int) { write("third"); });
  other.begin();  // all make the file at the same time
  third.begin();
  write("ours");
  int status = -1;
  other.wait(&status);
  EXPECT_EQ(status, 0);
  third.wait(&status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(query(path, "SELECT count(*) FROM events"), std::to_string(3 * events));
  EXPECT_EQ(query(path, "PRAGMA integrity_check"), "ok");
}

// To close any descriptor of a file takes all locks away that the process has on it; then another one
// would believe that nobody uses the database, and put its log away.
TEST(EventDatabase, KeepsItsLocksThoughAnotherStoreIsClosed) {
  const TemporaryFolder folder;
  const std::string path = folder / "events";
  const auto add = [&](const std::string& title) {
    const EventHost host(path);
    ASSERT_EQ(host.save(anEvent(host, title)), nullptr);
  };
  const Child writer([&](int) { add("theirs"); });
  const Child reader(
      [&](int) { EXPECT_THAT(EventHost(path).events(january, february), SizeIs(3)); });
  const EventHost host(path);
  add("ours");
  int status = -1;
  writer.begin();
  writer.wait(&status);
  EXPECT_EQ(status, 0);
  ASSERT_EQ(host.save(anEvent(host)), nullptr);
  reader.begin();
  reader.wait(&status);
  EXPECT_EQ(status, 0);
}

TEST(EventDatabase, TellsOfChangesByOtherProcesses) {
  const TemporaryFolder folder;
  const std::string path = folder / "events";
  const Child other([&](int) {
    const EventHost host(path);
    host.save(anEvent(host));
  });
  const EventHost host(path);
  int posted = 0;
  const auto observation =
      NSNotificationCenter::defaultCenter().addObserverForName_object_usingBlock(
          EKEventStoreChangedNotification, host.store, [&](const NSNotification&) { ++posted; });
  EXPECT_TRUE(runUntil([&] { return posted == 1; })) << "the host's own calendar";
  other.begin();
  EXPECT_TRUE(runUntil([&] { return posted == 2; }));
  EXPECT_THAT(host.events(january, february), SizeIs(1));
  int status = -1;
  other.wait(&status);
  EXPECT_EQ(status, 0);
}

TEST(EventDatabase, MayEndOnAnyThread) {
  const TemporaryFolder folder;
  const std::string path = folder / "events";
  const EventHost host(path);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
  // So often that most stores end while they are told of it.
  sqlite3_busy_timeout(other, 10'000);
  sqlite3_exec(other, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
  testing::endStores(
      1000, [&] { return EKEventStore::initWithDatabasePath_error(path, nullptr); },
      [&] {
        EXPECT_EQ(
            sqlite3_exec(other, "UPDATE calendars SET title = random()", nullptr, nullptr, nullptr),
            SQLITE_OK);
      });
  sqlite3_close(other);
}

TEST(EventDatabase, LeavesForeignFilesAsTheyAre) {
  const TemporaryFolder folder;
  writeFile(folder / "text", "BEGIN:VCALENDAR\r\n");
  writeFile(folder / "long text", std::string(5000, 'x'));
  writeFile(folder / "magic only", std::string("SQLite format 3\0", 16));
  query(folder / "other's",
        "PRAGMA journal_mode = WAL; CREATE TABLE t(a); INSERT INTO t VALUES(1)");
  query(folder / "other id", "PRAGMA application_id = 7; CREATE TABLE t(a)");
  query(folder / "hollow",
        "PRAGMA application_id = 1366115702; PRAGMA user_version = 1; CREATE TABLE t(a)");
  { const EventHost host(folder / "later version"); }
  query(folder / "later version", "PRAGMA user_version = 99");
  // With a log that would be written back as soon as somebody read and closed the database.
  query(folder / "live", "PRAGMA journal_mode = WAL; CREATE TABLE t(a)");
  sqlite3* live = nullptr;
  sqlite3_open((folder / "live").c_str(), &live);
  sqlite3_exec(live, "INSERT INTO t VALUES(1)", nullptr, nullptr, nullptr);
  fs::copy(folder / "live", folder / "crashed");
  fs::copy(folder / "live-wal", folder / "crashed-wal");
  sqlite3_close(live);
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  fs::create_directory(folder / "directory");

  for (const char* name : {"text", "long text", "magic only", "other's", "other id", "hollow",
                           "later version", "crashed", "pipe", "directory", "no/such/folder"}) {
    const bool isFile = fs::is_regular_file(folder / name);
    const std::string before = isFile ? readFile(folder / name) : "";
    const std::size_t entries = folder.entryCount();
    NSErrorPtr error;
    EXPECT_EQ(EKEventStore::initWithDatabasePath_error(folder / name, &error), nullptr) << name;
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), EKErrorDomain);
    EXPECT_THAT(error->localizedDescription(), HasSubstr(folder / name));
    EXPECT_TRUE(!isFile || readFile(folder / name) == before) << name;
    EXPECT_EQ(folder.entryCount(), entries) << name;
  }
  EXPECT_EQ(query(folder / "crashed", "SELECT a FROM t"), "1");
}

TEST(EventDatabase, SurvivesDamageAnywhere) {
  const TemporaryFolder folder;
  {
    const EventHost host(folder / "whole");
    for (int i = 0; i < 60; ++i) {
      const Event event = anEvent(host);
      if (i % 3 == 0) event->setRecurrenceRule("FREQ=WEEKLY");
      event->setNotes(std::string(std::size_t(i) * 50, 'n'));
      ASSERT_EQ(host.save(event), nullptr);
    }
  }
  const std::string whole = readFile(folder / "whole");
  const std::string path = folder / "damaged";
  std::mt19937 random(2);
  const auto below = [&](std::size_t end) {
    return std::uniform_int_distribution<std::size_t>(0, end - 1)(random);
  };
  int refused = 0;
  int failed = 0;
  for (int round = 0; round < 500; ++round) {
    std::string bytes = whole;
    if (round % 8 == 0) bytes.resize(below(bytes.size()) + 1);
    const bool isHead = round % 3 == 0;  // where most hangs on each byte
    for (std::size_t changes = below(8) + 1; changes != 0; --changes) {
      bytes[below(std::min(bytes.size(), isHead ? std::size_t{4096} : bytes.size()))] =
          static_cast<char>(random());
    }
    for (const char* suffix : {"-wal", "-shm", "-journal"}) fs::remove(path + suffix);
    writeFile(path, bytes);
    NSErrorPtr error;
    const auto store = EKEventStore::initWithDatabasePath_error(path, &error);
    if (!store) {
      ++refused;
      ASSERT_NE(error, nullptr);
      ASSERT_TRUE(readFile(path) == bytes) << "a refused file was written to";
      continue;
    }
    const auto events = store->eventsMatchingPredicate(
        store->predicateForEventsWithStartDate_endDate_calendars(january, february, std::nullopt),
        &error);
    if (error) ++failed;
    for (const Event& event : events) {
      store->calendarItemsWithExternalIdentifier(event->calendarItemExternalIdentifier());
      if (round % 10 != 0) break;  // each save waits for the disk
      event->setTitle("new");
      store->saveEvent_span_commit_error(event, EKSpan::thisEvent, true, nullptr);
      break;
    }
  }
  EXPECT_GT(refused, 10);
  EXPECT_GT(failed, 10);
}

TEST(EventDatabase, IsReadWhereItCannotBeWritten) {
  constexpr uid_t nobody = 65534;
  const TemporaryFolder folder;
  fs::create_directory(folder / "folder");
  const std::string path = folder / "folder/events 100%?#";
  {
    const EventHost host(path);
    ASSERT_EQ(host.save(anEvent(host)), nullptr);
  }
  fs::permissions(folder / "", fs::perms(0755));
  fs::permissions(folder / "folder", fs::perms(0555));
  const auto inAnothersHands = [&](mode_t mode, const std::function<void()>& work) {
    fs::permissions(path, fs::perms(mode));
    const Child child([&](int) {
      if (::geteuid() == 0 && ::setuid(nobody) != 0) ::_exit(2);
      work();
    });
    child.begin();
    int status = -1;
    child.wait(&status);
    EXPECT_EQ(status, 0);
  };
  inAnothersHands(0444, [&] {
    const EventHost host(path);
    EXPECT_THAT(host.events(january, february), SizeIs(1));
    const NSErrorPtr error = host.save(anEvent(host));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), EKErrorCalendarReadOnly);
    EXPECT_EQ(host.remove(host.events(january, february)[0])->code(), EKErrorCalendarReadOnly);
  });
  inAnothersHands(0000, [&] {
    NSErrorPtr error;
    EXPECT_EQ(EKEventStore::initWithDatabasePath_error(path, &error), nullptr);
    ASSERT_NE(error->underlyingError(), nullptr);
    EXPECT_EQ(error->underlyingError()->code(), EACCES);
  });
  fs::permissions(folder / "folder", fs::perms(0755));
}

// Saves events until one cannot be saved; how many were.
std::size_t fill(const EventHost& host) {
  for (std::size_t saved = 0; saved != 1000; ++saved) {
    const Event event = anEvent(host);
    event->setNotes(std::string(5000, 'n'));
    const NSErrorPtr error = host.save(event);
    if (!error) continue;
    EXPECT_EQ(error->domain(), EKErrorDomain);
    return saved;
  }
  ADD_FAILURE() << "the disk is not full";
  return 0;
}

TEST(EventDatabase, GoesOnAfterTheDiskWasFull) {
  struct SmallDisk {
    explicit SmallDisk(std::string where)
        : path(std::move(where)),
          isThere(::mount("tmpfs", path.c_str(), "tmpfs", 0, "size=1m") == 0) {}
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    ~SmallDisk() {
      if (isThere) ::umount2(path.c_str(), MNT_DETACH);
    }
    std::string path;
    bool isThere;
  };
  const TemporaryFolder folder;
  const SmallDisk disk(folder / "");
  if (!disk.isThere) GTEST_SKIP() << "needs to mount a small disk";
  const EventHost host(folder / "events");
  const std::size_t saved = fill(host);
  EXPECT_GT(saved, 10U);
  EXPECT_THAT(host.events(january, february), SizeIs(saved));
  EXPECT_EQ(query(folder / "events", "PRAGMA integrity_check"), "ok");
  ASSERT_EQ(::mount("tmpfs", disk.path.c_str(), "tmpfs", MS_REMOUNT, "size=4m"), 0);
  EXPECT_EQ(host.save(anEvent(host)), nullptr);
  EXPECT_EQ(host.remove(host.events(january, february)[0]), nullptr);
  EXPECT_THAT(EventHost(folder / "events").events(january, february), SizeIs(saved));
}

TEST(EventDatabase, GoesOnAfterItMayNotGrow) {
  const TemporaryFolder folder;
  const EventHost host(folder / "events");
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  std::size_t saved = 0;
  for (const rlim_t size : {rlim_t{300'000}, rlim_t{500'000}}) {
    const rlimit limit{size, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    saved += fill(host);
    ::setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_THAT(host.events(january, february), SizeIs(saved));
    ASSERT_EQ(host.save(anEvent(host)), nullptr);
    ++saved;
  }
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(query(folder / "events", "PRAGMA integrity_check"), "ok");
}

TEST(EventDatabase, RefusesEverythingWithoutAccess) {
  const TemporaryFolder folder;
  {
    const EventHost host(folder / "events");
    ASSERT_EQ(host.save(anEvent(host)), nullptr);
  }
  const auto preference = HWPreference::preferenceForKey("EKEventStoreAccess");
  preference->setStringValue("denied");
  const auto store = EKEventStore::initWithDatabasePath_error(folder / "events", nullptr);
  preference->setStringValue(std::nullopt);
  const auto calendar = EKCalendar::calendar();
  const Event event = EKEvent::eventWithEventStore(store);
  event->setCalendar(calendar);
  event->setStartDate(january);

  EXPECT_THAT(store->calendarsForEntityType(EKEntityType::event), IsEmpty());
  EXPECT_EQ(store->calendarWithIdentifier(calendar->calendarIdentifier()), nullptr);
  const auto all =
      store->predicateForEventsWithStartDate_endDate_calendars(january, february, std::nullopt);
  using Operation = std::function<bool(NSErrorPtr*)>;
  const Operation operations[] = {
      [&](auto* error) { return store->saveCalendar_commit_error(calendar, true, error); },
      [&](auto* error) { return store->removeCalendar_commit_error(calendar, true, error); },
      [&](auto* error) { return !store->eventsMatchingPredicate(all, error).empty(); },
      [&](auto* error) { return !store->calendarItemsWithExternalIdentifier("a", error).empty(); },
      [&](auto* error) {
        return store->saveEvent_span_commit_error(event, EKSpan::thisEvent, true, error);
      },
      [&](auto* error) {
        return store->removeEvent_span_commit_error(event, EKSpan::thisEvent, true, error);
      },
  };
  for (const Operation& operation : operations) {
    NSErrorPtr error;
    EXPECT_FALSE(operation(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), EKErrorEventStoreNotAuthorized);
  }
  EXPECT_THAT(EventHost(folder / "events").events(january, february), SizeIs(1));
}

TEST(EventDatabase, FindsAnIdentifierInEachCalendar) {
  const TemporaryFolder folder;
  const std::string path = folder / "events";
  EventHost host(path);
  for (int i = 0; i < 2; ++i) {
    host.calendar = EKCalendar::calendar();
    ASSERT_TRUE(host.store->saveCalendar_commit_error(host.calendar, true, nullptr));
    ASSERT_EQ(host.save(anEvent(host)), nullptr);
  }
  query(path, "UPDATE events SET identifier = 'same'");
  const auto items = [&] { return host.store->calendarItemsWithExternalIdentifier("same"); };
  ASSERT_THAT(items(), SizeIs(2));
  const auto second = items()[1];
  second->setTitle("second");
  ASSERT_EQ(host.save(second), nullptr);
  ASSERT_EQ(host.remove(items()[0]), nullptr);
  ASSERT_THAT(items(), SizeIs(1));
  EXPECT_EQ(items()[0]->title(), "second");
}

TEST(EventDatabase, IsWhereTheHostSays) {
  const TemporaryFolder folder;
  const auto preference = HWPreference::preferenceForKey("EKEventStoreDatabasePath");
  preference->setStringValue(folder / "own");
  const auto store = EKEventStore::init();
  preference->setStringValue(std::nullopt);
  EXPECT_TRUE(store->saveCalendar_commit_error(EKCalendar::calendar(), true, nullptr));
  EXPECT_EQ(query(folder / "own", "SELECT count(*) FROM calendars"), "1");
}

TEST(EventDatabase, IsTheUsersOwn) {
  const TemporaryFolder folder;
  const Child child([&](int) {
    ::setenv("XDG_DATA_HOME", (folder / "data").c_str(), 1);
    const auto store = EKEventStore::init();
    EXPECT_TRUE(store->saveCalendar_commit_error(EKCalendar::calendar(), true, nullptr));
  });
  child.begin();
  int status = -1;
  child.wait(&status);
  EXPECT_EQ(status, 0);
  const std::string path = folder / "data/quillmere/events.sqlite";
  EXPECT_EQ(query(path, "SELECT count(*) FROM calendars"), "1");
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));

  // A store that cannot be opened says so, and has nothing.
  writeFile(path, "damaged");
  const Child second([&](int) {
    ::setenv("XDG_DATA_HOME", (folder / "data").c_str(), 1);
    const auto store = EKEventStore::init();
    EXPECT_THAT(store->calendarsForEntityType(EKEntityType::event), IsEmpty());
    EXPECT_FALSE(store->saveCalendar_commit_error(EKCalendar::calendar(), true, nullptr));
    bool isAnswered = false;
    store->requestAccessToEntityType_completion(
        EKEntityType::event, [&](bool granted, const NSErrorPtr& error) {
          EXPECT_FALSE(granted);
          EXPECT_THAT(error ? error->localizedDescription() : "", HasSubstr("is not a database"));
          isAnswered = true;
        });
    EXPECT_TRUE(runUntil([&] { return isAnswered; }));
  });
  second.begin();
  second.wait(&status);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace quillmere
