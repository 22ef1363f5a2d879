#include <libical/ical.h>
#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/dates/CivilTime.h>
#include <quillmere/platform/events/EventBackend.h>
#include <quillmere/platform/events/Recurrence.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace quillmere {
namespace {

// A rule with COUNT is walked from its start; one that counts further than this ends there.
constexpr int mostSteps = 200'000;

using Iterator = std::unique_ptr<icalrecur_iterator, decltype(&icalrecur_iterator_free)>;

// Rules are expanded in wall time, so nothing here has a zone.
icaltimetype icalTime(NSDate wall) {
  const auto civil = civilUTC(wall);
  icaltimetype time = icaltime_null_time();
  time.year = static_cast<int>(civil.year());
  time.month = civil.month();
  time.day = civil.day();
  time.hour = civil.hour();
  time.minute = civil.minute();
  time.second = civil.second();
  return time;
}

NSDate wallOf(const icaltimetype& time) {
  const std::int64_t days = dayNumber({time.year, time.month, time.day});
  const std::int64_t seconds = days * secondsPerDay + time.hour * secondsPerHour +
                               time.minute * secondsPerMinute + time.second;
  return NSDate::dateWithMicrosecondsSince1970(seconds * NSDate::microsecondsPerSecond);
}

// UNTIL as a wall time of the event: it may be in UTC, or a date, which includes its day.
icaltimetype wallUntil(icaltimetype until, const EventRecord& event) {
  if (until.is_date) {
    until.is_date = 0;
    until.hour = 23;
    until.minute = until.second = 59;
  } else if (icaltime_is_utc(until)) {
    until = icalTime(wallTime(wallOf(until), event.wallZone()));
  }
  until.zone = nullptr;
  return until;
}

std::vector<std::string> partsOf(std::string_view rule) {
  std::vector<std::string> parts;
  while (!rule.empty()) {
    const std::size_t end = std::min(rule.find(';'), rule.size());
    if (end != 0) parts.emplace_back(rule.substr(0, end));
    rule.remove_prefix(std::min(end + 1, rule.size()));
  }
  return parts;
}

bool isPart(const std::string& part, std::string_view name) {
  const auto equalsButForCase = [](char a, char b) {
    return (a >= 'a' && a <= 'z' ? a - 'a' + 'A' : a) == b;
  };
  return std::equal(part.begin(), std::min(part.begin() + std::ptrdiff_t(name.size()), part.end()),
                    name.begin(), name.end(), equalsButForCase);
}

bool hasPart(const std::vector<std::string>& parts, std::string_view name) {
  return std::any_of(parts.begin(), parts.end(),
                     [name](const std::string& part) { return isPart(part, name); });
}

// Null when the text is no such rule.
std::optional<icalrecurrencetype> parsed(const EventRecord& event) {
  const std::string& text = *event.recurrenceRule;
  if (text.find('\0') != std::string::npos) return std::nullopt;
  const std::vector<std::string> parts = partsOf(text);
  // Before libical sees it, which leaks what it reads of another calendar.
  if (hasPart(parts, "RSCALE") || hasPart(parts, "SKIP")) return std::nullopt;
  icalrecurrencetype rule = icalrecurrencetype_from_string(text.c_str());
  if (rule.freq == ICAL_NO_RECURRENCE) return std::nullopt;
  const bool isFine = rule.freq <= ICAL_HOURLY_RECURRENCE;  // the coarser come after it
  if (isFine && hasPart(parts, "BY")) return std::nullopt;
  if (!icaltime_is_null_time(rule.until)) rule.until = wallUntil(rule.until, event);
  return rule;
}

// A rule by the hour or finer, which only counts: libical loses count where it begins later.
void count(const icalrecurrencetype& rule, NSDate start, NSDate from, NSDate to,
           const OccurrenceVisitor& visit) {
  const std::int64_t unit = rule.freq == ICAL_HOURLY_RECURRENCE     ? secondsPerHour
                            : rule.freq == ICAL_MINUTELY_RECURRENCE ? secondsPerMinute
                                                                    : 1;
  const std::int64_t step = rule.interval * unit * NSDate::microsecondsPerSecond;
  const std::int64_t skipped =
      std::max<std::int64_t>((microsecondsBetween(start, from) + step - 1) / step, 1);
  if (!icaltime_is_null_time(rule.until)) {
    to = std::min(to, wallOf(rule.until).dateByAddingSeconds(1));
  }
  NSDate wall = dateAfter(start, skipped * step);
  for (std::int64_t number = skipped; wall < to; ++number, wall = dateAfter(wall, step)) {
    if ((rule.count != 0 && number >= rule.count) || !visit(wall)) return;
  }
}

// What the rule gives between two wall times, each on the second, besides the event's start.
void walk(const EventRecord& event, NSDate from, NSDate to, const OccurrenceVisitor& visit) {
  auto rule = parsed(event);
  if (!rule) return;
  const NSDate start = wallTime(*event.start, event.wallZone());
  if (rule->freq <= ICAL_HOURLY_RECURRENCE) {
    count(*rule, start, from, to, visit);
    return;
  }
  const icaltimetype bound = icalTime(to);
  if (icaltime_is_null_time(rule->until) || icaltime_compare(bound, rule->until) < 0) {
    rule->until = bound;
  }
  const Iterator iterator(icalrecur_iterator_new(*rule, icalTime(start)), &icalrecur_iterator_free);
  if (!iterator) return;
  if (rule->count == 0 && from > start &&
      icalrecur_iterator_set_start(iterator.get(), icalTime(from)) == 0) {
    return;
  }
  for (int steps = 0; steps != mostSteps; ++steps) {
    const icaltimetype next = icalrecur_iterator_next(iterator.get());
    if (icaltime_is_null_time(next)) return;
    const NSDate wall = dateAfter(wallOf(next), start.microsecondsOfSecond());
    if (wall > start && wall >= from && !visit(wall)) return;
  }
}

// The rule with so many occurrences fewer, if it counts them.
std::string ruleWithoutFirst(const std::string& rule, std::int64_t count) {
  constexpr std::string_view name = "COUNT=";
  std::string result;
  for (std::string part : partsOf(rule)) {
    if (isPart(part, name)) {
      std::int64_t all = 0;
      std::from_chars(part.data() + name.size(), part.data() + part.size(), all);
      part = std::string(name) + std::to_string(std::max<std::int64_t>(all - count, 1));
    }
    result += (result.empty() ? "" : ";") + part;
  }
  return result;
}

}  // namespace

void requireRecurrenceRule(const EventRecord& event) {
  if (parsed(event)) return;
  throw EventError(EKErrorInternalFailure,
                   "This is not a recurrence rule that can be expanded: " + *event.recurrenceRule);
}

void forEachOccurrence(const EventRecord& event, NSDate from, NSDate to,
                       const OccurrenceVisitor& visit) {
  if (*event.start >= from && *event.start < to && !visit(*event.start)) return;
  if (to <= *event.start) return;
  // Wall times and instants differ by less than a day in any zone.
  const NSTimeZone zone = event.wallZone();
  int count = 1;
  walk(event, std::max(from, firstDate).dateByAddingSeconds(-secondsPerDay),
       std::min(to, lastDate).dateByAddingSeconds(secondsPerDay), [&](NSDate wall) {
         const NSDate start = dateOfWallTime(wall, zone);
         if (start < from || start >= to) return true;
         return ++count <= mostOccurrences && visit(start);
       });
}

NSDate endOfRecurrence(const EventRecord& event) {
  const auto rule = parsed(event);
  const NSTimeZone zone = event.wallZone();
  NSDate last = *event.start;
  if (rule && rule->count != 0) {
    int steps = 1;
    walk(event, firstDate, lastDate, [&](NSDate wall) {
      last = dateOfWallTime(wall, zone);
      return ++steps < mostSteps;
    });
    if (steps == mostSteps) return lastDate;
  } else if (rule && !icaltime_is_null_time(rule->until)) {
    last = std::max(last, dateOfWallTime(wallOf(rule->until), zone));
  } else if (rule) {
    return lastDate;
  }
  return std::min(endOfOccurrence(event, last), lastDate);
}

std::string ruleEndingBefore(const EventRecord& event, NSDate date) {
  const NSDate until = date.dateByAddingSeconds(-1);
  std::string text = until.icsDateString();
  if (!event.isZoned()) {
    constexpr std::size_t dateLength = 8;
    text = wallTime(until, event.wallZone()).icsDateString();
    text = text.substr(0, event.isAllDay ? dateLength : text.size() - 1);
  }
  std::string rule;
  for (const std::string& part : partsOf(*event.recurrenceRule)) {
    if (!isPart(part, "COUNT=") && !isPart(part, "UNTIL=")) rule += part + ";";
  }
  return rule + "UNTIL=" + text;
}

SeriesChange::SeriesChange(const EventRecord& old, const EventRecord& stored,
                           const EventRecord& event, bool isWhole)
    : oldZone_(old.wallZone()), hasNewTimes_(!event.hasTimesOf(stored)) {
  const NSDate first = isWhole ? *old.start : *stored.occurrenceDate;
  series_ = merged(stored, event, occurrenceOf(old, first));
  series_.lastModified = event.lastModified;
  if (hasNewTimes_) {
    shift_ = microsecondsBetween(wallTime(*stored.start, stored.wallZone()),
                                 wallTime(*event.start, event.wallZone()));
    // An occurrence that was changed before may have a length of its own.
    const bool hasNewLength =
        event.isAllDay != stored.isAllDay || lengthOf(event) != lengthOf(stored);
    series_.start = moved(first);
    series_.end = endOfOccurrence(hasNewLength ? event : old, *series_.start);
    normalizeTimes(series_);
  }
  if (event.exceptionDates == stored.exceptionDates) {
    series_.exceptionDates.clear();
    for (const NSDate date : old.exceptionDates) {
      if (date >= first) series_.exceptionDates.push_back(moved(date));
    }
  }
  if (isWhole) return;
  series_.identifier = CFUUIDCreateString();
  if (!series_.recurrenceRule || series_.recurrenceRule != old.recurrenceRule) return;
  std::int64_t before = 0;
  forEachOccurrence(old, firstDate, first, [&](NSDate) {
    ++before;
    return true;
  });
  series_.recurrenceRule = ruleWithoutFirst(*old.recurrenceRule, before);
}

NSDate SeriesChange::moved(NSDate date) const {
  if (!hasNewTimes_) return date;
  return dateOfWallTime(dateAfter(wallTime(date, oldZone_), shift_), series_.wallZone());
}

}  // namespace quillmere
