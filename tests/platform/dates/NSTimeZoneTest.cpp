#include <gtest/gtest.h>
#include <quillmere/platform/dates/NSTimeZone.h>

#include <cstdlib>

#include "tests/support/ScopedTimeZone.h"

namespace quillmere {
namespace {

NSDate utc(const char* text) { return NSDate::initWithICSDateString(text).value(); }

TEST(NSTimeZone, KnowsIANAAndWindowsNames) {
  const struct {
    const char* asked;
    const char* name;
  } cases[] = {
      {"Europe/Paris", "Europe/Paris"},
      {"America/Argentina/Buenos_Aires", "America/Argentina/Buenos_Aires"},
      {"Etc/GMT+5", "Etc/GMT+5"},
      {"UTC", "UTC"},
      {"W. Europe Standard Time", "Europe/Berlin"},
      {"Eastern Standard Time", "America/New_York"},
      {"AUS Central Standard Time", "Australia/Darwin"},  // first of the table
      {"Yukon Standard Time", "America/Whitehorse"},      // last of the table
      {"India Standard Time", "Asia/Calcutta"},
  };
  for (const auto& c : cases) {
    const auto zone = NSTimeZone::timeZoneWithName(c.asked);
    ASSERT_TRUE(zone) << c.asked;
    EXPECT_EQ(zone->name(), c.name);
  }
}

// A name comes from a document: it must not lead to any other file, nor to anything but a zone.
TEST(NSTimeZone, RefusesEveryOtherName) {
  for (const char* name :
       {"", "Mars/Olympus", "europe standard time", "../zoneinfo/Europe/Paris",
        "/usr/share/zoneinfo/Europe/Paris", "file:Europe/Paris", "Europe", "Europe/",
        "Europe/../Europe/Paris", "Europe//Paris", "Europe/Paris/", "zone.tab", "\"Europe/Paris\"",
        "Fixed/UTC+01:00:00", "(GMT+10:00) Canberra, Melbourne, Sydney", "Europe/Paris\n"}) {
    EXPECT_EQ(NSTimeZone::timeZoneWithName(name), std::nullopt) << name;
  }
  using std::string_view;
  EXPECT_EQ(NSTimeZone::timeZoneWithName(string_view("Europe/Paris\0", 13)), std::nullopt);
  EXPECT_EQ(NSTimeZone::timeZoneWithName(std::string(1 << 20, 'A')), std::nullopt);
}

TEST(NSTimeZone, EveryAbbreviationOfTheTableIsAZone) {
  for (const char* abbreviation :
       {"AKST", "AST", "BRT", "CET",  "CLST", "CST",  "EET",  "EST", "MSD", "MST", "NST",
        "NZST", "WET", "ADT", "AKDT", "ART",  "BDT",  "BRST", "BST", "CAT", "CDT", "CEST",
        "CLT",  "COT", "EAT", "EDT",  "EEST", "GMT",  "GST",  "HKT", "HST", "ICT", "IRST",
        "IST",  "JST", "KST", "MDT",  "MSK",  "NDT",  "NZDT", "PDT", "PET", "PHT", "PKT",
        "PST",  "SGT", "TRT", "UTC",  "WAT",  "WEST", "WIT"}) {
    EXPECT_TRUE(NSTimeZone::timeZoneWithAbbreviation(abbreviation)) << abbreviation;
  }
  EXPECT_EQ(NSTimeZone::timeZoneWithAbbreviation("PST")->name(), "America/Los_Angeles");
  EXPECT_EQ(NSTimeZone::timeZoneWithAbbreviation("pst"), std::nullopt);
  EXPECT_EQ(NSTimeZone::timeZoneWithAbbreviation("Europe/Paris"), std::nullopt);
}

TEST(NSTimeZone, OffsetsChangeAtTheSecond) {
  const struct {
    const char* zone;
    const char* before;
    int offsetBefore;
    const char* after;
    int offsetAfter;
  } cases[] = {
      {"America/New_York", "20240310T065959Z", -18000, "20240310T070000Z", -14400},
      {"Europe/Paris", "20241027T005959Z", 7200, "20241027T010000Z", 3600},
      {"Australia/Lord_Howe", "20240406T145959Z", 39600, "20240406T150000Z",
       37800},                                                                  // half an hour
      {"Pacific/Apia", "20111230T095959Z", -36000, "20111230T100000Z", 50400},  // a day
  };
  for (const auto& c : cases) {
    const auto zone = NSTimeZone::timeZoneWithName(c.zone).value();
    EXPECT_EQ(zone.secondsFromGMTForDate(utc(c.before)), c.offsetBefore) << c.zone;
    EXPECT_EQ(zone.secondsFromGMTForDate(utc(c.after)), c.offsetAfter) << c.zone;
  }
}

TEST(NSTimeZone, TheDefaultIsTheSystemsUntilTheHostSetsOne) {
  const NSTimeZone before = NSTimeZone::defaultTimeZone();
  if (const char* system = std::getenv("TZ")) {
    EXPECT_EQ(before.name(), system);
  }
  {
    const testing::ScopedTimeZone zone("Asia/Tokyo");
    EXPECT_EQ(NSTimeZone::defaultTimeZone().name(), "Asia/Tokyo");
  }
  EXPECT_EQ(NSTimeZone::defaultTimeZone(), before);
}

}  // namespace
}  // namespace quillmere
