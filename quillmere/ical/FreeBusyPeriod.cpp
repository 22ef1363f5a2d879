#include <quillmere/ical/FreeBusyPeriod.h>
#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/dates/NSCalendar.h>

namespace quillmere {
namespace {

using std::string_view;

std::optional<NSDate> endAfter(std::optional<NSDate> start,
                               const std::optional<NSDateComponents>& duration) {
  if (!start || !duration) return std::nullopt;
  return NSCalendar::currentCalendar().dateByAddingComponents_toDate(*duration, *start);
}

}  // namespace

std::optional<FreeBusyPeriod> periodOfAnswer(string_view piece) {
  const std::size_t slash = piece.find('/');
  if (slash == string_view::npos) return std::nullopt;
  const auto start = KBTCalObject::zuluStringAsDate(piece.substr(0, slash));
  const string_view rest = piece.substr(slash + 1);
  const auto duration = KBTCalObject::icalDurationAsDateComponents(rest);
  return FreeBusyPeriod{
      start, duration ? endAfter(start, duration) : KBTCalObject::zuluStringAsDate(rest)};
}

std::optional<FreeBusyPeriod> periodOfValue(string_view piece) {
  const std::size_t slash = piece.find('/');
  if (slash == string_view::npos || slash != piece.rfind('/')) return std::nullopt;
  const auto start = KBTCalObject::zuluStringAsDate(piece.substr(0, slash));
  const string_view rest = piece.substr(slash + 1);
  const bool isDuration = rest.starts_with('P') || rest.starts_with('p');
  return FreeBusyPeriod{
      start, isDuration ? endAfter(start, KBTCalObject::icalDurationAsDateComponents(rest))
                        : KBTCalObject::zuluStringAsDate(rest)};
}

}  // namespace quillmere
