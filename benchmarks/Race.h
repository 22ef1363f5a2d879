#ifndef QUILLMERE_BENCHMARKS_RACE_H
#define QUILLMERE_BENCHMARKS_RACE_H

#include <cstddef>
#include <deque>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>

namespace benchmarks {

/// Measures the processor time of contenders in turns, so that a disturbance of the machine hits
/// all alike, and keeps the best round of each.
class Race {
 public:
  /// One pass over the work. What it returns is destroyed after the clock was stopped.
  using Pass = std::function<std::shared_ptr<void>()>;

  struct Contender {
    std::string name;
    std::size_t amount;  // of work in a pass: bytes, or whatever is counted
    std::size_t passes;  // in a round
    Pass pass;
    double seconds = std::numeric_limits<double>::infinity();  // of a pass, in the best round

    double bytesPerSecond() const { return static_cast<double>(amount) / seconds; }
    double nanosecondsEach() const { return 1e9 * seconds / static_cast<double>(amount); }
  };

  /// The reference stays good, and tells the result after `run()`.
  const Contender& add(std::string name, std::size_t amount, Pass pass, std::size_t passes = 1);

  void run();

 private:
  std::deque<Contender> contenders_;
};

/// Ends the program with a message when a benchmark did not do its work.
void require(bool condition, const char* message);

/// Prints one row of a Markdown table.
void print(std::initializer_list<std::string> fields);

/// One row of the table of speeds. Empty fields are left blank.
struct Row {
  std::string measure;
  std::string speed;  // in MB/s
  std::string ofLimit;
  std::string ofLibical;
  std::string target;
  std::string met;
};
void print(const Row& row);

/// A row for a contender, yet without comparison and target.
Row rowOf(const Race::Contender& contender);

std::string formatted(double number, const char* format);
inline std::string percent(double ratio) { return formatted(100 * ratio, "%.0f %%"); }
inline std::string times(double ratio) { return formatted(ratio, "%.1f x"); }
inline std::string megabytes(double bytes) { return formatted(bytes / 1e6, "%.0f"); }
inline std::string yesNo(bool met) { return met ? "yes" : "**no**"; }

/// The first argument of the program as a number of events.
std::size_t eventsFromArguments(int count, char** arguments);

}  // namespace benchmarks

#endif
