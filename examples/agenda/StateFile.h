#ifndef AGENDA_STATEFILE_H
#define AGENDA_STATEFILE_H

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Entry.h"

namespace agenda {

/// What agenda keeps of an item.
struct AgendaObject {
  std::string name;  ///< its UID
  std::optional<std::string> version;
  Entry entry;
  std::size_t place = 0;  ///< where its "BEGIN" stands in the document last read; not kept
};

/// Events of several components by UID: the series and its changed instances, in the file's order.
using SplitEvents = std::map<std::string, std::vector<Entry>>;

/// What one run leaves for the next.
struct KeptCalendar {
  std::string path;  ///< or URL
  std::optional<std::string> cachingString;
  std::optional<std::string> calendarName;
  std::vector<std::shared_ptr<AgendaObject>> objects;
  SplitEvents splitEvents;
};

/// Where the state of the calendar at `calendarPath`, which may be a URL, is kept in `folder`.
std::string stateFilePath(const std::string& folder, const std::string& calendarPath);

/// Null when nothing was kept. Throws CalendarProblem when the file is damaged or belongs to
/// another calendar.
std::optional<KeptCalendar> readState(const std::string& path, const std::string& calendarPath);

/// Throws CalendarProblem when the state cannot be written.
void writeState(const std::string& path, const KeptCalendar& kept);

}  // namespace agenda

#endif
