#include <quillmere/platform/base/LargePages.h>
#include <sys/mman.h>

#include <memory>

namespace quillmere {

void preferLargePages(char* buffer, std::size_t length) {
  constexpr std::size_t largePage = std::size_t{2} << 20;  // bytes, on all common processors
  void* start = buffer;
  if (!std::align(largePage, largePage, start, length)) return;
  // Advice only: a system that cannot take it backs the buffer as it always does.
  ::madvise(start, length - length % largePage, MADV_HUGEPAGE);
}

}  // namespace quillmere
