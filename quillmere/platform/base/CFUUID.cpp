#include <quillmere/platform/base/CFUUID.h>
#include <sys/random.h>

#include <array>
#include <cstdlib>

namespace quillmere {

// From the system's source: GLib's generator goes on alike in a process and in its fork, and the
// two would give their events the same identifiers.
std::string CFUUIDCreateString() {
  constexpr const char* digits = "0123456789ABCDEF";
  constexpr std::size_t versionByte = 6;
  constexpr std::size_t variantByte = 8;
  std::array<unsigned char, 16> bytes{};
  if (::getentropy(bytes.data(), bytes.size()) != 0) std::abort();  // no system lacks it
  bytes[versionByte] = static_cast<unsigned char>((bytes[versionByte] & 0x0fU) | 0x40U);
  bytes[variantByte] = static_cast<unsigned char>((bytes[variantByte] & 0x3fU) | 0x80U);
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += digits[bytes[i] / 16];
    text += digits[bytes[i] % 16];
  }
  return text;
}

}  // namespace quillmere
