#ifndef QUILLMERE_PLATFORM_XML_HWXMLELEMENT_H
#define QUILLMERE_PLATFORM_XML_HWXMLELEMENT_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace pugi {
struct xml_node_struct;
}

namespace quillmere {

class HWXMLElement;

/// A child of an element: an element, or text.
using HWXMLNode = std::variant<HWXMLElement, std::string_view>;

/// An element of an `HWXMLDocument`: a small handle that keeps the whole document alive. Names and
/// text are good as long as the document or any element of it lives. Threads may share a document
/// that nobody writes on.
///
/// The children are elements and texts. One text is what stands between two tags, in one piece even
/// where CDATA sections, comments or processing instructions divide it; these are no children of
/// their own. Text of white space alone, as between the tags of an indented document, is none
/// either. The text of an element that holds nothing else is thus its last child.
class QUILLMERE_EXPORT HWXMLElement {
 public:
  /// The name without namespace prefix.
  std::string_view name() const;

  /// All children, in document order.
  std::vector<HWXMLNode> children() const;
  /// Those that are elements, and of these those of a name (without prefix).
  std::vector<HWXMLElement> childElements() const;
  std::vector<HWXMLElement> childElementsNamed(std::string_view localName) const;
  /// Takes time in proportion to the count.
  std::size_t childrenCount() const;
  /// Null past the end. Takes time in proportion to `index`: a loop is better over `children()`.
  std::optional<HWXMLNode> childAtIndex(std::size_t index) const;
  /// Null when there is no child.
  std::optional<HWXMLNode> lastChild() const;

  /// The last child where that is text; null when it is an element and when there is none. Line
  /// ends are those that were sent.
  std::optional<std::string_view> text() const;

  /// The same as bytes that keep the whole document alive, where text stays good no longer than
  /// that does.
  std::optional<NSData> textData() const;

  /// The first child element of that name (without prefix), null when there is none.
  std::optional<HWXMLElement> firstChildNamed(std::string_view localName) const;
  /// The element that names between slashes lead to, as in "propstat/prop/getetag": of each name
  /// the first child, and no other is tried when the way ends there. Null when it ends early.
  std::optional<HWXMLElement> firstChildAtPath(std::string_view path) const;

  /// The value of an attribute, null when there is none. `name` is the whole name with its prefix:
  /// without one it is that of an attribute without namespace.
  std::optional<std::string_view> attributeNamed(std::string_view name) const;

 private:
  friend class HWXMLDocument;
  using Node = std::shared_ptr<pugi::xml_node_struct>;

  explicit HWXMLElement(Node node) : node_(std::move(node)) {}
  HWXMLNode child(pugi::xml_node_struct* node) const;
  template <class Condition>
  std::vector<HWXMLElement> childElementsWhere(Condition condition) const;

  Node node_;  // owns the document
};

}  // namespace quillmere

#endif
