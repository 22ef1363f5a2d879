#include <gtest/gtest.h>
#include <quillmere/calendars/KBTDavCalendar.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>

#include "tests/support/CuttingProxy.h"
#include "tests/support/PrincipalHost.h"
#include "tests/support/RecordingDelegate.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/SessionHost.h"

// A whole run of a host (login, fetch, save, fetch) whose connection ends after so many bytes, and
// a run after it that comes through. Every n-th byte is tried; QUILLMERE_CUT_STEP=1 tries all.

namespace quillmere {
namespace {

using testing::Answer, testing::anyBody, testing::CuttingProxy, testing::Item,
    testing::PrincipalHost, testing::ReceivedRequest, testing::RecordingDelegate, testing::runUntil,
    testing::ScriptedServer;
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
      server_.expect({.method = request.method,
                      .path = request.path,
                      .body = anyBody,
                      .credential = testing::Credential{.user = "alice", .password = "secret"}},
                     answerTo(request));
    });
  }
  std::uint16_t port() const { return server_.port(); }

  struct Resource {
    std::string etag;
    std::string text;
  };
  std::map<std::string, Resource> resources() const {
    const std::lock_guard lock(mutex_);
    return resources_;
  }

 private:
  static std::string response(const std::string& href, const std::string& props) {
    return "<response><href>" + href + "</href><propstat><prop>" + props +
           "</prop><status>HTTP/1.1 200 OK</status></propstat></response>";
  }
  static Answer multistatus(const std::string& responses) {
    return {.status = 207, .body = "<multistatus>" + responses + "</multistatus>"};
  }

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
    return multistatus(response(path, "<getctag>" + std::to_string(tag_) + "</getctag>"));
  }

  Answer report(const std::string& body) const {
    const bool isListing = body.find("calendar-multiget") == std::string::npos;
    std::string rows;
    for (const auto& [name, resource] : resources_) {
      const std::string href = "/c/w/" + name + ".ics";
      const std::string etag = "<getetag>" + resource.etag + "</getetag>";
      if (isListing) {
        rows += response(href, etag);
      } else if (body.find(href) != std::string::npos) {
        rows += response(href, etag + "<calendar-data>" + resource.text + "</calendar-data>");
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
  ScriptedServer server_;
};

// A host as the documentation advises: it applies nothing of a fetch that failed, and keeps each
// change until it has heard that it was saved.
class Host : public RecordingDelegate, public std::enable_shared_from_this<Host> {
 public:
  std::map<std::string, std::optional<std::string>> pending;  // texts; null deletes

  Host() {
    for (const char* name : {"edited", "kept", "deleted", "changed", "gone"}) {
      objects[name] = Item::make(name, "1", component("1"));
    }
    pending = {{"inserted", component("mine")}, {"edited", component("mine")}, {"deleted", {}}};
    onCallback = [](const std::string&) { NSRunLoop::currentRunLoop().stop(); };
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

  KBTClientObject synchingCalendar_newObjectNamed_versionString_data(
      KBTSynchingCalendar& calendar, const std::string& name, const std::string& version,
      const std::shared_ptr<KBTCalObject>& reader) override {
    auto object = RecordingDelegate::synchingCalendar_newObjectNamed_versionString_data(
        calendar, name, version, reader);
    objects[name]->ics = readers.back();
    return object;
  }
  void synchingCalendar_updateForObject_versionString_data(
      KBTSynchingCalendar& calendar, const KBTClientObject& object, const std::string& version,
      const std::shared_ptr<KBTCalObject>& reader) override {
    RecordingDelegate::synchingCalendar_updateForObject_versionString_data(calendar, object,
                                                                           version, reader);
    Item::of(object).ics = readers.back();
  }
  void synchingCalendar_deletionForObject(KBTSynchingCalendar& calendar,
                                          const KBTClientObject& object) override {
    objects.erase(Item::of(object).name);
    RecordingDelegate::synchingCalendar_deletionForObject(calendar, object);
  }
  void synchingCalendar_didInsert_versionString(KBTSynchingCalendar& calendar,
                                                const KBTClientObject& object,
                                                const std::string& version) override {
    RecordingDelegate::synchingCalendar_didInsert_versionString(calendar, object, version);
    wasSaved(object);
  }
  void synchingCalendar_didUpdate_versionString(KBTSynchingCalendar& calendar,
                                                const KBTClientObject& object,
                                                const std::string& version) override {
    RecordingDelegate::synchingCalendar_didUpdate_versionString(calendar, object, version);
    wasSaved(object);
  }
  void synchingCalendar_didDelete(KBTSynchingCalendar& calendar,
                                  const KBTClientObject& object) override {
    RecordingDelegate::synchingCalendar_didDelete(calendar, object);
    objects.erase(Item::of(object).name);
    pending.erase(Item::of(object).name);
  }

 private:
  std::ptrdiff_t count(const std::string& start) const {
    return std::count_if(log.begin(), log.end(),
                         [&](const std::string& line) { return line.starts_with(start); });
  }

  void wasSaved(const KBTClientObject& object) {
    const auto item = std::static_pointer_cast<Item>(object);
    objects[item->name] = item;
    pending.erase(item->name);
  }

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
    if (log.back() == "fetched") {
      cachingString_ = calendar.cachingString();
      std::erase_if(pending, [&](const auto& change) {
        return !change.second && !objects.contains(change.first);
      });
      return;
    }
    objects = before;
    for (const auto& [name, item] : objects) *item = items[name];
  }

  // The caching string of before stays, since the one after also covers what others have written.
  void save(KBTDavCalendar& calendar) {
    const std::size_t changes = pending.size();
    for (const auto& [name, text] : std::map(pending)) {
      const auto known = objects.find(name);
      if (known == objects.end()) {
        calendar.insertObject(Item::make(name, "", *text));
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
