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

bool canAnswerDigest(const AuthenticateChallenge& challenge) {
  constexpr std::string_view algorithms[] = {"md5", "md5-sess", "sha-256", "sha-256-sess"};
  const std::string algorithm = lowerCaseASCII(challenge.parameter("algorithm").value_or("md5"));
  return challenge.parameter("nonce") &&
         std::find(std::begin(algorithms), std::end(algorithms), algorithm) !=
             std::end(algorithms) &&
         (challenge.parameter("qop").value_or("").empty() || challenge.offersQuality("auth") ||
          challenge.offersQuality("auth-int"));
}

}  // namespace

std::optional<std::string> AuthenticateChallenge::parameter(const std::string& name) const {
  const auto found = parameters.find(name);
  if (found == parameters.end()) return std::nullopt;
  return found->second;
}

bool AuthenticateChallenge::offersQuality(std::string_view quality) const {
  const std::string offered = parameter("qop").value_or("");
  Scanner scanner(offered);
  while (!scanner.isAtEnd()) {
    scanner.take(isBlankOrComma);
    std::string_view name = scanner.take(isNoComma);
    while (name.ends_with(' ') || name.ends_with('\t')) name.remove_suffix(1);
    if (equalIgnoringCase(name, quality)) return true;
  }
  return false;
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
    std::string_view name = scanner.take(isTokenCharacter);
    bool isParameter = scanner.takeEquals();
    if (!name.empty() && !isParameter) {
      challenges.push_back({lowerCaseASCII(name), {}, scanner.takeToken68()});
      name = scanner.take(isTokenCharacter);
      isParameter = scanner.takeEquals();
    }
    if (!name.empty() && isParameter && !challenges.empty()) {
      challenges.back().parameters.insert_or_assign(lowerCaseASCII(name),
                                                    scanner.takeParameterValue());
    }
    scanner.take(isNoComma);
  }
}

bool isDeadEnd(const std::vector<AuthenticateChallenge>& challenges) {
  return !challengeToRaise(challenges) &&
         std::any_of(challenges.begin(), challenges.end(), [](const auto& challenge) {
           return challenge.scheme == "digest" && !challenge.parameter("nonce");
         });
}

const AuthenticateChallenge* challengeToRaise(
    const std::vector<AuthenticateChallenge>& challenges) {
  for (const std::string_view scheme : {"digest", "basic", "ntlm", "negotiate"}) {
    const auto first =
        std::find_if(challenges.begin(), challenges.end(), [scheme](const auto& challenge) {
          return challenge.scheme == scheme && challenge.authenticationMethod();
        });
    if (first != challenges.end()) return &*first;
  }
  return nullptr;
}

}  // namespace quillmere
