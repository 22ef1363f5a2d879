#include <glib.h>
#include <quillmere/platform/net/HTTPFields.h>

#include <algorithm>

namespace quillmere {

std::string lowerCaseASCII(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), g_ascii_tolower);
  return lower;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return g_ascii_tolower(x) == g_ascii_tolower(y); });
}

bool isTokenCharacter(char character) {
  constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
  return g_ascii_isalnum(character) || marks.find(character) != std::string_view::npos;
}

bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

std::optional<std::string> joinedFieldValue(
    const std::vector<std::pair<std::string, std::string>>& fields, std::string_view name) {
  std::optional<std::string> joined;
  for (const auto& [fieldName, value] : fields) {
    if (!equalIgnoringCase(fieldName, name)) continue;
    if (joined) {
      *joined += ", " + value;
    } else {
      joined = value;
    }
  }
  return joined;
}

}  // namespace quillmere
