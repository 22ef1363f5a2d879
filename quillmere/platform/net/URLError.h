#ifndef QUILLMERE_PLATFORM_NET_URLERROR_H
#define QUILLMERE_PLATFORM_NET_URLERROR_H

#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/net/NSURL.h>
#include <quillmere/platform/net/NSURLSession.h>

#include <optional>
#include <string_view>

// Internal.
namespace quillmere {

/// A transport error with a text for people, which `detail` ends in parentheses, and the URL.
NSErrorPtr urlError(NSURLErrorCode code, const std::optional<NSURL>& url,
                    std::string_view detail = {});

}  // namespace quillmere

#endif
