#ifndef QUILLMERE_CALENDARS_KBTDATACALENDAR_H
#define QUILLMERE_CALENDARS_KBTDATACALENDAR_H

#include <quillmere/calendars/KBTSynchingCalendar.h>
#include <quillmere/platform/base/Export.h>

#include <memory>

namespace quillmere {

/// A calendar whose store is one iCalendar document (RFC 5545), read and written in one piece.
///
/// A fetch reports every VEVENT and VTODO under its UID, with the text of its DTSTAMP as version.
/// Of several items with one UID, such as the changed instances of a recurring event, it reports
/// only the first. An X-WR-CALNAME names the calendar. Nesting does not count: what an item lacks
/// it takes over from the items before it, and an alarm's UID or DTSTAMP counts as the item's.
///
/// A save writes every known object, also one whose deletion is pending: the delegate answers no
/// data for what it wants gone. Only what the delegate answers is written; zones, journals and
/// other properties of the old document are not.
///
/// The document comes from one hook and goes to another; subclasses fill them. This class itself
/// reads nothing and writes nowhere. docs/behaviours.md lists what may surprise you.
class QUILLMERE_EXPORT KBTDataCalendar : public KBTSynchingCalendar {
 public:
  /// A calendar without hooks. A subclass would inherit it and get an object that is none of its own,
  /// so it deletes this one, as the library's do, or declares another.
  static std::shared_ptr<KBTDataCalendar> init();

  void fetchExternalChanges() override;
  void saveChanges() override;

 protected:
  KBTDataCalendar() = default;

  /// A reader before the document's first line. Null: there is no document, and every known object
  /// counts as gone.
  virtual std::shared_ptr<KBTCalObject> _getCalendarData();

  /// Writes the document, and calls `_wroteCalendarData` when that is done, now or later.
  virtual void _writeCalendarData(const NSData& document);

  /// Ends a save. Null means success. An error is told to the delegate, and the changes stay
  /// pending.
  void _wroteCalendarData(const NSErrorPtr& error);

 private:
  struct Fetch;
  void visitLine(KBTCalObject& reader, Fetch& fetch);
  void finishItem(Fetch& fetch);
  void reportDeletions(const Fetch& fetch);
};

}  // namespace quillmere

#endif
