// Escaping and folding in one pass over the value. The result is that of six replacements, one
// after the other with the backslash first, and then cutting the escaped text into pieces.

#include <quillmere/ical/FoldedValue.h>
#include <quillmere/platform/base/ByteScan.h>
#include <utf8.h>

#include <algorithm>
#include <bit>

namespace quillmere {
namespace {

using std::string_view;

// In UTF-16 units of the escaped value.
constexpr std::size_t firstPieceLength = 60;
constexpr std::size_t nextPieceLength = 70;

constexpr string_view fold = "\r\n ";

// What stands for a byte after the "\", or 0 for a byte that is not escaped.
constexpr char escapeLetter(char byte) {
  switch (byte) {
    case '\\':
    case ',':
    case ';':
      return byte;
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return 0;
  }
}

// Marks what is not written as one unit by itself: what is escaped, or not ASCII.
template <class BlockType>
auto specials(BlockType block) {
  return block.equal('\\') | block.equal('\n') | block.equal('\r') | block.equal('\t') |
         block.equal(',') | block.equal(';') | block.nonASCII();
}

bool isSpecial(char byte) {
  return escapeLetter(byte) != 0 || static_cast<unsigned char>(byte) >= 0x80;
}

// The length of the well-formed UTF-8 sequence at `from`, or 1 when there is none.
std::size_t characterLength(const char* from, const char* end) {
  // A lead byte has as many one bits in front as its sequence has bytes.
  const int length = std::countl_one(static_cast<unsigned char>(*from));
  const bool isLead = length >= 2 && length <= 4 && length <= end - from;
  return isLead && utf8::is_valid(from, from + length) ? static_cast<std::size_t>(length) : 1;
}

// Writes into a buffer of its own, so that the text grows by long pieces.
class Folder {
 public:
  explicit Folder(std::string& text) : text_(text) {}
  ~Folder() { flush(); }

  // One UTF-16 unit: a whole character, or a part of one that may be cut off from the rest.
  void appendUnit(const char* bytes, std::size_t length) {
    makeRoom();
    std::memcpy(to_, bytes, length);
    advance(length, 1);
  }

  // Bytes in front of [from, end) that are one unit each, as far as a block and the line go; the
  // number taken.
  std::size_t appendPlain(const char* from, const char* end) {
    makeRoom();
    if (end - from < scan::Block::width) {
      if (isSpecial(*from)) return 0;
      *to_ = *from;
      return advance(1, 1);
    }
    std::memcpy(to_, from, scan::Block::width);
    const std::uint64_t found = specials(scan::Block::load(from)).bits();
    const std::size_t plain =
        found ? static_cast<std::size_t>(std::countr_zero(found) / scan::Block::bitsPerByte)
              : scan::Block::width;
    const std::size_t taken = std::min(plain, room_);
    return advance(taken, taken);
  }

 private:
  // A fold is written when something follows it, so a value never ends in an empty piece.
  void makeRoom() {
    if (std::end(buffer_) - to_ < 32) flush();
    if (room_ != 0) return;
    std::memcpy(to_, fold.data(), fold.size());
    to_ += fold.size();
    room_ = nextPieceLength;
  }

  std::size_t advance(std::size_t bytes, std::size_t units) {
    to_ += bytes;
    room_ -= units;
    return bytes;
  }

  void flush() {
    text_.append(buffer_, to_);
    to_ = buffer_;
  }

  std::string& text_;
  std::size_t room_ = firstPieceLength;
  char buffer_[1024];
  char* to_ = buffer_;
};

}  // namespace

void appendEscapedAndFolded(std::string& text, string_view value) {
  if (value.size() <= firstPieceLength && !scan::any(value.data(), value.data() + value.size(),
                                                     [](auto block) { return specials(block); })) {
    text.append(value);
    return;
  }
  Folder folder(text);
  const char* from = value.data();
  const char* const end = from + value.size();
  while (from != end) {
    if (const std::size_t taken = folder.appendPlain(from, end)) {
      from += taken;
      continue;
    }
    if (const char letter = escapeLetter(*from)) {
      folder.appendUnit("\\", 1);
      folder.appendUnit(&letter, 1);
      ++from;
      continue;
    }
    const std::size_t length = characterLength(from, end);
    if (length == 4) {
      // A surrogate pair in UTF-16. Where it is cut, its bytes are cut two and two.
      folder.appendUnit(from, 2);
      folder.appendUnit(from + 2, 2);
    } else {
      folder.appendUnit(from, length);
    }
    from += length;
  }
}

}  // namespace quillmere
