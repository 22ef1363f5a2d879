#ifndef QUILLMERE_BENCHMARKS_LIBICAL_H
#define QUILLMERE_BENCHMARKS_LIBICAL_H

#include <libical/ical.h>

#include <cstddef>
#include <memory>
#include <string>

namespace benchmarks {

using LibicalComponent = std::shared_ptr<icalcomponent>;

LibicalComponent parseWithLibical(const std::string& document);

/// Asks for the value of every property of `component` and of what is nested in it. The number of
/// content lines that these stand for, "BEGIN" and "END" included.
std::size_t visitValues(icalcomponent* component);

}  // namespace benchmarks

#endif
