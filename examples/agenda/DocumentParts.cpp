#include "DocumentParts.h"

#include <quillmere/ical/KBTCalObject.h>

#include <algorithm>

#include "Problems.h"

namespace agenda {
namespace {

using quillmere::KBTCalObject;
using quillmere::NSData;
using std::string_view;

constexpr string_view byteOrderMark = "\xEF\xBB\xBF";
constexpr string_view blanks = " \t\r\n";

constexpr char lower(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool equalIgnoringCase(string_view a, string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lower(x) == lower(y); });
}

bool isBlank(string_view line) { return line.find_first_not_of(blanks) == string_view::npos; }

// The component's name on a "BEGIN" or "END" line.
string_view componentName(string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == string_view::npos) return {};
  line.remove_prefix(colon + 1);
  return line.substr(0, line.find_last_not_of(blanks) + 1);
}

string_view withoutByteOrderMark(string_view document) {
  if (document.starts_with(byteOrderMark)) document.remove_prefix(byteOrderMark.size());
  return document;
}

bool isOfCalendar(string_view line, string_view property) {
  return isProperty(line, property) && equalIgnoringCase(componentName(line), "VCALENDAR");
}

class Splitter {
 public:
  DocumentParts split(string_view document) {
    document = withoutByteOrderMark(document);
    while (!document.empty()) addLine(takeLine(document));
    if (!open_.empty()) {
      throw CalendarProblem("BEGIN:" + std::string(open_.back()) + " has no END");
    }
    return std::move(parts_);
  }

 private:
  // How many components are open where lines stand.
  static constexpr std::size_t outside = 0;
  static constexpr std::size_t inCalendar = 1;
  static constexpr std::size_t inComponent = 2;

  void addLine(string_view line) {
    if (isProperty(line, "BEGIN")) {
      begin(line);
    } else if (isProperty(line, "END")) {
      end(line);
    } else if (open_.size() == outside) {
      if (!isBlank(line)) throw CalendarProblem("there is text outside of the calendar");
    } else if (open_.size() == inCalendar) {
      addCalendarProperty(line);
    } else if (open_.size() == inComponent && isProperty(line, "UID")) {
      uid_ = valueOfLine(line).value_or("");
    }
  }

  void begin(string_view line) {
    const string_view name = componentName(line);
    if (open_.size() == outside) {
      if (!equalIgnoringCase(name, "VCALENDAR")) {
        throw CalendarProblem("BEGIN:" + std::string(name) + " stands outside of the calendar");
      }
      if (sawCalendar_) throw CalendarProblem("the file holds several calendars");
      sawCalendar_ = true;
    } else if (open_.size() == inCalendar) {
      componentBegin_ = line.data();
      uid_.clear();
    }
    open_.push_back(name);
  }

  void end(string_view line) {
    const string_view name = componentName(line);
    if (open_.empty() || !equalIgnoringCase(open_.back(), name)) {
      throw CalendarProblem("END:" + std::string(name) + " does not close what was begun last");
    }
    open_.pop_back();
    if (open_.size() != inCalendar) return;
    const char* const componentEnd = line.data() + line.size();
    const string_view text(componentBegin_,
                           static_cast<std::size_t>(componentEnd - componentBegin_));
    parts_.components.push_back({name, text, std::move(uid_)});
    uid_.clear();
  }

  void addCalendarProperty(string_view line) {
    if (isBlank(line) || isProperty(line, "PRODID")) return;
    if (isProperty(line, "VERSION")) {
      if (valueOfLine(line) != "2.0") throw CalendarProblem("its format is not iCalendar 2.0");
    } else if (isProperty(line, "CALSCALE")) {
      if (!equalIgnoringCase(valueOfLine(line).value_or(""), "GREGORIAN")) {
        throw CalendarProblem("its calendar scale is not Gregorian");
      }
    } else if (line.find(':') == string_view::npos) {
      // A reader would take it for the beginning of whatever line comes next.
      throw CalendarProblem("a line between its components is no property");
    } else {
      parts_.properties += line;
    }
  }

  DocumentParts parts_;
  std::vector<string_view> open_;
  bool sawCalendar_ = false;
  const char* componentBegin_ = nullptr;
  std::string uid_;
};

}  // namespace

DocumentParts splitDocument(string_view document) { return Splitter().split(document); }

bool isWholeCalendar(string_view document) {
  document = withoutByteOrderMark(document);
  document = document.substr(0, document.find_last_not_of(blanks) + 1);
  document.remove_prefix(std::min(document.find_first_not_of(blanks), document.size()));
  const string_view last = document.substr(document.find_last_of("\r\n") + 1);
  return isOfCalendar(takeLine(document), "BEGIN") && isOfCalendar(last, "END");
}

string_view takeLine(string_view& text) {
  std::size_t length = 0;
  do {
    const std::size_t newline = text.find('\n', length);
    length = newline == string_view::npos ? text.size() : newline + 1;
  } while (length < text.size() && (text[length] == ' ' || text[length] == '\t'));
  const string_view line = text.substr(0, length);
  text.remove_prefix(length);
  return line;
}

bool isProperty(string_view line, string_view name) {
  if (line.size() <= name.size()) return false;
  const char delimiter = line[name.size()];
  return (delimiter == ':' || delimiter == ';') &&
         equalIgnoringCase(line.substr(0, name.size()), name);
}

std::optional<std::string> valueOfLine(string_view line) {
  const auto reader = KBTCalObject::initWithData(NSData::dataWithBytes(line));
  if (!reader->nextLine() || !reader->value()) return std::nullopt;
  return std::string(*reader->value());
}

}  // namespace agenda
