#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/platform/notifications/NSDistributedNotificationCenter.h>
#include <quillmere/platform/notifications/NSNotificationCenter.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/platform/events/EventHost.h"

namespace quillmere {
namespace {

using ::testing::ElementsAre;
using testing::runUntil;

TEST(NotificationCenter, CallsWhoAskedForNameAndObject) {
  NSNotificationCenter center;
  std::vector<std::string> calls;
  const auto one = std::make_shared<int>(1);
  const auto two = std::make_shared<int>(2);
  const auto observe = [&](const char* label, std::optional<std::string> name,
                           const std::shared_ptr<void>& object) {
    return center.addObserverForName_object_usingBlock(
        std::move(name), object,
        [&calls, label](const NSNotification& n) { calls.push_back(label + (":" + n.name)); });
  };
  const auto any = observe("any", std::nullopt, nullptr);
  const auto a = observe("a", "a", nullptr);
  auto ofOne = observe("one", std::nullopt, one);
  auto aOfTwo = observe("a of two", "a", two);

  center.postNotificationName_object_userInfo("a", one, {});
  center.postNotificationName_object_userInfo("a", two, {});
  center.postNotificationName_object_userInfo("b", nullptr, {});
  EXPECT_THAT(calls, ElementsAre("any:a", "a:a", "one:a", "any:a", "a:a", "a of two:a", "any:b"));

  calls.clear();
  center.removeObserver(any);
  center.removeObserver(nullptr);
  ofOne.reset();
  center.postNotificationName_object_userInfo("a", one, {});
  EXPECT_THAT(calls, ElementsAre("a:a"));
}

TEST(NotificationCenter, LetsABlockPostObserveAndRemove) {
  NSNotificationCenter center;
  std::vector<std::string> calls;
  std::shared_ptr<NSNotificationObservation> first, second, third;
  first = center.addObserverForName_object_usingBlock("a", nullptr, [&](const NSNotification&) {
    calls.emplace_back("first");
    center.removeObserver(second);
    first.reset();
    third = center.addObserverForName_object_usingBlock(
        "b", nullptr, [&](const NSNotification&) { calls.emplace_back("third"); });
    center.postNotificationName_object_userInfo("b", nullptr, {});
  });
  second = center.addObserverForName_object_usingBlock(
      "a", nullptr, [&](const NSNotification&) { calls.emplace_back("second"); });
  center.postNotificationName_object_userInfo("a", nullptr, {});
  EXPECT_THAT(calls, ElementsAre("first", "third"));
}

const NSDistributedNotification sent{std::string("name \xff \0 end", 12),
                                     "an object",
                                     {{"text", std::string("a\0b", 3)},
                                      {"empty", std::string()},
                                      {"bytes", NSData::dataWithBytes("a\xff")},
                                      {"number", std::int64_t{-5}},
                                      {"fraction", 0.5},
                                      {"yes", true}}};

void post(NSDistributedNotificationCenter& center, const NSDistributedNotification& n) {
  center.postNotificationName_object_userInfo(n.name, n.object, n.userInfo);
}

// A bus of the test's own, with the process's address set to it.
class SessionBus {
 public:
  SessionBus() {
    int ends[2];
    if (::pipe(ends) != 0) return;
    process_ = ::fork();
    if (process_ == 0) {
      const std::string option = "--print-address=" + std::to_string(ends[1]);
      ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", option.c_str(), nullptr);
      ::_exit(127);
    }
    ::close(ends[1]);
    std::string address;
    char c = 0;
    while (::read(ends[0], &c, 1) == 1 && c != '\n') address += c;
    ::close(ends[0]);
    EXPECT_FALSE(address.empty()) << "dbus-daemon did not start";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  }
  SessionBus(const SessionBus&) = delete;
  SessionBus& operator=(const SessionBus&) = delete;
  ~SessionBus() {
    stop();
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }

  void stop() {
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    process_ = 0;
  }

 private:
  pid_t process_ = 0;
};

// Two centers stand for two processes: each has a connection of its own.
TEST(DistributedNotificationCenter, BringsOthersExactlyWhatWasSent) {
  const SessionBus bus;
  NSDistributedNotificationCenter here;
  NSDistributedNotificationCenter there;
  std::vector<NSDistributedNotification> heard;
  int others = 0;
  const auto observation = there.addObserverForName_object_usingBlock(
      std::nullopt, std::nullopt,
      [&](const NSDistributedNotification& notification) { heard.push_back(notification); });
  const auto ofOther = there.addObserverForName_object_usingBlock(
      sent.name, "another", [&](const NSDistributedNotification&) { ++others; });
  post(here, sent);
  post(here, {"plain", std::nullopt, {}});
  ASSERT_TRUE(runUntil([&] { return heard.size() == 2; }));
  EXPECT_EQ(heard[0].name, sent.name);
  EXPECT_EQ(heard[0].object, sent.object);
  EXPECT_EQ(heard[0].userInfo, sent.userInfo);
  EXPECT_EQ(heard[1].name, "plain");
  EXPECT_EQ(heard[1].object, std::nullopt);
  EXPECT_EQ(others, 0);

  // Its own notification comes once, although the bus sends it back.
  post(there, {"own", std::nullopt, {}});
  post(here, {"last", std::nullopt, {}});
  ASSERT_TRUE(runUntil([&] { return heard.back().name == "last"; }));
  EXPECT_EQ(heard.size(), 4U);
}

TEST(DistributedNotificationCenter, ServesItsProcessWithoutABus) {
  for (const char* address : {"", "unix:path=/nonexistent/bus", "nonsense"}) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address, 1);
    NSDistributedNotificationCenter center;
    int heard = 0;
    const auto observation = center.addObserverForName_object_usingBlock(
        sent.name, sent.object, [&](const NSDistributedNotification& notification) {
          EXPECT_EQ(notification.userInfo, sent.userInfo);
          ++heard;
        });
    post(center, sent);
    EXPECT_EQ(heard, 0);
    EXPECT_TRUE(runUntil([&] { return heard == 1; }));
  }
  ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

TEST(DistributedNotificationCenter, OutlivesItsBusAndFindsTheNext) {
  NSDistributedNotificationCenter here;
  NSDistributedNotificationCenter there;
  int heard = 0;
  const auto observation = there.addObserverForName_object_usingBlock(
      "a", std::nullopt, [&](const NSDistributedNotification&) { ++heard; });
  for (int buses = 0; buses < 2; ++buses) {
    SessionBus bus;
    post(there, {"a", std::nullopt, {}});  // asks for the bus again
    EXPECT_TRUE(runUntil([&] { return heard == 1; }));
    // The match may take effect later than the first of the other's notifications.
    EXPECT_TRUE(runUntil([&] {
      post(here, {"a", std::nullopt, {}});
      return heard > 1;
    }));
    bus.stop();
    runUntil([&] {
      post(here, {"b", std::nullopt, {}});
      heard = 0;
      post(there, {"a", std::nullopt, {}});
      return runUntil([&] { return heard == 1; });
    });
    EXPECT_EQ(heard, 1);
    heard = 0;
  }
}

}  // namespace
}  // namespace quillmere
