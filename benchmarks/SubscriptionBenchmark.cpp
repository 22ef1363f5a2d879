// Fetches a subscribed calendar of the given number of events from a server on this machine, and
// once more when nothing has changed.

#include <quillmere/calendars/KBTURLCalendar.h>
#include <quillmere/platform/loop/NSRunLoop.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "CalendarGenerator.h"
#include "CannedServer.h"
#include "Process.h"
#include "Race.h"
#include "RecordingHost.h"

using namespace benchmarks;
using quillmere::KBTURLCalendar, quillmere::NSRunLoop, quillmere::NSURL;

namespace {

constexpr const char* tag = "\"7f3a\"";
constexpr int unchanged = 1;  // an edition of the server

Responder responderFor(std::size_t events) {
  const std::string document = generateCalendar(events).text;
  const std::string head = std::string("ETag: ") + tag + "\r\nContent-Length: ";
  const auto whole = std::make_shared<std::string>(
      "HTTP/1.1 200 OK\r\nContent-Type: text/calendar; charset=utf-8\r\n" + head +
      std::to_string(document.size()) + "\r\n\r\n" + document);
  const auto none =
      std::make_shared<std::string>("HTTP/1.1 304 Not Modified\r\n" + head + "0\r\n\r\n");
  return [whole, none](const ServedRequest& request) -> std::string_view {
    return request.edition == unchanged ? *none : *whole;
  };
}

struct Fetch {
  Times first, second;
  double peak = 0;  // resident memory above that before
  std::size_t requests = 0;
};

// A fetch by a new calendar, and one more once the server says that nothing has changed.
Fetch fetchFrom(const CannedServer& server, std::size_t events) {
  const auto host = std::make_shared<RecordingHost>();
  host->onCompletion = [] { NSRunLoop::currentRunLoop().stop(); };
  const auto calendar =
      KBTURLCalendar::initWithURL(NSURL::URLWithString(server.url("/calendar.ics")).value());
  calendar->setDelegate(host);
  const auto run = [&] {
    const Times start = Times::now();
    calendar->fetchExternalChanges();
    NSRunLoop::currentRunLoop().run();
    require(host->hasFetched() && host->objects().size() == events,
            "a fetch did not report every event");
    return Times::now() - start;
  };
  Fetch fetch;
  const double before = Memory::now().resident;
  fetch.first = run();
  fetch.peak = Memory::now().peak - before;
  server.setEdition(unchanged);
  const std::size_t requests = server.counts().requests;
  fetch.second = run();
  fetch.requests = server.counts().requests - requests;
  server.setEdition(0);
  return fetch;
}

}  // namespace

int main(int count, char** arguments) {
  const std::size_t events = eventsFromArguments(count, arguments);
  const auto size = static_cast<double>(generateCalendar(events).text.size());
  const CannedServer server([events] { return responderFor(events); });
  constexpr int rounds = 3;
  Fetch best;
  for (int round = 0; round < rounds; ++round) {
    const Fetch fetch = resultOfChild([&] { return fetchFrom(server, events); });
    best.first.take(fetch.first);
    best.second.take(fetch.second);
    best.peak = std::max(best.peak, fetch.peak);
    best.requests = std::max(best.requests, fetch.requests);
  }

  const double speed = size / best.first.processor;
  print({"subscription of " + megabytes(size) + " MB, first fetch, processor time",
         megabytes(speed) + " MB/s", "", "", "at least 250 MB/s", yesNo(speed >= 250e6)});
  const double most = 1.5 * size + 200 * static_cast<double>(events);
  print({"the same, peak memory", megabytes(best.peak) + " MB",
         megabytes(size) + " MB, the document", formatted(best.peak / size, "%.2f x"),
         "at most 1.5 x + 200 bytes an object", yesNo(best.peak <= most)});
  print({"the same unchanged, wall time", formatted(1e6 * best.second.wall, "%.0f µs"),
         std::to_string(best.requests) + " request", "", "1 request", yesNo(best.requests == 1)});
}
