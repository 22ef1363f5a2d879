#ifndef QUILLMERE_PLATFORM_XML_HWXMLDOCUMENT_H
#define QUILLMERE_PLATFORM_XML_HWXMLDOCUMENT_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/xml/HWXMLElement.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace quillmere {

/// An XML document (XML 1.0), written element by element or read from bytes.
///
///     auto body = HWXMLDocument::initWithRootElementNamed("propfind");
///     body->setAttribute_value("xmlns", "DAV:");
///     body->pushElement("prop");
///     body->pushElement("getetag");
///     send(body->xmlData());
///
///     if (const auto answer = HWXMLDocument::initWithData(bytes)) {
///       const auto prop = answer->rootElement().firstChildAtPath("response/propstat/prop");
///       if (prop) use(prop->firstChildNamed("getetag"));
///     }
///
/// Namespaces are attributes like any other when a document is written, and are not resolved when
/// one is read: elements are told by the part of their name after the prefix.
class QUILLMERE_EXPORT HWXMLDocument {
 public:
  /// A document of one empty element, which is the one that is written first. Names, of elements
  /// and attributes, have to be names in the sense of XML; they are written as they are given.
  static std::shared_ptr<HWXMLDocument> initWithRootElementNamed(std::string_view name);

  /// Reads a document. Null when it is not well-formed.
  ///
  /// - Bytes are UTF-8, or UTF-16 with a byte order mark; an encoding that the document declares is
  ///   not looked at. Bytes of neither and characters that XML does not have are refused.
  /// - Line ends in text are kept as they were sent, and references are replaced: the five named
  ///   ones and those by number. White space in an attribute's value becomes blanks.
  /// - A document type is taken only without internal subset, and nothing is fetched for it. So no
  ///   entity is ever defined; a document that uses one is refused.
  /// - Taken, although not well-formed, since nobody can take the content for another: slips within
  ///   comments, processing instructions and the XML declaration; "]]>" in text; any character
  ///   beyond ASCII in a name; prefixes that are not bound.
  ///
  /// Takes time in proportion to the length, whatever the bytes (many attributes of one element
  /// take the time of sorting them), and `memoryToRead` of memory.
  static std::shared_ptr<HWXMLDocument> initWithData(const NSData& data);
  /// The same without a copy.
  static std::shared_ptr<HWXMLDocument> initWithBytes(std::string bytes);

  /// How much memory, in bytes, the document made of `bytes` would take at most: the bytes, 64 more
  /// for each element and each piece of text, white space included, and 72 for each attribute. So
  /// one of nothing but short tags takes some twenty times its length. Counts markup and does not
  /// read it: bytes that are no XML have a number, too.
  static std::uint64_t memoryToRead(std::string_view bytes);

  HWXMLElement rootElement() const;

  // Writing. Of values and text, bytes that are not UTF-8 and characters that XML does not have
  // (most control characters) are left out; what has to be escaped is escaped when the document is
  // serialised. The element being written is at first the root, also in a document that was read.

  /// Sets an attribute of the element being written; one of that name is replaced, and what was
  /// read of its value is good no more.
  void setAttribute_value(std::string_view name, std::string_view value);

  /// Appends an element to the one being written, and from then on writes it.
  void pushElement(std::string_view name);

  /// Goes on with the element around the one being written. Does nothing at the root.
  void popElement();

  /// Appends text to the element being written. Each call makes a child of its own, until the
  /// document is serialised and read again.
  void appendString(std::string_view text);

  /// The document in UTF-8, with an XML declaration and without any white space of its own.
  /// Elements that were not popped end where the document ends.
  NSData xmlData() const;

 protected:
  struct Tree;
  explicit HWXMLDocument(std::shared_ptr<Tree> tree);

 private:
  std::shared_ptr<Tree> tree_;
  pugi::xml_node_struct* current_;  // the element being written
};

}  // namespace quillmere

#endif
