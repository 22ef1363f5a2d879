#include <libintl.h>
#include <quillmere/platform/base/KSStringTable.h>

#include <cstddef>
#include <initializer_list>

namespace quillmere {
namespace {

// What is filled in is not searched for placeholders.
std::string filledIn(std::string text, std::initializer_list<std::string_view> arguments) {
  constexpr std::string_view placeholder = "%@";
  std::size_t from = 0;
  for (const std::string_view argument : arguments) {
    const auto at = text.find(placeholder, from);
    if (at == std::string::npos) break;
    text.replace(at, placeholder.size(), argument);
    from = at + argument.size();
  }
  return text;
}

}  // namespace

const char* KSLocalizedString(const char* english) {
  constexpr const char* table = "Quillmere";
  // The library's texts are UTF-8, whatever the locale's encoding.
  static const char* const encoding = ::bind_textdomain_codeset(table, "UTF-8");
  return encoding ? ::dgettext(table, english) : english;
}

std::string KSLocalizedString(const char* english, std::string_view argument) {
  return filledIn(KSLocalizedString(english), {argument});
}

std::string KSLocalizedString(const char* english, std::string_view first,
                              std::string_view second) {
  return filledIn(KSLocalizedString(english), {first, second});
}

}  // namespace quillmere
