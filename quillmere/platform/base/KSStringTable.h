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

/// The same, with `argument` in place of the text's first "%@".
std::string KSLocalizedString(const char* english, std::string_view argument);

}  // namespace quillmere

#endif
