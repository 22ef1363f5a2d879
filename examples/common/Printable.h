#ifndef EXAMPLES_COMMON_PRINTABLE_H
#define EXAMPLES_COMMON_PRINTABLE_H

#include <string>
#include <string_view>

namespace examples {

/// `text` as it may go to a terminal: control characters are replaced, so that nobody's summary
/// moves the cursor, and so are bytes that would be one in a terminal that knows no UTF-8.
std::string printable(std::string_view text);

}  // namespace examples

#endif
