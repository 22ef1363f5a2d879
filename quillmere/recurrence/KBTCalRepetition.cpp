#include <quillmere/platform/base/KSDiagnostics.h>
#include <quillmere/platform/base/KSStringTable.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/dates/CivilDate.h>
#include <quillmere/platform/dates/NSCalendar.h>
#include <quillmere/recurrence/KBTCalRepetition.h>
#include <quillmere/recurrence/RuleErrors.h>

namespace quillmere {
namespace {

constexpr std::int64_t largestMonth = 12;
constexpr std::int64_t largestMonthDay = 31;
constexpr std::int64_t largestSetPosition = 5;

constexpr std::uint64_t bit(std::int64_t number) { return std::uint64_t{1} << number; }

constexpr bool isWeekday(std::int64_t number) { return number >= 0 && number <= 6; }

// Sets the bit of a number from 1 to `largest` in the first mask, of one from -1 to -`largest` in
// the second; false for any other.
bool setBit(std::int64_t number, std::int64_t largest, std::uint64_t& absolute,
            std::uint64_t& offset) {
  if (number == 0 || number > largest || number < -largest) return false;
  (number > 0 ? absolute : offset) |= bit(number > 0 ? number : -number);
  return true;
}

// What `setBit` put into the masks.
KBTCalRepetition::Numbers numbersOf(std::int64_t largest, std::uint64_t absolute,
                                    std::uint64_t offset = 0) {
  KBTCalRepetition::Numbers numbers;
  for (std::int64_t number = 1; number <= largest; ++number) {
    if (absolute & bit(number)) numbers.push_back(number);
  }
  for (std::int64_t number = 1; number <= largest; ++number) {
    if (offset & bit(number)) numbers.push_back(-number);
  }
  return numbers;
}

std::string descriptionOf(const KBTCalRepetition::Weekdays& weekdays) {
  std::vector<std::string> texts;
  for (const auto& weekday : weekdays) texts.push_back(weekday.description());
  return arrayDescription(texts);
}

std::string descriptionOf(const KBTCalRepetition::Numbers& numbers) {
  std::vector<std::string> texts;
  for (const std::int64_t number : numbers) texts.push_back(std::to_string(number));
  return arrayDescription(texts);
}

}  // namespace

std::shared_ptr<KBTCalRepetition> KBTCalRepetition::
    initWithFrequency_interval_daysOfTheWeek_firstWeekday_daysOfTheMonth_monthsOfTheYear_weeksOfTheYear_daysOfTheYear_setPositions_end_error(
        std::uint64_t frequency, std::int64_t interval,
        const std::optional<Weekdays>& daysOfTheWeek, std::int64_t firstWeekday,
        const std::optional<Numbers>& daysOfTheMonth, const std::optional<Numbers>& monthsOfTheYear,
        const std::optional<Numbers>& weeksOfTheYear, const std::optional<Numbers>& daysOfTheYear,
        const std::optional<Numbers>& setPositions, const std::shared_ptr<KBTCalRepetitionEnd>& end,
        NSErrorPtr* error) {
  if (weeksOfTheYear || daysOfTheYear || end) KSFinishPorting();
  // Intended: no error here, although the parser gives one for all but SECONDLY.
  if (frequency < MINUTELY || frequency > YEARLY) return nullptr;

  auto rule = makeObject<KBTCalRepetition>();
  rule->frequency_ = frequency;
  if (!rule->takeInterval(interval, error)) return nullptr;
  rule->_firstWeekday = isWeekday(firstWeekday) ? firstWeekday : -1;
  if (daysOfTheWeek && !rule->takeWeekdays(*daysOfTheWeek, error)) return nullptr;
  for (const std::int64_t month : monthsOfTheYear.value_or(Numbers())) {
    if (!rule->takeMonth(month, error)) return nullptr;
  }
  for (const std::int64_t day : daysOfTheMonth.value_or(Numbers())) {
    if (!rule->takeMonthDay(day, error)) return nullptr;
  }
  const bool hasWeekdays = daysOfTheWeek && !daysOfTheWeek->empty();
  if (setPositions && !rule->takeSetPositions(*setPositions, hasWeekdays, error)) return nullptr;
  return rule;
}

std::shared_ptr<KBTCalRepetition> KBTCalRepetition::initWithFrequency_interval_end_error(
    std::uint64_t frequency, std::int64_t interval, const std::shared_ptr<KBTCalRepetitionEnd>& end,
    NSErrorPtr* error) {
  constexpr auto none = std::nullopt;
  return initWithFrequency_interval_daysOfTheWeek_firstWeekday_daysOfTheMonth_monthsOfTheYear_weeksOfTheYear_daysOfTheYear_setPositions_end_error(
      frequency, interval, none, -1, none, none, none, none, none, end, error);
}

bool KBTCalRepetition::takeInterval(std::int64_t interval, NSErrorPtr* error) {
  if (interval < 1) {
    return refuse(error, KBTIntervalError, KSLocalizedString("Interval must be greater than 0."));
  }
  intervalCount_ = interval;
  return true;
}

bool KBTCalRepetition::takeMonth(std::int64_t month, NSErrorPtr* error) {
  if (month < 1 || month > largestMonth) {
    return refuse(error, KBTMonthError, KSLocalizedString("Month values must be from 1 to 12."));
  }
  monthOfYearMask_ |= bit(month);
  return true;
}

bool KBTCalRepetition::takeMonthDay(std::int64_t day, NSErrorPtr* error) {
  return setBit(day, largestMonthDay, dayOfMonthMask_.absoluteDaysMask,
                dayOfMonthMask_.offsetDaysMask) ||
         refuse(error, KBTMonthDayError,
                KSLocalizedString("Month day values must be from 1 to 31 or -1 to -31."));
}

bool KBTCalRepetition::takeSetPosition(std::int64_t position, NSErrorPtr* error) {
  return setBit(position, largestSetPosition, bySetPosMask_.absoluteBySetPosMask,
                bySetPosMask_.offsetBySetPosMask) ||
         refuse(error, KBTSetPositionError,
                KSLocalizedString(
                    "Set position values (i.e. BYSETPOS) are only supported for MONTHLY repeats "
                    "representing BYDAY rules and therefore must be from 1 to 5 or -1 to -5."));
}

// A number among several weekdays is an error only for callers who can be told. For the others it
// ends the list, by contract.
bool KBTCalRepetition::takeWeekdays(const Weekdays& weekdays, NSErrorPtr* error) {
  std::uint64_t mask = 0;
  bool hasUnsupportedNumber = false;
  for (const KBTCalRepetitionDayOfWeek& weekday : weekdays) {
    if (isWeekday(weekday.dayOfTheWeek())) mask |= bit(weekday.dayOfTheWeek());
    if (weekday.weekNumber() == 0) continue;
    if (weekdays.size() > 1) {
      hasUnsupportedNumber = true;
      break;
    }
    if (!isMonthlyOrYearly()) KSFinishPorting();
    weekOfMonthIndex_ = weekday.weekNumber();
  }
  if (hasUnsupportedNumber && error) return refuseNumberedWeekday(error, descriptionOf(weekdays));
  dayOfWeekMask_ = mask;
  return true;
}

bool KBTCalRepetition::takeSetPositions(const Numbers& positions, bool hasWeekdays,
                                        NSErrorPtr* error) {
  if (positions.empty()) return true;
  if (frequency_ != MONTHLY || !hasWeekdays) {
    return refuseSetPositions(error, descriptionOf(positions));
  }
  for (const std::int64_t position : positions) {
    if (!takeSetPosition(position, error)) return false;
  }
  return true;
}

void KBTCalRepetition::setIntervalCount(std::int64_t intervalCount) {
  if (intervalCount >= 1) intervalCount_ = intervalCount;
}

// The day after the end date stays, by contract; it counts only beside an end date.
void KBTCalRepetition::setRecurrenceCount(std::int64_t recurrenceCount) {
  endCount_ = recurrenceCount;
  endDate_.reset();
}

void KBTCalRepetition::setEndDate(std::optional<NSDate> endDate) {
  endCount_ = 0;
  if (endDate) {
    storeEndDate(*endDate);
  } else {
    endDate_.reset();
    beginningOfDayAfterEndDate_.reset();
  }
}

void KBTCalRepetition::storeEndDate(NSDate endDate) {
  endDate_ = endDate;
  const NSCalendar calendar = NSCalendar::currentCalendar();
  const NSDateComponents fields = calendar.componentsFromDate(endDate);
  NSDateComponents day;
  day.year = fields.year;
  day.month = fields.month;
  day.day = fields.day;
  NSDateComponents oneDay;
  oneDay.day = 1;
  auto next = calendar.dateFromComponents(day);
  if (next) next = calendar.dateByAddingComponents_toDate(oneDay, *next);
  // Outside the calendar, where no occurrence lies, any date later than this one serves.
  beginningOfDayAfterEndDate_ = next.value_or(endDate.dateByAddingSeconds(secondsPerDay));
}

std::optional<NSDate> KBTCalRepetition::endDate() const {
  if (endDate_) return endDate_;
  if (endCount_ == 0 || !startDate_) return std::nullopt;
  return dateForInstance(lastInstanceOfCount());
}

void KBTCalRepetition::setDaysOfTheWeek(const std::optional<Weekdays>& daysOfTheWeek) {
  takeWeekdays(daysOfTheWeek.value_or(Weekdays()), nullptr);
}

KBTCalRepetition::Weekdays KBTCalRepetition::daysOfTheWeek() const {
  Weekdays weekdays;
  for (std::int64_t weekday = 0; isWeekday(weekday); ++weekday) {
    if (!(dayOfWeekMask_ & bit(weekday))) continue;
    weekdays.push_back(KBTCalRepetitionDayOfWeek::dayOfWeek_weekNumber(weekday, weekOfMonthIndex_));
  }
  return weekdays;
}

KBTCalRepetition::Numbers KBTCalRepetition::daysOfTheMonth() const {
  return numbersOf(largestMonthDay, dayOfMonthMask_.absoluteDaysMask,
                   dayOfMonthMask_.offsetDaysMask);
}

KBTCalRepetition::Numbers KBTCalRepetition::monthsOfTheYear() const {
  return numbersOf(largestMonth, monthOfYearMask_);
}

KBTCalRepetition::Numbers KBTCalRepetition::setPositions() const {
  return numbersOf(largestSetPosition, bySetPosMask_.absoluteBySetPosMask,
                   bySetPosMask_.offsetBySetPosMask);
}

}  // namespace quillmere
