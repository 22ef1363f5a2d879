// Any bytes as a free/busy answer, and as a free/busy value; and as a date and a duration.

#include <quillmere/ical/KBTCalFreeBusyRange.h>
#include <quillmere/ical/KBTFreeBusy.h>
#include <quillmere/platform/base/UTF8.h>

#include <algorithm>

#include "fuzz/Fuzzing.h"

namespace quillmere {
namespace {

using fuzzing::require;

// The two rules differ only on pieces without exactly one slash. Bytes that a line would not give
// back as they are prove nothing.
void checkRulesAgree(std::string_view value) {
  if (value.find_first_of("\\\r\n") != std::string_view::npos || !isValidUTF8(value)) return;
  const auto ranges = KBTCalFreeBusyRange::freeBusyRangesFromValueString(value);
  const auto pieces = static_cast<std::size_t>(std::count(value.begin(), value.end(), ',')) + 1;
  if (ranges.size() != pieces) return;
  const auto periods = KBTFreeBusy::freeBusyInfoFromICSData(
      NSData::dataWithString("FREEBUSY:" + std::string(value)));
  require(periods && periods->size() == pieces, "the rules agree on the number of periods");
  for (std::size_t i = 0; i < pieces; ++i) {
    require(
        ranges[i]->start() == (*periods)[i]->start() && ranges[i]->end() == (*periods)[i]->end(),
        "the rules agree on a period");
  }
}

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
  checkRulesAgree(text);
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
