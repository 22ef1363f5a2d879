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

/// The identifier of a new calendar. Throws examples::Failure.
std::string createCalendar(const std::string& title);

/// A calendar of the user's store. What fails throws examples::Failure.
class Calendar {
 public:
  /// By the store's identifier, or else by a title that only one has.
  explicit Calendar(const std::string& titleOrIdentifier);

  /// Those that lie at least partly in that time, in the order of their starts, with every
  /// occurrence of a repeating event for itself.
  std::vector<Event> eventsBetween(quillmere::NSDate from, quillmere::NSDate to) const;
  /// Returns its name.
  std::string add(Event event) const;
  /// The whole event, with all occurrences. One that has alarms would lose them and is refused.
  void change(const std::string& name, const Fields& fields) const;
  /// The whole event, or one occurrence of it.
  void remove(const std::string& name) const;

 private:
  class Host;
  using EventItems = std::vector<std::shared_ptr<quillmere::EKEvent>>;

  void save(const std::shared_ptr<Event>& event, bool isNew) const;
  /// Of all calendars, which may share names.
  EventItems itemsNamed(const std::string& name) const;
  /// Null when none is this calendar's.
  std::shared_ptr<quillmere::EKEvent> ownOf(const EventItems& items) const;
  std::shared_ptr<quillmere::EKEvent> occurrenceNamed(const std::string& name) const;

  std::shared_ptr<quillmere::EKEventStore> store_;
  std::shared_ptr<quillmere::EKCalendar> calendar_;
};

}  // namespace localstore

#endif
