#include <gtest/gtest.h>
#include <quillmere/platform/dates/NSDate.h>

#include <cmath>
#include <limits>

#include "tests/support/ScopedTimeZone.h"

namespace quillmere {
namespace {

using testing::ScopedTimeZone;

NSDate seconds(std::int64_t count) {
  return NSDate::dateWithMicrosecondsSince1970(0).dateByAddingSeconds(count);
}

TEST(NSDate, DescribesItselfInUTC) {
  EXPECT_EQ(NSDate::dateWithMicrosecondsSince1970(-1).description(), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(seconds(-62135596800).description(), "0001-01-01 00:00:00 +0000");
}

TEST(NSDate, IsAnInstantOfTheSystemClockAndPrintsItself) {
  using std::chrono::sys_days, std::chrono::year, std::chrono::microseconds;
  const auto time = sys_days(year(1969) / 12 / 31) + microseconds(250'000);
  const NSDate date = NSDate::dateWithSysTime(time);
  EXPECT_EQ(date.microsecondsSince1970(), -86'399'750'000);
  EXPECT_EQ(date.sysTime(), time);
  EXPECT_EQ(::testing::PrintToString(date), "1969-12-31T00:00:00.250000Z");
}

TEST(NSDate, StaysAtTheEndsOfItsRange) {
  const auto last = NSDate::dateWithMicrosecondsSince1970(std::numeric_limits<std::int64_t>::max());
  const auto first =
      NSDate::dateWithMicrosecondsSince1970(std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(last.dateByAddingSeconds(1), last);
  EXPECT_EQ(last.dateByAddingSeconds(-1).microsecondsSince1970(), 9223372036853775807);
  EXPECT_EQ(first.dateByAddingSeconds(9223372036855).microsecondsSince1970(), 224192);
  EXPECT_EQ(last.icsDateString(), "99991231T235959Z");
  EXPECT_EQ(first.icsDateString(), "00010101T000000Z");
  EXPECT_EQ(first.dateByAddingSeconds(-1), first);
  EXPECT_EQ(seconds(0).dateByAddingSeconds(std::numeric_limits<std::int64_t>::min()), first);
  const struct {
    double seconds;
    std::int64_t microseconds;
  } rows[] = {{1.6e-6, 2},
              {1.4e-6, 1},
              {9223372036854.775808, last.microsecondsSince1970()},  // the first beyond the range
              {1e300, last.microsecondsSince1970()},
              {-INFINITY, first.microsecondsSince1970()},
              {NAN, 0}};
  for (const auto& row : rows) {
    EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(row.seconds).microsecondsSince1970(),
              row.microseconds);
  }
  EXPECT_EQ(seconds(-1).timeIntervalSince1970(), -1);
  EXPECT_TRUE(first.xmlDateString().ends_with(".224192Z")) << first.xmlDateString();
}

TEST(NSDate, ReadsTheICSDateTimeForm) {
  const struct {
    const char* text;
    std::int64_t seconds;
  } valid[] = {
      {"20240105T093000Z", 1704447000},   {"20240105T093000", 1704447000},
      {"20240229T235959Z", 1709251199},   {"20161231T235960Z", 1483228800},
      {"20240105T093060Z", 1704447060},   {"00010101T000000Z", -62135596800},
      {"99991231T235959Z", 253402300799},
  };
  for (const auto& c : valid)
    EXPECT_EQ(NSDate::initWithICSDateString(c.text), seconds(c.seconds)) << c.text;

  for (const char* text :
       {"", "20240105", "20240105T0930Z", "20240105T093000z", "20240105T093000Z ",
        " 20240105T093000Z", "20240105T093000+0100", "20241305T093000Z", "20240001T093000Z",
        "20240100T093000Z", "20230229T093000Z", "20240105T240000Z", "20240105T096000Z",
        "20240105T093061Z", "00000101T000000Z", "2024-01-05T09:30:00Z", "2024 105T093000Z",
        "120240105T093000Z"}) {
    EXPECT_EQ(NSDate::initWithICSDateString(text), std::nullopt) << text;
  }
  EXPECT_EQ(NSDate::initWithICSDateString(std::nullopt), std::nullopt);
}

TEST(NSDate, ADateOnlyTextIsTheStartOfThatDayInTheDefaultZone) {
  const struct {
    const char* zone;
    const char* text;
    const char* start;
  } cases[] = {
      {"Asia/Tokyo", "20240105", "20240104T150000Z"},
      // Midnight was skipped that day: it began at 01:00.
      {"America/Sao_Paulo", "20181104", "20181104T030000Z"},
      // The clocks went from 23:30 to 00:30: the day began half an hour late.
      {"America/Toronto", "19190331", "19190331T043000Z"},
      // The whole of 30 December was skipped: the day began with the next one.
      {"Pacific/Apia", "20111230", "20111230T100000Z"},
  };
  for (const auto& c : cases) {
    const ScopedTimeZone zone(c.zone);
    const NSDate date = NSDate::initWithICSDateOnlyString(c.text).value();
    EXPECT_EQ(date.icsDateString(), c.start) << c.zone;
  }
  for (const char* text : {"", "2024010", "202401055", "20240230", "2024010a", "20240105T"}) {
    EXPECT_EQ(NSDate::initWithICSDateOnlyString(text), std::nullopt) << text;
  }
}

TEST(NSDate, TheDateOnlyFormIsTheDayInTheDefaultZone) {
  const ScopedTimeZone zone("Europe/Paris");
  EXPECT_EQ(NSDate::initWithICSDateString("20240105T233000Z")->icsDateOnlyString(), "20240106");
}

TEST(NSDate, ReadsItsOwnAndOtherWritersXMLDates) {
  EXPECT_EQ(NSDate::dateWithMicrosecondsSince1970(1704447000'250000).xmlDateString(),
            "2024-01-05T09:30:00.250000Z");
  const struct {
    const char* text;
    std::int64_t microseconds;
  } valid[] = {
      {"2024-01-05T09:30:00Z", 1704447000'000000},
      {"2024-01-05T09:30:00.1234567891234567890123Z", 1704447000'123456},
      {"2024-01-05T10:30:00+01:00", 1704447000'000000},
      {"2024-01-05T04:00:00-05:30", 1704447000'000000},
  };
  for (const auto& c : valid) {
    EXPECT_EQ(NSDate::initWithXMLDateString(c.text),
              NSDate::dateWithMicrosecondsSince1970(c.microseconds))
        << c.text;
  }
  for (const char* text : {"", "2024-01-05", "2024-01-05T09:30:00", "2024-01-05T09:30:00.Z",
                           "2024-01-05T09:30:00+0100", "2024-01-05T09:30:00+24:00",
                           "2024-01-05T09:30:00+01:60", "2024-02-30T09:30:00Z", "unchanged"}) {
    EXPECT_EQ(NSDate::initWithXMLDateString(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace quillmere
