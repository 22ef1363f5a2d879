// Reads one generated document as a host does, beside plain loops and beside libical.

#include <quillmere/calendars/KBTDataCalendar.h>
#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/base/makeObject.h>

#include <algorithm>
#include <utility>

#include "CalendarGenerator.h"
#include "Libical.h"
#include "Race.h"
#include "ReaderLimits.h"
#include "RecordingHost.h"

namespace {

using namespace benchmarks;
using quillmere::KBTCalObject;
using quillmere::NSData;

struct Document {
  explicit Document(std::size_t eventCount) : events(eventCount) {
    GeneratedCalendar calendar = generateCalendar(events);
    tally = calendar.tally;
    data = NSData::dataWithString(std::move(calendar.text));
  }

  std::size_t events;
  Tally tally;
  NSData data;
};

class MemoryCalendar : public quillmere::KBTDataCalendar {
 public:
  static std::shared_ptr<MemoryCalendar> initWithData(NSData data) {
    return quillmere::makeObject<MemoryCalendar>(std::move(data));
  }

 protected:
  explicit MemoryCalendar(NSData data) : data_(std::move(data)) {}
  std::shared_ptr<KBTCalObject> _getCalendarData() override {
    return KBTCalObject::initWithData(data_);
  }

 private:
  NSData data_;
};

Race::Pass nextLinePass(const Document& document) {
  return [&document] {
    const auto reader = KBTCalObject::initWithData(document.data);
    std::size_t lines = 0;
    while (reader->nextLine()) ++lines;
    require(lines == document.tally.lines, "nextLine found another number of lines");
    return nullptr;
  };
}

Race::Pass keyAndValuePass(const Document& document) {
  return [&document] {
    const auto reader = KBTCalObject::initWithData(document.data);
    Tally tally;
    while (reader->nextLine()) {
      ++tally.lines;
      tally.keyBytes += reader->key().value_or("").size();
      tally.valueBytes += reader->value().value_or("").size();
    }
    require(tally == document.tally, "key and value differ from what was generated");
    return nullptr;
  };
}

Race::Pass fetchPass(const Document& document) {
  return [&document] {
    const auto host = std::make_shared<RecordingHost>();
    const auto calendar = MemoryCalendar::initWithData(document.data);
    calendar->setDelegate(host);
    calendar->fetchExternalChanges();
    require(host->hasFetched() && host->objects().size() == document.events,
            "the fetch did not report every event");
    return std::make_shared<std::pair<decltype(host), decltype(calendar)>>(host, calendar);
  };
}

// The same work on documents of three sizes: time per byte, worst to best.
Row scalingRow(std::string measure, std::initializer_list<const Race::Contender*> sizes) {
  Row row;
  row.measure = std::move(measure);
  double slowest = std::numeric_limits<double>::infinity();
  double fastest = 0;
  for (const Race::Contender* size : sizes) {
    const double speed = size->bytesPerSecond();
    row.speed += (row.speed.empty() ? "" : " / ") + megabytes(speed);
    slowest = std::min(slowest, speed);
    fastest = std::max(fastest, speed);
  }
  row.target = "time per byte within 25 % (is " + percent(fastest / slowest - 1) + ")";
  row.met = yesNo(fastest <= 1.25 * slowest);
  return row;
}

}  // namespace

int main(int count, char** arguments) {
  const std::size_t events = eventsFromArguments(count, arguments);
  const Document small(events / 200);
  const Document middle(events / 10);
  const Document large(events);
  const std::size_t bytes = large.data.length();

  Race race;
  const auto& newlines = race.add("limit: line feeds", bytes, [&] {
    require(countPhysicalLines(large.data.view()) >= large.tally.lines, "lines were missed");
    return nullptr;
  });
  const auto& split = race.add("limit: split", bytes, [&] {
    const SplitLines found = splitLines(large.data.view());
    require(found.lines == large.tally.lines && found.keyBytes == large.tally.keyBytes,
            "the split differs from what was generated");
    return nullptr;
  });
  const auto& unescaped = race.add("limit: split, unfold and unescape", bytes, [&] {
    require(unescapeLines(large.data.view()) == large.tally,
            "the unescaped values differ from what was generated");
    return nullptr;
  });
  const std::string middleText(middle.data.view());
  const auto& libical = race.add("libical: parse, visit values", middleText.size(), [&] {
    const auto calendar = parseWithLibical(middleText);
    require(calendar && visitValues(calendar.get()) == middle.tally.lines,
            "libical found another number of lines");
    return calendar;
  });
  const auto& nextLine = race.add("nextLine", bytes, nextLinePass(large));
  const auto& keyAndValue = race.add("nextLine, key, value", bytes, keyAndValuePass(large));
  const auto& fetch = race.add("fetch", bytes, fetchPass(large));
  const auto& keyAndValueMiddle = race.add("", middleText.size(), keyAndValuePass(middle), 10);
  const auto& keyAndValueSmall = race.add("", small.data.length(), keyAndValuePass(small), 200);
  const auto& fetchMiddle = race.add("", middleText.size(), fetchPass(middle), 10);
  const auto& fetchSmall = race.add("", small.data.length(), fetchPass(small), 200);
  race.run();

  print(rowOf(newlines));
  print(rowOf(split));
  print(rowOf(unescaped));
  print(rowOf(libical));
  const auto compared = [&](const Race::Contender& ours, const Race::Contender& limit,
                            double leastOfLimit, double leastOfLibical) {
    const double ofLimit = ours.bytesPerSecond() / limit.bytesPerSecond();
    const double ofLibical = ours.bytesPerSecond() / libical.bytesPerSecond();
    Row row = rowOf(ours);
    row.ofLimit = percent(ofLimit) + " of " + limit.name.substr(limit.name.find(' ') + 1);
    row.ofLibical = times(ofLibical);
    row.target = "at least " + percent(leastOfLimit) + " of the limit";
    if (leastOfLibical > 0) row.target += ", " + times(leastOfLibical) + " libical";
    row.met = yesNo(ofLimit >= leastOfLimit && ofLibical >= leastOfLibical);
    return row;
  };
  print(compared(nextLine, split, 0.6, 0));
  print(compared(keyAndValue, unescaped, 0.6, 25));
  print(compared(fetch, split, 0.3, 25));

  const std::string sizes = ", " + std::to_string(small.events) + " / " +
                            std::to_string(middle.events) + " / " + std::to_string(events) +
                            " events";
  print(scalingRow("nextLine, key, value" + sizes,
                   {&keyAndValueSmall, &keyAndValueMiddle, &keyAndValue}));
  print(scalingRow("fetch" + sizes, {&fetchSmall, &fetchMiddle, &fetch}));
}
