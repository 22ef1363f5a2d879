#ifndef CALDAVSYNC_FOLDER_H
#define CALDAVSYNC_FOLDER_H

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace caldavsync {

/// The folder of a calendar, with an .ics file for each object. What fails throws
/// examples::Failure.
class Folder {
 public:
  explicit Folder(std::filesystem::path path) : path_(std::move(path)) {}

  /// Unless it is there.
  void make() const;
  /// The names of the .ics files that are not hidden; none when there is no folder.
  std::set<std::string> files() const;
  /// Null when there is no such file.
  std::optional<std::string> read(const std::string& file) const;
  void write(const std::string& file, std::string text) const;
  void remove(const std::string& file) const;
  /// Gives the file a name that makes it none of the calendar's, which is the result.
  std::string setAside(const std::string& file) const;

 private:
  std::filesystem::path path_;
};

/// The folder of an account, which this process alone may change as long as this lives. Throws
/// examples::Failure when another one does.
class FolderLock {
 public:
  explicit FolderLock(const std::filesystem::path& path);
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;
  ~FolderLock();

 private:
  int descriptor_;
};

/// The line ends of iCalendar text (RFC 5545 section 3.1) wherever there is a line feed alone.
std::string withCRLF(std::string_view text);

/// File names are told apart without regard to the case of ASCII letters.
std::string foldedCase(std::string name);

/// A name for a file or folder that is like `text`, which may be anybody's: it names nothing
/// outside the folder, is not hidden, not too long, and, folded, not among `taken`.
std::string fileNameLike(std::string_view text, const std::string& extension,
                         const std::set<std::string>& taken);

}  // namespace caldavsync

#endif
