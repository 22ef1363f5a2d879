#include <execinfo.h>
#include <quillmere/platform/base/KSDiagnostics.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace quillmere {
namespace {

constexpr int maximumFrames = 64;

void printLine(std::string_view text, KSSourceLocation location) {
  std::fprintf(stderr, "%s:%d: %.*s\n", location.file, location.line, static_cast<int>(text.size()),
               text.data());
}

}  // namespace

void KSFinishPorting(KSSourceLocation location) {
  printLine("not yet ported", location);
  std::abort();
}

void KSRejectUnusedImplementation(KSSourceLocation location) {
  printLine("this operation must not be called", location);
  std::abort();
}

void KSRecordBacktrace(std::string_view text, KSSourceLocation location) {
  printLine(text, location);
  std::array<void*, maximumFrames> frames{};
  const int count = ::backtrace(frames.data(), maximumFrames);
  ::backtrace_symbols_fd(frames.data(), count, STDERR_FILENO);
}

}  // namespace quillmere
