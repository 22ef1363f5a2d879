#include <quillmere/platform/base/KSDiagnostics.h>
#include <quillmere/platform/dates/CivilDate.h>
#include <quillmere/platform/dates/WallClock.h>
#include <quillmere/recurrence/KBTCalRepetition.h>
#include <quillmere/recurrence/RepetitionCycle.h>

#include <algorithm>
#include <bit>

namespace quillmere {
namespace {

constexpr int daysPerWeek = 7;

constexpr std::uint64_t bit(unsigned number) { return std::uint64_t{1} << number; }

// The bits of the days `first` to `last`.
constexpr std::uint64_t days(unsigned first, unsigned last) {
  return bit(last + 1) - std::min(bit(first), bit(last + 1));
}

constexpr int moduloWeek(int number) {
  const int rest = number % daysPerWeek;
  return rest < 0 ? rest + daysPerWeek : rest;
}

// A mask of weekdays for a week that begins on `first`: bit 0 is that weekday.
constexpr std::uint64_t weekFrom(int first, std::uint64_t weekdays) {
  return (weekdays >> first | weekdays << (daysPerWeek - first)) & days(0, daysPerWeek - 1);
}

CivilDate dayOf(const KBTRepetitionInstance& instance) {
  return {instance.year, instance.month, instance.day};
}

std::int64_t wallTimeOf(const KBTRepetitionInstance& instance, std::int64_t dayNumber) {
  return dayNumber * secondsPerDay + instance.hour * secondsPerHour +
         instance.minute * secondsPerMinute;
}
std::int64_t wallTimeOf(const KBTRepetitionInstance& instance) {
  return wallTimeOf(instance, dayNumber(dayOf(instance)));
}

void setDay(const CivilDate& day, int weekday, KBTRepetitionInstance& instance) {
  instance.day = static_cast<std::uint8_t>(day.day);
  instance.weekday = static_cast<std::uint8_t>(weekday);
  instance.month = static_cast<std::uint8_t>(day.month);
  instance.daysInMonth = static_cast<std::uint8_t>(daysInMonth(day.year, day.month));
  instance.year = day.year;
}

// The end marker outside the calendar.
void setWallTime(std::int64_t wallTime, KBTRepetitionInstance& instance) {
  const std::int64_t number = floorDivide(wallTime, secondsPerDay);
  const CivilDate day = civilDate(number);
  if (!isInCalendar(day.year)) {
    instance.day = 0;
    return;
  }
  setDay(day, weekdayOf(number), instance);
  const auto second = static_cast<int>(wallTime - number * secondsPerDay);
  instance.hour = static_cast<std::uint8_t>(second / secondsPerHour);
  instance.minute = static_cast<std::uint8_t>(second / secondsPerMinute % secondsPerMinute);
  instance.second = static_cast<std::uint8_t>(second % secondsPerMinute);
}

// The end marker outside the calendar. Fields are held in variables on the way, since most rules
// come through here.
KBTRepetitionInstance addDays(std::int64_t days, const KBTRepetitionInstance& instance) {
  days = boundedAmount(days);
  std::int64_t day = instance.day + days;
  std::int64_t year = instance.year;
  int month = instance.month;
  int length = instance.daysInMonth;
  while (day > length) {
    if (day > daysPerCycle) {
      year += (day - 1) / daysPerCycle * yearsPerCycle;
      day = (day - 1) % daysPerCycle + 1;
    } else {
      day -= length;
      constexpr int december = 12;
      if (month == december) {
        month = 0;
        ++year;
      }
      ++month;
      length = daysInMonth(year, month);
    }
    if (!isInCalendar(year)) day = 0;
  }
  const int weekday = instance.weekday + static_cast<int>(days % daysPerWeek);
  return {instance.occurrence,
          instance.second,
          instance.minute,
          instance.hour,
          static_cast<std::uint8_t>(day),
          static_cast<std::uint8_t>(weekday < daysPerWeek ? weekday : weekday - daysPerWeek),
          static_cast<std::uint8_t>(month),
          static_cast<std::uint8_t>(length),
          year};
}

// Also outside MINUTELY and HOURLY rules an instance may name a wall time that no clock shows.
// Intended: a step of months or years starts from the time that is shown instead, and so takes it
// along.
void moveToShownTime(WallClock& clock, std::int64_t dayNumber, KBTRepetitionInstance& instance) {
  instance.second = 0;
  const std::int64_t wallTime = wallTimeOf(instance, dayNumber);
  const std::int64_t shown = clock.wallTimeAt(clock.instantOf(wallTime));
  if (shown != wallTime) setWallTime(shown, instance);
}

// Puts the date of `instance` and so many years and months in its place. False, and the end marker,
// outside the calendar. Intended: a day that a month's end cut stays cut in later steps.
bool addYearsAndMonths(std::int64_t years, std::int64_t months, KBTRepetitionInstance& instance) {
  WallClock& clock = WallClock::current();
  moveToShownTime(clock, dayNumber(dayOf(instance)), instance);
  const CivilDate day = addYearsAndMonths(dayOf(instance), years, months);
  if (!isInCalendar(day.year)) {
    instance.day = 0;
    return false;
  }
  const std::int64_t number = dayNumber(day);
  setDay(day, weekdayOf(number), instance);
  moveToShownTime(clock, number, instance);
  return true;
}

KBTRepetitionInstance addSeconds(std::int64_t seconds, KBTRepetitionInstance instance) {
  WallClock& clock = WallClock::current();
  const std::int64_t from = wallTimeOf(instance);
  const std::int64_t before = clock.instantOf(from);
  std::int64_t after = before;
  std::int64_t wallTime = from;
  bool comesLater = false;
  // In an hour that the clocks repeat, an instance stands for the first of two times. Steps go on
  // until that is later than the time before, so that no series stands still.
  while (!comesLater) {
    after += seconds;
    wallTime = clock.wallTimeAt(after);
    const bool clocksAgree = wallTime - from == after - before;
    const std::int64_t toTheMinute = floorDivide(wallTime, secondsPerMinute) * secondsPerMinute;
    comesLater = clocksAgree || clock.instantOf(toTheMinute) > before;
  }
  setWallTime(wallTime, instance);
  // The platform's weekday, 1 Sunday to 7 Saturday: intended, and nothing reads it.
  ++instance.weekday;
  return instance;
}

// Takes up to `most` such steps at once, as far as the clock keeps its setting, for until then each
// of them is an addition and nothing more.
void addSecondsOften(std::int64_t seconds, std::int64_t most, KBTRepetitionInstance& instance) {
  WallClock& clock = WallClock::current();
  const std::int64_t before = clock.instantOf(wallTimeOf(instance));
  const std::int64_t steps = std::min(most, (clock.endOfSettingAt(before) - 1 - before) / seconds);
  if (steps < 1) return;
  setWallTime(clock.wallTimeAt(before + steps * seconds), instance);
  instance.occurrence += steps;
}

}  // namespace

KBTRepetitionInstance KBTCalRepetition::firstRepetitionInstance() const {
  return startDate_ ? _instanceForDate_occurence(*startDate_, 0) : KBTRepetitionInstance();
}

KBTRepetitionInstance KBTCalRepetition::_instanceForDate_occurence(NSDate date,
                                                                   std::int64_t occurrence) {
  KBTRepetitionInstance instance;
  instance.occurrence = occurrence;
  setWallTime(WallClock::current().wallTimeAt(date.secondsSince1970()), instance);
  return instance;
}

std::optional<NSDate> KBTCalRepetition::dateForInstance(const KBTRepetitionInstance& instance) {
  if (instance.day == 0 || !isInCalendar(instance.year)) return std::nullopt;
  const std::int64_t instant = WallClock::current().instantOf(wallTimeOf(instance));
  return NSDate::dateWithMicrosecondsSince1970(instant * NSDate::microsecondsPerSecond);
}

KBTRepetitionInstance KBTCalRepetition::nextRepetitionInstance(
    const KBTRepetitionInstance& instance) const {
  const std::int64_t occurrence = instance.occurrence + 1;
  const bool isCountedOut = endCount_ != 0 && endCount_ <= occurrence;
  KBTRepetitionInstance next = instance.day == 0 || isCountedOut ? instance : step(instance);
  next.occurrence = occurrence;
  if (isCountedOut || (endDate_ && dateForInstance(next) > beginningOfDayAfterEndDate_)) {
    next.day = 0;
  }
  return next;
}

std::int64_t KBTCalRepetition::stepInSeconds() const {
  return boundedAmount(intervalCount_) * (frequency_ == HOURLY ? secondsPerHour : secondsPerMinute);
}

KBTRepetitionInstance KBTCalRepetition::step(const KBTRepetitionInstance& instance) const {
  switch (frequency_) {
    case MINUTELY:
    case HOURLY:
      return addSeconds(stepInSeconds(), instance);
    case DAILY:
      return addDays(intervalCount_, instance);
    case WEEKLY:
      return addDays(daysToNextInWeeks(instance.weekday), instance);
    case MONTHLY:
      return nextInMonths(instance);
    case YEARLY:
      return nextInYears(instance);
    default:
      KSRejectUnusedImplementation();
  }
}

std::int64_t KBTCalRepetition::daysToNextInWeeks(int weekday) const {
  const std::int64_t weeks = daysPerWeek * boundedAmount(intervalCount_);
  if (dayOfWeekMask_ == 0) return weeks;
  const int first = static_cast<int>(effectiveFirstWeekday());
  const int place = weekday - first + (weekday < first ? daysPerWeek : 0);
  const std::uint64_t week = weekFrom(first, dayOfWeekMask_);
  const std::uint64_t rest = week >> place >> 1;
  return rest != 0 ? std::countr_zero(rest) + 1 : weeks + std::countr_zero(week) - place;
}

// A search that comes back to where it was finds nothing for good.
KBTRepetitionInstance KBTCalRepetition::nextInMonths(KBTRepetitionInstance instance) const {
  if (_findMonthMatchAfterDay_instance(instance.day, instance)) return instance;
  RepetitionCycle cycle;
  do {
    if (!addYearsAndMonths(0, intervalCount_, instance)) return instance;
    if (_findMonthMatchAfterDay_instance(0, instance)) return instance;
  } while (!cycle.closesAt(instance));
  instance.day = 0;
  return instance;
}

KBTRepetitionInstance KBTCalRepetition::nextInYears(KBTRepetitionInstance instance) const {
  if (monthOfYearMask_ == 0) {
    addYearsAndMonths(intervalCount_, 0, instance);
    return instance;
  }
  RepetitionCycle cycle;
  unsigned afterDay = instance.day;
  for (;;) {
    const unsigned month = instance.month;
    const bool isMonthOfRule = (monthOfYearMask_ & bit(month)) != 0;
    if (isMonthOfRule && _findMonthMatchAfterDay_instance(afterDay, instance)) return instance;
    afterDay = 0;
    const std::uint64_t laterMonths = monthOfYearMask_ >> month >> 1;
    const bool goesOn =
        laterMonths != 0 ? addYearsAndMonths(0, std::countr_zero(laterMonths) + 1, instance)
                         : addYearsAndMonths(intervalCount_, 1 - int{instance.month}, instance) &&
                               !cycle.closesAt(instance);
    if (!goesOn) {
      instance.day = 0;
      return instance;
    }
  }
}

KBTRepetitionInstance KBTCalRepetition::repetitionInstanceAtOrAfterDate(NSDate date) const {
  if (frequency_ < DAILY) KSFinishPorting();
  const std::int64_t wallTime = WallClock::current().wallTimeAt(date.secondsSince1970());
  const CivilDate day = civilDate(floorDivide(wallTime, secondsPerDay));
  KBTRepetitionInstance instance = firstRepetitionInstance();
  while (instance.day != 0 && dayOf(instance) < day) instance = nextRepetitionInstance(instance);
  return instance;
}

void KBTCalRepetition::addDays_repetitionInstance(std::int64_t days,
                                                  KBTRepetitionInstance& instance) {
  if (days >= 0 && instance.day != 0) instance = addDays(days, instance);
}

void KBTCalRepetition::_nextRepetition_fromDay_forMask_overwrite(KBTRepetitionInstance& instance,
                                                                 unsigned day, std::uint64_t mask,
                                                                 bool overwrite) {
  const std::uint64_t matches = mask & days(day, instance.daysInMonth);
  const int found = matches != 0 ? std::countr_zero(matches) : instance.daysInMonth + 1;
  if (!overwrite && found >= instance.day) return;
  instance.weekday = static_cast<std::uint8_t>(moduloWeek(instance.weekday + found - instance.day));
  instance.day = static_cast<std::uint8_t>(found);
}

// The first of these rules that a rule has a part for decides; so BYMONTHDAY goes before BYDAY, and
// weekdays without numbers or set positions select nothing.
bool KBTCalRepetition::_findMonthMatchAfterDay_instance(unsigned day,
                                                        KBTRepetitionInstance& instance) const {
  if (dayOfMonthMask_.absoluteDaysMask != 0 || dayOfMonthMask_.offsetDaysMask != 0) {
    return findMonthDay(day, instance);
  }
  if (weekOfMonthIndex_ != 0) return findNumberedWeekday(day, instance);
  if (bySetPosMask_.absoluteBySetPosMask != 0 || bySetPosMask_.offsetBySetPosMask != 0) {
    return findSetPosition(day, instance);
  }
  return day == 0;
}

bool KBTCalRepetition::findMonthDay(unsigned day, KBTRepetitionInstance& instance) const {
  const unsigned length = instance.daysInMonth;
  std::uint64_t fromEnd = 0;
  std::uint64_t offsets = dayOfMonthMask_.offsetDaysMask & days(1, length);
  for (; offsets != 0; offsets &= offsets - 1) {
    fromEnd |= bit(length + 1 - static_cast<unsigned>(std::countr_zero(offsets)));
  }
  const std::uint64_t range = days(day + 1, length);
  bool isFound = false;
  for (const std::uint64_t mask : {dayOfMonthMask_.absoluteDaysMask, fromEnd}) {
    if ((mask & range) == 0) continue;
    _nextRepetition_fromDay_forMask_overwrite(instance, day + 1, mask, !isFound);
    isFound = true;
  }
  return isFound;
}

bool KBTCalRepetition::findNumberedWeekday(unsigned day, KBTRepetitionInstance& instance) const {
  constexpr int mostWeeksInMonth = 5;
  // A number without a weekday, and one that no month reaches, match nothing for good.
  if (dayOfWeekMask_ == 0 || weekOfMonthIndex_ > mostWeeksInMonth) {
    instance.day = 0;
    return true;
  }
  const int weekday = std::countr_zero(dayOfWeekMask_);
  const int first = 1 + moduloWeek(weekday - instance.weekday + instance.day - 1);
  const int last = first + (instance.daysInMonth - first) / daysPerWeek * daysPerWeek;
  const int after = static_cast<int>(day);
  if (weekOfMonthIndex_ > 0) {
    const int wanted = first + daysPerWeek * (static_cast<int>(weekOfMonthIndex_) - 1);
    if (wanted > last || wanted <= after) return false;
    _nextRepetition_fromDay_forMask_overwrite(instance, 1, bit(static_cast<unsigned>(wanted)),
                                              true);
    return true;
  }
  // Intended: every number from the end means the last one, and the instance goes there in any
  // case.
  _nextRepetition_fromDay_forMask_overwrite(instance, 1, bit(static_cast<unsigned>(last)), true);
  return last > after;
}

bool KBTCalRepetition::findSetPosition(unsigned day, KBTRepetitionInstance& instance) const {
  if (dayOfWeekMask_ == 0) KSFinishPorting();
  const std::uint64_t week =
      weekFrom(moduloWeek(instance.weekday - instance.day + 1), dayOfWeekMask_);
  std::uint64_t matches = 0;
  for (unsigned start = 1; start <= instance.daysInMonth; start += daysPerWeek) {
    matches |= week << start;
  }
  matches &= days(1, instance.daysInMonth);
  constexpr unsigned largestPosition = 5;
  bool isFound = false;
  const auto take = [&](std::uint64_t candidate) {
    if ((candidate & ~days(0, day)) == 0) return false;
    _nextRepetition_fromDay_forMask_overwrite(instance, 1, candidate, !isFound);
    return isFound = true;
  };
  std::uint64_t rest = matches;
  for (unsigned position = 1; position <= largestPosition; ++position) {
    const std::uint64_t lowest = rest & (~rest + 1);
    if ((bySetPosMask_.absoluteBySetPosMask & bit(position)) && take(lowest)) break;
    rest &= ~lowest;
  }
  rest = matches;
  for (unsigned position = 1; position <= largestPosition; ++position) {
    const std::uint64_t highest = std::bit_floor(rest);
    if (bySetPosMask_.offsetBySetPosMask & bit(position)) take(highest);
    rest &= ~highest;
  }
  return isFound;
}

// The count is a stranger's, up to 2^63 - 1: many steps are taken at once where that leads to the
// same instance.
KBTRepetitionInstance KBTCalRepetition::lastInstanceOfCount() const {
  KBTRepetitionInstance instance = firstRepetitionInstance();
  RepetitionCycle cycle;
  while (instance.day != 0 && instance.occurrence + 1 < endCount_) {
    const std::int64_t left = endCount_ - 1 - instance.occurrence;
    if (frequency_ == DAILY) return addDays(boundedProduct(left, intervalCount_), instance);
    if (cycle.closesAt(instance) && cycle.skip(left, instance)) continue;
    if (frequency_ < DAILY) addSecondsOften(stepInSeconds(), left - 1, instance);
    instance = nextRepetitionInstance(instance);
  }
  return instance;
}

}  // namespace quillmere
