#ifndef QUILLMERE_TESTS_SUPPORT_ALLOCATIONFAULTS_H
#define QUILLMERE_TESTS_SUPPORT_ALLOCATIONFAULTS_H

#include <cstddef>

namespace quillmere::testing {

/// What a program that links AllocationFaults.cpp knows of its memory: the operators `new` and
/// `delete` there stand in for the library's. For programs that allocate on one thread.
struct Allocations {
  static std::size_t made();   ///< since the start
  static std::size_t alive();  ///< made and not freed
};

/// Makes one allocation fail, counted from now: the `nth` (1 is the next) throws std::bad_alloc.
class AllocationFault {
 public:
  explicit AllocationFault(std::size_t nth);
  AllocationFault(const AllocationFault&) = delete;
  AllocationFault& operator=(const AllocationFault&) = delete;
  ~AllocationFault();

  /// Whether it has come to that allocation.
  static bool happened();
};

}  // namespace quillmere::testing

#endif
