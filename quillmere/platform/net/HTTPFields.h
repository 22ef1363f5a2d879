#ifndef QUILLMERE_PLATFORM_NET_HTTPFIELDS_H
#define QUILLMERE_PLATFORM_NET_HTTPFIELDS_H

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Internal: the notions that HTTP's header fields share (RFC 9110 section 5). Case is that of
// ASCII, whatever the locale.
namespace quillmere {

std::string lowerCaseASCII(std::string_view text);

/// Without the white space around it, ends of lines included.
std::string_view trimmed(std::string_view text);

bool equalIgnoringCase(std::string_view a, std::string_view b);

/// Whether `character` may be in a token, such as a method or a field's name.
bool isTokenCharacter(char character);

bool isToken(std::string_view text);

/// The values of all fields of that name, joined by ", "; null when there is none.
std::optional<std::string> joinedFieldValue(
    const std::vector<std::pair<std::string, std::string>>& fields, std::string_view name);

}  // namespace quillmere

#endif
