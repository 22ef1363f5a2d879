// agenda shows calendar files on a terminal and changes them: an example host of Quillmere.

#include <quillmere/platform/dates/NSCalendar.h>
#include <quillmere/platform/dates/NSTimeZone.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>

#include "CalendarHost.h"
#include "CommandLine.h"
#include "Printing.h"
#include "Problems.h"
#include "StateFile.h"
#include "common/Printable.h"
#include "common/ProgressLine.h"

namespace agenda {
namespace {

namespace fs = std::filesystem;
using examples::printable;
using examples::ProgressLine;
using quillmere::NSCalendar;
using quillmere::NSDate;
using quillmere::NSDateComponents;
using quillmere::NSTimeZone;

void useZone(const std::string& name) {
  const auto zone = NSTimeZone::timeZoneWithName(name);
  if (!zone) throw UsageProblem("there is no time zone \"" + name + "\"");
  NSTimeZone::setDefaultTimeZone(zone);
}

DayRange rangeFor(const Options& options) {
  const NSCalendar calendar = NSCalendar::currentCalendar();
  const NSDate first =
      calendar.startOfDayForDate(options.from ? options.from->instant() : NSDate::date());
  const NSDate lastKnown = options.to ? options.to->instant() : first;
  NSDateComponents length;
  length.day = options.to ? 1 : options.days;
  const auto end = calendar.dateByAddingComponents_toDate(length, lastKnown);
  if (!end || *end <= first) throw UsageProblem("the last day lies before the first");
  return {first, *end};
}

// A calendar reads a missing or unreadable file as an empty one, so the host looks for itself.
void checkReadable(const std::string& file, bool mayBeMissing) {
  std::error_code error;
  const auto status = fs::status(file, error);
  if (!fs::exists(status)) {
    if (mayBeMissing && status.type() == fs::file_type::not_found) return;
    throw CalendarProblem(error ? error.message() : "there is no such file");
  }
  if (!fs::is_regular_file(status)) throw CalendarProblem("is not a regular file");
  if (::access(file.c_str(), R_OK) != 0) throw CalendarProblem("may not be read");
}

// One calendar file of the command line, with what an earlier run kept of it.
class Session {
 public:
  Session(const std::string& file, const Options& options) : file_(file), options_(options) {
    checkReadable(file, options.command == Command::add);
    const std::string path = fs::absolute(file).lexically_normal();
    host_ = CalendarHost::hostForFile(
        path, [this, line = ProgressLine()](auto items) mutable { showProgress(line, items); });
    if (options.stateFolder) restoreState(path);
  }

  std::shared_ptr<CalendarHost> host() const { return host_; }

  void read() { tell(host_->fetch()); }

  void change() {
    tell(host_->fetchForSaving());
    if (options_.command == Command::add) {
      const std::string uid = host_->add(options_.fields);
      std::cout << "added " << uid << "\n";
    } else if (options_.command == Command::edit) {
      host_->edit(options_.uid, options_.fields);
      std::cout << "changed " << printable(options_.uid) << "\n";
    } else {
      host_->remove(options_.uid);
      std::cout << "removed " << printable(options_.uid) << "\n";
    }
  }

  void keepState() const {
    if (options_.stateFolder) writeState(stateFile_, host_->kept());
  }

 private:
  void showProgress(ProgressLine& line, std::optional<std::size_t> items) const {
    constexpr std::size_t step = 1000;
    if (!items) {
      line.clear();
    } else if (*items % step == 0) {
      line.show("reading " + file_ + ": " + std::to_string(*items) + " items");
    }
  }

  void restoreState(const std::string& path) {
    std::error_code error;
    fs::create_directories(*options_.stateFolder, error);
    if (error) throw CalendarProblem("cannot keep its state: " + error.message());
    stateFile_ = stateFilePath(*options_.stateFolder, path);
    try {
      if (const auto kept = readState(stateFile_, path)) host_->restore(*kept);
    } catch (const CalendarProblem& problem) {
      examples::printError(file_ + ": the state kept in " + stateFile_ +
                           " is not used: " + problem.what());
    }
  }

  void tell(const Changes& changes) const {
    if (options_.stateFolder) printChanges(std::cout, file_, changes);
  }

  std::string file_;
  const Options& options_;
  std::string stateFile_;
  std::shared_ptr<CalendarHost> host_;
};

bool isChange(Command command) {
  return command == Command::add || command == Command::edit || command == Command::remove;
}

// Does what the command line asks of one file; null when that failed, which the user was told.
std::shared_ptr<CalendarHost> runFile(const std::string& file, const Options& options) {
  try {
    Session session(file, options);
    if (isChange(options.command)) {
      session.change();
    } else {
      session.read();
    }
    session.keepState();
    return session.host();
  } catch (const CalendarProblem& problem) {
    examples::printError(file + ": " + problem.what());
    return nullptr;
  }
}

examples::ExitStatus run(const Options& options) {
  if (options.command == Command::help) {
    std::cout << helpText;
    return examples::allWell;
  }
  if (options.zone) useZone(*options.zone);
  const DayRange range = rangeFor(options);

  Hosts hosts;
  for (const std::string& file : options.files) {
    if (const auto host = runFile(file, options)) hosts.push_back(host);
  }
  if (options.command == Command::list) {
    for (const auto& host : hosts) printList(std::cout, *host);
  } else if (options.command == Command::showDays && !hosts.empty()) {
    printDays(std::cout, hosts, range);
  }
  return hosts.size() == options.files.size() ? examples::allWell : examples::operationFailed;
}

}  // namespace
}  // namespace agenda

int main(int argc, char** argv) {
  return examples::runProgram([=] { return agenda::run(agenda::parseCommandLine(argc, argv)); });
}
