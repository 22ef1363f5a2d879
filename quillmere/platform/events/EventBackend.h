#ifndef QUILLMERE_PLATFORM_EVENTS_EVENTBACKEND_H
#define QUILLMERE_PLATFORM_EVENTS_EVENTBACKEND_H

#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/events/EKEventStore.h>
#include <quillmere/platform/events/EventRecord.h>

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Internal: what an event store stands on.
namespace quillmere {

/// What a backend throws when an operation fails; the event store hands its error on.
class EventError : public std::exception {
 public:
  explicit EventError(NSErrorPtr error) : error_(std::move(error)) {}
  /// An error of the event stores' own domain.
  EventError(EKErrorCode code, std::string description, NSErrorPtr underlying = nullptr);

  const NSErrorPtr& error() const { return error_; }
  const char* what() const noexcept override { return "an event store's error"; }

 private:
  NSErrorPtr error_;
};

/// A place where calendars and events are kept. Any thread may use it; every change is complete and
/// lasting when the operation returns, and has not happened when it throws an `EventError`; of a
/// service that died over it, nobody knows.
class EventBackend {
 public:
  using Sink = std::function<void(EventRecord)>;

  EventBackend() = default;
  EventBackend(const EventBackend&) = delete;
  EventBackend& operator=(const EventBackend&) = delete;
  virtual ~EventBackend() = default;

  virtual std::vector<CalendarRecord> calendars() = 0;
  /// Adds the calendar, or gives the one with its identifier its title. May give a new one another
  /// identifier.
  virtual void saveCalendar(CalendarRecord& calendar) = 0;
  virtual void removeCalendar(const std::string& identifier) = 0;

  /// Hands over what lies in the range `from` to before `to` of a calendar, in no order: events
  /// that end after `from`, or begin at it. Recurring events come by their occurrences.
  virtual void readEvents(const std::string& calendar, NSDate from, NSDate to,
                          const Sink& sink) = 0;
  /// Hands over the events of that identifier, one for each calendar that has it; a recurring one
  /// by the first occurrence that it still has, changed or not, in the order of the rule.
  virtual void readItems(const std::string& identifier, const Sink& sink) = 0;

  /// Stores `event`: a new one when `stored` is null, else what differs from `stored`, as it was
  /// fetched. Afterwards `event` is as if it had been fetched again.
  virtual void saveEvent(const EventRecord* stored, EventRecord& event, EKSpan span) = 0;
  virtual void removeEvent(const EventRecord& stored, EKSpan span) = 0;

  /// What is called, on any thread, after something else has changed the calendars or events. Set
  /// once, before anything else is called. A call that runs when the last owner lets go of the
  /// backend keeps it alive until it is over.
  virtual void setChangeHandler(std::function<void()> handler) = 0;
};

}  // namespace quillmere

#endif
