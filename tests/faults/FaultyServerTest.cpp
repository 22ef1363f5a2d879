#include <gtest/gtest.h>
#include <quillmere/calendars/KBTDavCalendar.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <sstream>

#include "tests/support/CalDavAnswers.h"
#include "tests/support/CuttingProxy.h"
#include "tests/support/KeepingDelegate.h"
#include "tests/support/PrincipalHost.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/SessionHost.h"

// A whole run of a host (login, fetch, save, fetch) in which the server fails at one request, in
// every way, for every request, or the connection ends after so many bytes; and a run after it in
// which all is well again.

namespace quillmere {
namespace {

using testing::Answer, testing::anyBody, testing::CuttingProxy, testing::Item, testing::multistatus,
    testing::PrincipalHost, testing::ReceivedRequest, testing::response, testing::runUntil,
    testing::ScriptedServer, testing::tag;
using Texts = std::map<std::string, std::string>;  // by name

std::string component(const std::string& summary) {
  return "BEGIN:VEVENT\r\nSUMMARY:" + summary + "\r\nEND:VEVENT\r\n";
}

// A CalDAV server with one collection, and its resources.
class Server {
 public:
  Server() {
    for (const char* name : {"edited", "kept", "deleted"}) resources_[name] = {"1", component("1")};
    for (const char* name : {"changed", "new"}) resources_[name] = {"2", component("other's")};
    server_.setOnRequest([this](const ReceivedRequest& request) {
      if (!request.value("Authorization")) {
        return server_.expect({.method = request.method, .path = request.path, .body = anyBody},
                              {.status = 401, .challenges = {{}}});
      }
      Answer answer = answerTo(request);
      if (count_++ == faultAt_) fault_(request, answer);
      server_.expect({.method = request.method,
                      .path = request.path,
                      .body = anyBody,
                      .credential = testing::Credential{.user = "alice", .password = "secret"}},
                     std::move(answer));
    });
  }
  std::string url(const char* path) const { return server_.url(path); }
  std::uint16_t port() const { return server_.port(); }

  /// Before a run: what is to become of the answer to one of its requests, counted from 0.
  using Fault = std::function<void(const ReceivedRequest&, Answer&)>;
  void failAt(std::size_t request, Fault fault) {
    faultAt_ = request;
    fault_ = std::move(fault);
  }
  /// How many requests have come with a credential.
  std::size_t requestCount() const { return count_; }

  struct Resource {
    std::string etag;
    std::string text;
  };
  std::map<std::string, Resource> resources() const {
    const std::lock_guard lock(mutex_);
    return resources_;
  }

 private:
  Answer answerTo(const ReceivedRequest& request) {
    const std::lock_guard lock(mutex_);
    const std::string& path = request.path;
    if (request.method == "REPORT") return report(request.body);
    if (request.method == "PUT") {
      resources_[nameOf(path)] = {std::to_string(++tag_), request.body};
      return {.status = 201, .fields = {{"ETag", std::to_string(tag_)}}};
    }
    if (request.method == "DELETE") {
      ++tag_;
      return {.status = resources_.erase(nameOf(path)) > 0 ? 204U : 404U};
    }
    if (path == "/") {
      return multistatus(response(path,
                                  "<current-user-principal><href>/p/alice/</href>"
                                  "</current-user-principal>"));
    }
    if (path == "/p/alice/") {
      return multistatus(response(path,
                                  "<calendar-home-set><href>/c/</href></calendar-home-set>"
                                  "<schedule-outbox-URL><href>/o/</href></schedule-outbox-URL>"));
    }
    if (path == "/c/") {
      return multistatus(response("/c/w/",
                                  "<resourcetype><calendar/></resourcetype>"
                                  "<displayname>Work</displayname>"));
    }
    if (request.method == "GET") {
      return {.fields = {{"ETag", resources_[nameOf(path)].etag}}};
    }
    return tag(std::to_string(tag_));
  }

  Answer report(const std::string& body) const {
    const bool isListing = body.find("calendar-multiget") == std::string::npos;
    std::string rows;
    for (const auto& [name, resource] : resources_) {
      const std::string href = "/c/w/" + name + ".ics";
      if (isListing) {
        rows += testing::resource(href, resource.etag);
      } else if (body.find(href) != std::string::npos) {
        rows += testing::resource(href, resource.etag, resource.text);
      }
    }
    return multistatus(rows);
  }

  static std::string nameOf(const std::string& path) {
    const std::size_t start = path.rfind('/') + 1;
    return path.substr(start, path.rfind('.') - start);
  }

  mutable std::mutex mutex_;
  std::map<std::string, Resource> resources_;
  unsigned tag_ = 2;
  std::atomic<std::size_t> count_ = 0;
  std::size_t faultAt_ = SIZE_MAX;
  Fault fault_;
  ScriptedServer server_;
};

// A host as the documentation advises: it applies nothing of a fetch that failed or leaves it
// without any object, and keeps each change until it has heard that it was saved.
class Host : public testing::KeepingDelegate, public std::enable_shared_from_this<Host> {
 public:
  std::map<std::string, std::optional<std::string>> pending;  // texts; null deletes

  Host() {
    for (const char* name : {"edited", "kept", "deleted", "changed", "gone"}) {
      objects[name] = Item::make(name, "1", component("1"));
    }
    pending = {{"inserted", component("mine")}, {"edited", component("mine")}, {"deleted", {}}};
    onCallback = [this](const std::string& line) {
      std::istringstream words(line);
      std::string what, name;
      words >> what >> name;
      if (what == "inserted") objects[name] = inserted_[name];
      if (what == "deleted") objects.erase(name);
      if (what == "inserted" || what == "updated" || what == "deleted") pending.erase(name);
      NSRunLoop::currentRunLoop().stop();
    };
  }

  void run(const std::string& url) {
    const auto account = std::make_shared<PrincipalHost>();
    account->onEvent = [] { NSRunLoop::currentRunLoop().stop(); };
    const auto principal = KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
        account, "alice", "secret", NSURL::URLWithString(url).value());
    log.clear();
    principal->login();
    EXPECT_TRUE(runUntil([&] { return !account->events.empty(); }));
    int operations = 0;
    if (!principal->calendars().empty()) {
      const auto calendar = KBTDavCalendar::initWithDavConnection(principal->calendars()[0]);
      calendar->setDelegate(shared_from_this());
      fetch(*calendar);
      save(*calendar);
      fetch(*calendar);
      operations = 1;
    }
    principal->invalidate();
    NSRunLoop::currentRunLoop().runUntilDate(NSDate::date());
    EXPECT_EQ(account->events.size(), 1U);
    EXPECT_EQ(count("fetched"), 2 * operations);
    EXPECT_EQ(count("saved"), operations);
  }

  Texts texts() const {
    Texts all;
    for (const auto& [name, item] : objects) all[name] = item->version + " " + item->ics;
    return all;
  }

  std::ptrdiff_t count(const std::string& start) const {
    return std::count_if(log.begin(), log.end(),
                         [&](const std::string& line) { return line.starts_with(start); });
  }

 private:
  void fetch(KBTDavCalendar& calendar) {
    const auto before = objects;
    std::map<std::string, Item> items;
    for (const auto& [name, item] : objects) items[name] = *item;
    std::vector<KBTClientObject> all;
    for (const auto& [name, item] : objects) all.push_back(item);
    calendar.setObjects(all);
    calendar.setCachingString(cachingString_);
    calendar.fetchExternalChanges();
    EXPECT_TRUE(runUntil([&] { return !calendar.isChecking(); }));
    if (log.back() == "fetched" && !objects.empty()) {
      cachingString_ = calendar.cachingString();
      std::erase_if(pending, [&](const auto& change) {
        return !change.second && !objects.contains(change.first);
      });
      return;
    }
    objects = before;
    for (const auto& [name, item] : objects) *item = items[name];
    calendar.setObjects(all);
  }

  // The caching string of before stays, since the one after also covers what others have written.
  void save(KBTDavCalendar& calendar) {
    const std::size_t changes = pending.size();
    for (const auto& [name, text] : std::map(pending)) {
      const auto known = objects.find(name);
      if (known == objects.end()) {
        calendar.insertObject(inserted_[name] = Item::make(name, "", *text));
      } else if (text) {
        known->second->ics = *text;
        calendar.updateObject(known->second);
      } else {
        calendar.deleteObject(known->second);
      }
    }
    calendar.saveChanges();
    EXPECT_TRUE(runUntil([&] { return !calendar.isSaving(); }));
    const auto outcomes = count("inserted ") + count("updated ") + count("deleted ") +
                          count("failed ") - count("failed KBTDavCalendar_FinishedSaving");
    EXPECT_EQ(static_cast<std::size_t>(outcomes), changes);
  }

  std::optional<std::string> cachingString_;
  std::map<std::string, std::shared_ptr<Item>> inserted_;  // that are to be saved
};

void expectAgreement(const Host& host, const Server& server) {
  Texts texts, onServer;
  for (const auto& [name, resource] : server.resources()) {
    texts[name] = resource.text;
    onServer[name] = resource.etag + " " + resource.text;
  }
  EXPECT_EQ(texts, (Texts{{"inserted", component("mine")},
                          {"edited", component("mine")},
                          {"kept", component("1")},
                          {"changed", component("other's")},
                          {"new", component("other's")}}));
  EXPECT_EQ(host.texts(), onServer);
  EXPECT_TRUE(host.pending.empty());
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

struct Fault {
  const char* name;
  Server::Fault apply;
  bool emptiesListing = false;  // a listing like this has nothing of what the host knows
};

std::vector<Fault> faults() {
  const auto status = [](unsigned code) {
    return [code](const ReceivedRequest&, Answer& answer) {
      answer = {.status = code, .body = "<html><br>"};
    };
  };
  const auto body = [](const char* text) {
    return [text](const ReceivedRequest&, Answer& answer) { answer.body = text; };
  };
  const auto changed = [](const char* from, const char* to) {
    return [from, to](const ReceivedRequest&, Answer& answer) {
      answer.body = replaced(answer.body, from, to);
    };
  };
  return {
      {"500", status(500)},
      {"401", status(401)},
      {"404", status(404)},
      {"redirect to itself",
       [](const ReceivedRequest& request, Answer& answer) {
         answer = {.status = 302, .fields = {{"Location", request.path}}};
       }},
      {"page", status(200), true},
      {"empty", body(""), true},
      {"no responses", body("<multistatus/>"), true},
      {"no properties",
       body("<multistatus><response><href>/c/w/kept.ics</href></response></multistatus>"), true},
      {"another's", changed("<href>/", "<href>/c/mallory/")},
      {"another host's", changed("<href>/", "<href>http://127.0.0.1:1/")},
      {"no entity tag", [](const ReceivedRequest&, Answer& answer) { answer.fields.clear(); }},
      {"everything twice",
       [](const ReceivedRequest&, Answer& answer) {
         const std::string rows = answer.body.substr(answer.body.find('>') + 1);
         answer.body = replaced(answer.body, "</multistatus>", rows);
       }},
      {"other entity tags", changed("<getetag>", "<getetag>x")},
  };
}

TEST(FaultyServer, EveryFaultAtEveryRequestHasOneOutcomeAndTheNextRunRecovers) {
  for (const Fault& fault : faults()) {
    for (std::size_t at = 0;; ++at) {
      SCOPED_TRACE(std::string(fault.name) + " at request " + std::to_string(at));
      Server server;
      server.failAt(at, fault.apply);
      const auto host = std::make_shared<Host>();
      host->run(server.url("/"));
      if (server.requestCount() <= at) {
        EXPECT_GT(at, 10U);
        break;
      }
      EXPECT_TRUE(fault.emptiesListing || host->count("gone kept") == 0);
      host->run(server.url("/"));
      expectAgreement(*host, server);
      if (HasFailure()) return;
    }
  }
}

// How many bytes a run without a cut takes.
std::size_t bytesOfARun(CuttingProxy::Direction direction) {
  Server server;
  CuttingProxy proxy(server.port());
  const auto host = std::make_shared<Host>();
  host->run(proxy.url("/"));
  expectAgreement(*host, server);
  return proxy.passed(direction);
}

class CutConnection : public ::testing::TestWithParam<CuttingProxy::Direction> {};

// QUILLMERE_CUT_STEP=1 tries every byte.
TEST_P(CutConnection, HasOneOutcomeAndTheNextRunRecovers) {
  constexpr std::size_t usualStep = 43;
  const char* const wanted = std::getenv("QUILLMERE_CUT_STEP");
  const std::size_t step = wanted ? std::strtoul(wanted, nullptr, 10) : usualStep;
  const std::size_t bytes = bytesOfARun(GetParam());
  ASSERT_GT(bytes, 1000U);
  for (std::size_t n = 1; n <= bytes; n += step) {
    SCOPED_TRACE("cut after byte " + std::to_string(n) + " of " + std::to_string(bytes));
    Server server;
    CuttingProxy proxy(server.port());
    const auto host = std::make_shared<Host>();
    proxy.cutAfter(n, GetParam());
    host->run(proxy.url("/"));
    EXPECT_TRUE(proxy.hasCut());
    host->run(proxy.url("/"));
    expectAgreement(*host, server);
    if (HasFailure()) break;
  }
}

INSTANTIATE_TEST_SUITE_P(, CutConnection,
                         ::testing::Values(CuttingProxy::Direction::toServer,
                                           CuttingProxy::Direction::toClient),
                         [](const auto& tested) {
                           return tested.param == CuttingProxy::Direction::toServer
                                      ? "OnTheWayOut"
                                      : "OnTheWayBack";
                         });

}  // namespace
}  // namespace quillmere
