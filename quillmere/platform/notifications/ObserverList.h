#ifndef QUILLMERE_PLATFORM_NOTIFICATIONS_OBSERVERLIST_H
#define QUILLMERE_PLATFORM_NOTIFICATIONS_OBSERVERLIST_H

#include <quillmere/platform/notifications/NSNotificationCenter.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

// Internal: what the two notification centers share.
namespace quillmere {

/// The observers of a center, in the order in which they came. Any thread may use it.
template <class Notification>
class ObserverList {
 public:
  using Filter = std::function<bool(const Notification&)>;
  using Block = std::function<void(const Notification&)>;

  std::shared_ptr<NSNotificationObservation> add(Filter filter, Block block) {
    auto observation = std::make_shared<Observation>(std::move(filter), std::move(block));
    const std::lock_guard lock(mutex_);
    std::erase_if(observations_, [](const auto& known) { return known.expired(); });
    observations_.push_back(observation);
    return observation;
  }

  static void remove(const std::shared_ptr<NSNotificationObservation>& observation) {
    const auto known = std::dynamic_pointer_cast<Observation>(observation);
    if (known) known->isRemoved = true;
  }

  void call(const Notification& notification) {
    // A block may come back here.
    const auto observations = [this] {
      const std::lock_guard lock(mutex_);
      return observations_;
    }();
    for (const auto& known : observations) {
      const auto observation = known.lock();
      if (!observation || observation->isRemoved || !observation->filter(notification)) continue;
      observation->block(notification);
    }
  }

 private:
  struct Observation : NSNotificationObservation {
    Observation(Filter givenFilter, Block givenBlock)
        : filter(std::move(givenFilter)), block(std::move(givenBlock)) {}
    Filter filter;
    Block block;
    std::atomic<bool> isRemoved = false;
  };

  std::mutex mutex_;
  std::vector<std::weak_ptr<Observation>> observations_;
};

}  // namespace quillmere

#endif
