#ifndef DAVPROBE_PASSWORD_H
#define DAVPROBE_PASSWORD_H

#include <optional>
#include <string>

namespace davprobe {

/// Asks on the terminal that the process belongs to, whatever its input and output are, and shows
/// nothing of what is typed. Null without a terminal and when the input ends before a line does.
std::optional<std::string> askForPassword(const std::string& prompt);

}  // namespace davprobe

#endif
