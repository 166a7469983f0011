#include <krohttp/request.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "memory.h"
#include "message_internal.h"

#define TRACE_ZONE "http-request"
#include "trace.h"

// --- what the message layer calls ------------------------------------------------------------------------------------

void rq_forget(HttpRequest* request) { request->uri = HttpUri{}; }

extern "C" {

int rq_factory(HttpRequest* request, char* method, char* target) {
  request->message.type = HTTP_MSG_REQUEST;
  const int code = prot_methodCode(method);
  if (code == HTTP_METHOD_UNKNOWN) {
    TRACE_ERROR("unknown method: %s", method);
    request->message.refusal = HTTP_MSG_BAD_METHOD;
    return -1;
  }
  request->method = code;
  if (http_uriParse(&request->uri, target) < 0) {
    request->message.refusal = HTTP_MSG_BAD_TARGET;
    return -1;
  }
  return 0;
}

int rq_grow(HttpRequest* request, unsigned extra) {
  HttpMessage& message = request->message;
  HttpUri& uri = request->uri;
  BufferOffset offsets[] = {{uri.path, message.buffer},          {uri.query, message.buffer},
                            {uri.separator, message.buffer},     {uri.parameterEnd, message.buffer},
                            {uri.parameterName, message.buffer}, {uri.parameterValue, message.buffer}};
  if (msg_grow(&message, extra) < 0) return -1;
  for (BufferOffset& offset : offsets) offset.moveTo(message.buffer);
  return 0;
}

bool rq_hasBody(HttpRequest* request) {
  switch (request->method) {
    case HTTP_METHOD_DELETE:
    case HTTP_METHOD_GET:
    case HTTP_METHOD_HEAD:
    case HTTP_METHOD_OPTIONS:
      return false;
    default:
      return true;
  }
}

// --- lifecycle -------------------------------------------------------------------------------------------------------

HttpRequest* http_requestCreate(void) {
  HttpRequest* const request = makeZeroed<HttpRequest>().release();
  if (request == nullptr) {
    // This line has always gone out under this zone; log filters know it by it.
#undef TRACE_ZONE
#define TRACE_ZONE "wsproxy"
    TRACE_ERROR("unable to allocate request: %m");
#undef TRACE_ZONE
#define TRACE_ZONE "http-request"
    return nullptr;
  }
  http_requestInitialize(request);
  return request;
}

void http_requestInitialize(HttpRequest* request) { request->message.type = HTTP_MSG_REQUEST; }

void http_requestCleanup(HttpRequest* request) { http_msgCleanup(&request->message); }

void http_requestReset(HttpRequest* request) { http_msgReset(&request->message); }

void http_requestDestroy(HttpRequest* request) {
  const CPointer<HttpRequest> owned(request);
  if (request != nullptr) http_requestCleanup(request);
}

// --- building and sending --------------------------------------------------------------------------------------------

int http_requestMethodSet(HttpRequest* request, int method, const char* uri) {
  HttpMessage* const message = &request->message;
  if (request->method != HTTP_METHOD_UNKNOWN && msg_removeStatusLine(message) < 0) return -1;
  if (msg_setStatusLine(message, "%s %s HTTP/%u.%u", prot_methodString(method), uri, message->versionMajor,
                        message->versionMinor) < 0) {
    TRACE_ERROR("unable to set status line");
    return -1;
  }
  return 0;
}

}  // extern "C"

namespace {

// A decoded path may hold what ends a line, and so begins another request, or what some take for the end of the target
// (RFC 9112 section 3). A blank is encoded.
bool isOneWord(const char* uri) { return std::strpbrk(uri, "\t\n\v\f\r") == nullptr; }

int sendHead(HttpRequest* request) {
  HttpMessage* const message = &request->message;
  const CString uri(http_uriSerialize(&request->uri));
  if (!uri) {
    TRACE_ERROR("unable to serialize uri");
    return -1;
  }
  if (message->stream == nullptr || !isOneWord(uri.get()) ||
      std::fprintf(message->stream, "%s %s HTTP/%u.%u\r\n", prot_methodString(request->method), uri.get(),
                   message->versionMajor, message->versionMinor) < 0) {
    TRACE_ERROR("unable to send request line");
    return -1;
  }
  if (msg_headersSend(message) < 0) {
    TRACE_ERROR("unable to send reply headers");
    return -1;
  }
  return 0;
}

}  // namespace

extern "C" {

int http_requestSend(HttpRequest* request) {
  TRACE_INFO("sending request");
  const int result = sendHead(request);
  request->message.state = result < 0 ? HTTP_MSG_FAILED : HTTP_MSG_BODY;
  return result;
}

// --- accessors -------------------------------------------------------------------------------------------------------

int http_requestState(HttpRequest* request) { return request->message.state; }

const uint8_t* http_requestVersion(HttpRequest* request) { return &request->message.versionMajor; }

void http_requestVersionSet(HttpRequest* request, uint8_t major, uint8_t minor) {
  request->message.versionMajor = major;
  request->message.versionMinor = minor;
}

int http_requestMethod(HttpRequest* request) { return request->method; }

const char* http_requestMethodString(HttpRequest* request) { return prot_methodString(request->method); }

HttpUri* http_requestURI(HttpRequest* request) { return &request->uri; }

const char* http_requestPath(HttpRequest* request) { return request->uri.path; }

void* http_requestUserData(HttpRequest* request) { return request->message.userData; }

void http_requestUserDataSet(HttpRequest* request, void* userData) { request->message.userData = userData; }

void* http_requestOwner(HttpRequest* request) { return request->message.owner; }

ZelPeer* http_requestPeer(HttpRequest* request) { return request->message.peer; }

void http_requestPeerSet(HttpRequest* request, ZelPeer* peer) { msg_setPeer(&request->message, peer); }

int http_requestHeader(HttpRequest* request, HttpHeader* header) { return http_msgHeader(&request->message, header); }

int http_requestHeaderSet(HttpRequest* request, HttpHeader* header) {
  return http_msgHeaderSet(&request->message, header);
}

const char* http_requestHeaderValue(HttpRequest* request, const char* name) {
  return http_msgHeaderValue(&request->message, name);
}

int http_requestHeaderValueSet(HttpRequest* request, const char* name, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = http_msgHeaderValueSetV(&request->message, name, format, arguments);
  va_end(arguments);
  return result;
}

int http_requestHeaderEmptySet(HttpRequest* request, const char* name, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = http_msgHeaderValueSetEmptyV(&request->message, name, format, arguments);
  va_end(arguments);
  return result;
}

void http_requestHeadersReset(HttpRequest* request) { http_msgHeadersReset(&request->message); }

int http_requestHeadersNext(HttpRequest* request, const char** name, const char** value) {
  return http_msgHeadersNext(&request->message, name, value);
}

FILE* http_requestStream(HttpRequest* request) { return http_msgStream(&request->message); }

void http_requestStreamSet(HttpRequest* request, FILE* stream) { http_msgStreamSet(&request->message, stream); }

void http_requestModeSet(HttpRequest* request, int mode) { http_msgModeSet(&request->message, mode); }

int http_requestParse(HttpRequest* request) { return http_msgParse(&request->message); }

int http_requestNeedMoreData(HttpRequest* request) { return request->message.needMoreData != 0; }

int http_requestHasBody(HttpRequest* request) { return http_msgHasBody(&request->message) ? 1 : 0; }

int http_requestBodyType(HttpRequest* request) { return request->message.bodyType; }

FILE* http_requestBody(HttpRequest* request) { return http_msgBody(&request->message); }

int http_requestBodyDiscard(HttpRequest* request) { return http_msgBodyDiscard(&request->message); }

int http_requestDone(HttpRequest* request) { return http_msgDone(&request->message); }

}  // extern "C"
