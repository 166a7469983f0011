/**
 * @file header.h
 * Typed headers: the meaning of a header's text, by header code.
 *
 * Three tables, indexed by header code, hold for each header how its text is parsed, written back into a message and
 * released. A header is cleaned up with http_hdrCleanup() after http_hdrFactory(), whatever that returned.
 */
#ifndef KROHTTP_HEADER_H
#define KROHTTP_HEADER_H

#include <krohttp/export.h>
#include <krohttp/protocol.h>
#include <stdbool.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

struct HttpMessage;
struct http_cookie;

/** Flags of the Connection header (RFC 9110 section 7.6.1). */
enum HttpConnectionFlag { HTTP_CONNECTION_CLOSE = 1, HTTP_CONNECTION_KEEP_ALIVE = 2, HTTP_CONNECTION_TE = 4 };

/** One "name=value" of a header; a list, the last one of the text first. */
typedef struct HttpHeaderParameter {
  char *name;  /**< points into the header's raw text */
  char *value; /**< points into the header's raw text; NULL without '=' */
  struct HttpHeaderParameter *next;
} HttpHeaderParameter;

/** The credentials of an Authorization or WWW-Authenticate header. All strings are heap copies owned by the header. */
typedef struct auth_authorization {
  uint32_t scheme; /**< 0 Basic, 1 Digest */
  char *username;
  char *password; /**< Basic: the password; Digest: HA1 */
  int32_t method; /**< HttpMethod, for the digest of the request */
  char *realm;
  char *nonce;
  char *uri;
  char *qop;
  char *nc;
  char *cnonce;
  char *response;
  char *opaque;
} auth_authorization;

/** A typed header. Caller-provided; pointers of the typed part point into raw and die with it. */
typedef struct HttpHeader {
  int code;  /**< set by the application: which header it is (HttpHeaderCode) */
  char *raw; /**< read-only: private copy of the text, cut up by the parsing */
  union {    /**< by code; headers without a member here have their text in raw */
    struct {
      uint64_t length;
    } contentLength;
    struct {
      char *mediaType;
      char *subType;
      HttpHeaderParameter *parameters;
    } contentType;
    struct {
      char *disposition;
      HttpHeaderParameter *parameters;
    } contentDisposition;
    struct {
      unsigned flags; /**< HttpConnectionFlag bits */
    } connection;
    struct {
      bool chunked;
    } transferEncoding;
    struct {
      time_t time;
    } date;
    struct http_cookie *cookies;
    auth_authorization authorization;
  };
} HttpHeader;

/** Fills the typed part from @p text (modified, lives as long as the header). @return 0 or -1 (traced) */
typedef int (*HttpHeaderFactory)(HttpHeader *header, char *text);
/** Adds the header to @p message. @return 0 or -1 (traced) */
typedef int (*HttpHeaderSerializer)(HttpHeader *header, struct HttpMessage *message);
/** Releases what the typed part owns. */
typedef void (*HttpHeaderFree)(HttpHeader *header);

extern KROHTTP_API const HttpHeaderFactory hdr_factories[HTTP_HEADER_COUNT];
extern KROHTTP_API const HttpHeaderSerializer hdr_serializers[HTTP_HEADER_COUNT];
/** NULL where there is nothing to release. */
extern KROHTTP_API const HttpHeaderFree hdr_frees[HTTP_HEADER_COUNT];

/**
 * Parses @p text into @p header, whose code says how.
 * @param text  copied
 * @return 0, or -1 for malformed text and when memory is short (traced); clean up in either case
 */
KROHTTP_API int http_hdrFactory(HttpHeader *header, const char *text);

/** Adds the header to @p message as one more entry. @return 0 or -1 (traced) */
KROHTTP_API int http_hdrSerialize(HttpHeader *header, struct HttpMessage *message);

/** Releases what the header owns and sets code to 0 and raw to NULL. */
KROHTTP_API void http_hdrCleanup(HttpHeader *header);

/** @return the value of the first parameter of the list called @p name, compared with case; NULL when there is none */
KROHTTP_API char *http_hdrGetParameter(HttpHeaderParameter *parameters, const char *name);

#ifdef __cplusplus
}
#endif
#endif
