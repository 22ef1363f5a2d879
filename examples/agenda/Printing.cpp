#include "Printing.h"

#include <quillmere/platform/dates/NSCalendar.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <optional>
#include <ostream>
#include <tuple>
#include <utility>

#include "common/Printable.h"

namespace agenda {
namespace {

using examples::printable;
using quillmere::NSCalendar;
using quillmere::NSDate;
using std::string_view;

// An event or a to-do where it is shown.
struct Occurrence {
  NSDate start;
  NSDate end;  // not before the start; of a to-do when it is due
  const Entry* entry;
  const CalendarHost* host;
  bool hasOtherDates = false;  // that are not shown
};

// A repeating event of which not every occurrence is shown.
struct IncompleteEvent {
  const Entry* entry;
  const CalendarHost* host;
  std::vector<std::string> problems;
};

struct Events {
  std::vector<Occurrence> occurrences;
  std::vector<IncompleteEvent> incomplete;
};

bool comesFirst(const Occurrence& a, const Occurrence& b) {
  const auto order = [](const Occurrence& o) {
    const bool isTimed = o.entry->start && !o.entry->start->isDay();
    return std::tuple(o.start, isTimed, titleOf(*o.entry));
  };
  return order(a) < order(b);
}

void addEvent(const DayRange& range, const Entry& entry, const CalendarHost& host,
              const std::vector<When>& replaced, Events& events) {
  if (entry.isToDo || !entry.start) return;
  Occurrences found = occurrencesIn(range, entry, replaced);
  const bool hasOtherDates = !found.problems.empty();
  for (const Span& span : found.spans) {
    events.occurrences.push_back({span.start, span.end, &entry, &host, hasOtherDates});
  }
  if (hasOtherDates) events.incomplete.push_back({&entry, &host, std::move(found.problems)});
}

// The components of one event: the series and its changed instances, or only some of these.
void addSplitEvent(const DayRange& range, const std::vector<Entry>& entries,
                   const CalendarHost& host, Events& events) {
  std::vector<When> replaced;
  for (const Entry& entry : entries) {
    if (entry.replacedDate) replaced.push_back(*entry.replacedDate);
  }
  for (const Entry& entry : entries) {
    const bool isSeries = !entry.replacedDate;
    addEvent(range, entry, host, isSeries ? replaced : std::vector<When>(), events);
  }
}

Events eventsIn(const Hosts& hosts, const DayRange& range) {
  Events events;
  for (const auto& host : hosts) {
    for (const auto& [name, object] : host->objects()) {
      const bool isSplit = host->splitEvents().contains(object->entry.uid);
      if (!isSplit) addEvent(range, object->entry, *host, {}, events);
    }
    for (const auto& [uid, entries] : host->splitEvents()) {
      addSplitEvent(range, entries, *host, events);
    }
  }
  std::sort(events.occurrences.begin(), events.occurrences.end(), comesFirst);
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
  if (occurrence.hasOtherDates) out << " (repeats)";
  if (entry.isCancelled) out << " (cancelled)";
  if (entry.location && !entry.location->empty()) out << ", " << printable(*entry.location);
  if (namesCalendar) out << "  [" << printable(occurrence.host->name()) << "]";
  out << "\n";
}

bool isOverBefore(const Occurrence& event, NSDate day) {
  return event.start < day && event.end <= day;
}

void printEvents(std::ostream& out, const std::vector<Occurrence>& events, const DayRange& range,
                 bool namesCalendar) {
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
      printOccurrence(out, timesOnDay(event, day, dayEnd), event, namesCalendar);
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
      if (!entry.end || due < end) {
        toDos.push_back({due, due, &entry, host.get(), entry.repeats()});
      }
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

// Texts of several lines become one, with single blanks.
std::string onOneLine(string_view text) {
  std::string line = printable(text);
  const auto areBlanks = [](char a, char b) { return a == ' ' && b == ' '; };
  line.erase(std::unique(line.begin(), line.end(), areBlanks), line.end());
  return line;
}

void printIncomplete(std::ostream& out, const std::vector<IncompleteEvent>& events,
                     bool namesCalendar) {
  if (!events.empty()) out << "Rules that cannot be followed\n";
  for (const IncompleteEvent& event : events) {
    out << "  " << printable(titleOf(*event.entry));
    if (namesCalendar) out << "  [" << printable(event.host->name()) << "]";
    out << "\n";
    for (const std::string& problem : event.problems) out << "    " << onOneLine(problem) << "\n";
  }
}

void printTitles(std::ostream& out, string_view label, const std::vector<std::string>& titles) {
  constexpr std::size_t maximum = 20;
  const std::size_t shown = std::min(maximum, titles.size());
  for (std::size_t i = 0; i < shown; ++i) out << "  " << label << printable(titles[i]) << "\n";
  if (shown < titles.size()) out << "  ... and " << titles.size() - shown << " more\n";
}

}  // namespace

void printDays(std::ostream& out, const Hosts& hosts, const DayRange& range) {
  const bool namesCalendar = hosts.size() > 1;
  const Events events = eventsIn(hosts, range);
  printEvents(out, events.occurrences, range, namesCalendar);
  printToDos(out, hosts, range.end);
  printIncomplete(out, events.incomplete, namesCalendar);
}

void printList(std::ostream& out, const CalendarHost& host) {
  for (const auto& [uid, object] : host.objects()) {
    out << printable(uid) << "\t" << printable(titleOf(object->entry)) << "\n";
  }
}

void printChanges(std::ostream& out, const std::string& place, const Changes& changes) {
  out << printable(place) << ": ";
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

}  // namespace agenda
