#ifndef QUILLMERE_PLATFORM_BASE_NSDATA_H
#define QUILLMERE_PLATFORM_BASE_NSDATA_H

#include <quillmere/platform/base/Export.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quillmere {

class NSDate;

/// Immutable bytes. Copying shares the buffer, which lives as long as any copy; so a pointer into
/// `bytes()` is good as long as one `NSData` over the buffer is kept.
class QUILLMERE_EXPORT NSData {
 public:
  /// No bytes.
  NSData() = default;

  /// Copies `bytes`.
  static NSData dataWithBytes(std::string_view bytes);

  /// Takes over the bytes of `text` without copying them when it is passed by move.
  static NSData dataWithString(std::string text);

  /// Bytes that `owner` keeps alive, and that nobody changes.
  static NSData dataWithBytesOf(const std::shared_ptr<const void>& owner, std::string_view bytes) {
    return {std::shared_ptr<const char>(owner, bytes.data()), bytes.size()};
  }

  /// Reads a whole file. Null when `path` cannot be opened or read or is not a regular file (a pipe
  /// or a device might never end). Throws std::bad_alloc when it does not fit into memory: to a
  /// calendar, null would be an empty file.
  ///
  /// `modificationDate`, unless null, is set to the date that what was opened had before the first
  /// byte was read (as by `NSFileManager::modificationDateOfItemAtPath`), and left alone when
  /// nothing could be opened.
  static std::optional<NSData> dataWithContentsOfFile(
      const std::string& path, std::optional<NSDate>* modificationDate = nullptr);

  /// First byte; of no use, and possibly null, when there are no bytes.
  const char* bytes() const { return bytes_.get(); }
  std::size_t length() const { return length_; }
  /// The bytes as a view, good as long as one copy of this object lives.
  std::string_view view() const { return {bytes_.get(), length_}; }

  friend bool operator==(const NSData& a, const NSData& b) { return a.view() == b.view(); }

 private:
  NSData(std::shared_ptr<const char> bytes, std::size_t length)
      : bytes_(std::move(bytes)), length_(length) {}

  std::shared_ptr<const char> bytes_;
  std::size_t length_ = 0;
};

}  // namespace quillmere

#endif
