#ifndef QUILLMERE_PLATFORM_NOTIFICATIONS_NSDISTRIBUTEDNOTIFICATIONCENTER_H
#define QUILLMERE_PLATFORM_NOTIFICATIONS_NSDISTRIBUTEDNOTIFICATIONCENTER_H

#include <quillmere/platform/notifications/NSNotificationCenter.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace quillmere {

/// One message between processes. Its sender is a text.
struct NSDistributedNotification {
  std::string name;
  std::optional<std::string> object;
  NSNotificationUserInfo userInfo;
};

/// Brings notifications to every process of the user's session that observes them, the sender's own
/// included. They travel over the session's D-Bus where `DBUS_SESSION_BUS_ADDRESS` names one that
/// answers; without one, and once it has gone away, the center serves this process alone. Every
/// notification asks again for a bus that was lost. Any thread may use the center.
///
/// The center sends and receives while the main loop runs, and never waits for the bus. While a bus
/// has not answered yet, the first 1,000 notifications wait for it; the process's own observers hear
/// at once. They are dropped when the bus does not take the connection.
///
/// Name, object and user info arrive as they were sent, byte for byte.
class NSDistributedNotificationCenter {
 public:
  /// The same center every time.
  static NSDistributedNotificationCenter& defaultCenter();

  NSDistributedNotificationCenter();
  NSDistributedNotificationCenter(const NSDistributedNotificationCenter&) = delete;
  NSDistributedNotificationCenter& operator=(const NSDistributedNotificationCenter&) = delete;
  ~NSDistributedNotificationCenter();

  /// Calls `block` on the main queue for every notification of that name and that sender; null is
  /// any. It is called until the result is destroyed or handed to `removeObserver`.
  [[nodiscard]] std::shared_ptr<NSNotificationObservation> addObserverForName_object_usingBlock(
      std::optional<std::string> name, std::optional<std::string> object,
      std::function<void(const NSDistributedNotification&)> block);

  /// No call begins any more. Null does nothing.
  void removeObserver(const std::shared_ptr<NSNotificationObservation>& observation);

  /// Returns at once; the observers are called later.
  void postNotificationName_object_userInfo(std::string name, std::optional<std::string> object,
                                            NSNotificationUserInfo userInfo);

 private:
  class Bus;

  std::shared_ptr<ObserverList<NSDistributedNotification>> observers_;
  std::shared_ptr<Bus> bus_;
};

}  // namespace quillmere

#endif
