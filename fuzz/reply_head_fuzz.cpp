// The head of a reply (fuzz_head.h).
#include <krohttp/reply.h>

#include "fuzz_head.h"

namespace {

struct ReplyHead {
  static HttpReply* create() { return http_replyCreate(); }
  static void destroy(HttpReply* reply) { http_replyDestroy(reply); }
  static std::string firstLine(HttpReply* reply) {
    FUZZ_CHECK(reply->reason != nullptr);
    return std::to_string(reply->message.versionMajor) + "." + std::to_string(reply->message.versionMinor) + " " +
           std::to_string(http_replyStatusCode(reply)) + " " + reply->reason;
  }
  static int send(HttpReply* reply) { return http_replySend(reply); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzHead<ReplyHead>(data, size);
  return 0;
}
