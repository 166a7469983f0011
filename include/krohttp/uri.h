/**
 * @file uri.h
 * The target of a request: a decoded path, and a query whose parameters are decoded one at a time.
 *
 * Everything happens inside the caller's buffer. While a parameter is handed out the query is cut at it; the next step
 * or a reset puts it together again, within the bytes the parameter came in.
 */
#ifndef KROHTTP_URI_H
#define KROHTTP_URI_H

#include <krohttp/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A parsed target. Embedded by its owner; all pointers point into the buffer given to http_uriParse(). */
typedef struct HttpUri {
  char *path;           /**< read-only: decoded path, NULL after a failed parse */
  char *query;          /**< read-only: raw query, empty when there is none */
  int queryLength;      /**< read-only: length of the raw query */
  char *separator;      /**< private: the '=' of the parameter handed out, overwritten with NUL, or NULL */
  char *parameterEnd;   /**< private: where that parameter ends, overwritten with NUL, or NULL */
  char *parameterName;  /**< private: its decoded name, or NULL */
  char *parameterValue; /**< private: its decoded value, or NULL */
} HttpUri;

/**
 * Splits @p target, in place, at the first '/' and the first '?' behind it, and decodes the path.
 * What stands before the first '/' is ignored.
 * @param target  NUL-terminated; must live as long as @p uri is used
 * @return 0, or -1 when there is no '/' (traced; path is NULL)
 */
KROHTTP_API int http_uriParse(HttpUri *uri, char *target);

/** @return the target as it goes into a request line, the path encoded and the query as received; to be freed by the
 * caller. NULL on failure (traced) */
KROHTTP_API char *http_uriSerialize(HttpUri *uri);

/** @return the query as received, empty when there is none; NULL after a failed parse */
KROHTTP_API char *http_uriQueryString(HttpUri *uri);

/**
 * Looks for the first parameter called @p name, compared with case after decoding.
 * @param value  out: the decoded value, valid until the next call on @p uri; NULL when there is none
 * @return 0 when found, else -1
 */
KROHTTP_API int http_uriGetParameter(HttpUri *uri, const char *name, char **value);

/** Puts the query together again; the next http_uriNextParameter() starts at its beginning. */
KROHTTP_API void http_uriResetParameterIterator(HttpUri *uri);

/**
 * Hands out the next parameter, decoded; one without '=' has an empty value.
 * @param name, value  out: valid until the next call on @p uri; both NULL at the end
 * @return 0 with a parameter, -1 at the end
 */
KROHTTP_API int http_uriNextParameter(HttpUri *uri, char **name, char **value);

#ifdef __cplusplus
}
#endif
#endif
