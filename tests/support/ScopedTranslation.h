#ifndef QUILLMERE_TESTS_SUPPORT_SCOPEDTRANSLATION_H
#define QUILLMERE_TESTS_SUPPORT_SCOPEDTRANSLATION_H

#include <libintl.h>

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/support/TemporaryFolder.h"

namespace quillmere::testing {

// A message catalogue with one text, as msgfmt writes it: header, a table each for the texts and
// their translations (length and offset), and the texts.
inline std::string messageCatalogue(const std::string& text, const std::string& translation) {
  const auto word = [](std::size_t number) {
    const auto value = static_cast<std::uint32_t>(number);
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
  };
  constexpr std::size_t header = 28;
  constexpr std::size_t table = 8;
  constexpr std::size_t texts = header + 2 * table;
  return word(0x950412de) + word(0) + word(1) + word(header) + word(header + table) + word(0) +
         word(0) + word(text.size()) + word(texts) + word(translation.size()) +
         word(texts + text.size() + 1) + text + '\0' + translation + '\0';
}

/// Has the library's string table translate one text for the length of a scope.
class ScopedTranslation {
 public:
  ScopedTranslation(const std::string& text, const std::string& translation) {
    std::filesystem::create_directories(folder_ / "de/LC_MESSAGES");
    writeFile(folder_ / "de/LC_MESSAGES/Quillmere.mo", messageCatalogue(text, translation));
    ::bindtextdomain("Quillmere", (folder_ / "").c_str());
    if (!std::setlocale(LC_ALL, "C.UTF-8")) throw std::runtime_error("no locale C.UTF-8");
    ::setenv("LANGUAGE", "de", 1);
  }
  ScopedTranslation(const ScopedTranslation&) = delete;
  ScopedTranslation& operator=(const ScopedTranslation&) = delete;
  ~ScopedTranslation() {
    ::unsetenv("LANGUAGE");
    std::setlocale(LC_ALL, "C");
  }

 private:
  TemporaryFolder folder_;
};

}  // namespace quillmere::testing

#endif
