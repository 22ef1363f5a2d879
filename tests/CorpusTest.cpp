// Walks a folder of real calendars, where there is one, and the calendars of the demo.

#include <gtest/gtest.h>
#include <quillmere/calendars/KBTFileCalendar.h>
#include <quillmere/ical/KBTCalObjectEntry.h>
#include <quillmere/ical/KBTFreeBusy.h>
#include <quillmere/platform/xml/HWXMLDocument.h>
#include <quillmere/recurrence/KBTCalRepetition.h>

#include <algorithm>
#include <cstdlib>

#include "tests/support/ReaderProperties.h"
#include "tests/support/RecordingDelegate.h"
#include "tests/support/TemporaryFolder.h"

namespace quillmere {
namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesBelow(const fs::path& folder) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  return files;
}

void walk(const fs::path& folder) {
  const auto files = filesBelow(folder);
  ASSERT_FALSE(files.empty()) << folder;
  for (const fs::path& file : files) {
    SCOPED_TRACE(file);
    const auto data = NSData::dataWithContentsOfFile(file);
    ASSERT_TRUE(data);
    testing::checkReader(*data);
    KBTFreeBusy::freeBusyInfoFromICSData(*data);

    const auto host = std::make_shared<testing::RecordingDelegate>();
    const auto calendar = KBTFileCalendar::initWithPath(file);
    calendar->setDelegate(host);
    calendar->fetchExternalChanges();
    EXPECT_EQ(host->take().back(), "fetched");

    // Read again, the same objects are found unchanged; but an item without a UID gets another
    // name.
    const bool ownNames =
        std::all_of(host->objects.begin(), host->objects.end(), [&](const auto& object) {
          return data->view().find(object.first) != std::string_view::npos;
        });
    calendar->setCachingString(std::nullopt);
    calendar->fetchExternalChanges();
    if (ownNames) {
      EXPECT_EQ(host->take(), (std::vector<std::string>{"began", "fetched"}));
    }
  }
}

// A rule is taken or refused with an error; a taken one reads back from what it writes, and ascends.
void checkRule(std::string_view text, NSDate start) {
  SCOPED_TRACE(text);
  NSErrorPtr error;
  const auto rule = KBTCalRepetition::initWithRRule_error(text, &error);
  EXPECT_NE(rule == nullptr, error == nullptr);
  if (!rule) return;
  const auto again = KBTCalRepetition::initWithRRule_error(rule->rrule(), nullptr);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->rrule(), rule->rrule());
  rule->setStartDate(start);
  std::optional<NSDate> before;
  auto instance = rule->firstRepetitionInstance();
  for (int i = 0; i < 200 && instance.day != 0; ++i) {
    const auto date = KBTCalRepetition::dateForInstance(instance);
    EXPECT_LT(before, date);
    before = date;
    instance = rule->nextRepetitionInstance(instance);
  }
}

TEST(Corpus, RealRulesAreFollowedOrRefused) {
  const char* folder = std::getenv("QUILLMERE_CORPUS");
  const fs::path calendars = folder ? fs::path(folder) : fs::path(QUILLMERE_DEMO_DATA);
  std::size_t rules = 0;
  for (const fs::path& file : filesBelow(calendars)) {
    const auto reader = KBTCalObject::initWithData(*NSData::dataWithContentsOfFile(file));
    auto start = NSDate::initWithICSDateString("20240131T100000Z").value();
    while (reader->nextLine()) {
      if (reader->key() == "DTSTART") {
        start = KBTCalObject::zuluStringAsDate(reader->value()).value_or(start);
      }
      if (reader->key() != "RRULE" || !reader->value()) continue;
      checkRule(*reader->value(), start);
      ++rules;
    }
  }
  EXPECT_GT(rules, 3U);
}

TEST(Corpus, RealServersAnswersAreXML) {
  const char* folder = std::getenv("QUILLMERE_CORPUS");
  if (!folder) return;
  std::vector<std::string> refused;
  for (const fs::path& file : filesBelow(folder)) {
    if (file.extension() != ".xml") continue;
    const auto document = HWXMLDocument::initWithData(*NSData::dataWithContentsOfFile(file));
    if (!document) {
      refused.push_back(file.filename());
      continue;
    }
    const HWXMLElement root = document->rootElement();
    EXPECT_EQ(root.name(), "multistatus") << file;
    const auto response = root.firstChildNamed("response");
    ASSERT_TRUE(response) << file;
    const auto address = response->firstChildNamed("href");
    EXPECT_TRUE(address && address->text()) << file;
  }
  // One has an attribute without a value, so it is no XML.
  EXPECT_LE(refused.size(), 1U);
}

TEST(Corpus, TheDemosCalendarsAreReadWhole) { walk(QUILLMERE_DEMO_DATA); }

TEST(Corpus, RealCalendarsAreReadWhole) {
  if (const char* folder = std::getenv("QUILLMERE_CORPUS")) walk(folder);
}

}  // namespace
}  // namespace quillmere
