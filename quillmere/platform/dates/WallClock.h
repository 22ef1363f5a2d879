#ifndef QUILLMERE_PLATFORM_DATES_WALLCLOCK_H
#define QUILLMERE_PLATFORM_DATES_WALLCLOCK_H

#include <cstdint>

// Internal: wall time of the default zone, for walks through it.
namespace quillmere {

/// The clock of the default zone. It counts wall time in seconds since it showed 1 January 1970,
/// 00:00, and turns instants (seconds since 1970) into wall times and back by one addition as long
/// as they lie between the same two settings of the clock, which it remembers; so a walk asks the
/// zone a few times a year.
class WallClock {
 public:
  /// From this year on clocks are set by yearly rules alone, if at all, and so in the same way
  /// every 400 years.
  static constexpr int firstYearOfRulesOnly = 2300;

  /// The default zone's, for this thread; good until the default zone changes.
  static WallClock& current();

  /// The instant of a wall time. One that a setting of the clock skips moves forward by the gap, of
  /// a repeated one the first is taken (as in `dateOfCivil`).
  std::int64_t instantOf(std::int64_t wallTime) {
    if (wallTime < wallBegin_ || wallTime >= wallEnd_) return findInstantOf(wallTime);
    return wallTime - offset_;
  }

  std::int64_t wallTimeAt(std::int64_t instant) {
    if (instant < begin_ || instant >= end_) findSpanAt(instant);
    return instant + offset_;
  }

  /// The instant at which the setting ends that the clock has at `instant`: that of the next one,
  /// or far beyond the calendar.
  std::int64_t endOfSettingAt(std::int64_t instant) {
    if (instant < begin_ || instant >= end_) findSpanAt(instant);
    return end_;
  }

 private:
  constexpr WallClock() = default;
  std::int64_t findInstantOf(std::int64_t wallTime);
  void findSpanAt(std::int64_t instant);
  void findEnd();
  bool goOnUntil(const std::int64_t& end, std::int64_t time);

  std::uintptr_t zone_ = 0;  // which one the span is of
  // The present span, empty at first: its instants, and the wall times whose instants its offset
  // gives. Those end with what the next setting skips, and begin after what the last one repeats.
  std::int64_t begin_ = 0;
  std::int64_t end_ = 0;
  std::int64_t wallBegin_ = 0;
  std::int64_t wallEnd_ = 0;
  std::int64_t offset_ = 0;      // seconds east of UTC
  std::int64_t nextOffset_ = 0;  // after the end
  std::int64_t back_ = 0;        // whole cycles of the calendar from there to the zone's table
};

}  // namespace quillmere

#endif
