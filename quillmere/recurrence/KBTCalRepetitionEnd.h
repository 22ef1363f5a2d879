#ifndef QUILLMERE_RECURRENCE_KBTCALREPETITIONEND_H
#define QUILLMERE_RECURRENCE_KBTCALREPETITIONEND_H

#include <memory>

namespace quillmere {

/// An end of a series, for initializers that do not support one: it is the type of an argument that
/// must be null, and none can be made. A rule gets its end by `KBTCalRepetition::setEndDate` or
/// `setRecurrenceCount`.
class KBTCalRepetitionEnd {
 public:
  /// Stops the process (`KSRejectUnusedImplementation`).
  [[noreturn]] static std::shared_ptr<KBTCalRepetitionEnd> init();

  KBTCalRepetitionEnd() = delete;
};

}  // namespace quillmere

#endif
