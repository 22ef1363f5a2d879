// Writes the events of the generator, beside libical, and values of very different lengths.

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/ical/KBTMutableCalObject.h>

#include <string>
#include <utility>
#include <vector>

#include "CalendarGenerator.h"
#include "Libical.h"
#include "Race.h"

namespace {

using namespace benchmarks;
using quillmere::KBTCalObject;
using quillmere::KBTMutableCalObject;
using quillmere::NSData;
using Writer = std::shared_ptr<KBTMutableCalObject>;

void append(KBTMutableCalObject& writer, const CalendarLine& line) {
  const std::string_view key = std::string_view(line.key).substr(0, line.key.find(';'));
  if (const auto date = KBTCalObject::zuluStringAsDate(line.value);
      date && line.value.ends_with('Z')) {
    writer.appendKey_datetimeValue(line.key, *date);
  } else if (line.key.ends_with(";VALUE=DATE")) {
    writer.appendKey_dateValue(std::string(key), *KBTCalObject::dateOnlyStringAsDate(line.value));
  } else if (key == "SEQUENCE") {
    writer.appendKey_integerValue(line.key, std::stoll(line.value));
  } else {
    writer.appendKey_stringValue(line.key, line.value);
  }
}

struct Events {
  explicit Events(std::size_t count) {
    CalendarGenerator generator;
    for (; count != 0; --count) {
      const auto lines = generator.nextEvent();
      for (const CalendarLine& line : lines) tally.add(line);
      auto writer =
          KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration("VEVENT", false);
      for (std::size_t at = 1; at + 1 < lines.size(); ++at) append(*writer, lines[at]);
      writers.push_back(std::move(writer));
    }
  }

  std::vector<Writer> writers;
  Tally tally;  // of all events
};

void addTo(Tally& tally, const NSData& text) {
  const auto reader = KBTCalObject::initWithData(text);
  while (reader->nextLine()) {
    ++tally.lines;
    tally.keyBytes += reader->key().value_or("").size();
    tally.valueBytes += reader->value().value_or("").size();
  }
}

// The bytes of all components, after each was read back.
std::size_t verifiedSize(const Events& events) {
  std::size_t size = 0;
  Tally tally;
  for (const Writer& writer : events.writers) {
    const NSData text = writer->icsData();
    size += text.length();
    addTo(tally, text);
  }
  require(tally == events.tally, "what was written does not read back");
  return size;
}

class LongValue {
 public:
  explicit LongValue(std::size_t size)
      : writer_(KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration(std::nullopt,
                                                                                   false)) {
    CalendarGenerator generator;
    std::string value;
    while (value.size() < size) value += generator.prose(400);
    writer_->appendKey_stringValue("DESCRIPTION", value);
    const NSData text = writer_->icsData();
    length_ = text.length();
    const auto reader = KBTCalObject::initWithData(text);
    require(reader->nextLine() && reader->value() == value, "the long value does not read back");
  }

  std::size_t length() const { return length_; }
  Race::Pass pass() const {
    return [this] {
      NSData text = writer_->icsData();
      require(text.length() == length_, "the long value was not written");
      return std::make_shared<NSData>(std::move(text));
    };
  }

 private:
  Writer writer_;
  std::size_t length_;
};

std::vector<icalcomponent*> eventsOf(icalcomponent* calendar) {
  std::vector<icalcomponent*> events;
  for (icalcomponent* event = icalcomponent_get_first_component(calendar, ICAL_VEVENT_COMPONENT);
       event; event = icalcomponent_get_next_component(calendar, ICAL_VEVENT_COMPONENT)) {
    events.push_back(event);
  }
  return events;
}

std::shared_ptr<char> libicalText(icalcomponent* component) {
  return {icalcomponent_as_ical_string_r(component), icalmemory_free_buffer};
}

}  // namespace

int main(int count, char** arguments) {
  const std::size_t eventCount = eventsFromArguments(count, arguments);
  const Events events(eventCount);
  const std::size_t componentBytes = verifiedSize(events);
  const std::size_t wholeBytes =
      componentBytes + KBTMutableCalObject::icsCalendarDataForObjects({}).length();

  const GeneratedCalendar generated = generateCalendar(eventCount);
  const LibicalComponent calendar = parseWithLibical(generated.text);
  require(calendar && visitValues(calendar.get()) == generated.tally.lines,
          "libical found another number of lines");
  const std::vector<icalcomponent*> peers = eventsOf(calendar.get());
  require(peers.size() == eventCount, "libical found another number of events");
  std::size_t peerBytes = 0;
  for (icalcomponent* peer : peers) peerBytes += std::string_view(libicalText(peer).get()).size();
  const std::size_t wholePeerBytes = std::string_view(libicalText(calendar.get()).get()).size();

  const LongValue shorter(eventCount * 50);
  const LongValue longer(eventCount * 500);

  Race race;
  const auto& libicalEach = race.add("libical: write each event", peerBytes, [&] {
    std::size_t size = 0;
    for (icalcomponent* peer : peers) size += std::string_view(libicalText(peer).get()).size();
    require(size == peerBytes, "libical did not write every event");
    return nullptr;
  });
  const auto& libicalWhole = race.add("libical: write the calendar", wholePeerBytes, [&] {
    auto text = libicalText(calendar.get());
    require(std::string_view(text.get()).size() == wholePeerBytes, "libical did not write all");
    return text;
  });
  const auto& each = race.add("icsData of each event", componentBytes, [&] {
    std::size_t size = 0;
    for (const Writer& writer : events.writers) size += writer->icsData().length();
    require(size == componentBytes, "not every event was written");
    return nullptr;
  });
  const auto& whole = race.add("icsCalendarDataForObjects", wholeBytes, [&] {
    NSData text = KBTMutableCalObject::icsCalendarDataForObjects(events.writers);
    require(text.length() == wholeBytes, "not every event was written");
    return std::make_shared<NSData>(std::move(text));
  });
  const auto& longerValue = race.add(
      "icsData with one value of " + megabytes(static_cast<double>(longer.length())) + " MB",
      longer.length(), longer.pass());
  const auto& shorterValue = race.add(
      "icsData with one value of " + megabytes(static_cast<double>(shorter.length())) + " MB",
      shorter.length(), shorter.pass(), 10);
  race.run();

  print(rowOf(libicalEach));
  print(rowOf(libicalWhole));
  const auto compared = [](const Race::Contender& ours, const Race::Contender& libical) {
    const double ratio = ours.bytesPerSecond() / libical.bytesPerSecond();
    Row row = rowOf(ours);
    row.ofLibical = times(ratio);
    row.target = "at least 10 x libical";
    row.met = yesNo(ratio >= 10);
    return row;
  };
  print(compared(each, libicalEach));
  print(compared(whole, libicalWhole));
  print(rowOf(shorterValue));
  const double slowdown = shorterValue.bytesPerSecond() / longerValue.bytesPerSecond();
  Row row = rowOf(longerValue);
  row.target = "time per byte at most 25 % above the shorter's (is " +
               formatted(100 * (slowdown - 1), "%+.0f %%") + ")";
  row.met = yesNo(slowdown <= 1.25);
  print(row);
}
