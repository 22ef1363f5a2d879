#ifndef AGENDA_DOCUMENTPARTS_H
#define AGENDA_DOCUMENTPARTS_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace agenda {

/// A component that stands directly in a calendar, with everything nested in it.
struct Component {
  std::string_view name;  ///< "VEVENT", as written
  std::string_view text;  ///< from "BEGIN" through the line ending of "END"
  std::string uid;        ///< its own, not an alarm's; empty when it has none
};

/// An iCalendar document taken apart so that nothing is lost when a calendar writes it anew. A
/// calendar writes only what its delegate answers, so a host that saves carries all the rest.
struct DocumentParts {
  /// The calendar's own property lines, without those that every saved document has (VERSION,
  /// PRODID, CALSCALE).
  std::string properties;
  /// In the document's order. The views point into the document.
  std::vector<Component> components;
};

/// Throws CalendarProblem when the document cannot be put together again without loss: when its
/// components do not nest, it holds several calendars, or it is in another format.
DocumentParts splitDocument(std::string_view document);

/// Whether a calendar's first line and last line are there, as in no web page and in nothing that
/// was cut off.
bool isWholeCalendar(std::string_view document);

/// Takes the content line at the front of `text` off, with its continuation lines and line ending.
std::string_view takeLine(std::string_view& text);

/// Whether the line's property has that name; case does not matter.
bool isProperty(std::string_view line, std::string_view name);

/// The line's value, unfolded and unescaped; null when it is not UTF-8.
std::optional<std::string> valueOfLine(std::string_view line);

}  // namespace agenda

#endif
