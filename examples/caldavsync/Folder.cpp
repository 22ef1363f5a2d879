#include "Folder.h"

#include <fcntl.h>
#include <quillmere/platform/base/NSFileManager.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "common/Printable.h"
#include "common/Program.h"

namespace caldavsync {
namespace {

namespace fs = std::filesystem;
using examples::Failure;
using quillmere::NSData;
using quillmere::NSDate;

// File systems take 255 bytes; the rest is for what is appended.
constexpr std::size_t maximumLength = 200;

void throwIfFailed(const std::string& what, const std::error_code& error) {
  if (error) throw Failure(what + ": " + error.message());
}

// Not within a character.
std::string shortened(std::string text) {
  if (text.size() <= maximumLength) return text;
  std::size_t length = maximumLength;
  while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xc0) == 0x80) --length;
  text.resize(length);
  return text;
}

}  // namespace

void Folder::make() const {
  std::error_code error;
  fs::create_directory(path_, error);
  throwIfFailed("the folder cannot be made", error);
}

std::set<std::string> Folder::files() const {
  std::set<std::string> found;
  std::error_code error;
  fs::directory_iterator entries(path_, error);
  if (error == std::errc::no_such_file_or_directory) return found;
  for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
    std::string name = entries->path().filename();
    std::error_code unknown;  // of what cannot be looked at, reading fails
    const bool isFile = entries->is_regular_file(unknown) || unknown;
    if (isFile && name.ends_with(".ics") && !name.starts_with('.')) found.insert(std::move(name));
  }
  throwIfFailed("the folder cannot be read", error);
  return found;
}

std::optional<std::string> Folder::read(const std::string& file) const {
  const fs::path path = path_ / file;
  if (const auto data = NSData::dataWithContentsOfFile(path)) return std::string(data->view());
  std::error_code error;
  if (fs::status(path, error).type() == fs::file_type::not_found) return std::nullopt;
  throw Failure(file + ": cannot be read");
}

void Folder::write(const std::string& file, std::string text) const {
  const auto failure = quillmere::NSFileManager::writeData_toFileAtomically(
      NSData::dataWithString(std::move(text)), path_ / file);
  if (failure) throw Failure(file + ": cannot be written: " + failure->localizedDescription());
}

void Folder::remove(const std::string& file) const {
  std::error_code error;
  fs::remove(path_ / file, error);
  throwIfFailed(file + ": cannot be deleted", error);
}

std::string Folder::setAside(const std::string& file) const {
  const std::string wanted = shortened(file) + ".conflict-" + NSDate::date().icsDateString();
  std::string name = wanted;
  for (int i = 2; fs::exists(fs::symlink_status(path_ / name)); ++i) {
    name = wanted + "-" + std::to_string(i);
  }
  std::error_code error;
  fs::rename(path_ / file, path_ / name, error);
  throwIfFailed(file + ": cannot be renamed", error);
  return name;
}

FolderLock::FolderLock(const fs::path& path)
    : descriptor_(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (descriptor_ < 0) throwIfFailed(path.string(), {errno, std::generic_category()});
  if (::flock(descriptor_, LOCK_EX | LOCK_NB) == 0) return;
  ::close(descriptor_);
  throw Failure("another program is at work in " + path.string());
}

FolderLock::~FolderLock() { ::close(descriptor_); }

std::string withCRLF(std::string_view text) {
  std::string result;
  char previous = 0;
  for (const char c : text) {
    if (c == '\n' && previous != '\r') result += '\r';
    result += c;
    previous = c;
  }
  return result;
}

std::string foldedCase(std::string name) {
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return name;
}

std::string fileNameLike(std::string_view text, const std::string& extension,
                         const std::set<std::string>& taken) {
  std::string stem = shortened(examples::printable(text));
  std::replace(stem.begin(), stem.end(), '/', '_');
  if (stem.empty() || stem[0] == '.') stem.replace(0, 1, "_");
  std::string name = stem + extension;
  for (int i = 2; taken.contains(foldedCase(name)); ++i) {
    name = stem;
    name.append("-").append(std::to_string(i)).append(extension);
  }
  return name;
}

}  // namespace caldavsync
