// Any bytes as a free/busy answer, and as a free/busy value; and as a date and a duration.

#include <quillmere/ical/KBTCalFreeBusyRange.h>
#include <quillmere/ical/KBTFreeBusy.h>

#include <algorithm>

#include "fuzz/Fuzzing.h"

namespace quillmere {
namespace {

using fuzzing::require;

void check(std::string_view text) {
  NSErrorPtr error;
  const auto periods = KBTFreeBusy::freeBusyInfoFromICSData(NSData::dataWithBytes(text), &error);
  require(periods.has_value() == !error, "either periods or an error");
  if (periods) {
    for (const auto& period : *periods) require(!period->description().empty(), "a description");
  }

  const auto ranges = KBTCalFreeBusyRange::freeBusyRangesFromValueString(text);
  require(ranges.size() <= static_cast<std::size_t>(std::count(text.begin(), text.end(), '/')),
          "a range has a slash");
  const auto reader = KBTCalObject::initWithData(NSData::dataWithBytes(text));
  KBTCalFreeBusyRange::freeBusyRangesFromCalObject(*reader);
  require(reader->isAtEnd(), "the reader is left at its end");

  if (const auto date = KBTCalObject::zuluStringAsDate(text)) {
    require(KBTCalObject::zuluStringAsDate(KBTCalObject::datetimeAsZuluString(*date)) == date,
            "a date reads back");
  }
  if (const auto date = NSDate::initWithXMLDateString(text)) {
    require(NSDate::initWithXMLDateString(date->xmlDateString()) == date, "an XML date reads back");
  }
  KBTCalObject::icalDurationAsDateComponents(text);
}

}  // namespace
}  // namespace quillmere

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  quillmere::check(quillmere::fuzzing::viewOf(bytes, count));
  return 0;
}
