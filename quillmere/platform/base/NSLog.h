#ifndef QUILLMERE_PLATFORM_BASE_NSLOG_H
#define QUILLMERE_PLATFORM_BASE_NSLOG_H

#include <string>

// Internal: the platform's log.
namespace quillmere {

/// Writes a text to GLib's log, domain "Quillmere", level message.
void NSLog(const std::string& text);

}  // namespace quillmere

#endif
