#include "common/Printable.h"

#include <cstddef>

namespace examples {

std::string printable(std::string_view text) {
  constexpr std::string_view replacement = "\xEF\xBF\xBD";  // U+FFFD
  std::string result;
  int continuing = 0;  // how many bytes of a character are still to come
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0U;
    if (byte >= 0x80 && byte < 0xc0) {
      if (continuing > 0) {
        result += text[i];
        --continuing;
      } else {
        result += replacement;
      }
      continue;
    }
    continuing = 0;
    if (byte == '\n' || byte == '\t' || byte == '\r') {
      result += ' ';
    } else if (byte < ' ' || byte == 0x7f) {
      result += replacement;
    } else if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {  // U+0080 to U+009F
      result += replacement;
      ++i;
    } else {
      if (byte >= 0xc0) continuing = byte < 0xe0 ? 1 : byte < 0xf0 ? 2 : 3;
      result += text[i];
    }
  }
  return result;
}

}  // namespace examples
