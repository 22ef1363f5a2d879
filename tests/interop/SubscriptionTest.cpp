#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/calendars/KBTURLCalendar.h>
#include <quillmere/platform/net/NSURLCredential.h>

#include "tests/interop/RunningServer.h"
#include "tests/support/RecordingDelegate.h"
#include "tests/support/SessionHost.h"

// Calendars behind addresses of the nginx that `servers.py` started: /dav/ takes PUT from anybody,
// /private/ everything from alice.

namespace quillmere {
namespace {

using ::testing::ElementsAre;
using testing::environment;
using ::testing::IsEmpty;
using testing::Item;

std::string event(const std::string& uid, const std::string& stamp) {
  return "BEGIN:VEVENT\r\nUID:" + uid + "\r\nDTSTAMP:" + stamp +
         "\r\nSUMMARY:Tea \xE2\x98\x95\r\n" + "END:VEVENT\r\n";
}

class Host : public testing::RecordingDelegate {
 public:
  int challenges = 0;
  void synchingCalendar_didReceiveChallenge_completionHandler(
      KBTSynchingCalendar&, const std::shared_ptr<NSURLAuthenticationChallenge>&,
      const NSURLSessionChallengeCompletionHandler& completionHandler) override {
    ++challenges;
    completionHandler(NSURLSessionAuthChallengeUseCredential,
                      NSURLCredential::credentialWithUser_password_persistence(
                          environment("QUILLMERE_USER"), environment("QUILLMERE_PASSWORD"),
                          NSURLCredentialPersistenceNone));
  }
};

struct Subscription {
  std::shared_ptr<Host> host = std::make_shared<Host>();
  std::shared_ptr<KBTURLCalendar> calendar;

  explicit Subscription(const std::string& path) {
    calendar = KBTURLCalendar::initWithURL(
        NSURL::URLWithString(environment("QUILLMERE_INTEROP_BASE") + path).value());
    calendar->setDelegate(host);
  }
  // What is heard until nothing is in flight any more, or only what is never sent.
  std::vector<std::string> outcomeOf(void (KBTURLCalendar::*operation)()) {
    ((*calendar).*operation)();
    EXPECT_TRUE(testing::runUntil([&] {
      const auto& task = calendar->dataTask();
      return !task || task->state() == NSURLSessionTaskState::suspended;
    }));
    return host->take();
  }
  std::vector<std::string> check() { return outcomeOf(&KBTURLCalendar::checkForExternalChanges); }
  std::vector<std::string> fetch() { return outcomeOf(&KBTURLCalendar::fetchExternalChanges); }
  std::vector<std::string> save() { return outcomeOf(&KBTURLCalendar::saveChanges); }
};

TEST(Subscription, TwoHostsShareADocument) {
  for (const char* path : {"dav/team.ics", "private/team.ics"}) {
    Subscription writer(path), reader(path);
    EXPECT_THAT(reader.fetch(), ElementsAre("fetched URLCalendar 404"));
    writer.calendar->insertObject(Item::make("a", "1", event("a", "1")));
    // This server tells no entity tag of what was put, so that there is no end to a save.
    EXPECT_THAT(writer.save(), IsEmpty());

    EXPECT_THAT(reader.fetch(), ElementsAre("began", "new a 1", "fetched"));
    EXPECT_EQ(reader.host->readers.back(), event("a", "1"));
    const auto tag = reader.calendar->cachingString();
    EXPECT_TRUE(tag && tag->starts_with('"'));
    EXPECT_THAT(reader.check(), ElementsAre("checked none"));
    EXPECT_THAT(reader.fetch(), ElementsAre("fetched"));  // 304
    EXPECT_EQ(reader.calendar->cachingString(), tag);

    writer.calendar->insertObject(Item::make("a", "20", event("a", "20")));
    writer.calendar->insertObject(Item::make("b", "1", event("b", "1")));
    EXPECT_THAT(writer.save(), IsEmpty());
    EXPECT_THAT(reader.check(), ElementsAre("checked changes"));
    EXPECT_THAT(reader.fetch(), ElementsAre("began", "update a 20", "new b 1", "fetched"));
    EXPECT_EQ(reader.host->challenges > 0, path == std::string("private/team.ics"));
  }
}

}  // namespace
}  // namespace quillmere
