#ifndef QUILLMERE_CALENDARS_KBTSYNCHINGCALENDARDELEGATE_H
#define QUILLMERE_CALENDARS_KBTSYNCHINGCALENDARDELEGATE_H

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/ical/KBTICSDataSource.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/net/NSURLAuthenticationChallenge.h>

#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace quillmere {

class KBTSynchingCalendar;

/// An object of the host: an event, a to-do, anything. Calendars keep it and hand it back, and
/// never look inside. `std::static_pointer_cast` gives the host its own type again.
using KBTClientObject = std::shared_ptr<void>;

/// What a failed save was about: the object (null when the whole document failed), or, from CalDAV
/// calendars, its unique name.
using KBTFailedObject = std::variant<KBTClientObject, std::string>;

/// A host implements this to use a calendar: it answers questions about its objects and hears all
/// results. Deriving from `KBTSynchingCalendarDelegateBase` leaves it only what it must implement.
///
/// Every callback names its calendar first. A host may call any operation of the calendar from any
/// callback, and may let go of the calendar there. References to texts, readers and errors are good
/// during the call; keep readers and errors by copying the pointer.
class QUILLMERE_EXPORT KBTSynchingCalendarDelegate {
 public:
  virtual ~KBTSynchingCalendarDelegate() = default;

  // What the host tells about its objects.

  /// The object's unique name. Null: a change of the object is not recorded.
  virtual std::optional<std::string> synchingCalendar_uniqueNameForObject(
      KBTSynchingCalendar& calendar, const KBTClientObject& object) = 0;

  /// The event store has given a saved object its name. Only local calendars send it.
  virtual void synchingCalendar_setUniqueName_forObject(KBTSynchingCalendar& calendar,
                                                        const std::string& uniqueName,
                                                        const KBTClientObject& object) = 0;

  /// The version string that came with the object's last callback. Null counts as different from
  /// every version.
  virtual std::optional<std::string> synchingCalendar_versionStringForObject(
      KBTSynchingCalendar& calendar, const KBTClientObject& object) = 0;

  /// The object's text, to be written. Its form depends on the calendar:
  ///
  /// - In a document (a file, a URL): the component, "BEGIN:VEVENT" to "END:VEVENT". Null or empty
  ///   text leaves the object out; so a host answers for what it has deleted.
  /// - On a CalDAV server: the whole resource, a "VCALENDAR" with the component and its time zones.
  /// - In the event store: a writer (`KBTMutableCalObject`), which the calendar asks for values.
  virtual std::shared_ptr<KBTICSDataSource> synchingCalendar_icsDataForObject(
      KBTSynchingCalendar& calendar, const KBTClientObject& object) = 0;

  /// Start and end of the range of time that CalDAV and local calendars ask their store for. Null:
  /// a CalDAV calendar asks for everything when either is null; a local calendar then begins with
  /// year 1 or ends with year 9999.
  virtual std::optional<NSDate> synchingCalendarEarliestDate(KBTSynchingCalendar& calendar) = 0;
  virtual std::optional<NSDate> synchingCalendarLatestDate(KBTSynchingCalendar& calendar) = 0;

  // A fetch: one began, then items and deletions, then one completed, which is the last callback. A
  // fetch that finds nothing to read sends completed alone.

  virtual void synchingCalendarBeganFetchExternalChanges(KBTSynchingCalendar& calendar) = 0;

  /// The store holds an item that the calendar does not know. The calendar keeps the result under
  /// the name; null declines the item.
  ///
  /// `data` is a reader before its first line, never null.
  ///
  /// - In a document it reads the item's component from its "BEGIN" line, whose value tells
  ///   "VEVENT" from "VTODO", to the first "END"; of a component with another one inside (an alarm)
  ///   that is only a part. When a document has an "END" without a "BEGIN", the reader has no
  ///   lines, or it is the one that was handed over before.
  /// - On a CalDAV server it reads the whole resource, from "BEGIN:VCALENDAR" on. Do not take a
  ///   line of a time zone or of an alarm for the event's.
  /// - In the event store it is a `KBTCalEventCalObject`.
  virtual KBTClientObject synchingCalendar_newObjectNamed_versionString_data(
      KBTSynchingCalendar& calendar, const std::string& uniqueName,
      const std::string& versionString, const std::shared_ptr<KBTCalObject>& data) = 0;

  /// The store holds another version of a known object. `data` is as above.
  virtual void synchingCalendar_updateForObject_versionString_data(
      KBTSynchingCalendar& calendar, const KBTClientObject& object,
      const std::string& versionString, const std::shared_ptr<KBTCalObject>& data) = 0;

  /// The store no longer holds a known object. The calendar forgets it right after the call.
  virtual void synchingCalendar_deletionForObject(KBTSynchingCalendar& calendar,
                                                  const KBTClientObject& object) = 0;

  /// Sent once per fetch, last. A null error means success.
  virtual void synchingCalendarCompletedFetchExternalChanges_withError(
      KBTSynchingCalendar& calendar, const NSErrorPtr& error) = 0;

  // A check.

  /// Sent once per check: whether the store has changed since the last fetch.
  virtual void synchingCalendarCompletedCheckForExternalChanges_changes(
      KBTSynchingCalendar& calendar, bool changes) = 0;

  // A save. CalDAV calendars, which save object by object, send the first three. Their object is
  // null for a name that the calendar does not know.

  virtual void synchingCalendar_didInsert_versionString(KBTSynchingCalendar& calendar,
                                                        const KBTClientObject& object,
                                                        const std::string& versionString) = 0;
  virtual void synchingCalendar_didUpdate_versionString(KBTSynchingCalendar& calendar,
                                                        const KBTClientObject& object,
                                                        const std::string& versionString) = 0;
  virtual void synchingCalendar_didDelete(KBTSynchingCalendar& calendar,
                                          const KBTClientObject& object) = 0;

  /// Writing an object or the whole document has failed; its changes stay pending (a local calendar
  /// forgets them). File calendars never send this.
  virtual void synchingCalendar_failedSavingObject_withError(KBTSynchingCalendar& calendar,
                                                             const KBTFailedObject& object,
                                                             const NSErrorPtr& error) = 0;

  /// Sent once per save, also after failures. Two saves end without it: of a calendar behind a URL,
  /// when the server tells no entity tag; and of a `KBTDataCalendar` of the host's own, when that
  /// reports an error to `_wroteCalendarData`.
  ///
  /// `resetChanges()` in a callback of a CalDAV calendar's save leaves the save nothing to wait for,
  /// so every answer that is still out ends it again. A success sends this once more, after another
  /// request for the tag. A failure sends it at once; failures after that are not told.
  virtual void synchingCalendarCompletedSave(KBTSynchingCalendar& calendar) = 0;

  // The one optional callback.

  /// A subscription's server asks who is there (RFC 9110 section 11). Whoever implements this calls
  /// `completionHandler` once, now or later. By default the request goes on without a credential.
  virtual void synchingCalendar_didReceiveChallenge_completionHandler(
      KBTSynchingCalendar& calendar, const std::shared_ptr<NSURLAuthenticationChallenge>& challenge,
      const NSURLSessionChallengeCompletionHandler& completionHandler);
};

/// A delegate that leaves a host only what it must implement: names, versions, new objects and their
/// texts, and how a fetch or a save has failed. It asks for no range of dates and hears nothing else.
///
/// A host that keeps what its objects say overrides `updateForObject` and `deletionForObject` as
/// well, and one that saves `didInsert` and `didUpdate`, which tell the new versions, or, for the
/// event store, `setUniqueName`.
class QUILLMERE_EXPORT KBTSynchingCalendarDelegateBase : public KBTSynchingCalendarDelegate {
 public:
  void synchingCalendar_setUniqueName_forObject(KBTSynchingCalendar&, const std::string&,
                                                const KBTClientObject&) override {}
  std::optional<NSDate> synchingCalendarEarliestDate(KBTSynchingCalendar&) override {
    return std::nullopt;
  }
  std::optional<NSDate> synchingCalendarLatestDate(KBTSynchingCalendar&) override {
    return std::nullopt;
  }
  void synchingCalendarBeganFetchExternalChanges(KBTSynchingCalendar&) override {}
  void synchingCalendar_updateForObject_versionString_data(
      KBTSynchingCalendar&, const KBTClientObject&, const std::string&,
      const std::shared_ptr<KBTCalObject>&) override {}
  void synchingCalendar_deletionForObject(KBTSynchingCalendar&, const KBTClientObject&) override {}
  void synchingCalendarCompletedCheckForExternalChanges_changes(KBTSynchingCalendar&,
                                                                bool) override {}
  void synchingCalendar_didInsert_versionString(KBTSynchingCalendar&, const KBTClientObject&,
                                                const std::string&) override {}
  void synchingCalendar_didUpdate_versionString(KBTSynchingCalendar&, const KBTClientObject&,
                                                const std::string&) override {}
  void synchingCalendar_didDelete(KBTSynchingCalendar&, const KBTClientObject&) override {}
  void synchingCalendarCompletedSave(KBTSynchingCalendar&) override {}
};

}  // namespace quillmere

#endif
