#ifndef QUILLMERE_RECURRENCE_KBTCALREPETITIONDAYOFWEEK_H
#define QUILLMERE_RECURRENCE_KBTCALREPETITIONDAYOFWEEK_H

#include <quillmere/platform/base/Export.h>

#include <cstddef>
#include <cstdint>
#include <functional>  // IWYU pragma: keep
#include <string>

namespace quillmere {

/// One element of a BYDAY list (RFC 5545 section 3.3.10): a weekday, and perhaps which one of them
/// in the month or year. "-1FR", the last Friday, is
/// `KBTCalRepetitionDayOfWeek::dayOfWeek_weekNumber(KBTCalRepetitionDayOfWeek::FRIDAY, -1)`. A
/// value, also for use as a key of hashed containers.
class QUILLMERE_EXPORT KBTCalRepetitionDayOfWeek {
 public:
  /// Weekday numbers, wherever a recurrence rule has one.
  enum Weekday : std::int64_t {
    SUNDAY = 0,
    MONDAY,
    TUESDAY,
    WEDNESDAY,
    THURSDAY,
    FRIDAY,
    SATURDAY
  };

  /// Every such weekday: the week number is 0.
  static KBTCalRepetitionDayOfWeek dayOfWeek(std::int64_t dayOfTheWeek) {
    return initWithDayOfTheWeek_weekNumber(dayOfTheWeek, 0);
  }
  static KBTCalRepetitionDayOfWeek dayOfWeek_weekNumber(std::int64_t dayOfTheWeek,
                                                        std::int64_t weekNumber) {
    return initWithDayOfTheWeek_weekNumber(dayOfTheWeek, weekNumber);
  }
  /// Stores both as they are. A rule ignores a weekday that does not exist.
  static KBTCalRepetitionDayOfWeek initWithDayOfTheWeek_weekNumber(std::int64_t dayOfTheWeek,
                                                                   std::int64_t weekNumber) {
    return {dayOfTheWeek, weekNumber};
  }

  /// 0 Sunday to 6 Saturday.
  std::int64_t dayOfTheWeek() const { return dayOfTheWeek_; }
  /// 0 is every such weekday, n > 0 the n-th of the month or year, n < 0 the n-th from its end.
  std::int64_t weekNumber() const { return weekNumber_; }

  bool isEqual(const KBTCalRepetitionDayOfWeek& other) const { return *this == other; }
  friend bool operator==(const KBTCalRepetitionDayOfWeek&,
                         const KBTCalRepetitionDayOfWeek&) = default;
  std::size_t hash() const { return static_cast<std::size_t>(dayOfTheWeek_ ^ weekNumber_); }

  /// "KBTCalRepetitionDayOfWeek 5 with offset -1".
  std::string description() const;

 private:
  KBTCalRepetitionDayOfWeek(std::int64_t dayOfTheWeek, std::int64_t weekNumber)
      : dayOfTheWeek_(dayOfTheWeek), weekNumber_(weekNumber) {}

  std::int64_t dayOfTheWeek_;
  std::int64_t weekNumber_;
};

}  // namespace quillmere

/// @cond
template <>
struct std::hash<quillmere::KBTCalRepetitionDayOfWeek> {
  std::size_t operator()(const quillmere::KBTCalRepetitionDayOfWeek& day) const noexcept {
    return day.hash();
  }
};
/// @endcond

#endif
