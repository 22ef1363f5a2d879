#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/calendars/KBTDavCalendar.h>
#include <quillmere/ical/KBTMutableCalObject.h>

#include <algorithm>
#include <map>

#include "tests/interop/RunningServer.h"
#include "tests/support/CollectionHost.h"
#include "tests/support/KeepingDelegate.h"
#include "tests/support/PrincipalHost.h"
#include "tests/support/SessionHost.h"

// An account on the server that `servers.py` started: what a login finds, what a collection answers,
// and two clients that keep their objects in step through it.

namespace quillmere {
namespace {

using ::testing::ContainsRegex;
using ::testing::Each;
using ::testing::ElementsAre;
using testing::environment;
using ::testing::HasSubstr;
using testing::Item;
using testing::KeepingDelegate;
using ::testing::Not;
using testing::PrincipalHost;
using testing::runUntil;
using ::testing::StartsWith;

// Where the servers differ.
struct Account {
  const char* server;      // what the names of its kinds begin with
  const char* noCalendar;  // to a resource that is none
  bool hasOutbox = true;   // without which there is no login
  bool keepsBytes = true;  // or writes what it got in its own way
  bool lists = true;       // what is in a collection, if no depth is given
  bool findsDue = true;    // a to-do by its date, if that is only when it is due
  std::size_t proxies = 0;
  const char* freeBusy = "freebusy 1";                    // of a month with one event
  const char* missingAddress = "events";                  // to a fetch of one there and one gone
  const char* tagOfNone = "failed KBTDavConnection 404";  // of a collection that is gone
};

constexpr Account accounts[] = {
    {.server = "cyrus", .noCalendar = "failed KBTDavConnection 403", .keepsBytes = false},
    {.server = "davical",
     .noCalendar = "failed KBTDavConnection 412",
     .findsDue = false,
     .proxies = 1},
    {.server = "radicale",
     .noCalendar = "failed KBTDavConnection 400",
     .hasOutbox = false,
     .keepsBytes = false,
     .freeBusy = "freebusy 0"},
    {.server = "sabredav",
     .noCalendar = "failed KBTDavConnection 415",
     .missingAddress = "failed KBTDavConnection 404"},
    {.server = "xandikos",
     .noCalendar = "failed KBTDavConnection 404",
     .hasOutbox = false,
     .lists = false,
     .freeBusy = "freebusy 0",
     .tagOfNone = "ctag (null)"},
};

const Account& account() {
  const std::string name = environment("QUILLMERE_INTEROP_SERVER");
  return *std::ranges::find_if(accounts,
                               [&](const Account& row) { return name.starts_with(row.server); });
}

NSDate utc(const std::string& text) { return NSDate::initWithICSDateString(text).value(); }

// A document whose values need escaping, folding and more than ASCII.
std::string document(const std::string& uid, const std::string& summary,
                     const std::string& day = "20240105") {
  const auto event =
      KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration("VEVENT", true);
  event->appendKey_stringValue("UID", uid);
  event->appendKey_datetimeValue("DTSTAMP", utc("20240101T000000Z"));
  event->appendKey_datetimeValue("DTSTART", utc(day + "T090000Z"));
  event->appendKey_datetimeValue("DTEND", utc(day + "T100000Z"));
  event->appendKey_stringValue("SUMMARY", summary);
  event->appendKey_stringValue("LOCATION", "Caf\xC3\xA9; \xE6\x97\xA5\xE6\x9C\xAC, 2\\3 <&>");
  event->appendKey_stringValue(
      "DESCRIPTION", std::string(150, 'x') + " \xF0\x9F\x93\x85 \n" + std::string(90, 'y'));
  return std::string(event->icsData().view());
}

// The lines of the event, unfolded and sorted, of those keys that a document here has.
std::vector<std::string> propertiesOf(const std::string& text) {
  const std::string sent[] = {"UID", "DTSTART", "DTEND", "SUMMARY", "LOCATION", "DESCRIPTION"};
  std::vector<std::string> properties;
  const auto reader = KBTCalObject::initWithData(NSData::dataWithBytes(text));
  while (reader->nextLine()) {
    const std::string key(reader->key().value_or(""));
    if (std::find(std::begin(sent), std::end(sent), key) == std::end(sent)) continue;
    properties.push_back(key + ":" + std::string(reader->value().value_or("(null)")));
  }
  std::sort(properties.begin(), properties.end());
  return properties;
}

// The same text for the same object: XML has the line ends of what stands in it become line feeds.
std::vector<std::string> comparable(const std::string& text) {
  if (!account().keepsBytes) return propertiesOf(text);
  std::string bytes = text;
  std::erase(bytes, '\r');
  return {bytes};
}

// Some servers take a quarter of a second for each request, on a busy machine more.
constexpr int secondsToWait = 60;

// One client of a user's.
class Client {
 public:
  explicit Client(const std::string& user = environment("QUILLMERE_USER"),
                  const std::string& password = environment("QUILLMERE_PASSWORD"),
                  const std::string& url = environment("QUILLMERE_INTEROP_BASE"))
      : principal(KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
            listener, user, password, NSURL::URLWithString(url).value())) {}
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { principal->invalidate(); }

  std::shared_ptr<PrincipalHost> listener = std::make_shared<PrincipalHost>();
  std::shared_ptr<KeepingDelegate> host = std::make_shared<KeepingDelegate>();
  std::shared_ptr<KBTDavPrincipal> principal;
  std::shared_ptr<KBTDavCalendar> calendar;

  std::string outcome() {
    if (!runUntil([&] { return !listener->events.empty(); }, secondsToWait)) return "nothing";
    EXPECT_EQ(listener->events.size(), 1U);
    return std::exchange(listener->events, {}).front();
  }
  std::string login() {
    principal->login();
    return outcome();
  }
  void open(const std::shared_ptr<KBTDavConnection>& collection) {
    calendar = KBTDavCalendar::initWithDavConnection(collection);
    calendar->setDelegate(host);
  }
  // The collection there, for servers that tell a login nothing.
  std::shared_ptr<KBTDavConnection> collectionAt(const NSURL& url) {
    return KBTDavConnection::initWithCalendarName_description_URL_forPrincipal("Work", std::nullopt,
                                                                               url, principal);
  }

  void fetch() {
    host->take();
    calendar->fetchExternalChanges();
    EXPECT_TRUE(runUntil([&] { return !calendar->isChecking(); }, secondsToWait));
    EXPECT_EQ(host->log.back(), "fetched");
  }
  void save() {
    host->take();
    calendar->saveChanges();
    EXPECT_TRUE(runUntil([&] { return !calendar->isSaving(); }, secondsToWait));
    EXPECT_THAT(host->log, Each(Not(StartsWith("failed"))));
    EXPECT_FALSE(calendar->hasPendingChanges());
  }
  void insert(const std::string& name, const std::string& summary) {
    const auto item = Item::make(name, "", document("uid-" + name, summary));
    host->objects[name] = item;
    calendar->insertObject(item);
  }
  void update(const std::string& name, const std::string& summary) {
    host->objects.at(name)->ics = document("uid-" + name, summary);
    calendar->updateObject(host->objects.at(name));
  }
  void remove(const std::string& name) {
    calendar->deleteObject(host->objects.at(name));
    host->objects.erase(name);
  }

  std::map<std::string, std::vector<std::string>> objects() const {
    std::map<std::string, std::vector<std::string>> all;
    for (const auto& [name, item] : host->objects) all[name] = comparable(item->ics);
    return all;
  }
};

// Fifty, of every kind that needs care on the way.
std::vector<std::string> fiftyNames() {
  const char* const kinds[] = {"plain", "alice@example.com", "two words ",
                               "h\xC3\xBCt \xE6\x97\xA5", "a+b&c;d=e"};
  std::vector<std::string> names(50);
  for (std::size_t i = 0; i < names.size(); ++i) names[i] = kinds[i % 5] + std::to_string(i);
  return names;
}

TEST(Account, LogsIn) {
  Client alice;
  if (!account().hasOutbox) {
    EXPECT_EQ(alice.login(),
              "failed KBTDavConnection 1 Not able to determine outbox or calendar "
              "home from server");
    EXPECT_EQ(alice.principal->principalLookupFailure(), alice.listener->error);
    return;
  }
  EXPECT_EQ(alice.login(), "logged in");
  EXPECT_EQ(alice.principal->originator(), "mailto:alice@example.com");
  EXPECT_EQ(alice.principal->readWriteProxies().size(), account().proxies);
  const auto before = alice.principal->calendars().size();
  EXPECT_EQ(alice.login(), "logged in");  // from the principal's own address
  EXPECT_EQ(alice.principal->calendars().size(), before);

  Client stranger(environment("QUILLMERE_USER"), "wrong");
  EXPECT_EQ(stranger.login(), "failed KBTDavConnection 401 unauthorized");
}

// A collection as it is, with no calendar that stands for it.
class Collection : public ::testing::Test {
 protected:
  using Operation = std::function<void(KBTDavConnection&)>;

  void SetUp() override {
    alice_.principal->createCalendarAtPath_withName_andDescription(url_.absoluteString(), "Work",
                                                                   "");
    ASSERT_THAT(alice_.outcome(), StartsWith("created"));
    collection_->setDelegate(host_);
  }
  // Some servers allow a UID only once in all that a user has.
  void TearDown() override {
    EXPECT_EQ(outcomeOf([](auto& collection) { collection.removeCalendar(); }), "removed");
    EXPECT_EQ(tag(), account().tagOfNone);
  }

  // What an operation comes to, without the context.
  std::string outcomeOf(const Operation& start) {
    host_->events.clear();
    start(*collection_);
    if (!runUntil([&] { return !host_->events.empty(); }, secondsToWait)) return "nothing";
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
  std::string update(const std::string& text, const std::optional<std::string>& etag) {
    return outcomeOf([&](auto& collection) {
      collection.updateResource_withName_andETag_context(NSData::dataWithString(text), "a", etag,
                                                         {});
    });
  }
  std::string remove(const std::optional<std::string>& etag) {
    return outcomeOf([&](auto& collection) {
      collection.deleteResourceWithName_andETag_context("a", etag, {});
    });
  }
  // The names of what is listed of a month, or of all time.
  std::vector<std::string> list(bool events, const std::optional<std::string>& month = {}) {
    std::optional<NSDate> from, to;
    if (month) {
      from = utc(*month + "01T000000Z");
      to = utc(*month + "28T000000Z");
    }
    const std::string outcome = outcomeOf([&](auto& collection) {
      collection.reportEvents_includingContents_fromDate_toDate_context(events, true, from, to, {});
    });
    EXPECT_THAT(outcome, StartsWith("events"));
    std::vector<std::string> names;
    for (const auto& [address, content] : host_->contents) {
      EXPECT_THAT(address, StartsWith(url_.path()));
      names.push_back(address.substr(url_.path().size()));
    }
    return names;
  }

  Client alice_;
  NSURL url_ =
      NSURL::URLWithString(environment("QUILLMERE_INTEROP_HOME") +
                           ::testing::UnitTest::GetInstance()->current_test_info()->name() + "/")
          .value();
  std::shared_ptr<KBTDavConnection> collection_ = alice_.collectionAt(url_);
  std::shared_ptr<testing::CollectionHost> host_ = std::make_shared<testing::CollectionHost>();
};

// No server heeds the misspelt condition of a creation; all refuse that of a write.
TEST_F(Collection, OnlyWhatIsWrittenChangesItsTag) {
  std::vector<std::string> tags = {tag()};
  const std::string created = create("a", document("a", "Water"));
  EXPECT_THAT(created, StartsWith("created \""));
  tags.push_back(tag());
  EXPECT_THAT(create("a", document("a", "Tea")), StartsWith("created \""));
  tags.push_back(tag());
  const std::string updated = update(document("a", "Coffee"), std::nullopt);
  EXPECT_THAT(updated, StartsWith("updated \""));
  tags.push_back(tag());
  const std::string etag = updated.substr(updated.find('"'));
  EXPECT_NE("created " + etag, created);
  EXPECT_EQ(update(document("a", "Cake"), etag), "failed KBTDavConnection 412");
  EXPECT_EQ(remove(etag), "failed KBTDavConnection 412");
  EXPECT_EQ(create("b", "Tea with Alice"), account().noCalendar);
  EXPECT_EQ(tag(), tags.back());
  EXPECT_EQ(remove(std::nullopt), "deleted");
  tags.push_back(tag());
  EXPECT_THAT(tags, Each(ContainsRegex("^ctag .*[0-9a-f]")));
  EXPECT_EQ(std::adjacent_find(tags.begin(), tags.end()), tags.end());
}

TEST_F(Collection, TellsWhatItHoldsByKindAndDates) {
  create("january", document("1", "Tea & <cake> f\xC3\xBCr zwei"));
  create("march", document("2", "Tea", "20240305"));
  create("task",
         "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Quillmere//Tests//EN\r\nBEGIN:VTODO\r\n"
         "UID:3\r\nDTSTAMP:20240101T000000Z\r\nDUE:20240105T120000Z\r\nSUMMARY:Ferry\r\n"
         "END:VTODO\r\nEND:VCALENDAR\r\n");
  EXPECT_THAT(outcomeOf([&](auto& collection) {
                collection.multigetEventsForAddresses_context(
                    {url_.path() + "march.ics", url_.path() + "gone.ics"}, {});
              }),
              StartsWith(account().missingAddress));
  EXPECT_EQ(outcomeOf([](auto& collection) {
              collection.reportFreebusyFromDate_toDate_context(utc("20240101T000000Z"),
                                                               utc("20240201T000000Z"), {});
            }),
            account().freeBusy);
  if (!account().lists) {
    EXPECT_THAT(list(true), ElementsAre());
    return;
  }
  EXPECT_THAT(list(true), ElementsAre("january.ics", "march.ics"));
  EXPECT_THAT(list(false), ElementsAre("task.ics"));
  EXPECT_EQ(list(false, "202401").size(), account().findsDue ? 1U : 0U);
  EXPECT_THAT(list(false, "202403"), ElementsAre());
  EXPECT_THAT(list(true, "202401"), ElementsAre("january.ics"));
  EXPECT_THAT(host_->contents.begin()->second, HasSubstr("SUMMARY:Tea & <cake> f\xC3\xBCr zwei"));
}

// Two clients of one collection. Here a server that lists nothing has nothing to tell them.
TEST(Account, TwoClientsStayInStep) {
  Client first, second;
  const std::string name = "Schritt f\xC3\xBCr Schritt";
  const NSURL url =
      NSURL::URLWithString(environment("QUILLMERE_INTEROP_HOME") + "in-step/").value();
  const auto made = first.principal->createCalendarAtPath_withName_andDescription(
      url.absoluteString(), name, "F\xC3\xBCr Alice");
  ASSERT_THAT(first.outcome(), ContainsRegex("^created " + name + " .*/in-step/$"));
  first.open(made);
  if (account().hasOutbox) {
    ASSERT_EQ(second.login(), "logged in");
    const auto listed = second.principal->calendarNamed(name);
    ASSERT_NE(listed, nullptr);
    EXPECT_TRUE(listed->writable());
    EXPECT_TRUE(listed->canContainEvents());
    EXPECT_EQ(listed->description(), "F\xC3\xBCr Alice");
    second.open(listed);
  } else {
    second.open(second.collectionAt(url));
  }

  const auto names = fiftyNames();
  for (const std::string& name : names) first.insert(name, "Tea, " + name);
  first.save();
  ASSERT_EQ(first.host->log.size(), names.size() + 1);
  first.fetch();
  EXPECT_THAT(first.host->log, ElementsAre("fetched"));  // its own changes are none
  second.fetch();
  if (!account().lists) {
    EXPECT_THAT(second.host->log, ElementsAre("began", "fetched"));
    return;
  }
  EXPECT_EQ(second.host->objects.size(), names.size());
  EXPECT_EQ(second.objects(), first.objects());

  for (std::size_t i = 0; i < 10; ++i) {
    second.update(names[i], "Coffee");
    second.remove(names[i + 10]);
    second.insert("new @" + std::to_string(i), "Cake");
  }
  second.save();
  first.fetch();
  EXPECT_EQ(first.host->log.size(), 32U) << ::testing::PrintToString(first.host->log);
  EXPECT_EQ(first.objects(), second.objects());
}

// What bob's calendar says is told to alice, who finds bob by his address.
TEST(Account, OthersAreFoundAndTheirBusyTimeToo) {
  if (!account().hasOutbox) GTEST_SKIP() << "nobody logs in here";
  Client bob("bob");
  ASSERT_EQ(bob.login(), "logged in");
  bob.principal->createCalendarAtPath_withName_andDescription("busy", "Busy", "");
  ASSERT_THAT(bob.outcome(), StartsWith("created Busy"));
  bob.open(bob.principal->calendarNamed("Busy"));
  bob.insert("meeting", "Meeting");
  bob.save();

  Client alice;
  ASSERT_EQ(alice.login(), "logged in");
  alice.principal->requestFreebusyForPrincipalURN_fromDate_toDate_context(
      "mailto:bob@example.com", utc("20240101T000000Z"), utc("20240201T000000Z"), "busy");
  EXPECT_EQ(alice.outcome(), "freebusy 1 [busy]");

  alice.principal->reportPrincipalInfoForUserAddress_context("bob@example.com", "who");
  EXPECT_THAT(alice.outcome(), ContainsRegex("^found \\[who\\] \\{[^}]*bob[^}]*, mailto:bob@example"
                                             "\\.com, -\\}$"));
  alice.principal->reportPrincipalInfoForUserAddress_context("nobody@example.com", "who");
  EXPECT_EQ(alice.outcome(), "found [who]");
}

}  // namespace
}  // namespace quillmere
