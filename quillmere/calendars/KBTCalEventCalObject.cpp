#include <quillmere/calendars/KBTCalEventCalObject.h>
#include <quillmere/platform/base/makeObject.h>

#include <array>
#include <utility>

namespace quillmere {
namespace {

enum Line : std::size_t { begin, dtstart, dtend, dtstamp, uid, summary, notes, end };

constexpr std::array<std::string_view, 8> keys = {"BEGIN", "DTSTART", "DTEND",       "DTSTAMP",
                                                  "UID",   "SUMMARY", "DESCRIPTION", "END"};

// One more is the first line, and as a count it lies past the last.
constexpr std::size_t beforeFirstLine = ~std::size_t{0};

std::optional<std::string> textOf(std::optional<NSDate> date) {
  if (!date) return std::nullopt;
  return KBTCalObject::datetimeAsZuluString(*date);
}

}  // namespace

std::shared_ptr<KBTCalEventCalObject> KBTCalEventCalObject::initWithEKEvent(
    std::shared_ptr<EKEvent> event) {
  return makeObject<KBTCalEventCalObject>(std::move(event));
}

KBTCalEventCalObject::KBTCalEventCalObject(std::shared_ptr<EKEvent> event)
    : KBTCalObject(NSData()), event_(std::move(event)), lineIndex_(beforeFirstLine) {}

void KBTCalEventCalObject::reset() { lineIndex_ = beforeFirstLine; }

bool KBTCalEventCalObject::isAtEnd() const { return lineIndex_ >= keys.size(); }

bool KBTCalEventCalObject::nextLine() {
  if (lineIndex_ == beforeFirstLine || lineIndex_ < keys.size()) ++lineIndex_;
  return !isAtEnd();
}

std::optional<std::string_view> KBTCalEventCalObject::key() {
  if (isAtEnd()) return std::nullopt;
  return keys[lineIndex_];
}

std::optional<std::string_view> KBTCalEventCalObject::value() {
  valueText_ = currentValue();
  return valueText_;
}

std::optional<std::string> KBTCalEventCalObject::currentValue() const {
  switch (lineIndex_) {
    case begin:
    case end:
      return "VEVENT";
    case dtstart:
      return event_ ? textOf(event_->startDate()) : std::nullopt;
    case dtend:
      return event_ ? textOf(event_->endDate()) : std::nullopt;
    case dtstamp:
      return event_ ? textOf(event_->lastModifiedDate()) : std::nullopt;
    case uid:
      if (!event_ || !event_->calendar()) return std::nullopt;
      return event_->calendar()->calendarIdentifier();
    case summary:
      return event_ ? event_->title() : std::nullopt;
    case notes:
      return event_ ? event_->notes().value_or("") : "";
    default:
      return std::nullopt;
  }
}

std::optional<NSDate> KBTCalEventCalObject::valueAsDateIsFullDay(bool* isFullDay) {
  if (!event_) return std::nullopt;
  bool ignored = false;
  bool& isAllDay = isFullDay ? *isFullDay : ignored;
  switch (lineIndex_) {
    case dtstart:
      isAllDay = event_->isAllDay();
      return event_->startDate();
    case dtend:
      isAllDay = event_->isAllDay();
      return event_->endDate();
    case dtstamp:
      isAllDay = false;
      return event_->lastModifiedDate();
    default:
      return std::nullopt;
  }
}

std::optional<std::string_view> KBTCalEventCalObject::valueForModifier(std::string_view) {
  return std::nullopt;
}

const KBTCalModifiers& KBTCalEventCalObject::modifiers() {
  static const KBTCalModifiers none;
  return none;
}

}  // namespace quillmere
