#include <quillmere/caldav/DavXML.h>

#include <cstddef>

namespace quillmere {

std::optional<HWXMLElement> rootOf(KBTDavRequest& request) {
  const auto document = HWXMLDocument::initWithBytes(request.takeData());
  if (!document) return std::nullopt;
  return document->rootElement();
}

std::optional<std::string_view> textAt(const HWXMLElement& element, std::string_view path) {
  const auto found = element.firstChildAtPath(path);
  return found ? found->text() : std::nullopt;
}

std::optional<std::string_view> hrefAt(const HWXMLElement& element, std::string_view path) {
  const auto found = element.firstChildAtPath(path);
  return found ? hrefOf(*found) : std::nullopt;
}

std::optional<std::string_view> hrefOf(const HWXMLElement& element) {
  constexpr std::string_view blanks = " \t\r\n";
  const auto text = element.text();
  if (!text) return std::nullopt;
  const std::size_t first = text->find_first_not_of(blanks);
  if (first == std::string_view::npos) return std::nullopt;
  return text->substr(first, text->find_last_not_of(blanks) - first + 1);
}

}  // namespace quillmere
