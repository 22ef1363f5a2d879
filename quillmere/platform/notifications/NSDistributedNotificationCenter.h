#ifndef QUILLMERE_PLATFORM_NOTIFICATIONS_NSDISTRIBUTEDNOTIFICATIONCENTER_H
#define QUILLMERE_PLATFORM_NOTIFICATIONS_NSDISTRIBUTEDNOTIFICATIONCENTER_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/notifications/NSNotificationCenter.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace quillmere {

/// One message between processes. Its object, the sender, is a text.
struct QUILLMERE_EXPORT NSDistributedNotification {
  std::string name;
  std::optional<std::string> object;
  NSNotificationUserInfo userInfo;
};

/// Brings notifications to every process of the user's session that observes them, including the
/// sender's own. They travel over the session's D-Bus, whose address is in
/// `DBUS_SESSION_BUS_ADDRESS`. The center serves this process alone if there is no bus, or after
/// the bus has gone away. Every notification tries again to reach a bus that was lost. Any thread
/// may use the center.
///
/// The center sends and receives while the main loop runs, and never waits for the bus. The
/// process's own observers do not depend on it. Other processes get what is posted while the center
/// is still connecting (at most 1,000 notifications) once the bus has answered, or not at all if it
/// refuses.
///
/// Name, object and user info arrive as they were sent, byte for byte.
class QUILLMERE_EXPORT NSDistributedNotificationCenter {
 public:
  /// The same center every time.
  static NSDistributedNotificationCenter& defaultCenter();

  NSDistributedNotificationCenter();
  NSDistributedNotificationCenter(const NSDistributedNotificationCenter&) = delete;
  NSDistributedNotificationCenter& operator=(const NSDistributedNotificationCenter&) = delete;
  ~NSDistributedNotificationCenter();

  /// Calls `block` on the main queue for every notification of that name and that sender. Null
  /// stands for any. The calls end when the result is destroyed or handed to `removeObserver`.
  [[nodiscard]] std::shared_ptr<NSNotificationObservation> addObserverForName_object_usingBlock(
      std::optional<std::string> name, std::optional<std::string> object,
      std::function<void(const NSDistributedNotification&)> block);

  /// No call of the block begins after this. Null does nothing.
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
