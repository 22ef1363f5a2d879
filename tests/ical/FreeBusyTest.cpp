// Both classes of free/busy values, since their rules are meant to differ.

#include <gtest/gtest.h>
#include <quillmere/ical/KBTCalFreeBusyRange.h>
#include <quillmere/ical/KBTFreeBusy.h>

#include "tests/support/ScopedTimeZone.h"
#include "tests/support/ScopedTranslation.h"

namespace quillmere {
namespace {

using Log = std::vector<std::string>;

std::string textOf(std::optional<NSDate> date) { return date ? date->icsDateString() : "null"; }

// "20240105T090000Z-20240105T100000Z", or "error TEXT" with the malformed period, where texts are
// translated.
Log answer(const std::string& document) {
  const NSErrorPtr before = NSError::errorWithPOSIXCode(1);
  NSErrorPtr error = before;
  const auto periods =
      KBTFreeBusy::freeBusyInfoFromICSData(NSData::dataWithBytes(document), &error);
  EXPECT_EQ(periods.has_value(), error == before);
  Log log;
  if (!periods) {
    EXPECT_EQ(error->domain(), "KBTDavConnection");
    EXPECT_EQ(error->code(), 3);
    EXPECT_EQ(error->localizedDescription(), "etwas Unbekanntes");
    return {"error " + std::get<std::string>(error->userInfo().at(KBTFreeBusyMalformedPeriodKey))};
  }
  for (const auto& period : *periods) {
    log.push_back((period->tentative() ? "tentative " : "") + textOf(period->start()) + "-" +
                  textOf(period->end()));
  }
  return log;
}

Log textsOf(const auto& ranges) {
  Log log;
  for (const auto& range : ranges) {
    log.push_back(textOf(range->start()) + "-" + textOf(range->end()));
  }
  return log;
}

TEST(FreeBusy, TheTwoRulesDifferOnPiecesWithoutExactlyOneSlash) {
  const testing::ScopedTimeZone zone("America/New_York");
  const testing::ScopedTranslation translation("unknown CalDav error", "etwas Unbekanntes");
  struct Case {
    const char* value;
    Log answer;
    Log ranges;
  };
  const auto same = [](const char* value, const Log& periods) {
    return Case{value, periods, periods};
  };
  const Case cases[] = {
      same("20240105T090000Z/20240105T100000Z,20240105T120000Z/PT30M",
           {"20240105T090000Z-20240105T100000Z", "20240105T120000Z-20240105T123000Z"}),
      same("20240105T100000Z/20240105T090000Z", {"20240105T100000Z-20240105T090000Z"}),
      same("20240105T090000Z/-PT1H", {"20240105T090000Z-null"}),
      same("soon/PT1H, /", {"null-null", "null-null"}),
      same("20240105T090000Z/PT1H, 20240105T120000Z/20240105T130000Z,20240105T120000Z /PT1H",
           {"20240105T090000Z-20240105T100000Z", "null-20240105T130000Z", "null-null"}),
      // A day is a day on the default zone's clock, hours are elapsed time.
      same("20240309T170000Z/P1D", {"20240309T170000Z-20240310T160000Z"}),
      same("20240105T090000Z/P2147483647D", {"20240105T090000Z-null"}),
      {"20240105T090000Z", {"error 20240105T090000Z"}, {}},
      {"20240105T090000Z/PT1H,", {"error "}, {"20240105T090000Z-20240105T100000Z"}},
      {"20240105T090000Z/PT1H,oops,more,20240105T120000Z/PT1H",
       {"error oops"},
       {"20240105T090000Z-20240105T100000Z", "20240105T120000Z-20240105T130000Z"}},
      {"20240105T090000Z/PT1H/PT2H", {"20240105T090000Z-20240105T110000Z"}, {}},
      {"20240105T090000Z/20240105T100000Z/", {"20240105T090000Z-null"}, {}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(answer(std::string("FREEBUSY:") + c.value + "\r\n"), c.answer) << c.value;
    EXPECT_EQ(textsOf(KBTCalFreeBusyRange::freeBusyRangesFromValueString(c.value)), c.ranges)
        << c.value;
  }
}

TEST(KBTFreeBusy, ReadsEveryLineWhateverItsComponentAndType) {
  EXPECT_EQ(answer("BEGIN:VCALENDAR\r\n"
                   "FREEBUSY;FBTYPE=BUSY-TENTATIVE:20240101T000000Z/PT1H,20240101T020000Z/PT1H\r\n"
                   "BEGIN:VFREEBUSY\r\n"
                   "FREEBUSY;FBTYPE=BUSY-UNAVAILABLE:20240102T000000Z/PT1H\r\n"
                   "FREEBUSY;FBTYPE=FREE:20240103T000000Z/PT1H\r\n"
                   "FREEBUSY;FBTYPE=busy-tentative:20240104T000000Z/PT1H\r\n"
                   "FREEBUSY;fbtype=BUSY-TENTATIVE:20240104T040000Z/PT1H\r\n"
                   "freebusy:20240105T000000Z/PT1H\r\n"
                   "FREEBUSY:20240106T000000Z\r\n /PT1H\r\n"
                   "END:VFREEBUSY\r\nEND:VCALENDAR\r\n"),
            (Log{"tentative 20240101T000000Z-20240101T010000Z",
                 "tentative 20240101T020000Z-20240101T030000Z", "20240102T000000Z-20240102T010000Z",
                 "20240103T000000Z-20240103T010000Z", "20240104T000000Z-20240104T010000Z",
                 "20240104T040000Z-20240104T050000Z", "20240106T000000Z-20240106T010000Z"}));
  EXPECT_EQ(answer(""), Log{});
  EXPECT_EQ(answer("FREEBUSY:\xFF/PT1H\r\n"), Log{}) << "not UTF-8, so no text with periods";
}

TEST(KBTFreeBusy, MakesObjectsOfADerivedClass) {
  struct Shift : KBTFreeBusy {
    using KBTFreeBusy::KBTFreeBusy;
    std::string owner = "nobody yet";
  };
  const auto shifts = KBTFreeBusy::freeBusyInfoFromICSData<Shift>(
      NSData::dataWithBytes("FREEBUSY:20240105T090000Z/PT1H\r\n"));
  ASSERT_TRUE(shifts);
  EXPECT_EQ(shifts->at(0)->owner, "nobody yet");
  EXPECT_EQ(shifts->at(0)->description(), "2024-01-05 09:00:00 +0000 to 2024-01-05 10:00:00 +0000");
  const auto half = KBTFreeBusy::initWithStart_andEnd_isTentative(shifts->at(0)->end(), {}, true);
  EXPECT_EQ(half->description(), "Tentative:2024-01-05 10:00:00 +0000 to (null)");
}

TEST(KBTCalFreeBusyRange, ReadsFromTheReadersPositionToItsEnd) {
  const auto reader = KBTCalObject::initWithData(
      NSData::dataWithBytes("FREEBUSY:20240101T000000Z/PT1H\r\nSUMMARY:20240102T000000Z/PT1H\r\n"
                            "freebusy:20240102T000000Z/PT1H\r\n"
                            "FREEBUSY;FBTYPE=FREE:20240103T000000Z/PT1H,bad\r\nFREEBUSY:\xFF\r\n"
                            "FREEBUSY:20240104T000000Z/PT1H\r\n"));
  reader->nextLine();
  EXPECT_EQ(textsOf(KBTCalFreeBusyRange::freeBusyRangesFromCalObject(*reader)),
            (Log{"20240103T000000Z-20240103T010000Z", "20240104T000000Z-20240104T010000Z"}));
  EXPECT_TRUE(reader->isAtEnd());
}

}  // namespace
}  // namespace quillmere
