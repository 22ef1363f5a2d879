#ifndef CALDAVSYNC_PLAN_H
#define CALDAVSYNC_PLAN_H

#include <string>
#include <vector>

#include "Folder.h"
#include "Remote.h"
#include "State.h"

namespace caldavsync {

enum class Action {
  receiveNew,
  receiveChanged,
  receiveDeleted,
  sendNew,
  sendChanged,
  sendDeleted,
  noteInStep,   ///< both sides have the same already
  noteGone,     ///< neither side has it any more
  noteRenamed,  ///< the file has another name
};

struct Step {
  Action action;
  Object object;            ///< as it will be after the step, but for what the server answers
  std::string text;         ///< to be written or sent
  bool isConflict = false;  ///< both sides have changed it
  bool setsFileAside = false;
};

struct Plan {
  std::vector<Step> steps;
  std::vector<std::string> problems;
};

/// What brings the folder and the server in step, given what has happened at the server. Nothing is
/// changed yet.
///
/// Where both sides have changed an object the server's version counts, and a file that had other
/// contents is set aside. Throws examples::Failure when one side turns up empty, unless that is
/// allowed, and when the folder cannot be read.
Plan makePlan(const Calendar& calendar, const Fetched& fetched, const Folder& folder,
              bool allowsEmptying);

}  // namespace caldavsync

#endif
