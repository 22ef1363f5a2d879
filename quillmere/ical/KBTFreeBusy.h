#ifndef QUILLMERE_ICAL_KBTFREEBUSY_H
#define QUILLMERE_ICAL_KBTFREEBUSY_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/dates/NSDate.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmere {

/// Domain of the errors of the CalDAV client, also of a malformed free/busy answer.
inline constexpr const char* KBTDavConnectionErrorDomain = "KBTDavConnection";
/// User-info key of the text of the malformed period, in the error of a free/busy answer.
inline constexpr const char* KBTFreeBusyMalformedPeriodKey = "MalformedPeriod";

/// One period of a free/busy answer. Immutable.
class QUILLMERE_EXPORT KBTFreeBusy {
 public:
  /// Reads every FREEBUSY line (RFC 5545 section 3.8.2.6) of a document, whichever component it is
  /// in. The result has the periods in document order and may be empty. FREE and BUSY-UNAVAILABLE
  /// periods are periods like the others. A line whose value is not UTF-8 has none. A date that
  /// does not parse is null in its period; nothing is trimmed, so a blank after a comma is enough.
  /// An end is null as well when it is counted from a null start, or when a duration puts it
  /// outside of the calendar's years.
  ///
  /// A period without "/" makes the answer malformed. Then the result is null, and `*error`, unless
  /// `error` is null, is set to an error of `KBTDavConnectionErrorDomain`, code 3, with the
  /// period's text in its user info under `KBTFreeBusyMalformedPeriodKey`. Otherwise `*error` stays
  /// as it is.
  ///
  /// `Period` is the class of the objects made: this class, or one derived from it that can be
  /// constructed from the same three values. Name it (`freeBusyInfoFromICSData<Shift>(data)`), also
  /// when you call the function through the derived class.
  template <class Period = KBTFreeBusy>
  static std::optional<std::vector<std::shared_ptr<Period>>> freeBusyInfoFromICSData(
      const NSData& data, NSErrorPtr* error = nullptr) {
    const auto values = parse(data, error);
    if (!values) return std::nullopt;
    std::vector<std::shared_ptr<Period>> periods;
    periods.reserve(values->size());
    for (const Values& value : *values) {
      periods.push_back(makeObject<Period>(value.start, value.end, value.tentative));
    }
    return periods;
  }

  static std::shared_ptr<KBTFreeBusy> initWithStart_andEnd_isTentative(std::optional<NSDate> start,
                                                                       std::optional<NSDate> end,
                                                                       bool tentative);

  /// Each is null where the answer has a date that does not parse, and the end also where it cannot
  /// be counted (see above). A host looks at both before it uses either, and does not take a period
  /// without them for free time.
  std::optional<NSDate> start() const { return start_; }
  std::optional<NSDate> end() const { return end_; }
  /// Whether the line's FBTYPE is exactly "BUSY-TENTATIVE".
  bool tentative() const { return tentative_; }

  /// The period as text: "2024-01-05 09:00:00 +0000 to 2024-01-05 10:00:00 +0000". A tentative
  /// period begins with "Tentative:"; a null date is "(null)".
  std::string description() const;

 protected:
  KBTFreeBusy(std::optional<NSDate> start, std::optional<NSDate> end, bool tentative)
      : start_(start), end_(end), tentative_(tentative) {}

 private:
  struct Values {
    std::optional<NSDate> start;
    std::optional<NSDate> end;
    bool tentative;
  };
  static std::optional<std::vector<Values>> parse(const NSData& data, NSErrorPtr* error);

  std::optional<NSDate> start_;
  std::optional<NSDate> end_;
  bool tentative_;
};

}  // namespace quillmere

#endif
