#include <krohttp/body.h>
#include <krohttp/message.h>

#include <stdio_ext.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "memory.h"
#include "message_internal.h"

#define TRACE_ZONE "http-body"
#include "trace.h"

namespace {

constexpr uint32_t kReadAhead = 65536;
constexpr size_t kChunkLine = 256;
// The largest chunk whose size line still fits its ten bytes.
constexpr size_t kLargestChunk = 0xFFFFFFF;

// --- contexts --------------------------------------------------------------------------------------------------------

// A body that ends after a number of bytes, or with the connection.
struct NormalBody {
  HttpMessage* message;
  FILE* parent;     // the connection's stream, borrowed
  FILE* stream;     // the body stream itself
  uint32_t length;  // 0: until the connection closes (reading), or no limit (writing)
  uint32_t done;
  bool begun;    // something has been transferred: done may have come round to 0
  bool clipped;  // the announced length does not fit
  bool empty;    // nothing comes, although length is 0: what follows is another message
};

// A body of known length that can be read again from up to 64 KiB back.
struct BufferedBody : NormalBody {
  uint32_t received;  // bytes taken from the parent: never more than the body has, what follows is another message's
  uint32_t position;  // next byte to hand out
  uint32_t fill;
  char buffer[kReadAhead];
};

enum ChunkState : int {
  CHUNK_INIT = 0,
  CHUNK_SIZE = 1,
  CHUNK_DATA = 2,
  CHUNK_EOL = 3,
  CHUNK_DONE = 4,
  CHUNK_ERROR = 5
};

struct ChunkedBody {
  HttpMessage* message;
  FILE* parent;
  FILE* stream;
  ChunkState readerState;
  char line[kChunkLine];  // the size line collected so far
  uint32_t chunkSize;     // bytes still to come of the chunk
  int lineLength;
  char* output;         // of the read under way
  uint32_t wanted;      // what it still wants
  uint32_t outputFill;  // what it has got
  int eolCount;         // characters of a CRLF taken
  bool lastChunk;
};

// --- helpers ---------------------------------------------------------------------------------------------------------

// The parent has nothing more now. At its end errno must not be a stale EAGAIN, or the message would wait for ever.
int parentStopped(HttpMessage* message, FILE* parent) {
  const int error = feof_unlocked(parent) ? 0 : errno;
  const int result = msg_checkNeedMoreData(message, error);
  errno = error;
  return result;
}

ssize_t shortCount(HttpMessage* message, size_t count) {
  const int error = errno;
  msg_checkNeedMoreData(message, error);
  errno = error;
  return count > 0 ? static_cast<ssize_t>(count) : -1;
}

bool atEnd(const HttpMessage* message) { return message->state == HTTP_MSG_DONE; }

ssize_t endOfBody() {
  TRACE_INFO("we are already at end of body");
  errno = 0;
  return 0;
}

uint32_t amountToRead(const NormalBody* body, size_t size) {
  const auto wanted = static_cast<uint32_t>(std::min<size_t>(size, UINT32_MAX));
  return body->length != body->done ? min(wanted, body->length - body->done) : wanted;
}

void traceRead(const NormalBody* body, ssize_t count, size_t size, const char* data, uint32_t amount) {
  TRACE_INFO("read %d/%d \"%.*s\" (%u, %u), toread: %u", static_cast<int>(count), static_cast<int>(size),
             static_cast<int>(std::max<ssize_t>(count, 0)), data, body->done, body->length, amount);
}

// An announced length that was not reached leaves the message cut, and so does a connection that fails.
bool isCut(const NormalBody* body, int error) {
  const bool failed = error != 0 && error != EAGAIN && ferror_unlocked(body->parent);
  return body->clipped || failed || (body->length != 0 && body->done != body->length);
}

void endReached(HttpMessage* message, ssize_t count) {
  const int error = errno;
  TRACE_INFO("end of body reached (read %i: %s)", static_cast<int>(count), std::strerror(error));
  message->state = HTTP_MSG_DONE;
  errno = 0;
}

// Counts what has been read of a body. False when it is more than the message may have; the read has failed then.
bool countRead(HttpMessage* message, size_t count) {
  message->bodyReads += count > 0;
  message->bodyCount += count;
  if (message->bodyLimit == 0 || message->bodyCount <= message->bodyLimit) return true;
  TRACE_ERROR("body is longer than %" PRIu64 " bytes", message->bodyLimit);
  message->refusal = HTTP_MSG_LARGE_BODY;
  message->state = HTTP_MSG_FAILED;
  message->bodyCut = 1;
  errno = EFBIG;
  return false;
}

ssize_t emptyBody(HttpMessage* message) {
  errno = 0;
  endReached(message, 0);
  return 0;
}

// Ends the body's life. What an outgoing body leaves is complete; an incoming one may be closed before its end, and
// then the rest of it is still on the connection.
void bodyClosed(HttpMessage* message, int state) {
  const bool transferring = message->state == HTTP_MSG_BODY;
  if (transferring && message->mode == HTTP_MSG_READING) message->bodyCut = 1;
  message->state = state;
  message->body = nullptr;
  message->bodyAhead = 0;
  if (transferring) msg_completed(message);
}

// --- normal ----------------------------------------------------------------------------------------------------------

ssize_t body_read_normal(void* cookie, char* buffer, size_t size) {
  auto* const body = static_cast<NormalBody*>(cookie);
  HttpMessage* const message = body->message;
  const uint32_t amount = amountToRead(body, size);
  message->needMoreData = 0;
  if (atEnd(message)) return endOfBody();
  if (body->empty) return emptyBody(message);

  errno = 0;
  const size_t count = fread_unlocked(buffer, 1, amount, body->parent);
  const int error = errno;
  body->done += static_cast<uint32_t>(count);
  body->begun |= count > 0;
  if (!countRead(message, count)) return -1;
  const bool parentEnded = feof_unlocked(body->parent);
  traceRead(body, static_cast<ssize_t>(count), size, buffer, amount);
  errno = error;
  const bool atLength = body->done == body->length && (body->length != 0 || !body->begun);
  if (count < amount && !parentEnded && !atLength) return shortCount(message, count);

  if ((body->length != 0 && body->done == body->length) || (body->length == 0 && parentEnded) || count == 0) {
    if (isCut(body, error)) message->bodyCut = 1;
    endReached(message, static_cast<ssize_t>(count));
  }
  return static_cast<ssize_t>(count);
}

ssize_t body_write_normal(void* cookie, const char* buffer, size_t size) {
  auto* const body = static_cast<NormalBody*>(cookie);
  HttpMessage* const message = body->message;
  ++message->bodyWrites;
  if (message->bodyless) return static_cast<ssize_t>(size);
  // Cut against the whole length, not against what remains of it.
  const size_t amount = body->length != 0 ? std::min<size_t>(size, body->length) : size;
  message->needMoreData = 0;
  if (atEnd(message)) return -1;

  errno = 0;
  const size_t count = fwrite_unlocked(buffer, 1, amount, body->parent);
  body->done += static_cast<uint32_t>(count);
  if (count < amount || fflush_unlocked(body->parent) != 0) return shortCount(message, count);
  if (body->length != 0 && body->done == body->length) {
    message->state = HTTP_MSG_DONE;
    msg_completed(message);
  }
  return static_cast<ssize_t>(count);
}

int body_seek_refused(void*, off64_t*, int) { return -1; }

int body_close_normal(void* cookie) {
  const CPointer<NormalBody> body(static_cast<NormalBody*>(cookie));
  bodyClosed(body->message, HTTP_MSG_DONE);
  return 0;
}

// --- buffered --------------------------------------------------------------------------------------------------------

// Reads ahead behind what the buffer holds; never past the body's end.
size_t readAhead(BufferedBody* body) {
  const uint32_t space = kReadAhead - body->fill;
  const uint32_t amount = body->length != 0 ? min(space, body->length - body->received) : space;
  errno = 0;
  if (amount == 0) return 0;
  const size_t count = fread_unlocked(body->buffer + body->fill, 1, amount, body->parent);
  body->fill += static_cast<uint32_t>(count);
  body->received += static_cast<uint32_t>(count);
  return count;
}

bool neverWaits(const HttpMessage* message) { return message->inParts || message->neverWaits; }

// Tops the buffer up for a read of @p amount bytes, waiting up to ten times 10 ms for what is on its way. Who takes the
// body apart as it comes, or has others to serve, gets what is there.
void topUp(BufferedBody* body, uint32_t amount) {
  constexpr int kAttempts = 10;
  constexpr useconds_t kPause = 10000;
  std::memmove(body->buffer, body->buffer + body->position, body->fill - body->position);
  body->fill -= body->position;
  body->position = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    readAhead(body);
    if (errno != EAGAIN || body->fill >= amount || neverWaits(body->message)) break;
    usleep(kPause);
    errno = EAGAIN;
  }
}

ssize_t nothingBuffered(BufferedBody* body) {
  HttpMessage* const message = body->message;
  const int error = errno;
  // Who does not wait runs dry each time.
  if (!neverWaits(message) || error != EAGAIN) TRACE_ERROR("Read length is zero.");
  errno = error;
  if (!feof_unlocked(body->parent)) {
    msg_checkNeedMoreData(message, error);
    errno = error;
  } else {
    message->state = HTTP_MSG_FAILED;  // or somebody would wait for more
    errno = 0;
  }
  return -1;
}

ssize_t body_read_buffered(void* cookie, char* buffer, size_t size) {
  auto* const body = static_cast<BufferedBody*>(cookie);
  HttpMessage* const message = body->message;
  const uint32_t amount = amountToRead(body, size);
  message->needMoreData = 0;
  if (atEnd(message) && body->position == body->fill) return endOfBody();
  if (body->empty) return emptyBody(message);

  int error = 0;
  if (body->position == body->fill) {
    body->position = body->fill = 0;
    readAhead(body);
    error = errno;
  }
  if (body->fill == 0) return nothingBuffered(body);
  if (body->fill - body->position < amount) {
    topUp(body, amount);
    error = errno;
  } else {
    error = 0;
  }
  const uint32_t count = min(body->fill - body->position, amount);
  std::memcpy(buffer, body->buffer + body->position, count);
  body->done += count;
  body->position += count;
  message->bodyAhead = body->fill - body->position;
  const size_t isNew = body->done > message->bodyCount ? body->done - message->bodyCount : 0;  // not read before
  if (!countRead(message, isNew)) return -1;
  traceRead(body, count, size, buffer, amount);

  const bool usedUp = body->position == body->fill;
  errno = error;
  if (count < amount && usedUp && !feof_unlocked(body->parent) && body->done != body->length)
    return shortCount(message, count);
  if (body->length != 0 && body->done == body->length && usedUp) endReached(message, count);
  return count;
}

int body_seek_buffered(void* cookie, off64_t* offset, int whence) {
  auto* const body = static_cast<BufferedBody*>(cookie);
  if (whence != SEEK_CUR) {
    TRACE_ERROR("seek mode not supported");
    return -1;
  }
  if (body->fill == 0) return -1;
  const int64_t position = body->position;
  body->position = static_cast<uint32_t>(position + std::clamp<int64_t>(*offset, -position, body->fill - position));
  body->message->bodyAhead = body->fill - body->position;
  body->done += static_cast<uint32_t>(*offset);
  *offset = body->position;
  return 0;
}

int body_close_buffered(void* cookie) {
  const CPointer<BufferedBody> body(static_cast<BufferedBody*>(cookie));
  bodyClosed(body->message, HTTP_MSG_DONE);
  return 0;
}

// --- chunked (RFC 9112 section 7.1, without extensions and trailers) -------------------------------------------------

int chunkFailed(ChunkedBody* body, int error) {
  body->readerState = CHUNK_ERROR;
  errno = error;
  return -1;
}

// The parent has run dry: 0 to wait for more, -1 when no more will come.
int chunkStopped(ChunkedBody* body) {
  const int result = parentStopped(body->message, body->parent);
  return result == 0 && !body->message->needMoreData ? -1 : result;
}

bool sizeLineComplete(const ChunkedBody* body) {
  return body->lineLength >= 2 && body->line[body->lineLength - 2] == '\r' && body->line[body->lineLength - 1] == '\n';
}

// The size line of a strict message: digits and CRLF, and a size that can be counted.
bool isSizeLineInOrder(const ChunkedBody* body) {
  const std::string_view line(body->line, static_cast<size_t>(body->lineLength));
  const std::string_view digits = line.substr(0, line.size() - 2);
  if (digits.empty() || digits.find_first_of("\r\n") != std::string_view::npos) return false;
  const size_t significant = digits.find_first_not_of('0');
  constexpr size_t kMostDigits = 8;
  return significant == std::string_view::npos || digits.size() - significant <= kMostDigits;
}

// What came is no chunk: to a strict reader a reason to refuse the message.
int badChunk(ChunkedBody* body, int error) {
  if (body->message->strict) {
    TRACE_ERROR("message is refused: chunk");
    body->message->refusal = HTTP_MSG_BAD_CHUNK;
  }
  return chunkFailed(body, error);
}

void takeChunkSize(ChunkedBody* body) {
  body->line[body->lineLength - 2] = '\0';
  TRACE_INFO("chunk size is %s", body->line);
  body->chunkSize = static_cast<uint32_t>(std::strtoul(body->line, nullptr, 16));
  if (body->chunkSize == 0) body->lastChunk = true;
  body->lineLength = 0;
  body->readerState = CHUNK_DATA;
}

int readChunkSize(ChunkedBody* body) {
  TRACE_INFO("reading chunk size");
  for (;;) {
    if (sizeLineComplete(body)) {
      if (body->message->strict && !isSizeLineInOrder(body)) return badChunk(body, EBADMSG);
      takeChunkSize(body);
      return 0;
    }
    if (body->lineLength > static_cast<int>(kChunkLine) - 1) {
      TRACE_INFO("unable to parse chunk size");
      return badChunk(body, EBADMSG);
    }
    errno = 0;
    const int c = getc_unlocked(body->parent);
    if (c == EOF) return chunkStopped(body);
    // Neither extensions nor blanks are taken.
    if (!std::isxdigit(c) && c != '\r' && c != '\n') {
      TRACE_ERROR("unable to parse chunk size (invalid char %c in %.*s)", c, body->lineLength, body->line);
      return badChunk(body, EBADMSG);
    }
    body->line[body->lineLength++] = static_cast<char>(c);
  }
}

int readChunkData(ChunkedBody* body) {
  const uint32_t amount = min(body->chunkSize, body->wanted);
  TRACE_INFO("reading %u bytes from chunk", amount);
  errno = 0;
  const auto count = static_cast<uint32_t>(fread_unlocked(body->output + body->outputFill, 1, amount, body->parent));
  body->outputFill += count;
  body->wanted -= count;
  body->chunkSize -= count;
  if (count < amount) return chunkStopped(body);
  if (body->chunkSize == 0) {
    body->readerState = CHUNK_EOL;
    body->eolCount = 0;
  }
  return 0;
}

int readChunkEnd(ChunkedBody* body) {
  while (body->eolCount < 2) {
    errno = 0;
    const int c = getc_unlocked(body->parent);
    if (c == EOF) return chunkStopped(body);
    if (c != (body->eolCount == 0 ? '\r' : '\n')) {
      TRACE_ERROR("unable to read chunk, invalid format");
      return badChunk(body, EBADF);
    }
    ++body->eolCount;
  }
  body->eolCount = 0;
  body->readerState = CHUNK_SIZE;
  if (body->lastChunk) {
    TRACE_INFO("EOF reached");
    body->message->state = HTTP_MSG_DONE;
    body->readerState = CHUNK_DONE;
  }
  return 0;
}

void startChunks(ChunkedBody* body) {
  body->lineLength = 0;
  body->lastChunk = false;
  body->readerState = CHUNK_SIZE;
}

// One step of the reader. False when there is none to take any more.
bool stepChunks(ChunkedBody* body) {
  int result = 0;
  switch (body->readerState) {
    case CHUNK_INIT:
      TRACE_INFO("handling state init");
      startChunks(body);
      break;
    case CHUNK_SIZE:
      TRACE_INFO("handling state chunk size");
      result = readChunkSize(body);
      break;
    case CHUNK_DATA:
      TRACE_INFO("handling state chunk");
      result = readChunkData(body);
      break;
    case CHUNK_EOL:
      TRACE_INFO("handling state eol");
      result = readChunkEnd(body);
      break;
    case CHUNK_DONE:
      TRACE_INFO("handling state done");
      return false;
    case CHUNK_ERROR:
      TRACE_INFO("handling state error");
      return false;
  }
  if (result < 0) body->readerState = CHUNK_ERROR;
  return true;
}

ssize_t body_read_chunked(void* cookie, char* buffer, size_t size) {
  auto* const body = static_cast<ChunkedBody*>(cookie);
  HttpMessage* const message = body->message;
  TRACE_INFO("trying to read %u bytes", static_cast<unsigned>(size));
  message->needMoreData = 0;
  body->output = buffer;
  body->wanted = static_cast<uint32_t>(std::min<size_t>(size, UINT32_MAX));
  body->outputFill = 0;
  while (body->outputFill < size && !message->needMoreData && stepChunks(body)) {
  }
  TRACE_INFO("read %u bytes", body->outputFill);
  if (!countRead(message, body->outputFill)) return -1;
  errno = message->needMoreData ? EAGAIN : body->readerState == CHUNK_ERROR ? EBADMSG : 0;
  return errno == 0 || body->outputFill > 0 ? static_cast<ssize_t>(body->outputFill) : -1;
}

ssize_t body_write_chunked(void* cookie, const char* buffer, size_t size) {
  auto* const body = static_cast<ChunkedBody*>(cookie);
  HttpMessage* const message = body->message;
  ++message->bodyWrites;
  if (message->bodyless) return static_cast<ssize_t>(size);
  if (size == 0) return 0;  // a chunk of no bytes would be the last one

  const size_t amount = std::min(size, kLargestChunk);
  TRACE_INFO("sending chunk of size %u", static_cast<unsigned>(amount));
  char line[10];
  const auto lineLength =
      static_cast<size_t>(std::snprintf(line, sizeof line, "%X\r\n", static_cast<unsigned>(amount)));
  errno = 0;
  if (fwrite_unlocked(line, 1, lineLength, body->parent) < lineLength) {
    TRACE_INFO("unable to write chunk size");
    return shortCount(message, 0);
  }
  const size_t count = fwrite_unlocked(buffer, 1, amount, body->parent);
  if (count < amount) {
    TRACE_INFO("unable to write chunk data");
    return shortCount(message, count);
  }
  if (fwrite_unlocked("\r\n", 1, 2, body->parent) < 2) {
    TRACE_INFO("unable to write chunk EOL");
    return shortCount(message, count);
  }
  if (fflush_unlocked(body->parent) != 0) msg_checkNeedMoreData(message, errno);
  if (amount == size) return static_cast<ssize_t>(size);
  const ssize_t rest = body_write_chunked(body, buffer + amount, size - amount);
  return static_cast<ssize_t>(amount) + std::max<ssize_t>(rest, 0);
}

int body_close_chunked(void* cookie) {
  const CPointer<ChunkedBody> body(static_cast<ChunkedBody*>(cookie));
  HttpMessage* const message = body->message;
  int result = 0;
  if (message->mode == HTTP_MSG_WRITING && message->state == HTTP_MSG_BODY && !message->bodyless) {
    constexpr std::string_view kLastChunk = "0\r\n\r\n";
    TRACE_INFO("sending last chunk");
    if (fwrite_unlocked(kLastChunk.data(), 1, kLastChunk.size(), body->parent) < kLastChunk.size() ||
        fflush_unlocked(body->parent) != 0) {
      TRACE_ERROR("unable to write last body chunk");
      result = -1;
    }
  }
  bodyClosed(message, result < 0 ? HTTP_MSG_FAILED : HTTP_MSG_DONE);
  return result;
}

// --- opening ---------------------------------------------------------------------------------------------------------

// stdio takes a negative count for a very large one: a refused write is one of no bytes there.
template <ssize_t (*write)(void*, const char*, size_t)>
ssize_t countWritten(void* cookie, const char* buffer, size_t size) {
  return std::max<ssize_t>(write(cookie, buffer, size), 0);
}

constexpr cookie_io_functions_t kNormal{body_read_normal, countWritten<body_write_normal>, body_seek_refused,
                                        body_close_normal};
constexpr cookie_io_functions_t kBuffered{body_read_buffered, countWritten<body_write_normal>, body_seek_buffered,
                                          body_close_buffered};
constexpr cookie_io_functions_t kChunked{body_read_chunked, countWritten<body_write_chunked>, body_seek_refused,
                                         body_close_chunked};

// Opens a stream of @p functions over a context of type Body, which the stream owns. The stream's own buffer stands
// behind the context, no larger than a body of known @p length needs.
template <typename Body>
Body* open(HttpMessage* message, FILE* parent, uint64_t length, const char* mode,
           const cookie_io_functions_t& functions) {
  const size_t bufferSize = length != 0 ? std::min<uint64_t>(length, BUFSIZ) : BUFSIZ;
  CPointer<Body> body(static_cast<Body*>(std::malloc(sizeof(Body) + bufferSize)));
  if (!body) return nullptr;
  std::memset(body.get(), 0, sizeof(Body));
  if (message->state >= HTTP_MSG_DONE) {
    TRACE_ERROR("body has already been opened for this message");
    errno = EINVAL;
    return nullptr;
  }
  body->message = message;
  body->parent = parent;
  body->stream = fopencookie(body.get(), mode, functions);
  if (body->stream == nullptr) return nullptr;
  __fsetlocking(body->stream, FSETLOCKING_BYCALLER);
  std::setvbuf(body->stream, reinterpret_cast<char*>(body.get() + 1), _IOFBF, bufferSize);
  message->state = HTTP_MSG_BODY;
  return body.release();
}

template <typename Body>
FILE* openOfLength(HttpMessage* message, FILE* parent, uint64_t length, const char* mode,
                   const cookie_io_functions_t& functions) {
  Body* const body = open<Body>(message, parent, length, mode, functions);
  if (body == nullptr) return nullptr;
  body->length = static_cast<uint32_t>(length);
  body->clipped = length > UINT32_MAX;
  // Who passes it on has announced it as empty, and a form of no bytes is none.
  const bool isExact = message->strict || message->relayed || message->inParts;
  body->empty = length == 0 && isExact && message->bodyType == HTTP_BODY_MULTIPART && message->mode == HTTP_MSG_READING;
  return body->stream;
}

struct BodyKind {
  HttpBodyType type;
  uint64_t length;
};

// Whether the main type is exactly "multipart". Other types are told apart without parsing them whole.
bool isMultipart(HttpMessage* message) {
  constexpr std::string_view kMultipart = "multipart";
  const char* const text = msg_headerText(message, HTTP_HEADER_CONTENT_TYPE);
  if (text == nullptr || !std::string_view(text).starts_with(kMultipart)) return false;
  HttpHeader header{};
  header.code = HTTP_HEADER_CONTENT_TYPE;
  const bool multipart = http_hdrFactory(&header, text) == 0 && header.contentType.mediaType == kMultipart;
  http_hdrCleanup(&header);
  return multipart;
}

bool isChunked(const char* text) {
  HttpHeader header{};
  header.code = HTTP_HEADER_TRANSFER_ENCODING;
  const bool chunked = http_hdrFactory(&header, text) == 0 && header.transferEncoding.chunked;
  http_hdrCleanup(&header);
  return chunked;
}

BodyKind bodyKind(HttpMessage* message) {
  if (const char* const text = msg_headerText(message, HTTP_HEADER_CONTENT_LENGTH)) {
    const uint64_t length = std::strtoull(text, nullptr, 10);
    if (isMultipart(message)) return {HTTP_BODY_MULTIPART, length};
    return {length == 0 ? HTTP_BODY_NONE : HTTP_BODY_CONTENT_LENGTH, length};
  }
  if (const char* const text = msg_headerText(message, HTTP_HEADER_TRANSFER_ENCODING))
    return {isChunked(text) ? HTTP_BODY_CHUNKED : HTTP_BODY_UNKNOWN, 0};
  // RFC 9112 section 6.3: a request that says nothing has no body. What follows would be taken for one otherwise.
  const bool lasts = msg_hasBody(message) && !(message->strict && message->type == HTTP_MSG_REQUEST);
  return {lasts ? HTTP_BODY_UNTIL_CLOSE : HTTP_BODY_NONE, 0};
}

}  // namespace

extern "C" {

uint32_t min(uint32_t a, uint32_t b) { return a < b ? a : b; }

uint32_t max(uint32_t a, uint32_t b) { return a > b ? a : b; }

int body_type(HttpMessage* message) { return bodyKind(message).type; }

FILE* body_fopen(HttpMessage* message, FILE* parent, const char* mode) {
  const BodyKind kind = bodyKind(message);
  switch (kind.type) {
    case HTTP_BODY_UNKNOWN:
      TRACE_ERROR("unknown transfer encoding");
      errno = ENOSYS;
      return nullptr;
    case HTTP_BODY_NONE:
      TRACE_NOTICE("message does not have a body");
      errno = ENODATA;
      return nullptr;
    case HTTP_BODY_CONTENT_LENGTH:
      TRACE_NOTICE("opening body with content length %" PRIu64, kind.length);
      return openOfLength<NormalBody>(message, parent, kind.length, mode, kNormal);
    case HTTP_BODY_UNTIL_CLOSE:
      TRACE_NOTICE("opening body that ends when the connection is closed");
      return openOfLength<NormalBody>(message, parent, 0, mode, kNormal);
    case HTTP_BODY_CHUNKED: {
      TRACE_NOTICE("opening chunked encoded body");
      ChunkedBody* const body = open<ChunkedBody>(message, parent, 0, mode, kChunked);
      return body != nullptr ? body->stream : nullptr;
    }
    case HTTP_BODY_MULTIPART:
      TRACE_NOTICE("opening multipart body with content length %" PRIu64, kind.length);
      // Whoever only passes it on, or takes it apart, needs no way back into it, nor the wait that comes with it.
      if (message->relayed || message->inParts)
        return openOfLength<NormalBody>(message, parent, kind.length, mode, kNormal);
      return openOfLength<BufferedBody>(message, parent, kind.length, mode, kBuffered);
  }
  return nullptr;
}

}  // extern "C"
