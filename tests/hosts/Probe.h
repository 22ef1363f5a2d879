#ifndef QUILLMERE_TESTS_HOSTS_PROBE_H
#define QUILLMERE_TESTS_HOSTS_PROBE_H

#include <functional>

namespace quillmere::testing {

/// A program's own loop, as its toolkit has it.
struct HostLoop {
  std::function<void()> run;  // until `quit` is called
  std::function<void()> quit;
};

/// Fetches a subscription and changes the event store while the host's loop runs, and then leaves
/// the loop alone for a while. The exit status for `main`: 0 when every callback came by that loop
/// and the idle time woke it for nothing; otherwise 1, and standard error tells what was missing.
int probe(const HostLoop& loop);

}  // namespace quillmere::testing

#endif
