#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/net/NSURLCredential.h>

#include <utility>

namespace quillmere {

NSURLCredential::NSURLCredential(std::string user, std::string password,
                                 NSURLCredentialPersistence persistence)
    : user_(std::move(user)), password_(std::move(password)), persistence_(persistence) {}

std::shared_ptr<NSURLCredential> NSURLCredential::credentialWithUser_password_persistence(
    std::string user, std::string password, NSURLCredentialPersistence persistence) {
  return makeObject<NSURLCredential>(std::move(user), std::move(password), std::move(persistence));
}

}  // namespace quillmere
