#ifndef LOCALSTORE_CALENDAR_H
#define LOCALSTORE_CALENDAR_H

#include <quillmere/platform/events/EKEventStore.h>

#include <memory>
#include <string>
#include <vector>

#include "Event.h"

namespace localstore {

/// The user's store. Throws examples::Failure when it may not or cannot be used.
std::shared_ptr<quillmere::EKEventStore> usersStore();

/// Makes a calendar and returns its identifier. Throws examples::Failure.
std::string createCalendar(const std::string& title);

/// A calendar of the user's store. Operations that fail throw examples::Failure.
class Calendar {
 public:
  /// Takes the store's identifier, or a title that only one calendar has.
  explicit Calendar(const std::string& titleOrIdentifier);

  /// The events that lie at least partly in that time, in the order of their starts. Each
  /// occurrence of a repeating event is an event of its own.
  std::vector<Event> eventsBetween(quillmere::NSDate from, quillmere::NSDate to) const;
  /// Returns the event's name.
  std::string add(Event event) const;
  /// Changes the whole event, with all occurrences. Refuses an event that has alarms, since it
  /// would lose them.
  void change(const std::string& name, const Fields& fields) const;
  /// Removes the whole event, or one occurrence of it.
  void remove(const std::string& name) const;

 private:
  class Host;
  using EventItems = std::vector<std::shared_ptr<quillmere::EKEvent>>;

  void save(const std::shared_ptr<Event>& event, bool isNew) const;
  /// The events of that name in all calendars, which may share names.
  EventItems itemsNamed(const std::string& name) const;
  /// The one that is this calendar's, or null.
  std::shared_ptr<quillmere::EKEvent> ownOf(const EventItems& items) const;
  std::shared_ptr<quillmere::EKEvent> occurrenceNamed(const std::string& name) const;

  std::shared_ptr<quillmere::EKEventStore> store_;
  std::shared_ptr<quillmere::EKCalendar> calendar_;
};

}  // namespace localstore

#endif
