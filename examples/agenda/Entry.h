#ifndef AGENDA_ENTRY_H
#define AGENDA_ENTRY_H

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/dates/NSDate.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace agenda {

/// When something starts or ends. Days and wall times mean the same digits in every zone, so their
/// `date` holds the digits read as UTC, and which instant that is depends on the default zone.
struct When {
  enum class Kind : std::uint8_t { day, wallTime, instant };

  Kind kind;
  quillmere::NSDate date;

  bool isDay() const { return kind == Kind::day; }

  /// The instant, in the default zone of this moment; a day's first one.
  quillmere::NSDate instant() const;

  /// The same kind of time, `seconds` later.
  When plus(std::int64_t seconds) const { return {kind, date.dateByAddingSeconds(seconds)}; }

  friend auto operator<=>(const When&, const When&) = default;
};

inline constexpr std::int64_t secondsPerDay = std::int64_t{24} * 60 * 60;

/// At which other times an entry takes place.
struct Repetition {
  std::vector<std::string> rules;  ///< RRULE values
  std::vector<When> addedDates;
  std::vector<When> removedDates;
  /// The zone by whose clocks the rules go; UTC is also that of the digits of days and wall times.
  std::string zone = "UTC";
  /// So many days of the entry's length are by the calendar, the rest is elapsed time.
  std::int64_t calendarDays = 0;

  friend bool operator==(const Repetition&, const Repetition&) = default;
};

/// What an agenda shows of an event or a to-do.
struct Entry {
  std::string uid;
  bool isToDo = false;
  bool isDone = false;
  bool isCancelled = false;
  std::optional<std::string> summary;
  std::optional<std::string> location;
  std::optional<When> start;
  std::optional<When> end;  ///< the first moment after it; of a to-do when it is due
  Repetition repetition;
  std::optional<When> replacedDate;  ///< of a changed instance the date that the series gave it

  bool repeats() const { return !repetition.rules.empty() || !repetition.addedDates.empty(); }

  friend bool operator==(const Entry&, const Entry&) = default;
};

/// What to call an entry, also when it has no summary.
std::string titleOf(const Entry& entry);

/// The entry of the component that the reader stands before. Properties count up to the first
/// component nested in it, so an alarm's own texts are never taken for the event's.
Entry readEntry(quillmere::KBTCalObject& component);

}  // namespace agenda

#endif
