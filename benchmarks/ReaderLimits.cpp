#include "ReaderLimits.h"

#include <cstring>
#include <string>

namespace benchmarks {
namespace {

const char* find(const char* from, const char* end, char byte) {
  const void* found = std::memchr(from, byte, static_cast<std::size_t>(end - from));
  return found ? static_cast<const char*>(found) : end;
}

std::size_t distance(const char* from, const char* end) {
  return static_cast<std::size_t>(end - from);
}

// The end of the text of the physical line at `from`, and where the next one starts.
struct LineEnd {
  const char* text;
  const char* next;
};

LineEnd lineEnd(const char* from, const char* end) {
  const char* const feed = find(from, end, '\n');
  if (feed == end) return {end, end};
  return {feed != from && feed[-1] == '\r' ? feed - 1 : feed, feed + 1};
}

void unescape(std::string& text) {
  char* const end = text.data() + text.size();
  const char* from = find(text.data(), end, '\\');
  if (from == end) return;
  char* to = text.data() + distance(text.data(), from);
  while (end - from >= 2) {
    *to++ = from[1] == 'n' ? '\n' : from[1];
    from += 2;
    const std::size_t plain = distance(from, find(from, end, '\\'));
    std::memmove(to, from, plain);
    to += plain;
    from += plain;
  }
  text.resize(distance(text.data(), to));
}

}  // namespace

std::size_t countPhysicalLines(std::string_view document) {
  const char* const end = document.data() + document.size();
  std::size_t lines = 0;
  for (const char* at = document.data(); at != end; ++lines) at = lineEnd(at, end).next;
  return lines;
}

SplitLines splitLines(std::string_view document) {
  const char* const end = document.data() + document.size();
  SplitLines found;
  for (const char* at = document.data(); at != end;) {
    const LineEnd line = lineEnd(at, end);
    if (*at == ' ') {
      found.valueBytes += distance(at + 1, line.text);
    } else {
      const char* const colon = find(at, line.text, ':');
      const char* const keyEnd = find(at, colon, ';');
      ++found.lines;
      found.keyBytes += distance(at, keyEnd);
      found.parameterBytes += distance(keyEnd, colon);
      if (colon != line.text) found.valueBytes += distance(colon + 1, line.text);
    }
    at = line.next;
  }
  return found;
}

Tally unescapeLines(std::string_view document) {
  const char* const end = document.data() + document.size();
  Tally tally;
  std::string value;
  for (const char* at = document.data(); at != end;) {
    LineEnd line = lineEnd(at, end);
    const char* const colon = find(at, line.text, ':');
    const char* const keyEnd = find(at, colon, ';');
    bool isInValue = colon != line.text;  // else the parameters are folded
    ++tally.lines;
    tally.keyBytes += distance(at, keyEnd);
    value.assign(isInValue ? colon + 1 : colon, line.text);
    while (line.next != end && *line.next == ' ') {
      const char* from = line.next + 1;
      line = lineEnd(from, end);
      if (!isInValue) {
        from = find(from, line.text, ':');
        isInValue = from != line.text;
        if (isInValue) ++from;
      }
      value.append(from, line.text);
    }
    unescape(value);
    tally.valueBytes += value.size();
    at = line.next;
  }
  return tally;
}

}  // namespace benchmarks
