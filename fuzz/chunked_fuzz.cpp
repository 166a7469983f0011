// A chunked body: read wherever it is cut, by strict readers and others, and written.
//
// Input: a byte of flags, a body limit, the sizes of the pieces, how much each read wants, the body. With kWrite the
// rest is content: it is written in pieces and must come out again.
#include <krohttp/body.h>
#include <krohttp/reply.h>
#include <krohttp/request.h>

#include "fuzz_input.h"
#include "fuzz_support.h"

namespace {

enum Flag { kStrict = 1, kLimit = 2, kWrite = 4, kUnbuffered = 8, kTraces = 0xf0 };
constexpr std::string_view kHead = "POST / HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n";

struct Outcome {
  std::string content;
  int state = 0;
  int refusal = 0;
  bool cut = false;
  size_t unread = 0;  // behind a complete body
  bool operator==(const Outcome&) const = default;
  bool complete() const { return state == HTTP_MSG_DONE && !cut; }
};

struct Reader {
  bool strict = false;
  uint64_t limit = 0;
  std::string_view pieces = {};
  std::string_view reads = {};  // sizes; none: large ones
  bool unbuffered = false;
};

Outcome readBody(const std::string& wire, const Reader& reader) {
  CutStream input(wire, reader.pieces);
  HttpRequest* const request = http_requestCreate();
  HttpMessage* const message = &request->message;
  http_requestModeSet(request, HTTP_MSG_READING);
  http_requestStreamSet(request, input.stream());
  message->strict = reader.strict;
  message->bodyLimit = reader.limit;
  while (message->state < HTTP_MSG_BODY) FUZZ_CHECK(http_requestParse(request) == 0);
  FILE* const body = http_requestBody(request);
  FUZZ_CHECK(body != nullptr && message->bodyType == HTTP_BODY_CHUNKED);
  if (reader.unbuffered) setvbuf(body, nullptr, _IONBF, 0);

  Outcome outcome;
  FuzzScript reads(reader.reads);
  while (true) {
    char block[600];
    const size_t wanted = reader.reads.empty() ? sizeof block : reads.next() + 1;
    const size_t count = fread(block, 1, wanted, body);
    FUZZ_CHECK(count <= wanted);
    outcome.content.append(block, count);
    if (count == wanted) continue;
    if (!http_requestNeedMoreData(request)) break;
    clearerr(body);
  }
  outcome.cut = message->bodyCut != 0;
  outcome.refusal = message->refusal;
  outcome.state = message->state;
  fclose(body);
  outcome.cut |= message->bodyCut != 0;
  if (outcome.complete()) outcome.unread = input.unread();
  http_requestDestroy(request);
  return outcome;
}

// The grammar of a strict reader (RFC 9112 section 7.1, without extensions and trailers). False when it does not fit.
bool decode(std::string_view wire, std::string* content, size_t* unread) {
  while (true) {
    const size_t digits = std::min(wire.find_first_not_of("0123456789abcdefABCDEF"), wire.size());
    if (digits == 0 || wire.substr(digits, 2) != "\r\n" || digits > 254) return false;
    const std::string text(wire.substr(0, digits));
    if (text.find_first_not_of('0') != std::string::npos && digits - text.find_first_not_of('0') > 8) return false;
    const size_t size = strtoul(text.c_str(), nullptr, 16);
    wire.remove_prefix(digits + 2);
    if (size > wire.size() || wire.substr(size, 2) != "\r\n") return false;
    content->append(wire.substr(0, size));
    wire.remove_prefix(size + 2);
    if (size > 0) continue;
    *unread = wire.size();
    return true;
  }
}

std::string encode(std::string_view content, std::string_view pieces) {
  CollectingStream output;
  HttpReply* const reply = http_replyCreate();
  http_replyModeSet(reply, HTTP_MSG_WRITING);
  http_replyStreamSet(reply, output.stream());
  http_replyVersionSet(reply, 1, 1);
  FUZZ_CHECK(http_replyStatusCodeSet(reply, 200, nullptr) == 0);
  FUZZ_CHECK(http_replyHeaderValueSet(reply, "Transfer-Encoding", "chunked") == 0);
  FUZZ_CHECK(http_replySend(reply) == 0);
  const size_t head = output.text().size();
  FILE* const body = http_replyBody(reply);
  FUZZ_CHECK(body != nullptr);
  FuzzScript sizes(pieces);
  while (!content.empty()) {
    const unsigned next = sizes.next();
    const size_t count = std::min<size_t>(next / 2 + 1, content.size());
    FUZZ_CHECK(fwrite(content.data(), 1, count, body) == count);
    if ((next & 1) != 0) FUZZ_CHECK(fflush(body) == 0);
    content.remove_prefix(count);
  }
  FUZZ_CHECK(fclose(body) == 0);
  FUZZ_CHECK(http_replyDone(reply) == 0 && http_replyState(reply) == HTTP_MSG_DONE);
  http_replyDestroy(reply);
  return output.text().substr(head);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  const unsigned flags = input.byte();
  traceIf((flags & kTraces) == kTraces && size <= kMostTraced);
  Reader reader;
  reader.strict = (flags & kStrict) != 0;
  if ((flags & kLimit) != 0) reader.limit = input.byte();
  reader.pieces = input.bytes(16);
  reader.reads = input.bytes(8);
  reader.unbuffered = (flags & kUnbuffered) != 0;
  const bool writes = (flags & kWrite) != 0;
  const std::string wire = writes ? encode(input.rest(), reader.pieces) : std::string(input.rest());
  const std::string whole = std::string(kHead) + wire;

  const Outcome outcome = readBody(whole, {reader.strict, reader.limit});
  const Outcome cut = readBody(whole, reader);
  FUZZ_CHECK(cut.complete() == outcome.complete());
  if (outcome.complete()) FUZZ_CHECK(cut == outcome);
  if (reader.limit != 0) FUZZ_CHECK(!outcome.complete() || outcome.content.size() <= reader.limit);

  std::string content;
  size_t unread = 0;
  const bool same = reader.strict && reader.limit == 0;
  const Outcome strict = same ? outcome : readBody(whole, {true});
  FUZZ_CHECK(strict.complete() == decode(wire, &content, &unread));
  FUZZ_CHECK(!strict.complete() || (strict.content == content && strict.unread == unread));
  if (strict.complete()) FUZZ_CHECK(readBody(whole, {false}) == strict);
  if (writes) FUZZ_CHECK(strict.complete() && content == input.rest() && unread == 0);
  return 0;
}
