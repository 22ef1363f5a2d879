#ifndef QUILLMERE_TESTS_SUPPORT_SCRIPTEDSERVER_H
#define QUILLMERE_TESTS_SUPPORT_SCRIPTEDSERVER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere::testing {

/// A header field. A client that names a field with a trailing colon sends "If-Match:: x", which a
/// server reads as a field "If-Match" with the value ": x". Expected and received fields are both
/// brought into the sender's form, {"If-Match:", "x"}, so that either form may be written down.
struct HeaderField {
  std::string name;
  std::string value;
  bool operator==(const HeaderField&) const = default;
};

enum class AuthScheme { basic, digest };

/// What a 401 asks for, of the realm "calendars". A Digest is of MD5 with qop "auth-int".
struct Challenge {
  AuthScheme scheme = AuthScheme::basic;
  bool stale = false;  // the nonces given before are refused from now on
};

/// What a request must prove to know: for Digest by the right answer to a challenge this server
/// gave and has not called stale since, given once.
struct Credential {
  AuthScheme scheme = AuthScheme::basic;
  std::string user;
  std::string password;
};

constexpr std::nullopt_t anyBody = std::nullopt;

/// One request as it must arrive.
struct ExpectedRequest {
  std::string method = "GET";
  std::string path = "/";  // with the query, and escaped as it travels
  /// Names are compared as spelled. Of a name that is listed there must be no other field.
  std::vector<HeaderField> fields;
  std::vector<std::string> absent;  // names, in any spelling
  std::optional<std::string> body = "";
  /// Without one, "Authorization" must not be sent, unless it is among `fields`.
  std::optional<Credential> credential;
  /// No field but `fields`, "Host", "Content-Length", "User-Agent" and what `credential` takes, and
  /// `fields` in this order.
  bool noOtherFields = false;
};

/// What is answered. Only "Content-Length" is added.
struct Answer {
  unsigned status = 200;
  std::vector<HeaderField> fields;
  std::string body;
  std::vector<Challenge> challenges;  // "WWW-Authenticate" fields, after `fields`
  bool held = false;                  // until `release()`
};

struct Exchange {
  ExpectedRequest request;
  Answer answer;
};

/// A request as it came.
struct ReceivedRequest {
  std::string method;
  std::string path;
  std::vector<HeaderField> fields;  // in order, as spelled
  std::string body;
  unsigned connection = 0;  // counted from 1, as they were made

  /// The value of the first field of that name, in any spelling.
  std::optional<std::string> value(std::string_view name) const;
};

/// A certificate and its key, in PEM.
struct TlsIdentity {
  std::string certificate;
  std::string key;

  /// "good", "wrong-host", "expired" or "self-signed", from make_certificates.sh.
  static TlsIdentity named(const std::string& name);
};

/// The certificate of the authority behind those identities.
std::string certificateAuthorityFile();

/// An HTTP/1.1 server on 127.0.0.1, in a thread of its own, that plays a script: the requests must
/// come in its order and be as it says. One that is not is answered 599, with the reason as body,
/// and becomes a problem; so does an exchange that is left over in the end. Problems that nobody
/// has taken by `finish()` fail the test when the server goes.
class ScriptedServer {
 public:
  ScriptedServer();
  /// Over TLS; `priorities` is GnuTLS's text of the versions and ciphers, null for its own.
  explicit ScriptedServer(const TlsIdentity& identity, const char* priorities = nullptr);
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;
  ~ScriptedServer();

  std::uint16_t port() const;
  /// "http://127.0.0.1:49152/a" for "/a".
  std::string url(std::string_view path) const;

  /// Adds to the end of the script, at any time.
  void expect(ExpectedRequest request, Answer answer = {});

  /// Lets one held answer go: the oldest, or the next to be held.
  void release();

  /// Called in the server's thread for each request, expected or not, before it is answered; so it
  /// may still write the script for that request.
  void setOnRequest(std::function<void(const ReceivedRequest&)> onRequest);

  std::vector<ReceivedRequest> requests() const;
  /// Connections made so far, those included on which no request came through.
  unsigned connectionCount() const;
  /// What was wrong so far; after `finish()` with the exchanges left over.
  std::vector<std::string> problems() const;

  /// Closes all connections, ends the thread and gives the problems.
  std::vector<std::string> finish();

 private:
  class Dialogue;
  std::unique_ptr<Dialogue> dialogue_;
};

}  // namespace quillmere::testing

#endif
