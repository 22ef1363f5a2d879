#include <quillmere/platform/base/LargePages.h>
#include <sys/mman.h>

#include <algorithm>
#include <memory>

namespace quillmere {

void preferLargePages(char* buffer, std::size_t length) {
  constexpr std::size_t largePage = std::size_t{2} << 20;  // bytes, on all common processors
  void* start = buffer;
  if (!std::align(largePage, largePage, start, length)) return;
  // Advice only: a system that cannot take it backs the buffer as it always does.
  ::madvise(start, length - length % largePage, MADV_HUGEPAGE);
}

void reserveForStranger(std::string& buffer, std::uint64_t length) {
  constexpr std::uint64_t mostToBelieve = std::uint64_t{256} << 20;
  buffer.reserve(static_cast<std::size_t>(std::min(length, mostToBelieve)));
  preferLargePages(buffer.data(), buffer.capacity());
}

}  // namespace quillmere
