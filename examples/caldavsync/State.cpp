// The state is a text of lines, and a line one of fields with a blank between any two:
//
//   caldavsync 1
//   account SERVER USER
//   calendar URL FOLDER CACHING CACHING        of events and of to-dos
//   event NAME FILE ETAG HASH                  of the calendar above it, as are these:
//   to-do NAME FILE ETAG HASH
//   end HASH                                   of all bytes before this line
//
// Fields are percent-encoded. Of USER and CACHING, which may be none, an "=" stands before any text.

#include "State.h"

#include <quillmere/platform/base/NSFileManager.h>

#include <charconv>
#include <string_view>
#include <utility>
#include <vector>

#include "common/Hash.h"
#include "common/Program.h"
#include "common/ResourceName.h"

namespace caldavsync {
namespace {

using examples::Failure;
using examples::hashOf;
using quillmere::NSData;
using std::string_view;
using Fields = std::vector<std::string>;

constexpr string_view firstLine = "caldavsync 1\n";
constexpr string_view endKey = "end ";

// The damage is told to people together with what they may do.
struct Damage {};

std::string optionalField(const std::optional<std::string>& text) {
  return text ? "=" + *text : std::string();
}

std::optional<std::string> fromOptionalField(const std::string& field) {
  if (field.empty()) return std::nullopt;
  if (field[0] != '=') throw Damage();
  return field.substr(1);
}

std::optional<std::string> cachingStringOf(const Calendar& calendar, Kind kind) {
  const auto found = calendar.cachingStrings.find(kind);
  if (found == calendar.cachingStrings.end()) return std::nullopt;
  return found->second;
}

void writeLine(std::string& text, const Fields& fields) {
  string_view separator;
  for (const std::string& field : fields) {
    text.append(separator) += examples::percentEncoded(field, "% ");
    separator = " ";
  }
  text += '\n';
}

Fields fieldsOf(string_view line) {
  Fields fields;
  while (true) {
    const auto blank = line.find(' ');
    fields.push_back(examples::percentDecoded(line.substr(0, blank)));
    if (blank == string_view::npos) return fields;
    line.remove_prefix(blank + 1);
  }
}

std::uint64_t numberOf(string_view text) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  if (text.empty() || std::from_chars(text.data(), end, number).ptr != end) throw Damage();
  return number;
}

// The lines between the first and the last, both of which must be right.
string_view checkedLines(string_view text) {
  const auto end = text.rfind(endKey);
  if (!text.starts_with(firstLine) || end == string_view::npos || !text.ends_with('\n')) {
    throw Damage();
  }
  const string_view hash = text.substr(end + endKey.size());
  if (numberOf(hash.substr(0, hash.size() - 1)) != hashOf(text.substr(0, end))) throw Damage();
  return text.substr(firstLine.size(), end - firstLine.size());
}

class Reader {
 public:
  State read(string_view text) {
    for (string_view lines = checkedLines(text); !lines.empty();) {
      const auto end = lines.find('\n');
      if (end == string_view::npos) throw Damage();
      readLine(fieldsOf(lines.substr(0, end)));
      lines.remove_prefix(end + 1);
    }
    return std::move(state_);
  }

 private:
  void readLine(const Fields& fields) {
    if (fields[0] == "account" && fields.size() == 3) {
      state_.server = fields[1];
      state_.user = fromOptionalField(fields[2]);
    } else if (fields[0] == "calendar" && fields.size() == 5) {
      calendar_ = &state_.calendars[fields[1]];
      calendar_->url = fields[1];
      calendar_->folder = fields[2];
      if (auto text = fromOptionalField(fields[3])) calendar_->cachingStrings[Kind::event] = *text;
      if (auto text = fromOptionalField(fields[4])) calendar_->cachingStrings[Kind::toDo] = *text;
    } else if ((fields[0] == "event" || fields[0] == "to-do") && fields.size() == 5 && calendar_) {
      const Kind kind = fields[0] == "event" ? Kind::event : Kind::toDo;
      calendar_->objects[fields[1]] = std::make_shared<Object>(
          Object{kind, fields[1], fields[2], fields[3], numberOf(fields[4])});
    } else {
      throw Damage();
    }
  }

  State state_;
  Calendar* calendar_ = nullptr;  // the last one
};

}  // namespace

std::optional<State> readState(const std::filesystem::path& file) {
  const auto data = NSData::dataWithContentsOfFile(file);
  if (!data && !std::filesystem::exists(file)) return std::nullopt;
  try {
    if (!data) throw Damage();
    return Reader().read(data->view());
  } catch (const Damage&) {
    throw Failure("the state kept in " + file.string() +
                  " cannot be used. Without that file both sides are compared anew, and nothing is "
                  "deleted on either");
  }
}

void writeState(const std::filesystem::path& file, const State& state) {
  std::string text(firstLine);
  writeLine(text, {"account", state.server, optionalField(state.user)});
  for (const auto& [url, calendar] : state.calendars) {
    writeLine(text, {"calendar", url, calendar.folder,
                     optionalField(cachingStringOf(calendar, Kind::event)),
                     optionalField(cachingStringOf(calendar, Kind::toDo))});
    for (const auto& [name, object] : calendar.objects) {
      writeLine(text, {object->kind == Kind::event ? "event" : "to-do", name, object->file,
                       object->etag, std::to_string(object->hash)});
    }
  }
  const std::uint64_t hash = hashOf(text);
  text.append(endKey) += std::to_string(hash) + "\n";
  const auto error = quillmere::NSFileManager::writeData_toFileAtomically(
      NSData::dataWithString(std::move(text)), file);
  if (error) throw Failure("cannot keep the state: " + error->localizedDescription());
}

}  // namespace caldavsync
