#include <quillmere/platform/base/NSKeyValueObserving.h>

namespace quillmere {

std::shared_ptr<NSKeyValueObservation> NSKeyValueObserving::observeKey_changeHandler(
    std::string key, std::function<void()> handler) {
  std::erase_if(observations_, [](const auto& known) { return known.expired(); });
  auto observation = std::make_shared<NSKeyValueObservation>(std::move(key), std::move(handler));
  observations_.push_back(observation);
  return observation;
}

// A handler may begin and end observations, and let go of the observed object.
void NSKeyValueObserving::didChangeValueForKey(std::string_view key) {
  const auto observations = observations_;
  for (const auto& known : observations) {
    const auto observation = known.lock();
    if (observation && observation->key_ == key) observation->handler_();
  }
}

}  // namespace quillmere
