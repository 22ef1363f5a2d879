#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/recurrence/KBTCalRepetition.h>

#include <string>

namespace quillmere {
namespace {

constexpr const char* frequencyKeywords[] = {"SECONDLY", "MINUTELY", "HOURLY", "DAILY",
                                             "WEEKLY",   "MONTHLY",  "YEARLY"};

}  // namespace

// Text is put together by itself: streams write numbers as the host's locale has them.

std::string KBTCalRepetition::rrule() const {
  std::string text = std::string("FREQ=") + frequencyKeywords[frequency_];
  if (intervalCount_ != 1) text += ";INTERVAL=" + std::to_string(intervalCount_);
  if (endDate_) {
    text += ";UNTIL=" + KBTCalObject::datetimeAsZuluString(*endDate_);
  } else if (endCount_ != 0) {
    text += ";COUNT=" + std::to_string(endCount_);
  }
  if (const auto months = monthsOfTheYear(); !months.empty()) {
    text += ";BYMONTH=" + _joinedNumberString(months);
  }
  if (const auto days = daysOfTheMonth(); !days.empty()) {
    text += ";BYMONTHDAY=" + _joinedNumberString(days);
  }
  const char* separator = ";BYDAY=";
  for (const KBTCalRepetitionDayOfWeek& day : daysOfTheWeek()) {
    text += separator;
    if (day.weekNumber() != 0) text += std::to_string(day.weekNumber());
    text += _dayAbbreviations()[static_cast<std::size_t>(day.dayOfTheWeek())];
    separator = ",";
  }
  if (const auto positions = setPositions(); !positions.empty()) {
    text += ";BYSETPOS=" + _joinedNumberString(positions);
  }
  if (effectiveFirstWeekday() != KBTCalRepetitionDayOfWeek::MONDAY) {
    text += ";WKST=";
    text += _dayAbbreviations()[static_cast<std::size_t>(_firstWeekday)];
  }
  return text;
}

std::string KBTCalRepetition::_joinedNumberString(const Numbers& numbers) {
  std::string text;
  for (const std::int64_t number : numbers) {
    if (!text.empty()) text += ',';
    text += std::to_string(number);
  }
  return text;
}

HWDebugDictionary KBTCalRepetition::debugDictionary() const {
  HWDebugDictionary dictionary = HWObject::debugDictionary();
  if (startDate_) dictionary.emplace("startDate", *startDate_);
  if (const auto end = endDate()) dictionary.emplace("endDate", *end);
  dictionary.emplace("RRULE", rrule());
  return dictionary;
}

std::string KBTCalRepetition::testString() const {
  constexpr int longest = 10;
  std::string text;
  KBTRepetitionInstance instance = firstRepetitionInstance();
  for (int i = 0; i < longest; ++i) {
    instance = nextRepetitionInstance(instance);
    if (instance.day == 0) break;
    text += std::to_string(instance.month) + '/' + std::to_string(instance.day) + '/' +
            std::to_string(instance.year) + ' ';
  }
  return text;
}

}  // namespace quillmere
