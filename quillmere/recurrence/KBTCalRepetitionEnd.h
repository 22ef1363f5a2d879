#ifndef QUILLMERE_RECURRENCE_KBTCALREPETITIONEND_H
#define QUILLMERE_RECURRENCE_KBTCALREPETITIONEND_H

#include <quillmere/platform/base/Export.h>

#include <memory>

namespace quillmere {

/// The type of an initializer's argument that must be null: no rule supports an end of this kind,
/// and none can be made. A rule gets its end by `KBTCalRepetition::setEndDate` or
/// `setRecurrenceCount`.
class QUILLMERE_EXPORT KBTCalRepetitionEnd {
 public:
  /// Stops the process (`KSRejectUnusedImplementation`).
  [[noreturn]] static std::shared_ptr<KBTCalRepetitionEnd> init();

  KBTCalRepetitionEnd() = delete;
};

}  // namespace quillmere

#endif
