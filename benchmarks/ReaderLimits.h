#ifndef QUILLMERE_BENCHMARKS_READERLIMITS_H
#define QUILLMERE_BENCHMARKS_READERLIMITS_H

#include <cstddef>
#include <string_view>

#include "CalendarGenerator.h"

namespace benchmarks {

/// How fast plain loops without any object go over a document whose lines end in CR LF: what a
/// reader is measured against.

/// Finds every line feed; their number.
std::size_t countPhysicalLines(std::string_view document);

struct SplitLines {
  std::size_t lines = 0;
  std::size_t keyBytes = 0;
  std::size_t parameterBytes = 0;
  std::size_t valueBytes = 0;
};

/// Splits every physical line into name, parameters and value, and builds nothing. All of a
/// continuation line counts as value.
SplitLines splitLines(std::string_view document);

/// Splits every content line, and unfolds and unescapes its value into one buffer.
Tally unescapeLines(std::string_view document);

}  // namespace benchmarks

#endif
