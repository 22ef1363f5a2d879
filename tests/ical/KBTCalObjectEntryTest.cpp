#include <gtest/gtest.h>
#include <quillmere/ical/KBTCalObjectEntry.h>

namespace quillmere {
namespace {

using std::string_view;

constexpr string_view document =
    "BEGIN:VCALENDAR\r\n"
    "BEGIN:VEVENT\r\nUID:1\r\nEND:VEVENT\r\n"
    "BEGIN:VEVENT\r\nUID:2\r\nBEGIN:VALARM\r\nACTION:DISPLAY\r\nEND:VALARM\r\nLOCATION:x\r\n"
    "END:VEVENT\r\nEND:VCALENDAR\r\n";

// An entry for the n-th "BEGIN:VEVENT" line.
std::shared_ptr<KBTCalObjectEntry> entry(int n, string_view text = document) {
  const auto reader = KBTCalObject::initWithData(NSData::dataWithBytes(text));
  while (reader->nextLine()) {
    if (reader->key() == "BEGIN" && reader->value() == "VEVENT" && --n == 0) {
      return reader->subparserForCurrentEntry();
    }
  }
  return nullptr;
}

std::string keysOf(KBTCalObject& reader) {
  std::string keys;
  while (reader.nextLine()) keys.append(*reader.key()).append(" ");
  return keys;
}

TEST(KBTCalObjectEntry, ReadsFromItsBeginLineToItsEndLineAfterItsParentIsGone) {
  const auto reader = entry(1);
  EXPECT_EQ(keysOf(*reader), "BEGIN UID END ");
  EXPECT_FALSE(reader->nextLine()) << "it stays at its end";
}

TEST(KBTCalObjectEntry, AnyEndLineEndsIt) {
  const auto reader = entry(2);
  EXPECT_EQ(keysOf(*reader), "BEGIN UID BEGIN ACTION END ");
  EXPECT_EQ(reader->value(), "VALARM");
  // Its key is exact, and neither parameters nor the end of a longer key matter.
  EXPECT_EQ(keysOf(*entry(1, "BEGIN:VEVENT\r\nend:VEVENT\r\n\r\nEND:X\r\nEND;X=1:X\r\nUID:2\r\n")),
            "BEGIN end \r\nEND END ");
}

TEST(KBTCalObjectEntry, ItsEndIsAStateAndNotAPosition) {
  const auto reader = entry(1, "BEGIN:VEVENT\r\nUID:1\r\n");
  EXPECT_FALSE(reader->isAtEnd());
  reader->nextLine();
  reader->nextLine();
  EXPECT_FALSE(reader->isAtEnd()) << "all bytes are read, but no END was";
  EXPECT_FALSE(reader->nextLine());
  EXPECT_TRUE(reader->isAtEnd());
  const auto complete = entry(1);
  for (int line = 0; line < 3; ++line) complete->nextLine();
  EXPECT_TRUE(complete->isAtEnd()) << "its END line was read";
}

TEST(KBTCalObjectEntry, CopiesItsTextAndIsThenAtItsEnd) {
  const string_view event = "BEGIN:VEVENT\r\nUID:1\r\nEND:VEVENT\r\n";
  const auto reader = entry(1);
  reader->nextLine();
  EXPECT_EQ(reader->icsData().view(), event) << "also from the middle";
  EXPECT_TRUE(reader->isAtEnd());
  EXPECT_EQ(entry(2)->icsData().view(),
            "BEGIN:VEVENT\r\nUID:2\r\nBEGIN:VALARM\r\nACTION:DISPLAY\r\nEND:VALARM\r\n");
}

}  // namespace
}  // namespace quillmere
