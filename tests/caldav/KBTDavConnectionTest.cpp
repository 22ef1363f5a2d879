#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/xml/HWXMLDocument.h>

#include <fstream>

#include "tests/support/CollectionHost.h"
#include "tests/support/Gzip.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/SessionHost.h"

namespace quillmere {
namespace {

using testing::CollectionHost;
using ::testing::ElementsAre;
using testing::ExpectedRequest;
using testing::HeaderField;
using testing::runUntil;
using testing::ScriptedServer;

const HeaderField xmlType{"Content-Type", "text/xml; charset=\"utf-8\""};
const HeaderField calendarType{"Content-Type", "text/calendar"};
constexpr const char* declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

NSDate utc(const char* text) { return NSDate::initWithICSDateString(text).value(); }

std::shared_ptr<KBTDavPrincipal> principalAt(const std::string& url) {
  return KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
      nullptr, "alice", "secret", NSURL::URLWithString(url).value());
}

std::shared_ptr<KBTDavConnection> collectionOf(const std::shared_ptr<KBTDavPrincipal>& principal,
                                               const std::optional<HWXMLElement>& kinds = {}) {
  return KBTDavConnection::initWithCalendarName_description_URL_forPrincipal_supportedComponents(
      "Work", std::nullopt, principal->principalURL(), principal, kinds);
}

// A collection at /c/ of a scripted server, and its host.
struct Fixture {
  ScriptedServer server;
  std::shared_ptr<KBTDavPrincipal> principal = principalAt(server.url("/c/"));
  std::shared_ptr<KBTDavConnection> collection = collectionOf(principal);
  std::shared_ptr<CollectionHost> host = std::make_shared<CollectionHost>();

  Fixture() { collection->setDelegate(host); }

  std::vector<std::string> eventsAfter(std::size_t count = 1) {
    runUntil([&] { return host->events.size() >= count; });
    return host->events;
  }
};

// The multi-status of one property of the collection.
std::string tagAnswer(const std::string& tag) {
  return "<?xml version=\"1.0\"?><D:multistatus xmlns:D=\"DAV:\" xmlns:C=\"x\"><D:response>"
         "<D:href>/c/</D:href><D:propstat><D:prop>\n<C:getctag>" +
         tag +
         "</C:getctag>\n</D:prop><D:status>HTTP/1.1 404 Nobody looks</D:status></D:propstat>"
         "</D:response></D:multistatus>";
}

TEST(KBTDavConnection, AsksForItsTag) {
  const ExpectedRequest request{
      .method = "PROPFIND",
      .path = "/c/",
      .fields = {xmlType, {"Accept", "text/xml"}, {"Depth", "0"}},
      .body = std::string(declaration) +
              "<propfind xmlns=\"DAV:\"><prop><getctag xmlns=\"http://calendarserver.org/ns/\"/>"
              "</prop></propfind>",
      .noOtherFields = true};
  const struct {
    std::string answer;
    const char* event;
  } rows[] = {
      {tagAnswer("17"), "ctag 17 [tag]"},
      {tagAnswer("<![CDATA[a<b]]>"), "ctag a<b [tag]"},
      {tagAnswer(""), "ctag (null) [tag]"},
      {"no XML", "ctag (null) [tag]"},
  };
  for (const auto& row : rows) {
    Fixture f;
    f.server.expect(request, {.status = 207, .body = row.answer});
    f.collection->reportCTagWithContext("tag");
    EXPECT_THAT(f.eventsAfter(), ElementsAre(row.event));
  }
}

TEST(KBTDavConnection, ListsEventsAndToDos) {
  const std::string begin =
      std::string(declaration) +
      "<calendar-query xmlns=\"urn:ietf:params:xml:ns:caldav\"><prop xmlns=\"DAV:\"><getetag "
      "xmlns=\"DAV:\"/>";
  const std::string data = "<calendar-data xmlns=\"urn:ietf:params:xml:ns:caldav\"/>";
  const std::string filter =
      "</prop><filter xmlns=\"urn:ietf:params:xml:ns:caldav\"><comp-filter name=\"VCALENDAR\">";
  const std::string end = "</comp-filter></filter></calendar-query>";
  const std::string range =
      "<time-range start=\"20240101T000000Z\" end=\"20240201T000000Z\"/></comp-filter>";
  const NSDate from = utc("20240101T000000Z");
  const NSDate to = utc("20240201T000000Z");
  const struct {
    bool events;
    bool contents;
    std::optional<NSDate> from, to;
    std::string body;
  } rows[] = {
      {true, false, from, to, begin + filter + "<comp-filter name=\"VEVENT\">" + range + end},
      {false, true, from, {}, begin + data + filter + "<comp-filter name=\"VTODO\"/>" + end},
      {true, true, {}, to, begin + data + filter + "<comp-filter name=\"VEVENT\"/>" + end},
  };
  for (const auto& row : rows) {
    Fixture f;
    f.server.expect({.method = "REPORT",
                     .path = "/c/",
                     .fields = {xmlType, {"Accept", "text/calendar"}, {"Accept-Encoding", "gzip"}},
                     .body = row.body,
                     .noOtherFields = true},
                    {.status = 207, .body = "<multistatus/>"});
    f.collection->reportEvents_includingContents_fromDate_toDate_context(row.events, row.contents,
                                                                         row.from, row.to, "list");
    EXPECT_THAT(f.eventsAfter(), ElementsAre("events [list]"));
  }
}

TEST(KBTDavConnection, FetchesByAddressAndReadsTheMultiStatus) {
  const auto row = [](const char* href, const char* status, const char* prop) {
    return "<response><href>" + std::string(href) + "</href><propstat><prop>" + prop +
           "</prop><status>" + status + "</status></propstat>";
  };
  const char* const good = "HTTP/1.1 200 OK";
  const char* const both = "<getetag>\"1\"</getetag><C:calendar-data>BEGIN\r\n:V</C:calendar-data>";
  const std::string answer =
      "<multistatus xmlns=\"DAV:\" xmlns:C=\"urn:ietf:params:xml:ns:caldav\"><sync-token/>" +
      row("/c/a%20b.ics", good, both) + "</response>" +
      row("/c/gone.ics", "HTTP/1.1 404 Not Found", "<getetag>\"2\"</getetag>") +
      "<propstat><prop><getetag>\"3\"</getetag></prop><status>HTTP/1.1 200 OK</status></propstat>"
      "</response>" +
      row("/c/other.ics", "HTTP/1.0 200 OK", both) + "</response>" +
      row("/c/blank.ics", "HTTP/1.1 200 OK ", both) + "</response>" + "<response><propstat><prop>" +
      both +
      "</prop><status>HTTP/1.1 200 OK</status></propstat>"
      "</response><response><href>/c/noprop.ics</href><propstat><status>HTTP/1.1 200 OK</status>"
      "</propstat></response>" +
      row("/c/tag.ics", good, "<getetag>\"4\"</getetag><C:calendar-data/>") + "</response>" +
      row("/c/text.ics", good, "<C:calendar-data><![CDATA[x]]></C:calendar-data>") +
      "</response><response><href>/c/none.ics</href><status>HTTP/1.1 404 Not Found</status>"
      "</response></multistatus>";
  Fixture f;
  f.server.expect(
      {.method = "REPORT",
       .path = "/c/",
       .fields = {xmlType, {"Accept", "text/calendar"}, {"Accept-Encoding", "gzip"}},
       .body = std::string(declaration) +
               "<calendar-multiget xmlns=\"urn:ietf:params:xml:ns:caldav\"><prop xmlns=\"DAV:\">"
               "<getetag xmlns=\"DAV:\"/><calendar-data xmlns=\"urn:ietf:params:xml:ns:caldav\"/>"
               "</prop><href xmlns=\"DAV:\">/c/a%20b.ics</href><href xmlns=\"DAV:\">/c/x&amp;y.ics"
               "</href></calendar-multiget>",
       .noOtherFields = true},
      {.status = 207, .body = answer});
  f.server.expect({.method = "REPORT", .path = "/c/", .body = testing::anyBody},
                  {.status = 207, .body = "<html>"});
  f.collection->multigetEventsForAddresses_context({"/c/a%20b.ics", "/c/x&y.ics"}, "get");
  f.collection->multigetEventsForAddresses_context({}, "none");
  EXPECT_THAT(f.eventsAfter(2),
              ElementsAre("events /c/a%20b.ics=\"1\" /c/tag.ics=\"4\" /c/a%20b.ics:BEGIN\r\n:V "
                          "/c/text.ics:x [get]",
                          "events [none]"));
}

TEST(KBTDavConnection, AsksWhenSomebodyIsBusy) {
  Fixture f;
  const ExpectedRequest request{
      .method = "REPORT",
      .path = "/c/",
      .fields = {xmlType, {"Accept", "text/calendar"}},
      .body = std::string(declaration) +
              "<free-busy-query xmlns=\"urn:ietf:params:xml:ns:caldav\"><time-range "
              "start=\"20240101T000000Z\" end=\"20240201T000000Z\"/></free-busy-query>",
      .noOtherFields = true};
  f.server.expect(request, {.body = "FREEBUSY:20240105T090000Z/PT1H\r\n"});
  f.server.expect(request, {.body = "FREEBUSY:20240105T090000Z\r\n"});
  f.server.expect(request, {.status = 403, .body = "FREEBUSY:20240105T090000Z\r\n"});
  for (const char* context : {"good", "bad", "worse"}) {
    f.collection->reportFreebusyFromDate_toDate_context(utc("20240101T000000Z"),
                                                        utc("20240201T000000Z"), context);
  }
  EXPECT_THAT(f.eventsAfter(3), ElementsAre("freebusy 1 [good]", "failed KBTDavConnection 3 [bad]",
                                            "failed KBTDavConnection 403 [worse]"));
}

TEST(KBTDavConnection, PutsAndDeletesResourcesWithConditions) {
  const NSData text = NSData::dataWithString("BEGIN:VCALENDAR");
  Fixture f;
  const auto put = [&](const char* path, const HeaderField& condition, const HeaderField& answer) {
    f.server.expect({.method = "PUT",
                     .path = path,
                     .fields = {calendarType, condition},
                     .body = "BEGIN:VCALENDAR",
                     .noOtherFields = true},
                    {.status = 201, .fields = {answer}});
  };
  put("/c/two%20words.ics", {"If-None-Match:", "*"}, {"etag", "\"1\""});
  f.collection->createResource_withName_context(text, "two words", "new");
  put("/c/x.ics", {"If-Match:", "W/\"1\""}, {"Etag", "W/\"3\""});
  f.collection->updateResource_withName_andETag_context(text, "x", "W/\"1\"", "update");
  f.server.expect({.method = "DELETE",
                   .path = "/c/x.ics",
                   .fields = {{"If-Match:", "\"1\""}},
                   .noOtherFields = true});
  f.collection->deleteResourceWithName_andETag_context("x", "\"1\"", "there");
  EXPECT_THAT(f.eventsAfter(3),
              ElementsAre("created \"1\" [new]", "updated W/\"3\" [update]", "deleted [there]"));
}

// The principal's, and no other goes out in its place.
TEST(KBTDavConnection, RequestsHaveThePresetAuthorization) {
  Fixture f;
  f.principal->setAuthorization("Bearer x");
  const HeaderField preset{"Authorization", "Bearer x"};
  f.server.expect({.method = "PUT", .path = "/c/a.ics", .fields = {preset}, .body = "x"});
  f.server.expect({.path = "/c/a.ics", .fields = {preset}}, {.status = 401, .challenges = {{}}});
  f.collection->createResource_withName_context(NSData::dataWithBytes("x"), "a", "preset");
  EXPECT_THAT(f.eventsAfter(), ElementsAre("failed KBTDavConnection 401 [preset]"));
}

// Nobody is told, and all goes on.
TEST(KBTDavConnection, NeedsNoDelegate) {
  Fixture f;
  f.collection->setDelegate(nullptr);
  f.server.setOnRequest([&, isRefused = false](const testing::ReceivedRequest& request) mutable {
    f.server.expect({.method = request.method, .path = request.path, .body = testing::anyBody},
                    {.status = isRefused ? 403U : 200U, .fields = {{"ETag", "1"}}});
    isRefused = !isRefused;
  });
  const NSDate now = NSDate::date();
  const std::function<void()> requests[] = {
      [&] { f.collection->reportCTagWithContext({}); },
      [&] { f.collection->reportFreebusyFromDate_toDate_context(now, now, {}); },
      [&] { f.collection->multigetEventsForAddresses_context({}, {}); },
      [&] { f.collection->createResource_withName_context({}, "a", {}); },
      [&] { f.collection->updateResource_withName_andETag_context({}, "a", {}, {}); },
      [&] { f.collection->deleteResourceWithName_andETag_context("a", {}, {}); },
      [&] { f.collection->removeCalendar(); }};
  for (const auto& request : requests) {
    request();
    request();
  }
  EXPECT_TRUE(runUntil([&] { return f.server.requests().size() == 14; }));
}

TEST(KBTDavConnection, NamesMeanWhatTheyMeanInAnyAddress) {
  Fixture f;
  const NSData text = NSData::dataWithString("x");
  for (const char* name : {"mailto:a", "a\tb", "a\xff"}) {
    f.collection->updateResource_withName_andETag_context(text, name, std::nullopt, name);
  }
  f.server.expect({.method = "PUT", .path = "/c/a", .fields = {{"If-Match:", ""}}, .body = "x"},
                  {.status = 204, .fields = {{"ETag", "\"1\""}}});
  f.collection->updateResource_withName_andETag_context(text, "a#b", "", "fragment");
  EXPECT_THAT(f.eventsAfter(4),
              ElementsAre("failed NSURLErrorDomain -1002 [mailto:a]",
                          "failed NSURLErrorDomain -1000 [a\tb]",
                          "failed NSURLErrorDomain -1000 [a\xff]", "updated \"1\" [fragment]"));
}

// The GETs come after what was waiting already, and go where the answer came from.
TEST(KBTDavConnection, AsksForTheEntityTagUntilThereIsOne) {
  const NSData text = NSData::dataWithString("x");
  Fixture f;
  f.server.expect({.method = "PUT", .path = "/c/a.ics", .body = testing::anyBody},
                  {.status = 307, .fields = {{"Location", "/d/a.ics"}}});
  f.server.expect({.method = "PUT", .path = "/d/a.ics", .body = "x"}, {.status = 201});
  f.server.expect({.method = "PUT", .path = "/c/b.ics", .body = "x"}, {.status = 204});
  f.server.expect({.path = "/d/a.ics", .noOtherFields = true}, {.body = "no tag"});
  f.server.expect({.path = "/c/b.ics", .noOtherFields = true}, {.fields = {{"ETag", "5"}}});
  f.server.expect({.path = "/d/a.ics", .noOtherFields = true}, {.fields = {{"ETag", "9"}}});
  f.collection->createResource_withName_context(text, "a", "a");
  f.collection->updateResource_withName_andETag_context(text, "b", std::nullopt, "b");
  EXPECT_THAT(f.eventsAfter(2), ElementsAre("updated 5 [b]", "created 9 [a]"));
}

TEST(KBTDavConnection, ItsOwnRemovalIsOverWhateverCameOfIt) {
  Fixture f;
  for (const unsigned status : {204U, 403U}) {
    f.server.expect({.method = "DELETE", .path = "/c/", .noOtherFields = true}, {.status = status});
    f.collection->removeCalendar();
  }
  EXPECT_THAT(f.eventsAfter(2), ElementsAre("removed []", "removed []"));
}

TEST(KBTDavConnection, CancelEndsEverythingOnceAndSendsNothingMore) {
  Fixture f;
  f.server.expect({.method = "PROPFIND", .path = "/c/", .body = testing::anyBody}, {.status = 207});
  // From within the first answer, with two waiting.
  f.host->onEvent = [&] {
    if (f.host->events.size() == 1) f.collection->cancel();
  };
  for (const char* context : {"1", "2", "3"}) f.collection->reportCTagWithContext(context);
  f.collection->removeCalendar();
  EXPECT_THAT(f.eventsAfter(4), ElementsAre("ctag (null) [1]", "failed NSURLErrorDomain -999 [2]",
                                            "failed NSURLErrorDomain -999 [3]", "removed []"));
  NSRunLoop::currentRunLoop().runUntilDate(NSDate::date());
  EXPECT_EQ(f.host->events.size(), 4U);
  EXPECT_EQ(f.server.requests().size(), 1U);
  // It goes on afterwards.
  f.server.expect({.method = "PROPFIND", .path = "/c/", .body = testing::anyBody}, {.status = 207});
  f.collection->reportCTagWithContext("5");
  EXPECT_EQ(f.eventsAfter(5).back(), "ctag (null) [5]");
}

TEST(KBTDavConnection, KnowsWhatItMayHold) {
  const auto kindsOf = [](const char* xml) {
    const auto document = HWXMLDocument::initWithData(NSData::dataWithBytes(xml));
    const auto collection = collectionOf(principalAt("http://h/c/"), document->rootElement());
    return std::pair(collection->canContainEvents(), collection->canContainTodos());
  };
  EXPECT_EQ(kindsOf("<s><C:comp xmlns:C='x' name='VTODO'/></s>"), std::pair(false, true));
  EXPECT_EQ(kindsOf("<s><comp name='VEVENT'/>t<comp name='VTODO'/></s>"), std::pair(true, true));
  EXPECT_EQ(kindsOf("<s><comp name='VTODO'/><comp name='VEVENT'/></s>"), std::pair(true, true));
  EXPECT_EQ(kindsOf("<s><comp name='VJOURNAL'/><other name='VEVENT'/><comp/></s>"),
            std::pair(false, false));
  const auto collection = collectionOf(principalAt("http://h/c/"));
  EXPECT_TRUE(collection->canContainEvents() && collection->canContainTodos());
  EXPECT_EQ(collection->description(), "Work") << "in place of none";
}

TEST(KBTDavConnection, ReadsTheRowsOfAnyMultiStatus) {
  struct Collection : KBTDavConnection {
    using KBTDavConnection::_arrayForReportResponse_withKeys;
  };
  const auto rowsOf = [](const char* xml) {
    const auto request = KBTDavRequest::initWithRequest_withCompletionSelector_context_internal(
        NSMutableURLRequest(), nullptr, {}, false);
    request->appendData(NSData::dataWithBytes(xml));
    return Collection::_arrayForReportResponse_withKeys(*request, {"a", "b/c", "d"});
  };
  using Row = KBTDavResourceTexts;
  EXPECT_THAT(
      rowsOf("<m><response><propstat><prop><a>1</a><b><c>2</c></b><d/></prop></propstat></response>"
             "<response><propstat><status>s</status></propstat></response><none/>"
             "<other><propstat><prop/></propstat><propstat><prop><a>3</a></prop></propstat></other>"
             "</m>"),
      ElementsAre(Row{{"a", "1"}, {"b/c", "2"}}, Row{}));
  EXPECT_THAT(rowsOf("no XML"), ElementsAre());
}

// Also of a class of the host's own, and each of several.
TEST(KBTDavConnection, KeepsItsDelegateWhenItIsGoneItself) {
  struct Collection : KBTDavConnection {
    using KBTDavConnection::KBTDavConnection, KBTDavConnection::openSession;
  };
  const auto principal = principalAt("http://127.0.0.1:1/c/");
  std::vector<std::weak_ptr<CollectionHost>> watched;
  while (watched.size() < 3) {
    const auto collection = makeObject<Collection>("c", std::nullopt, principal->principalURL(),
                                                   principal, std::optional<HWXMLElement>());
    collection->openSession();
    auto host = std::make_shared<CollectionHost>();
    watched.push_back(host);
    collection->setDelegate(std::move(host));
  }
  for (const auto& host : watched) EXPECT_FALSE(host.expired());
  principal->invalidate();
  for (const auto& host : watched) EXPECT_TRUE(host.expired());
}

TEST(KBTDavConnection, KeepsItsDelegatesUntilThePrincipalIsInvalid) {
  ScriptedServer server;
  server.expect({.method = "PROPFIND", .path = "/c/", .body = testing::anyBody}, {.held = true});
  const auto principal = principalAt(server.url("/c/"));
  auto collection = collectionOf(principal);
  auto host = std::make_shared<CollectionHost>();
  const std::weak_ptr<CollectionHost> first = host;
  collection->setDelegate(host);
  host = std::make_shared<CollectionHost>();
  const std::weak_ptr<CollectionHost> second = host;
  collection->setDelegate(host);
  host.reset();
  EXPECT_FALSE(first.expired()) << "also when another was set";

  collection->reportCTagWithContext("held");
  ASSERT_TRUE(runUntil([&] { return !server.requests().empty(); }));
  std::vector<std::string> events;
  second.lock()->onEvent = [&events, host = second.lock().get()] { events = host->events; };
  principal->invalidate();
  collection->reportCTagWithContext("late");
  ASSERT_TRUE(runUntil([&] { return events.size() == 2; }));
  EXPECT_THAT(events, ElementsAre("failed NSURLErrorDomain -999 [held]",
                                  "failed NSURLErrorDomain -999 [late]"));
  EXPECT_TRUE(runUntil([&] { return first.expired() && second.expired(); }));
  collection->reportCTagWithContext("to nobody");
  const std::weak_ptr<KBTDavConnection> watched = collection;
  collection.reset();
  EXPECT_TRUE(runUntil([&] { return watched.expired(); }));
  server.release();
}

#ifndef __has_feature
#define __has_feature(feature) 0
#endif
constexpr bool isUnderSanitizer =
    __has_feature(address_sanitizer);  // which takes memory of its own

// A file of /proc, by the numbers of its lines: "VmHWM:  1234 kB".
std::size_t kilobytes(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    std::size_t number = 0;
    if (word == key + ':' && status >> number) return number;
  }
  return 0;
}

// Small answers that unpack to much, or whose tree takes far more than its text.
TEST(KBTDavConnection, AnAnswerOutOfProportionIsAnError) {
  const auto times = [](std::string_view unit, std::size_t bytes) {  // in blocks, to keep it small
    std::string block;
    while (block.size() < (1U << 16)) block += unit;
    return testing::gzipOf(block, bytes / block.size());
  };
  std::string noise;  // of which nearly all is left when it is packed
  for (const char c : testing::noiseOf(1'400'000)) noise += "0123456789ABCDEF"[c & 0xF];
  const std::string padding = testing::gzipOf("<!--" + noise + "-->");
  constexpr std::size_t mebibyte = 1 << 20;
  const std::string row =
      "\n <response>\n  <href>/c/1</href>\n  <propstat>\n   <prop>\n    <getetag>1</getetag>\n   "
      "</prop>\n   <status>HTTP/1.1 200 OK</status>\n  </propstat>\n </response>";
  const struct {
    const char* what;
    std::string packed;
    bool isGood;
  } rows[] = {
      {"unpacks to more than 16 MiB", times("<a/>", 17 * mebibyte), false},
      {"16 MiB of elements", times("<a/>", 15 * mebibyte), false},
      {"texts", times("<a>x</a>", 15 * mebibyte), false},
      {"elements and texts", times("<a/>x", 15 * mebibyte), false},
      {"attributes", times("<a b=''/>", 15 * mebibyte), false},
      {"responses", padding + times("<response/>", 80 * mebibyte), false},
      {"close to a hundred times", padding + times("<a/>", 80 * mebibyte), false},
      {"as many responses as there may be", padding + times("<response/>", 21 * mebibyte), true},
      {"all text", padding + times("some text of no element ", 80 * mebibyte), true},
      {"a listing", times(row, 15 * mebibyte), true},
      {"a longer one, out of proportion", padding + times(row, 30 * mebibyte), false},
  };
  for (const auto& [what, packed, isGood] : rows) {
    Fixture f;
    const std::string answer =
        testing::gzipOf("<multistatus>") + packed + testing::gzipOf("</multistatus>");
    ASSERT_LT(answer.size(), mebibyte) << what;
    f.server.expect({.method = "REPORT", .path = "/c/", .body = testing::anyBody},
                    {.status = 207, .fields = {{"Content-Encoding", "gzip"}}, .body = answer});
    ::malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << 5;  // the peak begins anew
    const std::size_t before = kilobytes("VmRSS");
    f.collection->reportEvents_includingContents_fromDate_toDate_context(true, false, {}, {}, "l");
    ASSERT_TRUE(runUntil([&] { return !f.host->events.empty(); }, 60)) << what;
    const std::string& event = f.host->events.front();
    EXPECT_EQ(event.starts_with("events") ? "good" : event,
              isGood ? "good" : "failed NSURLErrorDomain -1103 [l]")
        << what;
    const std::size_t cost = kilobytes("VmHWM") - before;
    EXPECT_LE(isUnderSanitizer ? 0 : cost, 256U << 10) << what;
  }
  // What is large as it comes may take as much as a listing does.
  Fixture f;
  std::string plain = "<multistatus>";
  while (plain.size() < 24 * mebibyte) plain += row;
  f.server.expect({.method = "REPORT", .path = "/c/", .body = testing::anyBody},
                  {.status = 207, .body = plain + "</multistatus>"});
  f.collection->reportEvents_includingContents_fromDate_toDate_context(true, false, {}, {}, "l");
  ASSERT_TRUE(runUntil([&] { return !f.host->events.empty(); }, 60));
  EXPECT_EQ(f.host->error, nullptr);
}

}  // namespace
}  // namespace quillmere
