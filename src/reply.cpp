#include <krohttp/reply.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "memory.h"
#include "message_internal.h"

#define TRACE_ZONE "http-reply"
#include "trace.h"

namespace {

// The phrase of @p code for the wire: some codes have none.
const char* phraseOf(unsigned code) {
  const char* phrase = prot_statusCodeString(code);
  return phrase != nullptr ? phrase : "Unknown";
}

// A status line, composed without a format: there is one in every reply, twice.
class StatusLine {
 public:
  StatusLine(const HttpMessage& message, unsigned code, std::string_view reason) {
    put("HTTP/");
    put(message.versionMajor);
    put(".");
    put(message.versionMinor);
    put(" ");
    put(code);
    put(" ");
    put(reason);
  }

  // The text, NUL-terminated; null when the reason is too long for it.
  const char* text() {
    if (length_ == sizeof text_) return nullptr;
    text_[length_] = '\0';
    return text_;
  }
  size_t length() const { return length_; }
  std::string_view view() const { return {text_, length_}; }

 private:
  void put(std::string_view part) {
    const size_t count = std::min(part.size(), sizeof text_ - length_);
    std::memcpy(text_ + length_, part.data(), count);
    length_ += count;
  }
  void put(unsigned number) {
    char digits[10];
    size_t first = sizeof digits;
    do digits[--first] = static_cast<char>('0' + number % 10);
    while ((number /= 10) != 0);
    put(std::string_view(digits + first, sizeof digits - first));
  }

  size_t length_ = 0;
  char text_[256];
};

}  // namespace

// --- what the message layer calls ------------------------------------------------------------------------------------

void rp_forget(HttpReply* reply) { reply->reason = nullptr; }

void rp_startOver(HttpReply* reply, uint8_t versionMajor, uint8_t versionMinor) {
  http_replyReset(reply);
  reply->statusCode = 0;
  http_replyVersionSet(reply, versionMajor, versionMinor);
}

extern "C" {

int rp_factory(HttpReply* reply, char* status, char* reason) {
  reply->message.type = HTTP_MSG_REPLY;
  reply->statusCode = static_cast<unsigned>(prot_statusCode(status));
  reply->reason = reason;
  return 0;
}

int rp_grow(HttpReply* reply, unsigned extra) {
  HttpMessage& message = reply->message;
  const ptrdiff_t reasonAt = reply->reason == nullptr ? 0 : reply->reason - message.buffer;
  if (msg_grow(&message, extra) < 0) return -1;
  reply->reason = message.buffer + reasonAt;
  return 0;
}

bool rp_hasBody(HttpReply*) { return true; }

// --- lifecycle -------------------------------------------------------------------------------------------------------

HttpReply* http_replyCreate(void) {
  HttpReply* const reply = makeZeroed<HttpReply>().release();
  if (reply == nullptr) {
    TRACE_ERROR("unable to allocate reply: %m");
    return nullptr;
  }
  http_replyInitialize(reply);
  return reply;
}

void http_replyInitialize(HttpReply* reply) { reply->message.type = HTTP_MSG_REPLY; }

void http_replyCleanup(HttpReply* reply) { http_msgCleanup(&reply->message); }

void http_replyReset(HttpReply* reply) { http_msgReset(&reply->message); }

void http_replyDestroy(HttpReply* reply) {
  const CPointer<HttpReply> owned(reply);
  if (reply != nullptr) http_replyCleanup(reply);
}

// --- building and sending --------------------------------------------------------------------------------------------

int http_replyStatusCodeSet(HttpReply* reply, unsigned code, const char* reason) {
  HttpMessage* const message = &reply->message;
  if (reply->statusCode != 0 && msg_removeStatusLine(message) < 0) return -1;
  if (reason == nullptr) reason = phraseOf(code);
  if (!msg_isOneLine(reason)) {
    TRACE_ERROR("unable to set status line");
    return -1;
  }
  reply->reason = nullptr;
  StatusLine line(*message, code, reason);
  const int set = line.text() != nullptr ? msg_setFirstLine(message, line.text(), line.length())
                                         : msg_setStatusLine(message, "HTTP/%u.%u %u %s", message->versionMajor,
                                                             message->versionMinor, code, reason);
  // In front of headers a line for which there is no memory shows only in what it has not set.
  if (set < 0 || (reply->reason == nullptr && message->state != HTTP_MSG_FAILED)) {
    TRACE_ERROR("unable to set status line");
    return -1;
  }
  return 0;
}

int http_replySend(HttpReply* reply) {
  HttpMessage* const message = &reply->message;
  TRACE_INFO("sending reply");
  int result = 0;
  const std::string_view reason = reply->reason != nullptr ? reply->reason : phraseOf(reply->statusCode);
  const StatusLine line(*message, reply->statusCode, "");
  if (!msg_writeText(message->stream, line.view()) || !msg_writeText(message->stream, reason) ||
      !msg_writeText(message->stream, "\r\n")) {
    TRACE_ERROR("unable to send reply status line");
    result = -1;
  } else if (msg_headersSend(message) < 0) {
    TRACE_ERROR("unable to send reply headers");
    result = -1;
  }
  message->state = result < 0 ? HTTP_MSG_FAILED : HTTP_MSG_BODY;
  return result;
}

// --- canned replies --------------------------------------------------------------------------------------------------

int rp_messageWithDefault(HttpReply* reply, unsigned code) {
  if (http_replyStatusCodeSet(reply, code, nullptr) < 0 || http_replyHeaderValueSet(reply, "TE", "chunked") < 0 ||
      http_replyHeaderValueSet(reply, "Transfer-Encoding", "chunked") < 0 ||
      http_replyHeaderValueSet(reply, "Content-Type", "text/html") < 0) {
    TRACE_ERROR("unable to send status code");
    return -1;
  }
  return 0;
}

}  // extern "C"

namespace {

// What all pages begin with: title and headline.
int writeHeadline(FILE* body, unsigned code) {
  const char* const phrase = phraseOf(code);
  return std::fprintf(body, "<html><head><title>%s</title></head><body><h1>%i - %s</h1>", phrase,
                      static_cast<int>(code), phrase);
}

int failed(const char* what) {
  TRACE_ERROR("%s", what);
  return -1;
}

// Sends the canned head.
int sendDefaultHead(HttpReply* reply, unsigned code) {
  if (rp_messageWithDefault(reply, code) < 0) return failed("unable to send default reply message");
  if (http_replySend(reply) < 0) return failed("unable to send status code");
  return 0;
}

// The location with every conversion made literal but "%%" and "%m": those that would need an argument have none, and
// a width would let a short location grow without bound.
CString asHarmlessFormat(const char* location) {
  CString format(static_cast<char*>(std::malloc(2 * std::strlen(location) + 1)));
  if (!format) return format;
  char* out = format.get();
  for (const char* in = location; *in != '\0'; ++in) {
    *out++ = *in;
    if (*in == '%') *out++ = in[1] == '%' || in[1] == 'm' ? *++in : '%';
  }
  *out = '\0';
  return format;
}

int sendRedirectPage(HttpReply* reply, unsigned code, const char* location) {
  FILE* const body = http_replyBody(reply);
  if (body == nullptr) return failed("unable to receive reply");
  const bool written =
      writeHeadline(body, code) >= 0 &&
      std::fprintf(body, "<p>This page has moved to <a href=\"%s\">%s</a></body></html>\n", location, location) >= 0;
  if (!written) TRACE_ERROR("unable to send status code");
  std::fclose(body);
  if (!written) return -1;
  return http_replyDone(reply);
}

int redirect(HttpReply* reply, unsigned code, const char* location) {
  if (rp_messageWithDefault(reply, code) < 0) return failed("unable to send default reply message");
  const CString format = asHarmlessFormat(location);
  // Taken as a format here, without arguments: "%%" in a location stands for "%".
  if (!format || http_replyHeaderValueSet(reply, "Location", format.get(), nullptr) < 0 ||
      http_replyHeaderValueSet(reply, "Cache-Control", "no-cache") < 0)
    return failed("unable to set header");
  if (http_replySend(reply) < 0) return failed("unable to send status code");
  return sendRedirectPage(reply, code, location);
}

}  // namespace

extern "C" {

int rp_bodyWithDefault(HttpReply* reply, unsigned code) {
  FILE* const body = http_replyBody(reply);
  if (body == nullptr) return failed("unable to send status code");
  if (writeHeadline(body, code) < 0 || std::fprintf(body, "</body></html>\n") < 0) {
    failed("unable to send status code");
    std::fclose(body);
    return -1;
  }
  std::fclose(body);
  return 0;
}

int http_replyWithDefault(HttpReply* reply, unsigned code) {
  if (sendDefaultHead(reply, code) < 0) return -1;
  if (rp_bodyWithDefault(reply, code) < 0) return failed("unable to send reply body");
  return http_replyDone(reply);
}

int http_replyWithDefaultAndBody(HttpReply* reply, unsigned code, const char* format, ...) {
  if (sendDefaultHead(reply, code) < 0) return -1;
  FILE* const body = http_replyBody(reply);
  if (body == nullptr) return failed("unable to send status code");

  writeHeadline(body, code);
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(body, format, arguments);
  va_end(arguments);
  if (std::fprintf(body, "</body></html>\n") < 0) {
    failed("unable to send status code");
    std::fclose(body);
    return -1;
  }
  if (std::fclose(body) != 0) return failed("unable to send status code");
  return http_replyDone(reply);
}

int http_replyWithRedirect(HttpReply* reply, unsigned code, const char* format, ...) {
  char* text = nullptr;
  va_list arguments;
  va_start(arguments, format);
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length < 0) {
    TRACE_ERROR("unable to create location string: %m");
    return -1;
  }
  const CString location(text);
  return redirect(reply, code, location.get());
}

int http_replyCopy(HttpReply* source, HttpReply* destination) {
  if (http_replyStatusCodeSet(destination, source->statusCode, nullptr) < 0) {
    TRACE_ERROR("unable to copy reply status line");
    return -1;
  }
  int code = HTTP_HEADER_NONE;
  const char* name = nullptr;
  const char* value = nullptr;
  http_replyHeadersReset(source);
  while (msg_headersNext(&source->message, &code, &name, &value) == 0) {
    if (code == HTTP_HEADER_CONNECTION) continue;
    // Names and values came from the network: they are data, never a format.
    if (msg_headerCopy(&destination->message, name, value) < 0) {
      TRACE_ERROR("unable to copy reply header %s", name);
      return -1;
    }
  }
  return 0;
}

// --- accessors -------------------------------------------------------------------------------------------------------

int http_replyState(HttpReply* reply) { return reply->message.state; }

const uint8_t* http_replyVersion(HttpReply* reply) { return &reply->message.versionMajor; }

void http_replyVersionSet(HttpReply* reply, uint8_t major, uint8_t minor) {
  reply->message.versionMajor = major;
  reply->message.versionMinor = minor;
}

unsigned http_replyStatusCode(HttpReply* reply) { return reply->statusCode; }

void* http_replyUserData(HttpReply* reply) { return reply->message.userData; }

void http_replyUserDataSet(HttpReply* reply, void* userData) { reply->message.userData = userData; }

void* http_replyOwner(HttpReply* reply) { return reply->message.owner; }

ZelPeer* http_replyPeer(HttpReply* reply) { return reply->message.peer; }

void http_replyPeerSet(HttpReply* reply, ZelPeer* peer) { msg_setPeer(&reply->message, peer); }

int http_replyHeader(HttpReply* reply, HttpHeader* header) { return http_msgHeader(&reply->message, header); }

int http_replyHeaderSet(HttpReply* reply, HttpHeader* header) { return http_msgHeaderSet(&reply->message, header); }

const char* http_replyHeaderValue(HttpReply* reply, const char* name) {
  return http_msgHeaderValue(&reply->message, name);
}

int http_replyHeaderValueSet(HttpReply* reply, const char* name, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = http_msgHeaderValueSetV(&reply->message, name, format, arguments);
  va_end(arguments);
  return result;
}

int http_replyHeaderEmptySet(HttpReply* reply, const char* name, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = http_msgHeaderValueSetEmptyV(&reply->message, name, format, arguments);
  va_end(arguments);
  return result;
}

void http_replyHeadersReset(HttpReply* reply) { http_msgHeadersReset(&reply->message); }

int http_replyHeadersNext(HttpReply* reply, const char** name, const char** value) {
  return http_msgHeadersNext(&reply->message, name, value);
}

FILE* http_replyStream(HttpReply* reply) { return http_msgStream(&reply->message); }

void http_replyStreamSet(HttpReply* reply, FILE* stream) { http_msgStreamSet(&reply->message, stream); }

void http_replyModeSet(HttpReply* reply, int mode) { http_msgModeSet(&reply->message, mode); }

int http_replyParse(HttpReply* reply) { return http_msgParse(&reply->message); }

int http_replyNeedMoreData(HttpReply* reply) { return reply->message.needMoreData != 0; }

int http_replyHasBody(HttpReply* reply) { return http_msgHasBody(&reply->message) ? 1 : 0; }

int http_replyBodyType(HttpReply* reply) { return reply->message.bodyType; }

FILE* http_replyBody(HttpReply* reply) { return http_msgBody(&reply->message); }

int http_replyBodyDiscard(HttpReply* reply) { return http_msgBodyDiscard(&reply->message); }

int http_replyDone(HttpReply* reply) { return http_msgDone(&reply->message); }

}  // extern "C"
