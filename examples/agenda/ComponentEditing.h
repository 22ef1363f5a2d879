#ifndef AGENDA_COMPONENTEDITING_H
#define AGENDA_COMPONENTEDITING_H

#include <quillmere/platform/dates/NSDate.h>

#include <optional>
#include <string>
#include <string_view>

#include "Entry.h"

namespace agenda {

/// What the user wants an event or a to-do to say; null leaves a field as it is.
struct Fields {
  std::optional<std::string> summary;
  std::optional<std::string> location;
  std::optional<std::string> description;
  std::optional<When> start;
  std::optional<When> end;  ///< of whole days the last one; of a to-do when it is due
};

/// The text of a new VEVENT.
std::string newEvent(const std::string& uid, const Fields& fields, quillmere::NSDate now);

/// The component with the given fields replaced, and with a DTSTAMP that differs from its old one,
/// a SEQUENCE one higher and a new LAST-MODIFIED. All other lines stay byte for byte. Throws
/// CalendarProblem when the fields do not go together with the rest.
std::string editedComponent(std::string_view component, Fields fields, quillmere::NSDate now);

/// Whether the component tells of one changed instance of a recurring event.
bool isChangedInstance(std::string_view component);

}  // namespace agenda

#endif
