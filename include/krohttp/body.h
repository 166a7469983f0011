/**
 * @file body.h
 * Message bodies as stdio streams, stacked on the connection's stream.
 *
 * A body stream knows where the body ends. A connection that would block gives a short count (EAGAIN) and sets the
 * message's needMoreData: clear the stream's error flag (clearerr()) and read again when the connection is readable.
 * Closing the stream finishes the message.
 */
#ifndef KROHTTP_BODY_H
#define KROHTTP_BODY_H

#include <krohttp/export.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

struct HttpMessage;

/** How a body is delimited (RFC 9112 section 6). */
enum HttpBodyType {
  HTTP_BODY_UNKNOWN = 0,        /**< a transfer coding other than chunked */
  HTTP_BODY_NONE = 1,           /**< no body */
  HTTP_BODY_CONTENT_LENGTH = 2, /**< Content-Length */
  HTTP_BODY_UNTIL_CLOSE = 3,    /**< ends with the connection */
  HTTP_BODY_CHUNKED = 4,        /**< chunked transfer coding */
  HTTP_BODY_MULTIPART = 5       /**< Content-Length and a multipart Content-Type */
};

/** @return the HttpBodyType that the message's headers call for */
KROHTTP_API int body_type(struct HttpMessage *message);

/**
 * Opens the body stream that body_type() calls for. http_msgBody() does this and more.
 * @param parent  the connection's stream, borrowed until the body is closed
 * @param mode    "r" or "w"
 * @return the stream, to be closed with fclose(); NULL with errno: ENOSYS for an unknown transfer coding, ENODATA when
 * there is no body, else the reason of the failure (also when the message is already done or failed)
 */
KROHTTP_API FILE *body_fopen(struct HttpMessage *message, FILE *parent, const char *mode);

KROHTTP_API uint32_t min(uint32_t a, uint32_t b);
KROHTTP_API uint32_t max(uint32_t a, uint32_t b);

#ifdef __cplusplus
}
#endif
#endif
