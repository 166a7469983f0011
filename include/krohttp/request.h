/**
 * @file request.h
 * Requests: a message with a method and a target.
 *
 * A pointer to a request is also a pointer to its message. Texts handed out follow the rules of message.h.
 */
#ifndef KROHTTP_REQUEST_H
#define KROHTTP_REQUEST_H

#include <krohttp/message.h>
#include <krohttp/uri.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A request. The fields are read-only: set them through the functions. */
typedef struct HttpRequest {
  HttpMessage message;
  int method;  /**< HttpMethod */
  HttpUri uri; /**< points into the message's buffer */
} HttpRequest;

/** @return a new, initialized request, owned by the caller; NULL when memory is short (traced) */
KROHTTP_API HttpRequest *http_requestCreate(void);
/** Makes a zeroed message a request: for embedded and static ones. */
KROHTTP_API void http_requestInitialize(HttpRequest *request);
/** Releases what the request owns; the counterpart of http_requestInitialize(). */
KROHTTP_API void http_requestCleanup(HttpRequest *request);
/** Prepares the object for the next request of its connection (http_msgReset()). */
KROHTTP_API void http_requestReset(HttpRequest *request);
/** Cleans up and frees; the counterpart of http_requestCreate(). NULL is allowed. */
KROHTTP_API void http_requestDestroy(HttpRequest *request);

/**
 * Sets the request line; the version must have been set before. Headers may already be there.
 * @param method  HttpMethod
 * @param uri     the target, encoded. Its path is kept decoded: of what was escaped in it only "#&=%? " is escaped
 * again when it is sent, and one with a TAB, line end or the like is not sent at all
 * @return 0 or -1 (traced)
 */
KROHTTP_API int http_requestMethodSet(HttpRequest *request, int method, const char *uri);

/** Writes request line and headers to the stream. @return 0 and state 2, or -1 and state 5 (traced) */
KROHTTP_API int http_requestSend(HttpRequest *request);

KROHTTP_API int http_requestState(HttpRequest *request);
/** @return the two version bytes, major and minor; valid as long as the request */
KROHTTP_API const uint8_t *http_requestVersion(HttpRequest *request);
KROHTTP_API void http_requestVersionSet(HttpRequest *request, uint8_t major, uint8_t minor);
KROHTTP_API int http_requestMethod(HttpRequest *request);
KROHTTP_API const char *http_requestMethodString(HttpRequest *request);
/** @return the embedded target; valid as long as the request */
KROHTTP_API HttpUri *http_requestURI(HttpRequest *request);
/** @return the decoded path; NULL when the request has no target, or its head was refused */
KROHTTP_API const char *http_requestPath(HttpRequest *request);
KROHTTP_API void *http_requestUserData(HttpRequest *request);
KROHTTP_API void http_requestUserDataSet(HttpRequest *request, void *userData);
/** @return the HttpServer or HttpClient that holds the request */
KROHTTP_API void *http_requestOwner(HttpRequest *request);
KROHTTP_API ZelPeer *http_requestPeer(HttpRequest *request);
KROHTTP_API void http_requestPeerSet(HttpRequest *request, ZelPeer *peer);

/** http_msgHeader() */
KROHTTP_API int http_requestHeader(HttpRequest *request, HttpHeader *header);
/** http_msgHeaderSet() */
KROHTTP_API int http_requestHeaderSet(HttpRequest *request, HttpHeader *header);
/** http_msgHeaderValue() */
KROHTTP_API const char *http_requestHeaderValue(HttpRequest *request, const char *name);
/** http_msgHeaderValueSetV() */
KROHTTP_API int http_requestHeaderValueSet(HttpRequest *request, const char *name, const char *format, ...)
    KROHTTP_PRINTF(3, 4);
/** http_msgHeaderValueSetEmptyV() */
KROHTTP_API int http_requestHeaderEmptySet(HttpRequest *request, const char *name, const char *format, ...)
    KROHTTP_PRINTF(3, 4);
/** http_msgHeadersReset() */
KROHTTP_API void http_requestHeadersReset(HttpRequest *request);
/** http_msgHeadersNext() */
KROHTTP_API int http_requestHeadersNext(HttpRequest *request, const char **name, const char **value);

KROHTTP_API FILE *http_requestStream(HttpRequest *request);
KROHTTP_API void http_requestStreamSet(HttpRequest *request, FILE *stream);
KROHTTP_API void http_requestModeSet(HttpRequest *request, int mode);
/** http_msgParse() */
KROHTTP_API int http_requestParse(HttpRequest *request);
/** @return 1 when the last read stopped because nothing more has arrived, else 0 */
KROHTTP_API int http_requestNeedMoreData(HttpRequest *request);
/** @return 1 or 0 (http_msgHasBody()) */
KROHTTP_API int http_requestHasBody(HttpRequest *request);
/** @return HttpBodyType */
KROHTTP_API int http_requestBodyType(HttpRequest *request);
/** http_msgBody() */
KROHTTP_API FILE *http_requestBody(HttpRequest *request);
/** http_msgBodyDiscard() */
KROHTTP_API int http_requestBodyDiscard(HttpRequest *request);
/** http_msgDone() */
KROHTTP_API int http_requestDone(HttpRequest *request);

/* What the message layer calls for a message of type 0. */

/** Takes a parsed request line. @return 0, or -1 for an unknown method or a target without '/' (traced) */
KROHTTP_API int rq_factory(HttpRequest *request, char *method, char *target);
/** msg_grow(), with path and query following; a running parameter iteration does not. */
KROHTTP_API int rq_grow(HttpRequest *request, unsigned extra);
/** @return false for DELETE, GET, HEAD and OPTIONS, else true */
KROHTTP_API bool rq_hasBody(HttpRequest *request);

#ifdef __cplusplus
}
#endif
#endif
