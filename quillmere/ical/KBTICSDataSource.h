#ifndef QUILLMERE_ICAL_KBTICSDATASOURCE_H
#define QUILLMERE_ICAL_KBTICSDATASOURCE_H

#include <quillmere/platform/base/NSData.h>

namespace quillmere {

/// Anything that answers the text of one iCalendar component. Calendars ask their delegate for one
/// per object when they save; readers and writers are such sources, and a host may have its own.
class KBTICSDataSource {
 public:
  virtual ~KBTICSDataSource() = default;

  /// The text in UTF-8, from "BEGIN" through the line ending of "END", which is written as it is: a
  /// component, or a whole document where each object has one of its own (CalDAV).
  virtual NSData icsData() = 0;
};

}  // namespace quillmere

#endif
