// davprobe looks into a collection on a CalDAV server and changes it: an example host of Quillmere.

#include <quillmere/platform/base/HWPreference.h>
#include <unistd.h>

#include <clocale>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Collection.h"
#include "common/Password.h"
#include "common/Printable.h"
#include "common/Program.h"

namespace davprobe {
namespace {

using examples::Failure;
using examples::printable;
using examples::UsageProblem;
using quillmere::NSData;

constexpr const char* helpText = R"(Usage: davprobe [OPTION]... URL [COMMAND]
Looks into a calendar collection on a CalDAV server.

Commands:
  (none)           tells the collection's tag, what it may hold, and how much it holds
  list             name and entity tag of every event and to-do
  get NAME         the text of one
  put NAME FILE    makes one of a file, or puts the file in its place
  delete NAME      deletes it; it does not matter whether it was there

Options:
  --user NAME      who asks; otherwise the environment's QUILLMERE_USER, if any
  --log            shows on standard error what the server answers
  --help           this text

The password is the environment's QUILLMERE_PASSWORD, or is asked for on the terminal.

Exit status: 0 all went well; 1 an operation failed; 2 the command line is wrong.
)";

struct Options {
  bool needsHelp = false;
  bool logs = false;
  std::optional<std::string> user;
  std::vector<std::string> arguments;  // the URL, the command and what it takes
};

Options parseCommandLine(int argc, char** argv) {
  constexpr option options[] = {{"user", required_argument, nullptr, 'u'},
                                {"log", no_argument, nullptr, 'l'},
                                {"help", no_argument, nullptr, 'h'},
                                {nullptr, 0, nullptr, 0}};
  Options parsed;
  parsed.user = examples::environment("QUILLMERE_USER");
  parsed.arguments =
      examples::parseOptions(argc, argv, options, [&](int found, const std::string& argument) {
        if (found == 'u') parsed.user = argument;
        if (found == 'l') parsed.logs = true;
        if (found == 'h') parsed.needsHelp = true;
      });
  return parsed;
}

void checkCommand(const std::vector<std::string>& arguments) {
  if (arguments.empty()) throw UsageProblem("no URL is given");
  if (arguments.size() == 1) return;
  const std::string& command = arguments[1];
  const bool takesName = command == "get" || command == "put" || command == "delete";
  if (!takesName && command != "list")
    throw UsageProblem("there is no command \"" + command + "\"");
  const std::size_t count = command == "put" ? 4 : takesName ? 3 : 2;
  if (arguments.size() != count) throw UsageProblem("wrong number of arguments of " + command);
  if (takesName && arguments[2].empty()) throw UsageProblem("the name is empty");
}

// Tells nothing unless all of it is known.
void probe(Collection& collection) {
  const std::string tag = collection.tag().value_or("(none)");
  const Resources resources = collection.resources(true);
  std::size_t size = 0;
  for (const auto& [name, resource] : resources) size += resource.size;
  std::string kinds = collection.canContainEvents() ? "events" : "";
  if (collection.canContainTodos()) kinds += kinds.empty() ? "to-dos" : ", to-dos";
  std::cout << "tag: " << printable(tag) << "\n"
            << "may hold: " << kinds << "\n"
            << "resources: " << resources.size() << ", bytes: " << size << "\n";
}

void list(Collection& collection) {
  for (const auto& [name, resource] : collection.resources(false)) {
    std::cout << printable(name) << "\t" << printable(resource.etag) << "\n";
  }
}

// Into a file or a pipe the text goes as it is.
void show(const std::string& text) {
  if (::isatty(STDOUT_FILENO) == 0) {
    std::cout << text;
    return;
  }
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.ends_with('\r')) line.pop_back();
    std::cout << printable(line) << "\n";
  }
}

void put(Collection& collection, const std::string& name, const std::string& file) {
  const auto text = NSData::dataWithContentsOfFile(file);
  if (!text) throw Failure("cannot read " + file);
  const std::string etag = collection.put(name, *text);
  std::cout << "put " << printable(name) << "\t" << printable(etag) << "\n";
}

examples::ExitStatus run(const Options& options) {
  if (options.needsHelp) {
    std::cout << helpText;
    return examples::allWell;
  }
  const auto& arguments = options.arguments;
  checkCommand(arguments);
  if (options.logs) {
    quillmere::HWPreference::preferenceForKey("KBTDavRequestorLogLevel")->setIntegerValue(1);
  }
  const auto url = examples::urlOfFolder(arguments[0]);
  Collection collection(url, options.user, examples::passwordOf(options.user));
  const std::string command = arguments.size() > 1 ? arguments[1] : "";
  if (command == "list") {
    list(collection);
  } else if (command == "get") {
    show(collection.textOf(arguments[2]));
  } else if (command == "put") {
    put(collection, arguments[2], arguments[3]);
  } else if (command == "delete") {
    collection.remove(arguments[2]);
    std::cout << "deleted " << printable(arguments[2]) << "\n";
  } else {
    probe(collection);
  }
  return examples::allWell;
}

}  // namespace
}  // namespace davprobe

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "");  // the log is written in the terminal's encoding
  return examples::runProgram(
      [=] { return davprobe::run(davprobe::parseCommandLine(argc, argv)); });
}
