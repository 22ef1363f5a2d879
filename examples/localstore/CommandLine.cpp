#include "CommandLine.h"

#include <quillmere/platform/dates/NSCalendar.h>

#include <algorithm>
#include <string_view>

#include "common/Arguments.h"
#include "common/Program.h"

namespace localstore {
namespace {

using examples::UsageProblem;
using quillmere::NSCalendar;
using quillmere::NSTimeZone;
using std::string_view;

constexpr std::int64_t maximumNumber = 36600;

enum Option : char {
  backendOption = 'b',
  fromOption = 'f',
  daysOption = 'd',
  titleOption = 't',
  startOption = 's',
  endOption = 'e',
  allDayOption = 'a',
  notesOption = 'n',
  secondsOption = 'w',
  helpOption = 'h',
};

constexpr option options[] = {
    {"backend", required_argument, nullptr, backendOption},
    {"from", required_argument, nullptr, fromOption},
    {"days", required_argument, nullptr, daysOption},
    {"title", required_argument, nullptr, titleOption},
    {"start", required_argument, nullptr, startOption},
    {"end", required_argument, nullptr, endOption},
    {"all-day", no_argument, nullptr, allDayOption},
    {"notes", required_argument, nullptr, notesOption},
    {"seconds", required_argument, nullptr, secondsOption},
    {"help", no_argument, nullptr, helpOption},
    {nullptr, 0, nullptr, 0},
};

struct Command {
  string_view name;
  std::size_t argumentCount;
  string_view options;  // but for those that all commands take
};

constexpr Command commands[] = {
    {"calendars", 0, ""},   {"create-calendar", 1, ""}, {"list", 1, "fd"}, {"add", 1, "tsean"},
    {"change", 2, "tsean"}, {"remove", 2, ""},          {"watch", 0, "w"},
};

// Takes the time as that of the default zone.
When whenOf(const examples::TypedTime& time) {
  const NSCalendar utc(NSTimeZone::timeZoneWithName("UTC").value());
  const auto fields = utc.componentsFromDate(time.date);
  return {NSCalendar::currentCalendar().dateFromComponents(fields).value(), time.isDay};
}

std::string parseBackend(const std::string& text) {
  if (text == "sqlite" || text == "evolution" || text == "auto") return text;
  throw UsageProblem("--backend is sqlite, evolution or auto");
}

void apply(Option option, const std::string& argument, Options& parsed) {
  switch (option) {
    case backendOption:
      parsed.backend = parseBackend(argument);
      break;
    case fromOption:
      parsed.from = whenOf(examples::parseDay(argument));
      break;
    case daysOption:
      parsed.days = examples::parseNumber(argument, maximumNumber);
      break;
    case titleOption:
      parsed.fields.title = argument;
      break;
    case startOption:
      parsed.fields.start = whenOf(examples::parseTime(argument));
      break;
    case endOption:
      parsed.fields.end = whenOf(examples::parseTime(argument));
      break;
    case allDayOption:
      parsed.fields.isAllDay = true;
      break;
    case notesOption:
      parsed.fields.notes = argument;
      break;
    case secondsOption:
      parsed.seconds = examples::parseNumber(argument, maximumNumber);
      break;
    case helpOption:
      parsed.needsHelp = true;
      break;
  }
}

void checkFields(const std::string& command, const Fields& fields, bool hasFields) {
  if (command == "add" && !(fields.title && fields.start)) {
    throw UsageProblem("add needs --title and --start");
  }
  if (command == "change" && !hasFields) throw UsageProblem("change needs a field to change");
  if (fields.start && fields.end && fields.start->isDay != fields.end->isDay) {
    throw UsageProblem("--start and --end must both be days or both be times");
  }
}

// `given` has the options that only some commands take.
void check(const Options& parsed, const std::string& given) {
  const auto* const command =
      std::find_if(std::begin(commands), std::end(commands),
                   [&](const Command& known) { return known.name == parsed.command; });
  if (command == std::end(commands)) {
    throw UsageProblem("there is no command \"" + parsed.command + "\"");
  }
  if (parsed.arguments.size() != command->argumentCount) {
    throw UsageProblem("wrong number of arguments of " + parsed.command);
  }
  if (given.find_first_not_of(command->options) != std::string::npos) {
    throw UsageProblem(parsed.command + " does not take all of these options");
  }
  const auto empty = std::find(parsed.arguments.begin(), parsed.arguments.end(), "");
  if (empty != parsed.arguments.end()) throw UsageProblem("the name is empty");
  checkFields(parsed.command, parsed.fields, !given.empty());
}

}  // namespace

Options parseCommandLine(int argc, char** argv) {
  Options parsed;
  std::string given;
  parsed.arguments =
      examples::parseOptions(argc, argv, options, [&](int found, const std::string& argument) {
        const auto option = static_cast<Option>(found);
        apply(option, argument, parsed);
        if (option != backendOption && option != helpOption) given += static_cast<char>(found);
      });
  if (parsed.needsHelp) return parsed;
  if (parsed.arguments.empty()) throw UsageProblem("no command is given");
  parsed.command = parsed.arguments.front();
  parsed.arguments.erase(parsed.arguments.begin());
  check(parsed, given);
  return parsed;
}

const char* const helpText =
    R"(Usage: localstore [OPTION]... COMMAND
Looks into the calendars and events that the user's programs share, and changes them.

Commands:
  calendars                identifier and title of every calendar
  create-calendar TITLE    makes one and prints its identifier
  list CALENDAR            name, start, end, title and notes of its events
  add CALENDAR             makes an event, of --title and --start, and prints its name
  change CALENDAR NAME     replaces the fields of an event that are given
  remove CALENDAR NAME     removes an event
  watch                    prints a line whenever a program changes something

Options:
  --backend NAME           the store: sqlite (Quillmere's own database), evolution (the desktop's),
                           or auto (evolution where it answers); otherwise what the environment's
                           EKEventStoreBackend says, or sqlite
  --from DAY               the first day to list (today)
  --days N                 how many days to list (7)
  --title TEXT  --notes TEXT  --start WHEN  --end WHEN
                           the fields. A start that is moved alone takes the end along
  --all-day                makes it last whole days, as days for --start and --end do
  --seconds N              ends the watch
  --help                   this text

CALENDAR is an identifier, or a title that only one calendar has. DAY is like 2024-05-31; WHEN is
a day, or a time like 2024-05-31T17:00. As --end a day is the last one.

Each occurrence of a repeating event is listed, by the event's name, a colon and a date. An
occurrence can be removed; the event's name alone is for all of them. An event that has alarms
is not changed, since it would lose them.

Exit status: 0 all went well; 1 an operation failed; 2 the command line is wrong.
)";

}  // namespace localstore
