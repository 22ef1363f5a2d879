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

}  // namespace quillmere::testing

#endif
