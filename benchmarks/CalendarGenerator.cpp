#include "CalendarGenerator.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace benchmarks {
namespace {

using std::string;
using std::string_view;

constexpr std::size_t octetsPerPhysicalLine = 75;

constexpr std::array plainWords = {
    "review",  "budget",   "planning", "team",   "lunch",  "call",    "with",      "the",
    "quarter", "release",  "customer", "weekly", "status", "project", "interview", "training",
    "and",     "workshop", "travel",   "notes",  "follow", "up",      "contract",  "design",
    "please",  "bring",    "agenda",   "before", "we",     "discuss", "open",      "questions"};
constexpr std::array accentedWords = {"Besprechung für", "Müller",  "déjeuner", "réunion",
                                      "Ångström",        "señor",   "przegląd", "会議",
                                      "打ち合わせ",      "встреча", "σύσκεψη",  "naïve",
                                      "Übergabe",        "café",    "😀 feiern", "→ später"};
constexpr std::array givenNames = {"Anna",  "Ben",  "Clara", "David", "Émile", "Fatima",
                                   "Greta", "Hiro", "Ines",  "Jörg",  "Kim",   "Lena"};
constexpr std::array familyNames = {"Fischer", "Garcia", "Haddad", "Ito",   "Jansen", "Kowalski",
                                    "Lopez",   "Moreau", "Novak",  "Olsen", "Petit",  "Rossi"};
constexpr std::array places = {"Room 4.12",
                               "Main office, 3rd floor",
                               "12 Station Road, Springfield",
                               "Video call",
                               "Canteen",
                               "Meeting room \"North\"; building 7"};
constexpr std::array accentedPlaces = {"Café an der Ecke, Köln", "会議室 3",
                                       "Salle Hélène, 2e étage"};
constexpr std::array rules = {"FREQ=WEEKLY;BYDAY=MO,WE;UNTIL=20261231T225959Z",
                              "FREQ=DAILY;COUNT=10", "FREQ=MONTHLY;BYDAY=2TU;INTERVAL=1",
                              "FREQ=YEARLY;BYMONTH=5;BYMONTHDAY=17"};
constexpr std::array categories = {"Work", "Private", "Travel", "Customer"};
constexpr std::array answers = {"ACCEPTED", "NEEDS-ACTION", "DECLINED", "TENTATIVE"};
constexpr std::array triggers = {"-PT15M", "-PT30M", "-PT1H", "-P1D"};

// Name, offsets, abbreviations and, with daylight saving, the rules of its changes.
struct Zone {
  const char* name;
  const char* standardOffset;
  const char* standardName;
  const char* standardRule;
  const char* daylightOffset;
  const char* daylightName;
  const char* daylightRule;
};
constexpr std::array zones = {
    Zone{"Europe/Berlin", "+0100", "CET", "FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU", "+0200", "CEST",
         "FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU"},
    Zone{"America/New_York", "-0500", "EST", "FREQ=YEARLY;BYMONTH=11;BYDAY=1SU", "-0400", "EDT",
         "FREQ=YEARLY;BYMONTH=3;BYDAY=2SU"},
    Zone{"Asia/Tokyo", "+0900", "JST", nullptr, nullptr, nullptr, nullptr},
};

void appendObservance(std::vector<CalendarLine>& lines, const char* kind, const char* from,
                      const char* to, const char* name, const char* rule) {
  lines.push_back({"BEGIN", kind});
  lines.push_back({"TZOFFSETFROM", from});
  lines.push_back({"TZOFFSETTO", to});
  lines.push_back({"TZNAME", name});
  lines.push_back({"DTSTART", "20070311T020000"});
  if (rule) lines.push_back({"RRULE", rule});
  lines.push_back({"END", kind});
}

std::vector<CalendarLine> calendarHead() {
  std::vector<CalendarLine> lines = {
      {"BEGIN", "VCALENDAR"}, {"PRODID", "-//Example//Generated 1.0//EN"},
      {"VERSION", "2.0"},     {"CALSCALE", "GREGORIAN"},
      {"METHOD", "PUBLISH"},  {"X-WR-CALNAME", "Büro, shared", true}};
  for (const Zone& zone : zones) {
    const char* const otherOffset = zone.daylightOffset ? zone.daylightOffset : zone.standardOffset;
    lines.push_back({"BEGIN", "VTIMEZONE"});
    lines.push_back({"TZID", zone.name});
    appendObservance(lines, "STANDARD", otherOffset, zone.standardOffset, zone.standardName,
                     zone.standardRule);
    if (zone.daylightOffset) {
      appendObservance(lines, "DAYLIGHT", zone.standardOffset, zone.daylightOffset,
                       zone.daylightName, zone.daylightRule);
    }
    lines.push_back({"END", "VTIMEZONE"});
  }
  return lines;
}

string escaped(string_view text) {
  string result;
  for (const char byte : text) {
    if (byte == '\n') {
      result += "\\n";
      continue;
    }
    if (byte == '\\' || byte == ',' || byte == ';') result += '\\';
    result += byte;
  }
  return result;
}

bool isInsideCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

// Folds never cut a character.
void appendFolded(string& document, string_view line) {
  std::size_t room = octetsPerPhysicalLine;
  while (line.size() > room) {
    std::size_t cut = room;
    while (isInsideCharacter(line[cut])) --cut;
    document.append(line.substr(0, cut)).append("\r\n ");
    line.remove_prefix(cut);
    room = octetsPerPhysicalLine - 1;
  }
  document.append(line).append("\r\n");
}

void appendLines(GeneratedCalendar& calendar, const std::vector<CalendarLine>& lines) {
  for (const CalendarLine& line : lines) {
    appendFolded(calendar.text, line.key + ':' + (line.isText ? escaped(line.value) : line.value));
    calendar.tally.add(line);
  }
}

}  // namespace

void Tally::add(const CalendarLine& line) {
  ++lines;
  keyBytes += std::min(line.key.find(';'), line.key.size());
  valueBytes += line.value.size();
}

string CalendarGenerator::date() {
  char digits[32];
  std::snprintf(digits, sizeof digits, "20%02zu%02zu%02zu", 20 + below(8), 1 + below(12),
                1 + below(28));
  return digits;
}

string CalendarGenerator::timeOfDay() {
  char digits[32];
  std::snprintf(digits, sizeof digits, "T%02zu%02zu00", 7 + below(13), 15 * below(4));
  return digits;
}

// Unique by the number of the event in it.
string CalendarGenerator::uid() {
  char text[64];
  const std::uint64_t bits = random_();
  if (happens(70)) {
    std::snprintf(text, sizeof text, "%08X-%04X-4%03X-A%03X-%012llX",
                  static_cast<unsigned>(bits >> 32), static_cast<unsigned>(bits >> 16 & 0xFFFF),
                  static_cast<unsigned>(bits >> 4 & 0xFFF), static_cast<unsigned>(bits & 0xFFF),
                  static_cast<unsigned long long>(events_));
  } else {
    std::snprintf(text, sizeof text, "%llu%08x@calendar.example.com",
                  static_cast<unsigned long long>(events_), static_cast<unsigned>(bits));
  }
  return text;
}

string CalendarGenerator::words(std::size_t count, bool accented) {
  string text;
  for (std::size_t word = 0; word < count; ++word) {
    if (word != 0) text += ' ';
    text += accented && word % 3 == 0 ? anyOf(accentedWords) : anyOf(plainWords);
  }
  return text;
}

string CalendarGenerator::prose(std::size_t length) {
  const bool accented = isAccented();
  string text;
  while (text.size() < length) {
    text += words(4 + below(5), accented);
    text += happens(25) ? "\n" : happens(35) ? ", " : happens(10) ? "; " : ". ";
  }
  return text;
}

CalendarLine CalendarGenerator::attendee() {
  const string given = anyOf(givenNames);
  const string family = anyOf(familyNames);
  const string name = happens(30) ? '"' + family + ", " + given + '"' : given + ' ' + family;
  string key = "ATTENDEE;CN=" + name + ";PARTSTAT=" + anyOf(answers);
  if (happens(60)) key += ";CUTYPE=INDIVIDUAL;ROLE=REQ-PARTICIPANT";
  if (happens(50)) key += ";RSVP=TRUE";
  return {key, "mailto:" + family + std::to_string(below(1000)) + "@example.com"};
}

std::vector<CalendarLine> CalendarGenerator::nextEvent() {
  ++events_;
  const string day = date();
  std::vector<CalendarLine> lines = {{"BEGIN", "VEVENT"},
                                     {"UID", uid()},
                                     {"DTSTAMP", date() + timeOfDay() + "Z"},
                                     {"CREATED", date() + timeOfDay() + "Z"},
                                     {"LAST-MODIFIED", date() + timeOfDay() + "Z"}};
  if (happens(15)) {
    lines.push_back({"DTSTART;VALUE=DATE", day});
    lines.push_back({"DTEND;VALUE=DATE", day});
  } else {
    const string zone = string(";TZID=") + anyOf(zones).name;
    lines.push_back({"DTSTART" + zone, day + timeOfDay()});
    lines.push_back({"DTEND" + zone, day + "T210000"});
  }
  if (happens(20)) lines.push_back({"RRULE", anyOf(rules)});
  lines.push_back({"SUMMARY", words(2 + below(5), isAccented()), true});
  if (happens(60)) {
    lines.push_back({"LOCATION", isAccented() ? anyOf(accentedPlaces) : anyOf(places), true});
  }
  if (happens(70)) lines.push_back({"DESCRIPTION", prose(60 + below(600)), true});
  lines.push_back({"SEQUENCE", std::to_string(below(6))});
  lines.push_back({"STATUS", "CONFIRMED"});
  lines.push_back({"TRANSP", happens(80) ? "OPAQUE" : "TRANSPARENT"});
  lines.push_back({"CLASS", "PUBLIC"});
  if (happens(40)) lines.push_back({"CATEGORIES", anyOf(categories)});
  if (happens(60)) {
    lines.push_back({string("ORGANIZER;CN=") + anyOf(givenNames) + ' ' + anyOf(familyNames),
                     "mailto:organizer@example.com"});
    for (std::size_t guests = 1 + below(5); guests != 0; --guests) lines.push_back(attendee());
  }
  if (happens(40)) {
    lines.push_back({"URL", "https://calendar.example.com/events/" + std::to_string(random_())});
  }
  lines.push_back({"X-EXAMPLE-BUSYSTATUS", "BUSY"});
  if (happens(50)) lines.push_back({"X-EXAMPLE-MEETING;X-KIND=video", std::to_string(random_())});
  if (happens(35)) {
    lines.insert(lines.end(), {{"BEGIN", "VALARM"},
                               {"ACTION", "DISPLAY"},
                               {"TRIGGER", anyOf(triggers)},
                               {"DESCRIPTION", "Reminder", true},
                               {"END", "VALARM"}});
  }
  lines.push_back({"END", "VEVENT"});
  return lines;
}

GeneratedCalendar generateCalendar(std::size_t events) {
  GeneratedCalendar calendar;
  appendLines(calendar, calendarHead());
  CalendarGenerator generator;
  for (; events != 0; --events) appendLines(calendar, generator.nextEvent());
  appendLines(calendar, {{"END", "VCALENDAR"}});
  return calendar;
}

}  // namespace benchmarks
