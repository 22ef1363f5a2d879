#ifndef QUILLMERE_PLATFORM_BASE_FILEDESCRIPTOR_H
#define QUILLMERE_PLATFORM_BASE_FILEDESCRIPTOR_H

#include <unistd.h>

namespace quillmere {

/// Closes an open file at the end of its scope. Internal.
class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (isOpen()) ::close(descriptor_);
  }

  bool isOpen() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

}  // namespace quillmere

#endif
