// caldavsync keeps a folder of calendar files in step with an account on a CalDAV server: an example
// host of Quillmere.

#include <quillmere/platform/base/HWPreference.h>

#include <clocale>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "Account.h"
#include "CommandLine.h"
#include "Folder.h"
#include "Mirror.h"
#include "Remote.h"
#include "Report.h"
#include "State.h"
#include "common/Password.h"
#include "common/Program.h"

namespace caldavsync {
namespace {

namespace fs = std::filesystem;
using examples::Failure;
using quillmere::KBTDavConnection;

// An account's folder, with what the last run left there.
class Session {
 public:
  Session(const Options& options, const quillmere::NSURL& server)
      : options_(options), folder_(options.folder), stateFile_(folder_ / ".caldavsync") {
    std::error_code error;
    if (!options.isDryRun) fs::create_directories(folder_, error);
    if (error) throw Failure(options.folder + ": " + error.message());
    if (fs::exists(folder_)) lock_.emplace(folder_);
    state_ = readState(stateFile_).value_or(State{server.absoluteString(), options.user, {}});
    if (state_.server != server.absoluteString() || state_.user != options.user) {
      throw Failure(options.folder + " mirrors another account: " +
                    (state_.user ? *state_.user + " at " : "") + state_.server);
    }
  }

  void run(Account& account) {
    std::set<std::string> names;
    for (const ConnectionPtr& connection : account.calendars()) {
      names.insert(nameOf(*connection));
      if (isWanted(nameOf(*connection))) runCalendar(account, connection);
    }
    for (const std::string& name : options_.calendars) {
      if (!names.contains(name)) problem("the server has no calendar \"" + name + "\"");
    }
    if (options_.calendars.empty()) reportVanished(account);
  }

  bool hasFailed() const { return hasFailed_; }

 private:
  static std::string nameOf(const KBTDavConnection& connection) {
    return connection.name().value_or("");
  }

  bool isWanted(const std::string& name) const {
    return options_.calendars.empty() || options_.calendars.contains(name);
  }

  void runCalendar(const Account& account, const ConnectionPtr& connection) {
    Calendar& calendar = calendarOf(*connection);
    Report report(calendar.folder, options_.isDryRun);
    try {
      Mirror mirror(calendar, remotesOf(account, connection, calendar), folder_ / calendar.folder,
                    report, [this] { writeState(stateFile_, state_); });
      mirror.run(options_.allowsEmptying, options_.isDryRun);
      report.printSummary();
    } catch (const Failure& failure) {
      report.problem(failure.what());
    }
    hasFailed_ = hasFailed_ || report.hasProblems();
  }

  // A calendar keeps its folder, whatever its name becomes.
  Calendar& calendarOf(const KBTDavConnection& connection) {
    const std::string& url = connection.URL().absoluteString();
    Calendar& calendar = state_.calendars[url];
    if (!calendar.folder.empty()) return calendar;
    std::set<std::string> taken;
    for (const auto& [otherURL, other] : state_.calendars) taken.insert(foldedCase(other.folder));
    calendar.url = url;
    calendar.folder = fileNameLike(nameOf(connection), "", taken);
    return calendar;
  }

  static std::vector<std::shared_ptr<Remote>> remotesOf(const Account& account,
                                                        const ConnectionPtr& connection,
                                                        const Calendar& calendar) {
    std::vector<std::shared_ptr<Remote>> remotes;
    if (connection->canContainEvents()) {
      remotes.push_back(Remote::open(connection, Kind::event, calendar));
    }
    if (connection->canContainTodos()) {
      remotes.push_back(Remote::open(account.secondConnection(*connection), Kind::toDo, calendar));
    }
    return remotes;
  }

  // Once the user has deleted the folder as well it is forgotten.
  void reportVanished(const Account& account) {
    std::set<std::string> listed;
    for (const ConnectionPtr& connection : account.calendars()) {
      listed.insert(connection->URL().absoluteString());
    }
    bool forgetsAny = false;
    for (auto entry = state_.calendars.begin(); entry != state_.calendars.end();) {
      const Calendar& calendar = entry->second;
      if (listed.contains(entry->first)) {
        ++entry;
      } else if (fs::exists(folder_ / calendar.folder)) {
        problem(calendar.folder +
                ": the server lists no such calendar any more; the folder is left alone");
        ++entry;
      } else {
        entry = state_.calendars.erase(entry);
        forgetsAny = true;
      }
    }
    if (forgetsAny && !options_.isDryRun) writeState(stateFile_, state_);
  }

  void problem(const std::string& text) {
    examples::printError(text);
    hasFailed_ = true;
  }

  const Options& options_;
  fs::path folder_;
  fs::path stateFile_;
  std::optional<FolderLock> lock_;
  State state_;
  bool hasFailed_ = false;
};

examples::ExitStatus run(const Options& options) {
  if (options.needsHelp) {
    std::cout << helpText;
    return examples::allWell;
  }
  if (options.logs) {
    quillmere::HWPreference::preferenceForKey("KBTDavRequestorLogLevel")->setIntegerValue(1);
  }
  const auto url = examples::urlOfFolder(options.url);
  Session session(options, url);
  Account account(url, options.user, examples::passwordOf(options.user));
  account.login();
  if (options.created) account.createCalendar(*options.created);
  session.run(account);
  return session.hasFailed() ? examples::operationFailed : examples::allWell;
}

}  // namespace
}  // namespace caldavsync

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "");  // the log is written in the terminal's encoding
  return examples::runProgram(
      [=] { return caldavsync::run(caldavsync::parseCommandLine(argc, argv)); });
}
