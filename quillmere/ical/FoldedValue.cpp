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

// The first byte that is not written as one unit by itself: one that is escaped, or not ASCII.
const char* findSpecial(const char* from, const char* end) {
  return scan::find<scan::Block>(
      from, end,
      [](scan::Block block) {
        return block.equal('\\') | block.equal('\n') | block.equal('\r') | block.equal('\t') |
               block.equal(',') | block.equal(';') | block.nonASCII();
      },
      [](char byte) {
        return escapeLetter(byte) != 0 || static_cast<unsigned char>(byte) >= 0x80;
      });
}

// The length of the well-formed UTF-8 sequence at `from`, or 1 when there is none.
std::size_t characterLength(const char* from, const char* end) {
  // A lead byte has as many one bits in front as its sequence has bytes.
  const int length = std::countl_one(static_cast<unsigned char>(*from));
  const bool isLead = length >= 2 && length <= 4 && length <= end - from;
  return isLead && utf8::is_valid(from, from + length) ? static_cast<std::size_t>(length) : 1;
}

class Folder {
 public:
  explicit Folder(std::string& text) : text_(text) {}

  // One UTF-16 unit: a whole character, or a part of one that may be cut off from the rest.
  void appendUnit(const char* bytes, std::size_t length) {
    makeRoom();
    text_.append(bytes, length);
    --room_;
  }

  // Bytes of one unit each.
  void appendRun(const char* from, const char* end) {
    while (from != end) {
      makeRoom();
      const std::size_t taken = std::min(room_, static_cast<std::size_t>(end - from));
      text_.append(from, taken);
      room_ -= taken;
      from += taken;
    }
  }

 private:
  // A fold is written when something follows it, so a value never ends in an empty piece.
  void makeRoom() {
    if (room_ != 0) return;
    text_.append(fold);
    room_ = nextPieceLength;
  }

  std::string& text_;
  std::size_t room_ = firstPieceLength;
};

}  // namespace

void appendEscapedAndFolded(std::string& text, string_view value) {
  Folder folder(text);
  const char* from = value.data();
  const char* const end = from + value.size();
  for (;;) {
    const char* const special = findSpecial(from, end);
    folder.appendRun(from, special);
    if (special == end) return;
    if (const char letter = escapeLetter(*special)) {
      const char escaped[] = {'\\', letter};
      folder.appendRun(escaped, escaped + 2);
      from = special + 1;
      continue;
    }
    const std::size_t length = characterLength(special, end);
    if (length == 4) {
      // A surrogate pair in UTF-16. Where it is cut, its bytes are cut two and two.
      folder.appendUnit(special, 2);
      folder.appendUnit(special + 2, 2);
    } else {
      folder.appendUnit(special, length);
    }
    from = special + length;
  }
}

}  // namespace quillmere
