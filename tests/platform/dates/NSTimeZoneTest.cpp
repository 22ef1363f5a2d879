#include <gtest/gtest.h>
#include <quillmere/platform/dates/NSTimeZone.h>

#include <cstdlib>
#include <filesystem>

#include "tests/support/ScopedTimeZone.h"
#include "tests/support/TemporaryFolder.h"

namespace quillmere {
namespace {

TEST(NSTimeZone, KnowsIANAAndWindowsNames) {
  const struct {
    const char* asked;
    const char* name;
  } cases[] = {
      {"Europe/Paris", "Europe/Paris"},
      {"Etc/GMT+9", "Etc/GMT+9"},
      {"W. Europe Standard Time", "Europe/Berlin"},
      {"AUS Central Standard Time", "Australia/Darwin"},  // first of the table
      {"Yukon Standard Time", "America/Whitehorse"},      // last of the table
  };
  for (const auto& c : cases) {
    const auto zone = NSTimeZone::timeZoneWithName(c.asked);
    ASSERT_TRUE(zone) << c.asked;
    EXPECT_EQ(zone->name(), c.name);
  }
}

// A name comes from a document: it must not lead to any other file, nor to anything but a zone. The
// zone database holds other files, too, and a file system may not tell cases apart.
TEST(NSTimeZone, RefusesEveryOtherName) {
  for (const char* name :
       {"", "europe standard time", "../zoneinfo/Europe/Paris", "/usr/share/zoneinfo/Europe/Paris",
        "file:Europe/Paris", "Europe", "posix/Europe/Paris", "Europe/../Europe/Paris",
        "Europe//Paris", "zone.tab", "\"Europe/Paris\"", "Fixed/UTC+01:00:00",
        "(GMT+10:00) Canberra, Melbourne, Sydney", "Europe/Paris\n", "localtime", "posixrules"}) {
    EXPECT_EQ(NSTimeZone::timeZoneWithName(name), std::nullopt) << name;
  }
  using std::string_view;
  EXPECT_EQ(NSTimeZone::timeZoneWithName(string_view("Europe/Paris\0", 13)), std::nullopt);
  EXPECT_EQ(NSTimeZone::timeZoneWithName(std::string(1 << 20, 'A')), std::nullopt);
  const testing::TemporaryFolder folder;
  std::filesystem::create_directories(folder / "Right");
  for (const char* name : {"LOCALTIME", "PosixRuleZ", "Right/Paris", "Rightly"}) {
    std::filesystem::copy_file("/usr/share/zoneinfo/Europe/Paris", folder / name);
  }
  ::setenv("TZDIR", (folder / "").c_str(), 1);
  const auto isZone = [](const char* name) {
    return NSTimeZone::timeZoneWithName(name).has_value();
  };
  EXPECT_TRUE(isZone("PosixRuleZ") && isZone("Rightly"));
  EXPECT_FALSE(isZone("LOCALTIME") || isZone("Right/Paris"));
  ::unsetenv("TZDIR");
}

TEST(NSTimeZone, KnowsAbbreviationsExactly) {
  EXPECT_EQ(NSTimeZone::timeZoneWithAbbreviation("PST")->name(), "America/Los_Angeles");
  EXPECT_EQ(NSTimeZone::timeZoneWithAbbreviation("pst"), std::nullopt);
  EXPECT_EQ(NSTimeZone::timeZoneWithAbbreviation("Europe/Paris"), std::nullopt);
}

TEST(NSTimeZone, TheDefaultIsTheSystemsUntilTheHostSetsOne) {
  const NSTimeZone before = NSTimeZone::defaultTimeZone();
  if (const char* system = std::getenv("TZ")) {
    EXPECT_EQ(before.name(), system);
  }
  {
    const testing::ScopedTimeZone zone("Asia/Tokyo");
    EXPECT_EQ(NSTimeZone::defaultTimeZone().name(), "Asia/Tokyo");
    EXPECT_FALSE(NSTimeZone::setDefaultTimeZone(NSTimeZone::timeZoneWithName("Asia/Tokio")));
    EXPECT_EQ(NSTimeZone::defaultTimeZone().name(), "Asia/Tokyo");
    EXPECT_TRUE(NSTimeZone::setDefaultTimeZone(NSTimeZone::timeZoneWithName("Asia/Seoul")));
    EXPECT_EQ(NSTimeZone::defaultTimeZone().name(), "Asia/Seoul");
  }
  EXPECT_EQ(NSTimeZone::defaultTimeZone(), before);
}

}  // namespace
}  // namespace quillmere
