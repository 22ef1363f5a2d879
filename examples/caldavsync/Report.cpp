#include "Report.h"

#include <iostream>

#include "common/Printable.h"
#include "common/Program.h"

namespace caldavsync {
namespace {

using examples::printable;

const char* verbOf(Action action) {
  switch (action) {
    case Action::receiveNew:
    case Action::receiveChanged:
      return "receive";
    case Action::receiveDeleted:
      return "delete here";
    case Action::sendNew:
    case Action::sendChanged:
      return "send";
    case Action::sendDeleted:
      return "delete at the server";
    default:
      return nullptr;  // nothing moves
  }
}

}  // namespace

void Report::done(const Step& step, const std::string& setAside) {
  ++done_.at(static_cast<std::size_t>(step.action));
  if (step.isConflict) ++conflicts_;
  const char* const verb = verbOf(step.action);
  const std::string start = printable(calendar_ + ": ");
  const std::string file = printable(step.object.file);
  if (isDryRun_) {
    if (verb) std::cout << start << "would " << verb << " " << file;
    if (verb && step.setsFileAside) std::cout << ", and set the file here aside";
    if (verb) std::cout << "\n";
  } else if (step.setsFileAside) {
    line_.clear();
    std::cout << start << file << " was changed on both sides; what was here is "
              << printable(setAside) << "\n";
  } else if (step.isConflict) {
    line_.clear();
    std::cout << start << file << " was deleted here and changed at the server; it is back\n";
  }
}

void Report::problem(const std::string& text) {
  ++problems_;
  line_.clear();
  examples::printError(calendar_ + ": " + text);
}

void Report::progress(const char* work, std::size_t done, std::size_t all) {
  line_.show(calendar_ + ": " + work + " " + std::to_string(done) + " of " + std::to_string(all));
}

// "received 2 new, 1 deleted": of the three actions that begin with `first`.
std::string Report::counts(const char* verb, Action first) const {
  std::string text;
  auto action = static_cast<std::size_t>(first);
  for (const char* kind : {" new", " changed", " deleted"}) {
    const std::size_t count = done_.at(action++);
    if (count == 0) continue;
    text += (text.empty() ? std::string(verb) + " " : ", ") + std::to_string(count) + kind;
  }
  return text;
}

void Report::printSummary() {
  line_.clear();
  std::string text;
  const auto add = [&](const std::string& part) {
    if (!part.empty()) text += (text.empty() ? "" : "; ") + part;
  };
  add(counts(isDryRun_ ? "would receive" : "received", Action::receiveNew));
  add(counts(isDryRun_ ? "would send" : "sent", Action::sendNew));
  if (conflicts_ > 0)
    add(std::to_string(conflicts_) + (conflicts_ == 1 ? " conflict" : " conflicts"));
  if (problems_ > 0) add(std::to_string(problems_) + " failed");
  std::cout << printable(calendar_) << ": " << (text.empty() ? "in step" : text) << "\n";
}

}  // namespace caldavsync
