#ifndef QUILLMERE_ICAL_FOLDEDVALUE_H
#define QUILLMERE_ICAL_FOLDEDVALUE_H

#include <string>
#include <string_view>

namespace quillmere {

/// Appends `value` escaped and folded, without a line ending. Internal; `KBTMutableCalObject` tells
/// the rules.
void appendEscapedAndFolded(std::string& text, std::string_view value);

}  // namespace quillmere

#endif
