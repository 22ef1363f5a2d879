#include <fcntl.h>
#include <quillmere/platform/base/FileDescriptor.h>
#include <quillmere/platform/base/ModificationDate.h>
#include <quillmere/platform/base/NSFileManager.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string_view>
#include <system_error>

namespace quillmere {
namespace {

namespace fs = std::filesystem;

constexpr int maximumLinks = 40;  // as the kernel's own limit (path_resolution(7))
constexpr int maximumNameTries = 100;
constexpr mode_t permissionBits = 07777;

// The path that a chain of symbolic links ends at; a link to nothing ends at its missing target.
fs::path followLinks(fs::path path, std::error_code& error) {
  for (int links = 0; fs::is_symlink(fs::symlink_status(path, error)); ++links) {
    if (links == maximumLinks) {
      error = std::make_error_code(std::errc::too_many_symbolic_link_levels);
      return {};
    }
    const fs::path target = fs::read_symlink(path, error);
    if (error) return {};
    path = path.parent_path() / target;  // an absolute target replaces the whole path
  }
  error.clear();  // a missing file is no failure here
  return path;
}

// A temporary file that removes itself unless it was renamed to its target.
class TemporaryFile {
 public:
  // Beside `target`, with `mode` less the umask.
  TemporaryFile(const fs::path& target, mode_t mode) : file_(open(target, mode)) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (file_.isOpen() && !renamed_) ::unlink(path_.c_str());
  }

  bool isOpen() const { return file_.isOpen(); }
  int descriptor() const { return file_.get(); }

  bool renameTo(const fs::path& target) {
    renamed_ = ::rename(path_.c_str(), target.c_str()) == 0;
    return renamed_;
  }

 private:
  int open(const fs::path& target, mode_t mode) {
    std::random_device random;
    for (int tries = 0; tries < maximumNameTries; ++tries) {
      path_ = target.parent_path() / (".quillmere-" + std::to_string(random()) + ".tmp");
      const int file = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
      if (file >= 0 || errno != EEXIST) return file;
    }
    return -1;
  }

  fs::path path_;
  FileDescriptor file_;
  bool renamed_ = false;
};

bool writeFully(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(file, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      if (count == 0) errno = EIO;  // a device that takes nothing would keep this loop for ever
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

// Gives the new file the access list of the file it replaces, or none where that has none: a new
// file may have one from its directory. Where there is a list, the group's permission bits are its
// mask.
bool copyAccessList(int file, const fs::path& target) {
  constexpr const char* attribute = "system.posix_acl_access";
  const auto isNone = [] { return errno == ENODATA || errno == ENOTSUP; };
  const ssize_t length = ::getxattr(target.c_str(), attribute, nullptr, 0);
  if (length < 0 && !isNone()) return false;
  if (length <= 0) return ::fremovexattr(file, attribute) == 0 || isNone();

  std::string list(static_cast<std::size_t>(length), '\0');
  const ssize_t copied = ::getxattr(target.c_str(), attribute, list.data(), list.size());
  if (copied >= 0 && copied != length) errno = EAGAIN;  // somebody changes it just now
  return copied == length && ::fsetxattr(file, attribute, list.data(), list.size(), 0) == 0;
}

// Gives the new file the owner and permissions of the file at `target`, which it replaces. The
// owner and group are kept where the process may give files away; the permissions must be.
bool takeOverAttributes(int file, const fs::path& target, const struct stat& old) {
  constexpr auto sameOwner = static_cast<uid_t>(-1);
  const bool ownerKept = ::fchown(file, old.st_uid, old.st_gid) == 0;
  [[maybe_unused]] const bool groupKept = ownerKept || ::fchown(file, sameOwner, old.st_gid) == 0;
  return copyAccessList(file, target) && ::fchmod(file, old.st_mode & permissionBits) == 0;
}

bool flushDirectory(const fs::path& directory) {
  const FileDescriptor file(
      ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return file.isOpen() && ::fsync(file.get()) == 0;
}

// Zero, or the errno value of the step that failed.
int replaceFile(const fs::path& target, std::string_view bytes,
                std::optional<NSDate>* modificationDate) {
  struct stat old {};
  const bool replacing = ::stat(target.c_str(), &old) == 0;
  if (!replacing && errno != ENOENT) return errno;
  if (replacing && S_ISDIR(old.st_mode)) return EISDIR;
  if (replacing && !S_ISREG(old.st_mode)) return EINVAL;

  constexpr mode_t ownerOnly = 0600;  // until the old permissions are set
  constexpr mode_t everyone = 0666;   // less the umask
  TemporaryFile temporary(target, replacing ? ownerOnly : everyone);
  struct stat written {};
  const bool replaced = temporary.isOpen() && writeFully(temporary.descriptor(), bytes) &&
                        (!replacing || takeOverAttributes(temporary.descriptor(), target, old)) &&
                        ::fsync(temporary.descriptor()) == 0 &&
                        ::fstat(temporary.descriptor(), &written) == 0 &&
                        temporary.renameTo(target);
  if (replaced && modificationDate) *modificationDate = modificationDateOf(written);
  return replaced && flushDirectory(target.parent_path()) ? 0 : errno;
}

}  // namespace

NSDate modificationDateOf(const struct stat& status) {
  // Dates beyond these have no text form that could be kept between runs.
  constexpr std::int64_t firstSecond = -62'135'596'800;  // 1 January of year 1
  constexpr std::int64_t lastSecond = 253'402'300'799;   // 31 December 9999, 23:59:59
  const std::int64_t second =
      std::clamp<std::int64_t>(status.st_mtim.tv_sec, firstSecond, lastSecond);
  return NSDate::dateWithMicrosecondsSince1970(second * NSDate::microsecondsPerSecond +
                                               status.st_mtim.tv_nsec / 1000);
}

std::optional<NSDate> NSFileManager::modificationDateOfItemAtPath(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return modificationDateOf(status);
}

NSErrorPtr NSFileManager::writeData_toFileAtomically(const NSData& data, const std::string& path,
                                                     std::optional<NSDate>* modificationDate) {
  std::error_code linkError;
  const fs::path target = followLinks(path, linkError);
  if (linkError) return NSError::errorWithPOSIXCode(linkError.value());
  const int code = replaceFile(target, data.view(), modificationDate);
  return code == 0 ? nullptr : NSError::errorWithPOSIXCode(code);
}

}  // namespace quillmere
