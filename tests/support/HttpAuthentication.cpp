#include "tests/support/HttpAuthentication.h"

#include <glib.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <regex>
#include <string_view>

namespace quillmere::testing {
namespace {

constexpr std::string_view opaque = "a b\"c";  // a quote in it, so that clients must escape it

std::string taken(gchar* text) {
  const std::unique_ptr<gchar, decltype(&g_free)> owner(text, g_free);
  return text;
}

std::string base64(std::string_view bytes) {
  return taken(g_base64_encode(reinterpret_cast<const guchar*>(bytes.data()), bytes.size()));
}

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + '"';
}

bool hasToken(std::string_view list, std::string_view token) {
  while (!list.empty()) {
    const auto comma = list.find(',');
    if (list.substr(0, comma) == token) return true;
    list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
  }
  return false;
}

using Parameters = std::map<std::string, std::string>;

// Reads `name=value, name="value"`; names in lower case.
Parameters parametersOf(const std::string& text) {
  static const std::regex parameter(R"re((\w+)=(?:"((?:[^"\\]|\\.)*)"|([^, ]*)))re");
  static const std::regex escaped(R"re(\\(.))re");
  Parameters parameters;
  for (std::sregex_iterator found(text.begin(), text.end(), parameter), end; found != end;
       ++found) {
    std::string name = (*found)[1];
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    parameters[name] = std::regex_replace((*found)[2].str(), escaped, "$1") + (*found)[3].str();
  }
  return parameters;
}

}  // namespace

std::vector<std::string> Authenticator::issue(const std::vector<Challenge>& challenges) {
  if (std::any_of(challenges.begin(), challenges.end(), [](const auto& c) { return c.stale; })) {
    byNonce_.clear();
  }
  std::vector<std::string> values(challenges.size());
  std::transform(challenges.begin(), challenges.end(), values.begin(),
                 [this](const Challenge& challenge) { return issue(challenge); });
  return values;
}

std::string Authenticator::issue(const Challenge& challenge) {
  if (challenge.scheme == AuthScheme::basic) return "Basic realm=" + quoted(challenge.realm);
  const std::string nonce = "nonce-" + std::to_string(++nonceCount_);
  byNonce_[nonce] = challenge;
  return "Digest realm=" + quoted(challenge.realm) + ", nonce=" + quoted(nonce) +
         ", opaque=" + quoted(opaque) + ", algorithm=" + challenge.algorithm +
         (challenge.qop.empty() ? "" : ", qop=" + quoted(challenge.qop)) +
         (challenge.stale ? ", stale=true" : "");
}

std::string Authenticator::faultOf(const ReceivedRequest& request, const Credential& credential) {
  const auto authorization = request.value("Authorization");
  if (!authorization) return "Authorization is absent";
  if (credential.scheme == AuthScheme::digest) {
    return digestFaultOf(request, *authorization, credential);
  }
  const auto expected = "Basic " + base64(credential.user + ":" + credential.password);
  return *authorization == expected
             ? ""
             : "Authorization is " + *authorization + ", expected " + expected;
}

std::string Authenticator::digestFaultOf(const ReceivedRequest& request,
                                         const std::string& authorization,
                                         const Credential& credential) {
  constexpr std::string_view scheme = "Digest ";
  if (!authorization.starts_with(scheme)) return "Authorization is not Digest: " + authorization;
  Parameters given = parametersOf(authorization.substr(scheme.size()));

  const auto node = byNonce_.extract(given["nonce"]);
  if (!node) return "Digest nonce \"" + given["nonce"] + "\" is not in force, or was answered";
  const Challenge& challenge = node.mapped();

  given.emplace("algorithm", "MD5");  // where it is not named
  const auto expect = [&](const char* name, std::string_view value) {
    return given[name] == value ? ""
                                : std::string("Digest ") + name + " is \"" + given[name] +
                                      "\", expected \"" + std::string(value) + "\"";
  };
  for (const auto& fault : {expect("username", credential.user), expect("realm", challenge.realm),
                            expect("uri", request.path), expect("opaque", opaque),
                            expect("algorithm", challenge.algorithm),
                            expect("nc", challenge.qop.empty() ? "" : "00000001")}) {
    if (!fault.empty()) return fault;
  }

  const auto hash = [type = challenge.algorithm == "MD5" ? G_CHECKSUM_MD5 : G_CHECKSUM_SHA256](
                        const std::string& text) {
    return taken(g_compute_checksum_for_data(type, reinterpret_cast<const guchar*>(text.data()),
                                             text.size()));
  };
  const std::string& qop = given["qop"];
  std::string nonceAndUse = given["nonce"];
  if (!challenge.qop.empty() || !qop.empty()) {
    if (!hasToken(challenge.qop, qop)) {
      return "Digest qop is \"" + qop + "\", offered were \"" + challenge.qop + "\"";
    }
    if (given["cnonce"].empty()) return "Digest cnonce is absent";
    nonceAndUse += ":" + given["nc"] + ":" + given["cnonce"] + ":" + qop;
  }
  const auto secret = hash(credential.user + ":" + challenge.realm + ":" + credential.password);
  const auto subject = hash(request.method + ":" + request.path +
                            (qop == "auth-int" ? ":" + hash(request.body) : ""));
  return expect("response", hash(secret + ":" + nonceAndUse + ":" + subject));
}

}  // namespace quillmere::testing
