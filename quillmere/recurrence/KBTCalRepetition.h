#ifndef QUILLMERE_RECURRENCE_KBTCALREPETITION_H
#define QUILLMERE_RECURRENCE_KBTCALREPETITION_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/HWObject.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/base/OrderedMap.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/recurrence/KBTCalRepetitionDayOfWeek.h>
#include <quillmere/recurrence/KBTCalRepetitionEnd.h>
#include <quillmere/recurrence/KBTRepetitionInstance.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere {

/// Domain of the errors below.
inline constexpr const char* KBTErrorDomain = "com.tessaly.Quillmere.ErrorDomain";

/// Why a rule was refused.
enum KBTCalRepetitionErrorCode : std::int64_t {
  KBTUnknownFrequencyError = 1,         ///< FREQ is missing or not a frequency, or no "=" in a part
  KBTIntervalError = 2,                 ///< an interval below 1
  KBTMonthError = 3,                    ///< a month beyond 1 to 12
  KBTMonthDayError = 4,                 ///< a month day beyond 1 to 31 and -1 to -31
  KBTWeekdayError = 5,                  ///< an unknown weekday, or a number where none may stand
  KBTSeveralNumberedWeekdaysError = 6,  ///< a number in an RRULE's list of several weekdays
  KBTCountError = 7,                    ///< a count below 0
  KBTUnsupportedPropertyError = 8,      ///< a part that rules here do not have, such as BYWEEKNO
  KBTEndDateError = 9,                  ///< UNTIL, up to its first "T", is not a date
  KBTSetPositionError = 10,             ///< BYSETPOS out of range, or without MONTHLY and BYDAY
};

/// A recurrence rule (RFC 5545 section 3.3.10), of the subset that calendar programs have in
/// common, and its occurrences:
///
///     auto rule = KBTCalRepetition::initWithRRule_error("FREQ=MONTHLY;BYDAY=-1FR", &error);
///     rule->setStartDate(start);
///     for (auto at = rule->firstRepetitionInstance(); at.day != 0 && at.occurrence < 10;
///          at = rule->nextRepetitionInstance(at)) {
///       use(KBTCalRepetition::dateForInstance(at));
///     }
///
/// The subset has the frequencies MINUTELY to YEARLY, INTERVAL, UNTIL (a day), COUNT, BYMONTH,
/// BYMONTHDAY, BYDAY (one weekday with a number in MONTHLY and YEARLY rules), WKST, and BYSETPOS in
/// MONTHLY rules with BYDAY. Anything else is refused. Some rules of the subset mean less than in
/// the RFC; docs/behaviours.md lists them.
///
/// All calendar fields are those of the default zone (`NSTimeZone::defaultTimeZone`), which must
/// not change between the instances of a series. Asking for instances does not change a rule, so
/// threads may share a rule on which nobody sets anything.
class QUILLMERE_EXPORT KBTCalRepetition : public HWObject {
 public:
  /// The FREQ keywords in the RFC's order. No initializer makes a SECONDLY rule.
  enum Frequency : std::uint64_t { SECONDLY = 0, MINUTELY, HOURLY, DAILY, WEEKLY, MONTHLY, YEARLY };

  using Weekdays = std::vector<KBTCalRepetitionDayOfWeek>;
  using Numbers = std::vector<std::int64_t>;

  /// The rule of an RRULE value, with or without "RRULE:" before it. Keys and keywords are
  /// case-sensitive and white space is not trimmed, except before numbers. An empty part, as after
  /// a trailing ";", is an error. Of UNTIL only the date counts: the series ends with that day in
  /// the default zone. With both UNTIL and COUNT, whichever comes first ends it. An unknown WKST
  /// counts as none.
  ///
  /// Null on failure. Then `*error`, unless `error` is null, is an error of `KBTErrorDomain`; an
  /// error that it held before becomes the underlying one. SECONDLY gives null without an error.
  static std::shared_ptr<KBTCalRepetition> initWithRRule_error(
      std::optional<std::string_view> rrule, NSErrorPtr* error);

  /// A rule of its parts. The lists and `end` may be null. The rule has no end (see `setEndDate`
  /// and `setRecurrenceCount`). `frequency` is a `Frequency`, `firstWeekday` a weekday number or -1
  /// for none.
  ///
  /// Null on failure, with the error in `*error` unless `error` is null. A frequency that is not
  /// MINUTELY to YEARLY gives no error. A list of several weekdays with a number among them is a
  /// `KBTWeekdayError`; with a null `error` it counts without numbers, up to the first weekday that
  /// has one.
  /// Stops the process when `weeksOfTheYear`, `daysOfTheYear` or `end` is given, and for a single
  /// weekday with a number in a rule that is neither MONTHLY nor YEARLY.
  static std::shared_ptr<KBTCalRepetition>
  initWithFrequency_interval_daysOfTheWeek_firstWeekday_daysOfTheMonth_monthsOfTheYear_weeksOfTheYear_daysOfTheYear_setPositions_end_error(
      std::uint64_t frequency, std::int64_t interval, const std::optional<Weekdays>& daysOfTheWeek,
      std::int64_t firstWeekday, const std::optional<Numbers>& daysOfTheMonth,
      const std::optional<Numbers>& monthsOfTheYear, const std::optional<Numbers>& weeksOfTheYear,
      const std::optional<Numbers>& daysOfTheYear, const std::optional<Numbers>& setPositions,
      const std::shared_ptr<KBTCalRepetitionEnd>& end, NSErrorPtr* error);

  /// The same without any of the lists.
  static std::shared_ptr<KBTCalRepetition> initWithFrequency_interval_end_error(
      std::uint64_t frequency, std::int64_t interval,
      const std::shared_ptr<KBTCalRepetitionEnd>& end, NSErrorPtr* error);

  // The rule.

  /// The rule as the value of an RRULE, without "RRULE:". `initWithRRule_error` can read it back as
  /// long as setters have kept the rule in the subset: it has no negative counts, and not several
  /// weekdays with a week number. UNTIL is written as a UTC date-time of the end date, but only its
  /// date is read back, as a day of the default zone. The parser's end dates are midnights, so east
  /// of UTC the series then ends a day earlier.
  std::string rrule() const;

  /// One of `Frequency`.
  std::uint64_t frequency() const { return frequency_; }

  /// The interval, 1 or more.
  std::int64_t intervalCount() const { return intervalCount_; }
  /// A number below 1 is ignored.
  void setIntervalCount(std::int64_t intervalCount);

  /// How many occurrences the series has. 0 when no count ends it.
  std::int64_t recurrenceCount() const { return endCount_; }
  /// Sets the count and drops the end date. The number is stored as it is; a negative one leaves
  /// only the first occurrence.
  void setRecurrenceCount(std::int64_t recurrenceCount);

  /// The end date as it was set, or, when a count ends the series, the date of the last occurrence,
  /// which is looked for at every call: in some tens of milliseconds at most. Null when there is
  /// neither an end date nor a count, and, with a count alone, when there is no start date or the
  /// series ends before its count.
  std::optional<NSDate> endDate() const;
  /// The series ends with that day in the default zone; an occurrence at midnight after it is the
  /// last that may come. Drops the count. Null takes away count and end date.
  void setEndDate(std::optional<NSDate> endDate);
  /// The end date as it was set. Null also when a count ends the series.
  std::optional<NSDate> repetitionEndDate() const { return endDate_; }
  /// The start of the end date's day plus one day in wall time. `setRecurrenceCount` leaves it as
  /// it was.
  std::optional<NSDate> beginningOfDayAfterEndDate() const { return beginningOfDayAfterEndDate_; }

  /// The first occurrence, usually the DTSTART. It belongs to the series whether or not it fits the
  /// rule. The parser never sets it. Without it a rule has no occurrences.
  std::optional<NSDate> startDate() const { return startDate_; }
  void setStartDate(std::optional<NSDate> startDate) { startDate_ = startDate; }

  /// The weekdays from Sunday on, each with the week number of the rule.
  Weekdays daysOfTheWeek() const;
  /// Replaces the weekdays. Null or an empty list takes them away. One weekday with a number sets
  /// the week number, and stops the process in rules that are neither MONTHLY nor YEARLY. A list
  /// without numbers leaves the week number as it was. Several weekdays count without numbers, up
  /// to the first one that has one.
  void setDaysOfTheWeek(const std::optional<Weekdays>& daysOfTheWeek);

  /// The month days: 1 to 31 in ascending order, then -1 (the last day of the month) to -31.
  Numbers daysOfTheMonth() const;
  /// The months: 1 to 12 in ascending order.
  Numbers monthsOfTheYear() const;
  /// The set positions: 1 to 5 in ascending order, then -1 to -5.
  Numbers setPositions() const;

  /// The weekday on which weeks begin. -1 when the rule names none.
  std::int64_t assignedFirstWeekday() const { return _firstWeekday; }
  /// The same, with Monday in place of none (RFC 5545's default), whatever the user's own calendar
  /// has.
  std::int64_t effectiveFirstWeekday() const {
    return _firstWeekday < 0 ? std::int64_t{KBTCalRepetitionDayOfWeek::MONDAY} : _firstWeekday;
  }

  // Its occurrences, in ascending order. An instance whose `day` is 0 is the end marker: the series
  // has no further occurrence. A series also ends where the calendar does (`NSCalendar`), so every
  // walk ends.

  /// The start date as an instance. The end marker when there is none.
  KBTRepetitionInstance firstRepetitionInstance() const;

  /// The occurrence after `instance`, which must be one of this rule. After an end marker comes an
  /// end marker. The time this takes grows with the months between the two; a rule that cannot
  /// match is searched until the calendar comes round, about a millisecond at most.
  KBTRepetitionInstance nextRepetitionInstance(const KBTRepetitionInstance& instance) const;

  /// The first occurrence whose calendar day is that of `date` or later; the time of day does not
  /// count. The end marker when there is none. Stops the process for MINUTELY and HOURLY rules.
  KBTRepetitionInstance repetitionInstanceAtOrAfterDate(NSDate date) const;

  /// The instant of an occurrence, to the minute: seconds of the start date are left out. A wall
  /// time that a change to daylight saving skips is later by the gap; of a repeated wall time it is
  /// the first. So daily at 02:30 in New York is at 03:30 on 10 March 2024. Null for the end
  /// marker.
  static std::optional<NSDate> dateForInstance(const KBTRepetitionInstance& instance);

  /// Moves `instance` forward by `days`, 0 or more. A negative number changes nothing, and neither
  /// does an end marker. Past the end of the calendar it becomes an end marker.
  static void addDays_repetitionInstance(std::int64_t days, KBTRepetitionInstance& instance);

  // For debugging.

  std::string className() const override { return "KBTCalRepetition"; }
  /// The entries of the base, "RRULE", and where there are such dates "startDate" and "endDate".
  HWDebugDictionary debugDictionary() const override;
  /// Month, day and year of up to ten occurrences after the first, each "2/29/2024 ".
  std::string testString() const;

 protected:
  /// An empty SECONDLY rule. It has no occurrences to walk: asking for the second one stops the
  /// process.
  KBTCalRepetition() = default;

  /// The parts of an RRULE value by key, in the order of their first mention; of a key given twice
  /// the last value counts. They are views of `rrule`. Null when a part has no "=".
  static std::optional<OrderedMap<std::string_view, std::string_view>> _parseRRule(
      std::string_view rrule);
  /// "SU" to "SA"; the index is the weekday number.
  static const std::array<std::string_view, 7>& _dayAbbreviations();
  /// The weekday number of a WKST value. -1 for null, for empty text, and, after a backtrace was
  /// printed, for any other text.
  static std::int64_t _indexForWKST(std::optional<std::string_view> value);
  /// The numbers with commas between them.
  static std::string _joinedNumberString(const Numbers& numbers);

  /// The instance of a date, with the number `occurrence`. The end marker outside of the calendar.
  static KBTRepetitionInstance _instanceForDate_occurence(NSDate date, std::int64_t occurrence);
  /// Moves `instance` to the first day from `day` on that has its bit in `mask`, or past the
  /// month's end when no day has. Without `overwrite` it only moves to an earlier day.
  static void _nextRepetition_fromDay_forMask_overwrite(KBTRepetitionInstance& instance,
                                                        unsigned day, std::uint64_t mask,
                                                        bool overwrite);
  /// Moves `instance` to the next matching day of its month after `day`; 0 is before the first.
  /// Answers whether there is one, and also true, with the end marker, for a rule that no month can
  /// match.
  bool _findMonthMatchAfterDay_instance(unsigned day, KBTRepetitionInstance& instance) const;

 private:
  using RuleParts = OrderedMap<std::string_view, std::string_view>;

  // Bit n of the first for the n-th, of the second for the n-th from the end.
  struct DayOfMonthMask {
    std::uint64_t absoluteDaysMask = 0;
    std::uint64_t offsetDaysMask = 0;
  };
  struct BySetPosMask {
    std::uint64_t absoluteBySetPosMask = 0;
    std::uint64_t offsetBySetPosMask = 0;
  };

  // Each answers whether it took the value, and otherwise fills the error.
  bool takeInterval(std::int64_t interval, NSErrorPtr* error);
  bool takeMonth(std::int64_t month, NSErrorPtr* error);
  bool takeMonthDay(std::int64_t day, NSErrorPtr* error);
  bool takeSetPosition(std::int64_t position, NSErrorPtr* error);
  bool takeWeekdays(const Weekdays& weekdays, NSErrorPtr* error);
  bool takeSetPositions(const Numbers& positions, bool hasWeekdays, NSErrorPtr* error);

  bool parse(std::optional<std::string_view> rrule, NSErrorPtr* error);
  bool parseFrequency(const RuleParts& parts, NSErrorPtr* error);
  bool parseUntil(const RuleParts& parts, NSErrorPtr* error);
  bool parseCount(const RuleParts& parts, NSErrorPtr* error);
  bool parseWeekdays(const RuleParts& parts, NSErrorPtr* error);
  bool parseSetPositions(const RuleParts& parts, NSErrorPtr* error);

  bool isMonthlyOrYearly() const { return frequency_ == MONTHLY || frequency_ == YEARLY; }
  void storeEndDate(NSDate endDate);

  std::int64_t stepInSeconds() const;  // of MINUTELY and HOURLY rules
  // The steps leave the number of the occurrence to the caller.
  KBTRepetitionInstance step(const KBTRepetitionInstance& instance) const;
  std::int64_t daysToNextInWeeks(int weekday) const;
  KBTRepetitionInstance nextInMonths(KBTRepetitionInstance instance) const;
  KBTRepetitionInstance nextInYears(KBTRepetitionInstance instance) const;
  bool findMonthDay(unsigned day, KBTRepetitionInstance& instance) const;
  bool findNumberedWeekday(unsigned day, KBTRepetitionInstance& instance) const;
  bool findSetPosition(unsigned day, KBTRepetitionInstance& instance) const;
  KBTRepetitionInstance lastInstanceOfCount() const;

  std::optional<NSDate> startDate_;
  std::uint64_t frequency_ = SECONDLY;
  std::int64_t intervalCount_ = 1;
  std::int64_t _firstWeekday = -1;  // WKST, or -1
  std::int64_t endCount_ = 0;
  std::optional<NSDate> endDate_;
  std::optional<NSDate> beginningOfDayAfterEndDate_;
  std::uint64_t dayOfWeekMask_ = 0;
  std::int64_t weekOfMonthIndex_ = 0;  // the number of the numbered weekday, or 0
  DayOfMonthMask dayOfMonthMask_;
  std::uint64_t monthOfYearMask_ = 0;
  BySetPosMask bySetPosMask_;
};

}  // namespace quillmere

#endif
