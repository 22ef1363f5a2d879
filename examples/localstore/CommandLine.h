#ifndef LOCALSTORE_COMMANDLINE_H
#define LOCALSTORE_COMMANDLINE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Event.h"

namespace localstore {

struct Options {
  bool needsHelp = false;
  std::string command;
  std::vector<std::string> arguments;  ///< of the command
  std::optional<std::string> backend;
  std::optional<When> from;  ///< null: today
  std::int64_t days = 7;
  std::optional<std::int64_t> seconds;  ///< null: until interrupted
  Fields fields;
};

/// Throws UsageProblem when the arguments make no sense.
Options parseCommandLine(int argc, char** argv);

/// What `--help` prints.
extern const char* const helpText;

}  // namespace localstore

#endif
