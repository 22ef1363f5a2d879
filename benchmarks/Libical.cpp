#include "Libical.h"

namespace benchmarks {

LibicalComponent parseWithLibical(const std::string& document) {
  return {icalparser_parse_string(document.c_str()), icalcomponent_free};
}

std::size_t visitValues(icalcomponent* component) {
  std::size_t lines = 2;
  for (icalproperty* property = icalcomponent_get_first_property(component, ICAL_ANY_PROPERTY);
       property; property = icalcomponent_get_next_property(component, ICAL_ANY_PROPERTY)) {
    char* const value = icalproperty_get_value_as_string_r(property);
    if (value) ++lines;
    icalmemory_free_buffer(value);
  }
  for (icalcomponent* inner = icalcomponent_get_first_component(component, ICAL_ANY_COMPONENT);
       inner; inner = icalcomponent_get_next_component(component, ICAL_ANY_COMPONENT)) {
    lines += visitValues(inner);
  }
  return lines;
}

}  // namespace benchmarks
