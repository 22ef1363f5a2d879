#ifndef QUILLMERE_PLATFORM_BASE_KSSTRINGTABLE_H
#define QUILLMERE_PLATFORM_BASE_KSSTRINGTABLE_H

#include <string>
#include <string_view>

// Internal: the library's texts for people, in their language.
namespace quillmere {

/// The text of the library's string table for `english`, which is both key and fallback. The table
/// is the gettext domain "Quillmere", so a host that has a translation binds that domain
/// (`bindtextdomain`) and sets its locale.
const char* KSLocalizedString(const char* english);

/// The same, with the arguments in place of the text's "%@", in order.
std::string KSLocalizedString(const char* english, std::string_view argument);
std::string KSLocalizedString(const char* english, std::string_view first, std::string_view second);

}  // namespace quillmere

#endif
