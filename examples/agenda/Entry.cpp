#include "Entry.h"

#include <quillmere/platform/dates/NSCalendar.h>
#include <quillmere/platform/dates/NSTimeZone.h>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

namespace agenda {
namespace {

using quillmere::KBTCalObject;
using quillmere::NSCalendar;
using quillmere::NSDate;
using quillmere::NSDateComponents;
using quillmere::NSTimeZone;
using std::string_view;

const NSCalendar& calendarInUTC() {
  static const NSCalendar calendar(NSTimeZone::timeZoneWithName("UTC").value());
  return calendar;
}

// The instant at which clocks in `calendar`'s zone show the digits.
NSDate instantOfDigits(NSDate digitsAsUTC, const NSCalendar& calendar) {
  return calendar.dateFromComponents(calendarInUTC().componentsFromDate(digitsAsUTC))
      .value_or(digitsAsUTC);
}

// A zone by the names that calendars use for it. Readers leave quotation marks on parameters.
std::optional<NSTimeZone> zoneNamed(string_view name) {
  if (name.size() >= 2 && name.starts_with('"') && name.ends_with('"')) {
    name = name.substr(1, name.size() - 2);
  }
  auto zone = NSTimeZone::timeZoneWithName(name);
  if (!zone) zone = NSTimeZone::timeZoneWithAbbreviation(name);
  return zone;
}

// A date property, and the calendar by which a duration is added to it.
struct ZonedWhen {
  When when;
  NSCalendar calendar;
};

// `valueAsDateIsFullDay` is not used here: it takes a zone's offset at the digits read as UTC,
// which is off for some hours around a change to or from daylight saving, and cannot tell a time of
// no zone from one in UTC.
std::optional<ZonedWhen> whenOfText(string_view text, KBTCalObject& reader) {
  constexpr std::size_t dayLength = 8;
  if (text.size() == dayLength) {
    const auto digits = KBTCalObject::zuluStringAsDate(std::string(text) + "T000000");
    if (!digits) return std::nullopt;
    return ZonedWhen{{When::Kind::day, *digits}, calendarInUTC()};
  }
  const auto digits = KBTCalObject::zuluStringAsDate(text);
  if (!digits) return std::nullopt;
  if (text.ends_with('Z')) return ZonedWhen{{When::Kind::instant, *digits}, calendarInUTC()};
  // A zone that nobody knows is none: the time then counts in the zone in which it is shown.
  const auto zoneName = reader.valueForModifier("TZID");
  const auto zone = zoneName ? zoneNamed(*zoneName) : std::nullopt;
  if (!zone) return ZonedWhen{{When::Kind::wallTime, *digits}, calendarInUTC()};
  const NSCalendar calendar(*zone);
  return ZonedWhen{{When::Kind::instant, instantOfDigits(*digits, calendar)}, calendar};
}

std::optional<ZonedWhen> currentWhen(KBTCalObject& reader) {
  const auto value = reader.value();
  if (!value) return std::nullopt;
  return whenOfText(*value, reader);
}

// Appends the dates of a list; of a period, which has a "/", its start.
void appendDates(KBTCalObject& reader, std::vector<When>& dates) {
  string_view rest = reader.value().value_or("");
  while (!rest.empty()) {
    const std::size_t comma = std::min(rest.find(','), rest.size());
    const string_view text = rest.substr(0, comma);
    if (const auto date = whenOfText(text.substr(0, text.find('/')), reader)) {
      dates.push_back(date->when);
    }
    rest.remove_prefix(std::min(comma + 1, rest.size()));
  }
}

// The library's durations leave out weeks, which stand alone ("P2W"), and signs.
std::optional<NSDateComponents> durationComponents(string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  auto components = KBTCalObject::icalDurationAsDateComponents(text);
  if (components && text.ends_with('W')) {
    std::int32_t weeks = 0;
    std::from_chars(text.data() + 1, text.data() + text.size(), weeks);
    components->day = std::int64_t{7} * weeks;
  }
  return components;
}

std::optional<When> endAfter(const ZonedWhen& start, const NSDateComponents& duration) {
  const auto end = start.calendar.dateByAddingComponents_toDate(duration, start.when.date);
  if (!end) return std::nullopt;
  return When{start.when.kind, *end};
}

std::optional<std::string> copied(std::optional<string_view> text) {
  if (!text) return std::nullopt;
  return std::string(*text);
}

// What a component's lines tell, before it is put together.
struct EntryLines {
  Entry entry;
  std::optional<ZonedWhen> start;
  std::optional<ZonedWhen> end;
  std::optional<NSDateComponents> duration;

  void readLine(string_view key, KBTCalObject& reader) {
    if (key == "UID") {
      entry.uid = copied(reader.value()).value_or("");
    } else if (key == "SUMMARY") {
      entry.summary = copied(reader.value());
    } else if (key == "LOCATION") {
      entry.location = copied(reader.value());
    } else if (key == "DTSTART") {
      start = currentWhen(reader);
    } else if (key == (entry.isToDo ? "DUE" : "DTEND")) {
      end = currentWhen(reader);
    } else if (key == "DURATION") {
      duration = durationComponents(reader.value().value_or(""));
    } else if (key == "RRULE") {
      entry.repetition.rules.emplace_back(reader.value().value_or(""));
    } else if (key == "RDATE") {
      appendDates(reader, entry.repetition.addedDates);
    } else if (key == "EXDATE") {
      appendDates(reader, entry.repetition.removedDates);
    } else if (key == "RECURRENCE-ID") {
      if (const auto date = currentWhen(reader)) entry.replacedDate = date->when;
    } else if (key == "STATUS") {
      entry.isDone = entry.isDone || reader.value() == "COMPLETED";
      entry.isCancelled = reader.value() == "CANCELLED";
    } else if (key == "COMPLETED") {
      entry.isDone = true;
    }
  }

  Entry finish() {
    if (start) {
      entry.start = start->when;
      entry.repetition.zone = start->calendar.timeZone().name();
    }
    if (end) {
      entry.end = end->when;
    } else if (start && duration) {
      entry.end = endAfter(*start, *duration);
      entry.repetition.calendarDays = duration->day.value_or(0);
    }
    return std::move(entry);
  }
};

}  // namespace

NSDate When::instant() const {
  if (kind == Kind::instant) return date;
  return instantOfDigits(date, NSCalendar::currentCalendar());
}

std::string titleOf(const Entry& entry) {
  return entry.summary && !entry.summary->empty() ? *entry.summary : "(no title)";
}

Entry readEntry(KBTCalObject& component) {
  EntryLines lines;
  if (!component.nextLine()) return {};
  lines.entry.isToDo = component.value() == "VTODO";
  while (component.nextLine()) {
    const auto key = component.key();
    if (key == "BEGIN" || key == "END") break;
    if (key) lines.readLine(*key, component);
  }
  return lines.finish();
}

}  // namespace agenda
