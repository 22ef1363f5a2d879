#include <quillmere/platform/dates/CivilDate.h>
#include <quillmere/platform/dates/WallClock.h>
#include <quillmere/recurrence/RepetitionCycle.h>

#include <algorithm>

namespace quillmere {

static thread_local constinit std::uint64_t steps = 0;

std::uint64_t RepetitionCycle::stepsOfThread() { return steps; }

bool RepetitionCycle::closesAt(const KBTRepetitionInstance& instance) {
  ++steps;
  if (instance.year < WallClock::firstYearOfRulesOnly) return false;
  const std::int64_t years = instance.year - mark_.year;
  KBTRepetitionInstance sameYear = instance;
  sameYear.year = mark_.year;
  sameYear.occurrence = mark_.occurrence;
  if (years % yearsPerCycle == 0 && sameYear == mark_) return true;
  if (years > yearsToNextMark_) {
    mark_ = instance;
    yearsToNextMark_ = std::max(2 * yearsToNextMark_, yearsPerCycle);
  }
  return false;
}

bool RepetitionCycle::skip(std::int64_t most, KBTRepetitionInstance& instance) const {
  const std::int64_t occurrences = instance.occurrence - mark_.occurrence;
  const std::int64_t years = instance.year - mark_.year;
  const std::int64_t cycles =
      std::min(most / occurrences, (NSCalendar::maximumYear - instance.year) / years);
  instance.occurrence += cycles * occurrences;
  instance.year += cycles * years;
  return cycles != 0;
}

}  // namespace quillmere
