#include <quillmere/platform/base/ByteScan.h>
#include <quillmere/platform/xml/XMLText.h>
#include <utf8.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace quillmere {
namespace {

using std::string_view;

constexpr bool isASCII(char byte) { return static_cast<unsigned char>(byte) < 0x80; }

constexpr bool isXMLCharacter(char32_t character) {
  if (character < 0x20) return character == '\t' || character == '\n' || character == '\r';
  return character < 0xD800 || (character > 0xDFFF && character < 0xFFFE) ||
         (character > 0xFFFF && character <= 0x10FFFF);
}

struct Traits {
  unsigned char bits;          // all bits of all bytes
  unsigned char isControlled;  // not 0 when there is a control character that XML does not have
};

// Compilers make vector operations of it where the length is a constant.
inline Traits traitsOf(const char* bytes, std::ptrdiff_t length) {
  Traits traits{0, 0};
  for (std::ptrdiff_t i = 0; i != length; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    traits.bits |= byte;
    const auto isSpace = (byte == '\t') | (byte == '\n') | (byte == '\r');
    traits.isControlled |= static_cast<unsigned char>((byte < 0x20) & ~isSpace);
  }
  return traits;
}

// The character that the text between "&" and ";" stands for.
std::optional<char32_t> referencedCharacter(string_view reference) {
  constexpr struct {
    string_view name;
    char32_t character;
  } named[] = {{"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
  for (const auto& [name, character] : named) {
    if (reference == name) return character;
  }
  if (!reference.starts_with('#')) return std::nullopt;
  reference.remove_prefix(1);
  const bool isHexadecimal = reference.starts_with('x');
  if (isHexadecimal) reference.remove_prefix(1);
  std::uint32_t character = 0;
  const char* const end = reference.data() + reference.size();
  const auto read = std::from_chars(reference.data(), end, character, isHexadecimal ? 16 : 10);
  if (read.ec != std::errc() || read.ptr != end || !isXMLCharacter(character)) return std::nullopt;
  return character;
}

void appendEscaped(std::string& to, string_view text, string_view special) {
  for (;;) {
    const std::size_t plain = std::min(text.find_first_of(special), text.size());
    to += text.substr(0, plain);
    if (plain == text.size()) return;
    switch (const char character = text[plain]) {
      case '&':
        to += "&amp;";
        break;
      case '<':
        to += "&lt;";
        break;
      case '>':
        to += "&gt;";
        break;
      case '"':
        to += "&quot;";
        break;
      default:
        to += "&#" + std::to_string(character) + ';';
    }
    text.remove_prefix(plain + 1);
  }
}

}  // namespace

bool isXMLText(string_view bytes) {
  constexpr std::ptrdiff_t block = 256;
  const char* at = bytes.data();
  const char* const end = at + bytes.size();
  while (at != end) {
    const bool isWhole = end - at >= block;
    const Traits traits = isWhole ? traitsOf(at, block) : traitsOf(at, end - at);
    if (traits.isControlled != 0) return false;
    const char* const blockEnd = isWhole ? at + block : end;
    if (isASCII(static_cast<char>(traits.bits))) {
      at = blockEnd;
      continue;
    }
    // No sequence of UTF-8 reaches over an ASCII byte, so each run of others is checked by itself.
    while (at < blockEnd) {
      const char* const run = findNonASCII(at, blockEnd);
      at = std::find_if(run, end, isASCII);
      const string_view characters(run, static_cast<std::size_t>(at - run));
      if (!utf8::is_valid(run, at) || characters.find("\xEF\xBF\xBE") != string_view::npos ||
          characters.find("\xEF\xBF\xBF") != string_view::npos) {
        return false;
      }
    }
  }
  return true;
}

std::string xmlText(string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  const char* const end = bytes.data() + bytes.size();
  for (const char* at = bytes.data(); at != end; ++at) {
    const char* const invalid = utf8::find_invalid(at, end);
    while (at != invalid) {
      const char* const from = at;
      if (isXMLCharacter(utf8::unchecked::next(at))) text.append(from, at);
    }
    if (at == end) break;
  }
  return text;
}

std::optional<std::string> textOfUTF16(string_view bytes) {
  const bool isBigEndian = bytes.starts_with("\xFE\xFF");
  if ((!isBigEndian && !bytes.starts_with("\xFF\xFE")) || bytes.size() % 2 != 0) {
    return std::nullopt;
  }
  std::u16string units;
  units.reserve(bytes.size() / 2);
  for (std::size_t at = 2; at != bytes.size(); at += 2) {
    const auto first = static_cast<unsigned char>(bytes[at]);
    const auto second = static_cast<unsigned char>(bytes[at + 1]);
    units += static_cast<char16_t>(isBigEndian ? first << 8 | second : second << 8 | first);
  }
  try {
    std::string text;
    text.reserve(units.size());
    utf8::utf16to8(units.begin(), units.end(), std::back_inserter(text));
    return text;
  } catch (const utf8::exception&) {
    return std::nullopt;
  }
}

void appendEscapedText(std::string& to, string_view text) { appendEscaped(to, text, "&<>\r"); }

void appendEscapedAttribute(std::string& to, string_view value) {
  appendEscaped(to, value, "&<>\"\t\n\r");
}

char* writeUnescaped(char* to, string_view raw) {
  const char* from = raw.data();
  const char* const end = from + raw.size();
  for (;;) {
    const char* const special = findEither(from, end, '&', '\0');
    const auto plain = static_cast<std::size_t>(special - from);
    if (to != from) std::memmove(to, from, plain);
    to += plain;
    if (special == end || *special == '\0') return to;
    const char* const reference = special + 1;
    const char* const semicolon = std::find(reference, end, ';');
    if (semicolon == end) return nullptr;
    const auto character =
        referencedCharacter({reference, static_cast<std::size_t>(semicolon - reference)});
    if (!character) return nullptr;
    to = utf8::unchecked::append(*character, to);  // no character is longer than its reference
    from = semicolon + 1;
  }
}

}  // namespace quillmere
