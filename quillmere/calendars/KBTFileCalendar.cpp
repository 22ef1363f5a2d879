#include <quillmere/calendars/KBTFileCalendar.h>
#include <quillmere/platform/base/NSFileManager.h>
#include <quillmere/platform/base/makeObject.h>

#include <string_view>
#include <utility>

namespace quillmere {

std::shared_ptr<KBTFileCalendar> KBTFileCalendar::initWithPath(std::string path) {
  return makeObject<KBTFileCalendar>(std::move(path));
}

KBTFileCalendar::KBTFileCalendar(std::string path) : path_(std::move(path)) {}

bool KBTFileCalendar::isEqualToCalendar(const KBTSynchingCalendar& other) const {
  const auto* file = dynamic_cast<const KBTFileCalendar*>(&other);
  return file && file->path_ == path_;
}

std::optional<std::string> KBTFileCalendar::cachingString() const {
  if (!lastModified_) return std::nullopt;
  return lastModified_->xmlDateString();
}

void KBTFileCalendar::setCachingString(const std::optional<std::string>& cachingString) {
  lastModified_ = NSDate::initWithXMLDateString(cachingString);
}

std::optional<NSDate> KBTFileCalendar::_checkDate() const {
  return NSFileManager::modificationDateOfItemAtPath(path_);
}

// A file that is gone has no date and so is not younger.
bool KBTFileCalendar::isYoungerThanLastSeen() const {
  const auto date = _checkDate();
  return date && date > lastModified_;
}

void KBTFileCalendar::checkForExternalChanges() {
  const auto self = keptAlive();
  const bool changes = !lastModified_ || isYoungerThanLastSeen();
  delegate()->synchingCalendarCompletedCheckForExternalChanges_changes(*this, changes);
}

void KBTFileCalendar::fetchExternalChanges() {
  if (lastModified_ && !isYoungerThanLastSeen()) {
    const auto self = keptAlive();
    delegate()->synchingCalendarCompletedFetchExternalChanges_withError(*this, nullptr);
    return;
  }
  try {
    KBTDataCalendar::fetchExternalChanges();
  } catch (...) {
    lastModified_.reset();  // or the next fetch would skip what this one has not come to
    throw;
  }
}

std::shared_ptr<KBTCalObject> KBTFileCalendar::_getCalendarData() {
  // The date of the bytes that are read: a file that takes the place of this one, or is written to,
  // while it is read is younger. What cannot be opened has a date as well, unless it has come or gone
  // meanwhile.
  const auto before = _checkDate();
  lastModified_.reset();
  auto document = NSData::dataWithContentsOfFile(path_, &lastModified_);
  if (!lastModified_ && before == _checkDate()) lastModified_ = before;
  return KBTCalObject::initWithData(std::move(document));
}

void KBTFileCalendar::_writeCalendarData(const NSData& document) {
  // A failed write is reported as a completed save, by contract; the date is then the old file's.
  lastModified_ = _checkDate();
  NSFileManager::writeData_toFileAtomically(document, path_, &lastModified_);
  _wroteCalendarData(nullptr);
}

}  // namespace quillmere
