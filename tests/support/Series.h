#ifndef QUILLMERE_TESTS_SUPPORT_SERIES_H
#define QUILLMERE_TESTS_SUPPORT_SERIES_H

#include <quillmere/platform/dates/NSCalendar.h>
#include <quillmere/recurrence/KBTCalRepetition.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace quillmere::testing {

using Rule = std::shared_ptr<KBTCalRepetition>;

/// The date on which clocks in the default zone show "20240131T100000".
inline NSDate localDate(std::string_view digits) {
  const NSCalendar utc(NSTimeZone::timeZoneWithName("UTC").value());
  return NSCalendar::currentCalendar()
      .dateFromComponents(utc.componentsFromDate(NSDate::initWithICSDateString(digits).value()))
      .value();
}

/// The rule of a text that must be a good one.
inline Rule ruleOf(std::string_view text) {
  NSErrorPtr error;
  auto rule = KBTCalRepetition::initWithRRule_error(text, &error);
  if (!rule) std::fprintf(stderr, "%s\n", error ? error->localizedDescription().c_str() : "null");
  return rule;
}

inline Rule ruleFrom(std::string_view text, std::string_view localStart) {
  auto rule = ruleOf(text);
  rule->setStartDate(localDate(localStart));
  return rule;
}

/// "20240131T1000", or "end".
inline std::string textOf(const KBTRepetitionInstance& instance) {
  if (instance.day == 0) return "end";
  char text[64];
  std::snprintf(text, sizeof text, "%04lld%02d%02dT%02d%02d", static_cast<long long>(instance.year),
                instance.month, instance.day, instance.hour, instance.minute);
  return text;
}

/// Up to `count` occurrences, and "end" where there are fewer.
inline std::string seriesOf(const KBTCalRepetition& rule, int count) {
  KBTRepetitionInstance instance = rule.firstRepetitionInstance();
  std::string text = textOf(instance);
  for (int i = 1; i < count && instance.day != 0; ++i) {
    instance = rule.nextRepetitionInstance(instance);
    text += " " + textOf(instance);
  }
  return text;
}

}  // namespace quillmere::testing

#endif
