#include <gtest/gtest.h>
#include <quillmere/recurrence/KBTCalRepetition.h>

#include <limits>

#include "tests/support/ScopedTimeZone.h"
#include "tests/support/Series.h"

namespace quillmere {
namespace {

using testing::localDate;
using testing::Rule;
using testing::ruleFrom;
using testing::ruleOf;
using testing::ScopedTimeZone;
using testing::seriesOf;
using testing::textOf;

struct Row {
  const char* rule;
  const char* series;  // the first occurrences from the start on, or all with "end"
};

template <std::size_t Count>
void expectSeries(const Row (&rows)[Count]) {
  for (const Row& row : rows) {
    const std::string expected = row.series;
    const auto occurrences = 1 + std::count(expected.begin(), expected.end(), ' ');
    const Rule rule = ruleFrom(row.rule, expected.substr(0, 13) + "00");
    EXPECT_EQ(seriesOf(*rule, static_cast<int>(occurrences)), expected) << row.rule;
  }
}

// What the comparison with libical leaves out: a start that does not fit its rule, which counts all the
// same, and where this library means to differ.
TEST(KBTCalRepetitionInstances, BeginWithTheStartAndFollowRulesOfTheirOwn) {
  expectSeries({
      {"FREQ=WEEKLY;INTERVAL=2;BYDAY=MO", "20240131T1000 20240212T1000"},
      {"FREQ=YEARLY;BYMONTH=1,6;BYMONTHDAY=15", "20240131T1000 20240615T1000 20250115T1000"},
      // Only weeks, months and years have lists.
      {"FREQ=DAILY;BYDAY=MO;BYMONTH=1;BYMONTHDAY=9", "20240131T1000 20240201T1000"},
      // A month's end that the day was moved to is where later months and years start from.
      {"FREQ=MONTHLY", "20240131T1000 20240229T1000 20240329T1000"},
      {"FREQ=YEARLY", "20240229T1000 20250228T1000 20260228T1000"},
      // Every number from the end means the last, and one that no month has none.
      {"FREQ=MONTHLY;BYDAY=-2FR", "20240131T1000 20240223T1000 20240329T1000"},
      {"FREQ=MONTHLY;BYDAY=6MO", "20240101T1000 end"},
      {"FREQ=MONTHLY;BYDAY=999999999999MO", "20240101T1000 end"},
      // Of BYMONTHDAY, a numbered weekday and BYSETPOS the first decides.
      {"FREQ=MONTHLY;BYMONTHDAY=13;BYDAY=1FR", "20240101T1000 20240113T1000"},
      {"FREQ=MONTHLY;BYDAY=2MO;BYSETPOS=1", "20240101T1000 20240108T1000"},
      // The positive positions give one day at a time, the earliest of both kinds comes first.
      {"FREQ=MONTHLY;BYDAY=MO;BYSETPOS=5,-1,-4",
       "20240201T1000 20240205T1000 20240226T1000 20240304T1000"},
      // Weekdays alone select nothing in months, and neither does BYMONTH.
      {"FREQ=MONTHLY;BYDAY=MO,TU;BYMONTH=7", "20240131T1000 20240229T1000"},
      {"FREQ=YEARLY;BYMONTH=1,2,5;BYDAY=MO",
       "20240131T1000 20240229T1000 20240529T1000 20250129T1000 20250228T1000"},
      // Without BYMONTH nothing else counts in years.
      {"FREQ=YEARLY;INTERVAL=4;BYMONTHDAY=1;BYDAY=2MO", "20240229T1000 20280229T1000"},
  });
}

TEST(KBTCalRepetitionInstances, EndsByCountAndDay) {
  expectSeries({
      {"FREQ=DAILY;COUNT=3;UNTIL=20240201", "20240131T1000 20240201T1000 end"},
      {"FREQ=DAILY;COUNT=2;UNTIL=20240209", "20240131T1000 20240201T1000 end"},
      // Intended: midnight after the last day still counts, a minute later does not.
      {"FREQ=HOURLY;INTERVAL=12;UNTIL=20240131", "20240131T1200 20240201T0000 end"},
      {"FREQ=DAILY;UNTIL=20240131", "20240131T0001 end"},
      // The start is an occurrence in any case.
      {"FREQ=DAILY;UNTIL=20230101", "20240131T1000 end"},
  });
}

// What only setters leave behind.
TEST(KBTCalRepetitionInstances, FollowStaleParts) {
  const Rule rule = ruleFrom("FREQ=DAILY", "20240131T100000");
  rule->setEndDate(localDate("20240201T000000"));
  rule->setRecurrenceCount(4);
  EXPECT_EQ(seriesOf(*rule, 9), "20240131T1000 20240201T1000 20240202T1000 20240203T1000 end");
  const Rule numbered = ruleFrom("FREQ=MONTHLY;BYDAY=2MO", "20240101T100000");
  numbered->setDaysOfTheWeek(
      {{KBTCalRepetitionDayOfWeek::dayOfWeek(5), KBTCalRepetitionDayOfWeek::dayOfWeek(2)}});
  EXPECT_EQ(seriesOf(*numbered, 2), "20240101T1000 20240109T1000") << "the lowest weekday counts";
  numbered->setDaysOfTheWeek(std::nullopt);
  EXPECT_EQ(seriesOf(*numbered, 2), "20240101T1000 end") << "a number without weekday";
}

TEST(KBTCalRepetitionInstances, AnEndMarkerIsFollowedByOne) {
  const Rule rule = ruleFrom("FREQ=DAILY;COUNT=1", "20240131T100000");
  auto end = rule->nextRepetitionInstance(rule->firstRepetitionInstance());
  EXPECT_EQ(end.occurrence, 1);
  KBTCalRepetition::addDays_repetitionInstance(3, end);
  EXPECT_EQ(textOf(end), "end");
  const Rule never = ruleFrom("FREQ=MONTHLY;BYDAY=6MO", "20240101T100000");
  EXPECT_EQ(never->nextRepetitionInstance(never->firstRepetitionInstance()),
            (KBTRepetitionInstance{1, 0, 0, 10, 0, 1, 1, 31, 2024}))
      << "found out in the first month";
  rule->setRecurrenceCount(0);
  EXPECT_EQ(textOf(rule->nextRepetitionInstance(end)), "end");
  EXPECT_EQ(KBTCalRepetition::dateForInstance(end), std::nullopt);
  EXPECT_EQ(seriesOf(*ruleOf("FREQ=MINUTELY"), 3), "end") << "without a start";
}

TEST(KBTCalRepetitionInstances, CarryEveryField) {
  const ScopedTimeZone zone("America/New_York");
  const Rule rule = ruleFrom("FREQ=DAILY;INTERVAL=31", "20240128T235930");
  KBTRepetitionInstance instance = rule->firstRepetitionInstance();
  EXPECT_EQ(instance, (KBTRepetitionInstance{0, 30, 59, 23, 28, 0, 1, 31, 2024}));
  instance = rule->nextRepetitionInstance(instance);
  EXPECT_EQ(instance, (KBTRepetitionInstance{1, 30, 59, 23, 28, 3, 2, 29, 2024}));
  EXPECT_EQ(KBTCalRepetition::dateForInstance(instance), localDate("20240228T235900"))
      << "intended: dates are whole minutes";
  // Intended: these two frequencies count weekdays from 1.
  const Rule hourly = ruleFrom("FREQ=HOURLY", "20240127T233040");
  instance = hourly->nextRepetitionInstance(hourly->firstRepetitionInstance());
  EXPECT_EQ(instance, (KBTRepetitionInstance{1, 0, 30, 0, 28, 1, 1, 31, 2024}));
  const Rule monthly = ruleFrom("FREQ=MONTHLY;BYDAY=-1FR", "20240131T100050");
  instance = monthly->nextRepetitionInstance(monthly->firstRepetitionInstance());
  EXPECT_EQ(instance, (KBTRepetitionInstance{1, 0, 0, 10, 23, 5, 2, 29, 2024}));
}

// Texts are wall time.
TEST(KBTCalRepetitionInstances, GoThroughTheChangesOfClocks) {
  // 2024: 02:00 to 03:00 on 10 March; 02:00 back to 01:00 on 3 November.
  const ScopedTimeZone newYork("America/New_York");
  expectSeries({
      // Days keep the wall time, also one that is skipped.
      {"FREQ=DAILY", "20240309T0230 20240310T0230 20240311T0230"},
      // Intended: a month or year step takes the moved time along.
      {"FREQ=MONTHLY", "20240210T0230 20240310T0330 20240410T0330"},
      {"FREQ=MONTHLY;BYDAY=2SU", "20240211T0230 20240310T0230 20240414T0330"},
      {"FREQ=YEARLY", "20230310T0230 20240310T0330 20250310T0330"},
      // Hours are elapsed time, but one of the repeated hour's two is passed over.
      {"FREQ=HOURLY", "20240310T0030 20240310T0130 20240310T0330"},
      {"FREQ=HOURLY", "20241103T0030 20241103T0130 20241103T0230"},
      {"FREQ=HOURLY;INTERVAL=6", "20241102T2000 20241103T0100 20241103T0600"},
      {"FREQ=MINUTELY;INTERVAL=20", "20241103T0120 20241103T0140 20241103T0200"},
      // Four minutes repeat in part.
      {"FREQ=MINUTELY", "18831118T1201 18831118T1202 18831118T1203 18831118T1204"},
  });

  // 02:00 to 03:00 on 31 March 2024. The search for a last weekday has gone back to 26 January, and
  // the step starts from there.
  const ScopedTimeZone paris("Europe/Paris");
  expectSeries({{"FREQ=MONTHLY;INTERVAL=2;BYDAY=-1FR", "20240131T0230 20240329T0230"}});

  // Samoa had no 30 December 2011.
  const ScopedTimeZone apia("Pacific/Apia");
  expectSeries({{"FREQ=MONTHLY", "20111130T1000 20111231T1000 20120131T1000"}});
}

TEST(KBTCalRepetitionInstances, FindsTheFirstOnOrAfterADay) {
  const struct {
    const char* rule;
    const char* date;
    const char* found;
  } rows[] = {
      {"FREQ=DAILY", "20230101T000000", "20240131T1000"},
      {"FREQ=DAILY", "20240301T235900", "20240301T1000"},  // the day counts, not the time
      {"FREQ=YEARLY", "20300201T000000", "20310131T1000"},
      {"FREQ=DAILY;COUNT=3", "20240203T000000", "end"},
  };
  for (const auto& row : rows) {
    const Rule rule = ruleFrom(row.rule, "20240131T100000");
    EXPECT_EQ(textOf(rule->repetitionInstanceAtOrAfterDate(localDate(row.date))), row.found)
        << row.rule << " from " << row.date;
  }
}

TEST(KBTCalRepetitionInstances, MoveByDays) {
  const Rule rule = ruleFrom("FREQ=DAILY", "20240131T100000");  // a Wednesday
  const struct {
    std::int64_t days;
    const char* day;
    int weekday;
  } rows[] = {
      {1, "20240201T1000", 4},       {30, "20240301T1000", 5},
      {-1, "20240131T1000", 3},      {146'097, "24240131T1000", 3},
      {292'163, "28231231T1000", 0}, {std::numeric_limits<std::int64_t>::max(), "end", 0},
  };
  for (const auto& row : rows) {
    KBTRepetitionInstance instance = rule->firstRepetitionInstance();
    KBTCalRepetition::addDays_repetitionInstance(row.days, instance);
    EXPECT_EQ(textOf(instance), row.day);
    if (instance.day != 0) {
      EXPECT_EQ(instance.weekday, row.weekday) << row.day;
    }
  }
}

// Every walk ends: with intervals and counts of any size, from both ends of the calendar, and also
// where nothing can match.
TEST(KBTCalRepetitionInstances, EndWithTheCalendar) {
  const ScopedTimeZone zone("America/New_York");
  const NSCalendar calendar = NSCalendar::currentCalendar();
  const NSDate last = calendar.dateFromComponents({144683, 12, 31, 23, 59, 0}).value();
  const NSDate first = calendar.dateFromComponents({1, 1, 1, 0, 0, 0}).value();
  const char* const lists[] = {"", ";BYMONTH=2;BYMONTHDAY=30,31", ";BYMONTH=2;BYDAY=MO",
                               ";BYMONTHDAY=31,-31"};
  for (const char* frequency : {"MINUTELY", "HOURLY", "DAILY", "WEEKLY", "MONTHLY", "YEARLY"}) {
    for (const char* list : lists) {
      const std::string text = std::string("FREQ=") + frequency + list;
      const Rule rule = ruleOf(text);
      rule->setStartDate(first);
      EXPECT_NE(seriesOf(*rule, 2), "end") << text;
      rule->setStartDate(last);
      EXPECT_EQ(textOf(rule->nextRepetitionInstance(rule->firstRepetitionInstance())), "end")
          << text;
    }
  }
  // Lengths that would overflow, if they were let, to something short.
  expectSeries({
      {"FREQ=MONTHLY;INTERVAL=9223372036854775807", "20240131T1000 end"},
      {"FREQ=YEARLY;INTERVAL=9223372036854775807;BYMONTH=1", "20240131T1000 end"},
      {"FREQ=MINUTELY;INTERVAL=307445734561825861", "20240131T1000 end"},
      {"FREQ=WEEKLY;INTERVAL=2635249153387078803", "20240131T1000 end"},
  });
  const Rule rule = ruleOf("FREQ=DAILY");
  rule->setStartDate(last.dateByAddingSeconds(60));
  EXPECT_EQ(seriesOf(*rule, 2), "end") << "a start outside the calendar";
  rule->setStartDate(last.dateByAddingSeconds(-86'400));
  rule->setEndDate(last.dateByAddingSeconds(-3600));
  EXPECT_EQ(seriesOf(*rule, 3), "1446831230T2359 1446831231T2359 end") << "the end day is whole";
  rule->setStartDate(first);
  rule->setEndDate(NSDate::dateWithMicrosecondsSince1970(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(textOf(rule->nextRepetitionInstance(rule->firstRepetitionInstance())), "end");
}

}  // namespace
}  // namespace quillmere
