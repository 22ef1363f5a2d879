#ifndef QUILLMERE_CALENDARS_KBTDATACALENDAR_H
#define QUILLMERE_CALENDARS_KBTDATACALENDAR_H

#include <quillmere/calendars/KBTSynchingCalendar.h>

#include <memory>

namespace quillmere {

/// A calendar whose store is one iCalendar document, read and written in one piece.
///
/// A fetch reports every VEVENT and VTODO under its UID, with its DTSTAMP text as version. Of
/// several items with one UID (the instances of a recurring event that differ, for example) only
/// the first is reported. An X-WR-CALNAME names the calendar. An object that was inserted and not
/// yet saved is not in the document, so a fetch reports it as deleted.
///
/// Lines are taken as they come: what an item lacks it takes over from the items before it, and an
/// alarm's UID or DTSTAMP counts as the item's. `docs/file-calendars.md` has all rules.
///
/// A save writes every known object, also one whose deletion is pending: a delegate that wants it
/// gone answers no data for it. Only what the delegate answers is written; anything else that stood
/// in the document (zones, journals, other properties of the calendar) is not.
///
/// The document comes from and goes to two hooks, which subclasses fill. By itself this class reads
/// nothing and writes nowhere.
class KBTDataCalendar : public KBTSynchingCalendar {
 public:
  static std::shared_ptr<KBTDataCalendar> init();

  void fetchExternalChanges() override;
  void saveChanges() override;

 protected:
  KBTDataCalendar() = default;

  /// A reader before the document's first line, or null: then every known object counts as gone.
  virtual std::shared_ptr<KBTCalObject> _getCalendarData();

  /// Writes the document, and calls `_wroteCalendarData` when that has ended, now or later.
  virtual void _writeCalendarData(const NSData& document);

  /// Ends a save. Null: it succeeded. An error: the delegate is told, and the changes stay pending.
  void _wroteCalendarData(const NSErrorPtr& error);

 private:
  struct Fetch;
  void visitLine(KBTCalObject& reader, Fetch& fetch);
  void finishItem(Fetch& fetch);
  void reportDeletions(const Fetch& fetch);
};

}  // namespace quillmere

#endif
