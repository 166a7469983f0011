#include <krohttp/body.h>
#include <krohttp/message.h>

#include <stdio_ext.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "memory.h"
#include "message_internal.h"
#include "protocol_internal.h"
#include "strict.h"
#include "watch.h"

#define TRACE_ZONE "http-message"
#include "trace.h"

namespace {

constexpr uint32_t kGrowthStep = 512;
constexpr size_t kBlock = 4096;

constexpr bool isBlank(char c) { return c == ' ' || c == '\t'; }

HttpRequest* asRequest(HttpMessage* message) { return reinterpret_cast<HttpRequest*>(message); }
HttpReply* asReply(HttpMessage* message) { return reinterpret_cast<HttpReply*>(message); }

int fail(HttpMessage* message) {
  message->state = HTTP_MSG_FAILED;
  return -1;
}

// The request's and reply's pointers into the buffer end with the line they point to.
void forgetTexts(HttpMessage* message) {
  if (message->type == HTTP_MSG_REQUEST) rq_forget(asRequest(message));
  if (message->type == HTTP_MSG_REPLY) rp_forget(asReply(message));
}

int refuseFirstLine(HttpMessage* message, HttpMessageRefusal reason) {
  message->refusal = static_cast<uint8_t>(reason);
  return fail(message);
}

}  // namespace

// --- the buffer ------------------------------------------------------------------------------------------------------

void msg_bufferRelease(HttpMessage* message) {
  std::free(message->buffer);
  message->buffer = nullptr;
  message->bufferSize = 0;
  message->headerIter = nullptr;
  forgetTexts(message);
}

extern "C" {

int msg_grow(HttpMessage* message, unsigned extra) {
  TRACE_INFO("growing message buffer");
  const uint32_t step = std::max<uint32_t>(extra, kGrowthStep);
  const bool representable = step <= UINT32_MAX - message->bufferSize;
  if (!representable) errno = ENOMEM;
  BufferOffset first(message->firstHeader, message->buffer);
  BufferOffset limit(message->headersLimit, message->buffer);
  BufferOffset iteration(message->headerIter, message->buffer);
  char* buffer =
      representable ? static_cast<char*>(std::realloc(message->buffer, message->bufferSize + step)) : nullptr;
  if (buffer == nullptr) {
    TRACE_ERROR("unable to reallocate buffer: %m");
    return -1;
  }
  message->buffer = buffer;
  message->bufferSize += step;
  first.moveTo(buffer);
  limit.moveTo(buffer);
  iteration.moveTo(buffer);
  return 0;
}

int msg_growAndKeep(HttpMessage* message, unsigned extra) {
  int result = 0;
  if (message->type == HTTP_MSG_REQUEST) result = rq_grow(asRequest(message), extra);
  if (message->type == HTTP_MSG_REPLY) result = rp_grow(asReply(message), extra);
  if (result < 0) {
    TRACE_ERROR("unable to grow message buffer");
    return -1;
  }
  return 0;
}

int msg_checkNeedMoreData(HttpMessage* message, int error) {
  if (message->state >= HTTP_MSG_DONE) {
    message->needMoreData = 0;
    return 0;
  }
  message->needMoreData = error == EAGAIN || error == EWOULDBLOCK;
  if (message->needMoreData) {
    TRACE_INFO("message is not complete and we need more data");
    return 0;
  }
  errno = error;
  TRACE_ERROR("unable to parse message (socket %d): %m", peer_socket(message->peer));
  return fail(message);
}

}  // extern "C"

// --- lines -----------------------------------------------------------------------------------------------------------

namespace {

// Control bytes have no place in a head; TAB may stand in values, CR and LF end lines.
constexpr bool isKept(int byte) { return byte > 31 || byte == '\r' || byte == '\n' || byte == '\t'; }

// Stores what stdio holds of the line in one go, as far as it fits. Returns how many bytes were taken: none when there
// are bytes to drop among them, or nothing is held.
size_t takeBuffered(HttpMessage* message, FILE* stream) {
  const char* const held = stream->_IO_read_ptr;
  size_t count =
      std::min<size_t>(static_cast<size_t>(stream->_IO_read_end - held), message->bufferSize - message->fill);
  if (count == 0) return 0;
  if (const void* const lineFeed = std::memchr(held, '\n', count))
    count = static_cast<size_t>(static_cast<const char*>(lineFeed) - held) + 1;
  bool allKept = true;
  if (!message->strict)  // which refuses them
    for (size_t at = 0; at < count; ++at) allKept &= isKept(static_cast<unsigned char>(held[at]));
  if (!allKept) return 0;
  std::memcpy(message->buffer + message->fill, held, count);
  message->fill += static_cast<uint32_t>(count);
  stream->_IO_read_ptr += count;
  return count;
}

// Refuses what the head has grown to. Its bytes are those read, line ends included.
bool isWithinLimits(HttpMessage* message) {
  // However many bytes come at once, the limit that is passed first is the reason.
  const bool lineCounts = message->state == HTTP_MSG_FIRST_LINE && message->lineLimit != 0 &&
                          (message->headLimit == 0 || message->lineLimit <= message->headLimit);
  if (lineCounts && message->fill > message->lineLimit) {
    TRACE_ERROR("first line is longer than %u bytes", message->lineLimit);
    message->refusal = HTTP_MSG_LONG_LINE;
    return false;
  }
  if (message->headLimit != 0 && message->fill > message->headLimit) {
    TRACE_ERROR("head is longer than %u bytes", message->headLimit);
    message->refusal = HTTP_MSG_LARGE_HEAD;
    return false;
  }
  return true;
}

// The line that ends with the last byte of the buffer, whole.
bool isLineInOrder(HttpMessage* message) {
  const std::string_view line(message->buffer + message->lineStart, message->fill - message->lineStart);
  message->refusal = strict_line(line);
  return message->refusal == HTTP_MSG_ACCEPTED;
}

// Ends the line whose LF is the last byte of the buffer. The byte before the LF is taken for the CR, whatever it is.
char* takeLine(HttpMessage* message) {
  message->buffer[message->fill - 1] = '\0';
  if (message->fill >= 2) message->buffer[message->fill - 2] = '\0';
  // What was written before may have left a beginning that is not reached yet.
  char* line = message->buffer + std::min(message->lineStart, message->fill - 1);
  message->lineStart = message->lineEnd = message->fill;
  return line;
}

// Counts the line that was written at lineEnd, @p length bytes without its NUL.
void lineWritten(HttpMessage* message, size_t length) {
  message->lineStart = message->lineEnd;
  message->lineEnd += static_cast<uint32_t>(length) + 1;
  message->fill = message->lineEnd;
}

// Only requests and replies have a buffer that grows.
int growForAByte(HttpMessage* message) {
  const uint32_t before = message->bufferSize;
  return msg_growAndKeep(message, 0) == 0 && message->bufferSize > before ? 0 : -1;
}

// A line can be written at lineEnd: there is a byte at least.
int beginLine(HttpMessage* message) {
  if (message->lineEnd != message->bufferSize || growForAByte(message) == 0) return 0;
  TRACE_ERROR("unable to initialize message buffer");
  return -1;
}

// Keeps a text that may stand in the buffer while the buffer moves.
class TextInBuffer {
 public:
  TextInBuffer(const HttpMessage* message, std::string_view text)
      : text_(text), at_(text.data() - message->buffer), inside_(at_ >= 0 && at_ < message->bufferSize) {}
  std::string_view in(const HttpMessage* message) const {
    return inside_ ? std::string_view(message->buffer + at_, text_.size()) : text_;
  }

 private:
  std::string_view text_;
  ptrdiff_t at_;
  bool inside_;
};

// Appends the line "name: value" without going through a format.
int appendHeaderText(HttpMessage* message, std::string_view name, std::string_view value) {
  const size_t size = name.size() + 2 + value.size() + 1;
  const TextInBuffer keptName(message, name);
  const TextInBuffer keptValue(message, value);
  if (beginLine(message) < 0) return -1;
  if (size > message->bufferSize - message->lineEnd &&
      (size > UINT32_MAX || msg_growAndKeep(message, static_cast<unsigned>(size)) < 0)) {
    TRACE_ERROR("unable to grow buffer");
    return -1;
  }
  name = keptName.in(message);
  value = keptValue.in(message);
  char* const line = message->buffer + message->lineEnd;
  std::memcpy(line, name.data(), name.size());
  std::memcpy(line + name.size(), ": ", 2);
  std::memcpy(line + name.size() + 2, value.data(), value.size());
  line[size - 1] = '\0';
  lineWritten(message, size - 1);
  return 0;
}

// The formatted line, copied to the end of the buffer. Formatted before the buffer moves: arguments may point into it.
int appendLongLine(HttpMessage* message, const char* format, va_list arguments) {
  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  if (length < 0) {
    TRACE_ERROR("unable to set line: %m");
    return -1;
  }
  const CString owned(text);
  if (msg_growAndKeep(message, static_cast<unsigned>(length) + 1) < 0) {
    TRACE_ERROR("unable to grow buffer");
    return -1;
  }
  std::memcpy(message->buffer + message->lineEnd, text, static_cast<size_t>(length) + 1);
  return length;
}

}  // namespace

extern "C" {

int msg_lineGet(HttpMessage* message, FILE* stream, char** line) {
  message->needMoreData = 0;
  for (;;) {
    if (message->fill == message->bufferSize && growForAByte(message) < 0) return -1;
    if (takeBuffered(message, stream) == 0) {
      const int byte = getc_unlocked(stream);
      if (byte == EOF) break;
      if (!message->strict && !isKept(byte)) continue;
      message->buffer[message->fill++] = static_cast<char>(byte);
    }
    if (!isWithinLimits(message)) return -1;
    if (message->buffer[message->fill - 1] == '\n') {
      if (message->strict && !isLineInOrder(message)) return -1;
      *line = takeLine(message);
      return 0;
    }
  }
  if (feof_unlocked(stream)) {
    TRACE_INFO("read EOF on fd %d", fileno_unlocked(stream));
    return -1;
  }
  return msg_checkNeedMoreData(message, errno);
}

int msg_lineSetV(HttpMessage* message, const char* format, va_list arguments) {
  if (beginLine(message) < 0) return -1;
  const size_t space = message->bufferSize - message->lineEnd;
  va_list again;
  va_copy(again, arguments);
  int length = std::vsnprintf(message->buffer + message->lineEnd, space, format, arguments);
  if (length < 0)
    TRACE_ERROR("unable to set line: %m");
  else if (static_cast<size_t>(length) > space - 1)
    length = appendLongLine(message, format, again);
  va_end(again);
  if (length < 0) return -1;
  lineWritten(message, static_cast<size_t>(length));
  return 0;
}

int msg_lineSetFirstV(HttpMessage* message, const char* format, va_list arguments) {
  TRACE_INFO("prepending message line");
  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  if (length < 0) {
    TRACE_ERROR("unable to set message first line: %m");
    return 0;
  }
  const CString line(text);
  const auto shift = static_cast<uint32_t>(length) + 1;
  const bool representable = shift <= UINT32_MAX - message->bufferSize;
  if (!representable) errno = ENOMEM;
  CString buffer(representable ? static_cast<char*>(std::calloc(message->bufferSize + shift, 1)) : nullptr);
  if (!buffer) {
    TRACE_ERROR("unable to set message first line: %m");
    return 0;
  }
  std::memcpy(buffer.get(), text, shift);
  if (message->buffer != nullptr) std::memcpy(buffer.get() + shift, message->buffer, message->bufferSize);

  const HttpMessage before = *message;
  BufferOffset first(message->firstHeader, message->buffer);
  BufferOffset limit(message->headersLimit, message->buffer);
  BufferOffset iteration(message->headerIter, message->buffer);
  const CString oldBuffer(message->buffer);
  message->buffer = buffer.release();
  message->bufferSize += shift;
  if (msg_parseStatusLine(message, message->buffer) < 0) TRACE_ERROR("unable to parse status line");

  // Everything that was there stands behind the new line now; in front again when that was refused.
  const bool refused = message->state == HTTP_MSG_FAILED;
  if (refused) std::memmove(message->buffer, message->buffer + shift, before.bufferSize);
  first.moveTo(message->buffer, refused ? 0 : shift);
  limit.moveTo(message->buffer, refused ? 0 : shift);
  iteration.moveTo(message->buffer, refused ? 0 : shift);
  if (refused) {
    forgetTexts(message);
    return 0;
  }
  message->lineEnd = before.lineEnd + shift;
  message->fill = before.fill + shift;
  message->headersEnd = before.headersEnd + shift;
  message->lineStart += before.lineStart + shift;
  message->state = before.state;
  if (before.firstHeader == nullptr)
    message->firstHeader = message->headersLimit = message->buffer + message->headersEnd;
  return 0;
}

int msg_removeStatusLine(HttpMessage* message) {
  const size_t searched = message->buffer == nullptr ? 0 : strnlen(message->buffer, message->fill);
  const char* lineFeed = searched == 0 ? nullptr : static_cast<char*>(std::memchr(message->buffer, '\n', searched));
  if (lineFeed == nullptr) return 0;

  const auto cut = static_cast<uint32_t>(lineFeed - message->buffer) + 1;
  const uint32_t kept = message->bufferSize - cut;
  CString buffer(static_cast<char*>(std::calloc(kept + 1, 1)));
  if (!buffer) {
    TRACE_ERROR("unable to set message first line: %m");
    return -1;
  }
  // A zero byte takes the place of the line; offsets into the line that is gone go there too.
  std::memcpy(buffer.get() + 1, message->buffer + cut, kept);
  const auto moved = [cut](uint32_t offset) { return offset >= cut ? offset - cut + 1 : 0; };
  const auto movedPointer = [&](const char* pointer) {
    return pointer == nullptr ? nullptr : buffer.get() + moved(static_cast<uint32_t>(pointer - message->buffer));
  };
  char* const firstHeader = movedPointer(message->firstHeader);
  char* const headersLimit = movedPointer(message->headersLimit);
  msg_bufferRelease(message);
  message->firstHeader = firstHeader;
  message->headersLimit = headersLimit;
  message->lineStart += moved(message->lineStart);
  message->lineEnd = moved(message->lineEnd);
  message->fill = moved(message->fill);
  message->headersEnd = moved(message->headersEnd);
  message->buffer = buffer.release();
  message->bufferSize = std::max(kept, message->fill);
  return 0;
}

}  // extern "C"

// --- the parser ------------------------------------------------------------------------------------------------------

namespace {

// A header line, cut into its parts, all inside the buffer.
struct HeaderLine {
  char* name;
  size_t nameLength;
  char* value;
  size_t valueLength;
};

// Cuts "name: value" up in place (RFC 9112 section 5, but for what is said here). Blanks before the name are skipped;
// one between name and colon belongs to the name, which then matches no known header. The first character is never
// taken for the colon.
bool splitHeaderLine(char* line, bool allowEmpty, HeaderLine* parts) {
  char* name = line;
  while (isBlank(*name)) ++name;
  char* colon = *name == '\0' ? nullptr : std::strchr(name + 1, ':');
  if (colon == nullptr) {
    TRACE_ERROR("unable to read header line: parse error");
    return false;
  }
  *colon = '\0';

  char* value = colon + 1;
  while (isBlank(*value)) ++value;
  if (*value == '\0') {
    if (!allowEmpty) {
      TRACE_ERROR("unable to read header line: parse error");
      return false;
    }
    TRACE_WARNING("Adding http header without value");
  }
  size_t valueLength = std::strlen(value);
  while (valueLength > 0 && isBlank(value[valueLength - 1])) value[--valueLength] = '\0';
  *parts = {name, static_cast<size_t>(colon - name), value, valueLength};
  return true;
}

// Makes sure that an entry of @p size bytes fits at headersEnd; the parts follow when the buffer moves.
bool makeRoomForEntry(HttpMessage* message, size_t size, HeaderLine* parts) {
  if (size <= message->bufferSize - message->headersEnd) return true;
  const char* const buffer = message->buffer;
  const bool inside = buffer != nullptr && parts->name >= buffer && parts->name < buffer + message->bufferSize;
  const ptrdiff_t nameAt = inside ? parts->name - buffer : 0;
  const ptrdiff_t valueAt = inside ? parts->value - buffer : 0;
  if (msg_growAndKeep(message, static_cast<unsigned>(size)) < 0) return false;
  if (inside) {
    parts->name = message->buffer + nameAt;
    parts->value = message->buffer + valueAt;
  }
  return true;
}

// Writes the entry of a custom header at @p entry, which is at or before its line. When the code byte would land on the
// name, everything goes one byte towards the end, the value first; otherwise the name first: it moves to the front,
// away from the value.
void storeCustom(char* entry, const HeaderLine& parts) {
  char* const name = entry + 1;
  char* const value = name + parts.nameLength + 1;
  const bool onTop = parts.name <= entry;
  if (onTop) std::memmove(value, parts.value, parts.valueLength + 1);
  std::memmove(name, parts.name, parts.nameLength + 1);
  if (!onTop) std::memmove(value, parts.value, parts.valueLength + 1);
  *entry = HTTP_HEADER_CUSTOM;
}

void storeKnown(char* entry, int code, const HeaderLine& parts) {
  std::memmove(entry + 1, parts.value, parts.valueLength + 1);
  *entry = static_cast<char>(code);
}

// Takes the code of the header; a name spelled like the sentinel of code 0 is as custom as any other unknown name.
int codeOf(const HeaderLine& parts) {
  const int code = prot_headerCodeOf({parts.name, parts.nameLength});
  return code == HTTP_HEADER_NONE ? static_cast<int>(HTTP_HEADER_CUSTOM) : code;
}

int abandon(HttpMessage* message, uint8_t refusal) {
  msg_bufferRelease(message);
  http_msgReset(message);
  message->refusal = refusal;
  return -1;
}

bool isFirstLineInOrder(HttpMessage* message, std::string_view line) {
  std::string_view authority;
  message->refusal = message->type == HTTP_MSG_REQUEST ? strict_requestLine(line, &authority) : strict_statusLine(line);
  message->authorityStart = authority.data() == nullptr ? 0 : static_cast<uint32_t>(authority.data() - message->buffer);
  message->authorityLength = static_cast<uint32_t>(authority.size());
  return message->refusal == HTTP_MSG_ACCEPTED;
}

bool isHeaderInOrder(HttpMessage* message, std::string_view line) {
  ++message->headerCount;
  if (message->headerLimit != 0 && message->headerCount > message->headerLimit) {
    TRACE_ERROR("head has more than %u headers", message->headerLimit);
    message->refusal = HTTP_MSG_MANY_HEADERS;
  } else if (message->strict) {
    message->refusal = strict_headerLine(line);
  }
  return message->refusal == HTTP_MSG_ACCEPTED;
}

bool isHeadInOrder(HttpMessage* message) {
  if (message->strict) message->refusal = strict_head(message);
  return message->refusal == HTTP_MSG_ACCEPTED;
}

int headComplete(HttpMessage* message) {
  message->bodyType = body_type(message);
  if (message->bodyType == HTTP_BODY_NONE) {
    TRACE_NOTICE("message is done");
    message->state = HTTP_MSG_DONE;
  } else {
    TRACE_NOTICE("next expected part is body");
    message->state = HTTP_MSG_BODY;
  }
  return 0;
}

uint8_t versionNumber(const char* text) {
  if (text[0] >= '0' && text[0] <= '9' && text[1] == '\0') return static_cast<uint8_t>(text[0] - '0');
  return static_cast<uint8_t>(std::strtol(text, nullptr, 10));
}

int callFactory(HttpMessage* message, char* first, char* second, char* third) {
  const bool isReply = std::strncmp(first, "HTTP", 4) == 0;
  // The line must be of the kind that its record was made for: the records differ in size.
  if (isReply != (message->type == HTTP_MSG_REPLY)) {
    TRACE_ERROR("unable to read status line: parse error");
    return refuseFirstLine(message, HTTP_MSG_BAD_FIRST_LINE);
  }
  if (msg_parseVersion(message, isReply ? first : third) < 0) return refuseFirstLine(message, HTTP_MSG_BAD_VERSION);
  if (isReply) return rp_factory(asReply(message), second, third);
  return rq_factory(asRequest(message), first, second);
}

}  // namespace

extern "C" {

// RFC 9112 sections 3 and 4: three words, the last one with its blanks.
int msg_parseStatusLine(HttpMessage* message, char* line) {
  TRACE_INFO("parsing status line %s", line);
  message->refusal = HTTP_MSG_ACCEPTED;
  char* const blank = std::strchr(line, ' ');
  char* const secondBlank = blank == nullptr ? nullptr : std::strchr(blank + 1, ' ');
  if (secondBlank == nullptr) {
    TRACE_ERROR("unable to read status line: parse error");
    return refuseFirstLine(message, HTTP_MSG_BAD_FIRST_LINE);
  }
  *blank = '\0';
  *secondBlank = '\0';
  if (callFactory(message, line, blank + 1, secondBlank + 1) != 0) return fail(message);

  TRACE_NOTICE("next expected part is headers");
  message->state = HTTP_MSG_HEADERS;
  message->headersEnd = message->fill;
  message->firstHeader = message->buffer + message->fill;
  message->headersLimit = message->firstHeader;
  message->headerIter = nullptr;
  return 0;
}

int msg_parseVersion(HttpMessage* message, char* word) {
  char* const slash = std::strchr(word, '/');
  char* const dot = slash == nullptr ? nullptr : std::strchr(slash, '.');
  if (dot == nullptr) {
    TRACE_ERROR("unable to parse http version %s: %m", word);
    return -1;
  }
  *dot = '\0';
  message->versionMajor = versionNumber(slash + 1);
  if (message->versionMajor == 0) {
    TRACE_ERROR("unable to parse http version %s: %m", word);
    return -1;
  }
  message->versionMinor = versionNumber(dot + 1);
  return 0;
}

int msg_parseHeaderLine(HttpMessage* message, char* line, bool allowEmpty) {
  TRACE_INFO("parsing header line %s", line);
  HeaderLine parts;
  if (!splitHeaderLine(line, allowEmpty, &parts)) return -1;

  const int code = codeOf(parts);
  const size_t size = code == HTTP_HEADER_CUSTOM ? parts.nameLength + parts.valueLength + 3 : parts.valueLength + 2;
  if (!makeRoomForEntry(message, size, &parts)) return -1;
  char* const entry = message->buffer + message->headersEnd;
  if (code == HTTP_HEADER_CUSTOM)
    storeCustom(entry, parts);
  else
    storeKnown(entry, code, parts);

  message->headersEnd += static_cast<uint32_t>(size);
  message->headersLimit = message->buffer + message->headersEnd;
  if (message->firstHeader == nullptr) message->firstHeader = entry;
  // An entry can be a byte longer than its line ("a:b"): the next line must not begin inside it.
  if (message->fill < message->headersEnd) message->fill = message->lineEnd = message->lineStart = message->headersEnd;
  return 0;
}

int http_msgParse(HttpMessage* message) {
  if (message->state == HTTP_MSG_FAILED) {
    TRACE_ERROR("unable to parse message: already failed");
    return -1;
  }
  if (message->state >= HTTP_MSG_BODY) {
    TRACE_INFO("message already parsed");
    return -1;
  }

  if (message->stream == nullptr) {
    TRACE_ERROR("unable to parse message: not connected");
    return abandon(message, HTTP_MSG_ACCEPTED);
  }

  // What the message before it handed out is overwritten from here on.
  if (message->state == HTTP_MSG_FIRST_LINE && message->fill == 0) forgetTexts(message);
  message->refusal = HTTP_MSG_ACCEPTED;
  char* line = nullptr;
  if (msg_lineGet(message, message->stream, &line) < 0) return abandon(message, message->refusal);
  if (message->needMoreData) {
    TRACE_INFO("unable to parse message: more data is needed");
    return 0;
  }

  switch (message->state) {
    case HTTP_MSG_FIRST_LINE:
      if (message->strict && !isFirstLineInOrder(message, line)) return abandon(message, message->refusal);
      return msg_parseStatusLine(message, line) < 0 ? abandon(message, message->refusal) : 0;
    case HTTP_MSG_HEADERS:
      if (*line == '\0') return isHeadInOrder(message) ? headComplete(message) : abandon(message, message->refusal);
      if (!isHeaderInOrder(message, line)) return abandon(message, message->refusal);
      return msg_parseHeaderLine(message, line, false) < 0 ? abandon(message, HTTP_MSG_BAD_HEADER) : 0;
    default:
      TRACE_ERROR("unknown error");
      return -1;
  }
}

}  // extern "C"

bool msg_isOneLine(const char* text) {
  if (std::strpbrk(text, "\r\n") == nullptr) return true;
  TRACE_ERROR("a line end in what is to be sent");
  return false;
}

int msg_setFirstLine(HttpMessage* message, const char* text, size_t length) {
  if (message->lineEnd >= 1 || length + 1 > message->bufferSize) return msg_setStatusLine(message, "%s", text);
  std::memcpy(message->buffer, text, length + 1);
  lineWritten(message, length);
  if (msg_parseStatusLine(message, message->buffer) == 0) return 0;
  TRACE_ERROR("unable to add status line");
  return -1;
}

extern "C" {

bool msg_hasBody(HttpMessage* message) {
  switch (message->type) {
    case HTTP_MSG_REQUEST:
      return rq_hasBody(asRequest(message));
    case HTTP_MSG_REPLY:
      return rp_hasBody(asReply(message));
    default:
      TRACE_ERROR("unknown message type");
      return false;
  }
}

int msg_setStatusLine(HttpMessage* message, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  int result = 0;
  if (message->lineEnd < 1) {
    result = msg_lineSetV(message, format, arguments);
    if (result == 0) result = msg_parseStatusLine(message, message->buffer + message->lineStart);
    if (result < 0) TRACE_ERROR("unable to add status line");
  } else {
    result = msg_lineSetFirstV(message, format, arguments);
  }
  va_end(arguments);
  return result;
}

int msg_setHeaderLine(HttpMessage* message, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = msg_lineSetV(message, format, arguments);
  va_end(arguments);
  if (written < 0 || !msg_isOneLine(message->buffer + message->lineStart)) {
    TRACE_ERROR("unable to set header line");
    return -1;
  }
  if (msg_parseHeaderLine(message, message->buffer + message->lineStart, false) < 0) {
    TRACE_ERROR("unable to store header");
    return -1;
  }
  return 0;
}

}  // extern "C"

// --- headers ---------------------------------------------------------------------------------------------------------

namespace {

// One entry, its texts inside [firstHeader, headersLimit), which ends with a NUL.
struct Entry {
  int code;
  char* name;  // of a custom header, else null
  char* value;
  char* next;
};

char* behindText(char* text, const char* limit) {
  return text + strnlen(text, static_cast<size_t>(limit - text)) + (text < limit ? 1 : 0);
}

Entry readEntry(char* at, char* limit) {
  Entry entry{static_cast<unsigned char>(*at), nullptr, at + 1, nullptr};
  if (entry.code == HTTP_HEADER_CUSTOM) {
    entry.name = at + 1;
    entry.value = std::min(behindText(entry.name, limit), limit - 1);
  }
  entry.next = std::min(behindText(entry.value, limit), limit);
  return entry;
}

// Moves the cursor to the next entry. False at the end, where the cursor is cleared.
bool nextEntry(HttpMessage* message, Entry* entry) {
  char* const first = message->firstHeader;
  char* const limit = message->headersLimit;
  char* at = message->headerIter;
  if (first == nullptr || first >= limit || at >= limit)
    at = nullptr;
  else
    at = at == nullptr ? first : at >= first ? readEntry(at, limit).next : nullptr;
  if (at == nullptr || at >= limit) {
    message->headerIter = nullptr;
    return false;
  }
  message->headerIter = at;
  *entry = readEntry(at, limit);
  return true;
}

// Leaves the cursor on the first entry that @p matches; clears it when there is none. Entries end with a NUL each, the
// last one right before headersLimit, so plain string lengths stay inside.
template <typename Matches>
char* findEntry(HttpMessage* message, Matches matches) {
  char* at = message->firstHeader;
  char* const limit = message->headersLimit;
  message->headerIter = nullptr;
  if (at == nullptr) return nullptr;
  while (at < limit) {
    const int code = static_cast<unsigned char>(*at);
    char* const name = at + 1;
    char* const value = code == HTTP_HEADER_CUSTOM ? name + std::strlen(name) + 1 : name;
    if (matches(code, name)) {
      message->headerIter = at;
      return value;
    }
    at = value + std::strlen(value) + 1;
  }
  return nullptr;
}

// Gathers the pieces of a head, so that the stream is called once for most heads.
class HeadWriter {
 public:
  explicit HeadWriter(FILE* stream) : stream_(stream) {}

  void put(std::string_view text) {
    if (text.size() > sizeof gathered_ - fill_) flush();
    if (text.size() > sizeof gathered_) {
      written_ = written_ && msg_writeText(stream_, text);
      return;
    }
    std::memcpy(gathered_ + fill_, text.data(), text.size());
    fill_ += text.size();
  }

  // False when the stream has refused anything.
  bool finish() {
    flush();
    return written_;
  }

 private:
  void flush() {
    written_ = written_ && msg_writeText(stream_, {gathered_, fill_});
    fill_ = 0;
  }

  FILE* stream_;
  size_t fill_ = 0;
  bool written_ = true;
  char gathered_[1024];
};

const char* nameOf(const Entry& entry) { return entry.name != nullptr ? entry.name : prot_headerString(entry.code); }

// The name is part of the format.
int appendWithNameAsFormat(HttpMessage* message, const char* name, const char* format, va_list arguments) {
  char* text = nullptr;
  if (asprintf(&text, "%s: %s", name, format) < 0) {
    TRACE_ERROR("unable to create header: %m");
    return -1;
  }
  const CString lineFormat(text);
  return msg_lineSetV(message, lineFormat.get(), arguments);
}

// Formats the value alone: on the stack unless it is long.
int appendWithFormattedValue(HttpMessage* message, const char* name, const char* format, va_list arguments) {
  char text[128];
  va_list again;
  va_copy(again, arguments);
  int length = std::vsnprintf(text, sizeof text, format, arguments);
  char* longText = nullptr;
  if (length >= static_cast<int>(sizeof text)) length = vasprintf(&longText, format, again);
  va_end(again);
  if (length < 0) {
    TRACE_ERROR("unable to set line: %m");
    return -1;
  }
  const CString owned(longText);
  return appendHeaderText(message, name, {longText != nullptr ? longText : text, static_cast<size_t>(length)});
}

int appendHeader(HttpMessage* message, const char* name, const char* format, va_list arguments) {
  name = textOrNull(name);
  format = textOrNull(format);
  if (std::strchr(name, '%') != nullptr) return appendWithNameAsFormat(message, name, format, arguments);
  if (std::strchr(format, '%') == nullptr) return appendHeaderText(message, name, format);
  if (std::strcmp(format, "%s") != 0) return appendWithFormattedValue(message, name, format, arguments);
  va_list copy;
  va_copy(copy, arguments);
  const char* const value = va_arg(copy, const char*);
  va_end(copy);
  return appendHeaderText(message, name, textOrNull(value));
}

// Takes the line that has been written last.
int storeHeader(HttpMessage* message, bool allowEmpty) {
  if (msg_parseHeaderLine(message, message->buffer + message->lineStart, allowEmpty) == 0) return 0;
  TRACE_ERROR("unable to store header");
  return -1;
}

int storeFormatted(HttpMessage* message, const char* name, const char* format, va_list arguments, bool allowEmpty) {
  if (appendHeader(message, name, format, arguments) < 0 || !msg_isOneLine(message->buffer + message->lineStart)) {
    TRACE_ERROR("unable to serialize header");
    return -1;
  }
  return storeHeader(message, allowEmpty);
}

}  // namespace

const char* msg_headerText(const HttpMessage* message, int code) {
  const char* const limit = message->headersLimit;
  for (const char* at = message->firstHeader; at != nullptr && at < limit;) {
    if (static_cast<unsigned char>(*at) == code) return at + 1;
    if (*at == HTTP_HEADER_CUSTOM) at += std::strlen(at) + 1;
    at += std::strlen(at) + 1;
  }
  return nullptr;
}

int msg_headerCopy(HttpMessage* message, const char* name, const char* value, bool allowEmpty) {
  if (appendHeaderText(message, name, value) < 0 || !msg_isOneLine(message->buffer + message->lineStart)) {
    TRACE_ERROR("unable to serialize header");
    return -1;
  }
  return storeHeader(message, allowEmpty);
}

extern "C" {

int msg_headersNext(HttpMessage* message, int* code, const char** name, const char** value) {
  *code = 0;
  *value = nullptr;
  Entry entry;
  if (!nextEntry(message, &entry)) return -1;
  *code = entry.code;
  *name = nameOf(entry);
  *value = entry.value;
  return 0;
}

void http_msgHeadersReset(HttpMessage* message) { message->headerIter = nullptr; }

int http_msgHeadersNext(HttpMessage* message, const char** name, const char** value) {
  int code = 0;
  return msg_headersNext(message, &code, name, value);
}

const char* http_msgHeaderValue(HttpMessage* message, const char* name) {
  // A known name stands in the entries as its code; only custom ones have to be compared as text.
  const int wanted = prot_headerCode(name);
  if (wanted != HTTP_HEADER_CUSTOM && wanted != HTTP_HEADER_NONE)
    return findEntry(message, [wanted](int code, const char*) { return code == wanted; });
  return findEntry(message, [name](int code, const char* entryName) {
    return code == HTTP_HEADER_CUSTOM && name != nullptr && strcasecmp(entryName, name) == 0;
  });
}

int http_msgHeader(HttpMessage* message, HttpHeader* header) {
  const int wanted = static_cast<unsigned char>(header->code);
  const char* const value = findEntry(message, [wanted](int code, const char*) { return code == wanted; });
  if (value != nullptr) return http_hdrFactory(header, value);
  TRACE_INFO("header %s not found", prot_headerString(header->code));
  return -1;
}

int http_msgHeaderSet(HttpMessage* message, HttpHeader* header) {
  if (http_hdrSerialize(header, message) < 0) {
    TRACE_ERROR("unable to serialize header");
    return -1;
  }
  return 0;
}

int http_msgHeaderValueSetV(HttpMessage* message, const char* name, const char* format, va_list arguments) {
  return storeFormatted(message, name, format, arguments, false);
}

int http_msgHeaderValueSetEmptyV(HttpMessage* message, const char* name, const char* format, va_list arguments) {
  return storeFormatted(message, name, format, arguments, true);
}

int http_msgHeaderValueSet(HttpMessage* message, const char* name, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = http_msgHeaderValueSetV(message, name, format, arguments);
  va_end(arguments);
  return result;
}

int msg_headersSend(HttpMessage* message) {
  FILE* const stream = message->stream;
  HeadWriter head(stream);
  http_msgHeadersReset(message);
  for (Entry entry; nextEntry(message, &entry);) {
    if (message->last && entry.code == HTTP_HEADER_CONNECTION) continue;
    head.put(nameOf(entry));
    head.put(": ");
    head.put(entry.value);
    head.put("\r\n");
  }
  if (message->last) head.put("Connection: close\r\n");
  head.put("\r\n");
  if (!head.finish()) {
    TRACE_ERROR("unable to send message headers: %m");
    return -1;
  }
  if (fflush_unlocked(stream) != 0) {
    TRACE_ERROR("unable to send message: %m");
    return -1;
  }
  message->state = HTTP_MSG_BODY;
  return 0;
}

}  // extern "C"

// --- body and completion ---------------------------------------------------------------------------------------------

namespace {

FILE* openForReading(HttpMessage* message) {
  TRACE_INFO("opening message body for reading");
  message->body = body_fopen(message, message->stream, "r");
  if (message->body != nullptr) {
    message->state = HTTP_MSG_BODY;
    return message->body;
  }
  TRACE_ERROR("unable to open message body");
  message->state = HTTP_MSG_FAILED;
  return nullptr;
}

FILE* openForWriting(HttpMessage* message) {
  const bool headSent = (message->state >= HTTP_MSG_BODY || msg_writeText(message->stream, "\r\n")) &&
                        fflush_unlocked(message->stream) == 0;
  if (!headSent) {
    TRACE_ERROR("unable to send message: %m");
    message->state = HTTP_MSG_FAILED;
    return nullptr;
  }
  TRACE_INFO("opening message body for writing");
  message->body = body_fopen(message, message->stream, "w");
  if (message->body == nullptr && errno != ENODATA) {
    TRACE_ERROR("unable to open message body: %m");
    message->state = HTTP_MSG_FAILED;
    return nullptr;
  }
  message->state = HTTP_MSG_BODY;
  return message->body;
}

// Closes the body, after one last look at what is left of an incoming one.
void closeBody(HttpMessage* message) {
  TRACE_INFO("we still need to close the body stream");
  if (message->mode == HTTP_MSG_READING) {
    TRACE_INFO("reading the rest of the body");
    char block[kBlock];
    fread_unlocked(block, 1, sizeof block, message->body);
  }
  std::fclose(message->body);
  message->body = nullptr;
}

}  // namespace

extern "C" {

FILE* http_msgBody(HttpMessage* message) {
  if (message->body != nullptr) return message->body;
  if (message->stream == nullptr && (message->mode == HTTP_MSG_READING || message->mode == HTTP_MSG_WRITING)) {
    errno = ENOTCONN;
    TRACE_ERROR("unable to open message body: %m");
    message->state = HTTP_MSG_FAILED;
    return nullptr;
  }
  switch (message->mode) {
    case HTTP_MSG_READING:
      return openForReading(message);
    case HTTP_MSG_WRITING:
      return openForWriting(message);
    default:
      message->state = HTTP_MSG_BODY;
      return nullptr;
  }
}

int http_msgBodyDiscard(HttpMessage* message) {
  FILE* const body = http_msgBody(message);
  if (body == nullptr) return -1;
  char block[kBlock];
  errno = 0;
  while (fread_unlocked(block, 1, sizeof block, body) > 0) errno = 0;
  const bool ended = feof_unlocked(body);
  if (!ended && errno != EAGAIN) {
    TRACE_ERROR("unable to discard body: %m");
    return -1;
  }
  if (ended) std::fclose(body);
  return 0;
}

int http_msgDone(HttpMessage* message) {
  const bool failed = message->state == HTTP_MSG_FAILED;
  const bool wasDone = message->state >= HTTP_MSG_DONE && !failed;
  const bool writing = message->mode == HTTP_MSG_WRITING;
  if (writing && message->body == nullptr && message->state <= HTTP_MSG_HEADERS &&
      !msg_writeText(message->stream, "\r\n")) {
    TRACE_ERROR("unable to send message: %m");
    return fail(message);
  }
  const bool isAnnounced = message->bodyType != HTTP_BODY_NONE && message->bodyType != HTTP_BODY_UNTIL_CLOSE;
  const bool isUnread = message->mode == HTTP_MSG_READING && message->state == HTTP_MSG_BODY;
  if (isUnread && isAnnounced && message->body == nullptr) message->bodyCut = 1;
  if (message->body != nullptr && message->state == HTTP_MSG_BODY) closeBody(message);
  if (message->stream != nullptr && writing && fflush_unlocked(message->stream) != 0) {
    TRACE_ERROR("unable to send request: %m");
    return fail(message);
  }
  message->state = HTTP_MSG_DONE;
  if (failed) message->last = 1;  // nobody can tell how much of it has left
  if (!wasDone) msg_completed(message);
  return 0;
}

bool http_msgHasBody(HttpMessage* message) { return body_type(message) != HTTP_BODY_NONE; }

HttpMessage* http_msgReset(HttpMessage* message) {
  message->state = HTTP_MSG_FIRST_LINE;
  message->fill = message->lineEnd = message->lineStart = message->headersEnd = 0;
  message->firstHeader = message->headersLimit = nullptr;
  message->versionMajor = message->versionMinor = 0;
  message->body = nullptr;
  message->bodyCut = 0;
  message->relayed = 0;
  message->inParts = 0;
  message->bodyAhead = 0;
  message->headerCount = 0;
  if (message->ownerType != HTTP_MSG_OWNED_BY_SERVER) message->last = 0;  // or the connection would go on after all
  message->bodyCount = 0;
  message->authorityStart = message->authorityLength = 0;
  return message;
}

void http_msgCleanup(HttpMessage* message) {
  Watch<HttpMessage>::tellGone(message);
  if (message->peer != nullptr && message->ownerType == HTTP_MSG_OWNED_BY_CLIENT) cl_messageGone(message);
  std::free(message->buffer);
  if (message->body != nullptr && message->state == HTTP_MSG_BODY)
    std::fclose(message->body);
  else if (message->body != nullptr)
    __fpurge(message->body);  // or stdio would give back what it holds, at exit, by way of the message
  message->body = nullptr;
  message->peer = nullptr;
}

FILE* http_msgStream(HttpMessage* message) { return message->stream; }

void http_msgStreamSet(HttpMessage* message, FILE* stream) { message->stream = stream; }

void http_msgModeSet(HttpMessage* message, int mode) { message->mode = mode; }

void msg_setPeer(HttpMessage* message, ZelPeer* peer) { message->peer = peer; }

}  // extern "C"
