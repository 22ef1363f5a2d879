#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/calendars/KBTDavCalendar.h>
#include <quillmere/platform/base/makeObject.h>

#include "tests/support/CalDavAnswers.h"
#include "tests/support/CollectionHost.h"
#include "tests/support/PrincipalHost.h"
#include "tests/support/RecordingDelegate.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/SessionHost.h"

namespace quillmere {
namespace {

using testing::anyBody;
using ::testing::ElementsAre;
using testing::ExpectedRequest;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::Item;
using testing::multistatus;
using testing::RecordingDelegate;
using testing::resource;
using testing::runUntil;
using testing::ScriptedServer;
using testing::tag;

const ExpectedRequest tagRequest{.method = "PROPFIND", .path = "/c/", .body = anyBody};
const ExpectedRequest report{.method = "REPORT", .path = "/c/", .body = anyBody};

class Host : public RecordingDelegate {
 public:
  std::optional<NSDate> earliest, latest;
  std::optional<NSDate> synchingCalendarEarliestDate(KBTSynchingCalendar&) override {
    return earliest;
  }
  std::optional<NSDate> synchingCalendarLatestDate(KBTSynchingCalendar&) override { return latest; }
};

struct Fixture {
  ScriptedServer server;
  std::shared_ptr<Host> host = std::make_shared<Host>();
  std::shared_ptr<KBTDavPrincipal> principal;
  std::shared_ptr<KBTDavCalendar> calendar = open("/c/");

  Fixture() { calendar->setDelegate(host); }
  ~Fixture() {
    if (principal) principal->invalidate();
  }
  Fixture(const Fixture&) = delete;
  Fixture& operator=(const Fixture&) = delete;

  std::shared_ptr<KBTDavCalendar> open(const char* path) {
    const NSURL url = NSURL::URLWithString(server.url(path)).value();
    if (!principal) {
      principal = KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
          nullptr, std::nullopt, std::nullopt, url);
    }
    return KBTDavCalendar::initWithDavConnection(
        KBTDavConnection::initWithCalendarName_description_URL_forPrincipal("Work", std::nullopt,
                                                                            url, principal));
  }

  // The lines until one begins with `last`.
  std::vector<std::string> logUntil(const std::string& last) {
    runUntil([&] { return !host->log.empty() && host->log.back().starts_with(last); });
    return host->take();
  }
  std::vector<std::string> fetch() {
    calendar->fetchExternalChanges();
    return logUntil("fetched");
  }
  std::vector<std::string> save() {
    calendar->saveChanges();
    return logUntil("saved");
  }
  void runTurns() {
    runUntil([turns = 0]() mutable { return ++turns > 5; });
  }
};

TEST(KBTDavCalendar, StandsForItsCollection) {
  Fixture f;
  EXPECT_EQ(KBTDavCalendar::initWithDavConnection(nullptr), nullptr);
  EXPECT_EQ(f.calendar->calendarName(), "Work");
  EXPECT_TRUE(f.calendar->isEqualToCalendar(*f.open("/c/")));
  EXPECT_FALSE(f.calendar->isEqualToCalendar(*f.open("/d/")));
  EXPECT_FALSE(f.calendar->isEqualToCalendar(*KBTSynchingCalendar::init()));
}

TEST(KBTDavCalendar, DoesNotFetchNorCheckDuringACheck) {
  Fixture f;
  f.calendar->setCachingString("1");
  f.server.expect(tagRequest, tag("2"));
  f.calendar->checkForExternalChanges();
  f.calendar->checkForExternalChanges();
  f.calendar->fetchExternalChanges();
  EXPECT_THAT(f.logUntil("checked"), ElementsAre("checked changes"));
  f.runTurns();
  EXPECT_EQ(f.server.requests().size(), 1U);
}

TEST(KBTDavCalendarDeathTest, AFailedOrCancelledCheckStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto check = [](const char* address, bool cancels) {
    const NSURL url = NSURL::URLWithString(address).value();
    const auto principal = KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
        nullptr, std::nullopt, std::nullopt, url);
    const auto calendar = KBTDavCalendar::initWithDavConnection(
        KBTDavConnection::initWithCalendarName_description_URL_forPrincipal("Work", std::nullopt,
                                                                            url, principal));
    calendar->setCachingString("1");
    calendar->checkForExternalChanges();
    if (cancels) calendar->cancel();
    runUntil([&] { return !calendar->isChecking(); });
  };
  EXPECT_DEATH(check("http://127.0.0.1:1/", false), "KBTDavCalendar:217: not yet ported");
  EXPECT_DEATH(check("http://127.0.0.1:1/", true), "KBTDavCalendar:217: not yet ported");
}

TEST(KBTDavCalendar, FetchesWhatDiffers) {
  Fixture f;
  f.calendar->setObjects({Item::make("same", "\"1\""), Item::make("b@c", "\"1\""),
                          Item::make("gone", "\"1\""), Item::make("also gone", "")});
  f.server.expect(tagRequest, tag("1"));
  f.server.expect(report,
                  multistatus(resource("/c/same.ics", "\"1\"") + resource("/c/b%40c.ics", "\"2\"") +
                              resource("/c/new.ics", "\"1\"") + resource("/c/no.ics", "\"1\"")));
  f.server.expect(report, multistatus(resource("/c/new.ics", "\"3\"", "BEGIN:VEVENT\nX:1\n") +
                                      resource("/c/b%40c.ics", "\"4\"", "BEGIN:VEVENT\nX:2\n") +
                                      resource("/c/no.ics", "\"1\"")));
  f.host->declined = {"no"};
  EXPECT_THAT(f.fetch(), ElementsAre("began", "gone gone", "gone also gone", "update b@c \"4\"",
                                     "new new \"3\"", "new no \"1\"", "fetched"));
  EXPECT_THAT(f.host->readers, ElementsAre("BEGIN:VEVENT\nX:2\n", "BEGIN:VEVENT\nX:1\n", ""));
}

TEST(KBTDavCalendar, ListsWhatItIsAskedFor) {
  const NSDate from = NSDate::initWithICSDateString("20240101T000000Z").value();
  const NSDate to = NSDate::initWithICSDateString("20240201T000000Z").value();
  const char* const range = "<time-range start=\"20240101T000000Z\" end=\"20240201T000000Z\"/>";
  for (const bool toDos : {false, true}) {
    for (const bool isRanged : {false, true}) {
      Fixture f;
      if (isRanged) f.host->earliest = from;
      f.host->latest = to;
      EXPECT_FALSE(f.calendar->getToDos());
      f.calendar->setGetToDos(toDos);
      f.server.expect(tagRequest, multistatus(""));  // not even a tag is none that is known
      f.server.expect(report, multistatus(""));
      EXPECT_THAT(f.fetch(), ElementsAre("began", "fetched"));
      const std::string body = f.server.requests().back().body;
      EXPECT_THAT(body, HasSubstr(toDos ? "\"VTODO\"" : "\"VEVENT\""));
      EXPECT_EQ(body.find(range) != std::string::npos, isRanged);
      EXPECT_EQ(body.find("calendar-data"), std::string::npos);
    }
  }
}

TEST(KBTDavCalendar, CancellingCompletesWhatIsInFlight) {
  Fixture f;
  for (const char* name : {"a", "b"}) f.calendar->insertObject(Item::make(name, "", "I"));
  f.calendar->fetchExternalChanges();
  f.calendar->saveChanges();
  f.calendar->cancel();
  EXPECT_THAT(f.logUntil("saved"),
              ElementsAre("fetched NSURLErrorDomain -999", "failed a NSURLErrorDomain -999",
                          "failed b NSURLErrorDomain -999", "saved"));
  EXPECT_FALSE(f.calendar->isChecking());
  EXPECT_TRUE(f.calendar->hasPendingChanges());
  EXPECT_THAT(f.server.finish(), IsEmpty());
}

TEST(KBTDavCalendar, WhatItDidNotAskForIsRecordedOrIgnored) {
  Fixture f;
  ::testing::internal::CaptureStderr();
  // A name is never taken for a request of the calendar's own.
  f.calendar->calDavConnection_requestDidFail_context(*f.calendar->connection(),
                                                      NSError::errorWithPOSIXCode(5),
                                                      std::string("KBTDavCalendar_CheckCTag"));
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("NOTREACHED"));
  f.calendar->calDavConnection_didReceiveCTag_context(*f.calendar->connection(), "5", {});
  f.calendar->calDavConnection_didReceiveEventsWithETags_andContents_context(
      *f.calendar->connection(), {{"/c/a.ics", "1"}}, {}, 17);
  EXPECT_THAT(f.host->take(), IsEmpty());
  EXPECT_EQ(f.calendar->cachingString(), std::nullopt);
}

// Failures count from save to save until one completes.
TEST(KBTDavCalendar, FailuresOfASaveThatWasStartedAgainAddUp) {
  Fixture f;
  f.calendar->insertObject(Item::make("a", "", "A"));
  f.calendar->insertObject(Item::make("b", "", "B"));
  const ExpectedRequest a{.method = "PUT", .path = "/c/a.ics", .body = "A"};
  const ExpectedRequest b{.method = "PUT", .path = "/c/b.ics", .body = "B"};
  bool isAgain = false;
  f.host->onCallback = [&](const std::string& line) {
    if (line.starts_with("inserted") && !std::exchange(isAgain, true)) f.calendar->saveChanges();
  };
  f.server.expect(a, {.status = 403});
  f.server.expect(b, {.fields = {{"ETag", "1"}}});
  f.server.expect(a, {.status = 403, .held = true});
  EXPECT_THAT(f.save(), ElementsAre("failed a KBTDavConnection 403", "inserted b 1", "saved"));
  f.server.expect(b, {.fields = {{"ETag", "2"}}});
  f.server.release();
  f.runTurns();
}

// A host may go on from the callback that ends an operation, and sees there what is still pending.
TEST(KBTDavCalendar, CallbacksSeeTheStateThatHoldsThen) {
  Fixture f;
  const auto item = Item::make("a", "", "A");
  f.calendar->insertObject(item);
  int fetches = 0, saves = 0;
  f.host->onCallback = [&](const std::string& line) {
    if (line == "began") {
      f.calendar->setObjects({Item::make("first", "1"), Item::make("second", "1")});
    } else if (line == "fetched") {
      EXPECT_FALSE(f.calendar->isChecking());
      if (++fetches == 1) f.calendar->fetchExternalChanges();
      if (fetches == 2) f.calendar->checkForExternalChanges();
    } else if (line == "gone first") {
      f.calendar->setObjects({item});  // so that there is no second to go
    } else if (line.starts_with("checked")) {
      EXPECT_FALSE(f.calendar->isChecking());
      f.calendar->saveChanges();
    } else if (line == "saved") {
      EXPECT_FALSE(f.calendar->isSaving());
      ++saves;
      if (saves == 1) f.calendar->updateObject(item);
      if (saves == 2) f.calendar->deleteObject(item);
      if (saves < 4) f.calendar->saveChanges();
    } else if (!line.starts_with("name")) {
      EXPECT_TRUE(f.calendar->isSaving()) << line;
      EXPECT_TRUE(f.calendar->hasPendingChanges()) << line;
    }
  };
  const ExpectedRequest put{.method = "PUT", .path = "/c/a.ics", .body = "A"};
  const ExpectedRequest remove{.method = "DELETE", .path = "/c/a.ics"};
  f.server.expect(tagRequest, tag("1"));
  f.server.expect(report, multistatus(""));
  for (int i = 0; i < 2; ++i) f.server.expect(tagRequest, tag("1"));
  for (const ExpectedRequest& write : {put, put, remove}) {
    if (write.method == "DELETE") f.server.expect(write, {.status = 403});
    f.server.expect(write, {.fields = {{"ETag", "1"}}});
    f.server.expect(tagRequest, tag("2"));
  }
  f.calendar->fetchExternalChanges();
  EXPECT_TRUE(runUntil([&] { return saves == 4; }));
  EXPECT_THAT(f.host->take(),
              ElementsAre("began", "gone first", "fetched", "fetched", "checked none",
                          "inserted a 1", "saved", "updated a 1", "saved",
                          "failed a KBTDavConnection 403", "saved", "deleted a", "saved"));
}

// With nothing pending its first answer ends the save.
TEST(KBTDavCalendar, AResetDuringASaveEndsIt) {
  Fixture f;
  for (const auto& [name, status] : {std::pair("a", 403U), {"b", 201U}, {"c", 403U}}) {
    f.calendar->insertObject(Item::make(name, "", "I"));
    f.server.expect({.method = "PUT", .path = "/c/" + std::string(name) + ".ics", .body = "I"},
                    {.status = status, .fields = {{"ETag", "1"}}});
  }
  f.calendar->saveChanges();
  f.host->onCallback = [&](const std::string&) { f.calendar->resetChanges(); };
  runUntil([&] { return f.server.requests().size() == 3; });
  f.runTurns();
  EXPECT_THAT(f.host->take(),
              ElementsAre("failed a KBTDavConnection 403", "saved", "inserted b 1"));
}

// What it reports is lost, and what it has to save it does not know. Servers refuse empty resources.
TEST(KBTDavCalendar, WithoutItsHostItKeepsWhatIsPending) {
  Fixture f;
  const auto known = Item::make("known", "\"1\"", "K");
  f.calendar->setObjects({known, Item::make("gone", "\"1\"")});
  f.calendar->updateObject(known);
  f.calendar->setDelegate({});
  f.server.expect(tagRequest, tag("1"));
  const std::string both = resource("/c/known.ics", "\"1\"") + resource("/c/new.ics", "\"1\"");
  for (int i = 0; i < 2; ++i) f.server.expect(report, multistatus(both));
  f.server.expect({.method = "PUT", .path = "/c/known.ics", .body = ""}, {.status = 415});
  f.calendar->fetchExternalChanges();
  EXPECT_TRUE(runUntil([&] { return !f.calendar->isChecking(); }));
  EXPECT_THAT(f.server.requests().back().body, HasSubstr("/c/known.ics"));  // has no version
  f.calendar->saveChanges();
  EXPECT_TRUE(runUntil([&] { return !f.calendar->isSaving(); }));
  EXPECT_TRUE(f.calendar->hasPendingChanges());
}

// One that is not the collection's delegate is no longer than its host keeps it.
TEST(KBTDavCalendar, CancelsWhatIsInFlightWhenItGoes) {
  struct Subclass : KBTDavCalendar {
    using KBTDavCalendar::KBTDavCalendar;
  };
  Fixture f;
  const auto connection = f.calendar->connection();
  auto calendar = makeObject<Subclass>(connection);
  const auto listener = std::make_shared<testing::CollectionHost>();
  connection->setDelegate(listener);
  calendar->fetchExternalChanges();
  calendar.reset();
  f.runTurns();
  EXPECT_THAT(listener->events, IsEmpty());
  EXPECT_THAT(f.server.requests(), IsEmpty());
}

// In each callback in turn the host ends the account and lets go of everything.
TEST(KBTDavCalendar, AHostMayEndEverythingInAnyCallback) {
  const auto play = [](ScriptedServer& server) {
    server.expect(tagRequest, tag("1"));
    server.expect(report,
                  multistatus(resource("/c/a.ics", "\"2\"") + resource("/c/n.ics", "\"1\"")));
    server.expect(report, multistatus(resource("/c/a.ics", "\"2\"", "A") +
                                      resource("/c/n.ics", "\"1\"", "N")));
    server.expect({.method = "PUT", .path = "/c/i.ics", .body = "I"}, {.fields = {{"ETag", "1"}}});
    server.expect({.method = "DELETE", .path = "/c/g.ics"}, {.status = 500});
  };
  for (int end = 0;; ++end) {
    Fixture f;
    play(f.server);
    f.calendar->setObjects({Item::make("a", "\"1\""), Item::make("g", "\"1\"")});
    f.calendar->deleteObject(Item::make("g"));
    f.calendar->insertObject(Item::make("i", "", "I"));
    int callbacks = 0;
    bool isSaved = false;
    f.host->onCallback = [&](const std::string& line) {
      if (line == "fetched" && f.calendar) f.calendar->saveChanges();
      isSaved = isSaved || line == "saved";
      if (callbacks++ != end) return;
      f.calendar = nullptr;
      f.principal->invalidate();
      f.principal = nullptr;
      f.host = nullptr;  // whose callback is running: the caller holds it
    };
    f.calendar->fetchExternalChanges();
    runUntil([&] { return isSaved || !f.host; });
    f.runTurns();
    f.server.finish();
    if (f.host) {
      EXPECT_GE(end, 10);
      break;
    }
  }
}

}  // namespace
}  // namespace quillmere
