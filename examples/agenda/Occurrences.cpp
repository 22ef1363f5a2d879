#include "Occurrences.h"

#include <quillmere/platform/dates/NSCalendar.h>
#include <quillmere/platform/dates/NSTimeZone.h>
#include <quillmere/recurrence/KBTCalRepetition.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <set>
#include <variant>

namespace agenda {
namespace {

using quillmere::KBTCalRepetition;
using quillmere::KBTRepetitionInstance;
using quillmere::NSCalendar;
using quillmere::NSDate;
using quillmere::NSDateComponents;
using quillmere::NSErrorPtr;
using quillmere::NSTimeZone;

// Rules are a stranger's text, and one for every minute fills any range of days.
constexpr int maximumPerRule = 20000;

// Makes a zone the default one, which rules go by, for the time being.
class DefaultZone {
 public:
  explicit DefaultZone(const NSTimeZone& zone) : before_(NSTimeZone::defaultTimeZone()) {
    NSTimeZone::setDefaultTimeZone(zone);
  }
  ~DefaultZone() { NSTimeZone::setDefaultTimeZone(before_); }
  DefaultZone(const DefaultZone&) = delete;
  DefaultZone& operator=(const DefaultZone&) = delete;

 private:
  NSTimeZone before_;
};

NSTimeZone zoneOf(const Entry& event) {
  const auto zone = NSTimeZone::timeZoneWithName(event.repetition.zone);
  return zone ? *zone : NSTimeZone::timeZoneWithName("UTC").value();
}

std::int64_t secondsBetween(NSDate from, NSDate to) {
  return to.secondsSince1970() - from.secondsSince1970();
}

// How long each of an event's occurrences takes: days by its zone's calendar, then elapsed time.
class Length {
 public:
  explicit Length(const Entry& event) : calendar_(zoneOf(event)) {
    const When& start = *event.start;
    if (!event.end) return;
    days_.day = event.repetition.calendarDays;
    rest_ = start.kind == event.end->kind
                ? secondsBetween(afterDays(start.date), event.end->date)
                : secondsBetween(afterDays(start.instant()), event.end->instant());
  }

  When endAfter(const When& start) const {
    return When{start.kind, afterDays(start.date)}.plus(rest_);
  }

 private:
  NSDate afterDays(NSDate date) const {
    return calendar_.dateByAddingComponents_toDate(days_, date).value_or(date);
  }

  NSCalendar calendar_;
  NSDateComponents days_;
  std::int64_t rest_ = 0;
};

Span spanAt(const When& start, const Length& length) {
  const NSDate first = start.instant();
  NSDate end = std::max(length.endAfter(start).instant(), first);
  if (start.isDay() && end == first) end = nextDay(first);
  return {first, end};
}

// The last occurrence before `date` of a rule by hours or minutes, or the first. Its steps are
// elapsed time, so instead of walking for years the series can begin later, with its count kept.
KBTRepetitionInstance jumpTo(NSDate date, KBTCalRepetition& rule) {
  constexpr std::int64_t secondsPerMinute = 60;
  constexpr std::int64_t secondsPerHour = 3600;
  const std::int64_t unit =
      rule.frequency() == KBTCalRepetition::HOURLY ? secondsPerHour : secondsPerMinute;
  const NSDate start = *rule.startDate();
  const std::int64_t gap = std::max<std::int64_t>(secondsBetween(start, date) - 1, 0);
  const std::int64_t steps = gap / unit / rule.intervalCount();
  rule.setStartDate(start.dateByAddingSeconds(steps * rule.intervalCount() * unit));
  KBTRepetitionInstance instance = rule.firstRepetitionInstance();
  instance.occurrence = steps;
  return instance;
}

KBTRepetitionInstance firstNear(NSDate date, KBTCalRepetition& rule) {
  if (rule.frequency() < KBTCalRepetition::DAILY) return jumpTo(date, rule);
  return rule.repetitionInstanceAtOrAfterDate(date);
}

std::string reasonOf(const NSErrorPtr& error) {
  if (!error) return "events that repeat so often are not supported";  // SECONDLY
  const auto suggestion = error->localizedRecoverySuggestion();
  return error->localizedDescription() + (suggestion ? ": " + *suggestion : "");
}

// Appends the dates from `first` on and before `end` that a rule gives, and maybe some earlier
// ones. Answers why it did not go to the end. The default zone is the event's own.
std::optional<std::string> appendDatesOfRule(const std::string& text, const When& start,
                                             NSDate first, NSDate end, std::vector<When>& dates) {
  NSErrorPtr error;
  const auto rule = KBTCalRepetition::initWithRRule_error(text, &error);
  if (!rule) return reasonOf(error);

  // Days are counted at noon: an end lets an occurrence at the midnight after its day through.
  const std::int64_t timeOfDay = start.isDay() ? secondsPerDay / 2 : 0;
  rule->setStartDate(start.date.dateByAddingSeconds(timeOfDay));
  const std::int64_t seconds = rule->firstRepetitionInstance().second;  // dates are without
  int count = 0;
  for (auto at = firstNear(first.dateByAddingSeconds(timeOfDay), *rule); at.day != 0;
       at = rule->nextRepetitionInstance(at)) {
    const NSDate date = KBTCalRepetition::dateForInstance(at)->dateByAddingSeconds(seconds);
    if (date >= end) break;
    if (++count > maximumPerRule) {
      return "gives too many dates, and not all of them are shown";
    }
    dates.push_back({start.kind, date.dateByAddingSeconds(-timeOfDay)});
  }
  return std::nullopt;
}

}  // namespace

NSDate nextDay(NSDate day) {
  NSDateComponents step;
  step.day = 1;
  return NSCalendar::currentCalendar().dateByAddingComponents_toDate(step, day).value_or(day);
}

Occurrences occurrencesIn(const DayRange& range, const Entry& event,
                          const std::vector<When>& replaced) {
  const Length length(event);
  const Repetition& repetition = event.repetition;
  std::vector<When> dates = repetition.addedDates;
  dates.push_back(*event.start);
  Occurrences result;
  const Span first = spanAt(*event.start, length);
  if (!repetition.rules.empty() && first.start < range.end) {
    // A day more on both sides makes up for what zones and changes to daylight saving differ by.
    const NSDate from =
        range.first.dateByAddingSeconds(-secondsBetween(first.start, first.end) - secondsPerDay);
    const NSDate to = range.end.dateByAddingSeconds(secondsPerDay);
    const DefaultZone zone(zoneOf(event));
    for (const std::string& rule : repetition.rules) {
      const auto problem = appendDatesOfRule(rule, *event.start, from, to, dates);
      if (problem) result.problems.push_back(rule + ": " + *problem);
    }
  }

  std::set<When> left(dates.begin(), dates.end());
  for (const When& date : repetition.removedDates) left.erase(date);
  for (const When& date : replaced) left.erase(date);
  for (const When& date : left) {
    const Span span = spanAt(date, length);
    if (span.overlaps(range)) result.spans.push_back(span);
  }
  return result;
}

}  // namespace agenda
