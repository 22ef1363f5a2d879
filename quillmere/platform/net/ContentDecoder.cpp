#include <quillmere/platform/net/ContentDecoder.h>
#include <quillmere/platform/net/HTTPFields.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace quillmere {

// Undoes one coding.
class ContentDecoder::Inflater {
 public:
  explicit Inflater(bool mayBeRaw) : mayBeRaw_(mayBeRaw) {
    constexpr int gzipOrZlib = 32;
    inflateInit2(&zlib_, MAX_WBITS + gzipOrZlib);
  }
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;
  ~Inflater() { inflateEnd(&zlib_); }

  bool isComplete() const { return start_.empty() || hasEnded_; }
  bool decode(std::string_view bytes, std::uint64_t maximum, std::string& text);

 private:
  bool decodeStart(std::string_view& bytes, std::uint64_t maximum, std::string& text);
  bool inflateAll(std::string_view bytes, std::uint64_t maximum, std::string& text);

  z_stream zlib_{};
  std::string start_;  // the first two bytes, by which the envelope is known
  bool mayBeRaw_;      // deflate without its envelope, which some servers send
  bool hasEnded_ = false;
};

bool ContentDecoder::Inflater::decode(std::string_view bytes, std::uint64_t maximum,
                                      std::string& text) {
  return decodeStart(bytes, maximum, text) && inflateAll(bytes, maximum, text);
}

// Takes the bytes up to the second, and decodes them together.
bool ContentDecoder::Inflater::decodeStart(std::string_view& bytes, std::uint64_t maximum,
                                           std::string& text) {
  constexpr std::size_t envelope = 2;
  if (start_.size() == envelope || bytes.empty()) return true;
  const std::size_t taken = std::min(envelope - start_.size(), bytes.size());
  start_ += bytes.substr(0, taken);
  bytes.remove_prefix(taken);
  if (start_.size() < envelope) return true;
  // RFC 1950 section 2.2, and RFC 1952 section 2.3.1.
  const auto first = static_cast<unsigned char>(start_[0]);
  const auto second = static_cast<unsigned char>(start_[1]);
  const bool isZlib = (first & 0x0FU) == Z_DEFLATED && (first * 256U + second) % 31 == 0;
  const bool isGzip = first == 0x1F && second == 0x8B;
  if (mayBeRaw_ && !isZlib && !isGzip && inflateReset2(&zlib_, -MAX_WBITS) != Z_OK) return false;
  return inflateAll(start_, maximum, text);
}

bool ContentDecoder::Inflater::inflateAll(std::string_view bytes, std::uint64_t maximum,
                                          std::string& text) {
  std::array<char, 16384> piece;
  bool isFull = false;  // then more may come without further input
  while ((!bytes.empty() || isFull) && text.size() <= maximum) {
    if (hasEnded_) {  // zeros that pad, or another gzip member
      bytes.remove_prefix(std::min(bytes.find_first_not_of('\0'), bytes.size()));
      if (bytes.empty()) return true;
      if (inflateReset(&zlib_) != Z_OK) return false;
    }
    zlib_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    zlib_.avail_in = static_cast<uInt>(bytes.size());
    zlib_.next_out = reinterpret_cast<Bytef*>(piece.data());
    zlib_.avail_out = static_cast<uInt>(piece.size());
    const int result = inflate(&zlib_, Z_NO_FLUSH);
    if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) return false;
    text.append(piece.data(), piece.size() - zlib_.avail_out);
    bytes.remove_prefix(bytes.size() - zlib_.avail_in);
    hasEnded_ = result == Z_STREAM_END;
    isFull = zlib_.avail_out == 0 && !hasEnded_;
  }
  return true;
}

std::unique_ptr<ContentDecoder> ContentDecoder::decoderFor(std::string_view codings) {
  constexpr std::size_t mostInflaters = 5;
  std::unique_ptr<ContentDecoder> decoder(new ContentDecoder);
  auto& inflaters = decoder->inflaters_;
  while (!codings.empty()) {
    const std::size_t comma = std::min(codings.find(','), codings.size());
    const std::string coding = lowerCaseASCII(trimmed(codings.substr(0, comma)));
    codings.remove_prefix(std::min(comma + 1, codings.size()));
    if (coding.empty() || coding == "identity") continue;
    const bool isKnown = coding == "gzip" || coding == "x-gzip" || coding == "deflate";
    if (!isKnown || inflaters.size() == mostInflaters) return nullptr;
    inflaters.insert(inflaters.begin(), std::make_unique<Inflater>(coding == "deflate"));
  }
  return decoder;
}

ContentDecoder::ContentDecoder() = default;
ContentDecoder::~ContentDecoder() = default;

bool ContentDecoder::isComplete() const {
  return std::all_of(inflaters_.begin(), inflaters_.end(),
                     [](const auto& inflater) { return inflater->isComplete(); });
}

bool ContentDecoder::decode(std::string_view bytes, std::uint64_t maximum, std::string& text) {
  std::string between;
  for (std::size_t i = 0; i + 1 < inflaters_.size(); ++i) {
    std::string decoded;
    if (!inflaters_[i]->decode(bytes, maximum, decoded)) return false;
    if (decoded.size() > maximum) {
      text.append(decoded);
      return true;
    }
    between = std::move(decoded);
    bytes = between;
  }
  if (!inflaters_.empty()) return inflaters_.back()->decode(bytes, maximum, text);
  text.append(bytes);
  return true;
}

}  // namespace quillmere
