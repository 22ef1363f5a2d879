// What only Evolution does. The tests of EKEventStoreTest.cpp run on it as well.

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/platform/events/EKEventStore.h>
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

TEST(EvolutionEventStore, ChangesAWholeSeries) {
  const EventHost host;
  const auto event = host.newEvent("a", utc("20240105T090000Z"), utc("20240105T100000Z"));
  event->setRecurrenceRule("FREQ=DAILY;COUNT=3");
  ASSERT_EQ(host.save(event), nullptr);
  ASSERT_EQ(host.remove(host.events(january, february)[0]), nullptr);
  const auto item =
      host.store->calendarItemsWithExternalIdentifier(event->calendarItemExternalIdentifier());
  ASSERT_THAT(item, SizeIs(1));
  item[0]->setTitle("b");
  item[0]->setStartDate(utc("20240106T100000Z"));
  item[0]->setEndDate(utc("20240106T103000Z"));
  ASSERT_EQ(host.save(item[0], EKSpan::futureEvents), nullptr);
  EXPECT_THAT(host.listing(january, february),
              ::testing::ElementsAre("20240106T100000Z-20240106T103000Z b",
                                     "20240107T100000Z-20240107T103000Z b"));
}

TEST(EvolutionEventStore, StartsANewSeriesFromAnOccurrenceOn) {
  const EventHost host;
  const auto event = host.newEvent("a", utc("20240105T090000Z"), utc("20240105T100000Z"));
  event->setRecurrenceRule("FREQ=DAILY;COUNT=3");
  ASSERT_EQ(host.save(event), nullptr);
  const auto second = host.events(january, february)[1];
  second->setTitle("b");
  second->setStartDate(utc("20240106T100000Z"));
  second->setEndDate(utc("20240106T103000Z"));
  ASSERT_EQ(host.save(second, EKSpan::futureEvents), nullptr);
  EXPECT_THAT(host.listing(january, february),
              ::testing::ElementsAre("20240105T090000Z-20240105T100000Z a",
                                     "20240106T100000Z-20240106T103000Z b",
                                     "20240107T100000Z-20240107T103000Z b"));
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
  EXPECT_THAT(host.store->eventsMatchingPredicate(
                  host.store->predicateForEventsWithStartDate_endDate_calendars(january, february,
                                                                                {{host.calendar}}),
                  &error),
              IsEmpty());
}

}  // namespace
}  // namespace quillmere
