#include "Process.h"

#include <malloc.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>

namespace benchmarks {
namespace {

double secondsOf(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// A number that the system tells about this process; sizes are in kilobytes.
double numberOfStatus(const std::string& name) {
  std::ifstream status("/proc/self/status");
  std::string word;
  double number = 0;
  while (status >> word && word != name + ':') {
  }
  status >> number;
  require(number > 0, "the state of the process cannot be told");
  return number;
}

}  // namespace

Times Times::now() { return {secondsOf(CLOCK_MONOTONIC), secondsOf(CLOCK_PROCESS_CPUTIME_ID)}; }

void Times::take(const Times& pass) {
  wall = std::min(wall, pass.wall);
  processor = std::min(processor, pass.processor);
}

Memory Memory::now() {
  const struct mallinfo2 heap = mallinfo2();
  return {1024 * numberOfStatus("VmRSS"), 1024 * numberOfStatus("VmHWM"),
          static_cast<double>(heap.uordblks + heap.hblkhd)};
}

std::size_t threadCount() { return static_cast<std::size_t>(numberOfStatus("Threads")); }

void raiseDescriptorLimit() {
  rlimit limit{};
  require(getrlimit(RLIMIT_NOFILE, &limit) == 0, "the limit of descriptors cannot be told");
  limit.rlim_cur = limit.rlim_max;
  require(setrlimit(RLIMIT_NOFILE, &limit) == 0, "the limit of descriptors cannot be raised");
}

void stayOnOneProcessor() {
  cpu_set_t processors;
  CPU_ZERO(&processors);
  CPU_SET(static_cast<std::size_t>(sched_getcpu()), &processors);
  require(sched_setaffinity(0, sizeof processors, &processors) == 0,
          "the process cannot be kept on one processor");
}

pid_t startChild(const std::function<void()>& work) {
  std::fflush(stdout);
  const pid_t parent = getpid();
  const pid_t child = fork();
  require(child != -1, "a process cannot be started");
  if (child != 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(EXIT_FAILURE);
  work();
  _exit(EXIT_SUCCESS);
}

void waitForChild(pid_t child) { waitpid(child, nullptr, 0); }

}  // namespace benchmarks
