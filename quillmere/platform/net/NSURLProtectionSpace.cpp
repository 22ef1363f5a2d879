#include <quillmere/platform/base/UTF8.h>
#include <quillmere/platform/net/NSURLProtectionSpace.h>

#include <utility>

namespace quillmere {

NSURLProtectionSpace::NSURLProtectionSpace(std::string host, std::uint16_t port,
                                           std::string protocol, std::optional<std::string> realm,
                                           std::string authenticationMethod, bool isProxy)
    : host_(std::move(host)),
      port_(port),
      protocol_(std::move(protocol)),
      realm_(std::move(realm)),
      authenticationMethod_(std::move(authenticationMethod)),
      isProxy_(isProxy) {
  if (realm_ && !isValidUTF8(*realm_)) realm_.reset();
}

NSURLProtectionSpace NSURLProtectionSpace::initWithHost_port_protocol_realm_authenticationMethod(
    std::string host, std::uint16_t port, std::string protocol, std::optional<std::string> realm,
    std::string authenticationMethod) {
  return {std::move(host),
          port,
          std::move(protocol),
          std::move(realm),
          std::move(authenticationMethod),
          false};
}

NSURLProtectionSpace NSURLProtectionSpace::initWithProxyHost_port_type_realm_authenticationMethod(
    std::string host, std::uint16_t port, std::string type, std::optional<std::string> realm,
    std::string authenticationMethod) {
  return {std::move(host),
          port,
          std::move(type),
          std::move(realm),
          std::move(authenticationMethod),
          true};
}

}  // namespace quillmere
