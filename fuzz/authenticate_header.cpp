// Any bytes as the value of a WWW-Authenticate field.

#include <quillmere/platform/net/AuthenticateHeader.h>
#include <quillmere/platform/net/HTTPFields.h>

#include <string>

#include "fuzz/Fuzzing.h"

namespace quillmere {
namespace {

using fuzzing::require;

std::string quoted(std::string_view value) {
  std::string text = "\"";
  for (const char character : value) {
    if (character == '"' || character == '\\') text += '\\';
    text += character;
  }
  return text + '"';
}

std::string written(const std::vector<AuthenticateChallenge>& challenges) {
  std::string text;
  for (const AuthenticateChallenge& challenge : challenges) {
    require(isToken(challenge.scheme), "a scheme is a token");
    if (!text.empty()) text += ", ";
    text += challenge.scheme;
    if (challenge.token68) text += ' ' + *challenge.token68;
    bool isFirst = !challenge.token68;
    for (const auto& [name, value] : challenge.parameters) {
      require(isToken(name), "so is a parameter's name");
      text += (isFirst ? " " : ", ") + name + '=' + quoted(value);
      isFirst = false;
    }
  }
  return text;
}

void check(std::string_view header) {
  const auto challenges = parseAuthenticateHeader(header);
  const std::string text = written(challenges);
  require(written(parseAuthenticateHeader(text)) == text, "challenges written read back");
  const AuthenticateChallenge* raised = challengeToRaise(challenges);
  require(!raised || raised->authenticationMethod(), "what is raised has a method");
}

}  // namespace
}  // namespace quillmere

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  quillmere::check(quillmere::fuzzing::viewOf(bytes, count));
  return 0;
}
