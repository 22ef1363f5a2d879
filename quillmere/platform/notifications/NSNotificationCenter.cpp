#include <quillmere/platform/notifications/NSNotificationCenter.h>
#include <quillmere/platform/notifications/ObserverList.h>

#include <utility>

namespace quillmere {

NSNotificationCenter& NSNotificationCenter::defaultCenter() {
  static NSNotificationCenter center;
  return center;
}

NSNotificationCenter::NSNotificationCenter()
    : observers_(std::make_unique<ObserverList<NSNotification>>()) {}

NSNotificationCenter::~NSNotificationCenter() = default;

std::shared_ptr<NSNotificationObservation>
NSNotificationCenter::addObserverForName_object_usingBlock(
    std::optional<std::string> name, const std::shared_ptr<void>& object,
    std::function<void(const NSNotification&)> block) {
  auto filter = [name = std::move(name), isAnyObject = !object,
                 sender = std::weak_ptr<void>(object)](const NSNotification& notification) {
    if (name && notification.name != *name) return false;
    return isAnyObject || (notification.object && sender.lock() == notification.object);
  };
  return observers_->add(std::move(filter), std::move(block));
}

void NSNotificationCenter::removeObserver(
    const std::shared_ptr<NSNotificationObservation>& observation) {
  observers_->remove(observation);
}

void NSNotificationCenter::postNotificationName_object_userInfo(std::string name,
                                                                std::shared_ptr<void> object,
                                                                NSNotificationUserInfo userInfo) {
  observers_->call({std::move(name), std::move(object), std::move(userInfo)});
}

}  // namespace quillmere
