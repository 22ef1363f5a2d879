#include <gtest/gtest.h>
#include <quillmere/recurrence/KBTCalRepetition.h>

#include <limits>

#include "tests/support/ScopedTimeZone.h"
#include "tests/support/Series.h"

namespace quillmere {
namespace {

using testing::ruleOf;
using testing::ScopedTimeZone;

// What is protected, for tests.
struct Exposed : KBTCalRepetition {
  using KBTCalRepetition::_indexForWKST;
  using KBTCalRepetition::_parseRRule;
};

// What a rule is read as, told by writing it again.
TEST(KBTCalRepetitionParsing, AcceptsWhatProducersWrite) {
  const struct {
    const char* text;
    const char* written;
  } rows[] = {
      {"WKST=MO;FREQ=HOURLY", "FREQ=HOURLY"},
      {"FREQ=YEARLY;BYDAY=+3TU", "FREQ=YEARLY;BYDAY=3TU"},
      {"FREQ=MONTHLY;BYDAY=2xMO", "FREQ=MONTHLY;BYDAY=2MO"},
      {"FREQ=WEEKLY;BYDAY=SA,SA,SU", "FREQ=WEEKLY;BYDAY=SU,SA"},
      {"FREQ=DAILY;COUNT=0", "FREQ=DAILY"},
      {"FREQ=DAILY;INTERVAL=2a", "FREQ=DAILY;INTERVAL=2"},
      {"FREQ=DAILY;INTERVAL=99999999999999999999", "FREQ=DAILY;INTERVAL=9223372036854775807"},
      {"FREQ=DAILY;INTERVAL= \t\n\v\f\r2;COUNT=\n+3", "FREQ=DAILY;INTERVAL=2;COUNT=3"},
      {"FREQ=DAILY;INTERVAL=\t2;COUNT=9223372036854775808",
       "FREQ=DAILY;INTERVAL=2;COUNT=9223372036854775807"},
      {"FREQ=DAILY;WKST=", "FREQ=DAILY"},
      {"FREQ=MONTHLY;WKST=SU;BYSETPOS=-1,2;BYDAY=FR,MO;BYMONTHDAY=1,-1,31;BYMONTH=12,1;COUNT=7;"
       "INTERVAL=2",
       "FREQ=MONTHLY;INTERVAL=2;COUNT=7;BYMONTH=1,12;BYMONTHDAY=1,31,-1;BYDAY=MO,FR;"
       "BYSETPOS=2,-1;WKST=SU"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ruleOf(row.text)->rrule(), row.written) << row.text;
  }
  const auto rule = ruleOf("RRULE:FREQ=WEEKLY;BYDAY=MO,WE;COUNT=7");
  EXPECT_EQ(rule->frequency(), KBTCalRepetition::WEEKLY);
  EXPECT_EQ(rule->endDate(), std::nullopt) << "a count without a start has no last date";
  EXPECT_EQ(rule->assignedFirstWeekday(), -1);
  EXPECT_EQ(rule->effectiveFirstWeekday(), 1);
}

TEST(KBTCalRepetitionParsing, RefusesWithCodeAndText) {
  const struct {
    const char* text;
    std::int64_t code;
    const char* description = "";  // empty where a row above has it
  } rows[] = {
      {"", 1, "Unknown value \"(null)\" for FREQ"},
      {"FREQ=DAILY;", 1, "Unknown value \"(null)\" for FREQ"},
      {"RRULE:RRULE:FREQ=DAILY", 1, "Unknown value \"(null)\" for FREQ"},
      {"FREQ=daily", 1, "Unknown value \"daily\" for FREQ"},
      {"FREQ=%@", 1, "Unknown value \"%@\" for FREQ"},
      {"FREQ=DAILY;INTERVAL=0", 2, "Interval must be greater than 0."},
      {"FREQ=DAILY;INTERVAL=-99999999999999999999", 2},
      {"FREQ=DAILY;INTERVAL=0;BYWEEKNO=3;COUNT=-1", 2},
      {"FREQ=YEARLY;BYMONTH=0", 3, "Month values must be from 1 to 12."},
      {"FREQ=YEARLY;BYMONTH=12,13", 3},
      {"FREQ=MONTHLY;BYMONTHDAY=0;BYMONTH=13", 3},
      {"FREQ=MONTHLY;BYDAY=XX;BYMONTHDAY=0", 4,
       "Month day values must be from 1 to 31 or -1 to -31."},
      {"FREQ=MONTHLY;BYMONTHDAY=32", 4},
      {"FREQ=MONTHLY;BYMONTHDAY=1,-32", 4},
      {"FREQ=WEEKLY;BYDAY=2MO", 5,
       "BYDAY with numeric value \"2MO\" is not supported with provided FREQ value."},
      {"FREQ=DAILY;BYDAY=-1XX", 5,
       "BYDAY with numeric value \"-1XX\" is not supported with provided FREQ value."},
      {"FREQ=WEEKLY;BYDAY=MO,XX", 5, "BYDAY value \"MO,XX\" not valid."},
      {"FREQ=MONTHLY;BYDAY=0MO", 5, "BYDAY value \"0MO\" not valid."},
      {"FREQ=MONTHLY;BYDAY=\nMO", 5, "BYDAY value \"\nMO\" not valid."},
      {"FREQ=MONTHLY;BYDAY=3", 5, "BYDAY value \"3\" not valid."},
      {"FREQ=YEARLY;BYSETPOS=1;BYDAY=mo", 5, "BYDAY value \"mo\" not valid."},
      {"FREQ=WEEKLY;BYDAY=MO,2TU", 6, "BYDAY value \"MO,2TU\" not supported."},
      {"FREQ=DAILY;COUNT=-1", 7,
       "End count must be zero (for date-based or limitless recurrences) or greater."},
      {"X=1;FREQ=DAILY;=", 8,
       "Encountered unprocessed recurrence properties (\n    X,\n    FREQ,\n    \n)"},
      {"FREQ=DAILY;UNTIL=NEVER", 9, "Unrecognized date format"},
      {"FREQ=DAILY;UNTIL=20250131 ;COUNT=-1", 9},
      {"FREQ=MONTHLY;BYDAY=MO;BYSETPOS=6", 10,
       "Set position values (i.e. BYSETPOS) are only supported for MONTHLY repeats representing "
       "BYDAY rules and therefore must be from 1 to 5 or -1 to -5."},
      {"FREQ=MONTHLY;BYDAY=MO;BYSETPOS=1,-6", 10},
      {"FREQ=YEARLY;BYDAY=MO;BYSETPOS=", 10,
       "BYSETPOS value \"\" only supported for MONTHLY rules with a corresponding BYDAY rule."},
      {"FREQ=MONTHLY;BYSETPOS=1,9;BYHOUR=9", 10,
       "BYSETPOS value \"1,9\" only supported for MONTHLY rules with a corresponding BYDAY rule."},
  };
  for (const auto& row : rows) {
    NSErrorPtr error;
    EXPECT_EQ(KBTCalRepetition::initWithRRule_error(row.text, &error), nullptr) << row.text;
    ASSERT_TRUE(error) << row.text;
    EXPECT_EQ(error->domain(), "com.tessaly.Quillmere.ErrorDomain");
    EXPECT_EQ(error->code(), row.code) << row.text;
    EXPECT_TRUE(std::get<std::string>(error->userInfo().at(KSErrorFileKey))
                    .starts_with("KBTCalRepetition"));
    if (*row.description != 0) {
      EXPECT_EQ(error->localizedDescription(), row.description);
    }
    EXPECT_EQ(KBTCalRepetition::initWithRRule_error(row.text, nullptr), nullptr) << row.text;
  }
}

TEST(KBTCalRepetitionParsing, ErrorsTellWhereTheyComeFromAndWhatWentBefore) {
  NSErrorPtr error;
  KBTCalRepetition::initWithRRule_error("FREQ=DAILY;UNTIL=NEVERT1", &error);
  const NSErrorPtr first = error;
  EXPECT_EQ(first->underlyingError(), nullptr);
  EXPECT_EQ(std::get<std::string>(first->userInfo().at(NSLocalizedRecoverySuggestionErrorKey)),
            "The date-only string “NEVER” could not be parsed as a date.");
  EXPECT_EQ(std::get<std::string>(first->userInfo().at(KSErrorFileKey)),
            "KBTCalRepetition+Parsing.cpp");
  EXPECT_GT(std::get<std::int64_t>(first->userInfo().at(KSErrorLineKey)), 0);

  KBTCalRepetition::initWithRRule_error(std::nullopt, &error);
  EXPECT_EQ(error->code(), KBTUnknownFrequencyError);
  EXPECT_EQ(error->underlyingError(), first);
  EXPECT_FALSE(error->userInfo().contains(NSLocalizedRecoverySuggestionErrorKey));

  const NSErrorPtr second = error;
  ASSERT_TRUE(KBTCalRepetition::initWithRRule_error("FREQ=DAILY", &error));
  EXPECT_EQ(error, second) << "a success leaves the argument alone";
}

TEST(KBTCalRepetitionParsing, RefusesSecondlyWithoutAnError) {
  const NSErrorPtr before = NSError::errorWithPOSIXCode(1);
  NSErrorPtr error = before;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(KBTCalRepetition::initWithRRule_error("FREQ=SECONDLY;INTERVAL=0", &error), nullptr);
  const std::string printed = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(printed.find(": NOTREACHED\n"), std::string::npos) << printed;
  EXPECT_GT(std::count(printed.begin(), printed.end(), '\n'), 2) << "no frames:\n" << printed;
  EXPECT_EQ(error, before);
}

TEST(KBTCalRepetitionParsing, AnUnknownWeekStartIsNone) {
  EXPECT_EQ(Exposed::_indexForWKST(std::nullopt), -1);
  EXPECT_EQ(Exposed::_indexForWKST("TH"), 4);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(Exposed::_indexForWKST(""), -1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  ::testing::internal::CaptureStderr();
  const auto rule = ruleOf("FREQ=DAILY;WKST=XX");
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("NOTREACHED"), std::string::npos);
  EXPECT_EQ(rule->assignedFirstWeekday(), -1);
}

TEST(KBTCalRepetitionParsing, OfUntilTheDayCounts) {
  const ScopedTimeZone zone("America/New_York");
  for (const char* text : {"FREQ=DAILY;UNTIL=20250131", "FREQ=DAILY;UNTIL=20250131T030000Z",
                           "FREQ=DAILY;COUNT=5;UNTIL=20250131TRUBBISHT1"}) {
    const auto rule = ruleOf(text);
    EXPECT_EQ(rule->repetitionEndDate(), testing::localDate("20250131T000000")) << text;
    EXPECT_EQ(rule->beginningOfDayAfterEndDate(), testing::localDate("20250201T000000")) << text;
  }
  const auto both = ruleOf("FREQ=DAILY;COUNT=5;UNTIL=20250131");
  EXPECT_EQ(both->recurrenceCount(), 5) << "both stay";
  EXPECT_EQ(both->rrule(), "FREQ=DAILY;UNTIL=20250131T050000Z") << "and one is written";
}

TEST(KBTCalRepetitionParsing, SplitsIntoPartsOfWhichTheLastOfAKindCounts) {
  const auto parts = Exposed::_parseRRule("RRULE:A=1;B=x=y;A=;RRULE:C=2");
  ASSERT_TRUE(parts);
  EXPECT_EQ(parts->keys(), (std::vector<std::string_view>{"A", "B", "RRULE:C"}));
  EXPECT_EQ(*parts->find("A"), "");
  EXPECT_EQ(*parts->find("B"), "x=y");
  EXPECT_EQ(Exposed::_parseRRule("A=1;;B=2"), std::nullopt);
}

}  // namespace
}  // namespace quillmere
