// Escaping and folding in one pass over the value. The result is that of six replacements, one
// after the other with the backslash first, and then cutting the escaped text into pieces.

#include <quillmere/ical/FoldedLine.h>
#include <quillmere/platform/base/ByteScan.h>
#include <utf8.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace quillmere {
namespace {

using std::string_view;

// In UTF-16 units of the escaped value.
constexpr std::size_t firstPieceLength = 60;
constexpr std::size_t nextPieceLength = 70;

constexpr string_view lineEnd = "\r\n";
constexpr string_view fold = "\r\n ";

// The two characters that a byte is written as, or null for a byte that is not escaped.
constexpr const char* escapeOf(char byte) {
  switch (byte) {
    case '\\':
      return "\\\\";
    case ',':
      return "\\,";
    case ';':
      return "\\;";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return nullptr;
  }
}

constexpr char firstPrintable = ' ';

// Marks every byte that may need more than being copied as one unit: those that are escaped, all
// control characters (three of which are), and all that is not ASCII.
template <class BlockType>
auto specials(BlockType block) {
  return block.equal('\\') | block.equal(',') | block.equal(';') |
         block.belowOrNonASCII(firstPrintable);
}

// How one character is written: as one UTF-16 unit, or as two that a fold may part.
struct WrittenCharacter {
  const char* first;
  std::size_t firstLength;
  const char* second;
  std::size_t secondLength;  // 0: one unit
  std::size_t taken;         // bytes of the value
};

// A byte that is not UTF-8 is one unit.
WrittenCharacter characterAt(const char* from, const char* end) {
  if (const char* const escape = escapeOf(*from)) return {escape, 1, escape + 1, 1, 1};
  // A lead byte has as many one bits in front as its sequence has bytes; an ASCII character has
  // none.
  const int length = std::countl_one(static_cast<unsigned char>(*from));
  const bool isLead = length >= 2 && length <= 4 && length <= end - from;
  if (!isLead || !utf8::is_valid(from, from + length)) return {from, 1, from, 0, 1};
  // Four bytes are a surrogate pair in UTF-16. Where it is cut, they are cut two and two.
  if (length == 4) return {from, 2, from + 2, 2, 4};
  return {from, static_cast<std::size_t>(length), from, 0, static_cast<std::size_t>(length)};
}

// The next block, filled up with zeroes, which count as special, where the value ends.
scan::Block blockAt(const char* from, const char* end) {
  const auto available = static_cast<std::size_t>(end - from);
  if (available >= scan::Block::width) return scan::Block::load(from);
  char padded[scan::Block::width] = {};
  std::memcpy(padded, from, available);
  return scan::Block::load(padded);
}

}  // namespace

// The state is in local variables, which the compiler keeps in registers; as members of an object
// it would have to write them out at every byte stored.
void appendFoldedLine(std::string& text, string_view key, string_view value) {
  constexpr std::size_t bufferSize = 1024;
  constexpr std::size_t longestStep = 2 * fold.size() + scan::Block::width + 4 + lineEnd.size();
  char buffer[bufferSize];
  char* to = buffer;
  if (key.size() < bufferSize / 2) {
    std::memcpy(to, key.data(), key.size());
    to += key.size();
  } else {
    text.append(key);
  }
  *to++ = ':';

  const char* from = value.data();
  const char* end = from + value.size();
  const auto marks = [](auto block) { return specials(block); };
  if (value.size() <= firstPieceLength && !scan::any(from, end, marks)) {
    std::memcpy(to, from, value.size());
    to += value.size();
    end = from;
  }

  std::size_t room = firstPieceLength;
  // A fold is written when something follows it, so a value never ends in an empty piece.
  const auto makeRoom = [&to, &room] {
    if (room != 0) return;
    std::memcpy(to, fold.data(), fold.size());
    to += fold.size();
    room = nextPieceLength;
  };
  const auto appendUnit = [&](const char* bytes, std::size_t length) {
    makeRoom();
    for (std::size_t i = 0; i < length; ++i) *to++ = bytes[i];
    --room;
  };

  while (from != end) {
    if (static_cast<std::size_t>(std::end(buffer) - to) < longestStep) {
      text.append(buffer, to);
      to = buffer;
    }

    // What needs nothing but copying, up to the end of the block, the piece or the value.
    const scan::Block block = blockAt(from, end);
    const std::uint64_t special = specials(block).bits();
    const std::size_t plain =
        special ? static_cast<std::size_t>(std::countr_zero(special) / scan::Block::bitsPerByte)
                : scan::Block::width;
    if (plain != 0) {
      makeRoom();
      block.store(to);  // what is too much is written over
      const std::size_t taken = std::min(plain, room);
      to += taken;
      room -= taken;
      from += taken;
      if (taken != plain || !special || from == end) continue;
    }

    const WrittenCharacter character = characterAt(from, end);
    appendUnit(character.first, character.firstLength);
    if (character.secondLength != 0) appendUnit(character.second, character.secondLength);
    from += character.taken;
  }
  std::memcpy(to, lineEnd.data(), lineEnd.size());
  text.append(buffer, to + lineEnd.size());
}

}  // namespace quillmere
