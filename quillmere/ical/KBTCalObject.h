#ifndef QUILLMERE_ICAL_KBTCALOBJECT_H
#define QUILLMERE_ICAL_KBTCALOBJECT_H

#include <quillmere/ical/KBTICSDataSource.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/dates/NSDateComponents.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quillmere {

class KBTCalObjectEntry;

/// The parameters of a content line: raw value by name.
using KBTCalModifiers = std::map<std::string_view, std::string_view>;

/// Reads an iCalendar document (RFC 5545) one content line at a time, straight from its bytes.
///
///     auto reader = KBTCalObject::initWithData(NSData::dataWithContentsOfFile(path));
///     while (reader->nextLine()) {
///       if (reader->key() == "SUMMARY") use(reader->value());
///     }
///
/// It is deliberately simple: no tree, no checking, no errors. Malformed text gives odd keys and
/// values. How odd text reads is fixed, because hosts keep what they have read from run to run;
/// docs/icalendar.md has all rules. The main ones:
///
/// - A line without ":" and ";" has no end: it is part of the key of the next line. If it is the
///   last one, it is a key with an empty value.
/// - CR, LF and CR LF end lines. A space after that continues the value, but only CR LF SPACE is
///   removed from it. A tab continues nothing, and neither do keys and parameters.
/// - Quotation marks mean nothing: ":" ends the parameters and ";" divides them inside quotes, too.
///   A backslash keeps the ":" after it from ending them. A parameter's name runs to its "=", even
///   across ";".
/// - A backslash at the very end of a value stays.
///
/// Keys, values and parameters are views. Keys and parameters point into the document, a value into
/// the document or into the reader. They are good until the next `nextLine()`, and no longer than
/// the reader. Copy what you keep.
///
/// Text is UTF-8. A key or value that is not well-formed UTF-8 is null; such a parameter is left
/// out.
class QUILLMERE_EXPORT KBTCalObject : public KBTICSDataSource {
 public:
  KBTCalObject(const KBTCalObject&) = delete;
  KBTCalObject& operator=(const KBTCalObject&) = delete;

  /// A reader before the first line of `data`, which it keeps alive. Null or empty data has no
  /// lines.
  static std::shared_ptr<KBTCalObject> initWithData(std::optional<NSData> data);

  /// Goes back before the first line. The answers of `key()`, `value()` and `modifiers()` stay
  /// until the next `nextLine()`.
  virtual void reset();

  /// Whether no line follows.
  virtual bool isAtEnd() const;

  /// Moves to the next content line (RFC 5545 section 3.1, with the rules above). False when there
  /// is none; then nothing changes.
  virtual bool nextLine();

  /// Requires: a successful `nextLine()`. This function and all up to `subparserForCurrentEntry`
  /// answer for the current line.
  ///
  /// The line's name exactly as it is written, such as "DTSTART". Null when it is not UTF-8. Call
  /// this first on every line: after `modifiers`, `valueForModifier` or `valueAsDateIsFullDay` the
  /// key of a line with parameters runs up to the ":" and includes their text.
  virtual std::optional<std::string_view> key();

  /// The line's value, unfolded and unescaped: `\n` is a newline, `\t` a tab, `\r` a carriage
  /// return, and a backslash before any other character is left out (`\N` is "N"). Null when it is
  /// not UTF-8.
  virtual std::optional<std::string_view> value();

  /// The parameters by name (RFC 5545 section 3.2). Nothing in them is unquoted, unescaped or
  /// case-folded. A name without "=" has an empty value; of a repeated name the last one counts.
  virtual const KBTCalModifiers& modifiers();

  /// The value of one parameter. Null when the line does not have it.
  virtual std::optional<std::string_view> valueForModifier(std::string_view name);

  /// The value as a date (RFC 5545 sections 3.3.4 and 3.3.5). Null when it is none. Pass null for
  /// `isFullDay` when you do not need it.
  ///
  /// With the parameter VALUE=DATE, written exactly so, `isFullDay` becomes true and the result is
  /// the start of the day in the default zone. Otherwise `isFullDay` becomes false and the digits
  /// are read as UTC, with or without "Z" after them; a TZID then moves the result by the offset of
  /// that zone. The zone is found by name, else by abbreviation, else it is the default zone.
  ///
  /// Intended: the offset is the one at the digits read as UTC, not at the true instant. So close
  /// to a change to or from daylight saving the result is off by the change.
  /// TZID=America/New_York:20240310T063000 is read with the offset at 06:30 UTC, five hours, and
  /// gives 11:30 UTC. But New York had already gone to summer time, and it was 10:30 UTC.
  virtual std::optional<NSDate> valueAsDateIsFullDay(bool* isFullDay = nullptr);

  /// A reader of the component whose "BEGIN" line is the current line; never null. It shares the
  /// bytes and may outlive this reader.
  std::shared_ptr<KBTCalObjectEntry> subparserForCurrentEntry() const;

  /// The whole document as it was given. No bytes when that was null.
  NSData icsData() override;

  /// The bytes that this reader reads, and that its keys point into. For an entry, too, they are
  /// the whole document.
  const NSData& data() const { return data_; }

  /// `NSDate::initWithICSDateString`: a date-time such as "20240105T093000Z", read as UTC. Null for
  /// null and for other text.
  static std::optional<NSDate> zuluStringAsDate(std::optional<std::string_view> text);
  /// `NSDate::initWithICSDateOnlyString`: a date such as "20240105", the start of that day in the
  /// default zone. Null for null and for other text.
  static std::optional<NSDate> dateOnlyStringAsDate(std::optional<std::string_view> text);
  /// The date as "20240105T093000Z", in UTC.
  static std::string datetimeAsZuluString(NSDate date);
  /// The date's day in the default zone, as "20240105".
  static std::string dateAsZuluString(NSDate date);
  /// A duration (RFC 5545 section 3.3.6) as components: "PT1H30M" is hour 1 and minute 30. Weeks
  /// set nothing. Null for null, and for text that does not begin with "P" or "p", so also for a
  /// sign.
  static std::optional<NSDateComponents> icalDurationAsDateComponents(
      std::optional<std::string_view> text);

 protected:
  explicit KBTCalObject(std::optional<NSData> data);

 private:
  friend class KBTCalObjectEntry;

  void scanKeyAndParameters();
  void scanValue();
  std::string_view unfoldedValue();
  std::string_view unescapedValue(std::string_view bytes);
  void parseModifiers();

  std::optional<std::string_view> key_;
  std::optional<std::string_view> value_;
  bool keyBuilt_ = false;
  bool valueBuilt_ = false;
  bool modifiersParsed_ = false;
  KBTCalModifiers modifiers_;
  std::string valueBuffer_;  // holds a value that is not a plain slice of the document

  NSData data_;
  const char* cursor_;                 // where the next line starts
  const char* dataEnd_;                // one past the last byte
  const char* keyPtr_;                 // first byte of the current line
  const char* keyAndModifiersEndPtr_;  // the ":" before the value, or the end of the data
  const char* valuePtr_;               // first byte of the value
  const char* valueEndPtr_;            // one past the value, before its line ending
  const char* modifierPtr_ = nullptr;  // after the first ";", or null without parameters
  bool foldedValue_ = false;           // the value spans continuation lines
};

}  // namespace quillmere

// What `subparserForCurrentEntry` returns, complete for whoever calls it. It is derived from the
// class above.
#include <quillmere/ical/KBTCalObjectEntry.h>  // IWYU pragma: export

#endif
