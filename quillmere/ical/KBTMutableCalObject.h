#ifndef QUILLMERE_ICAL_KBTMUTABLECALOBJECT_H
#define QUILLMERE_ICAL_KBTMUTABLECALOBJECT_H

#include <quillmere/ical/KBTICSDataSource.h>
#include <quillmere/ical/KBTMutableCalObjectLine.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/dates/NSDate.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere {

/// Writes one iCalendar component (RFC 5545) from lines that are appended in order.
///
///     auto event = KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration(
///         "VEVENT", true);
///     event->appendKey_stringValue("UID", uid);
///     event->appendKey_datetimeValue("DTSTAMP", NSDate::date());
///     event->appendKey_datetimeValue("DTSTART", start);
///     event->appendKey_stringValue("SUMMARY", "Lunch; or dinner");
///     NSData document = event->icsData();
///
/// As the answer to a calendar that saves (`synchingCalendar_icsDataForObject`), make a writer with
/// `false` for a file or URL calendar, which puts the component into its own document, and with
/// `true` for a CalDAV calendar, whose resources are documents.
///
/// Every value is escaped, whatever its type: a backslash goes before backslash, comma and
/// semicolon, and `\n`, `\r` and `\t` stand for LF, CR and TAB. So a rule or a list is written as
/// text (see docs/icalendar.md).
///
/// Every value is folded (RFC 5545 section 3.1): the first physical line holds 60 characters of the
/// escaped value, every further one 70. Characters are UTF-16 units, and neither the key nor octets
/// count, so a physical line may exceed the RFC's 75 octets. A fold may be inside an escape or a
/// character. `KBTCalObject`, which unfolds bytes, gives every UTF-8 value back exactly. Bytes that
/// are not UTF-8 are written as they are, each counting as one character, and read back as null.
///
/// Keys are trusted and written as they are, so a key may carry parameters
/// ("DTSTART;TZID=Asia/Tokyo"). For a nested component append lines whose keys are "BEGIN" and
/// "END". Lines are never changed or removed.
class QUILLMERE_EXPORT KBTMutableCalObject : public KBTICSDataSource {
 public:
  /// A writer without lines. `objectType` is the component's name, such as "VEVENT"; null writes
  /// the lines without "BEGIN" and "END". With `includeCalendar`, `icsData()` is a whole document.
  static std::shared_ptr<KBTMutableCalObject> initWithObjectType_includeCalendarDeclaration(
      std::optional<std::string> objectType, bool includeCalendar);

  void appendKey_stringValue(std::string key, std::string value);
  /// A DATE (RFC 5545 section 3.3.4): ";VALUE=DATE" follows the key, and the value is the date's
  /// day in the default zone at the time of writing.
  void appendKey_dateValue(std::string key, NSDate value);
  /// A DATE-TIME in UTC (RFC 5545 section 3.3.5).
  void appendKey_datetimeValue(std::string key, NSDate value);
  void appendKey_integerValue(std::string key, std::int64_t value);
  /// A number in the shortest decimal form that reads back as the same number: 2.0 is "2". There is
  /// no exponent (RFC 5545 section 3.3.7). Others are "inf", "-inf" and "nan".
  void appendKey_doubleValue(std::string key, double value);

  /// The component, or a whole document if `includeCalendar` was set.
  NSData icsData() override;

  /// The value of the first line with exactly this key. Null when there is none.
  std::optional<KBTMutableCalObjectValue> valueForKey(std::string_view key) const;
  /// Whether the first line with exactly this key is a DATE. False when there is none.
  bool valueForKeyIsAllDay(std::string_view key) const;

  /// A whole document of these components in their order. Null writers are skipped.
  static NSData icsCalendarDataForObjects(
      const std::vector<std::shared_ptr<KBTMutableCalObject>>& objects);

 protected:
  KBTMutableCalObject(std::optional<std::string> objectType, bool includeCalendar);

  void _addLineWithKey_value_type(std::string key, KBTMutableCalObjectValue value,
                                  std::int32_t type);
  /// The component alone.
  NSData _icsData() const;
  static NSData _calendarPrologue();
  static NSData _calendarEpilogue();

 private:
  void appendComponentToString(std::string& text) const;
  void prefetchFirstLines() const;
  void prefetchValue(std::size_t number) const;
  const KBTMutableCalObjectLine* firstLineWithKey(std::string_view key) const;
  static void _appendKey_value_toString(std::string_view key, std::string_view value,
                                        std::string& text);

  std::vector<KBTMutableCalObjectLine> lines_;
  std::optional<std::string> objectType_;
  bool includeCalendar_;
  std::size_t expectedSize_ = 64;  // of the text, enough as a rule
};

}  // namespace quillmere

#endif
