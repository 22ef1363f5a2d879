#include "tests/support/Gzip.h"

#include <gio/gio.h>

#include <memory>
#include <random>
#include <stdexcept>

namespace quillmere::testing {

namespace {

std::string compressed(GZlibCompressorFormat format, std::string_view bytes, std::size_t times) {
  const std::unique_ptr<GZlibCompressor, decltype(&g_object_unref)> compressor(
      g_zlib_compressor_new(format, 9), &g_object_unref);
  std::string result;
  std::string_view left = bytes;
  GConverterResult state = G_CONVERTER_CONVERTED;
  while (state != G_CONVERTER_FINISHED) {
    if (left.empty() && times > 1) {
      left = bytes;
      --times;
    }
    char room[65536];
    gsize taken = 0;
    gsize made = 0;
    state = g_converter_convert(
        G_CONVERTER(compressor.get()), left.data(), left.size(), room, sizeof room,
        times > 1 ? G_CONVERTER_NO_FLAGS : G_CONVERTER_INPUT_AT_END, &taken, &made, nullptr);
    if (state == G_CONVERTER_ERROR) throw std::runtime_error("cannot compress");
    left.remove_prefix(taken);
    result.append(room, made);
  }
  return result;
}

}  // namespace

std::string gzipOf(std::string_view bytes, std::size_t times) {
  return compressed(G_ZLIB_COMPRESSOR_FORMAT_GZIP, bytes, times);
}

std::string zlibOf(std::string_view bytes) {
  return compressed(G_ZLIB_COMPRESSOR_FORMAT_ZLIB, bytes, 1);
}

std::string noiseOf(std::size_t count) {
  std::mt19937 random;  // NOLINT(cert-msc51-cpp): the same numbers each time
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

}  // namespace quillmere::testing
