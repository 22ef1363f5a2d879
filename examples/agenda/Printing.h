#ifndef AGENDA_PRINTING_H
#define AGENDA_PRINTING_H

#include <iosfwd>
#include <memory>
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

/// What a fetch found there.
void printChanges(std::ostream& out, const std::string& place, const Changes& changes);

}  // namespace agenda

#endif
