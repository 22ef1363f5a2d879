#include <gtest/gtest.h>
#include <quillmere/platform/dates/NSCalendar.h>

#include <limits>

namespace quillmere {
namespace {

NSCalendar calendarIn(const char* zone) {
  return NSCalendar(NSTimeZone::timeZoneWithName(zone).value());
}

NSDate utc(const char* text) { return NSDate::initWithICSDateString(text).value(); }

std::string textOf(std::optional<NSDate> date) { return date ? date->icsDateString() : "null"; }

TEST(NSCalendar, UndefinedFieldsAreTheFirstAndOthersCarryOver) {
  const auto calendar = calendarIn("UTC");
  EXPECT_EQ(textOf(calendar.dateFromComponents({})), "00010101T000000Z");
  EXPECT_EQ(textOf(calendar.dateFromComponents({2024, 14, 0, 25, 61, 61})), "20250201T020201Z");
}

TEST(NSCalendar, KnowsWhenADayStarts) {
  EXPECT_EQ(textOf(calendarIn("Asia/Tokyo").startOfDayForDate(utc("20240105T160000Z"))),
            "20240105T150000Z");
}

TEST(NSCalendar, AddsTheLargestFieldsFirst) {
  const struct {
    const char* zone;
    const char* start;
    NSDateComponents added;
    const char* result;
  } cases[] = {
      {"UTC", "20240229T120000Z", {.year = 1, .month = 1}, "20250328T120000Z"},
      {"UTC", "20240131T120000Z", {.month = 1, .day = 1}, "20240301T120000Z"},
      {"UTC", "20240331T120000Z", {.month = -1}, "20240229T120000Z"},
      {"UTC", "20240115T120000Z", {.year = -1, .month = 13, .day = -15}, "20240131T120000Z"},
      // A day is a day on the clock, 24 hours are elapsed time: 9 March has 24 of them, 10
      // March 23.
      {"America/New_York", "20240309T170000Z", {.day = 1}, "20240310T160000Z"},
      {"America/New_York", "20240309T170000Z", {.hour = 24}, "20240310T170000Z"},
      // Of a skipped time the one later by the gap is meant, of a repeated one the first.
      {"America/New_York", "20240309T073000Z", {.day = 1}, "20240310T073000Z"},
      {"America/New_York", "20240309T073000Z", {.day = 1, .minute = 30}, "20240310T080000Z"},
      {"America/New_York", "20241102T053000Z", {.day = 1}, "20241103T053000Z"},
      // In the repeated hour, nothing added leaves the second of the two alone.
      {"America/New_York", "20241103T063000Z", {.day = 0}, "20241103T063000Z"},
      {"America/New_York", "20241103T063000Z", {.second = -1}, "20241103T062959Z"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(textOf(calendarIn(c.zone).dateByAddingComponents_toDate(c.added, utc(c.start))),
              c.result)
        << c.start;
  }
  const auto fraction = NSDate::dateWithMicrosecondsSince1970(123456);
  EXPECT_EQ(calendarIn("UTC").dateByAddingComponents_toDate({.day = 1}, fraction),
            NSDate::dateWithMicrosecondsSince1970(86400'123456));
}

TEST(NSCalendar, ResultsOutsideItsYearsAreNull) {
  const auto calendar = calendarIn("Pacific/Kiritimati");
  EXPECT_TRUE(calendar.dateFromComponents({144683, 12, 31, 23, 59, 59}));
  EXPECT_EQ(calendar.dateFromComponents({144684, 1, 1, 0, 0, 0}), std::nullopt);
  EXPECT_EQ(calendar.dateFromComponents({0, 12, 31, 0, 0, 0}), std::nullopt);

  constexpr auto huge = std::numeric_limits<std::int64_t>::max();
  constexpr auto tiny = std::numeric_limits<std::int64_t>::min();
  EXPECT_EQ(calendar
                .dateByAddingComponents_toDate({.year = 300000},
                                               NSDate::dateWithMicrosecondsSince1970(tiny))
                ->xmlDateString(),
            "9692-12-20T19:29:45.224192Z")
      << "from before the calendar's years into them";
  const NSDate date = utc("20240105T093000Z");
  for (const std::int64_t amount : {huge, tiny, std::int64_t{1} << 40}) {
    EXPECT_EQ(calendar.dateByAddingComponents_toDate({.year = amount}, date), std::nullopt);
    EXPECT_EQ(calendar.dateByAddingComponents_toDate({.month = amount}, date), std::nullopt);
    EXPECT_EQ(calendar.dateByAddingComponents_toDate({.day = amount}, date), std::nullopt);
    EXPECT_EQ(calendar.dateByAddingComponents_toDate({.hour = amount}, date), std::nullopt);
    EXPECT_EQ(calendar.dateFromComponents({amount, amount, amount, amount, amount, amount}),
              std::nullopt);
  }
}

}  // namespace
}  // namespace quillmere
