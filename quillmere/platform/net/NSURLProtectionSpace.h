#ifndef QUILLMERE_PLATFORM_NET_NSURLPROTECTIONSPACE_H
#define QUILLMERE_PLATFORM_NET_NSURLPROTECTIONSPACE_H

#include <quillmere/platform/base/Export.h>

#include <cstdint>
#include <optional>
#include <string>

namespace quillmere {

// The authentication methods. Sessions raise Basic, Digest, NTLM and Negotiate.
inline constexpr const char* NSURLAuthenticationMethodDefault = "NSURLAuthenticationMethodDefault";
inline constexpr const char* NSURLAuthenticationMethodHTTPBasic =
    "NSURLAuthenticationMethodHTTPBasic";
inline constexpr const char* NSURLAuthenticationMethodHTTPDigest =
    "NSURLAuthenticationMethodHTTPDigest";
inline constexpr const char* NSURLAuthenticationMethodHTMLForm =
    "NSURLAuthenticationMethodHTMLForm";
inline constexpr const char* NSURLAuthenticationMethodNTLM = "NSURLAuthenticationMethodNTLM";
inline constexpr const char* NSURLAuthenticationMethodNegotiate =
    "NSURLAuthenticationMethodNegotiate";
inline constexpr const char* NSURLAuthenticationMethodClientCertificate =
    "NSURLAuthenticationMethodClientCertificate";
inline constexpr const char* NSURLAuthenticationMethodServerTrust =
    "NSURLAuthenticationMethodServerTrust";

/// What asks for a credential: a server's realm (RFC 9110 section 11.5), or a proxy. A value.
class QUILLMERE_EXPORT NSURLProtectionSpace {
 public:
  /// `protocol` is "http" or "https"; a realm that is not UTF-8 is none.
  static NSURLProtectionSpace initWithHost_port_protocol_realm_authenticationMethod(
      std::string host, std::uint16_t port, std::string protocol, std::optional<std::string> realm,
      std::string authenticationMethod);
  /// The same for a proxy, for hosts that talk to proxies themselves; `type` is its protocol.
  static NSURLProtectionSpace initWithProxyHost_port_type_realm_authenticationMethod(
      std::string host, std::uint16_t port, std::string type, std::optional<std::string> realm,
      std::string authenticationMethod);

  const std::string& host() const { return host_; }
  std::uint16_t port() const { return port_; }
  const std::string& protocol() const { return protocol_; }
  /// The realm's name for people; null when the server gave none.
  const std::optional<std::string>& realm() const { return realm_; }
  /// One of the constants above.
  const std::string& authenticationMethod() const { return authenticationMethod_; }
  bool isProxy() const { return isProxy_; }

  friend bool operator==(const NSURLProtectionSpace&, const NSURLProtectionSpace&) = default;

 private:
  NSURLProtectionSpace(std::string host, std::uint16_t port, std::string protocol,
                       std::optional<std::string> realm, std::string authenticationMethod,
                       bool isProxy);

  std::string host_;
  std::uint16_t port_;
  std::string protocol_;
  std::optional<std::string> realm_;
  std::string authenticationMethod_;
  bool isProxy_;
};

}  // namespace quillmere

#endif
