#ifndef QUILLMERE_PLATFORM_BASE_NSFILEMANAGER_H
#define QUILLMERE_PLATFORM_BASE_NSFILEMANAGER_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/dates/NSDate.h>

#include <optional>
#include <string>

namespace quillmere {

/// What the library asks of the file system.
class QUILLMERE_EXPORT NSFileManager {
 public:
  /// The modification date (`NSFileModificationDate`) of the item at `path`, symbolic links
  /// followed, cut to the microseconds that `NSDate` holds, and to the years 1 to 9999. Null when
  /// its attributes cannot be read.
  static std::optional<NSDate> modificationDateOfItemAtPath(const std::string& path);

  /// Replaces the file at `path` by `data` in one step: a reader sees the old bytes or the new
  /// ones, and so does the next start after a crash. The bytes go to a temporary file in the same
  /// directory, which is given the old file's permissions and access list (and owner and group,
  /// where the process may), flushed to disk, and renamed over it; then the directory is flushed.
  /// Symbolic links are followed, so the link stays and its target is replaced, or made when it
  /// does not exist yet. A new file gets the permissions that the process's umask leaves.
  ///
  /// Returns null, or an error of `NSPOSIXErrorDomain`. When it fails before the rename, the old
  /// file is as it was and no temporary file is left; an error of the last flush alone is reported
  /// although the new bytes are in place. A target that is no regular file is refused.
  ///
  /// `modificationDate`, unless null, is set to the date of the new file, taken before anybody else
  /// can reach it, and left alone when the old file was not replaced.
  static NSErrorPtr writeData_toFileAtomically(const NSData& data, const std::string& path,
                                               std::optional<NSDate>* modificationDate = nullptr);
};

}  // namespace quillmere

#endif
