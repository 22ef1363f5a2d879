#ifndef QUILLMERE_TESTS_INTEROP_RUNNINGSERVER_H
#define QUILLMERE_TESTS_INTEROP_RUNNINGSERVER_H

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace quillmere::testing {

/// What `servers.py` tells of the server that it started.
inline std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  if (!value) throw std::runtime_error(std::string("run this by servers.py: no ") + name);
  return value;
}

/// The row of a table that is about that server.
template <class Rows>
const auto& rowOfServer(const Rows& rows) {
  const std::string name = environment("QUILLMERE_INTEROP_SERVER");
  for (const auto& row : rows) {
    if (name == row.server) return row;
  }
  throw std::runtime_error("nothing is known of " + name);
}

}  // namespace quillmere::testing

#endif
