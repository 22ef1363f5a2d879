#include <quillmere/platform/xml/HWXMLElement.h>

#include <iterator>
#include <pugixml.hpp>

namespace quillmere {
namespace {

using std::string_view;

bool isNamed(string_view name, string_view localName) {
  return name.ends_with(localName) &&
         (name.size() == localName.size() || name[name.size() - localName.size() - 1] == ':');
}

// Of this node and its later siblings.
pugi::xml_node firstNamedFrom(pugi::xml_node node, string_view localName) {
  if (localName.empty()) return {};  // the name of texts
  while (node && !isNamed(node.name(), localName)) node = node.next_sibling();
  return node;
}

pugi::xml_node firstNamed(pugi::xml_node parent, string_view localName) {
  return firstNamedFrom(parent.first_child(), localName);
}

}  // namespace

HWXMLNode HWXMLElement::child(pugi::xml_node_struct* node) const {
  const pugi::xml_node child(node);
  if (child.type() == pugi::node_element) return HWXMLElement(Node(node_, node));
  return string_view(child.value());
}

string_view HWXMLElement::name() const {
  const string_view name = pugi::xml_node(node_.get()).name();
  return name.substr(name.rfind(':') + 1);  // the whole name where there is no colon
}

std::vector<HWXMLNode> HWXMLElement::children() const {
  std::vector<HWXMLNode> all;
  for (auto node = pugi::xml_node(node_.get()).first_child(); node; node = node.next_sibling()) {
    all.push_back(child(node.internal_object()));
  }
  return all;
}

std::size_t HWXMLElement::childrenCount() const {
  const auto all = pugi::xml_node(node_.get()).children();
  return static_cast<std::size_t>(std::distance(all.begin(), all.end()));
}

std::optional<HWXMLNode> HWXMLElement::childAtIndex(std::size_t index) const {
  pugi::xml_node node = pugi::xml_node(node_.get()).first_child();
  while (node && index-- > 0) node = node.next_sibling();
  if (!node) return std::nullopt;
  return child(node.internal_object());
}

std::optional<HWXMLNode> HWXMLElement::lastChild() const {
  const pugi::xml_node last = pugi::xml_node(node_.get()).last_child();
  if (!last) return std::nullopt;
  return child(last.internal_object());
}

std::optional<string_view> HWXMLElement::text() const {
  const pugi::xml_node last = pugi::xml_node(node_.get()).last_child();
  if (!last || last.type() == pugi::node_element) return std::nullopt;
  return last.value();
}

std::optional<NSData> HWXMLElement::textData() const {
  const auto bytes = text();
  if (!bytes) return std::nullopt;
  return NSData::dataWithBytesOf(node_, *bytes);
}

std::optional<HWXMLElement> HWXMLElement::firstChildNamed(string_view name) const {
  const pugi::xml_node found = firstNamed(pugi::xml_node(node_.get()), name);
  if (!found) return std::nullopt;
  return HWXMLElement(Node(node_, found.internal_object()));
}

std::optional<HWXMLElement> HWXMLElement::nextSiblingNamed(string_view name) const {
  const pugi::xml_node found = firstNamedFrom(pugi::xml_node(node_.get()).next_sibling(), name);
  if (!found) return std::nullopt;
  return HWXMLElement(Node(node_, found.internal_object()));
}

std::optional<HWXMLElement> HWXMLElement::firstChildAtPath(string_view path) const {
  pugi::xml_node found(node_.get());
  for (;;) {
    const std::size_t slash = path.find('/');
    found = firstNamed(found, path.substr(0, slash));
    if (!found) return std::nullopt;
    if (slash == string_view::npos) return HWXMLElement(Node(node_, found.internal_object()));
    path.remove_prefix(slash + 1);
  }
}

std::optional<string_view> HWXMLElement::attributeNamed(string_view name) const {
  for (const pugi::xml_attribute attribute : pugi::xml_node(node_.get()).attributes()) {
    if (attribute.name() == name) return attribute.value();
  }
  return std::nullopt;
}

}  // namespace quillmere
