#include <gtest/gtest.h>
#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/recurrence/KBTCalRepetition.h>

#include <cstddef>
#include <string>

#include "tests/support/AllocationFaults.h"

namespace quillmere {
namespace {

using testing::Allocations;

std::string manyLines() {
  std::string text;
  for (int i = 0; i < 1000; ++i) {
    text += "ATTENDEE;CN=Somebody with a long name;ROLE=CHAIR:mailto:somebody@example.com\r\n";
    text +=
        "DESCRIPTION:a text that is longer than any small string\\, escaped\r\n  and folded\r\n";
  }
  return text;
}

TEST(Allocations, NoneForALineWhoseKeyAloneIsAskedFor) {
  const auto reader = KBTCalObject::initWithData(NSData::dataWithString(manyLines()));
  const std::size_t before = Allocations::made();
  std::size_t lines = 0;
  while (reader->nextLine()) lines += reader->key() ? 1 : 0;
  EXPECT_EQ(lines, 2000U);
  EXPECT_EQ(Allocations::made() - before, 0U);
}

TEST(Allocations, ValuesShareOneBuffer) {
  const auto reader = KBTCalObject::initWithData(NSData::dataWithString(manyLines()));
  const std::size_t before = Allocations::made();
  std::size_t bytes = 0;
  while (reader->nextLine()) bytes += reader->value()->size();
  EXPECT_EQ(bytes, 90'000U);
  EXPECT_LE(Allocations::made() - before, 3U)
      << "the buffer should grow to the longest value and stay";
}

TEST(Allocations, NoneForAnOccurrence) {
  for (const char* text : {"FREQ=HOURLY", "FREQ=DAILY;UNTIL=21000101", "FREQ=WEEKLY;BYDAY=MO,FR",
                           "FREQ=MONTHLY;BYMONTHDAY=31,-1", "FREQ=MONTHLY;BYDAY=-1FR",
                           "FREQ=MONTHLY;BYDAY=MO,TU;BYSETPOS=-1", "FREQ=YEARLY;BYMONTH=1,6"}) {
    const auto rule = KBTCalRepetition::initWithRRule_error(text, nullptr);
    rule->setStartDate(NSDate::initWithICSDateString("20240131T100000Z"));
    KBTRepetitionInstance instance = rule->firstRepetitionInstance();
    const std::size_t before = Allocations::made();
    std::int64_t seconds = 0;
    for (; instance.occurrence < 100; instance = rule->nextRepetitionInstance(instance)) {
      seconds += KBTCalRepetition::dateForInstance(instance)->secondsSince1970();
    }
    EXPECT_GT(seconds, 0);
    EXPECT_EQ(Allocations::made() - before, 0U) << text;
  }
}

}  // namespace
}  // namespace quillmere
