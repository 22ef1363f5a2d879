#include <quillmere/platform/xml/HWXMLElement.h>

#include <algorithm>
#include <iterator>
#include <pugixml.hpp>

namespace quillmere {
namespace {

using std::string_view;

bool isNamed(string_view name, string_view localName) {
  return name.ends_with(localName) &&
         (name.size() == localName.size() || name[name.size() - localName.size() - 1] == ':');
}

pugi::xml_node firstNamed(pugi::xml_node parent, string_view localName) {
  if (localName.empty()) return {};  // the name of texts
  for (auto child = parent.first_child(); child; child = child.next_sibling()) {
    if (isNamed(child.name(), localName)) return child;
  }
  return {};
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

// Counted first: a listing has a great many.
template <class Condition>
std::vector<HWXMLElement> HWXMLElement::childElementsWhere(Condition condition) const {
  std::vector<HWXMLElement> elements;
  const auto all = pugi::xml_node(node_.get()).children();
  elements.reserve(static_cast<std::size_t>(std::count_if(all.begin(), all.end(), condition)));
  for (const pugi::xml_node node : all) {
    if (condition(node)) elements.push_back(HWXMLElement(Node(node_, node.internal_object())));
  }
  return elements;
}

std::vector<HWXMLElement> HWXMLElement::childElements() const {
  return childElementsWhere([](pugi::xml_node node) { return node.type() == pugi::node_element; });
}

std::vector<HWXMLElement> HWXMLElement::childElementsNamed(string_view localName) const {
  return childElementsWhere([localName](pugi::xml_node node) {
    return node.type() == pugi::node_element && isNamed(node.name(), localName);
  });
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
