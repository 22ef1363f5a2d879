// Synchronises a big collection, beside bare libcurl with pugixml and other CalDAV clients, and the
// collections of many accounts at once. The server is a process of its own on this machine.

#include <malloc.h>
#include <quillmere/caldav/KBTDavPrincipal.h>
#include <quillmere/calendars/KBTDavCalendar.h>
#include <quillmere/platform/loop/NSRunLoop.h>
#include <sys/wait.h>

#include <algorithm>
#include <any>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "BareClient.h"
#include "CannedServer.h"
#include "DavResources.h"
#include "Process.h"
#include "Race.h"
#include "RecordingHost.h"

namespace {

using namespace benchmarks;
using quillmere::KBTDavCalendar, quillmere::KBTDavConnection, quillmere::KBTDavPrincipal;
using quillmere::NSErrorPtr, quillmere::NSRunLoop, quillmere::NSURL;
using std::string_view;

constexpr std::size_t bigCollection = 10'000;
constexpr std::size_t smallCollection = 20;
constexpr std::size_t changedResources = 10;
constexpr std::size_t calendarsOfAccount = 5;
constexpr std::size_t requestsOfLogin = 3;
constexpr std::size_t requestsOfChange = 3;  // the tag, the listing, the texts

constexpr string_view bigCollectionPath = "/calendars/user/work/";

// The server.

// Answers whatever one of the clients asks: of the big collection, and of accounts with small ones.
// "/accounts/7/" leads to "/principals/7/", that to "/homes/7/", and there the calendars are
// "/homes/7/0/" and so on. Small collections hold the first resources of the big one. In every
// edition but the first a few resources of the big collection, and all tags, are others.
class CalendarStore {
 public:
  CalendarStore();

  string_view answerTo(const ServedRequest& request);

 private:
  std::string bodyFor(const ServedRequest& request) const;
  std::string listing(const ServedRequest& request) const;
  std::string multiget(const ServedRequest& request) const;
  std::string etag(std::size_t number, int edition) const;

  std::vector<DavResource> resources_;  // their texts are escaped
  std::string answerWithAll_;           // of the big collection, in the first edition
  std::string answer_;
};

CalendarStore::CalendarStore() {
  DavResourceGenerator generator(bigCollection);
  MultiStatus all;
  for (std::size_t i = 0; i != bigCollection; ++i) {
    DavResource& resource = resources_.emplace_back(generator.next());
    resource.calendar = xmlEscaped(resource.calendar, "\r");
    all.addResource(std::string(bigCollectionPath) + resource.name, resource.etag,
                    resource.calendar);
  }
  answerWithAll_ = multiStatusAnswer(all.finish());
}

// The addresses below the collection that a request is about.
std::vector<string_view> addressesIn(const ServedRequest& request) {
  std::vector<string_view> addresses;
  const string_view body = request.body;
  for (std::size_t at = body.find(request.path); at != string_view::npos;) {
    const std::size_t end = body.find('<', at);
    addresses.push_back(body.substr(at, end - at));
    at = body.find(request.path, end);
  }
  return addresses;
}

string_view CalendarStore::answerTo(const ServedRequest& request) {
  if (request.edition == 0 && addressesIn(request).size() == bigCollection) return answerWithAll_;
  answer_ = multiStatusAnswer(bodyFor(request));
  return answer_;
}

// Of what is asked for, properties are given that are read.
std::string CalendarStore::bodyFor(const ServedRequest& request) const {
  const auto asksFor = [&](string_view name) {
    return request.body.find(name) != string_view::npos;
  };
  if (asksFor("calendar-multiget")) return multiget(request);
  if (asksFor("calendar-query") || asksFor("sync-collection")) return listing(request);

  const auto href = [](const std::string& path) { return "<D:href>" + path + "</D:href>"; };
  const std::string own(request.path);
  const std::string account = own.substr(own.find('/', 1) + 1);
  MultiStatus answer;
  if (asksFor("getctag")) {
    answer.addProperties(own, "<getctag xmlns=\"http://calendarserver.org/ns/\">" +
                                  std::to_string(request.edition) + "</getctag>");
  } else if (asksFor("current-user-principal")) {
    answer.addProperties(own, "<D:current-user-principal>" + href("/principals/" + account) +
                                  "</D:current-user-principal>");
  } else if (asksFor("calendar-home-set")) {
    answer.addProperties(
        own, "<D:displayname>Somebody</D:displayname><C:calendar-user-address-set>" +
                 href("mailto:somebody@example.com") +
                 "</C:calendar-user-address-set><C:calendar-home-set>" + href("/homes/" + account) +
                 "</C:calendar-home-set><C:schedule-outbox-URL>" + href(own + "outbox/") +
                 "</C:schedule-outbox-URL>");
  } else {
    answer.addProperties(own, "<D:resourcetype><D:collection/></D:resourcetype>");
    for (std::size_t i = 0; i != calendarsOfAccount; ++i) {
      answer.addProperties(own + std::to_string(i) + '/',
                           "<D:resourcetype><D:collection/><C:calendar/></D:resourcetype>"
                           "<D:displayname>Calendar</D:displayname><D:current-user-privilege-set>"
                           "<D:privilege><D:write-content/></D:privilege>"
                           "</D:current-user-privilege-set><C:supported-calendar-component-set>"
                           "<C:comp name=\"VEVENT\"/></C:supported-calendar-component-set>");
    }
  }
  return answer.finish();
}

std::string CalendarStore::listing(const ServedRequest& request) const {
  const std::string collection(request.path);
  const std::size_t count = collection == bigCollectionPath ? bigCollection : smallCollection;
  MultiStatus answer;
  for (std::size_t i = 0; i != count; ++i) {
    answer.addResource(collection + resources_[i].name, etag(i, request.edition));
  }
  const bool isSync = request.body.find("sync-collection") != string_view::npos;
  return answer.finish(isSync ? "<D:sync-token>data:,1</D:sync-token>" : "");
}

std::string CalendarStore::multiget(const ServedRequest& request) const {
  MultiStatus answer;
  for (const string_view href : addressesIn(request)) {
    const auto number = DavResourceGenerator::numberOf(href.substr(request.path.size()));
    answer.addResource(href, etag(number, request.edition), resources_.at(number).calendar);
  }
  return answer.finish();
}

std::string CalendarStore::etag(std::size_t number, int edition) const {
  std::string text = resources_.at(number).etag;
  constexpr std::size_t apart = bigCollection / changedResources;
  if (edition != 0 && number % apart == 0) text.insert(1, std::to_string(edition) + '-');
  return text;
}

Responder makeResponder() {
  return [store = std::make_shared<CalendarStore>()](const ServedRequest& request) {
    return store->answerTo(request);
  };
}

// One collection.

std::shared_ptr<KBTDavPrincipal> principalAt(
    const std::string& url, std::shared_ptr<quillmere::KBTDavPrincipalDelegate> delegate) {
  return KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
      std::move(delegate), std::nullopt, std::nullopt, NSURL::URLWithString(url).value());
}

// What it takes to get a collection.
struct Fetch {
  Times times;
  double memory = std::numeric_limits<double>::infinity();  // that became resident at most

  void take(const Fetch& pass) {
    times.take(pass.times);
    memory = std::min(memory, pass.memory);
  }
};

// A calendar's first fetch, and those that follow.
struct Synchronisation {
  Fetch first;
  Times unchanged;  // fetch without a change
  Times changed;    // fetch with a few

  void take(const Synchronisation& pass) {
    first.take(pass.first);
    unchanged.take(pass.unchanged);
    changed.take(pass.changed);
  }
};

Synchronisation synchronise(const CannedServer& server) {
  constexpr int unchangedFetches = 20;
  Synchronisation result;
  const double before = Memory::now().resident;
  const Times start = Times::now();
  const auto principal = principalAt(server.url("/"), nullptr);
  const auto calendar = KBTDavCalendar::initWithDavConnection(
      KBTDavConnection::initWithCalendarName_description_URL_forPrincipal(
          "work", {}, NSURL::URLWithString(server.url(bigCollectionPath)).value(), principal));
  const NSRunLoop loop = NSRunLoop::currentRunLoop();
  const auto host = std::make_shared<RecordingHost>();
  host->onCompletion = [&] { loop.stop(); };
  calendar->setDelegate(host);
  const auto fetch = [&](std::size_t requests) {
    const CannedServer::Counts counts = server.counts();
    calendar->fetchExternalChanges();
    loop.run();
    require(host->hasFetched(), "a fetch failed");
    require((server.counts() - counts).requests == requests, "a fetch took other requests");
  };

  fetch(requestsOfChange);
  result.first = {Times::now() - start, Memory::now().peak - before};
  require(host->objects().size() == bigCollection, "the fetch did not report every resource");

  for (int i = 0; i != unchangedFetches; ++i) {
    const Times startOfFetch = Times::now();
    fetch(1);
    result.unchanged.take(Times::now() - startOfFetch);
  }

  server.setEdition(1);
  const Times startOfChange = Times::now();
  fetch(requestsOfChange);
  result.changed = Times::now() - startOfChange;
  server.setEdition(0);
  const auto& objects = host->objects();
  require(
      objects.size() == bigCollection && std::count_if(objects.begin(), objects.end(),
                                                       [](const auto& object) {
                                                         return object->version.starts_with("\"1-");
                                                       }) == changedResources,
      "the fetch did not report every change");
  principal->invalidate();
  return result;
}

// The floor: the same two reports, whose answers are walked.

struct BareFetch {
  Fetch fetch;
  std::size_t answerBytes = 0;  // of the multiget
};

pugi::xml_node parse(pugi::xml_document& document, std::string& answer) {
  // With the options that give the text that the library gives: line ends are kept.
  require(document.load_buffer_inplace(
              answer.data(), answer.size(),
              pugi::parse_cdata | pugi::parse_escapes | pugi::parse_wconv_attribute),
          "pugixml refused an answer");
  return document.document_element();
}

BareFetch fetchBare(const CannedServer& server) {
  const double before = Memory::now().resident;
  const Times start = Times::now();
  BareClient client(server.url(bigCollectionPath), "REPORT",
                    {"Content-Type: text/xml; charset=\"utf-8\"", "Accept: text/calendar",
                     "Accept-Encoding: gzip"});
  pugi::xml_document document;
  std::string body =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
      "<calendar-multiget xmlns=\"urn:ietf:params:xml:ns:caldav\"><prop xmlns=\"DAV:\">"
      "<getetag xmlns=\"DAV:\"/><calendar-data xmlns=\"urn:ietf:params:xml:ns:caldav\"/></prop>";
  const auto listing =
      parse(document,
            client.answerTo(
                "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                "<calendar-query xmlns=\"urn:ietf:params:xml:ns:caldav\"><prop xmlns=\"DAV:\">"
                "<getetag xmlns=\"DAV:\"/></prop><filter xmlns=\"urn:ietf:params:xml:ns:caldav\">"
                "<comp-filter name=\"VCALENDAR\"><comp-filter name=\"VEVENT\"/></comp-filter>"
                "</filter></calendar-query>"));
  for (const pugi::xml_node response : listing.children("D:response")) {
    const string_view href = response.child_value("D:href");
    body.append("<href xmlns=\"DAV:\">").append(href).append("</href>");
  }
  body += "</calendar-multiget>";

  std::string& answer = client.answerTo(body);
  const std::size_t answerBytes = answer.size();
  std::size_t found = 0;
  for (const pugi::xml_node response : parse(document, answer).children("D:response")) {
    const pugi::xml_node propstat = response.child("D:propstat");
    const pugi::xml_node prop = propstat.child("D:prop");
    const string_view href = response.child_value("D:href");
    const string_view etag = prop.child_value("D:getetag");
    const string_view text = prop.child_value("C:calendar-data");
    if (!href.empty() && propstat.child_value("D:status") == MultiStatus::status && !etag.empty() &&
        !text.empty()) {
      ++found;
    }
  }
  require(found == bigCollection, "the floor did not find every resource");
  return {{Times::now() - start, Memory::now().peak - before}, answerBytes};
}

// Other clients, which are programs of their own and measure themselves; null for one that is not
// installed.
std::optional<Fetch> fetchWithPeer(const std::string& program, const CannedServer& server) {
  constexpr int notFound = 127;  // as a shell tells it
  std::FILE* const output = popen((program + ' ' + server.url(bigCollectionPath)).c_str(), "r");
  require(output != nullptr, "a peer cannot be run");
  std::size_t items = 0, bytes = 0;
  Fetch fetch;
  const int numbers =
      std::fscanf(output, "%zu %zu %lf %lf", &items, &bytes, &fetch.times.wall, &fetch.memory);
  const int status = pclose(output);
  if (WIFEXITED(status) && WEXITSTATUS(status) == notFound) return std::nullopt;
  require(status == 0 && numbers == 4, "a peer failed");
  require(items == bigCollection && bytes > bigCollection * 1'000,
          "a peer did not fetch every resource");
  return fetch;
}

std::string milliseconds(double seconds) { return formatted(1e3 * seconds, "%.1f ms"); }

void printBeside(const std::string& peer, const std::optional<Fetch>& fetch, const Fetch& ours,
                 double mostOfPeer) {
  const std::string measure = "the same, beside " + peer;
  if (!fetch) return print({measure, milliseconds(ours.times.wall), "not installed", "", "", ""});
  const double ratio = ours.times.wall / fetch->times.wall;
  print({measure, milliseconds(ours.times.wall), milliseconds(fetch->times.wall),
         formatted(1 / ratio, "1/%.1f"), formatted(1 / mostOfPeer, "at most 1/%.0f"),
         yesNo(ratio <= mostOfPeer)});
  print({"the same, memory beside " + peer, megabytes(ours.memory) + " MB",
         megabytes(fetch->memory) + " MB", formatted(fetch->memory / ours.memory, "1/%.1f"), "",
         ""});
}

void measureCollection(const CannedServer& server) {
  constexpr int rounds = 7;
  constexpr int roundsOfPeers = 3;
  constexpr double mostOfBare = 2;
  constexpr double mostOfAnswer = 3;
  constexpr double mostOfFirst = 1.0 / 3;
  const auto keepBetter = [](std::optional<Fetch>& best, const std::optional<Fetch>& pass) {
    if (best && pass) best->take(*pass);
    if (!best) best = pass;
  };

  Synchronisation ours;
  BareFetch bare;
  std::optional<Fetch> kdav, python;
  for (int round = 0; round != rounds; ++round) {
    ours.take(resultOfChild([&] { return synchronise(server); }));
    const BareFetch pass = resultOfChild([&] { return fetchBare(server); });
    bare.fetch.take(pass.fetch);
    bare.answerBytes = pass.answerBytes;
    if (round >= roundsOfPeers) continue;
    keepBetter(kdav, fetchWithPeer(KDAV_PEER, server));
    keepBetter(python, fetchWithPeer(PYTHON_PEER, server));
  }

  const auto row = [](const std::string& measure, double mine, double other,
                      const std::string& peer, double most) {
    const double ratio = mine / other;
    print({measure, milliseconds(mine), milliseconds(other) + ", " + peer,
           formatted(ratio, "%.2f x"), most > 0 ? formatted(most, "at most %.2f x") : "",
           most > 0 ? yesNo(ratio <= most) : ""});
  };
  const Times& first = ours.first.times;
  row("first fetch of 10,000 resources, wall time", first.wall, bare.fetch.times.wall,
      "libcurl and pugixml", mostOfBare);
  row("the same, processor time", first.processor, bare.fetch.times.processor,
      "libcurl and pugixml", 0);
  printBeside("KDAV", kdav, ours.first, 1.0 / 10);
  printBeside("python-caldav", python, ours.first, 1.0 / 15);
  const double ofAnswer = ours.first.memory / static_cast<double>(bare.answerBytes);
  print({"the same, peak memory", megabytes(ours.first.memory) + " MB",
         megabytes(static_cast<double>(bare.answerBytes)) + " MB, the answer",
         formatted(ofAnswer, "%.2f x"), "at most " + times(mostOfAnswer),
         yesNo(ofAnswer <= mostOfAnswer)});
  print({"fetch without a change, one request, wall time",
         formatted(1e6 * ours.unchanged.wall, "%.0f µs"), "", "", "", ""});
  row("fetch of 10 changes, three requests, processor time", ours.changed.processor,
      first.processor, "the first fetch", mostOfFirst);
  print({"the same, wall time", milliseconds(ours.changed.wall), "", "", "", ""});
}

// Many accounts.

// Fetches all calendars of an account as soon as it is logged in.
class AccountHost : public quillmere::KBTDavPrincipalDelegate {
 public:
  explicit AccountHost(std::function<void()> onCompletion)
      : onCompletion_(std::move(onCompletion)) {}

  // Whether everything was reported.
  bool isComplete() const {
    return hosts_.size() == calendarsOfAccount &&
           std::all_of(hosts_.begin(), hosts_.end(), [](const auto& host) {
             return host->hasFetched() && host->objects().size() == smallCollection;
           });
  }

  void calDavPrincipal_loggedInWithError(KBTDavPrincipal& principal,
                                         const NSErrorPtr& error) override {
    require(!error, "an account was not logged in");
    for (const auto& collection : principal.calendars()) {
      const auto& host = hosts_.emplace_back(std::make_shared<RecordingHost>());
      host->onCompletion = onCompletion_;
      calendars_.push_back(KBTDavCalendar::initWithDavConnection(collection));
      calendars_.back()->setDelegate(host);
      calendars_.back()->fetchExternalChanges();
    }
  }

  // Nobody asks for these.
  void calDavPrincipal_didReceiveFreebusy_withContext(
      KBTDavPrincipal&, const std::vector<std::shared_ptr<quillmere::KBTFreeBusy>>&,
      const std::any&) override {}
  void calDavPrincipal_foundPrincipalInfo_withContext(
      KBTDavPrincipal&, const std::vector<std::shared_ptr<quillmere::KBTPrincipalInfo>>&,
      const std::any&) override {}
  void calDavPrincipal_createdCalendar(KBTDavPrincipal&,
                                       const std::shared_ptr<KBTDavConnection>&) override {}

 private:
  std::function<void()> onCompletion_;  // of a calendar's fetch
  std::vector<std::shared_ptr<KBTDavCalendar>> calendars_;
  std::vector<std::shared_ptr<RecordingHost>> hosts_;
};

// Logs all in and fetches all, and ends with nothing left. The seconds up to the last fetch.
double runAccounts(const CannedServer& server, std::size_t count) {
  const CannedServer::Counts counts = server.counts();
  const NSRunLoop loop = NSRunLoop::currentRunLoop();
  std::size_t waiting = count * calendarsOfAccount;
  const auto onCompletion = [&] {
    if (--waiting != 0) return;
    require(threadCount() == 1, "there is more than one thread");
    loop.stop();
  };
  std::vector<std::shared_ptr<AccountHost>> hosts;
  std::vector<std::shared_ptr<KBTDavPrincipal>> principals;
  const Times start = Times::now();
  for (std::size_t i = 0; i != count; ++i) {
    hosts.push_back(std::make_shared<AccountHost>(onCompletion));
    principals.push_back(
        principalAt(server.url("/accounts/" + std::to_string(i) + '/'), hosts.back()));
    principals.back()->login();
  }
  loop.run();
  const double seconds = (Times::now() - start).wall;

  require(std::all_of(hosts.begin(), hosts.end(), [](const auto& h) { return h->isComplete(); }),
          "an account was not fetched in whole");
  require((server.counts() - counts).requests ==
              count * (requestsOfLogin + calendarsOfAccount * requestsOfChange),
          "the accounts took other requests");
  const std::weak_ptr<KBTDavPrincipal> last = principals.back();
  const std::weak_ptr<AccountHost> lastHost = hosts.back();
  for (const auto& principal : principals) principal->invalidate();
  principals.clear();
  hosts.clear();
  // Carries out what is left to be done.
  loop.runUntilDate(quillmere::NSDate::dateWithMicrosecondsSince1970(0));
  require(last.expired() && lastHost.expired(), "an account outlived its end");
  return seconds;
}

// What is left of accounts. How much freed memory the allocator keeps resident depends on where in
// the heap the last piece in use lies, and goes up and down, so that is told apart.
struct Remains {
  double inUse = 0;
  double resident = 0;
  double untrimmed = 0;

  static Remains now() {
    const Memory untrimmed = Memory::now();
    malloc_trim(0);
    return {untrimmed.inUse, Memory::now().resident, untrimmed.resident};
  }
};

void measureAccounts(const CannedServer& server) {
  constexpr std::size_t few = 50;
  constexpr std::size_t many = 200;
  constexpr int rounds = 20;
  constexpr double mostOfFew = 1.3;
  constexpr double mostOfBefore = 1.05;

  runAccounts(server, many);  // what is made once is there from now on
  const Remains before = Remains::now();
  double secondsOfFew = std::numeric_limits<double>::infinity();
  double secondsOfMany = secondsOfFew;
  for (int round = 0; round != rounds; ++round) {
    secondsOfFew = std::min(secondsOfFew, runAccounts(server, few));
    secondsOfMany = std::min(secondsOfMany, runAccounts(server, many));
  }
  const Remains after = Remains::now();

  print({"200 accounts logged in, 1,000 calendars fetched, wall time", milliseconds(secondsOfMany),
         "", "", "", ""});
  const double eachOfFew = secondsOfFew / static_cast<double>(few);
  const double eachOfMany = secondsOfMany / static_cast<double>(many);
  print({"an account of 200", milliseconds(eachOfMany), milliseconds(eachOfFew) + ", one of 50",
         formatted(eachOfMany / eachOfFew, "%.2f x"), "at most " + times(mostOfFew),
         yesNo(eachOfMany <= mostOfFew * eachOfFew)});
  const auto row = [](const std::string& kind, double then, double now, bool isHeld) {
    const auto kilobytes = [](double bytes) { return formatted(bytes / 1e3, "%.0f KB"); };
    const double ratio = now / then;
    print({kind + " after 20 rounds of 200 and 50 accounts", kilobytes(now),
           kilobytes(then) + ", after one", formatted(ratio, "%.2f x"),
           isHeld ? formatted(mostOfBefore, "at most %.2f x") : "",
           isHeld ? yesNo(ratio <= mostOfBefore) : ""});
  };
  row("allocated memory", before.inUse, after.inUse, true);
  row("resident memory", before.resident, after.resident, true);
  row("the same with what the allocator keeps", before.untrimmed, after.untrimmed, false);
}

}  // namespace

int main() {
  raiseDescriptorLimit();
  const CannedServer server(makeResponder);
  measureCollection(server);
  measureAccounts(server);
}
