#include <quillmere/platform/base/ByteScan.h>
#include <quillmere/platform/base/UTF8.h>
#include <utf8.h>

namespace quillmere {

bool isValidUTF8(std::string_view bytes) {
  const char* const end = bytes.data() + bytes.size();
  if (!scan::any(bytes.data(), end, [](auto block) { return block.nonASCII(); })) return true;
  return utf8::is_valid(findNonASCII(bytes.data(), end), end);
}

}  // namespace quillmere
