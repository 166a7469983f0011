// krohttpd as a process of its own. KROHTTPD is the path of the program, given by the build.
//
//   Daemon daemon({"--listen", "127.0.0.1:0", "--demo"});
//   WireClient client(daemon.address());
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/wire_client.h"

// A child process whose standard output and error are kept. It is killed if it outlives the test.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& arguments) {
    int out[2];
    int err[2];
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      dup2(err[1], STDERR_FILENO);
      std::vector<char*> argv;
      for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    EXPECT_GT(pid_, 0);
    close(out[1]);
    close(err[1]);
    out_.reset(out[0]);
    err_.reset(err[0]);
    fcntl(out_.get(), F_SETFL, O_NONBLOCK);
    fcntl(err_.get(), F_SETFL, O_NONBLOCK);
  }
  ~ChildProcess() {
    if (status_) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void signal(int number) const { kill(pid_, number); }
  pid_t pid() const { return pid_; }
  bool ended() {
    read();
    int status = 0;
    if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = status;
      read();
    }
    return status_.has_value();
  }
  // "exit 0", "signal 15".
  std::string outcome() const {
    if (!status_) return "running";
    return WIFEXITED(*status_) ? "exit " + std::to_string(WEXITSTATUS(*status_))
                               : "signal " + std::to_string(WTERMSIG(*status_));
  }
  // What it has written so far.
  const std::string& output() {
    read();
    return output_;
  }
  const std::string& errors() {
    read();
    return errors_;
  }

 private:
  void read() {
    readFrom(out_, &output_);
    readFrom(err_, &errors_);
  }
  static void readFrom(const Descriptor& from, std::string* to) {
    std::array<char, 4096> buffer;
    ssize_t count;
    while ((count = ::read(from.get(), buffer.data(), buffer.size())) > 0)
      to->append(buffer.data(), static_cast<size_t>(count));
  }

  pid_t pid_ = -1;
  Descriptor out_;
  Descriptor err_;
  std::string output_;
  std::string errors_;
  std::optional<int> status_;
};

// Waits until condition holds; clients send and receive meanwhile. The bound is for tests that fail.
template <typename Condition>
bool waitUntil(Condition condition, int seconds = 20) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (true) {
    WireClient::pumpAll();
    if (condition()) return true;
    if (std::chrono::steady_clock::now() > limit) return false;
    poll(nullptr, 0, 1);
  }
}

inline std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

inline std::vector<std::string> daemonCommand(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), KROHTTPD);
  return arguments;
}

// A krohttpd that listens. When the test has not ended it before, it is asked to end, and must end well.
class Daemon {
 public:
  explicit Daemon(const std::vector<std::string>& arguments, size_t listeners = 1)
      : Daemon(AsItIs{}, daemonCommand(arguments), listeners) {}
  // A command that becomes krohttpd.
  struct AsItIs {};
  Daemon(AsItIs, const std::vector<std::string>& command, size_t listeners = 1) : process_(command) {
    EXPECT_TRUE(waitUntil([&] { return linesOf(process_.output()).size() >= listeners || process_.ended(); }));
    EXPECT_FALSE(process_.ended()) << process_.errors();
    for (const std::string& line : linesOf(process_.output())) {
      constexpr std::string_view kStart = "krohttpd: listening on ";
      if (line.rfind(kStart, 0) == 0) listeners_.push_back(line.substr(kStart.size()));
    }
    EXPECT_EQ(listeners_.size(), listeners) << process_.output();
  }
  ~Daemon() {
    if (process_.ended()) return;
    process_.signal(SIGTERM);
    EXPECT_TRUE(waitUntil([&] { return process_.ended(); }));
    EXPECT_EQ(process_.outcome(), "exit 0") << process_.errors();
  }

  ChildProcess& process() { return process_; }
  // What the i-th "listening on" line says.
  const std::string& listener(size_t i = 0) const { return listeners_.at(i); }
  WireAddress address(size_t i = 0) const {
    const std::string& text = listeners_.at(i);
    if (text.rfind("unix:", 0) == 0) return WireAddress::local(text.substr(5));
    const size_t host = text.find("//") + 2;
    const size_t colon = text.rfind(':');
    std::string name = text.substr(host, colon - host);
    if (name.front() == '[') name = name.substr(1, name.size() - 2);
    return WireAddress::tcp(static_cast<unsigned>(atoi(text.c_str() + colon + 1)), name);
  }

 private:
  ChildProcess process_;
  std::vector<std::string> listeners_;
};
