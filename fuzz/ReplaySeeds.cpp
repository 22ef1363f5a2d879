// Stands in for libFuzzer where there is none: feeds every file of the given folders to the target,
// whole, and cut off after every byte.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count);

namespace {

void feedEveryPrefix(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  for (std::size_t length = 0; length <= bytes.size(); ++length) {
    // A block of its own, so that a sanitizer sees a read of one byte too many.
    const std::vector<std::uint8_t> prefix(bytes.begin(),
                                           bytes.begin() + static_cast<std::ptrdiff_t>(length));
    LLVMFuzzerTestOneInput(prefix.data(), prefix.size());
  }
}

}  // namespace

int main(int argumentCount, char** arguments) {
  std::size_t seeds = 0;
  for (int i = 1; i < argumentCount; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) {
      feedEveryPrefix(entry.path());
      ++seeds;
    }
  }
  std::cout << seeds << " seeds replayed\n";
  return seeds == 0 ? 1 : 0;
}
