#include "common/ResourceName.h"

#include <quillmere/platform/net/NSURL.h>

#include <algorithm>
#include <charconv>

namespace examples {
namespace {

using std::string_view;

std::string escapeOf(char c) {
  constexpr string_view digits = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(c);
  return {'%', digits[byte / 16], digits[byte % 16]};
}

bool isControl(char c) { return (c >= 0 && c < ' ') || c == 0x7f; }

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// RFC 3986 section 3.1.
bool isScheme(string_view text) {
  return !text.empty() && isLetter(text[0]) && std::all_of(text.begin(), text.end(), [](char c) {
    return isLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
  });
}

template <class Condition>
std::string encodedWhere(const Condition& isReserved, string_view text) {
  std::string encoded;
  for (const char c : text) isReserved(c) ? encoded += escapeOf(c) : encoded += c;
  return encoded;
}

}  // namespace

std::string percentEncoded(string_view text, string_view reserved) {
  return encodedWhere([=](char c) { return isControl(c) || reserved.find(c) != string_view::npos; },
                      text);
}

std::string percentDecoded(string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned char byte = 0;
    const string_view digits = text.substr(i + 1, 2);
    const char* const end = digits.data() + digits.size();
    if (text[i] == '%' && digits.size() == 2 &&
        std::from_chars(digits.data(), end, byte, 16).ptr == end) {
      decoded += static_cast<char>(byte);
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

std::string resourceName(string_view title) {
  std::string name = percentEncoded(title, "/%?#");
  const std::size_t colon = name.find(':');
  if (colon != std::string::npos && isScheme(string_view(name).substr(0, colon))) {
    name.replace(colon, 1, escapeOf(':'));
  }
  // Bytes that are not UTF-8 make no URL.
  if (quillmere::NSURL::URLWithString(name)) return name;
  return encodedWhere([](char c) { return static_cast<unsigned char>(c) >= 0x80; }, name);
}

}  // namespace examples
