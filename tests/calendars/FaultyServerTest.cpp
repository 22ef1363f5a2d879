#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/calendars/KBTDavCalendar.h>

#include <algorithm>

#include "tests/support/PrincipalHost.h"
#include "tests/support/RecordingDelegate.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/SessionHost.h"

// A whole run of a host (login, fetch, save) in which the server fails at one request, in every way,
// for every request; and a run after it with a server that is well again.

namespace quillmere {
namespace {

using testing::Answer;
using testing::anyBody;
using testing::Exchange;
using testing::Item;
using testing::PrincipalHost;
using testing::RecordingDelegate;
using testing::runUntil;
using testing::ScriptedServer;

std::string response(const std::string& href, const std::string& props) {
  return "<response><href>" + href + "</href><propstat><prop>" + props +
         "</prop><status>HTTP/1.1 200 OK</status></propstat></response>";
}

Answer multistatus(const std::string& responses) {
  return {.status = 207, .body = "<multistatus>" + responses + "</multistatus>"};
}

std::string etag(const char* value) { return "<getetag>" + std::string(value) + "</getetag>"; }

// The host has "kept" and "changed" in an old version, and inserts, updates and deletes one each.
std::vector<Exchange> wholeRun() {
  const std::string data = "<calendar-data>BEGIN:VEVENT\r\nEND:VEVENT\r\n</calendar-data>";
  const auto ask = [](const char* method, const char* path) {
    return testing::ExpectedRequest{.method = method, .path = path, .body = anyBody};
  };
  const auto tag = [](const char* value) {
    return multistatus(response("/c/w/", "<getctag>" + std::string(value) + "</getctag>"));
  };
  return {
      {ask("PROPFIND", "/"), multistatus(response("/",
                                                  "<current-user-principal><href>/p/alice/</href>"
                                                  "</current-user-principal>"))},
      {ask("PROPFIND", "/p/alice/"),
       multistatus(response("/p/alice/",
                            "<calendar-home-set><href>/c/</href></calendar-home-set>"
                            "<schedule-outbox-URL><href>/o/</href>"
                            "</schedule-outbox-URL>"))},
      {ask("PROPFIND", "/c/"), multistatus(response("/c/w/",
                                                    "<resourcetype><calendar/></resourcetype>"
                                                    "<displayname>Work</displayname>"))},
      {ask("PROPFIND", "/c/w/"), tag("2")},
      {ask("REPORT", "/c/w/"),
       multistatus(response("/c/w/kept.ics", etag("1")) + response("/c/w/changed.ics", etag("2")) +
                   response("/c/w/new.ics", etag("1")))},
      // More than is asked for, since after a redirect it is the listing that gets this.
      {ask("REPORT", "/c/w/"), multistatus(response("/c/w/kept.ics", etag("1")) +
                                           response("/c/w/changed.ics", etag("2") + data) +
                                           response("/c/w/new.ics", etag("1") + data))},
      {ask("PUT", "/c/w/inserted.ics"), {.status = 201, .fields = {{"ETag", "1"}}}},
      {ask("PUT", "/c/w/kept.ics"), {.status = 204, .fields = {{"ETag", "2"}}}},
      {ask("DELETE", "/c/w/changed.ics"), {.status = 204}},
      {ask("PROPFIND", "/c/w/"), tag("3")},
  };
}
constexpr std::size_t listing = 4;

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

struct Fault {
  const char* name;
  bool emptiesListing;  // a listing like this has nothing of what the host knows
  std::function<void(Exchange&)> apply;
};

std::vector<Fault> faults() {
  const auto status = [](unsigned code) {
    return [code](Exchange& exchange) { exchange.answer = {.status = code, .body = "<html><br>"}; };
  };
  const auto body = [](const char* text) {
    return [text](Exchange& exchange) { exchange.answer.body = text; };
  };
  const auto hrefs = [](const char* start) {
    return [start](Exchange& exchange) {
      exchange.answer.body = replaced(exchange.answer.body, "<href>/", start);
    };
  };
  return {
      {"500", false, status(500)},
      {"401", false, status(401)},
      {"404", false, status(404)},
      {"redirect to itself", false,
       [](Exchange& exchange) {
         exchange.answer = {.status = 302, .fields = {{"Location", exchange.request.path}}};
       }},
      {"page", true, status(200)},
      {"empty", true, body("")},
      {"no responses", true, body("<multistatus/>")},
      {"no properties", true,
       body("<multistatus><response><href>/c/w/kept.ics</href></response>"
            "</multistatus>")},
      {"another's", false, hrefs("<href>/c/mallory/")},
      {"another host's", false, hrefs("<href>http://127.0.0.1:1/")},
      {"no entity tag", false, [](Exchange& exchange) { exchange.answer.fields.clear(); }},
      {"everything twice", false,
       [](Exchange& exchange) {
         auto& text = exchange.answer.body;
         text = replaced(text, "</multistatus>", text.substr(text.find('>') + 1));
       }},
      {"other entity tags", false,
       [](Exchange& exchange) {
         exchange.answer.body = replaced(exchange.answer.body, "<getetag>", "<getetag>x");
       }},
  };
}

// A host that keeps its objects between runs.
struct HostRun {
  std::shared_ptr<RecordingDelegate> host = std::make_shared<RecordingDelegate>();
  std::vector<std::string> log;

  HostRun() {
    for (const char* name : {"kept", "changed"}) host->objects[name] = Item::make(name, "1", "I");
  }

  std::vector<KBTClientObject> objects() const {
    std::vector<KBTClientObject> all;
    for (const auto& [name, item] : host->objects) all.push_back(item);
    return all;
  }

  std::ptrdiff_t count(const std::string& start) const {
    return std::count_if(log.begin(), log.end(),
                         [&](const std::string& line) { return line.starts_with(start); });
  }

  // Everything the host hears. `whileRunning` is called again and again.
  void play(const ScriptedServer& server, bool saves, const std::function<void()>& whileRunning) {
    log.clear();
    const auto account = std::make_shared<PrincipalHost>();
    const auto principal = KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
        account, "alice", "secret", NSURL::URLWithString(server.url("/")).value());
    const auto waitFor = [&](const std::function<bool()>& isOver) {
      EXPECT_TRUE(runUntil([&] {
        whileRunning();
        return isOver();
      }));
    };
    principal->login();
    waitFor([&] { return !account->events.empty(); });
    std::shared_ptr<KBTDavCalendar> calendar;
    if (!principal->calendars().empty()) {
      calendar = KBTDavCalendar::initWithDavConnection(principal->calendars()[0]);
      calendar->setDelegate(host);
      calendar->setObjects(objects());
      calendar->fetchExternalChanges();
      waitFor([&] { return !calendar->isChecking(); });
      if (saves) {
        calendar->insertObject(Item::make("inserted", "", "I"));
        calendar->updateObject(Item::make("kept", "", "I"));
        calendar->deleteObject(Item::make("changed"));
        calendar->saveChanges();
        waitFor([&] { return !calendar->isSaving(); });
      }
    }
    EXPECT_EQ(account->events.size(), 1U);
    log = host->take();
    EXPECT_EQ(count("fetched"), calendar ? 1 : 0);
    EXPECT_EQ(count("saved"), calendar && saves ? 1 : 0);
    principal->invalidate();
  }

  void expectRecovery() {
    ScriptedServer server;
    auto script = wholeRun();
    script.resize(listing + 2);
    server.play(script);
    play(server, false, [] {});
    EXPECT_EQ(log.back(), "fetched");
    for (const char* name : {"kept", "changed", "new"}) EXPECT_TRUE(host->objects.contains(name));
    server.finish();
  }
};

TEST(FaultyServer, EveryFaultAtEveryRequestHasOneOutcomeAndTheNextRunRecovers) {
  for (const Fault& fault : faults()) {
    for (std::size_t at = 0; at < wholeRun().size(); ++at) {
      SCOPED_TRACE(std::string(fault.name) + " at request " + std::to_string(at));
      ScriptedServer server;
      auto script = wholeRun();
      fault.apply(script[at]);
      server.play(script);
      HostRun run;
      run.play(server, true, [] {});
      server.finish();  // what is asked besides was refused
      EXPECT_EQ(run.count("gone kept"), at == listing && fault.emptiesListing ? 1 : 0);
      run.expectRecovery();
    }
  }
}

TEST(FaultyServer, AServerThatDiesAtAnyRequestLosesNothing) {
  for (std::size_t at = 0; at < wholeRun().size(); ++at) {
    SCOPED_TRACE(at);
    ScriptedServer server;
    auto script = wholeRun();
    script[at].answer.held = true;
    server.play(script);
    HostRun run;
    bool isDead = false;
    run.play(server, true, [&] {
      if (isDead || server.requests().size() <= at) return;
      server.finish();
      isDead = true;
    });
    EXPECT_TRUE(isDead);
    EXPECT_EQ(run.count("gone"), 0);
    run.expectRecovery();
  }
}

}  // namespace
}  // namespace quillmere
