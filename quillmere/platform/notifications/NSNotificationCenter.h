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

/// What a notification says beyond its name. Each key has text, bytes, a number or a truth value.
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

/// Keeps an observer registered as long as this object lives.
class QUILLMERE_EXPORT NSNotificationObservation {
 public:
  virtual ~NSNotificationObservation() = default;
};

/// Brings notifications from senders to observers of the same process, which need not know each
/// other. Any thread may use it.
class QUILLMERE_EXPORT NSNotificationCenter {
 public:
  /// The same center every time.
  static NSNotificationCenter& defaultCenter();

  NSNotificationCenter();
  NSNotificationCenter(const NSNotificationCenter&) = delete;
  NSNotificationCenter& operator=(const NSNotificationCenter&) = delete;
  ~NSNotificationCenter();

  /// Calls `block` for every notification of that name and that sender. Null stands for any. The
  /// center does not keep the sender alive, and nothing is heard of it once it is gone. The calls
  /// end when the result is destroyed or handed to `removeObserver`. The block may post, observe
  /// and remove.
  [[nodiscard]] std::shared_ptr<NSNotificationObservation> addObserverForName_object_usingBlock(
      std::optional<std::string> name, const std::shared_ptr<void>& object,
      std::function<void(const NSNotification&)> block);

  /// No call of the block begins after this. Null does nothing.
  void removeObserver(const std::shared_ptr<NSNotificationObservation>& observation);

  /// Calls the observers on this thread, in the order in which they were added. Returns after the
  /// last call.
  void postNotificationName_object_userInfo(std::string name, std::shared_ptr<void> object,
                                            NSNotificationUserInfo userInfo);

 private:
  std::unique_ptr<ObserverList<NSNotification>> observers_;
};

}  // namespace quillmere

#endif
