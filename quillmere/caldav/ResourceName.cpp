#include <quillmere/caldav/ResourceName.h>
#include <quillmere/platform/base/UTF8.h>
#include <quillmere/platform/net/NSURL.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <optional>

namespace quillmere {
namespace {

using std::string_view;

// The byte of the escape that the text begins with, null when it begins with none.
std::optional<char> escapedByte(string_view text) {
  constexpr std::size_t length = 3;
  if (text.size() < length || text[0] != '%') return std::nullopt;
  unsigned char byte = 0;
  const char* const end = text.data() + length;
  if (std::from_chars(text.data() + 1, end, byte, 16).ptr != end) return std::nullopt;
  return static_cast<char>(byte);
}

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// RFC 3986 section 3.1.
bool isScheme(string_view text) {
  return !text.empty() && isLetter(text[0]) && std::all_of(text.begin(), text.end(), [](char c) {
    return isLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
  });
}

bool survivesDecoded(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= ' ' && byte != 0x7f && c != '/' && c != '%' && c != '?' && c != '#';
}

std::string decoded(string_view component) {
  std::string text;
  for (std::size_t at = 0; at < component.size();) {
    const string_view escape = component.substr(at, 3);
    const auto byte = escapedByte(escape);
    if (!byte) {
      text += component[at++];
      continue;
    }
    if (survivesDecoded(*byte)) {
      text += *byte;
    } else {
      for (const char c : escape) text += c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    at += escape.size();
  }
  const std::size_t colon = text.find(':');
  if (colon != std::string::npos && isScheme(string_view(text).substr(0, colon))) {
    text.replace(colon, 1, "%3A");
  }
  return isValidUTF8(text) ? text : std::string(component);
}

}  // namespace

std::string uniqueNameOfHref(string_view href) {
  const auto url = NSURL::URLWithString(href);
  std::string name = decoded(url ? url->lastPathComponent() : href);
  const auto dot = name.rfind('.');
  if (dot != std::string::npos && dot > 0) name.resize(dot);
  return name;
}

}  // namespace quillmere
