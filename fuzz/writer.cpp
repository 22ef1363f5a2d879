// Any bytes as a value: what is written reads back, and no physical line grows beyond its limit.

#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/ical/KBTMutableCalObject.h>
#include <quillmere/platform/base/UTF8.h>

#include "fuzz/Fuzzing.h"

namespace quillmere {
namespace {

using fuzzing::require;

// 70 units of at most three bytes each, " " and CR LF.
constexpr std::size_t longestPhysicalLine = 70 * 3 + 3;

std::string escaped(std::string_view value) {
  std::string text;
  for (const char byte : value) {
    switch (byte) {
      case '\n':
        text += "\\n";
        break;
      case '\r':
        text += "\\r";
        break;
      case '\t':
        text += "\\t";
        break;
      case '\\':
      case ',':
      case ';':
        text += '\\';
        [[fallthrough]];
      default:
        text += byte;
    }
  }
  return text;
}

void check(std::string_view value) {
  const auto writer =
      KBTMutableCalObject::initWithObjectType_includeCalendarDeclaration("VEVENT", true);
  writer->appendKey_stringValue("SUMMARY", std::string(value));
  const NSData document = writer->icsData();

  std::string unfolded;
  for (std::string_view rest = document.view(); !rest.empty();) {
    const std::size_t end = rest.find("\r\n");
    require(end != std::string_view::npos && end + 2 <= longestPhysicalLine, "lines are short");
    const bool continues = rest.starts_with(' ');
    if (!continues) unfolded += '\n';
    unfolded += rest.substr(continues ? 1 : 0, end - (continues ? 1 : 0));
    rest.remove_prefix(end + 2);
  }
  require(unfolded.find("\nSUMMARY:" + escaped(value) + "\nEND:") != std::string::npos,
          "every byte is written");

  const auto reader = KBTCalObject::initWithData(document);
  while (reader->nextLine() && reader->key() != "SUMMARY") {
  }
  const auto read = reader->value();
  require(read.has_value() == isValidUTF8(value), "a value is null when it is not UTF-8");
  require(!read || *read == value, "a value reads back");
  require(reader->nextLine() && reader->key() == "END" && reader->value() == "VEVENT",
          "the value ends where it should");
}

}  // namespace
}  // namespace quillmere

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  quillmere::check(quillmere::fuzzing::viewOf(bytes, count));
  return 0;
}
