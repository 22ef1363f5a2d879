// Walks a folder of real calendars, where there is one, and the calendars of the demo.

#include <gtest/gtest.h>
#include <quillmere/calendars/KBTFileCalendar.h>
#include <quillmere/ical/KBTCalObjectEntry.h>
#include <quillmere/ical/KBTFreeBusy.h>

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

TEST(Corpus, TheDemosCalendarsAreReadWhole) { walk(QUILLMERE_DEMO_DATA); }

TEST(Corpus, RealCalendarsAreReadWhole) {
  if (const char* folder = std::getenv("QUILLMERE_CORPUS")) walk(folder);
}

}  // namespace
}  // namespace quillmere
