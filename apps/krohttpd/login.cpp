#include "login.h"

#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>

#include "attempts.h"
#include "form.h"
#include "framing.h"
#include "identity.h"
#include "login_page.h"
#include "media.h"
#include "prefix.h"
#include "refusal.h"
#include "replies.h"
#include "same_origin.h"
#include "sessions.h"
#include "waiting.h"

namespace {

constexpr const char* kHtml = "text/html; charset=utf-8";
constexpr const char* kFormType = "application/x-www-form-urlencoded";
constexpr const char* kText = "text/plain; charset=utf-8";
constexpr const char* kLoginMethods = "GET, HEAD, POST, OPTIONS";
constexpr const char* kLogoutMethods = "POST, OPTIONS";
constexpr const char* kWrong = "The user name or the password is wrong.";
constexpr size_t kLongestForm = 8192;

bool enabled = false;
const Users* users_ = nullptr;

// The forms under way, by connection. They hold passwords: nothing of them stays behind.
class Form {
 public:
  Form() { text_.reserve(kLongestForm); }  // it does not move, and leaves no copies
  Form(Form&& other) noexcept : text_(std::move(other.text_)) {}
  Form& operator=(Form&&) = delete;
  ~Form() { explicit_bzero(text_.data(), text_.size()); }

  bool add(const char* bytes, size_t count) {
    if (text_.size() + count > kLongestForm) return false;
    text_.append(bytes, count);
    return true;
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

std::unordered_map<ZelPeer*, Form> forms;

// --- answers ---------------------------------------------------------------------------------------------------------

int redirect(HttpRequest* request, HttpReply* reply, const std::string& target) {
  return answerEarly(request, reply, [&] {
    if (forbidStoring(reply) < 0 || http_replyHeaderValueSet(reply, "Location", "%s", target.c_str()) < 0) return -1;
    return replyWithText(request, reply, 303, kText, "");
  });
}

// RFC 9110 section 15.5.2: 401 says how to get in.
int challenge(HttpReply* reply) {
  return http_replyHeaderValueSet(reply, "WWW-Authenticate", "Cookie realm=\"%s\", form-action=\"/login\"",
                                  users_->realm().c_str());
}

int showPage(HttpRequest* request, HttpReply* reply, unsigned code, const std::string& page) {
  if (forbidStoring(reply) < 0 || http_replyHeaderValueSet(reply, "Content-Security-Policy", "%s", kLoginPolicy) < 0 ||
      http_replyHeaderValueSet(reply, "X-Frame-Options", "DENY") < 0 ||
      http_replyHeaderValueSet(reply, "X-Content-Type-Options", "nosniff") < 0 ||
      http_replyHeaderValueSet(reply, "Referrer-Policy", "same-origin") < 0)
    return -1;
  if (code == 401 && challenge(reply) < 0) return -1;
  return replyWithText(request, reply, code, kHtml, page);
}

// Where a login leads.
std::string destination(const std::string& next) { return isLocalTarget(next) ? next : "/"; }

// The form keeps a target only if it is one to go on to.
std::string kept(const std::string& next) { return isLocalTarget(next) ? next : ""; }

int showLogin(HttpRequest* request, HttpReply* reply) {
  char* parameter = nullptr;
  const bool given = http_uriGetParameter(http_requestURI(request), "next", &parameter) == 0;
  const std::string next = given ? parameter : "";
  const std::string user = sessionUser(request, reply);
  const std::string& realm = users_->realm();
  if (user.empty()) return showPage(request, reply, 200, loginForm(realm, kept(next), "", ""));
  identitySet(request, user);
  return showPage(request, reply, 200, loggedInPage(realm, destination(next), user));
}

// --- logging in ------------------------------------------------------------------------------------------------------

int judgeForm(HttpRequest* request, HttpReply* reply, const Form& form) {
  const std::string source = attemptSource(http_requestPeer(request));
  if (isWaitingFull(source)) return refuseAttempt(request, reply);
  const std::string name = formField(form.text(), "username").value_or("");
  std::string password = formField(form.text(), "password").value_or("");
  const std::string next = formField(form.text(), "next").value_or("");
  const bool opened = sessionOpen(request, reply, name, password);
  explicit_bzero(password.data(), password.size());
  if (opened) {
    identitySet(request, name);
    return redirect(request, reply, destination(next));
  }
  return answerLater(request, reply, source, attemptFailed(source), [name, next](HttpRequest* later, HttpReply* to) {
    return showPage(later, to, 401, loginForm(users_->realm(), kept(next), name, kWrong));
  });
}

int beginForm(HttpRequest* request, HttpReply* reply) {
  if (!isOfType(request, kFormType)) return refuse(request, reply, 415);
  if (announcedLength(request) > kLongestForm) return refuse(request, reply, 413);
  if (settleBody(request) < 0 || http_serverContinue(request, reply) < 0) return -1;
  if (http_requestState(request) == HTTP_MSG_DONE) return judgeForm(request, reply, Form());
  forms.try_emplace(http_requestPeer(request));
  return 0;
}

int logOut(HttpRequest* request, HttpReply* reply) {
  if (settleBody(request) < 0) return -1;
  sessionClose(request, reply);
  return redirect(request, reply, "/login");
}

bool isLogout(HttpRequest* request) { return std::string_view(http_requestPath(request)) == "/logout"; }

// --- who is sent to the page -----------------------------------------------------------------------------------------

bool isPageForBrowser(HttpRequest* request) {
  const int method = http_requestMethod(request);
  return (method == HTTP_METHOD_GET || method == HTTP_METHOD_HEAD) && acceptsHtml(request);
}

// Path and query of @p request as an address; empty when no login would lead there.
std::string targetOf(HttpRequest* request) {
  std::string target = escapedForUrl(normalizedPath(http_requestPath(request)));
  const std::string_view query = http_uriQueryString(http_requestURI(request));
  if (!query.empty()) target.append("?").append(query);
  return isLocalTarget(target) ? target : "";
}

}  // namespace

void loginSetUp(const Options& options, const Users& users) {
  for (const Protection& protection : options.protections)
    if (protection.scheme == AuthScheme::kSession) enabled = true;
  users_ = &users;
  sessionsSetUp(options.sessionTimeout, users);
}

void loginTearDown() {
  forms.clear();
  sessionsTearDown();
}

bool isLoginPath(const char* path) {
  return enabled && path != nullptr && (std::strcmp(path, "/login") == 0 || std::strcmp(path, "/logout") == 0);
}

int loginBegin(HttpRequest* request, HttpReply* reply) {
  const bool logout = isLogout(request);
  const char* const methods = logout ? kLogoutMethods : kLoginMethods;
  switch (http_requestMethod(request)) {
    case HTTP_METHOD_OPTIONS:
      return answerEarly(request, reply, [&] { return replyWithText(request, reply, 200, kText, "", methods); });
    case HTTP_METHOD_POST:
      if (isFromElsewhere(request)) return refuse(request, reply, 403);
      return logout ? logOut(request, reply) : beginForm(request, reply);
    case HTTP_METHOD_GET:
    case HTTP_METHOD_HEAD:
      if (!logout) return answerEarly(request, reply, [&] { return showLogin(request, reply); });
      [[fallthrough]];
    default:
      return refuse(request, reply, 405, methods);
  }
}

bool isLoggingIn(HttpRequest* request) { return forms.contains(http_requestPeer(request)); }

int loginBody(HttpRequest* request, HttpReply* reply, FILE* body) {
  const auto form = forms.find(http_requestPeer(request));
  char block[1024];
  size_t count = 0;
  bool fits = true;
  do {
    count = fread(block, 1, sizeof block, body);
    fits = form->second.add(block, count);
  } while (fits && count == sizeof block);
  explicit_bzero(block, sizeof block);
  if (fits && http_requestState(request) != HTTP_MSG_DONE) return 0;
  const auto finished = forms.extract(form);
  return fits ? judgeForm(request, reply, finished.mapped()) : refuse(request, reply, 413);
}

void loginEnd(HttpRequest* request) { forms.erase(http_requestPeer(request)); }

int loginDemand(HttpRequest* request, HttpReply* reply) {
  if (isPageForBrowser(request)) {
    const std::string target = targetOf(request);
    return redirect(request, reply, target.empty() ? "/login" : "/login?next=" + escapedForUrl(target));
  }
  return answerEarly(request, reply, [&] {
    if (forbidStoring(reply) < 0 || challenge(reply) < 0) return -1;
    return replyWithText(request, reply, 401, kText, "Log in at /login first.\n");
  });
}
