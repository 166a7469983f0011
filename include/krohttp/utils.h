/**
 * @file utils.h
 * Key-value lists, base64 (RFC 4648 section 4) and random strings.
 */
#ifndef KROHTTP_UTILS_H
#define KROHTTP_UTILS_H

#include <krohttp/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Cuts the next "key=value" off a list, in place.
 *
 * There is no quoting: a separator inside double quotes cuts too. Only blanks before the key are dropped. An empty
 * token is a pair with an empty key.
 *
 * @param string     the list, modified; NULL to go on with the one before
 * @param key        out: points into the list
 * @param value      out: points into the list, behind the first '='; NULL when there is none (traced as a warning)
 * @param cursor     in/out: where to go on, kept by the caller between calls
 * @param separator  what stands between pairs
 * @return 1 with a pair, 0 at the end (only @p key was set)
 */
KROHTTP_API int utils_keyvalue(char *string, char **key, char **value, char **cursor, char separator);

/**
 * Encodes @p length bytes with padding.
 * @param output  out: NUL-terminated text, to be freed by the caller; NULL on failure
 * @return 0, or -1 when memory is short or @p length is too large for the result (traced)
 */
KROHTTP_API int http_base64Encode(const void *input, unsigned length, char **output);

/**
 * Decodes padded base64. A character outside the alphabet ends its group of four; a group that begins with one ends
 * the text. The result's length is not reported: it is NUL-terminated text, zero-filled to @p length bytes.
 * @param output  out: to be freed by the caller; NULL on failure
 * @return 0, or -1 for truncated or malformed input and when memory is short (traced, but for a group of one)
 */
KROHTTP_API int http_base64Decode(const char *input, unsigned length, char **output);

/**
 * Fills @p buffer with @p length random letters and digits and a NUL: it must hold @p length + 1 bytes.
 * The source is rand(), which can be predicted: good for names, not for secrets.
 * @return 0, or -1 when @p buffer is NULL (traced)
 */
KROHTTP_API int http_generateRandomString(char *buffer, unsigned length);

#ifdef __cplusplus
}
#endif
#endif
