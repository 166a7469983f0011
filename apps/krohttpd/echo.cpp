#include "echo.h"

#include <zel/peer.h>

#include <cstdint>
#include <unordered_map>

#include "replies.h"

namespace {

constexpr size_t kBlock = 16384;
// With more than this on its way to a slow reader, no more is read from it.
constexpr size_t kMostQueued = 256 * 1024;

struct Echo {
  uint64_t expected = 0;  // the Content-Length
  bool counted = false;   // there is one
  uint64_t copied = 0;
};

// The echoes under way, by connection.
std::unordered_map<ZelPeer*, Echo> echoes;

Echo* echoOf(HttpRequest* request) {
  const auto found = echoes.find(http_requestPeer(request));
  return found != echoes.end() ? &found->second : nullptr;
}

bool contentLength(HttpRequest* request, uint64_t* length) {
  HttpHeader header{};
  header.code = HTTP_HEADER_CONTENT_LENGTH;
  const bool found = http_requestHeader(request, &header) == 0;
  if (found) *length = header.contentLength.length;
  http_hdrCleanup(&header);
  return found;
}

// The reader has caught up: the server reads on, unless it has taken the event over for the end of the reply.
bool resumeReading(ZelPeer* peer) {
  auto* const connection = static_cast<HttpServerConnection*>(peer_userData(peer));
  peer_setEventHandler(peer, PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, nullptr);
  return http_serverResumeRequest(&connection->request) == 0;
}

int pauseUntilDrained(HttpRequest* request) {
  if (http_serverPauseRequest(request) < 0) return -1;
  return peer_setEventHandler(http_requestPeer(request), PEER_EVENT_DRAINED, PEER_DIRECTION_OUT, resumeReading) ? 0
                                                                                                                : -1;
}

int finish(HttpRequest* request, HttpReply* reply) {
  const Echo* const echo = echoOf(request);
  // A body that ended early must not come back as a complete one.
  if (echo->counted && echo->copied != echo->expected) return -1;
  return http_replyDone(reply);
}

int setHead(HttpRequest* request, HttpReply* reply, const Echo& echo) {
  const char* const type = http_requestHeaderValue(request, "Content-Type");
  if (http_replyStatusCodeSet(reply, 200, nullptr) < 0 || addCommonHeaders(request, reply) < 0 ||
      http_replyHeaderValueSet(reply, "Content-Type", "%s", type != nullptr ? type : "application/octet-stream") < 0)
    return -1;
  if (echo.counted)
    return http_replyHeaderValueSet(reply, "Content-Length", "%llu", static_cast<unsigned long long>(echo.expected));
  // To HTTP/1.0 the end of the connection tells the end of the body.
  return http_requestVersion(request)[1] == 0 ? 0 : http_replyHeaderValueSet(reply, "Transfer-Encoding", "chunked");
}

// The reply begins with the first bytes of the body: some proxies stumble over one that comes along with 100 Continue.
FILE* replyBody(HttpRequest* request, HttpReply* reply, const Echo& echo) {
  const bool begun = http_replyState(reply) >= HTTP_MSG_BODY;
  if (!begun && (setHead(request, reply, echo) < 0 || http_replySend(reply) < 0)) return nullptr;
  return http_replyBody(reply);
}

}  // namespace

int echoBegin(HttpRequest* request, HttpReply* reply) {
  Echo echo;
  echo.counted = contentLength(request, &echo.expected);
  // Without a header that says so, a body would last until the connection ends, and never be answered.
  const bool empty =
      http_requestState(request) == HTTP_MSG_DONE || http_requestBodyType(request) == HTTP_BODY_UNTIL_CLOSE;
  if (empty) return replyWithText(request, reply, 200, "", "");
  if (http_serverContinue(request, reply) < 0) return -1;
  echoes[http_requestPeer(request)] = echo;
  return 0;
}

bool isEchoing(HttpRequest* request) { return echoOf(request) != nullptr; }

int echoBody(HttpRequest* request, HttpReply* reply, FILE* body) {
  Echo* const echo = echoOf(request);
  char block[kBlock];
  for (;;) {
    const size_t count = fread(block, 1, sizeof block, body);
    const bool complete = http_requestState(request) == HTTP_MSG_DONE;
    if (count == 0 && !complete) return http_requestNeedMoreData(request) ? 0 : -1;
    FILE* const out = replyBody(request, reply, *echo);
    if (out == nullptr || (count > 0 && fwrite(block, 1, count, out) != count)) return -1;
    echo->copied += count;
    if (count < sizeof block) {
      if (complete) return finish(request, reply);
      if (!http_requestNeedMoreData(request)) return -1;
      return fflush(out) == 0 ? 0 : -1;
    }
    if (!complete && peer_bytesQueued(http_requestPeer(request)) > kMostQueued) return pauseUntilDrained(request);
  }
}

void echoEnd(HttpRequest* request) { echoes.erase(http_requestPeer(request)); }
