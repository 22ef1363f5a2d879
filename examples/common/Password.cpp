#include "common/Password.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <iterator>

#include "common/Printable.h"
#include "common/Program.h"

namespace examples {
namespace {

// The terminal, silent as long as this lives. An interrupt waits until the terminal is as it was.
class SilentTerminal {
 public:
  SilentTerminal() : file_(::open("/dev/tty", O_RDWR | O_CLOEXEC)) {
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    ::sigprocmask(SIG_BLOCK, &interrupt, &signalsBefore_);
    interrupts_ = ::signalfd(-1, &interrupt, SFD_CLOEXEC);
    if (file_ < 0 || ::tcgetattr(file_, &before_) != 0) return;
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    silent.c_lflag |= ECHONL;
    isSilent_ = ::tcsetattr(file_, TCSAFLUSH, &silent) == 0;
  }
  SilentTerminal(const SilentTerminal&) = delete;
  SilentTerminal& operator=(const SilentTerminal&) = delete;
  ~SilentTerminal() {
    if (isSilent_) ::tcsetattr(file_, TCSAFLUSH, &before_);
    if (file_ >= 0) ::close(file_);
    if (interrupts_ >= 0) ::close(interrupts_);
    ::sigprocmask(SIG_SETMASK, &signalsBefore_, nullptr);
  }

  std::optional<std::string> lineAfter(const std::string& prompt) const {
    if (!isSilent_ || ::write(file_, prompt.data(), prompt.size()) < 0) return std::nullopt;
    std::string line;
    while (true) {
      pollfd awaited[] = {{file_, POLLIN, 0}, {interrupts_, POLLIN, 0}};
      char c = 0;
      if (::poll(awaited, std::size(awaited), -1) < 0 || awaited[1].revents != 0) break;
      if (::read(file_, &c, 1) <= 0) break;
      if (c == '\n') return line;
      line += c;
    }
    return std::nullopt;
  }

 private:
  int file_;
  int interrupts_ = -1;
  termios before_{};
  sigset_t signalsBefore_{};
  bool isSilent_ = false;
};

}  // namespace

std::optional<std::string> passwordOf(const std::optional<std::string>& user) {
  if (!user) return std::nullopt;
  if (auto password = environment("QUILLMERE_PASSWORD")) return password;
  const std::string prompt = "Password of " + printable(*user) + ": ";
  if (auto password = SilentTerminal().lineAfter(prompt)) return password;
  throw UsageProblem("there is no password and no terminal to ask for it");
}

}  // namespace examples
