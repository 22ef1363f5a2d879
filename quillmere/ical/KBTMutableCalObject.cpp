#include <quillmere/ical/FoldedLine.h>
#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/ical/KBTMutableCalObject.h>
#include <quillmere/platform/base/LargePages.h>
#include <quillmere/platform/base/makeObject.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>
#include <variant>

namespace quillmere {
namespace {

using std::string_view;
using Line = KBTMutableCalObjectLine;

// PRODID stands before VERSION here, unlike in the documents that data calendars write.
constexpr string_view prologue =
    "BEGIN:VCALENDAR\r\nPRODID:-//Tessaly//Quillmere 0.1//EN\r\nVERSION:2.0\r\n"
    "CALSCALE:GREGORIAN\r\n";
constexpr string_view epilogue = "END:VCALENDAR\r\n";

constexpr std::size_t prefetchDistance = 4;  // lines

// Without an exponent, which RFC 5545, section 3.3.7 does not know.
std::string shortestDecimal(double number) {
  char digits[352];  // the smallest numbers take 327
  const auto result =
      std::to_chars(digits, digits + sizeof digits, number, std::chars_format::fixed);
  return {digits, result.ptr};
}

struct Description {
  std::string operator()(const std::string& text) const { return text; }
  std::string operator()(NSDate date) const { return date.description(); }
  std::string operator()(std::int64_t number) const { return std::to_string(number); }
  std::string operator()(double number) const {
    return std::isnan(number) ? "nan" : shortestDecimal(number);  // whatever the NaN's sign
  }
};

// The text of a value that is not a string.
std::string textOfValue(const Line& line) {
  if (const NSDate* date = std::get_if<NSDate>(&line.value())) {
    if (line.type() == Line::dateType) return KBTCalObject::dateAsZuluString(*date);
    if (line.type() == Line::datetimeType) return KBTCalObject::datetimeAsZuluString(*date);
  }
  return std::visit(Description(), line.value());
}

}  // namespace

std::shared_ptr<KBTMutableCalObject>
KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration(
    std::optional<std::string> objectType, bool includeCalendar) {
  return makeObject<KBTMutableCalObject>(std::move(objectType), std::move(includeCalendar));
}

KBTMutableCalObject::KBTMutableCalObject(std::optional<std::string> objectType,
                                         bool includeCalendar)
    : objectType_(std::move(objectType)), includeCalendar_(includeCalendar) {}

void KBTMutableCalObject::appendKey_stringValue(std::string key, std::string value) {
  _addLineWithKey_value_type(std::move(key), std::move(value), Line::stringType);
}

void KBTMutableCalObject::appendKey_dateValue(std::string key, NSDate value) {
  _addLineWithKey_value_type(std::move(key), value, Line::dateType);
}

void KBTMutableCalObject::appendKey_datetimeValue(std::string key, NSDate value) {
  _addLineWithKey_value_type(std::move(key), value, Line::datetimeType);
}

void KBTMutableCalObject::appendKey_integerValue(std::string key, std::int64_t value) {
  _addLineWithKey_value_type(std::move(key), value, Line::integerType);
}

void KBTMutableCalObject::appendKey_doubleValue(std::string key, double value) {
  _addLineWithKey_value_type(std::move(key), value, Line::doubleType);
}

void KBTMutableCalObject::_addLineWithKey_value_type(std::string key,
                                                     KBTMutableCalObjectValue value,
                                                     std::int32_t type) {
  const auto* string = std::get_if<std::string>(&value);
  const std::size_t length = string ? string->size() : 30;
  expectedSize_ += key.size() + 4 + length + length / 8;
  lines_.emplace_back(std::move(key), std::move(value), type);
}

NSData KBTMutableCalObject::icsData() {
  if (!includeCalendar_) return _icsData();
  std::string document(prologue);
  appendComponentToString(document);
  document += epilogue;
  return NSData::dataWithString(std::move(document));
}

NSData KBTMutableCalObject::_icsData() const {
  std::string component;
  component.reserve(expectedSize_);
  preferLargePages(component.data(), component.capacity());
  appendComponentToString(component);
  return NSData::dataWithString(std::move(component));
}

void KBTMutableCalObject::appendComponentToString(std::string& text) const {
  if (objectType_) text.append("BEGIN:").append(*objectType_).append("\r\n");
  std::string dateKey;
  for (std::size_t i = 0; i < lines_.size(); ++i) {
    prefetchValue(i + prefetchDistance);
    const Line& line = lines_[i];
    string_view key = line.key();
    if (line.type() == Line::dateType) {
      dateKey.assign(line.key()).append(";VALUE=DATE");
      key = dateKey;
    }
    if (const auto* string = std::get_if<std::string>(&line.value())) {
      _appendKey_value_toString(key, *string, text);
    } else {
      _appendKey_value_toString(key, textOfValue(line), text);
    }
  }
  if (objectType_) text.append("END:").append(*objectType_).append("\r\n");
}

// Values stand wherever they were allocated, and a big calendar's are in no cache: asking for them
// ahead of time takes the waiting out of the loop.
void KBTMutableCalObject::prefetchValue(std::size_t number) const {
  if (number >= lines_.size()) return;
  const auto* string = std::get_if<std::string>(&lines_[number].value());
  if (!string) return;
  constexpr std::size_t cacheLine = 64;
  constexpr std::size_t farthest =
      4 * cacheLine;  // from there on the hardware has seen the pattern
  for (std::size_t at = 0; at < std::min(string->size(), farthest); at += cacheLine) {
    __builtin_prefetch(string->data() + at);
  }
}

void KBTMutableCalObject::prefetchFirstLines() const {
  for (std::size_t i = 0; i < std::min(lines_.size(), prefetchDistance); ++i) {
    __builtin_prefetch(&lines_[i]);
    __builtin_prefetch(&lines_[i].value());
  }
}

void KBTMutableCalObject::_appendKey_value_toString(string_view key, string_view value,
                                                    std::string& text) {
  appendFoldedLine(text, key, value);
}

const Line* KBTMutableCalObject::firstLineWithKey(string_view key) const {
  const auto found = std::find_if(lines_.begin(), lines_.end(),
                                  [key](const Line& line) { return line.key() == key; });
  return found == lines_.end() ? nullptr : &*found;
}

std::optional<KBTMutableCalObjectValue> KBTMutableCalObject::valueForKey(string_view key) const {
  const Line* line = firstLineWithKey(key);
  if (!line) return std::nullopt;
  return line->value();
}

bool KBTMutableCalObject::valueForKeyIsAllDay(string_view key) const {
  const Line* line = firstLineWithKey(key);
  return line && line->type() == Line::dateType;
}

NSData KBTMutableCalObject::_calendarPrologue() { return NSData::dataWithBytes(prologue); }

NSData KBTMutableCalObject::_calendarEpilogue() { return NSData::dataWithBytes(epilogue); }

NSData KBTMutableCalObject::icsCalendarDataForObjects(
    const std::vector<std::shared_ptr<KBTMutableCalObject>>& objects) {
  std::size_t size = prologue.size() + epilogue.size();
  for (const auto& object : objects) {
    if (object) size += object->expectedSize_;
  }
  std::string document;
  document.reserve(size);
  preferLargePages(document.data(), document.capacity());
  document += prologue;
  for (std::size_t i = 0; i < objects.size(); ++i) {
    if (i + 2 < objects.size()) __builtin_prefetch(objects[i + 2].get());
    if (i + 1 < objects.size() && objects[i + 1]) objects[i + 1]->prefetchFirstLines();
    // Never wrapped in a second document.
    if (objects[i]) objects[i]->appendComponentToString(document);
  }
  document += epilogue;
  return NSData::dataWithString(std::move(document));
}

}  // namespace quillmere
