#ifndef QUILLMERE_ICAL_KBTCALFREEBUSYRANGE_H
#define QUILLMERE_ICAL_KBTCALFREEBUSYRANGE_H

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/dates/NSDate.h>

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace quillmere {

/// A time range out of a FREEBUSY value (RFC 5545 section 3.8.2.6) that a host already has.
/// Immutable.
///
/// Unlike `KBTFreeBusy`, this skips a piece that does not have exactly one "/". A date that does
/// not parse is null in its range; nothing is trimmed, so a blank after a comma is enough.
class QUILLMERE_EXPORT KBTCalFreeBusyRange {
 public:
  /// The ranges of one value, which is the text after the colon. The result may be empty.
  static std::vector<std::shared_ptr<KBTCalFreeBusyRange>> freeBusyRangesFromValueString(
      std::string_view value);

  /// The ranges of every FREEBUSY line from the reader's position on, in order. Leaves the reader
  /// at its end.
  static std::vector<std::shared_ptr<KBTCalFreeBusyRange>> freeBusyRangesFromCalObject(
      KBTCalObject& reader);

  /// Each is null where the value has a date that does not parse, and the end also when it is
  /// counted from a null start, by a text that is no duration, or to outside of the calendar's
  /// years. A host looks at both before it uses either, and does not take a range without them for
  /// free time.
  std::optional<NSDate> start() const { return start_; }
  std::optional<NSDate> end() const { return end_; }

 protected:
  KBTCalFreeBusyRange(std::optional<NSDate> start, std::optional<NSDate> end)
      : start_(start), end_(end) {}

 private:
  static std::shared_ptr<KBTCalFreeBusyRange> _initWithStart_andEnd(std::optional<NSDate> start,
                                                                    std::optional<NSDate> end);
  static void _addFreeBusyRangesFromValueString_toArray(
      std::string_view value, std::vector<std::shared_ptr<KBTCalFreeBusyRange>>& ranges);

  std::optional<NSDate> start_;
  std::optional<NSDate> end_;
};

}  // namespace quillmere

#endif
