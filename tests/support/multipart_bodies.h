// Multipart bodies made from a seed, the wire they travel on, and a reader that notes what it is handed.
//
//   Random random(seed);
//   MultipartBody body = randomMultipart(random, {});
//   MultipartUpload upload(body, framed(body.wire(), Framing::kChunked));
//   upload.arrive(cutAtRandom(random, upload.wire(), 10));
//   EXPECT_EQ(upload.run(), "complete");
//   EXPECT_EQ(upload.received(), body.parts);
#pragma once

#include <krohttp/message.h>
#include <krohttp/multipart.h>
#include <krohttp/request.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/script_stream.h"

// The same numbers for the same seed, everywhere (splitmix64).
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t word = state_ += 0x9e3779b97f4a7c15u;
    word = (word ^ (word >> 30)) * 0xbf58476d1ce4e5b9u;
    word = (word ^ (word >> 27)) * 0x94d049bb133111ebu;
    return word ^ (word >> 31);
  }
  // 0 to bound - 1.
  size_t below(size_t bound) { return bound == 0 ? 0 : static_cast<size_t>(next() % bound); }
  size_t between(size_t low, size_t high) { return low + below(high - low + 1); }
  bool oneIn(size_t chances) { return below(chances) == 0; }
  char byte() { return static_cast<char>(next() & 0xff); }

 private:
  uint64_t state_;
};

// --- bodies ----------------------------------------------------------------------------------------------------------

struct MultipartPart {
  std::vector<std::pair<std::string, std::string>> headers;
  std::string content;

  friend bool operator==(const MultipartPart& a, const MultipartPart& b) {
    return a.headers == b.headers && a.content == b.content;
  }
};
// Long contents are not printed whole: where two of them differ is found by their seed.
inline void PrintTo(const MultipartPart& part, std::ostream* out) {
  *out << "{";
  for (const auto& [name, value] : part.headers) *out << name << "=" << value << "; ";
  *out << part.content.size() << " bytes";
  if (part.content.size() <= 200) {
    *out << " ";
    for (const char c : part.content) {
      if (c >= ' ' && c < 127) {
        *out << c;
      } else {
        std::array<char, 8> escape;
        snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned char>(c));
        *out << escape.data();
      }
    }
  }
  *out << "}";
}

struct MultipartBody {
  std::string boundary = "XyZ";
  std::vector<MultipartPart> parts;
  std::string epilogue;

  std::string delimiter() const { return "\r\n--" + boundary; }
  std::string wire() const {
    std::string wire;
    for (const MultipartPart& part : parts) {
      wire += (wire.empty() ? delimiter().substr(2) : delimiter()) + "\r\n";
      for (const auto& [name, value] : part.headers) wire.append(name).append(": ").append(value).append("\r\n");
      wire.append("\r\n").append(part.content);
    }
    return wire + (wire.empty() ? delimiter().substr(2) : delimiter()) + "--\r\n" + epilogue;
  }
  std::string contentType() const { return "multipart/form-data; boundary=" + boundary; }
};

// A content that a sender may put before this delimiter: cut where it would end the part by itself.
inline std::string harmless(std::string content, const std::string& delimiter) {
  // Behind the empty line of the head this reads like a delimiter to some: no sender chooses such a boundary.
  const std::string atOnce = delimiter.substr(2);
  if (content.compare(0, atOnce.size(), atOnce) == 0) content.insert(0, ".");
  content.resize((content + delimiter).find(delimiter));
  return content;
}

// Bytes that look like the delimiter, and like what is around it, again and again.
inline std::string temptingContent(Random& random, size_t length, const std::string& delimiter) {
  std::string content;
  const bool text = random.oneIn(3);
  while (content.size() < length) {
    switch (random.below(12)) {
      case 0:
        content += "\r";
        break;
      case 1:
        content += "\n";
        break;
      case 2:
        content += "\r\n";
        break;
      case 3:
        content += "\r\r\n";
        break;
      case 4:
        content += "--";
        break;
      case 5:
        content += "\r\n--";
        break;
      case 6:
      case 7:
        content += delimiter.substr(0, random.between(1, delimiter.size() - 1));
        break;
      case 8:
        for (size_t times = random.between(2, 5); times > 0; --times)
          content += delimiter.substr(0, random.between(1, delimiter.size() - 1));
        break;
      case 9:
        content += delimiter.substr(0, delimiter.size() - 1) + "!";
        break;
      case 10:
        for (size_t count = random.between(1, 40); count > 0; --count) content += text ? 'a' : random.byte();
        break;
      default:
        content.append(random.between(1, std::max<size_t>(1, (length - content.size()) / 2)), random.byte());
        break;
    }
  }
  content.resize(length);
  return content;
}

inline std::string randomBoundary(Random& random, size_t length) {
  static constexpr std::string_view kCharacters = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_'.+";
  std::string boundary;
  const size_t variety = random.oneIn(3) ? random.between(1, 3) : kCharacters.size();
  while (boundary.size() < length) boundary += kCharacters[kCharacters.size() - 1 - random.below(variety)];
  return boundary;
}

struct MultipartShape {
  size_t boundary = 0;    // characters, 0: 1 to 200
  size_t parts = 0;       // 0: 1 to 12, at times up to 500
  size_t content = 3000;  // at most so many bytes in a part
  bool text = false;      // no NUL in contents
  bool epilogue = true;
};

inline MultipartBody randomMultipart(Random& random, const MultipartShape& shape) {
  MultipartBody body;
  body.boundary = randomBoundary(random, shape.boundary != 0 ? shape.boundary
                                         : random.oneIn(4)   ? random.between(1, 2)
                                                             : random.between(1, 200));
  size_t parts = shape.parts;
  if (parts == 0) parts = random.oneIn(10) ? random.between(13, 500) : random.between(1, 12);
  while (body.parts.size() < parts) {
    const std::string number = std::to_string(body.parts.size());
    MultipartPart part;
    part.headers.emplace_back("Content-Disposition", "form-data; name=\"field" + number + "\"");
    if (random.oneIn(3)) part.headers.emplace_back("Content-Type", "text/plain; charset=utf-8");
    if (random.oneIn(4)) part.headers.emplace_back("X-Number", std::string(random.between(1, 900), 'n') + number);
    if (random.oneIn(30)) part.headers.clear();
    const size_t most = parts > 12 ? std::min<size_t>(shape.content, 300) : shape.content;
    const size_t length = random.oneIn(6) ? 0 : random.oneIn(3) ? random.below(20) : random.below(most + 1);
    part.content = temptingContent(random, length, body.delimiter());
    if (shape.text) std::replace(part.content.begin(), part.content.end(), '\0', '0');
    if (random.oneIn(3)) part.content += body.delimiter().substr(0, random.between(1, body.delimiter().size() - 1));
    part.content = harmless(part.content, body.delimiter());
    body.parts.push_back(std::move(part));
  }
  if (shape.epilogue && random.oneIn(4)) body.epilogue = temptingContent(random, random.below(6000), body.delimiter());
  return body;
}

// --- the wire --------------------------------------------------------------------------------------------------------

enum class Framing { kLength, kChunked };
inline void PrintTo(Framing framing, std::ostream* out) {
  *out << (framing == Framing::kLength ? "Length" : "Chunked");
}

// A whole request with this body. A chunk size of 0 takes random ones.
inline std::string framedRequest(const MultipartBody& body, Framing framing, Random& random, size_t chunk = 0) {
  const std::string wire = body.wire();
  std::string request = "POST /upload HTTP/1.1\r\nContent-Type: " + body.contentType() + "\r\n";
  if (framing == Framing::kLength)
    return request + "Content-Length: " + std::to_string(wire.size()) + "\r\n\r\n" + wire;
  request += "Transfer-Encoding: chunked\r\n\r\n";
  for (size_t at = 0; at < wire.size();) {
    const size_t wanted = chunk != 0 ? chunk : random.oneIn(3) ? random.between(1, 5) : random.between(1, 5000);
    const size_t count = std::min(wanted, wire.size() - at);
    std::array<char, 32> size;
    snprintf(size.data(), size.size(), "%zx\r\n", count);
    request.append(size.data()).append(wire, at, count).append("\r\n");
    at += count;
  }
  return request + "0\r\n\r\n";
}

using Pieces = std::vector<std::string>;

inline Pieces cutEvery(std::string_view wire, size_t step) {
  Pieces pieces;
  for (size_t at = 0; at < wire.size(); at += step) pieces.emplace_back(wire.substr(at, step));
  return pieces;
}
inline Pieces cutOnce(std::string_view wire, size_t at) {
  return {std::string(wire.substr(0, at)), std::string(wire.substr(at))};
}
inline Pieces cutAtRandom(Random& random, std::string_view wire, size_t cuts) {
  std::vector<size_t> places;
  for (size_t cut = 0; cut < cuts; ++cut) places.push_back(random.below(wire.size() + 1));
  places.push_back(0);
  places.push_back(wire.size());
  std::sort(places.begin(), places.end());
  Pieces pieces;
  for (size_t i = 1; i < places.size(); ++i)
    if (places[i] > places[i - 1]) pieces.emplace_back(wire.substr(places[i - 1], places[i] - places[i - 1]));
  return pieces;
}

// --- reading ---------------------------------------------------------------------------------------------------------

// How an application reads the bodies of the parts.
struct Appetite {
  enum Way { kOnce, kUntilShort, kCharacters, kLines, kOwnBuffer };
  const char* name;
  Way way;
  size_t size;
};
inline void PrintTo(const Appetite& appetite, std::ostream* out) { *out << appetite.name; }

inline constexpr std::array<Appetite, 11> kAppetites = {{{"Once1", Appetite::kOnce, 1},
                                                         {"Once7", Appetite::kOnce, 7},
                                                         {"Once4096", Appetite::kOnce, 4096},
                                                         {"Once100000", Appetite::kOnce, 100000},
                                                         {"UntilShort1", Appetite::kUntilShort, 1},
                                                         {"UntilShort7", Appetite::kUntilShort, 7},
                                                         {"UntilShort4096", Appetite::kUntilShort, 4096},
                                                         {"UntilShort100000", Appetite::kUntilShort, 100000},
                                                         {"Characters", Appetite::kCharacters, 0},
                                                         {"Lines", Appetite::kLines, 80},
                                                         {"OwnBuffer", Appetite::kOwnBuffer, 7}}};

// When the next piece is there: once the reader has returned for want of it, or after so many looks, which may be in
// the midst of its work.
enum class Arrival { kLater = 0, kAtNextLook = 1, kAfterTwoLooks = 2 };

// A request with a multipart body, taken apart by the reader under test while its bytes arrive piece by piece.
class MultipartUpload {
 public:
  using PartHandler = std::function<int(HttpRequest*)>;
  using BodyHandler = std::function<int(HttpRequest*, FILE*)>;

  explicit MultipartUpload(const Pieces& pieces, Arrival arrival = Arrival::kLater) {
    for (const std::string& piece : pieces) {
      input.bytes(piece);
      if (arrival == Arrival::kLater) input.hold();
      for (int look = 0; look < static_cast<int>(arrival); ++look) input.error(EAGAIN);
    }
    if (arrival != Arrival::kLater) input.hold();
    request_ = http_requestCreate();
    http_requestModeSet(request_, HTTP_MSG_READING);
    http_requestStreamSet(request_, input.stream());
    holder_.upload = this;
  }
  ~MultipartUpload() {
    cleanup();
    destroyRequest();
  }
  MultipartUpload(const MultipartUpload&) = delete;
  MultipartUpload& operator=(const MultipartUpload&) = delete;

  // What the handlers do; the usual: note what comes, read as appetite says.
  PartHandler onPart;
  BodyHandler onBody;
  Appetite appetite = {"UntilShort4096", Appetite::kUntilShort, 4096};
  ScriptInput input;
  // The application has opened the body before it prepares the reader.
  bool opensBody = false;
  // What the application believes the boundary to be.
  const char* boundary = nullptr;

  HttpRequest* request() { return request_; }
  HttpMultipart* reader() { return &holder_.reader; }
  const std::vector<MultipartPart>& received() const { return received_; }
  // How often the end of each part was seen.
  const std::vector<int>& ends() const { return ends_; }
  size_t partCalls() const { return partCalls_; }
  size_t bodyCalls() const { return bodyCalls_; }

  // Reads the head, releasing what is held, and prepares the reader.
  int begin() {
    while (http_requestState(request_) < HTTP_MSG_BODY) {
      clearerr(input.stream());
      if (http_requestParse(request_) != 0) return -1;
      if (http_requestNeedMoreData(request_) == 0) continue;
      if (!awaitMore()) return -1;
    }
    if (opensBody && http_msgBody(&request_->message) == nullptr) return -1;
    const int result =
        boundary == nullptr
            ? http_msgMultipartInitialize(reader(), &request_->message, handlePart, handleBody)
            : http_msgMultipartInitializeWithBoundary(reader(), &request_->message, boundary, handlePart, handleBody);
    initialized_ = result == 0;
    return result;
  }
  int handleRead() {
    clearerr(input.stream());
    return http_msgMultipartHandleRead(reader());
  }
  // Lets the pieces arrive one by one. "complete", "failed", or what went wrong.
  std::string run() {
    if (begin() != 0) return "not begun";
    return goOn();
  }
  std::string goOn() {
    for (size_t step = 0; step < 10000000; ++step) {
      if (handleRead() != 0) return "failed";
      if (holder_.reader.state == HTTP_MULTIPART_DONE && http_requestState(request_) == HTTP_MSG_DONE)
        return "complete";
      if (!awaitMore()) return "waits in state " + std::to_string(holder_.reader.state);
    }
    return "endless";
  }
  // Lets the next piece arrive. @return whether there is one
  bool awaitMore() {
    const bool more = !input.over();
    input.release();
    return more;
  }
  // The reader is gone; the request stays.
  void cleanup() {
    if (std::exchange(initialized_, false)) http_msgMultipartCleanup(reader());
  }
  // The request is gone, and its body with it: one that has been read to its end is not closed by the message.
  void destroyRequest() {
    if (request_ != nullptr && request_->message.body != nullptr) fclose(request_->message.body);
    http_requestDestroy(std::exchange(request_, nullptr));
  }
  // All that is left in the connection's stream.
  std::string behind() {
    std::string rest = input.rest();
    while (awaitMore()) rest += input.rest();
    return rest;
  }

  // Reads from body as appetite says. @return whether the part ended: stdio may have read ahead, so a part that is done
  // has ended where a read is short
  bool readAs(const Appetite& way, HttpRequest* part, FILE* body) {
    std::string& content = received_.back().content;
    switch (way.way) {
      case Appetite::kOnce:
        take(body, way.size, &content);
        break;
      case Appetite::kUntilShort:
        while (take(body, way.size, &content) == way.size) {
        }
        break;
      case Appetite::kCharacters:
        for (int c = fgetc(body); c != EOF; c = fgetc(body)) content.push_back(static_cast<char>(c));
        break;
      case Appetite::kLines: {
        std::vector<char> line(way.size);
        while (fgets(line.data(), static_cast<int>(line.size()), body) != nullptr) content += line.data();
        break;
      }
      case Appetite::kOwnBuffer:
        if (callsOfPart_ == 1) setvbuf(body, ownBuffer_.data(), _IOFBF, ownBuffer_.size());
        while (take(body, way.size, &content) == way.size) {
        }
        break;
    }
    return http_requestState(part) == HTTP_MSG_DONE && feof(body) != 0;
  }
  // Reads once. @return the bytes
  static size_t take(FILE* body, size_t size, std::string* content) {
    const size_t before = content->size();
    content->resize(before + size);
    const size_t count = fread(content->data() + before, 1, size, body);
    content->resize(before + count);
    return count;
  }
  void noteEnd() { ++ends_.back(); }
  void notePart(HttpRequest* part) {
    MultipartPart noted;
    const char* name = nullptr;
    const char* value = nullptr;
    while (http_requestHeadersNext(part, &name, &value) == 0) noted.headers.emplace_back(name, value);
    received_.push_back(std::move(noted));
    ends_.push_back(0);
    callsOfPart_ = 0;
  }

 private:
  struct Holder {
    HttpMultipart reader;  // first: the user data of a part is this
    MultipartUpload* upload;
  };

  static MultipartUpload* of(HttpRequest* part) { return static_cast<Holder*>(http_requestUserData(part))->upload; }
  static int handlePart(HttpRequest* part) {
    MultipartUpload* const upload = of(part);
    ++upload->partCalls_;
    upload->notePart(part);
    return upload->onPart ? upload->onPart(part) : 0;
  }
  static int handleBody(HttpRequest* part, FILE* body) {
    MultipartUpload* const upload = of(part);
    ++upload->bodyCalls_;
    ++upload->callsOfPart_;
    if (upload->onBody) return upload->onBody(part, body);
    if (upload->readAs(upload->appetite, part, body)) upload->noteEnd();
    return 0;
  }

  HttpRequest* request_ = nullptr;
  Holder holder_ = {};
  bool initialized_ = false;
  std::vector<MultipartPart> received_;
  std::vector<int> ends_;
  std::array<char, 4096> ownBuffer_;
  size_t callsOfPart_ = 0;
  size_t partCalls_ = 0;
  size_t bodyCalls_ = 0;
};
