#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/platform/base/FileDescriptor.h>
#include <quillmere/platform/notifications/NSDistributedNotificationCenter.h>
#include <quillmere/platform/notifications/NSNotificationCenter.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/platform/events/EventHost.h"
#include "tests/support/TemporaryFolder.h"

namespace quillmere {
namespace {

using ::testing::ElementsAre, ::testing::IsEmpty;
using testing::runUntil;
using Center = NSDistributedNotificationCenter;

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
  const auto ofNobody = observe("nobody", std::nullopt, std::make_shared<int>(3));

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

void post(Center& center, const NSDistributedNotification& n) {
  center.postNotificationName_object_userInfo(n.name, n.object, n.userInfo);
}

// A bus of the test's own, with the process's address set to it.
class SessionBus {
 public:
  SessionBus() {
    char address[256] = "";
    EXPECT_EQ(std::fscanf(output_, "%255s %d", address, &process_), 2) << "it did not start";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address, 1);
  }
  SessionBus(const SessionBus&) = delete;
  SessionBus& operator=(const SessionBus&) = delete;
  ~SessionBus() {
    stop();
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }

  void stop() {
    if (process_ <= 0) return;
    ::kill(std::exchange(process_, 0), SIGKILL);
    ::pclose(output_);
  }

 private:
  std::FILE* const output_ =
      ::popen("exec dbus-daemon --session --nofork --print-address=1 --print-pid=1", "re");
  pid_t process_ = 0;
};

// What a center hears, but for the pings that show whether it does.
struct Heard {
  explicit Heard(Center& center, std::optional<std::string> name = std::nullopt,
                 std::optional<std::string> object = std::nullopt)
      : observation(center.addObserverForName_object_usingBlock(
            std::move(name), std::move(object), [this](const NSDistributedNotification& heard) {
              if (heard.name == "ping") return;
              all.push_back(heard);
              names.push_back(heard.name);
            })) {}

  std::vector<NSDistributedNotification> all;
  std::vector<std::string> names;
  const std::shared_ptr<NSNotificationObservation> observation;
};

// Whether the other hears what one posts, once the bus has taken both in.
bool reaches(Center& from, Center& to) {
  bool isHeard = false;
  const auto observation = to.addObserverForName_object_usingBlock(
      "ping", std::nullopt, [&](const NSDistributedNotification&) { isHeard = true; });
  return runUntil([&] {
    post(from, {"ping", std::nullopt, {}});
    return isHeard;
  });
}

// Two centers stand for two processes: each has a connection of its own.
TEST(DistributedNotificationCenter, BringsOthersExactlyWhatWasSent) {
  const SessionBus bus;
  Center here;
  Center there;
  ASSERT_TRUE(reaches(here, there));
  const Heard heard(there);
  const Heard ofOther(there, sent.name, "another");
  post(here, sent);
  post(here, {"plain", std::nullopt, {}});
  ASSERT_TRUE(runUntil([&] { return heard.all.size() == 2; }));
  EXPECT_EQ(heard.all[0].object, sent.object);
  EXPECT_EQ(heard.all[0].userInfo, sent.userInfo);
  EXPECT_EQ(heard.all[1].object, std::nullopt);
  EXPECT_THAT(ofOther.all, IsEmpty());

  // Its own notification comes once, although the bus sends it back.
  post(there, {"own", std::nullopt, {}});
  post(here, {"last", std::nullopt, {}});
  ASSERT_TRUE(runUntil([&] { return heard.names.back() == "last"; }));
  there.removeObserver(heard.observation);
  post(here, {"unheard", std::nullopt, {}});
  EXPECT_TRUE(reaches(here, there));
  EXPECT_THAT(heard.names, ElementsAre(sent.name, "plain", "own", "last"));
}

TEST(DistributedNotificationCenter, HearsOnlyWhatIsOneOfItsSignals) {
  const SessionBus bus;
  Center here;
  Center there;
  ASSERT_TRUE(reaches(here, there));
  GDBusConnection* const other = g_dbus_connection_new_for_address_sync(
      std::getenv("DBUS_SESSION_BUS_ADDRESS"),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  ASSERT_NE(other, nullptr);
  const Heard heard(there);
  const char* const interface = "org.quillmere.NotificationCenter";
  struct Case {
    GDBusMessageType type;
    const char *interface, *member, *body;
  };
  const Case cases[] = {
      {G_DBUS_MESSAGE_TYPE_SIGNAL, interface, "Other", "(@ay [97], @aay [], @a(ayv) [])"},
      {G_DBUS_MESSAGE_TYPE_SIGNAL, "org.other.Center", "Posted", "(@ay [98], @aay [], @a(ayv) [])"},
      {G_DBUS_MESSAGE_TYPE_METHOD_CALL, interface, "Posted", "(@ay [99], @aay [], @a(ayv) [])"},
      {G_DBUS_MESSAGE_TYPE_SIGNAL, interface, "Posted", "('d', @aay [], @a(ayv) [])"},
      {G_DBUS_MESSAGE_TYPE_SIGNAL, interface, "Posted", nullptr},
      // What a later version may say besides.
      {G_DBUS_MESSAGE_TYPE_SIGNAL, interface, "Posted",
       "(@ay [101], @aay [], @a(ayv) [([117], <@u 5>), ([120], <@x 7>)])"},
  };
  // To each connection by its name: what is sent to all comes only to those who asked for it.
  for (const Case& c : cases) {
    for (int number = 0; number != 9; ++number) {
      GDBusMessage* const message = g_dbus_message_new_method_call(
          (":1." + std::to_string(number)).c_str(), "/org/quillmere/NotificationCenter",
          c.interface, c.member);
      g_dbus_message_set_message_type(message, c.type);
      if (c.body) g_dbus_message_set_body(message, g_variant_new_parsed(c.body));
      g_dbus_connection_send_message(other, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                     nullptr);
      g_object_unref(message);
    }
  }
  EXPECT_TRUE(runUntil([&] { return !heard.all.empty(); }));
  EXPECT_THAT(heard.names, ElementsAre("e"));
  EXPECT_EQ(heard.all[0].userInfo, (NSNotificationUserInfo{{"x", std::int64_t{7}}}));
  g_object_unref(other);
}

TEST(DistributedNotificationCenter, ServesItsProcessWithoutABus) {
  for (const char* address : {"", "unix:path=/nonexistent/bus", "nonsense"}) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address, 1);
    Center center;
    const Heard heard(center, sent.name, sent.object);
    post(center, sent);
    EXPECT_THAT(heard.all, IsEmpty());
    ASSERT_TRUE(runUntil([&] { return !heard.all.empty(); }));
    EXPECT_EQ(heard.all[0].userInfo, sent.userInfo);
  }
  ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

TEST(DistributedNotificationCenter, OutlivesItsBusAndFindsTheNext) {
  Center here;
  Center there;
  const Heard heard(there);
  const auto isHeard = [&](const std::string& name) {
    return std::find(heard.names.begin(), heard.names.end(), name) != heard.names.end();
  };
  for (const std::string round : {"first", "second"}) {
    SessionBus bus;
    // Both ask for the bus again.
    EXPECT_TRUE(runUntil([&] {
      post(there, {"own", std::nullopt, {}});
      post(here, {round, std::nullopt, {}});
      return isHeard(round);
    }));
    bus.stop();
    post(there, {round + " without a bus", std::nullopt, {}});
    EXPECT_TRUE(runUntil([&] { return isHeard(round + " without a bus"); }));
  }
}

// A bus that takes connections and says nothing.
class SilentBus {
 public:
  SilentBus() {
    const std::string path = folder_ / "bus";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    EXPECT_EQ(::listen(listener_.get(), 1), 0);
    ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + path).c_str(), 1);
  }

  FileDescriptor accept() const {
    return FileDescriptor(::accept(listener_.get(), nullptr, nullptr));
  }

 private:
  testing::TemporaryFolder folder_;
  FileDescriptor listener_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

TEST(DistributedNotificationCenter, WaitsForNoBus) {
  Center here;
  Center there;
  {
    const SilentBus bus;
    const Heard own(here);
    post(here, {"lost", std::nullopt, {}});
    post(here, {"lost too", std::nullopt, {}});
    EXPECT_TRUE(runUntil([&] { return own.all.size() == 2; }));
    EXPECT_THAT(own.names, ElementsAre("lost", "lost too"));
    bus.accept();  // and hang up
  }

  const SessionBus bus;
  const Heard heard(there);
  EXPECT_TRUE(reaches(here, there));
  EXPECT_THAT(heard.names, IsEmpty());

  // What is posted before the connection stands comes after it, in order.
  Center late;
  std::vector<std::string> expected;
  for (int i = 0; i != 100; ++i) expected.push_back(std::to_string(i));
  for (const std::string& name : expected) post(late, {name, std::nullopt, {}});
  EXPECT_TRUE(runUntil([&] { return heard.names.size() == expected.size(); }));
  EXPECT_EQ(heard.names, expected);
}

TEST(DistributedNotificationCenter, GivesUpConnectingWhenItEnds) {
  const SilentBus bus;
  auto center = std::make_unique<Center>();
  const Heard heard(*center);
  post(*center, {"a", std::nullopt, {}});
  EXPECT_TRUE(runUntil([&] { return !heard.all.empty(); }));
  const FileDescriptor connection = bus.accept();
  center.reset();
  EXPECT_TRUE(runUntil([&] {
    char received = 0;
    return ::recv(connection.get(), &received, 1, MSG_DONTWAIT) == 0;
  }));
  ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

}  // namespace
}  // namespace quillmere
