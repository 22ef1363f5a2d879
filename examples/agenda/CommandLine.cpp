#include "CommandLine.h"

#include "Problems.h"
#include "Subscription.h"
#include "common/Arguments.h"

namespace agenda {
namespace {

constexpr std::int64_t maximumDays = 36600;

enum Option {
  fromOption = 1,
  toOption,
  daysOption,
  zoneOption,
  stateOption,
  listOption,
  addOption,
  editOption,
  removeOption,
  summaryOption,
  startOption,
  endOption,
  locationOption,
  descriptionOption,
  helpOption,
};

constexpr option options[] = {
    {"from", required_argument, nullptr, fromOption},
    {"to", required_argument, nullptr, toOption},
    {"days", required_argument, nullptr, daysOption},
    {"zone", required_argument, nullptr, zoneOption},
    {"state", required_argument, nullptr, stateOption},
    {"list", no_argument, nullptr, listOption},
    {"add", required_argument, nullptr, addOption},
    {"edit", required_argument, nullptr, editOption},
    {"remove", required_argument, nullptr, removeOption},
    {"summary", required_argument, nullptr, summaryOption},
    {"start", required_argument, nullptr, startOption},
    {"end", required_argument, nullptr, endOption},
    {"location", required_argument, nullptr, locationOption},
    {"description", required_argument, nullptr, descriptionOption},
    {"help", no_argument, nullptr, helpOption},
    {nullptr, 0, nullptr, 0},
};

When whenOf(const examples::TypedTime& time) {
  return {time.isDay ? When::Kind::day : When::Kind::wallTime, time.date};
}

class Parser {
 public:
  Options parse(int argc, char** argv) {
    const auto arguments =
        examples::parseOptions(argc, argv, options, [this](int found, const std::string& argument) {
          apply(static_cast<Option>(found), argument);
        });
    if (parsed_.command == Command::help) return parsed_;
    for (const std::string& argument : arguments) {
      const auto url = subscriptionURL(argument);
      parsed_.places.push_back({url ? url->absoluteString() : argument, url});
    }
    check();
    return parsed_;
  }

 private:
  void apply(Option option, const std::string& argument) {
    Fields& fields = parsed_.fields;
    switch (option) {
      case fromOption:
        parsed_.from = whenOf(examples::parseDay(argument));
        break;
      case toOption:
        parsed_.to = whenOf(examples::parseDay(argument));
        break;
      case daysOption:
        parsed_.days = examples::parseNumber(argument, maximumDays);
        hasDays_ = true;
        break;
      case zoneOption:
        parsed_.zone = argument;
        break;
      case stateOption:
        parsed_.stateFolder = argument;
        break;
      case listOption:
        setCommand(Command::list);
        break;
      case addOption:
        setCommand(Command::add);
        setSummary(argument);
        break;
      case editOption:
        setCommand(Command::edit);
        parsed_.uid = argument;
        break;
      case removeOption:
        setCommand(Command::remove);
        parsed_.uid = argument;
        break;
      case summaryOption:
        setSummary(argument);
        break;
      case startOption:
        fields.start = whenOf(examples::parseTime(argument));
        break;
      case endOption:
        fields.end = whenOf(examples::parseTime(argument));
        break;
      case locationOption:
        fields.location = argument;
        break;
      case descriptionOption:
        fields.description = argument;
        break;
      case helpOption:
        parsed_.command = Command::help;
        break;
    }
  }

  void setCommand(Command command) {
    if (parsed_.command == Command::help) return;
    if (parsed_.command != Command::showDays) {
      throw UsageProblem("only one of --list, --add, --edit and --remove can be done at a time");
    }
    parsed_.command = command;
  }

  void setSummary(const std::string& summary) {
    if (parsed_.fields.summary) throw UsageProblem("the summary is given twice");
    parsed_.fields.summary = summary;
  }

  void check() const {
    if (parsed_.places.empty()) throw UsageProblem("no calendar is given");
    if (parsed_.to && hasDays_) throw UsageProblem("--to and --days exclude each other");
    if (parsed_.from && parsed_.to && parsed_.to->date < parsed_.from->date) {
      throw UsageProblem("--to lies before --from");
    }
    checkFields();
  }

  void checkFields() const {
    const Fields& fields = parsed_.fields;
    const bool changes = parsed_.command == Command::add || parsed_.command == Command::edit ||
                         parsed_.command == Command::remove;
    const bool hasFields =
        fields.summary || fields.location || fields.description || fields.start || fields.end;
    if (changes && (parsed_.places.size() != 1 || parsed_.places.front().url)) {
      throw UsageProblem("--add, --edit and --remove take exactly one calendar file, and no URL");
    }
    if (parsed_.command == Command::add && !fields.start) throw UsageProblem("--add needs --start");
    if (parsed_.command == Command::edit && !hasFields) {
      throw UsageProblem("--edit needs a field to change");
    }
    if (hasFields && parsed_.command != Command::add && parsed_.command != Command::edit) {
      throw UsageProblem("only --add and --edit take fields");
    }
    if (!fields.start || !fields.end) return;
    if (fields.start->isDay() != fields.end->isDay()) {
      throw UsageProblem("--start and --end must both be days or both be times");
    }
    if (fields.end->date < fields.start->date) throw UsageProblem("--end lies before --start");
  }

  Options parsed_;
  bool hasDays_ = false;
};

}  // namespace

Options parseCommandLine(int argc, char** argv) { return Parser().parse(argc, argv); }

const char* const helpText =
    R"(Usage: agenda [OPTION]... CALENDAR...
Shows what lies in calendars, day by day, and the to-dos that are open. A calendar is a file, or
the http, https or webcal URL of one, which is fetched (webcal stands for https) and not changed.

What to show:
  --from DAY          the first day (today)
  --days N            how many days (7)
  --to DAY            the last day, instead of --days
  --zone NAME         the time zone, such as Europe/Paris (the system's)
  --list              instead of the days: UID and summary of everything

What to change, in one file:
  --add SUMMARY       a new event; needs --start. A missing file is made
  --edit UID          replaces the fields that are given
  --remove UID        the event or to-do, with all its changed instances
  --summary TEXT  --location TEXT  --description TEXT  --start WHEN  --end WHEN
                      the fields. Of whole days --end is the last one, of a to-do it is
                      when it is due. A start that is moved alone takes the end along

  --state FOLDER      keeps what was read there: the next run reads only calendars that have
                      changed, and tells what is new, updated and gone. What is kept of a URL
                      is shown when it cannot be fetched
  --help              this text

DAY is like 2024-05-31; WHEN is a day, or a time like 2024-05-31T17:00.
Repeating events are shown on each of their dates. Rules that cannot be followed are listed
at the end; their events are on the first date only, marked "repeats".

When a URL's server asks for a login, that is the environment's QUILLMERE_USER, and the password
QUILLMERE_PASSWORD, or what is typed on the terminal; a server that the URL does not name, but
leads to, gets neither.

Exit status: 0 all went well; 1 a calendar could not be read or saved; 2 the command line
is wrong.
)";

}  // namespace agenda
