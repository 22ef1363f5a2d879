#include <gtest/gtest.h>
#include <quillmere/calendars/KBTDataCalendar.h>
#include <quillmere/platform/base/NSBundle.h>
#include <quillmere/platform/base/makeObject.h>

#include "tests/support/RecordingDelegate.h"

namespace quillmere {
namespace {

using testing::Item, testing::RecordingDelegate;
using Log = std::vector<std::string>;

// A data calendar over bytes in memory.
class MemoryCalendar : public KBTDataCalendar {
 public:
  using KBTDataCalendar::_wroteCalendarData, KBTDataCalendar::objectsByUniqueName;

  std::optional<std::string> document;  // null: no reader at all
  std::string written;
  bool answersWrites = true;

 protected:
  std::shared_ptr<KBTCalObject> _getCalendarData() override {
    if (!document) return nullptr;
    return KBTCalObject::initWithData(NSData::dataWithBytes(*document));
  }
  void _writeCalendarData(const NSData& data) override {
    written = data.view();
    if (answersWrites) _wroteCalendarData(nullptr);
  }
};

class DataCalendar : public ::testing::Test {
 protected:
  DataCalendar() { calendar->setDelegate(host); }

  Log fetch(std::string document) {
    calendar->document = std::move(document);
    calendar->fetchExternalChanges();
    return host->take();
  }
  // What a fetch of `items` into an empty calendar reports, between "began" and "fetched".
  Log reports(const std::string& items) {
    calendar->setObjects({});
    Log log = fetch("BEGIN:VCALENDAR\r\n" + items + "END:VCALENDAR\r\n");
    EXPECT_GE(log.size(), 2U);
    EXPECT_EQ(log.front(), "began");
    EXPECT_EQ(log.back(), "fetched");
    return {log.begin() + 1, log.end() - 1};
  }

  std::shared_ptr<RecordingDelegate> host = std::make_shared<RecordingDelegate>();
  std::shared_ptr<MemoryCalendar> calendar = makeObject<MemoryCalendar>();
};

std::string event(const std::string& lines) {
  return "BEGIN:VEVENT\r\n" + lines + "END:VEVENT\r\n";
}

TEST_F(DataCalendar, ReportsNewChangedAndDeletedObjects) {
  host->declined = {"no"};
  EXPECT_EQ(fetch(event("UID:a\r\nDTSTAMP:1\r\n") + event("UID:b\r\nDTSTAMP:1\r\n") +
                  event("UID:no\r\nDTSTAMP:1\r\n") + event("UID:c\r\nDTSTAMP:1\r\n")),
            (Log{"began", "new a 1", "new b 1", "new no 1", "new c 1", "fetched"}));
  EXPECT_EQ(fetch(event("UID:no\r\nDTSTAMP:1\r\n") + event("UID:c\r\nDTSTAMP:1\r\n") +
                  event("UID:b\r\nDTSTAMP:2\r\n")),
            (Log{"began", "new no 1", "update b 2", "gone a", "fetched"}))
      << "what was declined is new again";
  EXPECT_EQ(host->readers.back(), event("UID:b\r\nDTSTAMP:2\r\n"));
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), (Log{"b", "c"}));
}

TEST_F(DataCalendar, HandsOverAReaderFromBeginToTheFirstEnd) {
  reports(event("UID:a\r\nDTSTAMP:1\r\nBEGIN:VALARM\r\nEND:VALARM\r\nSUMMARY:x\r\n") +
          event("DTSTAMP:2\r\nUID:b\r\n") + "UID:c\r\nEND:VTODO\r\n");
  EXPECT_EQ(host->readers,
            (Log{"BEGIN:VEVENT\r\nUID:a\r\nDTSTAMP:1\r\nBEGIN:VALARM\r\nEND:VALARM\r\n",
                 "BEGIN:VEVENT\r\nDTSTAMP:2\r\nUID:b\r\nEND:VEVENT\r\n", host->readers[1]}));
}

// What one item lacks it takes over from the items before it. Hosts keep names and versions between
// runs, so each row is a promise.
TEST_F(DataCalendar, CarriesNamesAndVersionsFromItemToItem) {
  const struct {
    const char* what;
    std::string items;
    Log reports;
  } cases[] = {
      {"events and to-dos are items, and nothing else is",
       "BEGIN:VTODO\r\nUID:t\r\nDTSTAMP:1\r\nEND:VTODO\r\n"
       "BEGIN:VJOURNAL\r\nUID:j\r\nDTSTAMP:2\r\nEND:VJOURNAL\r\n"
       "BEGIN:VEVENT\r\nUID:e\r\nEND:VEVENT\r\n"
       "begin:vevent\r\nUID:lower\r\nEND:vevent\r\n",
       {"new t 1", "new e 2"}},
      {"no DTSTAMP: the version of the item before",
       event("UID:a\r\nDTSTAMP:7\r\n") + event("UID:b\r\nSEQUENCE:3\r\n"),
       {"new a 7", "new b 7"}},
      {"no DTSTAMP yet: SEQUENCE, which then sticks",
       event("UID:a\r\nSEQUENCE:3\r\n") + event("UID:b\r\nSEQUENCE:4\r\n") +
           event("UID:c\r\nDTSTAMP:9\r\n") + event("UID:d\r\n"),
       {"new a 3", "new b 3", "new c 9", "new d 9"}},
      {"neither: 1, which then sticks",
       event("UID:a\r\n") + event("UID:b\r\nSEQUENCE:4\r\n"),
       {"new a 1", "new b 1"}},
      {"no UID: the item before's, so a duplicate",
       event("UID:a\r\nDTSTAMP:1\r\n") + event("DTSTAMP:2\r\n") + event("UID:b\r\n"),
       {"new a 1", "new b 2"}},
      {"the same UID twice: the first counts",
       event("UID:a\r\nDTSTAMP:1\r\n") + event("UID:a\r\nDTSTAMP:2\r\n"),
       {"new a 1"}},
      {"an alarm's UID and DTSTAMP count",
       event("UID:a\r\nDTSTAMP:1\r\nBEGIN:VALARM\r\nUID:alarm\r\nDTSTAMP:2\r\nEND:VALARM\r\n"),
       {"new alarm 2"}},
      {"but not before", "UID:x\r\nDTSTAMP:5\r\nSEQUENCE:6\r\n" + event("UID:a\r\n"), {"new a 1"}},
      {"a SEQUENCE carries over as well",
       event("UID:a\r\nDTSTAMP:1\r\nSEQUENCE:3\r\n") + event("UID:b\r\nDTSTAMP:\xFF\r\n"),
       {"new a 1", "new b 3"}},
      {"a UID that is not UTF-8 is none, and one is made up once",
       event("UID:a\r\nDTSTAMP:1\r\n") + event("UID:\xFF\r\nUID:b\r\n"),
       {"new a 1", "new b 1"}},
      {"a duplicate of a declined item is skipped too",
       event("UID:declined\r\nDTSTAMP:1\r\n") + event("UID:declined\r\nDTSTAMP:2\r\n"),
       {"new declined 1"}},
      {"a folded and an escaped UID are remembered as they read",
       event("UID:a\\,\r\n b\r\nDTSTAMP:1\r\n") + event("UID:c\r\n") + event("UID:a\\,b\r\n"),
       {"new a,b 1", "new c 1"}},
      {"a blank line hides the line after it",
       event("UID:a\r\nDTSTAMP:1\r\n") + "\r\n" + event("UID:b\r\n") + event("UID:c\r\n"),
       {"new a 1", "new b 1", "new c 1"}},
      {"a hidden END lets the next item finish in its place",
       "BEGIN:VEVENT\r\nUID:a\r\n\r\nEND:VEVENT\r\n" + event("UID:b\r\n"),
       {"new b 1"}},
  };
  host->declined = {"declined"};
  for (const auto& c : cases) EXPECT_EQ(reports(c.items), c.reports) << c.what;
}

TEST_F(DataCalendar, WhatAFetchCompares_IsTakenBeforeItBegins) {
  const auto late = Item::make("late");
  host->onCallback = [&](const std::string& line) {
    if (line != "began") return;
    calendar->insertObject(late);
    calendar->document = event("UID:b\r\n");
  };
  EXPECT_EQ(fetch(event("UID:a\r\nDTSTAMP:1\r\n")), (Log{"began", "new a 1", "fetched"}));
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), (Log{"late", "a"}));
}

TEST_F(DataCalendar, AnEndWithoutABeginFinishesAnItemWithAReaderWithoutLines) {
  const Log log = reports("UID:ignored\r\nEND:VEVENT\r\n" + event("UID:a\r\n"));
  ASSERT_EQ(log.size(), 2U);
  EXPECT_EQ(log[0].substr(40), " 1");
  EXPECT_EQ(log[1], "new a 1");
  EXPECT_EQ(host->readers[0], "");
}

TEST_F(DataCalendar, TheNameIsTakenFromAnyLineThatTellsIt) {
  reports(event("UID:a\r\nX-WR-CALNAME:inside\\, an event\r\n"));
  EXPECT_EQ(calendar->calendarName(), "inside, an event");
  reports("X-WR-CALNAME;X=1:first\r\nX-WR-CALNAME:last\r\nx-wr-calname:lower\r\n");
  EXPECT_EQ(calendar->calendarName(), "last");
  reports("");
  EXPECT_EQ(calendar->calendarName(), "last") << "kept where the document tells none";
  reports("X-WR-CALNAME:\xFF\r\n");
  EXPECT_EQ(calendar->calendarName(), std::nullopt);
}

TEST_F(DataCalendar, WithoutADocumentEverythingIsGone) {
  const auto plain = KBTDataCalendar::init();
  plain->setDelegate(host);
  plain->setObjects({Item::make("a")});
  plain->fetchExternalChanges();
  plain->saveChanges();
  EXPECT_EQ(host->take(), (Log{"began", "gone a", "fetched", "saved"}));

  calendar->setObjects({Item::make("a"), Item::make("b")});
  std::vector<Log> known;
  host->onCallback = [&](const std::string& line) {
    if (line.starts_with("gone")) known.push_back(calendar->objectsByUniqueName().keys());
  };
  calendar->fetchExternalChanges();
  EXPECT_EQ(known, (std::vector<Log>{{"a", "b"}, {"b"}})) << "known until right after its callback";
}

TEST_F(DataCalendar, WritesEveryObjectInTheOrderFirstSeen) {
  calendar->setObjects(
      {Item::make("b", "", "b's lines\r\n"), Item::make("a", "", "a's lines\r\n")});
  const auto expectWritten = [&](const std::string& name, const std::string& hostVersion) {
    calendar->saveChanges();
    EXPECT_EQ(calendar->written,
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n" + name + "PRODID:-//Tessaly//Ridgeline " +
                  hostVersion +
                  "//EN\r\nCALSCALE:GREGORIAN\r\nb's lines\r\na's lines\r\nEND:VCALENDAR\r\n");
  };
  expectWritten("", "0.1.0");
  calendar->setCalendarName("Work, home; and\\more");
  NSBundle::mainBundle().setObject_forInfoDictionaryKey("7.2", "CFBundleShortVersionString");
  expectWritten("X-WR-CALNAME:Work, home; and\\more\r\n", "7.2");  // unescaped
  calendar->setCalendarName("");
  expectWritten("X-WR-CALNAME:\r\n", "7.2");
}

TEST_F(DataCalendar, ChangesStayPendingUntilTheWriteHasSucceeded) {
  const auto a = Item::make("a", "", "a's lines\r\n");
  calendar->setObjects({a, Item::make("b")});
  calendar->deleteObject(a);
  calendar->answersWrites = false;
  calendar->saveChanges();
  EXPECT_NE(calendar->written.find("a's lines"), std::string::npos) << "nor is it left out";
  EXPECT_EQ(host->take(), Log{});
  EXPECT_FALSE(calendar->isSaving());

  calendar->_wroteCalendarData(NSError::errorWithDomain_code_userInfo("Disk", 28, {}));
  EXPECT_EQ(host->take(), Log{"failed document Disk 28"});
  EXPECT_TRUE(calendar->hasPendingChanges());
  EXPECT_TRUE(calendar->objectsByUniqueName().contains("a"));

  calendar->_wroteCalendarData(nullptr);
  EXPECT_EQ(host->take(), Log{"saved"});
  EXPECT_FALSE(calendar->hasPendingChanges());
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), Log{"b"});
}

TEST_F(DataCalendar, TheDelegateMayCallBackFromEveryCallback) {
  calendar->setObjects({Item::make("a"), Item::make("old")});
  int depth = 0;
  host->onCallback = [&](const std::string& line) {
    if (depth > 0) return;
    ++depth;
    calendar->fetchExternalChanges();
    calendar->insertObject(Item::make("from " + line, "", "text"));
    calendar->setObjects({Item::make("a", "1")});
    calendar->saveChanges();
    --depth;
  };
  fetch(event("UID:a\r\nDTSTAMP:1\r\n") + event("UID:b\r\nDTSTAMP:2\r\n"));
  calendar->insertObject(Item::make("last"));
  calendar->saveChanges();
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), Log{"a"});
}

TEST_F(DataCalendar, AMillionItemsThatNeverEndAreReadInOnePass) {
  for (const bool ends : {false, true}) {
    std::string document;
    for (int i = 0; i < 1'000'000; ++i) document += ends ? "END:VEVENT\r\n" : "BEGIN:VEVENT\r\n";
    EXPECT_EQ(reports(document).size(), ends ? 1U : 0U);
  }
}

}  // namespace
}  // namespace quillmere
