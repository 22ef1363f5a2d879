#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillmere/platform/base/HWPreference.h>
#include <quillmere/platform/events/EKEventStore.h>
#include <quillmere/platform/events/EventRecord.h>

#include <random>

#include "tests/platform/events/EventHost.h"
#include "tests/support/ScopedTimeZone.h"

namespace quillmere {
namespace {

using testing::ChangeCount, testing::Event, testing::EventHost, testing::Events, testing::january,
    testing::february, testing::runUntil, testing::ScopedTimeZone, testing::utc, testing::zone;
using ::testing::ElementsAre, ::testing::IsEmpty, ::testing::SizeIs;

using enum EKSpan;

const NSDate nextYear = utc("20250101T000000Z");

// A daily series of an hour at 9 o'clock UTC, from 1 January 2024 on.
Event dailySeries(const EventHost& host, const std::string& rule) {
  Event event = host.newEvent("d", utc("20240101T090000Z"), utc("20240101T100000Z"));
  event->setRecurrenceRule(rule);
  EXPECT_EQ(host.save(event), nullptr);
  return event;
}

NSErrorPtr saveAs(const EventHost& host, const Event& event, const std::string& title,
                  EKSpan span = thisEvent) {
  event->setTitle(title);
  return host.save(event, span);
}

void move(EKEvent& event, const char* start, const char* end) {
  event.setStartDate(utc(start));
  event.setEndDate(utc(end));
}

TEST(EventStore, KeepsEveryFieldOfAnEvent) {
  const EventHost host;
  const std::string longText(8'000'000, 'x');
  std::vector<std::optional<std::string>> texts = {std::nullopt, "a", "\xc3\xa9;,\\\n\"b",
                                                   longText};
  // What iCalendar, in which Evolution keeps events, cannot tell apart or say.
  if (!EventHost::usesEvolution()) {
    texts.insert(texts.end(), {"", std::string("a\0b", 3), "\r\n\t\xff"});
  }
  for (const auto& text : texts) {
    const Event event = host.newEvent(text, utc("20240105T090000Z"), utc("20240105T100000Z"));
    event->setNotes(text);
    event->setAlarms({{-600}, {5}, {0}, {5}});
    event->removeAlarm({5});
    event->addAlarm({-86400});
    // Evolution counts whole seconds, of a clock that may be milliseconds behind.
    const NSDate before = NSDate::date().dateByAddingSeconds(-2);
    ASSERT_EQ(host.save(event), nullptr);

    const Events items = host.items(event);
    ASSERT_THAT(items, SizeIs(1));
    const EKEvent& item = *items[0];
    EXPECT_EQ(item.title(), text);
    EXPECT_EQ(item.notes(), text);
    EXPECT_EQ(item.calendar()->calendarIdentifier(), host.calendar->calendarIdentifier());
    EXPECT_EQ(item.startDate(), utc("20240105T090000Z"));
    EXPECT_EQ(item.endDate(), utc("20240105T100000Z"));
    EXPECT_EQ(item.occurrenceDate(), item.startDate());
    EXPECT_EQ(item.timeZone(), zone("UTC"));
    EXPECT_FALSE(item.isAllDay() || item.hasRecurrenceRules() || item.isDetached());
    EXPECT_THAT(item.alarms(), ElementsAre(EKAlarm{-600}, EKAlarm{0}, EKAlarm{-86400}));
    EXPECT_GE(item.lastModifiedDate(), before);
    EXPECT_EQ(item.lastModifiedDate(), event->lastModifiedDate());
  }
}

// The index against a look at every event: of every length, from none to millennia, and so placed that
// ends meet beginnings.
TEST(EventStore, FindsWhatReachesIntoARange) {
  const EventHost host;
  std::mt19937_64 random(7);
  const auto below = [&](int bits) {
    return static_cast<std::int64_t>(random() & ((std::uint64_t{1} << bits) - 1));
  };
  struct Span {
    NSDate start, end;
  };
  std::vector<Span> spans{{utc("00010102T000000Z"), utc("99991231T000000Z")},
                          {utc("00010102T000000Z"), utc("00010103T000000Z")}};
  for (int i = 0; i < 600; ++i) {
    const NSDate start = january.dateByAddingSeconds((below(9) - 256) * 3600);
    spans.push_back(
        {start, start.dateByAddingSeconds(i % 2 == 0 ? below(5) * 3600 : below(i % 33))});
  }
  for (const Span& span : spans) {
    ASSERT_EQ(host.save(host.newEvent(std::nullopt, span.start, span.end)), nullptr);
  }
  for (std::size_t i = 2; i < 80; ++i) {
    const NSDate from = i % 2 == 0 ? spans[i].start : spans[i].end;
    const NSDate to = from.dateByAddingSeconds(i % 4 < 2 ? below(6) * 3600 : below(27) + 1);
    const auto expected = std::count_if(spans.begin(), spans.end(), [&](const Span& span) {
      return from < to && span.start < to && (span.end > from || span.start == from);
    });
    EXPECT_EQ(host.events(from, to).size(), static_cast<std::size_t>(expected));
  }
  EXPECT_THAT(host.events(february, january), IsEmpty());
}

TEST(EventStore, RefusesWhatCannotBeStored) {
  const EventHost host;
  const auto rule = [](const std::string& text) {
    return [text](EKEvent& e) { e.setRecurrenceRule(text); };
  };
  const NSDate never = NSDate::dateWithTimeIntervalSince1970(1e300);
  const NSDate longAgo = NSDate::dateWithTimeIntervalSince1970(-1e300);
  const std::pair<std::function<void(EKEvent&)>, EKErrorCode> cases[] = {
      {[](EKEvent& e) { e.setCalendar(nullptr); }, EKErrorNoCalendar},
      {[](EKEvent& e) { e.setCalendar(EKCalendar::calendar()); }, EKErrorNoCalendar},
      {[](EKEvent& e) { e.setStartDate(std::nullopt); }, EKErrorNoStartDate},
      {[](EKEvent& e) { e.setEndDate(january); }, EKErrorDatesInverted},
      {[&](EKEvent& e) { e.setEndDate(never); }, EKErrorStartDateTooFarInFuture},
      {[&](EKEvent& e) { e.setStartDate(longAgo); }, EKErrorStartDateTooFarInFuture},
      {[](EKEvent& e) { e.setEndDate(lastDate); }, EKErrorStartDateTooFarInFuture},
      {rule("FREQ=HOURLY;byday=MO"), EKErrorInternalFailure},
      {rule("RSCALE=HEBREW;FREQ=YEARLY"), EKErrorInternalFailure},
      {rule(std::string("FREQ=DAILY\0;", 12)), EKErrorInternalFailure},
      {rule("FREQ=SOMETIMES"), EKErrorInternalFailure},
      {rule("FREQ=SECONDLY;BYMONTHDAY=30"), EKErrorInternalFailure},
  };
  for (const auto& [change, code] : cases) {
    const Event event = host.newEvent("a", utc("20240105T090000Z"), utc("20240105T100000Z"));
    change(*event);
    const NSErrorPtr error = host.save(event);
    ASSERT_NE(error, nullptr) << code << event->recurrenceRule().value_or("");
    EXPECT_EQ(error->domain(), EKErrorDomain);
    EXPECT_EQ(error->code(), code) << event->recurrenceRule().value_or("");
    EXPECT_EQ(event->lastModifiedDate(), std::nullopt);
    EXPECT_NE(host.remove(event), nullptr) << "it was never saved";
  }
  EXPECT_THAT(host.events(), IsEmpty());

  const EventHost other;
  const Event event = host.newEvent("a", january, january);
  EXPECT_EQ(other.save(event)->code(), EKErrorObjectBelongsToDifferentStore);
  EXPECT_EQ(other.remove(event)->code(), EKErrorObjectBelongsToDifferentStore);
}

TEST(EventStore, GivesAnEventWithoutEndOne) {
  const ScopedTimeZone here("Europe/Paris");
  struct Case {
    bool isAllDay;
    const char* start;
    std::optional<const char*> end;
    const char* expected;
  };
  const Case cases[] = {
      {false, "20240105T090000Z", std::nullopt, "0105T0900-0900 a"},
      {true, "20240105T090000Z", std::nullopt, "0104T2300-0105T2300 a"},
      {true, "20240104T230000Z", std::nullopt, "0104T2300-0105T2300 a"},
      {true, "20240105T090000Z", "20240106T000000Z", "0104T2300-0106T2300 a"},
  };
  for (const Case& c : cases) {
    const EventHost host;
    const Event event = host.newEvent("a", utc(c.start), january);
    event->setEndDate(c.end ? std::optional(utc(*c.end)) : std::nullopt);
    event->setAllDay(c.isAllDay);
    ASSERT_EQ(host.save(event), nullptr);
    EXPECT_EQ(host.listing(), c.expected);
    EXPECT_EQ(event->endDate(), host.events()[0]->endDate());
  }
}

TEST(EventStore, KeepsWhatTimesMeanInOtherZones) {
  struct Case {
    const char* what;
    bool isAllDay;
    std::optional<NSTimeZone> zone;
    const char* inParis;    // as it was saved
    const char* inNewYork;  // as it is read
  };
  const Case cases[] = {
      {"zoned", false, zone("Europe/Paris"), "0705T0700-0800 a", "0705T0700-0800 a"},
      {"floating", false, std::nullopt, "0705T0700-0800 a", "0705T1300-1400 a"},
      {"all day", true, std::nullopt, "0704T2200-0705T2200 a", "0705T0400-0706T0400 a"},
  };
  for (const Case& c : cases) {
    const EventHost host;
    {
      const ScopedTimeZone here("Europe/Paris");
      const Event event = host.newEvent("a", utc("20240705T070000Z"), utc("20240705T080000Z"));
      event->setTimeZone(c.zone);
      event->setAllDay(c.isAllDay);
      ASSERT_EQ(host.save(event), nullptr);
      EXPECT_EQ(host.listing(january, nextYear), c.inParis);
    }
    const ScopedTimeZone there("America/New_York");
    EXPECT_EQ(host.listing(january, nextYear), c.inNewYork) << c.what;
    const Event event = host.events(january, nextYear)[0];
    EXPECT_EQ(event->isAllDay(), c.isAllDay);
    EXPECT_THAT(host.events(*event->startDate(), event->startDate()->dateByAddingSeconds(1)),
                SizeIs(1));
    EXPECT_THAT(host.events(event->endDate()->dateByAddingSeconds(-1), *event->endDate()),
                SizeIs(1));
  }
}

TEST(EventStore, ExpandsARecurringEventInItsOwnZone) {
  const ScopedTimeZone here("America/New_York");
  const EventHost host;
  const Event event = host.newEvent("a", utc("20240328T080000Z"), utc("20240328T083000Z"));
  event->setTimeZone(zone("Europe/Paris"));
  event->setRecurrenceRule("FREQ=DAILY;BYDAY=MO,TH,FR,SA,SU;UNTIL=20240401T070000Z");
  event->setExceptionDates({utc("20240330T080000Z")});
  ASSERT_EQ(host.save(event), nullptr);
  // The clock in Paris goes forward on 31 March; the rule ends with the one at 7 o'clock UTC.
  EXPECT_EQ(host.listing(january, nextYear),
            "0328T0800-0830 a, 0329T0800-0830 a, 0331T0700-0730 a, 0401T0700-0730 a");
  // It reaches into a range that begins within an occurrence, and is not found before or after it.
  EXPECT_THAT(host.events(utc("20240331T072900Z"), utc("20240331T080000Z")), SizeIs(1));
  EXPECT_THAT(host.events(utc("20240401T073000Z"), nextYear), IsEmpty());
  EXPECT_THAT(host.events(utc("20230101T000000Z"), utc("20240328T080000Z")), IsEmpty());
  for (const Event& occurrence : host.events(january, nextYear)) {
    EXPECT_EQ(occurrence->calendarItemExternalIdentifier(),
              event->calendarItemExternalIdentifier());
    EXPECT_TRUE(occurrence->hasRecurrenceRules());
    EXPECT_THAT(occurrence->exceptionDates(), IsEmpty());
    EXPECT_EQ(occurrence->occurrenceDate(), occurrence->startDate());
  }
  const Events items = host.items(event);
  ASSERT_THAT(items, SizeIs(1));
  EXPECT_EQ(items[0]->startDate(), utc("20240328T080000Z"));
  EXPECT_THAT(items[0]->exceptionDates(), ElementsAre(utc("20240330T080000Z")));
}

// A day may have 23 or 25 hours, which an all-day event has too, and an event by the clock has not.
TEST(EventStore, KeepsTheLengthOfOccurrencesWhenTheClockIsSet) {
  const ScopedTimeZone here("Europe/Paris");
  struct Case {
    bool isAllDay;
    const char *start, *end, *expected;
  };
  const Case cases[] = {
      {true, "20241025T220000Z", "20241026T220000Z",
       "1025T2200-1026T2200 a, 1026T2200-1027T2300 a, 1027T2300-1028T2300 a"},
      {false, "20240331T000000Z", "20240331T030000Z",
       "0331T0000-0300 a, 0331T2300-0401T0200 a, 0401T2300-0402T0200 a"},
  };
  for (const Case& c : cases) {
    if (!c.isAllDay && EventHost::usesEvolution()) continue;  // which takes the wall's time there
    const EventHost host;
    const Event event = host.newEvent("a", utc(c.start), utc(c.end));
    event->setTimeZone(zone("Europe/Paris"));
    event->setAllDay(c.isAllDay);
    event->setRecurrenceRule("FREQ=DAILY;COUNT=3");
    ASSERT_EQ(host.save(event), nullptr);
    EXPECT_EQ(host.listing(january, nextYear), c.expected);
    for (const Event& each : host.events(january, nextYear)) {
      EXPECT_THAT(host.events(each->endDate()->dateByAddingSeconds(-1), *each->endDate()),
                  SizeIs(1));
    }
  }

  // By the wall's clock this one is over before it begins.
  const EventHost host;
  const Event event = host.newEvent("a", utc("20241027T003000Z"), utc("20241027T011500Z"));
  event->setTimeZone(std::nullopt);
  ASSERT_EQ(host.save(event), nullptr);
  EXPECT_THAT(host.events(utc("20241027T000000Z"), utc("20241027T010000Z")), SizeIs(1));
}

TEST(EventStore, ChangesOneFieldAlone) {
  const ScopedTimeZone here("UTC");
  const std::function<void(EKEvent&)> changes[] = {
      [](EKEvent& e) { e.setTitle(std::nullopt); },
      [](EKEvent& e) { e.setNotes(std::nullopt); },
      [](EKEvent& e) { e.setNotes("others"); },
      [](EKEvent& e) { e.setAllDay(true); },
      [](EKEvent& e) { e.setTimeZone(zone("Europe/Paris")); },
      [](EKEvent& e) { e.setTimeZone(std::nullopt); },
      [](EKEvent& e) { e.setAlarms({}); },
      [](EKEvent& e) { e.addAlarm({60}); },
      [](EKEvent& e) { e.setStartDate(e.startDate()->dateByAddingSeconds(3600)); },
      [](EKEvent& e) { e.setEndDate(e.endDate()->dateByAddingSeconds(3600)); },
  };
  const auto fields = [](const EKEvent& e) {
    return std::tuple(e.title(), e.notes(), e.isAllDay(), e.alarms(), e.startDate(), e.endDate(),
                      e.isAllDay() ? std::nullopt : e.timeZone());
  };
  for (const auto& change : changes) {
    const EventHost host;
    const Event event = host.newEvent("a", utc("20240105T000000Z"), utc("20240106T000000Z"));
    event->setNotes("notes");
    event->setAlarms({{-600}});
    ASSERT_EQ(host.save(event), nullptr);
    change(*event);
    const auto expected = fields(*event);
    ASSERT_EQ(host.save(event), nullptr);
    EXPECT_EQ(fields(*event), expected);
    EXPECT_EQ(event->occurrenceDate(), event->startDate());
    EXPECT_EQ(fields(*host.events().at(0)), expected) << &change - changes;
  }
}

// Whether a window is looked at alone or cut from the whole, the occurrences are the same.
TEST(EventStore, ExpandsAnyWindowAlike) {
  const char* rules[] = {"FREQ=DAILY;INTERVAL=3",
                         "FREQ=WEEKLY;INTERVAL=2;BYDAY=TU,SA;WKST=SU",
                         "FREQ=MONTHLY;INTERVAL=5;BYDAY=2MO",
                         "FREQ=DAILY;INTERVAL=17;COUNT=90",
                         "FREQ=HOURLY;INTERVAL=50",
                         "FREQ=MINUTELY;INTERVAL=4320;UNTIL=20300101T120000Z",
                         "FREQ=YEARLY;BYDAY=20MO;UNTIL=20300101",
                         "FREQ=MONTHLY;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=-1",
                         "FREQ=YEARLY;INTERVAL=2;BYWEEKNO=20"};
  for (const char* rule : rules) {
    const EventHost host;
    dailySeries(host, rule);
    const auto starts = [&](int from, int to) {
      std::vector<NSDate> dates;
      for (const Event& each : host.events(utc(std::to_string(from) + "0217T043000Z"),
                                           utc(std::to_string(to) + "0217T043000Z"))) {
        dates.push_back(*each->startDate());
      }
      return dates;
    };
    std::vector<NSDate> cut;
    for (int year = 2023; year < 2034; ++year) {
      for (const NSDate date : starts(year, year + 1)) cut.push_back(date);
    }
    const auto whole = starts(2023, 2034);
    EXPECT_GE(whole.size(), 5U) << rule;
    EXPECT_EQ(cut, whole) << rule;
  }
}

TEST(EventStore, EndsARuleThatCountsHoursOrLess) {
  const std::pair<const char*, std::size_t> cases[] = {
      {"FREQ=MINUTELY;INTERVAL=30;UNTIL=20240101T100000Z", 3},
      {"FREQ=SECONDLY;INTERVAL=1800;COUNT=4", 4},
      {"FREQ=DAILY;UNTIL=20231201T000000Z", 1},
      {"FREQ=HOURLY", 100'000}};  // a rule for every second would give more than fit into memory
  for (const auto& [rule, count] : cases) {
    const EventHost host;
    dailySeries(host, rule);
    EXPECT_EQ(host.events(january, utc("20360101T000000Z")).size(), count) << rule;
  }
}

TEST(EventStore, ChangesOneOccurrenceAlone) {
  const EventHost host;
  dailySeries(host, "FREQ=DAILY;COUNT=3");
  Event event = host.events()[1];
  move(*event, "20240110T090000Z", "20240110T093000Z");
  ASSERT_EQ(saveAs(host, event, "moved"), nullptr);
  EXPECT_TRUE(event->isDetached());

  // It stays where it is when it is saved again, and is still of the series.
  event = host.events()[2];
  EXPECT_TRUE(event->isDetached() && event->hasRecurrenceRules());
  event->setNotes("notes");
  ASSERT_EQ(host.save(event), nullptr);
  EXPECT_EQ(host.listing(),
            "0101T0900-1000 d, 0103T0900-1000 d, 0110T0900-0930 moved (was 0102T0900)");
  EXPECT_EQ(host.events()[2]->notes(), "notes");
  EXPECT_THAT(host.items(event), SizeIs(1));

  const std::function<void(EKEvent&)> changes[] = {
      [](EKEvent& e) { e.setRecurrenceRule("FREQ=YEARLY"); },
      [](EKEvent& e) { e.setExceptionDates({january}); },
      [](EKEvent& e) { e.setCalendar(EKCalendar::calendar()); }};
  for (const auto& change : changes) {
    event = host.events()[0];
    change(*event);
    const NSErrorPtr error = host.save(event);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), EKErrorInvalidSpan);
  }
}

TEST(EventStore, ChangesASeriesFromAnOccurrenceOn) {
  struct Case {
    std::size_t removed, changed;  // which occurrence
    const char* expected;
    bool isNewSeries;
  };
  // An occurrence is left out, the fourth was moved; both follow.
  const Case cases[] = {
      {0, 0, "0103T1030-1230 new, 0104T1030-1230 new, 0120T0900-1000 moved (was 0105T1030)", false},
      {1, 0, "0102T1030-1230 new, 0104T1030-1230 new, 0120T0900-1000 moved (was 0105T1030)", false},
      {1, 1, "0101T0900-1000 d, 0104T1030-1230 new, 0120T0900-1000 moved (was 0105T1030)", true},
  };
  for (const Case& c : cases) {
    const EventHost host;
    const std::string identifier =
        dailySeries(host, "FREQ=DAILY;COUNT=4")->calendarItemExternalIdentifier();
    Events events = host.events();
    ASSERT_EQ(host.remove(events[c.removed]), nullptr);
    move(*events[3], "20240120T090000Z", "20240120T100000Z");
    ASSERT_EQ(saveAs(host, events[3], "moved"), nullptr);

    events = host.events();
    const Event event = events[c.changed];
    event->setStartDate(event->startDate()->dateByAddingSeconds(25 * 3600 + 1800));
    event->setEndDate(event->endDate()->dateByAddingSeconds(26 * 3600 + 1800));
    ASSERT_EQ(saveAs(host, event, "new", futureEvents), nullptr);
    EXPECT_EQ(host.listing(), c.expected);
    EXPECT_EQ(event->calendarItemExternalIdentifier() != identifier, c.isNewSeries);
    EXPECT_THAT(host.items(event).at(0)->exceptionDates(), SizeIs(c.isNewSeries ? 0 : 1));
    EXPECT_EQ(event->startDate(), event->occurrenceDate());
  }
}

// The days stay where they are in any zone: those before the change, and those from it on.
TEST(EventStore, ChangesASeriesWithoutAZoneFromAnOccurrenceOn) {
  struct Case {
    bool isAllDay;
    const char *inNewYork, *inParis;
  };
  // In New York 10 March has 23 hours.
  const Case cases[] = {
      {true, "0309T0500-0310T0500 a, 0310T0500-0311T0400 a, 0311T0400-0312T0400 b",
       "0308T2300-0309T2300 a, 0309T2300-0310T2300 a, 0310T2300-0311T2300 b"},
      {false, "0309T1400-1500 a, 0310T1300-1400 a, 0311T1300-1400 b",
       "0309T0800-0900 a, 0310T0800-0900 a, 0311T0800-0900 b"},
  };
  for (const Case& c : cases) {
    const EventHost host;
    {
      const ScopedTimeZone here("America/New_York");
      const Event event = host.newEvent("a", utc("20240309T140000Z"), utc("20240309T150000Z"));
      event->setTimeZone(std::nullopt);
      event->setAllDay(c.isAllDay);
      event->setRecurrenceRule("FREQ=DAILY;COUNT=3");
      ASSERT_EQ(host.save(event), nullptr);
      ASSERT_EQ(saveAs(host, host.events(january, nextYear)[2], "b", futureEvents), nullptr);
      EXPECT_EQ(host.listing(january, nextYear), c.inNewYork);
      if (!EventHost::usesEvolution()) {
        EXPECT_EQ(host.events(january, nextYear)[0]->recurrenceRule(),
                  c.isAllDay ? "FREQ=DAILY;UNTIL=20240310" : "FREQ=DAILY;UNTIL=20240311T085959");
      }
    }
    const ScopedTimeZone there("Europe/Paris");
    EXPECT_EQ(host.listing(january, nextYear), c.inParis);
  }
}

// The days in January and the titles' first letters.
std::string shortListing(const EventHost& host) {
  std::string days;
  for (const Event& event : host.events()) {
    days += (days.empty() ? "" : " ") + event->startDate()->icsDateString().substr(6, 2) +
            event->title().value().substr(0, 1);
  }
  return days;
}

TEST(EventStore, TakesEitherSpanAnywhereInASeries) {
  struct Case {
    std::size_t which;
    EKSpan span;
    const char* saved;
    const char* removed;
  };
  const Case cases[] = {
      {0, thisEvent, "01n 02d 04d 20e", "02d 04d 20e"},
      {0, futureEvents, "01n 02n 04n 20e", ""},
      {1, thisEvent, "01d 02n 04d 20e", "01d 04d 20e"},
      {1, futureEvents, "01d 02n 04n 20e", "01d"},
      {3, thisEvent, "01d 02d 04d 20n", "01d 02d 04d"},
      {3, futureEvents, "01d 02d 04n 20n", "01d 02d"},
  };
  for (const Case& c : cases) {
    for (const bool isSaved : {true, false}) {
      const EventHost host;
      dailySeries(host, "FREQ=DAILY;COUNT=4");
      const Event third = host.events()[2];
      move(*third, "20240120T090000Z", "20240120T100000Z");
      ASSERT_EQ(saveAs(host, third, "edited"), nullptr);
      ASSERT_EQ(shortListing(host), "01d 02d 04d 20e");

      const Event event = host.events()[c.which];
      ASSERT_EQ(isSaved ? saveAs(host, event, "new", c.span) : host.remove(event, c.span), nullptr);
      EXPECT_EQ(shortListing(host), isSaved ? c.saved : c.removed) << c.which;
      // As it is now it can be saved once more.
      if (!isSaved) continue;
      EXPECT_EQ(saveAs(host, event, "new"), nullptr) << c.which;
    }
  }
}

TEST(EventStore, FindsASeriesByItsFirstOccurrenceThoughItWasChanged) {
  struct Case {
    bool isSaved;
    EKSpan span;
    const char* expected;
  };
  const Case cases[] = {
      {true, thisEvent, "0102T0900-1000 d, 0103T0900-1000 d, 0105T1300-1330 n (was 0101T0900)"},
      {true, futureEvents, "0102T1000-1100 n, 0103T1000-1100 n, 0105T1300-1330 n (was 0101T1000)"},
      {false, thisEvent, "0102T0900-1000 d, 0103T0900-1000 d"},
      {false, futureEvents, ""},
  };
  for (const Case& c : cases) {
    const EventHost host;
    dailySeries(host, "FREQ=DAILY;COUNT=3");
    const Event first = host.events()[0];
    move(*first, "20240105T120000Z", "20240105T123000Z");
    ASSERT_EQ(saveAs(host, first, "edited"), nullptr);
    const Events items = host.items(first);
    ASSERT_THAT(items, SizeIs(1));
    EXPECT_EQ(items[0]->title(), "edited");
    move(*items[0], "20240105T130000Z", "20240105T133000Z");
    ASSERT_EQ(c.isSaved ? saveAs(host, items[0], "n", c.span) : host.remove(items[0], c.span),
              nullptr);
    EXPECT_EQ(host.listing(), c.expected) << c.isSaved;
  }

  // What was changed may stand for a day that a new rule does not give.
  const EventHost host;
  const Event first = dailySeries(host, "FREQ=DAILY;COUNT=10");
  ASSERT_EQ(saveAs(host, host.events()[1], "edited"), nullptr);
  const Event whole = host.events()[0];
  whole->setRecurrenceRule("FREQ=WEEKLY;COUNT=3");
  ASSERT_EQ(host.save(whole, futureEvents), nullptr);
  ASSERT_EQ(host.remove(host.events()[0]), nullptr);
  EXPECT_EQ(host.items(first).at(0)->title(), "edited");
}

TEST(EventStore, RefusesAnOccurrenceThatIsNoLongerThere) {
  const std::function<NSErrorPtr(const EventHost&, const Events&)> cases[] = {
      [](const EventHost& host, const Events& events) { return host.remove(events[2]); },
      [](const EventHost& host, const Events& events) {
        return host.remove(events[1], futureEvents);
      },
      [](const EventHost& host, const Events& events) {
        move(*events[0], "20240101T110000Z", "20240101T120000Z");
        return host.save(events[0], futureEvents);
      },
      [](const EventHost& host, const Events& events) {
        events[0]->setRecurrenceRule(std::nullopt);
        return host.save(events[0], futureEvents);
      },
  };
  for (const auto& change : cases) {
    const EventHost host;
    dailySeries(host, "FREQ=DAILY;COUNT=4");
    const Event stale = host.events()[2];
    ASSERT_EQ(change(host, host.events()), nullptr);
    const auto left = host.listing();
    for (const EKSpan span : {thisEvent, futureEvents}) {
      for (const NSErrorPtr& error : {host.remove(stale, span), saveAs(host, stale, "new", span)}) {
        ASSERT_NE(error, nullptr) << &change - cases;
        EXPECT_EQ(error->code(), EKErrorInternalFailure) << &change - cases;
      }
    }
    EXPECT_EQ(host.listing(), left) << &change - cases;
  }
}

TEST(EventStore, MakesAnEventRecurringAndSingleAgain) {
  const EventHost host;
  const Event event = host.newEvent("a", utc("20240105T090000Z"), utc("20240105T100000Z"));
  ASSERT_EQ(host.save(event), nullptr);
  event->setRecurrenceRule("FREQ=WEEKLY");
  ASSERT_EQ(host.save(event), nullptr);
  const Events weekly = host.events();
  ASSERT_THAT(weekly, SizeIs(4));
  ASSERT_EQ(saveAs(host, weekly[2], "changed"), nullptr);
  ASSERT_EQ(host.remove(weekly[1]), nullptr);
  weekly[0]->setRecurrenceRule(std::nullopt);
  ASSERT_EQ(host.save(weekly[0], futureEvents), nullptr);
  ASSERT_THAT(host.events(), SizeIs(1));
  EXPECT_THAT(host.events()[0]->exceptionDates(), IsEmpty());
  EXPECT_THAT(host.events(february, utc("20300101T000000Z")), IsEmpty());
}

TEST(EventStore, KeepsWhatAnotherHasChangedMeanwhile) {
  const EventHost host;
  const Event mine = host.newEvent("old", utc("20240105T090000Z"), utc("20240105T100000Z"));
  ASSERT_EQ(host.save(mine), nullptr);
  const Event theirs = host.events()[0];
  theirs->setNotes("theirs");
  theirs->setStartDate(utc("20240105T080000Z"));
  ASSERT_EQ(host.save(theirs), nullptr);
  ASSERT_EQ(saveAs(host, mine, "mine"), nullptr);
  EXPECT_EQ(host.listing(), "0105T0800-1000 mine");
  EXPECT_EQ(mine->notes(), "theirs");

  const EventHost other;
  dailySeries(other, "FREQ=DAILY;COUNT=3");
  const Event second = other.events()[1];
  ASSERT_EQ(saveAs(other, other.events()[1], "theirs"), nullptr);
  ASSERT_EQ(saveAs(other, second, "mine", futureEvents), nullptr);
  EXPECT_EQ(shortListing(other), "01d 02t 03m");
  // A rule of its own counts as it says.
  const Event third = other.events()[2];
  third->setRecurrenceRule("FREQ=WEEKLY;COUNT=2");
  ASSERT_EQ(other.save(third, futureEvents), nullptr);
  EXPECT_EQ(shortListing(other), "01d 02t 03m 10m");
}

TEST(EventStore, HasCalendarsWithTheirEvents) {
  const EventHost host;
  const std::size_t before = host.store->calendarsForEntityType(EKEntityType::event).size();
  const EventHost another(host.store);
  const auto other = another.calendar;
  other->setTitle("Zoo");  // which stands before what begins with a small letter
  ASSERT_TRUE(host.store->saveCalendar_commit_error(other, true, nullptr));
  const auto calendars = host.store->calendarsForEntityType(EKEntityType::event);
  EXPECT_EQ(calendars.size(), before + 1);
  EXPECT_TRUE(std::is_sorted(calendars.begin(), calendars.end(),
                             [](const auto& a, const auto& b) { return a->title() < b->title(); }));
  EXPECT_THAT(host.store->calendarsForEntityType(EKEntityType::reminder), IsEmpty());
  EXPECT_EQ(host.store->calendarWithIdentifier(other->calendarIdentifier())->title(), "Zoo");
  EXPECT_EQ(host.store->calendarWithIdentifier("unknown"), nullptr);

  const Event event = host.newEvent("a", january, january);
  ASSERT_EQ(host.save(event), nullptr);
  event->setCalendar(other);
  ASSERT_EQ(host.save(event), nullptr);
  dailySeries(host, "FREQ=DAILY;COUNT=3");
  const Event series = host.events().at(0);
  series->setCalendar(other);
  ASSERT_EQ(host.save(series, futureEvents), nullptr);
  EXPECT_THAT(host.events(), IsEmpty());
  const auto all = host.store->predicateForEventsWithStartDate_endDate_calendars(january, february,
                                                                                 std::nullopt);
  EXPECT_THAT(another.events(), SizeIs(1 + 3));
  EXPECT_THAT(host.store->eventsMatchingPredicate(all), SizeIs(1 + 3));
  ASSERT_TRUE(host.store->removeCalendar_commit_error(other, true, nullptr));
  EXPECT_THAT(host.items(event), IsEmpty());
  NSErrorPtr error;
  EXPECT_FALSE(host.store->removeCalendar_commit_error(other, true, &error));
  EXPECT_EQ(error->code(), EKErrorNoCalendar);
}

TEST(EventStore, GrantsAccessLaterOrRefusesEverything) {
  for (const bool isDenied : {false, true}) {
    const auto preference = HWPreference::preferenceForKey("EKEventStoreAccess");
    if (isDenied) preference->setStringValue("denied");
    const auto store = EKEventStore::initWithDatabasePath_error(":memory:", nullptr);
    preference->setStringValue(std::nullopt);
    NSErrorPtr refusal;
    EXPECT_NE(store->saveCalendar_commit_error(EKCalendar::calendar(), true, &refusal), isDenied);
    EXPECT_TRUE(!isDenied || refusal->code() == EKErrorEventStoreNotAuthorized);
    EXPECT_THAT(store->calendarsForEntityType(EKEntityType::event), SizeIs(isDenied ? 0 : 1));
    std::vector<bool> answers;
    for (const EKEntityType type : {EKEntityType::event, EKEntityType::reminder}) {
      store->requestAccessToEntityType_completion(type, [&](bool granted, const NSErrorPtr& error) {
        EXPECT_EQ(granted, error == nullptr);
        answers.push_back(granted);
      });
    }
    EXPECT_THAT(answers, IsEmpty());
    EXPECT_TRUE(runUntil([&] { return answers.size() == 2; }));
    EXPECT_THAT(answers, ElementsAre(!isDenied, !isDenied));
  }
}

TEST(EventStore, PostsItsOwnChangesTogether) {
  const EventHost host;
  const EventHost other;
  ChangeCount posted(host.store);
  for (int i = 0; i < 9; ++i) host.save(host.newEvent("a", january, january));
  EXPECT_EQ(posted.count, 0);
  EXPECT_TRUE(runUntil([&] { return posted.count != 0; }));
  const Events same = host.events();
  EXPECT_TRUE(std::is_sorted(same.begin(), same.end(), [](const Event& a, const Event& b) {
    return a->calendarItemExternalIdentifier() < b->calendarItemExternalIdentifier();
  }));
  host.remove(same[0]);
  EXPECT_TRUE(runUntil([&] { return posted.count == 2; }));
  posted.count = 0;
  EXPECT_TRUE(host.store->removeCalendar_commit_error(host.calendar, true, nullptr));
  EXPECT_TRUE(runUntil([&] { return posted.count != 0; }));
}

}  // namespace
}  // namespace quillmere
