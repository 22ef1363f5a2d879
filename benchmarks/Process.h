#ifndef QUILLMERE_BENCHMARKS_PROCESS_H
#define QUILLMERE_BENCHMARKS_PROCESS_H

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <functional>
#include <limits>
#include <type_traits>

#include "Race.h"

// What benchmarks measure of processes, and how they start them.
namespace benchmarks {

/// Times in seconds: those since some start, or those that something took.
struct Times {
  double wall = std::numeric_limits<double>::infinity();
  double processor = std::numeric_limits<double>::infinity();  // of this process

  static Times now();

  /// Takes over what a pass did better.
  void take(const Times& pass);
  Times& operator+=(const Times& other) {
    wall += other.wall;
    processor += other.processor;
    return *this;
  }
  friend Times operator-(const Times& a, const Times& b) {
    return {a.wall - b.wall, a.processor - b.processor};
  }
};

/// Bytes of this process.
struct Memory {
  double resident = 0;
  double peak = 0;   // the most that was ever resident
  double inUse = 0;  // what the allocator has handed out

  static Memory now();
};

/// The threads of this process.
std::size_t threadCount();

/// To the most that the system allows: a server and its client have a descriptor for each
/// connection.
void raiseDescriptorLimit();

/// Keeps this process and those that it starts on one processor: to wake a process on another one
/// takes about as long as a request, and how long differs from run to run.
void stayOnOneProcessor();

/// Runs the work in a new process, which ends with it and no later than this one.
pid_t startChild(const std::function<void()>& work);
void waitForChild(pid_t child);

/// The result of work that is done in a process of its own, where no memory lies ready that
/// something else has freed.
template <class Work>
auto resultOfChild(const Work& work) {
  using Result = decltype(work());
  static_assert(std::is_trivially_copyable_v<Result>);
  int ends[2];
  require(pipe(ends) == 0, "there is no pipe");
  const pid_t child = startChild([&] {
    const Result result = work();
    require(write(ends[1], &result, sizeof result) == sizeof result, "a result was not taken");
  });
  close(ends[1]);
  Result result{};
  require(read(ends[0], &result, sizeof result) == sizeof result, "a process gave no result");
  close(ends[0]);
  waitForChild(child);
  return result;
}

}  // namespace benchmarks

#endif
