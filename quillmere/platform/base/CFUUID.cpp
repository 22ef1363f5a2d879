#include <glib.h>
#include <quillmere/platform/base/CFUUID.h>

#include <memory>

namespace quillmere {

std::string CFUUIDCreateString() {
  const std::unique_ptr<char, decltype(&g_free)> lower(g_uuid_string_random(), &g_free);
  const std::unique_ptr<char, decltype(&g_free)> upper(g_ascii_strup(lower.get(), -1), &g_free);
  return upper.get();
}

}  // namespace quillmere
