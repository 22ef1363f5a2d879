#include <gtest/gtest.h>
#include <quillmere/platform/dates/CivilDate.h>
#include <quillmere/platform/dates/CivilTime.h>
#include <quillmere/platform/dates/WallClock.h>

#include <functional>
#include <random>

#include "tests/support/ScopedTimeZone.h"

namespace quillmere {
namespace {

const cctz::civil_second epoch(1970);

std::int64_t instantByZone(std::int64_t wallTime) {
  return cctzDefaultZone().lookup(epoch + wallTime).pre.time_since_epoch().count();
}

std::int64_t wallTimeByZone(std::int64_t instant) {
  const cctz::time_point<cctz::seconds> point{cctz::seconds(instant)};
  return cctz::convert(point, cctzDefaultZone()) - epoch;
}

void expectSame(std::int64_t time) {
  WallClock& clock = WallClock::current();
  ASSERT_EQ(clock.instantOf(time), instantByZone(time)) << "of wall time " << time;
  ASSERT_EQ(clock.wallTimeAt(time), wallTimeByZone(time)) << "at instant " << time;
}

// The zones differ in how they end: by yearly rules, in either hemisphere, by rules for each year
// up to 2087, by none.
void inEachZone(const std::function<void()>& check) {
  for (const char* name : {"UTC", "America/New_York", "Australia/Lord_Howe", "America/Sao_Paulo",
                           "Africa/Casablanca", "Asia/Gaza", "Pacific/Apia", "Africa/Freetown",
                           "Antarctica/Troll", "Europe/Dublin", "Asia/Tokyo"}) {
    const testing::ScopedTimeZone zone(name);
    check();
    if (::testing::Test::HasFatalFailure()) FAIL() << name;
  }
}

TEST(WallClock, AgreesWithTheZoneAnywhere) {
  std::mt19937_64 random(4);
  inEachZone([&random] {
    for (const int lastYear : {2040, 2500, 144'683}) {
      std::uniform_int_distribution<std::int64_t> times(
          -std::int64_t{36'600} * secondsPerDay,
          std::int64_t{lastYear - 1970} * 365 * secondsPerDay);
      for (int i = 0; i < 1000; ++i) expectSame(times(random));
    }
  });
}

// In half hours through every setting of the clocks in some years, forwards, and in leaps that pass
// over several.
TEST(WallClock, AgreesWithTheZoneOnWalks) {
  constexpr std::int64_t halfAnHour = 30 * secondsPerMinute;
  struct Walk {
    int year;
    int years;
    std::int64_t step;
  };
  inEachZone([] {
    for (const auto& [year, years, step] :
         {Walk{1940, 5, halfAnHour}, Walk{2005, 15, halfAnHour}, Walk{2436, 4, halfAnHour},
          Walk{2398, 4, halfAnHour}, Walk{2030, 900, 40 * secondsPerDay + 1},
          Walk{1850, 800, 170 * secondsPerDay}, Walk{2300, 900, 300 * secondsPerDay + 7}}) {
      const std::int64_t begin = dayNumber({year, 1, 1}) * secondsPerDay;
      const std::int64_t end = dayNumber({year + years, 1, 1}) * secondsPerDay;
      for (std::int64_t time = begin; time < end; time += step) expectSame(time);
    }
  });
}

// Coming from afar to the very second of a setting, and into the hour that it repeats.
TEST(WallClock, KnowsTheEndsOfASpanAtOnce) {
  constexpr std::int64_t backToStandard = 1'730'613'600;  // 3 November 2024, 06:00 UTC
  constexpr std::int64_t daylight = -4 * secondsPerHour;
  const testing::ScopedTimeZone zone("America/New_York");
  WallClock& clock = WallClock::current();
  const std::int64_t repeated = backToStandard - 5 * secondsPerHour + 1800;
  EXPECT_EQ(clock.wallTimeAt(backToStandard), wallTimeByZone(backToStandard));
  EXPECT_EQ(clock.instantOf(repeated), repeated - daylight) << "the first of the two";
  clock.wallTimeAt(-backToStandard);
  EXPECT_EQ(clock.wallTimeAt(backToStandard), wallTimeByZone(backToStandard));
  EXPECT_EQ(clock.wallTimeAt(backToStandard - 1), wallTimeByZone(backToStandard - 1));
}

TEST(CivilDate, IsTheSameDayAsItsNumber) {
  EXPECT_EQ(civilDate(0), (CivilDate{1970, 1, 1}));
  EXPECT_EQ(weekdayOf(0), 4);
  EXPECT_EQ(weekdayOf(-5), 6);
  for (const std::int64_t number :
       {-719'162L, -719'528L, -1L, 59L, 11'016L, 52'100'000L, -60'000'000L}) {
    const cctz::civil_day day = cctz::civil_day(1970, 1, 1) + number;
    EXPECT_EQ(civilDate(number), (CivilDate{day.year(), day.month(), day.day()}));
    EXPECT_EQ(dayNumber({day.year(), day.month(), day.day()}), number);
    EXPECT_EQ(daysInMonth(day.year(), day.month()), cctz::civil_day(cctz::civil_month(day) + 1) -
                                                        cctz::civil_day(cctz::civil_month(day)));
  }
}

}  // namespace
}  // namespace quillmere
