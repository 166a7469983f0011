// A multipart body, the cuts it arrives with, and what the handlers do with its parts.
//
// Input: a byte of flags, the size of the pieces it arrives in, a byte with the number of actions, the actions, the
// boundary and a line feed, the body. With flag 2 the rest is the contents of parts, one a line of "\n%\n", and the
// body is made of them: then all of it must come out again. With flag 64 the first content and the pieces are large,
// and the pieces begin with that content.
#include <krohttp/multipart.h>

#include <cstring>

#include "fuzz_support.h"
#include "support/multipart_bodies.h"

namespace {

enum Flag {
  kChunked = 1,
  kWellFormed = 2,
  kMoreBehind = 4,
  kAtNextLook = 8,
  kAfterTwoLooks = 16,
  kOpensBody = 32,
  kLarge = 64
};
constexpr std::string_view kBehind = "GET / HTTP/1.1\r\n\r\n";

struct Script {
  int flags = 0;
  size_t piece = 1;
  std::string actions;
  MultipartBody body;
  std::string wire;

  Script(const uint8_t* data, size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    flags = static_cast<int>(take(&rest));
    piece = take(&rest) + 1u;
    if (piece == 256)
      piece = SIZE_MAX;
    else if ((flags & kLarge) != 0)
      piece *= 512;
    const size_t count = std::min<size_t>(take(&rest) % 32, rest.size());
    actions = rest.substr(0, count);
    rest.remove_prefix(count);
    body.boundary.clear();
    while (!rest.empty() && rest[0] != '\n' && body.boundary.size() < 200) {
      const char c = rest[0];  // what ends a parameter or is no text stands for another letter
      body.boundary += c > ' ' && c < 127 && c != ';' && c != '=' && c != ',' ? c : 'b';
      rest.remove_prefix(1);
    }
    if (body.boundary.empty()) body.boundary = "b";
    if (!rest.empty()) rest.remove_prefix(1);
    if ((flags & kWellFormed) != 0) {
      split(rest);
      wire = body.wire();
    } else {
      wire = rest;
    }
  }

  std::string request() const {
    std::string request = "POST / HTTP/1.1\r\nContent-Type: " + body.contentType() + "\r\n";
    if ((flags & kChunked) == 0) {
      request += "Content-Length: " + std::to_string(wire.size()) + "\r\n\r\n" + wire;
    } else {
      request += "Transfer-Encoding: chunked\r\n\r\n";
      for (const std::string& chunk : cutEvery(wire, (flags & kLarge) != 0 ? 30000 : piece % 7 + 3)) {
        char line[16];
        snprintf(line, sizeof line, "%X\r\n", static_cast<unsigned>(chunk.size()));
        request.append(line).append(chunk).append("\r\n");
      }
      request += "0\r\n\r\n";
    }
    if ((flags & kMoreBehind) != 0) request += kBehind;
    return request;
  }

  Pieces pieces() const {
    const std::string whole = request();
    constexpr std::string_view kHeadEnd = "\r\n\r\n";
    size_t first = 0;
    for (int heads = 0; (flags & kLarge) != 0 && heads < 2; ++heads) {  // the request's and that of the first part
      const size_t end = whole.find(kHeadEnd, first);
      if (end != std::string::npos) first = end + kHeadEnd.size();
    }
    Pieces all = cutEvery(std::string_view(whole).substr(first), piece);
    if (first > 0) all.insert(all.begin(), whole.substr(0, first));
    return all;
  }
  Arrival arrival(size_t pieceCount) const {
    constexpr size_t kMany = 1000;  // looks for each of so many would take too long
    if (pieceCount > kMany) return Arrival::kLater;
    if ((flags & kAfterTwoLooks) != 0) return Arrival::kAfterTwoLooks;
    return (flags & kAtNextLook) != 0 ? Arrival::kAtNextLook : Arrival::kLater;
  }

 private:
  static unsigned take(std::string_view* rest) {
    if (rest->empty()) return 0;
    const auto byte = static_cast<unsigned char>((*rest)[0]);
    rest->remove_prefix(1);
    return byte;
  }
  std::string enlarged(std::string_view content) const {
    constexpr size_t kEnough = 30000;
    std::string text(content);
    const bool isFirst = body.parts.empty();
    while ((flags & kLarge) != 0 && isFirst && !content.empty() && text.size() < kEnough) text += content;
    return text;
  }
  void split(std::string_view rest) {
    constexpr std::string_view kSeparator = "\n%\n";
    while (true) {
      const size_t end = rest.find(kSeparator);
      body.parts.push_back({{{"A", "b"}}, harmless(enlarged(rest.substr(0, end)), body.delimiter())});
      if (end == std::string_view::npos) return;
      rest.remove_prefix(end + kSeparator.size());
    }
  }
};

// Does with the parts what the actions say, in turns; without actions it reads everything.
class Actor {
 public:
  Actor(const Script& script, MultipartUpload* upload) : script_(script), upload_(upload) {
    bound_ = 100000 + 100 * script.wire.size();
    upload->onPart = [this](HttpRequest* part) { return onPart(part); };
    upload->onBody = [this](HttpRequest* part, FILE* body) { return onBody(part, body); };
  }

  bool dropped() const { return dropped_; }  // not everything was read
  bool gone() const { return gone_; }
  void countStep() { FUZZ_CHECK(++steps_ < bound_); }

 private:
  int next() { return script_.actions.empty() ? 4 : script_.actions[turn_++ % script_.actions.size()] & 15; }

  int onPart(HttpRequest* part) {
    countStep();
    FUZZ_CHECK(!gone_);
    FUZZ_CHECK(http_requestState(part) == HTTP_MSG_BODY);
    FUZZ_CHECK(http_requestUserData(part) == upload_->reader());
    return 0;
  }
  int onBody(HttpRequest* part, FILE* body) {
    countStep();
    FUZZ_CHECK(!gone_);
    FUZZ_CHECK(feof(body) == 0 && ferror(body) == 0);
    bool ended = false;
    switch (next()) {
      case 0:
        break;
      case 1:
        ended = upload_->readAs({"", Appetite::kOnce, 1}, part, body);
        break;
      case 2:
        ended = upload_->readAs({"", Appetite::kOnce, 7}, part, body);
        break;
      case 3:
        ended = upload_->readAs({"", Appetite::kOnce, 4096}, part, body);
        break;
      case 5:
        ended = upload_->readAs({"", Appetite::kCharacters, 0}, part, body);
        break;
      case 6:
        dropped_ = true;
        fclose(body);
        break;
      case 7:
        upload_->request()->message.paused = HTTP_MSG_PAUSED;
        break;
      case 8:
        ended = upload_->readAs({"", Appetite::kOnce, 3}, part, body);
        upload_->request()->message.paused = HTTP_MSG_TEMPORIZED;
        break;
      case 9:
        FUZZ_CHECK(http_msgMultipartHandleRead(upload_->reader()) == 0);
        break;
      case 10:
        dropped_ = true;
        if (turn_ > 8) return -1;
        break;
      case 11:
        if (turn_ > 8) {
          gone_ = true;
          upload_->cleanup();
        }
        break;
      case 12:
        ended = upload_->readAs({"", Appetite::kOnce, 16384}, part, body);
        break;
      case 13:
        for (int i = 0; i < 3 && !ended; ++i) ended = upload_->readAs({"", Appetite::kOnce, 4096}, part, body);
        break;
      default:
        ended = upload_->readAs({"", Appetite::kUntilShort, 100}, part, body);
        break;
    }
    if (ended) upload_->noteEnd();
    return 0;
  }

  const Script& script_;
  MultipartUpload* upload_;
  size_t turn_ = 0;
  size_t steps_ = 0;
  size_t bound_;
  bool dropped_ = false;
  bool gone_ = false;
};

bool readsNothing(char action) {
  const int code = action & 15;
  return code == 0 || code == 7 || code == 9 || code == 10 || code == 11;
}
// Such an upload never ends.
bool neverReads(const Script& script) {
  return !script.actions.empty() && std::all_of(script.actions.begin(), script.actions.end(), readsNothing);
}
// The end is offered once: who does not read then does not see it.
bool alwaysReads(const Script& script) {
  return std::none_of(script.actions.begin(), script.actions.end(), readsNothing);
}

void checkParts(const Script& script, const MultipartUpload& upload) {
  const std::string delimiter = script.body.delimiter();
  for (size_t i = 0; i < upload.received().size(); ++i) {
    const std::string& content = upload.received()[i].content;
    FUZZ_CHECK(upload.ends()[i] <= 1);
    FUZZ_CHECK(content.find(delimiter) == std::string::npos);
    FUZZ_CHECK(script.wire.find(content) != std::string::npos);
    if (upload.ends()[i] == 1) FUZZ_CHECK(script.wire.find(content + delimiter) != std::string::npos);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Script script(data, size);
  if (neverReads(script) || script.wire.empty()) return 0;
  const Pieces pieces = script.pieces();
  MultipartUpload upload(pieces, script.arrival(pieces.size()));
  upload.opensBody = (script.flags & kOpensBody) != 0;
  Actor actor(script, &upload);
  if (upload.begin() != 0) return 0;

  bool complete = false;
  while (!actor.gone()) {
    actor.countStep();
    upload.request()->message.paused = HTTP_MSG_RUNNING;
    if (upload.handleRead() != 0) break;
    if (actor.gone()) break;
    complete = upload.reader()->state == HTTP_MULTIPART_DONE && http_requestState(upload.request()) == HTTP_MSG_DONE;
    if (complete) break;
    upload.input.release();
  }
  checkParts(script, upload);
  if (complete) {
    upload.cleanup();
    FUZZ_CHECK(upload.behind() == ((script.flags & kMoreBehind) != 0 ? kBehind : ""));
  }
  if ((script.flags & kWellFormed) != 0 && !actor.gone() && !actor.dropped()) {
    FUZZ_CHECK(complete);
    FUZZ_CHECK(upload.received() == script.body.parts);
    for (const int ends : upload.ends()) FUZZ_CHECK(ends == 1 || !alwaysReads(script));
  }
  return 0;
}
