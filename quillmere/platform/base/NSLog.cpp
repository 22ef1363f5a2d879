#include <glib.h>
#include <quillmere/platform/base/NSLog.h>

namespace quillmere {

void NSLog(const std::string& text) { g_log("Quillmere", G_LOG_LEVEL_MESSAGE, "%s", text.c_str()); }

}  // namespace quillmere
