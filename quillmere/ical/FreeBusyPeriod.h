#ifndef QUILLMERE_ICAL_FREEBUSYPERIOD_H
#define QUILLMERE_ICAL_FREEBUSYPERIOD_H

#include <quillmere/platform/dates/NSDate.h>

#include <cstddef>
#include <optional>
#include <string_view>

// Internal: how one piece of a FREEBUSY value (RFC 5545 sections 3.3.9 and 3.8.2.6) is read. There
// are two rules, and they are meant to differ; keep them side by side.
//
//   piece              of a server's answer               of a value that a host has
//                      (KBTFreeBusy)                      (KBTCalFreeBusyRange)
//   no "/"             malformed: the answer is an error  skipped
//   two "/" or more    the first one divides              skipped
//   end or duration?   a duration if it parses as one     a duration if it begins with "P" or "p"
namespace quillmere {

/// A date that does not parse is null, and so is an end counted from a null start or to a date
/// outside the calendar's years. Nothing is trimmed.
struct FreeBusyPeriod {
  std::optional<NSDate> start;
  std::optional<NSDate> end;
};

/// Null for a piece that is malformed.
std::optional<FreeBusyPeriod> periodOfAnswer(std::string_view piece);

/// Null for a piece that is to be skipped.
std::optional<FreeBusyPeriod> periodOfValue(std::string_view piece);

/// Calls `visit` for every piece between the commas of `value`, in order, until it returns false;
/// an empty value is one empty piece.
template <class Visit>
void forEachPiece(std::string_view value, Visit visit) {
  for (;;) {
    const std::size_t comma = value.find(',');
    if (!visit(value.substr(0, comma)) || comma == std::string_view::npos) return;
    value.remove_prefix(comma + 1);
  }
}

}  // namespace quillmere

#endif
