#include <glib.h>
#include <quillmere/platform/net/AuthorizationHeader.h>
#include <quillmere/platform/net/HTTPFields.h>

#include <memory>

namespace quillmere {
namespace {

std::string taken(char* text) {
  const std::unique_ptr<char, void (*)(void*)> owned(text, g_free);
  return owned.get();
}

std::string basic(const NSURLCredential& credential) {
  const std::string pair = credential.user() + ":" + credential.password();
  return "Basic " +
         taken(g_base64_encode(reinterpret_cast<const guchar*>(pair.data()), pair.size()));
}

std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + '"';
}

// What a request line names: path and query.
std::string targetOf(const NSURL& url) {
  const std::string text = url.wireString();
  const std::size_t path = text.find('/', text.find("://") + 3);
  return path == std::string::npos ? "/" : text.substr(path);
}

std::string digest(const AuthenticateChallenge& challenge, const NSURLCredential& credential,
                   const NSURLRequest& request, const std::string& cnonce) {
  const auto algorithm = challenge.parameter("algorithm");
  const std::string algorithmName = lowerCaseASCII(algorithm.value_or("md5"));
  const GChecksumType type =
      algorithmName.starts_with("sha-256") ? G_CHECKSUM_SHA256 : G_CHECKSUM_MD5;
  const auto hash = [type](const std::string& text) {
    return taken(g_compute_checksum_for_data(type, reinterpret_cast<const guchar*>(text.data()),
                                             text.size()));
  };

  const std::string realm = challenge.parameter("realm").value_or("");
  const std::string nonce = challenge.parameter("nonce").value_or("");
  const std::string qop = challenge.offersQuality("auth")       ? "auth"
                          : challenge.offersQuality("auth-int") ? "auth-int"
                                                                : "";
  const std::string target = targetOf(*request.URL());
  constexpr const char* count = "00000001";

  std::string secret = hash(credential.user() + ":" + realm + ":" + credential.password());
  if (algorithmName.ends_with("-sess")) secret = hash(secret + ":" + nonce + ":" + cnonce);
  std::string asked = request.HTTPMethod() + ":" + target;
  if (qop == "auth-int") {
    const auto& body = request.HTTPBody();
    asked += ":" + hash(body ? std::string(body->view()) : std::string());
  }
  const std::string between = qop.empty() ? nonce : nonce + ":" + count + ":" + cnonce + ":" + qop;
  const std::string response = hash(secret + ":" + between + ":" + hash(asked));

  std::string value = "Digest username=" + quoted(credential.user()) + ", realm=" + quoted(realm) +
                      ", nonce=" + quoted(nonce) + ", uri=" + quoted(target) +
                      ", response=" + quoted(response);
  if (algorithm) value += ", algorithm=" + *algorithm;
  if (const auto opaque = challenge.parameter("opaque")) value += ", opaque=" + quoted(*opaque);
  const bool usesCnonce = !qop.empty() || algorithmName.ends_with("-sess");
  if (!qop.empty()) value += ", qop=" + qop + ", nc=" + count;
  if (usesCnonce) value += ", cnonce=" + quoted(cnonce);
  return value;
}

}  // namespace

std::string authorizationFor(const AuthenticateChallenge& challenge,
                             const NSURLCredential& credential, const NSURLRequest& request,
                             const std::string& cnonce) {
  return challenge.scheme == "basic" ? basic(credential)
                                     : digest(challenge, credential, request, cnonce);
}

}  // namespace quillmere
