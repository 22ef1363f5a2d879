// Any bytes as an address; after a line break, as a reference to resolve against it.

#include <quillmere/platform/net/NSURL.h>

#include <algorithm>
#include <string>

#include "fuzz/Fuzzing.h"

namespace quillmere {
namespace {

using fuzzing::require;

bool mayTravel(char character) {
  return character > ' ' && character < '\x7F' &&
         std::string_view("\"#<>\\^`{|}").find(character) == std::string_view::npos;
}

void checkWire(const NSURL& url) {
  const std::string wire = url.wireString();
  require(url.isHTTP() == !wire.empty(), "only an HTTP address goes on the wire");
  if (wire.empty()) return;
  require(std::all_of(wire.begin(), wire.end(), mayTravel), "all of it may travel");
  const std::size_t server = wire.find("//") + 2;
  const std::size_t path = wire.find('/', server);
  const std::string authority = wire.substr(server, path - server);
  require(authority.find_first_of("@?") == std::string::npos, "without user info, with a path");
  const std::string segments = wire.substr(path, wire.find('?') - path) + '/';
  require(segments.find("/../") == std::string::npos && segments.find("/./") == std::string::npos,
          "without dot segments");
  const auto again = NSURL::URLWithString(wire);
  require(again && again->wireString() == wire, "it stays as it is");
  require(again->scheme() == url.scheme() && again->port() == url.port(), "with the same port");
}

void checkResolution(std::string_view text, const NSURL& base) {
  const auto url = NSURL::URLWithString_relativeToURL(text, base);
  const auto alone = NSURL::URLWithString(text);
  if (!url || !base.scheme()) return;
  require(text.empty() || alone, "a reference that resolves is an address");
  require(url->scheme() == (alone && alone->scheme() ? alone->scheme() : base.scheme()),
          "it has a scheme");
  const auto again = NSURL::URLWithString_relativeToURL(url->absoluteString(), base);
  const bool hasBasePath = !alone || (!alone->scheme() && alone->path().empty());
  require(hasBasePath || again == url, "what is resolved stays as it is");
  checkWire(*url);
}

void check(std::string_view text) {
  const std::size_t lineBreak = text.find('\n');
  const auto base = NSURL::URLWithString(text.substr(0, lineBreak));
  if (!base) return;
  require(base->absoluteString() == text.substr(0, lineBreak), "the text stays as it is");
  checkWire(*base);
  const std::string last = base->lastPathComponent();
  require(last.find('/') == std::string::npos, "a component has no slash");
  require(base->path().find(last) != std::string::npos, "and is in the path");
  if (lineBreak != std::string_view::npos) checkResolution(text.substr(lineBreak + 1), *base);
}

}  // namespace
}  // namespace quillmere

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  quillmere::check(quillmere::fuzzing::viewOf(bytes, count));
  return 0;
}
