// Loops, their queues and their alarms, over contexts of GLib.

#include <gtest/gtest.h>
#include <quillmere/platform/loop/Alarm.h>
#include <quillmere/platform/loop/MainContext.h>
#include <quillmere/platform/loop/NSRunLoop.h>

#include <csignal>
#include <limits>
#include <new>
#include <thread>

namespace quillmere {
namespace {

constexpr gint64 hour = 3'600'000'000;

const NSDate now = NSDate::date();  // in the past, by the time that a test runs
NSDate later(gint64 microseconds) {
  return NSDate::dateWithMicrosecondsSince1970(NSDate::date().microsecondsSince1970() +
                                               microseconds);
}

// In a context of its own, the thread's default one. What is added to the queue is logged.
struct LoopTest : ::testing::Test {
  LoopTest() { g_main_context_push_thread_default(context); }
  ~LoopTest() override {
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  }
  GMainContext* const context = g_main_context_new();
  const NSOperationQueue queue = ContextAccess::queueOf(context);
  const NSOperationQueue mainQueue = NSOperationQueue::mainQueue();
  std::string log;

  void add(
      const char* name, std::function<void()> operation = [] {}) {
    queue.addOperationWithBlock([this, name, operation = std::move(operation)] {
      log += name;
      operation();
    });
  }
  static NSRunLoop loop() { return NSRunLoop::currentRunLoop(); }
};

TEST_F(LoopTest, CarriesOutOperationsInOrderUntilStoppedOrUntilTheDate) {
  add("1", [this] { add("3"); });
  add("2");
  EXPECT_EQ(log, "") << "not from within the call";
  loop().stop();  // there is nothing to stop
  constexpr auto longAgo = std::numeric_limits<std::int64_t>::min();
  for (const NSDate& date : {now, NSDate::dateWithMicrosecondsSince1970(longAgo), later(1)}) {
    EXPECT_FALSE(loop().runUntilDate(date));
  }
  EXPECT_EQ(log, "123");
  // More turns than a loop makes that takes the date for one in the past.
  std::function<void()> chain = [this, &chain] {
    if (log.size() == 100) return loop().stop();
    add("x", chain);
  };
  for (const std::optional<NSDate>& date : {std::optional(later(hour)), {}}) {
    log.clear();
    add("x", chain);
    EXPECT_TRUE(loop().runUntilDate(date));
    EXPECT_EQ(log.size(), 100U);
  }
}

TEST_F(LoopTest, StopEndsTheInnermostRunOfItsOwnLoop) {
  for (const int stops : {1, 2}) {
    log.clear();
    add("outer ", [&] {
      add("inner ", [&] {
        // A run of another loop within is passed over, and ends by its own stop.
        mainQueue.addOperationWithBlock([&] {
          for (int i = 0; i < stops; ++i) loop().stop();
          mainQueue.addOperationWithBlock([] { NSRunLoop::mainRunLoop().stop(); });
        });
        NSRunLoop::mainRunLoop().run();
        add("after", [] { loop().stop(); });
      });
      loop().run();
      log += "stopped ";
    });
    loop().run();
    EXPECT_EQ(log, stops == 1 ? "outer inner stopped after" : "outer inner stopped ");
    EXPECT_EQ(loop().runUntilDate(now), stops == 2) << "what was left";
  }
}

TEST_F(LoopTest, OperationsRunInTheirContextsThreadWhoeverAddsThem) {
  EXPECT_EQ(NSOperationQueue::currentQueue(), queue);
  EXPECT_NE(queue, mainQueue);
  EXPECT_EQ(ContextAccess::contextOf(mainQueue), g_main_context_default());
  const auto here = std::this_thread::get_id();
  std::thread other([&] {
    EXPECT_EQ(NSOperationQueue::currentQueue(), mainQueue);
    queue.addOperationWithBlock([&] {
      EXPECT_EQ(std::this_thread::get_id(), here);
      loop().stop();
    });
  });
  EXPECT_TRUE(loop().runUntilDate(std::nullopt));
  other.join();
}

TEST_F(LoopTest, OperationsTakeTurnsWithOtherEventsAndGoBeforeIdleTimes) {
  for (const int priority : {G_PRIORITY_DEFAULT_IDLE, G_PRIORITY_DEFAULT}) {
    GSource* const source = g_idle_source_new();
    g_source_set_priority(source, priority);
    const auto note = [](void* text) -> gboolean {
      *static_cast<std::string*>(text) += "event ";
      return G_SOURCE_REMOVE;
    };
    g_source_set_callback(source, note, &log, nullptr);
    g_source_attach(source, context);
    g_source_unref(source);
  }
  add("operation ");
  while (g_main_context_iteration(context, FALSE)) continue;
  EXPECT_EQ(log, "event operation event ");
}

TEST(NSOperationQueue, DropsWhatHasNotRunWithItsContext) {
  const auto held = std::make_shared<int>();
  for (const bool isRun : {true, false}) {
    GMainContext* const own = g_main_context_new();
    ContextAccess::queueOf(own).addOperationWithBlock([held] {});
    EXPECT_EQ(g_main_context_iteration(isRun ? own : nullptr, FALSE), isRun);
    EXPECT_EQ(held.use_count(), isRun ? 1 : 2);
    g_main_context_unref(own);
    EXPECT_EQ(held.use_count(), 1);
  }
}

TEST(Alarm, IsWaitedForInWholeMillisecondsAndNeverTooFew) {
  EXPECT_EQ(millisecondsUntil(Alarm::never), -1);
  EXPECT_EQ(millisecondsUntil(g_get_monotonic_time()), 0);
  EXPECT_EQ(millisecondsUntil(std::numeric_limits<gint64>::max()), std::numeric_limits<int>::max());
  const gint64 before = g_get_monotonic_time();
  const gint64 time = before + hour + 999;
  const gint64 wait = gint64{millisecondsUntil(time)} * 1000;
  EXPECT_GE(wait, time - g_get_monotonic_time());
  EXPECT_LT(wait, time - before + 1000);
}

TEST_F(LoopTest, AnAlarmRingsOnceForEachTimeThatIsSet) {
  int rings = 0;
  std::optional<Alarm> alarm;
  const auto ringsInFiveTurns = [&, this] {
    rings = 0;
    for (int turn = 0; turn < 5; ++turn) g_main_context_iteration(context, FALSE);
    return rings;
  };
  alarm.emplace(context, [&] { ++rings; });
  EXPECT_EQ(ringsInFiveTurns(), 0) << "no time is set";
  for (const auto& [time, expected] : {std::pair<gint64, int>(0, 1),
                                       {g_get_monotonic_time(), 1},
                                       {later(hour).microsecondsSince1970(), 0},
                                       {Alarm::never, 0}}) {
    alarm->setTime(time);
    EXPECT_EQ(ringsInFiveTurns(), expected) << time;
  }
  alarm->setTime(g_get_monotonic_time() + 1000);
  g_main_context_iteration(context, TRUE);
  EXPECT_EQ(rings, 1) << "when the loop has slept, once";
  alarm->setTime(0);
  alarm.reset();
  EXPECT_FALSE(g_main_context_pending(context));

  // In its own call it may be set, and destroyed.
  alarm.emplace(context, [&, end = std::make_shared<int>(3)] {
    if (++rings < *end) return alarm->setTime(0);
    alarm.reset();
    rings = -*end;
  });
  alarm->setTime(0);
  EXPECT_EQ(ringsInFiveTurns(), -3);
}

// No exception may pass through the C library that calls a loop's callbacks.
TEST_F(LoopTest, AnExceptionInACallbackEndsTheProcess) {
  const auto fail = [] { throw std::bad_alloc(); };
  const auto ring = [&] {
    Alarm alarm(context, fail);
    alarm.setTime(0);
    loop().runUntilDate(now);
  };
  EXPECT_EXIT(ring(), ::testing::KilledBySignal(SIGABRT), "");
  add("", fail);
  EXPECT_EXIT(loop().runUntilDate(now), ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace quillmere
