#ifndef QUILLMERE_RECURRENCE_RULEERRORS_H
#define QUILLMERE_RECURRENCE_RULEERRORS_H

#include <quillmere/platform/base/KSDiagnostics.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/recurrence/KBTCalRepetition.h>

#include <string>
#include <string_view>
#include <vector>

// Internal: the errors of recurrence rules.
namespace quillmere {

/// Stores the error with that text, already localized, in the caller's out-argument. Always false,
/// so that a step can end with it.
bool refuse(NSErrorPtr* error, KBTCalRepetitionErrorCode code, std::string description,
            NSErrorUserInfo moreUserInfo = {},
            KSSourceLocation location = KSSourceLocation::current());

/// A numbered weekday in a rule that may not have one; `weekdays` is how the rule gave them.
bool refuseNumberedWeekday(NSErrorPtr* error, std::string_view weekdays,
                           KSSourceLocation location = KSSourceLocation::current());

/// Set positions in a rule that may not have them; `positions` is how the rule gave them.
bool refuseSetPositions(NSErrorPtr* error, std::string_view positions,
                        KSSourceLocation location = KSSourceLocation::current());

/// An array in the property-list style of descriptions: in parentheses, each element on a line of
/// its own.
std::string arrayDescription(const std::vector<std::string>& elements);

}  // namespace quillmere

#endif
