#include <quillmere/platform/dates/CivilDate.h>
#include <quillmere/platform/dates/CivilTime.h>
#include <quillmere/platform/dates/WallClock.h>

#include <algorithm>
#include <bit>
#include <limits>

namespace quillmere {
namespace {

// Far beyond the calendar on either side.
constexpr std::int64_t farAway = std::numeric_limits<std::int64_t>::max() / 4;

cctz::time_point<cctz::seconds> pointAt(std::int64_t instant) {
  return cctz::time_point<cctz::seconds>(cctz::seconds(instant));
}

std::int64_t secondsOf(const cctz::civil_second& civil) { return civil - cctz::civil_second(1970); }

// How far to go back from an instant to come to where the zone's table has the settings of the
// clock around it. A table of yearly rules ends after 400 years, and then begins again.
std::int64_t cyclesAfterTable(const cctz::time_zone& zone, std::int64_t instant) {
  constexpr std::int64_t secondsPerCycle = daysPerCycle * secondsPerDay;
  cctz::time_zone::civil_transition last;
  if (!zone.prev_transition(pointAt(instant + 1), &last)) return 0;
  if (last.to.year() < WallClock::firstYearOfRulesOnly) return 0;
  const std::int64_t end = zone.lookup(last.from - 1).pre.time_since_epoch().count();
  return ((instant - end) / secondsPerCycle + 1) * secondsPerCycle;
}

}  // namespace

WallClock& WallClock::current() {
  thread_local constinit WallClock clock;
  // A zone of cctz is a pointer to what it keeps for the life of the process.
  const auto zone = std::bit_cast<std::uintptr_t>(cctzDefaultZone());
  if (clock.zone_ != zone) {
    clock = WallClock();
    clock.zone_ = zone;
  }
  return clock;
}

// Finds the end of the span whose begin and offset are known.
void WallClock::findEnd() {
  const cctz::time_zone& zone = cctzDefaultZone();
  cctz::time_zone::civil_transition next;
  bool isFound = zone.next_transition(pointAt(begin_ - back_), &next);
  if (!isFound) {
    back_ = cyclesAfterTable(zone, begin_);
    isFound = zone.next_transition(pointAt(begin_ - back_), &next);
  }
  const std::int64_t from = isFound ? secondsOf(next.from) + back_ : farAway;
  const std::int64_t to = isFound ? secondsOf(next.to) + back_ : farAway;
  end_ = from - offset_;
  wallEnd_ = std::max(from, to);
  nextOffset_ = offset_ + to - from;
}

// Walks mostly go to the next span, or the one after. Whether `time` then lies before `end`, which
// is one of the span's two.
bool WallClock::goOnUntil(const std::int64_t& end, std::int64_t time) {
  if (begin_ == end_ || time < end) return false;
  for (int spans = 0; spans < 2 && time >= end; ++spans) {
    begin_ = end_;
    wallBegin_ = wallEnd_;
    offset_ = nextOffset_;
    findEnd();
  }
  return time < end;
}

void WallClock::findSpanAt(std::int64_t instant) {
  if (goOnUntil(end_, instant)) return;
  const cctz::time_zone& zone = cctzDefaultZone();
  back_ = 0;
  cctz::time_zone::civil_transition any;
  if (!zone.next_transition(pointAt(instant), &any)) back_ = cyclesAfterTable(zone, instant);
  offset_ = zone.lookup(pointAt(instant)).offset;
  begin_ = wallBegin_ = -farAway;
  cctz::time_zone::civil_transition last;
  if (zone.prev_transition(pointAt(instant - back_ + 1), &last)) {
    begin_ = secondsOf(last.to) - offset_ + back_;
    wallBegin_ = std::max(secondsOf(last.from), secondsOf(last.to)) + back_;
  }
  findEnd();
}

std::int64_t WallClock::findInstantOf(std::int64_t wallTime) {
  if (goOnUntil(wallEnd_, wallTime)) return wallTime - offset_;
  const cctz::civil_second civil = cctz::civil_second(1970) + wallTime;
  const std::int64_t instant = cctzDefaultZone().lookup(civil).pre.time_since_epoch().count();
  findSpanAt(instant);
  // A skipped wall time belongs to the span before the one that its instant lies in.
  if (wallTime < wallBegin_) findSpanAt(begin_ - 1);
  return instant;
}

}  // namespace quillmere
