#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/calendars/KBTURLCalendar.h>
#include <quillmere/platform/net/NSURLCredential.h>

#include "tests/support/RawServer.h"
#include "tests/support/RecordingDelegate.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/SessionHost.h"

namespace quillmere {
namespace {

using testing::Answer;
using testing::AuthScheme;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using testing::ExpectedRequest;
using testing::HeaderField;
using ::testing::IsEmpty;
using testing::Item;
using testing::RawServer;
using testing::RecordingDelegate;
using testing::runUntil;
using testing::ScriptedServer;
namespace raw = testing::raw;

const HeaderField type{"Content-Type", "text/xml"};

const char* const document =
    "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:a\r\nDTSTAMP:20240102T000000Z\r\nEND:VEVENT\r\n"
    "BEGIN:VTODO\r\nUID:b\r\nDTSTAMP:20240101T000000Z\r\nEND:VTODO\r\nEND:VCALENDAR\r\n";

ExpectedRequest request(const char* method, std::optional<HeaderField> condition = {},
                        const std::optional<std::string>& body = "") {
  ExpectedRequest expected{.method = method, .path = "/a.ics", .fields = {type}, .body = body};
  if (condition) expected.fields.push_back(*condition);
  expected.noOtherFields = true;
  return expected;
}

Answer answer(unsigned status, const char* tag = nullptr, const std::string& body = "") {
  Answer given{.status = status, .body = body};
  if (tag) given.fields.push_back({"ETag", tag});
  return given;
}

// Answers challenges with alice's credential, once.
class AskedHost : public RecordingDelegate {
 public:
  std::vector<std::string> asked;
  void synchingCalendar_didReceiveChallenge_completionHandler(
      KBTSynchingCalendar&, const std::shared_ptr<NSURLAuthenticationChallenge>& challenge,
      const NSURLSessionChallengeCompletionHandler& completionHandler) override {
    const auto failures = challenge->previousFailureCount();
    asked.push_back(challenge->protectionSpace().authenticationMethod() + " " +
                    std::to_string(failures) + " " +
                    std::to_string(challenge->failureResponse()->statusCode()));
    completionHandler(NSURLSessionAuthChallengeUseCredential,
                      failures ? nullptr
                               : NSURLCredential::credentialWithUser_password_persistence(
                                     "alice", "secret", NSURLCredentialPersistenceNone));
  }
};

std::shared_ptr<KBTURLCalendar> calendarAt(const std::string& url) {
  return KBTURLCalendar::initWithURL(NSURL::URLWithString(url).value());
}

struct Fixture {
  ScriptedServer server;
  std::shared_ptr<AskedHost> host = std::make_shared<AskedHost>();
  std::shared_ptr<KBTURLCalendar> calendar = calendarAt(server.url("/a.ics"));

  Fixture() { calendar->setDelegate(host); }

  // What is heard until no task is left, or none that will end.
  std::vector<std::string> outcome() const {
    EXPECT_TRUE(runUntil([&] {
      const auto& task = calendar->dataTask();
      return !task || task->state() == NSURLSessionTaskState::suspended;
    }));
    return host->take();
  }
  std::vector<std::string> check() {
    calendar->checkForExternalChanges();
    return outcome();
  }
  std::vector<std::string> fetch() {
    calendar->fetchExternalChanges();
    return outcome();
  }
  std::vector<std::string> save() {
    calendar->saveChanges();
    return outcome();
  }
};

TEST(KBTURLCalendar, StandsForItsAddress) {
  const auto calendar = calendarAt("http://127.0.0.1/a.ics");
  EXPECT_EQ(calendar->url().absoluteString(), "http://127.0.0.1/a.ics");
  EXPECT_TRUE(calendar->isEqualToCalendar(*calendarAt("http://127.0.0.1/a.ics")));
  EXPECT_FALSE(calendar->isEqualToCalendar(*calendarAt("http://127.0.0.1/b.ics")));
  EXPECT_FALSE(calendar->isEqualToCalendar(*KBTDataCalendar::init()));
}

TEST(KBTURLCalendar, ACheckComparesTheTagWhateverTheStatus) {
  const struct {
    std::optional<std::string> known;
    unsigned status;
    const char* received;
    const char* outcome;
  } rows[] = {
      {"\"1\"", 200, "\"1\"", "checked none"},         {"\"1\"", 200, "W/\"1\"", "checked none"},
      {"\"1\"", 200, "\"2\"", "checked changes"},      {"\"1\"", 200, nullptr, "checked changes"},
      {"\"1\"", 404, nullptr, "checked changes"},      {"\"1\"", 500, "\"1\"", "checked none"},
      {std::nullopt, 200, "\"1\"", "checked changes"}, {std::nullopt, 500, nullptr, "checked none"},
  };
  for (const auto& row : rows) {
    Fixture f;
    f.calendar->setCachingString(row.known);
    f.server.expect(request("HEAD"), answer(row.status, row.received));
    EXPECT_THAT(f.check(), ElementsAre(row.outcome));
    EXPECT_EQ(f.calendar->cachingString(), row.known);  // a check takes nothing over
  }
  // Without an answer there are no changes, though the last check found some.
  Fixture f;
  f.server.expect(request("HEAD"), answer(200, "\"1\""));
  EXPECT_THAT(f.check(), ElementsAre("checked changes"));
  f.server.finish();
  EXPECT_THAT(f.check(), ElementsAre("checked none"));
}

TEST(KBTURLCalendar, FetchesUnlessTheTagIsKnown) {
  Fixture f;
  f.server.expect(request("HEAD"), answer(200));
  EXPECT_THAT(f.check(), ElementsAre("checked none"));
  // Large enough to come in pieces.
  const std::string large = document + std::string(1'000'000, 'x') + "\r\n";
  f.server.expect(request("GET"), answer(200, "W/\"1\"", large));
  EXPECT_THAT(f.fetch(),
              ElementsAre("began", "new a 20240102T000000Z", "new b 20240101T000000Z", "fetched"));
  EXPECT_EQ(f.calendar->cachingString(), "\"1\"");
  const HeaderField condition{"If-None-Match", "\"1\""};
  f.server.expect(request("GET", condition), answer(304, "\"1\""));
  EXPECT_THAT(f.fetch(), ElementsAre("fetched"));

  // The tag is the last answer's: also a failure's, and also none.
  f.server.expect(request("GET", condition), answer(404, "\"2\"", "<html>"));
  EXPECT_THAT(f.fetch(), ElementsAre("fetched URLCalendar 404"));
  EXPECT_EQ(f.host->error->localizedDescription(), "not found");
  f.server.expect(request("GET", HeaderField{"If-None-Match", "\"2\""}), answer(304));
  EXPECT_THAT(f.fetch(), ElementsAre("fetched"));
  EXPECT_EQ(f.calendar->cachingString(), std::nullopt);
  f.server.expect(request("GET"), answer(300));
  EXPECT_THAT(f.fetch(), ElementsAre("fetched URLCalendar 300"));

  // The objects are as they were; what comes next is compared with them.
  f.server.expect(request("GET"), answer(299, nullptr,
                                         std::string(document).replace(
                                             std::string(document).find("UID:b"), 5, "UID:c")));
  EXPECT_THAT(f.fetch(), ElementsAre("began", "new c 20240101T000000Z", "gone b", "fetched"));
  f.server.expect(request("GET"), answer(200, nullptr, "<html>"));
  EXPECT_THAT(f.fetch(), ElementsAre("began", "gone a", "gone c", "fetched"));
}

// Nor is a tag with an end of line taken over: no request could carry it again.
TEST(KBTURLCalendar, WhatATransportErrorCutOffIsNotApplied) {
  RawServer server;
  const std::string ok = "HTTP/1.1 200 OK\r\nETag: \"a\rb\"\r\nContent-Length: 100000\r\n\r\n";
  server.play({raw::readHead(), raw::write(ok + document), raw::close()});
  const auto host = std::make_shared<RecordingDelegate>();
  const auto calendar = calendarAt(server.url("/a.ics"));
  calendar->setCachingString("1");
  calendar->setDelegate(host);
  calendar->fetchExternalChanges();
  EXPECT_TRUE(runUntil([&] { return !calendar->dataTask(); }));
  EXPECT_THAT(host->take(), ElementsAre("fetched NSURLErrorDomain -1005"));
  EXPECT_EQ(calendar->cachingString(), std::nullopt);
}

TEST(KBTURLCalendar, SavesTheWholeDocument) {
  const std::string item = "BEGIN:VEVENT\r\nUID:i\r\nEND:VEVENT\r\n";
  const struct {
    std::optional<std::string> known;
    unsigned status;
    const char* tag;
    std::vector<std::string> outcome;
  } rows[] = {
      {std::nullopt, 201, "\"1\"", {"saved"}},
      {"\"0\"", 204, "W/\"1\"", {"saved"}},
      {"\"0\"", 304, "\"1\"", {"saved"}},
      {"\"0\"", 399, "\"1\"", {"saved"}},
      {"\"0\"", 400, "\"1\"", {"failed document URLCalendar 400", "saved"}},
      // Without a tag there is no end.
      {"\"0\"", 201, nullptr, {}},
      {"\"0\"", 500, nullptr, {"failed document URLCalendar 500"}},
  };
  for (const auto& row : rows) {
    Fixture f;
    f.calendar->setCachingString(row.known);
    f.calendar->insertObject(Item::make("i", "", item));
    f.calendar->deleteObject(Item::make("i"));
    std::optional<HeaderField> condition;
    if (row.known) condition = HeaderField{"If-Match", *row.known};
    f.server.expect(request("PUT", condition, testing::anyBody), answer(row.status, row.tag));
    EXPECT_EQ(f.save(), row.outcome);
    EXPECT_THAT(f.server.requests().back().body, EndsWith(item + "END:VCALENDAR\r\n"));
    EXPECT_TRUE(f.calendar->hasPendingChanges());
    EXPECT_FALSE(f.calendar->isSaving());
    ASSERT_EQ(f.calendar->dataTask() != nullptr, row.tag == nullptr);
    if (row.tag) continue;
    // A request for the tag is ready and is not sent; the next operation takes its place.
    EXPECT_EQ(f.calendar->dataTask()->originalRequest().HTTPMethod(), "HEAD");
    f.server.expect(request("GET"), answer(304));
    EXPECT_THAT(f.fetch(), ElementsAre("fetched"));
  }
  Fixture f;
  f.server.finish();
  EXPECT_THAT(f.save(), ElementsAre("failed document NSURLErrorDomain -1004", "saved"));
}

TEST(KBTURLCalendar, ASubclassHasASessionToo) {
  struct Subclass : KBTURLCalendar {
    explicit Subclass(NSURL url) : KBTURLCalendar(std::move(url)) {}
  };
  Fixture f;
  f.server.expect(request("GET"), answer(200, "\"1\"", document));
  f.calendar = std::make_shared<Subclass>(f.calendar->url());
  f.fetch();
  EXPECT_EQ(f.calendar->cachingString(), "\"1\"");
}

TEST(KBTURLCalendar, PutsChallengesToItsDelegate) {
  Fixture f;
  ExpectedRequest authorized = request("GET");
  authorized.credential = {{AuthScheme::basic, "alice", "secret"}};
  const auto challenge = [&](const ExpectedRequest& challenged) {
    f.server.expect(challenged, {.status = 401, .challenges = {{}}});
  };
  challenge(request("GET"));
  f.server.expect(authorized, answer(304));
  EXPECT_THAT(f.fetch(), ElementsAre("fetched"));
  challenge(request("GET"));
  challenge(authorized);
  EXPECT_THAT(f.fetch(), ElementsAre("fetched URLCalendar 401"));
  EXPECT_THAT(f.host->asked, ElementsAre("NSURLAuthenticationMethodHTTPBasic 0 401",
                                         "NSURLAuthenticationMethodHTTPBasic 0 401",
                                         "NSURLAuthenticationMethodHTTPBasic 1 401"));
  // A delegate that does not answer, and none.
  const auto silent = std::make_shared<RecordingDelegate>();
  f.calendar->setDelegate(silent);
  challenge(request("GET"));
  EXPECT_THAT(f.fetch(), IsEmpty());
  EXPECT_THAT(silent->take(), ElementsAre("fetched URLCalendar 401"));
  f.calendar->setDelegate({});
  challenge(request("GET"));
  EXPECT_THAT(f.fetch(), IsEmpty());
}

TEST(KBTURLCalendar, CancellingEndsWhatIsInFlight) {
  Fixture f;
  f.calendar->cancel();  // nothing is
  using Lines = std::vector<std::string>;
  for (const auto& [start, lines] :
       {std::pair(&KBTURLCalendar::checkForExternalChanges, Lines{"checked none"}),
        std::pair(&KBTURLCalendar::fetchExternalChanges, Lines{"fetched NSURLErrorDomain -999"}),
        std::pair(static_cast<void (KBTURLCalendar::*)()>(&KBTURLCalendar::saveChanges),
                  Lines{"failed document NSURLErrorDomain -999", "saved"})}) {
    ((*f.calendar).*start)();
    f.calendar->cancel();
    EXPECT_EQ(f.calendar->dataTask(), nullptr);
    EXPECT_TRUE(runUntil([&, &expected = lines] { return f.host->log.size() == expected.size(); }));
    EXPECT_EQ(f.host->take(), lines);
  }
}

// A second operation takes the first one's place; both end, each as what the calendar is then doing.
TEST(KBTURLCalendar, AReplacedOperationCompletesIntoWhatHoldsThen) {
  Fixture f;
  Answer held = answer(200, "\"1\"", document);
  held.held = true;
  f.server.expect(request("GET"), held);
  f.calendar->fetchExternalChanges();
  ASSERT_TRUE(runUntil([&] { return f.server.requests().size() == 1; }));
  f.server.expect(request("HEAD"), answer(200, "\"2\""));
  EXPECT_THAT(f.check(), ElementsAre("checked changes"));
  f.server.release();
  EXPECT_TRUE(runUntil([&] { return !f.host->log.empty(); }));
  EXPECT_THAT(f.host->take(), ElementsAre("checked changes"));
  // It is over for the next one, too.
  f.server.expect(request("PUT", {}, testing::anyBody), answer(204, "\"2\""));
  EXPECT_THAT(f.save(), ElementsAre("saved"));
}

// In each callback the host starts another fetch, which is not disturbed, or lets go of everything.
TEST(KBTURLCalendar, AHostMayDoAnythingInACallback) {
  Fixture f;
  int fetches = 0;
  f.host->onCallback = [&](const std::string& line) {
    if (line.starts_with("fetched") && ++fetches < 4) f.calendar->fetchExternalChanges();
  };
  f.server.expect(request("GET"), answer(200, nullptr, document));
  for (const unsigned status : {404U, 304U, 200U}) f.server.expect(request("GET"), answer(status));
  EXPECT_THAT(f.fetch(), ElementsAre("began", "new a 20240102T000000Z", "new b 20240101T000000Z",
                                     "fetched", "fetched URLCalendar 404", "fetched", "began",
                                     "gone a", "gone b", "fetched"));

  for (const char* last : {"began", "new a", "fetched", "saved"}) {
    Fixture g;
    const std::weak_ptr<KBTURLCalendar> watched = g.calendar;
    g.host->onCallback = [&](const std::string& line) {
      if (line.starts_with(last)) {
        g.calendar = nullptr;
        g.host = nullptr;
      }
    };
    const bool saves = last == std::string("saved");
    g.server.expect(saves ? request("PUT", {}, testing::anyBody) : request("GET"),
                    answer(200, "\"1\"", document));
    saves ? g.calendar->saveChanges() : g.calendar->fetchExternalChanges();
    EXPECT_TRUE(runUntil([&] { return watched.expired(); })) << last;
  }
}

}  // namespace
}  // namespace quillmere
