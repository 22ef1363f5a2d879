#ifndef QUILLMERE_CALDAV_DAVXML_H
#define QUILLMERE_CALDAV_DAVXML_H

#include <quillmere/caldav/KBTDavRequest.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/xml/HWXMLDocument.h>
#include <quillmere/platform/xml/HWXMLElement.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

// Internal: the bodies that the CalDAV client sends, and a reader's way through those it gets.
namespace quillmere {

inline constexpr const char* davNamespace = "DAV:";
inline constexpr const char* caldavNamespace = "urn:ietf:params:xml:ns:caldav";
inline constexpr const char* calendarServerNamespace = "http://calendarserver.org/ns/";
inline constexpr const char* xmlContentType = "text/xml; charset=\"utf-8\"";
/// What the first propstat's status must be, to the letter, for a resource to count.
inline constexpr const char* statusOfFound = "HTTP/1.1 200 OK";

/// A body that is being written, with every namespace a plain "xmlns" of the element that needs one.
class DavBody {
 public:
  DavBody(const char* root, const char* xmlns)
      : document_(HWXMLDocument::initWithRootElementNamed(root)) {
    document_->setAttribute_value("xmlns", xmlns);
  }

  DavBody& push(const char* name, const char* xmlns = nullptr) {
    document_->pushElement(name);
    return xmlns ? attribute("xmlns", xmlns) : *this;
  }
  DavBody& pop() {
    document_->popElement();
    return *this;
  }
  DavBody& attribute(const char* name, const std::string& value) {
    document_->setAttribute_value(name, value);
    return *this;
  }
  DavBody& empty(const char* name, const char* xmlns = nullptr) { return push(name, xmlns).pop(); }
  DavBody& text(const char* name, const char* xmlns, const std::string& text) {
    push(name, xmlns);
    document_->appendString(text);
    return pop();
  }

  /// Elements that are still open are closed.
  NSData data() const { return document_->xmlData(); }

 private:
  std::shared_ptr<HWXMLDocument> document_;
};

/// The root of a request's answer, of which nothing is left in the request; null for a body that is
/// no XML.
std::optional<HWXMLElement> rootOf(KBTDavRequest& request);

/// The text of the element at the path, null when there is none.
std::optional<std::string_view> textAt(const HWXMLElement& element, std::string_view path);

/// An address: the text of the element at the path, or of the element itself, without the white
/// space around it with which some servers indent. Null when there is none.
std::optional<std::string_view> hrefAt(const HWXMLElement& element, std::string_view path);
std::optional<std::string_view> hrefOf(const HWXMLElement& element);

}  // namespace quillmere

#endif
