#include "protection.h"

#include <string>
#include <string_view>
#include <vector>

#include "attempts.h"
#include "credentials.h"
#include "identity.h"
#include "login.h"
#include "prefix.h"
#include "refusal.h"
#include "replies.h"
#include "same_origin.h"
#include "sessions.h"
#include "waiting.h"

namespace {

std::vector<Protection> protections;
const Users* users_ = nullptr;

// The protection of @p path, null when anybody may have it. A file has several paths: compressed or not, and that of
// the directory whose index it is.
const Protection* protectionOf(std::string_view path) {
  const std::string name = normalizedPath(path);
  const std::string index = normalizedPath(name + "/index.html");
  std::vector<std::string> names = {name, name + ".gz", index, index + ".gz"};
  if (name.ends_with(".gz")) names.push_back(name.substr(0, name.size() - 3));
  const Protection* best = nullptr;
  for (const std::string& each : names) {
    const Protection* const match = longestMatch(protections, each);
    if (match != nullptr && (best == nullptr || match->prefix.size() > best->prefix.size())) best = match;
  }
  return best;
}

// --- Basic and Digest ------------------------------------------------------------------------------------------------

int challenge(HttpRequest* request, HttpReply* reply, AuthScheme scheme) {
  return answerEarly(request, reply, [&] {
    if (addCommonHeaders(request, reply) < 0) return -1;
    const char* const realm = users_->realm().c_str();
    return scheme == AuthScheme::kDigest ? http_replyWithAuthDigestFailed(reply, realm, "auth")
                                         : http_replyWithAuthBasicFailed(reply, realm);
  });
}

int punish(HttpRequest* request, HttpReply* reply, const std::string& source, AuthScheme scheme) {
  return answerLater(request, reply, source, attemptFailed(source),
                     [scheme](HttpRequest* later, HttpReply* to) { return challenge(later, to, scheme); });
}

bool admitsCredentials(HttpRequest* request, HttpReply* reply, AuthScheme scheme, int* result) {
  const std::string source = attemptSource(http_requestPeer(request));
  if (hasCredentials(request, scheme) && isWaitingFull(source)) {
    *result = refuseAttempt(request, reply);
    return false;
  }
  std::string user;
  switch (judgeCredentials(request, scheme, *users_, &user)) {
    case Credentials::kNone:
      *result = challenge(request, reply, scheme);
      return false;
    case Credentials::kMisdirected:
      *result = refuse(request, reply, 400);
      return false;
    case Credentials::kRefused:
      *result = punish(request, reply, source, scheme);
      return false;
    case Credentials::kAccepted:
      break;
  }
  identitySet(request, user);
  return true;
}

// --- sessions --------------------------------------------------------------------------------------------------------

bool isSafe(HttpRequest* request) {
  const int method = http_requestMethod(request);
  return method == HTTP_METHOD_GET || method == HTTP_METHOD_HEAD || method == HTTP_METHOD_OPTIONS;
}

bool admitsSession(HttpRequest* request, HttpReply* reply, int* result) {
  const std::string user = sessionUser(request, reply);
  if (user.empty()) {
    *result = loginDemand(request, reply);
    return false;
  }
  identitySet(request, user);
  // A browser sends the cookie whoever made it send the request.
  if (isSafe(request) || !isFromElsewhere(request)) return true;
  *result = refuse(request, reply, 403);
  return false;
}

}  // namespace

void protectionSetUp(const Options& options, const Users& users) {
  protections = options.protections;
  users_ = &users;
}

bool protectionAdmits(HttpRequest* request, HttpReply* reply, int* result) {
  if (protections.empty()) return true;
  // What leads upwards may lead to somewhere else on a file system with links, or at a forwarding target.
  if (leadsUpwards(http_requestPath(request))) {
    *result = refuse(request, reply, 400);
    return false;
  }
  const Protection* const protection = protectionOf(http_requestPath(request));
  if (protection == nullptr) return true;
  return protection->scheme == AuthScheme::kSession ? admitsSession(request, reply, result)
                                                    : admitsCredentials(request, reply, protection->scheme, result);
}
