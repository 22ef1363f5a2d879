#ifndef QUILLMERE_PLATFORM_BASE_CFUUID_H
#define QUILLMERE_PLATFORM_BASE_CFUUID_H

#include <quillmere/platform/base/Export.h>

#include <string>

namespace quillmere {

/// A new random UUID (RFC 4122 version 4) in its usual form of 36 characters, upper case.
QUILLMERE_EXPORT std::string CFUUIDCreateString();

}  // namespace quillmere

#endif
