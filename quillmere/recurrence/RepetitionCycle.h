#ifndef QUILLMERE_RECURRENCE_REPETITIONCYCLE_H
#define QUILLMERE_RECURRENCE_REPETITIONCYCLE_H

#include <quillmere/recurrence/KBTRepetitionInstance.h>

#include <cstdint>

// Internal: what keeps long walks through a series short.
namespace quillmere {

/// Notices that a walk has come back to where it was: to the same fields of an instance, whole
/// cycles of the calendar later. Each step follows from these fields alone, and clocks are set
/// alike in every cycle after those of the past, so from there on the walk goes the same way again.
class RepetitionCycle {
 public:
  /// To be asked once at every step. Whether the walk has come back; the place that it is compared
  /// with moves on, at growing distances, since a walk may only turn into a cycle after some steps.
  bool closesAt(const KBTRepetitionInstance& instance);

  /// Moves on by whole cycles of the walk, as many as `most` occurrences have and the calendar has
  /// room for; whether there is one. Requires: the walk has just come back.
  bool skip(std::int64_t most, KBTRepetitionInstance& instance) const;

  /// How many steps this thread has asked about so far: the work done, for tests.
  static std::uint64_t stepsOfThread();

 private:
  KBTRepetitionInstance mark_;
  std::int64_t yearsToNextMark_ = 0;
};

}  // namespace quillmere

#endif
