#include <fcntl.h>
#include <gtest/gtest.h>
#include <quillmere/calendars/KBTFileCalendar.h>
#include <quillmere/platform/base/makeObject.h>
#include <sys/stat.h>

#include <cerrno>

#include "tests/support/FileFaults.h"
#include "tests/support/RecordingDelegate.h"
#include "tests/support/TemporaryFolder.h"

namespace quillmere {
namespace {

using testing::FileCall, testing::FileFault, testing::FileMoment, testing::Item, testing::readFile,
    testing::RecordingDelegate, testing::TemporaryFolder, testing::writeFile;
using Log = std::vector<std::string>;

// Sets a file's modification date, in microseconds since 1970.
void touch(const std::string& path, std::int64_t microseconds) {
  const timespec time{microseconds / 1'000'000, microseconds % 1'000'000 * 1000};
  const timespec times[2] = {time, time};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

constexpr std::int64_t someDate = 1704447000'250001;
constexpr const char* someDateAsText = "2024-01-05T09:30:00.250001Z";

std::string eventDocument(const std::string& version) {
  return "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:a\r\nDTSTAMP:" + version +
         "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
}

class FileCalendar : public ::testing::Test {
 protected:
  FileCalendar() { calendar->setDelegate(host); }

  Log fetch() {
    calendar->fetchExternalChanges();
    return host->take();
  }
  void put(const std::string& version, std::int64_t microseconds) const {
    writeFile(path, eventDocument(version));
    touch(path, microseconds);
  }
  Log check() {
    calendar->checkForExternalChanges();
    return host->take();
  }

  TemporaryFolder folder;
  std::string path = folder / "calendar.ics";
  std::shared_ptr<RecordingDelegate> host = std::make_shared<RecordingDelegate>();
  std::shared_ptr<KBTFileCalendar> calendar = KBTFileCalendar::initWithPath(path);
};

TEST_F(FileCalendar, FetchesOnceAndThenOnlyWhatIsYounger) {
  put("1", someDate);
  EXPECT_EQ(fetch(), (Log{"began", "new a 1", "fetched"}));
  EXPECT_EQ(calendar->cachingString(), someDateAsText);
  EXPECT_EQ(fetch(), Log{"fetched"}) << "unchanged: not read, so not begun";
  calendar->deleteObject(Item::make("a"));
  EXPECT_EQ(fetch(), Log{"fetched"}) << "nor for pending changes";

  put("2", someDate - 1);
  EXPECT_EQ(fetch(), Log{"fetched"}) << "older";
  put("2", someDate + 1);
  EXPECT_EQ(fetch(), (Log{"began", "update a 2", "fetched"})) << "a microsecond younger";

  writeFile(path, "");
  touch(path, someDate + 2);
  EXPECT_EQ(fetch(), (Log{"began", "gone a", "fetched"}));
}

TEST_F(FileCalendar, ChecksForAYoungerFile) {
  EXPECT_EQ(check(), Log{"checked changes"}) << "never read";
  put("1", someDate);
  fetch();
  EXPECT_EQ(check(), Log{"checked none"});
  touch(path, someDate + 1);
  EXPECT_EQ(check(), Log{"checked changes"});
  EXPECT_EQ(check(), Log{"checked changes"}) << "a check learns nothing";
  std::filesystem::remove(path);
  EXPECT_EQ(check(), Log{"checked none"}) << "missing";
}

TEST_F(FileCalendar, TheLastReferenceMayGoInACallback) {
  for (const auto operation :
       {&KBTFileCalendar::checkForExternalChanges, &KBTFileCalendar::fetchExternalChanges}) {
    auto last = KBTFileCalendar::initWithPath(path);
    last->setCachingString(someDateAsText);  // the file is missing: nothing is read
    last->setDelegate(host);
    EXPECT_TRUE(testing::outlivesItsLastReference(*host, std::move(last), operation));
  }
}

TEST_F(FileCalendar, TheCachingStringCarriesOverToTheNextRun) {
  put("1", someDate);
  calendar->setCachingString(someDateAsText);
  calendar->setObjects({Item::make("a", "1")});
  EXPECT_EQ(fetch(), Log{"fetched"});
  EXPECT_EQ(calendar->cachingString(), someDateAsText);

  for (const auto& unusable : {std::optional<std::string>(), {"a tag"}, {""}}) {
    calendar->setCachingString(unusable);
    EXPECT_EQ(calendar->cachingString(), std::nullopt);
    EXPECT_EQ(fetch(), (Log{"began", "fetched"})) << "read again, and the object is as it was";
  }
}

TEST_F(FileCalendar, AMissingFileIsAnEmptyOneOnceItIsRead) {
  calendar->setObjects({Item::make("a", "1")});
  EXPECT_EQ(fetch(), (Log{"began", "gone a", "fetched"}));
  EXPECT_EQ(calendar->cachingString(), std::nullopt);

  calendar->setObjects({Item::make("a", "1")});
  calendar->setCachingString(someDateAsText);
  EXPECT_EQ(fetch(), Log{"fetched"}) << "with a date it is not younger, so it is not read";
}

TEST_F(FileCalendar, ItsOwnSaveIsNoExternalChange) {
  calendar->insertObject(
      Item::make("a", "1", "BEGIN:VEVENT\r\nUID:a\r\nDTSTAMP:1\r\nEND:VEVENT\r\n"));
  calendar->saveChanges();
  EXPECT_EQ(host->take(), Log{"saved"});
  EXPECT_NE(calendar->cachingString(), std::nullopt);
  EXPECT_EQ(check(), Log{"checked none"});
  EXPECT_EQ(fetch(), Log{"fetched"});

  const auto other = KBTFileCalendar::initWithPath(path);
  other->setDelegate(host);
  other->fetchExternalChanges();
  EXPECT_EQ(host->take(), (Log{"began", "new a 1", "fetched"}));
}

TEST_F(FileCalendar, SeesWhatAnotherProgramWritesMeanwhile) {
  const auto write = [&] { put("2", std::int64_t{2} * someDate); };
  const auto replace = [&] {
    std::filesystem::rename(path, folder / "old");
    write();
  };
  const auto remove = [&] { std::filesystem::remove(path); };
  struct Case {
    const char* what;
    FileCall during;
    std::function<void()> work;
    bool isSaved = false, isFailing = false;
    std::function<void()> before{}, after{};
  };
  const Case cases[] = {
      {"replaced before it is read", FileCall::open, replace},
      {"replaced while it is read", FileCall::read, replace},
      {"written to while it is read", FileCall::read, write},
      {"made when it could not be opened", FileCall::open, write, false, true, remove},
      {"gone when it was to be opened", FileCall::open, remove, false, true, {}, write},
      {"replaced after a save", FileCall::rename, replace, true},
      {"replaced during a save that fails", FileCall::write, replace, true, true},
  };
  for (const Case& c : cases) {
    calendar->setCachingString(std::nullopt);
    put("1", someDate);
    if (c.before) c.before();
    {
      const FileMoment moment(c.during, c.work);
      const FileFault fault(c.isSaved ? FileCall::fsync : FileCall::open, c.isFailing ? 1 : 0, EIO);
      c.isSaved ? calendar->saveChanges() : calendar->fetchExternalChanges();
    }
    host->take();
    if (c.after) c.after(), touch(path, someDate);
    EXPECT_EQ(fetch().front(), "began") << c.what;
  }
}

TEST_F(FileCalendar, AFailedWriteIsReportedAsASaveAndLeavesTheOldFile) {
  writeFile(path, "old");
  calendar->insertObject(Item::make("a"));
  const FileFault fault(FileCall::fsync, 1, EIO);
  calendar->saveChanges();
  EXPECT_EQ(host->take(), Log{"saved"});
  EXPECT_FALSE(calendar->hasPendingChanges());
  EXPECT_EQ(readFile(path), "old");
  EXPECT_EQ(folder.entryCount(), 1U);
  EXPECT_NE(calendar->cachingString(), std::nullopt) << "the date is taken all the same";

  const auto nowhere = KBTFileCalendar::initWithPath(folder / "missing/calendar.ics");
  nowhere->setDelegate(host);
  nowhere->saveChanges();
  EXPECT_EQ(host->take(), Log{"saved"});
  EXPECT_EQ(nowhere->cachingString(), std::nullopt);
}

TEST_F(FileCalendar, EqualsAnyFileCalendarOfTheSamePathText) {
  EXPECT_EQ(calendar->path(), path);
  EXPECT_TRUE(calendar->isEqualToCalendar(*KBTFileCalendar::initWithPath(path)));
  EXPECT_FALSE(
      calendar->isEqualToCalendar(*KBTFileCalendar::initWithPath(folder / "./calendar.ics")));
  EXPECT_FALSE(calendar->isEqualToCalendar(*KBTSynchingCalendar::init()));
  struct DerivedCalendar : KBTFileCalendar {
    using KBTFileCalendar::KBTFileCalendar;
  };
  EXPECT_TRUE(calendar->isEqualToCalendar(*makeObject<DerivedCalendar>(std::string(path))));
}

}  // namespace
}  // namespace quillmere
