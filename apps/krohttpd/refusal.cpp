#include "refusal.h"

#include "framing.h"
#include "replies.h"

int answerEarly(HttpRequest* request, HttpReply* reply, const std::function<int()>& send) {
  const bool hasBody = http_requestState(request) == HTTP_MSG_BODY;
  const bool ambiguous = isAmbiguous(framingOf(&request->message));
  if ((hasBody || ambiguous) && announceClose(reply) < 0) return -1;
  if (send() < 0) return -1;
  const int type = http_requestBodyType(request);
  const bool unreadable =
      type == HTTP_BODY_MULTIPART || type == HTTP_BODY_UNKNOWN || ambiguous || http_replyStatusCode(reply) == 413;
  return hasBody && unreadable ? -1 : 0;
}

int refuseAttempt(HttpRequest* request, HttpReply* reply) {
  return answerEarly(request, reply, [&] {
    if (http_replyHeaderValueSet(reply, "Retry-After", "8") < 0) return -1;
    return replyWithText(request, reply, 429, "text/plain; charset=utf-8", "Too many failed attempts; wait a while.\n");
  });
}

int refuse(HttpRequest* request, HttpReply* reply, unsigned code, const char* allow) {
  return answerEarly(request, reply, [&] { return replyWithStatus(request, reply, code, allow); });
}
