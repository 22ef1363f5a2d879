// Stands in for libFuzzer where there is none. Usage: STEP FOLDER: feeds every file of the folder to
// the target, whole, and cut off after every STEP-th byte.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count);

namespace {

void feedPrefixes(const std::filesystem::path& path, std::size_t step) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  // Backwards, so that the whole is among them.
  for (std::size_t cut = 0; cut <= bytes.size(); cut += step) {
    const std::size_t length = bytes.size() - cut;
    // A block of its own, so that a sanitizer sees a read of one byte too many.
    const std::vector<std::uint8_t> prefix(bytes.begin(),
                                           bytes.begin() + static_cast<std::ptrdiff_t>(length));
    LLVMFuzzerTestOneInput(prefix.data(), prefix.size());
  }
}

}  // namespace

int main(int count, char** arguments) {
  const std::size_t step = count == 3 ? std::strtoul(arguments[1], nullptr, 10) : 0;
  if (step == 0) return 2;
  std::size_t seeds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(arguments[2])) {
    feedPrefixes(entry.path(), step);
    ++seeds;
  }
  std::cout << seeds << " seeds replayed\n";
  return seeds == 0 ? 1 : 0;
}
