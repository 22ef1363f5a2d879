#ifndef EXAMPLES_COMMON_PROGRESSLINE_H
#define EXAMPLES_COMMON_PROGRESSLINE_H

#include <string>

namespace examples {

/// A line on standard error, when that is a terminal, that tells how far a work has come.
class ProgressLine {
 public:
  /// In place of what it told before.
  void show(const std::string& text);
  void clear();

 private:
  bool isShown_ = false;
};

}  // namespace examples

#endif
