#include <gtest/gtest.h>
#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/ical/KBTMutableCalObject.h>
#include <quillmere/platform/base/makeObject.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>

#include "tests/support/ScopedTimeZone.h"

namespace quillmere {
namespace {

using std::string_view;

std::shared_ptr<KBTMutableCalObject> writerOf(std::optional<std::string> type = std::nullopt,
                                              bool includeCalendar = false) {
  return KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration(std::move(type),
                                                                            includeCalendar);
}

std::string textOf(KBTICSDataSource& source) { return std::string(source.icsData().view()); }

// The line that a string value is written as, without key and last line ending.
std::string written(const std::string& value) {
  const auto writer = writerOf();
  writer->appendKey_stringValue("K", value);
  const std::string text = textOf(*writer);
  EXPECT_TRUE(text.starts_with("K:") && text.ends_with("\r\n"));
  return text.substr(2, text.size() - 4);
}

TEST(KBTMutableCalObject, WritesAComponentWithEscapedValues) {
  const auto writer = writerOf("VEVENT");
  writer->appendKey_stringValue("SUMMARY", "a;b");
  EXPECT_EQ(textOf(*writer), "BEGIN:VEVENT\r\nSUMMARY:a\\;b\r\nEND:VEVENT\r\n");
  EXPECT_EQ(written("\\n and a line\nof\tits,own\r"), "\\\\n and a line\\nof\\tits\\,own\\r");
  EXPECT_EQ(written("FREQ=WEEKLY;BYDAY=MO,TU"), "FREQ=WEEKLY\\;BYDAY=MO\\,TU") << "lists too";
  EXPECT_EQ(written(""), "");
}

TEST(KBTMutableCalObject, WithoutATypeWritesTheLinesAlone) {
  const auto writer = writerOf();
  EXPECT_EQ(textOf(*writer), "");
  writer->appendKey_stringValue("DTSTART;TZID=Asia/Tokyo", "20240105T093000");
  writer->appendKey_stringValue("BEGIN", "A,B");
  EXPECT_EQ(textOf(*writer), "DTSTART;TZID=Asia/Tokyo:20240105T093000\r\nBEGIN:A\\,B\r\n")
      << "keys are not escaped, values of every key are";
  EXPECT_EQ(writer->valueForKey("DTSTART"), std::nullopt) << "the parameters are part of the key";
  EXPECT_EQ(textOf(*writerOf("")), "BEGIN:\r\nEND:\r\n") << "an empty type is one";
}

TEST(KBTMutableCalObject, WritesEveryType) {
  const testing::ScopedTimeZone zone("America/New_York");
  const NSDate date = *KBTCalObject::zuluStringAsDate("20240101T030000Z");
  const auto writer = writerOf();
  writer->appendKey_dateValue("DTSTART", date);
  writer->appendKey_datetimeValue("DTSTAMP", date);
  writer->appendKey_integerValue("MIN", std::numeric_limits<std::int64_t>::min());
  writer->appendKey_integerValue("SEQUENCE", 7);
  EXPECT_EQ(textOf(*writer),
            "DTSTART;VALUE=DATE:20231231\r\nDTSTAMP:20240101T030000Z\r\n"
            "MIN:-9223372036854775808\r\nSEQUENCE:7\r\n");

  const struct {
    double number;
    const char* text;
  } doubles[] = {{0.1, "0.1"},
                 {-3.25, "-3.25"},
                 {1e22, "10000000000000000000000"},
                 {-HUGE_VAL, "-inf"},
                 {-std::nan(""), "nan"},
                 {-0.0, "-0"},
                 {-1e-7, "-0.0000001"},
                 {48.85837009, "48.85837009"}};
  const auto writtenDouble = [](double number) {
    const auto numbers = writerOf();
    numbers->appendKey_doubleValue("N", number);
    const auto reader = KBTCalObject::initWithData(numbers->icsData());
    reader->nextLine();
    return std::string(reader->value().value());
  };
  for (const auto& c : doubles) EXPECT_EQ(writtenDouble(c.number), c.text);
  using limits = std::numeric_limits<double>;
  for (const double extreme : {limits::max(), -limits::denorm_min(), -limits::min()}) {
    EXPECT_EQ(std::strtod(writtenDouble(extreme).c_str(), nullptr), extreme);
  }
}

// A subclass may add lines of any type number.
TEST(KBTMutableCalObject, AnUnknownTypeIsWrittenLikeAString) {
  struct OpenWriter : KBTMutableCalObject {
    OpenWriter() : KBTMutableCalObject(std::nullopt, false) {}
    using KBTMutableCalObject::_addLineWithKey_value_type;
  };
  const auto writer = makeObject<OpenWriter>();
  writer->_addLineWithKey_value_type("A", std::string("x,y"), 9);
  writer->_addLineWithKey_value_type("B", NSDate::dateWithMicrosecondsSince1970(0), 9);
  // A value that is not what its type says is written by the type all the same, and escaped.
  writer->_addLineWithKey_value_type("C", std::string("x;y"), KBTMutableCalObjectLine::dateType);
  writer->_addLineWithKey_value_type("D", std::string("x;y"), KBTMutableCalObjectLine::doubleType);
  EXPECT_EQ(textOf(*writer),
            "A:x\\,y\r\nB:1970-01-01 00:00:00 +0000\r\nC;VALUE=DATE:x\\;y\r\nD:x\\;y\r\n");
  EXPECT_FALSE(writer->valueForKeyIsAllDay("A"));
  EXPECT_TRUE(writer->valueForKeyIsAllDay("C"));
}

TEST(KBTMutableCalObject, FoldsAfterSixtyAndThenAfterSeventyUnits) {
  const std::string x60(60, 'x'), x70(70, 'x');
  std::string folded = ":" + x60 + "\r\n ";
  folded.append(x70).append("\r\n ").append(x70).append("\r\n");
  for (const std::size_t length : {511U, 512U, 1000U, 1023U, 1500U, 100'000U}) {
    const std::string key(length, 'K');
    const auto writer = writerOf();
    writer->appendKey_stringValue(key, x60);
    writer->appendKey_stringValue(key, std::string(200, 'x'));
    std::string text = key;
    text.append(":").append(x60).append("\r\n").append(key).append(folded);
    EXPECT_EQ(textOf(*writer), text) << "the key does not count";
  }
}

TEST(KBTMutableCalObject, EachByteThatIsNotUTF8CountsOneAndIsWrittenAsItIs) {
  const std::string x58(58, 'x');
  EXPECT_EQ(written(x58 + "\xFF\xFEy"), x58 + "\xFF\xFE\r\n y");
  EXPECT_EQ(written(x58 + "\xED\xA0\x80"), x58 + "\xED\xA0\r\n \x80") << "a lone surrogate's bytes";
  EXPECT_EQ(written(x58 + "\xF0\x9F\x97"), x58 + "\xF0\x9F\r\n \x97") << "cut off by the end";
}

TEST(KBTMutableCalObject, WrapsOneOrSeveralComponentsInADocument) {
  const std::string prologue =
      "BEGIN:VCALENDAR\r\nPRODID:-//Tessaly//Quillmere 0.1//EN\r\nVERSION:2.0\r\n"
      "CALSCALE:GREGORIAN\r\n";
  const auto event = writerOf("VEVENT", true), toDo = writerOf("VTODO", false);
  const std::string events = "BEGIN:VEVENT\r\nEND:VEVENT\r\n",
                    toDos = "BEGIN:VTODO\r\nEND:VTODO\r\n";
  EXPECT_EQ(textOf(*event), prologue + events + "END:VCALENDAR\r\n");
  EXPECT_EQ(textOf(*toDo), toDos);
  EXPECT_EQ(KBTMutableCalObject::icsCalendarDataForObjects({toDo, event, nullptr}).view(),
            prologue + toDos + events + "END:VCALENDAR\r\n")
      << "never wrapped twice";
  const auto lines = writerOf(std::nullopt, true);
  lines->appendKey_stringValue("K", "v");
  EXPECT_EQ(textOf(*lines), prologue + "K:v\r\nEND:VCALENDAR\r\n");
  EXPECT_EQ(KBTMutableCalObject::icsCalendarDataForObjects({}).view(),
            prologue + "END:VCALENDAR\r\n");
}

TEST(KBTMutableCalObject, AnswersTheFirstValueOfAKey) {
  const NSDate date = NSDate::dateWithMicrosecondsSince1970(0);
  const auto writer = writerOf("VEVENT");
  writer->appendKey_dateValue("DTSTART", date);
  writer->appendKey_stringValue("DTSTART", "second");
  writer->appendKey_datetimeValue("DTEND", date);
  writer->appendKey_dateValue("DTEND", date);
  EXPECT_EQ(writer->valueForKey("DTSTART"), KBTMutableCalObjectValue(date));
  EXPECT_EQ(writer->valueForKey("dtstart"), std::nullopt);
  EXPECT_EQ(writer->valueForKey("DTSTART;VALUE=DATE"), std::nullopt);
  EXPECT_TRUE(writer->valueForKeyIsAllDay("DTSTART"));
  EXPECT_FALSE(writer->valueForKeyIsAllDay("DTEND"));
  EXPECT_FALSE(writer->valueForKeyIsAllDay("none"));
}

// A character and the UTF-16 units that it is written as: of one that takes two, each is two bytes.
struct Character {
  std::string_view value;
  std::vector<std::string_view> units;
};

const Character characters[] = {{"x", {"x"}},
                                {" ", {" "}},
                                {"\x1B", {"\x1B"}},
                                {{"\0", 1}, {{"\0", 1}}},
                                {"\\", {"\\", "\\"}},
                                {"\n", {"\\", "n"}},
                                {"\r", {"\\", "r"}},
                                {"\t", {"\\", "t"}},
                                {",", {"\\", ","}},
                                {";", {"\\", ";"}},
                                {"\xC2\x80", {"\xC2\x80"}},
                                {"\xDF\xBF", {"\xDF\xBF"}},
                                {"\xE0\xA0\x80", {"\xE0\xA0\x80"}},
                                {"\xEF\xBF\xBF", {"\xEF\xBF\xBF"}},
                                {"\xF0\x90\x80\x80", {"\xF0\x90", "\x80\x80"}},
                                {"\xF4\x8F\xBF\xBF", {"\xF4\x8F", "\xBF\xBF"}}};

TEST(KBTMutableCalObject, WhatIsWrittenReadsBackExactly) {
  std::mt19937 random(3);
  const auto character = [&random]() -> const Character& {
    return characters[random() % 2 == 0 ? 0 : random() % std::size(characters)];
  };
  for (std::size_t round = 0; round < 4000; ++round) {
    const bool isRun = random() % 4 == 0;  // one character over and over
    const Character& repeated = character();
    std::string value;
    std::string expected;
    std::size_t count = 0;
    for (std::size_t length = round % 250; length > 0; --length) {
      const Character& next = isRun ? repeated : character();
      value += next.value;
      for (const std::string_view unit : next.units) {
        if (count >= 60 && (count - 60) % 70 == 0) expected += "\r\n ";
        expected += unit;
        ++count;
      }
    }
    const std::string line = written(value);
    ASSERT_EQ(line, expected);
    const auto reader =
        KBTCalObject::initWithData(NSData::dataWithString("K:" + line + "\r\nNEXT:line\r\n"));
    ASSERT_TRUE(reader->nextLine());
    ASSERT_EQ(reader->value(), value);
    ASSERT_TRUE(reader->nextLine());
    ASSERT_EQ(reader->key(), "NEXT") << "the value ran over its end";
  }
}

TEST(KBTMutableCalObject, ALongValueIsWrittenInOnePass) {
  const std::string value = std::string(4 << 20, ',') + std::string(4 << 20, 'x');
  const auto reader = KBTCalObject::initWithData(NSData::dataWithString("K:" + written(value)));
  ASSERT_TRUE(reader->nextLine());
  EXPECT_EQ(reader->value(), value);
}

}  // namespace
}  // namespace quillmere
