#include <krohttp/multipart.h>
#include <krohttp/server.h>

#include <stdio_ext.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include "memory.h"
#include "reading.h"
#include "watch.h"

#define TRACE_ZONE "http-multipart"
#include "trace.h"

namespace {

constexpr size_t kBlock = 4096;
// A delimiter ends a part and its two last bytes tell what follows.
constexpr unsigned kTail = 2;
// The first boundary line has no line end of the part before it.
constexpr unsigned kLineEnd = 2;
// No form's part head comes near it; without a limit one without end would be collected whole.
constexpr uint32_t kLargestPartHead = 256 * 1024;

void expectNext(HttpMultipart* multipart, HttpMultipartState state, unsigned toRead) {
  multipart->state = state;
  multipart->toRead = toRead;
  multipart->haveRead = 0;
  std::memset(multipart->scratch, 0, multipart->delimiterLength);
}

int failed(HttpMultipart* multipart) {
  multipart->state = HTTP_MULTIPART_FAILED;
  return -1;
}

bool isInBody(const HttpMultipart* multipart) {
  switch (multipart->state) {
    case HTTP_MULTIPART_BODY_OPENED:
    case HTTP_MULTIPART_BODY:
    case HTTP_MULTIPART_GIVE_BACK:
      return true;
    default:
      return false;
  }
}

// --- reading the input -----------------------------------------------------------------------------------------------

// What can be read without asking anybody, fetched when there is nothing. Empty when nothing more comes now, errno
// tells why: EAGAIN, another error, or 0 at the end.
std::span<const char> available(FILE* input) {
  if (heldBytes(input) == 0) {
    forgetError(input);
    errno = 0;
    const int byte = getc_unlocked(input);
    if (byte == EOF) {
      if (feof_unlocked(input)) errno = 0;
      return {};
    }
    ungetc(byte, input);
  }
  return {input->_IO_read_ptr, heldBytes(input)};
}

void consume(FILE* input, size_t count) { input->_IO_read_ptr += count; }

// Reads on into scratch. True when all that is wanted is there.
bool fillScratch(HttpMultipart* multipart) {
  while (multipart->toRead > 0) {
    const std::span<const char> data = available(multipart->input);
    if (data.empty()) return false;
    const auto count = static_cast<unsigned>(std::min<size_t>(data.size(), multipart->toRead));
    std::memcpy(multipart->scratch + multipart->haveRead, data.data(), count);
    consume(multipart->input, count);
    multipart->toRead -= count;
    multipart->haveRead += count;
  }
  return true;
}

// Scratch could not be filled: waits for the rest of @p what, or fails when none will come. Returns 0 or -1.
int awaitScratch(HttpMultipart* multipart, const char* what) {
  HttpMessage* const message = multipart->message;
  const int error = errno;
  const bool waiting = msg_checkNeedMoreData(message, error) == 0 && message->needMoreData;
  errno = error;
  if (waiting) {
    TRACE_INFO("we need more data to read %s", what);
    return 0;
  }
  TRACE_ERROR("unable to read message boundary: %m");
  return failed(multipart);
}

// --- the body of a part ----------------------------------------------------------------------------------------------

// Hands the bytes of one read of a part's body out. Only a CR can begin a delimiter. What has begun like one and went
// on differently is data, up to where in it the delimiter may begin again: a boundary may hold a CR of its own.
class PartReader {
 public:
  PartReader(HttpMultipart* multipart, char* buffer, size_t size)
      : multipart_(multipart), to_(buffer), end_(buffer + size) {}

  // Returns false when there is no more now: at the delimiter, or for want of data (errno).
  bool step() {
    if (multipart_->state == HTTP_MULTIPART_GIVE_BACK) return giveBack();
    const std::span<const char> data = available(multipart_->input);
    if (data.empty()) return false;
    return multipart_->haveRead == 0 ? takePlain(data) : compare(data);
  }

  bool full() const { return to_ == end_; }
  char* position() const { return to_; }

 private:
  size_t room() const { return static_cast<size_t>(end_ - to_); }

  void put(const char* data, size_t count) {
    std::memcpy(to_, data, count);
    to_ += count;
  }

  bool takePlain(std::span<const char> data) {
    const size_t searched = std::min(data.size(), room());
    const void* const found = std::memchr(data.data(), '\r', searched);
    const size_t plain =
        found != nullptr ? static_cast<size_t>(static_cast<const char*>(found) - data.data()) : searched;
    put(data.data(), plain);
    consume(multipart_->input, plain + (found != nullptr ? 1 : 0));
    if (found != nullptr) multipart_->haveRead = 1;
    return true;
  }

  bool compare(std::span<const char> data) {
    const char* const wanted = multipart_->delimiter + multipart_->haveRead;
    const size_t count = std::min<size_t>(data.size(), multipart_->delimiterLength - multipart_->haveRead);
    const auto same = static_cast<unsigned>(std::mismatch(wanted, wanted + count, data.data()).first - wanted);
    consume(multipart_->input, same);
    multipart_->haveRead += same;
    if (multipart_->haveRead == multipart_->delimiterLength) return found();
    if (same < count) {
      multipart_->state = HTTP_MULTIPART_GIVE_BACK;
      multipart_->toRead = 0;
    }
    return true;
  }

  // With how many of the bytes that matched the delimiter begins again.
  unsigned overlap() const {
    const char* const text = multipart_->delimiter;
    unsigned count = multipart_->haveRead - 1;
    while (count > 0 && std::memcmp(text, text + multipart_->haveRead - count, count) != 0) --count;
    return count;
  }

  // What looked like the delimiter is the delimiter's own text.
  bool giveBack() {
    const unsigned again = overlap();
    const unsigned left = multipart_->haveRead - again - multipart_->toRead;
    const auto count = static_cast<unsigned>(std::min<size_t>(left, room()));
    put(multipart_->delimiter + multipart_->toRead, count);
    multipart_->toRead += count;
    if (count == left) {
      multipart_->state = HTTP_MULTIPART_BODY;
      multipart_->haveRead = again;
    }
    return true;
  }

  bool found() {
    TRACE_INFO("Boundary found");
    multipart_->state = HTTP_MULTIPART_BOUNDARY;
    multipart_->haveRead = 0;
    multipart_->toRead = kTail;
    multipart_->part.message.state = HTTP_MSG_DONE;
    errno = 0;
    return false;
  }

  HttpMultipart* multipart_;
  char* to_;
  char* end_;
};

ssize_t msgMultipart_bodyRead(void* cookie, char* buffer, size_t size) {
  auto* const multipart = static_cast<HttpMultipart*>(cookie);
  if (multipart->state == HTTP_MULTIPART_BOUNDARY) {
    TRACE_INFO("eof of body part reached");
    return 0;
  }
  if (!isInBody(multipart)) {
    TRACE_INFO("wrong state (%i)", multipart->state);
    errno = EBADMSG;
    return -1;
  }
  PartReader reader(multipart, buffer, size);
  while (!reader.full() && reader.step()) {
  }
  const int error = errno;
  const ssize_t count = reader.position() - buffer;
  if (count == 0 && size > 0 && isInBody(multipart) && ferror_unlocked(multipart->input) && error != EAGAIN) {
    TRACE_ERROR("fread() return -1");
    errno = error;
    return -1;
  }
  errno = error;
  return count;
}

ssize_t msgMultipart_bodyWrite(void*, const char*, size_t) { return 0; }

int msgMultipart_bodySeek(void*, off64_t*, int) { return 0; }

int msgMultipart_bodyClose(void* cookie) {
  HttpMessage& part = static_cast<HttpMultipart*>(cookie)->part.message;
  part.state = HTTP_MSG_DONE;
  part.body = nullptr;
  return 0;
}

bool openPartBody(HttpMultipart* multipart) {
  constexpr cookie_io_functions_t kFunctions{msgMultipart_bodyRead, msgMultipart_bodyWrite, msgMultipart_bodySeek,
                                             msgMultipart_bodyClose};
  FILE* const body = fopencookie(multipart, "r", kFunctions);
  if (body == nullptr) return false;
  __fsetlocking(body, FSETLOCKING_BYCALLER);
  multipart->part.message.body = body;
  multipart->endOffered = 0;
  return true;
}

void closePartBody(HttpMultipart* multipart) {
  if (multipart->part.message.body != nullptr) std::fclose(multipart->part.message.body);
}

// Reads and drops what nobody wants of a part's body.
void dropPartBody(HttpMultipart* multipart) {
  char block[kBlock];
  while (isInBody(multipart) && msgMultipart_bodyRead(multipart, block, sizeof block) > 0) {
  }
}

// --- the steps -------------------------------------------------------------------------------------------------------

// Tells whether a handler has cleaned the reader up, or ended its message: neither is touched any more then.
class Alive {
 public:
  explicit Alive(const HttpMultipart* multipart) : reader_(multipart), message_(multipart->message) {}
  explicit operator bool() const { return !reader_.gone() && !message_.gone(); }
  bool withoutMessage() const { return !reader_.gone() && message_.gone(); }

 private:
  Watch<HttpMultipart> reader_;
  Watch<HttpMessage> message_;
};

// The message still has the body that the reader was made for.
bool isReadable(const HttpMultipart* multipart) {
  return multipart->message != nullptr && multipart->input != nullptr && multipart->message->body == multipart->input;
}

// Each step returns -1 with the reader failed, else 0.

int msgMultipart_handleInit(HttpMultipart* multipart) {
  TRACE_INFO("handling first boundary");
  if (!fillScratch(multipart)) return awaitScratch(multipart, "the full boundary");
  const char* const wanted = multipart->delimiter + kLineEnd;
  if (std::memcmp(multipart->scratch, wanted, multipart->haveRead) != 0) {
    TRACE_ERROR("unable to read message boundary, we read \n[%s] instead of \n[%s]", multipart->scratch, wanted);
    return failed(multipart);
  }
  TRACE_INFO("read first boundary");
  expectNext(multipart, HTTP_MULTIPART_BOUNDARY, kTail);
  return 0;
}

// The body has ended or failed, and the delimiter that ends its part is missing.
bool isCutShort(const HttpMultipart* multipart) {
  if (!isInBody(multipart)) return false;
  if (!isReadable(multipart)) return true;
  const HttpMessage& message = *multipart->message;
  const bool isRead = message.state >= HTTP_MSG_DONE;
  const bool mayGoOn =
      heldBytes(message.body) > 0 || heldBytes(multipart->part.message.body) > 0 || (!isRead && message.bodyAhead > 0);
  const bool inputFailed = ferror_unlocked(message.body) && !message.needMoreData;
  return !mayGoOn && (isRead || feof_unlocked(message.body) || inputFailed);
}

int msgMultipart_handleBody(HttpMultipart* multipart) {
  TRACE_INFO("handling part body");
  FILE* const body = multipart->part.message.body;
  if (body != nullptr) clearerr_unlocked(body);
  clearerr_unlocked(multipart->input);
  const Alive alive(multipart);
  int result = 0;
  if (body == nullptr || multipart->bodyHandler == nullptr)
    dropPartBody(multipart);
  else
    result = multipart->bodyHandler(&multipart->part, body);
  if (!alive) return result < 0 ? -1 : 0;
  if (result < 0) {
    TRACE_ERROR("part body handler returned an error, aborting");
    return failed(multipart);
  }
  if (isCutShort(multipart)) {
    errno = EBADMSG;
    TRACE_ERROR("unable to read message boundary: %m");
    return failed(multipart);
  }
  return 0;
}

int beginPart(HttpMultipart* multipart) {
  closePartBody(multipart);
  TRACE_INFO("preparing for next part");
  expectNext(multipart, HTTP_MULTIPART_HEADERS, multipart->delimiterLength);
  HttpRequest* const part = &multipart->part;
  http_requestReset(part);
  http_requestStreamSet(part, multipart->input);
  part->message.state = HTTP_MSG_HEADERS;
  http_requestUserDataSet(part, multipart);
  return 0;
}

int endParts(HttpMultipart* multipart) {
  closePartBody(multipart);
  TRACE_INFO("finished parsing multipart message");
  multipart->complete = 1;
  expectNext(multipart, HTTP_MULTIPART_END, kTail);
  return 0;
}

// The part's stream holds bytes that the application has not read yet, or it has not met the end of them: that is
// offered once.
bool isWorthReading(HttpMultipart* multipart) {
  FILE* const body = multipart->part.message.body;
  if (body == nullptr) return false;
  if (heldBytes(body) > 0) return true;
  const bool offered = multipart->endOffered || feof_unlocked(body);
  multipart->endOffered = 1;
  return !offered;
}

int msgMultipart_handleBoundary(HttpMultipart* multipart) {
  if (isWorthReading(multipart)) return msgMultipart_handleBody(multipart);

  TRACE_INFO("handling end of boundary");
  if (!fillScratch(multipart)) return awaitScratch(multipart, "the end of the boundary");
  const std::string_view tail(multipart->scratch, kTail);
  if (tail == "\r\n") return beginPart(multipart);
  if (tail == "--") return endParts(multipart);
  TRACE_ERROR("unrecognized end of boundary string \"%c%c\" (read %i chars)", tail[0], tail[1],
              static_cast<int>(multipart->haveRead));
  return failed(multipart);
}

int msgMultipart_handleHeader(HttpMultipart* multipart) {
  TRACE_INFO("handling headers");
  HttpRequest* const part = &multipart->part;
  while (part->message.state == HTTP_MSG_HEADERS && http_requestParse(part) == 0 && !part->message.needMoreData) {
  }
  if (part->message.state == HTTP_MSG_HEADERS && part->message.needMoreData) return 0;
  if (part->message.state != HTTP_MSG_BODY && part->message.state != HTTP_MSG_DONE) {
    TRACE_ERROR("unable to parse multipart part's header");
    return failed(multipart);
  }
  // Where the body ends the delimiter tells, not the part's own head.
  part->message.state = HTTP_MSG_BODY;

  TRACE_INFO("part header has been read, calling part handler");
  const Alive alive(multipart);
  const int result = multipart->partHandler != nullptr ? multipart->partHandler(part) : 0;
  if (!alive) return result < 0 ? -1 : 0;
  if (result < 0) {
    TRACE_ERROR("part handler returned an error, aborting");
    return failed(multipart);
  }
  TRACE_INFO("opening body");
  expectNext(multipart, HTTP_MULTIPART_BODY, multipart->delimiterLength + 4);
  if (!openPartBody(multipart)) {
    TRACE_ERROR("unable to open part body stream");
    return failed(multipart);
  }
  return 0;
}

int msgMultipart_handleEnd(HttpMultipart* multipart) {
  TRACE_INFO("handling multipart end");
  if (!fillScratch(multipart)) return awaitScratch(multipart, "the end of the boundary");
  if (std::string_view(multipart->scratch, kTail) == "\r\n")
    TRACE_INFO("end of multipart message");
  else
    TRACE_WARNING("unable to read EOL for in the message");
  multipart->state = HTTP_MULTIPART_DONE;
  return 0;
}

int runStep(HttpMultipart* multipart) {
  switch (multipart->state) {
    case HTTP_MULTIPART_INIT:
      return msgMultipart_handleInit(multipart);
    case HTTP_MULTIPART_BOUNDARY:
      return msgMultipart_handleBoundary(multipart);
    case HTTP_MULTIPART_HEADERS:
      return msgMultipart_handleHeader(multipart);
    case HTTP_MULTIPART_BODY_OPENED:
    case HTTP_MULTIPART_BODY:
    case HTTP_MULTIPART_GIVE_BACK:
      return msgMultipart_handleBody(multipart);
    case HTTP_MULTIPART_END:
      return msgMultipart_handleEnd(multipart);
    default:
      return -1;
  }
}

// --- the loop --------------------------------------------------------------------------------------------------------

// What changes when a step gets on.
struct Standing {
  int state;
  unsigned toRead;
  unsigned haveRead;
  ReadMark input;
  const FILE* part;
  size_t inPart;
  bool endOffered;
  bool operator==(const Standing&) const = default;
};

Standing standingOf(const HttpMultipart* multipart) {
  const FILE* const part = multipart->part.message.body;
  return {multipart->state, multipart->toRead,         multipart->haveRead, readMark(*multipart->message), part,
          heldBytes(part),  multipart->endOffered != 0};
}

bool isPaused(const HttpMultipart* multipart) { return multipart->message->paused != HTTP_MSG_RUNNING; }

// What stdio holds is still there to be taken, whatever the last read has met.
bool isOutOfData(const HttpMultipart* multipart) {
  return multipart->message->needMoreData && heldBytes(multipart->input) == 0 &&
         heldBytes(multipart->part.message.body) == 0;
}

// RFC 2046 section 5.1.1: what follows the last delimiter is to be ignored.
void dropEpilogue(HttpMultipart* multipart) {
  char block[kBlock];
  while (multipart->message->state == HTTP_MSG_BODY && fread_unlocked(block, 1, sizeof block, multipart->input) > 0) {
  }
}

// The handler takes nothing of what is there. The server offers it again before it takes the message for complete.
void comeBackLater(HttpMessage* message) {
  message->needMoreData = 0;
  if (message->state >= HTTP_MSG_DONE && message->type == HTTP_MSG_REQUEST && message->peer != nullptr)
    message->paused = HTTP_MSG_TEMPORIZED;
}

// Runs the steps that the data allows. Returns -1 when the last one has failed.
int readOn(HttpMultipart* multipart, const Alive& alive) {
  HttpMessage* const message = multipart->message;
  message->needMoreData = 0;
  clearerr_unlocked(multipart->input);
  while (!isOutOfData(multipart) && !isPaused(multipart) && multipart->state <= HTTP_MULTIPART_END) {
    message->needMoreData = 0;
    const Standing before = standingOf(multipart);
    const int result = runStep(multipart);
    if (!alive) return result;
    if (!isReadable(multipart)) return failed(multipart);
    if (isOutOfData(multipart) || standingOf(multipart) != before) continue;
    if (!isPaused(multipart)) comeBackLater(message);
    break;
  }
  if (multipart->state == HTTP_MULTIPART_DONE && !isPaused(multipart)) dropEpilogue(multipart);
  // A message that was read to its end is not complete as long as there is something to do, or a failure to tell.
  if (message->state >= HTTP_MSG_DONE) message->bodyAhead = multipart->state != HTTP_MULTIPART_DONE;
  return multipart->state == HTTP_MULTIPART_FAILED ? -1 : 0;
}

}  // namespace

// --- interface -------------------------------------------------------------------------------------------------------

namespace {

// The boundary that the Content-Type names, null when it names none (traced).
const char* boundaryOf(HttpMessage* message, HttpHeader* contentType) {
  contentType->code = HTTP_HEADER_CONTENT_TYPE;
  if (http_msgHeader(message, contentType) < 0) {
    TRACE_ERROR("message is not a multipart message (could not find Content-Type header)");
    return nullptr;
  }
  const auto& type = contentType->contentType;
  if (type.mediaType == nullptr || std::strcmp(type.mediaType, "multipart") != 0) {
    TRACE_ERROR("message is not a multipart message (%s/%s)", type.mediaType != nullptr ? type.mediaType : "",
                type.subType != nullptr ? type.subType : "");
    return nullptr;
  }
  const char* const boundary = http_hdrGetParameter(type.parameters, "boundary");
  if (boundary == nullptr) TRACE_ERROR("unable to find multipart message boundary");
  return boundary;
}

int open(HttpMultipart* multipart, const char* boundary) {
  char* text = nullptr;
  if (asprintf(&text, "\r\n--%s", boundary) < 0) {
    TRACE_ERROR("unable to find multipart message boundary: %m");
    return -1;
  }
  CString delimiter(text);
  TRACE_INFO("using boundary [%s]", boundary);
  const size_t length = std::strlen(text);
  CString scratch(static_cast<char*>(std::calloc(1, length)));
  if (!scratch) {
    TRACE_ERROR("unable to allocate space for multipart buffer: %m");
    return -1;
  }
  multipart->message->inParts = 1;
  multipart->input = http_msgBody(multipart->message);
  if (multipart->input == nullptr) {
    TRACE_ERROR("unable to get message stream");
    return -1;
  }
  multipart->delimiter = delimiter.release();
  multipart->delimiterLength = static_cast<unsigned>(length);
  multipart->toRead = multipart->delimiterLength - kLineEnd;
  multipart->scratch = scratch.release();
  http_requestInitialize(&multipart->part);
  multipart->part.message.headLimit = kLargestPartHead;
  return 0;
}

// What lives until the reader is initialized, and no longer.
class ContentType {
 public:
  ~ContentType() { http_hdrCleanup(&header_); }
  HttpHeader* header() { return &header_; }

 private:
  HttpHeader header_{};
};

HttpRequest* requestOf(const HttpMultipart* multipart) {
  HttpMessage* const message = multipart->message;
  const bool isRequest = message != nullptr && message->type == HTTP_MSG_REQUEST;
  return isRequest ? reinterpret_cast<HttpRequest*>(message) : nullptr;
}

}  // namespace

extern "C" {

int http_msgMultipartInitialize(HttpMultipart* multipart, HttpMessage* message, HttpPartHandler partHandler,
                                HttpPartBodyHandler bodyHandler) {
  return http_msgMultipartInitializeWithBoundary(multipart, message, nullptr, partHandler, bodyHandler);
}

int http_msgMultipartInitializeWithBoundary(HttpMultipart* multipart, HttpMessage* message, const char* boundary,
                                            HttpPartHandler partHandler, HttpPartBodyHandler bodyHandler) {
  TRACE_INFO("initializing multipart message");
  *multipart = HttpMultipart{};
  multipart->message = message;
  multipart->partHandler = partHandler;
  multipart->bodyHandler = bodyHandler;
  ContentType contentType;
  if (boundary == nullptr) boundary = boundaryOf(message, contentType.header());
  return boundary != nullptr ? open(multipart, boundary) : -1;
}

void http_msgMultipartCleanup(HttpMultipart* multipart) {
  Watch<HttpMultipart>::tellGone(multipart);
  closePartBody(multipart);
  http_requestCleanup(&multipart->part);
  std::free(multipart->delimiter);
  std::free(multipart->scratch);
  *multipart = HttpMultipart{};
}

HttpMessage* http_msgMultipartMessage(HttpMultipart* multipart) { return multipart->message; }

int http_msgMultipartHandleRead(HttpMultipart* multipart) {
  TRACE_INFO("handling read (state is %i)", multipart->state);
  if (multipart->running) return 0;
  if (isReadable(multipart)) {
    const Alive alive(multipart);
    multipart->running = 1;
    const int result = readOn(multipart, alive);
    if (alive.withoutMessage()) {
      multipart->message = nullptr;
      multipart->input = nullptr;
      failed(multipart);
    } else if (!alive) {
      return result;
    }
    multipart->running = 0;
  } else if (multipart->state < HTTP_MULTIPART_DONE) {
    failed(multipart);
  }
  if (multipart->state != HTTP_MULTIPART_FAILED) return 0;
  TRACE_ERROR("unable to handle multipart message");
  return -1;
}

int http_msgMultipartPause(HttpMultipart* multipart) {
  HttpRequest* const request = requestOf(multipart);
  return request != nullptr ? http_serverPauseRequest(request) : -1;
}

int http_msgMultipartResume(HttpMultipart* multipart) {
  HttpRequest* const request = requestOf(multipart);
  if (request == nullptr || http_serverResumeRequest(request) < 0) return -1;
  return http_msgMultipartHandleRead(multipart);
}

}  // extern "C"
