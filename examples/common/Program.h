#ifndef EXAMPLES_COMMON_PROGRAM_H
#define EXAMPLES_COMMON_PROGRAM_H

#include <getopt.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/net/NSURL.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace examples {

enum ExitStatus { allWell = 0, operationFailed = 1, usageWrong = 2 };

/// An operation has failed; the text is for people.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The command line does not say what to do.
struct UsageProblem : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// What main() returns: what `run` does, or after an exception, which is told on standard error,
/// the status that fits it. Output that cannot be written is a failure.
int runProgram(const std::function<ExitStatus()>& run);

/// Tells it on standard error, behind the program's name.
void printError(const std::string& text);

/// Calls `apply` with each option's `val` and argument, and returns the other arguments. Throws
/// UsageProblem.
std::vector<std::string> parseOptions(
    int argc, char** argv, const option* options,
    const std::function<void(int option, const std::string& argument)>& apply);

/// Null when it is not set.
std::optional<std::string> environment(const char* name);

/// The URL of a folder on a server. It ends with a slash, or names would be resolved beside it.
/// Throws UsageProblem.
quillmere::NSURL urlOfFolder(std::string text);

/// The error's text, domain and code.
std::string textOf(const quillmere::NSError& error);

}  // namespace examples

#endif
