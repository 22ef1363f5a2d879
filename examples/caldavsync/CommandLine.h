#ifndef CALDAVSYNC_COMMANDLINE_H
#define CALDAVSYNC_COMMANDLINE_H

#include <optional>
#include <set>
#include <string>

namespace caldavsync {

struct Options {
  bool needsHelp = false;
  bool logs = false;
  bool isDryRun = false;
  bool allowsEmptying = false;
  std::optional<std::string> user;
  std::optional<std::string> created;  ///< a calendar that should be there
  std::set<std::string> calendars;     ///< names; none: all
  std::string url;
  std::string folder;
};

/// Throws examples::UsageProblem when the arguments make no sense.
Options parseCommandLine(int argc, char** argv);

/// What `--help` prints.
extern const char* const helpText;

}  // namespace caldavsync

#endif
