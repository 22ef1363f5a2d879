#ifndef AGENDA_ENTRY_H
#define AGENDA_ENTRY_H

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/dates/NSDate.h>

#include <cstdint>
#include <optional>
#include <string>

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

  friend bool operator==(const When&, const When&) = default;
};

inline constexpr std::int64_t secondsPerDay = std::int64_t{24} * 60 * 60;

/// What an agenda shows of an event or a to-do.
struct Entry {
  bool isToDo = false;
  bool isDone = false;
  bool isCancelled = false;
  bool repeats = false;
  std::optional<std::string> summary;
  std::optional<std::string> location;
  std::optional<When> start;
  std::optional<When> end;  ///< the first moment after it; of a to-do when it is due

  friend bool operator==(const Entry&, const Entry&) = default;
};

/// What to call an entry, also when it has no summary.
std::string titleOf(const Entry& entry);

/// The entry of the component that the reader stands before. Properties count up to the first
/// component nested in it, so an alarm's own texts are never taken for the event's.
Entry readEntry(quillmere::KBTCalObject& component);

}  // namespace agenda

#endif
