// What a fuzz target takes its input apart with, and streams whose bytes arrive in pieces.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

// The input, from its beginning on. What is taken of an exhausted one is 0, or empty.
class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  unsigned byte() {
    if (rest_.empty()) return 0;
    const auto byte = static_cast<unsigned char>(rest_[0]);
    rest_.remove_prefix(1);
    return byte;
  }
  // A byte with their number, and so many bytes.
  std::string_view bytes(size_t most) {
    const size_t count = std::min<size_t>(byte() % (most + 1), rest_.size());
    const std::string_view bytes = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return bytes;
  }
  // Up to the separator, or everything.
  std::string_view until(std::string_view separator) {
    const size_t end = rest_.find(separator);
    const std::string_view bytes = rest_.substr(0, end);
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + separator.size());
    return bytes;
  }
  std::string_view rest() const { return rest_; }
  bool empty() const { return rest_.empty(); }

 private:
  std::string_view rest_;
};

// Bytes given in turns, again and again: what somebody does each time.
class FuzzScript {
 public:
  explicit FuzzScript(std::string_view bytes) : bytes_(bytes) {}
  unsigned next() { return bytes_.empty() ? 0 : static_cast<unsigned char>(bytes_[turn_++ % bytes_.size()]); }

 private:
  std::string_view bytes_;
  size_t turn_ = 0;
};

// An input stream whose bytes arrive in pieces of the sizes given; before each but the first one a read would block.
class CutStream {
 public:
  // Without sizes everything is there at once; a size of 0 stands for 256.
  explicit CutStream(std::string_view bytes, std::string_view sizes = {}) : bytes_(bytes), sizes_(sizes) {
    cookie_io_functions_t functions{};
    functions.read = read;
    stream_ = fopencookie(this, "r", functions);
    if (stream_ == nullptr) abort();
    setvbuf(stream_, buffer_, _IOFBF, sizeof buffer_);
    piece_ = sizes.empty() ? bytes.size() : nextSize();
  }
  ~CutStream() { fclose(stream_); }
  CutStream(const CutStream&) = delete;
  CutStream& operator=(const CutStream&) = delete;

  FILE* stream() { return stream_; }
  // What nobody has read, stdio's buffer included.
  size_t unread() const { return bytes_.size() + static_cast<size_t>(stream_->_IO_read_end - stream_->_IO_read_ptr); }

 private:
  size_t nextSize() {
    const unsigned size = sizes_.next();
    return size == 0 ? 256 : size;
  }
  static ssize_t read(void* self, char* buffer, size_t size) {
    auto* const input = static_cast<CutStream*>(self);
    if (input->bytes_.empty()) return 0;
    if (input->piece_ == 0) {
      input->piece_ = input->nextSize();
      errno = EAGAIN;
      return -1;
    }
    const size_t count = std::min({size, input->piece_, input->bytes_.size()});
    input->bytes_.copy(buffer, count);
    input->bytes_.remove_prefix(count);
    input->piece_ -= count;
    return static_cast<ssize_t>(count);
  }

  std::string_view bytes_;
  FuzzScript sizes_;
  size_t piece_;
  FILE* stream_;
  char buffer_[512];
};

// A stream that collects what is written.
class CollectingStream {
 public:
  CollectingStream() {
    cookie_io_functions_t functions{};
    functions.write = write;
    stream_ = fopencookie(this, "w", functions);
    if (stream_ == nullptr) abort();
    setvbuf(stream_, buffer_, _IOFBF, sizeof buffer_);
  }
  ~CollectingStream() { fclose(stream_); }
  CollectingStream(const CollectingStream&) = delete;
  CollectingStream& operator=(const CollectingStream&) = delete;

  FILE* stream() { return stream_; }
  const std::string& text() {
    fflush(stream_);
    return text_;
  }

 private:
  static ssize_t write(void* self, const char* buffer, size_t size) {
    static_cast<CollectingStream*>(self)->text_.append(buffer, size);
    return static_cast<ssize_t>(size);
  }

  std::string text_;
  FILE* stream_;
  char buffer_[512];
};
