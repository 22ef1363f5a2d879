#include "DavResources.h"

#include <charconv>
#include <cstdint>
#include <utility>

#include "CalendarGenerator.h"

namespace benchmarks {

using std::string_view;

constexpr std::size_t firstName = 1'000'000;

DavResourceGenerator::DavResourceGenerator(std::size_t count)
    : calendar_(generateCalendar(count).text),
      head_(calendar_.find("BEGIN:VEVENT\r\n")),
      at_(head_) {}

DavResource DavResourceGenerator::next() {
  constexpr string_view end = "END:VEVENT\r\n";
  constexpr std::uint64_t mixer = 0x9E3779B97F4A7C15;
  const std::size_t from = std::exchange(at_, calendar_.find(end, at_) + end.size());
  const std::size_t number = made_++;
  return {std::to_string(firstName + number) + ".ics",
          '"' + std::to_string(mixer * (number + 1)) + '"',
          calendar_.substr(0, head_) + calendar_.substr(from, at_ - from) + "END:VCALENDAR\r\n"};
}

std::size_t DavResourceGenerator::numberOf(string_view name) {
  std::size_t number = 0;
  std::from_chars(name.data(), name.data() + name.size(), number);
  return number - firstName;
}

MultiStatus::MultiStatus(std::size_t capacity) {
  text_.reserve(capacity);
  text_ =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:multistatus xmlns:D=\"DAV:\" "
      "xmlns:C=\"urn:ietf:params:xml:ns:caldav\">";
}

void MultiStatus::addProperties(string_view href, string_view properties) {
  text_.append("<D:response><D:href>").append(href).append("</D:href><D:propstat><D:prop>");
  text_.append(properties).append("</D:prop><D:status>").append(status);
  text_ += "</D:status></D:propstat></D:response>\n";
}

void MultiStatus::addResource(string_view href, string_view etag, string_view calendar) {
  std::string properties = "<D:getetag>";
  properties.append(etag).append("</D:getetag>");
  if (!calendar.empty()) {
    properties.append("<C:calendar-data>").append(calendar).append("</C:calendar-data>");
  }
  addProperties(href, properties);
}

std::string MultiStatus::finish(string_view more) {
  text_.append(more).append("</D:multistatus>\n");
  return std::exchange(text_, {});
}

std::string xmlEscaped(string_view text, string_view carriageReturn) {
  std::string escaped;
  escaped.reserve(text.size() + text.size() / 8);
  for (const char character : text) {
    switch (character) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '\r':
        escaped += carriageReturn;
        break;
      default:
        escaped += character;
    }
  }
  return escaped;
}

}  // namespace benchmarks
