#ifndef AGENDA_PRINTING_H
#define AGENDA_PRINTING_H

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CalendarHost.h"
#include "Occurrences.h"

namespace agenda {

using Hosts = std::vector<std::shared_ptr<CalendarHost>>;

/// The events of each day of the range, in the default zone, then the to-dos that are open and due
/// before the range ends, or whenever, then the rules that could not be followed to the end.
void printDays(std::ostream& out, const Hosts& hosts, const DayRange& range);

/// UID and summary of every object, a tab between them.
void printList(std::ostream& out, const CalendarHost& host);

/// What a fetch found in the file.
void printChanges(std::ostream& out, const std::string& file, const Changes& changes);

/// Shows on standard error, when that is a terminal, how far the reading of a file has come.
class ProgressLine {
 public:
  explicit ProgressLine(const std::string& file);

  /// The count of items so far; null clears the line.
  void show(std::optional<std::size_t> items);

 private:
  std::string label_;
  bool isTerminal_;
  bool isShown_ = false;
};

}  // namespace agenda

#endif
