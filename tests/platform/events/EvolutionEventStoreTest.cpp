// What only Evolution does. The tests of EKEventStoreTest.cpp run on it as well.

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libecal/libecal.h>
#include <quillmere/platform/events/EKEventStore.h>
#include <quillmere/platform/events/EvolutionComponent.h>
#include <quillmere/platform/notifications/NSNotificationCenter.h>

#include <csignal>

#include "tests/platform/events/EventHost.h"

namespace quillmere {
namespace {

using testing::EventHost, testing::runUntil, testing::utc;
using ::testing::IsEmpty, ::testing::SizeIs;

const NSDate january = utc("20240101T000000Z");
const NSDate february = utc("20240201T000000Z");

TEST(EvolutionEventStore, TellsOtherStoresOfChanges) {
  const EventHost host;
  const auto other = EKEventStore::init();
  int posted = 0;
  const auto observation =
      NSNotificationCenter::defaultCenter().addObserverForName_object_usingBlock(
          EKEventStoreChangedNotification, other, [&](const NSNotification&) { ++posted; });
  // What is on its way when a store is made tells nothing of what comes later.
  runUntil([end = NSDate::date().dateByAddingSeconds(1)] { return NSDate::date() > end; });
  posted = 0;
  const auto event = host.newEvent("a", january, january);
  ASSERT_EQ(host.save(event), nullptr);
  EXPECT_TRUE(runUntil([&] { return posted == 1; }));
  ASSERT_EQ(host.remove(event), nullptr);
  EXPECT_TRUE(runUntil([&] { return posted >= 2; }));
}

TEST(EvolutionEventStore, MayEndOnAnyThread) {
  const EventHost host;
  const auto event = host.newEvent("a", january, january);
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
  struct Case {
    std::string lines;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"", {}},
      {"DTEND:20240105T090000Z\r\n", {}},
      {"DTSTART:00000105T090000Z\r\n", {}},
      {"DTSTART:x\r\n", {}},
      {"RRULE:FREQ=DAILY\r\n", {}},
      {start + "DTEND:20240105T080000Z\r\n", {"20240105T090000Z-20240105T090000Z a"}},
      {start + "DURATION:-PT1H\r\n", {"20240105T090000Z-20240105T090000Z a"}},
      {start + "RRULE:FREQ=SOMETIMES\r\n", {"20240105T090000Z-20240105T090000Z a"}},
  };
  for (const Case& c : cases) {
    const EventHost host;
    const auto good = host.newEvent("good", utc("20240110T090000Z"), utc("20240110T090000Z"));
    ASSERT_EQ(host.save(good), nullptr);
    add(host, "UID:" + host.calendar->calendarIdentifier() + "\r\nSUMMARY:a\r\n" + c.lines);
    auto expected = c.expected;
    expected.emplace_back("20240110T090000Z-20240110T090000Z good");
    EXPECT_EQ(host.listing(january, february), expected) << c.lines;
    EXPECT_THAT(
        host.store->calendarItemsWithExternalIdentifier(host.calendar->calendarIdentifier()),
        SizeIs(c.expected.size()))
        << c.lines;
  }
}

TEST(EvolutionEventStore, FindsItemsInEveryCalendarThatCanBeOpened) {
  const EventHost host;
  const auto event = host.newEvent("a", january, january);
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
  EXPECT_THAT(host.store->calendarItemsWithExternalIdentifier(
                  event->calendarItemExternalIdentifier(), &error),
              SizeIs(2));
  EXPECT_EQ(error, nullptr);
  const GObjectPtr<ESource> added(
      e_source_registry_ref_source(registry.get(), e_source_get_uid(closed.get())));
  EXPECT_TRUE(e_source_remove_sync(added.get(), nullptr, nullptr));
}

TEST(EvolutionWithoutBus, ReportsErrors) {
  const EventHost host;
  ASSERT_EQ(host.save(host.newEvent("a", january, january)), nullptr);

  GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  GVariant* const answer = g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "GetConnectionUnixProcessID", g_variant_new("(s)", "org.freedesktop.DBus"), nullptr,
      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  ASSERT_NE(answer, nullptr);
  guint32 process = 0;
  g_variant_get(answer, "(u)", &process);
  g_variant_unref(answer);
  ASSERT_EQ(::kill(static_cast<pid_t>(process), SIGKILL), 0);
  ASSERT_TRUE(runUntil([&] { return g_dbus_connection_is_closed(bus) != FALSE; }));
  g_object_unref(bus);

  EXPECT_NE(host.save(host.newEvent("b", january, january)), nullptr);
  NSErrorPtr error;
  EXPECT_THAT(host.store->calendarItemsWithExternalIdentifier("a", &error), IsEmpty());
  EXPECT_NE(error, nullptr) << "it may be there";
  EXPECT_THAT(host.store->eventsMatchingPredicate(
                  host.store->predicateForEventsWithStartDate_endDate_calendars(january, february,
                                                                                {{host.calendar}}),
                  &error),
              IsEmpty());
}

}  // namespace
}  // namespace quillmere
