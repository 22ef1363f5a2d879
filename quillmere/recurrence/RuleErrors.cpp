#include <quillmere/platform/base/KSStringTable.h>
#include <quillmere/recurrence/RuleErrors.h>

#include <utility>

namespace quillmere {

bool refuse(NSErrorPtr* error, KBTCalRepetitionErrorCode code, std::string description,
            NSErrorUserInfo moreUserInfo, KSSourceLocation location) {
  moreUserInfo[NSLocalizedDescriptionKey] = std::move(description);
  KSWrapUnderlyingError(error, KBTErrorDomain, code, std::move(moreUserInfo), location);
  return false;
}

bool refuseNumberedWeekday(NSErrorPtr* error, std::string_view weekdays,
                           KSSourceLocation location) {
  return refuse(error, KBTWeekdayError,
                KSLocalizedString("BYDAY with numeric value \"%@\" is not supported with provided "
                                  "FREQ value.",
                                  weekdays),
                {}, location);
}

bool refuseSetPositions(NSErrorPtr* error, std::string_view positions, KSSourceLocation location) {
  return refuse(error, KBTSetPositionError,
                KSLocalizedString("BYSETPOS value \"%@\" only supported for MONTHLY rules with a "
                                  "corresponding BYDAY rule.",
                                  positions),
                {}, location);
}

std::string arrayDescription(const std::vector<std::string>& elements) {
  std::string text = "(\n";
  for (const std::string& element : elements) {
    text += "    " + element + (&element == &elements.back() ? "\n" : ",\n");
  }
  return text + ")";
}

}  // namespace quillmere
