// What only Evolution does. The tests of EKEventStoreTest.cpp run on it as well.

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libecal/libecal.h>
#include <quillmere/platform/events/EKEventStore.h>
#include <quillmere/platform/events/EvolutionComponent.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <optional>

#include "tests/platform/events/EventHost.h"

namespace quillmere {
namespace {

using testing::ChangeCount, testing::Event, testing::EventHost, testing::january, testing::runUntil,
    testing::utc;
using ::testing::IsEmpty, ::testing::SizeIs;

TEST(EvolutionEventStore, TellsOtherStoresOfChanges) {
  const EventHost host;
  const auto other = EKEventStore::init();
  ChangeCount posted(other);
  const Event event = host.newEvent("a", january, january);
  const auto calendar = EKCalendar::calendar();
  const auto saveCalendar = [&] {
    calendar->setTitle(calendar->title().value_or("") + "x");
    return host.store->saveCalendar_commit_error(calendar, true, nullptr);
  };
  const std::function<bool()> changes[] = {
      [&] { return !host.save(event); }, [&] { return !host.remove(event); }, saveCalendar,
      saveCalendar,
      [&] { return host.store->removeCalendar_commit_error(calendar, true, nullptr); }};
  for (const auto& change : changes) {
    // What is on its way tells nothing of what comes now.
    runUntil([end = NSDate::date().dateByAddingSeconds(1)] { return NSDate::date() > end; });
    posted.count = 0;
    EXPECT_TRUE(change());
    EXPECT_TRUE(runUntil([&] { return posted.count != 0; })) << &change - changes;
  }
}

TEST(EvolutionEventStore, RefusesChangesOfACalendarThatIsOnlyRead) {
  const EventHost host;
  const Event event = host.newEvent("a", january, january);
  event->setCalendar(host.store->calendarWithIdentifier("birthdays"));
  const NSErrorPtr error = host.save(event);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), EKErrorCalendarReadOnly);
}

TEST(EvolutionEventStore, MayEndOnAnyThread) {
  const EventHost host;
  const Event event = host.newEvent("a", january, january);
  int count = 0;
  testing::endStores(50, &EKEventStore::init, [&] {
    event->setTitle(std::to_string(++count));
    EXPECT_EQ(host.save(event), nullptr);
  });
}

// What another program puts into a host's calendar.
void add(const EventHost& host, const std::string& lines) {
  const GObjectPtr<ESourceRegistry> registry(e_source_registry_new_sync(nullptr, nullptr));
  const GObjectPtr<ESource> source(
      e_source_registry_ref_source(registry.get(), host.calendar->calendarIdentifier().c_str()));
  const GObjectPtr<ECalClient> client(E_CAL_CLIENT(e_cal_client_connect_sync(
      source.get(), E_CAL_CLIENT_SOURCE_TYPE_EVENTS, ~guint32{0}, nullptr, nullptr)));
  const GObjectPtr<ICalComponent> component(
      i_cal_component_new_from_string(("BEGIN:VEVENT\r\n" + lines + "END:VEVENT\r\n").c_str()));
  EXPECT_TRUE(e_cal_client_create_object_sync(client.get(), component.get(),
                                              E_CAL_OPERATION_FLAG_NONE, nullptr, nullptr, nullptr))
      << lines;
}

TEST(EvolutionEventStore, PassesOverEventsThatAreNone) {
  const std::string start = "DTSTART:20240105T090000Z\r\n";
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"DTEND:20240105T090000Z\r\n", ""},
      {"DTSTART:00000105T090000Z\r\n", ""},
      {"DTSTART:x\r\n", ""},
      {"RRULE:FREQ=DAILY\r\n", ""},
      {start + "DTEND:20240105T080000Z\r\n", "0105T0900-0900 a, "},
      {start + "DURATION:-PT1H\r\n", "0105T0900-0900 a, "},
      {start + "DURATION:PT1H\r\n", "0105T0900-1000 a, "},
      {start + "RRULE:FREQ=SOMETIMES\r\n", "0105T0900-0900 a, "},
  };
  for (const auto& [lines, expected] : cases) {
    const EventHost host;
    const NSDate later = utc("20240110T090000Z");
    ASSERT_EQ(host.save(host.newEvent("good", later, later)), nullptr);
    const std::string identifier = host.calendar->calendarIdentifier();
    add(host, std::string("UID:").append(identifier).append("\r\nSUMMARY:a\r\n").append(lines));
    EXPECT_EQ(host.listing(), expected + "0110T0900-0900 good") << lines;
    const auto items = host.store->calendarItemsWithExternalIdentifier(identifier);
    EXPECT_EQ(items.empty(), expected.empty()) << lines;
    if (items.empty()) continue;
    items[0]->setEndDate(utc("20240105T120000Z"));
    ASSERT_EQ(host.save(items[0]), nullptr);
    EXPECT_EQ(host.listing(), "0105T0900-1200 a, 0110T0900-0900 good");
  }
}

TEST(EvolutionEventStore, FindsItemsInEveryCalendarThatCanBeOpened) {
  const EventHost host;
  const Event event = host.newEvent("a", january, january);
  ASSERT_EQ(host.save(event), nullptr);
  const GObjectPtr<ESourceRegistry> registry(e_source_registry_new_sync(nullptr, nullptr));
  const EventHost other;
  add(other, "UID:" + event->calendarItemExternalIdentifier() + "\r\nDTSTART:20240105T090000Z\r\n");
  const GObjectPtr<ESource> closed(e_source_new(nullptr, nullptr, nullptr));
  e_source_set_parent(closed.get(), "local-stub");
  e_source_backend_set_backend_name(static_cast<ESourceBackend*>(e_source_get_extension(
                                        closed.get(), E_SOURCE_EXTENSION_CALENDAR)),
                                    "unknown");
  ASSERT_TRUE(e_source_registry_commit_source_sync(registry.get(), closed.get(), nullptr, nullptr));
  ASSERT_TRUE(runUntil([&] {
    return host.store->calendarWithIdentifier(e_source_get_uid(closed.get())) != nullptr;
  }));
  NSErrorPtr error;
  EXPECT_THAT(host.items(event), SizeIs(2));

  // When that is the only one nothing is known.
  const auto all = host.store->calendarsForEntityType(EKEntityType::event);
  const auto enableOthers = [&](gboolean isEnabled) {
    for (const auto& calendar : all) {
      const std::string& identifier = calendar->calendarIdentifier();
      if (identifier == e_source_get_uid(closed.get())) continue;
      const GObjectPtr<ESource> source(
          e_source_registry_ref_source(registry.get(), identifier.c_str()));
      e_source_set_enabled(source.get(), isEnabled);
      EXPECT_TRUE(e_source_write_sync(source.get(), nullptr, nullptr));
    }
    const std::size_t expected = isEnabled ? all.size() : 1;
    EXPECT_TRUE(runUntil([&] {
      return host.store->calendarsForEntityType(EKEntityType::event).size() == expected;
    }));
  };
  enableOthers(FALSE);
  EXPECT_THAT(host.store->calendarItemsWithExternalIdentifier("a", &error), IsEmpty());
  EXPECT_NE(error, nullptr);
  enableOthers(TRUE);
  const GObjectPtr<ESource> added(
      e_source_registry_ref_source(registry.get(), e_source_get_uid(closed.get())));
  EXPECT_TRUE(e_source_remove_sync(added.get(), nullptr, nullptr));
}

// The process that has a name on the session's bus; 0 when nobody has.
pid_t processOf(const char* name) {
  const GObjectPtr<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
  const std::unique_ptr<GVariant, decltype(&g_variant_unref)> answer(
      g_dbus_connection_call_sync(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                  "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                  g_variant_new("(s)", name), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                                  nullptr, nullptr),
      &g_variant_unref);
  guint32 process = 0;
  if (answer) g_variant_get(answer.get(), "(u)", &process);
  return static_cast<pid_t>(process);
}

void killService(const char* name) {
  const pid_t process = processOf(name);
  ASSERT_NE(process, 0) << name;
  ASSERT_EQ(::kill(process, SIGKILL), 0);
  ASSERT_TRUE(runUntil([&] { return processOf(name) == 0; }));
}

// As if the service had died after it did what it was asked for by `method`, the next time, and before
// it said so.
class LostAnswer {
 public:
  explicit LostAnswer(const char* method) : method_(method) {
    filter_ = g_dbus_connection_add_filter(bus_.get(), &LostAnswer::pass, this, nullptr);
  }
  LostAnswer(const LostAnswer&) = delete;
  LostAnswer& operator=(const LostAnswer&) = delete;
  ~LostAnswer() {
    g_dbus_connection_remove_filter(bus_.get(), filter_);
    EXPECT_TRUE(isLost_) << method_;
  }

 private:
  // On the connection's thread.
  static GDBusMessage* pass(GDBusConnection*, GDBusMessage* message, gboolean isIncoming,
                            void* data) {
    auto& lost = *static_cast<LostAnswer*>(data);
    if (lost.isLost_) return message;
    if (!isIncoming && g_strcmp0(g_dbus_message_get_member(message), lost.method_) == 0) {
      lost.serial_ = g_dbus_message_get_serial(message);
    }
    if (!isIncoming || lost.serial_ == 0 ||
        g_dbus_message_get_reply_serial(message) != lost.serial_) {
      return message;
    }
    lost.isLost_ = true;
    GDBusMessage* const error = g_dbus_message_copy(message, nullptr);
    g_object_unref(message);
    g_dbus_message_set_message_type(error, G_DBUS_MESSAGE_TYPE_ERROR);
    g_dbus_message_set_error_name(error, "org.freedesktop.DBus.Error.NoReply");
    g_dbus_message_set_body(error, g_variant_new("(s)", "no reply"));
    return error;
  }

  const char* method_;
  const GObjectPtr<GDBusConnection> bus_{g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr)};
  guint filter_ = 0;
  guint32 serial_ = 0;
  std::atomic<bool> isLost_ = false;
};

TEST(EvolutionEventStore, GoesOnWhenItsServiceHasDied) {
  struct Case {
    const char* method;
    std::function<NSErrorPtr(const EventHost&)> work;
    std::size_t left;
  };
  const Case cases[] = {
      {"CreateObjects",
       [](const EventHost& host) {
         const Event event = host.newEvent("a", january, january);
         event->setRecurrenceRule("FREQ=DAILY;COUNT=3");
         return host.save(event);
       },
       3},
      {"AddTimezone",
       [](const EventHost& host) {
         const Event event = host.newEvent("b", january, january);
         event->setTimeZone(testing::zone("Europe/Paris"));
         return host.save(event);
       },
       4},
      {"GetObjectList",
       [](const EventHost& host) {
         EXPECT_THAT(host.events(), SizeIs(4));
         return nullptr;
       },
       4},
      {"ModifyObjects",
       [](const EventHost& host) {
         const Event changed = host.events()[2];
         changed->setTitle("changed");
         return host.save(changed);
       },
       4},
      {"RemoveObjects",
       [](const EventHost& host) {
         return host.remove(host.items(host.events()[3]).at(0), EKSpan::futureEvents);
       },
       1},
      {"CreateObjects",  // of a series that is split
       [](const EventHost& host) {
         const Event event = host.events()[0];
         event->setRecurrenceRule("FREQ=DAILY;COUNT=3");
         EXPECT_EQ(host.save(event), nullptr);
         const Event second = host.events()[1];
         second->setTitle("split");
         return host.save(second, EKSpan::futureEvents);
       },
       3},
  };
  for (const bool isDone : {false, true}) {
    const EventHost host;
    for (const Case& c : cases) {
      std::optional<LostAnswer> lost;
      if (isDone) {
        lost.emplace(c.method);
      } else {
        killService("org.gnome.evolution.dataserver.Calendar8");
      }
      EXPECT_EQ(c.work(host), nullptr) << c.method << isDone;
      lost.reset();
      EXPECT_THAT(host.events(), SizeIs(c.left)) << c.method << isDone;
    }
  }
}

TEST(EvolutionEventStore, TellsOfChangesAgainWhenItsServiceHasDied) {
  const EventHost host;
  killService("org.gnome.evolution.dataserver.Calendar8");
  ChangeCount posted(host.store);
  EXPECT_THAT(host.events(), IsEmpty());
  EXPECT_TRUE(runUntil([&] { return posted.count != 0; })) << "something may have been missed";
  posted.count = 0;
  // Evolution begins to look for changes a moment after it was asked to.
  constexpr int mostTries = 10;
  for (int i = 0; i < mostTries && posted.count == 0; ++i) {
    add(host, "UID:theirs" + std::to_string(i) + "\r\nDTSTART:20240105T090000Z\r\n");
    runUntil([&] { return posted.count != 0; }, 3);
  }
  EXPECT_NE(posted.count, 0);
}

TEST(EvolutionEventStore, ChangesCalendarsWhenTheirServiceHasDied) {
  const EventHost host;
  const auto calendar = EKCalendar::calendar();
  NSErrorPtr error;
  for (const char* title : {"new", "renamed"}) {
    calendar->setTitle(title);
    EXPECT_TRUE(host.store->saveCalendar_commit_error(calendar, true, &error)) << title;
    killService("org.gnome.evolution.dataserver.Sources5");
  }
  EXPECT_TRUE(host.store->removeCalendar_commit_error(calendar, true, &error));
  EXPECT_EQ(error, nullptr);
}

TEST(EvolutionWithoutBus, ReportsErrors) {
  const EventHost host;
  ASSERT_EQ(host.save(host.newEvent("a", january, january)), nullptr);

  GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  const pid_t process = processOf("org.freedesktop.DBus");
  ASSERT_NE(process, 0);
  ASSERT_EQ(::kill(process, SIGKILL), 0);
  ASSERT_TRUE(runUntil([&] { return g_dbus_connection_is_closed(bus) != FALSE; }));
  g_object_unref(bus);

  EXPECT_NE(host.save(host.newEvent("b", january, january)), nullptr);
  NSErrorPtr error;
  EXPECT_THAT(host.store->calendarItemsWithExternalIdentifier("a", &error), IsEmpty());
  EXPECT_NE(error, nullptr) << "it may be there";
}

}  // namespace
}  // namespace quillmere
