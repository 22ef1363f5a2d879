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

std::string utf8Of(const std::u32string& characters) {
  std::string bytes;
  for (const char32_t c : characters) {
    const auto append = [&](char32_t lead, int continuations) {
      bytes += static_cast<char>(lead | (c >> (6 * continuations)));
      while (continuations-- > 0) {
        bytes += static_cast<char>(0x80 | ((c >> (6 * continuations)) & 0x3F));
      }
    };
    if (c < 0x80) {
      bytes += static_cast<char>(c);
    } else if (c < 0x800) {
      append(0xC0, 1);
    } else if (c < 0x10000) {
      append(0xE0, 2);
    } else {
      append(0xF0, 3);
    }
  }
  return bytes;
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
  } doubles[] = {{2.0, "2"},
                 {0.1, "0.1"},
                 {-3.25, "-3.25"},
                 {1e22, "10000000000000000000000"},
                 {HUGE_VAL, "inf"},
                 {-HUGE_VAL, "-inf"},
                 {std::nan(""), "nan"},
                 {-std::nan(""), "nan"},
                 {-0.0, "-0"},
                 {100000.0, "100000"},
                 {-1e-7, "-0.0000001"},
                 {48.85837009, "48.85837009"}};
  for (const auto& c : doubles) {
    const auto number = writerOf();
    number->appendKey_doubleValue("N", c.number);
    EXPECT_EQ(textOf(*number), std::string("N:") + c.text + "\r\n");
  }
  using limits = std::numeric_limits<double>;
  for (const double extreme : {limits::max(), -limits::denorm_min(), -limits::min()}) {
    const auto number = writerOf();
    number->appendKey_doubleValue("N", extreme);
    const auto reader = KBTCalObject::initWithData(number->icsData());
    reader->nextLine();
    EXPECT_EQ(std::strtod(std::string(reader->value().value()).c_str(), nullptr), extreme);
  }
}

// A subclass may add lines of any type number.
TEST(KBTMutableCalObject, AnUnknownTypeIsWrittenLikeAString) {
  struct OpenWriter : KBTMutableCalObject {
    OpenWriter() : KBTMutableCalObject(std::nullopt, false) {}
    using KBTMutableCalObject::_addLineWithKey_value_type;
    using KBTMutableCalObject::_calendarEpilogue;
    using KBTMutableCalObject::_calendarPrologue;
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
  EXPECT_EQ(OpenWriter::_calendarPrologue().view(),
            "BEGIN:VCALENDAR\r\nPRODID:-//Tessaly//Quillmere 0.1//EN\r\nVERSION:2.0\r\n"
            "CALSCALE:GREGORIAN\r\n");
  EXPECT_EQ(OpenWriter::_calendarEpilogue().view(), "END:VCALENDAR\r\n");
}

TEST(KBTMutableCalObject, FoldsAfterSixtyAndThenAfterSeventyUnits) {
  const std::string x60(60, 'x'), x70(70, 'x');
  EXPECT_EQ(written(x60), x60);
  EXPECT_EQ(written(x60 + "x"), x60 + "\r\n x");
  EXPECT_EQ(written(x60 + x70), x60 + "\r\n " + x70) << "no empty piece";
  EXPECT_EQ(written(x60 + x70 + x70), x60 + "\r\n " + x70 + "\r\n " + x70);
  EXPECT_EQ(written(x60 + x70 + "x"), x60 + "\r\n " + x70 + "\r\n x");

  const auto longKey = writerOf();
  longKey->appendKey_stringValue("X-" + x70, x60);
  EXPECT_EQ(textOf(*longKey), "X-" + x70 + ":" + x60 + "\r\n") << "the key does not count";
}

TEST(KBTMutableCalObject, AFoldMayCutAnEscapeAndACharacter) {
  const std::string x59(59, 'x');
  EXPECT_EQ(written(x59 + ",y"), x59 + "\\\r\n ,y");
  EXPECT_EQ(written(x59 + "\xC3\xA9y"), x59 + "\xC3\xA9\r\n y") << "one unit, two bytes";
  EXPECT_EQ(written(x59 + "\xF0\x9F\x97\x93y"), x59 + "\xF0\x9F\r\n \x97\x93y") << "two units";
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

// What writing means, step by step: six replacements, then cutting UTF-16 text into pieces. Lone
// halves of a pair become two bytes of its four.
std::string writtenStepByStep(const std::u32string& value) {
  std::u32string escaped = value;
  const std::pair<char32_t, std::u32string> replacements[] = {{U'\\', U"\\\\"}, {U'\n', U"\\n"},
                                                              {U'\r', U"\\r"},  {U'\t', U"\\t"},
                                                              {U',', U"\\,"},   {U';', U"\\;"}};
  for (const auto& [from, to] : replacements) {
    std::u32string replaced;
    for (const char32_t c : escaped) replaced += c == from ? to : std::u32string(1, c);
    escaped = replaced;
  }
  std::vector<std::string> units;
  for (const char32_t c : escaped) {
    const std::string bytes = utf8Of({c});
    if (bytes.size() == 4) {
      units.push_back(bytes.substr(0, 2));
      units.push_back(bytes.substr(2));
    } else {
      units.push_back(bytes);
    }
  }
  std::string text;
  for (std::size_t i = 0; i < units.size(); ++i) {
    if (i >= 60 && (i - 60) % 70 == 0) text += "\r\n ";
    text += units[i];
  }
  return text;
}

TEST(KBTMutableCalObject, WhatIsWrittenReadsBackExactly) {
  std::mt19937 random(3);
  const auto character = [&random]() -> char32_t {
    switch (random() % 6) {
      case 0:
        return random() % 4 == 0 ? static_cast<char32_t>(random() % 0x20)
                                 : U"\\\n\r\t,;:\" n\0"[random() % 11];
      case 1:
        return static_cast<char32_t>(0x80 + random() % 0x780);
      case 2: {
        const auto c = static_cast<char32_t>(0x800 + random() % 0xF800);
        return c >= 0xD800 && c <= 0xDFFF ? U'\uFFFD' : c;
      }
      case 3:
        return static_cast<char32_t>(0x10000 + random() % 0x100000);
      default:
        return static_cast<char32_t>(U' ' + random() % 95);
    }
  };
  const std::size_t lengths[] = {0,   1,   28,  29,  30,  31,  57,  58,  59,  60,
                                 61,  62,  63,  64,  65,  66,  126, 127, 128, 129,
                                 130, 131, 132, 198, 199, 200, 201, 2000};
  for (int round = 0; round < 4000; ++round) {
    std::u32string value(lengths[random() % std::size(lengths)], U'x');
    const bool run = random() % 4 == 0;  // one character over and over
    const char32_t repeated = character();
    for (char32_t& c : value) c = run ? repeated : character();

    const std::string bytes = utf8Of(value);
    const std::string line = written(bytes);
    ASSERT_EQ(line, writtenStepByStep(value));
    const auto reader =
        KBTCalObject::initWithData(NSData::dataWithString("K:" + line + "\r\nNEXT:line\r\n"));
    ASSERT_TRUE(reader->nextLine());
    ASSERT_EQ(reader->value(), bytes);
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
