// Any bytes as an XML document; and as text of one.

#include <quillmere/platform/base/UTF8.h>
#include <quillmere/platform/xml/HWXMLDocument.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "fuzz/Fuzzing.h"

namespace quillmere {
namespace {

using fuzzing::require;
using std::string_view;

void checkText(string_view text) {
  require(text.find_first_not_of(" \t\r\n") != string_view::npos, "no text is blank");
  require(isValidUTF8(text), "text is UTF-8");
}

// The ways to the children lead to the same ones.
void checkChildren(const HWXMLElement& element, const std::vector<HWXMLNode>& children) {
  require(element.childrenCount() == children.size(), "all children are counted");
  require(!element.childAtIndex(children.size()), "and none after them");
  require(element.lastChild().has_value() == !children.empty(), "there is a last child or none");
  for (std::size_t i = 0; i != children.size(); ++i) {
    require(i == 0 || children[i].index() == 0 || children[i - 1].index() == 0,
            "a text is in one piece");
    if (const auto* child = std::get_if<HWXMLElement>(&children[i])) {
      const auto first = element.firstChildNamed(child->name());
      require(first ? first->name() == child->name() : child->name().empty(),
              "an element is found by its name");
    } else {
      checkText(std::get<string_view>(children[i]));
      require(i + 1 != children.size() || element.text() == std::get<string_view>(children[i]),
              "a last text is the element's text");
    }
  }
}

void checkTree(const HWXMLElement& root) {
  std::vector<HWXMLElement> open = {root};  // not by recursion, which deep documents would exhaust
  while (!open.empty()) {
    const HWXMLElement element = std::move(open.back());
    open.pop_back();
    const auto children = element.children();
    checkChildren(element, children);
    for (const HWXMLNode& child : children) {
      if (const auto* inner = std::get_if<HWXMLElement>(&child)) open.push_back(*inner);
    }
  }
}

void checkReading(string_view bytes) {
  const auto document = HWXMLDocument::initWithData(NSData::dataWithBytes(bytes));
  if (!document) return;
  checkTree(document->rootElement());
  const NSData written = document->xmlData();
  const auto again = HWXMLDocument::initWithData(written);
  require(again != nullptr, "a written document reads back");
  require(again->xmlData() == written, "and is written the same way");
}

void checkWriting(string_view bytes) {
  const auto document = HWXMLDocument::initWithRootElementNamed("a");
  document->setAttribute_value("b", bytes);
  document->appendString("|");
  document->appendString(bytes);
  const auto again = HWXMLDocument::initWithData(document->xmlData());
  require(again != nullptr, "any text can be written");
  const string_view text = again->rootElement().text().value().substr(1);
  require(again->rootElement().attributeNamed("b") == text, "as an attribute too");
  const bool isPlain = isValidUTF8(bytes) && bytes.find('\xEF') == string_view::npos &&
                       std::all_of(bytes.begin(), bytes.end(), [](char byte) {
                         return static_cast<unsigned char>(byte) >= 0x20 || byte == '\r' ||
                                byte == '\n' || byte == '\t';
                       });
  require(!isPlain || text == bytes, "and is read as it was given");
}

}  // namespace
}  // namespace quillmere

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  quillmere::checkReading(quillmere::fuzzing::viewOf(bytes, count));
  quillmere::checkWriting(quillmere::fuzzing::viewOf(bytes, count));
  return 0;
}
