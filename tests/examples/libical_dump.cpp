// Prints UID, SUMMARY, DTSTART and DTEND (of to-dos: DUE) of every event and to-do in a file as
// libical reads them, one per line with tabs between. Fails when libical finds an error in the
// file.

#include <libical/ical.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

namespace {

std::string textOf(icalcomponent* component, icalproperty_kind kind) {
  icalproperty* property = icalcomponent_get_first_property(component, kind);
  const char* text = property ? icalproperty_get_value_as_string(property) : nullptr;
  return text ? text : "";
}

void print(icalcomponent* component) {
  const bool isToDo = icalcomponent_isa(component) == ICAL_VTODO_COMPONENT;
  std::cout << textOf(component, ICAL_UID_PROPERTY) << '\t'
            << textOf(component, ICAL_SUMMARY_PROPERTY) << '\t'
            << textOf(component, ICAL_DTSTART_PROPERTY) << '\t'
            << textOf(component, isToDo ? ICAL_DUE_PROPERTY : ICAL_DTEND_PROPERTY) << '\n';
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::ifstream file(argv[1], std::ios::binary);
  const std::string document(std::istreambuf_iterator<char>(file), {});
  icalcomponent* calendar = icalparser_parse_string(document.c_str());
  if (!calendar || icalcomponent_count_errors(calendar) != 0) {
    std::cerr << "libical finds errors in " << argv[1] << '\n';
    if (calendar) icalcomponent_free(calendar);
    return 1;
  }
  for (icalcomponent* component = icalcomponent_get_first_component(calendar, ICAL_ANY_COMPONENT);
       component; component = icalcomponent_get_next_component(calendar, ICAL_ANY_COMPONENT)) {
    const auto kind = icalcomponent_isa(component);
    if (kind == ICAL_VEVENT_COMPONENT || kind == ICAL_VTODO_COMPONENT) print(component);
  }
  icalcomponent_free(calendar);
}
