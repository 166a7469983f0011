// Login sessions, recognised by a cookie.
#include <krohttp/auth.h>
#include <krohttp/utils.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "auth_internal.h"
#include "memory.h"

#define TRACE_ZONE "http-auth"
#include "trace.h"

namespace {

constexpr unsigned kIdBytes = 18;

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

// A cookie header that is cleaned up whatever happens.
struct CookieHeader : HttpHeader {
  explicit CookieHeader(void (*initialize)(HttpHeader*)) : HttpHeader{} { initialize(this); }
  ~CookieHeader() { http_hdrCleanup(this); }
  CookieHeader(const CookieHeader&) = delete;
  CookieHeader& operator=(const CookieHeader&) = delete;
};

// --- records ---------------------------------------------------------------------------------------------------------

http_auth_session* findSession(const http_auth_cookie* context, std::string_view id) {
  for (http_auth_session* session = context->sessions; session != nullptr; session = session->next)
    if (auth_equal(session->id, id)) return session;
  return nullptr;
}

bool isValid(const http_auth_cookie* context, const http_auth_session* session) {
  return context->timeout < 1 || session->lastActivity + context->timeout >= std::time(nullptr);
}

void releaseSession(http_auth_session* session) {
  const CPointer<http_auth_session> owned(session);
  if (session->userData != nullptr && session->userDataRelease != nullptr) session->userDataRelease(session->userData);
  std::free(session->id);
  std::free(session->username);
  std::free(session->token);
}

// --- opening ---------------------------------------------------------------------------------------------------------

CString drawId() {
  const Descriptor random(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
  if (random.get() < 0) {
    TRACE_ERROR("unable to open /dev/urandom: %m");
    return nullptr;
  }
  unsigned char bytes[kIdBytes];
  for (size_t filled = 0; filled < sizeof bytes;) {
    const ssize_t count = read(random.get(), bytes + filled, sizeof bytes - filled);
    if (count <= 0) {
      TRACE_ERROR("unable to read %u bytes from /dev/urandom: %m", kIdBytes);
      return nullptr;
    }
    filled += static_cast<size_t>(count);
  }
  char* id = nullptr;
  if (http_base64Encode(bytes, sizeof bytes, &id) < 0) TRACE_ERROR("unable to generate session id");
  return CString(id);
}

bool sendCookie(const http_auth_cookie* context, HttpReply* reply, const char* id) {
  CookieHeader header(http_hdrSetCookieInitialize);
  if (http_cookieSet(&header, context->cookieName, id, context->path, 0) < 0) {
    TRACE_ERROR("unable to set session cookie");
    return false;
  }
  if (http_replyHeaderSet(reply, &header) < 0) {
    TRACE_NOTICE("unable to set cookie header");
    return false;
  }
  return true;
}

// Takes @p username over when it succeeds.
http_auth_session* auth_cookieOpenSession(http_auth_cookie* context, HttpReply* reply, CString& username) {
  CString id = drawId();
  if (!id || !sendCookie(context, reply, id.get())) return nullptr;
  auto session = makeZeroed<http_auth_session>();
  if (!session) {
    TRACE_ERROR("unable to create session: %m");
    return nullptr;
  }
  session->username = username.release();
  session->id = id.release();
  session->lastActivity = std::time(nullptr);
  session->next = context->sessions;
  TRACE_NOTICE("session opened");
  return context->sessions = session.release();
}

// --- logging in ------------------------------------------------------------------------------------------------------

CString copyUsername(const char* username) {
  CString copy(strdup(username));
  if (!copy) TRACE_ERROR("unable to authenticate: %m");
  return copy;
}

bool isAccepted(const http_auth_cookie* context, const char* username, const char* password, void* data) {
  if (context->check != nullptr && context->check(username, password, data) >= 0) return true;
  TRACE_WARNING("cookie authentication failed");
  return false;
}

http_auth_session* open(http_auth_cookie* context, HttpReply* reply, CString& username) {
  http_auth_session* const session = auth_cookieOpenSession(context, reply, username);
  if (session == nullptr) TRACE_ERROR("unable to open session");
  return session;
}

bool isOpenedWith(const http_auth_session* session, const char* token) {
  return session->token != nullptr && auth_equal(session->token, token);
}

http_auth_session* openWithToken(http_auth_cookie* context, HttpReply* reply, CString& username, const char* token,
                                 void* ssoContext) {
  CString copy(strdup(token));
  if (!copy) {
    TRACE_ERROR("unable to authenticate with token");
    return nullptr;
  }
  http_auth_session* const session = open(context, reply, username);
  if (session == nullptr) return nullptr;
  session->token = copy.release();
  session->sso = 1;
  session->ssoContext = ssoContext;
  return session;
}

}  // namespace

extern "C" {

// --- contexts --------------------------------------------------------------------------------------------------------

void http_authCookieInit(http_auth_cookie* context, const char* path, int32_t timeout) {
  context->path = path;
  context->cookieName = "kro/sessid";
  context->timeout = timeout;
  context->sessions = nullptr;
}

void http_authCookieCleanup(http_auth_cookie* context) {
  // Each is out of the list before its user data is released, whatever that looks for there.
  while (http_auth_session* const session = context->sessions) {
    context->sessions = session->next;
    releaseSession(session);
  }
}

// --- requests --------------------------------------------------------------------------------------------------------

http_auth_session* http_authCookieCheckSession(http_auth_cookie* context, HttpRequest* request, HttpReply* reply) {
  CookieHeader header(http_hdrCookieInitialize);
  if (http_requestHeader(request, &header) < 0) {
    TRACE_INFO("no session id");
    return nullptr;
  }
  const char* const id = http_cookieGet(&header, context->cookieName);
  if (id == nullptr) {
    TRACE_NOTICE("unable to fetch session id in cookie %s", context->cookieName);
    return nullptr;
  }
  http_auth_session* const session = findSession(context, id);
  if (session == nullptr || !isValid(context, session)) {
    TRACE_INFO("request as a session id but the session is not valid, removing it");
    http_authCookieCloseSession(context, request, reply);
    return nullptr;
  }
  const char* const type = http_requestHeaderValue(request, "X-Kro-Request-Type");
  if (type == nullptr || std::strcmp(type, "idle") != 0) {
    TRACE_INFO("user is active, reset timer");
    session->lastActivity = std::time(nullptr);
  }
  return session;
}

http_auth_session* http_authCookieAuthenticate(http_auth_cookie* context, HttpRequest* request, HttpReply* reply,
                                               void* data) {
  if (http_auth_session* const session = http_authCookieCheckSession(context, request, reply)) return session;
  char* text = nullptr;
  if (http_uriGetParameter(http_requestURI(request), "username", &text) < 0) {
    TRACE_NOTICE("no username");
    return nullptr;
  }
  CString username = copyUsername(text);
  if (!username) return nullptr;
  if (http_uriGetParameter(http_requestURI(request), "password", &text) < 0) {
    TRACE_NOTICE("no password");
    return nullptr;
  }
  return isAccepted(context, username.get(), text, data) ? open(context, reply, username) : nullptr;
}

http_auth_session* http_authCookieAuthenticateWithCredentials(http_auth_cookie* context, HttpRequest* request,
                                                              HttpReply* reply, const char* username,
                                                              const char* password, void* data) {
  if (http_auth_session* const session = http_authCookieCheckSession(context, request, reply)) return session;
  if (username == nullptr || password == nullptr) return nullptr;
  CString copy = copyUsername(username);
  if (!copy) return nullptr;
  return isAccepted(context, copy.get(), password, data) ? open(context, reply, copy) : nullptr;
}

http_auth_session* http_authCookieAuthenticateWithToken(http_auth_cookie* context, HttpRequest* request,
                                                        HttpReply* reply, const char* username, const char* token,
                                                        void* data, void* ssoContext) {
  http_auth_session* const session = http_authCookieCheckSession(context, request, reply);
  if (token == nullptr) return nullptr;
  if (session != nullptr) {
    if (isOpenedWith(session, token)) return session;
    TRACE_ERROR("session is already authenticated with different token");
    return nullptr;
  }
  CString copy = username != nullptr ? copyUsername(username) : nullptr;
  if (!copy) return nullptr;
  return isAccepted(context, copy.get(), nullptr, data) ? openWithToken(context, reply, copy, token, ssoContext)
                                                        : nullptr;
}

// --- ending ----------------------------------------------------------------------------------------------------------

int http_authCookieCloseSession(http_auth_cookie* context, HttpRequest* request, HttpReply* reply) {
  CookieHeader cookies(http_hdrCookieInitialize);
  if (http_requestHeader(request, &cookies) < 0) {
    TRACE_INFO("no session id");
    return -1;
  }
  const char* const id = http_cookieGet(&cookies, context->cookieName);
  if (id == nullptr) {
    TRACE_INFO("unable to fetch session id");
    return 0;
  }
  TRACE_INFO("removing sessid cookie");
  CookieHeader header(http_hdrSetCookieInitialize);
  if (http_cookieSet(&header, context->cookieName, nullptr, context->path, 1) < 0) {
    TRACE_ERROR("unable to remove session cookie");
    return -1;
  }
  if (http_replyHeaderSet(reply, &header) < 0) {
    TRACE_NOTICE("unable to set cookie header");
    return -1;
  }
  if (http_auth_session* const session = findSession(context, id)) http_authCookieInvalidateSession(context, session);
  return 0;
}

void http_authCookieInvalidateSession(http_auth_cookie* context, http_auth_session* session) {
  http_auth_session** place = &context->sessions;
  while (*place != nullptr && *place != session) place = &(*place)->next;
  if (*place == nullptr) return;
  *place = session->next;
  releaseSession(session);
}

// --- accessors -------------------------------------------------------------------------------------------------------

void* http_authSessionUserData(http_auth_session* session) { return session->userData; }

void http_authSessionSetUserData(http_auth_session* session, void* userData, void (*release)(void* userData)) {
  session->userData = userData;
  session->userDataRelease = release;
}

const char* http_authSessionUsername(http_auth_session* session) { return session->username; }

int http_authIsSsoSession(http_auth_session* session) { return session->sso == 1 ? 1 : 0; }

void* http_authGetSsoContext(http_auth_session* session) { return session->ssoContext; }

int http_authRandomString(char* buffer, unsigned length) { return http_generateRandomString(buffer, length); }

}  // extern "C"
