#ifndef EXAMPLES_COMMON_RESOURCENAME_H
#define EXAMPLES_COMMON_RESOURCENAME_H

#include <string>
#include <string_view>

namespace examples {

/// `text` with an escape for each control character and each character of `reserved`.
std::string percentEncoded(std::string_view text, std::string_view reserved);

/// What is no escape stays as it is.
std::string percentDecoded(std::string_view text);

/// The name by which a collection stores what people call `title`: with escapes for what would have
/// a meaning in the address that the library makes of it. It is also the unique name that the
/// library makes of the address.
std::string resourceName(std::string_view title);

}  // namespace examples

#endif
