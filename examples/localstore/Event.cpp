#include "Event.h"

#include <quillmere/ical/KBTMutableCalObject.h>
#include <quillmere/platform/dates/NSCalendar.h>

#include <utility>

#include "common/Program.h"

namespace localstore {
namespace {

using quillmere::KBTCalObject;
using quillmere::KBTMutableCalObject;
using quillmere::NSDate;

constexpr std::int64_t secondsPerDay = 86'400;

// The end that keeps the event's length. Days may be shorter and longer by a change to daylight
// saving.
std::optional<NSDate> movedEnd(const Event& event, NSDate newStart) {
  if (!event.start || !event.end) return std::nullopt;
  const std::int64_t seconds = event.end->secondsSince1970() - event.start->secondsSince1970();
  if (!event.isAllDay) return newStart.dateByAddingSeconds(seconds);
  return afterDays((seconds + secondsPerDay / 2) / secondsPerDay, newStart);
}

void appendDate(KBTMutableCalObject& writer, const char* key, std::optional<NSDate> date,
                bool isAllDay) {
  if (!date) return;
  if (isAllDay) {
    writer.appendKey_dateValue(key, *date);
  } else {
    writer.appendKey_datetimeValue(key, *date);
  }
}

}  // namespace

std::optional<NSDate> afterDays(std::int64_t days, NSDate date) {
  quillmere::NSDateComponents components;
  components.day = days;
  return quillmere::NSCalendar::currentCalendar().dateByAddingComponents_toDate(components, date);
}

Event edited(Event event, const Fields& fields) {
  if (fields.title) event.title = fields.title;
  if (fields.notes) event.notes = *fields.notes;
  if (fields.start) {
    event.end = movedEnd(event, fields.start->date);
    event.start = fields.start->date;
  }
  if (fields.end) {
    event.end = fields.end->isDay ? afterDays(1, fields.end->date) : fields.end->date;
  }
  if (const auto& given = fields.start ? fields.start : fields.end) event.isAllDay = given->isDay;
  if (fields.isAllDay) event.isAllDay = true;
  const bool isLastDay = fields.end && fields.end->isDay;
  if (event.end && (event.end < event.start || (isLastDay && event.end == event.start))) {
    throw examples::Failure("the event would end before it starts");
  }
  return event;
}

Event readEvent(std::string name, std::string version, KBTCalObject& reader) {
  Event event;
  event.name = std::move(name);
  event.version = std::move(version);
  while (reader.nextLine()) {
    const auto key = reader.key();
    if (key == "SUMMARY") event.title = reader.value();
    if (key == "DESCRIPTION") event.notes = reader.value().value_or("");
    if (key == "DTSTART") event.start = reader.valueAsDateIsFullDay(&event.isAllDay);
    if (key == "DTEND") event.end = reader.valueAsDateIsFullDay(&event.isAllDay);
  }
  return event;
}

std::shared_ptr<quillmere::KBTICSDataSource> writerOf(const Event& event) {
  auto writer = KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration("VEVENT", false);
  appendDate(*writer, "DTSTART", event.start, event.isAllDay);
  appendDate(*writer, "DTEND", event.end, event.isAllDay);
  if (event.title) writer->appendKey_stringValue("SUMMARY", *event.title);
  if (!event.notes.empty()) writer->appendKey_stringValue("DESCRIPTION", event.notes);
  return writer;
}

}  // namespace localstore
