#include "common/Program.h"

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <iostream>

#include "common/Printable.h"

namespace examples {

int runProgram(const std::function<ExitStatus()>& run) {
  try {
    const ExitStatus status = run();
    std::cout.flush();
    if (std::cout) return status;
    printError("the output could not be written");
    return operationFailed;
  } catch (const UsageProblem& problem) {
    printError(problem.what());
    std::cerr << program_invocation_short_name << " --help tells more.\n";
    return usageWrong;
  } catch (const std::exception& problem) {
    printError(problem.what());
    return operationFailed;
  }
}

void printError(const std::string& text) {
  std::cerr << program_invocation_short_name << ": " << printable(text) << "\n";
}

std::vector<std::string> parseOptions(
    int argc, char** argv, const option* options,
    const std::function<void(int option, const std::string& argument)>& apply) {
  opterr = 0;  // the messages are these
  while (true) {
    const int found = getopt_long(argc, argv, ":", options, nullptr);
    if (found == -1) break;
    const std::string argument = argv[optind - 1];
    if (found == ':') throw UsageProblem(argument + " needs an argument");
    if (found == '?') throw UsageProblem(argument + " is no option, or takes no argument");
    apply(found, optarg ? optarg : "");
  }
  return {argv + optind, argv + argc};
}

std::optional<std::string> environment(const char* name) {
  const char* const value = std::getenv(name);
  if (!value) return std::nullopt;
  return value;
}

quillmere::NSURL urlOfFolder(std::string text) {
  if (!text.ends_with('/')) text += '/';
  const auto url = quillmere::NSURL::URLWithString(text);
  if (!url || !url->isHTTP()) throw UsageProblem("\"" + text + "\" is no http or https URL");
  return *url;
}

std::string textOf(const quillmere::NSError& error) {
  return error.localizedDescription() + " (" + error.domain() + " " + std::to_string(error.code()) +
         ")";
}

}  // namespace examples
