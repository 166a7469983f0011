// What stdio holds of a stream that nobody has read yet, and how to tell a handler that has read something.
#pragma once

#include <krohttp/message.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

inline size_t heldBytes(const FILE* stream) {
  return stream != nullptr ? static_cast<size_t>(stream->_IO_read_end - stream->_IO_read_ptr) : 0;
}

// A stream keeps telling of an error that a later read has got past, as of want of data that came in the meantime.
// After this it tells of the reads to come; an end it has met stays.
inline void forgetError(FILE* stream) {
  if (ferror_unlocked(stream) && !feof_unlocked(stream)) clearerr_unlocked(stream);
}

// What has been read of a message's body and waits for somebody to take it: no read event tells of it.
inline size_t heldOfBody(const HttpMessage& message) { return heldBytes(message.body) + message.bodyAhead; }

// Where reading a message's body stands: unchanged after a handler that has read nothing. Positions in a buffer alone
// do not tell, they come round.
struct ReadMark {
  const char* body;
  uint32_t bodyReads;
  const char* connection;
  bool operator==(const ReadMark&) const = default;
};

inline ReadMark readMark(const HttpMessage& message) {
  return {message.body != nullptr ? message.body->_IO_read_ptr : nullptr, message.bodyReads,
          message.stream->_IO_read_ptr};
}
