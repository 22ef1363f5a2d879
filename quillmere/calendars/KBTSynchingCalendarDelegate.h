#ifndef QUILLMERE_CALENDARS_KBTSYNCHINGCALENDARDELEGATE_H
#define QUILLMERE_CALENDARS_KBTSYNCHINGCALENDARDELEGATE_H

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/ical/KBTICSDataSource.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/net/NSURLAuthenticationChallenge.h>

#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace quillmere {

class KBTSynchingCalendar;

/// An object of the host's own: an event, a to-do, anything. Calendars keep it and hand it back,
/// and never look inside; `std::static_pointer_cast` gives the host its own type again.
using KBTClientObject = std::shared_ptr<void>;

/// What a failed save was about: the object (null when the whole document failed), or its unique
/// name where the calendar tells that instead (CalDAV).
using KBTFailedObject = std::variant<KBTClientObject, std::string>;

/// What a host implements to use a synching calendar: it answers for its objects and hears every
/// outcome.
///
/// Every callback names its calendar first. A host may call any operation of the calendar from any
/// callback, and may let go of the calendar there. References to texts, readers and errors are good
/// during the call; readers and errors may be kept by copying the pointer.
class KBTSynchingCalendarDelegate {
 public:
  virtual ~KBTSynchingCalendarDelegate() = default;

  // What the host tells about its objects.

  /// The object's unique name. An object without one (null) is not recorded.
  virtual std::optional<std::string> synchingCalendar_uniqueNameForObject(
      KBTSynchingCalendar& calendar, const KBTClientObject& object) = 0;

  /// The store gave a saved object its identity (the desktop's event store).
  virtual void synchingCalendar_setUniqueName_forObject(KBTSynchingCalendar& calendar,
                                                        const std::string& uniqueName,
                                                        const KBTClientObject& object) = 0;

  /// The version string that came with the object's last callback. Null counts as different from
  /// every version.
  virtual std::optional<std::string> synchingCalendar_versionStringForObject(
      KBTSynchingCalendar& calendar, const KBTClientObject& object) = 0;

  /// The object's text, to be written. For a calendar in a document (a file, a URL) that is its
  /// component, "BEGIN:VEVENT" to "END:VEVENT", and null or empty contributes nothing: so a host
  /// leaves out what it has deleted. For a CalDAV calendar it is the whole resource, a "VCALENDAR"
  /// with the component and its time zones. The desktop's event store takes a writer
  /// (`KBTMutableCalObject`) and asks it for values.
  virtual std::shared_ptr<KBTICSDataSource> synchingCalendar_icsDataForObject(
      KBTSynchingCalendar& calendar, const KBTClientObject& object) = 0;

  /// Start and end of the range that ranged stores are asked for (CalDAV, the desktop's event
  /// store).
  virtual std::optional<NSDate> synchingCalendarEarliestDate(KBTSynchingCalendar& calendar) = 0;
  virtual std::optional<NSDate> synchingCalendarLatestDate(KBTSynchingCalendar& calendar) = 0;

  // A fetch: one began, then items and deletions, then one completed, which is the last callback. A
  // fetch that needs no reading sends completed alone.

  virtual void synchingCalendarBeganFetchExternalChanges(KBTSynchingCalendar& calendar) = 0;

  /// The store holds an item that the calendar does not know. The result is kept under the name;
  /// null declines the item.
  ///
  /// `data` is a reader before its first line. Of a calendar in a document it reads the item's
  /// component from its "BEGIN" line, whose value tells "VEVENT" from "VTODO", to the first "END":
  /// so of a component that holds another (an alarm) only a part. Where a document has an "END"
  /// without a "BEGIN" it has no lines, or is the reader handed over before. Of a CalDAV calendar it
  /// reads the whole resource, from "BEGIN:VCALENDAR" on: take no line for the event's that stands in
  /// a time zone before it or in an alarm inside.
  virtual KBTClientObject synchingCalendar_newObjectNamed_versionString_data(
      KBTSynchingCalendar& calendar, const std::string& uniqueName,
      const std::string& versionString, const std::shared_ptr<KBTCalObject>& data) = 0;

  /// The store holds another version of a known object.
  virtual void synchingCalendar_updateForObject_versionString_data(
      KBTSynchingCalendar& calendar, const KBTClientObject& object,
      const std::string& versionString, const std::shared_ptr<KBTCalObject>& data) = 0;

  /// The store no longer holds a known object; the calendar forgets it right after the call.
  virtual void synchingCalendar_deletionForObject(KBTSynchingCalendar& calendar,
                                                  const KBTClientObject& object) = 0;

  /// Once per fetch, last. A null error means success.
  virtual void synchingCalendarCompletedFetchExternalChanges_withError(
      KBTSynchingCalendar& calendar, const NSErrorPtr& error) = 0;

  // A check.

  /// Once per check: whether the store has changed since the last fetch.
  virtual void synchingCalendarCompletedCheckForExternalChanges_changes(
      KBTSynchingCalendar& calendar, bool changes) = 0;

  // A save. The first three come from stores that save object by object (CalDAV).

  virtual void synchingCalendar_didInsert_versionString(KBTSynchingCalendar& calendar,
                                                        const KBTClientObject& object,
                                                        const std::string& versionString) = 0;
  virtual void synchingCalendar_didUpdate_versionString(KBTSynchingCalendar& calendar,
                                                        const KBTClientObject& object,
                                                        const std::string& versionString) = 0;
  virtual void synchingCalendar_didDelete(KBTSynchingCalendar& calendar,
                                          const KBTClientObject& object) = 0;

  /// Writing an object, or the whole document, failed; the pending changes are kept. File calendars
  /// never send it.
  virtual void synchingCalendar_failedSavingObject_withError(KBTSynchingCalendar& calendar,
                                                             const KBTFailedObject& object,
                                                             const NSErrorPtr& error) = 0;

  /// Once per save; calendars behind a URL that tell no entity tag never send it.
  virtual void synchingCalendarCompletedSave(KBTSynchingCalendar& calendar) = 0;

  // The one optional callback.

  /// A subscription's server asks who is there. Whoever implements this calls `completionHandler`
  /// once, now or later. By default the request goes on without a credential.
  virtual void synchingCalendar_didReceiveChallenge_completionHandler(
      KBTSynchingCalendar& calendar, const std::shared_ptr<NSURLAuthenticationChallenge>& challenge,
      const NSURLSessionChallengeCompletionHandler& completionHandler);
};

}  // namespace quillmere

#endif
