#ifndef QUILLMERE_PLATFORM_EVENTS_EVOLUTIONCOMPONENT_H
#define QUILLMERE_PLATFORM_EVENTS_EVOLUTIONCOMPONENT_H

#include <libecal/libecal.h>
#include <quillmere/platform/events/EventRecord.h>

#include <memory>
#include <optional>
#include <string>

// Internal: iCalendar components, as Evolution keeps events, and what they say.
namespace quillmere {

struct Unref {
  void operator()(void* object) const { g_object_unref(object); }
};
template <class Object>
using GObjectPtr = std::unique_ptr<Object, Unref>;

/// What a component says, without the calendar. The client knows its calendar's time zones. Null when
/// it has no start or lies outside the calendar's years; what ends before it starts has no length.
std::optional<EventRecord> recordOfComponent(ICalComponent* component, ECalClient* client);

/// The instant of a time of such a component.
NSDate dateOfTime(ICalTime* time, bool isAllDay);

/// Makes a component say what `edited` has other than `original`; whatever else it says stays.
void writeDifferences(ICalComponent* component, const EventRecord& original,
                      const EventRecord& edited);

/// Names the occurrence of a series that a component stands for.
void writeOccurrence(ICalComponent* component, const EventRecord& series, NSDate occurrence);
/// The text by which the occurrence of a series is known (RECURRENCE-ID without parameters).
std::string occurrenceName(const EventRecord& series, NSDate occurrence);
/// That of the occurrence that a component stands for.
std::string occurrenceName(ICalComponent* component);

/// Evolution's time zone of an event; null for floating and all-day events, and for those in UTC or
/// in a zone that it does not know, whose times are written in UTC.
ICalTimezone* evolutionZone(const EventRecord& event);

}  // namespace quillmere

#endif
