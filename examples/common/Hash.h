#ifndef EXAMPLES_COMMON_HASH_H
#define EXAMPLES_COMMON_HASH_H

#include <cstdint>
#include <string_view>

namespace examples {

/// The 64-bit FNV-1a hash.
constexpr std::uint64_t hashOf(std::string_view bytes) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char byte : bytes) {
    hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
  }
  return hash;
}

}  // namespace examples

#endif
