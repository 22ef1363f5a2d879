#include <quillmere/platform/dates/CivilDate.h>
#include <quillmere/platform/events/EventBackend.h>
#include <quillmere/platform/events/EvolutionComponent.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace quillmere {
namespace {

using PropertyPtr = GObjectPtr<ICalProperty>;
using ComponentPtr = GObjectPtr<ICalComponent>;
using TimePtr = GObjectPtr<ICalTime>;

constexpr const char* utcName = "UTC";

// A zone's identifier may have a maker's prefix: "/example.org/Europe/Paris".
std::optional<NSTimeZone> zoneOfIdentifier(std::string_view identifier) {
  while (!identifier.empty()) {
    if (auto zone = NSTimeZone::timeZoneWithName(identifier)) return zone;
    identifier.remove_prefix(std::min(identifier.find('/'), identifier.size() - 1) + 1);
  }
  return std::nullopt;
}

template <class Visitor>
void forEachProperty(ICalComponent* component, ICalPropertyKind kind, const Visitor& visit) {
  for (PropertyPtr property(i_cal_component_get_first_property(component, kind)); property;
       property.reset(i_cal_component_get_next_property(component, kind))) {
    visit(property.get());
  }
}

std::string parameterOf(ICalProperty* property, const char* name) {
  const std::unique_ptr<char, decltype(&g_free)> text(
      i_cal_property_get_parameter_as_string(property, name), &g_free);
  return text ? text.get() : "";
}

std::string valueOf(ICalProperty* property) {
  const std::unique_ptr<char, decltype(&g_free)> text(i_cal_property_get_value_as_string(property),
                                                      &g_free);
  return text ? text.get() : "";
}

// The instants of the date or dates that a property has.
NSDate dateOfProperty(ICalProperty* property, ECalClient* client, bool isAllDay) {
  const TimePtr time(i_cal_time_new_from_string(valueOf(property).c_str()));
  const std::string identifier = parameterOf(property, "TZID");
  ICalTimezone* zone = nullptr;
  if (!identifier.empty() && client &&
      e_cal_client_get_timezone_sync(client, identifier.c_str(), &zone, nullptr, nullptr) && zone) {
    i_cal_time_set_timezone(time.get(), zone);
  }
  return dateOfTime(time.get(), isAllDay);
}

void removeProperties(ICalComponent* component, ICalPropertyKind kind) {
  for (PropertyPtr property(i_cal_component_get_first_property(component, kind)); property;
       property.reset(i_cal_component_get_first_property(component, kind))) {
    i_cal_component_remove_property(component, property.get());
  }
}

void addProperty(ICalComponent* component, const std::string& line) {
  const PropertyPtr property(i_cal_property_new_from_string(line.c_str()));
  if (property) i_cal_component_add_property(component, property.get());
}

// A date of the event as the value of a property, and the parameters that go with it.
struct TimeText {
  std::string parameters;
  std::string value;
};

TimeText timeText(const EventRecord& event, NSDate date) {
  constexpr std::size_t dateLength = 8;
  const std::string wall = wallTime(date, event.wallZone()).icsDateString();
  if (event.isAllDay) return {";VALUE=DATE", wall.substr(0, dateLength)};
  if (!event.timeZone) return {"", wall.substr(0, wall.size() - 1)};
  ICalTimezone* const zone = evolutionZone(event);
  if (!zone) return {"", date.icsDateString()};
  return {std::string(";TZID=") + i_cal_timezone_get_tzid(zone), wall.substr(0, wall.size() - 1)};
}

void writeTime(ICalComponent* component, const std::string& name, const EventRecord& event,
               NSDate date) {
  const TimeText text = timeText(event, date);
  addProperty(component, name + text.parameters + ":" + text.value);
}

std::optional<std::string> textOf(const std::optional<NSData>& notes) {
  if (!notes) return std::nullopt;
  return std::string(notes->view());
}

void writeText(ICalComponent* component, ICalPropertyKind kind, ICalProperty* (*make)(const gchar*),
               const std::optional<std::string>& text) {
  removeProperties(component, kind);
  if (text) i_cal_component_take_property(component, make(text->c_str()));
}

void writeAlarms(ICalComponent* component, const std::vector<EKAlarm>& alarms) {
  for (ComponentPtr old(i_cal_component_get_first_component(component, I_CAL_VALARM_COMPONENT));
       old; old.reset(i_cal_component_get_first_component(component, I_CAL_VALARM_COMPONENT))) {
    i_cal_component_remove_component(component, old.get());
  }
  for (const EKAlarm& alarm : alarms) {
    const ComponentPtr made(i_cal_component_new(I_CAL_VALARM_COMPONENT));
    const bool isBefore = alarm.relativeOffset < 0;
    addProperty(made.get(), "ACTION:DISPLAY");
    addProperty(made.get(), "DESCRIPTION:Reminder");
    addProperty(made.get(),
                std::string("TRIGGER:") + (isBefore ? "-" : "") + "PT" +
                    std::to_string(isBefore ? -alarm.relativeOffset : alarm.relativeOffset) + "S");
    i_cal_component_add_component(component, made.get());
  }
}

std::vector<EKAlarm> alarmsOf(ICalComponent* component) {
  std::vector<EKAlarm> alarms;
  for (ComponentPtr alarm(i_cal_component_get_first_component(component, I_CAL_VALARM_COMPONENT));
       alarm; alarm.reset(i_cal_component_get_next_component(component, I_CAL_VALARM_COMPONENT))) {
    forEachProperty(alarm.get(), I_CAL_TRIGGER_PROPERTY, [&](ICalProperty* property) {
      const GObjectPtr<ICalTrigger> trigger(i_cal_property_get_trigger(property));
      const GObjectPtr<ICalDuration> offset(i_cal_trigger_get_duration(trigger.get()));
      if (offset) alarms.push_back({i_cal_duration_as_int(offset.get())});
    });
  }
  return alarms;
}

}  // namespace

ICalTimezone* evolutionZone(const EventRecord& event) {
  if (!event.isZoned() || event.timeZone->name() == utcName) return nullptr;
  return i_cal_timezone_get_builtin_timezone(event.timeZone->name().c_str());
}

NSDate dateOfTime(ICalTime* time, bool isAllDay) {
  const bool isDate = isAllDay || i_cal_time_is_date(time);
  ICalTimezone* const zone = i_cal_time_get_timezone(time);
  if (!isDate && (i_cal_time_is_utc(time) || zone)) {
    const auto seconds = i_cal_time_as_timet_with_zone(time, zone);
    return NSDate::dateWithMicrosecondsSince1970(seconds * NSDate::microsecondsPerSecond);
  }
  const std::int64_t day =
      dayNumber({i_cal_time_get_year(time), std::clamp(i_cal_time_get_month(time), 1, 12),
                 std::clamp(i_cal_time_get_day(time), 1, 31)});
  std::int64_t seconds = day * secondsPerDay;
  if (!isDate) {
    seconds += i_cal_time_get_hour(time) * secondsPerHour +
               i_cal_time_get_minute(time) * secondsPerMinute + i_cal_time_get_second(time);
  }
  const NSDate wall =
      NSDate::dateWithMicrosecondsSince1970(seconds * NSDate::microsecondsPerSecond);
  return dateOfWallTime(wall, NSTimeZone::defaultTimeZone());
}

std::optional<EventRecord> recordOfComponent(ICalComponent* component, ECalClient* client) {
  EventRecord event;
  event.identifier = i_cal_component_get_uid(component) ? i_cal_component_get_uid(component) : "";
  if (const char* title = i_cal_component_get_summary(component)) event.title = title;
  if (const char* notes = i_cal_component_get_description(component)) {
    event.notes = NSData::dataWithBytes(notes);
  }
  forEachProperty(component, I_CAL_DTSTART_PROPERTY, [&](ICalProperty* property) {
    const TimePtr start(i_cal_property_get_dtstart(property));
    event.isAllDay = i_cal_time_is_date(start.get());
    const std::string zone = parameterOf(property, "TZID");
    if (i_cal_time_is_utc(start.get())) {
      event.timeZone = NSTimeZone::timeZoneWithName(utcName);
    } else if (!zone.empty() && !event.isAllDay) {
      event.timeZone = zoneOfIdentifier(zone).value_or(NSTimeZone::defaultTimeZone());
    }
    event.start = dateOfProperty(property, client, event.isAllDay);
  });
  if (!event.start) return std::nullopt;
  forEachProperty(component, I_CAL_DTEND_PROPERTY, [&](ICalProperty* property) {
    event.end = dateOfProperty(property, client, event.isAllDay);
  });
  forEachProperty(component, I_CAL_DURATION_PROPERTY, [&](ICalProperty* property) {
    const GObjectPtr<ICalDuration> length(i_cal_property_get_duration(property));
    event.end = event.start->dateByAddingSeconds(i_cal_duration_as_int(length.get()));
  });
  if (!event.end || *event.end < *event.start) event.end = event.start;
  try {
    normalizeTimes(event);
  } catch (const EventError&) {
    return std::nullopt;
  }
  forEachProperty(component, I_CAL_RRULE_PROPERTY,
                  [&](ICalProperty* property) { event.recurrenceRule = valueOf(property); });
  forEachProperty(component, I_CAL_EXDATE_PROPERTY, [&](ICalProperty* property) {
    event.exceptionDates.push_back(dateOfProperty(property, client, event.isAllDay));
  });
  event.occurrenceDate = event.start;
  forEachProperty(component, I_CAL_RECURRENCEID_PROPERTY, [&](ICalProperty* property) {
    event.isDetached = true;
    event.occurrenceDate = dateOfProperty(property, client, false);
  });
  for (const auto kind : {I_CAL_DTSTAMP_PROPERTY, I_CAL_LASTMODIFIED_PROPERTY}) {
    forEachProperty(component, kind, [&](ICalProperty* property) {
      event.lastModified = dateOfProperty(property, client, false);
    });
  }
  event.alarms = alarmsOf(component);
  return event;
}

void writeDifferences(ICalComponent* component, const EventRecord& original,
                      const EventRecord& edited) {
  if (edited.title != original.title) {
    writeText(component, I_CAL_SUMMARY_PROPERTY, &i_cal_property_new_summary, edited.title);
  }
  if (edited.notes != original.notes) {
    writeText(component, I_CAL_DESCRIPTION_PROPERTY, &i_cal_property_new_description,
              textOf(edited.notes));
  }
  if (!edited.hasTimesOf(original)) {
    removeProperties(component, I_CAL_DTSTART_PROPERTY);
    removeProperties(component, I_CAL_DTEND_PROPERTY);
    removeProperties(component, I_CAL_DURATION_PROPERTY);
    writeTime(component, "DTSTART", edited, *edited.start);
    writeTime(component, "DTEND", edited, *edited.end);
  }
  if (edited.recurrenceRule != original.recurrenceRule) {
    removeProperties(component, I_CAL_RRULE_PROPERTY);
    if (edited.recurrenceRule) addProperty(component, "RRULE:" + *edited.recurrenceRule);
  }
  if (edited.exceptionDates != original.exceptionDates || !edited.recurrenceRule) {
    removeProperties(component, I_CAL_EXDATE_PROPERTY);
    if (edited.recurrenceRule) {
      for (const NSDate date : edited.exceptionDates) writeTime(component, "EXDATE", edited, date);
    }
  }
  if (edited.alarms != original.alarms) writeAlarms(component, edited.alarms);
}

void writeOccurrence(ICalComponent* component, const EventRecord& series, NSDate occurrence) {
  for (const auto kind :
       {I_CAL_RECURRENCEID_PROPERTY, I_CAL_RDATE_PROPERTY, I_CAL_EXRULE_PROPERTY}) {
    removeProperties(component, kind);
  }
  writeTime(component, "RECURRENCE-ID", series, occurrence);
}

std::string occurrenceName(ICalComponent* component) {
  const PropertyPtr property(
      i_cal_component_get_first_property(component, I_CAL_RECURRENCEID_PROPERTY));
  return property ? valueOf(property.get()) : "";
}

std::string occurrenceName(const EventRecord& series, NSDate occurrence) {
  return timeText(series, occurrence).value;
}

}  // namespace quillmere
