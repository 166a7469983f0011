#include "common/password_prompt.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>

namespace {

constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGTTIN, SIGTTOU};
// Those that come from outside are let in only while waiting, so that none comes between a look at it and the wait.
constexpr size_t kFromOutside = 5;
constexpr size_t kLongestLine = 4096;

volatile sig_atomic_t caught = 0;

// Signals take their effect when the terminal has been restored: they only end the wait.
class CaughtSignals {
 public:
  CaughtSignals() {
    caught = 0;
    struct sigaction action {};
    action.sa_handler = [](int number) { caught = number; };
    sigemptyset(&action.sa_mask);
    sigset_t fromOutside;
    sigemptyset(&fromOutside);
    for (size_t i = 0; i < kFromOutside; ++i) sigaddset(&fromOutside, kSignals[i]);
    sigprocmask(SIG_BLOCK, &fromOutside, &mask_);
    for (size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &action, &before_[i]);
  }
  ~CaughtSignals() {
    for (size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &before_[i], nullptr);
    sigprocmask(SIG_SETMASK, &mask_, nullptr);
  }
  CaughtSignals(const CaughtSignals&) = delete;
  CaughtSignals& operator=(const CaughtSignals&) = delete;

  const sigset_t& outside() const { return mask_; }

 private:
  sigset_t mask_{};
  std::array<struct sigaction, kSignals.size()> before_{};
};

class EchoOff {
 public:
  explicit EchoOff(int terminal) : terminal_(terminal) {
    if (tcgetattr(terminal_, &before_) != 0) return;
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    silent.c_lflag |= ECHONL;
    // What was typed ahead has been shown: it is no password.
    changed_ = tcsetattr(terminal_, TCSAFLUSH, &silent) == 0;
  }
  ~EchoOff() {
    // In the background this stops the process, which goes on here in the foreground.
    while (changed_ && tcsetattr(terminal_, TCSAFLUSH, &before_) != 0 && errno == EINTR && caught != SIGTTOU) {
    }
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

 private:
  int terminal_;
  termios before_{};
  bool changed_ = false;
};

// Byte by byte: what follows the line stays for who reads next. @p mask is in force while nothing is there.
std::optional<std::string> readBytes(int from, const sigset_t* mask) {
  std::string line;
  line.reserve(kLongestLine);
  char c = '\0';
  ssize_t count = 0;
  pollfd input{from, POLLIN, 0};
  while (ppoll(&input, 1, nullptr, mask) == 1 && (count = read(from, &c, 1)) == 1 && c != '\n')
    if (line.size() < kLongestLine) line += c;
  if (caught != 0 || count < 0 || (count == 0 && line.empty())) return std::nullopt;
  return line;
}

std::optional<std::string> askOnce(const char* prompt, int terminal) {
  const CaughtSignals signals;
  const EchoOff echo(terminal);
  std::fputs(prompt, stderr);
  return readBytes(terminal, &signals.outside());
}

}  // namespace

std::optional<std::string> askPassword(const char* prompt, int terminal) {
  for (;;) {
    std::optional<std::string> line = askOnce(prompt, terminal);
    const int number = caught;
    caught = 0;
    if (number == 0) return line;
    kill(getpid(), number);
    // Only a process that was stopped, and then continued, or one that ignores the signal gets here: it asks again.
  }
}

std::optional<std::string> readLine() {
  caught = 0;
  return readBytes(STDIN_FILENO, nullptr);
}
