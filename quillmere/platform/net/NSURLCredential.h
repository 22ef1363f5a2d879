#ifndef QUILLMERE_PLATFORM_NET_NSURLCREDENTIAL_H
#define QUILLMERE_PLATFORM_NET_NSURLCREDENTIAL_H

#include <quillmere/platform/base/Export.h>

#include <memory>
#include <string>

namespace quillmere {

/// How long a credential may be kept. The values are part of the contract. Sessions store none,
/// whatever it says.
enum NSURLCredentialPersistence {
  NSURLCredentialPersistenceNone = 0,
  NSURLCredentialPersistenceForSession = 1,
  NSURLCredentialPersistencePermanent = 2,
};

/// A user's name and password. Immutable and shared.
class QUILLMERE_EXPORT NSURLCredential {
 public:
  static std::shared_ptr<NSURLCredential> credentialWithUser_password_persistence(
      std::string user, std::string password, NSURLCredentialPersistence persistence);

  const std::string& user() const { return user_; }
  const std::string& password() const { return password_; }
  NSURLCredentialPersistence persistence() const { return persistence_; }

 protected:
  NSURLCredential(std::string user, std::string password, NSURLCredentialPersistence persistence);

 private:
  std::string user_;
  std::string password_;
  NSURLCredentialPersistence persistence_;
};

}  // namespace quillmere

#endif
