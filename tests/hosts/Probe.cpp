#include "tests/hosts/Probe.h"

#include <glib.h>
#include <quillmere/calendars/KBTURLCalendar.h>
#include <quillmere/platform/events/EKEventStore.h>
#include <quillmere/platform/net/NSURL.h>
#include <quillmere/platform/notifications/NSNotificationCenter.h>

#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "tests/support/RecordingDelegate.h"
#include "tests/support/ScriptedServer.h"

namespace quillmere::testing {
namespace {

constexpr guint idleMilliseconds = 300;
constexpr guint longestMilliseconds = 30'000;
// The timer that ends the idle time, and what a toolkit may do for itself; a library that polls
// would come to hundreds.
constexpr int mostWakeUps = 3;

int wakeUps = 0;

gint countingPoll(GPollFD* descriptors, guint count, gint timeout) {
  ++wakeUps;
  return g_poll(descriptors, count, timeout);
}

void after(guint milliseconds, std::function<void()> then) {
  const auto call = [](gpointer data) -> gboolean {
    (*static_cast<std::function<void()>*>(data))();
    return G_SOURCE_REMOVE;
  };
  const auto drop = [](gpointer data) { delete static_cast<std::function<void()>*>(data); };
  g_timeout_add_full(G_PRIORITY_DEFAULT, milliseconds, call,
                     new std::function<void()>(std::move(then)), drop);
}

}  // namespace

int probe(const HostLoop& loop) {
  g_main_context_set_poll_func(nullptr, &countingPoll);
  ScriptedServer server;
  server.expect(
      {.path = "/a.ics"},
      {.body = "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:a\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n"});
  std::set<std::string> missing = {"a fetched event", "the end of the fetch", "access to the store",
                                   "the store's change"};
  int wakeUpsBefore = 0;
  int wakeUpsOfIdleTime = -1;
  const auto heard = [&](const std::string& what) {
    if (missing.erase(what) == 0 || !missing.empty()) return;
    after(idleMilliseconds, [&] {  // for what is left to tidy up
      wakeUpsBefore = wakeUps;
      after(idleMilliseconds, [&] {
        wakeUpsOfIdleTime = wakeUps - wakeUpsBefore;
        loop.quit();
      });
    });
  };

  const auto delegate = std::make_shared<RecordingDelegate>();
  delegate->onCallback = [&](const std::string& line) {
    if (line.starts_with("new a")) heard("a fetched event");
    if (line == "fetched") heard("the end of the fetch");
  };
  const auto calendar =
      KBTURLCalendar::initWithURL(NSURL::URLWithString(server.url("/a.ics")).value());
  calendar->setDelegate(delegate);
  calendar->fetchExternalChanges();

  const auto store = EKEventStore::initWithDatabasePath_error(":memory:", nullptr);
  const auto observation =
      NSNotificationCenter::defaultCenter().addObserverForName_object_usingBlock(
          EKEventStoreChangedNotification, store,
          [&](const NSNotification&) { heard("the store's change"); });
  store->requestAccessToEntityType_completion(
      EKEntityType::event, [&](bool isGranted, const NSErrorPtr&) {
        if (isGranted) heard("access to the store");
        store->saveCalendar_commit_error(EKCalendar::calendar(), true, nullptr);
      });

  after(longestMilliseconds, loop.quit);
  loop.run();

  for (const std::string& what : missing) std::cerr << "missing: " << what << '\n';
  if (missing.empty()) std::cerr << "woken " << wakeUpsOfIdleTime << " times while idle\n";
  const bool isIdle = wakeUpsOfIdleTime >= 0 && wakeUpsOfIdleTime <= mostWakeUps;
  return missing.empty() && isIdle ? 0 : 1;
}

}  // namespace quillmere::testing
