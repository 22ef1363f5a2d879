#ifndef QUILLMERE_ICAL_KBTCALOBJECTENTRY_H
#define QUILLMERE_ICAL_KBTCALOBJECTENTRY_H

#include <memory>

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/base/Export.h>

namespace quillmere {

/// A reader of one component: from its "BEGIN" line, which is the first line it returns, to the
/// first "END" line after that. It does not track nested components: an event with an alarm ends at
/// the alarm's "END" line, and the lines after that are not part of the entry.
class QUILLMERE_EXPORT KBTCalObjectEntry : public KBTCalObject {
 public:
  /// A reader over `data`, before the line at `startPtr`. Requires: `startPtr` points at the first
  /// byte of a line in `data`, or at its end.
  static std::shared_ptr<KBTCalObjectEntry> initWithData_startPtr(NSData data,
                                                                  const char* startPtr);

  /// Goes back before the "BEGIN" line.
  void reset() override;

  /// True once the "END" line was returned, or a line was asked for after the last one. This is a
  /// state and not a position: an entry before its last line is not at its end, even if that line
  /// is all there is.
  bool isAtEnd() const override;

  bool nextLine() override;

  /// A copy of the component's text, from "BEGIN" through the line ending of the "END" line. This
  /// reads to the end; call `reset()` before you read again.
  NSData icsData() override;

 protected:
  KBTCalObjectEntry(NSData data, const char* startPtr);

 private:
  const char* startPtr_;
  bool hitEnd_ = false;
};

}  // namespace quillmere

#endif
