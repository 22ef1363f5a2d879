#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/caldav/KBTDavConnection.h>

#include <algorithm>
#include <cstdlib>

#include "tests/interop/RunningServer.h"
#include "tests/support/CollectionHost.h"
#include "tests/support/CurlClient.h"
#include "tests/support/SessionHost.h"

// Every operation of a collection against the server that `servers.py` started.

namespace quillmere {
namespace {

using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using testing::environment;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// Where the servers differ.
struct Answers {
  const char* server;
  const char* noCalendar;                 // to a resource that is none
  const char* missingAddress = "events";  // to a fetch of one that is there and one that is not
  const char* freeBusy = "freebusy 1";    // of one event
  const char* tagOfNone = "failed KBTDavConnection 404";  // of a collection that is gone
  bool challenges = true;                                 // or lets everybody in
  bool findsDue = true;  // a to-do by its date, if that is only when it is due
  bool lists = true;     // what is in a collection, if no depth is given
};

constexpr Answers answersOfServers[] = {
    {.server = "cyrus_basic", .noCalendar = "failed KBTDavConnection 403"},
    {.server = "cyrus_digest", .noCalendar = "failed KBTDavConnection 403"},
    {.server = "cyrus_tls", .noCalendar = "failed KBTDavConnection 403"},
    {.server = "davical_digest", .noCalendar = "failed KBTDavConnection 412", .findsDue = false},
    {.server = "radicale", .noCalendar = "failed KBTDavConnection 400", .freeBusy = "freebusy 0"},
    {.server = "sabredav_basic",
     .noCalendar = "failed KBTDavConnection 415",
     .missingAddress = "failed KBTDavConnection 404"},
    {.server = "sabredav_digest",
     .noCalendar = "failed KBTDavConnection 415",
     .missingAddress = "failed KBTDavConnection 404"},
    {.server = "xandikos",
     .noCalendar = "failed KBTDavConnection 404",
     .freeBusy = "freebusy 0",
     .tagOfNone = "ctag (null)",
     .challenges = false,
     .lists = false},
};

const Answers& answers() { return testing::rowOfServer(answersOfServers); }

std::string component(const std::string& kind, const std::string& uid, const std::string& lines) {
  return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Quillmere//Tests//EN\r\nBEGIN:" + kind +
         "\r\nUID:" + uid + "\r\nDTSTAMP:20240101T000000Z\r\n" + lines + "END:" + kind +
         "\r\nEND:VCALENDAR\r\n";
}

std::string event(const std::string& uid, const std::string& summary = "Tea",
                  const std::string& day = "20240105") {
  return component(
      "VEVENT", uid,
      "DTSTART:" + day + "T090000Z\r\nDTEND:" + day + "T100000Z\r\nSUMMARY:" + summary + "\r\n");
}

NSDate utc(const char* text) { return NSDate::initWithICSDateString(text).value(); }

// A new collection of its own for each test.
class Interop : public ::testing::Test {
 protected:
  using Operation = std::function<void(KBTDavConnection&)>;

  void SetUp() override {
    const auto* const test = ::testing::UnitTest::GetInstance()->current_test_info();
    url_ = environment("QUILLMERE_INTEROP_HOME") + test->name() + "/";
    ASSERT_EQ(performAsUser("MKCALENDAR"), 201);
    login(environment("QUILLMERE_PASSWORD"));
  }
  void TearDown() override {
    if (principal_) principal_->invalidate();
    performAsUser("DELETE");  // some servers allow a UID only once in all that a user has
  }

  long performAsUser(const char* method) {
    testing::CurlClient client;
    client.set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    // The authority that a server with TLS is known by.
    if (const char* const file = std::getenv("SSL_CERT_FILE")) client.set(CURLOPT_CAINFO, file);
    client.set(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_ANY));
    client.set(CURLOPT_USERNAME, environment("QUILLMERE_USER").c_str());
    client.set(CURLOPT_PASSWORD, environment("QUILLMERE_PASSWORD").c_str());
    return client.perform(method, url_).status;
  }

  void login(const std::string& password) {
    if (principal_) principal_->invalidate();
    const NSURL address = NSURL::URLWithString(url_).value();
    principal_ = KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
        nullptr, environment("QUILLMERE_USER"), password, address);
    collection_ = KBTDavConnection::initWithCalendarName_description_URL_forPrincipal(
        std::nullopt, std::nullopt, address, principal_);
    host_ = std::make_shared<testing::CollectionHost>();
    collection_->setDelegate(host_);
  }

  // What an operation comes to, without the context.
  std::string outcomeOf(const Operation& start) {
    host_->events.clear();
    start(*collection_);
    if (!testing::runUntil([&] { return !host_->events.empty(); })) return "nothing";
    EXPECT_EQ(host_->events.size(), 1U);
    const std::string& event = host_->events.front();
    return event.substr(0, event.rfind(" ["));
  }

  std::string tag() {
    return outcomeOf([](auto& collection) { collection.reportCTagWithContext({}); });
  }
  std::string create(const std::string& name, const std::string& text) {
    return outcomeOf([&](auto& collection) {
      collection.createResource_withName_context(NSData::dataWithString(text), name, {});
    });
  }
  std::string update(const std::string& name, const std::string& text,
                     const std::optional<std::string>& etag) {
    return outcomeOf([&](auto& collection) {
      collection.updateResource_withName_andETag_context(NSData::dataWithString(text), name, etag,
                                                         {});
    });
  }
  std::string remove(const std::string& name, const std::optional<std::string>& etag = {}) {
    return outcomeOf([&](auto& collection) {
      collection.deleteResourceWithName_andETag_context(name, etag, {});
    });
  }
  std::string fetch(const std::vector<std::string>& addresses) {
    return outcomeOf(
        [&](auto& collection) { collection.multigetEventsForAddresses_context(addresses, {}); });
  }
  // The addresses listed, as paths below the collection with their escapes undone.
  std::vector<std::string> list(bool events, bool contents, std::optional<NSDate> from = {},
                                std::optional<NSDate> to = {}) {
    const std::string outcome = outcomeOf([&](auto& collection) {
      collection.reportEvents_includingContents_fromDate_toDate_context(events, contents, from, to,
                                                                        {});
    });
    EXPECT_THAT(outcome, StartsWith("events"));
    const std::string folder = NSURL::URLWithString(url_)->path();
    std::vector<std::string> names;
    for (const auto& [address, etag] : host_->etags) {
      EXPECT_THAT(address, StartsWith(folder));
      names.push_back(unescaped(address.substr(folder.size())));
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  static std::string unescaped(const std::string& text) {
    int length = 0;
    const std::unique_ptr<char, decltype(&curl_free)> plain(
        curl_easy_unescape(nullptr, text.c_str(), static_cast<int>(text.size()), &length),
        &curl_free);
    return {plain.get(), static_cast<std::size_t>(length)};
  }

  std::string url_;
  std::shared_ptr<KBTDavPrincipal> principal_;
  std::shared_ptr<KBTDavConnection> collection_;
  std::shared_ptr<testing::CollectionHost> host_;
};

TEST_F(Interop, TagChangesWithEveryWrite) {
  std::vector<std::string> tags = {tag()};
  create("a", event("a"));
  tags.push_back(tag());
  update("a", event("a", "Coffee"), std::nullopt);
  tags.push_back(tag());
  EXPECT_EQ(tag(), tags.back());
  remove("a");
  tags.push_back(tag());
  for (const std::string& text : tags) EXPECT_THAT(text, ContainsRegex("^ctag .*[0-9a-f]"));
  for (std::size_t i = 1; i < tags.size(); ++i) EXPECT_NE(tags[i], tags[i - 1]) << i;
}

TEST_F(Interop, CreatedResourcesAreListedUnderTheirNames) {
  const std::string created = create("plain", event("1"));
  EXPECT_THAT(created, ContainsRegex("^created \".+\"$"));
  EXPECT_THAT(create("two words", event("2")), StartsWith("created \""));
  EXPECT_THAT(create("alice@example.com", event("3")), StartsWith("created \""));
  EXPECT_THAT(create("Tee f\xC3\xBCr zwei", event("4")), StartsWith("created \""));
  const std::vector<std::string> names = list(true, false);
  if (!answers().lists) {
    EXPECT_THAT(names, ElementsAre());
    return;
  }
  EXPECT_THAT(names, ElementsAre("Tee f\xC3\xBCr zwei.ics", "alice@example.com.ics", "plain.ics",
                                 "two words.ics"));
  const std::string path = NSURL::URLWithString(url_)->path();
  EXPECT_EQ("created " + host_->etags[path + "plain.ics"], created);
  EXPECT_TRUE(host_->contents.empty());

  // The listed addresses are those by which the resources are fetched.
  std::vector<std::string> addresses;
  for (const auto& [address, etag] : host_->etags) addresses.push_back(address);
  const KBTDavResourceTexts listed = host_->etags;
  fetch(addresses);
  EXPECT_EQ(host_->etags, listed);
  EXPECT_EQ(host_->contents.size(), addresses.size());

  for (const char* name : {"plain", "two words", "alice@example.com", "Tee f\xC3\xBCr zwei"}) {
    EXPECT_EQ(remove(name), "deleted") << name;
  }
  EXPECT_THAT(list(true, false), ElementsAre());
}

// No server heeds the misspelt condition of a creation; all refuse that of a write.
TEST_F(Interop, OverwritesWithoutATagAndIsRefusedWithOne) {
  EXPECT_THAT(create("a", event("a", "Water")), StartsWith("created \""));
  const std::string created = create("a", event("a"));
  const std::string updated = update("a", event("a", "Coffee"), std::nullopt);
  EXPECT_THAT(updated, StartsWith("updated \""));
  const std::string etag = updated.substr(updated.find('"'));
  EXPECT_NE("created " + etag, created);
  EXPECT_EQ(update("a", event("a", "Cake"), etag), "failed KBTDavConnection 412");
  EXPECT_EQ(remove("a", etag), "failed KBTDavConnection 412");
  fetch({NSURL::URLWithString(url_)->path() + "a.ics"});
  ASSERT_EQ(host_->contents.size(), 1U);
  EXPECT_EQ(host_->etags.begin()->second, etag);
  EXPECT_THAT(host_->contents.begin()->second, HasSubstr("SUMMARY:Coffee"));
}

TEST_F(Interop, ListsByKindAndDates) {
  create("january", event("1", "Tea & <cake> f\xC3\xBCr zwei", "20240105"));
  create("march", event("2", "Tea", "20240305"));
  create("task", component("VTODO", "3", "DUE:20240105T120000Z\r\nSUMMARY:Ferry\r\n"));
  const auto from = utc("20240101T000000Z");
  const auto to = utc("20240201T000000Z");
  const std::vector<std::string> events = list(true, false);
  if (!answers().lists) {
    EXPECT_THAT(events, ElementsAre());
    return;
  }
  EXPECT_THAT(events, ElementsAre("january.ics", "march.ics"));
  EXPECT_THAT(list(false, false), ElementsAre("task.ics"));
  EXPECT_EQ(list(false, false, from, to).size(), answers().findsDue ? 1U : 0U);
  EXPECT_THAT(list(false, false, utc("20240301T000000Z"), utc("20240401T000000Z")), ElementsAre());
  EXPECT_THAT(list(true, true, from, to), ElementsAre("january.ics"));
  ASSERT_EQ(host_->contents.size(), 1U);
  EXPECT_THAT(host_->contents.begin()->second, HasSubstr("SUMMARY:Tea & <cake> f\xC3\xBCr zwei"));
  EXPECT_EQ(host_->contents.begin()->first, host_->etags.begin()->first);
}

TEST_F(Interop, FetchesWhatIsThere) {
  create("a", event("a"));
  const std::string path = NSURL::URLWithString(url_)->path();
  EXPECT_THAT(fetch({path + "a.ics", path + "gone.ics"}), StartsWith(answers().missingAddress));
  fetch({path + "a.ics"});
  EXPECT_THAT(host_->contents, ElementsAre(::testing::Pair(path + "a.ics", HasSubstr("UID:a"))));
}

TEST_F(Interop, TellsWhenItsOwnerIsBusy) {
  create("a", event("a"));
  EXPECT_EQ(outcomeOf([](auto& collection) {
              collection.reportFreebusyFromDate_toDate_context(utc("20240101T000000Z"),
                                                               utc("20240201T000000Z"), {});
            }),
            answers().freeBusy);
}

TEST_F(Interop, WhatIsNoCalendarIsRefused) {
  EXPECT_EQ(create("a", "Tea with Alice"), answers().noCalendar);
  EXPECT_THAT(list(true, false), ElementsAre());
}

TEST_F(Interop, AWrongPasswordFails) {
  login("wrong");
  if (!answers().challenges) {
    EXPECT_THAT(tag(), StartsWith("ctag "));
    return;
  }
  EXPECT_EQ(tag(), "failed KBTDavConnection 401");
  EXPECT_EQ(create("a", event("a")), "failed KBTDavConnection 401");
}

TEST_F(Interop, RemovesItself) {
  create("a", event("a"));
  EXPECT_EQ(outcomeOf([](auto& collection) { collection.removeCalendar(); }), "removed");
  EXPECT_EQ(tag(), answers().tagOfNone);
}

}  // namespace
}  // namespace quillmere
