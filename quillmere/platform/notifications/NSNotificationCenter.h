#ifndef QUILLMERE_PLATFORM_NOTIFICATIONS_NSNOTIFICATIONCENTER_H
#define QUILLMERE_PLATFORM_NOTIFICATIONS_NSNOTIFICATIONCENTER_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace quillmere {

/// What a notification says beyond its name: text, bytes, a number or a truth value by key.
using NSNotificationUserInfo =
    std::map<std::string, std::variant<std::string, NSData, std::int64_t, double, bool>>;

/// One message of a notification center.
struct QUILLMERE_EXPORT NSNotification {
  std::string name;
  std::shared_ptr<void> object;  ///< the sender, null when there is none
  NSNotificationUserInfo userInfo;
};

template <class Notification>
class ObserverList;

/// An observer that hears of notifications as long as this object lives.
class QUILLMERE_EXPORT NSNotificationObservation {
 public:
  virtual ~NSNotificationObservation() = default;
};

/// Brings notifications from senders to observers that need not know each other, within the
/// process. Any thread may use it.
class QUILLMERE_EXPORT NSNotificationCenter {
 public:
  /// The same center every time.
  static NSNotificationCenter& defaultCenter();

  NSNotificationCenter();
  NSNotificationCenter(const NSNotificationCenter&) = delete;
  NSNotificationCenter& operator=(const NSNotificationCenter&) = delete;
  ~NSNotificationCenter();

  /// Calls `block` for every notification of that name and that sender; null is any. The center
  /// does not keep the sender alive: once it is gone, so is the reason to call. The block is called
  /// until the result is destroyed or handed to `removeObserver`, and may post, observe and remove.
  [[nodiscard]] std::shared_ptr<NSNotificationObservation> addObserverForName_object_usingBlock(
      std::optional<std::string> name, const std::shared_ptr<void>& object,
      std::function<void(const NSNotification&)> block);

  /// No call begins any more. Null does nothing.
  void removeObserver(const std::shared_ptr<NSNotificationObservation>& observation);

  /// Calls the observers on this thread, in the order in which they were added, and returns after
  /// the last.
  void postNotificationName_object_userInfo(std::string name, std::shared_ptr<void> object,
                                            NSNotificationUserInfo userInfo);

 private:
  std::unique_ptr<ObserverList<NSNotification>> observers_;
};

}  // namespace quillmere

#endif
