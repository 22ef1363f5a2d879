#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <quillmere/platform/base/FileDescriptor.h>
#include <quillmere/platform/base/HWPreference.h>
#include <quillmere/platform/events/ChangeWatch.h>
#include <quillmere/platform/events/EKEventStore.h>
#include <quillmere/platform/events/EventRecord.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/platform/events/EventHost.h"
#include "tests/support/TemporaryFolder.h"

namespace {

std::vector<unsigned>* timerWaits = nullptr;  // of timers, which then ring at once

}  // namespace

// Stands in for GLib's.
extern "C" guint g_timeout_add_full(gint priority, guint milliseconds, GSourceFunc function,
                                    gpointer data, GDestroyNotify drop) {
  if (timerWaits) timerWaits->push_back(milliseconds);
  GSource* const source = g_timeout_source_new(timerWaits ? 0 : milliseconds);
  g_source_set_priority(source, priority);
  g_source_set_callback(source, function, data, drop);
  const guint identifier = g_source_attach(source, nullptr);
  g_source_unref(source);
  return identifier;
}

namespace quillmere {
namespace {

namespace fs = std::filesystem;
using testing::ChangeCount, testing::Event, testing::EventHost, testing::january, testing::query,
    testing::readFile, testing::runUntil, testing::TemporaryFolder, testing::utc,
    testing::writeFile;
using ::testing::HasSubstr, ::testing::IsEmpty, ::testing::SizeIs;

Event anEvent(const EventHost& host, const std::string& title = "a") {
  return host.newEvent(title, utc("20240105T090000Z"), utc("20240105T100000Z"));
}

// A process that works until it is told to end or is killed. It begins when it is told to, since a
// process must not start another one while it has a database open that both use.
class Child {
 public:
  explicit Child(const std::function<void(int reports)>& work) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return;
    process_ = ::fork();
    if (process_ == 0) {
      char c = 0;
      ::close(ends[0]);
      if (::read(ends[1], &c, 1) == 1) work(ends[1]);
      ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    ::close(ends[1]);
    end_.emplace(ends[0]);
  }

  void begin() const { EXPECT_EQ(::write(end_->get(), "x", 1), 1); }
  void waitForReport() const {
    pollfd reports{end_->get(), POLLIN, 0};
    EXPECT_EQ(::poll(&reports, 1, 10'000), 1);
  }
  /// Kills it. What it has reported.
  std::string kill() const {
    ::kill(process_, SIGKILL);
    std::string text;
    char buffer[4096];
    for (ssize_t length = 0; (length = ::read(end_->get(), buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<std::size_t>(length));
    }
    ::waitpid(process_, nullptr, 0);
    return text;
  }
  void expectSuccess() const {
    int status = -1;
    ::waitpid(process_, &status, 0);
    EXPECT_EQ(status, 0);
  }
  void run() const {
    begin();
    expectSuccess();
  }

 private:
  pid_t process_ = 0;
  std::optional<FileDescriptor> end_;
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
    const std::string reports = writer.kill();

    ASSERT_EQ(query(path, "PRAGMA integrity_check"), "ok");
    ASSERT_EQ(query(path, "PRAGMA foreign_key_check"), "");
    const EventHost host(path);
    std::set<std::string> found;
    for (const Event& event : host.events()) {
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
  other.begin();  // both make the file at the same time
  write("ours");
  other.expectSuccess();
  EXPECT_EQ(query(path, "SELECT count(*) FROM events"), std::to_string(2 * events));
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
  const Child reader([&](int) { EXPECT_THAT(EventHost(path).events(), SizeIs(3)); });
  const EventHost host(path);
  add("ours");
  writer.run();
  ASSERT_EQ(host.save(anEvent(host)), nullptr);
  reader.run();
}

TEST(EventDatabase, TellsOfChangesByOtherProcesses) {
  const TemporaryFolder folder;
  const std::string path = folder / "events";
  const Child other([&](int) {
    const EventHost host(path);
    host.save(anEvent(host));
  });
  const EventHost host(path);
  const ChangeCount posted(host.store);
  EXPECT_TRUE(runUntil([&] { return posted.count == 1; })) << "the host's own calendar";
  other.begin();
  EXPECT_TRUE(runUntil([&] { return posted.count == 2; }));
  EXPECT_THAT(host.events(), SizeIs(1));
  other.expectSuccess();
}

TEST(EventDatabase, MayEndOnAnyThread) {
  const TemporaryFolder folder;
  const std::string path = folder / "events";
  const EventHost host(path);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
  // So often that most stores end while they are told of it.
  sqlite3_busy_timeout(other, 10'000);
  const auto write = [&](const char* sql) {
    EXPECT_EQ(sqlite3_exec(other, sql, nullptr, nullptr, nullptr), SQLITE_OK);
  };
  write("PRAGMA synchronous = OFF");
  testing::endStores(
      1000, [&] { return EKEventStore::initWithDatabasePath_error(path, nullptr); },
      [&] { write("UPDATE calendars SET title = random()"); });
  sqlite3_close(other);
}

TEST(EventDatabase, LeavesForeignFilesAsTheyAre) {
  const TemporaryFolder folder;
  writeFile(folder / "text", std::string(5000, 'x'));
  writeFile(folder / "magic only", std::string("SQLite format 3\0", 16));
  query(folder / "other id", "PRAGMA application_id = 7; CREATE TABLE t(a)");
  query(folder / "no version", "PRAGMA application_id = 1366115702; PRAGMA user_version = -1");
  // Ours, but for one thing.
  const std::pair<const char*, const char*> changed[] = {
      {"later version", "PRAGMA user_version = 99"},
      {"half made", "PRAGMA user_version = 0"},
      {"trigger", "CREATE TRIGGER t AFTER INSERT ON events BEGIN DELETE FROM calendars; END"},
      {"view", "CREATE VIEW v AS SELECT 1"},
      {"check",
       "PRAGMA writable_schema = ON; UPDATE sqlite_master"
       " SET sql = replace(sql, 'title TEXT)', 'title TEXT CHECK(length(title)))')"},
      {"fewer indexes", "DROP INDEX events_in_time"},
      {"false schema",
       "CREATE TABLE t AS SELECT * FROM sqlite_master; PRAGMA writable_schema = ON;"
       "UPDATE sqlite_master SET name = 'sqlite_schema', tbl_name = 'sqlite_schema',"
       " sql = replace(sql, 'TABLE t', 'TABLE sqlite_schema') WHERE name = 't'"}};
  std::vector<std::string> refused = {"text",       "magic only", "other id",
                                      "no version", "crashed",    "trigger in the log",
                                      "pipe",       "directory",  "no/such/folder"};
  for (const auto& [name, sql] : changed) {
    { const EventHost host(folder / name); }
    ASSERT_EQ(query(folder / name, sql), "");
    refused.emplace_back(name);
  }
  // With a log that would be written back as soon as somebody read and closed the database.
  query(folder / "live", "PRAGMA journal_mode = WAL; CREATE TABLE t(a)");
  sqlite3* live = nullptr;
  sqlite3_open((folder / "live").c_str(), &live);
  sqlite3_exec(live, "INSERT INTO t VALUES(1)", nullptr, nullptr, nullptr);
  fs::copy(folder / "live", folder / "crashed");
  fs::copy(folder / "live-wal", folder / "crashed-wal");
  sqlite3_close(live);
  {
    const EventHost host(folder / "ours");
    query(folder / "ours", "CREATE TRIGGER t AFTER INSERT ON events BEGIN SELECT 1; END");
    for (const char* suffix : {"", "-wal", "-shm"}) {
      fs::copy(folder / "ours" + suffix, folder / "trigger in the log" + suffix);
    }
  }
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  fs::create_directory(folder / "directory");

  for (const std::string& name : refused) {
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

TEST(EventDatabase, OpensWhatEarlierProgramsHaveLeft) {
  const TemporaryFolder folder;
  const EventHost host(folder / "live");
  ASSERT_EQ(host.save(anEvent(host)), nullptr);
  query(folder / "live",
        "ANALYZE; CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT); DROP TABLE t");
  // With a log that was never written back.
  for (const char* suffix : {"", "-wal"}) {
    fs::copy(folder / "live" + suffix, folder / "crashed" + suffix);
  }
  const EventHost crashed(folder / "crashed");
  EXPECT_THAT(crashed.events(), SizeIs(1));
  EXPECT_EQ(query(folder / "crashed",
                  "SELECT group_concat(name) FROM sqlite_master"
                  " WHERE name LIKE 'sqlite_s%'"),
            "sqlite_stat1,sqlite_sequence");
  writeFile(folder / "empty", "");
  EXPECT_NE(EKEventStore::initWithDatabasePath_error(folder / "empty", nullptr), nullptr);
  // What another program adds meanwhile is not carried out.
  query(folder / "crashed",
        "CREATE TRIGGER t AFTER INSERT ON events BEGIN DELETE FROM calendars; END");
  ASSERT_EQ(crashed.save(anEvent(crashed)), nullptr);
  EXPECT_THAT(crashed.events(), SizeIs(2));
  // The text of the schema, of which no released database may differ.
  EXPECT_EQ(query(folder / "live",
                  "SELECT group_concat(length(sql)) FROM sqlite_master"
                  " WHERE name NOT LIKE 'sqlite_%'"),
            "126,578,200,101,103,61");
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
    Child([&](int) {
      if (::geteuid() == 0 && ::setuid(nobody) != 0) ::_exit(2);
      work();
    }).run();
  };
  inAnothersHands(0444, [&] {
    const EventHost host(path);
    EXPECT_THAT(host.events(), SizeIs(1));
    const NSErrorPtr error = host.save(anEvent(host));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), EKErrorCalendarReadOnly);
    EXPECT_EQ(host.remove(host.events()[0])->code(), EKErrorCalendarReadOnly);
  });
  inAnothersHands(0000, [&] {
    NSErrorPtr error;
    EXPECT_EQ(EKEventStore::initWithDatabasePath_error(path, &error), nullptr);
    ASSERT_NE(error->underlyingError(), nullptr);
    EXPECT_EQ(error->underlyingError()->code(), EACCES);
  });
  writeFile(path + "-wal", "");  // somebody writes it
  inAnothersHands(
      0444, [&] { EXPECT_EQ(EKEventStore::initWithDatabasePath_error(path, nullptr), nullptr); });
  fs::permissions(folder / "folder", fs::perms(0755));
}

TEST(EventDatabase, GoesOnAfterItMayNotGrow) {
  const TemporaryFolder folder;
  const EventHost host(folder / "events");
  const auto save = [&] {
    const Event event = anEvent(host);
    event->setNotes(std::string(5000, 'n'));
    return host.save(event);
  };
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{300'000, before.rlim_max};
  ::setrlimit(RLIMIT_FSIZE, &limit);
  std::size_t saved = 0;
  NSErrorPtr error;
  while (!(error = save()) && saved < 1000) ++saved;
  ::setrlimit(RLIMIT_FSIZE, &before);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), EKErrorDomain);
  EXPECT_EQ(error->underlyingError()->code(), SQLITE_IOERR_WRITE);
  EXPECT_THAT(host.events(), SizeIs(saved));
  EXPECT_EQ(save(), nullptr);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(query(folder / "events", "PRAGMA integrity_check"), "ok");
}

TEST(EventDatabase, FindsAnIdentifierInEachCalendar) {
  const TemporaryFolder folder;
  const std::string path = folder / "events";
  const EventHost host(path);
  const EventHost other(host.store);
  for (const EventHost* each : {&host, &other}) ASSERT_EQ(each->save(anEvent(*each)), nullptr);
  query(path, "UPDATE events SET identifier = 'same'");
  const auto items = [&] { return host.store->calendarItemsWithExternalIdentifier("same"); };
  ASSERT_THAT(items(), SizeIs(2));
  const auto second = items()[1];
  second->setTitle("second");
  ASSERT_EQ(host.save(second), nullptr);
  ASSERT_EQ(host.remove(items()[0]), nullptr);
  ASSERT_THAT(items(), SizeIs(1));
  EXPECT_EQ(items()[0]->title(), "second");

  // Any number may stand in a damaged database.
  query(path, "UPDATE events SET start = -9223372036854775807, end = 9223372036854775807");
  EXPECT_EQ(items()[0]->startDate(), firstDate);
  EXPECT_EQ(items()[0]->endDate(), lastDate);
}

TEST(EventDatabase, KeepsFractionsOfASecondAndNoEmptySeries) {
  const TemporaryFolder folder;
  const EventHost host(folder / "events");
  const NSDate start = dateAfter(january, 250'000);
  const Event event = host.newEvent("a", start, start);
  event->setTimeZone(testing::zone("Europe/Paris"));
  event->setRecurrenceRule("FREQ=DAILY;UNTIL=20240110T000000Z");
  ASSERT_EQ(host.save(event), nullptr);
  auto events = host.events();
  EXPECT_EQ(events.at(1)->startDate(), start.dateByAddingSeconds(86'400));
  ASSERT_EQ(host.remove(events[2], EKSpan::futureEvents), nullptr);
  events = host.events();
  ASSERT_THAT(events, SizeIs(2));
  EXPECT_GT(events[0]->lastModifiedDate(), event->lastModifiedDate());
  EXPECT_EQ(events[0]->recurrenceRule(), "FREQ=DAILY;UNTIL=20240102T235959Z");
  const auto cut = events[0]->lastModifiedDate();
  ASSERT_EQ(host.save(events[0], EKSpan::futureEvents), nullptr);
  EXPECT_GT(events[0]->lastModifiedDate(), cut);
  for (const Event& each : events) ASSERT_EQ(host.remove(each), nullptr);
  EXPECT_EQ(query(folder / "events", "SELECT count(*) FROM events"), "0");
}

TEST(ChangeWatch, AsksEverMoreSeldomUntilItKnows) {
  const TemporaryFolder folder;
  writeFile(folder / "file", "");
  std::size_t most = 0;
  std::size_t asked = 0;
  const ChangeWatch watch(folder / "file", [&] { return ++asked == most; });
  std::vector<unsigned> waited;
  timerWaits = &waited;
  const std::vector<unsigned> all = {5, 10, 20, 40, 80, 160, 320, 640, 1280, 2560};
  for (const std::size_t count : {all.size() + 1, all.size() + 1, std::size_t{3}}) {
    waited.clear();
    asked = 0;
    most = count;
    std::ofstream(folder / "file", std::ios::app) << "a";
    EXPECT_TRUE(runUntil([&] { return asked == count; }));
    EXPECT_THAT(waited, ::testing::ElementsAreArray(all.data(), count - 1));
  }
  timerWaits = nullptr;
}

TEST(EventDatabase, IsTheUsersOwnUnlessTheHostSaysAnother) {
  const TemporaryFolder folder;
  // Without a bus there is no store of the desktop's.
  const auto inASession = [&](const std::function<void()>& work) {
    Child([&](int) {
      ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
      ::setenv("XDG_DATA_HOME", (folder / "data").c_str(), 1);
      HWPreference::preferenceForKey("EKEventStoreBackend")->setStringValue("auto");
      work();
    }).run();
  };
  const auto expectCalendarAt = [&](const std::string& path, const std::function<void()>& setUp) {
    inASession([&] {
      setUp();
      const EventHost host(EKEventStore::init());
    });
    EXPECT_EQ(query(path, "SELECT count(*) FROM calendars"), "1") << path;
  };
  const auto preference = HWPreference::preferenceForKey("EKEventStoreDatabasePath");
  expectCalendarAt(folder / "another", [&] { preference->setStringValue(folder / "another"); });
  EXPECT_FALSE(fs::exists(folder / "data"));
  const std::string path = folder / "data/quillmere/events.sqlite";
  expectCalendarAt(path, [&] { preference->setStringValue(""); });
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));
  expectCalendarAt(folder / "home/.local/share/quillmere/events.sqlite", [&] {
    ::setenv("HOME", (folder / "home").c_str(), 1);
    ::setenv("XDG_DATA_HOME", "relative", 1);  // which does not count
    fs::current_path(folder / "");
  });

  // A store that cannot be opened says so, and has nothing.
  writeFile(path, "damaged");
  inASession([&] {
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
}

}  // namespace
}  // namespace quillmere
