#include <glib.h>
#include <quillmere/platform/base/ByteScan.h>
#include <quillmere/platform/base/UTF8.h>
#include <utf8.h>

#include <memory>
#include <string>

namespace quillmere {
namespace {

std::string caseFolded(std::string_view text) {
  const std::unique_ptr<char, decltype(&g_free)> folded(
      g_utf8_casefold(text.data(), static_cast<gssize>(text.size())), &g_free);
  return folded.get();
}

}  // namespace

bool isValidUTF8(std::string_view bytes) {
  const char* const end = bytes.data() + bytes.size();
  if (!scan::any(bytes.data(), end, [](auto block) { return block.nonASCII(); })) return true;
  return utf8::is_valid(findNonASCII(bytes.data(), end), end);
}

bool equalCaseFolded(std::string_view a, std::string_view b) {
  if (!isValidUTF8(a) || !isValidUTF8(b)) return a == b;
  return caseFolded(a) == caseFolded(b);
}

}  // namespace quillmere
