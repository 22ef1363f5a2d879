#include "Race.h"

#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace benchmarks {
namespace {

constexpr int rounds = 7;

// Makes the allocator join the small blocks that earlier passes freed, as every call of mallopt
// does, so that no pass pays for what another one left behind. The size given is the default.
void tidyHeap() { mallopt(M_MXFAST, 64 * sizeof(std::size_t) / 4); }

// The processor time of this process, which other work on the machine does not add to.
double processorSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double secondsOfRound(const Race::Contender& contender) {
  double total = 0;
  for (std::size_t pass = 0; pass < contender.passes; ++pass) {
    tidyHeap();
    const double start = processorSeconds();
    const auto result = contender.pass();
    total += processorSeconds() - start;
  }
  return total / static_cast<double>(contender.passes);
}

}  // namespace

const Race::Contender& Race::add(std::string name, std::size_t amount, Pass pass,
                                 std::size_t passes) {
  contenders_.push_back({std::move(name), amount, passes, std::move(pass)});
  return contenders_.back();
}

void Race::run() {
  for (int round = 0; round < rounds; ++round) {
    for (Contender& contender : contenders_) {
      contender.seconds = std::min(contender.seconds, secondsOfRound(contender));
    }
  }
}

void require(bool condition, const char* message) {
  if (condition) return;
  std::fprintf(stderr, "benchmark failed: %s\n", message);
  std::exit(EXIT_FAILURE);
}

void print(std::initializer_list<std::string> fields) {
  for (const std::string& field : fields) std::printf("| %s ", field.c_str());
  std::puts("|");
}

void print(const Row& row) {
  print({row.measure, row.speed, row.ofLimit, row.ofLibical, row.target, row.met});
}

Row rowOf(const Race::Contender& contender) {
  return {contender.name, megabytes(contender.bytesPerSecond()), {}, {}, {}, {}};
}

std::string formatted(double number, const char* format) {
  char text[64];
  std::snprintf(text, sizeof text, format, number);
  return text;
}

std::size_t eventsFromArguments(int count, char** arguments) {
  const std::size_t events = count > 1 ? std::strtoull(arguments[1], nullptr, 10) : 0;
  require(events >= 200, "the first argument is the number of events, 200 or more");
  return events;
}

}  // namespace benchmarks
