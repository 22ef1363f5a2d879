#ifndef QUILLMERE_CALENDARS_KBTLOCALCALENDAR_H
#define QUILLMERE_CALENDARS_KBTLOCALCALENDAR_H

#include <quillmere/calendars/KBTSynchingCalendar.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSKeyValueObserving.h>
#include <quillmere/platform/events/EKEventStore.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmere {

struct NSDistributedNotification;

/// One calendar of the user's event store (`EKEventStore`). The unique name of an object is its
/// event's external identifier. The name of an occurrence of a recurring event is that identifier,
/// a colon and the date of the occurrence. The version string is the date of the event's last
/// change. Operations are done when they return.
///
/// A process has one store, which is made on first use. That first use runs the main loop until two
/// access requests are answered, so it belongs on the main thread. If access is refused, there are
/// no calendars and no events.
///
/// What a host should know (all intended):
///
/// - A fetch reports every occurrence of a recurring event as new, and at the end of the same
///   fetch as deleted. The next fetch does the same.
/// - A calendar that has saved once drops every further change. Make another one.
/// - Saving an event removes its alarms. It writes only title, notes, start, end and the all-day
///   flag.
/// - A save writes a new event for an object whose name no event has, or more than one. The new
///   event has an identifier of its own (`setUniqueName_forObject`). The deletion of such an object
///   is skipped silently.
/// - A save completes even if some events could not be written.
/// - A check finds no changes. Fetch when "localCalendars" or the store changes.
class QUILLMERE_EXPORT KBTLocalCalendar : public KBTSynchingCalendar {
 public:
  /// Null when the store has no calendar of that identifier.
  static std::shared_ptr<KBTLocalCalendar> initWithCalendarIdentifier(std::string identifier);
  /// Without an identifier there is no calendar.
  static std::shared_ptr<KBTSynchingCalendar> init() = delete;

  const std::string& calendarIdentifier() const { return calendarIdentifier_; }
  /// The title that the store's calendar had when this one was made. A later one is that of the
  /// calendar in `localCalendars`.
  std::optional<std::string> calendarName() const override;
  /// Whether the other has the same identifier.
  bool isEqualToCalendar(const KBTSynchingCalendar& other) const override;

  /// Reads the events between the delegate's dates. A null date means 1 January 1, or
  /// 31 December 9999. Reports nothing if the store cannot be read. Never has an error.
  void fetchExternalChanges() override;

  /// Writes the insertions and updates, then removes the deletions. Each is committed by itself. Of
  /// a recurring event it writes this and all later occurrences, but removes only this one.
  void saveChanges() override;

  // Of the process.

  /// The process's store. It is ready when this returns.
  static std::shared_ptr<EKEventStore> eventStore();
  /// The store's calendars. They are read on first use, and again after each
  /// `EKEventStoreChangedNotification` that is handled while no local calendar is saving.
  static std::vector<std::shared_ptr<EKCalendar>> localCalendars();
  /// Calls the handler after each change of "localCalendars", as long as the result lives.
  [[nodiscard]] static std::shared_ptr<NSKeyValueObservation> observeKey_changeHandler(
      std::string key, std::function<void()> handler);
  /// Whether any local calendar is in `saveChanges()` now. (`isSaving()` speaks of one calendar.)
  static bool isSavingAnyCalendar();

 protected:
  explicit KBTLocalCalendar(std::string identifier);

  std::shared_ptr<EKCalendar> _externalCalendar() const;
  void _fullExternalChanges();
  /// Does nothing (intended): every fetch is a full one.
  void _notifiedExternalChanges() {}
  void _checkEKEvent(const std::shared_ptr<EKEvent>& event);
  void _writeEventForEventIdentifier(const std::string& name);

  static void _refetchLocalCalendars();
  static void _eventStoreChanged();
  /// A sandboxed process announces the folder inside its container. This announces the calendars'
  /// true folder after it.
  static void _calStoreDidChange(const NSDistributedNotification& notification);

 private:
  struct Process;
  class Saving;
  static Process& process();
  void removeEventNamed(const std::string& name);
  KBTClientObject objectNamed(const std::string& name);

  std::string calendarIdentifier_;
  mutable std::shared_ptr<EKCalendar> externalCalendar_;
};

}  // namespace quillmere

#endif
