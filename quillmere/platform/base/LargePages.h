#ifndef QUILLMERE_PLATFORM_BASE_LARGEPAGES_H
#define QUILLMERE_PLATFORM_BASE_LARGEPAGES_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace quillmere {

/// Asks the system to back a fresh buffer with large pages, where it is long enough to hold some:
/// filling hundreds of megabytes otherwise takes a page fault every four kilobytes, and most of its
/// time. Does nothing to the bytes. Internal.
void preferLargePages(char* buffer, std::size_t length);

/// Makes room in an empty buffer for as many bytes as a stranger says will come, within reason.
void reserveForStranger(std::string& buffer, std::uint64_t length);

}  // namespace quillmere

#endif
