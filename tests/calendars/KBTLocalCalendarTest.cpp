#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/calendars/KBTCalEventCalObject.h>
#include <quillmere/calendars/KBTLocalCalendar.h>
#include <quillmere/ical/KBTMutableCalObject.h>
#include <quillmere/platform/base/HWPreference.h>
#include <quillmere/platform/loop/NSOperationQueue.h>
#include <quillmere/platform/notifications/NSDistributedNotificationCenter.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "tests/platform/events/EventHost.h"
#include "tests/support/RecordingDelegate.h"
#include "tests/support/TemporaryFolder.h"

// The store of the process lies in a folder of the test's; every test has a calendar of its own.

namespace quillmere {
namespace {

using testing::ChangeCount, testing::Event, testing::EventHost, testing::february, testing::Item,
    testing::january, testing::runUntil, testing::utc;
using ::testing::ElementsAre, ::testing::IsEmpty, ::testing::MatchesRegex, ::testing::Not,
    ::testing::SizeIs;

// Until all that is in it now, and what that adds, is done.
void runTheMainQueue() {
  constexpr int turns = 10;
  for (int turn = 0; turn != turns; ++turn) {
    bool isDone = false;
    NSOperationQueue::mainQueue().addOperationWithBlock([&] { isDone = true; });
    EXPECT_TRUE(runUntil([&] { return isDone; }));
  }
}

using Filling = std::function<void(KBTMutableCalObject&)>;

// Fills a writer with an event.
Filling filling(const char* start, const char* end, const char* title = nullptr) {
  return [=](KBTMutableCalObject& writer) {
    if (title) writer.appendKey_stringValue("SUMMARY", title);
    writer.appendKey_datetimeValue("DTSTART", utc(start));
    writer.appendKey_datetimeValue("DTEND", utc(end));
  };
}

class Host : public testing::RecordingDelegate {
 public:
  Filling fill = [](KBTMutableCalObject&) {};

  std::shared_ptr<KBTICSDataSource> synchingCalendar_icsDataForObject(
      KBTSynchingCalendar&, const KBTClientObject&) override {
    auto writer =
        KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration("VEVENT", false);
    fill(*writer);
    return writer;
  }
  std::optional<NSDate> synchingCalendarEarliestDate(KBTSynchingCalendar&) override {
    return january;
  }
  std::optional<NSDate> synchingCalendarLatestDate(KBTSynchingCalendar&) override {
    return february;
  }
};

class LocalCalendar : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (EventHost::usesEvolution()) {
      HWPreference::preferenceForKey("EKEventStoreBackend")->setStringValue("evolution");
    } else {
      ::setenv("XDG_DATA_HOME", (dataFolder() / "").c_str(), 1);
    }
  }

  static const testing::TemporaryFolder& dataFolder() {
    static const testing::TemporaryFolder folder;
    return folder;
  }

  std::shared_ptr<KBTLocalCalendar> open() {
    auto local = KBTLocalCalendar::initWithCalendarIdentifier(in_.calendar->calendarIdentifier());
    local->setDelegate(host_);
    return local;
  }

  Event newEvent(const char* title, const char* rule = nullptr) {
    Event event = in_.newEvent(title, utc("20240105T090000Z"), utc("20240105T100000Z"));
    if (rule) event->setRecurrenceRule(rule);
    EXPECT_EQ(in_.save(event), nullptr);
    return event;
  }
  Event only(const std::string& identifier) {
    const auto items = in_.store->calendarItemsWithExternalIdentifier(identifier);
    return items.size() == 1 ? items.front() : nullptr;
  }
  std::vector<std::string> fetch() {
    local_->fetchExternalChanges();
    return host_->take();
  }
  std::vector<std::string> save() {
    local_->saveChanges();
    return host_->take();
  }
  static std::string version(const EKEvent& event) {
    return KBTCalObject::datetimeAsZuluString(event.lastModifiedDate().value());
  }

  const EventHost in_{KBTLocalCalendar::eventStore()};
  std::shared_ptr<Host> host_ = std::make_shared<Host>();
  std::shared_ptr<KBTLocalCalendar> local_ = open();
};

TEST_F(LocalCalendar, StandsForACalendarOfTheStore) {
  EXPECT_EQ(KBTLocalCalendar::initWithCalendarIdentifier("nobody"), nullptr);
  EXPECT_EQ(local_->calendarName(), "test");
  EXPECT_EQ(local_->calendarIdentifier(), in_.calendar->calendarIdentifier());
  EXPECT_TRUE(local_->isEqualToCalendar(*open()));
  const EventHost other(in_.store);
  EXPECT_FALSE(local_->isEqualToCalendar(
      *KBTLocalCalendar::initWithCalendarIdentifier(other.calendar->calendarIdentifier())));
  EXPECT_FALSE(local_->isEqualToCalendar(*KBTSynchingCalendar::init()));
  local_->checkForExternalChanges();
  EXPECT_THAT(host_->take(), ElementsAre("checked none"));
}

TEST_F(LocalCalendar, FetchesWhatTheStoreHas) {
  const auto outside = newEvent("Outside the delegate's dates");
  outside->setStartDate(utc("20240301T000000Z"));
  outside->setEndDate(utc("20240301T000000Z"));
  ASSERT_EQ(in_.save(outside), nullptr);
  const auto event = newEvent("Tea");
  const std::string identifier = event->calendarItemExternalIdentifier();
  const std::string known = identifier + " " + version(*only(identifier));
  EXPECT_THAT(fetch(), ElementsAre("began", "new " + known, "fetched"));
  EXPECT_THAT(fetch(), ElementsAre("began", "fetched"));
  host_->objects[identifier]->version = "old";
  EXPECT_THAT(fetch(), ElementsAre("began", "update " + known, "fetched"));
  ASSERT_EQ(in_.remove(event), nullptr);
  EXPECT_THAT(fetch(), ElementsAre("began", "gone " + identifier, "fetched"));
  EXPECT_THAT(fetch(), ElementsAre("began", "fetched"));
}

// Each is known by a name that no event has.
TEST_F(LocalCalendar, OccurrencesAreReportedAndDeletedInTheSameFetch) {
  const auto series = newEvent("Daily", "FREQ=DAILY;COUNT=2");
  const std::string identifier = series->calendarItemExternalIdentifier();
  const auto moved = in_.events().back();
  moved->setStartDate(utc("20240107T090000Z"));
  moved->setEndDate(utc("20240107T090000Z"));
  ASSERT_EQ(in_.save(moved), nullptr);
  const std::string first = identifier + ":2024-01-05 09:00:00 +0000";
  const std::string second = identifier + ":2024-01-06 09:00:00 +0000";
  std::vector<std::string> reported = {"began",
                                       "new " + first + " " + version(*in_.events().front()),
                                       "new " + second + " " + version(*in_.events().back())};
  auto deleted = reported;
  deleted.insert(deleted.end(), {"gone " + first, "gone " + second, "fetched"});
  EXPECT_EQ(fetch(), deleted);
  EXPECT_EQ(fetch(), deleted);
  host_->declined = {first, second};
  reported.emplace_back("fetched");
  EXPECT_EQ(fetch(), reported);
}

TEST_F(LocalCalendar, SavesOnce) {
  const auto changed = newEvent("Tea");
  changed->setAlarms({{-600}});
  ASSERT_EQ(in_.save(changed), nullptr);
  const auto gone = newEvent("Gone");
  const EventHost elsewhere(in_.store);
  const auto another = elsewhere.newEvent("Elsewhere", january, january);
  ASSERT_EQ(elsewhere.save(another), nullptr);
  const std::string stranger = another->calendarItemExternalIdentifier();
  host_->fill = [](KBTMutableCalObject& writer) {
    filling("20240107T090000Z", "20240107T100000Z", "Coffee")(writer);
    writer.appendKey_stringValue("DESCRIPTION", "Hot; black");
  };
  const std::string known = changed->calendarItemExternalIdentifier();
  const std::string both = gone->calendarItemExternalIdentifier();
  local_->setObjects({Item::make(known), Item::make(stranger), Item::make(both)});
  for (const std::string& name : {known, stranger, both}) local_->updateObject(Item::make(name));
  local_->insertObject(Item::make("new"));
  local_->deleteObject(Item::make(both));  // after it has been written
  local_->deleteObject(Item::make("nobody"));
  bool wasSaving = false;
  host_->onCallback = [&](const std::string& line) {
    if (line.starts_with("named")) wasSaving = KBTLocalCalendar::isSavingAnyCalendar();
  };
  const auto log = save();
  ASSERT_THAT(log, ElementsAre(MatchesRegex("named new .+"), "saved"));
  EXPECT_TRUE(wasSaving);
  EXPECT_FALSE(KBTLocalCalendar::isSavingAnyCalendar());
  EXPECT_FALSE(local_->hasPendingChanges());

  const std::string added = log.front().substr(sizeof("named new ") - 1);
  for (const std::string& identifier : {known, added}) {
    const auto event = only(identifier);
    ASSERT_NE(event, nullptr) << identifier;
    EXPECT_EQ(event->notes(), "Hot; black");
    EXPECT_FALSE(event->isAllDay());
    EXPECT_THAT(event->alarms(), IsEmpty());
  }
  EXPECT_EQ(in_.listing(), "0107T0900-1000 Coffee, 0107T0900-1000 Coffee");
  EXPECT_EQ(elsewhere.listing(), "0107T0900-1000 Coffee");

  // From now on it drops every change. It still fetches, and knows the new object by its old name.
  EXPECT_TRUE(local_->isSaving());
  local_->insertObject(Item::make("late"));
  EXPECT_FALSE(local_->hasPendingChanges());
  const auto fetched = fetch();
  EXPECT_THAT(fetched, ::testing::Contains("new " + added + " " + version(*only(added))));
  EXPECT_THAT(fetched, ::testing::Contains("gone new"));
}

TEST_F(LocalCalendar, WritesAllDayEventsAndClearsWhatIsNotGiven) {
  const auto known = newEvent("Tea");
  known->setNotes("Hot");
  ASSERT_EQ(in_.save(known), nullptr);
  const std::string name = known->calendarItemExternalIdentifier();
  host_->fill = [](KBTMutableCalObject& writer) {
    writer.appendKey_dateValue("DTSTART", NSDate::initWithICSDateOnlyString("20240105").value());
    writer.appendKey_dateValue("DTEND", NSDate::initWithICSDateOnlyString("20240106").value());
  };
  local_->setObjects({Item::make(name)});
  local_->updateObject(Item::make(name));
  local_->insertObject(Item::make("holiday"));
  const auto log = save();
  for (const auto& event : {only(log.front().substr(sizeof("named holiday ") - 1)), only(name)}) {
    ASSERT_NE(event, nullptr);
    EXPECT_TRUE(event->isAllDay());
    EXPECT_EQ(event->startDate(), NSDate::initWithICSDateOnlyString("20240105"));
    EXPECT_EQ(event->title(), std::nullopt);
    EXPECT_EQ(event->notes(), std::nullopt);
  }
}

TEST_F(LocalCalendar, WhatCannotBeWrittenIsToldAndTheRestIsSaved) {
  int asked = 0;
  host_->fill = [&](KBTMutableCalObject& writer) {
    if (++asked > 1) filling("20240107T090000Z", "20240107T100000Z")(writer);
  };
  local_->insertObject(Item::make("a"));
  local_->insertObject(Item::make("b"));
  local_->updateObject(Item::make("stranger"));  // nothing is known to write
  EXPECT_THAT(save(),
              ElementsAre(MatchesRegex("named a .+"), "failed a EKErrorDomain 2",
                          MatchesRegex("named b .+"), "failed document EKErrorDomain 2", "saved"));
}

TEST_F(LocalCalendar, WritesAWholeSeriesButRemovesOneOccurrence) {
  const std::string name =
      newEvent("Daily", "FREQ=DAILY;COUNT=3")->calendarItemExternalIdentifier();
  host_->fill = filling("20240105T090000Z", "20240105T100000Z", "Changed");
  local_->setObjects({Item::make(name)});
  local_->updateObject(Item::make(name));
  EXPECT_THAT(save(), ElementsAre("saved"));
  EXPECT_EQ(in_.listing(),
            "0105T0900-1000 Changed, 0106T0900-1000 Changed, 0107T0900-1000 Changed");
  local_ = open();
  local_->deleteObject(Item::make(name));
  EXPECT_THAT(save(), ElementsAre("saved"));
  EXPECT_EQ(in_.listing(), "0106T0900-1000 Changed, 0107T0900-1000 Changed");
}

TEST_F(LocalCalendar, CallbacksMayChangeTheObjects) {
  const auto event = newEvent("Tea");
  const std::string name = event->calendarItemExternalIdentifier();
  const std::string reported = "new " + name + " " + version(*only(name));
  local_->setObjects({Item::make("a"), Item::make("b")});
  host_->onCallback = [&](const std::string& line) {
    if (line != reported) return;
    local_->setObjects({});
    local_->insertObject(Item::make("mine"));
  };
  EXPECT_THAT(fetch(), ElementsAre("began", reported, "fetched"));
  EXPECT_THAT(fetch(), ElementsAre("began", "gone mine", "fetched"));
}

TEST_F(LocalCalendar, TheLastReferenceMayGoInACallback) {
  for (const auto operation :
       {&KBTLocalCalendar::fetchExternalChanges, &KBTLocalCalendar::saveChanges}) {
    auto last = open();
    last->insertObject(Item::make("a"));
    EXPECT_TRUE(testing::outlivesItsLastReference(*host_, std::move(last), operation));
  }
}

TEST_F(LocalCalendar, ADelegateThatThrowsEndsTheSaveOfTheProcess) {
  host_->fill = [](KBTMutableCalObject&) { throw std::runtime_error("no data"); };
  local_->insertObject(Item::make("a"));
  EXPECT_THROW(local_->saveChanges(), std::runtime_error);
  EXPECT_FALSE(KBTLocalCalendar::isSavingAnyCalendar());
  EXPECT_TRUE(local_->isSaving());
}

TEST_F(LocalCalendar, TheListOfCalendarsIsObserved) {
  EXPECT_THAT(KBTLocalCalendar::localCalendars(), Not(IsEmpty()));
  const auto another = EKCalendar::calendar();
  bool isListed = false;
  const auto observation = KBTLocalCalendar::observeKey_changeHandler("localCalendars", [&] {
    for (const auto& known : KBTLocalCalendar::localCalendars()) {
      isListed = isListed || known->calendarIdentifier() == another->calendarIdentifier();
    }
  });
  ASSERT_TRUE(in_.store->saveCalendar_commit_error(another, true, nullptr));
  EXPECT_FALSE(isListed);
  EXPECT_TRUE(runUntil([&] { return isListed; }));
}

TEST_F(LocalCalendar, FoldersOfContainersAreAnnouncedOnceMore) {
  const char* const container = "/Users/u/Library/Containers/app/Data/Containers/Calendars";
  const NSNotificationUserInfo contained = {{"CalCalendarsDirectoryKey", container}, {"more", 5}};
  const NSNotificationUserInfo repaired = {
      {"CalCalendarsDirectoryKey", "/Users/u/Library/Calendars"}, {"more", 5}};
  auto& center = NSDistributedNotificationCenter::defaultCenter();
  for (const char* const name :
       {"com.apple.CalendarStore.CalDistributedEventsChangedNotification",
        "com.apple.CalendarStore.CalDistributedTasksChangedNotification",
        "com.apple.CalendarStore.CalDistributedCalendarStoreChangedNotification", "another"}) {
    std::vector<NSNotificationUserInfo> heard;
    const auto observation = center.addObserverForName_object_usingBlock(
        name, "sender", [&](const NSDistributedNotification& notification) {
          heard.push_back(notification.userInfo);
        });
    std::vector<NSNotificationUserInfo> expected = {
        repaired, {{"CalCalendarsDirectoryKey", "/Users/u/Containers"}}, {}, contained};
    for (const auto& userInfo : expected) {
      center.postNotificationName_object_userInfo(name, "sender", userInfo);
    }
    if (name != std::string("another")) expected.push_back(repaired);
    EXPECT_TRUE(runUntil([&] { return heard.size() >= expected.size(); }));
    runTheMainQueue();
    EXPECT_EQ(heard, expected) << name;
  }
}

TEST_F(LocalCalendar, ReadersShowEightLines) {
  const auto event = newEvent("Tea");
  event->setNotes("Hot");
  const auto reader = KBTCalEventCalObject::initWithEKEvent(event);
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(reader->isAtEnd());
    std::vector<std::string> lines;
    while (reader->nextLine()) {
      EXPECT_FALSE(reader->isAtEnd());
      bool isFullDay = true;
      const auto date = reader->valueAsDateIsFullDay(&isFullDay);
      lines.push_back(std::string(*reader->key()) + ":" +
                      std::string(reader->value().value_or("(null)")) +
                      (date ? " " + date->icsDateString() : "") + (isFullDay ? " -" : ""));
    }
    EXPECT_FALSE(reader->nextLine());
    EXPECT_EQ(reader->key(), std::nullopt);
    EXPECT_EQ(reader->value(), std::nullopt);
    const std::string stamp = version(*event) + " " + version(*event);
    EXPECT_THAT(lines, ElementsAre("BEGIN:VEVENT -", "DTSTART:20240105T090000Z 20240105T090000Z",
                                   "DTEND:20240105T100000Z 20240105T100000Z", "DTSTAMP:" + stamp,
                                   "UID:" + in_.calendar->calendarIdentifier() + " -",
                                   "SUMMARY:Tea -", "DESCRIPTION:Hot -", "END:VEVENT -"));
    reader->reset();
  }
  EXPECT_EQ(reader->icsData().length(), 0U);
  event->setAllDay(true);  // readers show the event as it is now
  event->setNotes(std::nullopt);
  std::string flags;
  while (reader->nextLine()) {
    bool isFullDay = reader->key() == "DTSTAMP";
    reader->valueAsDateIsFullDay(&isFullDay);
    flags += isFullDay ? 'x' : '-';
    EXPECT_TRUE(reader->key() != "DESCRIPTION" || reader->value() == "");
  }
  EXPECT_EQ(flags, "-xx-----");
}

// What only the database can be made to do.
class LocalCalendarInDatabase : public LocalCalendar {
 protected:
  static void run(const std::string& sql) {
    EXPECT_EQ(testing::query(dataFolder() / "quillmere/events.sqlite", sql), "");
  }
};

TEST_F(LocalCalendarInDatabase, ChangesNoticedInASaveAreNotLookedAtLater) {
  runTheMainQueue();  // the notice of this test's calendar
  const std::size_t before = KBTLocalCalendar::localCalendars().size();
  const ChangeCount notices(in_.store);
  int announced = 0;
  const auto observation =
      KBTLocalCalendar::observeKey_changeHandler("localCalendars", [&] { ++announced; });
  host_->onCallback = [&](const std::string& line) {
    if (line != "saved") return;
    const EventHost another(in_.store);
    EXPECT_TRUE(runUntil([&] { return notices.count == 1; }));
    runTheMainQueue();
  };
  EXPECT_THAT(save(), ElementsAre("saved"));
  runTheMainQueue();
  EXPECT_EQ(announced, 0);
  EXPECT_EQ(KBTLocalCalendar::localCalendars().size(), before);
  // The next change brings both.
  newEvent("Tea");
  EXPECT_TRUE(runUntil([&] { return announced == 1; }));
  EXPECT_EQ(KBTLocalCalendar::localCalendars().size(), before + 1);
}

TEST_F(LocalCalendarInDatabase, ANameOfSeveralEventsIsNone) {
  const std::string name = newEvent("Tea")->calendarItemExternalIdentifier();
  const EventHost another(in_.store);
  ASSERT_EQ(another.save(another.newEvent("Other", january, january)), nullptr);
  run("UPDATE events SET identifier = '" + name + "' WHERE title = 'Other'");
  const auto items = [&] { return in_.store->calendarItemsWithExternalIdentifier(name); };
  ASSERT_THAT(items(), SizeIs(2));
  host_->fill = filling("20240107T090000Z", "20240107T100000Z", "Written");
  local_->setObjects({Item::make(name)});
  local_->updateObject(Item::make(name));
  local_->deleteObject(Item::make(name));
  EXPECT_THAT(save(), ElementsAre(MatchesRegex("named " + name + " .+"), "saved"));
  EXPECT_THAT(items(), SizeIs(2));
  EXPECT_EQ(in_.listing(), "0105T0900-1000 Tea, 0107T0900-1000 Written");
}

TEST_F(LocalCalendarInDatabase, FailuresOfTheStoreAreToldOfTheObject) {
  const std::string name = newEvent("Tea")->calendarItemExternalIdentifier();
  const std::string failed = "failed " + name + " EKErrorDomain 5";
  fetch();
  const auto known = host_->objects[name];
  host_->fill = filling("20240108T110000Z", "20240108T120000Z");

  // Over that start the number has no absolute value; and what is referred to cannot go. Then nothing
  // can be read.
  const std::pair<std::string, const char*> breaks[] = {
      {"CREATE INDEX refusal"
       " ON events(abs(iif(start = 1704711600000000, -9223372036854775807 - 1, 0)));"
       "CREATE TABLE reference(event REFERENCES events(id));"
       "INSERT INTO reference SELECT id FROM events WHERE identifier = '" +
           name + "'",
       "DROP INDEX refusal; DROP TABLE reference"},
      {"ALTER TABLE events RENAME TO hidden", ""}};
  for (const auto& [sql, mending] : breaks) {
    run(sql);
    for (const bool isDeletion : {false, true}) {
      local_ = open();
      local_->setObjects({known});
      isDeletion ? local_->deleteObject(known) : local_->updateObject(known);
      EXPECT_THAT(save(), ElementsAre(failed, "saved")) << sql << isDeletion;
    }
    run(mending);
  }
  local_ = open();
  local_->setObjects({known});
  EXPECT_THAT(fetch(), ElementsAre("began", "fetched"));
  run("ALTER TABLE hidden RENAME TO events");
  EXPECT_THAT(fetch(), ElementsAre("began", "fetched"));  // what was not read is not gone
  EXPECT_EQ(in_.listing(), "0105T0900-1000 Tea");
}

// In a process of its own, since a process asks for access once.
TEST(LocalCalendarWithoutAccess, HasNoCalendars) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto isRefused = [] {
    const testing::TemporaryFolder folder;
    ::setenv("XDG_DATA_HOME", (folder / "").c_str(), 1);
    const auto calendar = EKCalendar::calendar();
    EKEventStore::init()->saveCalendar_commit_error(calendar, true, nullptr);
    HWPreference::preferenceForKey("EKEventStoreAccess")->setStringValue("denied");
    // Both answers come on the main queue, which is run until they are there.
    bool isRun = false;
    NSOperationQueue::mainQueue().addOperationWithBlock([&] { isRun = true; });
    KBTLocalCalendar::eventStore();
    return isRun && KBTLocalCalendar::localCalendars().empty() &&
           !KBTLocalCalendar::initWithCalendarIdentifier(calendar->calendarIdentifier());
  };
  EXPECT_EXIT(::_exit(isRefused() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace quillmere
