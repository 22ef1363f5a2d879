#ifndef QUILLMERE_PLATFORM_BASE_UTF8_H
#define QUILLMERE_PLATFORM_BASE_UTF8_H

#include <string_view>

namespace quillmere {

/// True when `bytes` are well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates, nothing
/// above U+10FFFF). ASCII, the common case, is told at vector speed.
bool isValidUTF8(std::string_view bytes);

/// Whether two texts are the same but for case (Unicode's full case folding). Bytes
/// that are not UTF-8 are only like themselves.
bool equalCaseFolded(std::string_view a, std::string_view b);

}  // namespace quillmere

#endif
