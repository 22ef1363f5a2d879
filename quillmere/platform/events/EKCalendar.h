#ifndef QUILLMERE_PLATFORM_EVENTS_EKCALENDAR_H
#define QUILLMERE_PLATFORM_EVENTS_EKCALENDAR_H

#include <quillmere/platform/base/Export.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace quillmere {

/// What a calendar holds. The stores here hold events only.
enum class EKEntityType : std::uint8_t { event = 0, reminder = 1 };

/// A calendar of an event store, as it was when the store was asked for it.
class QUILLMERE_EXPORT EKCalendar {
 public:
  /// A new calendar of events, without title, which the store does not know yet:
  /// `EKEventStore::saveCalendar_commit_error` adds it.
  static std::shared_ptr<EKCalendar> calendar();

  /// The store's own name for it, which never changes.
  const std::string& calendarIdentifier() const { return identifier_; }

  /// The name for people; may be null.
  const std::optional<std::string>& title() const { return title_; }
  void setTitle(std::optional<std::string> title) { title_ = std::move(title); }

 protected:
  EKCalendar(std::string identifier, std::optional<std::string> title)
      : identifier_(std::move(identifier)), title_(std::move(title)) {}

 private:
  friend class EKEventStore;
  std::string identifier_;
  std::optional<std::string> title_;
};

}  // namespace quillmere

#endif
