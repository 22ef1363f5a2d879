// Reads the answer to a calendar-multiget of 10,000 resources, beside bare pugixml.

#include <quillmere/platform/xml/HWXMLDocument.h>
#include <sys/resource.h>

#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "CalendarGenerator.h"
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
  const std::string calendar = generateCalendar(resources).text;
  constexpr string_view begin = "BEGIN:VEVENT\r\n";
  constexpr string_view end = "END:VEVENT\r\n";
  std::size_t from = calendar.find(begin);
  const std::string head = calendar.substr(0, from);

  text.reserve(resources * (head.size() + 2'000));
  const auto appendEscaped = [&](string_view piece) {
    for (const char character : piece) {
      switch (character) {
        case '&':
          text += "&amp;";
          break;
        case '<':
          text += "&lt;";
          break;
        case '>':
          text += "&gt;";
          break;
        case '\r':
          text += carriageReturn;
          break;
        default:
          text += character;
      }
    }
  };
  text +=
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:multistatus xmlns:D=\"DAV:\" "
      "xmlns:C=\"urn:ietf:params:xml:ns:caldav\">";
  for (std::size_t i = 0; i != resources; ++i) {
    const std::string href = "/calendars/user/work/" + std::to_string(1'000'000 + i) + ".ics";
    const std::string etag = '"' + std::to_string(0x9E3779B97F4A7C15 * (i + 1)) + '"';
    constexpr string_view status = "HTTP/1.1 200 OK";
    const std::size_t next = calendar.find(end, from) + end.size();
    const std::string event = head + calendar.substr(from, next - from) + "END:VCALENDAR\r\n";
    from = next;
    sums.add(href, status, etag, event);

    text.append("<D:response><D:href>").append(href).append("</D:href><D:propstat><D:prop>");
    text.append("<D:getetag>").append(etag).append("</D:getetag><C:calendar-data>");
    appendEscaped(event);
    text.append("</C:calendar-data></D:prop><D:status>").append(status);
    text += "</D:status></D:propstat></D:response>\n";
  }
  text += "</D:multistatus>\n";
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

// The most memory that this process has had so far.
double peakBytes() {
  rusage usage{};
  require(getrusage(RUSAGE_SELF, &usage) == 0, "the memory of the process cannot be told");
  return 1024 * static_cast<double>(usage.ru_maxrss);
}

// The program's peak so far lies in reading: making the answer took less than another copy of it.
void printMemory(double startBytes, double answerBytes) {
  const double peak = peakBytes() - startBytes;
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
  const double startBytes = peakBytes();
  Answer plain("\r");
  const NSData plainBytes = NSData::dataWithString(std::move(plain.text));
  require(readAnswer(plainBytes) == plain.sums, "the document gave other texts");
  printMemory(startBytes, static_cast<double>(plainBytes.length()));
  measureSpeed("CR LF as such", plainBytes, plain.sums);

  Answer escaped("&#13;");
  measureSpeed("CR escaped", NSData::dataWithString(std::move(escaped.text)), escaped.sums);
}
