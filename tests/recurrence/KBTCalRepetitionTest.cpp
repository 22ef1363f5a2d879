// Rules made of parts, and changed by their setters; the companions of a rule.

#include <gtest/gtest.h>
#include <quillmere/recurrence/KBTCalRepetition.h>
#include <quillmere/recurrence/RepetitionCycle.h>

#include <functional>
#include <locale>
#include <random>

#include "tests/support/ScopedTimeZone.h"
#include "tests/support/Series.h"

namespace quillmere {
namespace {

using Day = KBTCalRepetitionDayOfWeek;
using Numbers = KBTCalRepetition::Numbers;
using Weekdays = KBTCalRepetition::Weekdays;
using testing::localDate;
using testing::Rule;
using testing::ruleFrom;
using testing::ruleOf;
using testing::ScopedTimeZone;
using testing::seriesOf;

struct Parts {
  std::uint64_t frequency = KBTCalRepetition::MONTHLY;
  std::int64_t interval = 1;
  std::optional<Weekdays> weekdays;
  std::int64_t firstWeekday = -1;
  std::optional<Numbers> monthDays;
  std::optional<Numbers> months;
  std::optional<Numbers> weeks;
  std::optional<Numbers> yearDays;
  std::optional<Numbers> positions;

  Rule make(NSErrorPtr* error) const {
    return KBTCalRepetition::
        initWithFrequency_interval_daysOfTheWeek_firstWeekday_daysOfTheMonth_monthsOfTheYear_weeksOfTheYear_daysOfTheYear_setPositions_end_error(
            frequency, interval, weekdays, firstWeekday, monthDays, months, weeks, yearDays,
            positions, nullptr, error);
  }
};

constexpr auto daily = KBTCalRepetition::DAILY;
constexpr auto weekly = KBTCalRepetition::WEEKLY;
constexpr auto monthly = KBTCalRepetition::MONTHLY;
constexpr auto yearly = KBTCalRepetition::YEARLY;

TEST(KBTCalRepetition, IsMadeOfItsParts) {
  const struct {
    Parts parts;
    const char* written;
  } rows[] = {
      {{.frequency = weekly, .weekdays = Weekdays{Day::dayOfWeek(3), Day::dayOfWeek(1)}},
       "FREQ=WEEKLY;BYDAY=MO,WE"},
      {{.frequency = weekly, .weekdays = Weekdays{Day::dayOfWeek(9), Day::dayOfWeek(-1)}},
       "FREQ=WEEKLY"},
      {{.weekdays = Weekdays{}, .monthDays = Numbers{-2, 15, 1, -1}},
       "FREQ=MONTHLY;BYMONTHDAY=1,15,-1,-2"},
      {{.frequency = yearly, .months = Numbers{12, 2}}, "FREQ=YEARLY;BYMONTH=2,12"},
      {{.weekdays = Weekdays{Day::dayOfWeek(6)}, .positions = Numbers{-1, 2}},
       "FREQ=MONTHLY;BYDAY=SA;BYSETPOS=2,-1"},
      {{.weekdays = Weekdays{Day::dayOfWeek(9)}, .positions = Numbers{5, -5}},
       "FREQ=MONTHLY;BYSETPOS=5,-5"},
      {{.frequency = daily, .firstWeekday = 0}, "FREQ=DAILY;WKST=SU"},
      {{.frequency = daily, .firstWeekday = 7}, "FREQ=DAILY"},
  };
  for (const auto& row : rows) {
    NSErrorPtr error;
    const Rule rule = row.parts.make(&error);
    ASSERT_TRUE(rule) << row.written;
    EXPECT_EQ(rule->rrule(), row.written);
    EXPECT_EQ(error, nullptr);
  }
  constexpr auto withoutLists = KBTCalRepetition::initWithFrequency_interval_end_error;
  EXPECT_EQ(withoutLists(daily, 3, nullptr, nullptr)->rrule(), "FREQ=DAILY;INTERVAL=3");
}

// By the codes and texts of a written rule; lists are put in words here.
TEST(KBTCalRepetition, RefusesBadParts) {
  const Weekdays plain{Day::dayOfWeek(1)};
  const Weekdays numbered{Day::dayOfWeek(2), Day::dayOfWeek_weekNumber(1, 2)};
  const struct {
    Parts parts;
    std::int64_t code;  // 0 for none
    const char* words = "";
  } rows[] = {
      {{.frequency = 0}, 0},
      {{.frequency = 7, .interval = 0}, 0},
      {{.interval = 0, .months = Numbers{13}}, 2},
      {{.monthDays = Numbers{0}, .months = Numbers{1, 0}}, 3},
      {{.monthDays = Numbers{-32}, .positions = Numbers{1}}, 4},
      {{.weekdays = numbered, .months = Numbers{13}},
       5,
       "\"(\n    KBTCalRepetitionDayOfWeek 2 with offset 0,\n"
       "    KBTCalRepetitionDayOfWeek 1 with offset 2\n)\""},
      {{.weekdays = plain, .positions = Numbers{1, 6}}, 10, "from 1 to 5"},
      {{.frequency = yearly, .weekdays = plain, .positions = Numbers{6}}, 10, "\"(\n    6\n)\""},
      {{.weekdays = Weekdays{}, .positions = Numbers{1}}, 10, "\"(\n    1\n)\""},
  };
  for (const auto& row : rows) {
    NSErrorPtr error;
    EXPECT_EQ(row.parts.make(&error), nullptr) << row.code;
    EXPECT_EQ(error ? error->code() : 0, row.code);
    const std::string text = error ? error->localizedDescription() : "";
    EXPECT_NE(text.find(row.words), std::string::npos) << text;
  }
}

// Intended: who does not ask for errors gets the weekdays up to the first numbered one, plain.
TEST(KBTCalRepetition, WithoutAnErrorArgumentSeveralNumberedWeekdaysCountAsPlain) {
  const Weekdays weekdays{Day::dayOfWeek(2), Day::dayOfWeek_weekNumber(1, 2), Day::dayOfWeek(5)};
  for (const std::uint64_t frequency : {weekly, monthly}) {
    const Rule rule = Parts{.frequency = frequency, .weekdays = weekdays}.make(nullptr);
    ASSERT_TRUE(rule);
    EXPECT_EQ(rule->daysOfTheWeek(), (Weekdays{Day::dayOfWeek(1), Day::dayOfWeek(2)}));
  }
}

TEST(KBTCalRepetitionDeathTest, StopsOnWhatIsNotPorted) {
  const std::vector<std::function<void()>> calls = {
      [] { (void)Parts{.frequency = 0, .weeks = Numbers{}}.make(nullptr); },
      [] { (void)Parts{.yearDays = Numbers{1}}.make(nullptr); },
      [] {
        const auto weekdays = Weekdays{Day::dayOfWeek_weekNumber(1, 1)};
        (void)Parts{.frequency = weekly, .weekdays = weekdays}.make(nullptr);
      },
      [] { ruleOf("FREQ=DAILY")->setDaysOfTheWeek({{Day::dayOfWeek_weekNumber(1, 1)}}); },
      [] { (void)ruleOf("FREQ=HOURLY")->repetitionInstanceAtOrAfterDate(NSDate::date()); },
      [] {
        const Rule rule = ruleFrom("FREQ=MONTHLY;BYDAY=MO;BYSETPOS=1", "20240101T100000");
        rule->setDaysOfTheWeek(std::nullopt);
        (void)rule->nextRepetitionInstance(rule->firstRepetitionInstance());
      }};
  for (const auto& call : calls) {
    EXPECT_EXIT(call(), ::testing::KilledBySignal(SIGABRT),
                "KBTCalRepetition.*\\.cpp:[0-9]+: not yet ported");
  }
}

TEST(KBTCalRepetitionDeathTest, StopsOnWhatMustNotBeCalled) {
  struct Secondly : KBTCalRepetition {};  // no initializer makes one
  const auto step = [] {
    Secondly rule;
    rule.setStartDate(localDate("20240101T100000"));
    (void)rule.nextRepetitionInstance(rule.firstRepetitionInstance());
  };
  EXPECT_EXIT(step(), ::testing::KilledBySignal(SIGABRT), "must not be called");
  EXPECT_EXIT(KBTCalRepetitionEnd::init(), ::testing::KilledBySignal(SIGABRT),
              "must not be called");
}

TEST(KBTCalRepetition, CountAndEndDateReplaceEachOther) {
  const ScopedTimeZone zone("America/New_York");
  const Rule rule = ruleOf("FREQ=DAILY");
  const NSDate end = localDate("20240310T153000");
  rule->setEndDate(end);
  EXPECT_EQ(rule->rrule(), "FREQ=DAILY;UNTIL=20240310T193000Z");
  EXPECT_EQ(rule->repetitionEndDate(), end);
  const NSDate nextDay = localDate("20240311T000000");
  EXPECT_EQ(rule->beginningOfDayAfterEndDate(), nextDay);

  rule->setRecurrenceCount(5);
  EXPECT_EQ(rule->rrule(), "FREQ=DAILY;COUNT=5");
  EXPECT_EQ(rule->repetitionEndDate(), std::nullopt);
  EXPECT_EQ(rule->beginningOfDayAfterEndDate(), nextDay) << "intended: it stays";

  rule->setEndDate(end);
  EXPECT_EQ(rule->recurrenceCount(), 0);
  rule->setRecurrenceCount(5);
  rule->setEndDate(std::nullopt);
  EXPECT_EQ(rule->rrule(), "FREQ=DAILY");
  EXPECT_EQ(rule->beginningOfDayAfterEndDate(), std::nullopt);
}

TEST(KBTCalRepetition, TheDayAfterTheEndIsOneOfWallTime) {
  // On 4 November 2018 clocks in São Paulo went from 00:00 to 01:00: that day starts at 01:00, and
  // a day later is 01:00 as well.
  const ScopedTimeZone zone("America/Sao_Paulo");
  const Rule rule = ruleOf("FREQ=DAILY;UNTIL=20181104");
  EXPECT_EQ(rule->repetitionEndDate(), localDate("20181104T010000"));
  EXPECT_EQ(rule->beginningOfDayAfterEndDate(), localDate("20181105T010000"));
}

// Intended: a list of weekdays without numbers leaves the number of an earlier one.
TEST(KBTCalRepetition, SettersKeepWhatTheyCannotReplace) {
  const Rule rule = ruleOf("FREQ=MONTHLY;BYDAY=-1FR");
  rule->setDaysOfTheWeek({{Day::dayOfWeek(1), Day::dayOfWeek(2)}});
  EXPECT_EQ(rule->rrule(), "FREQ=MONTHLY;BYDAY=-1MO,-1TU");
  EXPECT_EQ(rule->daysOfTheWeek().front(), Day::dayOfWeek_weekNumber(1, -1));
  rule->setDaysOfTheWeek({{Day::dayOfWeek_weekNumber(3, 2)}});
  EXPECT_EQ(rule->rrule(), "FREQ=MONTHLY;BYDAY=2WE");
  rule->setDaysOfTheWeek({{Day::dayOfWeek_weekNumber(3, 4), Day::dayOfWeek(0)}});
  EXPECT_EQ(rule->rrule(), "FREQ=MONTHLY;BYDAY=2WE") << "visited up to the numbered one";
  rule->setDaysOfTheWeek(Weekdays{});
  EXPECT_EQ(rule->rrule(), "FREQ=MONTHLY");
  rule->setIntervalCount(0);
  EXPECT_EQ(rule->intervalCount(), 1) << "not stored";
}

TEST(KBTCalRepetition, TheEndOfACountedSeriesIsItsLastOccurrence) {
  const ScopedTimeZone zone("America/New_York");
  const NSCalendar calendar = NSCalendar::currentCalendar();
  const auto afterCycles = calendar.dateFromComponents({122024, 1, 31, 10, 0, 0});
  const struct {
    const char* rule;
    std::optional<NSDate> end;
    const char* start = "20240131T100000";
  } rows[] = {
      {"FREQ=DAILY", std::nullopt},
      {"FREQ=MONTHLY;BYDAY=6MO;COUNT=3", std::nullopt},
      {"FREQ=DAILY;COUNT=3;UNTIL=20240601", localDate("20240601T000000")},
      {"FREQ=YEARLY;COUNT=9223372036854775807", std::nullopt},
      // Elapsed hours but for the repeated one of each November, 2024 to 2030.
      {"FREQ=HOURLY;COUNT=60000",
       localDate("20240131T100000").dateByAddingSeconds(std::int64_t{60'006} * 3600)},
      // In 300 times 400 years.
      {"FREQ=HOURLY;COUNT=1051778401", afterCycles},
      {"FREQ=DAILY;COUNT=43829101", afterCycles},
      {"FREQ=MONTHLY;INTERVAL=2;BYMONTHDAY=31;COUNT=480001", afterCycles},
      // The same places came again before clocks were changed in March.
      {"FREQ=YEARLY;BYMONTH=2,3;BYDAY=2SU;COUNT=3201",
       calendar.dateFromComponents({3000, 2, 9, 3, 30, 0}), "14000209T023000"},
      // The last year of the calendar.
      {"FREQ=YEARLY;COUNT=142660", calendar.dateFromComponents({144683, 1, 31, 10, 0, 0})},
      {"FREQ=YEARLY;COUNT=142661", std::nullopt},
      {"FREQ=DAILY;INTERVAL=9223372036854775807;COUNT=9223372036854775807", std::nullopt},
  };
  for (const auto& row : rows) {
    const Rule rule = ruleFrom(row.rule, row.start);
    EXPECT_EQ(rule->endDate(), row.end) << row.rule;
  }
  const Rule negative = ruleFrom("FREQ=DAILY", "20240131T100000");
  negative->setRecurrenceCount(-2);
  EXPECT_EQ(negative->rrule(), "FREQ=DAILY;COUNT=-2");
  EXPECT_EQ(negative->endDate(), localDate("20240131T100000"));
  EXPECT_EQ(seriesOf(*negative, 3), "20240131T1000 end");
}

// Many steps taken at once must lead where single ones do, however clocks were set on the way and
// whenever the walk comes round.
TEST(KBTCalRepetition, CountsManyStepsAsItTakesThem) {
  std::mt19937 random(8);
  const auto oneOf = [&random](std::initializer_list<const char*> all) {
    return std::string(std::data(all)[random() % all.size()]);
  };
  for (int round = 0; round < 10'000; ++round) {
    const ScopedTimeZone zone(oneOf({"America/New_York", "Australia/Lord_Howe", "America/Sao_Paulo",
                                     "America/Nuuk", "Africa/Cairo"}));
    std::string text = "FREQ=";
    text += oneOf({"MINUTELY", "HOURLY", "HOURLY", "DAILY", "WEEKLY", "WEEKLY;WKST=WE;BYDAY=TU,WE",
                   "MONTHLY", "MONTHLY;BYMONTHDAY=29,31,-31", "MONTHLY;BYDAY=5MO",
                   "MONTHLY;BYDAY=-1SU", "MONTHLY;BYDAY=TU,SA;BYSETPOS=5,-5", "YEARLY",
                   "YEARLY;BYMONTH=3,11", "YEARLY;BYMONTH=2;BYMONTHDAY=29",
                   "YEARLY;BYMONTH=2;BYDAY=5SU", "YEARLY;BYMONTH=2,4,3;BYDAY=2SU"});
    text.append(";INTERVAL=")
        .append(oneOf({"1", "2", "5", "12", "30", "97", "400", "773", "1200", "8766"}));
    const Rule rule = ruleOf(text);
    const std::int64_t month = (round % 4 == 0 ? 1850 : 2250) * 12 + random() % 1200;
    rule->setStartDate(NSCalendar::currentCalendar().dateFromComponents(
        {0, month, random() % 31 + 1, random() % 4, random() % 60, random() % 60}));
    const std::int64_t last = random() % (1U << random() % 12);
    KBTRepetitionInstance instance = rule->firstRepetitionInstance();
    while (instance.occurrence != last) instance = rule->nextRepetitionInstance(instance);
    rule->setRecurrenceCount(last + 1);
    ASSERT_EQ(rule->endDate(), KBTCalRepetition::dateForInstance(instance))
        << rule->rrule() << " from " << rule->startDate()->description() << " in "
        << NSTimeZone::defaultTimeZone().name();
  }
}

// Rules are a stranger's text: whatever they ask for, a walk is short.
TEST(KBTCalRepetition, TakesFewStepsThroughAnyRule) {
  const ScopedTimeZone zone("America/New_York");
  const struct {
    const char* rule;
    std::uint64_t most;
  } rows[] = {
      {"MINUTELY", 3'000},
      {"HOURLY;INTERVAL=4001", 300'000},
      {"WEEKLY;BYDAY=SU,MO,TU,WE,TH,FR,SA", 600'000},
      {"MONTHLY;INTERVAL=11;BYMONTHDAY=1,2,3,4,5,6,7,8,9", 200'000},
      // These never match.
      {"MONTHLY;INTERVAL=12;BYMONTHDAY=31", 1'500},
      {"YEARLY;INTERVAL=7;BYMONTH=2,4,6,9,11;BYMONTHDAY=31", 10'000},
      {"YEARLY;INTERVAL=100;BYMONTH=2;BYMONTHDAY=29", 50},
  };
  for (const auto& row : rows) {
    const Rule rule =
        ruleFrom(std::string("FREQ=") + row.rule + ";COUNT=9223372036854775807", "20230228T100000");
    const std::uint64_t before = RepetitionCycle::stepsOfThread();
    EXPECT_EQ(rule->endDate(), std::nullopt) << row.rule;
    EXPECT_LE(RepetitionCycle::stepsOfThread() - before, row.most) << row.rule;
  }
}

TEST(KBTCalRepetition, DescribesItselfForDebugging) {
  const ScopedTimeZone zone("UTC");
  const Rule rule = ruleFrom("FREQ=MONTHLY;BYDAY=-1FR;COUNT=4", "20240131T100000");
  EXPECT_EQ(rule->testString(), "2/23/2024 3/29/2024 4/26/2024 ");
  const HWDebugDictionary dictionary = rule->debugDictionary();
  EXPECT_EQ(dictionary.size(), 4U);
  EXPECT_EQ(std::get<NSDate>(dictionary.at("endDate")), localDate("20240426T100000"));
  EXPECT_EQ(std::get<std::string>(dictionary.at("RRULE")), "FREQ=MONTHLY;COUNT=4;BYDAY=-1FR");
  const std::string self = std::get<std::string>(dictionary.at("self"));
  EXPECT_TRUE(self.starts_with("<KBTCalRepetition: 0x") && self.ends_with(">")) << self;

  const Rule bare = ruleOf("FREQ=DAILY");
  EXPECT_EQ(bare->debugDictionary().size(), 2U);
  EXPECT_EQ(bare->testString(), "") << "without a start";
}

// A host's locale must not get into what other programs read.
TEST(KBTCalRepetition, WritesNumbersWithoutTheLocalesGrouping) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  const Rule rule = ruleFrom("FREQ=DAILY;INTERVAL=1000;COUNT=10000", "20240131T100000");
  const std::string written = rule->rrule() + " " + rule->testString().substr(0, 10);
  std::locale::global(before);
  EXPECT_EQ(written, "FREQ=DAILY;INTERVAL=1000;COUNT=10000 10/27/2026");
}

}  // namespace
}  // namespace quillmere
