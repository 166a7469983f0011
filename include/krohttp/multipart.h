/**
 * @file multipart.h
 * Multipart bodies (form uploads, RFC 7578, RFC 2046 section 5.1), read part by part and never held whole.
 *
 * A server's request handler prepares a reader for the request, its body handler calls http_msgMultipartHandleRead()
 * each time more of the body has come. The reader parses the head of each part, calls the part handler, and then the
 * body handler with a stream of just this part's bytes:
 *
 *   static int onPart(HttpRequest *part) { ... look at http_requestHeaderValue(part, "Content-Disposition") ... }
 *   static int onPartBody(HttpRequest *part, FILE *body) {
 *     size_t count;
 *     while ((count = fread(block, 1, sizeof block, body)) > 0) ... use the bytes ...
 *     if (http_requestState(part) == HTTP_MSG_DONE) ... the part is complete ...
 *     return 0;
 *   }
 *
 * A short read tells that there is no more now. Whether the part is complete, its state tells then, and nothing else
 * does: the stream's end-of-file flag is set in both cases, and cleared before the next call of the body handler. A
 * handler may also read less than there is; it is called again for the rest.
 *
 * Nothing is sought: any body that the library reads can be taken apart, chunked ones too. The body stream does not
 * wait in the event loop for such a reader.
 */
#ifndef KROHTTP_MULTIPART_H
#define KROHTTP_MULTIPART_H

#include <krohttp/export.h>
#include <krohttp/message.h>
#include <krohttp/request.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Where a reader stands. */
enum HttpMultipartState {
  HTTP_MULTIPART_INIT = 0,        /**< the first boundary line is expected */
  HTTP_MULTIPART_BOUNDARY = 1,    /**< behind a delimiter: its two last bytes tell what follows */
  HTTP_MULTIPART_BODY_OPENED = 2, /**< as HTTP_MULTIPART_BODY; not entered */
  HTTP_MULTIPART_HEADERS = 3,     /**< the head of a part */
  HTTP_MULTIPART_BODY = 4,        /**< the body of a part */
  HTTP_MULTIPART_GIVE_BACK = 5,   /**< the same, with what only began like the delimiter still to be handed out */
  HTTP_MULTIPART_END = 6,         /**< behind the last delimiter: its line end is expected */
  HTTP_MULTIPART_DONE = 7,        /**< complete; what follows in the message is read and dropped */
  HTTP_MULTIPART_FAILED = 8
};

/**
 * The head of a part is complete.
 * @param part  valid until the next part; its user data is the reader (HttpMultipart)
 * @return negative to give up
 */
typedef int (*HttpPartHandler)(HttpRequest *part);
/**
 * Bytes of the part can be read, or its end. Called at least once for each part, also for an empty one, and until all
 * of its bytes have been read.
 * @param body  of this part alone. Closing it skips the rest of the part
 * @return negative to give up
 */
typedef int (*HttpPartBodyHandler)(HttpRequest *part, FILE *body);

/** A reader; the caller's storage. The fields are read-only. */
typedef struct HttpMultipart {
  HttpMessage *message;            /**< the message taken apart, not owned */
  FILE *input;                     /**< its body, not owned */
  HttpRequest part;                /**< the current part */
  int state;                       /**< HttpMultipartState */
  char *delimiter;                 /**< owned: CR LF, "--" and the boundary */
  unsigned delimiterLength;        /**< bytes */
  unsigned toRead;                 /**< private: bytes still wanted for scratch; where the giving back stands */
  unsigned haveRead;               /**< private: bytes of the delimiter that have been read */
  char *scratch;                   /**< private, owned: delimiterLength bytes */
  HttpPartHandler partHandler;     /**< NULL: every part is wanted */
  HttpPartBodyHandler bodyHandler; /**< NULL: bodies are read and dropped */
  uint8_t running;                 /**< private: inside http_msgMultipartHandleRead() */
  uint8_t endOffered;              /**< private: the body handler has been called at the end of the part */
  uint8_t complete;                /**< the last delimiter has been read: every part is complete, also when the reader
                                        has failed for want of a line end behind it */
} HttpMultipart;

/**
 * Prepares @p multipart for a message whose head is complete, and opens the message's body.
 * @param message  must outlive the use of the reader; its Content-Type is multipart with a boundary
 * @return 0, or -1 (traced: not a multipart message, no boundary, no body, no memory); nothing has to be released then
 */
KROHTTP_API int http_msgMultipartInitialize(HttpMultipart *multipart, HttpMessage *message, HttpPartHandler partHandler,
                                            HttpPartBodyHandler bodyHandler);
/**
 * As http_msgMultipartInitialize(), with a boundary that the application knows better: the quotes of a quoted one are
 * part of it otherwise.
 * @param boundary  copied; NULL: as the Content-Type says
 */
KROHTTP_API int http_msgMultipartInitializeWithBoundary(HttpMultipart *multipart, HttpMessage *message,
                                                        const char *boundary, HttpPartHandler partHandler,
                                                        HttpPartBodyHandler bodyHandler);
/** Releases what the reader owns, at any time, from inside its handlers too. Does not touch the message. */
KROHTTP_API void http_msgMultipartCleanup(HttpMultipart *multipart);
/** @return the message given to http_msgMultipartInitialize() */
KROHTTP_API HttpMessage *http_msgMultipartMessage(HttpMultipart *multipart);

/**
 * Reads on as far as the data that has arrived allows, the request is not paused and a handler makes progress. A call
 * from inside a handler of the reader does nothing: the reading under way goes on anyway.
 * @return 0; -1 when the reader has failed (traced): the body is malformed or was cut, or a handler gave up. The
 * server's body handler should return -1 then too, or answer; the reader reads no more
 */
KROHTTP_API int http_msgMultipartHandleRead(HttpMultipart *multipart);

/** http_serverPauseRequest() on the message. @return 0, or -1 (also when it is no request) */
KROHTTP_API int http_msgMultipartPause(HttpMultipart *multipart);
/**
 * http_serverResumeRequest() on the message, and reads on at once.
 * @return 0, or -1: as the two, also when the message is no request
 */
KROHTTP_API int http_msgMultipartResume(HttpMultipart *multipart);

#ifdef __cplusplus
}
#endif
#endif
