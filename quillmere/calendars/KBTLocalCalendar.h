#ifndef QUILLMERE_CALENDARS_KBTLOCALCALENDAR_H
#define QUILLMERE_CALENDARS_KBTLOCALCALENDAR_H

#include <quillmere/calendars/KBTSynchingCalendar.h>
#include <quillmere/platform/base/NSKeyValueObserving.h>
#include <quillmere/platform/events/EKEventStore.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmere {

struct NSDistributedNotification;

/// One calendar of the user's event store (`EKEventStore`): what the desktop's own calendar program
/// shows. The unique name of an object is its event's external identifier, and for an occurrence of
/// a recurring event that identifier, a colon and the date of the occurrence; the version string is
/// the date of the event's last change. Operations are done when they return.
///
/// The process has one store, made on first use, which waits for the answers to two access requests
/// while it runs the main loop: so that first use belongs to the main thread. Where access is
/// refused there are no calendars and no events.
///
/// What a host should know (all intended):
///
/// - Every occurrence of a recurring event is reported as new, and as deleted at the end of the
///   same fetch; and so again by the next one.
/// - A calendar saves once: after that it drops every further change. Make another one.
/// - Saving an event takes its alarms away. Only title, notes, start, end and the all-day flag are
///   written.
/// - An object of a name that no event or several have is written as a new event, which gets an
///   identifier of its own (`setUniqueName_forObject`); its deletion is passed over in silence.
/// - A save is completed also when some events could not be written.
/// - A check finds no changes. Fetch when "localCalendars" or the store changes.
class KBTLocalCalendar : public KBTSynchingCalendar {
 public:
  /// Null when the store has no calendar of that identifier.
  static std::shared_ptr<KBTLocalCalendar> initWithCalendarIdentifier(std::string identifier);
  /// Without an identifier there is no calendar.
  static std::shared_ptr<KBTSynchingCalendar> init() = delete;

  const std::string& calendarIdentifier() const { return calendarIdentifier_; }
  /// The title of the store's calendar.
  std::optional<std::string> calendarName() const override;
  /// Whether the other has the same identifier.
  bool isEqualToCalendar(const KBTSynchingCalendar& other) const override;

  /// Reads the events between the delegate's dates; from the beginning, or to the end, of time
  /// where one is null. Nothing is reported when the store cannot be read. Never has an error.
  void fetchExternalChanges() override;

  /// Writes the insertions and updates, then removes the deletions, each at once. Removing takes a
  /// single occurrence, writing this and those to come.
  void saveChanges() override;

  // Of the process.

  /// The store, which is ready when this returns.
  static std::shared_ptr<EKEventStore> eventStore();
  /// The store's calendars, read on first use and whenever the store has changed while no calendar
  /// was being saved.
  static std::vector<std::shared_ptr<EKCalendar>> localCalendars();
  /// Observes "localCalendars".
  [[nodiscard]] static std::shared_ptr<NSKeyValueObservation> observeKey_changeHandler(
      std::string key, std::function<void()> handler);
  /// Whether any local calendar is being saved. (`isSaving` is the one calendar's.)
  static bool isSavingAnyCalendar();

 protected:
  explicit KBTLocalCalendar(std::string identifier);

  std::shared_ptr<EKCalendar> _externalCalendar() const;
  void _fullExternalChanges();
  /// Does nothing, intended: every fetch is a full one.
  void _notifiedExternalChanges() {}
  void _checkEKEvent(const std::shared_ptr<EKEvent>& event);
  void _writeEventForEventIdentifier(const std::string& name);

  static void _refetchLocalCalendars();
  static void _eventStoreChanged();
  /// Announces the calendars' true folder once more where a sandboxed process has announced the one
  /// in its container.
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
