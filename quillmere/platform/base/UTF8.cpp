#include <quillmere/platform/base/ByteScan.h>
#include <quillmere/platform/base/UTF8.h>
#include <utf8.h>

namespace quillmere {

bool isValidUTF8(std::string_view bytes) {
  const char* end = bytes.data() + bytes.size();
  const char* nonASCII = findNonASCII(bytes.data(), end);
  return nonASCII == end || utf8::is_valid(nonASCII, end);
}

}  // namespace quillmere
