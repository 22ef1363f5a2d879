#ifndef QUILLMERE_TESTS_SUPPORT_HTTPAUTHENTICATION_H
#define QUILLMERE_TESTS_SUPPORT_HTTPAUTHENTICATION_H

#include <map>
#include <string>
#include <vector>

#include "tests/support/ScriptedServer.h"

namespace quillmere::testing {

/// The server's side of Basic and Digest (RFC 7616): gives challenges and checks the answers.
class Authenticator {
 public:
  /// The values of the "WWW-Authenticate" fields of one answer; each Digest with its own nonce.
  std::vector<std::string> issue(const std::vector<Challenge>& challenges);

  /// Empty where `request` proves to know `credential`, else what is wrong with it.
  std::string faultOf(const ReceivedRequest& request, const Credential& credential);

 private:
  std::string issue(const Challenge& challenge);
  std::string digestFaultOf(const ReceivedRequest& request, const std::string& authorization,
                            const Credential& credential);

  std::map<std::string, Challenge> byNonce_;  // of those that were not yet answered
  unsigned nonceCount_ = 0;
};

}  // namespace quillmere::testing

#endif
