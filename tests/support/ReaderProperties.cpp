#include "tests/support/ReaderProperties.h"

#include <quillmere/ical/KBTCalObjectEntry.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <tuple>
#include <vector>

namespace quillmere::testing {
namespace {

using std::string_view;

void require(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "reader property violated: " << what << '\n';
  std::abort();
}

bool isInside(string_view part, string_view whole) {
  const std::less_equal<> notAfter;
  return part.empty() || (notAfter(whole.data(), part.data()) &&
                          notAfter(part.data() + part.size(), whole.data() + whole.size()));
}

using Text = std::optional<std::string>;
// Key, value and parameters.
using Line = std::tuple<Text, Text, std::vector<std::pair<std::string, std::string>>>;

Text copied(std::optional<string_view> text) { return text ? Text(*text) : std::nullopt; }

Line currentLine(KBTCalObject& reader) {
  const auto key = copied(reader.key()), value = copied(reader.value());
  return {key, value, {reader.modifiers().begin(), reader.modifiers().end()}};
}

void checkCurrentLine(KBTCalObject& reader, string_view document) {
  if (const auto key = reader.key()) require(isInside(*key, document), "a key is in the document");
  for (const auto& [name, value] : reader.modifiers()) {
    require(isInside(name, document) && isInside(value, document),
            "parameters are in the document");
  }
  require(currentLine(reader) == currentLine(reader), "asked twice is the same");
  bool isFullDay = false;
  const auto date = reader.valueAsDateIsFullDay(&isFullDay);
  require(reader.valueAsDateIsFullDay() == date, "a date does not depend on who asks for the flag");
}

std::vector<Line> linesOf(KBTCalObject& reader) {
  std::vector<Line> lines;
  while (reader.nextLine()) lines.push_back(currentLine(reader));
  require(!reader.nextLine(), "an ended reader stays at its end");
  return lines;
}

// The lines of an entry over the current line, checked against its text.
void checkEntry(KBTCalObject& reader, string_view document) {
  const auto entry = reader.subparserForCurrentEntry();
  require(!entry->isAtEnd(), "a fresh entry is not at its end");
  const auto lines = linesOf(*entry);
  require(entry->isAtEnd(), "a read entry is at its end");
  const NSData text = entry->icsData();
  require(entry->icsData() == text, "an entry's text asked twice is the same");

  const auto begin = static_cast<std::size_t>(reader.key()->data() - document.data());
  require(text.view() == document.substr(begin, text.length()),
          "an entry's text is a slice of the document");
  require(linesOf(*KBTCalObject::initWithData(text)) == lines,
          "an entry's text reads as the entry");
  entry->reset();
  require(linesOf(*entry) == lines, "an entry reads again after a reset");
}

}  // namespace

void checkReader(const NSData& document) {
  // A bound on the work: entries overlap where nothing ends them.
  constexpr std::size_t checkedEntries = 50;

  const auto reader = KBTCalObject::initWithData(document);
  std::size_t lines = 0, entries = 0;
  while (reader->nextLine()) {
    require(++lines <= document.length(), "the reader ends");
    checkCurrentLine(*reader, document.view());
    if (reader->key() == "BEGIN" && entries++ < checkedEntries) {
      checkEntry(*reader, document.view());
    }
  }
  require(reader->isAtEnd() && !reader->nextLine(), "an ended reader stays at its end");
  require(reader->icsData() == document, "the reader answers its document");

  reader->reset();
  const auto first = linesOf(*reader);
  reader->reset();
  require(first == linesOf(*reader) && first.size() == lines, "a reader reads again after a reset");
}

}  // namespace quillmere::testing
