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

/// Reads an event of the desktop's store as if it were an iCalendar component. It always has the
/// same eight lines: BEGIN, DTSTART, DTEND, DTSTAMP, UID, SUMMARY, DESCRIPTION, END. There is no
/// text behind them, so `icsData()` and `data()` are empty and no line has parameters. Values are
/// the event's at the time of the call.
///
/// Two things are intended. UID is the identifier of the event's calendar, so all events of a
/// calendar share it; the event's own identity is the unique name that comes with the reader. And
/// `isAtEnd()` is true before the first line too, so go by what `nextLine()` returns.
class QUILLMERE_EXPORT KBTCalEventCalObject : public KBTCalObject {
 public:
  /// A reader of a null event has the same lines. BEGIN and END have their values, DESCRIPTION is
  /// empty, and all other values are null.
  static std::shared_ptr<KBTCalEventCalObject> initWithEKEvent(std::shared_ptr<EKEvent> event);

  void reset() override;
  bool isAtEnd() const override;
  bool nextLine() override;
  /// Null outside the lines, as is the value.
  std::optional<std::string_view> key() override;
  /// Dates are in UTC, like "20240105T093000Z", also those of all-day events. The view is good
  /// until the next call.
  std::optional<std::string_view> value() override;
  /// The date of DTSTART, DTEND or DTSTAMP. The flag becomes the event's all-day flag, or false for
  /// DTSTAMP. On any other line the result is null and the flag stays as it is.
  std::optional<NSDate> valueAsDateIsFullDay(bool* isFullDay = nullptr) override;
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
