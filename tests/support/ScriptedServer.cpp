#include "tests/support/ScriptedServer.h"

#include <arpa/inet.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <strings.h>

#include <algorithm>
#include <deque>
#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <stdexcept>
#include <utility>

#include "tests/support/TemporaryFolder.h"

namespace quillmere::testing {
namespace {

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool contains(const std::vector<std::string>& names, std::string_view name) {
  return std::any_of(names.begin(), names.end(),
                     [&](const std::string& each) { return sameName(each, name); });
}

// As the sender named it: see HeaderField.
HeaderField asSent(HeaderField field) {
  if (!field.value.starts_with(':')) return field;
  const auto value = field.value.find_first_not_of(" \t", 1);
  return {field.name + ":", value == std::string::npos ? "" : field.value.substr(value)};
}

std::string textOf(const std::vector<HeaderField>& fields) {
  std::string text;
  for (const auto& [name, value] : fields) {
    text += text.empty() ? "" : ", ";
    text.append(name).append(": ").append(value);
  }
  return text.empty() ? "none" : text;
}

// A body as it fits into a message.
std::string excerpt(const std::string& body) {
  constexpr std::size_t longest = 2000;
  return "\"" + body.substr(0, longest) + (body.size() > longest ? "..." : "") + "\" (" +
         std::to_string(body.size()) + " bytes)";
}

bool isFor(const ReceivedRequest& request, const ExpectedRequest& expected) {
  return request.method == expected.method && request.path == expected.path;
}

// What differs but method, path and credential.
std::string differences(const ReceivedRequest& request, const ExpectedRequest& expected) {
  std::string faults;
  const auto note = [&](const std::string& fault) {
    faults += (faults.empty() ? "" : "; ") + fault;
  };
  std::vector<std::string> names;
  for (const HeaderField& field : expected.fields) {
    if (!contains(names, field.name)) names.push_back(field.name);
  }
  const auto fieldsNamed = [](const std::vector<HeaderField>& fields, const auto& isWanted) {
    std::vector<HeaderField> wanted;
    std::copy_if(fields.begin(), fields.end(), std::back_inserter(wanted),
                 [&](const HeaderField& field) { return isWanted(field.name); });
    return wanted;
  };
  for (const std::string& name : names) {
    const auto isIt = [&](const std::string& each) { return sameName(each, name); };
    const auto received = fieldsNamed(request.fields, isIt);
    const auto wanted = fieldsNamed(expected.fields, isIt);
    if (received != wanted) {
      note("fields are " + textOf(received) + "; expected " + textOf(wanted));
    }
  }
  auto absent = expected.absent;
  if (!expected.credential && !contains(names, "Authorization"))
    absent.emplace_back("Authorization");
  for (const HeaderField& field : request.fields) {
    if (contains(absent, field.name)) note("must not have " + textOf({field}));
  }
  if (expected.noOtherFields) {
    std::vector<std::string> usual{"Host", "Content-Length", "User-Agent"};
    if (expected.credential) usual.emplace_back("Authorization");
    const auto isSpecial = [&](const std::string& name) {
      return contains(names, name) || !contains(usual, name);
    };
    const auto received = fieldsNamed(request.fields, isSpecial);
    if (received != expected.fields) {
      note("fields in all are " + textOf(received) + "; expected " + textOf(expected.fields));
    }
  }
  if (expected.body && request.body != *expected.body) {
    note("body is " + excerpt(request.body) + ", expected " + excerpt(*expected.body));
  }
  return faults;
}

std::string taken(gchar* text) {
  const std::unique_ptr<gchar, decltype(&g_free)> owner(text, g_free);
  return text;
}

std::string md5(const std::string& text) {
  return taken(
      g_compute_checksum_for_string(G_CHECKSUM_MD5, text.data(), static_cast<gssize>(text.size())));
}

/// The server's side of Basic and Digest (RFC 7616): gives challenges and checks the answers.
class Authenticator {
 public:
  /// The value of a "WWW-Authenticate" field; each Digest with its own nonce.
  std::string issue(const Challenge& challenge) {
    if (challenge.scheme == AuthScheme::basic) return "Basic realm=\"calendars\"";
    if (challenge.stale) nonces_.clear();
    const auto nonce = *nonces_.insert("nonce-" + std::to_string(++nonceCount_)).first;
    return "Digest realm=\"calendars\", qop=\"auth-int\", nonce=\"" + nonce + '"' +
           (challenge.stale ? ", stale=true" : "");
  }

  /// Empty where `request` proves to know `credential`, else what is wrong with it.
  std::string faultOf(const ReceivedRequest& request, const Credential& credential) {
    const auto& [scheme, user, password] = credential;
    const std::string given = request.value("Authorization").value_or("none");
    std::string expected;
    if (scheme == AuthScheme::basic) {
      const std::string pair = user + ":" + password;
      expected = "Basic " +
                 taken(g_base64_encode(reinterpret_cast<const guchar*>(pair.data()), pair.size()));
    } else {
      const auto parameter = [&](const std::string& name) {
        std::smatch found;
        return std::regex_search(given, found, std::regex(" " + name + "=\"([^\"]+)\""))
                   ? found[1].str()
                   : "one";
      };
      const std::string cnonce = parameter("cnonce");
      std::string nonce = parameter("nonce");
      if (nonces_.erase(nonce) == 0) nonce = "one in force and not yet answered";
      const std::string response =
          md5(md5(user + ":calendars:" + password) + ":" + nonce + ":00000001:" + cnonce +
              ":auth-int:" + md5(request.method + ":" + request.path + ":" + md5(request.body)));
      expected = "Digest username=\"" + user + "\", realm=\"calendars\", nonce=\"" + nonce +
                 "\", uri=\"" + request.path + "\", response=\"" + response +
                 "\", qop=auth-int, nc=00000001, cnonce=\"" + cnonce + '"';
    }
    return given == expected ? "" : "Authorization is " + given + ", expected " + expected;
  }

 private:
  std::set<std::string> nonces_;  // those that were not yet answered
  unsigned nonceCount_ = 0;
};

}  // namespace

std::optional<std::string> ReceivedRequest::value(std::string_view name) const {
  const auto found = std::find_if(fields.begin(), fields.end(), [&](const HeaderField& field) {
    return sameName(field.name, name);
  });
  return found == fields.end() ? std::nullopt : std::optional(found->value);
}

TlsIdentity TlsIdentity::named(const std::string& name) {
  const std::string path = QUILLMERE_TEST_CERTIFICATES "/" + name;
  TlsIdentity identity{readFile(path + ".pem"), readFile(path + ".key")};
  if (identity.certificate.empty()) throw std::runtime_error("no certificate " + name);
  return identity;
}

std::string certificateAuthorityFile() { return QUILLMERE_TEST_CERTIFICATES "/ca.pem"; }

/// The script and its state, behind one mutex, and the daemon that calls it from its thread.
class ScriptedServer::Dialogue {
 public:
  Dialogue(const TlsIdentity* identity, const char* priorities)
      : scheme_(identity ? "https" : "http") {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<MHD_OptionItem> options;
    if (identity) {
      const auto pem = [&](MHD_OPTION option, const std::string& text) {
        options.push_back({option, 0, const_cast<char*>(text.c_str())});
      };
      pem(MHD_OPTION_HTTPS_MEM_CERT, identity->certificate);
      pem(MHD_OPTION_HTTPS_MEM_KEY, identity->key);
    }
    if (priorities) {
      options.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(priorities)});
    }
    options.push_back({MHD_OPTION_END, 0, nullptr});
    unsigned flags =
        MHD_USE_AUTO_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_SUPPRESS_DATE_NO_CLOCK;
    if (identity) flags |= MHD_USE_TLS;
    daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &Dialogue::onCall, this,
                               MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&address),
                               MHD_OPTION_URI_LOG_CALLBACK, &Dialogue::onRequestLine, this,
                               MHD_OPTION_NOTIFY_CONNECTION, &Dialogue::onConnection, this,
                               MHD_OPTION_NOTIFY_COMPLETED, &Dialogue::onCompleted, this,
                               MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
    if (!daemon_) throw std::runtime_error("the test server does not start");
    port_ = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
  }
  Dialogue(const Dialogue&) = delete;
  Dialogue& operator=(const Dialogue&) = delete;
  ~Dialogue() {
    stop();
    if (problemsTaken_) return;
    for (const std::string& problem : problems_) ADD_FAILURE() << problem;
  }

  const std::string& scheme() const { return scheme_; }
  std::uint16_t port() const { return port_; }

  void expect(Exchange exchange) {
    auto& expected = exchange.request;
    std::transform(expected.fields.begin(), expected.fields.end(), expected.fields.begin(), asSent);
    const std::lock_guard lock(mutex_);
    script_.push_back(std::move(exchange));
  }

  void release() {
    const std::lock_guard lock(mutex_);
    if (held_.empty()) {
      ++releases_;
    } else {
      MHD_resume_connection(held_.front());
      held_.pop_front();
    }
  }

  void setOnRequest(std::function<void(const ReceivedRequest&)> onRequest) {
    const std::lock_guard lock(mutex_);
    onRequest_ = std::move(onRequest);
  }

  std::vector<ReceivedRequest> requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
  }

  unsigned connectionCount() const {
    const std::lock_guard lock(mutex_);
    return connectionCount_;
  }

  std::vector<std::string> problems() const {
    const std::lock_guard lock(mutex_);
    return problems_;
  }

  std::vector<std::string> finish() {
    stop();
    problemsTaken_ = true;
    return problems_;
  }

 private:
  // A request on its way through the daemon.
  struct Pending {
    ReceivedRequest request;
    Answer answer;
    enum class State { arriving, reading, held } state = State::arriving;
  };

  void stop() {
    if (!daemon_) return;
    {
      const std::lock_guard lock(mutex_);
      stopping_ = true;
      for (MHD_Connection* connection : held_) MHD_resume_connection(connection);
      held_.clear();
    }
    MHD_stop_daemon(std::exchange(daemon_, nullptr));
    for (const Exchange& exchange : script_) {
      problems_.push_back("never came: " + exchange.request.method + " " + exchange.request.path);
    }
  }

  static Dialogue& of(void* dialogue) { return *static_cast<Dialogue*>(dialogue); }

  static void onConnection(void* self, MHD_Connection* connection, void**,
                           MHD_ConnectionNotificationCode code) {
    const std::lock_guard lock(of(self).mutex_);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
      of(self).connectionNumbers_[connection] = ++of(self).connectionCount_;
    } else {
      of(self).connectionNumbers_.erase(connection);
    }
  }

  // The only place where the daemon tells the path as it travelled.
  static void* onRequestLine(void* self, const char* target, MHD_Connection* connection) {
    auto pending = std::make_unique<Pending>();
    pending->request.path = target;
    const std::lock_guard lock(of(self).mutex_);
    pending->request.connection = of(self).connectionNumbers_.at(connection);
    return pending.release();
  }

  static void onCompleted(void*, MHD_Connection*, void** context, MHD_RequestTerminationCode) {
    const std::unique_ptr<Pending> owner(static_cast<Pending*>(*context));
  }

  static MHD_Result onField(void* context, MHD_ValueKind, const char* name, std::size_t nameSize,
                            const char* value, std::size_t valueSize) {
    auto& fields = static_cast<ReceivedRequest*>(context)->fields;
    fields.push_back(asSent({{name, nameSize}, {value ? value : "", valueSize}}));
    return MHD_YES;
  }

  static MHD_Result onCall(void* self, MHD_Connection* connection, const char*, const char* method,
                           const char*, const char* bytes, std::size_t* count, void** context) {
    auto& pending = *static_cast<Pending*>(*context);
    switch (pending.state) {
      case Pending::State::arriving:
        pending.request.method = method;
        MHD_get_connection_values_n(connection, MHD_HEADER_KIND, onField, &pending.request);
        pending.state = Pending::State::reading;
        return MHD_YES;
      case Pending::State::reading:
        if (*count != 0) {
          pending.request.body.append(bytes, *count);
          *count = 0;
          return MHD_YES;
        }
        pending.answer = of(self).answerTo(pending.request);
        if (pending.answer.held && of(self).holds(connection)) {
          pending.state = Pending::State::held;
          return MHD_YES;
        }
        break;
      case Pending::State::held:
        break;
    }
    return send(connection, pending.answer);
  }

  Answer answerTo(const ReceivedRequest& request) {
    std::unique_lock lock(mutex_);
    requests_.push_back(request);
    const auto onRequest = onRequest_;
    lock.unlock();
    if (onRequest) onRequest(request);
    lock.lock();
    return judged(request);
  }

  Answer judged(const ReceivedRequest& request) {
    if (script_.empty() || !isFor(request, script_.front().request)) {
      const auto* next = script_.empty() ? nullptr : &script_.front().request;
      return refuse(request,
                    "expected " + (next ? next->method + " " + next->path : "no further request"));
    }
    const Exchange exchange = std::move(script_.front());
    script_.pop_front();
    std::string faults = differences(request, exchange.request);
    if (exchange.request.credential) {
      faults += authenticator_.faultOf(request, *exchange.request.credential);
    }
    if (!faults.empty()) return refuse(request, faults);
    Answer answer = exchange.answer;
    for (const Challenge& challenge : answer.challenges) {
      answer.fields.push_back({"WWW-Authenticate", authenticator_.issue(challenge)});
    }
    return answer;
  }

  Answer refuse(const ReceivedRequest& request, const std::string& fault) {
    problems_.push_back("request " + std::to_string(requests_.size()) + ", " + request.method +
                        " " + request.path + ": " + fault);
    Answer answer;
    answer.status = 599;
    answer.body = problems_.back();
    return answer;
  }

  bool holds(MHD_Connection* connection) {
    const std::lock_guard lock(mutex_);
    if (stopping_) return false;
    if (releases_ > 0) {
      --releases_;
      return false;
    }
    MHD_suspend_connection(connection);
    held_.push_back(connection);
    return true;
  }

  static MHD_Result send(MHD_Connection* connection, const Answer& answer) {
    const std::unique_ptr<MHD_Response, decltype(&MHD_destroy_response)> response(
        MHD_create_response_from_buffer(answer.body.size(), const_cast<char*>(answer.body.data()),
                                        MHD_RESPMEM_MUST_COPY),
        &MHD_destroy_response);
    for (const auto& [name, value] : answer.fields) {
      if (!MHD_add_response_header(response.get(), name.c_str(), value.c_str())) {
        ADD_FAILURE() << "cannot be sent: " << name << ": " << value;
      }
    }
    return MHD_queue_response(connection, answer.status, response.get());
  }

  const std::string scheme_;
  MHD_Daemon* daemon_ = nullptr;
  std::uint16_t port_ = 0;
  bool problemsTaken_ = false;

  mutable std::mutex mutex_;  // of all below
  std::deque<Exchange> script_;
  std::deque<MHD_Connection*> held_;
  unsigned releases_ = 0;  // those told before there was an answer to let go
  bool stopping_ = false;
  std::function<void(const ReceivedRequest&)> onRequest_;
  std::vector<ReceivedRequest> requests_;
  std::map<const MHD_Connection*, unsigned> connectionNumbers_;  // of those that are open
  unsigned connectionCount_ = 0;
  std::vector<std::string> problems_;
  Authenticator authenticator_;
};

ScriptedServer::ScriptedServer() : dialogue_(std::make_unique<Dialogue>(nullptr, nullptr)) {}

ScriptedServer::ScriptedServer(const TlsIdentity& identity, const char* priorities)
    : dialogue_(std::make_unique<Dialogue>(&identity, priorities)) {}

ScriptedServer::~ScriptedServer() = default;

std::uint16_t ScriptedServer::port() const { return dialogue_->port(); }

std::string ScriptedServer::url(std::string_view path) const {
  return dialogue_->scheme() + "://127.0.0.1:" + std::to_string(port()) + std::string(path);
}

void ScriptedServer::expect(ExpectedRequest request, Answer answer) {
  dialogue_->expect({std::move(request), std::move(answer)});
}

void ScriptedServer::release() { dialogue_->release(); }

void ScriptedServer::setOnRequest(std::function<void(const ReceivedRequest&)> onRequest) {
  dialogue_->setOnRequest(std::move(onRequest));
}

std::vector<ReceivedRequest> ScriptedServer::requests() const { return dialogue_->requests(); }

unsigned ScriptedServer::connectionCount() const { return dialogue_->connectionCount(); }

std::vector<std::string> ScriptedServer::problems() const { return dialogue_->problems(); }

std::vector<std::string> ScriptedServer::finish() { return dialogue_->finish(); }

}  // namespace quillmere::testing
