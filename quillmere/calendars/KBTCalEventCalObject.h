#ifndef QUILLMERE_CALENDARS_KBTCALEVENTCALOBJECT_H
#define QUILLMERE_CALENDARS_KBTCALEVENTCALOBJECT_H

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/events/EKEvent.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quillmere {

/// A reader over an event of the event store, as if it were an iCalendar component. It always has
/// the same eight lines: BEGIN, DTSTART, DTEND, DTSTAMP, UID, SUMMARY, DESCRIPTION, END. There is
/// no text behind it, so `icsData()` and `data()` are empty, and no line has parameters. Values are
/// those of the event at the time of the call.
///
/// Intended: UID is the identifier of the event's calendar, the same for all of its events; the
/// event's own identity is the unique name that the calendar tells with the reader. And `isAtEnd()`
/// is true before the first line, too: go by what `nextLine()` returns.
class QUILLMERE_EXPORT KBTCalEventCalObject : public KBTCalObject {
 public:
  /// A reader over the event. A null event has the same lines; the values are null, except for
  /// those of BEGIN and END, and DESCRIPTION is empty.
  static std::shared_ptr<KBTCalEventCalObject> initWithEKEvent(std::shared_ptr<EKEvent> event);

  void reset() override;
  bool isAtEnd() const override;
  bool nextLine() override;
  /// The line's name. Null before the first line and after the last, as is the value.
  std::optional<std::string_view> key() override;
  /// The line's value, good until the next call. Dates are in UTC ("20240105T093000Z"), also those
  /// of all-day events.
  std::optional<std::string_view> value() override;
  /// The date of DTSTART or DTEND, with the event's all-day flag in `isFullDay`, or of DTSTAMP,
  /// with false. Null for any other line, which leaves `isFullDay` as it is.
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
