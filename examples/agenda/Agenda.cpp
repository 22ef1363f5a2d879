// agenda shows calendars in files and behind URLs on a terminal, and changes the files: an example
// host of Quillmere.

#include <quillmere/platform/dates/NSCalendar.h>
#include <quillmere/platform/dates/NSTimeZone.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>

#include "CalendarHost.h"
#include "CommandLine.h"
#include "Printing.h"
#include "Problems.h"
#include "StateFile.h"
#include "Subscription.h"
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
  if (!NSTimeZone::setDefaultTimeZone(NSTimeZone::timeZoneWithName(name))) {
    throw UsageProblem("there is no time zone \"" + name + "\"");
  }
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

bool isChange(Command command) {
  return command == Command::add || command == Command::edit || command == Command::remove;
}

// One calendar of the command line, with what an earlier run kept of it. The user is told of what
// fails.
class Session {
 public:
  Session(const Place& place, const Options& options, Passwords& passwords)
      : place_(place), options_(options), passwords_(passwords) {}

  // Begins to fetch a URL.
  void open() {
    attempt([this] {
      makeHost();
      if (place_.url) host_->beginFetch();
      isOpen_ = true;
    });
  }

  // Does what the command line asks for.
  void run() {
    if (!isOpen_) return;
    attempt([this] {
      isChange(options_.command) ? change() : read();
      if (options_.stateFolder) writeState(stateFile_, host_->kept());
      isShown_ = true;
    });
  }

  bool hasFailed() const { return hasFailed_; }
  // Null when nothing is known of the calendar.
  std::shared_ptr<CalendarHost> shownHost() const { return isShown_ ? host_ : nullptr; }

 private:
  void attempt(const std::function<void()>& action) {
    try {
      action();
    } catch (const CalendarProblem& problem) {
      examples::printError(place_.name + ": " + problem.what() +
                           (isShown_ ? "; what is known of it is shown" : ""));
      hasFailed_ = true;
    }
  }

  void makeHost() {
    const auto progress = [this, line = ProgressLine()](auto items) mutable {
      showProgress(line, items);
    };
    std::string path = place_.name;
    if (place_.url) {
      host_ = SubscriptionHost::hostForURL(*place_.url, passwords_, progress);
    } else {
      checkReadable(place_.name, options_.command == Command::add);
      path = fs::absolute(place_.name).lexically_normal();
      host_ = CalendarHost::hostForFile(path, progress);
    }
    if (options_.stateFolder) restoreState(path);
  }

  void read() {
    if (!place_.url) host_->beginFetch();
    tell(host_->endFetch());
  }

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

  void showProgress(ProgressLine& line, std::optional<std::size_t> items) const {
    constexpr std::size_t step = 1000;
    if (!items) {
      line.clear();
    } else if (*items % step == 0) {
      line.show("reading " + place_.name + ": " + std::to_string(*items) + " items");
    }
  }

  void restoreState(const std::string& path) {
    std::error_code error;
    fs::create_directories(*options_.stateFolder, error);
    if (error) throw CalendarProblem("cannot keep its state: " + error.message());
    stateFile_ = stateFilePath(*options_.stateFolder, path);
    try {
      if (const auto kept = readState(stateFile_, path)) {
        host_->restore(*kept);
        isShown_ = place_.url.has_value();
      }
    } catch (const CalendarProblem& problem) {
      examples::printError(place_.name + ": the state kept in " + stateFile_ +
                           " is not used: " + problem.what());
    }
  }

  void tell(const Changes& changes) const {
    if (options_.stateFolder) printChanges(std::cout, place_.name, changes);
  }

  const Place& place_;
  const Options& options_;
  Passwords& passwords_;
  std::string stateFile_;
  std::shared_ptr<CalendarHost> host_;
  bool isOpen_ = false;
  bool isShown_ = false;
  bool hasFailed_ = false;
};

examples::ExitStatus run(const Options& options) {
  if (options.command == Command::help) {
    std::cout << helpText;
    return examples::allWell;
  }
  if (options.zone) useZone(*options.zone);
  const DayRange range = rangeFor(options);

  Passwords passwords;
  std::deque<Session> sessions;
  for (const Place& place : options.places) {
    sessions.emplace_back(place, options, passwords);
    if (place.url) sessions.back().open();  // so that they are all fetched side by side
  }
  Hosts hosts;
  bool hasFailed = false;
  for (std::size_t i = 0; i < sessions.size(); ++i) {
    if (!options.places[i].url) sessions[i].open();
    sessions[i].run();
    hasFailed = hasFailed || sessions[i].hasFailed();
    if (const auto host = sessions[i].shownHost()) hosts.push_back(host);
  }
  if (options.command == Command::list) {
    for (const auto& host : hosts) printList(std::cout, *host);
  } else if (options.command == Command::showDays && !hosts.empty()) {
    printDays(std::cout, hosts, range);
  }
  return hasFailed ? examples::operationFailed : examples::allWell;
}

}  // namespace
}  // namespace agenda

int main(int argc, char** argv) {
  return examples::runProgram([=] { return agenda::run(agenda::parseCommandLine(argc, argv)); });
}
