#include "CommandLine.h"

#include "common/Program.h"

namespace caldavsync {

using examples::UsageProblem;

Options parseCommandLine(int argc, char** argv) {
  constexpr option options[] = {
      {"user", required_argument, nullptr, 'u'},     {"calendar", required_argument, nullptr, 'c'},
      {"create", required_argument, nullptr, 'n'},   {"dry-run", no_argument, nullptr, 'd'},
      {"allow-emptying", no_argument, nullptr, 'e'}, {"log", no_argument, nullptr, 'l'},
      {"help", no_argument, nullptr, 'h'},           {nullptr, 0, nullptr, 0}};
  Options parsed;
  parsed.user = examples::environment("QUILLMERE_USER");
  const auto arguments =
      examples::parseOptions(argc, argv, options, [&](int found, const std::string& argument) {
        if (found == 'u') parsed.user = argument;
        if (found == 'c') parsed.calendars.insert(argument);
        if (found == 'n') parsed.created = argument;
        if (found == 'd') parsed.isDryRun = true;
        if (found == 'e') parsed.allowsEmptying = true;
        if (found == 'l') parsed.logs = true;
        if (found == 'h') parsed.needsHelp = true;
      });
  if (parsed.needsHelp) return parsed;
  if (arguments.size() != 2) throw UsageProblem("a URL and a folder are needed");
  if (parsed.created && parsed.created->empty()) throw UsageProblem("the calendar has no name");
  if (parsed.created && parsed.isDryRun) {
    throw UsageProblem("--create and --dry-run exclude each other");
  }
  parsed.url = arguments[0];
  parsed.folder = arguments[1];
  if (parsed.folder.empty()) throw UsageProblem("the folder has no name");
  return parsed;
}

const char* const helpText =
    R"(Usage: caldavsync [OPTION]... URL FOLDER
Mirrors the calendars of an account on a CalDAV server in a folder: a folder for each calendar,
and in it an .ics file for each event and to-do. What was added, changed, deleted on either side
since the last run is done on the other.

Options:
  --user NAME        whose account; otherwise the environment's QUILLMERE_USER, if any
  --calendar NAME    only this one; may be given several times
  --create NAME      makes a calendar at the server, unless there is one of that name
  --dry-run          tells what would be done, and changes nothing on either side
  --allow-emptying   goes on where a folder, or a calendar at the server, has become empty.
                     Otherwise that is an error, and the other side keeps what it has
  --log              shows on standard error what the server answers
  --help             this text

The password is the environment's QUILLMERE_PASSWORD, or is asked for on the terminal.

What both sides have changed is a conflict: the server's version counts. A file that had other
contents gets a name like tea.ics.conflict-20240105T093000Z and is left alone from then on. What
was deleted here and changed at the server comes back.

What the server refuses, as all of a calendar that may only be read, stays as it is here and is
tried again by the next run. New folders make no calendars, and the folder of a calendar that
the server no longer lists is left alone until you delete it. What the runs leave for each other
is FOLDER/.caldavsync; without it both sides are compared anew, and nothing is deleted on either.

Exit status: 0 both sides are in step; 1 something failed; 2 the command line is wrong.
)";

}  // namespace caldavsync
