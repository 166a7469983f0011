// Messages that a test owns.
#pragma once

#include <gtest/gtest.h>
#include <krohttp/reply.h>
#include <krohttp/request.h>

#include <cstdio>
#include <memory>

struct DestroyMessage {
  void operator()(HttpRequest* request) const { http_requestDestroy(request); }
  void operator()(HttpReply* reply) const { http_replyDestroy(reply); }
};
using RequestPtr = std::unique_ptr<HttpRequest, DestroyMessage>;
using ReplyPtr = std::unique_ptr<HttpReply, DestroyMessage>;

// A request whose head has been read from this stream.
inline RequestPtr incomingRequest(FILE* stream) {
  RequestPtr request(http_requestCreate());
  http_requestModeSet(request.get(), HTTP_MSG_READING);
  http_requestStreamSet(request.get(), stream);
  while (http_requestState(request.get()) < HTTP_MSG_BODY) {
    if (http_requestParse(request.get()) != 0 || http_requestNeedMoreData(request.get()) != 0) {
      ADD_FAILURE() << "no complete head";
      break;
    }
  }
  return request;
}
