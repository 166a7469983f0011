/**
 * @file message.h
 * The message: what requests and replies have in common.
 *
 * One growable buffer holds the first line and then the headers, each as a compact entry: a byte with the header code,
 * for a custom header its name and a NUL, then the value and a NUL. Entries stand in order of arrival and are never
 * merged. A message being read also stages its raw lines there.
 *
 * Texts handed out point into the buffer: they are valid until it grows (a line is read, a header is added) or the
 * message is reset.
 */
#ifndef KROHTTP_MESSAGE_H
#define KROHTTP_MESSAGE_H

#include <krohttp/export.h>
#include <krohttp/header.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <zel/peer.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Where a message stands. */
enum HttpMessageState {
  HTTP_MSG_FIRST_LINE = 0,   /**< the request or status line is expected */
  HTTP_MSG_HEADERS = 1,      /**< header lines are expected */
  HTTP_MSG_BODY = 2,         /**< the head is complete, a body follows */
  HTTP_MSG_DONE = 3,         /**< complete */
  HTTP_MSG_ACKNOWLEDGED = 4, /**< (replies of a server connection only) complete, and its handler was told */
  HTTP_MSG_FAILED = 5        /**< unusable until it is reset */
};

enum HttpMessageType { HTTP_MSG_REQUEST = 0, HTTP_MSG_REPLY = 1 };

enum HttpMessageMode { HTTP_MSG_READING = 1, HTTP_MSG_WRITING = 2 };

enum HttpMessageOwner { HTTP_MSG_OWNED_BY_NONE = 0, HTTP_MSG_OWNED_BY_CLIENT = 1, HTTP_MSG_OWNED_BY_SERVER = 2 };

/** Whether a server goes on reading a request. */
enum HttpMessagePause { HTTP_MSG_RUNNING = 0, HTTP_MSG_PAUSED = 1, HTTP_MSG_TEMPORIZED = 2 };

/** Why a message was refused. Those from 6 on come only where limits or strictness were asked for (server.h). */
enum HttpMessageRefusal {
  HTTP_MSG_ACCEPTED = 0,
  HTTP_MSG_BAD_FIRST_LINE = 1, /**< not three words, or a request where a reply is due, or the reverse */
  HTTP_MSG_BAD_VERSION = 2,
  HTTP_MSG_BAD_METHOD = 3, /**< outside the method table */
  HTTP_MSG_BAD_TARGET = 4, /**< without a '/' */
  HTTP_MSG_BAD_HEADER = 5,

  /* limits */
  HTTP_MSG_LONG_LINE = 6,  /**< the request line */
  HTTP_MSG_LARGE_HEAD = 7, /**< first line and headers */
  HTTP_MSG_MANY_HEADERS = 8,
  HTTP_MSG_LARGE_BODY = 9,
  HTTP_MSG_SLOW_HEAD = 10,        /**< not complete in time */
  HTTP_MSG_STALLED = 11,          /**< a body, or a reply, made no progress for too long */
  HTTP_MSG_SLOW = 12,             /**< a body came, or a reply was taken, too slowly */
  HTTP_MSG_IDLE = 13,             /**< no request for too long */
  HTTP_MSG_MANY_REQUESTS = 14,    /**< on one connection */
  HTTP_MSG_MANY_CONNECTIONS = 15, /**< on one server */
  HTTP_MSG_FORGOTTEN = 16,        /**< paused for too long */

  /* strictness */
  HTTP_MSG_LENGTH_AND_CODING = 17, /**< Content-Length with Transfer-Encoding */
  HTTP_MSG_REPEATED_LENGTH = 18,
  HTTP_MSG_BAD_LENGTH = 19,         /**< a Content-Length of anything but digits, or beyond what can be counted */
  HTTP_MSG_BAD_CODING = 20,         /**< a transfer coding other than exactly "chunked", or one in HTTP/1.0 */
  HTTP_MSG_BAD_CHUNK = 21,          /**< a chunk's size line or end */
  HTTP_MSG_BARE_LINE_END = 22,      /**< LF without CR, or CR without LF */
  HTTP_MSG_CONTROL_BYTE = 23,       /**< in the head; TAB is allowed */
  HTTP_MSG_BLANK_BEFORE_COLON = 24, /**< in a header line */
  HTTP_MSG_FOLDED_LINE = 25,        /**< a header line that begins with a blank */
  HTTP_MSG_BAD_NAME = 26,           /**< of a header: no token */
  HTTP_MSG_NO_HOST = 27,
  HTTP_MSG_REPEATED_HOST = 28,
  HTTP_MSG_OTHER_HOST = 29,    /**< the target names another authority than the Host header */
  HTTP_MSG_OTHER_VERSION = 30, /**< neither 1.0 nor 1.1 */
  HTTP_MSG_METHOD_NO_TOKEN = 31,
  HTTP_MSG_BAD_HOST = 32, /**< a Host that is none */
  HTTP_MSG_REFUSALS = 33  /**< how many there are */
};

/** A message. Zeroed, then initialized by its request or reply; the fields are read-only unless said otherwise. */
typedef struct HttpMessage {
  int state;            /**< HttpMessageState */
  char *buffer;         /**< owned; from the C allocator */
  uint32_t bufferSize;  /**< bytes allocated */
  FILE *stream;         /**< the connection's stream, borrowed; set with http_msgStreamSet() */
  uint32_t fill;        /**< private: bytes in use */
  uint32_t lineEnd;     /**< private: just past the last complete line */
  uint32_t lineStart;   /**< private: the line last handed out or written */
  uint32_t headersEnd;  /**< private: where the next entry goes */
  char *firstHeader;    /**< private: the first entry */
  char *headersLimit;   /**< private: just past the last entry */
  char *headerIter;     /**< private: cursor of the iteration, NULL before the first step */
  int type;             /**< HttpMessageType */
  uint8_t versionMajor; /**< HTTP version of the first line */
  uint8_t versionMinor;
  int mode;             /**< HttpMessageMode; set with http_msgModeSet() */
  int needMoreData;     /**< the last read stopped because nothing more has arrived yet */
  FILE *body;           /**< the body stream while it is open */
  int bodyType;         /**< HttpBodyType, known when the head is complete */
  void *owner;          /**< the HttpServer or HttpClient that holds the message, not owned */
  int ownerType;        /**< HttpMessageOwner */
  void *userData;       /**< the application's, not touched by the library */
  ZelPeer *peer;        /**< the connection, not owned; set with msg_setPeer() */
  uint8_t paused;       /**< HttpMessagePause of a request on a server connection */
  uint8_t refusal;      /**< HttpMessageRefusal of the last head that was read */
  uint8_t bodyless;     /**< private: the reply may not have a body: what is written of one is accepted and dropped */
  uint8_t bodyCut;      /**< the body ended, or was closed, before its end was read */
  uint8_t relayed;      /**< private: the body is passed on, and never looked back into */
  uint8_t inParts;      /**< private: the body is taken apart as it comes: reading it never waits */
  uint32_t bodyReads;   /**< private: how often the body stream has got bytes */
  uint32_t bodyWrites;  /**< private: how often something has been written to the body stream */
  uint8_t neverWaits;   /**< private: reading the body never sleeps, whoever reads it */
  uint32_t bodyAhead;   /**< private: bytes that the body stream's context holds read ahead */
  uint32_t headLimit;   /**< private: a head that takes more bytes fails; 0: none does */
  uint32_t lineLimit;   /**< private: the same for the first line */
  uint32_t headerLimit; /**< private: the same for the number of headers */
  uint32_t headerCount; /**< private: headers read */
  uint64_t bodyLimit;   /**< private: a body of more bytes fails; 0: none does */
  uint64_t bodyCount;   /**< private: bytes of the body read */
  uint32_t authorityStart;  /**< private: where the target's authority stands in the buffer */
  uint32_t authorityLength; /**< private: its length, 0 when there is none */
  uint8_t strict;           /**< private: what is ambiguous is refused */
  uint8_t last;             /**< private: a reply that ends its connection, which its head says */
} HttpMessage;

/* --- the buffer and its lines ------------------------------------------------------------------------------------ */

/** Enlarges the buffer by @p extra bytes, at least 512. @return 0, or -1 when memory is short (traced, unchanged) */
KROHTTP_API int msg_grow(HttpMessage *message, unsigned extra);

/** As msg_grow(), through the request or reply, whose pointers into the buffer follow. @return 0 or -1 (traced) */
KROHTTP_API int msg_growAndKeep(HttpMessage *message, unsigned extra);

/**
 * Reads one line of the head from @p stream into the buffer.
 *
 * Bytes are appended until LF; the line is NUL-terminated in place, without its line end. The byte before the LF is
 * always taken for the CR. Control bytes other than TAB, CR and LF are dropped.
 *
 * @param stream  non-blocking connection stream, borrowed
 * @param line    out: the line inside the buffer; untouched when no line is complete
 * @return 0 with a line; 0 without one when the stream would block (needMoreData is set: call again when it is
 * readable); -1 at the end of the stream, on a read error (traced, state 5), and when memory is short
 */
KROHTTP_API int msg_lineGet(HttpMessage *message, FILE *stream, char **line);

/** Appends one formatted line, without a line end. @return 0, or -1 (traced) */
KROHTTP_API int msg_lineSetV(HttpMessage *message, const char *format, va_list arguments) KROHTTP_PRINTF(2, 0);

/** Puts a formatted first line in front of everything and parses it. @return always 0; a failure shows in state (and is
 * traced) */
KROHTTP_API int msg_lineSetFirstV(HttpMessage *message, const char *format, va_list arguments) KROHTTP_PRINTF(2, 0);

/** Cuts the first line away, if a line feed ends it: lines are stored without, so this finds nothing as a rule.
 * @return 0, or -1 when memory is short (traced) */
KROHTTP_API int msg_removeStatusLine(HttpMessage *message);

/**
 * Decides what a failed read means.
 * @param error  its errno
 * @return 0 with needMoreData set for EAGAIN, and without for a message that is done or failed; else -1 and state 5
 * (traced)
 */
KROHTTP_API int msg_checkNeedMoreData(HttpMessage *message, int error);

/* --- the parser -------------------------------------------------------------------------------------------------- */

/**
 * Reads and parses one line of the head.
 * @return 0: a line was taken, or more data is needed (needMoreData); -1: the message failed and was reset, its buffer
 * freed (refusal tells why), or the head was complete already
 */
KROHTTP_API int http_msgParse(HttpMessage *message);

/** Parses a request or status line, in place; it must be of the message's own type. @return 0, or -1 and state 5
 * (traced) */
KROHTTP_API int msg_parseStatusLine(HttpMessage *message, char *line);

/** Parses "HTTP/1.1", in place; what stands before the slash is not looked at. @return 0, or -1 (traced) */
KROHTTP_API int msg_parseVersion(HttpMessage *message, char *word);

/**
 * Stores a header line as the next entry.
 * @param line        inside the buffer at or behind the last entry; cut up
 * @param allowEmpty  accept an empty value, with a warning
 * @return 0, or -1 for a malformed line and when memory is short (traced)
 */
KROHTTP_API int msg_parseHeaderLine(HttpMessage *message, char *line, bool allowEmpty);

/** Formats and parses the first line of an outgoing message. @return 0 or -1 (traced); a line put in front of headers
 * reports its failure in state only */
KROHTTP_API int msg_setStatusLine(HttpMessage *message, const char *format, ...) KROHTTP_PRINTF(2, 3);

/** Formats and stores one header line, "Name: value". @return 0 or -1 (traced) */
KROHTTP_API int msg_setHeaderLine(HttpMessage *message, const char *format, ...) KROHTTP_PRINTF(2, 3);

/** @return whether a message of this kind has a body when no header says so */
KROHTTP_API bool msg_hasBody(HttpMessage *message);

/* --- headers ----------------------------------------------------------------------------------------------------- */

/**
 * Steps to the next header.
 * @param code, name, value  out: its HttpHeaderCode, its name (the table's spelling for a known one) and its value
 * @return 0, or -1 at the end (the next step starts again)
 */
KROHTTP_API int msg_headersNext(HttpMessage *message, int *code, const char **name, const char **value);

/** The next step starts at the first header. */
KROHTTP_API void http_msgHeadersReset(HttpMessage *message);

/** As msg_headersNext(), without the code. */
KROHTTP_API int http_msgHeadersNext(HttpMessage *message, const char **name, const char **value);

/** @return the value of the first header called @p name, compared without case; NULL when there is none. The iteration
 * then goes on behind it. */
KROHTTP_API const char *http_msgHeaderValue(HttpMessage *message, const char *name);

/** Parses the first header with header->code into @p header. @return the result of http_hdrFactory(): clean up after
 * it; -1 when there is none (then there is nothing to clean up) */
KROHTTP_API int http_msgHeader(HttpMessage *message, HttpHeader *header);

/** Adds a typed header. @return 0 or -1 (traced) */
KROHTTP_API int http_msgHeaderSet(HttpMessage *message, HttpHeader *header);

/**
 * Adds a header with a formatted, non-empty value; one of the same name stays.
 * @param name  becomes part of the format: a '%' in it is a conversion
 * @return 0 or -1 (traced)
 */
KROHTTP_API int http_msgHeaderValueSet(HttpMessage *message, const char *name, const char *format, ...)
    KROHTTP_PRINTF(3, 4);
KROHTTP_API int http_msgHeaderValueSetV(HttpMessage *message, const char *name, const char *format, va_list arguments)
    KROHTTP_PRINTF(3, 0);
/** As http_msgHeaderValueSetV(), but an empty value is accepted (with a warning). */
KROHTTP_API int http_msgHeaderValueSetEmptyV(HttpMessage *message, const char *name, const char *format,
                                             va_list arguments) KROHTTP_PRINTF(3, 0);

/** Writes all headers and the blank line to the stream, and flushes it. @return 0 and state 2, or -1 (traced) */
KROHTTP_API int msg_headersSend(HttpMessage *message);

/* --- body and completion ----------------------------------------------------------------------------------------- */

/**
 * The message's body stream, opened on first use.
 * @return the stream, which lives until it is closed or the message is done; NULL when there is no body or it cannot be
 * opened (then traced, state 5)
 */
KROHTTP_API FILE *http_msgBody(HttpMessage *message);

/** Reads what has arrived of the body and drops it, and closes the body at its end. @return 0, also when more is to
 * come; -1 on failure (traced) */
KROHTTP_API int http_msgBodyDiscard(HttpMessage *message);

/** Completes the message: ends its head or body, flushes an outgoing one. @return 0 and state 3, or -1 and state 5
 * (traced) */
KROHTTP_API int http_msgDone(HttpMessage *message);

/** @return whether body_type() is other than "no body" */
KROHTTP_API bool http_msgHasBody(HttpMessage *message);

/** Clears the message for reuse; its buffer, stream, type, mode, owner and peer stay. An open body is not closed.
 * @return the message */
KROHTTP_API HttpMessage *http_msgReset(HttpMessage *message);

/** Frees the buffer and closes a body that is being transferred. The message may not be used afterwards but to be
 * initialized anew. */
KROHTTP_API void http_msgCleanup(HttpMessage *message);

KROHTTP_API FILE *http_msgStream(HttpMessage *message);
KROHTTP_API void http_msgStreamSet(HttpMessage *message, FILE *stream);
KROHTTP_API void http_msgModeSet(HttpMessage *message, int mode);
KROHTTP_API void msg_setPeer(HttpMessage *message, ZelPeer *peer);

#ifdef __cplusplus
}
#endif
#endif
