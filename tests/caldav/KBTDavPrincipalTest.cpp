#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/platform/base/makeObject.h>

#include <regex>

#include "tests/support/CalDavAnswers.h"
#include "tests/support/CollectionHost.h"
#include "tests/support/PrincipalHost.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/SessionHost.h"

namespace quillmere {
namespace {

using testing::Answer;
using testing::anyBody;
using ::testing::ElementsAre;
using testing::ExpectedRequest;
using testing::HeaderField;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using testing::multistatus;
using testing::PrincipalHost;
using testing::response;
using testing::runUntil;
using testing::ScriptedServer;

const HeaderField xmlType{"Content-Type", "text/xml; charset=\"utf-8\""};
constexpr const char* declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
constexpr const char* caldav = " xmlns=\"urn:ietf:params:xml:ns:caldav\"";

Answer found(const std::string& href, const std::string& props) {
  return multistatus(response(href, props));
}

Answer ownPrincipal(const std::string& href = "/p/alice/") {
  return found("/", "<current-user-principal><href>" + href + "</href></current-user-principal>");
}

ExpectedRequest propfind(const std::string& path, const char* depth, const std::string& props) {
  return {.method = "PROPFIND",
          .path = path,
          .fields = {xmlType, {"Accept", "text/xml"}, {"Depth", depth}},
          .body = std::string(declaration) + "<propfind xmlns=\"DAV:\"><prop>" + props +
                  "</prop></propfind>",
          .noOtherFields = true};
}

ExpectedRequest whoAmI(const std::string& path) {
  return propfind(path, "0", "<current-user-principal/>");
}

ExpectedRequest readPrincipal(const std::string& path = "/p/alice/") {
  return propfind(path, "0",
                  "<displayname xmlns=\"DAV:\"/><calendar-user-address-set" + std::string(caldav) +
                      "/><calendar-home-set" + caldav + "/><schedule-outbox-URL" + caldav +
                      "/><group-membership xmlns=\"DAV:\"/><principal-collection-set "
                      "xmlns=\"DAV:\"/>");
}

ExpectedRequest listCalendars(const std::string& path = "/c/alice/") {
  return propfind(path, "1",
                  "<resourcetype xmlns=\"DAV:\"/><displayname xmlns=\"DAV:\"/>"
                  "<current-user-privilege-set xmlns=\"DAV:\"/><owner xmlns=\"DAV:\"/>"
                  "<calendar-description" +
                      std::string(caldav) + "/><supported-calendar-component-set" + caldav + "/>");
}

constexpr const char* homeAndOutbox =
    "<calendar-home-set><href>/c/alice</href></calendar-home-set>"
    "<schedule-outbox-URL><href>/c/alice/out/</href></schedule-outbox-URL>";
constexpr const char* mailAddress =
    "<calendar-user-address-set><href>mailto:alice@example.com</href>"
    "</calendar-user-address-set>";

// A principal of a scripted server, and its host.
struct Fixture {
  ScriptedServer server;
  std::shared_ptr<PrincipalHost> host = std::make_shared<PrincipalHost>();
  std::shared_ptr<KBTDavPrincipal> principal;

  explicit Fixture(const std::string& path = "/dav/") {
    principal = KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
        host, "alice", "secret", NSURL::URLWithString(server.url(path)).value());
  }
  ~Fixture() { principal->invalidate(); }
  Fixture(const Fixture&) = delete;
  Fixture& operator=(const Fixture&) = delete;

  std::vector<std::string> eventsAfter(std::size_t count = 1) {
    runUntil([&] { return host->events.size() >= count; });
    return std::exchange(host->events, {});
  }
  std::vector<std::string> login() {
    principal->login();
    return eventsAfter();
  }
  // Logs in to where the principal's properties and the listing of its home are these.
  std::vector<std::string> loginTo(const Answer& properties, const Answer& listing) {
    server.expect(whoAmI(principal->principalURL().path()), ownPrincipal());
    server.expect(readPrincipal(), properties);
    server.expect(listCalendars(), listing);
    return login();
  }
  std::vector<std::string> loginAs(const std::string& props) {
    return loginTo(found("/p/alice/", props), multistatus(""));
  }
  std::string pathOf(const NSURL& url) const {
    EXPECT_TRUE(url.absoluteString().starts_with(server.url(""))) << url.absoluteString();
    return url.path();
  }
};

TEST(KBTDavPrincipal, GivesItsIdentityAndOwnsItsDelegateUntilItIsInvalid) {
  const NSURL server = NSURL::URLWithString("http://127.0.0.1:1/dav/").value();
  auto delegate = std::make_shared<PrincipalHost>();
  const std::weak_ptr<PrincipalHost> watched = delegate;
  const auto principal = KBTDavPrincipal::initWithDelegate_username_andPassword_forServer_isCurrent(
      std::move(delegate), "alice", "secret", server, false);
  EXPECT_EQ(principal->principalCollectionURL(), server);
  EXPECT_FALSE(principal->isCurrentPrincipal());

  const auto info = KBTPrincipalInfo::init();
  EXPECT_EQ(principal->principalFromInfo(*info), nullptr);
  info->setPrincipalURL(NSURL::URLWithString("http://127.0.0.1:1/p/bob/"));
  const auto other = principal->principalFromInfo(*info);
  EXPECT_EQ(other->principalURL(), info->principalURL());
  EXPECT_EQ(other->user(), "alice");
  EXPECT_EQ(other->password(), "secret");
  EXPECT_TRUE(other->isCurrentPrincipal());

  principal->invalidate();
  EXPECT_FALSE(watched.expired());
  other->invalidate();
  EXPECT_TRUE(watched.expired());

  // A collection made after the end has ended as well, and takes no delegate.
  const auto late = KBTDavConnection::initWithCalendarName_description_URL_forPrincipal(
      "Late", std::nullopt, server, principal);
  auto listener = std::make_shared<testing::CollectionHost>();
  const std::weak_ptr<testing::CollectionHost> kept = listener;
  late->setDelegate(std::move(listener));
  EXPECT_TRUE(kept.expired());
}

TEST(KBTDavPrincipal, ASubclassMakesPrincipalsOfItsOwnKind) {
  struct Subclass : KBTDavPrincipal {
    explicit Subclass(const NSURL& server)
        : KBTDavPrincipal(nullptr, std::nullopt, std::nullopt, server, true) {}
    std::shared_ptr<KBTDavPrincipal> newPrincipalForServer(const NSURL& server) const override {
      return makeObject<Subclass>(server);
    }
  };
  const NSURL server = NSURL::URLWithString("http://127.0.0.1:1/").value();
  const auto info = KBTPrincipalInfo::init();
  info->setPrincipalURL(server);
  const auto other = makeObject<Subclass>(server)->principalFromInfo(*info);
  EXPECT_NE(std::dynamic_pointer_cast<Subclass>(other), nullptr);
}

// No other credential goes out in its place.
TEST(KBTDavPrincipal, EveryRequestHasThePresetAuthorization) {
  Fixture f;
  f.principal->setAuthorization("Bearer x");
  const auto preset = [](ExpectedRequest request) {
    request.fields.insert(request.fields.begin(), {"Authorization", "Bearer x"});
    return request;
  };
  f.server.expect(preset(whoAmI("/dav/")), ownPrincipal());
  f.server.expect(preset(readPrincipal()), found("/p/alice/", homeAndOutbox));
  f.server.expect(preset(listCalendars()), {.status = 401, .challenges = {{}}});
  EXPECT_THAT(f.login(), ElementsAre("failed KBTDavConnection 401 unauthorized"));

  f.server.expect(preset({.method = "POST", .path = "/c/alice/out/", .body = anyBody}));
  f.principal->requestFreebusyForPrincipalURN_fromDate_toDate_context("mailto:b", NSDate::date(),
                                                                      NSDate::date(), {});
  f.server.expect(preset({.method = "REPORT", .path = "/dav/", .body = anyBody}));
  f.principal->reportPrincipalInfoForUserAddress_context("b", {});
  f.server.expect(preset({.method = "MKCALENDAR", .path = "/c/alice/w/", .body = anyBody}));
  f.principal->createCalendarAtPath_withName_andDescription("w", "W", "");
  EXPECT_EQ(f.eventsAfter(3).size(), 3U);
}

// Which addresses are asked when each refuses with a status.
TEST(KBTDavPrincipal, LooksForThePrincipalAtFourAddressesAtMost) {
  const struct {
    const char* server;
    std::vector<std::pair<const char*, unsigned>> answers;  // path and status
    const char* outcome;
  } rows[] = {
      {"/dav/",
       {{"/dav/", 404}, {"/dav/principals/", 405}, {"/dav/calendars/", 403}, {"/", 410}},
       "failed KBTDavConnection 410 gone"},
      {"/dav", {{"/dav", 400}, {"/principals/", 401}}, "failed KBTDavConnection 401 unauthorized"},
      {"/dav/",
       {{"/dav/", 499}, {"/dav/principals/", 500}},
       "failed KBTDavConnection 500 internal server error"},
      // Below the root, "/" is where it began.
      {"/",
       {{"/", 404}, {"/principals/", 404}, {"/calendars/", 404}, {"/", 404}},
       "failed KBTDavConnection 404 not found"},
      // The last component of the server's own path does not make it a candidate.
      {"/calendars/",
       {{"/calendars/", 404},
        {"/calendars/principals/", 404},
        {"/calendars/calendars/", 404},
        {"/", 404}},
       "failed KBTDavConnection 404 not found"},
  };
  for (const auto& row : rows) {
    Fixture f(row.server);
    for (const auto& [path, status] : row.answers) {
      f.server.expect(whoAmI(path), {.status = status});
    }
    EXPECT_THAT(f.login(), ElementsAre(row.outcome));
    EXPECT_EQ(f.principal->principalLookupFailure(), nullptr);
  }
}

// What is found there is relative to the server's address all the same.
TEST(KBTDavPrincipal, LogsInFromALaterCandidate) {
  Fixture f;
  f.server.expect(whoAmI("/dav/"), {.status = 403});
  f.server.expect(whoAmI("/dav/principals/"), ownPrincipal(" \nalice/ "));
  f.server.expect(readPrincipal("/dav/alice/"), found("/dav/alice/", homeAndOutbox));
  f.server.expect(listCalendars(), multistatus(""));
  f.principal->findPrincipalURLForCurrentUserWithContext("mine");
  EXPECT_THAT(f.eventsAfter(), ElementsAre("logged in"));
}

// To an address that is no candidate.
TEST(KBTDavPrincipal, GoesOnFromWhereARedirectLed) {
  Fixture f;
  f.server.expect(whoAmI("/dav/"), {.status = 302, .fields = {{"Location", "/elsewhere/"}}});
  ExpectedRequest redirected = whoAmI("/elsewhere/");
  redirected.noOtherFields = false;
  f.server.expect(redirected, {.status = 404});
  EXPECT_THAT(f.login(), ElementsAre("failed KBTDavConnection 404 not found"));
}

TEST(KBTDavPrincipal, AnAnswerWithoutPrincipalEndsTheLogin) {
  const auto current = [](const char* inside) {
    return response("/",
                    "<current-user-principal>" + std::string(inside) + "</current-user-principal>");
  };
  // Only the first response and its first propstat are read.
  for (const Answer& answer : {Answer{.body = "<html>"}, multistatus(current("<unauthenticated/>")),
                               multistatus(current("<href> </href>")),
                               multistatus(response("/", "") + current("<href>/p/</href>"))}) {
    Fixture f;
    f.server.expect(whoAmI("/dav/"), answer);
    EXPECT_THAT(f.login(), ElementsAre("failed KBTDavConnection 3 unknown CalDav error"));
    EXPECT_EQ(f.principal->principalLookupFailure(), nullptr);
  }
}

TEST(KBTDavPrincipal, AFailedStepEndsTheLoginAndKeepsWhatWasFound) {
  Fixture f;
  f.server.expect(whoAmI("/dav/"), ownPrincipal("alice"));
  f.server.expect(readPrincipal("/dav/alice"), {.status = 404});
  EXPECT_THAT(f.login(), ElementsAre("failed KBTDavConnection 404 not found"));
  EXPECT_EQ(f.pathOf(f.principal->principalURL()), "/dav/alice");
  // A second login starts from there.
  EXPECT_THAT(f.loginTo(found("/p/alice/", homeAndOutbox), {.status = 503}),
              ElementsAre("failed KBTDavConnection 503 service unavailable"));
  EXPECT_EQ(f.pathOf(f.principal->principalURL()), "/p/alice/");
}

TEST(KBTDavPrincipal, NeedsHomeAndOutbox) {
  const std::string home = "<calendar-home-set><href>/c/alice/</href></calendar-home-set>";
  const std::string outbox = "<schedule-outbox-URL><href>/o/</href></schedule-outbox-URL>";
  for (const Answer& answer :
       {found("/", home), found("/", outbox),
        found("/", "<calendar-home-set><href/></calendar-home-set>" + outbox),
        multistatus(response("/", "") + response("/", home + outbox)), Answer{.body = "<html>"}}) {
    Fixture f;
    int announced = 0;
    const auto observation = f.principal->observeKey_changeHandler("principalLookupFailure", [&] {
      EXPECT_NE(f.principal->principalLookupFailure(), nullptr);
      EXPECT_THAT(f.host->events, IsEmpty());
      ++announced;
    });
    f.server.expect(whoAmI("/dav/"), ownPrincipal());
    f.server.expect(readPrincipal(), answer);
    EXPECT_THAT(f.login(), ElementsAre("failed KBTDavConnection 1 Not able to determine outbox or "
                                       "calendar home from server"));
    EXPECT_EQ(f.principal->principalLookupFailure(), f.host->error);
    EXPECT_EQ(announced, 1);
  }
}

std::string addresses(const std::vector<const char*>& texts) {
  std::string set = "<calendar-user-address-set>";
  for (const char* text : texts) set += "<href>" + std::string(text) + "</href>";
  return set + "</calendar-user-address-set>";
}

TEST(KBTDavPrincipal, ReadsThePrincipal) {
  const struct {
    std::vector<const char*> addresses;
    std::optional<std::string> originator;
  } rows[] = {
      {{"/p/alice/", "mailto:a@example.com", "mailto:b@example.com"}, "mailto:a@example.com"},
      {{"mailto:a@example.com", "urn:uuid:1", "urn:uuid:2", "http://h/"}, "urn:uuid:2"},
      {{"MAILTO:a@example.com", "/p/alice/"}, std::nullopt},
  };
  for (const auto& row : rows) {
    Fixture f;
    EXPECT_THAT(f.loginAs(std::string(homeAndOutbox) + addresses(row.addresses)),
                ElementsAre("logged in"));
    EXPECT_EQ(f.principal->originator(), row.originator);
  }

  // The outbox may be a text without href. Elements without meaning are passed over.
  Fixture f;
  EXPECT_THAT(
      f.loginAs("\n<displayname>Alice &amp; Søren</displayname><X/>"
                "<calendar-home-set><href>/c/alice</href></calendar-home-set>"
                "<schedule-outbox-URL>/c/alice/out</schedule-outbox-URL>"
                "<group-membership><href>/p/x/calendar-proxy-write/</href>"
                "<href>/p/y/calendar-proxy-read/</href><href>/p/z/calendar-proxy-write</href>"
                "<group>/p/w/calendar-proxy-write/</group>"
                "<href>v/calendar-proxy-write/</href></group-membership>"
                "<principal-collection-set><href>/q/</href><href>r/</href>"
                "</principal-collection-set>"),
      ElementsAre("logged in"));
  EXPECT_EQ(f.principal->displayName(), "Alice & Søren");
  EXPECT_EQ(f.principal->originator(), std::nullopt);
  ASSERT_EQ(f.principal->readWriteProxies().size(), 2U);
  EXPECT_EQ(f.pathOf(f.principal->readWriteProxies()[0]), "/p/x");
  EXPECT_EQ(f.pathOf(f.principal->readWriteProxies()[1]), "/p/alice/v");
  EXPECT_EQ(f.pathOf(f.principal->principalCollectionURL()), "/p/alice/r/");

  f.server.expect({.method = "POST", .path = "/c/alice/out/", .body = anyBody}, {.status = 500});
  f.principal->requestFreebusyForPrincipalURN_fromDate_toDate_context("mailto:b", NSDate::date(),
                                                                      NSDate::date(), {});
  EXPECT_EQ(f.eventsAfter().size(), 1U);
}

std::string calendar(const std::string& href, const std::string& props,
                     const char* status = "HTTP/1.1 200 OK") {
  return response(href, "<resourcetype><calendar/><collection/></resourcetype>" + props, status);
}

// Addresses are never forgotten, memberships always; and what a login did not find it leaves alone.
TEST(KBTDavPrincipal, ASecondLoginAddsToTheFirst) {
  Fixture f;
  const std::string proxy =
      "<group-membership><href>/p/x/calendar-proxy-write/</href></group-membership>";
  f.loginAs(homeAndOutbox + addresses({"urn:uuid:1", "mailto:a@example.com"}) + proxy);
  EXPECT_EQ(f.principal->readWriteProxies().size(), 1U);
  // Its first propstat counts, whatever its status; and the outbox is still known.
  const std::string later =
      "<group-membership/><calendar-home-set><href> </href></calendar-home-set>"
      "<schedule-outbox-URL/>" +
      addresses({"mailto:b@example.com"});
  EXPECT_THAT(f.loginTo(multistatus(response("/p/alice/", later, "HTTP/1.1 404 Not Found")),
                        multistatus(calendar("w/", "<displayname>W</displayname>"))),
              ElementsAre("logged in"));
  EXPECT_THAT(f.principal->readWriteProxies(), IsEmpty());
  EXPECT_EQ(f.principal->originator(), "urn:uuid:1");
  for (const char* own : {"mailto:a@example.com", "mailto:b@example.com"}) {
    f.principal->reportPrincipalInfoForUserAddress_context(own, {});
    EXPECT_EQ(std::exchange(f.host->events, {}).size(), 1U) << own;
  }
  // A failed listing leaves the calendars as they were.
  EXPECT_THAT(f.loginTo(found("/p/alice/", ""), {.status = 500}),
              ElementsAre("failed KBTDavConnection 500 internal server error"));
  EXPECT_EQ(f.principal->calendars().size(), 1U);
}

TEST(KBTDavPrincipal, ListsCalendars) {
  const auto named = [](const std::string& name) {
    return "<displayname>" + name + "</displayname>";
  };
  const auto granting = [](const std::string& privileges) {
    return "<displayname>x</displayname><current-user-privilege-set>" + privileges +
           "</current-user-privilege-set>";
  };
  Fixture f;
  std::size_t announced = 0;
  const auto observation = f.principal->observeKey_changeHandler("calendars", [&] {
    announced = f.principal->calendars().size();
    EXPECT_THAT(f.host->events, IsEmpty());
  });
  const Answer listing = multistatus(
      response("/c/alice/", "<resourcetype><collection/></resourcetype>" + named("Home")) +
      response("/c/alice/in/", "<resourcetype><schedule-inbox/></resourcetype>" + named("In")) +
      calendar("/c/alice/a/", granting("<privilege><read/></privilege>"
                                       "<privilege><write-content/></privilege>") +
                                  "<calendar-description>All</calendar-description>"
                                  "<supported-calendar-component-set><comp name=\"VTODO\"/>"
                                  "</supported-calendar-component-set>") +
      calendar("b/", granting("<privilege><all/><write/></privilege>")) +
      calendar("/c/alice/c/", named("WORK")) + calendar("/c/alice/d/", named("Work")) +
      calendar("/c/alice/nameless/", "<displayname/>") +
      calendar("/c/alice/low/", named("Low"), "HTTP/1.1 200 ok") + calendar("", named("Nowhere")) +
      "<response><href>/e/</href><status>HTTP/1.1 200 OK</status></response>"
      "<response><href>/e/</href><propstat><status>HTTP/1.1 200 OK</status>"
      "</propstat></response>" +
      std::regex_replace(calendar("/e/", named("E")), std::regex("response"), "responses"));
  EXPECT_THAT(f.loginTo(found("/p/alice/", homeAndOutbox), listing), ElementsAre("logged in"));
  EXPECT_EQ(announced, 4U);
  const auto calendars = f.principal->calendars();
  ASSERT_EQ(calendars.size(), 4U);
  EXPECT_EQ(f.pathOf(calendars[0]->URL()), "/c/alice/a/");
  EXPECT_EQ(calendars[0]->name(), "x");
  EXPECT_EQ(calendars[0]->description(), "All");
  EXPECT_TRUE(calendars[0]->writable());
  EXPECT_FALSE(calendars[0]->canContainEvents());
  EXPECT_TRUE(calendars[0]->canContainTodos());
  EXPECT_EQ(f.pathOf(calendars[1]->URL()), "/c/alice/b/");
  EXPECT_EQ(calendars[1]->description(), "x");
  EXPECT_FALSE(calendars[1]->writable());
  EXPECT_TRUE(calendars[1]->canContainEvents());

  EXPECT_EQ(f.principal->calendarNamed("Work"), calendars[3]);
  EXPECT_EQ(f.principal->calendarNamed("work"), nullptr);
  EXPECT_EQ(f.principal->caseInsensitiveCalendarNamed("work"), calendars[2]);
  EXPECT_EQ(f.principal->caseInsensitiveCalendarNamed("\xff"), nullptr);

  // Each listing replaces the last; one that is no XML is empty.
  EXPECT_THAT(f.loginTo(found("/p/alice/", homeAndOutbox), {.status = 200, .body = "<html>"}),
              ElementsAre("logged in"));
  EXPECT_EQ(announced, 0U);
  EXPECT_THAT(f.principal->calendars(), IsEmpty());
}

TEST(KBTDavPrincipal, IsQuietOnceInvalid) {
  Fixture f;
  f.server.expect(whoAmI("/dav/"), {.status = 404, .held = true});
  f.principal->login();
  EXPECT_TRUE(runUntil([&] { return f.server.requests().size() == 1; }));
  f.principal->invalidate();
  EXPECT_THAT(f.eventsAfter(), ElementsAre(MatchesRegex("failed NSURLErrorDomain -999 .*")));
  f.server.release();
  f.principal->login();
  runUntil([&, turns = 0]() mutable { return ++turns > 3; });
  EXPECT_THAT(f.host->events, IsEmpty());
}

// Services.

TEST(KBTDavPrincipal, AsksWhenSomebodyIsBusy) {
  Fixture f;
  f.loginAs(std::string(homeAndOutbox) + mailAddress);
  const auto answer = [](const std::string& inside) {
    return "<schedule-response><response>"
           "<recipient><href>mailto:bob@example.com</href></recipient>" +
           inside + "</response></schedule-response>";
  };
  const auto status = [&](const std::string& text) {
    return answer("<request-status>" + text + "</request-status>");
  };
  const std::string data =
      answer("<calendar-data>FREEBUSY:20240105T090000Z/PT1H,20240106T090000Z/PT1H</calendar-data>");
  const std::string failed = "failed KBTDavConnection 3 ";
  const struct {
    unsigned status;
    std::string body;
    std::string outcome;
  } rows[] = {
      {500, data, "freebusy 2 [busy]"},  // whatever became of the request
      {200, answer("<calendar-data/>"), "freebusy 0 [busy]"},
      {200, answer("<calendar-data>\n<x>FREEBUSY:20240105T090000Z/PT1H</x>\n</calendar-data>"),
       "freebusy 1 [busy]"},
      {200, answer("<calendar-data>FREEBUSY:20240105T090000Z</calendar-data>"),
       failed + "unknown CalDav error"},
      {200, status("3.8;No authority"),
       failed + "The CalDAV server at 127.0.0.1 denied request for free/busy information for "
                "recipient mailto:bob@example.com"},
      {200, status("3.80;Nearly"), failed + "3.80;Nearly"},
      {200, answer(""), failed + "unknown CalDav error"},
      {403, "<html>", failed + "unknown CalDav error"},
  };
  for (const auto& row : rows) {
    f.server.expect({.method = "POST",
                     .path = "/c/alice/out/",
                     .fields = {{"Content-Type", "text/calendar"},
                                {"Accept", "text/xml"},
                                {"Accept-Encoding", "gzip"},
                                {"Originator", "mailto:alice@example.com"},
                                {"Recipient", "mailto:bob@example.com"}},
                     .body = anyBody,
                     .noOtherFields = true},
                    {.status = row.status, .body = row.body});
    f.principal->requestFreebusyForPrincipalURN_fromDate_toDate_context(
        "mailto:bob@example.com", NSDate::initWithICSDateString("20240105T000000Z").value(),
        NSDate::initWithICSDateString("20240107T000000Z").value(), "busy");
    EXPECT_THAT(f.eventsAfter(), ElementsAre(row.outcome));
  }
  EXPECT_EQ(f.principal->principalLookupFailure(), nullptr);

  const auto requests = f.server.requests();
  const std::string& body = requests.back().body;
  EXPECT_THAT(body, MatchesRegex("BEGIN:VCALENDAR\nVERSION:2.0\n"
                                 "PRODID:-//Tessaly//KBTDavConnection//EN\nMETHOD:REQUEST\n"
                                 "BEGIN:VFREEBUSY\nDTSTAMP:[0-9]+T[0-9]+Z\n"
                                 "ORGANIZER:mailto:alice@example.com\nDTSTART:20240105T000000Z\n"
                                 "DTEND:20240107T000000Z\nUID:[0-9A-F-]+\n"
                                 "ATTENDEE:mailto:bob@example.com\nEND:VFREEBUSY\n"
                                 "END:VCALENDAR\n"));
  const auto uid = [](const std::string& text) { return text.substr(text.find("UID:"), 40); };
  EXPECT_NE(uid(body), uid(requests[requests.size() - 2].body));
}

TEST(KBTDavPrincipal, SearchesPrincipals) {
  Fixture f;
  f.loginAs(std::string(homeAndOutbox) + mailAddress +
            "<displayname>Alice</displayname>"
            "<principal-collection-set><href>/p/</href></principal-collection-set>");
  f.principal->reportPrincipalInfoForUserAddress_context("mailto:alice@example.com", "own");
  EXPECT_THAT(std::exchange(f.host->events, {}),
              ElementsAre("found [own] {/p/alice/, Alice, mailto:alice@example.com, "
                          "mailto:alice@example.com}"));

  const auto search = [&](const std::string& address, Answer answer) {
    f.server.expect(
        {.method = "REPORT",
         .path = "/p/",
         .fields = {xmlType, {"Accept", "text/xml"}},
         .body = std::string(declaration) +
                 "<principal-property-search xmlns=\"DAV:\"><property-search><prop>"
                 "<calendar-user-address-set" +
                 caldav + "/></prop><match>" + address +
                 "</match></property-search><prop><displayname/><calendar-user-address-set" +
                 caldav + "/><principal-URL/></prop></principal-property-search>",
         .noOtherFields = true},
        std::move(answer));
    f.principal->reportPrincipalInfoForUserAddress_context(address, "search");
    return f.eventsAfter().front();
  };
  const std::string rows =
      response("/p/bob/", "<displayname>Bob</displayname>" +
                              addresses({"mailto:b@example.com", "mailto:bob@example.com",
                                         "urn:uuid:b", "urn:uuid:c"})) +
      response("carl", addresses({"/p/bob/", "mailto:carl@example.com"}), "HTTP/1.1 404 x") +
      response("/p/dora/", addresses({"mailto:BOB@example.com"})) + response("/p/e/", "") +
      "<response><href>/p/none/</href></response>";
  EXPECT_EQ(search("bob", multistatus(rows)),
            "found [search] {/p/bob/, Bob, mailto:bob@example.com, urn:uuid:c} "
            "{/p/alice/carl, -, mailto:carl@example.com, -}");
  EXPECT_EQ(search("bob@x", multistatus(rows)), "found [search]");
  EXPECT_EQ(search("bob", {.status = 200, .body = "<html>"}), "found [search]");
  EXPECT_EQ(search("bob", {.status = 403}), "failed KBTDavConnection 403 forbidden");
  // Not the whole of an own address.
  EXPECT_EQ(search("alice@example.com", {.status = 207}), "found [search]");

  // A second search changes what the first one's answer is compared with.
  for (int i = 0; i < 2; ++i) {
    f.server.expect({.method = "REPORT", .path = "/p/", .body = anyBody}, multistatus(rows));
  }
  f.principal->reportPrincipalInfoForUserAddress_context("bob", "first");
  f.principal->reportPrincipalInfoForUserAddress_context("carl", "second");
  EXPECT_THAT(f.eventsAfter(2),
              ElementsAre("found [first] {/p/alice/carl, -, mailto:carl@example.com, -}",
                          "found [second] {/p/alice/carl, -, mailto:carl@example.com, -}"));
}

TEST(KBTDavPrincipal, CreatesCalendars) {
  Fixture f;
  f.loginAs(homeAndOutbox);
  const auto create = [&](const char* path, const char* expectedPath, unsigned status) {
    f.server.expect({.method = "MKCALENDAR",
                     .path = expectedPath,
                     .fields = {xmlType},
                     .body = std::string(declaration) + "<mkcalendar" + caldav +
                             "><set xmlns=\"DAV:\"><prop xmlns=\"DAV:\"><displayname "
                             "xmlns=\"DAV:\">W &amp; K</displayname><calendar-description" +
                             caldav + ">All</calendar-description></prop></set></mkcalendar>",
                     .noOtherFields = true},
                    {.status = status});
    const auto created =
        f.principal->createCalendarAtPath_withName_andDescription(path, "W & K", "All");
    EXPECT_EQ(created->URL().path(), expectedPath);
    return f.eventsAfter().front();
  };
  int announced = 0;
  const auto observation = f.principal->observeKey_changeHandler("calendars", [&] { ++announced; });
  EXPECT_EQ(create("work", "/c/alice/work/", 201), "created W & K /c/alice/work/");
  EXPECT_EQ(create("two/", "/c/alice/two/", 405), "failed KBTDavConnection 405 method not allowed");
  EXPECT_EQ(create("", "/", 201), "created W & K /");
  ASSERT_EQ(f.principal->calendars().size(), 2U);
  EXPECT_EQ(announced, 0);
  const std::weak_ptr<KBTDavConnection> watched = f.principal->calendars().front();
  EXPECT_EQ(f.principal->createCalendarAtPath_withName_andDescription("a\nb", "x", "y"), nullptr);
  EXPECT_THAT(f.eventsAfter(), ElementsAre(MatchesRegex("failed NSURLErrorDomain -1000 .*")));
  f.principal->invalidate();
  EXPECT_TRUE(watched.expired());
}

// Nothing of it needs to be known for a service to be asked for; it just fails.
TEST(KBTDavPrincipal, ServicesBeforeALoginFail) {
  Fixture f;
  f.principal->requestFreebusyForPrincipalURN_fromDate_toDate_context("mailto:b", NSDate::date(),
                                                                      NSDate::date(), {});
  const auto calendar = f.principal->createCalendarAtPath_withName_andDescription("work", "x", "y");
  EXPECT_THAT(f.eventsAfter(2), ElementsAre("failed KBTDavConnection 3 unknown CalDav error",
                                            MatchesRegex("failed NSURLErrorDomain -1002 .*")));
  EXPECT_EQ(calendar->URL().absoluteString(), "work/");
}

}  // namespace
}  // namespace quillmere
