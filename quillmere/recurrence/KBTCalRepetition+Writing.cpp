#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/recurrence/KBTCalRepetition.h>

#include <sstream>

namespace quillmere {
namespace {

constexpr const char* frequencyKeywords[] = {"SECONDLY", "MINUTELY", "HOURLY", "DAILY",
                                             "WEEKLY",   "MONTHLY",  "YEARLY"};

}  // namespace

std::string KBTCalRepetition::rrule() const {
  std::ostringstream text;
  text << "FREQ=" << frequencyKeywords[frequency_];
  if (intervalCount_ != 1) text << ";INTERVAL=" << intervalCount_;
  if (endDate_) {
    text << ";UNTIL=" << KBTCalObject::datetimeAsZuluString(*endDate_);
  } else if (endCount_ != 0) {
    text << ";COUNT=" << endCount_;
  }
  if (const auto months = monthsOfTheYear(); !months.empty()) {
    text << ";BYMONTH=" << _joinedNumberString(months);
  }
  if (const auto days = daysOfTheMonth(); !days.empty()) {
    text << ";BYMONTHDAY=" << _joinedNumberString(days);
  }
  const char* separator = ";BYDAY=";
  for (const KBTCalRepetitionDayOfWeek& day : daysOfTheWeek()) {
    text << separator;
    if (day.weekNumber() != 0) text << day.weekNumber();
    text << _dayAbbreviations()[static_cast<std::size_t>(day.dayOfTheWeek())];
    separator = ",";
  }
  if (const auto positions = setPositions(); !positions.empty()) {
    text << ";BYSETPOS=" << _joinedNumberString(positions);
  }
  if (effectiveFirstWeekday() != KBTCalRepetitionDayOfWeek::MONDAY) {
    text << ";WKST=" << _dayAbbreviations()[static_cast<std::size_t>(_firstWeekday)];
  }
  return text.str();
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
  std::ostringstream text;
  KBTRepetitionInstance instance = firstRepetitionInstance();
  for (int i = 0; i < longest; ++i) {
    instance = nextRepetitionInstance(instance);
    if (instance.day == 0) break;
    text << int{instance.month} << '/' << int{instance.day} << '/' << instance.year << ' ';
  }
  return text.str();
}

}  // namespace quillmere
