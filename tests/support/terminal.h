// Programs that talk to a terminal.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_client.h"

// A program on a terminal of its own. It is killed if it outlives the test.
class Terminal {
 public:
  explicit Terminal(const std::vector<std::string>& arguments) {
    int fd = -1;
    pid_ = forkpty(&fd, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      std::vector<char*> argv;
      for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
      argv.push_back(nullptr);
      // The tests may run under nohup, or in the background of a shell.
      for (const int number : {SIGHUP, SIGINT, SIGQUIT}) ::signal(number, SIG_DFL);
      execv(argv[0], argv.data());
      _exit(127);
    }
    EXPECT_GT(pid_, 0);
    master_.reset(fd);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
  ~Terminal() {
    if (ended()) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  void type(std::string_view text) const {
    EXPECT_EQ(write(master_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void signal(int number) const { kill(pid_, number); }
  const std::string& screen() {
    std::array<char, 1024> buffer;
    ssize_t count;
    while ((count = ::read(master_.get(), buffer.data(), buffer.size())) > 0)
      screen_.append(buffer.data(), static_cast<size_t>(count));
    return screen_;
  }
  bool shows(std::string_view text) { return screen().find(text) != std::string::npos; }
  bool echoes() const {
    termios state = {};
    EXPECT_EQ(tcgetattr(master_.get(), &state), 0);
    return (state.c_lflag & ECHO) != 0;
  }
  bool ended() {
    if (!status_) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
    }
    return status_.has_value();
  }
  bool stopped() const {
    int status = 0;
    return waitpid(pid_, &status, WNOHANG | WUNTRACED) == pid_ && WIFSTOPPED(status);
  }
  std::string outcome() const {
    if (!status_) return "running";
    return WIFEXITED(*status_) ? "exit " + std::to_string(WEXITSTATUS(*status_))
                               : "signal " + std::to_string(WTERMSIG(*status_));
  }

 private:
  pid_t pid_ = -1;
  Descriptor master_;
  std::string screen_;
  std::optional<int> status_;
};
