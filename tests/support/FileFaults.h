#ifndef QUILLMERE_TESTS_SUPPORT_FILEFAULTS_H
#define QUILLMERE_TESTS_SUPPORT_FILEFAULTS_H

#include <functional>
#include <string>

namespace quillmere::testing {

/// Makes one call of the file functions below fail, counted from now; the others go to the kernel.
/// The test program's own definitions stand in for the C library's.
enum class FileCall {
  open,
  read,
  write,
  fchown,
  getxattr,
  fsetxattr,
  fremovexattr,
  fchmod,
  fsync,
  rename
};

class FileFault {
 public:
  /// The `nth` call (1 is the next) fails with `error`, an errno value; a write with 0 takes no byte.
  FileFault(FileCall call, int nth, int error);
  FileFault(const FileFault&) = delete;
  FileFault& operator=(const FileFault&) = delete;
  ~FileFault();

  /// Whether that call was made.
  static bool happened();
};

/// Carries out `work` once, right after the next open, also one that fails, read, write or rename:
/// what another process does just then.
class FileMoment {
 public:
  FileMoment(FileCall call, std::function<void()> work);
  FileMoment(const FileMoment&) = delete;
  FileMoment& operator=(const FileMoment&) = delete;
  ~FileMoment();
};

/// What the last successful rename moved, and the permissions that file had when it was first
/// written to.
struct Replacement {
  std::string from;
  unsigned permissionsWhenWritten = 0;
};
const Replacement& lastReplacement();

/// The longest count of bytes that one write takes; the rest is left to the caller. 0: no limit.
void limitWrites(unsigned long bytes);

}  // namespace quillmere::testing

#endif
