#include <quillmere/platform/base/OrderedMap.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>

namespace quillmere {
namespace {

struct Seed {
  std::uint64_t first;
  std::uint64_t second;
};

Seed randomSeed() {
  std::random_device device;
  std::uniform_int_distribution<std::uint64_t> anyWord;
  return {anyWord(device), anyWord(device)};
}

__extension__ using Product = unsigned __int128;

// Both halves of the 128-bit product folded into one word: every bit of either factor counts.
std::uint64_t foldedProduct(std::uint64_t a, std::uint64_t b) {
  const Product product = static_cast<Product>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

}  // namespace

std::size_t seededHash(std::string_view text) {
  static const Seed seed = randomSeed();
  std::uint64_t hash = seed.first ^ text.size();
  while (!text.empty()) {
    std::uint64_t word = 0;
    const std::size_t taken = std::min(text.size(), sizeof word);
    std::memcpy(&word, text.data(), taken);
    hash = foldedProduct(hash ^ seed.second, word ^ seed.first);
    text.remove_prefix(taken);
  }
  return static_cast<std::size_t>(foldedProduct(hash, seed.second));
}

}  // namespace quillmere
