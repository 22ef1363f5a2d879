#include <gtest/gtest.h>
#include <quillmere/ical/KBTCalObject.h>

#include "tests/support/ScopedTimeZone.h"

namespace quillmere {
namespace {

using std::string_view;
using testing::ScopedTimeZone;
using Text = std::optional<std::string>;

Text copied(std::optional<string_view> text) { return text ? Text(*text) : std::nullopt; }

std::shared_ptr<KBTCalObject> readerOf(string_view text) {
  return KBTCalObject::initWithData(NSData::dataWithBytes(text));
}

// "<key|value>" of each line.
std::string linesOf(string_view text) {
  const auto reader = readerOf(text);
  std::string lines;
  while (reader->nextLine()) {
    const auto key = reader->key(), value = reader->value();
    lines.append("<").append(key.value_or("null")).append("|");
    lines.append(value.value_or("null")).append(">");
  }
  return lines;
}

// On the first line.
std::shared_ptr<KBTCalObject> onLine(string_view text) {
  auto reader = readerOf(text);
  EXPECT_TRUE(reader->nextLine());
  return reader;
}

Text valueOf(string_view text) { return copied(onLine(text)->value()); }

TEST(KBTCalObject, ReadsLines) {
  const struct {
    const char* document;
    const char* lines;
  } cases[] = {
      {"BEGIN:VEVENT\nUid:a:b;c\nEND:\n", "<BEGIN|VEVENT><Uid|a:b;c><END|>"},
      {"BEGIN:VEVENT\rUid:a:b;c\rEND:\r", "<BEGIN|VEVENT><Uid|a:b;c><END|>"},
      {"BEGIN:VEVENT\r\nUid:a:b;c\r\nEND:", "<BEGIN|VEVENT><Uid|a:b;c><END|>"},
      // A line without ":" and ";" has no end of its own, blank lines included: it is part of the
      // next key.
      {"junk\r\nmore\r\nUID:1\r\n", "<junk\r\nmore\r\nUID|1>"},
      {"UID:1\r\nno colon at all\r\n", "<UID|1><no colon at all\r\n|>"},
      {"A:1\r\r\nB:2\r\n", "<A|1><\r\nB|2>"},
      // Only CR LF SPACE is unfolded.
      {"D:abc\r\n  def", "<D|abc def>"},
      {"D:a\r\n b\r\n \r\n c\r\n ", "<D|abc>"},
      {"D:abc\r def\r", "<D|abc\r def>"},
      {"D:abc\r\n d\n e\r\n f", "<D|abcd\n ef>"},
      {"D:abc\r\n\tdef:x\r\n", "<D|abc><\tdef|x>"},
      // Keys and parameters are not unfolded, and no line ending ends them.
      {"ATTEN\r\n DEE:v", "<ATTEN\r\n DEE|v>"},
      {"K;A=1\r\nL:w", "<K|w>"},
      // A fold inside a character is mended, where it is one.
      {"D:\xF0\x9F\r\n \x97\x93", "<D|\xF0\x9F\x97\x93>"},
      {"D:\xC3\n \xA9", "<D|null>"},
      // Text that is not UTF-8 is null, also where unescaping would put a character together.
      {"K\xFF:v\r\nK:v\xFF\r\nK:ok\r\n", "<null|v><K|null><K|ok>"},
      {"S:\xC3\\\xA9", "<S|null>"},
      {"\xEF\xBB\xBFK:v\r\n", "<\xEF\xBB\xBFK|v>"},
  };
  for (const auto& c : cases) EXPECT_EQ(linesOf(c.document), c.lines);
  EXPECT_EQ(valueOf(string_view("S:a\0b\r\n", 7)), std::string("a\0b", 3));
  EXPECT_EQ(onLine("K;A=\xFF;\xFE=1;B=2:v")->modifiers(), (KBTCalModifiers{{"B", "2"}}));
}

TEST(KBTCalObject, HasNoLinesOverNoBytes) {
  for (const auto& data : {std::optional<NSData>(), std::optional<NSData>(NSData())}) {
    const auto reader = KBTCalObject::initWithData(data);
    EXPECT_TRUE(reader->isAtEnd());
    EXPECT_FALSE(reader->nextLine());
    reader->reset();
    EXPECT_FALSE(reader->nextLine());
    EXPECT_EQ(reader->icsData().length(), 0U);
  }
}

TEST(KBTCalObject, UnescapesEachCharacterOnce) {
  const struct {
    const char* written;
    const char* read;
  } cases[] = {
      {"a\\,b\\nc", "a,b\nc"},
      {"\\t\\r\\;\\,", "\t\r;,"},
      {"\\\\n", "\\n"},
      {"\\\\\\n", "\\\n"},
      {"\\N\\T\\R", "NTR"},
      {"end\\", "end\\"},
      {"\\\xC3\xA9t\\n", "\xC3\xA9t\n"},
      {"\\\r\n \r\n n", "\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(valueOf(std::string("S:") + c.written + "\r\n"), c.read) << c.written;
  }
}

TEST(KBTCalObject, ParametersAreRaw) {
  const struct {
    const char* line;
    KBTCalModifiers modifiers;
    const char* value;
  } cases[] = {
      {"K:v", {}, "v"},
      {"K;A=1;A=2:v", {{"A", "2"}}, "v"},
      // Quotation marks protect neither ":" nor ";".
      {"K;CN=\"a:b\":v", {{"CN", "\"a"}}, "b\":v"},
      {"K;CN=\"a;b=c\":v", {{"CN", "\"a"}, {"b", "c\""}}, "v"},
      // A name runs to its "=", even across ";".
      {"K;FLAG;B=2:v", {{"FLAG;B", "2"}}, "v"},
      {"K;A=x=y:v", {{"A", "x=y"}}, "v"},
      {"K;A=1;:v", {{"A", "1"}}, "v"},
      {"K;=1:v", {{"", "1"}}, "v"},
      {"K;A=1;FLAG:v", {{"A", "1"}, {"FLAG", ""}}, "v"},
      {"K;CN=a\r\n b;X=1:v", {{"CN", "a\r\n b"}, {"X", "1"}}, "v"},
      // A backslash hides the ":" after it and stays where it is.
      {"K;A=b\\:c:v", {{"A", "b\\:c"}}, "v"},
      {"K;A=b\\\\:c", {{"A", "b\\\\"}}, "c"},
      // No ":" to the end of the data.
      {"K;A=1\\", {{"A", "1\\"}}, ""},
      {"K;", {}, ""},
  };
  for (const auto& c : cases) {
    const auto reader = onLine(c.line);
    EXPECT_EQ(reader->key(), "K") << c.line;
    EXPECT_EQ(reader->modifiers(), c.modifiers) << c.line;
    EXPECT_EQ(reader->value(), c.value) << c.line;
  }
  const auto reader = onLine("K;A=1:v\r\nL:w\r\n");
  EXPECT_EQ(reader->valueForModifier("A"), "1");
  EXPECT_EQ(reader->valueForModifier("B"), std::nullopt);
  reader->nextLine();
  EXPECT_EQ(reader->valueForModifier("A"), std::nullopt) << "parameters of the line before";
}

TEST(KBTCalObject, AKeyAskedForAfterTheParametersHoldsTheirText) {
  for (const auto& [line, key] : {std::pair("K;A=1;B=2:v", "K;A=1;B=2"), std::pair("K;:v", "K;"),
                                  std::pair("K;A=1", "K;A=1"), std::pair("K:v", "K")}) {
    const auto reader = onLine(line);
    reader->modifiers();
    EXPECT_EQ(reader->key(), key);
  }
  EXPECT_EQ(onLine("K\\:v")->key(), "K\\") << "a backslash hides nothing in a key";

  const auto reader = onLine("K;A=1:v");
  reader->key();
  reader->modifiers();
  EXPECT_EQ(reader->key(), "K") << "a key that was asked for stays";
}

TEST(KBTCalObject, ResetGoesBackAndKeepsTheLineUntilTheNext) {
  const auto reader = readerOf("A;P=1:one\r\nB;Q=2:t\\,wo\r\n");
  EXPECT_FALSE(reader->isAtEnd());
  while (reader->nextLine()) reader->value();
  EXPECT_TRUE(reader->isAtEnd());
  const KBTCalModifiers lastOnes{{"Q", "2"}};
  EXPECT_EQ(reader->key(), "B") << "a failed step changes nothing";
  EXPECT_EQ(reader->modifiers(), lastOnes);
  reader->reset();
  EXPECT_FALSE(reader->isAtEnd());
  EXPECT_EQ(reader->key(), "B");
  EXPECT_EQ(reader->value(), "t,wo");
  EXPECT_EQ(reader->modifiers(), lastOnes);
  EXPECT_TRUE(reader->nextLine());
  EXPECT_EQ(reader->key(), "A");
  EXPECT_EQ(reader->value(), "one");
}

Text dateOf(string_view line, bool expectFullDay) {
  bool isFullDay = !expectFullDay;
  const auto date = onLine(line)->valueAsDateIsFullDay(&isFullDay);
  EXPECT_EQ(isFullDay, expectFullDay) << line;
  return date ? Text(date->icsDateString()) : std::nullopt;
}

TEST(KBTCalObject, ReadsDatesInTheirZones) {
  const ScopedTimeZone defaultZone("Asia/Tokyo");
  const struct {
    const char* line;
    const char* date;
  } cases[] = {
      {"D:20240101T090000Z", "20240101T090000Z"},
      {"D:20240101T090000", "20240101T090000Z"},
      {"D;TZID=Europe/Paris:20240701T090000", "20240701T070000Z"},
      {"D;TZID=W. Europe Standard Time:20240701T090000", "20240701T070000Z"},
      {"D;TZID=PST:20240101T090000", "20240101T170000Z"},
      // EST is a name as well, of a zone without summer time; names come first.
      {"D;TZID=EST:20240701T090000", "20240701T140000Z"},
      // "Z" does not protect a value from its TZID.
      {"D;TZID=Europe/Paris:20240101T090000Z", "20240101T080000Z"},
      // Quotation marks belong to the name, which is then unknown, and the default zone is taken.
      {"D;TZID=\"Europe/Paris\":20240101T090000", "20240101T000000Z"},
      // The offset is the one at 06:30 UTC: winter time's, although it was summer time in New York.
      {"D;TZID=America/New_York:20240310T063000", "20240310T113000Z"},
      {"D;VALUE=date:20240101T090000Z", "20240101T090000Z"},
  };
  for (const auto& c : cases) EXPECT_EQ(dateOf(c.line, false), c.date) << c.line;

  EXPECT_EQ(dateOf("D;VALUE=DATE:20240101", true), "20231231T150000Z");
  EXPECT_EQ(dateOf("D;VALUE=DATE;TZID=Europe/Paris:20240101", true), "20231231T150000Z");
  EXPECT_EQ(dateOf("D;VALUE=DATE:20240101T000000Z", true), std::nullopt);
  EXPECT_EQ(dateOf("D:20240101", false), std::nullopt);
  EXPECT_EQ(dateOf("D;TZID=Europe/Paris:\xFF", false), std::nullopt);
}

TEST(KBTCalObject, ReadsDurations) {
  const struct {
    const char* text;
    std::optional<NSDateComponents> components;
  } cases[] = {
      {"P1Y2M3DT4H5M6S", NSDateComponents{1, 2, 3, 4, 5, 6}},
      {"p1y2m3dt4h5m6s", NSDateComponents{1, 2, 3, 4, 5, 6}},
      {"PT1H2DT3M", NSDateComponents{.day = 2, .hour = 1, .minute = 3}},
      {"P5TH", NSDateComponents{.hour = 0}},
      {"P2W3D", NSDateComponents{.day = 3}},
      {"P-1D", NSDateComponents{.day = 1}},
      {"P2147483648D", NSDateComponents{.day = -2147483648LL}},
      {"", std::nullopt},
      {"1D", std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(KBTCalObject::icalDurationAsDateComponents(c.text), c.components) << c.text;
  }
  EXPECT_EQ(KBTCalObject::icalDurationAsDateComponents(std::nullopt), std::nullopt);
}

TEST(KBTCalObject, LongAndHostileDocumentsAreReadInOnePass) {
  const std::string megabytes(8 << 20, 'x');
  EXPECT_EQ(valueOf("S:" + megabytes)->size(), megabytes.size());
  EXPECT_EQ(linesOf(megabytes), "<" + megabytes + "|>");
  EXPECT_EQ(linesOf("K;" + megabytes), "<K|>");
  EXPECT_EQ(valueOf("S:" + std::string(8 << 20, '\\'))->size(), std::size_t{4 << 20});

  std::string folded = "S:";
  for (int i = 0; i < 1'000'000; ++i) folded += "x\r\n ";
  EXPECT_EQ(valueOf(folded)->size(), 1'000'000U);

  std::string parameters = "K";
  for (int i = 0; i < 200'000; ++i) parameters += ";P" + std::to_string(i) + "=1";
  EXPECT_EQ(onLine(parameters + ":v")->modifiers().size(), 200'000U);
}

}  // namespace
}  // namespace quillmere
