#ifndef QUILLMERE_PLATFORM_XML_XMLTEXT_H
#define QUILLMERE_PLATFORM_XML_XMLTEXT_H

#include <optional>
#include <string>
#include <string_view>

// Internal. The characters of XML 1.0 and their escapes.
namespace quillmere {

/// True when `bytes` are UTF-8 and hold nothing but characters that XML 1.0 has (section 2.2): of
/// the control characters below U+0020 only tab, line feed and carriage return, and neither U+FFFE
/// nor U+FFFF.
bool isXMLText(std::string_view bytes);

/// `bytes` without what `isXMLText` refuses.
std::string xmlText(std::string_view bytes);

/// The bytes after a byte order mark of UTF-16, either way round, as UTF-8. Null when there is no
/// such mark, and when they are not UTF-16.
std::optional<std::string> textOfUTF16(std::string_view bytes);

/// Text between tags: escapes "&", "<", ">" and CR, which a reader would otherwise take for a line
/// feed.
void appendEscapedText(std::string& to, std::string_view text);

/// The value of an attribute, which double quotes enclose: escapes them too, and all white space
/// but blanks, for which a reader would otherwise take it.
void appendEscapedAttribute(std::string& to, std::string_view value);

/// Writes the text at the start of `raw`, which ends at the first NUL or at the end, to `to` with
/// its references replaced by their characters: the five named ones of XML 1.0 and those by number,
/// the only ones there are without a document type. Returns the end of what it wrote; null when an
/// "&" begins anything else. The place may be that of `raw` itself, or one before it.
char* writeUnescaped(char* to, std::string_view raw);

}  // namespace quillmere

#endif
