// Any bytes as the document of a data calendar: read twice, then saved and read back.

#include <quillmere/calendars/KBTDataCalendar.h>
#include <quillmere/platform/base/makeObject.h>

#include <algorithm>
#include <set>

#include "fuzz/Fuzzing.h"
#include "tests/support/RecordingDelegate.h"

namespace quillmere {
namespace {

using fuzzing::require;
using Log = std::vector<std::string>;

class MemoryCalendar : public KBTDataCalendar {
 public:
  using KBTDataCalendar::objectsByUniqueName;
  NSData document;

 protected:
  std::shared_ptr<KBTCalObject> _getCalendarData() override {
    return KBTCalObject::initWithData(document);
  }
  void _writeCalendarData(const NSData& data) override {
    document = data;
    _wroteCalendarData(nullptr);
  }
};

// A name that a component of its own can carry: a UID line must read back as it.
bool isPlain(const std::string& text) { return text.find_first_of("\\\r\n") == std::string::npos; }

// What the first fetch reports, told plainly: lines in their order, and nothing cleared between
// items. Names that are made up are numbered here.
struct Name {
  bool isMadeUp;
  std::string text;
  auto operator<=>(const Name&) const = default;
};
struct Report {
  Name name;
  std::string version;
};

std::vector<Report> expectedReports(const NSData& document) {
  std::vector<Report> reports;
  std::set<Name> seen;
  std::optional<Name> uid;
  std::optional<std::string> version, sequence;
  bool itemBegan = false;
  const auto reader = KBTCalObject::initWithData(document);
  while (reader->nextLine()) {
    const auto key = reader->key(), value = reader->value();
    const bool isItem = value == "VEVENT" || value == "VTODO";
    if (key == "BEGIN" && isItem) itemBegan = true;
    if (key == "UID" && itemBegan) {
      uid = value ? std::optional(Name{false, std::string(*value)}) : std::nullopt;
    }
    if (key == "DTSTAMP" && itemBegan) version = value;
    if (key == "SEQUENCE" && itemBegan) sequence = value;
    if (key != "END" || !isItem) continue;
    if (!version) version = sequence.value_or("1");
    if (!uid) uid = Name{true, std::to_string(seen.size())};
    if (seen.insert(*uid).second) reports.push_back({*uid, *version});
  }
  return reports;
}

bool isAsExpected(const std::string& report, const Report& expected) {
  constexpr std::size_t madeUpLength = 36;
  const std::string start = "new ", end = " " + expected.version;
  if (!expected.name.isMadeUp) return report == start + expected.name.text + end;
  return report.size() == start.size() + madeUpLength + end.size() && report.starts_with(start) &&
         report.ends_with(end);
}

void check(std::string_view document) {
  const auto host = std::make_shared<testing::RecordingDelegate>();
  const auto calendar = makeObject<MemoryCalendar>();
  calendar->setDelegate(host);
  calendar->document = NSData::dataWithBytes(document);

  calendar->fetchExternalChanges();
  const Log first = host->take();
  require(first.front() == "began" && first.back() == "fetched", "a fetch begins and completes");
  const std::vector<Report> expected = expectedReports(calendar->document);
  require(std::equal(first.begin() + 1, first.end() - 1, expected.begin(), expected.end(),
                     isAsExpected),
          "the reports are those of the lines");
  require(calendar->objectsByUniqueName().size() == first.size() - 2, "one report per object");

  // Names that were made up differ each time, and so does what is reported then; all others stay.
  calendar->fetchExternalChanges();
  for (const std::string& line : host->take()) {
    require(!line.starts_with("update "), "an unchanged document changes no version");
  }

  for (const std::string& name : calendar->objectsByUniqueName().keys()) {
    auto& item = testing::Item::of(*calendar->objectsByUniqueName().find(name));
    if (!isPlain(item.name) || !isPlain(item.version)) return;
    item.ics =
        "BEGIN:VEVENT\r\nUID:" + item.name + "\r\nDTSTAMP:" + item.version + "\r\nEND:VEVENT\r\n";
  }
  if (!isPlain(calendar->calendarName().value_or(""))) return;
  calendar->saveChanges();
  require(host->take() == Log{"saved"}, "a save is completed once");
  calendar->fetchExternalChanges();
  require(host->take() == (Log{"began", "fetched"}), "what was saved reads back as it was");
}

}  // namespace
}  // namespace quillmere

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  quillmere::check(quillmere::fuzzing::viewOf(bytes, count));
  return 0;
}
