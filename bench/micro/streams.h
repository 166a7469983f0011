// The streams of a connection, without the connection: input that never ends, output that goes nowhere. Like a
// peer's they are cookie streams that nobody locks, with a buffer of 16 KiB.
#pragma once

#include <stdio_ext.h>
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

constexpr size_t kConnectionBuffer = 16384;

struct StreamCloser {
  void operator()(FILE* stream) const { std::fclose(stream); }
};

class BenchStream {
 public:
  BenchStream(const BenchStream&) = delete;
  BenchStream& operator=(const BenchStream&) = delete;

  FILE* get() { return stream_.get(); }

 protected:
  BenchStream(const char* mode, const cookie_io_functions_t& functions)
      : buffer_(new char[kConnectionBuffer]), stream_(fopencookie(this, mode, functions)) {
    if (!stream_) std::abort();
    __fsetlocking(stream_.get(), FSETLOCKING_BYCALLER);
    std::setvbuf(stream_.get(), buffer_.get(), _IOFBF, kConnectionBuffer);
  }
  ~BenchStream() = default;

 private:
  std::unique_ptr<char[]> buffer_;
  std::unique_ptr<FILE, StreamCloser> stream_;
};

// The same text over and over.
class EndlessInput : public BenchStream {
 public:
  explicit EndlessInput(std::string_view text)
      : BenchStream("r", {read, nullptr, nullptr, nullptr}), length_(text.size()) {
    // A whole buffer can be copied from any place within the first text.
    while (text_.size() < length_ + kConnectionBuffer) text_ += text;
  }

 private:
  static ssize_t read(void* cookie, char* buffer, size_t size) {
    auto* const input = static_cast<EndlessInput*>(static_cast<BenchStream*>(cookie));
    const size_t count = size < kConnectionBuffer ? size : kConnectionBuffer;
    std::memcpy(buffer, input->text_.data() + input->at_, count);
    input->at_ = (input->at_ + count) % input->length_;
    return static_cast<ssize_t>(count);
  }

  std::string text_;
  size_t length_;
  size_t at_ = 0;
};

class DiscardingOutput : public BenchStream {
 public:
  DiscardingOutput() : BenchStream("w", {nullptr, write, nullptr, nullptr}) {}

 private:
  static ssize_t write(void*, const char*, size_t size) { return static_cast<ssize_t>(size); }
};
