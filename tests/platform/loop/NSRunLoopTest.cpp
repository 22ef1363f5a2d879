// Loops, their queues and their timers, over contexts of GLib.

#include <gtest/gtest.h>
#include <quillmere/platform/loop/Alarm.h>
#include <quillmere/platform/loop/MainContext.h>
#include <quillmere/platform/loop/NSRunLoop.h>

#include <csignal>
#include <limits>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quillmere {
namespace {

using Log = std::vector<std::string>;

const NSDate now = NSDate::date();  // a date in the past, by the time that a test runs
NSDate afterSeconds(std::int64_t seconds) {
  return NSDate::dateWithMicrosecondsSince1970(NSDate::date().microsecondsSince1970() +
                                               seconds * 1'000'000);
}

// The calling thread's default context, as long as it lives.
struct OwnContext {
  OwnContext() { g_main_context_push_thread_default(context); }
  OwnContext(const OwnContext&) = delete;
  OwnContext& operator=(const OwnContext&) = delete;
  ~OwnContext() {
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  }
  GMainContext* const context = g_main_context_new();
};

struct LoopTest : ::testing::Test {
  OwnContext own;
  NSOperationQueue queue = NSOperationQueue::currentQueue();
  NSRunLoop loop = NSRunLoop::currentRunLoop();
  Log log;

  void add(
      std::string name, std::function<void()> operation = [] {}) {
    queue.addOperationWithBlock([=, this] {
      log.push_back(name);
      operation();
    });
  }
};

TEST_F(LoopTest, CarriesOutOperationsInOrderUntilStoppedOrUntilTheDate) {
  add("first", [this] { add("third"); });
  add("second");
  EXPECT_EQ(log, Log{}) << "not from within the call";
  loop.stop();  // there is nothing to stop
  for (const NSDate& past :
       {now, NSDate::dateWithMicrosecondsSince1970(std::numeric_limits<std::int64_t>::min())}) {
    EXPECT_FALSE(loop.runUntilDate(past));
  }
  EXPECT_EQ(log, (Log{"first", "second", "third"}));
  EXPECT_FALSE(loop.runUntilDate(afterSeconds(0))) << "by itself";

  // More turns than a loop makes that takes the date for one in the past.
  std::function<void()> chain = [this, &chain] {
    if (log.size() == 100) return loop.stop();
    add("link", chain);
  };
  const auto isStopped = [&](const std::optional<NSDate>& date) {
    log.clear();
    add("link", chain);
    return loop.runUntilDate(date) && log.size() == 100;
  };
  EXPECT_TRUE(isStopped(afterSeconds(3600)));
  EXPECT_TRUE(isStopped(std::nullopt));
  log.clear();
  add("link", chain);
  loop.run();
  EXPECT_EQ(log.size(), 100U);
}

TEST_F(LoopTest, StopEndsTheInnermostRunOfItsOwnLoop) {
  const NSOperationQueue mainQueue = NSOperationQueue::mainQueue();
  const NSRunLoop main = NSRunLoop::mainRunLoop();
  for (const int stops : {1, 2}) {
    log.clear();
    add("outer", [&] {
      add("inner", [&] {
        // A run of another loop within is passed over, and ends by its own stop.
        mainQueue.addOperationWithBlock([&] {
          for (int i = 0; i < stops; ++i) loop.stop();
          mainQueue.addOperationWithBlock([&] { main.stop(); });
        });
        main.run();
        add("after", [this] { loop.stop(); });
      });
      loop.run();
      log.emplace_back("inner run stopped");
    });
    loop.run();
    Log expected{"outer", "inner", "inner run stopped"};
    if (stops == 1) expected.emplace_back("after");
    EXPECT_EQ(log, expected);
    EXPECT_EQ(loop.runUntilDate(now), stops == 2) << "what was left";
  }
}

TEST_F(LoopTest, TheCurrentQueueIsThatOfTheThreadsContext) {
  EXPECT_EQ(ContextAccess::contextOf(queue), own.context);
  EXPECT_EQ(currentContext(), own.context);
  EXPECT_NE(queue, NSOperationQueue::mainQueue());
  EXPECT_EQ(queue, ContextAccess::queueOf(own.context));
  std::thread([] {
    EXPECT_EQ(NSOperationQueue::currentQueue(), NSOperationQueue::mainQueue());
  }).join();
  EXPECT_EQ(ContextAccess::contextOf(NSOperationQueue::mainQueue()), g_main_context_default());
}

TEST_F(LoopTest, AnyThreadAddsOperationsForTheThreadThatRunsThem) {
  const auto here = std::this_thread::get_id();
  std::thread other([&] {
    queue.addOperationWithBlock([&] {
      EXPECT_EQ(std::this_thread::get_id(), here);
      loop.stop();
    });
  });
  EXPECT_TRUE(loop.runUntilDate(std::nullopt));
  other.join();
}

// An operation may hold the last reference to the context that it waits on or runs on.
TEST(NSOperationQueue, LetsGoOfOperationsBeforeAndWithTheirContext) {
  const auto held = std::make_shared<int>();
  for (const bool isRun : {true, false}) {
    GMainContext* const context = g_main_context_new();
    std::optional queue = ContextAccess::queueOf(context);
    queue->addOperationWithBlock([held, kept = isRun ? queue : std::nullopt] {});
    EXPECT_EQ(held.use_count(), 2);
    queue.reset();
    if (isRun) g_main_context_iteration(context, FALSE);
    EXPECT_EQ(held.use_count(), isRun ? 1 : 2);
    g_main_context_unref(context);
    EXPECT_EQ(held.use_count(), 1);
  }
}

TEST_F(LoopTest, OperationsAreCarriedOutInTurnWithOtherEventsAndBeforeIdleTimes) {
  const auto note = [](void* data) -> gboolean {
    (*static_cast<std::function<void()>*>(data))();
    return G_SOURCE_REMOVE;
  };
  std::function<void()> event = [this] { log.emplace_back("event"); };
  std::function<void()> idle = [this] { log.emplace_back("idle"); };
  for (auto* const noted : {&idle, &event}) {
    GSource* const source = g_idle_source_new();
    if (noted == &event) g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, note, noted, nullptr);
    g_source_attach(source, own.context);
    g_source_unref(source);
  }
  add("operation");
  while (g_main_context_iteration(own.context, FALSE)) continue;
  EXPECT_EQ(log, (Log{"event", "operation", "idle"}));
}

TEST(Alarm, WaitsForWholeMillisecondsAndNeverTooFew) {
  EXPECT_EQ(millisecondsUntil(Alarm::never), -1);
  EXPECT_EQ(millisecondsUntil(0), 0);
  EXPECT_EQ(millisecondsUntil(g_get_monotonic_time()), 0);
  EXPECT_EQ(millisecondsUntil(std::numeric_limits<gint64>::max()), std::numeric_limits<int>::max());
  for (const gint64 part : {0, 1, 500, 999}) {
    const gint64 before = g_get_monotonic_time();
    const gint64 time = before + 3'600'000'000 + part;
    const int wait = millisecondsUntil(time);
    EXPECT_GE(wait * gint64{1000}, time - g_get_monotonic_time());
    EXPECT_LT(wait * gint64{1000}, time - before + 1000);
  }
}

TEST_F(LoopTest, AnAlarmRingsOnceForEachTimeThatIsSet) {
  int rings = 0;
  std::optional<Alarm> alarm;
  const auto ringsOf = [&](gint64 time) {
    alarm->setTime(time);
    rings = 0;
    for (int turn = 0; turn < 5; ++turn) g_main_context_iteration(own.context, FALSE);
    return rings;
  };
  alarm.emplace(own.context, [&] { ++rings; });
  for (int turn = 0; turn < 5; ++turn) g_main_context_iteration(own.context, FALSE);
  EXPECT_EQ(rings, 0) << "no time is set";
  EXPECT_EQ(ringsOf(g_get_monotonic_time()), 1);
  EXPECT_EQ(ringsOf(0), 1);
  EXPECT_EQ(ringsOf(g_get_monotonic_time() + 3'600'000'000), 0);
  EXPECT_EQ(ringsOf(Alarm::never), 0);
  alarm->setTime(g_get_monotonic_time() + 1000);
  g_main_context_iteration(own.context, TRUE);
  EXPECT_EQ(rings, 1) << "when the loop has slept until then, once";
  alarm->setTime(0);
  alarm.reset();
  EXPECT_FALSE(g_main_context_pending(own.context));

  alarm.emplace(own.context, [&] {
    if (++rings < 3) alarm->setTime(0);
  });
  EXPECT_EQ(ringsOf(0), 3) << "set again by its own call";

  alarm.emplace(own.context, [&, held = std::make_shared<int>(7)] {
    alarm.reset();
    rings = *held;
  });
  EXPECT_EQ(ringsOf(0), 7) << "destroyed in its own call";
  EXPECT_FALSE(g_main_context_pending(own.context));
}

// No exception may pass through the C library that calls a loop's callbacks.
TEST_F(LoopTest, AnExceptionInACallbackEndsTheProcess) {
  const auto fail = [] { throw std::bad_alloc(); };
  const auto ring = [&] {
    Alarm alarm(own.context, fail);
    alarm.setTime(0);
    loop.runUntilDate(now);
  };
  EXPECT_EXIT(ring(), ::testing::KilledBySignal(SIGABRT), "");
  add("operation", fail);
  EXPECT_EXIT(loop.runUntilDate(now), ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace quillmere
