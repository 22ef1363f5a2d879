#ifndef AGENDA_PROBLEMS_H
#define AGENDA_PROBLEMS_H

#include <stdexcept>

#include "common/Program.h"

namespace agenda {

/// A calendar cannot be read or saved as asked.
struct CalendarProblem : std::runtime_error {
  using std::runtime_error::runtime_error;
};

using examples::UsageProblem;

}  // namespace agenda

#endif
