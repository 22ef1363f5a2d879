#ifndef QUILLMERE_ICAL_KBTICSDATASOURCE_H
#define QUILLMERE_ICAL_KBTICSDATASOURCE_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>

namespace quillmere {

/// Anything that has the text of one iCalendar component. A calendar that saves asks its delegate
/// for one such source per object. Readers and writers are sources, and a host may have its own.
class QUILLMERE_EXPORT KBTICSDataSource {
 public:
  virtual ~KBTICSDataSource() = default;

  /// The text in UTF-8, which is written as it is: a component, from "BEGIN" through the line
  /// ending of "END", or a whole document where each object has one of its own (CalDAV).
  virtual NSData icsData() = 0;
};

}  // namespace quillmere

#endif
