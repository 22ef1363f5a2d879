#include <glib.h>
#include <quillmere/platform/net/AuthenticateHeader.h>
#include <quillmere/platform/net/HTTPFields.h>
#include <quillmere/platform/net/NSURLProtectionSpace.h>

#include <algorithm>
#include <utility>

namespace quillmere {
namespace {

bool isBlank(char character) { return character == ' ' || character == '\t'; }

bool isToken68Character(char character) {
  constexpr std::string_view marks = "-._~+/";
  return g_ascii_isalnum(character) || marks.find(character) != std::string_view::npos;
}

// Reads a field's value from left to right, each byte a bounded number of times.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  bool isAtEnd() const { return rest_.empty(); }

  // Skips the characters that `matches` tells of, and gives them.
  template <class Matches>
  std::string_view take(Matches matches) {
    const auto end = std::find_if_not(rest_.begin(), rest_.end(), matches);
    const auto taken = rest_.substr(0, static_cast<std::size_t>(end - rest_.begin()));
    rest_.remove_prefix(taken.size());
    return taken;
  }

  bool takeCharacter(char character) {
    if (!rest_.starts_with(character)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  // An equals sign with blanks around it.
  bool takeEquals() {
    take(isBlank);
    if (!takeCharacter('=')) return false;
    take(isBlank);
    return true;
  }

  // A token, or a quoted string without quotes and escapes; one that does not end ends with the
  // text.
  std::string takeParameterValue() {
    if (!takeCharacter('"')) return std::string(take(isTokenCharacter));
    std::string value;
    while (!isAtEnd() && !takeCharacter('"')) {
      if (takeCharacter('\\') && isAtEnd()) break;
      value += rest_.front();
      rest_.remove_prefix(1);
    }
    return value;
  }

  // What follows a scheme, if it is a token68: then a comma or the end follows it. "a=b" is not
  // one, but a parameter.
  std::optional<std::string> takeToken68() {
    Scanner ahead(*this);
    std::string token(ahead.take(isToken68Character));
    if (token.empty()) return std::nullopt;
    token += ahead.take([](char character) { return character == '='; });
    ahead.take(isBlank);
    if (!ahead.isAtEnd() && ahead.rest_.front() != ',') return std::nullopt;
    *this = ahead;
    return token;
  }

 private:
  std::string_view rest_;
};

bool isBlankOrComma(char character) { return isBlank(character) || character == ','; }
bool isNoComma(char character) { return character != ','; }

// Whether one of the values in a list separated by commas is "auth" or "auth-int".
bool offersAuthentication(std::string_view qualities) {
  Scanner scanner(qualities);
  while (!scanner.isAtEnd()) {
    scanner.take(isBlankOrComma);
    const std::string_view quality = scanner.take(isNoComma);
    if (equalIgnoringCase(quality, "auth") || equalIgnoringCase(quality, "auth-int")) return true;
  }
  return false;
}

// libcurl 7.88 takes SHA-512-256 too, but hashes it as SHA-256.
bool canAnswerDigest(const AuthenticateChallenge& challenge) {
  if (!challenge.parameter("nonce")) return false;
  const std::string algorithm = lowerCaseASCII(challenge.parameter("algorithm").value_or("md5"));
  const std::string qualities = challenge.parameter("qop").value_or("");
  if (algorithm == "md5" || algorithm == "sha-256") {
    return qualities.empty() || offersAuthentication(qualities);
  }
  return (algorithm == "md5-sess" || algorithm == "sha-256-sess") &&
         offersAuthentication(qualities);
}

}  // namespace

std::optional<std::string> AuthenticateChallenge::parameter(const std::string& name) const {
  const auto found = parameters.find(name);
  if (found == parameters.end()) return std::nullopt;
  return found->second;
}

const char* AuthenticateChallenge::authenticationMethod() const {
  if (scheme == "digest") {
    return canAnswerDigest(*this) ? NSURLAuthenticationMethodHTTPDigest : nullptr;
  }
  if (scheme == "basic") return NSURLAuthenticationMethodHTTPBasic;
  if (scheme == "ntlm") return NSURLAuthenticationMethodNTLM;
  if (scheme == "negotiate") return NSURLAuthenticationMethodNegotiate;
  return nullptr;
}

std::vector<AuthenticateChallenge> parseAuthenticateHeader(std::string_view value) {
  std::vector<AuthenticateChallenge> challenges;
  Scanner scanner(value);
  while (true) {
    scanner.take(isBlankOrComma);
    if (scanner.isAtEnd()) return challenges;
    const std::string_view name = scanner.take(isTokenCharacter);
    if (name.empty()) {
      scanner.take(isNoComma);
    } else if (scanner.takeEquals()) {
      std::string parameter = scanner.takeParameterValue();
      if (challenges.empty()) continue;
      challenges.back().parameters.insert_or_assign(lowerCaseASCII(name), std::move(parameter));
    } else {
      challenges.push_back({lowerCaseASCII(name), {}, scanner.takeToken68()});
    }
  }
}

const AuthenticateChallenge* challengeToRaise(
    const std::vector<AuthenticateChallenge>& challenges) {
  for (const std::string_view scheme : {"digest", "basic", "ntlm", "negotiate"}) {
    const auto first =
        std::find_if(challenges.begin(), challenges.end(),
                     [scheme](const auto& challenge) { return challenge.scheme == scheme; });
    if (first != challenges.end() && first->authenticationMethod()) return &*first;
  }
  return nullptr;
}

}  // namespace quillmere
