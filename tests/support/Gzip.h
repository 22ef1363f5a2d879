#ifndef QUILLMERE_TESTS_SUPPORT_GZIP_H
#define QUILLMERE_TESTS_SUPPORT_GZIP_H

#include <cstddef>
#include <string>
#include <string_view>

namespace quillmere::testing {

/// The gzip file of `bytes`, `times` over: of a gigabyte of nothing within a few megabytes.
std::string gzipOf(std::string_view bytes, std::size_t times = 1);

/// The same in zlib's envelope: two bytes before and four after.
std::string zlibOf(std::string_view bytes);

/// Bytes that cannot be compressed, the same ones each time.
std::string noiseOf(std::size_t count);

}  // namespace quillmere::testing

#endif
