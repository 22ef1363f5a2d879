#include "tests/support/FileFaults.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <utility>

namespace quillmere::testing {
namespace {

struct Pending {
  FileCall call;
  int callsLeft;
  int error;
};

Pending pending{FileCall::write, 0, 0};
unsigned long writeLimit = 0;

FileCall moment{};
std::function<void()> momentsWork;

// The call's result, after what is to happen then.
template <class Result>
Result then(FileCall call, Result result) {
  if (momentsWork && call == moment) std::exchange(momentsWork, nullptr)();
  return result;
}

Replacement replacement;
unsigned permissionsWhenWritten = 0;

bool fails(FileCall call) {
  if (pending.call != call || pending.callsLeft == 0 || --pending.callsLeft != 0) return false;
  errno = pending.error;
  return true;
}

void noteReplacement(const char* from) { replacement = {from, permissionsWhenWritten}; }

}  // namespace

FileFault::FileFault(FileCall call, int nth, int error) { pending = {call, nth, error}; }

FileFault::~FileFault() { pending.callsLeft = 0; }

bool FileFault::happened() { return pending.callsLeft == 0; }

FileMoment::FileMoment(FileCall call, std::function<void()> work) {
  moment = call;
  momentsWork = std::move(work);
}

FileMoment::~FileMoment() { momentsWork = nullptr; }

const Replacement& lastReplacement() { return replacement; }

void limitWrites(unsigned long bytes) { writeLimit = bytes; }

}  // namespace quillmere::testing

using quillmere::testing::fails;
using quillmere::testing::FileCall;
using quillmere::testing::then;

extern "C" {

int open(const char* path, int flags, ...) {
  if (fails(FileCall::open)) return then(FileCall::open, -1);
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return then(FileCall::open, static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode)));
}

ssize_t read(int file, void* bytes, size_t count) {
  constexpr size_t most = 4096;  // less than asked for is no fault: whoever reads must expect it
  if (fails(FileCall::read)) return -1;
  return then(FileCall::read, syscall(SYS_read, file, bytes, std::min(count, most)));
}

ssize_t write(int file, const void* bytes, size_t count) {
  if (fails(FileCall::write)) return errno == 0 ? 0 : -1;
  struct stat status {};
  if (fstat(file, &status) == 0 && S_ISREG(status.st_mode)) {
    quillmere::testing::permissionsWhenWritten = status.st_mode & 07777U;
  }
  const unsigned long limit = quillmere::testing::writeLimit;
  return then(FileCall::write,
              syscall(SYS_write, file, bytes, limit ? std::min(count, limit) : count));
}

int fchown(int file, uid_t owner, gid_t group) noexcept {
  return fails(FileCall::fchown) ? -1 : static_cast<int>(syscall(SYS_fchown, file, owner, group));
}

ssize_t getxattr(const char* path, const char* name, void* value, size_t size) noexcept {
  return fails(FileCall::getxattr) ? -1 : syscall(SYS_getxattr, path, name, value, size);
}

int fsetxattr(int file, const char* name, const void* value, size_t size, int flags) noexcept {
  if (fails(FileCall::fsetxattr)) return -1;
  return static_cast<int>(syscall(SYS_fsetxattr, file, name, value, size, flags));
}

int fremovexattr(int file, const char* name) noexcept {
  return fails(FileCall::fremovexattr) ? -1
                                       : static_cast<int>(syscall(SYS_fremovexattr, file, name));
}

int fsync(int file) {
  return fails(FileCall::fsync) ? -1 : static_cast<int>(syscall(SYS_fsync, file));
}

int fchmod(int file, mode_t mode) {
  return fails(FileCall::fchmod) ? -1 : static_cast<int>(syscall(SYS_fchmod, file, mode));
}

int rename(const char* from, const char* to) noexcept {
  if (fails(FileCall::rename)) return -1;
  const long result = syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to);
  if (result == 0) quillmere::testing::noteReplacement(from);
  return then(FileCall::rename, static_cast<int>(result));
}
}
