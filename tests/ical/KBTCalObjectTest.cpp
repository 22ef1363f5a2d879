#include <gtest/gtest.h>
#include <quillmere/ical/KBTCalObject.h>

#include "tests/support/ScopedTimeZone.h"

namespace quillmere {
namespace {

using std::string_view;
using testing::ScopedTimeZone;
using Text = std::optional<std::string>;

struct Line {
  Text key;
  Text value;
  friend bool operator==(const Line&, const Line&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Line& line) {
    return out << '<' << line.key.value_or("(null)") << "|" << line.value.value_or("(null)") << '>';
  }
};

Text copied(std::optional<string_view> text) { return text ? Text(*text) : std::nullopt; }

std::shared_ptr<KBTCalObject> readerOf(string_view text) {
  return KBTCalObject::initWithData(NSData::dataWithBytes(text));
}

std::vector<Line> linesOf(KBTCalObject& reader) {
  std::vector<Line> lines;
  while (reader.nextLine()) lines.push_back({copied(reader.key()), copied(reader.value())});
  return lines;
}

std::vector<Line> linesOf(string_view text) { return linesOf(*readerOf(text)); }

// On the first line.
std::shared_ptr<KBTCalObject> onLine(string_view text) {
  auto reader = readerOf(text);
  EXPECT_TRUE(reader->nextLine());
  return reader;
}

Text valueOf(string_view text) { return copied(onLine(text)->value()); }

TEST(KBTCalObject, ReadsKeysAndValuesWhateverEndsTheLine) {
  const std::vector<Line> expected{{"BEGIN", "VEVENT"}, {"Uid", "a:b;c"}, {"END", ""}};
  EXPECT_EQ(linesOf("BEGIN:VEVENT\nUid:a:b;c\nEND:\n"), expected);
  EXPECT_EQ(linesOf("BEGIN:VEVENT\rUid:a:b;c\rEND:\r"), expected);
  EXPECT_EQ(linesOf("BEGIN:VEVENT\r\nUid:a:b;c\r\nEND:"), expected);
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

// A line without ":" and ";" has no end of its own, blank lines included: it is part of the next
// key.
TEST(KBTCalObject, ALineWithoutAColonRunsOnIntoTheNextKey) {
  EXPECT_EQ(linesOf("\r\nEND:VEVENT\r\n"), (std::vector<Line>{{"\r\nEND", "VEVENT"}}));
  EXPECT_EQ(linesOf("junk\r\nmore\r\nUID:1\r\n"),
            (std::vector<Line>{{"junk\r\nmore\r\nUID", "1"}}));
  EXPECT_EQ(linesOf("UID:1\r\nno colon at all\r\n"),
            (std::vector<Line>{{"UID", "1"}, {"no colon at all\r\n", ""}}));
  EXPECT_EQ(linesOf("\r"), (std::vector<Line>{{"\r", ""}}));
  EXPECT_EQ(linesOf("A:1\r\r\nB:2\r\n"), (std::vector<Line>{{"A", "1"}, {"\r\nB", "2"}}));
}

TEST(KBTCalObject, OnlyCRLFSpaceIsUnfolded) {
  EXPECT_EQ(valueOf("D:abc\r\n  def"), "abc def");
  EXPECT_EQ(valueOf("D:a\r\n b\r\n \r\n c"), "abc");
  EXPECT_EQ(valueOf("D:abc\n def\n"), "abc\n def");
  EXPECT_EQ(valueOf("D:abc\r def\r"), "abc\r def");
  EXPECT_EQ(valueOf("D:abc\r\n d\n e\r\n f"), "abcd\n ef");
  EXPECT_EQ(linesOf("D:abc\r\n\tdef:x\r\n"), (std::vector<Line>{{"D", "abc"}, {"\tdef", "x"}}));
  EXPECT_EQ(linesOf("D:abc\r\n "), (std::vector<Line>{{"D", "abc"}}));
  // Keys and parameters are not unfolded, and no line ending ends them.
  EXPECT_EQ(linesOf("ATTEN\r\n DEE:v"), (std::vector<Line>{{"ATTEN\r\n DEE", "v"}}));
  EXPECT_EQ(linesOf("K;A=1\r\nL:w"), (std::vector<Line>{{"K", "w"}}));
}

TEST(KBTCalObject, AFoldInsideACharacterIsMended) {
  EXPECT_EQ(valueOf("D:caf\xC3\r\n \xA9!\r\n"), "caf\xC3\xA9!");
  EXPECT_EQ(valueOf("D:\xF0\x9F\r\n \x97\x93"), "\xF0\x9F\x97\x93");
  EXPECT_EQ(valueOf("D:\xC3\n \xA9"), std::nullopt) << "that fold is not one";
}

TEST(KBTCalObject, UnescapesEachCharacterOnce) {
  const struct {
    const char* written;
    const char* read;
  } cases[] = {
      {"a\\,b\\nc", "a,b\nc"}, {"\\t\\r\\;\\,", "\t\r;,"},
      {"\\\\n", "\\n"},        {"\\\\\\n", "\\\n"},
      {"\\N\\T\\R", "NTR"},    {"\\x\\:", "x:"},
      {"end\\", "end\\"},      {"\\", "\\"},
      {"\\\\", "\\"},          {"\\\xC3\xA9t\\n", "\xC3\xA9t\n"},
      {"a\\\r\n nb", "a\nb"},  {"\\\r\n \r\n n", "\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(valueOf(std::string("S:") + c.written + "\r\n"), c.read) << c.written;
  }
}

TEST(KBTCalObject, TextThatIsNotUTF8IsNull) {
  EXPECT_EQ(linesOf("K\xFF:v\r\nK:v\xFF\r\nK:ok\r\n"),
            (std::vector<Line>{{std::nullopt, "v"}, {"K", std::nullopt}, {"K", "ok"}}));
  // Not even when unescaping would put the halves of a character together.
  EXPECT_EQ(valueOf("S:\xC3\\\xA9"), std::nullopt);
  const auto reader = onLine("K;A=\xFF;\xFE=1;B=2:v\r\n");
  EXPECT_EQ(reader->modifiers(), (KBTCalModifiers{{"B", "2"}}));
}

TEST(KBTCalObject, NulBytesAndMarksAreCharacters) {
  const string_view text("S:a\0b\r\n", 7);
  EXPECT_EQ(valueOf(text), std::string("a\0b", 3));
  EXPECT_EQ(linesOf("\xEF\xBB\xBF"
                    "BEGIN:VCALENDAR\r\n"),
            (std::vector<Line>{{"\xEF\xBB\xBF"
                                "BEGIN",
                                "VCALENDAR"}}));
}

TEST(KBTCalObject, ParametersAreRaw) {
  const struct {
    const char* line;
    KBTCalModifiers modifiers;
    const char* value;
  } cases[] = {
      {"K:v", {}, "v"},
      {"K;A=1:v", {{"A", "1"}}, "v"},
      {"K;A=1;A=2:v", {{"A", "2"}}, "v"},
      {"K;a=x:v", {{"a", "x"}}, "v"},
      {"K;TZID=\"Europe/Paris\":v", {{"TZID", "\"Europe/Paris\""}}, "v"},
      // Quotation marks protect neither ":" nor ";".
      {"K;CN=\"a:b\":v", {{"CN", "\"a"}}, "b\":v"},
      {"K;CN=\"a;b=c\":v", {{"CN", "\"a"}, {"b", "c\""}}, "v"},
      // A name runs to its "=", even across ";".
      {"K;FLAG;B=2:v", {{"FLAG;B", "2"}}, "v"},
      {"K;A=x=y:v", {{"A", "x=y"}}, "v"},
      {"K;A=1;:v", {{"A", "1"}}, "v"},
      {"K;=1:v", {{"", "1"}}, "v"},
      {"K;A=1;FLAG:v", {{"A", "1"}, {"FLAG", ""}}, "v"},
      {"K;A=1 : v", {{"A", "1 "}}, " v"},
      {"K;CN=a\r\n b;X=1:v", {{"CN", "a\r\n b"}, {"X", "1"}}, "v"},
      // A backslash hides the ":" after it and stays where it is.
      {"K;A=b\\:c:v", {{"A", "b\\:c"}}, "v"},
      {"K;A=b\\\\:c", {{"A", "b\\\\"}}, "c"},
      {"K;A=b\\c:", {{"A", "b\\c"}}, ""},
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
  const auto dated = onLine("D;A=1:20240101T000000Z");
  dated->valueAsDateIsFullDay();
  EXPECT_EQ(dated->key(), "D;A=1");
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
  reader->nextLine();
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
      {"D;TZID=Europe/Paris:20240101T090000", "20240101T080000Z"},
      {"D;TZID=Europe/Paris:20240701T090000", "20240701T070000Z"},
      {"D;TZID=W. Europe Standard Time:20240701T090000", "20240701T070000Z"},
      {"D;TZID=PST:20240101T090000", "20240101T170000Z"},
      {"D;TZID=Asia/Kathmandu:20240101T090000", "20240101T031500Z"},
      // EST is a name as well, of a zone without summer time; names come first.
      {"D;TZID=EST:20240701T090000", "20240701T140000Z"},
      // "Z" does not protect a value from its TZID.
      {"D;TZID=Europe/Paris:20240101T090000Z", "20240101T080000Z"},
      // Quotation marks belong to the name, which is then unknown, and the default zone is taken.
      {"D;TZID=\"Europe/Paris\":20240101T090000", "20240101T000000Z"},
      {"D;TZID=Mars/Olympus:20240101T090000", "20240101T000000Z"},
      // The offset is the one at 06:30 UTC: winter time's, although it was summer time in New York.
      {"D;TZID=America/New_York:20240310T063000", "20240310T113000Z"},
      // 02:30 came twice in Paris; at 02:30 UTC both had passed, so it is not the first of them.
      {"D;TZID=Europe/Paris:20241027T023000", "20241027T013000Z"},
      {"D;VALUE=date:20240101T090000Z", "20240101T090000Z"},
      {"D;VALUE=\"DATE\":20240101T090000Z", "20240101T090000Z"},
      {"D;TZID=America/New_York:99991231T235959", "99991231T235959Z"},
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
      {"PT1H30M", NSDateComponents{.hour = 1, .minute = 30}},
      {"P1Y2M3DT4H5M6S", NSDateComponents{1, 2, 3, 4, 5, 6}},
      {"p1y2m3dt4h5m6s", NSDateComponents{1, 2, 3, 4, 5, 6}},
      {"PT1H2DT3M", NSDateComponents{.day = 2, .hour = 1, .minute = 3}},
      {"P5TH", NSDateComponents{.hour = 0}},
      {"P2W3D", NSDateComponents{.day = 3}},
      {"PD", NSDateComponents{.day = 0}},
      {"PT1H2H", NSDateComponents{.hour = 2}},
      {"P1 5D", NSDateComponents{.day = 5}},
      {"P-1D", NSDateComponents{.day = 1}},
      {"P2147483648D", NSDateComponents{.day = -2147483648LL}},
      {"P99999999999999999999D", NSDateComponents{.day = 1661992959}},
      {"+P1D", std::nullopt},
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
  EXPECT_EQ(linesOf(megabytes).size(), 1U);
  EXPECT_EQ(linesOf("K;" + megabytes).size(), 1U);
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
