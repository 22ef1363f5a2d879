#ifndef EXAMPLES_COMMON_PASSWORD_H
#define EXAMPLES_COMMON_PASSWORD_H

#include <optional>
#include <string>

namespace examples {

/// The environment's QUILLMERE_PASSWORD, else what is typed on the terminal that the process belongs
/// to, whatever its input and output are; nothing of that is shown. Nobody's password is null. Throws
/// UsageProblem without a terminal and when the input ends before a line does.
std::optional<std::string> passwordOf(const std::optional<std::string>& user);

}  // namespace examples

#endif
