#ifndef QUILLMERE_ICAL_FOLDEDLINE_H
#define QUILLMERE_ICAL_FOLDEDLINE_H

#include <string>
#include <string_view>

namespace quillmere {

/// Appends one content line: `key`, ":", `value` escaped and folded, and CR LF. Internal;
/// `KBTMutableCalObject` tells the rules.
void appendFoldedLine(std::string& text, std::string_view key, std::string_view value);

}  // namespace quillmere

#endif
