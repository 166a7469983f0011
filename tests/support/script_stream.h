// Stdio streams that behave on command: input that comes in pieces, blocks, fails or ends; output that is collected,
// cut short, blocked or refused. They have no descriptor.
//
//   ScriptInput input;
//   input.bytes("GET / HT").hold().bytes("TP/1.1\r\n");   // "GET / HT", then EAGAIN until release(), ... end of file
//
//   ScriptOutput output;
//   output.refuseAt(10, EPIPE);                           // takes ten bytes, then fails
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>

// Kills the test program when the scope takes this long: a loop that spins cannot be told otherwise.
class SpinGuard {
 public:
  explicit SpinGuard(unsigned seconds = 60) { alarm(seconds); }
  ~SpinGuard() { alarm(0); }
  SpinGuard(const SpinGuard&) = delete;
  SpinGuard& operator=(const SpinGuard&) = delete;
};

// An input stream that plays a script and then is at its end.
class ScriptInput {
 public:
  ScriptInput() {
    cookie_io_functions_t functions{};
    functions.read = read;
    stream_ = fopencookie(this, "r", functions);
    if (stream_ == nullptr) abort();
  }
  explicit ScriptInput(std::string_view text) : ScriptInput() { bytes(text); }
  ~ScriptInput() { fclose(stream_); }
  ScriptInput(const ScriptInput&) = delete;
  ScriptInput& operator=(const ScriptInput&) = delete;

  // These bytes, in as many reads as it takes, but never together with those of the next step.
  ScriptInput& bytes(std::string_view text) {
    if (!text.empty()) steps_.push_back({Step::kBytes, std::string(text), 0});
    return *this;
  }
  // One read fails.
  ScriptInput& error(int number) {
    steps_.push_back({Step::kError, {}, number});
    return *this;
  }
  // Reads would block, or fail with another error, until release().
  ScriptInput& hold(int number = EAGAIN) {
    steps_.push_back({Step::kHold, {}, number});
    return *this;
  }
  // Each byte on its own, with a hold() behind it.
  ScriptInput& trickle(std::string_view text) {
    for (size_t at = 0; at < text.size(); ++at) bytes(text.substr(at, 1)).hold();
    return *this;
  }
  // Reads without a buffer of stdio's own: each asks the script for just what its caller wants.
  ScriptInput& unbuffered() {
    setvbuf(stream_, nullptr, _IONBF, 0);
    return *this;
  }
  // Leaves this errno behind every read that succeeds, and the one that meets the end.
  ScriptInput& staleErrno(int number) {
    staleErrno_ = number;
    return *this;
  }

  // Nothing is left of the script.
  bool over() const { return steps_.empty(); }
  bool held() const { return !steps_.empty() && steps_.front().kind == Step::kHold; }
  void release() {
    if (held()) steps_.pop_front();
  }

  FILE* stream() { return stream_; }
  // How many reads have reached the script.
  int reads() const { return reads_; }
  // Bytes of the script that stdio has not asked for.
  size_t pending() const {
    size_t bytes = 0;
    for (const Step& step : steps_) bytes += step.text.size();
    return bytes;
  }
  // What would be read next, up to the first error or the end.
  std::string rest() {
    clearerr(stream_);
    std::string rest;
    for (int byte = getc(stream_); byte != EOF; byte = getc(stream_)) rest.push_back(static_cast<char>(byte));
    return rest;
  }

 private:
  struct Step {
    enum Kind { kBytes, kError, kHold } kind;
    std::string text;
    int error;
  };

  ssize_t next(char* buffer, size_t size) {
    ++reads_;
    if (steps_.empty()) return succeed(0);
    Step& step = steps_.front();
    if (step.kind == Step::kBytes) {
      const size_t count = std::min(size, step.text.size());
      std::memcpy(buffer, step.text.data(), count);
      step.text.erase(0, count);
      if (step.text.empty()) steps_.pop_front();
      return succeed(count);
    }
    errno = step.error;
    if (step.kind == Step::kError) steps_.pop_front();
    return -1;
  }
  ssize_t succeed(size_t count) const {
    if (staleErrno_ != 0) errno = staleErrno_;
    return static_cast<ssize_t>(count);
  }
  static ssize_t read(void* self, char* buffer, size_t size) {
    return static_cast<ScriptInput*>(self)->next(buffer, size);
  }

  FILE* stream_;
  std::deque<Step> steps_;
  int staleErrno_ = 0;
  int reads_ = 0;
};

// An output stream that collects what it takes: everything, unless told otherwise.
class ScriptOutput {
 public:
  static constexpr size_t kNoLimit = static_cast<size_t>(-1);

  ScriptOutput() {
    cookie_io_functions_t functions{};
    functions.write = write;
    stream_ = fopencookie(this, "w", functions);
    if (stream_ == nullptr) abort();
  }
  ~ScriptOutput() {
    accept();
    fclose(stream_);
  }
  ScriptOutput(const ScriptOutput&) = delete;
  ScriptOutput& operator=(const ScriptOutput&) = delete;

  // Takes at most this many bytes of each write; a write that is cut short leaves EAGAIN in errno.
  ScriptOutput& atMost(size_t bytes) {
    perWrite_ = bytes;
    return *this;
  }
  // Takes this many bytes in total; writes behind them fail, until accept().
  ScriptOutput& refuseAt(size_t total, int error) {
    limit_ = total;
    error_ = error;
    return *this;
  }
  // As refuseAt(), with EAGAIN.
  ScriptOutput& blockAt(size_t total) { return refuseAt(total, EAGAIN); }
  // Takes everything from now on.
  void accept() {
    perWrite_ = kNoLimit;
    limit_ = kNoLimit;
  }
  // Writes without a buffer of stdio's own: a failure shows in the write itself, not in the flush.
  ScriptOutput& unbuffered() {
    setvbuf(stream_, nullptr, _IONBF, 0);
    return *this;
  }

  FILE* stream() { return stream_; }
  // What has been taken. Bytes that wait in stdio's buffer are not among them.
  const std::string& bytes() const { return bytes_; }
  // How many writes have arrived.
  int writes() const { return writes_; }
  void clear() { bytes_.clear(); }

 private:
  // glibc wants 0 for a write that fails, and errno.
  ssize_t take(const char* buffer, size_t size) {
    ++writes_;
    const size_t room = limit_ - std::min(limit_, bytes_.size());
    const size_t count = std::min({size, perWrite_, room});
    bytes_.append(buffer, count);
    if (count < size) errno = room < std::min(size, perWrite_) ? error_ : EAGAIN;
    return static_cast<ssize_t>(count);
  }
  static ssize_t write(void* self, const char* buffer, size_t size) {
    return static_cast<ScriptOutput*>(self)->take(buffer, size);
  }

  FILE* stream_;
  std::string bytes_;
  size_t perWrite_ = kNoLimit;
  size_t limit_ = kNoLimit;
  int error_ = 0;
  int writes_ = 0;
};

// A stream into memory.
class MemoryOutput {
 public:
  MemoryOutput() : stream_(open_memstream(&text_, &size_)) {
    if (stream_ == nullptr) abort();
  }
  ~MemoryOutput() {
    fclose(stream_);
    free(text_);
  }
  MemoryOutput(const MemoryOutput&) = delete;
  MemoryOutput& operator=(const MemoryOutput&) = delete;

  FILE* stream() { return stream_; }
  // What has been written, stdio's buffer included.
  std::string text() {
    fflush(stream_);
    return std::string(text_, size_);
  }

 private:
  char* text_ = nullptr;
  size_t size_ = 0;
  FILE* stream_;
};
