#ifndef QUILLMERE_PLATFORM_BASE_MODIFICATIONDATE_H
#define QUILLMERE_PLATFORM_BASE_MODIFICATIONDATE_H

#include <quillmere/platform/dates/NSDate.h>
#include <sys/stat.h>

// Internal.
namespace quillmere {

/// When a file was last modified, cut as `NSFileManager::modificationDateOfItemAtPath` says.
NSDate modificationDateOf(const struct stat& status);

}  // namespace quillmere

#endif
