/**
 * @file auth.h
 * Who is asking: Basic and Digest credentials (RFC 7617, RFC 7616 with MD5), and login sessions kept by a cookie.
 *
 * For Basic and Digest the library keeps nothing between requests: the application's callbacks know the users. A right
 * Digest response is accepted whatever its nonce and count, so one that is overheard can be used again: use either
 * scheme where the connection itself cannot be overheard.
 *
 * A session context keeps the logins of a server in memory. It is made with http_authCookieInit(); then the application
 * sets its check.
 */
#ifndef KROHTTP_AUTH_H
#define KROHTTP_AUTH_H

#include <krohttp/cookie.h>
#include <krohttp/reply.h>
#include <krohttp/request.h>

#ifdef __cplusplus
extern "C" {
#endif

/* --- the Authorization header ------------------------------------------------------------------------------------ */

/** The values of auth_authorization.scheme. */
enum HttpAuthScheme {
  HTTP_AUTH_BASIC = 0, /**< also for the scheme word "Kro" */
  HTTP_AUTH_DIGEST = 1
};

/**
 * HA1, by which a Digest user's password is known: MD5 of "user:realm:password".
 * Of the three together the first 600 characters count.
 * @return 32 lower-case hexadecimal digits, to be freed by the caller; NULL when one of the three is NULL, and when
 * memory is short (traced)
 */
KROHTTP_API char *http_generateDigestHash(const char *user, const char *realm, const char *password);

/* What the header registry calls. */

/** Reads credentials into a zeroed header. @return 0, also for an unknown scheme (nothing is set); -1 for malformed
 * ones and when memory is short (traced; what was set is kept) */
KROHTTP_API int auth_hdrFactoryAuthorization(HttpHeader *header, char *text);
/**
 * Adds an Authorization header to @p message. For Digest username, password (HA1), method, realm, nonce and uri must
 * be set, and qop to "auth" unless the server asked for none; cnonce is drawn anew, nc is "00000001" unless set.
 * For Basic nothing must be: what is NULL counts as empty.
 * @return 0, or -1 when one of the fields of Digest is missing, when memory is short (both traced), and for an unknown
 * scheme
 */
KROHTTP_API int auth_hdrSerializeAuthorization(HttpHeader *header, struct HttpMessage *message);
KROHTTP_API void auth_hdrFreeAuthorization(HttpHeader *header);

/* --- checking requests ------------------------------------------------------------------------------------------- */

/** Judges a user name and password; both are NULL for credentials of an unknown scheme.
 * @return 0 to accept, negative to refuse */
typedef int (*auth_basic_check)(const char *username, const char *password, void *data);
/**
 * Looks up a user for Digest.
 * @param username  NULL when the credentials name none
 * @param ha1       out: http_generateDigestHash() of the user, from the C allocator; the library frees it
 * @return 0, or -1 when there is no such user
 */
typedef int (*auth_digest_ha1)(const char *username, char **ha1, void *data);

/** @return 1 when the request has a readable Authorization header or any X-KRO-Authorization header, else 0 */
KROHTTP_API int http_requestTryingToAuthenticate(HttpRequest *request);

/**
 * Checks the credentials of @p request: those of X-KRO-Authorization, or else those of Authorization.
 * The uri of Digest credentials is taken as the client sends it: who must know compares it with the request's.
 * @return Basic: what @p basicCheck returned. Digest: 0 accepted, -1 refused. -1 without readable credentials (traced)
 */
KROHTTP_API int http_requestAuthenticate(HttpRequest *request, auth_basic_check basicCheck, auth_digest_ha1 digestHa1,
                                         void *data);

/** Sends a complete 401 reply that asks for Basic credentials. @return 0 or -1 (traced) */
KROHTTP_API int http_replyWithAuthBasicFailed(HttpReply *reply, const char *realm);
/** Sends a complete 401 reply that asks for Digest credentials. @param qop  "auth" @return 0 or -1 (traced) */
KROHTTP_API int http_replyWithAuthDigestFailed(HttpReply *reply, const char *realm, const char *qop);

/* --- login sessions ---------------------------------------------------------------------------------------------- */

/** A login. Owned by its context: valid until it is closed, invalidated, found expired, or the context is cleaned up.
 */
typedef struct http_auth_session {
  char *id; /**< 24 characters, from 18 bytes of the kernel's random numbers */
  char *username;
  char *token; /**< of a token login, else NULL */
  time_t lastActivity;
  void *userData;
  void (*userDataRelease)(void *userData);
  uint32_t sso; /**< 1 for a token login */
  void *ssoContext;
  struct http_auth_session *next;
} http_auth_session;

/** The sessions of a server. Owned by the application. */
typedef struct http_auth_cookie {
  const char *path;       /**< of the cookie, borrowed */
  const char *cookieName; /**< "kro/sessid" */
  int32_t timeout;        /**< seconds that a session lasts without activity; below 1: for ever */
  http_auth_session *sessions;
  /** Set by the application: judges a login. @p password is NULL for a token login. @return negative to refuse */
  int (*check)(const char *username, const char *password, void *data);
} http_auth_cookie;

/** Makes an empty context; then set its check. @p path is borrowed. */
KROHTTP_API void http_authCookieInit(http_auth_cookie *context, const char *path, int32_t timeout);
/** Ends every session. */
KROHTTP_API void http_authCookieCleanup(http_auth_cookie *context);

/**
 * The session of @p request. One that is known counts as active, unless the request says X-Kro-Request-Type: idle.
 * A cookie without a valid session is taken back with @p reply.
 * @return the session, or NULL when there is none
 */
KROHTTP_API http_auth_session *http_authCookieCheckSession(http_auth_cookie *context, HttpRequest *request,
                                                           HttpReply *reply);

/** The session of @p request, or a new one for the username and password in the query of its target: these show in the
 * address bar and in logs, so prefer http_authCookieAuthenticateWithCredentials(). @return the session, or NULL
 * (traced) */
KROHTTP_API http_auth_session *http_authCookieAuthenticate(http_auth_cookie *context, HttpRequest *request,
                                                           HttpReply *reply, void *data);
/** The session of @p request, or a new one for these credentials. @return the session, or NULL (traced) */
KROHTTP_API http_auth_session *http_authCookieAuthenticateWithCredentials(http_auth_cookie *context,
                                                                          HttpRequest *request, HttpReply *reply,
                                                                          const char *username, const char *password,
                                                                          void *data);
/** The session of @p request if it was opened with @p token, or a new one if there is none and check accepts the user
 * name.
 * @return the session, or NULL (traced) */
KROHTTP_API http_auth_session *http_authCookieAuthenticateWithToken(http_auth_cookie *context, HttpRequest *request,
                                                                    HttpReply *reply, const char *username,
                                                                    const char *token, void *data, void *ssoContext);

/** Ends the session of @p request and takes its cookie back with @p reply. @return 0, also when the request has no such
 * cookie; -1 when it has no Cookie header, and on failure (traced) */
KROHTTP_API int http_authCookieCloseSession(http_auth_cookie *context, HttpRequest *request, HttpReply *reply);
/** Ends @p session, if it is one of the context's. */
KROHTTP_API void http_authCookieInvalidateSession(http_auth_cookie *context, http_auth_session *session);

KROHTTP_API void *http_authSessionUserData(http_auth_session *session);
/** @param release  called with @p userData when the session ends; may be NULL. What was set before is not released. */
KROHTTP_API void http_authSessionSetUserData(http_auth_session *session, void *userData,
                                             void (*release)(void *userData));
KROHTTP_API const char *http_authSessionUsername(http_auth_session *session);
/** @return 1 for a token login, else 0 */
KROHTTP_API int http_authIsSsoSession(http_auth_session *session);
KROHTTP_API void *http_authGetSsoContext(http_auth_session *session);

/** http_generateRandomString() */
KROHTTP_API int http_authRandomString(char *buffer, unsigned length);

#ifdef __cplusplus
}
#endif
#endif
