#ifndef LOCALSTORE_EVENT_H
#define LOCALSTORE_EVENT_H

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/ical/KBTICSDataSource.h>
#include <quillmere/platform/dates/NSDate.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace localstore {

/// What a synching calendar reads and writes of an event or an occurrence.
struct Event {
  std::string name;
  std::string version;
  std::optional<std::string> title;
  std::string notes;
  std::optional<quillmere::NSDate> start;
  std::optional<quillmere::NSDate> end;  ///< null: the store's choice; all day: the day after
  bool isAllDay = false;
};

/// A day, given by its first instant, or a time.
struct When {
  quillmere::NSDate date;
  bool isDay;
};

/// What the user names of an event.
struct Fields {
  std::optional<std::string> title;
  std::optional<std::string> notes;
  std::optional<When> start;
  std::optional<When> end;  ///< if it is a day, the last one
  bool isAllDay = false;
};

/// The date so many days later on the clock; null beyond the calendar's years.
std::optional<quillmere::NSDate> afterDays(std::int64_t days, quillmere::NSDate date);

/// `event` with these fields; the others stay. A start that is moved alone takes the end along.
/// Throws examples::Failure if the event would end before it starts.
Event edited(Event event, const Fields& fields);

/// Reads the reader to its end.
Event readEvent(std::string name, std::string version, quillmere::KBTCalObject& reader);

/// A writer with everything that an event store takes. The store erases what it lacks.
std::shared_ptr<quillmere::KBTICSDataSource> writerOf(const Event& event);

}  // namespace localstore

#endif
