// Any bytes as the document of a data calendar: read twice, then saved and read back.

#include <quillmere/calendars/KBTDataCalendar.h>
#include <quillmere/platform/base/makeObject.h>

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

void check(std::string_view document) {
  const auto host = std::make_shared<testing::RecordingDelegate>();
  const auto calendar = makeObject<MemoryCalendar>();
  calendar->setDelegate(host);
  calendar->document = NSData::dataWithBytes(document);

  calendar->fetchExternalChanges();
  const Log first = host->take();
  require(first.front() == "began" && first.back() == "fetched", "began first, completed last");
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
