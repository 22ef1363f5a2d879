#ifndef QUILLMERE_PLATFORM_NET_CONTENTDECODER_H
#define QUILLMERE_PLATFORM_NET_CONTENTDECODER_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// Internal: compressed bodies.
namespace quillmere {

/// Undoes content codings (RFC 9110 section 8.4.1) piece by piece: gzip, deflate and identity.
/// Unlike libcurl's own it reports when a body was cut off.
class ContentDecoder {
 public:
  /// For the value of a field Content-Encoding: codings by commas, in the order in which they were
  /// applied. Null for one that is none of those, and for more than five.
  static std::unique_ptr<ContentDecoder> decoderFor(std::string_view codings);

  ContentDecoder(const ContentDecoder&) = delete;
  ContentDecoder& operator=(const ContentDecoder&) = delete;
  ~ContentDecoder();

  /// Appends what `bytes` decode to, and stops as soon as the text has more than `maximum` bytes.
  /// False when they are damaged.
  bool decode(std::string_view bytes, std::uint64_t maximum, std::string& text);

  /// Whether the body may end here: nothing came, or all of it.
  bool isComplete() const;

 private:
  class Inflater;

  ContentDecoder();

  std::vector<std::unique_ptr<Inflater>> inflaters_;  // in the order in which they are to work
};

}  // namespace quillmere

#endif
