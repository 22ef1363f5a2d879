#include <curl/curl.h>
#include <glib.h>
#include <quillmere/platform/base/UTF8.h>
#include <quillmere/platform/net/HTTPFields.h>
#include <quillmere/platform/net/NSURL.h>

#include <algorithm>
#include <charconv>
#include <clocale>
#include <memory>

namespace quillmere {
namespace {

using std::optional;
using std::string;
using std::string_view;

bool isOneOf(char c, string_view characters) { return characters.find(c) != string_view::npos; }

bool isControl(char c) { return g_ascii_iscntrl(c); }

bool mayBeURL(string_view text) {
  return std::none_of(text.begin(), text.end(), isControl) && isValidUTF8(text);
}

bool isScheme(string_view text) {
  return !text.empty() && g_ascii_isalpha(text.front()) &&
         std::all_of(text.begin(), text.end(),
                     [](char c) { return g_ascii_isalnum(c) || isOneOf(c, "+-."); });
}

// The components of RFC 3986 section 3, without the characters that delimit them.
struct Components {
  optional<string_view> scheme;
  optional<string_view> authority;
  string_view path;
  optional<string_view> query;
  optional<string_view> fragment;
};

// The text up to the first of `delimiters`, which `text` then begins with.
string_view takeUntil(string_view& text, string_view delimiters) {
  const string_view taken = text.substr(0, text.find_first_of(delimiters));
  text.remove_prefix(taken.size());
  return taken;
}

Components componentsOf(string_view text) {
  Components components;
  const std::size_t colon = text.find_first_of(":/?#");
  if (colon != string_view::npos && text[colon] == ':' && isScheme(text.substr(0, colon))) {
    components.scheme = text.substr(0, colon);
    text.remove_prefix(colon + 1);
  }
  if (text.starts_with("//")) {
    text.remove_prefix(2);
    components.authority = takeUntil(text, "/?#");
  }
  components.path = takeUntil(text, "?#");
  if (text.starts_with('?')) {
    text.remove_prefix(1);
    components.query = takeUntil(text, "#");
  }
  if (text.starts_with('#')) components.fragment = text.substr(1);
  return components;
}

// RFC 3986 section 5.3.
string recompose(const Components& components) {
  string text;
  if (components.scheme) text.append(*components.scheme) += ':';
  if (components.authority) {
    text.append("//").append(*components.authority);
  } else if (components.path.starts_with("//")) {
    text += "/.";  // or else the path would read as an authority
  }
  text += components.path;
  if (components.query) (text += '?').append(*components.query);
  if (components.fragment) (text += '#').append(*components.fragment);
  return text;
}

// RFC 3986 section 5.2.4.
string withoutDotSegments(string_view input) {
  string output;
  output.reserve(input.size());
  while (!input.empty()) {
    if (input.starts_with("../")) {
      input.remove_prefix(3);
    } else if (input.starts_with("./") || input.starts_with("/./")) {
      input.remove_prefix(2);
    } else if (input.starts_with("/../") || input == "/..") {
      input = input == "/.." ? string_view("/") : input.substr(3);
      const std::size_t segment = output.rfind('/');
      output.resize(segment == string::npos ? 0 : segment);
    } else if (input == "/.") {
      input = "/";
    } else if (input == "." || input == "..") {
      break;
    } else {
      const std::size_t end = std::min(input.find('/', 1), input.size());
      output += input.substr(0, end);
      input.remove_prefix(end);
    }
  }
  return output;
}

// RFC 3986 section 5.2.3: the reference's path in place of the base's last segment.
string mergedPath(const Components& base, string_view path) {
  if (base.authority && base.path.empty()) return string("/").append(path);
  const std::size_t segment = base.path.rfind('/');
  const string_view folder = segment == string_view::npos ? "" : base.path.substr(0, segment + 1);
  return string(folder).append(path);
}

// RFC 3986 section 5.2.2.
string resolve(const Components& reference, const Components& base) {
  Components target = reference;
  string path;
  if (reference.scheme || reference.authority) {
    path = withoutDotSegments(reference.path);
  } else {
    target.authority = base.authority;
    if (reference.path.empty()) {
      path = base.path;
      if (!reference.query) target.query = base.query;
    } else if (reference.path.starts_with('/')) {
      path = withoutDotSegments(reference.path);
    } else {
      path = withoutDotSegments(mergedPath(base, reference.path));
    }
  }
  if (!reference.scheme) target.scheme = base.scheme;
  target.path = path;
  return recompose(target);
}

string percentEncoded(string_view text, string_view allowedMarks) {
  constexpr char digits[] = "0123456789ABCDEF";
  string encoded;
  encoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool isEscape = c == '%' && text.size() - i > 2 && g_ascii_isxdigit(text[i + 1]) &&
                          g_ascii_isxdigit(text[i + 2]);
    if (g_ascii_isalnum(c) || isEscape || isOneOf(c, allowedMarks)) {
      encoded += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += {'%', digits[byte >> 4], digits[byte & 0xF]};
    }
  }
  return encoded;
}

// Gives the calling thread a locale whose encoding is UTF-8: libcurl takes the letters of an
// international name for those of the locale's encoding.
class UTF8Locale {
 public:
  UTF8Locale() {
    static const locale_t locale = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{});
    previous_ = ::uselocale(locale);
  }
  UTF8Locale(const UTF8Locale&) = delete;
  UTF8Locale& operator=(const UTF8Locale&) = delete;
  ~UTF8Locale() { ::uselocale(previous_); }

 private:
  locale_t previous_;
};

// Whether the ASCII form of a host or of an IPv6 zone is one that cannot be mistaken for more than
// that. libcurl takes any zone as it comes, and a letter of an international name may become a
// colon, or nothing.
bool isPlainName(string_view name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return g_ascii_isalnum(c) || isOneOf(c, "-._~");
  });
}

// What an authority says of where to connect.
struct Server {
  string host;
  optional<std::uint16_t> port;
  string wireAuthority;  // host and port in ASCII
};

optional<string> partOf(CURLU* url, CURLUPart part, unsigned flags) {
  char* text = nullptr;
  if (::curl_url_get(url, part, &text, flags) != CURLUE_OK) return std::nullopt;
  const std::unique_ptr<char, decltype(&::curl_free)> owner(text, &::curl_free);
  return text;
}

optional<Server> readServer(string_view authority) {
  constexpr string_view scheme = "http://";
  const UTF8Locale locale;
  const std::unique_ptr<CURLU, decltype(&::curl_url_cleanup)> url(::curl_url(),
                                                                  &::curl_url_cleanup);
  const auto read = [&url](const string& text) {
    const auto code = ::curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0);
    return code == CURLUE_OK ? partOf(url.get(), CURLUPART_URL, 0) : std::nullopt;
  };
  // Twice, since libcurl looks for an IPv4 address before it decodes the host.
  const auto decoded = read(string(scheme).append(authority) + '/');
  if (!decoded || !read(*decoded)) return std::nullopt;
  auto host = partOf(url.get(), CURLUPART_HOST, 0);
  const auto port = partOf(url.get(), CURLUPART_PORT, 0);
  const auto zone = partOf(url.get(), CURLUPART_ZONEID, 0);
  // Asked for the host alone, libcurl 7.88 leaks the name that IDNA refuses.
  const auto wire = partOf(url.get(), CURLUPART_URL, CURLU_PUNYCODE);
  if (!host || !wire) return std::nullopt;

  Server server{*std::move(host), std::nullopt, wire->substr(scheme.size())};
  server.wireAuthority.pop_back();  // the slash
  string_view wireHost = server.wireAuthority;
  if (port) {
    std::from_chars(port->data(), port->data() + port->size(), server.port.emplace());
    wireHost.remove_suffix(port->size() + 1);
  }
  const bool isPlain =
      wireHost.starts_with('[') ? !zone || isPlainName(*zone) : isPlainName(wireHost);
  if (!isPlain) return std::nullopt;
  return server;
}

// Null for no authority and for a malformed one. User info ends at the last "@", so that nothing
// of it is ever taken for a host.
optional<Server> serverOf(const Components& components) {
  if (!components.authority) return std::nullopt;
  const string_view authority = components.authority->substr(components.authority->rfind('@') + 1);
  if (authority.empty()) return std::nullopt;  // libcurl would look for a host in the path

  // Most requests go where the one before went, and reading takes some microseconds.
  struct Known {
    string authority;
    optional<Server> server;
  };
  thread_local Known last;
  constexpr std::size_t longestToKeep = 1024;
  if (authority.size() > longestToKeep) return readServer(authority);
  if (last.authority != authority) last = {string(authority), readServer(authority)};
  return last.server;
}

// Null where there is none. Like a host, it is divided from the rest by the last "@".
optional<string_view> userInfoOf(const Components& components) {
  const auto& authority = components.authority;
  const std::size_t end = authority ? authority->rfind('@') : string_view::npos;
  return end == string_view::npos ? std::nullopt : optional(authority->substr(0, end));
}

optional<string> percentDecoded(string_view text) {
  const std::unique_ptr<char, void (*)(void*)> decoded(
      g_uri_unescape_segment(text.data(), text.data() + text.size(), nullptr), g_free);
  if (!decoded) return std::nullopt;
  return decoded.get();
}

bool isHTTPScheme(const optional<string_view>& scheme) {
  return scheme && (equalIgnoringCase(*scheme, "http") || equalIgnoringCase(*scheme, "https"));
}

}  // namespace

// A short text stands for itself; a long one is kept once for all that were resolved against it.
NSURL::NSURL(string text, const NSURL* base) {
  constexpr std::size_t longest = 1024;  // of what is not shared
  if (text.size() <= longest) {
    rest_ = std::move(text);
    return;
  }
  if (base && base->stem_) {
    const string_view stem = string_view(*base->stem_).substr(0, base->stemLength_);
    const auto end = std::mismatch(stem.begin(), stem.end(), text.begin(), text.end()).first;
    const auto common = static_cast<std::size_t>(end - stem.begin());
    if (text.size() - common <= longest) {
      stem_ = base->stem_;
      stemLength_ = common;
      rest_ = text.substr(common);
      return;
    }
  }
  stemLength_ = text.size();
  stem_ = std::make_shared<const string>(std::move(text));
}

string_view NSURL::text(string& room) const {
  if (!stem_) return rest_;
  if (rest_.empty() && stemLength_ == stem_->size()) return *stem_;
  room = stem_->substr(0, stemLength_) + rest_;
  return room;
}

string NSURL::absoluteString() const {
  string room;
  return string(text(room));
}

std::strong_ordering NSURL::operator<=>(const NSURL& other) const {
  string room;
  string roomOfOther;
  return text(room) <=> other.text(roomOfOther);
}

optional<NSURL> NSURL::URLWithString(string_view text) {
  if (text.empty() || !mayBeURL(text)) return std::nullopt;
  return NSURL(string(text), nullptr);
}

optional<NSURL> NSURL::URLWithString_relativeToURL(string_view text, const NSURL& base) {
  if (!mayBeURL(text)) return std::nullopt;
  string room;
  string resolved = resolve(componentsOf(text), componentsOf(base.text(room)));
  if (resolved.empty() || !mayBeURL(resolved)) return std::nullopt;
  return NSURL(std::move(resolved), &base);
}

optional<string> NSURL::scheme() const {
  string room;
  const auto scheme = componentsOf(text(room)).scheme;
  if (!scheme) return std::nullopt;
  return lowerCaseASCII(*scheme);
}

optional<string> NSURL::host() const {
  string room;
  auto server = serverOf(componentsOf(text(room)));
  if (!server) return std::nullopt;
  return std::move(server->host);
}

optional<std::uint16_t> NSURL::port() const {
  string room;
  const auto server = serverOf(componentsOf(text(room)));
  return server ? server->port : std::nullopt;
}

optional<string> NSURL::user() const {
  string room;
  const auto info = userInfoOf(componentsOf(text(room)));
  return info ? percentDecoded(info->substr(0, info->find(':'))) : std::nullopt;
}

optional<string> NSURL::password() const {
  string room;
  const auto info = userInfoOf(componentsOf(text(room)));
  const std::size_t colon = info ? info->find(':') : string_view::npos;
  return colon == string_view::npos ? std::nullopt : percentDecoded(info->substr(colon + 1));
}

string NSURL::path() const {
  string room;
  return string(componentsOf(text(room)).path);
}

string NSURL::lastPathComponent() const {
  string room;
  string_view path = componentsOf(text(room)).path;
  path = path.substr(0, path.find_last_not_of('/') + 1);
  return string(path.substr(path.rfind('/') + 1));
}

string NSURL::wireString() const {
  constexpr string_view pathMarks = "-._~!$&'()*+,;=:@/";
  constexpr string_view queryMarks = "-._~!$&'()*+,;=:@/?";
  string room;
  const Components components = componentsOf(text(room));
  if (!isHTTPScheme(components.scheme)) return {};
  const auto server = serverOf(components);
  if (!server) return {};
  string wire = lowerCaseASCII(*components.scheme) + "://" + server->wireAuthority;
  const string path = withoutDotSegments(components.path);
  wire += path.empty() ? "/" : percentEncoded(path, pathMarks);
  if (components.query) wire += '?' + percentEncoded(*components.query, queryMarks);
  return wire;
}

bool NSURL::isHTTP() const {
  string room;
  const Components components = componentsOf(text(room));
  return isHTTPScheme(components.scheme) && serverOf(components);
}

}  // namespace quillmere
