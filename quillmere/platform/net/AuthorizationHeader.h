#ifndef QUILLMERE_PLATFORM_NET_AUTHORIZATIONHEADER_H
#define QUILLMERE_PLATFORM_NET_AUTHORIZATIONHEADER_H

#include <quillmere/platform/net/AuthenticateHeader.h>
#include <quillmere/platform/net/NSURLCredential.h>
#include <quillmere/platform/net/NSURLRequest.h>

#include <string>

// Internal: the answer to a challenge. libcurl would make it as well, but keeps the first nonce
// that a handle was shown, and so cannot answer one that has become stale without trying the old
// one.
namespace quillmere {

/// The value of Authorization for a request, by Basic (RFC 7617) or Digest (RFC 7616: MD5 and
/// SHA-256, their session variants, with qop "auth", "auth-int" or none), whose `cnonce` must be
/// a new random text. Every challenge is answered once, so the nonce count is 1.
std::string authorizationFor(const AuthenticateChallenge& challenge,
                             const NSURLCredential& credential, const NSURLRequest& request,
                             const std::string& cnonce);

}  // namespace quillmere

#endif
