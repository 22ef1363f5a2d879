// Reads the answer to a calendar-multiget of 10,000 resources, beside bare pugixml.

#include <quillmere/platform/xml/HWXMLDocument.h>

#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "DavResources.h"
#include "Process.h"
#include "Race.h"

namespace {

using namespace benchmarks;
using quillmere::HWXMLDocument;
using quillmere::HWXMLElement;
using quillmere::HWXMLNode;
using quillmere::NSData;
using std::string_view;

constexpr std::size_t resources = 10'000;

// What a reader has to find: the bytes of each kind of text.
struct Sums {
  std::size_t count = 0;
  std::size_t hrefs = 0;
  std::size_t statuses = 0;
  std::size_t etags = 0;
  std::size_t calendars = 0;

  void add(string_view href, string_view status, string_view etag, string_view calendar) {
    ++count;
    hrefs += href.size();
    statuses += status.size();
    etags += etag.size();
    calendars += calendar.size();
  }
  friend bool operator==(const Sums&, const Sums&) = default;
};

struct Answer {
  // `carriageReturn` is how the answer has that character: as such, or escaped.
  explicit Answer(string_view carriageReturn);

  std::string text;
  Sums sums;
};

Answer::Answer(string_view carriageReturn) {
  DavResourceGenerator generator(resources);
  MultiStatus answer(resources * 3'000);  // growing would take more memory than reading
  for (std::size_t i = 0; i != resources; ++i) {
    const DavResource resource = generator.next();
    const std::string href = "/calendars/user/work/" + resource.name;
    answer.addResource(href, resource.etag, xmlEscaped(resource.calendar, carriageReturn));
    sums.add(href, MultiStatus::status, resource.etag, resource.calendar);
  }
  text = answer.finish();
}

Sums readAnswer(const NSData& bytes) {
  Sums sums;
  const auto document = HWXMLDocument::initWithData(bytes);
  require(document != nullptr, "the answer was refused");
  const auto textOf = [](const HWXMLElement& parent, string_view name) {
    return parent.firstChildNamed(name).value().text().value();
  };
  for (const HWXMLNode& child : document->rootElement().children()) {
    const auto* response = std::get_if<HWXMLElement>(&child);
    if (!response || response->name() != "response") continue;
    const HWXMLElement propstat = response->firstChildNamed("propstat").value();
    const HWXMLElement prop = propstat.firstChildNamed("prop").value();
    sums.add(textOf(*response, "href"), textOf(propstat, "status"), textOf(prop, "getetag"),
             textOf(prop, "calendar-data"));
  }
  return sums;
}

// With the options that give the same text: line ends are kept.
Sums readWithPugixml(const NSData& bytes) {
  Sums sums;
  pugi::xml_document document;
  const auto parsed =
      document.load_buffer(bytes.bytes(), bytes.length(),
                           pugi::parse_cdata | pugi::parse_escapes | pugi::parse_wconv_attribute);
  require(parsed, "pugixml refused the answer");
  for (const pugi::xml_node response : document.document_element().children("D:response")) {
    const pugi::xml_node propstat = response.child("D:propstat");
    const pugi::xml_node prop = propstat.child("D:prop");
    sums.add(response.child_value("D:href"), propstat.child_value("D:status"),
             prop.child_value("D:getetag"), prop.child_value("C:calendar-data"));
  }
  return sums;
}

// The program's peak so far lies in reading: making the answer took less than another copy of it.
void printMemory(double startBytes, double answerBytes) {
  const double peak = Memory::now().peak - startBytes;
  Row row;
  row.measure = "HWXMLDocument: multiget answer, peak memory " + megabytes(peak) + " MB";
  row.ofLimit = formatted(peak / answerBytes, "%.2f x the answer");
  row.target = "at most 3 x the answer";
  row.met = yesNo(peak <= 3 * answerBytes);
  print(row);
}

void measureSpeed(const std::string& lineEnds, const NSData& bytes, const Sums& expected) {
  Race race;
  const auto passOf = [&](Sums (*read)(const NSData&)) {
    return [&bytes, &expected, read] {
      require(read(bytes) == expected, "a reader gave other texts");
      return nullptr;
    };
  };
  const auto& pugixml =
      race.add("pugixml: multiget answer, " + lineEnds, bytes.length(), passOf(readWithPugixml));
  const auto& ours =
      race.add("HWXMLDocument: multiget answer, " + lineEnds, bytes.length(), passOf(readAnswer));
  race.run();

  print(rowOf(pugixml));
  Row row = rowOf(ours);
  const double ratio = ours.bytesPerSecond() / pugixml.bytesPerSecond();
  row.ofLimit = percent(ratio) + " of pugixml";
  row.target = "at least 60 % of pugixml";
  row.met = yesNo(ratio >= 0.6);
  print(row);
}

}  // namespace

int main() {
  const double startBytes = Memory::now().peak;
  Answer plain("\r");
  const NSData plainBytes = NSData::dataWithString(std::move(plain.text));
  require(readAnswer(plainBytes) == plain.sums, "the document gave other texts");
  printMemory(startBytes, static_cast<double>(plainBytes.length()));
  measureSpeed("CR LF as such", plainBytes, plain.sums);

  Answer escaped("&#13;");
  measureSpeed("CR escaped", NSData::dataWithString(std::move(escaped.text)), escaped.sums);
}
