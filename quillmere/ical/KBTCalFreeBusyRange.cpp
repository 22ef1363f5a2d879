#include <quillmere/ical/FreeBusyPeriod.h>
#include <quillmere/ical/KBTCalFreeBusyRange.h>
#include <quillmere/platform/base/makeObject.h>

#include <utility>

namespace quillmere {

using Ranges = std::vector<std::shared_ptr<KBTCalFreeBusyRange>>;

std::shared_ptr<KBTCalFreeBusyRange> KBTCalFreeBusyRange::_initWithStart_andEnd(
    std::optional<NSDate> start, std::optional<NSDate> end) {
  return makeObject<KBTCalFreeBusyRange>(std::move(start), std::move(end));
}

void KBTCalFreeBusyRange::_addFreeBusyRangesFromValueString_toArray(std::string_view value,
                                                                    Ranges& ranges) {
  forEachPiece(value, [&ranges](std::string_view piece) {
    if (const auto period = periodOfValue(piece)) {
      ranges.push_back(_initWithStart_andEnd(period->start, period->end));
    }
    return true;
  });
}

Ranges KBTCalFreeBusyRange::freeBusyRangesFromValueString(std::string_view value) {
  Ranges ranges;
  _addFreeBusyRangesFromValueString_toArray(value, ranges);
  return ranges;
}

Ranges KBTCalFreeBusyRange::freeBusyRangesFromCalObject(KBTCalObject& reader) {
  Ranges ranges;
  while (reader.nextLine()) {
    if (reader.key() != "FREEBUSY") continue;
    if (const auto value = reader.value()) {
      _addFreeBusyRangesFromValueString_toArray(*value, ranges);
    }
  }
  return ranges;
}

}  // namespace quillmere
