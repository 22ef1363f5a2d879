#include <quillmere/caldav/DavXML.h>

#include <variant>

namespace quillmere {

std::optional<HWXMLElement> rootOf(const KBTDavRequest& request) {
  const auto document = HWXMLDocument::initWithData(request.data());
  if (!document) return std::nullopt;
  return document->rootElement();
}

std::optional<std::string_view> textAt(const HWXMLElement& element, std::string_view path) {
  const auto found = element.firstChildAtPath(path);
  return found ? found->text() : std::nullopt;
}

std::vector<HWXMLElement> childElementsOf(const HWXMLElement& element) {
  std::vector<HWXMLElement> elements;
  for (const HWXMLNode& child : element.children()) {
    if (const auto* childElement = std::get_if<HWXMLElement>(&child)) {
      elements.push_back(*childElement);
    }
  }
  return elements;
}

std::vector<HWXMLElement> childElementsOf(const HWXMLElement& element, std::string_view localName) {
  auto elements = childElementsOf(element);
  std::erase_if(elements, [&](const HWXMLElement& child) { return child.name() != localName; });
  return elements;
}

}  // namespace quillmere
