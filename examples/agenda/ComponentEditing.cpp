#include "ComponentEditing.h"

#include <quillmere/ical/KBTMutableCalObject.h>

#include <charconv>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <utility>

#include "DocumentParts.h"
#include "Problems.h"

namespace agenda {
namespace {

using quillmere::KBTCalObject;
using quillmere::KBTMutableCalObject;
using quillmere::NSData;
using quillmere::NSDate;
using std::string_view;

// New text by property name; an empty one takes the property away.
using Replacements = std::map<std::string, std::string, std::less<>>;

// Visits the component's lines; `inside` tells of those that belong to it and not to a nested one.
template <class Visit>
void forEachLine(string_view component, Visit visit) {
  int depth = 0;
  while (!component.empty()) {
    const string_view line = takeLine(component);
    if (isProperty(line, "END")) --depth;
    const bool isFrame = isProperty(line, "BEGIN") || isProperty(line, "END");
    visit(line, depth == 1 && !isFrame);
    if (isProperty(line, "BEGIN")) ++depth;
  }
}

std::optional<std::string> valueOfProperty(string_view component, string_view name) {
  std::optional<std::string> value;
  forEachLine(component, [&](string_view line, bool inside) {
    if (inside && !value && isProperty(line, name)) value = valueOfLine(line);
  });
  return value;
}

void appendWhen(KBTMutableCalObject& writer, std::string key, const When& when) {
  if (when.isDay()) {
    writer.appendKey_dateValue(std::move(key), when.instant());
  } else {
    writer.appendKey_datetimeValue(std::move(key), when.instant());
  }
}

// The text of the line that `append` writes.
template <class Append>
std::string lineText(Append append) {
  const auto writer =
      KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration(std::nullopt, false);
  append(*writer);
  return std::string(writer->icsData().view());
}

std::string textLine(const std::string& key, const std::string& value) {
  return lineText([&](auto& writer) { writer.appendKey_stringValue(key, value); });
}

std::string whenLine(const std::string& key, const When& when) {
  return lineText([&](auto& writer) { appendWhen(writer, key, when); });
}

std::string dateLine(const std::string& key, NSDate date) {
  return lineText([&](auto& writer) { writer.appendKey_datetimeValue(key, date); });
}

std::int64_t nextSequence(string_view component) {
  const std::string old = valueOfProperty(component, "SEQUENCE").value_or("0");
  std::int64_t number = 0;
  std::from_chars(old.data(), old.data() + old.size(), number);
  constexpr std::int64_t maximum = std::numeric_limits<std::int32_t>::max();
  return number >= 0 && number < maximum ? number + 1 : 1;
}

// Calendars take the DTSTAMP for the version, so it moves on with every edit, also with two in one
// second.
NSDate newStamp(string_view component, NSDate now) {
  const auto old = KBTCalObject::zuluStringAsDate(valueOfProperty(component, "DTSTAMP"));
  const bool isNew = !old || old->secondsSince1970() < now.secondsSince1970();
  return isNew ? now : old->dateByAddingSeconds(1);
}

// Calendars name the day after an event's last one.
When endAsWritten(const When& end) { return end.isDay() ? end.plus(secondsPerDay) : end; }

// The end that goes with a start that moves alone, so that the length stays.
When movedEnd(const When& newStart, const When& oldStart, const When& oldEnd) {
  if (newStart.isDay() != oldStart.isDay() || oldStart.isDay() != oldEnd.isDay()) {
    throw CalendarProblem("a change between days and times needs a new end as well");
  }
  if (newStart.isDay()) {
    return newStart.plus(oldEnd.date.secondsSince1970() - oldStart.date.secondsSince1970());
  }
  const When start{When::Kind::instant, newStart.instant()};
  return start.plus(oldEnd.instant().secondsSince1970() - oldStart.instant().secondsSince1970());
}

// Brings start and end into the form in which the component tells them.
void completeTimes(Fields& fields, const Entry& old) {
  if (!fields.start && !fields.end) return;
  if (fields.start && old.repeats()) {
    throw CalendarProblem("it repeats, so its start cannot be moved");
  }
  if (fields.end && !old.isToDo) fields.end = endAsWritten(*fields.end);
  if (fields.start && !fields.end && old.start && old.end) {
    fields.end = movedEnd(*fields.start, *old.start, *old.end);
  }
  const auto start = fields.start ? fields.start : old.start;
  const auto end = fields.end ? fields.end : old.end;
  if (!start || !end) return;
  if (end->isDay() != start->isDay()) {
    throw CalendarProblem("its start and end must both be days or both be times");
  }
  const bool isEmpty = end->isDay() && !old.isToDo && end->date == start->date;
  if (isEmpty || end->instant() < start->instant()) {
    throw CalendarProblem("its end would lie before its start");
  }
}

Replacements replacementsFor(string_view component, const Fields& fields, bool isToDo, NSDate now) {
  Replacements lines;
  if (fields.summary) lines["SUMMARY"] = textLine("SUMMARY", *fields.summary);
  if (fields.location) lines["LOCATION"] = textLine("LOCATION", *fields.location);
  if (fields.description) lines["DESCRIPTION"] = textLine("DESCRIPTION", *fields.description);
  if (fields.start) lines["DTSTART"] = whenLine("DTSTART", *fields.start);
  if (fields.end) {
    const std::string key = isToDo ? "DUE" : "DTEND";
    lines[key] = whenLine(key, *fields.end);
    lines["DURATION"] = "";  // never beside an end
  }
  lines["DTSTAMP"] = dateLine("DTSTAMP", newStamp(component, now));
  lines["LAST-MODIFIED"] = dateLine("LAST-MODIFIED", now);
  lines["SEQUENCE"] = lineText(
      [&](auto& writer) { writer.appendKey_integerValue("SEQUENCE", nextSequence(component)); });
  return lines;
}

Replacements::iterator findReplacement(Replacements& replacements, string_view line) {
  auto entry = replacements.begin();
  while (entry != replacements.end() && !isProperty(line, entry->first)) ++entry;
  return entry;
}

// Each replacement takes the place of the property's first line; those of new properties follow the
// component's own, before anything nested.
std::string withReplacements(string_view component, Replacements replacements) {
  std::string result;
  int frames = 0;
  forEachLine(component, [&](string_view line, bool inside) {
    if (isProperty(line, "BEGIN") || isProperty(line, "END")) ++frames;
    constexpr int firstAfterOwnLines = 2;
    if (frames == firstAfterOwnLines) {
      for (auto& [name, text] : replacements) result += std::exchange(text, "");
    }
    const auto replacement = inside ? findReplacement(replacements, line) : replacements.end();
    if (replacement == replacements.end()) {
      result += line;
    } else {
      result += std::exchange(replacement->second, "");
    }
  });
  return result;
}

}  // namespace

std::string newEvent(const std::string& uid, const Fields& fields, NSDate now) {
  const auto event =
      KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration("VEVENT", false);
  event->appendKey_stringValue("UID", uid);
  event->appendKey_datetimeValue("DTSTAMP", now);
  event->appendKey_datetimeValue("CREATED", now);
  if (fields.start) appendWhen(*event, "DTSTART", *fields.start);
  if (fields.end) appendWhen(*event, "DTEND", endAsWritten(*fields.end));
  if (fields.summary) event->appendKey_stringValue("SUMMARY", *fields.summary);
  if (fields.location) event->appendKey_stringValue("LOCATION", *fields.location);
  if (fields.description) event->appendKey_stringValue("DESCRIPTION", *fields.description);
  return std::string(event->icsData().view());
}

std::string editedComponent(string_view component, Fields fields, NSDate now) {
  const Entry old = readEntry(*KBTCalObject::initWithData(NSData::dataWithBytes(component)));
  completeTimes(fields, old);
  return withReplacements(component, replacementsFor(component, fields, old.isToDo, now));
}

bool isChangedInstance(string_view component) {
  return valueOfProperty(component, "RECURRENCE-ID").has_value();
}

}  // namespace agenda
