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
// items. A name that is made up is as many question marks.
const std::string madeUp(36, '?');

Log expectedReports(const NSData& document) {
  Log reports{"began"};
  std::set<std::string> seen;
  std::optional<std::string> uid, version, sequence;
  bool itemBegan = false;
  const auto reader = KBTCalObject::initWithData(document);
  while (reader->nextLine()) {
    const auto key = reader->key(), value = reader->value();
    const bool isItem = value == "VEVENT" || value == "VTODO";
    if (key == "BEGIN" && isItem) itemBegan = true;
    if (key == "UID" && itemBegan) uid = value;
    if (key == "DTSTAMP" && itemBegan) version = value;
    if (key == "SEQUENCE" && itemBegan) sequence = value;
    if (key != "END" || !isItem) continue;
    if (!version) version = sequence.value_or("1");
    if (!uid) uid = madeUp + std::to_string(seen.size());
    if (!seen.insert(*uid).second) continue;
    const bool isMadeUp = uid->starts_with(madeUp);
    reports.push_back("new " + (isMadeUp ? madeUp : *uid) + " " + *version);
  }
  reports.emplace_back("fetched");
  return reports;
}

bool isAsExpected(const std::string& report, const std::string& expected) {
  const std::size_t name = expected.find(madeUp);
  if (name == std::string::npos) return report == expected;
  return report.size() == expected.size() &&
         report.substr(name + madeUp.size()) == expected.substr(name + madeUp.size());
}

void check(std::string_view document) {
  const auto host = std::make_shared<testing::RecordingDelegate>();
  const auto calendar = makeObject<MemoryCalendar>();
  calendar->setDelegate(host);
  calendar->document = NSData::dataWithBytes(document);

  calendar->fetchExternalChanges();
  const Log first = host->take();
  const Log expected = expectedReports(calendar->document);
  require(std::equal(first.begin(), first.end(), expected.begin(), expected.end(), isAsExpected),
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
