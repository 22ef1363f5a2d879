// The reader of content lines. Where it differs from RFC 5545, it is meant to: hosts keep what they
// read (versions, names, texts) between runs, so what a line reads as must never change.
//
//   - A line without ":" or ";" runs on into the next line; a line ending ends neither keys nor
//     parameters, and neither is unfolded (scanKeyAndParameters).
//   - Quotation marks mean nothing: ":" ends parameters and ";" splits them inside quotes as well.
//     A backslash hides a ":" (scanKeyAndParameters, parseModifiers).
//   - A parameter's name runs to its "=", even across ";". Of a repeated name the last one counts,
//     and empty parameter text stores nothing (parseModifiers).
//   - CR, LF and CR LF end lines, but only CR LF SPACE is unfolded; a tab continues nothing
//     (scanValue, unfoldedValue).
//   - `\t` and `\r` are escapes too, "\N" is "N", and a backslash at the end stays (unescape).
//   - A key asked for after the parameters includes their text (key).
//   - A time without "Z" is UTC. A TZID moves "Z" values too, by the offset at the digits read as
//     UTC; an unknown one means the default zone (valueAsDateIsFullDay).
//   - Weeks in durations set nothing, a sign makes the text no duration, and numbers wrap at 32
//     bits (KBTCalObject+Conversions.cpp).
//   - An entry ends at the first "END", whatever it closes, and its end is a state and not a
//     position (KBTCalObjectEntry.cpp).

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/ical/KBTCalObjectEntry.h>
#include <quillmere/platform/base/ByteScan.h>
#include <quillmere/platform/base/UTF8.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/dates/NSTimeZone.h>

#include <cstring>
#include <utility>

namespace quillmere {
namespace {

using std::string_view;

constexpr string_view fold = "\r\n ";

string_view between(const char* from, const char* to) {
  return {from, static_cast<std::size_t>(to - from)};
}

// The first `byte` in [from, end) that has no "\" before it; a "\" takes the byte after it along,
// whichever that is.
const char* findUnescaped(const char* from, const char* end, char byte) {
  for (;;) {
    from = findEither(from, end, byte, '\\');
    if (from == end || *from == byte) return from;
    from = end - from > 2 ? from + 2 : end;
  }
}

// Neither an escape nor a byte beyond ASCII.
bool isPlain(string_view bytes) {
  return !scan::any(bytes.data(), bytes.data() + bytes.size(),
                    [](auto block) { return block.equal('\\') | block.nonASCII(); });
}

void appendUnfolded(std::string& to, string_view folded) {
  for (;;) {
    const std::size_t at = folded.find(fold);
    to.append(folded.substr(0, at));
    if (at == string_view::npos) return;
    folded.remove_prefix(at + fold.size());
  }
}

// What "\" and the byte after it stand for. The first byte of a longer character stands for itself,
// so that the rest of it follows unchanged.
constexpr char unescaped(char byte) {
  switch (byte) {
    case 'n':
      return '\n';
    case 't':
      return '\t';
    case 'r':
      return '\r';
    default:
      return byte;
  }
}

// Unescapes `text` in place; a "\" at its very end stays.
void unescape(std::string& text, std::size_t firstBackslash) {
  char* const end = text.data() + text.size();
  char* to = text.data() + firstBackslash;
  const char* from = to;
  while (end - from >= 2) {
    *to++ = unescaped(from[1]);
    from += 2;
    const char* const next = findByte(from, end, '\\');
    std::memmove(to, from, static_cast<std::size_t>(next - from));
    to += next - from;
    from = next;
  }
  if (from != end) *to++ = *from;
  text.resize(static_cast<std::size_t>(to - text.data()));
}

}  // namespace

std::shared_ptr<KBTCalObject> KBTCalObject::initWithData(std::optional<NSData> data) {
  return makeObject<KBTCalObject>(std::move(data));
}

KBTCalObject::KBTCalObject(std::optional<NSData> data)
    : data_(std::move(data).value_or(NSData())),
      cursor_(data_.bytes()),
      dataEnd_(data_.bytes() + data_.length()),
      keyPtr_(cursor_),
      keyAndModifiersEndPtr_(cursor_),
      valuePtr_(cursor_),
      valueEndPtr_(cursor_) {}

void KBTCalObject::reset() { cursor_ = data_.bytes(); }

bool KBTCalObject::isAtEnd() const { return cursor_ == dataEnd_; }

bool KBTCalObject::nextLine() {
  if (cursor_ == dataEnd_) return false;
  keyBuilt_ = valueBuilt_ = modifiersParsed_ = false;
  if (!modifiers_.empty()) modifiers_.clear();
  scanKeyAndParameters();
  scanValue();
  return true;
}

void KBTCalObject::scanKeyAndParameters() {
  keyPtr_ = cursor_;
  modifierPtr_ = nullptr;
  // Line endings do not stop this scan: a line with neither character is part of the next one's
  // key.
  cursor_ = findEither(cursor_, dataEnd_, ':', ';');
  if (cursor_ != dataEnd_ && *cursor_ == ';') {
    modifierPtr_ = ++cursor_;
    cursor_ = findUnescaped(cursor_, dataEnd_, ':');
  }
  keyAndModifiersEndPtr_ = cursor_;
  if (cursor_ != dataEnd_) ++cursor_;
}

void KBTCalObject::scanValue() {
  valuePtr_ = cursor_;
  foldedValue_ = false;
  for (;;) {
    cursor_ = findEither(cursor_, dataEnd_, '\r', '\n');
    valueEndPtr_ = cursor_;
    if (cursor_ != dataEnd_ && *cursor_ == '\r') ++cursor_;
    if (cursor_ != dataEnd_ && *cursor_ == '\n') ++cursor_;
    if (cursor_ == dataEnd_ || *cursor_ != ' ') return;
    foldedValue_ = true;
  }
}

std::optional<string_view> KBTCalObject::key() {
  if (keyBuilt_) return key_;
  keyBuilt_ = true;
  // Once the parameters were parsed the mark before them is gone, and the key runs up to the
  // value.
  const bool endsAtModifiers = modifierPtr_ && !modifiersParsed_;
  const string_view bytes =
      between(keyPtr_, endsAtModifiers ? modifierPtr_ - 1 : keyAndModifiersEndPtr_);
  if (!isValidUTF8(bytes)) return key_ = std::nullopt;
  key_ = bytes;
  return bytes;
}

std::optional<string_view> KBTCalObject::value() {
  if (valueBuilt_) return value_;
  const string_view bytes = unfoldedValue();
  string_view text = bytes;
  if (!isPlain(bytes)) {
    if (!isValidUTF8(bytes)) {
      valueBuilt_ = true;
      return value_ = std::nullopt;
    }
    text = unescapedValue(bytes);
  }
  valueBuilt_ = true;  // not before the buffer has grown, which may fail
  value_ = text;
  return text;
}

string_view KBTCalObject::unfoldedValue() {
  const string_view bytes = between(valuePtr_, valueEndPtr_);
  if (!foldedValue_) return bytes;
  // On the bytes, before they are taken for characters: a fold may stand inside a character.
  valueBuffer_.clear();
  appendUnfolded(valueBuffer_, bytes);
  return valueBuffer_;
}

string_view KBTCalObject::unescapedValue(string_view bytes) {
  const std::size_t firstBackslash = bytes.find('\\');
  if (firstBackslash == string_view::npos) return bytes;
  if (!foldedValue_) valueBuffer_.assign(bytes);
  unescape(valueBuffer_, firstBackslash);
  return valueBuffer_;
}

const KBTCalModifiers& KBTCalObject::modifiers() {
  if (modifierPtr_ && !modifiersParsed_) parseModifiers();
  return modifiers_;
}

void KBTCalObject::parseModifiers() {
  const char* const end = keyAndModifiersEndPtr_;
  for (const char* from = modifierPtr_; from != end;) {
    const char* const nameEnd = findByte(from, end, '=');  // across any ";"
    const char* const valueStart = nameEnd == end ? end : nameEnd + 1;
    const char* const valueEnd = findByte(valueStart, end, ';');
    const string_view name = between(from, nameEnd);
    const string_view value = between(valueStart, valueEnd);
    if (isValidUTF8(name) && isValidUTF8(value)) modifiers_.insert_or_assign(name, value);
    from = valueEnd == end ? end : valueEnd + 1;
  }
  modifiersParsed_ = true;
}

std::optional<string_view> KBTCalObject::valueForModifier(string_view name) {
  const KBTCalModifiers& all = modifiers();
  const auto found = all.find(name);
  if (found == all.end()) return std::nullopt;
  return found->second;
}

std::optional<NSDate> KBTCalObject::valueAsDateIsFullDay(bool* isFullDay) {
  const bool isDate = valueForModifier("VALUE") == "DATE";
  if (isFullDay) *isFullDay = isDate;
  if (isDate) return dateOnlyStringAsDate(value());

  const auto digitsAsUTC = zuluStringAsDate(value());
  const auto zoneName = valueForModifier("TZID");
  if (!digitsAsUTC || !zoneName) return digitsAsUTC;

  auto zone = NSTimeZone::timeZoneWithName(*zoneName);
  if (!zone) zone = NSTimeZone::timeZoneWithAbbreviation(*zoneName);
  if (!zone) zone = NSTimeZone::defaultTimeZone();
  // Not the offset at the true instant, which differs near a change to or from daylight saving.
  return digitsAsUTC->dateByAddingSeconds(-zone->secondsFromGMTForDate(*digitsAsUTC));
}

std::shared_ptr<KBTCalObjectEntry> KBTCalObject::subparserForCurrentEntry() const {
  return KBTCalObjectEntry::initWithData_startPtr(data_, keyPtr_);
}

NSData KBTCalObject::icsData() { return data_; }

}  // namespace quillmere
