#include "identity.h"

#include <unordered_map>

namespace {

std::unordered_map<ZelPeer*, std::string> users;  // by connection

}  // namespace

void identitySet(HttpRequest* request, const std::string& user) { users[http_requestPeer(request)] = user; }

std::string identityOf(HttpRequest* request) {
  const auto found = users.find(http_requestPeer(request));
  return found != users.end() ? found->second : "";
}

void identityEnd(HttpRequest* request) { users.erase(http_requestPeer(request)); }
