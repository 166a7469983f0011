#include <gtest/gtest.h>
#include <krohttp/body.h>
#include <krohttp/message.h>
#include <krohttp/reply.h>
#include <krohttp/request.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/messages.h"
#include "support/script_stream.h"
#include "support/trace_capture.h"

namespace {

using namespace std::string_literals;

const std::string kPost = "POST / HTTP/1.1\r\n";
const std::string kChunked = kPost + "Transfer-Encoding: chunked\r\n\r\n";
const std::string kUntilClose = kPost + "\r\n";
std::string withLength(size_t length) { return kPost + "Content-Length: " + std::to_string(length) + "\r\n\r\n"; }
std::string multipart(size_t length) {
  return kPost + "Content-Type: multipart/form-data; boundary=b\r\nContent-Length: " + std::to_string(length) +
         "\r\n\r\n";
}

// A text of this length in which no two neighbourhoods look alike.
std::string pattern(size_t length) {
  std::string text(length, ' ');
  for (size_t at = 0; at < length; ++at) text[at] = static_cast<char>('!' + (at * 7 + at / 90 + at / 8100) % 90);
  return text;
}

// A request whose head is read from the script; the body is opened.
class Reading {
 public:
  explicit Reading(ScriptInput& input) : input_(input), request_(http_requestCreate()) {
    http_msgModeSet(message(), HTTP_MSG_READING);
    http_msgStreamSet(message(), input.stream());
    while (message()->state < HTTP_MSG_BODY && http_msgParse(message()) == 0 && message()->needMoreData == 0) {
    }
    body_ = http_requestBody(request_.get());
    EXPECT_NE(body_, nullptr);
  }
  ~Reading() { close(); }
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;

  HttpMessage* message() { return &request_->message; }
  FILE* body() { return body_; }
  int close() {
    FILE* const body = std::exchange(body_, nullptr);
    return body == nullptr ? 0 : fclose(body);
  }
  // How much each read of the body asks for: what fits into the buffer that stdio has for it.
  void buffer(size_t size) {
    buffer_.resize(size);
    setvbuf(body_, buffer_.data(), _IOFBF, size);
  }

  // One read: "text" and what it ended with, "|end" or the errno, nothing when the block was filled.
  std::string once(size_t block) {
    std::string text(block, 0);
    errno = EAGAIN;  // a stale one must not count
    text.resize(fread(text.data(), 1, block, body_));
    const int error = errno;
    if (text.size() == block) return text;
    if (feof(body_) != 0) return text + "|end";
    return text + "|" + strerrorname_np(error);
  }

  // Everything up to the end or a failure; what is held is released each time more is needed.
  std::string all(size_t block) {
    const SpinGuard guard;
    std::string text;
    for (int call = 0; call < 1000000; ++call) {
      const std::string part = once(block);
      if (part.size() == block && part.find('|') == std::string::npos) {
        text += part;
        continue;
      }
      if (!part.ends_with("|EAGAIN") || !input_.held()) return text + part;
      if (message()->bodyType != HTTP_BODY_MULTIPART) {
        EXPECT_EQ(message()->needMoreData, 1);
      }
      EXPECT_EQ(message()->state, 2);
      text += part.substr(0, part.rfind('|'));
      clearerr(body_);
      clearerr(input_.stream());
      input_.release();
    }
    return text + "|endless";
  }

 private:
  ScriptInput& input_;
  RequestPtr request_;
  FILE* body_ = nullptr;
  std::vector<char> buffer_;
};

// A reply whose head has been sent; the body is open.
class Writing {
 public:
  explicit Writing(const char* header, bool unbuffered = false, bool bodyless = false)
      : reply_(http_replyCreate()), message_(&reply_->message) {
    if (unbuffered) output.unbuffered();
    http_replyVersionSet(reply_.get(), 1, 1);
    http_msgModeSet(message_, HTTP_MSG_WRITING);
    http_msgStreamSet(message_, output.stream());
    message_->bodyless = bodyless;
    EXPECT_EQ(http_replyStatusCodeSet(reply_.get(), 200, nullptr), 0);
    for (std::string_view lines = header; !lines.empty();) {
      const std::string line(lines.substr(0, lines.find('\n')));
      EXPECT_EQ(msg_setHeaderLine(message_, "%s", line.c_str()), 0);
      lines.remove_prefix(std::min(lines.size(), line.size() + 1));
    }
    EXPECT_EQ(http_replySend(reply_.get()), 0);
    output.clear();
    body_ = http_replyBody(reply_.get());
    EXPECT_NE(body_, nullptr);
  }
  ~Writing() {
    output.accept();
    close();
  }
  Writing(const Writing&) = delete;
  Writing& operator=(const Writing&) = delete;

  HttpMessage* message() { return message_; }
  FILE* body() { return body_; }
  // Writes and flushes. 0 or EOF.
  int put(std::string_view text) {
    const bool written = fwrite(text.data(), 1, text.size(), body_) == text.size();
    const bool flushed = fflush(body_) == 0;
    return written && flushed && ferror(body_) == 0 ? 0 : EOF;
  }
  int close() {
    FILE* const body = std::exchange(body_, nullptr);
    return body == nullptr ? 0 : fclose(body);
  }
  // The message has closed it.
  void forget() { body_ = nullptr; }

 private:
  ReplyPtr reply_;
  HttpMessage* message_;
  FILE* body_ = nullptr;

 public:
  ScriptOutput output;
};

// A text with nothing readable behind it.
class GuardedText {
 public:
  explicit GuardedText(const std::string& text) : size_(text.size()) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    readable_ = (size_ + page - 1) / page * page;
    mapping_ = mmap(nullptr, readable_ + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping_ == MAP_FAILED || mprotect(start() + readable_, page, PROT_NONE) != 0) abort();
    std::memcpy(start() + readable_ - size_, text.data(), size_);
    total_ = readable_ + page;
  }
  ~GuardedText() { munmap(mapping_, total_); }
  GuardedText(const GuardedText&) = delete;
  GuardedText& operator=(const GuardedText&) = delete;

  const char* data() const { return start() + readable_ - size_; }
  size_t size() const { return size_; }

 private:
  char* start() const { return static_cast<char*>(mapping_); }

  size_t size_;
  size_t readable_ = 0;
  size_t total_ = 0;
  void* mapping_ = nullptr;
};

// --- which body ------------------------------------------------------------------------------------------------------

constexpr HttpMessageType kRequest = HTTP_MSG_REQUEST;
constexpr HttpMessageType kReply = HTTP_MSG_REPLY;

struct TypeCase {
  const char* name;
  HttpMessageType type;
  int method;
  std::vector<const char*> headers;
  int expected;
};
void PrintTo(const TypeCase& row, std::ostream* out) { *out << row.name; }

class BodyType : public ::testing::TestWithParam<TypeCase> {};

TEST_P(BodyType, FollowsTheHeaders) {
  const TypeCase& row = GetParam();
  const RequestPtr request(http_requestCreate());
  const ReplyPtr reply(http_replyCreate());
  request->method = row.method;
  HttpMessage* const message = row.type == kRequest ? &request->message : &reply->message;
  for (const char* const header : row.headers) ASSERT_EQ(msg_setHeaderLine(message, "%s", header), 0);
  const TraceCapture quiet;
  EXPECT_EQ(body_type(message), row.expected);
  EXPECT_EQ(http_msgHasBody(message), row.expected != 1);
}

constexpr int kGet = HTTP_METHOD_GET;
constexpr int kPut = HTTP_METHOD_PUT;

INSTANTIATE_TEST_SUITE_P(
    Table, BodyType,
    ::testing::Values(
        TypeCase{"Length", kReply, 0, {"Content-Length: 5"}, 2},
        TypeCase{"LengthZero", kReply, 0, {"Content-Length: 0"}, 1},
        TypeCase{"LengthZeroOfPut", kRequest, kPut, {"Content-Length: 0"}, 1},
        TypeCase{"LengthOfGet", kRequest, kGet, {"Content-Length: 5"}, 2},
        TypeCase{"LengthThatIsNoNumber", kReply, 0, {"Content-Length: abc"}, 1},
        TypeCase{"LengthWithMoreBehind", kReply, 0, {"Content-Length: 5x"}, 2},
        TypeCase{"LengthOf64Bits", kReply, 0, {"Content-Length: 4294967296"}, 2},
        TypeCase{"FirstLengthCounts", kReply, 0, {"Content-Length: 0", "Content-Length: 5"}, 1},
        TypeCase{"LengthBeforeCoding", kReply, 0, {"Transfer-Encoding: chunked", "Content-Length: 5"}, 2},
        TypeCase{"LengthZeroBeforeCoding", kReply, 0, {"Transfer-Encoding: chunked", "Content-Length: 0"}, 1},
        TypeCase{"LengthAndOtherType", kReply, 0, {"Content-Length: 5", "Content-Type: text/html"}, 2},
        TypeCase{"LengthAndBrokenType", kReply, 0, {"Content-Length: 5", "Content-Type: multipart"}, 2},
        TypeCase{
            "Multipart", kRequest, kPut, {"Content-Length: 5", "Content-Type: multipart/form-data; boundary=x"}, 5},
        TypeCase{"MultipartTypeFirst", kReply, 0, {"Content-Type: multipart/mixed", "Content-Length: 5"}, 5},
        TypeCase{"MultipartLengthZero", kReply, 0, {"Content-Length: 0", "Content-Type: multipart/mixed"}, 5},
        TypeCase{"MultipartIsExact", kReply, 0, {"Content-Length: 5", "Content-Type: Multipart/mixed"}, 2},
        TypeCase{"MultipartIsWhole", kReply, 0, {"Content-Length: 5", "Content-Type: multiparty/mixed"}, 2},
        TypeCase{"MultipartWithoutLength", kReply, 0, {"Content-Type: multipart/mixed"}, 3},
        TypeCase{"MultipartWithoutLengthOfGet", kRequest, kGet, {"Content-Type: multipart/mixed"}, 1},
        TypeCase{"MultipartChunked", kReply, 0, {"Content-Type: multipart/mixed", "Transfer-Encoding: chunked"}, 4},
        TypeCase{"Chunked", kReply, 0, {"Transfer-Encoding: chunked"}, 4},
        TypeCase{"ChunkedOfGet", kRequest, kGet, {"Transfer-Encoding: chunked"}, 4},
        TypeCase{"ChunkedInAnyCase", kReply, 0, {"transfer-encoding: ChunKed"}, 4},
        TypeCase{"OtherCoding", kReply, 0, {"Transfer-Encoding: gzip"}, 0},
        TypeCase{"OtherCodingOfGet", kRequest, kGet, {"Transfer-Encoding: gzip"}, 0},
        TypeCase{"TwoCodings", kReply, 0, {"Transfer-Encoding: gzip, chunked"}, 0},
        TypeCase{"NothingInAReply", kReply, 0, {}, 3}, TypeCase{"NothingInGet", kRequest, kGet, {}, 1},
        TypeCase{"NothingInHead", kRequest, HTTP_METHOD_HEAD, {}, 1},
        TypeCase{"NothingInDelete", kRequest, HTTP_METHOD_DELETE, {}, 1},
        TypeCase{"NothingInOptions", kRequest, HTTP_METHOD_OPTIONS, {}, 1},
        TypeCase{"NothingInPost", kRequest, HTTP_METHOD_POST, {}, 3}, TypeCase{"NothingInPut", kRequest, kPut, {}, 3},
        TypeCase{"NothingInConnect", kRequest, HTTP_METHOD_CONNECT, {}, 3},
        TypeCase{"NothingInTrace", kRequest, HTTP_METHOD_TRACE, {}, 3},
        TypeCase{"NothingWithoutMethod", kRequest, 0, {}, 3}),
    [](const auto& row) { return row.param.name; });

TEST(BodyTypes, HaveTheirNumbers) {
  EXPECT_EQ(HTTP_BODY_UNKNOWN, 0);
  EXPECT_EQ(HTTP_BODY_NONE, 1);
  EXPECT_EQ(HTTP_BODY_CONTENT_LENGTH, 2);
  EXPECT_EQ(HTTP_BODY_UNTIL_CLOSE, 3);
  EXPECT_EQ(HTTP_BODY_CHUNKED, 4);
  EXPECT_EQ(HTTP_BODY_MULTIPART, 5);
}

TEST(BodyMinMax, AreUnsigned) {
  EXPECT_EQ(min(1, 2), 1u);
  EXPECT_EQ(min(2, 1), 1u);
  EXPECT_EQ(max(1, 2), 2u);
  EXPECT_EQ(max(2, 1), 2u);
  EXPECT_EQ(min(0xffffffffu, 1), 1u);
  EXPECT_EQ(max(0xffffffffu, 1), 0xffffffffu);
}

// --- opening ---------------------------------------------------------------------------------------------------------

struct OpenCase {
  const char* name;
  std::vector<const char*> headers;
  bool opens;
  int error;
  TraceLines said;
};
void PrintTo(const OpenCase& row, std::ostream* out) { *out << row.name; }

class BodyOpen : public ::testing::TestWithParam<OpenCase> {};

TEST_P(BodyOpen, ByType) {
  const OpenCase& row = GetParam();
  for (const char* const mode : {"r", "w"}) {
    SCOPED_TRACE(mode);
    MemoryOutput output;
    const ReplyPtr reply(http_replyCreate());
    for (const char* const header : row.headers) ASSERT_EQ(msg_setHeaderLine(&reply->message, "%s", header), 0);
    TraceCapture trace{{"http-body"}, KROTRACE_NOTICE};
    errno = 0;
    FILE* const body = body_fopen(&reply->message, output.stream(), mode);
    const int error = errno;
    EXPECT_EQ(body != nullptr, row.opens);
    TraceLines said = trace.said();
    std::erase_if(said, [](const std::string& line) { return line.starts_with("http-he"); });
    EXPECT_EQ(said, row.said);
    if (body != nullptr) {
      EXPECT_EQ(reply->message.state, 2);
      EXPECT_EQ(fclose(body), 0);
      EXPECT_EQ(reply->message.state, 3);
    } else {
      EXPECT_EQ(error, row.error);
      EXPECT_EQ(reply->message.state, 0);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, BodyOpen,
    ::testing::Values(
        OpenCase{"Unknown", {"Transfer-Encoding: gzip"}, false, ENOSYS, {"http-bo[x]unknown transfer encoding"}},
        OpenCase{"None", {"Content-Length: 0"}, false, ENODATA, {"http-bo[n]message does not have a body"}},
        OpenCase{"Length", {"Content-Length: 5"}, true, 0, {"http-bo[n]opening body with content length 5"}},
        OpenCase{"LongLength",
                 {"Content-Length: 18446744073709551615"},
                 true,
                 0,
                 {"http-bo[n]opening body with content length 18446744073709551615"}},
        OpenCase{"UntilClose", {}, true, 0, {"http-bo[n]opening body that ends when the connection is closed"}},
        OpenCase{"Chunked", {"Transfer-Encoding: chunked"}, true, 0, {"http-bo[n]opening chunked encoded body"}},
        OpenCase{"Multipart",
                 {"Content-Length: 0", "Content-Type: multipart/mixed"},
                 true,
                 0,
                 {"http-bo[n]opening multipart body with content length 0"}}),
    [](const auto& row) { return row.param.name; });

TEST(BodyOpening, IsRefusedWhenTheMessageIsDoneOrFailed) {
  const char* const kHeaders[] = {"Content-Length: 5", "X: y", "Transfer-Encoding: chunked"};
  for (const char* const header : kHeaders) {
    for (const int state : {3, 4, 5}) {
      SCOPED_TRACE(header + std::to_string(state));
      MemoryOutput output;
      const ReplyPtr reply(http_replyCreate());
      ASSERT_EQ(msg_setHeaderLine(&reply->message, "%s", header), 0);
      reply->message.state = state;
      TraceCapture trace;
      errno = 0;
      EXPECT_EQ(body_fopen(&reply->message, output.stream(), "w"), nullptr);
      EXPECT_NE(errno, 0);
      EXPECT_NE(errno, ENODATA) << "that would mean that there is nothing to write";
      EXPECT_EQ(trace.said(), TraceLines({"http-bo[x]body has already been opened for this message"}));
      EXPECT_EQ(reply->message.state, state);
      EXPECT_EQ(output.text(), "");
    }
  }
}

TEST(BodyOpening, OfMultipartIsRefusedWhenTheMessageIsDone) {
  MemoryOutput output;
  const ReplyPtr reply(http_replyCreate());
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "Content-Length: 5"), 0);
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "Content-Type: multipart/mixed"), 0);
  reply->message.state = 3;
  TraceCapture trace;
  EXPECT_EQ(body_fopen(&reply->message, output.stream(), "r"), nullptr);
  EXPECT_EQ(trace.said(), TraceLines({"http-bo[x]body has already been opened for this message"}));
}

// --- reading ---------------------------------------------------------------------------------------------------------

// A body on the wire, in turns of framing and data.
struct ReadCase {
  const char* name;
  std::string head;
  std::vector<std::string> pieces;
  std::string behind = {};
  size_t firstCut = 0;

  std::string wire() const {
    std::string wire;
    for (const std::string& piece : pieces) wire += piece;
    return wire;
  }
  // The data among the first octets of the wire.
  std::string text(size_t octets = static_cast<size_t>(-1)) const {
    std::string text;
    bool data = false;
    for (const std::string& piece : pieces) {
      const size_t count = std::min(octets, piece.size());
      if (data) text += piece.substr(0, count);
      octets -= count;
      data = !data;
    }
    return text;
  }
  bool chunked() const { return head == kChunked; }
};
void PrintTo(const ReadCase& row, std::ostream* out) { *out << row.name; }

class BodyRead : public ::testing::TestWithParam<ReadCase> {
  const TraceCapture quiet_;
};

void expectComplete(Reading& reading) {
  EXPECT_EQ(reading.message()->state, 3);
  EXPECT_EQ(reading.message()->needMoreData, 0);
  EXPECT_EQ(reading.close(), 0);
  EXPECT_EQ(reading.message()->state, 3);
  EXPECT_EQ(reading.message()->body, nullptr);
  EXPECT_EQ(reading.message()->bodyCut, 0);
}

constexpr size_t kBlocks[] = {1, 3, 10, 4096, 20000};
constexpr size_t kBuffers[] = {0, 1, 3, 10, 70000};  // 0 is stdio's own

TEST_P(BodyRead, AtOnceInBlocksOfAnySize) {
  const ReadCase& row = GetParam();
  for (const size_t block : kBlocks) {
    for (const size_t buffer : kBuffers) {
      SCOPED_TRACE(std::to_string(block) + " buffer " + std::to_string(buffer));
      ScriptInput input(row.head + row.wire() + row.behind);
      Reading reading(input);
      if (buffer != 0) reading.buffer(buffer);
      EXPECT_EQ(reading.all(block), row.text() + "|end");
      expectComplete(reading);
      EXPECT_EQ(input.rest(), row.behind) << "nothing behind the body is read";
    }
  }
}

TEST_P(BodyRead, WhereverItIsCut) {
  const ReadCase& row = GetParam();
  const std::string wire = row.wire();
  const size_t step = wire.size() < 200 ? 1 : 997;
  for (const size_t block : {2u, 4096u}) {
    for (const size_t buffer : kBuffers) {
      for (size_t cut = row.firstCut; cut <= wire.size(); cut += step) {
        SCOPED_TRACE("block " + std::to_string(block) + " buffer " + std::to_string(buffer) + " cut at octet " +
                     std::to_string(cut));
        ScriptInput input(row.head);
        input.bytes(wire.substr(0, cut)).hold().bytes(wire.substr(cut) + row.behind);
        Reading reading(input);
        if (buffer != 0) reading.buffer(buffer);
        EXPECT_EQ(reading.all(block), row.text() + "|end");
        expectComplete(reading);
      }
    }
  }
}

TEST_P(BodyRead, OctetByOctet) {
  const ReadCase& row = GetParam();
  if (row.wire().size() > 1000) return;
  for (const size_t buffer : kBuffers) {
    ScriptInput input(row.head);
    input.trickle(row.wire()).bytes(row.behind);
    Reading reading(input);
    if (buffer != 0) reading.buffer(buffer);
    EXPECT_EQ(reading.all(4096), row.text() + "|end");
    expectComplete(reading);
  }
}

TEST_P(BodyRead, WhereverTheStreamEnds) {
  const ReadCase& row = GetParam();
  const std::string wire = row.wire();
  const size_t step = wire.size() < 200 ? 1 : 997;
  for (const int stale : {0, EAGAIN}) {
    for (const size_t buffer : {0u, 1u, 3u}) {
      for (size_t cut = 0; cut < wire.size(); cut += step) {
        SCOPED_TRACE("end at octet " + std::to_string(cut));
        ScriptInput input(row.head + wire.substr(0, cut));
        input.staleErrno(stale);
        Reading reading(input);
        if (buffer != 0) reading.buffer(buffer);
        EXPECT_EQ(reading.all(4096), row.text(cut) + (row.chunked() ? "|EBADMSG" : "|end"));
        EXPECT_EQ(reading.message()->needMoreData, 0);
        EXPECT_EQ(reading.message()->state, row.chunked() ? 5 : 3);
        EXPECT_EQ(reading.close(), 0);
        EXPECT_EQ(reading.message()->state, 3);
        EXPECT_EQ(reading.message()->body, nullptr);
      }
    }
  }
}

TEST_P(BodyRead, WhereverTheStreamFails) {
  const ReadCase& row = GetParam();
  const std::string wire = row.wire();
  const size_t step = wire.size() < 200 ? 1 : 997;
  for (size_t cut = row.firstCut; cut < wire.size(); cut += step) {
    SCOPED_TRACE("error at octet " + std::to_string(cut));
    ScriptInput input(row.head);
    input.bytes(wire.substr(0, cut)).hold(ECONNRESET);
    Reading reading(input);
    TraceCapture trace;
    EXPECT_EQ(reading.all(4096), row.text(cut) + (row.chunked() ? "|EBADMSG" : "|ECONNRESET"));
    EXPECT_EQ(reading.message()->needMoreData, 0);
    EXPECT_EQ(reading.message()->state, 5);
    EXPECT_EQ(trace.errors(), TraceLines({"http-me[x]unable to parse message (socket -1): Connection reset by peer"}));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, BodyRead,
    ::testing::Values(
        ReadCase{"Length", withLength(10), {"", "0123456789"}, "GET"},
        ReadCase{"LengthOne", withLength(1), {"", "0"}, "GET"},
        ReadCase{"Long", withLength(30000), {"", pattern(30000)}, "GET"},
        // Not before the first octet: see NothingYetIsTheEnd.
        ReadCase{"UntilClose", kUntilClose, {"", "0123456789"}, "", 1},
        ReadCase{"UntilCloseLong", kUntilClose, {"", pattern(30000)}, "", 1},
        ReadCase{"Chunk", kChunked, {"5\r\n", "hello", "\r\n0\r\n\r\n"}, "GET"},
        ReadCase{
            "Chunks", kChunked, {"5\r\n", "hello", "\r\n1\r\n", " ", "\r\n00a\r\n", "0123456789", "\r\n0\r\n\r\n"}},
        ReadCase{"UpperAndLowerCase", kChunked, {"A\r\n", pattern(10), "\r\nb\r\n", pattern(11), "\r\n0\r\n\r\n"}, "G"},
        ReadCase{"DataThatLooksLikeFraming", kChunked, {"7\r\n", "\r\n0\r\n\r\n", "\r\n0\r\n\r\n"}, "\r\n"},
        ReadCase{"Nothing", kChunked, {"0\r\n\r\n"}, "GET"},
        ReadCase{"EmptySizeIsTheLastChunk", kChunked, {"\r\n\r\n"}, "GET"},
        ReadCase{"EmptySizeBehindAChunk", kChunked, {"3\r\n", "abc", "\r\n\r\n\r\n"}, "GET"},
        ReadCase{"ManyZeros", kChunked, {"0003\r\n", "abc", "\r\n000000\r\n\r\n"}, "GET"},
        ReadCase{"LineFeedInTheSize", kChunked, {"3\n\r\n", "abc", "\r\n0\r\n\r\n"}, "GET"},
        ReadCase{"CarriageReturnInTheSize", kChunked, {"3\r\r\n", "abc", "\r\n0\r\n\r\n"}, "GET"},
        ReadCase{"SizeOf254Digits", kChunked, {std::string(253, '0') + "3\r\n", "abc", "\r\n0\r\n\r\n"}, "GET"},
        ReadCase{"LongChunks",
                 kChunked,
                 {"2710\r\n", pattern(10000), "\r\n4E20\r\n", pattern(20000), "\r\n0\r\n\r\n"},
                 "GET"}),
    [](const auto& row) { return row.param.name; });

// The length has 32 bits in the stream, whatever the header said.
TEST(BodyReadLength, IsTheLow32Bits) {
  ScriptInput input(kPost + "Content-Length: 4294967301\r\n\r\n0123456789");
  Reading reading(input);
  EXPECT_EQ(reading.all(4096), "01234|end");
  EXPECT_EQ(reading.message()->state, 3);
  EXPECT_EQ(reading.message()->bodyCut, 1) << "whoever passes the body on must not take it for all that was announced";
  EXPECT_EQ(input.rest(), "56789");

  ScriptInput multiple(kPost + "Content-Length: 4294967296\r\n\r\n0123456789");
  Reading untilClose(multiple);
  EXPECT_EQ(untilClose.all(4096), "0123456789|end");
}

TEST(BodyReadLength, EndsCutWhenTheConnectionEndsEarly) {
  for (const char* arrived : {"", "0", "012345678"}) {
    const TraceCapture quiet;
    ScriptInput input(withLength(10) + arrived);
    Reading reading(input);
    EXPECT_EQ(reading.all(4096), std::string(arrived) + "|end");
    EXPECT_EQ(reading.message()->state, 3);
    EXPECT_EQ(reading.message()->bodyCut, 1) << arrived;
  }
}

TEST(BodyReadLength, IsReturnedInOneReadAndThenTheEnd) {
  ScriptInput input(withLength(10) + "0123456789GET");
  Reading reading(input);
  reading.buffer(4096);
  TraceCapture trace{"http-body"};
  char text[4096];
  EXPECT_EQ(fread(text, 1, 10, reading.body()), 10u);
  EXPECT_EQ(reading.message()->state, 3);
  TraceLines said = trace.said();
  ASSERT_EQ(said.size(), 2u);
  EXPECT_TRUE(said[0].starts_with("http-bo[i]read 10/4096 \"0123456789\" (")) << said[0];
  EXPECT_TRUE(said[0].ends_with("), toread: 10")) << said[0];
  EXPECT_TRUE(said[1].starts_with("http-bo[i]end of body reached (read 10: ")) << said[1];
  trace.clear();
  for (int call = 0; call < 2; ++call) {
    clearerr(reading.body());
    errno = EAGAIN;
    EXPECT_EQ(fread(text, 1, sizeof text, reading.body()), 0u);
    EXPECT_NE(feof(reading.body()), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(trace.said(), TraceLines({"http-bo[i]we are already at end of body"}));
    trace.clear();
  }
  EXPECT_EQ(reading.message()->state, 3);
  EXPECT_EQ(input.rest(), "GET");
}

TEST(BodyReadLength, AsksForNoMoreThanIsLeft) {
  ScriptInput input;
  input.unbuffered().bytes(withLength(10) + "0123456789GET");
  Reading reading(input);
  reading.buffer(7);
  TraceCapture trace{"http-body"};
  EXPECT_EQ(reading.once(7), "0123456");
  EXPECT_EQ(reading.message()->state, 2);
  EXPECT_EQ(reading.once(7), "789|end");
  EXPECT_EQ(trace.countStarting("http-bo[i]read 7/7 \"0123456\" ("), 1u);
  EXPECT_EQ(trace.countStarting("http-bo[i]read 3/7 \"789\" ("), 1u);
}

TEST(BodyReadShort, GivesWhatIsThereAndAsksForMore) {
  ScriptInput input;
  input.bytes(withLength(10) + "0123").hold().bytes("456789").hold();
  Reading reading(input);
  reading.buffer(3);
  TraceCapture trace{"http-message"};
  EXPECT_EQ(reading.once(4096), "0123|EAGAIN");
  EXPECT_EQ(reading.message()->needMoreData, 1);
  EXPECT_EQ(reading.message()->state, 2);
  EXPECT_TRUE(trace.has("http-me[i]message is not complete and we need more data"));

  clearerr(reading.body());
  EXPECT_EQ(reading.once(4096), "|EAGAIN");
  EXPECT_EQ(reading.message()->needMoreData, 1);

  clearerr(reading.body());
  input.release();
  EXPECT_EQ(reading.once(3), "456");
  EXPECT_EQ(reading.message()->needMoreData, 0);
  EXPECT_EQ(reading.once(4096), "789|end");
}

TEST(BodyReadUntilClose, EndsWithTheStream) {
  ScriptInput input(kUntilClose + "0123");
  input.hold();
  Reading reading(input);
  EXPECT_EQ(reading.once(4096), "0123|EAGAIN");
  EXPECT_EQ(reading.message()->needMoreData, 1);
  EXPECT_EQ(reading.message()->state, 2);
  clearerr(reading.body());
  clearerr(input.stream());
  input.release();
  EXPECT_EQ(reading.once(4096), "|end");
  EXPECT_EQ(reading.message()->state, 3);
}

TEST(BodyReadUntilClose, IsDoneWithTheReadThatMeetsTheEnd) {
  ScriptInput input(kUntilClose + "0123456789");
  Reading reading(input);
  EXPECT_EQ(reading.once(4), "0123");
  EXPECT_EQ(reading.message()->state, 3);
  EXPECT_EQ(reading.once(4096), "456789|end");
}

// Without a length, no octet counts as all of them: the first read must find something.
TEST(BodyReadUntilClose, NothingYetIsTheEnd) {
  ScriptInput input(kUntilClose);
  input.hold().bytes("0123");
  Reading reading(input);
  EXPECT_EQ(reading.once(4096), "|end");
  EXPECT_EQ(reading.message()->needMoreData, 0);
  EXPECT_EQ(reading.message()->state, 3);
}

TEST(BodyReadUntilClose, OfNothing) {
  ScriptInput input(kUntilClose);
  Reading reading(input);
  EXPECT_EQ(reading.once(4096), "|end");
  expectComplete(reading);
}

TEST(BodyReadChunked, IsOneReadWithALargeBuffer) {
  ScriptInput input(kChunked + "5\r\nhello\r\n0\r\n\r\n");
  Reading reading(input);
  reading.buffer(4096);
  TraceCapture trace{"http-body"};
  EXPECT_EQ(reading.once(4096), "hello|end");
  EXPECT_EQ(reading.message()->state, 3);
  EXPECT_EQ(trace.said(), TraceLines({"http-bo[i]trying to read 4096 bytes",
                                      "http-bo[i]handling state init",
                                      "http-bo[i]handling state chunk size",
                                      "http-bo[i]reading chunk size",
                                      "http-bo[i]chunk size is 5",
                                      "http-bo[i]handling state chunk",
                                      "http-bo[i]reading 5 bytes from chunk",
                                      "http-bo[i]handling state eol",
                                      "http-bo[i]handling state chunk size",
                                      "http-bo[i]reading chunk size",
                                      "http-bo[i]chunk size is 0",
                                      "http-bo[i]handling state chunk",
                                      "http-bo[i]reading 0 bytes from chunk",
                                      "http-bo[i]handling state eol",
                                      "http-bo[i]EOF reached",
                                      "http-bo[i]handling state done",
                                      "http-bo[i]read 5 bytes",
                                      "http-bo[i]trying to read 4096 bytes",
                                      "http-bo[i]handling state done",
                                      "http-bo[i]read 0 bytes"}));
}

TEST(BodyReadChunked, StopsWhenTheBufferIsFull) {
  ScriptInput input(kChunked + "5\r\nhello\r\n0\r\n\r\nGET");
  Reading reading(input);
  reading.buffer(5);
  EXPECT_EQ(reading.once(5), "hello");
  EXPECT_EQ(reading.message()->state, 2);
  EXPECT_EQ(reading.once(5), "|end");
  EXPECT_EQ(reading.message()->state, 3);
  EXPECT_EQ(input.rest(), "GET");
}

struct BadChunkCase {
  const char* name;
  std::string wire;
  std::string text;
  TraceLines errors;
  TraceLines last = {};  // an informational line that tells
};
void PrintTo(const BadChunkCase& row, std::ostream* out) { *out << row.name; }

class BodyReadBadChunk : public ::testing::TestWithParam<BadChunkCase> {};

TEST_P(BodyReadBadChunk, EndsTheBody) {
  const BadChunkCase& row = GetParam();
  for (size_t cut = 0; cut <= row.wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    ScriptInput input(kChunked);
    input.bytes(row.wire.substr(0, cut)).hold().bytes(row.wire.substr(cut)).hold();
    Reading reading(input);
    TraceCapture trace{"http-body"};
    EXPECT_EQ(reading.all(4096), row.text + "|EBADMSG");
    EXPECT_EQ(trace.errors(), row.errors);
    for (const std::string& line : row.last) EXPECT_EQ(trace.count(line), 1u) << line;
    EXPECT_EQ(reading.message()->needMoreData, 0);

    trace.clear();
    for (int call = 0; call < 3; ++call) {
      clearerr(reading.body());
      EXPECT_EQ(reading.once(4096), "|EBADMSG") << "it stays broken";
    }
    EXPECT_EQ(trace.count("http-bo[i]handling state error"), 3u);
    EXPECT_EQ(reading.close(), 0);
    EXPECT_EQ(reading.message()->state, 3);
    EXPECT_EQ(reading.message()->bodyCut, 1);
  }
}

const TraceLines kInvalidFormat{"http-bo[x]unable to read chunk, invalid format"};
TraceLines invalidChar(char character, const std::string& line) {
  return {"http-bo[x]unable to parse chunk size (invalid char "s + character + " in " + line + ")"};
}

INSTANTIATE_TEST_SUITE_P(
    Table, BodyReadBadChunk,
    ::testing::Values(BadChunkCase{"Extension", "5;x=1\r\nhello\r\n", "", invalidChar(';', "5")},
                      BadChunkCase{"ExtensionBehindAChunk", "3\r\nabc\r\n10;\r\n", "abc", invalidChar(';', "10")},
                      BadChunkCase{"Blank", "5 \r\nhello\r\n", "", invalidChar(' ', "5")},
                      BadChunkCase{"BlankInFront", " 5\r\nhello\r\n", "", invalidChar(' ', "")},
                      BadChunkCase{"Sign", "-5\r\nhello\r\n", "", invalidChar('-', "")},
                      BadChunkCase{"Prefix", "0x5\r\nhello\r\n", "", invalidChar('x', "0")},
                      BadChunkCase{"NoDigit", "g\r\n", "", invalidChar('g', "")},
                      BadChunkCase{"BareLineFeed", "5\nhello\r\n", "", invalidChar('h', "5\\n")},
                      BadChunkCase{"NoLineEnd", "5hello\r\n", "", invalidChar('h', "5")},
                      BadChunkCase{"SizeOf255Digits",
                                   std::string(254, '0') + "3\r\nabc\r\n",
                                   "",
                                   {},
                                   {"http-bo[i]unable to parse chunk size"}},
                      BadChunkCase{"SizeOf256Digits",
                                   std::string(255, '0') + "3\r\nabc\r\n",
                                   "",
                                   {},
                                   {"http-bo[i]unable to parse chunk size"}},
                      BadChunkCase{"SizeOf300Digits",
                                   std::string(299, '0') + "3\r\nabc\r\n",
                                   "",
                                   {},
                                   {"http-bo[i]unable to parse chunk size"}},
                      BadChunkCase{"NoLineEndBehindTheData", "5\r\nhello5\r\n", "hello", kInvalidFormat},
                      BadChunkCase{"BareLineFeedBehindTheData", "5\r\nhello\n", "hello", kInvalidFormat},
                      BadChunkCase{"BareCarriageReturnBehindTheData", "5\r\nhello\rx", "hello", kInvalidFormat},
                      BadChunkCase{"TwoCarriageReturnsBehindTheData", "5\r\nhello\r\r\n", "hello", kInvalidFormat},
                      BadChunkCase{"Trailer", "5\r\nhello\r\n0\r\nA: b\r\n\r\n", "hello", kInvalidFormat},
                      BadChunkCase{"NothingBehindTheLastChunk", "0\r\nGET", "", kInvalidFormat}),
    [](const auto& row) { return row.param.name; });

// A message may be failed by something else while its body waits; then there is nothing to wait for.
TEST(BodyReadChunked, DoesNotSpinWhenTheMessageHasFailed) {
  for (const std::string arrived : {"", "5", "5\r\n", "5\r\nhel", "5\r\nhello", "5\r\nhello\r"}) {
    for (const int state : {3, 5}) {
      SCOPED_TRACE(arrived + std::to_string(state));
      const SpinGuard guard(20);
      ScriptInput input(kChunked);
      input.bytes(arrived).hold();
      Reading reading(input);
      const TraceCapture quiet;
      reading.message()->state = state;
      EXPECT_TRUE(reading.once(4096).find('|') != std::string::npos);
      EXPECT_EQ(reading.message()->needMoreData, 0);
    }
  }
}

TEST(BodyReadSeek, IsRefusedUnlessMultipart) {
  for (const std::string& head : {withLength(5), kUntilClose, kChunked}) {
    SCOPED_TRACE(head);
    ScriptInput input(head + "5\r\nhello\r\n");
    Reading reading(input);
    EXPECT_EQ(reading.once(1).size(), 1u);
    for (const int whence : {SEEK_SET, SEEK_CUR, SEEK_END}) EXPECT_EQ(fseek(reading.body(), 0, whence), -1);
  }
}

// --- multipart -------------------------------------------------------------------------------------------------------

TEST(BodyReadMultipart, AtOnceInBlocksOfAnySize) {
  for (const size_t length : {1u, 100u, 65535u, 65536u, 65537u, 150000u}) {
    for (const size_t block : {7u, 1000u, 8192u, 70000u, 200000u}) {
      for (const size_t buffer : {0u, 100u, 70000u, 200000u}) {
        SCOPED_TRACE(std::to_string(length) + " in blocks of " + std::to_string(block) + " buffer " +
                     std::to_string(buffer));
        const std::string text = pattern(length);
        ScriptInput input(multipart(length) + text);
        Reading reading(input);
        if (buffer != 0) reading.buffer(buffer);
        EXPECT_EQ(reading.all(block), text + "|end");
        expectComplete(reading);
      }
    }
  }
}

TEST(BodyReadMultipart, StopsAtItsLength) {
  for (const size_t length : {10u, 65530u, 65536u, 70000u}) {
    SCOPED_TRACE(length);
    ScriptInput input(multipart(length) + pattern(length) + "GET / HTTP/1.1\r\n\r\n");
    Reading reading(input);
    EXPECT_EQ(reading.all(1000), pattern(length) + "|end");
    expectComplete(reading);
    EXPECT_EQ(input.rest(), "GET / HTTP/1.1\r\n\r\n");
  }
}

TEST(BodyReadMultipart, WhereverItIsCut) {
  const std::string text = pattern(60);
  for (const size_t cut : {0u, 1u, 7u, 30u, 59u, 60u}) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    ScriptInput input(multipart(text.size()));
    input.bytes(text.substr(0, cut)).hold().bytes(text.substr(cut));
    Reading reading(input);
    const TraceCapture quiet;
    EXPECT_EQ(reading.all(4096), text + "|end");
    expectComplete(reading);
  }
}

// Data that follows within the time of the retries is read in the same call.
TEST(BodyReadMultipart, WaitsALittleForTheRestOfABlock) {
  const std::string text = pattern(50000);
  ScriptInput input(multipart(text.size()));
  for (size_t at = 0; at < text.size(); at += 10000) input.bytes(text.substr(at, 10000)).error(EAGAIN);
  Reading reading(input);
  reading.buffer(45000);
  EXPECT_EQ(reading.once(45000), text.substr(0, 45000));
  EXPECT_EQ(reading.once(5000), text.substr(45000));
  expectComplete(reading);
}

TEST(BodyReadMultipart, AsksForMoreAtOnceWhenItNeverWaits) {
  ScriptInput input(multipart(100));
  input.bytes(pattern(50)).hold();
  Reading reading(input);
  reading.message()->neverWaits = 1;
  reading.buffer(100);
  char block[100];
  const TraceCapture trace;
  const int before = input.reads();
  EXPECT_EQ(fread(block, 1, sizeof block, reading.body()), 50u);
  EXPECT_EQ(input.reads() - before, 2 + 1 + 1) << "the data and its end, one attempt, and stdio that asks again";
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(trace.errors(), TraceLines{});
  EXPECT_EQ(reading.message()->needMoreData, 1);
}

TEST(BodyReadMultipart, AsksForMoreWhenItHasWaitedLongEnough) {
  const std::string text = pattern(50);
  ScriptInput input(multipart(100));
  input.bytes(text).hold();
  Reading reading(input);
  reading.buffer(100);
  char block[100];
  TraceCapture trace{"http-message"};
  const int before = input.reads();
  EXPECT_EQ(fread(block, 1, sizeof block, reading.body()), 50u);
  EXPECT_EQ(input.reads() - before, 2 + 10 + 1) << "the data and its end, ten attempts, and stdio that asks again";
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(std::string(block, 50), text);
  EXPECT_TRUE(trace.has("http-me[i]message is not complete and we need more data"));
  EXPECT_EQ(trace.count("http-bo[x]Read length is zero."), 1u);
  EXPECT_EQ(reading.message()->state, 2);
}

TEST(BodyReadMultipart, WhereverTheStreamEnds) {
  const std::string text = pattern(60);
  for (const int stale : {0, EAGAIN}) {
    for (const size_t cut : {0u, 1u, 30u, 59u}) {
      SCOPED_TRACE("end at octet " + std::to_string(cut) + " errno " + std::to_string(stale));
      ScriptInput input(multipart(text.size()) + text.substr(0, cut));
      input.staleErrno(stale);
      Reading reading(input);
      TraceCapture trace;
      std::string block(4096, 0);
      errno = EAGAIN;
      EXPECT_EQ(fread(block.data(), 1, block.size(), reading.body()), cut);
      EXPECT_EQ(block.substr(0, cut), text.substr(0, cut));
      EXPECT_NE(ferror(reading.body()), 0);
      EXPECT_NE(errno, EAGAIN) << "nothing more will come";
      EXPECT_EQ(reading.message()->needMoreData, 0);
      EXPECT_EQ(trace.errors(), TraceLines({"http-bo[x]Read length is zero."}));
      EXPECT_EQ(reading.message()->state, 5);
      EXPECT_EQ(reading.close(), 0);
      EXPECT_EQ(reading.message()->state, 3);
    }
  }
}

// Reading ahead has run dry, but the read has got all that it wanted.
TEST(BodyReadMultipart, LeavesNoErrorBehindAFullRead) {
  ScriptInput input(multipart(20000));
  input.bytes(pattern(9000)).hold();
  Reading reading(input);
  reading.buffer(8192);
  char block[8192];
  EXPECT_EQ(fread(block, 1, sizeof block, reading.body()), sizeof block);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(reading.message()->needMoreData, 0);
}

TEST(BodyReadMultipart, OfLengthZeroEndsWithTheConnection) {
  ScriptInput input(multipart(0) + "abc");
  input.hold().bytes("def").hold();
  Reading reading(input);
  EXPECT_EQ(reading.once(10), "abc|EAGAIN");
  EXPECT_EQ(reading.message()->state, 2);
  input.release();
  clearerr(reading.body());
  EXPECT_EQ(reading.once(10), "def|EAGAIN");
}

TEST(BodyReadMultipart, OfLengthZeroIsEmptyWhenStrict) {
  ScriptInput input(multipart(0) + "abc");
  Reading reading(input);
  reading.message()->strict = 1;
  EXPECT_EQ(reading.close(), 0);
  reading.message()->state = 2;
  FILE* const body = body_fopen(reading.message(), input.stream(), "r");
  ASSERT_NE(body, nullptr);
  EXPECT_EQ(fgetc(body), EOF);
  EXPECT_NE(feof(body), 0);
  EXPECT_EQ(reading.message()->state, 3);
  EXPECT_EQ(fclose(body), 0);
  EXPECT_EQ(input.rest(), "abc");
}

TEST(BodyReadMultipart, WhenDoneIsAtItsEnd) {
  ScriptInput input(multipart(10) + "0123456789");
  Reading reading(input);
  reading.buffer(4096);
  TraceCapture trace{"http-body"};
  EXPECT_EQ(reading.once(10), "0123456789");
  EXPECT_EQ(reading.message()->state, 3);
  EXPECT_EQ(trace.countStarting("http-bo[i]read 10/4096 \"0123456789\" ("), 1u);
  EXPECT_EQ(trace.countStarting("http-bo[i]end of body reached (read 10: "), 1u);
  trace.clear();
  EXPECT_EQ(reading.once(10), "|end");
  EXPECT_EQ(trace.said(), TraceLines({"http-bo[i]we are already at end of body"}));
}

struct SeekCase {
  const char* name;
  size_t read;
  long offset;
  size_t from;
  bool countsRight = true;
};
void PrintTo(const SeekCase& row, std::ostream* out) { *out << row.name; }

class BodySeek : public ::testing::TestWithParam<SeekCase> {};

TEST_P(BodySeek, MovesInsideWhatWasReadAhead) {
  const SeekCase& row = GetParam();
  const std::string text = pattern(1000);
  for (const size_t buffer : {1u, 10u, 70000u}) {
    SCOPED_TRACE(buffer);
    ScriptInput input(multipart(text.size()) + text);
    Reading reading(input);
    reading.buffer(buffer);
    ASSERT_EQ(reading.once(row.read), text.substr(0, row.read));
    EXPECT_EQ(fseek(reading.body(), row.offset, SEEK_CUR), 0);
    const size_t left = std::min(text.size() - row.from, size_t{20});
    if (left > 0) {
      EXPECT_EQ(reading.once(left), text.substr(row.from, left));
    }
    const TraceCapture quiet;
    const std::string rest = reading.once(4096);
    EXPECT_EQ(rest.substr(0, rest.rfind('|')), text.substr(row.from + left));
    // A seek that was cut short counts in full all the same; a body that was read to its end before knows its end.
    const bool knowsItsEnd = row.countsRight || buffer > text.size();
    EXPECT_EQ(rest.ends_with("|end"), knowsItsEnd) << rest;
    if (knowsItsEnd) {
      EXPECT_EQ(reading.message()->state, 3);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Table, BodySeek,
                         ::testing::Values(SeekCase{"Back", 100, -20, 80}, SeekCase{"BackToTheStart", 100, -100, 0},
                                           SeekCase{"BackBeforeTheStart", 100, -200, 0, false},
                                           SeekCase{"Nowhere", 100, 0, 100}, SeekCase{"Forward", 100, 10, 110},
                                           SeekCase{"ForwardToTheEnd", 100, 900, 1000, false},
                                           SeekCase{"ForwardBehindTheEnd", 100, 5000, 1000, false},
                                           SeekCase{"BackFromTheEnd", 1000, -1, 999}),
                         [](const auto& row) { return row.param.name; });

TEST(BodySeeking, GivesBackWhatWasReadTooFarAgainAndAgain) {
  const std::string text = pattern(40000);
  ScriptInput input(multipart(text.size()) + text);
  Reading reading(input);
  std::string found;
  for (size_t step = 0; step < 399; ++step) {
    const std::string part = reading.once(120);
    ASSERT_EQ(part, text.substr(step * 100, 120));
    ASSERT_EQ(fseek(reading.body(), -20, SEEK_CUR), 0);
  }
  EXPECT_EQ(reading.all(4096), text.substr(39900) + "|end");
  expectComplete(reading);
}

// The 64 KiB in memory are all there is to go back to.
TEST(BodySeeking, StopsWhereTheReadAheadBegins) {
  const std::string text = pattern(100000);
  ScriptInput input(multipart(text.size()) + text);
  Reading reading(input);
  reading.buffer(2);
  ASSERT_EQ(reading.once(65536), text.substr(0, 65536));
  ASSERT_EQ(reading.once(100), text.substr(65536, 100));
  ASSERT_EQ(fseek(reading.body(), -50, SEEK_CUR), 0);
  ASSERT_EQ(reading.once(100), text.substr(65586, 100));
  ASSERT_EQ(fseek(reading.body(), -10000, SEEK_CUR), 0);
  EXPECT_EQ(reading.once(100), text.substr(65536, 100));
}

TEST(BodySeeking, StopsHoweverFarItIsToGo) {
  for (const off_t offset : {std::numeric_limits<off_t>::max(), std::numeric_limits<off_t>::min()}) {
    SCOPED_TRACE(offset);
    ScriptInput input(multipart(1000) + pattern(1000));
    Reading reading(input);
    setvbuf(reading.body(), nullptr, _IONBF, 0);
    ASSERT_EQ(reading.once(100), pattern(1000).substr(0, 100));
    EXPECT_EQ(fseeko(reading.body(), offset, SEEK_CUR), 0);
    const TraceCapture quiet;
    const std::string rest = reading.once(4096);
    EXPECT_EQ(rest.substr(0, rest.rfind('|')), offset > 0 ? "" : pattern(1000));
  }
}

TEST(BodySeeking, IsRelativeOnly) {
  ScriptInput input(multipart(1000) + pattern(1000));
  Reading reading(input);
  EXPECT_EQ(reading.once(100), pattern(1000).substr(0, 100));
  for (const int whence : {SEEK_SET, SEEK_END}) {
    TraceCapture trace;
    EXPECT_EQ(fseek(reading.body(), 0, whence), -1);
    EXPECT_EQ(trace.said(), TraceLines({"http-bo[x]seek mode not supported"}));
  }
  EXPECT_EQ(reading.all(4096), pattern(1000).substr(100) + "|end");
}

TEST(BodySeeking, NeedsSomethingThatWasReadAhead) {
  ScriptInput input(multipart(1000) + pattern(1000));
  Reading reading(input);
  EXPECT_EQ(fseek(reading.body(), -1, SEEK_CUR), -1);
  EXPECT_EQ(fseek(reading.body(), 1, SEEK_CUR), -1);
  EXPECT_EQ(reading.all(4096), pattern(1000) + "|end");
}

// --- closing an incoming body ----------------------------------------------------------------------------------------

struct CutCase {
  const char* name;
  std::string wire;
  std::vector<size_t> reads;
  bool cut;
};
void PrintTo(const CutCase& row, std::ostream* out) { *out << row.name; }

class BodyClose : public ::testing::TestWithParam<CutCase> {};

TEST_P(BodyClose, BeforeTheEndIsRemembered) {
  const CutCase& row = GetParam();
  ScriptInput input(row.wire);
  Reading reading(input);
  reading.buffer(1);
  for (const size_t block : row.reads) reading.once(block);
  EXPECT_EQ(reading.close(), 0);
  EXPECT_EQ(reading.message()->bodyCut, row.cut ? 1 : 0);
  EXPECT_EQ(reading.message()->state, 3);
  EXPECT_EQ(reading.message()->body, nullptr);
}

const std::string kHello = kChunked + "5\r\nhello\r\n0\r\n\r\n";

INSTANTIATE_TEST_SUITE_P(Table, BodyClose,
                         ::testing::Values(CutCase{"LengthUnread", withLength(5) + "hello", {}, true},
                                           CutCase{"LengthPart", withLength(5) + "hello", {4}, true},
                                           CutCase{"LengthAll", withLength(5) + "hello", {5}, false},
                                           CutCase{"LengthAllAndMore", withLength(5) + "hello", {9}, false},
                                           CutCase{"UntilCloseUnread", kUntilClose + "hello", {}, true},
                                           CutCase{"UntilCloseBeforeTheEnd", kUntilClose + "hello", {5}, true},
                                           CutCase{"UntilCloseAll", kUntilClose + "hello", {9}, false},
                                           CutCase{"ChunkedUnread", kHello, {}, true},
                                           CutCase{"ChunkedPart", kHello, {4}, true},
                                           CutCase{"ChunkedWithoutTheLastChunk", kHello, {5}, true},
                                           CutCase{"ChunkedAll", kHello, {5, 1}, false},
                                           CutCase{"MultipartUnread", multipart(5) + "hello", {}, true},
                                           CutCase{"MultipartPart", multipart(5) + "hello", {4}, true},
                                           CutCase{"MultipartAll", multipart(5) + "hello", {5}, false}),
                         [](const auto& row) { return row.param.name; });

TEST(BodyClosing, OfAnIncomingChunkedBodyWritesNothing) {
  char* text = nullptr;
  size_t size = 0;
  FILE* const both = open_memstream(&text, &size);
  fputs(kHello.c_str(), both);
  fclose(both);
  FILE* const stream = fmemopen(text, size, "r+");
  {
    const RequestPtr request(http_requestCreate());
    http_msgModeSet(&request->message, HTTP_MSG_READING);
    http_msgStreamSet(&request->message, stream);
    for (int line = 0; line < 3; ++line) ASSERT_EQ(http_msgParse(&request->message), 0);
    FILE* const body = http_msgBody(&request->message);
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(fclose(body), 0);
    EXPECT_EQ(request->message.state, 3);
  }
  fclose(stream);
  EXPECT_EQ(std::string(text, size), kHello);
  free(text);
}

// --- writing ---------------------------------------------------------------------------------------------------------

struct WriteCase {
  const char* name;
  const char* headers;
  std::vector<std::string> writes;
  std::string wire;  // before the close
  std::string last;  // what the close adds
  int stateBeforeClose;
};
void PrintTo(const WriteCase& row, std::ostream* out) { *out << row.name; }

class BodyWrite : public ::testing::TestWithParam<WriteCase> {};

TEST_P(BodyWrite, ReachesTheStreamWithEachFlush) {
  const WriteCase& row = GetParam();
  for (const bool unbuffered : {false, true}) {
    Writing writing(row.headers, unbuffered);
    for (const std::string& text : row.writes) EXPECT_EQ(writing.put(text), 0);
    EXPECT_EQ(writing.output.bytes(), row.wire);
    EXPECT_EQ(writing.message()->state, row.stateBeforeClose);
    EXPECT_EQ(writing.message()->needMoreData, 0);
    EXPECT_EQ(writing.close(), 0);
    EXPECT_EQ(writing.output.bytes(), row.wire + row.last);
    EXPECT_EQ(writing.message()->state, 3);
    EXPECT_EQ(writing.message()->body, nullptr);
    EXPECT_EQ(writing.message()->bodyCut, 0);
  }
}

const char* const kWriteChunked = "Transfer-Encoding: chunked";
const char* const kWriteMultipart = "Content-Type: multipart/mixed; boundary=b\nContent-Length: 5";

INSTANTIATE_TEST_SUITE_P(
    Table, BodyWrite,
    ::testing::Values(
        WriteCase{"LengthAtOnce", "Content-Length: 5", {"hello"}, "hello", "", 3},
        WriteCase{"LengthInPieces", "Content-Length: 5", {"he", "l", "lo"}, "hello", "", 3},
        WriteCase{"LengthNotReached", "Content-Length: 5", {"he"}, "he", "", 2},
        WriteCase{"LengthNothing", "Content-Length: 5", {""}, "", "", 2},
        // The cut is against the whole length.
        WriteCase{"LengthExceededInPieces", "Content-Length: 5", {"abc", "defg"}, "abcdefg", "", 2},
        WriteCase{"MultipartAtOnce", kWriteMultipart, {"hello"}, "hello", "", 3},
        WriteCase{"MultipartInPieces", kWriteMultipart, {"he", "llo"}, "hello", "", 3},
        WriteCase{"MultipartExceededInPieces", kWriteMultipart, {"abc", "defg"}, "abcdefg", "", 2},
        WriteCase{"UntilClose", "X: y", {"hello", " world"}, "hello world", "", 2},
        WriteCase{"Chunk", kWriteChunked, {"abc"}, "3\r\nabc\r\n", "0\r\n\r\n", 2},
        WriteCase{"Chunks", kWriteChunked, {"a", "bc", "def"}, "1\r\na\r\n2\r\nbc\r\n3\r\ndef\r\n", "0\r\n\r\n", 2},
        WriteCase{"NoChunk", kWriteChunked, {}, "", "0\r\n\r\n", 2},
        WriteCase{"EmptyWritesAreNoChunks", kWriteChunked, {"", "a", ""}, "1\r\na\r\n", "0\r\n\r\n", 2},
        WriteCase{"SizesInUpperCase",
                  kWriteChunked,
                  {pattern(10), pattern(171)},
                  "A\r\n" + pattern(10) + "\r\nAB\r\n" + pattern(171) + "\r\n",
                  "0\r\n\r\n",
                  2},
        WriteCase{"SizesWithoutLeadingZeros",
                  kWriteChunked,
                  {pattern(16), pattern(4095)},
                  "10\r\n" + pattern(16) + "\r\nFFF\r\n" + pattern(4095) + "\r\n",
                  "0\r\n\r\n",
                  2}),
    [](const auto& row) { return row.param.name; });

TEST(BodyWriting, CloseWritesWhatStdioStillHolds) {
  Writing writing(kWriteChunked);
  fputs("abc", writing.body());
  EXPECT_EQ(writing.close(), 0);
  EXPECT_EQ(writing.output.bytes(), "3\r\nabc\r\n0\r\n\r\n");
}

TEST(BodyWriting, MoreThanStdioHolds) {
  const std::string text = pattern(100000);
  {
    Writing writing("Content-Length: 100000");
    EXPECT_EQ(fwrite(text.data(), 1, text.size(), writing.body()), text.size());
    EXPECT_EQ(writing.close(), 0);
    EXPECT_EQ(writing.output.bytes(), text);
  }
  {
    Writing writing("X: y");
    EXPECT_EQ(fwrite(text.data(), 1, text.size(), writing.body()), text.size());
    EXPECT_EQ(writing.close(), 0);
    EXPECT_EQ(writing.output.bytes(), text);
  }
  Writing writing(kWriteChunked);
  EXPECT_EQ(fwrite(text.data(), 1, text.size(), writing.body()), text.size());
  EXPECT_EQ(writing.close(), 0);
  std::string_view wire = writing.output.bytes();
  std::string found;
  while (!wire.starts_with("0\r\n")) {
    const size_t size = std::stoul(std::string(wire.substr(0, 8)), nullptr, 16);
    ASSERT_GT(size, 0u);
    wire.remove_prefix(wire.find('\n') + 1);
    found += wire.substr(0, size);
    ASSERT_EQ(wire.substr(size, 2), "\r\n");
    wire.remove_prefix(size + 2);
  }
  EXPECT_EQ(wire, "0\r\n\r\n");
  EXPECT_EQ(found, text);
}

TEST(BodyWriting, OneWriteIsCutAtTheLength) {
  for (const char* const headers : {"Content-Length: 5", kWriteMultipart}) {
    Writing writing(headers);
    EXPECT_EQ(writing.put("hello world"), EOF);
    EXPECT_TRUE(writing.output.bytes().starts_with("hello")) << writing.output.bytes();
    EXPECT_EQ(writing.output.bytes(), "hello");
    EXPECT_EQ(writing.message()->state, 3);
  }
}

TEST(BodyWriting, IsRefusedWhenTheMessageIsDone) {
  for (const char* const headers : {"Content-Length: 5", kWriteMultipart}) {
    Writing writing(headers);
    EXPECT_EQ(writing.put("hello"), 0);
    EXPECT_EQ(writing.put("x"), EOF);
    EXPECT_NE(ferror(writing.body()), 0);
    EXPECT_EQ(writing.output.bytes(), "hello");
    EXPECT_EQ(writing.message()->state, 3);
  }
  Writing writing("X: y");
  writing.message()->state = 3;
  EXPECT_EQ(writing.put("x"), EOF);
  EXPECT_EQ(writing.output.bytes(), "");
}

TEST(BodyWriting, TheLastChunkIsForAnOutgoingMessageInItsBody) {
  const struct {
    int state;
    int mode;
    const char* wire;
  } kRows[] = {{2, HTTP_MSG_WRITING, "0\r\n\r\n"},
               {3, HTTP_MSG_WRITING, ""},
               {5, HTTP_MSG_WRITING, ""},
               {2, HTTP_MSG_READING, ""},
               {2, 0, ""}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::to_string(row.state) + " " + std::to_string(row.mode));
    Writing writing(kWriteChunked);
    writing.message()->state = row.state;
    writing.message()->mode = row.mode;
    TraceCapture trace{"http-body"};
    EXPECT_EQ(writing.close(), 0);
    EXPECT_EQ(writing.output.bytes(), row.wire);
    EXPECT_EQ(writing.message()->state, 3);
    EXPECT_EQ(writing.message()->body, nullptr);
    EXPECT_EQ(trace.count("http-bo[i]sending last chunk"), *row.wire == 0 ? 0u : 1u);
  }
}

TEST(BodyWriting, ChunksAreTraced) {
  Writing writing(kWriteChunked);
  TraceCapture trace{"http-body"};
  EXPECT_EQ(writing.put("hello"), 0);
  EXPECT_EQ(writing.put(pattern(16)), 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-bo[i]sending chunk of size 5", "http-bo[i]sending chunk of size 16"}));
}

TEST(BodyWriting, WhereverTheStreamBlocksOrFails) {
  struct Row {
    const char* headers;
    std::string wire;
  };
  const Row kRows[] = {
      {"Content-Length: 5", "hello"}, {"X: y", "hello"}, {kWriteMultipart, "hello"}, {kWriteChunked, "5\r\nhello\r\n"}};
  for (const Row& row : kRows) {
    for (const int error : {EAGAIN, EIO}) {
      for (size_t at = 0; at < row.wire.size(); ++at) {
        SCOPED_TRACE(row.headers + " octet "s + std::to_string(at) + " errno " + std::to_string(error));
        Writing writing(row.headers, true);
        writing.output.refuseAt(at, error);
        TraceCapture trace{{"http-body"}, KROTRACE_INFO};
        const int result = writing.put("hello");
        if (row.headers != kWriteChunked || at < sizeof("5\r\nhello") - 1) {
          EXPECT_EQ(result, EOF);
        }
        EXPECT_EQ(writing.output.bytes(), row.wire.substr(0, at));
        EXPECT_EQ(writing.message()->needMoreData, error == EAGAIN ? 1 : 0);
        EXPECT_EQ(writing.message()->state, error == EAGAIN ? 2 : 5);
        EXPECT_EQ(trace.errors(),
                  error == EAGAIN ? TraceLines()
                                  : TraceLines({"http-me[x]unable to parse message (socket -1): Input/output error"}));
        if (row.headers == kWriteChunked) {
          EXPECT_EQ(trace.count("http-bo[i]unable to write chunk size"), at < 3 ? 1u : 0u);
          EXPECT_EQ(trace.count("http-bo[i]unable to write chunk data"), at >= 3 && at < 8 ? 1u : 0u);
          EXPECT_EQ(trace.count("http-bo[i]unable to write chunk EOL"), at >= 8 ? 1u : 0u);
        }
      }
    }
  }
}

TEST(BodyWriting, WhenTheStreamCannotBeFlushed) {
  for (const char* const headers : {"Content-Length: 5", "X: y", kWriteMultipart, kWriteChunked}) {
    for (const int error : {EAGAIN, EIO}) {
      SCOPED_TRACE(headers + std::to_string(error));
      Writing writing(headers);
      writing.output.refuseAt(0, error);
      const TraceCapture quiet;
      writing.put("hello");
      EXPECT_EQ(writing.message()->needMoreData, error == EAGAIN ? 1 : 0);
      EXPECT_EQ(writing.message()->state, error == EAGAIN ? 2 : 5) << "not done";
    }
  }
}

// stdio hands large writes on without copying them first: a refusal it does not understand would let it read on behind
// them.
TEST(BodyWriting, AWriteThatIsRefusedIsNotCountedAsWritten) {
  const std::string text = pattern(100000);
  const GuardedText guarded(text);
  const char* const kHeaders[] = {"Content-Length: 100000", "Content-Length: 100", "X: y", kWriteChunked,
                                  "Content-Type: multipart/mixed; boundary=b\nContent-Length: 100000"};
  for (const char* const headers : kHeaders) {
    for (const int error : {EAGAIN, EIO}) {
      for (const size_t at : {0u, 1u, 100u, 8191u, 8192u, 8193u, 8200u, 16384u, 16412u, 50000u, 90000u}) {
        SCOPED_TRACE(headers + " errno "s + std::to_string(error) + " at " + std::to_string(at));
        Writing writing(headers, true);
        writing.output.refuseAt(at, error);
        const TraceCapture quiet;
        EXPECT_LT(fwrite(guarded.data(), 1, guarded.size(), writing.body()), guarded.size());
        EXPECT_NE(ferror(writing.body()), 0);
        EXPECT_LE(writing.output.bytes().size(), at);
        if (headers != kWriteChunked) {
          EXPECT_EQ(writing.output.bytes(), text.substr(0, writing.output.bytes().size()));
        }
      }
    }
  }
}

TEST(BodyWriting, ReadsNothingBehindAWriteThatIsTooLong) {
  const std::string text = pattern(20000);
  const GuardedText guarded(text);
  for (const size_t length : {1u, 5u, 100u, 8192u, 10000u}) {
    for (const bool isMultipart : {false, true}) {
      SCOPED_TRACE(length);
      const std::string headers = (isMultipart ? "Content-Type: multipart/mixed; boundary=b\n"s : ""s) +
                                  "Content-Length: " + std::to_string(length);
      Writing writing(headers.c_str());
      for (int write = 0; write < 3; ++write) {
        fwrite(guarded.data() + writing.output.bytes().size(), 1, guarded.size() - writing.output.bytes().size(),
               writing.body());
        fflush(writing.body());
        EXPECT_NE(ferror(writing.body()), 0);
        clearerr(writing.body());
      }
      const std::string& wire = writing.output.bytes();
      EXPECT_GE(wire.size(), length);
      EXPECT_EQ(wire, text.substr(0, wire.size()));
    }
  }
}

TEST(BodyWriting, GoesOnWhenTheStreamTakesDataAgain) {
  for (const char* const headers : {"Content-Length: 10", "X: y"}) {
    Writing writing(headers, true);
    writing.output.blockAt(0);
    EXPECT_EQ(writing.put("lost?"), EOF);
    EXPECT_EQ(writing.message()->needMoreData, 1);
    clearerr(writing.body());
    writing.output.accept();
    EXPECT_EQ(writing.put("hello"), 0);
    EXPECT_EQ(writing.message()->needMoreData, 0);
    EXPECT_TRUE(writing.output.bytes().ends_with("hello"));
  }
}

TEST(BodyWriting, TheLastChunkFailsWhereverTheStreamDoes) {
  for (const bool unbuffered : {false, true}) {
    for (const int error : {EAGAIN, EIO}) {
      for (size_t at = 0; at < 5; ++at) {
        SCOPED_TRACE(std::to_string(at) + (unbuffered ? " unbuffered" : ""));
        Writing writing(kWriteChunked, unbuffered);
        writing.output.refuseAt(at, error);
        TraceCapture trace;
        EXPECT_EQ(writing.close(), EOF);
        EXPECT_EQ(trace.errors(), TraceLines({"http-bo[x]unable to write last body chunk"}));
        EXPECT_EQ(writing.message()->state, 5);
        EXPECT_EQ(writing.message()->body, nullptr);
        EXPECT_EQ(writing.output.bytes(), "0\r\n\r\n"s.substr(0, at));
      }
    }
  }
}

// --- the answer to HEAD ----------------------------------------------------------------------------------------------

TEST(BodyOfABodylessReply, IsAcceptedAndDropped) {
  const std::string text = pattern(20000);
  const char* const kHeaders[] = {"Content-Length: 20005", "Content-Length: 5", kWriteChunked, "X: y",
                                  "Content-Type: multipart/mixed; boundary=b\nContent-Length: 20005"};
  for (const char* const headers : kHeaders) {
    SCOPED_TRACE(headers);
    Writing writing(headers, false, true);
    EXPECT_EQ(writing.message()->state, 2);
    EXPECT_EQ(writing.put("hello"), 0);
    if (headers != kHeaders[1]) {
      EXPECT_EQ(fwrite(text.data(), 1, text.size(), writing.body()), text.size());
      EXPECT_EQ(fflush(writing.body()), 0);
    }
    EXPECT_EQ(ferror(writing.body()), 0);
    EXPECT_EQ(writing.close(), 0);
    EXPECT_EQ(writing.message()->state, 3);
    EXPECT_EQ(writing.message()->body, nullptr);
    EXPECT_EQ(writing.message()->needMoreData, 0);
    fflush(writing.output.stream());
    EXPECT_EQ(writing.output.bytes(), "");
  }
}

TEST(BodyOfABodylessReply, NeedsNoWrite) {
  for (const char* const headers : {"Content-Length: 5", kWriteChunked, "X: y"}) {
    SCOPED_TRACE(headers);
    Writing writing(headers, false, true);
    EXPECT_EQ(writing.close(), 0);
    EXPECT_EQ(writing.message()->state, 3);
    fflush(writing.output.stream());
    EXPECT_EQ(writing.output.bytes(), "");
  }
}

TEST(BodyOfABodylessReply, EndsWithTheMessage) {
  for (const char* const headers : {"Content-Length: 5", kWriteChunked, "X: y"}) {
    SCOPED_TRACE(headers);
    Writing writing(headers, false, true);
    fputs("he", writing.body());
    EXPECT_EQ(http_msgDone(writing.message()), 0);
    writing.forget();
    EXPECT_EQ(writing.message()->state, 3);
    EXPECT_EQ(writing.message()->body, nullptr);
    EXPECT_EQ(writing.output.bytes(), "");
  }
}

}  // namespace
