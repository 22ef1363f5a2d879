#include "common/ProgressLine.h"

#include <unistd.h>

#include <iostream>

#include "common/Printable.h"

namespace examples {

void ProgressLine::show(const std::string& text) {
  if (::isatty(STDERR_FILENO) != 1) return;
  isShown_ = true;
  std::cerr << "\r" << printable(text) << "\x1b[K";
}

void ProgressLine::clear() {
  if (isShown_) std::cerr << "\r\x1b[K";
  isShown_ = false;
}

}  // namespace examples
