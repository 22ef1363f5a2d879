// Any bytes as a recurrence rule; after a line break, as the date-time it starts at.

#include <quillmere/platform/dates/NSTimeZone.h>
#include <quillmere/recurrence/KBTCalRepetition.h>

#include "fuzz/Fuzzing.h"

namespace quillmere {
namespace {

using fuzzing::require;

// What the parser takes is written and read again; west of Greenwich UNTIL keeps its day.
void checkText(const KBTCalRepetition& rule) {
  const std::string written = rule.rrule();
  const auto again = KBTCalRepetition::initWithRRule_error(written, nullptr);
  require(again != nullptr, "a written rule reads back");
  require(again->rrule() == written, "and is written the same way");
  require(again->frequency() == rule.frequency() &&
              again->intervalCount() == rule.intervalCount() &&
              again->daysOfTheWeek() == rule.daysOfTheWeek() &&
              again->daysOfTheMonth() == rule.daysOfTheMonth() &&
              again->monthsOfTheYear() == rule.monthsOfTheYear() &&
              again->setPositions() == rule.setPositions() &&
              again->effectiveFirstWeekday() == rule.effectiveFirstWeekday() &&
              again->repetitionEndDate() == rule.repetitionEndDate() &&
              (rule.repetitionEndDate() || again->recurrenceCount() == rule.recurrenceCount()),
          "and means the same");
}

void checkOccurrences(const KBTCalRepetition& rule) {
  constexpr int steps = 1000;
  KBTRepetitionInstance instance = rule.firstRepetitionInstance();
  std::optional<NSDate> before;
  for (int i = 0; i < steps && instance.day != 0; ++i) {
    require(instance.day <= instance.daysInMonth, "a day is one of its month");
    const auto date = KBTCalRepetition::dateForInstance(instance);
    require(date.has_value(), "an occurrence has a date");
    require(!before || *before < *date, "occurrences ascend");
    before = date;
    instance = rule.nextRepetitionInstance(instance);
  }
  if (before && rule.frequency() >= KBTCalRepetition::DAILY) {
    const auto found = rule.repetitionInstanceAtOrAfterDate(*before);
    require(found.day != 0, "the last occurrence seen is found");
    require(*KBTCalRepetition::dateForInstance(found) <= *before, "and no later one");
  }
}

void check(std::string_view text) {
  const std::size_t lineBreak = text.find('\n');
  const std::string_view rrule = text.substr(0, lineBreak);
  NSErrorPtr error;
  const auto rule = KBTCalRepetition::initWithRRule_error(rrule, &error);
  require(!rule || !error, "either a rule or an error");
  if (!rule) return;
  checkText(*rule);
  const auto start = lineBreak == std::string_view::npos
                         ? std::nullopt
                         : NSDate::initWithICSDateString(text.substr(lineBreak + 1));
  rule->setStartDate(start.value_or(NSDate::initWithICSDateString("20240131T150000Z").value()));
  checkOccurrences(*rule);
}

}  // namespace
}  // namespace quillmere

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  using quillmere::NSTimeZone;
  NSTimeZone::setDefaultTimeZone(NSTimeZone::timeZoneWithName("America/New_York").value());
  quillmere::check(quillmere::fuzzing::viewOf(bytes, count));
  return 0;
}
