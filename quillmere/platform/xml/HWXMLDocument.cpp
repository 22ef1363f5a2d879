#include <quillmere/platform/base/LargePages.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/xml/HWXMLDocument.h>
#include <quillmere/platform/xml/XMLText.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <utility>
#include <vector>

namespace quillmere {
namespace {

using std::string_view;

bool isText(pugi::xml_node node) {
  const pugi::xml_node_type type = node.type();
  return type == pugi::node_pcdata || type == pugi::node_cdata;
}

bool isBlank(string_view text) { return text.find_first_not_of(" \t\r\n") == string_view::npos; }

// Finishes a tree whose values the parser left as they were sent, where they stand in `bytes`: what
// is finished never takes more room. pugixml walks without recursion, so that elements may be
// nested as deep as the sender likes.
class Finisher : private pugi::xml_tree_walker {
 public:
  explicit Finisher(string_view bytes) : end_(bytes.data() + bytes.size()) {}

  // False when a reference or an element's attributes are not well-formed.
  bool finish(pugi::xml_document& nodes) {
    const bool isFinished = nodes.traverse(*this);
    removeBlank();
    return isFinished;
  }

 private:
  bool for_each(pugi::xml_node& node) override {
    removeBlank();
    return isText(node) ? finishText(node) : finishAttributes(node);
  }

  void removeBlank() {
    if (!blank_) return;
    blank_->parent().remove_child(*blank_);
    blank_.reset();
  }

  // Joins the pieces of a text and replaces the references in them.
  bool finishText(pugi::xml_node text) {
    char* const start = inPlace(text.value());
    char* end = start;
    for (pugi::xml_node piece = text; isText(piece);) {
      if (piece.type() == pugi::node_cdata) {
        const string_view value = piece.value();
        std::memmove(end, value.data(), value.size());
        end += value.size();
      } else {
        end = unescaped(piece.value(), end);
        if (!end) return false;
      }
      const pugi::xml_node done = std::exchange(piece, piece.next_sibling());
      if (done != text) done.parent().remove_child(done);
    }
    *end = '\0';
    if (isBlank({start, static_cast<std::size_t>(end - start)})) blank_ = text;
    return true;
  }

  bool finishAttributes(pugi::xml_node element) {
    names_.clear();
    for (auto attribute = element.first_attribute(); attribute;
         attribute = attribute.next_attribute()) {
      names_.emplace_back(attribute.name());
      const string_view value = attribute.value();
      if (value.find('<') != string_view::npos) return false;
      if (value.find('&') == string_view::npos) continue;
      char* const end = unescaped(value.data(), inPlace(value.data()));
      if (!end) return false;
      *end = '\0';
    }
    std::sort(names_.begin(), names_.end());
    return std::adjacent_find(names_.begin(), names_.end()) == names_.end();
  }

  // Replaces the references in a value and moves it to `to`, which is where it stands or before.
  // Returns its new end, where no NUL was written yet; null when a reference is not well-formed.
  char* unescaped(const char* value, char* to) const {
    return writeUnescaped(to, {value, static_cast<std::size_t>(end_ - value)});
  }

  static char* inPlace(const char* value) { return const_cast<char*>(value); }

  const char* end_;                      // of all values
  std::optional<pugi::xml_node> blank_;  // a text that goes as soon as the walk has left it
  std::vector<string_view> names_;       // of one element's attributes
};

// Whether nothing but white space stands around one root element and what may come before it.
bool isDocument(const pugi::xml_document& nodes) {
  bool hasType = false;
  bool hasRoot = false;
  for (const pugi::xml_node node : nodes.children()) {
    switch (node.type()) {
      case pugi::node_declaration:
        if (node != nodes.first_child()) return false;
        break;
      case pugi::node_doctype:
        // An internal subset could define entities and default attributes: without them the content
        // would be another.
        if (hasType || hasRoot || string_view(node.value()).find('[') != string_view::npos) {
          return false;
        }
        hasType = true;
        break;
      case pugi::node_element:
        if (hasRoot) return false;
        hasRoot = true;
        break;
      default:
        if (node.type() != pugi::node_pcdata || !isBlank(node.value())) return false;
    }
  }
  return hasRoot;
}

// A text, or an element's tag: the start tag where it has children.
void appendStart(std::string& to, pugi::xml_node node) {
  if (isText(node)) {
    appendEscapedText(to, node.value());
    return;
  }
  to.append("<").append(node.name());
  for (const pugi::xml_attribute attribute : node.attributes()) {
    to.append(" ").append(attribute.name()).append("=\"");
    appendEscapedAttribute(to, attribute.value());
    to += '"';
  }
  to += node.first_child() ? ">" : "/>";
}

}  // namespace

struct HWXMLDocument::Tree {
  std::string bytes;  // of a document that was read; its names and values stand in them
  pugi::xml_document nodes;

  // Makes nodes of the bytes. False when they are not well-formed.
  bool parse();
};

bool HWXMLDocument::Tree::parse() {
  // An open tag at the very end is one to pugixml only when no white space stands before it.
  if (!isXMLText(bytes) || bytes.ends_with('<')) return false;
  // As a fragment, so that what stands around the root element is not skipped unseen; and with
  // white space, which between two CDATA sections is part of a text.
  constexpr unsigned options = pugi::parse_fragment | pugi::parse_declaration |
                               pugi::parse_doctype | pugi::parse_cdata | pugi::parse_ws_pcdata |
                               pugi::parse_wconv_attribute;
  const auto parsed =
      nodes.load_buffer_inplace(bytes.data(), bytes.size() + 1, options, pugi::encoding_utf8);
  return parsed && isDocument(nodes) && Finisher(bytes).finish(nodes);
}

HWXMLDocument::HWXMLDocument(std::shared_ptr<Tree> tree)
    : tree_(std::move(tree)), current_(tree_->nodes.document_element().internal_object()) {}

std::shared_ptr<HWXMLDocument> HWXMLDocument::initWithRootElementNamed(string_view name) {
  auto tree = std::make_shared<Tree>();
  tree->nodes.append_child(std::string(name).c_str());
  return makeObject<HWXMLDocument>(std::move(tree));
}

std::shared_ptr<HWXMLDocument> HWXMLDocument::initWithData(const NSData& data) {
  std::string bytes;
  bytes.reserve(data.length());
  preferLargePages(bytes.data(), data.length());
  bytes = data.view();
  return initWithBytes(std::move(bytes));
}

std::shared_ptr<HWXMLDocument> HWXMLDocument::initWithBytes(std::string bytes) {
  auto tree = std::make_shared<Tree>();
  auto text = textOfUTF16(bytes);
  tree->bytes = text ? std::move(*text) : std::move(bytes);
  if (!tree->parse()) return nullptr;
  return makeObject<HWXMLDocument>(std::move(tree));
}

std::uint64_t HWXMLDocument::memoryToRead(string_view bytes) {
  constexpr std::uint64_t perNode = 64;
  constexpr std::uint64_t perAttribute = 72;
  std::uint64_t nodes = 0;
  for (std::size_t at = bytes.find('<'); at != string_view::npos; at = bytes.find('<', at + 1)) {
    const char next = at + 1 < bytes.size() ? bytes[at + 1] : '\0';
    const bool isNode = next != '/' && next != '?';
    const bool followsText = at > 0 && bytes[at - 1] != '>';
    nodes += (isNode ? 1U : 0U) + (followsText ? 1U : 0U);
  }
  const auto attributes = static_cast<std::uint64_t>(std::count(bytes.begin(), bytes.end(), '='));
  return bytes.size() + perNode * nodes + perAttribute * attributes;
}

HWXMLElement HWXMLDocument::rootElement() const {
  return HWXMLElement({tree_, tree_->nodes.document_element().internal_object()});
}

void HWXMLDocument::setAttribute_value(string_view name, string_view value) {
  pugi::xml_node element(current_);
  const std::string text(name);
  pugi::xml_attribute attribute = element.attribute(text.c_str());
  if (!attribute) attribute = element.append_attribute(text.c_str());
  attribute.set_value(xmlText(value).c_str());
}

void HWXMLDocument::pushElement(string_view name) {
  current_ = pugi::xml_node(current_).append_child(std::string(name).c_str()).internal_object();
}

void HWXMLDocument::popElement() {
  const pugi::xml_node element(current_);
  if (element != tree_->nodes.document_element()) current_ = element.parent().internal_object();
}

void HWXMLDocument::appendString(string_view text) {
  const std::string kept = xmlText(text);
  if (!kept.empty()) {
    pugi::xml_node(current_).append_child(pugi::node_pcdata).set_value(kept.c_str());
  }
}

NSData HWXMLDocument::xmlData() const {
  // pugixml could write too, but it leaves CR in text bare, which a reader takes for a line feed.
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
  const pugi::xml_node root = tree_->nodes.document_element();
  for (pugi::xml_node node = root;;) {
    appendStart(text, node);
    if (const pugi::xml_node child = node.first_child()) {
      node = child;
      continue;
    }
    while (node != root && !node.next_sibling()) {
      node = node.parent();
      text.append("</").append(node.name()).append(">");
    }
    if (node == root) return NSData::dataWithString(std::move(text));
    node = node.next_sibling();
  }
}

}  // namespace quillmere
