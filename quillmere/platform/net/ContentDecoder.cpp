#include <quillmere/platform/net/ContentDecoder.h>
#include <zlib.h>

#include <algorithm>
#include <array>

namespace quillmere {

struct ContentDecoder::Stream {
  z_stream zlib{};
  bool hasBegun = false;
  bool hasEnded = false;
  bool isRaw = false;  // deflate without its envelope, which some servers send
};

std::unique_ptr<ContentDecoder> ContentDecoder::decoderFor(std::string_view coding) {
  std::string name(coding);
  std::transform(name.begin(), name.end(), name.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  if (name != "gzip" && name != "x-gzip" && name != "deflate") return nullptr;
  return std::make_unique<ContentDecoder>();
}

ContentDecoder::ContentDecoder() : stream_(std::make_unique<Stream>()) {
  constexpr int gzipOrZlib = 32;
  inflateInit2(&stream_->zlib, MAX_WBITS + gzipOrZlib);
}

ContentDecoder::~ContentDecoder() { inflateEnd(&stream_->zlib); }

bool ContentDecoder::isComplete() const { return !stream_->hasBegun || stream_->hasEnded; }

bool ContentDecoder::decode(std::string_view bytes, std::uint64_t maximum, std::string& text) {
  if (bytes.empty()) return true;
  z_stream& zlib = stream_->zlib;
  std::array<char, 16384> piece;
  zlib.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  zlib.avail_in = static_cast<uInt>(bytes.size());
  do {  // once more after a full piece, since more may come without further input
    if (stream_->hasEnded) {  // another gzip member follows
      if (inflateReset(&zlib) != Z_OK) return false;
      stream_->hasEnded = false;
    }
    zlib.next_out = reinterpret_cast<Bytef*>(piece.data());
    zlib.avail_out = static_cast<uInt>(piece.size());
    int result = inflate(&zlib, Z_NO_FLUSH);
    if (result == Z_DATA_ERROR && !stream_->hasBegun && !stream_->isRaw) {
      stream_->isRaw = true;
      if (inflateReset2(&zlib, -MAX_WBITS) != Z_OK) return false;
      zlib.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
      zlib.avail_in = static_cast<uInt>(bytes.size());
      zlib.next_out = reinterpret_cast<Bytef*>(piece.data());
      zlib.avail_out = static_cast<uInt>(piece.size());
      result = inflate(&zlib, Z_NO_FLUSH);
    }
    stream_->hasBegun = true;
    if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) return false;
    text.append(piece.data(), piece.size() - zlib.avail_out);
    stream_->hasEnded = result == Z_STREAM_END;
  } while ((zlib.avail_in > 0 || (zlib.avail_out == 0 && !stream_->hasEnded)) &&
           text.size() <= maximum);
  return true;
}

}  // namespace quillmere
