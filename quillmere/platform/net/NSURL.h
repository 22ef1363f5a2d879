#ifndef QUILLMERE_PLATFORM_NET_NSURL_H
#define QUILLMERE_PLATFORM_NET_NSURL_H

#include <quillmere/platform/base/Export.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quillmere {

/// An address: a URI or a relative reference (RFC 3986), or text that would be one if some of its
/// characters were percent-encoded ("http://h/two words.ics"). It keeps its text as it was given;
/// what may not travel is encoded only on the wire. Whether a host can be asked for it, `isHTTP`
/// tells. A value, ordered and equal by its text. A long text that was resolved against another one
/// is kept as what it adds to that, so that thousands of addresses below a long one cost little.
class QUILLMERE_EXPORT NSURL {
 public:
  /// Null for empty text, for text with control characters (C0 and DEL), and for bytes that are not
  /// UTF-8.
  static std::optional<NSURL> URLWithString(std::string_view text);

  /// Resolves `text` against `base` by RFC 3986 section 5.2, strictly: text with a scheme stands
  /// for itself, dot segments go away, empty text is `base` without its fragment. Nothing is
  /// encoded or decoded. Null as `URLWithString` is, for the text and for what comes of it.
  static std::optional<NSURL> URLWithString_relativeToURL(std::string_view text, const NSURL& base);

  /// The text as it stands.
  std::string absoluteString() const;
  /// In lower case; null in a relative reference.
  std::optional<std::string> scheme() const;
  /// The host as libcurl reads it: percent-decoded, numeric IPv4 addresses with four numbers, IPv6
  /// addresses in brackets, international names in UTF-8. Case is kept. Null where there is none
  /// and where the authority is malformed.
  std::optional<std::string> host() const;
  /// Only where one is written; null also where the authority is malformed.
  std::optional<std::uint16_t> port() const;
  /// What stands before the host, up to the first colon and after it, percent-decoded. Null where
  /// there is none, and where its escapes are malformed or stand for NUL.
  std::optional<std::string> user() const;
  std::optional<std::string> password() const;
  /// The path as written, percent-encoded or not, without query and fragment.
  std::string path() const;
  /// The path's last component as written; slashes at the path's end do not count. Empty for the
  /// root and for no path.
  std::string lastPathComponent() const;

  /// What goes on the wire: only ASCII, everything that may not travel percent-encoded in UTF-8, a
  /// "%" that begins no escape too; escapes are left as they are. The host is in its ASCII form
  /// (IDNA), the path is at least "/" and without dot segments, user info and fragment are left
  /// out. Empty unless `isHTTP`.
  std::string wireString() const;
  /// Whether the scheme is http or https, and the authority has a host and, if any, a port from 0
  /// to 65535, so that a session can load it.
  bool isHTTP() const;

  bool operator==(const NSURL& other) const { return (*this <=> other) == 0; }
  std::strong_ordering operator<=>(const NSURL& other) const;

 private:
  NSURL(std::string text, const NSURL* base);

  // The whole text, which stands in `room` where it is not kept in one piece.
  std::string_view text(std::string& room) const;

  std::shared_ptr<const std::string> stem_;  // null where `rest_` is all
  std::size_t stemLength_ = 0;               // so much of it is the beginning
  std::string rest_;
};

}  // namespace quillmere

#endif
