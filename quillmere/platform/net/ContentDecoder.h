#ifndef QUILLMERE_PLATFORM_NET_CONTENTDECODER_H
#define QUILLMERE_PLATFORM_NET_CONTENTDECODER_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

// Internal: compressed bodies.
namespace quillmere {

/// Undoes a content coding (RFC 9110 section 8.4.1) piece by piece: gzip and deflate. Unlike
/// libcurl's own it tells when a body was cut off.
class ContentDecoder {
 public:
  /// Null for a coding that is neither; the body then stays as it is.
  static std::unique_ptr<ContentDecoder> decoderFor(std::string_view coding);

  ContentDecoder();
  ContentDecoder(const ContentDecoder&) = delete;
  ContentDecoder& operator=(const ContentDecoder&) = delete;
  ~ContentDecoder();

  /// Appends what `bytes` decode to, and stops as soon as the text has more than `maximum` bytes.
  /// False when they are damaged.
  bool decode(std::string_view bytes, std::uint64_t maximum, std::string& text);

  /// Whether the body may end here: nothing came, or all of it.
  bool isComplete() const;

 private:
  struct Stream;
  std::unique_ptr<Stream> stream_;
};

}  // namespace quillmere

#endif
