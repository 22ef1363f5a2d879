#include <quillmere/calendars/KBTSynchingCalendar.h>
#include <quillmere/platform/base/makeObject.h>

#include <utility>

namespace quillmere {
namespace {

// Stands in for a delegate that was never set or is gone.
class SilentDelegate : public KBTSynchingCalendarDelegateBase {
  using Calendar = KBTSynchingCalendar;
  using Object = KBTClientObject;
  using string = std::string;

  std::optional<string> synchingCalendar_uniqueNameForObject(Calendar&, const Object&) override {
    return std::nullopt;
  }
  std::optional<string> synchingCalendar_versionStringForObject(Calendar&, const Object&) override {
    return std::nullopt;
  }
  std::shared_ptr<KBTICSDataSource> synchingCalendar_icsDataForObject(Calendar&,
                                                                      const Object&) override {
    return nullptr;
  }
  Object synchingCalendar_newObjectNamed_versionString_data(
      Calendar&, const string&, const string&, const std::shared_ptr<KBTCalObject>&) override {
    return nullptr;
  }
  void synchingCalendarCompletedFetchExternalChanges_withError(Calendar&,
                                                               const NSErrorPtr&) override {}
  void synchingCalendar_failedSavingObject_withError(Calendar&, const KBTFailedObject&,
                                                     const NSErrorPtr&) override {}
};

}  // namespace

std::shared_ptr<KBTSynchingCalendar> KBTSynchingCalendar::init() {
  return makeObject<KBTSynchingCalendar>();
}

void KBTSynchingCalendar::setDelegate(std::weak_ptr<KBTSynchingCalendarDelegate> delegate) {
  nonretainedDelegate_ = std::move(delegate);
}

std::shared_ptr<KBTSynchingCalendarDelegate> KBTSynchingCalendar::delegate() const {
  static const auto silent = std::make_shared<SilentDelegate>();
  if (auto delegate = nonretainedDelegate_.lock()) return delegate;
  return silent;
}

std::shared_ptr<KBTSynchingCalendar> KBTSynchingCalendar::keptAlive() {
  return weak_from_this().lock();
}

void KBTSynchingCalendar::setObjects(std::vector<KBTClientObject> objects) {
  const auto self = keptAlive();
  objectsByUniqueName_.clear();
  for (KBTClientObject& object : objects) {
    const auto name = nameOf(object);
    if (name) objectsByUniqueName_.set(*name, std::move(object));
  }
}

std::optional<std::string> KBTSynchingCalendar::calendarName() const { return calendarName_; }

void KBTSynchingCalendar::setCalendarName(std::optional<std::string> name) {
  calendarName_ = std::move(name);
}

std::optional<std::string> KBTSynchingCalendar::cachingString() const { return std::nullopt; }

void KBTSynchingCalendar::setCachingString(const std::optional<std::string>&) {}

bool KBTSynchingCalendar::isEqualToCalendar(const KBTSynchingCalendar&) const { return false; }

void KBTSynchingCalendar::checkForExternalChanges() {
  const auto self = keptAlive();
  delegate()->synchingCalendarCompletedCheckForExternalChanges_changes(*this, false);
}

void KBTSynchingCalendar::fetchExternalChanges() {
  const auto self = keptAlive();
  delegate()->synchingCalendarCompletedFetchExternalChanges_withError(*this, nullptr);
}

bool KBTSynchingCalendar::hasPendingChanges() const {
  return !insertSet_.empty() || !updateSet_.empty() || !deleteSet_.empty();
}

void KBTSynchingCalendar::resetChanges() {
  insertSet_.clear();
  updateSet_.clear();
  deleteSet_.clear();
}

void KBTSynchingCalendar::insertObject(KBTClientObject object) {
  const auto self = keptAlive();
  const auto name = recordChange(object, insertSet_);
  if (name) objectsByUniqueName_.set(*name, std::move(object));
}

void KBTSynchingCalendar::updateObject(const KBTClientObject& object) {
  const auto self = keptAlive();
  recordChange(object, updateSet_);
}

void KBTSynchingCalendar::deleteObject(const KBTClientObject& object) {
  const auto self = keptAlive();
  recordChange(object, deleteSet_);
}

std::optional<std::string> KBTSynchingCalendar::nameOf(const KBTClientObject& object) {
  if (!object) return std::nullopt;
  return delegate()->synchingCalendar_uniqueNameForObject(*this, object);
}

// The object's name, which `pending` then holds; null when the change is not recorded.
std::optional<std::string> KBTSynchingCalendar::recordChange(const KBTClientObject& object,
                                                             OrderedSet& pending) {
  if (isSaving_) return std::nullopt;
  auto name = nameOf(object);
  if (name) pending.insert(*name);
  return name;
}

void KBTSynchingCalendar::saveChanges() {
  const auto self = keptAlive();
  for (const std::string& name : deleteSet_.names()) objectsByUniqueName_.erase(name);
  resetChanges();
  delegate()->synchingCalendarCompletedSave(*this);
}

void KBTSynchingCalendar::cancel() {}

}  // namespace quillmere
