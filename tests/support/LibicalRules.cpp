#include "tests/support/LibicalRules.h"

#include <libical/ical.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "tests/support/ScopedTimeZone.h"
#include "tests/support/Series.h"

namespace quillmere::testing {
namespace {

constexpr std::size_t occurrencesCompared = 50;

// Writes a random rule of the common subset, and a local start that fits it closely enough.
class RandomRule {
 public:
  explicit RandomRule(std::uint64_t seed) : random_(seed) {
    static constexpr const char* frequencies[] = {"MINUTELY", "HOURLY",  "DAILY",
                                                  "WEEKLY",   "MONTHLY", "YEARLY"};
    const int frequency = number(0, 5);
    text_ = std::string("FREQ=") + frequencies[frequency];
    if (flip()) text_ += ";INTERVAL=" + std::to_string(number(1, frequency < 5 ? 40 : 4));
    int lastDay = 31;
    if (frequency == 3 && flip()) {
      text_ += ";BYDAY=" + weekdays();
      if (flip()) text_ += std::string(";WKST=") + weekday();
    } else if (frequency == 4) {
      lastDay = addDaysOfMonth();
    } else if (frequency == 5) {
      // Without months a yearly rule here looks at nothing else.
      if (flip()) {
        text_ += ";BYMONTH=" + numbers(1, 12, false);
        lastDay = addDaysOfMonth();
      } else {
        lastDay = 28;
      }
    }
    if (number(0, 3) == 0) text_ += ";COUNT=" + std::to_string(number(1, 60));
    static constexpr int monthLengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    start_ = icaltime_null_time();
    start_.year = number(1975, 2060);
    start_.month = number(1, 12);
    start_.day = number(1, std::min(lastDay, monthLengths[start_.month - 1]));
    start_.hour = number(0, 23);
    start_.minute = number(0, 59);
  }

  const std::string& text() const { return text_; }
  icaltimetype start() const { return start_; }

 private:
  int number(int least, int most) {
    return std::uniform_int_distribution<int>(least, most)(random_);
  }
  bool flip() { return number(0, 1) == 1; }

  const char* weekday() {
    static constexpr const char* names[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};
    return names[number(0, 6)];
  }

  // libical gives a day twice that a list names twice, so none is.
  std::string list(int longest, const std::function<std::string()>& element) {
    std::set<std::string> elements;
    for (int more = number(1, longest); more > 0; --more) elements.insert(element());
    std::string text;
    for (const std::string& each : elements) text += (text.empty() ? "" : ",") + each;
    return text;
  }
  std::string weekdays() {
    return list(4, [this] { return std::string(weekday()); });
  }
  std::string numbers(int least, int most, bool mayBeNegative) {
    return list(4, [=, this] {
      return (mayBeNegative && flip() ? "-" : "") + std::to_string(number(least, most));
    });
  }

  // The last day of a month on which such a rule may start: one that names no days keeps the
  // start's, which a short month would cut here and the RFC leaves out.
  int addDaysOfMonth() {
    const bool isMonthly = text_.starts_with("FREQ=MONTHLY");
    switch (number(0, isMonthly ? 3 : 2)) {
      case 0:
        return 28;
      case 1:
        text_ += ";BYMONTHDAY=" + numbers(1, 31, true);
        break;
      case 2:
        text_ += ";BYDAY=" + (flip() ? std::to_string(number(1, 5)) : "-1") + weekday();
        break;
      default:
        text_ += ";BYDAY=" + weekdays() + ";BYSETPOS=" + numbers(1, 5, true);
    }
    return 31;
  }

  std::mt19937_64 random_;
  std::string text_;
  icaltimetype start_;
};

std::string textOf(const icaltimetype& time) {
  char text[64];
  std::snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d", time.year, time.month, time.day,
                time.hour, time.minute);
  return text;
}

// The RFC leaves open what a start does that does not fit the rule, so the first that fits is the
// start. libical gives up some centuries on; what it gave until then is compared.
std::vector<icaltimetype> occurrencesOfLibical(const RandomRule& rule) {
  std::vector<icaltimetype> occurrences;
  // Two passes: COUNT counts from the first that fits.
  icaltimetype start = rule.start();
  const auto recurrence = icalrecurrencetype_from_string(rule.text().c_str());
  for (const std::size_t wanted : {std::size_t{1}, occurrencesCompared}) {
    occurrences.clear();
    const std::unique_ptr<icalrecur_iterator, decltype(&icalrecur_iterator_free)> iterator(
        icalrecur_iterator_new(recurrence, start), &icalrecur_iterator_free);
    while (iterator && occurrences.size() < wanted) {
      const icaltimetype next = icalrecur_iterator_next(iterator.get());
      constexpr int lastYear = 2400;
      if (icaltime_is_null_time(next) || next.year > lastYear) break;
      occurrences.push_back(next);
    }
    if (occurrences.empty()) break;
    start = occurrences.front();
  }
  return occurrences;
}

}  // namespace

std::string differenceFromLibical(std::uint64_t seed) {
  // Wall times without gaps, which libical knows nothing of in a floating series.
  const ScopedTimeZone zone("UTC");
  const RandomRule random(seed);
  const auto expected = occurrencesOfLibical(random);
  if (expected.empty()) return {};
  const Rule rule = ruleFrom(random.text(), textOf(expected.front()) + "00");
  KBTRepetitionInstance instance = rule->firstRepetitionInstance();
  for (const icaltimetype& occurrence : expected) {
    if (textOf(instance) != textOf(occurrence)) {
      return random.text() + " from " + textOf(expected.front()) + ": occurrence " +
             std::to_string(instance.occurrence) + " is " + textOf(instance) + ", libical's is " +
             textOf(occurrence);
    }
    instance = rule->nextRepetitionInstance(instance);
  }
  const bool isEnded = std::cmp_equal(rule->recurrenceCount(), expected.size());
  if (isEnded && instance.day != 0) return random.text() + ": goes on";
  return {};
}

}  // namespace quillmere::testing
