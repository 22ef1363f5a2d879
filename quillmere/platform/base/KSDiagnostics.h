#ifndef QUILLMERE_PLATFORM_BASE_KSDIAGNOSTICS_H
#define QUILLMERE_PLATFORM_BASE_KSDIAGNOSTICS_H

#include <source_location>
#include <string_view>

namespace quillmere {

/// Stops the process: a path that is deliberately not ported was reached. Prints one line with the
/// caller's source file and line on standard error and calls `std::abort()`.
[[noreturn]] void KSFinishPorting(
    const std::source_location& location = std::source_location::current());

/// Stops the process the same way: an operation that must never be called was called.
[[noreturn]] void KSRejectUnusedImplementation(
    const std::source_location& location = std::source_location::current());

/// Prints `text`, the caller's source file and line and a backtrace on standard error, and goes on.
void KSRecordBacktrace(std::string_view text,
                       const std::source_location& location = std::source_location::current());

}  // namespace quillmere

#endif
