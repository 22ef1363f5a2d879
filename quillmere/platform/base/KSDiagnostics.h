#ifndef QUILLMERE_PLATFORM_BASE_KSDIAGNOSTICS_H
#define QUILLMERE_PLATFORM_BASE_KSDIAGNOSTICS_H

#include <quillmere/platform/base/Export.h>

#include <string_view>

namespace quillmere {

/// A place in a source file; made as a default argument it is the caller's.
struct QUILLMERE_EXPORT KSSourceLocation {
  const char* file;
  int line;

  // The built-ins, since not every compiler that the library supports has std::source_location.
  static constexpr KSSourceLocation current(const char* file = __builtin_FILE(),
                                            int line = __builtin_LINE()) {
    return {file, line};
  }
};

/// Stops the process: a path that is deliberately not ported was reached. Prints one line with the
/// caller's source file and line on standard error and calls `std::abort()`.
[[noreturn]] QUILLMERE_EXPORT void KSFinishPorting(
    KSSourceLocation location = KSSourceLocation::current());

/// Stops the process the same way: an operation that must never be called was called.
[[noreturn]] QUILLMERE_EXPORT void KSRejectUnusedImplementation(
    KSSourceLocation location = KSSourceLocation::current());

/// Prints `text`, the caller's source file and line and a backtrace on standard error, and goes on.
QUILLMERE_EXPORT void KSRecordBacktrace(std::string_view text,
                                        KSSourceLocation location = KSSourceLocation::current());

}  // namespace quillmere

#endif
