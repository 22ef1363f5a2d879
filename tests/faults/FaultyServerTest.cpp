#include <gtest/gtest.h>

#include "tests/faults/SyncRun.h"

// A whole run of a host in which the server fails at one request, in every way, for every request;
// and a run after it with a server that is well again.

namespace quillmere {
namespace {

using testing::Answer, testing::Host, testing::ReceivedRequest, testing::Server;

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

}  // namespace
}  // namespace quillmere
