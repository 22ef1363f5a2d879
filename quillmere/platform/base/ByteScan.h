#ifndef QUILLMERE_PLATFORM_BASE_BYTESCAN_H
#define QUILLMERE_PLATFORM_BASE_BYTESCAN_H

#include <bit>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// Internal. Scans of the kind of memchr that memchr itself does not offer. Inline, because a
// content line's key and parameters are so short that a call would cost as much as the scan.
namespace quillmere {
namespace scan {

inline constexpr std::uint64_t everyByte = 0x0101010101010101;
inline constexpr std::uint64_t highBits = 0x8080808080808080;

// A block of bytes, and the marks that tell which of them are of interest. The lowest set bit of
// `bits()` marks the first such byte, at byte `bit / bitsPerByte`.

struct WordMarks {
  std::uint64_t marks;
  friend WordMarks operator|(WordMarks a, WordMarks b) { return {a.marks | b.marks}; }
  std::uint64_t bits() const { return marks; }
};
struct Word {
  static constexpr int width = 8;
  static constexpr int bitsPerByte = 8;
  std::uint64_t bytes;

  static Word load(const char* from) {
    Word word{};
    std::memcpy(&word.bytes, from, width);
    if constexpr (std::endian::native == std::endian::big) {
      word.bytes = __builtin_bswap64(word.bytes);
    }
    return word;
  }
  void store(char* to) const {
    const std::uint64_t native =
        std::endian::native == std::endian::big ? __builtin_bswap64(bytes) : bytes;
    std::memcpy(to, &native, width);
  }
  // Of the marks only the lowest is exact: the borrow can raise false ones above it, never below.
  WordMarks equal(char byte) const {
    const std::uint64_t difference = bytes ^ (everyByte * static_cast<unsigned char>(byte));
    return {(difference - everyByte) & ~difference & highBits};
  }
  WordMarks nonASCII() const { return {bytes & highBits}; }
  // Bytes below `byte`, an ASCII character, and all that are not ASCII.
  WordMarks belowOrNonASCII(char byte) const {
    return {((bytes - everyByte * static_cast<unsigned char>(byte)) | bytes) & highBits};
  }
};

#if defined(__SSE2__)
struct VectorMarks {
  __m128i marks;
  friend VectorMarks operator|(VectorMarks a, VectorMarks b) {
    return {_mm_or_si128(a.marks, b.marks)};
  }
  std::uint64_t bits() const { return static_cast<unsigned>(_mm_movemask_epi8(marks)); }
};
struct Vector {
  static constexpr int width = 16;
  static constexpr int bitsPerByte = 1;
  __m128i bytes;

  static Vector load(const char* from) {
    return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(from))};
  }
  void store(char* to) const { _mm_storeu_si128(reinterpret_cast<__m128i*>(to), bytes); }
  VectorMarks equal(char byte) const { return {_mm_cmpeq_epi8(bytes, _mm_set1_epi8(byte))}; }
  VectorMarks nonASCII() const { return {bytes}; }
  // As signed numbers, bytes that are not ASCII are below every other.
  VectorMarks belowOrNonASCII(char byte) const {
    return {_mm_cmplt_epi8(bytes, _mm_set1_epi8(byte))};
  }
};
using Block = Vector;
#else
using Block = Word;
#endif

/// The first byte in [from, end) that `marks` (of a block) or `matches` (of one byte) tells of;
/// `end` when there is none. Reads no byte at or past `end`.
template <class BlockType, class Marks, class Matches>
const char* find(const char* from, const char* end, Marks marks, Matches matches) {
  for (; end - from >= BlockType::width; from += BlockType::width) {
    if (const std::uint64_t found = marks(BlockType::load(from)).bits()) {
      return from + std::countr_zero(found) / BlockType::bitsPerByte;
    }
  }
  while (from != end && !matches(*from)) ++from;
  return from;
}

/// Whether `marks` tells of any byte in [from, end). Short runs and the last bytes of long ones
/// take no loop over bytes: two blocks that overlap cover them.
template <class Marks>
bool any(const char* from, const char* end, Marks marks) {
  const auto length = end - from;
  if (length >= Block::width) {
    for (; end - from > Block::width; from += Block::width) {
      if (marks(Block::load(from)).bits()) return true;
    }
    return marks(Block::load(end - Block::width)).bits() != 0;
  }
  if (length >= Word::width) {
    return (marks(Word::load(from)) | marks(Word::load(end - Word::width))).bits() != 0;
  }
  // Put together in a register: bytes stored one by one and loaded as a word would wait.
  std::uint64_t word = 0;
  if (length >= 4) {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    std::memcpy(&first, from, 4);
    std::memcpy(&last, end - 4, 4);
    word = first | std::uint64_t{last} << 32;
  } else if (length > 0) {
    for (const char byte : {from[0], from[length / 2], end[-1]}) {
      word = word << 8 | static_cast<unsigned char>(byte);
    }
    word |= word << 24 | word << 48;  // the same bytes again, so that no other is looked at
  } else {
    return false;
  }
  return marks(Word{word}).bits() != 0;
}

template <class BlockType>
const char* findEither(const char* from, const char* end, char a, char b) {
  return find<BlockType>(
      from, end, [=](BlockType block) { return block.equal(a) | block.equal(b); },
      [=](char byte) { return byte == a || byte == b; });
}

template <class BlockType>
const char* findNonASCII(const char* from, const char* end) {
  return find<BlockType>(
      from, end, [](BlockType block) { return block.nonASCII(); },
      [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; });
}

}  // namespace scan

/// The first `a` or `b` in [from, end), else `end`.
inline const char* findEither(const char* from, const char* end, char a, char b) {
  return scan::findEither<scan::Block>(from, end, a, b);
}

/// The first `byte` in [from, end), else `end`.
inline const char* findByte(const char* from, const char* end, char byte) {
  if (from == end) return end;
  const void* found = std::memchr(from, byte, static_cast<std::size_t>(end - from));
  return found ? static_cast<const char*>(found) : end;
}

/// The first byte above 127 in [from, end), else `end`.
inline const char* findNonASCII(const char* from, const char* end) {
  return scan::findNonASCII<scan::Block>(from, end);
}

}  // namespace quillmere

#endif
