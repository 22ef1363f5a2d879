#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/base/KSDiagnostics.h>
#include <quillmere/platform/base/KSStringTable.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/recurrence/KBTCalRepetition.h>
#include <quillmere/recurrence/RuleErrors.h>

#include <algorithm>
#include <charconv>
#include <limits>

namespace quillmere {
namespace {

using std::string_view;

constexpr string_view knownKeys[] = {"FREQ",       "INTERVAL", "UNTIL", "COUNT",   "BYMONTH",
                                     "BYMONTHDAY", "BYDAY",    "WKST",  "BYSETPOS"};

constexpr std::array<string_view, 7> dayAbbreviations = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};

std::optional<std::int64_t> weekdayNumber(string_view abbreviation) {
  const auto found = std::find(dayAbbreviations.begin(), dayAbbreviations.end(), abbreviation);
  if (found == dayAbbreviations.end()) return std::nullopt;
  return found - dayAbbreviations.begin();
}

// The number at the start of a text, after white space: an optional sign and digits; 0 when there
// are none. It stays at the end of what 64 bits hold.
std::int64_t integerValue(string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  const bool isNegative = text.starts_with('-');
  if (isNegative || text.starts_with('+')) text.remove_prefix(1);
  std::uint64_t magnitude = 0;
  const auto end = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  constexpr auto largest = std::numeric_limits<std::int64_t>::max();
  if (end.ec == std::errc::result_out_of_range || magnitude > std::uint64_t{largest}) {
    return isNegative ? std::numeric_limits<std::int64_t>::min() : largest;
  }
  const auto value = static_cast<std::int64_t>(magnitude);
  return isNegative ? -value : value;
}

// Calls `take` with each piece between separators until it answers false; whether it never did.
template <class Take>
bool forEachPiece(string_view text, char separator, Take take) {
  for (;;) {
    const std::size_t end = text.find(separator);
    if (!take(text.substr(0, end))) return false;
    if (end == string_view::npos) return true;
    text.remove_prefix(end + 1);
  }
}

template <class Take>
bool forEachNumber(const string_view* list, Take take) {
  return !list ||
         forEachPiece(*list, ',', [&](string_view piece) { return take(integerValue(piece)); });
}

}  // namespace

const std::array<string_view, 7>& KBTCalRepetition::_dayAbbreviations() { return dayAbbreviations; }

std::int64_t KBTCalRepetition::_indexForWKST(std::optional<string_view> value) {
  if (!value || value->empty()) return -1;
  if (const auto number = weekdayNumber(*value)) return *number;
  KSRecordBacktrace("NOTREACHED");
  return -1;
}

std::optional<KBTCalRepetition::RuleParts> KBTCalRepetition::_parseRRule(string_view rrule) {
  constexpr string_view prefix = "RRULE:";
  if (rrule.starts_with(prefix)) rrule.remove_prefix(prefix.size());
  RuleParts parts;
  const bool isWellFormed = forEachPiece(rrule, ';', [&](string_view piece) {
    const std::size_t equals = piece.find('=');
    if (equals == string_view::npos) return false;
    parts.set(piece.substr(0, equals), piece.substr(equals + 1));
    return true;
  });
  if (!isWellFormed) return std::nullopt;
  return parts;
}

std::shared_ptr<KBTCalRepetition> KBTCalRepetition::initWithRRule_error(
    std::optional<string_view> rrule, NSErrorPtr* error) {
  auto rule = makeObject<KBTCalRepetition>();
  return rule->parse(rrule, error) ? rule : nullptr;
}

// The order of the checks decides which of several errors is reported; unknown keys come last.
bool KBTCalRepetition::parse(std::optional<string_view> rrule, NSErrorPtr* error) {
  const RuleParts parts = _parseRRule(rrule.value_or("")).value_or(RuleParts());
  if (!parseFrequency(parts, error)) return false;
  const string_view* interval = parts.find("INTERVAL");
  if (!takeInterval(interval ? integerValue(*interval) : 1, error)) return false;
  if (!parseUntil(parts, error) || !parseCount(parts, error)) return false;
  const auto takesMonth = [&](std::int64_t month) { return takeMonth(month, error); };
  if (!forEachNumber(parts.find("BYMONTH"), takesMonth)) return false;
  const auto takesDay = [&](std::int64_t day) { return takeMonthDay(day, error); };
  if (!forEachNumber(parts.find("BYMONTHDAY"), takesDay)) return false;
  if (!parseWeekdays(parts, error)) return false;
  if (const string_view* weekStart = parts.find("WKST")) _firstWeekday = _indexForWKST(*weekStart);
  if (!parseSetPositions(parts, error)) return false;

  const std::vector<string_view> keys = parts.keys();
  const bool knowsAll = std::all_of(keys.begin(), keys.end(), [](string_view key) {
    return std::find(std::begin(knownKeys), std::end(knownKeys), key) != std::end(knownKeys);
  });
  return knowsAll || refuse(error, KBTUnsupportedPropertyError,
                            KSLocalizedString("Encountered unprocessed recurrence properties %@",
                                              arrayDescription({keys.begin(), keys.end()})));
}

bool KBTCalRepetition::parseFrequency(const RuleParts& parts, NSErrorPtr* error) {
  constexpr std::pair<string_view, Frequency> keywords[] = {
      {"MINUTELY", MINUTELY}, {"HOURLY", HOURLY},   {"DAILY", DAILY},
      {"WEEKLY", WEEKLY},     {"MONTHLY", MONTHLY}, {"YEARLY", YEARLY}};
  const string_view* value = parts.find("FREQ");
  if (value && *value == "SECONDLY") {
    // Intended: refused, but not by an error.
    KSRecordBacktrace("NOTREACHED");
    return false;
  }
  for (const auto& [keyword, frequency] : keywords) {
    if (!value || *value != keyword) continue;
    frequency_ = frequency;
    return true;
  }
  return refuse(error, KBTUnknownFrequencyError,
                KSLocalizedString("Unknown value \"%@\" for FREQ", value ? *value : "(null)"));
}

// Intended: time of day and zone of UNTIL do not count; the series ends with the whole day.
bool KBTCalRepetition::parseUntil(const RuleParts& parts, NSErrorPtr* error) {
  const string_view* value = parts.find("UNTIL");
  if (!value) return true;
  const string_view date = value->substr(0, value->find('T'));
  const auto endDate = KBTCalObject::dateOnlyStringAsDate(date);
  if (!endDate) {
    return refuse(
        error, KBTEndDateError, KSLocalizedString("Unrecognized date format"),
        {{NSLocalizedRecoverySuggestionErrorKey,
          KSLocalizedString("The date-only string “%@” could not be parsed as a date.", date)}});
  }
  storeEndDate(*endDate);
  return true;
}

bool KBTCalRepetition::parseCount(const RuleParts& parts, NSErrorPtr* error) {
  const string_view* value = parts.find("COUNT");
  if (!value) return true;
  endCount_ = integerValue(*value);
  return endCount_ >= 0 ||
         refuse(error, KBTCountError,
                KSLocalizedString("End count must be zero (for date-based or limitless "
                                  "recurrences) or greater."));
}

bool KBTCalRepetition::parseWeekdays(const RuleParts& parts, NSErrorPtr* error) {
  const string_view* list = parts.find("BYDAY");
  if (!list) return true;
  const bool isSingle = list->find(',') == string_view::npos;
  return forEachPiece(*list, ',', [&](string_view weekday) {
    if (const std::int64_t number = integerValue(weekday); number != 0) {
      if (!isSingle) {
        return refuse(error, KBTSeveralNumberedWeekdaysError,
                      KSLocalizedString("BYDAY value \"%@\" not supported.", *list));
      }
      if (!isMonthlyOrYearly()) return refuseNumberedWeekday(error, *list);
      weekOfMonthIndex_ = number;
      constexpr std::size_t abbreviationLength = 2;
      weekday.remove_prefix(weekday.size() - std::min(weekday.size(), abbreviationLength));
    }
    const auto index = weekdayNumber(weekday);
    if (!index) {
      return refuse(error, KBTWeekdayError,
                    KSLocalizedString("BYDAY value \"%@\" not valid.", *list));
    }
    dayOfWeekMask_ |= std::uint64_t{1} << *index;
    return true;
  });
}

bool KBTCalRepetition::parseSetPositions(const RuleParts& parts, NSErrorPtr* error) {
  const string_view* list = parts.find("BYSETPOS");
  if (!list) return true;
  if (frequency_ != MONTHLY || dayOfWeekMask_ == 0) return refuseSetPositions(error, *list);
  return forEachNumber(list,
                       [&](std::int64_t position) { return takeSetPosition(position, error); });
}

}  // namespace quillmere
