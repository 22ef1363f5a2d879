// The state file holds these fields without anything between them:
//
//   signature    the 16 bytes "agenda state 02\n"
//   path         text, or the URL
//   caching      optional text
//   name         optional text
//   count        number, then so many objects:
//     name         text
//     version      optional text
//     entry        entry
//   split        number, then so many events:
//     UID          text
//     entries      number, then so many entries
//   checksum     number: the 64-bit FNV-1a hash of all bytes before it
//
// An entry is:
//     UID          text
//     flags        byte: 1 to-do, 2 done, 4 cancelled
//     summary      optional text
//     location     optional text
//     start, end   optional moment each
//     rules        number, then so many texts
//     added        number, then so many moments
//     removed      number, then so many moments
//     zone         text
//     length       number, the days in it that are by the calendar
//     replaced     optional moment
//
// A number has eight bytes, the lowest first. A text is a number, its length, and so many bytes. A
// moment is a byte, its kind, and a number, the microseconds since 1970. An optional field is a
// byte, 0 or 1, and after a 1 the field.
//
// Nothing in the file is trusted: every length is held against the bytes that are left.

#include "StateFile.h"

#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/base/NSFileManager.h>

#include <cstdint>
#include <filesystem>
#include <string_view>
#include <utility>

#include "Problems.h"
#include "common/Hash.h"

namespace agenda {
namespace {

using examples::hashOf;
using quillmere::NSData;
using quillmere::NSDate;
using std::string_view;

constexpr string_view signature = "agenda state 02\n";
constexpr std::size_t numberLength = 8;
constexpr unsigned bitsPerByte = 8;

enum Flag : unsigned { toDoFlag = 1, doneFlag = 2, cancelledFlag = 4 };
constexpr unsigned allFlags = toDoFlag | doneFlag | cancelledFlag;

class Writer {
 public:
  void byte(unsigned value) { bytes_.push_back(static_cast<char>(value)); }

  void number(std::uint64_t value) {
    for (std::size_t i = 0; i < numberLength; ++i, value >>= bitsPerByte) byte(value & 0xff);
  }

  void text(string_view value) {
    number(value.size());
    bytes_ += value;
  }

  void text(const std::optional<std::string>& value) {
    byte(value ? 1 : 0);
    if (value) text(string_view(*value));
  }

  void moment(const When& value) {
    byte(static_cast<unsigned>(value.kind));
    number(static_cast<std::uint64_t>(value.date.microsecondsSince1970()));
  }

  void moment(const std::optional<When>& value) {
    byte(value ? 1 : 0);
    if (value) moment(*value);
  }

  void moments(const std::vector<When>& values) {
    number(values.size());
    for (const When& value : values) moment(value);
  }

  void entry(const Entry& entry) {
    text(string_view(entry.uid));
    byte((entry.isToDo ? toDoFlag : 0U) | (entry.isDone ? doneFlag : 0U) |
         (entry.isCancelled ? cancelledFlag : 0U));
    text(entry.summary);
    text(entry.location);
    moment(entry.start);
    moment(entry.end);
    number(entry.repetition.rules.size());
    for (const std::string& rule : entry.repetition.rules) text(string_view(rule));
    moments(entry.repetition.addedDates);
    moments(entry.repetition.removedDates);
    text(string_view(entry.repetition.zone));
    number(static_cast<std::uint64_t>(entry.repetition.calendarDays));
    moment(entry.replacedDate);
  }

  void object(const AgendaObject& object) {
    text(string_view(object.name));
    text(object.version);
    entry(object.entry);
  }

  void splitEvents(const SplitEvents& events) {
    number(events.size());
    for (const auto& [uid, entries] : events) {
      text(string_view(uid));
      number(entries.size());
      for (const Entry& part : entries) entry(part);
    }
  }

  std::string finish() {
    number(hashOf(bytes_));
    return std::move(bytes_);
  }

 private:
  std::string bytes_{signature};
};

class Reader {
 public:
  explicit Reader(string_view bytes) : rest_(bytes) {}

  bool isAtEnd() const { return rest_.empty(); }

  string_view take(std::uint64_t length) {
    if (length > rest_.size()) throw CalendarProblem("it ends too early");
    const string_view taken = rest_.substr(0, length);
    rest_.remove_prefix(length);
    return taken;
  }

  unsigned byte(unsigned maximum) {
    const unsigned value = static_cast<unsigned char>(take(1).front());
    if (value > maximum) throw CalendarProblem("it holds a value that has no meaning");
    return value;
  }

  std::uint64_t number() {
    std::uint64_t value = 0;
    const string_view bytes = take(numberLength);
    for (std::size_t i = bytes.size(); i-- > 0;) {
      value = value << bitsPerByte | static_cast<unsigned char>(bytes[i]);
    }
    return value;
  }

  std::string text() { return std::string(take(number())); }

  std::optional<std::string> optionalText() {
    if (byte(1) == 0) return std::nullopt;
    return text();
  }

  When moment() {
    const auto kind = static_cast<When::Kind>(byte(static_cast<unsigned>(When::Kind::instant)));
    const auto microseconds = static_cast<std::int64_t>(number());
    return When{kind, NSDate::dateWithMicrosecondsSince1970(microseconds)};
  }

  std::optional<When> optionalMoment() {
    if (byte(1) == 0) return std::nullopt;
    return moment();
  }

  // A number, and so many times what `read` answers.
  template <class Read>
  auto list(Read read) {
    std::vector<decltype(read())> values;
    for (std::uint64_t count = number(); count != 0; --count) values.push_back(read());
    return values;
  }

  std::vector<When> moments() {
    return list([this] { return moment(); });
  }

  Entry entry() {
    Entry entry;
    entry.uid = text();
    const unsigned flags = byte(allFlags);
    entry.isToDo = flags & toDoFlag;
    entry.isDone = flags & doneFlag;
    entry.isCancelled = flags & cancelledFlag;
    entry.summary = optionalText();
    entry.location = optionalText();
    entry.start = optionalMoment();
    entry.end = optionalMoment();
    entry.repetition.rules = list([this] { return text(); });
    entry.repetition.addedDates = moments();
    entry.repetition.removedDates = moments();
    entry.repetition.zone = text();
    entry.repetition.calendarDays = static_cast<std::int64_t>(number());
    entry.replacedDate = optionalMoment();
    return entry;
  }

  std::vector<std::shared_ptr<AgendaObject>> objects() {
    return list([this] {
      auto object = std::make_shared<AgendaObject>();
      object->name = text();
      object->version = optionalText();
      object->entry = entry();
      return object;
    });
  }

  SplitEvents splitEvents() {
    SplitEvents events;
    for (std::uint64_t count = number(); count != 0; --count) {
      const std::string uid = text();
      events[uid] = list([this] { return entry(); });
    }
    return events;
  }

 private:
  string_view rest_;
};

// The fields between the signature and the checksum, both of which must be right.
string_view checkedFields(string_view bytes) {
  if (!bytes.starts_with(signature)) throw CalendarProblem("it is no state file of agenda");
  if (bytes.size() < signature.size() + numberLength) throw CalendarProblem("it ends too early");
  const string_view hashed = bytes.substr(0, bytes.size() - numberLength);
  if (Reader(bytes.substr(hashed.size())).number() != hashOf(hashed)) {
    throw CalendarProblem("its checksum is wrong");
  }
  return hashed.substr(signature.size());
}

}  // namespace

std::string stateFilePath(const std::string& folder, const std::string& calendarPath) {
  constexpr string_view digits = "0123456789abcdef";
  std::string name;
  for (std::uint64_t hash = hashOf(calendarPath); hash != 0; hash >>= 4) name += digits[hash & 0xf];
  return std::filesystem::path(folder) / (name + ".state");
}

std::optional<KeptCalendar> readState(const std::string& path, const std::string& calendarPath) {
  const auto data = NSData::dataWithContentsOfFile(path);
  if (!data) {
    if (std::filesystem::exists(path)) throw CalendarProblem("it cannot be read");
    return std::nullopt;
  }
  Reader reader(checkedFields(data->view()));
  KeptCalendar kept;
  kept.path = reader.text();
  kept.cachingString = reader.optionalText();
  kept.calendarName = reader.optionalText();
  kept.objects = reader.objects();
  kept.splitEvents = reader.splitEvents();
  if (!reader.isAtEnd()) throw CalendarProblem("it goes on behind its end");
  if (kept.path != calendarPath) throw CalendarProblem("it belongs to " + kept.path);
  return kept;
}

void writeState(const std::string& path, const KeptCalendar& kept) {
  Writer writer;
  writer.text(string_view(kept.path));
  writer.text(kept.cachingString);
  writer.text(kept.calendarName);
  writer.number(kept.objects.size());
  for (const auto& object : kept.objects) writer.object(*object);
  writer.splitEvents(kept.splitEvents);
  const auto error = quillmere::NSFileManager::writeData_toFileAtomically(
      NSData::dataWithString(writer.finish()), path);
  if (error) throw CalendarProblem("cannot keep its state: " + error->localizedDescription());
}

}  // namespace agenda
