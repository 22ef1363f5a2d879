#ifndef AGENDA_COMMANDLINE_H
#define AGENDA_COMMANDLINE_H

#include <quillmere/platform/net/NSURL.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ComponentEditing.h"
#include "Entry.h"

namespace agenda {

enum class Command { showDays, list, add, edit, remove, help };

/// A calendar of the command line.
struct Place {
  std::string name;                     ///< what the user is told: the file, or the URL
  std::optional<quillmere::NSURL> url;  ///< null: a file
};

struct Options {
  Command command = Command::showDays;
  std::vector<Place> places;
  std::optional<std::string> stateFolder;
  std::optional<std::string> zone;
  std::optional<When> from;  ///< null: today
  std::optional<When> to;    ///< the last day; null: `days` tells
  std::int64_t days = 7;
  std::string uid;  ///< of what is edited or removed
  Fields fields;    ///< of what is added or edited
};

/// Throws UsageProblem when the arguments make no sense.
Options parseCommandLine(int argc, char** argv);

/// What `--help` prints.
extern const char* const helpText;

}  // namespace agenda

#endif
