#include <fcntl.h>
#include <quillmere/platform/base/FileDescriptor.h>
#include <quillmere/platform/base/LargePages.h>
#include <quillmere/platform/base/ModificationDate.h>
#include <quillmere/platform/base/NSData.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace quillmere {
namespace {

// Reads up to `capacity` bytes; the count read, or null on an error.
std::optional<std::size_t> readFully(int file, char* buffer, std::size_t capacity) {
  std::size_t length = 0;
  while (length < capacity) {
    const ssize_t count = ::read(file, buffer + length, capacity - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  return length;
}

}  // namespace

NSData NSData::dataWithBytes(std::string_view bytes) {
  if (bytes.empty()) return {};
  auto copy = std::make_shared_for_overwrite<char[]>(bytes.size());
  std::memcpy(copy.get(), bytes.data(), bytes.size());
  char* first = copy.get();
  return {std::shared_ptr<const char>(std::move(copy), first), bytes.size()};
}

NSData NSData::dataWithString(std::string text) {
  if (text.empty()) return {};
  auto owner = std::make_shared<const std::string>(std::move(text));
  const char* first = owner->data();
  const std::size_t length = owner->size();
  return {std::shared_ptr<const char>(std::move(owner), first), length};
}

std::optional<NSData> NSData::dataWithContentsOfFile(const std::string& path,
                                                     std::optional<NSDate>* modificationDate) {
  // O_NONBLOCK: opening a pipe that nobody writes to must not wait.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.get(), &status) != 0) return std::nullopt;
  if (modificationDate) *modificationDate = modificationDateOf(status);
  if (!S_ISREG(status.st_mode)) return std::nullopt;

  const auto expected = static_cast<std::size_t>(status.st_size);
  auto buffer = std::make_shared_for_overwrite<char[]>(expected);
  preferLargePages(buffer.get(), expected);
  const auto length = readFully(file.get(), buffer.get(), expected);
  if (!length) return std::nullopt;
  char* first = buffer.get();
  NSData data(std::shared_ptr<const char>(std::move(buffer), first), *length);
  if (*length < expected) return data;

  // The size is a hint: a file may have grown since, and some (under /proc) tell none.
  std::string rest;
  char piece[4096];
  for (;;) {
    const auto count = readFully(file.get(), piece, sizeof piece);
    if (!count) return std::nullopt;
    if (*count == 0) break;
    rest.append(piece, *count);
  }
  if (rest.empty()) return data;
  rest.insert(0, data.view());
  return dataWithString(std::move(rest));
}

}  // namespace quillmere
