// The seam below the message: what its neighbours use, and what it calls in the layers above.
#pragma once

#include <krohttp/message.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

struct HttpRequest;
struct HttpReply;

// --- called in the layers above --------------------------------------------------------------------------------------

extern "C" {
// Chosen by message->type; see request.h and reply.h.
KROHTTP_API int rq_factory(HttpRequest* request, char* method, char* target);
KROHTTP_API int rq_grow(HttpRequest* request, unsigned extra);
KROHTTP_API bool rq_hasBody(HttpRequest* request);
KROHTTP_API int rp_factory(HttpReply* reply, char* status, char* reason);
KROHTTP_API int rp_grow(HttpReply* reply, unsigned extra);
KROHTTP_API bool rp_hasBody(HttpReply* reply);
}

// Drop the pointers into a buffer that has been freed.
void rq_forget(HttpRequest* request);
void rp_forget(HttpReply* reply);

// A reply of a server connection has just become complete.
void srv_replyCompleted(HttpMessage* reply);

// A message that a client works on is about to be cleaned up.
void cl_messageGone(HttpMessage* message);

// --- offered to the neighbours ---------------------------------------------------------------------------------------

// Forgets what a reply was to be, of which nothing has been sent.
void rp_startOver(HttpReply* reply, uint8_t versionMajor, uint8_t versionMinor);

// msg_setStatusLine() for a finished text of @p length characters and a NUL.
int msg_setFirstLine(HttpMessage* message, const char* text, size_t length);

// What an application puts into a head must not begin another line there, and so another header or message (traced).
bool msg_isOneLine(const char* text);

// Writes @p text to @p stream. False when not all of it could be written, and without a stream.
inline bool msg_writeText(FILE* stream, std::string_view text) {
  if (stream == nullptr) {
    errno = ENOTCONN;
    return false;
  }
  return fwrite_unlocked(text.data(), 1, text.size(), stream) == text.size();
}

// The text of the first header with @p code, null when there is none. Leaves the iteration alone.
const char* msg_headerText(const HttpMessage* message, int code);

// Adds a header with name and value as they are.
int msg_headerCopy(HttpMessage* message, const char* name, const char* value, bool allowEmpty = false);

// The message has just become done: tells the owner of a reply, who may be waiting for just that.
inline void msg_completed(HttpMessage* message) {
  if (message->mode == HTTP_MSG_WRITING && message->ownerType == HTTP_MSG_OWNED_BY_SERVER) srv_replyCompleted(message);
}

// Frees the buffer; everything that pointed into it is dropped.
void msg_bufferRelease(HttpMessage* message);

// Keeps a pointer into a buffer that moves.
class BufferOffset {
 public:
  BufferOffset(char*& pointer, const char* buffer)
      : pointer_(pointer), offset_(pointer == nullptr ? -1 : pointer - buffer) {}
  void moveTo(char* buffer, ptrdiff_t shift = 0) {
    if (offset_ >= 0) pointer_ = buffer + offset_ + shift;
  }

 private:
  char*& pointer_;
  ptrdiff_t offset_;
};
