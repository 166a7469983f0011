// Ownership of memory and streams that come from, or go to, the C side.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>

struct FreeDeleter {
  void operator()(void* memory) const { std::free(memory); }
};

// Owns memory of the C allocator.
template <typename T>
using CPointer = std::unique_ptr<T, FreeDeleter>;

// Owns a text of the C allocator.
using CString = CPointer<char>;

// A zeroed T of the C allocator, or null with errno.
template <typename T>
CPointer<T> makeZeroed() {
  return CPointer<T>(static_cast<T*>(std::calloc(1, sizeof(T))));
}

// A text that is printed piece by piece.
class TextStream {
 public:
  TextStream() : stream_(open_memstream(&text_, &size_)) {}
  ~TextStream() {
    if (stream_ != nullptr) std::fclose(stream_);
    std::free(text_);
  }
  TextStream(const TextStream&) = delete;
  TextStream& operator=(const TextStream&) = delete;

  // False when memory is short; nothing may be printed then.
  explicit operator bool() const { return stream_ != nullptr; }
  FILE* stream() { return stream_; }
  // What was printed, null when not all of it could be kept. Valid as long as this, until more is printed.
  const char* finish() { return std::fflush(stream_) == 0 ? text_ : nullptr; }

 private:
  char* text_ = nullptr;
  size_t size_ = 0;
  FILE* stream_;
};
