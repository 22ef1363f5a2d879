#ifndef QUILLMERE_BENCHMARKS_CALENDARGENERATOR_H
#define QUILLMERE_BENCHMARKS_CALENDARGENERATOR_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace benchmarks {

struct CalendarLine {
  std::string key;  // with its parameters
  std::string value;
  bool isText = false;  // the value is escaped in a document
};

/// What a reader has to find in a document: its content lines, the bytes of their names without
/// parameters, and the bytes of their values unfolded and unescaped.
struct Tally {
  std::size_t lines = 0;
  std::size_t keyBytes = 0;
  std::size_t valueBytes = 0;

  void add(const CalendarLine& line);
  friend bool operator==(const Tally&, const Tally&) = default;
};

/// Makes events as calendar programs write them, about 1,000 bytes each in a document. Every
/// generator makes the same ones.
class CalendarGenerator {
 public:
  /// The lines of the next event, from "BEGIN" through "END".
  std::vector<CalendarLine> nextEvent();

  /// About `length` bytes of prose, with line breaks and punctuation that is to be escaped.
  std::string prose(std::size_t length);

 private:
  std::size_t below(std::size_t limit) { return random_() % limit; }
  bool happens(std::size_t percent) { return below(100) < percent; }
  bool isAccented() { return happens(13); }  // whether a text has words beyond ASCII
  template <class Choices>
  const auto& anyOf(const Choices& choices) {
    return choices[below(std::size(choices))];
  }

  std::string date();
  std::string timeOfDay();
  std::string uid();
  std::string words(std::size_t count, bool accented);
  CalendarLine attendee();

  std::mt19937_64 random_{20240105};
  std::uint64_t events_ = 0;
};

struct GeneratedCalendar {
  std::string text;
  Tally tally;
};

/// A whole document: time zones, then the first `events` events of a new generator.
GeneratedCalendar generateCalendar(std::size_t events);

}  // namespace benchmarks

#endif
