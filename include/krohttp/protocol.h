/**
 * @file protocol.h
 * The vocabulary of HTTP: methods, status codes and header names as small integers, and dates.
 */
#ifndef KROHTTP_PROTOCOL_H
#define KROHTTP_PROTOCOL_H

#include <krohttp/export.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Method codes: indexes into methodStrings (RFC 9110 section 9). */
enum HttpMethod {
  HTTP_METHOD_UNKNOWN = 0,
  HTTP_METHOD_CONNECT = 1,
  HTTP_METHOD_DELETE = 2,
  HTTP_METHOD_GET = 3,
  HTTP_METHOD_HEAD = 4,
  HTTP_METHOD_OPTIONS = 5,
  HTTP_METHOD_POST = 6,
  HTTP_METHOD_PUT = 7,
  HTTP_METHOD_TRACE = 8,
  HTTP_METHOD_COUNT = 9
};

/** Header codes: indexes into headerStrings, hdr_factories, hdr_serializers and hdr_frees. They fit in a byte. */
enum HttpHeaderCode {
  HTTP_HEADER_NONE = 0,
  HTTP_HEADER_ACCEPT = 1,
  HTTP_HEADER_ACCEPT_CHARSET = 2,
  HTTP_HEADER_ACCEPT_ENCODING = 3,
  HTTP_HEADER_ACCEPT_LANGUAGE = 4,
  HTTP_HEADER_ACCEPT_RANGES = 5,
  HTTP_HEADER_AGE = 6,
  HTTP_HEADER_ALLOW = 7,
  HTTP_HEADER_AUTHORIZATION = 8,
  HTTP_HEADER_CACHE_CONTROL = 9,
  HTTP_HEADER_CONNECTION = 10,
  HTTP_HEADER_CONTENT_DISPOSITION = 11,
  HTTP_HEADER_CONTENT_ENCODING = 12,
  HTTP_HEADER_CONTENT_LANGUAGE = 13,
  HTTP_HEADER_CONTENT_LENGTH = 14,
  HTTP_HEADER_CONTENT_LOCATION = 15,
  HTTP_HEADER_CONTENT_MD5 = 16,
  HTTP_HEADER_CONTENT_RANGE = 17,
  HTTP_HEADER_CONTENT_TYPE = 18,
  HTTP_HEADER_COOKIE = 19,
  HTTP_HEADER_DATE = 20,
  HTTP_HEADER_ETAG = 21,
  HTTP_HEADER_EXPECT = 22,
  HTTP_HEADER_EXPIRES = 23,
  HTTP_HEADER_FROM = 24,
  HTTP_HEADER_HOST = 25,
  HTTP_HEADER_IF_MATCH = 26,
  HTTP_HEADER_IF_MODIFIED_SINCE = 27,
  HTTP_HEADER_IF_NONE_MATCH = 28,
  HTTP_HEADER_IF_RANGE = 29,
  HTTP_HEADER_IF_UNMODIFIED_SINCE = 30,
  HTTP_HEADER_LAST_MODIFIED = 31,
  HTTP_HEADER_LOCATION = 32,
  HTTP_HEADER_MAX_FORWARDS = 33,
  HTTP_HEADER_PRAGMA = 34,
  HTTP_HEADER_PROXY_AUTHENTICATE = 35,
  HTTP_HEADER_PROXY_AUTHORIZATION = 36,
  HTTP_HEADER_RANGE = 37,
  HTTP_HEADER_REFERER = 38,
  HTTP_HEADER_RETRY_AFTER = 39,
  HTTP_HEADER_SERVER = 40,
  HTTP_HEADER_SET_COOKIE = 41,
  HTTP_HEADER_SET_COOKIE2 = 42,
  HTTP_HEADER_TE = 43,
  HTTP_HEADER_TRAILER = 44,
  HTTP_HEADER_TRANSFER_ENCODING = 45,
  HTTP_HEADER_UPGRADE = 46,
  HTTP_HEADER_USER_AGENT = 47,
  HTTP_HEADER_VARY = 48,
  HTTP_HEADER_VIA = 49,
  HTTP_HEADER_WARNING = 50,
  HTTP_HEADER_WWW_AUTHENTICATE = 51,
  HTTP_HEADER_CUSTOM = 52, /**< any name outside the table; the entry keeps its own name */
  HTTP_HEADER_COUNT = 53
};

enum { HTTP_STATUS_COUNT = 41 /**< rows of statusStrings */ };

/** Method names by method code; row 0, "AERROR", stands for no or an unknown method. */
extern KROHTTP_API const char *const methodStrings[HTTP_METHOD_COUNT];
/** Reason phrases by status index (prot_statusCodeHash()); the row of 306 is NULL. */
extern KROHTTP_API const char *const statusStrings[HTTP_STATUS_COUNT];
/** Header names by header code, as they are sent; rows 0 and 52 are sentinels. */
extern KROHTTP_API const char *const headerStrings[HTTP_HEADER_COUNT];

/** @return the name of method @p code; "AERROR" for a code outside the table */
KROHTTP_API const char *prot_methodString(int code);

/** @return the code (1 to 8) of the method @p text, compared with case; 0 when unknown or NULL */
KROHTTP_API int prot_methodCode(const char *text);

/**
 * The status index of @p code: the rows of the classes before it, plus its last two digits.
 * Only the class is checked: an odd code may land in a neighbour's rows (418 gives 35) or behind the table (199 gives
 * 99); codes of other classes than 1xx to 5xx give 0.
 */
KROHTTP_API uint8_t prot_statusCodeHash(unsigned code);

/** @return the reason phrase of @p code; NULL for 306 and for every code whose index lies behind the table */
KROHTTP_API const char *prot_statusCodeString(unsigned code);

/** @return the number that @p text begins with, as atoi() reads it; 0 when there is none or @p text is NULL */
KROHTTP_API int prot_statusCode(const char *text);

/** @return the name of header @p code as it is sent; the name of code 0 for a code outside the table */
KROHTTP_API const char *prot_headerString(int code);

/** @return the code of header @p name, compared without case; 52 when it is not in the table (or NULL) */
KROHTTP_API int prot_headerCode(const char *name);

/**
 * Reads a cookie date, "%a, %d-%b-%Y %H:%M:%S"; what follows the seconds is ignored.
 * The fields are taken as local time. Names of days and months are the English ones in every locale.
 * @return seconds since the epoch, or -1 when @p text does not match (traced)
 */
KROHTTP_API time_t prot_parseDate(const char *text);

/**
 * Writes @p date as a cookie date in GMT, "Sun, 15-Nov-2026 06:09:59 GMT", with its NUL into @p size bytes.
 * @return 0, or -1 when it does not fit or cannot be broken down (traced; the buffer is unspecified)
 */
KROHTTP_API int prot_serializeDate(time_t date, char *buffer, size_t size);

/** As prot_serializeDate(), onto @p stream. @return 0, or -1 (traced) */
KROHTTP_API int prot_serializeDateToStream(time_t date, FILE *stream);

#ifdef __cplusplus
}
#endif
#endif
