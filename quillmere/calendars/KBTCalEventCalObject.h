#ifndef QUILLMERE_CALENDARS_KBTCALEVENTCALOBJECT_H
#define QUILLMERE_CALENDARS_KBTCALEVENTCALOBJECT_H

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/events/EKEvent.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quillmere {

/// A reader over an event of the desktop's store, as if it were an iCalendar component. It has
/// always the same eight lines: BEGIN, DTSTART, DTEND, DTSTAMP, UID, SUMMARY, DESCRIPTION, END.
/// There is no text behind it, so `icsData()` and `data()` are empty, and no line has parameters.
/// Values are the event's at the time of the call.
///
/// Intended: UID is the identifier of the event's calendar, the same for all of its events; the
/// event's own identity is the unique name that the calendar tells with the reader. `isAtEnd()` is
/// true before the first line too, so walk it by what `nextLine()` returns.
class KBTCalEventCalObject : public KBTCalObject {
 public:
  /// A null event has the lines all the same, with null values but for BEGIN and END, and an empty
  /// DESCRIPTION.
  static std::shared_ptr<KBTCalEventCalObject> initWithEKEvent(std::shared_ptr<EKEvent> event);

  void reset() override;
  bool isAtEnd() const override;
  bool nextLine() override;
  /// Null outside the lines, as is the value.
  std::optional<std::string_view> key() override;
  /// Dates in UTC, "20240105T093000Z", also of all-day events. Good until the next call.
  std::optional<std::string_view> value() override;
  /// Of DTSTART and DTEND, with the event's all-day flag, and of DTSTAMP, with false; null of any
  /// other line, which leaves the flag as it is.
  std::optional<NSDate> valueAsDateIsFullDay(bool& isFullDay) override;
  std::optional<std::string_view> valueForModifier(std::string_view name) override;
  const KBTCalModifiers& modifiers() override;

 protected:
  explicit KBTCalEventCalObject(std::shared_ptr<EKEvent> event);

 private:
  std::optional<std::string> currentValue() const;

  std::shared_ptr<EKEvent> event_;
  std::size_t lineIndex_;
  std::optional<std::string> valueText_;
};

}  // namespace quillmere

#endif
