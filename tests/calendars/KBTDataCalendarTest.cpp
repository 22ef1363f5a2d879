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
  EXPECT_EQ(fetch(event("UID:a\r\nDTSTAMP:1\r\n") + event("UID:b\r\nDTSTAMP:1\r\n") +
                  event("UID:c\r\nDTSTAMP:1\r\n")),
            (Log{"began", "new a 1", "new b 1", "new c 1", "fetched"}));
  EXPECT_EQ(fetch(event("UID:d\r\nDTSTAMP:1\r\n") + event("UID:c\r\nDTSTAMP:1\r\n") +
                  event("UID:b\r\nDTSTAMP:2\r\n")),
            (Log{"began", "new d 1", "update b 2", "gone a", "fetched"}));
  EXPECT_EQ(host->readers.back(), event("UID:b\r\nDTSTAMP:2\r\n"));
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), (Log{"b", "c", "d"}));
}

TEST_F(DataCalendar, EventsAndToDosAreItemsAndNothingElseIs) {
  EXPECT_EQ(reports("BEGIN:VTODO\r\nUID:t\r\nDTSTAMP:1\r\nEND:VTODO\r\n"
                    "BEGIN:VJOURNAL\r\nUID:j\r\nDTSTAMP:2\r\nEND:VJOURNAL\r\n"
                    "BEGIN:VEVENT\r\nUID:e\r\nEND:VEVENT\r\n"
                    "begin:vevent\r\nUID:lower\r\nEND:vevent\r\n"),
            (Log{"new t 1", "new e 2"}));
}

TEST_F(DataCalendar, HandsOverAReaderFromBeginToTheFirstEnd) {
  reports(event("UID:a\r\nDTSTAMP:1\r\nBEGIN:VALARM\r\nEND:VALARM\r\nSUMMARY:x\r\n") +
          event("DTSTAMP:2\r\nUID:b\r\n"));
  EXPECT_EQ(host->readers,
            (Log{"BEGIN:VEVENT\r\nUID:a\r\nDTSTAMP:1\r\nBEGIN:VALARM\r\nEND:VALARM\r\n",
                 "BEGIN:VEVENT\r\nDTSTAMP:2\r\nUID:b\r\nEND:VEVENT\r\n"}));
}

TEST_F(DataCalendar, ADeclinedItemIsNewAgainNextTime) {
  host->declined = {"a"};
  const std::string document = event("UID:a\r\nDTSTAMP:1\r\n") + event("UID:b\r\nDTSTAMP:1\r\n");
  EXPECT_EQ(fetch(document), (Log{"began", "new a 1", "new b 1", "fetched"}));
  EXPECT_EQ(fetch(document), (Log{"began", "new a 1", "fetched"}));
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), Log{"b"});
}

// What one item lacks it takes over from the items before it. Hosts keep names and versions between
// runs, so each row is a promise.
TEST_F(DataCalendar, CarriesNamesAndVersionsFromItemToItem) {
  const struct {
    const char* what;
    std::string items;
    Log reports;
  } cases[] = {
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

TEST_F(DataCalendar, ASecondEndHandsTheSameReaderOverAgain) {
  EXPECT_EQ(reports(event("UID:a\r\nDTSTAMP:1\r\n") + "UID:b\r\nEND:VTODO\r\n"),
            (Log{"new a 1", "new b 1"}));
  EXPECT_EQ(host->readers[1], host->readers[0]);
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

TEST_F(DataCalendar, ADeletedObjectIsKnownUntilRightAfterItsCallback) {
  calendar->setObjects({Item::make("a"), Item::make("b")});
  std::vector<Log> known;
  host->onCallback = [&](const std::string& line) {
    if (line.starts_with("gone")) known.push_back(calendar->objectsByUniqueName().keys());
  };
  fetch("");
  EXPECT_EQ(known, (std::vector<Log>{{"a", "b"}, {"b"}}));
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
  calendar->setObjects({Item::make("a"), Item::make("b")});
  calendar->fetchExternalChanges();
  EXPECT_EQ(host->take(), (Log{"began", "gone a", "gone b", "fetched"}));
  EXPECT_TRUE(calendar->objectsByUniqueName().empty());

  const auto plain = KBTDataCalendar::init();
  plain->setDelegate(host);
  plain->setObjects({Item::make("a")});
  plain->fetchExternalChanges();
  plain->saveChanges();
  EXPECT_EQ(host->take(), (Log{"began", "gone a", "fetched", "saved"}));
}

TEST_F(DataCalendar, AFetchDoesNotLookAtPendingChanges) {
  calendar->insertObject(Item::make("unsaved"));
  calendar->deleteObject(Item::make("a"));
  EXPECT_EQ(fetch(event("UID:a\r\nDTSTAMP:1\r\n")),
            (Log{"began", "new a 1", "gone unsaved", "fetched"}));
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), Log{"a"});
  EXPECT_TRUE(calendar->hasPendingChanges());
}

TEST_F(DataCalendar, WritesEveryObjectInTheOrderFirstSeen) {
  calendar->setObjects(
      {Item::make("b", "", "b's lines\r\n"), Item::make("a", "", "a's lines\r\n")});
  calendar->saveChanges();
  EXPECT_EQ(calendar->written,
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Tessaly//Ridgeline 0.1.0//EN\r\n"
            "CALSCALE:GREGORIAN\r\nb's lines\r\na's lines\r\nEND:VCALENDAR\r\n");
  EXPECT_EQ(host->take(), Log{"saved"});
}

TEST_F(DataCalendar, NamesTheCalendarUnescapedAndTheHostsVersion) {
  calendar->setCalendarName("Work, home; and\\more");
  const std::string libraryVersion =
      *NSBundle::mainBundle().objectForInfoDictionaryKey("CFBundleShortVersionString");
  NSBundle::mainBundle().setObject_forInfoDictionaryKey("7.2", "CFBundleShortVersionString");
  calendar->saveChanges();
  NSBundle::mainBundle().setObject_forInfoDictionaryKey(libraryVersion,
                                                        "CFBundleShortVersionString");
  EXPECT_EQ(calendar->written,
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nX-WR-CALNAME:Work, home; and\\more\r\n"
            "PRODID:-//Tessaly//Ridgeline 7.2//EN\r\nCALSCALE:GREGORIAN\r\nEND:VCALENDAR\r\n");
}

TEST_F(DataCalendar, AnEmptyNameIsWritten) {
  calendar->setCalendarName("");
  calendar->saveChanges();
  EXPECT_NE(calendar->written.find("\r\nX-WR-CALNAME:\r\n"), std::string::npos);
}

TEST_F(DataCalendar, APendingDeletionIsStillWrittenAndForgottenAfterwards) {
  const auto a = Item::make("a", "", "a's lines\r\n"), b = Item::make("b");
  calendar->setObjects({a, b});
  calendar->deleteObject(a);
  calendar->saveChanges();
  EXPECT_NE(calendar->written.find("a's lines"), std::string::npos);
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), Log{"b"});
}

TEST_F(DataCalendar, ChangesStayPendingUntilTheWriteHasSucceeded) {
  const auto a = Item::make("a");
  calendar->setObjects({a});
  calendar->deleteObject(a);
  calendar->answersWrites = false;
  calendar->saveChanges();
  EXPECT_EQ(host->take(), Log{});
  EXPECT_FALSE(calendar->isSaving());

  calendar->_wroteCalendarData(NSError::errorWithDomain_code_userInfo("Disk", 28, {}));
  EXPECT_EQ(host->take(), Log{"failed document Disk 28"});
  EXPECT_TRUE(calendar->hasPendingChanges());
  EXPECT_TRUE(calendar->objectsByUniqueName().contains("a"));

  calendar->_wroteCalendarData(nullptr);
  EXPECT_EQ(host->take(), Log{"saved"});
  EXPECT_FALSE(calendar->hasPendingChanges());
  EXPECT_FALSE(calendar->objectsByUniqueName().contains("a"));
}

TEST_F(DataCalendar, TheDelegateMayCallBackFromEveryCallback) {
  const std::string document = event("UID:a\r\nDTSTAMP:1\r\n") + event("UID:b\r\nDTSTAMP:2\r\n");
  calendar->setObjects({Item::make("a"), Item::make("old")});
  int depth = 0;
  std::set<std::string> heard;
  host->onCallback = [&](const std::string& line) {
    if (depth > 0) return;
    ++depth;
    heard.insert(line.substr(0, line.find(' ')));
    calendar->fetchExternalChanges();
    calendar->insertObject(Item::make("from " + line, "", "text"));
    calendar->setObjects({Item::make("a", "1")});
    calendar->saveChanges();
    --depth;
  };
  fetch(document);
  calendar->insertObject(Item::make("last"));
  calendar->saveChanges();
  for (const char* callback : {"began", "new", "version", "fetched", "data", "saved", "name"}) {
    EXPECT_TRUE(heard.contains(callback)) << callback;
  }
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), Log{"a"});
}

TEST_F(DataCalendar, TheDelegateMayLetGoOfTheCalendarDuringAFetch) {
  const std::weak_ptr<MemoryCalendar> weak = calendar;
  calendar->document = event("UID:a\r\nDTSTAMP:1\r\n") + event("UID:b\r\nDTSTAMP:2\r\n");
  host->onCallback = [&](const std::string&) { calendar.reset(); };
  calendar->fetchExternalChanges();
  EXPECT_EQ(host->take(), (Log{"began", "new a 1", "new b 2", "fetched"}));
  EXPECT_TRUE(weak.expired());
}

TEST_F(DataCalendar, AMillionItemsThatNeverEndAreReadInOnePass) {
  std::string document;
  for (int i = 0; i < 1'000'000; ++i) document += "BEGIN:VEVENT\r\n";
  EXPECT_EQ(reports(document), Log{});
  document.clear();
  for (int i = 0; i < 1'000'000; ++i) document += "END:VEVENT\r\n";
  EXPECT_EQ(reports(document).size(), 1U);
}

}  // namespace
}  // namespace quillmere
