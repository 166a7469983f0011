/**
 * @file reply.h
 * Replies: a message with a status code and a reason phrase; and canned ones.
 *
 * A pointer to a reply is also a pointer to its message. Texts handed out follow the rules of message.h.
 */
#ifndef KROHTTP_REPLY_H
#define KROHTTP_REPLY_H

#include <krohttp/message.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A reply. The fields are read-only: set them through the functions. */
typedef struct HttpReply {
  HttpMessage message;
  unsigned statusCode;
  char *reason; /**< points into the message's buffer */
} HttpReply;

/** @return a new, initialized reply, owned by the caller; NULL when memory is short (traced) */
KROHTTP_API HttpReply *http_replyCreate(void);
/** Makes a zeroed message a reply: for embedded and static ones. */
KROHTTP_API void http_replyInitialize(HttpReply *reply);
/** Releases what the reply owns; the counterpart of http_replyInitialize(). */
KROHTTP_API void http_replyCleanup(HttpReply *reply);
/** Prepares the object for the next reply of its connection (http_msgReset()). */
KROHTTP_API void http_replyReset(HttpReply *reply);
/** Cleans up and frees; the counterpart of http_replyCreate(). NULL is allowed. */
KROHTTP_API void http_replyDestroy(HttpReply *reply);

/**
 * Sets the status line; the version must have been set before. Headers may already be there.
 * @param reason  NULL for the standard phrase, "Unknown" for a code that has none
 * @return 0 or -1 (traced)
 */
KROHTTP_API int http_replyStatusCodeSet(HttpReply *reply, unsigned code, const char *reason);

/** Writes status line and headers to the stream. @return 0 and state 2, or -1 and state 5 (traced) */
KROHTTP_API int http_replySend(HttpReply *reply);

/** Sends a complete reply: a one-line HTML page that names the status. @return 0 or -1 (traced) */
KROHTTP_API int http_replyWithDefault(HttpReply *reply, unsigned code);

/** As http_replyWithDefault(), with formatted HTML behind the headline. @return 0 or -1 (traced) */
KROHTTP_API int http_replyWithDefaultAndBody(HttpReply *reply, unsigned code, const char *format, ...)
    KROHTTP_PRINTF(3, 4);

/**
 * Sends a complete redirect to a formatted location.
 *
 * The formatted location is taken as a format once more for the Location header: "%%" becomes "%" there. A conversion
 * in it that would need an argument is copied as it stands.
 * @return 0 or -1 (traced)
 */
KROHTTP_API int http_replyWithRedirect(HttpReply *reply, unsigned code, const char *format, ...) KROHTTP_PRINTF(3, 4);

/** Copies status code (with the standard phrase) and all headers but Connection. @return 0 or -1 (traced) */
KROHTTP_API int http_replyCopy(HttpReply *source, HttpReply *destination);

/** The status line and headers of a canned reply. @return 0 or -1 (traced) */
KROHTTP_API int rp_messageWithDefault(HttpReply *reply, unsigned code);
/** The page of a canned reply. @return 0 or -1 (traced) */
KROHTTP_API int rp_bodyWithDefault(HttpReply *reply, unsigned code);

KROHTTP_API int http_replyState(HttpReply *reply);
/** @return the two version bytes, major and minor; valid as long as the reply */
KROHTTP_API const uint8_t *http_replyVersion(HttpReply *reply);
KROHTTP_API void http_replyVersionSet(HttpReply *reply, uint8_t major, uint8_t minor);
KROHTTP_API unsigned http_replyStatusCode(HttpReply *reply);
KROHTTP_API void *http_replyUserData(HttpReply *reply);
KROHTTP_API void http_replyUserDataSet(HttpReply *reply, void *userData);
/** @return the HttpServer or HttpClient that holds the reply */
KROHTTP_API void *http_replyOwner(HttpReply *reply);
KROHTTP_API ZelPeer *http_replyPeer(HttpReply *reply);
KROHTTP_API void http_replyPeerSet(HttpReply *reply, ZelPeer *peer);

/** http_msgHeader() */
KROHTTP_API int http_replyHeader(HttpReply *reply, HttpHeader *header);
/** http_msgHeaderSet() */
KROHTTP_API int http_replyHeaderSet(HttpReply *reply, HttpHeader *header);
/** http_msgHeaderValue() */
KROHTTP_API const char *http_replyHeaderValue(HttpReply *reply, const char *name);
/** http_msgHeaderValueSetV() */
KROHTTP_API int http_replyHeaderValueSet(HttpReply *reply, const char *name, const char *format, ...)
    KROHTTP_PRINTF(3, 4);
/** http_msgHeaderValueSetEmptyV() */
KROHTTP_API int http_replyHeaderEmptySet(HttpReply *reply, const char *name, const char *format, ...)
    KROHTTP_PRINTF(3, 4);
/** http_msgHeadersReset() */
KROHTTP_API void http_replyHeadersReset(HttpReply *reply);
/** http_msgHeadersNext() */
KROHTTP_API int http_replyHeadersNext(HttpReply *reply, const char **name, const char **value);

KROHTTP_API FILE *http_replyStream(HttpReply *reply);
KROHTTP_API void http_replyStreamSet(HttpReply *reply, FILE *stream);
KROHTTP_API void http_replyModeSet(HttpReply *reply, int mode);
/** http_msgParse() */
KROHTTP_API int http_replyParse(HttpReply *reply);
/** @return 1 when the last read stopped because nothing more has arrived, else 0 */
KROHTTP_API int http_replyNeedMoreData(HttpReply *reply);
/** @return 1 or 0 (http_msgHasBody()) */
KROHTTP_API int http_replyHasBody(HttpReply *reply);
/** @return HttpBodyType */
KROHTTP_API int http_replyBodyType(HttpReply *reply);
/** http_msgBody() */
KROHTTP_API FILE *http_replyBody(HttpReply *reply);
/** http_msgBodyDiscard() */
KROHTTP_API int http_replyBodyDiscard(HttpReply *reply);
/** http_msgDone() */
KROHTTP_API int http_replyDone(HttpReply *reply);

/* What the message layer calls for a message of type 1. */

/** Takes a parsed status line. @return 0 */
KROHTTP_API int rp_factory(HttpReply *reply, char *status, char *reason);
/** msg_grow(), with the reason following; a NULL reason points to the buffer's start afterwards. */
KROHTTP_API int rp_grow(HttpReply *reply, unsigned extra);
/** @return true: a reply whose headers do not say otherwise is read until the connection closes */
KROHTTP_API bool rp_hasBody(HttpReply *reply);

#ifdef __cplusplus
}
#endif
#endif
