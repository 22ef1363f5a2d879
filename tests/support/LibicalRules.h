#ifndef QUILLMERE_TESTS_SUPPORT_LIBICALRULES_H
#define QUILLMERE_TESTS_SUPPORT_LIBICALRULES_H

#include <cstdint>
#include <string>

namespace quillmere::testing {

/// Expands a random rule and start, of the kind in which RFC 5545 and this library agree, here and
/// with libical, 50 occurrences far. Empty when both give the same, else what differs.
std::string differenceFromLibical(std::uint64_t seed);

}  // namespace quillmere::testing

#endif
