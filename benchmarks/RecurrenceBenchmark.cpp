// Walks through the occurrences of recurrence rules, beside libical and beside a loop written by
// hand for each rule.

#include <cctz/civil_time.h>
#include <cctz/time_zone.h>
#include <libical/ical.h>
#include <quillmere/platform/dates/NSTimeZone.h>
#include <quillmere/recurrence/KBTCalRepetition.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "Race.h"

namespace {

using namespace benchmarks;
using cctz::civil_day, cctz::civil_month, cctz::civil_second;
using quillmere::KBTCalRepetition, quillmere::KBTRepetitionInstance;
using quillmere::NSDate, quillmere::NSTimeZone;

constexpr std::size_t occurrences = 10'000;
constexpr civil_second start(2024, 1, 31, 10);
constexpr int startWeekday = 3;  // a Wednesday

// What a contender makes of its occurrences, so that none of them can be left out.
struct Sums {
  std::size_t count = 0;
  std::int64_t instants = 0;  // seconds since 1970
  std::int64_t fields = 0;

  void addFields(std::int64_t year, int month, int day, int hourOrWeekday) {
    ++count;
    fields += year << 14 | month << 10 | day << 5 | hourOrWeekday;
  }
  void add(cctz::time_point<cctz::seconds> instant, const civil_second& civil) {
    addFields(civil.year(), civil.month(), civil.day(), civil.hour());
    instants += instant.time_since_epoch().count();
  }

  friend bool operator==(const Sums&, const Sums&) = default;
};

// The limits: the steps one would write by hand for just that rule. Of the ways to write each, this
// is the quickest of several tried; the civil types are slow to count days back, and weekdays are
// quicker carried along than asked for.

struct Daily {
  civil_day day{start};
  int weekday = startWeekday;

  void step() {
    day += 1;
    weekday = weekday == 6 ? 0 : weekday + 1;
  }
};

struct MondayWednesdayFriday {
  civil_day day{start};
  int weekday = startWeekday;

  void step() {
    const bool isFriday = weekday == 5;
    day += isFriday ? 3 : 2;
    weekday = isFriday ? 1 : weekday + 2;
  }
};

struct Every31st {
  civil_day day{start};

  void step() {
    constexpr unsigned monthsWith31Days = 0b1'0101'1010'1010;
    civil_month month(day);
    do {
      ++month;
    } while ((monthsWith31Days >> month.month() & 1) == 0);
    day = civil_day(month.year(), month.month(), 31);
  }
};

int lengthOf(civil_month month) {
  const auto year = month.year();
  const int number = month.month();
  if (number == 2) return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0) ? 29 : 28;
  return 30 | (number ^ number >> 3);
}

struct LastFriday {
  civil_day day{start};

  void step() {
    const civil_month month = civil_month(day) + 1;
    const civil_day last(month.year(), month.month(), lengthOf(month));
    const int daysSinceFriday = (static_cast<int>(cctz::get_weekday(last)) + 3) % 7;
    day = civil_day(month.year(), month.month(), last.day() - daysSinceFriday);
  }
};

struct LastWorkday {
  civil_day day{start};

  void step() {
    const civil_month month = civil_month(day) + 1;
    const civil_day last(month.year(), month.month(), lengthOf(month));
    const cctz::weekday weekday = cctz::get_weekday(last);
    const int daysSinceFriday = weekday == cctz::weekday::saturday ? 1
                                : weekday == cctz::weekday::sunday ? 2
                                                                   : 0;
    day = civil_day(month.year(), month.month(), last.day() - daysSinceFriday);
  }
};

struct MidJanuaryAndJune {
  civil_day day{start};

  void step() {
    day = day.month() < 6 ? civil_day(day.year(), 6, 15) : civil_day(day.year() + 1, 1, 15);
  }
};

template <class Days>
Sums byHand(const cctz::time_zone& zone, std::size_t count) {
  Sums sums;
  for (Days at; sums.count != count; at.step()) {
    const civil_second civil(at.day.year(), at.day.month(), at.day.day(), start.hour());
    sums.add(zone.lookup(civil).pre, civil);
  }
  return sums;
}

// Every field that an instance has: the weekday is asked for, since a loop that knows the civil
// time alone would, and the length of the month counts as well.
template <class Days>
Sums fieldsByHand() {
  Sums sums;
  for (Days at; sums.count != occurrences; at.step()) {
    const int weekday = (static_cast<int>(cctz::get_weekday(at.day)) + 1) % 7;
    sums.addFields(at.day.year(), at.day.month(), at.day.day(), weekday);
    sums.fields += lengthOf(civil_month(at.day));
  }
  return sums;
}

Sums sixHourlyByHand(const cctz::time_zone& zone, std::size_t count) {
  Sums sums;
  for (auto at = zone.lookup(start).pre; sums.count != count; at += cctz::seconds(6 * 3600)) {
    sums.add(at, cctz::convert(at, zone));
  }
  return sums;
}

Sums ours(const KBTCalRepetition& rule) {
  Sums sums;
  for (KBTRepetitionInstance at = rule.firstRepetitionInstance();
       at.day != 0 && sums.count != occurrences; at = rule.nextRepetitionInstance(at)) {
    sums.addFields(at.year, at.month, at.day, at.hour);
    sums.instants += KBTCalRepetition::dateForInstance(at)->secondsSince1970();
  }
  return sums;
}

Sums ourFields(const KBTCalRepetition& rule) {
  Sums sums;
  for (KBTRepetitionInstance at = rule.firstRepetitionInstance();
       at.day != 0 && sums.count != occurrences; at = rule.nextRepetitionInstance(at)) {
    sums.addFields(at.year, at.month, at.day, at.weekday);
    sums.fields += at.daysInMonth;
  }
  return sums;
}

// Fewer occurrences where libical's calendar, which ends with 2582, has no more of them. A start
// that does not fit the rule is not among libical's own, and added here.
Sums libicals(const icalrecurrencetype& rule, icaltimezone* zone) {
  Sums sums;
  const auto add = [&](const icaltimetype& time) {
    sums.addFields(time.year, time.month, time.day, time.hour);
    sums.instants += icaltime_as_timet_with_zone(time, zone);
  };
  icaltimetype first = icaltime_from_string("20240131T100000");
  icaltime_set_timezone(&first, zone);
  const std::unique_ptr<icalrecur_iterator, void (*)(icalrecur_iterator*)> iterator(
      icalrecur_iterator_new(rule, first), icalrecur_iterator_free);
  icaltimetype at = icalrecur_iterator_next(iterator.get());
  if (icaltime_compare(at, first) != 0) add(first);
  for (; sums.count != occurrences && !icaltime_is_null_time(at);
       at = icalrecur_iterator_next(iterator.get())) {
    add(at);
  }
  return sums;
}

struct Rule {
  const char* text;
  Sums (*byHand)(const cctz::time_zone&, std::size_t);
  Sums (*fieldsByHand)() = nullptr;
};

constexpr Rule rules[] = {
    {"DAILY", byHand<Daily>, fieldsByHand<Daily>},
    {"WEEKLY;BYDAY=MO,WE,FR", byHand<MondayWednesdayFriday>, fieldsByHand<MondayWednesdayFriday>},
    {"MONTHLY;BYMONTHDAY=31", byHand<Every31st>},
    {"MONTHLY;BYDAY=-1FR", byHand<LastFriday>},
    {"MONTHLY;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=-1", byHand<LastWorkday>},
    {"YEARLY;BYMONTH=1,6;BYMONTHDAY=15", byHand<MidJanuaryAndJune>},
    {"HOURLY;INTERVAL=6", sixHourlyByHand},
};

// A zone of the contenders' three, and the default one from here on.
struct Zone {
  explicit Zone(const char* zoneName)
      : name(zoneName), ofLibical(icaltimezone_get_builtin_timezone(zoneName)) {
    const auto zone = NSTimeZone::timeZoneWithName(name);
    require(zone && ofLibical && cctz::load_time_zone(name, &ofLimit), "a zone is missing");
    NSTimeZone::setDefaultTimeZone(*zone);
  }

  std::shared_ptr<KBTCalRepetition> series(const char* rule) const {
    auto series = KBTCalRepetition::initWithRRule_error(std::string("FREQ=") + rule, nullptr);
    require(series != nullptr, "a rule was refused");
    series->setStartDate(dateAt(start));
    return series;
  }
  NSDate dateAt(const civil_second& civil) const {
    const auto seconds = ofLimit.lookup(civil).pre.time_since_epoch().count();
    return NSDate::dateWithMicrosecondsSince1970(seconds * NSDate::microsecondsPerSecond);
  }

  std::string name;
  cctz::time_zone ofLimit;
  icaltimezone* ofLibical;
};

std::string nanoseconds(double number) { return formatted(number, number < 100 ? "%.1f" : "%.0f"); }

// What a contender is held against: each of these may be missing.
struct Targets {
  const Race::Contender* limit = nullptr;
  double mostOfLimit = 0;  // of the limit's time
  const Race::Contender* libical = nullptr;
  double leastOfLibical = 0;  // of libical's speed
  double mostNanoseconds = std::numeric_limits<double>::infinity();
};

// Prints a row of the table of times.
void printTimes(const Race::Contender& ours, const Targets& targets) {
  const double time = ours.nanosecondsEach();
  std::string limit, ofLimit, libical, ofLibical, target;
  bool met = time <= targets.mostNanoseconds;
  if (std::isfinite(targets.mostNanoseconds)) {
    target = "at most " + formatted(targets.mostNanoseconds / 1e3, "%.0f µs");
  }
  if (targets.limit) {
    const double ratio = time / targets.limit->nanosecondsEach();
    limit = nanoseconds(targets.limit->nanosecondsEach());
    ofLimit = formatted(ratio, "%.2f x");
    target = "at most " + times(targets.mostOfLimit) + " the limit";
    met = met && ratio <= targets.mostOfLimit;
  }
  if (targets.libical) {
    const double ratio = targets.libical->nanosecondsEach() / time;
    libical = nanoseconds(targets.libical->nanosecondsEach());
    ofLibical = times(ratio);
    target += ", at least " + formatted(targets.leastOfLibical, "%.0f x libical");
    met = met && ratio >= targets.leastOfLibical;
  }
  print({ours.name, nanoseconds(time), limit, ofLimit, libical, ofLibical, target, yesNo(met)});
}

// A pass that has to give the same sums again.
Race::Pass passOf(std::function<Sums()> walk, const Sums& expected) {
  return [walk = std::move(walk), expected] {
    require(walk() == expected, "a walk gave other occurrences");
    return nullptr;
  };
}

constexpr std::size_t quickPasses = 20;  // of some tenths of a millisecond

void measureInstants(const Rule& rule, const Zone& zone) {
  const auto series = zone.series(rule.text);
  const icalrecurrencetype peer =
      icalrecurrencetype_from_string((std::string("FREQ=") + rule.text).c_str());
  const Sums expected = rule.byHand(zone.ofLimit, occurrences);
  require(ours(*series) == expected, "the occurrences are not those of the loop written by hand");
  const Sums libicalSums = libicals(peer, zone.ofLibical);
  require(libicalSums.count >= occurrences / 10 &&
              libicalSums == rule.byHand(zone.ofLimit, libicalSums.count),
          "libical found other occurrences");

  Race race;
  const auto& libical =
      race.add("libical", libicalSums.count,
               passOf([&] { return libicals(peer, zone.ofLibical); }, libicalSums));
  const auto& limit = race.add(
      "limit", occurrences,
      passOf([&] { return rule.byHand(zone.ofLimit, occurrences); }, expected), quickPasses);
  const auto& instants = race.add(std::string(rule.text) + ", " + zone.name, occurrences,
                                  passOf([&] { return ours(*series); }, expected), quickPasses);
  race.run();
  printTimes(instants,
             {.limit = &limit, .mostOfLimit = 3, .libical = &libical, .leastOfLibical = 50});
}

void measureFields(const Rule& rule, const Zone& zone) {
  const auto series = zone.series(rule.text);
  const Sums expected = rule.fieldsByHand();
  Race race;
  const auto& limit =
      race.add("limit", occurrences, passOf(rule.fieldsByHand, expected), quickPasses);
  const auto& fields = race.add(std::string(rule.text) + ", fields alone", occurrences,
                                passOf([&] { return ourFields(*series); }, expected), quickPasses);
  race.run();
  printTimes(fields, {.limit = &limit, .mostOfLimit = 1});
}

void measureOthers(const Zone& zone) {
  constexpr std::size_t calls = 1'000;
  Race race;
  const auto& parsing = race.add("parse a rule with six parts", calls, [] {
    for (std::size_t call = 0; call != calls; ++call) {
      const auto rule = KBTCalRepetition::initWithRRule_error(
          "FREQ=MONTHLY;INTERVAL=2;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=-1;COUNT=10;WKST=SU", nullptr);
      require(rule && rule->recurrenceCount() == 10, "the rule was refused");
    }
    return nullptr;
  });

  const auto series = zone.series("DAILY");
  constexpr civil_second later(start.year() + 50, start.month(), start.day(), start.hour());
  const NSDate date = zone.dateAt(later);
  const auto& search = race.add("repetitionInstanceAtOrAfterDate, DAILY, 50 years on", calls, [&] {
    for (std::size_t call = 0; call != calls; ++call) {
      require(series->repetitionInstanceAtOrAfterDate(date).occurrence ==
                  civil_day(later) - civil_day(start),
              "another occurrence was found");
    }
    return nullptr;
  });
  race.run();
  printTimes(parsing, {.mostNanoseconds = 2e3});
  printTimes(search, {.mostNanoseconds = 1e6});
}

// The longest walks that a stranger's rule can ask for: to the end of a count that no series
// reaches, from the calendar's first year; after it, the search of a rule that never matches.
void measureWorst(const Zone& zone) {
  const std::string everyDay =
      ";BYMONTHDAY=1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,"
      "30,31";
  const std::string everyMonth = ";BYMONTH=1,2,3,4,5,6,7,8,9,10,11,12";
  const struct {
    const char* name;
    std::string rule;
  } worst[] = {
      {"MINUTELY", "MINUTELY"},
      {"MINUTELY;INTERVAL=61", "MINUTELY;INTERVAL=61"},
      {"HOURLY;INTERVAL=4001", "HOURLY;INTERVAL=4001"},
      {"HOURLY;INTERVAL=9600", "HOURLY;INTERVAL=9600"},
      {"DAILY", "DAILY"},
      {"WEEKLY, every day", "WEEKLY;BYDAY=SU,MO,TU,WE,TH,FR,SA"},
      {"MONTHLY, every day", "MONTHLY" + everyDay},
      {"MONTHLY, set positions", "MONTHLY;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=1,2,3,4,5,-1,-2,-3,-4,-5"},
      {"YEARLY, every day", "YEARLY" + everyMonth + everyDay},
      {"YEARLY;BYMONTH=2;BYMONTHDAY=30", "YEARLY;BYMONTH=2;BYMONTHDAY=30"},
      {"YEARLY;BYMONTH=2,4,6,9,11;BYMONTHDAY=31", "YEARLY;BYMONTH=2,4,6,9,11;BYMONTHDAY=31"},
      {"YEARLY;INTERVAL=7;BYMONTH=2;BYMONTHDAY=30", "YEARLY;INTERVAL=7;BYMONTH=2;BYMONTHDAY=30"},
  };
  for (const auto& each : worst) {
    const auto series = zone.series(each.rule.c_str());
    series->setStartDate(zone.dateAt(civil_second(1, 1, 31, start.hour())));
    series->setRecurrenceCount(std::numeric_limits<std::int64_t>::max());
    Race race;
    const auto& end = race.add(std::string("endDate, ") + each.name, 1, [&] {
      require(!series->endDate(), "a series has reached its count");
      return nullptr;
    });
    race.run();
    printTimes(end, {.mostNanoseconds = 200e6});
  }
}

}  // namespace

int main() {
  for (const char* name : {"America/New_York", "UTC"}) {
    const Zone zone(name);
    for (const Rule& rule : rules) measureInstants(rule, zone);
  }
  const Zone zone("America/New_York");
  for (const Rule& rule : rules) {
    if (rule.fieldsByHand) measureFields(rule, zone);
  }
  measureOthers(zone);
  measureWorst(zone);
}
