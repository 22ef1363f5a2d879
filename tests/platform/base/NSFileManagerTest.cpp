#include <fcntl.h>
#include <gtest/gtest.h>
#include <quillmere/platform/base/NSFileManager.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/support/FileFaults.h"
#include "tests/support/TemporaryFolder.h"

namespace quillmere {
namespace {

namespace fs = std::filesystem;
using testing::FileCall, testing::FileFault, testing::readFile, testing::TemporaryFolder,
    testing::writeFile;

NSErrorPtr writeTo(const std::string& path, std::string_view bytes) {
  return NSFileManager::writeData_toFileAtomically(NSData::dataWithBytes(bytes), path);
}

mode_t permissionsOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

TEST(AtomicWrite, MakesANewFileWithWhatTheUmaskLeaves) {
  const TemporaryFolder folder;
  const fs::path folderBefore = fs::current_path();
  fs::current_path(folder / "");
  const mode_t before = ::umask(027);
  EXPECT_EQ(writeTo("new.ics", "bytes"), nullptr);
  ::umask(before);
  fs::current_path(folderBefore);
  EXPECT_EQ(readFile(folder / "new.ics"), "bytes");
  EXPECT_EQ(permissionsOf(folder / "new.ics"), 0640U);
  EXPECT_EQ(folder.entryCount(), 1U);
}

// It is written beside its target, and unseen by others until then.
TEST(AtomicWrite, KeepsThePermissionsOfTheFileItReplaces) {
  const TemporaryFolder folder;
  for (const mode_t mode : {0600U, 0666U, 0751U}) {
    writeFile(folder / "a.ics", "old");
    ASSERT_EQ(::chmod((folder / "a.ics").c_str(), mode), 0);
    EXPECT_EQ(writeTo(folder / "a.ics", "new"), nullptr);
    EXPECT_EQ(readFile(folder / "a.ics"), "new");
    EXPECT_EQ(permissionsOf(folder / "a.ics"), mode);
    EXPECT_EQ(fs::path(testing::lastReplacement().from).parent_path() / "", folder / "");
    EXPECT_EQ(testing::lastReplacement().permissionsWhenWritten, 0600U);
  }
}

// An access list as the kernel keeps it: user 1234 may read and write, the owning group may not.
struct AccessList {
  std::uint32_t version = 2;
  struct {
    std::uint16_t tag, permissions;
    std::uint32_t id;
  } entries[5] = {{0x01, 6, ~0U}, {0x02, 6, 1234}, {0x04, 0, ~0U}, {0x10, 6, ~0U}, {0x20, 0, ~0U}};

  // False where the file system has no access lists.
  bool putOn(const std::string& path, const char* attribute) const {
    return ::setxattr(path.c_str(), attribute, this, sizeof *this, 0) == 0;
  }
};

// The bytes of a file's access list; empty without one.
std::string accessListOf(const std::string& path) {
  char bytes[256];
  const auto length = ::getxattr(path.c_str(), "system.posix_acl_access", bytes, sizeof bytes);
  return length > 0 ? std::string(bytes, static_cast<std::size_t>(length)) : "";
}

TEST(AtomicWrite, KeepsAnAccessListAndTakesNoneFromItsDirectory) {
  const TemporaryFolder folder;
  writeFile(folder / "listed", "old");
  writeFile(folder / "plain", "old");
  const bool hasLists = AccessList().putOn(folder / "listed", "system.posix_acl_access") &&
                        AccessList().putOn(folder / "", "system.posix_acl_default");
  const std::string before = accessListOf(folder / "listed");
  EXPECT_EQ(before.empty(), !hasLists);
  EXPECT_EQ(writeTo(folder / "listed", "new"), nullptr);
  EXPECT_EQ(accessListOf(folder / "listed"), before);
  EXPECT_EQ(writeTo(folder / "plain", "new"), nullptr);
  EXPECT_EQ(accessListOf(folder / "plain"), "");
}

TEST(AtomicWrite, FollowsLinksToTheirTarget) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "real");
  writeFile(folder / "real/a.ics", "old");
  fs::create_symlink("real/a.ics", folder / "relative");
  fs::create_symlink(folder / "relative", folder / "chain");
  fs::create_symlink("real/missing.ics", folder / "dangling");
  fs::create_symlink("loop", folder / "loop");

  EXPECT_EQ(writeTo(folder / "chain", "new"), nullptr);
  EXPECT_TRUE(fs::is_symlink(folder / "chain"));
  EXPECT_TRUE(fs::is_symlink(folder / "relative"));
  EXPECT_EQ(readFile(folder / "real/a.ics"), "new");

  EXPECT_EQ(writeTo(folder / "dangling", "made"), nullptr);
  EXPECT_EQ(readFile(folder / "real/missing.ics"), "made");

  EXPECT_EQ(writeTo(folder / "loop", "never")->code(), ELOOP);
}

TEST(AtomicWrite, RefusesWhatIsNoRegularFile) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "directory");
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(writeTo(folder / "directory", "x")->code(), EISDIR);
  EXPECT_EQ(writeTo(folder / "pipe", "x")->code(), EINVAL);
  EXPECT_EQ(writeTo(folder / "missing/a.ics", "x")->code(), ENOENT);
  EXPECT_EQ(writeTo(folder / "", "x")->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(folder.entryCount(), 2U);
}

TEST(AtomicWrite, LeavesAWholeFileWhicheverCallFails) {
  // The directory is opened and flushed when the new file is in place.
  constexpr struct {
    FileCall call;
    int calls;
    int callsAfterRename = 0;
    bool mayFail = false;
    int error = EIO;
    bool isListed = false;  // of a file that has an access list
  } cases[] = {
      {FileCall::open, 2, 1},
      {FileCall::write, 3},
      {FileCall::write, 3, 0, false, 0},
      {FileCall::write, 3, 0, true, EINTR},
      {FileCall::fchown, 1, 0, true},
      {FileCall::getxattr, 1},
      {FileCall::fremovexattr, 1},
      {FileCall::fchmod, 1},
      {FileCall::fsync, 2, 1},
      {FileCall::rename, 1},
      // Its length is asked for, then the list, and it is set.
      {FileCall::getxattr, 2, 0, false, EIO, true},
      {FileCall::fsetxattr, 1, 0, false, EIO, true},
  };
  for (const auto& c : cases) {
    int n = 0;
    for (bool happened = true; happened;) {
      ++n;
      SCOPED_TRACE("call " + std::to_string(static_cast<int>(c.call)) + ", " + std::to_string(n));
      const TemporaryFolder folder;
      writeFile(folder / "a.ics", "old");
      if (c.isListed && !AccessList().putOn(folder / "a.ics", "system.posix_acl_access")) return;
      testing::limitWrites(3);
      NSErrorPtr error;
      {
        const FileFault fault(c.call, n, c.error);
        error = writeTo(folder / "a.ics", "new bytes");
        happened = FileFault::happened();
      }
      testing::limitWrites(0);
      const bool isReported = happened && !c.mayFail;
      EXPECT_EQ(error ? error->code() : 0, isReported ? EIO : 0);
      EXPECT_EQ(readFile(folder / "a.ics"),
                isReported && n <= c.calls - c.callsAfterRename ? "old" : "new bytes");
      EXPECT_EQ(folder.entryCount(), 1U) << "a temporary file was left";
    }
    EXPECT_EQ(n, c.calls + 1);
  }
}

TEST(ModificationDate, IsTheFilesToTheMicrosecond) {
  const TemporaryFolder folder;
  writeFile(folder / "a.ics", "");
  const timespec times[2] = {{0, UTIME_OMIT}, {1704447000, 250001999}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (folder / "a.ics").c_str(), times, 0), 0);
  EXPECT_EQ(NSFileManager::modificationDateOfItemAtPath(folder / "a.ics"),
            NSDate::dateWithMicrosecondsSince1970(1704447000'250001));
  fs::create_symlink("a.ics", folder / "link");
  EXPECT_EQ(NSFileManager::modificationDateOfItemAtPath(folder / "link"),
            NSFileManager::modificationDateOfItemAtPath(folder / "a.ics"));
  EXPECT_EQ(NSFileManager::modificationDateOfItemAtPath(folder / "none"), std::nullopt);
}

TEST(ReadingAFile, GivesItsBytesOrNull) {
  const TemporaryFolder folder;
  const std::string bytes("a\0b\r\n\xff", 6);
  writeFile(folder / "a.ics", bytes);
  writeFile(folder / "empty", "");
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(NSData::dataWithContentsOfFile(folder / "a.ics"), NSData::dataWithBytes(bytes));
  EXPECT_EQ(NSData::dataWithContentsOfFile(folder / "empty"), NSData());
  for (const char* name : {"none", "", "pipe"}) {
    EXPECT_EQ(NSData::dataWithContentsOfFile(folder / name), std::nullopt) << name;
  }
  // A file that tells no size in advance is read to its end all the same.
  EXPECT_GT(NSData::dataWithContentsOfFile("/proc/self/maps").value().length(), 100U);
}

}  // namespace
}  // namespace quillmere
