#ifndef QUILLMERE_PLATFORM_NET_AUTHENTICATEHEADER_H
#define QUILLMERE_PLATFORM_NET_AUTHENTICATEHEADER_H

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Internal: what a server's WWW-Authenticate or Proxy-Authenticate fields offer.
namespace quillmere {

/// One challenge of a field (RFC 9110 section 11.3): a scheme with parameters, or with a token68.
struct AuthenticateChallenge {
  std::string scheme;                             ///< lower case
  std::map<std::string, std::string> parameters;  ///< names in lower case, values without quotes
  std::optional<std::string> token68;

  /// Null when there is no such parameter. `name` is in lower case.
  std::optional<std::string> parameter(const std::string& name) const;

  /// Whether a quality of protection, such as "auth", is in the list of Digest's qop parameter.
  bool offersQuality(std::string_view quality) const;

  /// The `NSURLAuthenticationMethod...` of the scheme; null where sessions cannot raise it: another
  /// scheme, or a Digest of another kind than `authorizationFor` knows.
  const char* authenticationMethod() const;
};

/// The challenges in the value of one such field, or in those of several joined by commas, in their
/// order. Malformed parts are skipped up to the next comma; of parameters of one name the last
/// counts.
std::vector<AuthenticateChallenge> parseAuthenticateHeader(std::string_view value);

/// The challenge to raise: Digest, else Basic, else NTLM, else Negotiate; null when there is none
/// of them. Of several of one scheme the first that can be answered.
const AuthenticateChallenge* challengeToRaise(const std::vector<AuthenticateChallenge>& challenges);

/// Whether a server asks for Digest and gives no nonce to answer with, as some do once somebody has
/// logged in over the connection: on that one there is no way to do so again.
bool isDeadEnd(const std::vector<AuthenticateChallenge>& challenges);

}  // namespace quillmere

#endif
