#ifndef QUILLMERE_PLATFORM_EVENTS_RECURRENCE_H
#define QUILLMERE_PLATFORM_EVENTS_RECURRENCE_H

#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/dates/NSTimeZone.h>
#include <quillmere/platform/events/EventRecord.h>

#include <cstdint>
#include <functional>
#include <string>

// Internal: the occurrences of a recurring event, which libical works out of its rule.
namespace quillmere {

/// Of one event in one walk.
inline constexpr int mostOccurrences = 100'000;

/// What is called with the start of each occurrence, until it answers false.
using OccurrenceVisitor = std::function<bool(NSDate start)>;

/// Throws an `EventError` when the text is not a rule that can be expanded: one of RFC 5545 (RSCALE
/// is another's). A rule by the hour or finer may have INTERVAL, COUNT and UNTIL only, since libical may
/// search for minutes where one names days or hours that never come.
void requireRecurrenceRule(const EventRecord& event);

/// Visits the occurrences of a recurring event that start in the range `from` to before `to`, in
/// order, exceptions included. The event's start is the first of them, whatever the rule says. No
/// more than `mostOccurrences` are visited, and nothing after the year 2582, with which libical ends.
void forEachOccurrence(const EventRecord& event, NSDate from, NSDate to,
                       const OccurrenceVisitor& visit);

/// When the last occurrence ends; `lastDate` when there is none or it is beyond reach.
NSDate endOfRecurrence(const EventRecord& event);

/// The rule, ending before the occurrence at `date`.
std::string ruleEndingBefore(const EventRecord& event, NSDate date);

/// What becomes of a series when an occurrence of it, `stored` as it was fetched, is saved as `event`
/// for the later ones too. All times of the series move as far as this occurrence has been moved, by
/// the wall clock.
class SeriesChange {
 public:
  /// `isWhole`: nothing is left of the series before the occurrence. Else the rest of it becomes a
  /// new one.
  SeriesChange(const EventRecord& old, const EventRecord& stored, const EventRecord& event,
               bool isWhole);

  /// The whole series, changed, or the new one.
  const EventRecord& series() const { return series_; }
  /// Where a date of the old series lies in it.
  NSDate moved(NSDate date) const;

 private:
  NSTimeZone oldZone_;
  std::int64_t shift_ = 0;
  bool hasNewTimes_;
  EventRecord series_;
};

}  // namespace quillmere

#endif
