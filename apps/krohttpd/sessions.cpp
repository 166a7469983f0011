#include "sessions.h"

#include <ctime>

namespace {

// The library writes the path behind "path=", last of all: further attributes go with it. Scripts do not get at the
// cookie, and the forms of other sites do not send it. Not "Secure": the daemon speaks plain HTTP.
constexpr const char* kCookieAttributes = "/; HttpOnly; SameSite=Lax";
constexpr unsigned kMostOfAUser = 32;

http_auth_cookie context{};
const Users* users_ = nullptr;

int check(const char* name, const char* password, void*) {
  return password != nullptr && users_->accept(name, password) ? 0 : -1;
}

bool hasExpired(const http_auth_session* session) {
  return context.timeout > 0 && session->lastActivity + context.timeout < std::time(nullptr);
}

// The library drops an expired session only when its cookie comes back.
void dropExpired() {
  for (http_auth_session* session = context.sessions; session != nullptr;) {
    http_auth_session* const next = session->next;
    if (hasExpired(session)) http_authCookieInvalidateSession(&context, session);
    session = next;
  }
}

// Keeps a user from filling the memory: of too many sessions the one that has been idle for longest ends.
void makeRoomFor(const std::string& name) {
  unsigned count = 0;
  http_auth_session* idlest = nullptr;
  for (http_auth_session* session = context.sessions; session != nullptr; session = session->next) {
    if (name != http_authSessionUsername(session)) continue;
    ++count;
    // Of the same second the one further back in the list is older.
    if (idlest == nullptr || session->lastActivity <= idlest->lastActivity) idlest = session;
  }
  if (count >= kMostOfAUser) http_authCookieInvalidateSession(&context, idlest);
}

}  // namespace

void sessionsSetUp(unsigned timeout, const Users& users) {
  http_authCookieInit(&context, kCookieAttributes, static_cast<int32_t>(timeout));
  context.check = check;
  users_ = &users;
}

void sessionsTearDown() { http_authCookieCleanup(&context); }

std::string sessionUser(HttpRequest* request, HttpReply* reply) {
  http_auth_session* const session = http_authCookieCheckSession(&context, request, reply);
  return session != nullptr ? http_authSessionUsername(session) : "";
}

bool sessionOpen(HttpRequest* request, HttpReply* reply, const std::string& name, const std::string& password) {
  if (!users_->accept(name, password)) return false;
  dropExpired();
  makeRoomFor(name);
  const auto authenticate = [&] {
    return http_authCookieAuthenticateWithCredentials(&context, request, reply, name.c_str(), password.c_str(),
                                                      nullptr);
  };
  const http_auth_session* const newest = context.sessions;
  http_auth_session* session = authenticate();
  // A request that has a session gets that one, whoever has opened it and put its cookie there.
  if (session != nullptr && context.sessions == newest) {
    http_authCookieInvalidateSession(&context, session);
    session = authenticate();
  }
  return session != nullptr;
}

void sessionClose(HttpRequest* request, HttpReply* reply) { http_authCookieCloseSession(&context, request, reply); }
