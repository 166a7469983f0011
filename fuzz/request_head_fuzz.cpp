// The head of a request (fuzz_head.h).
#include <krohttp/request.h>

#include "fuzz_head.h"

namespace {

struct RequestHead {
  static HttpRequest* create() { return http_requestCreate(); }
  static void destroy(HttpRequest* request) { http_requestDestroy(request); }
  static std::string firstLine(HttpRequest* request) {
    FUZZ_CHECK(request->method > HTTP_METHOD_UNKNOWN && request->method < HTTP_METHOD_COUNT);
    FUZZ_CHECK(http_requestPath(request) != nullptr && http_uriQueryString(&request->uri) != nullptr);
    std::string text = http_requestMethodString(request);
    text.append(" ").append(http_requestPath(request)).append("?").append(http_uriQueryString(&request->uri));
    return text + " " + std::to_string(request->message.versionMajor) + "." +
           std::to_string(request->message.versionMinor);
  }
  static int send(HttpRequest* request) { return http_requestSend(request); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzHead<RequestHead>(data, size);
  return 0;
}
