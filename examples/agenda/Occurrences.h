#ifndef AGENDA_OCCURRENCES_H
#define AGENDA_OCCURRENCES_H

#include <quillmere/platform/dates/NSDate.h>

#include <string>
#include <vector>

#include "Entry.h"

namespace agenda {

/// Days from the start of the first up to the start of the one after the last.
struct DayRange {
  quillmere::NSDate first;
  quillmere::NSDate end;
};

/// Once that an event takes place.
struct Span {
  quillmere::NSDate start;
  quillmere::NSDate end;  ///< not before the start

  bool overlaps(const DayRange& range) const {
    return start < range.end && (end > range.first || start >= range.first);
  }
};

struct Occurrences {
  std::vector<Span> spans;
  /// Why there may be more than those: what a rule is and what kept it from being followed.
  std::vector<std::string> problems;
};

/// The start of the day after the one that `day` is the start of, in the default zone.
quillmere::NSDate nextDay(quillmere::NSDate day);

/// When an event that has a start takes place in the range, leaving out the dates in `replaced`,
/// which changed instances of it stand for. A rule that cannot be followed leaves it its first date
/// and those that are listed.
Occurrences occurrencesIn(const DayRange& range, const Entry& event,
                          const std::vector<When>& replaced);

}  // namespace agenda

#endif
