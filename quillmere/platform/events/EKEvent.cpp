#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/events/EKEvent.h>
#include <quillmere/platform/events/EventRecord.h>

#include <utility>

namespace quillmere {

std::shared_ptr<EKEvent> EKEvent::eventWithEventStore(const std::shared_ptr<EKEventStore>& store) {
  auto event = makeObject<EKEvent>(store, nullptr, nullptr);
  EventRecord& record = event->editedRecord();
  record.identifier = CFUUIDCreateString();
  record.timeZone = NSTimeZone::defaultTimeZone();
  return event;
}

EKEvent::EKEvent(std::weak_ptr<EKEventStore> store, std::shared_ptr<EKCalendar> calendar,
                 std::shared_ptr<const EventRecord> stored)
    : store_(std::move(store)), calendar_(std::move(calendar)), stored_(std::move(stored)) {}

EKEvent::~EKEvent() = default;

const EventRecord& EKEvent::record() const { return edited_ ? *edited_ : *stored_; }

EventRecord& EKEvent::editedRecord() {
  if (!edited_) {
    edited_ = stored_ ? std::make_unique<EventRecord>(*stored_) : std::make_unique<EventRecord>();
  }
  return *edited_;
}

const std::string& EKEvent::calendarItemExternalIdentifier() const { return record().identifier; }

void EKEvent::setCalendar(std::shared_ptr<EKCalendar> calendar) {
  calendar_ = std::move(calendar);
  editedRecord().calendar = calendar_ ? calendar_->calendarIdentifier() : std::string();
}

const std::optional<std::string>& EKEvent::title() const { return record().title; }

void EKEvent::setTitle(std::optional<std::string> title) {
  editedRecord().title = std::move(title);
}

std::optional<std::string> EKEvent::notes() const {
  const auto& notes = record().notes;
  if (!notes) return std::nullopt;
  return std::string(notes->view());
}

void EKEvent::setNotes(const std::optional<std::string>& notes) {
  editedRecord().notes = notes ? std::optional(NSData::dataWithString(*notes)) : std::nullopt;
}

std::optional<NSDate> EKEvent::startDate() const { return record().start; }

void EKEvent::setStartDate(std::optional<NSDate> date) { editedRecord().start = date; }

std::optional<NSDate> EKEvent::endDate() const { return record().end; }

void EKEvent::setEndDate(std::optional<NSDate> date) { editedRecord().end = date; }

bool EKEvent::isAllDay() const { return record().isAllDay; }

void EKEvent::setAllDay(bool isAllDay) { editedRecord().isAllDay = isAllDay; }

std::optional<NSTimeZone> EKEvent::timeZone() const { return record().timeZone; }

void EKEvent::setTimeZone(std::optional<NSTimeZone> zone) {
  editedRecord().timeZone = std::move(zone);
}

const std::optional<std::string>& EKEvent::recurrenceRule() const {
  return record().recurrenceRule;
}

void EKEvent::setRecurrenceRule(std::optional<std::string> rule) {
  editedRecord().recurrenceRule = std::move(rule);
}

const std::vector<NSDate>& EKEvent::exceptionDates() const { return record().exceptionDates; }

void EKEvent::setExceptionDates(std::vector<NSDate> dates) {
  editedRecord().exceptionDates = std::move(dates);
}

std::optional<NSDate> EKEvent::occurrenceDate() const { return record().occurrenceDate; }

bool EKEvent::isDetached() const { return record().isDetached; }

std::optional<NSDate> EKEvent::lastModifiedDate() const { return record().lastModified; }

const std::vector<EKAlarm>& EKEvent::alarms() const { return record().alarms; }

void EKEvent::setAlarms(std::vector<EKAlarm> alarms) { editedRecord().alarms = std::move(alarms); }

void EKEvent::addAlarm(EKAlarm alarm) { editedRecord().alarms.push_back(alarm); }

void EKEvent::removeAlarm(EKAlarm alarm) { std::erase(editedRecord().alarms, alarm); }

}  // namespace quillmere
