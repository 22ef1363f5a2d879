#ifndef CALDAVSYNC_REPORT_H
#define CALDAVSYNC_REPORT_H

#include <array>
#include <cstddef>
#include <string>

#include "Plan.h"
#include "common/ProgressLine.h"

namespace caldavsync {

/// What the user hears of a calendar.
class Report {
 public:
  /// Of a dry run it tells each step, as one that would be done.
  Report(std::string calendar, bool isDryRun)
      : calendar_(std::move(calendar)), isDryRun_(isDryRun) {}

  /// A step was done. `setAside` is the name that the file has now, if it was set aside.
  void done(const Step& step, const std::string& setAside = {});
  void problem(const std::string& text);
  void progress(const char* work, std::size_t done, std::size_t all);
  void printSummary();

  bool hasProblems() const { return problems_ > 0; }

 private:
  static constexpr std::size_t countedActions = 9;

  std::string counts(const char* verb, Action first) const;

  std::string calendar_;
  bool isDryRun_;
  examples::ProgressLine line_;
  std::array<std::size_t, countedActions> done_{};  // by action
  std::size_t conflicts_ = 0;
  std::size_t problems_ = 0;
};

}  // namespace caldavsync

#endif
