#include <libintl.h>
#include <quillmere/platform/base/KSStringTable.h>

namespace quillmere {

const char* KSLocalizedString(const char* english) {
  constexpr const char* table = "Quillmere";
  // The library's texts are UTF-8, whatever the locale's encoding.
  static const char* const encoding = ::bind_textdomain_codeset(table, "UTF-8");
  return encoding ? ::dgettext(table, english) : english;
}

std::string KSLocalizedString(const char* english, std::string_view argument) {
  constexpr std::string_view placeholder = "%@";
  std::string text = KSLocalizedString(english);
  if (const auto at = text.find(placeholder); at != std::string::npos) {
    text.replace(at, placeholder.size(), argument);
  }
  return text;
}

}  // namespace quillmere
