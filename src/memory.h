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
