#include "Printing.h"

#include <quillmere/platform/dates/NSCalendar.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <optional>
#include <ostream>
#include <tuple>

namespace agenda {
namespace {

using quillmere::NSCalendar;
using quillmere::NSDate;
using quillmere::NSDateComponents;
using std::string_view;

// An event or a to-do where it is shown.
struct Occurrence {
  NSDate start;
  NSDate end;  // not before the start; of a to-do when it is due
  const Entry* entry;
  const CalendarHost* host;
};

bool comesFirst(const Occurrence& a, const Occurrence& b) {
  const auto order = [](const Occurrence& o) {
    const bool isTimed = o.entry->start && !o.entry->start->isDay();
    return std::tuple(o.start, isTimed, titleOf(*o.entry));
  };
  return order(a) < order(b);
}

NSDate nextDay(NSDate day, std::int64_t days = 1) {
  NSDateComponents step;
  step.day = days;
  return NSCalendar::currentCalendar().dateByAddingComponents_toDate(step, day).value_or(day);
}

// Where an event that has a start is shown. Repeating ones are at their first date: the library
// does not expand recurrences yet, and this is the place that will ask for them.
Occurrence occurrenceOf(const Entry& entry, const CalendarHost& host) {
  const NSDate start = entry.start->instant();
  NSDate end = entry.end ? std::max(entry.end->instant(), start) : start;
  if (entry.start->isDay() && end == start) end = nextDay(start);
  return {start, end, &entry, &host};
}

bool overlaps(const Occurrence& occurrence, const DayRange& range) {
  return occurrence.start < range.end &&
         (occurrence.end > range.first || occurrence.start >= range.first);
}

std::vector<Occurrence> eventsIn(const Hosts& hosts, const DayRange& range) {
  std::vector<Occurrence> events;
  for (const auto& host : hosts) {
    for (const auto& [uid, object] : host->objects()) {
      const Entry& entry = object->entry;
      if (entry.isToDo || !entry.start) continue;
      const Occurrence occurrence = occurrenceOf(entry, *host);
      if (overlaps(occurrence, range)) events.push_back(occurrence);
    }
  }
  std::sort(events.begin(), events.end(), comesFirst);
  return events;
}

std::string formatted(const char* format, std::int64_t a, std::int64_t b, std::int64_t c = 0) {
  char text[64];
  std::snprintf(text, sizeof text, format, static_cast<long long>(a), static_cast<long long>(b),
                static_cast<long long>(c));
  return text;
}

std::string clockTime(NSDate date) {
  const auto fields = NSCalendar::currentCalendar().componentsFromDate(date);
  return formatted("%02lld:%02lld", *fields.hour, *fields.minute);
}

std::string dayName(NSDate date) {
  constexpr const char* names[] = {"Sun ", "Mon ", "Tue ", "Wed ", "Thu ", "Fri ", "Sat "};
  const auto fields = NSCalendar::currentCalendar().componentsFromDate(date);
  const std::chrono::year_month_day day(std::chrono::year(static_cast<int>(*fields.year)),
                                        std::chrono::month(static_cast<unsigned>(*fields.month)),
                                        std::chrono::day(static_cast<unsigned>(*fields.day)));
  const std::chrono::weekday weekday{std::chrono::sys_days(day)};
  return names[weekday.c_encoding()] +
         formatted("%04lld-%02lld-%02lld", *fields.year, *fields.month, *fields.day);
}

// When the event takes place on the day from `day` to `dayEnd`.
std::string timesOnDay(const Occurrence& event, NSDate day, NSDate dayEnd) {
  const bool startsBefore = event.start < day;
  const bool endsAfter = event.end > dayEnd;
  const bool coversDay = event.start <= day && event.end >= dayEnd;
  if (coversDay) return "all day";
  if (startsBefore) return "until " + clockTime(event.end);
  if (endsAfter) return "from " + clockTime(event.start);
  if (event.start == event.end) return clockTime(event.start);
  return clockTime(event.start) + "-" + clockTime(event.end);
}

void printOccurrence(std::ostream& out, string_view times, const Occurrence& occurrence,
                     bool namesCalendar) {
  constexpr std::size_t timesWidth = sizeof("00:00-00:00") - 1;
  const Entry& entry = *occurrence.entry;
  out << "  " << times << std::string(timesWidth - std::min(timesWidth, times.size()), ' ') << "  "
      << printable(titleOf(entry));
  if (entry.repeats) out << " (repeats)";
  if (entry.isCancelled) out << " (cancelled)";
  if (entry.location && !entry.location->empty()) out << ", " << printable(*entry.location);
  if (namesCalendar) out << "  [" << printable(occurrence.host->name()) << "]";
  out << "\n";
}

bool isOverBefore(const Occurrence& event, NSDate day) {
  return event.start < day && event.end <= day;
}

void printEvents(std::ostream& out, const Hosts& hosts, const DayRange& range) {
  const auto events = eventsIn(hosts, range);
  if (events.empty()) out << "Nothing takes place on these days.\n";
  auto upcoming = events.begin();
  std::vector<Occurrence> today;
  for (NSDate day = range.first; day < range.end && !(today.empty() && upcoming == events.end());) {
    const NSDate dayEnd = nextDay(day);
    std::erase_if(today, [&](const Occurrence& event) { return isOverBefore(event, day); });
    while (upcoming != events.end() && upcoming->start < dayEnd) {
      today.push_back(*upcoming++);
    }
    if (!today.empty()) out << dayName(day) << "\n";
    for (const Occurrence& event : today) {
      printOccurrence(out, timesOnDay(event, day, dayEnd), event, hosts.size() > 1);
    }
    day = dayEnd;
  }
}

void printToDos(std::ostream& out, const Hosts& hosts, NSDate end) {
  std::vector<Occurrence> dated, undated;
  for (const auto& host : hosts) {
    for (const auto& [uid, object] : host->objects()) {
      const Entry& entry = object->entry;
      if (!entry.isToDo || entry.isDone || entry.isCancelled) continue;
      const NSDate due = entry.end ? entry.end->instant() : end;
      auto& toDos = entry.end ? dated : undated;
      if (!entry.end || due < end) toDos.push_back({due, due, &entry, host.get()});
    }
  }
  if (dated.empty() && undated.empty()) return;
  std::sort(dated.begin(), dated.end(), comesFirst);
  std::sort(undated.begin(), undated.end(), comesFirst);
  out << "To do\n";
  for (const Occurrence& toDo : dated) {
    std::string due = "due " + dayName(toDo.end);
    if (!toDo.entry->end->isDay()) due += " " + clockTime(toDo.end);
    printOccurrence(out, due, toDo, hosts.size() > 1);
  }
  for (const Occurrence& toDo : undated)
    printOccurrence(out, "no due date", toDo, hosts.size() > 1);
}

void printTitles(std::ostream& out, string_view label, const std::vector<std::string>& titles) {
  constexpr std::size_t maximum = 20;
  const std::size_t shown = std::min(maximum, titles.size());
  for (std::size_t i = 0; i < shown; ++i) out << "  " << label << printable(titles[i]) << "\n";
  if (shown < titles.size()) out << "  ... and " << titles.size() - shown << " more\n";
}

}  // namespace

void printDays(std::ostream& out, const Hosts& hosts, const DayRange& range) {
  printEvents(out, hosts, range);
  printToDos(out, hosts, range.end);
}

void printList(std::ostream& out, const CalendarHost& host) {
  for (const auto& [uid, object] : host.objects()) {
    out << printable(uid) << "\t" << printable(titleOf(object->entry)) << "\n";
  }
}

void printChanges(std::ostream& out, const std::string& file, const Changes& changes) {
  out << printable(file) << ": ";
  if (!changes.wasRead) {
    out << "unchanged\n";
    return;
  }
  out << changes.added.size() << " new, " << changes.updated.size() << " updated, "
      << changes.gone.size() << " gone\n";
  printTitles(out, "new: ", changes.added);
  printTitles(out, "updated: ", changes.updated);
  printTitles(out, "gone: ", changes.gone);
}

std::string printable(string_view text) {
  constexpr string_view replacement = "\xEF\xBF\xBD";  // U+FFFD
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0U;
    if (byte == '\n' || byte == '\t' || byte == '\r') {
      result += ' ';
    } else if (byte < ' ' || byte == 0x7f) {
      result += replacement;
    } else if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {  // U+0080 to U+009F
      result += replacement;
      ++i;
    } else {
      result += text[i];
    }
  }
  return result;
}

ProgressLine::ProgressLine(const std::string& file)
    : label_("reading " + printable(file)), isTerminal_(::isatty(STDERR_FILENO) == 1) {}

void ProgressLine::show(std::optional<std::size_t> items) {
  constexpr std::size_t step = 1000;
  if (items && isTerminal_ && *items % step == 0) {
    isShown_ = true;
    std::fprintf(stderr, "\r%s: %zu items", label_.c_str(), *items);
  } else if (!items && isShown_) {
    isShown_ = false;
    std::fputs("\r\x1b[K", stderr);
  }
}

}  // namespace agenda
