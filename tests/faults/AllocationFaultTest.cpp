#include <gtest/gtest.h>
#include <quillmere/calendars/KBTFileCalendar.h>
#include <quillmere/ical/KBTCalObjectEntry.h>
#include <quillmere/ical/KBTFreeBusy.h>
#include <quillmere/ical/KBTMutableCalObject.h>
#include <quillmere/platform/loop/NSRunLoop.h>
#include <quillmere/recurrence/KBTCalRepetition.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <map>
#include <new>

#include "tests/support/AllocationFaults.h"
#include "tests/support/KeepingDelegate.h"
#include "tests/support/TemporaryFolder.h"

// Everything that works without a network, again and again: the first allocation fails, then the
// second, and so on, until one run comes through without a fault.

// No test here takes the power away, so none of the many saves waits for the disk.
extern "C" int fsync(int) { return 0; }

namespace quillmere {
namespace {

using testing::AllocationFault, testing::Allocations, testing::Item, testing::KeepingDelegate,
    testing::readFile, testing::TemporaryFolder, testing::writeFile;
namespace fs = std::filesystem;

// Longer than what strings hold in themselves, so that it takes an allocation.
const std::string longText = "a text, long enough to need memory of its own";

std::string document(const std::string& version) {
  std::string text = "BEGIN:VCALENDAR\r\nX-WR-CALNAME:" + longText + "\r\n";
  for (const char* name : {"first", "second"}) {
    text.append("BEGIN:VEVENT\r\nUID:").append(longText).append(name);
    text.append("\r\nDTSTAMP:").append(version).append("T000000Z\r\n");
    text += "DTSTART;TZID=\"x\";TZID=Europe/Paris:20240105T093000\r\nDESCRIPTION;LANGUAGE=en:";
    text.append(longText).append("\\, escaped and fol\r\n ded\r\nDURATION:PT1H\r\nEND:VEVENT\r\n");
  }
  return text + "END:VCALENDAR\r\n";
}

// Only one allocation fails, so what is asked again must be answered, and rightly.
template <class Call>
auto askedAgain(Call call) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    return call();
  }
}

std::string read(const std::string&) {
  std::string text;
  const auto reader = KBTCalObject::initWithData(NSData::dataWithString(document("20240101")));
  while (reader->nextLine()) {
    text += reader->key().value_or("-");
    text += askedAgain([&] { return reader->value(); }).value_or("-");
    for (const auto& [name, value] : askedAgain([&] { return reader->modifiers(); })) {
      text.append(name).append(value);
    }
    bool isFullDay = false;
    if (const auto date = askedAgain([&] { return reader->valueAsDateIsFullDay(&isFullDay); })) {
      text += date->description();
    }
    if (reader->value() == "VEVENT") text += reader->subparserForCurrentEntry()->icsData().view();
  }
  NSErrorPtr error;
  const auto periods = KBTFreeBusy::freeBusyInfoFromICSData(
      NSData::dataWithBytes("FREEBUSY:20240101T000000Z/PT1H,20240102T000000Z/PT1H\r\n"), &error);
  for (const auto& period : periods.value()) text += period->description();
  KBTFreeBusy::freeBusyInfoFromICSData(NSData::dataWithBytes("FREEBUSY:" + longText), &error);
  return text + error->localizedDescription();
}

std::shared_ptr<KBTMutableCalObject> writer() {
  auto event = KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration("VEVENT", true);
  event->appendKey_stringValue("DESCRIPTION", longText + longText + "; ä\n");
  const NSDate date = NSDate::initWithICSDateString("20240105T093000Z").value();
  event->appendKey_dateValue("DTSTART;X-LONG=" + longText, date);
  event->appendKey_datetimeValue("DTEND", date);
  event->appendKey_integerValue("PRIORITY", 1);
  event->appendKey_doubleValue("X-NUMBER", 2.5);
  return event;
}

std::string write(const std::string&) {
  const auto event = writer();
  const NSData alone = event->icsData();
  const NSData together = KBTMutableCalObject::icsCalendarDataForObjects({event, writer()});
  return std::string(alone.view()).append(together.view());
}

std::string repeat(const std::string&) {
  std::string text;
  for (const char* rule :
       {"FREQ=MINUTELY;INTERVAL=90;COUNT=5", "RRULE:FREQ=WEEKLY;BYDAY=MO,FR;WKST=SU",
        "FREQ=MONTHLY;BYDAY=TU,WE;BYSETPOS=-1", "FREQ=YEARLY;BYMONTH=2;BYMONTHDAY=-1;COUNT=12",
        "FREQ=DAILY;UNTIL=a text that is no date", "FREQ=SOMETIMES;INTERVAL=1", "BYDAY=1MO,2TU",
        "FREQ=DAILY;X-UNKNOWN=1;X-OTHER=2"}) {
    NSErrorPtr error;
    const auto repetition = KBTCalRepetition::initWithRRule_error(rule, &error);
    if (!repetition) {
      text += error->localizedDescription();
      continue;
    }
    repetition->setStartDate(NSDate::initWithICSDateString("20240105T093000Z"));
    text += repetition->rrule() + repetition->testString();
  }
  return text;
}

struct FileHost {
  explicit FileHost(const std::string& path) : calendar(KBTFileCalendar::initWithPath(path)) {
    calendar->setDelegate(host);
  }
  std::shared_ptr<KeepingDelegate> host = std::make_shared<KeepingDelegate>();
  std::shared_ptr<KBTFileCalendar> calendar;
};

std::string fetch(const std::string& path) {
  const FileHost file(path);
  file.calendar->setObjects({Item::make("gone"), Item::make(longText + "first")});
  file.calendar->fetchExternalChanges();
  std::string text = file.calendar->cachingString().has_value() ? "dated" : "";
  for (const std::string& line : file.host->log) text += line;
  return text;
}

std::string save(const std::string& path) {
  const FileHost file(path);
  for (const char* name : {"inserted", "other"}) {
    file.calendar->insertObject(Item::make(longText + name, "1", longText + "\r\n"));
  }
  file.calendar->updateObject(Item::make("inserted"));
  file.calendar->deleteObject(Item::make("other"));
  file.calendar->saveChanges();
  return file.host->take().back();
}

// A host that goes on after a failure. What the file has must be in it still.
std::string fetchAndSave(const std::string& path) {
  const FileHost file(path);
  askedAgain([&] { file.calendar->fetchExternalChanges(); });
  askedAgain([&] { file.calendar->saveChanges(); });
  return readFile(path);
}

struct Scenario {
  const char* name;
  std::string (*run)(const std::string& path);  // what came of it
  bool isLink = false;                          // the path is a link to a file that is to be made
};
constexpr Scenario scenarios[] = {
    {"read", read},
    {"write", write},
    {"repeat", repeat},
    {"fetch", fetch},
    {"save", save},
    {"save of a new file through a link", save, true},
    {"fetch and save", fetchAndSave},
};

// A folder with a calendar file. What is in it is told by one text.
class Files {
 public:
  explicit Files(const Scenario& scenario) : path_(folder_ / "calendar.ics") {
    writeFile(path_, document("20240101"));
    if (!scenario.isLink) return;
    path_ = folder_ / "link";
    fs::create_symlink("new.ics", path_);
  }
  const std::string& path() const { return path_; }

  std::string state(bool withTemporaries = true) const {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::directory_iterator(folder_ / "")) {
      const std::string name = entry.path().filename().string();
      if (withTemporaries || !name.ends_with(".tmp")) files[name] = readFile(entry.path().string());
    }
    std::string text;
    for (const auto& [name, bytes] : files) text.append(name).append(":\n").append(bytes);
    return text;
  }

 private:
  TemporaryFolder folder_;
  std::string path_;
};

std::ptrdiff_t openDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

// In a child, where nothing was used before: what is made on first use may fail as well.
void expectWholeFilesAfterFirstUse(const Scenario& scenario, bool hostIsNoexcept) {
  enum Ending { wentWell, threw, terminated, survived };
  std::vector<std::string> states;
  for (int ending = threw; ending != wentWell;) {
    const Files files(scenario);
    const pid_t child = ::fork();
    if (child == 0) {
      std::set_terminate([] { ::_exit(terminated); });
      const AllocationFault fault(states.size() + 1);
      const auto run = [&] { scenario.run(files.path()); };
      try {
        hostIsNoexcept ? [&]() noexcept { run(); }() : run();
      } catch (const std::bad_alloc&) {
        ::_exit(threw);
      }
      ::_exit(AllocationFault::happened() ? survived : wentWell);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "allocation " << states.size() + 1;
    ending = WEXITSTATUS(status);
    ASSERT_TRUE(hostIsNoexcept || ending != terminated) << "allocation " << states.size() + 1;
    // The end of a process may leave a temporary file; nothing else may.
    states.push_back(files.state(ending != terminated));
  }
  const std::string before = Files(scenario).state();
  for (std::size_t i = 0; i < states.size(); ++i) {
    EXPECT_TRUE(states[i] == before || states[i] == states.back())
        << "allocation " << i + 1 << " left " << states[i];
  }
  EXPECT_GT(states.size(), 10U);
}

TEST(AllocationFaults, ThrowOrEndTheProcessAndLeaveTheFilesWhole) {
  for (const Scenario& scenario : scenarios) {
    for (const bool hostIsNoexcept : {false, true}) {
      SCOPED_TRACE(std::string(scenario.name) + (hostIsNoexcept ? ", terminated" : ""));
      expectWholeFilesAfterFirstUse(scenario, hostIsNoexcept);
    }
  }
}

TEST(AllocationFaults, LeakNothingAndGiveNoWrongResult) {
  for (const Scenario& scenario : scenarios) {
    SCOPED_TRACE(scenario.name);
    const Files whole(scenario);
    const std::string before = whole.state();
    const std::string expected = scenario.run(whole.path());
    const std::string after = whole.state();
    bool happened = true;
    for (std::size_t n = 1; happened; ++n) {
      SCOPED_TRACE(n);
      const Files files(scenario);
      const auto descriptors = openDescriptors();
      const std::size_t alive = Allocations::alive();
      try {
        const AllocationFault fault(n);
        const std::string result = scenario.run(files.path());
        happened = AllocationFault::happened();
        EXPECT_EQ(result, expected);
      } catch (const std::bad_alloc&) {
      }
      EXPECT_EQ(Allocations::alive(), alive);
      EXPECT_EQ(openDescriptors(), descriptors);
      const std::string state = files.state();
      EXPECT_TRUE(state == before || state == after) << state;
    }
  }
}

// What `stop` looks for are runs in progress, and none that did not begin.
TEST(AllocationFaults, LeaveNoRunOfALoopBehind) {
  const auto run = [] {
    constexpr unsigned secondsToWait = 10;
    ::alarm(secondsToWait);
    const NSRunLoop loop = NSRunLoop::currentRunLoop();
    const auto runWith = [&loop](std::size_t fault) {
      const AllocationFault failing(fault);
      return askedAgain([&] { return loop.runUntilDate(NSDate::date()); });
    };
    runWith(1);
    NSOperationQueue::currentQueue().addOperationWithBlock([&loop] {
      loop.stop();
      loop.stop();
    });
    std::exit(runWith(0) ? 0 : 1);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace quillmere
