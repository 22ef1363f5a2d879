#include "tests/support/AllocationFaults.h"

#include <cstdlib>
#include <new>

namespace {

std::size_t madeCount = 0;
std::size_t freedCount = 0;
std::size_t untilFault = 0;  // 0: no fault

}  // namespace

void* operator new(std::size_t size) {
  if (untilFault > 0 && --untilFault == 0) throw std::bad_alloc();
  void* const memory = std::malloc(size ? size : 1);
  if (!memory) throw std::bad_alloc();
  ++madeCount;
  return memory;
}
void operator delete(void* memory) noexcept {
  if (memory) ++freedCount;
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

namespace quillmere::testing {

std::size_t Allocations::made() { return madeCount; }
std::size_t Allocations::alive() { return madeCount - freedCount; }

AllocationFault::AllocationFault(std::size_t nth) { untilFault = nth; }
AllocationFault::~AllocationFault() { untilFault = 0; }
bool AllocationFault::happened() { return untilFault == 0; }

}  // namespace quillmere::testing
