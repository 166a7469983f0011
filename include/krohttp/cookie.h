/**
 * @file cookie.h
 * Cookies: the typed values of the Cookie and Set-Cookie headers (RFC 6265).
 *
 * Both are a list of records, newest first. Nothing is copied: texts point into the header's own text, or to what the
 * caller of http_cookieSet() keeps alive until the header has been added to a message. Releasing a header frees the
 * records.
 *
 *     HttpHeader header;                                     HttpHeader header = {0};
 *     http_hdrCookieInitialize(&header);                     http_cookieSet(&header, "lang", "en", "/", 0);
 *     if (http_requestHeader(request, &header) == 0)         http_replyHeaderSet(reply, &header);
 *       use(http_cookieGet(&header, "lang"));                http_hdrSetCookieCleanup(&header);
 *     http_hdrCookieCleanup(&header);
 */
#ifndef KROHTTP_COOKIE_H
#define KROHTTP_COOKIE_H

#include <krohttp/header.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** One cookie. The attributes are those of a Set-Cookie header; a Cookie header has none. */
typedef struct http_cookie {
  const char *name;
  const char *value;      /**< NULL is written as an empty one */
  const char *domain;     /**< NULL: absent, as for the others */
  const char *comment;    /**< read, never written */
  const char *commenturl; /**< read, never written */
  uint8_t discard;        /**< read, never written */
  int32_t maxAge;         /**< seconds; 0: absent */
  uint8_t secure;         /**< read, never written */
  uint8_t httponly;
  const char *version; /**< read, never written */
  int32_t expires; /**< seconds since the epoch; below 1: absent. Later dates than it can hold count as its largest */
  const char *path;
  struct http_cookie *next;
} http_cookie;

/** Makes @p header an empty Cookie header. */
KROHTTP_API void http_hdrCookieInitialize(HttpHeader *header);
/** http_hdrCleanup() */
KROHTTP_API void http_hdrCookieCleanup(HttpHeader *header);
/** Makes @p header an empty Set-Cookie header. */
KROHTTP_API void http_hdrSetCookieInitialize(HttpHeader *header);
/** http_hdrCleanup() */
KROHTTP_API void http_hdrSetCookieCleanup(HttpHeader *header);

/** @return the value of the cookie called @p name, compared with case; of two the one that came last. NULL when there
 * is none, or when it has no value. Valid as long as the header */
KROHTTP_API const char *http_cookieGet(HttpHeader *header, const char *name);

/**
 * Adds a cookie to a Set-Cookie header, or to a zeroed header, which becomes one. The attributes of the cookie set last
 * are those of the whole header: use one header a cookie for cookies that differ in them.
 * @param value, path  NULL: none
 * @param expires      seconds since the epoch; below 1: the browser's session
 * @return 0, or -1 when memory is short (traced; the header's code is 0 then)
 */
KROHTTP_API int http_cookieSet(HttpHeader *header, const char *name, const char *value, const char *path,
                               int32_t expires);

/** Adds a cookie that has expired: the browser drops its own. It has no path: one that was set with a path is dropped
 * by http_cookieSet(header, name, NULL, path, 1). @return 0 or -1 (traced) */
KROHTTP_API int http_cookieRemove(HttpHeader *header, const char *name);

/* What the header registry calls. */

/** Reads "a=1; b=2". @return 0, or -1 when memory is short (traced; what was read is kept) */
KROHTTP_API int cookie_hdrFactoryCookie(HttpHeader *header, char *text);
KROHTTP_API int cookie_hdrSerializeCookie(HttpHeader *header, struct HttpMessage *message);
KROHTTP_API void cookie_hdrFreeCookie(HttpHeader *header);
/** Reads "a=1; Path=/; HttpOnly": every pair that is no attribute is a cookie, and each has all attributes.
 * @return 0, or -1 when memory is short (traced; what was read is kept) */
KROHTTP_API int cookie_hdrFactorySetCookie(HttpHeader *header, char *text);
KROHTTP_API int cookie_hdrSerializeSetCookie(HttpHeader *header, struct HttpMessage *message);
KROHTTP_API void cookie_hdrFreeSetCookie(HttpHeader *header);

#ifdef __cplusplus
}
#endif
#endif
