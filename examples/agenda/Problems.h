#ifndef AGENDA_PROBLEMS_H
#define AGENDA_PROBLEMS_H

#include <stdexcept>

namespace agenda {

/// A calendar cannot be read or saved as asked.
struct CalendarProblem : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The command line does not say what to do.
struct UsageProblem : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace agenda

#endif
