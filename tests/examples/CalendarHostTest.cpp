// What cannot be seen from outside of the process: other programs that write while agenda reads.

#include <gtest/gtest.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/base/NSFileManager.h>

#include <filesystem>
#include <string>

#include "CalendarHost.h"
#include "Problems.h"
#include "tests/support/TemporaryFolder.h"

namespace agenda {
namespace {

namespace fs = std::filesystem;
using quillmere::NSData;
using quillmere::NSDate;
using quillmere::testing::readFile;
using quillmere::testing::TemporaryFolder;

std::string event(const std::string& uid) {
  return "BEGIN:VEVENT\r\nUID:" + uid + "\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:of " + uid +
         "\r\nEND:VEVENT\r\n";
}

class CalendarHostTest : public testing::Test {
 protected:
  // Each call makes the file younger, however coarse the file system's clock is.
  void write(const std::string& components) {
    const auto error = quillmere::NSFileManager::writeData_toFileAtomically(
        NSData::dataWithString("BEGIN:VCALENDAR\r\nVERSION:2.0\r\n" + components +
                               "END:VCALENDAR\r\n"),
        path_);
    ASSERT_FALSE(error);
    age_ -= std::chrono::seconds(1);
    fs::last_write_time(path_, start_ - age_);
  }

  static Fields someEvent() {
    Fields fields;
    fields.summary = "added";
    fields.start = When{When::Kind::instant, NSDate::dateWithMicrosecondsSince1970(0)};
    return fields;
  }

  TemporaryFolder folder_;
  std::string path_ = folder_ / "calendar.ics";

 private:
  fs::file_time_type start_ = fs::file_time_type::clock::now();
  std::chrono::seconds age_ = std::chrono::hours(1);
};

TEST_F(CalendarHostTest, KeepsWhatIsWrittenWhileItReads) {
  write(event("old"));
  bool wrote = false;
  const auto host = CalendarHost::hostForFile(path_, [&](auto items) {
    if (!items || wrote) return;
    wrote = true;
    write(event("old") + event("meanwhile"));
  });

  host->fetchForSaving();
  const std::string uid = host->add(someEvent());

  EXPECT_TRUE(host->objects().contains("meanwhile"));
  EXPECT_TRUE(host->objects().contains(uid));
  EXPECT_NE(readFile(path_).find(event("old") + event("meanwhile") + "BEGIN:VEVENT\r\nUID:" + uid),
            std::string::npos);
}

TEST_F(CalendarHostTest, GivesUpOnAFileThatNeverRests) {
  write(event("old"));
  int writes = 0;
  const auto host = CalendarHost::hostForFile(path_, [&](auto items) {
    if (items) write(event("old" + std::to_string(++writes)));
  });

  EXPECT_THROW(host->fetchForSaving(), CalendarProblem);
  EXPECT_LT(writes, 100);
}

TEST_F(CalendarHostTest, TellsThatTheFileIsNotWhatWasSaved) {
  write(event("old"));
  const auto host = CalendarHost::hostForFile(path_, nullptr);
  host->fetchForSaving();
  // A directory in the file's place can be neither replaced nor read.
  fs::remove(path_);
  fs::create_directory(path_);

  EXPECT_THROW(host->add(someEvent()), CalendarProblem);
}

}  // namespace
}  // namespace agenda
