#include "forward.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "framing.h"
#include "prefix.h"
#include "replies.h"

namespace {

struct ProxyDeleter {
  void operator()(HttpProxy* proxy) const { http_proxyDestroy(proxy); }
};

// The exchanges under way, by the browser's connection.
using Exchanges = std::unordered_map<ZelPeer*, std::unique_ptr<HttpProxy, ProxyDeleter>>;
Exchanges exchanges;

std::vector<ProxyTarget> targets;
ZelConnection* connection_ = nullptr;
uint32_t timeout = 0;

// The path goes out decoded: control bytes in it could end the request line, and what leads upwards could lead out of
// the prefix.
bool isForwardable(std::string_view path) {
  if (leadsUpwards(path)) return false;
  return std::none_of(path.begin(), path.end(), [](char c) { return static_cast<unsigned char>(c) < 32 || c == 127; });
}

// What the target is told beside what the browser has said.
int completeHead(HttpRequest* request, const ProxyTarget& target) {
  const char* const address = peer_address(http_requestPeer(request));
  const bool known = *address != '\0' && std::string_view(address) != "unix";
  if (known && http_requestHeaderValueSet(request, "X-Forwarded-For", "%s", address) < 0) return -1;
  // The target is spoken to in HTTP/1.1, which cannot do without.
  if (http_requestHeaderValue(request, "Host") != nullptr) return 0;
  return http_requestHeaderValueSet(request, "Host", "%s", target.host.c_str());
}

// Nobody could tell for sure where such a reply ends, and one that switches protocols does not end at all.
bool isUsable(HttpReply* forwardReply) {
  return !isAmbiguous(framingOf(&forwardReply->message)) && http_replyStatusCode(forwardReply) != 101;
}

int checkReply(HttpProxy* proxy, HttpReply* reply) {
  if (isUsable(proxy->forwardReply)) return closesAfter(proxy->request) ? announceClose(reply) : 0;
  http_replyReset(reply);
  http_replyVersionSet(reply, 1, 1);
  replyWithStatus(proxy->request, reply, 502);
  return -1;
}

}  // namespace

void forwardSetUp(const Options& options, ZelConnection* connection) {
  targets = options.proxies;
  timeout = options.proxyTimeout * 1000;
  connection_ = connection;
}

void forwardTearDown() { exchanges.clear(); }

const ProxyTarget* forwardTarget(const char* path) { return longestMatch(targets, path); }

int forwardBegin(HttpRequest* request, HttpReply* reply, const ProxyTarget& target) {
  if (!isForwardable(http_requestPath(request))) return replyWithStatus(request, reply, 400);
  if (settleBody(request) < 0 || completeHead(request, target) < 0) return -1;
  auto& proxy = exchanges[http_requestPeer(request)];
  proxy.reset(http_proxyCreate(connection_, target.host.c_str(), target.port.c_str()));
  if (proxy) {
    proxy->timeout = timeout;
    proxy->replyFilter = checkReply;
    errno = 0;
    if (http_proxyForwardRequest(proxy.get(), request, reply) == 0) return 0;
  }
  const bool isTooLong = proxy && errno == EFBIG;
  exchanges.erase(http_requestPeer(request));
  return isTooLong ? -1 : replyWithStatus(request, reply, 502);  // the server says so
}

bool isForwarding(HttpRequest* request) { return exchanges.contains(http_requestPeer(request)); }

int forwardBody(HttpRequest* request) {
  return http_proxyForwardRequestBody(exchanges.at(http_requestPeer(request)).get());
}

void forwardEnd(HttpRequest* request) {
  const auto found = exchanges.find(http_requestPeer(request));
  if (found == exchanges.end()) return;
  http_proxyForwardReplyDone(found->second.get());
  exchanges.erase(found);
}
