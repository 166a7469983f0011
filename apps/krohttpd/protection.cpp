#include "protection.h"

#include <algorithm>
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

constexpr std::string_view kIndex = "/index.html";
std::vector<Protection> protections;
size_t mostIndexes = 1;  // that may stand in what is protected
const Users* users_ = nullptr;

// The names of the file that may be sent for @p path: as it stands or compressed, or the index of the directory that
// one of these is, which may be a directory itself.
std::vector<std::string> namesOf(std::string_view path) {
  std::vector<std::string> names;
  for (const std::string_view suffix : {"", ".gz"}) {
    std::string name = std::string(path).append(suffix);
    for (size_t indexes = mostIndexes;; --indexes) {
      names.push_back(normalizedPath(name));
      if (indexes == 0) break;
      names.push_back(normalizedPath(std::string(name).append(kIndex)));
      name.append(kIndex).append(suffix);
    }
  }
  const std::string& name = names.front();
  if (name.ends_with(".gz")) names.push_back(name.substr(0, name.size() - 3));
  names.push_back(normalizedPath(name + std::string(kIndex) + ".gz"));
  return names;
}

// The protection of @p path, null when anybody may have it.
const Protection* protectionOf(std::string_view path) {
  const Protection* best = nullptr;
  for (const std::string& each : namesOf(path)) {
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
  for (const Protection& each : protections)
    mostIndexes = std::max(mostIndexes, each.prefix.size() / kIndex.size() + 1);
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
