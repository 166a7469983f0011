#include <fcntl.h>
#include <gtest/gtest.h>
#include <krohttp/message.h>
#include <krohttp/reply.h>
#include <krohttp/request.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zel/connection.h>
#include <zel/error.h>
#include <zel/loop.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/messages.h"
#include "support/script_stream.h"
#include "support/trace_capture.h"

namespace {

RequestPtr newRequest() { return RequestPtr(http_requestCreate()); }
ReplyPtr newReply() { return ReplyPtr(http_replyCreate()); }

__attribute__((format(printf, 2, 3))) int lineSet(HttpMessage* message, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = msg_lineSetV(message, format, arguments);
  va_end(arguments);
  return result;
}

__attribute__((format(printf, 2, 3))) int lineSetFirst(HttpMessage* message, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = msg_lineSetFirstV(message, format, arguments);
  va_end(arguments);
  return result;
}

// Every header from the first on, "name=value".
std::vector<std::string> headersOf(HttpMessage* message) {
  std::vector<std::string> headers;
  const char* name = nullptr;
  const char* value = nullptr;
  http_msgHeadersReset(message);
  while (headers.size() < 10000 && http_msgHeadersNext(message, &name, &value) == 0) {
    headers.push_back(std::string(name) + "=" + value);
  }
  return headers;
}

// A text of this length in which no two neighbourhoods look alike.
std::string pattern(size_t length) {
  std::string text(length, ' ');
  for (size_t at = 0; at < length; ++at) text[at] = static_cast<char>('!' + (at * 7 + at / 90) % 90);
  return text;
}

ptrdiff_t offsetIn(const HttpMessage& message, const char* pointer) { return pointer - message.buffer; }

// --- the record ------------------------------------------------------------------------------------------------------

TEST(MessageRecord, FieldsStandInTheirOrder) {
#define FIELD(name) \
  { #name, offsetof(HttpMessage, name) }
  const struct {
    const char* name;
    size_t offset;
  } kFields[] = {
      FIELD(state),        FIELD(buffer),    FIELD(bufferSize),   FIELD(stream),       FIELD(fill),
      FIELD(lineEnd),      FIELD(lineStart), FIELD(headersEnd),   FIELD(firstHeader),  FIELD(headersLimit),
      FIELD(headerIter),   FIELD(type),      FIELD(versionMajor), FIELD(versionMinor), FIELD(mode),
      FIELD(needMoreData), FIELD(body),      FIELD(bodyType),     FIELD(owner),        FIELD(ownerType),
      FIELD(userData),     FIELD(peer),      FIELD(paused),
  };
#undef FIELD
  EXPECT_EQ(kFields[0].offset, 0u);
  for (size_t at = 1; at < std::size(kFields); ++at) {
    EXPECT_GT(kFields[at].offset, kFields[at - 1].offset) << kFields[at].name;
  }
  EXPECT_EQ(offsetof(HttpMessage, versionMinor), offsetof(HttpMessage, versionMajor) + 1);
}

TEST(MessageRecord, FieldsHaveTheirWidth) {
  EXPECT_EQ(sizeof(HttpMessage::bufferSize), 4u);
  EXPECT_EQ(sizeof(HttpMessage::fill), 4u);
  EXPECT_EQ(sizeof(HttpMessage::lineEnd), 4u);
  EXPECT_EQ(sizeof(HttpMessage::lineStart), 4u);
  EXPECT_EQ(sizeof(HttpMessage::headersEnd), 4u);
  EXPECT_EQ(sizeof(HttpMessage::versionMajor), 1u);
  EXPECT_EQ(sizeof(HttpMessage::versionMinor), 1u);
  EXPECT_EQ(sizeof(HttpMessage::paused), 1u);
}

TEST(MessageRecord, RequestAndReplyBeginWithTheirMessage) {
  EXPECT_EQ(offsetof(HttpRequest, message), 0u);
  EXPECT_GE(offsetof(HttpRequest, method), sizeof(HttpMessage));
  EXPECT_GT(offsetof(HttpRequest, uri), offsetof(HttpRequest, method));
  EXPECT_EQ(offsetof(HttpReply, message), 0u);
  EXPECT_GE(offsetof(HttpReply, statusCode), sizeof(HttpMessage));
  EXPECT_GT(offsetof(HttpReply, reason), offsetof(HttpReply, statusCode));
}

TEST(MessageRecord, NumbersOfTheEnumerations) {
  const struct {
    const char* name;
    int value;
    int expected;
  } kNumbers[] = {
      {"first line", HTTP_MSG_FIRST_LINE, 0},
      {"headers", HTTP_MSG_HEADERS, 1},
      {"body", HTTP_MSG_BODY, 2},
      {"done", HTTP_MSG_DONE, 3},
      {"failed", HTTP_MSG_FAILED, 5},
      {"request", HTTP_MSG_REQUEST, 0},
      {"reply", HTTP_MSG_REPLY, 1},
      {"reading", HTTP_MSG_READING, 1},
      {"writing", HTTP_MSG_WRITING, 2},
      {"owned by client", HTTP_MSG_OWNED_BY_CLIENT, 1},
      {"owned by server", HTTP_MSG_OWNED_BY_SERVER, 2},
      {"running", HTTP_MSG_RUNNING, 0},
      {"paused", HTTP_MSG_PAUSED, 1},
      {"temporized", HTTP_MSG_TEMPORIZED, 2},
  };
  for (const auto& row : kNumbers) EXPECT_EQ(row.value, row.expected) << row.name;
}

// --- growing ---------------------------------------------------------------------------------------------------------

struct GrowCase {
  const char* name;
  std::vector<unsigned> extras;
  uint32_t size;
};
void PrintTo(const GrowCase& row, std::ostream* out) { *out << row.name; }

class MessageGrow : public ::testing::TestWithParam<GrowCase> {};

TEST_P(MessageGrow, ByAtLeast512) {
  const RequestPtr request = newRequest();
  for (const unsigned extra : GetParam().extras) ASSERT_EQ(msg_grow(&request->message, extra), 0);
  EXPECT_EQ(request->message.bufferSize, GetParam().size);
  std::memset(request->message.buffer, 'x', request->message.bufferSize);
}

INSTANTIATE_TEST_SUITE_P(Table, MessageGrow,
                         ::testing::Values(GrowCase{"FirstByNothing", {0}, 512}, GrowCase{"FirstByOne", {1}, 512},
                                           GrowCase{"FirstBy512", {512}, 512}, GrowCase{"FirstBy513", {513}, 513},
                                           GrowCase{"Twice", {0, 0}, 1024}, GrowCase{"ThenBy511", {0, 511}, 1024},
                                           GrowCase{"ThenBy600", {0, 600}, 1112},
                                           GrowCase{"FromAnOddSize", {601, 1}, 1113}),
                         [](const auto& row) { return row.param.name; });

TEST(MessageGrowing, KeepsTheBytesAndMovesTheHeaderPointers) {
  const RequestPtr request = newRequest();
  HttpMessage& message = request->message;
  ASSERT_EQ(msg_grow(&message, 0), 0);
  const std::string bytes = pattern(512);
  std::memcpy(message.buffer, bytes.data(), bytes.size());
  message.firstHeader = message.buffer + 100;
  message.headersLimit = message.buffer + 400;

  ASSERT_EQ(msg_grow(&message, 100000), 0);
  EXPECT_EQ(message.bufferSize, 100512u);
  EXPECT_EQ(std::string_view(message.buffer, 512), bytes);
  EXPECT_EQ(offsetIn(message, message.firstHeader), 100);
  EXPECT_EQ(offsetIn(message, message.headersLimit), 400);
}

TEST(MessageGrowing, LeavesTheCountersAlone) {
  const ReplyPtr reply = newReply();
  HttpMessage& message = reply->message;
  ASSERT_EQ(msg_grow(&message, 0), 0);
  message.state = 1;
  message.fill = 40;
  message.lineEnd = 30;
  message.lineStart = 20;
  message.headersEnd = 10;
  ASSERT_EQ(msg_grow(&message, 0), 0);
  EXPECT_EQ(message.state, 1);
  EXPECT_EQ(message.fill, 40u);
  EXPECT_EQ(message.lineEnd, 30u);
  EXPECT_EQ(message.lineStart, 20u);
  EXPECT_EQ(message.headersEnd, 10u);
}

TEST(MessageGrowing, IsTraced) {
  const RequestPtr request = newRequest();
  TraceCapture trace{"http-message"};
  ASSERT_EQ(msg_grow(&request->message, 0), 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[i]growing message buffer"}));
}

// The size has 32 bits: a step that does not fit into it is refused, as one that the allocator refuses.
TEST(MessageGrowing, RefusesAStepBeyondTheSizeAndStaysUnchanged) {
  const RequestPtr request = newRequest();
  HttpMessage& message = request->message;
  ASSERT_EQ(msg_grow(&message, 0), 0);
  char* const buffer = message.buffer;
  message.firstHeader = buffer + 10;
  message.headersLimit = buffer + 20;

  TraceCapture trace;
  EXPECT_EQ(msg_grow(&message, UINT_MAX), -1);
  EXPECT_EQ(trace.countStarting("http-me[x]unable to reallocate buffer: "), 1u);
  EXPECT_EQ(message.buffer, buffer);
  EXPECT_EQ(message.bufferSize, 512u);
  EXPECT_EQ(message.firstHeader, buffer + 10);
  EXPECT_EQ(message.headersLimit, buffer + 20);

  EXPECT_EQ(msg_growAndKeep(&message, UINT_MAX), -1);
  EXPECT_EQ(trace.count("http-me[x]unable to grow message buffer"), 1u);
}

TEST(MessageGrowing, WithoutHeadersThereAreStillNoneAfterwards) {
  for (const bool afterFirstLine : {false, true}) {
    SCOPED_TRACE(afterFirstLine);
    const ReplyPtr reply = newReply();
    if (afterFirstLine) {
      ASSERT_EQ(msg_setStatusLine(&reply->message, "HTTP/1.1 200 OK"), 0);
    }
    for (int step = 0; step < 20; ++step) {
      ASSERT_EQ(msg_growAndKeep(&reply->message, 4096), 0);
      EXPECT_EQ(headersOf(&reply->message), std::vector<std::string>());
    }
  }
}

TEST(MessageGrowing, GoesThroughTheRequestOrTheReply) {
  const RequestPtr request = newRequest();
  ASSERT_EQ(msg_setStatusLine(&request->message, "GET /path?query HTTP/1.1"), 0);
  const char* const requestBuffer = request->message.buffer;
  const ptrdiff_t path = request->uri.path - requestBuffer;
  const ptrdiff_t query = request->uri.query - requestBuffer;
  ASSERT_EQ(msg_growAndKeep(&request->message, 100000), 0);
  EXPECT_EQ(request->message.bufferSize, 100512u);
  EXPECT_EQ(request->uri.path - request->message.buffer, path);
  EXPECT_EQ(request->uri.query - request->message.buffer, query);

  const ReplyPtr reply = newReply();
  ASSERT_EQ(msg_setStatusLine(&reply->message, "HTTP/1.1 404 Not Found"), 0);
  const ptrdiff_t reason = reply->reason - reply->message.buffer;
  ASSERT_EQ(msg_growAndKeep(&reply->message, 100000), 0);
  EXPECT_EQ(reply->reason - reply->message.buffer, reason);
  EXPECT_STREQ(reply->reason, "Not Found");
}

TEST(MessageGrowing, OfAnotherTypeDoesNothingAndSucceeds) {
  HttpMessage message{};
  for (const int type : {2, 7, -1}) {
    message.type = type;
    EXPECT_EQ(msg_growAndKeep(&message, 100), 0) << type;
    EXPECT_EQ(message.buffer, nullptr) << type;
    EXPECT_EQ(message.bufferSize, 0u) << type;
  }
}

// So that nothing can be written into it, or read.
TEST(MessageGrowing, OfAnotherTypeLeavesNoRoomForLines) {
  HttpMessage message{};
  message.type = 7;
  ScriptInput input("Server: kro\r\n");
  char* line = nullptr;
  const TraceCapture trace;
  EXPECT_EQ(msg_lineGet(&message, input.stream(), &line), -1);
  EXPECT_EQ(msg_setHeaderLine(&message, "Server: kro"), -1);
  EXPECT_EQ(trace.errors(),
            TraceLines({"http-me[x]unable to initialize message buffer", "http-me[x]unable to set header line"}));
  EXPECT_EQ(message.buffer, nullptr);
}

// --- reading lines ---------------------------------------------------------------------------------------------------

struct LineCase {
  const char* name;
  std::string wire;
  std::vector<std::string> lines;
};
void PrintTo(const LineCase& row, std::ostream* out) { *out << row.name; }

class MessageLineGet : public ::testing::TestWithParam<LineCase> {};

// The lines up to the end of the stream; held input is released each time the message asks for more.
std::vector<std::string> linesOf(ScriptInput& input) {
  const SpinGuard guard;
  const RequestPtr request = newRequest();
  HttpMessage& message = request->message;
  std::vector<std::string> lines;
  for (int call = 0; call < 10000; ++call) {
    char nothing = 0;
    char* line = &nothing;
    const uint32_t start = message.lineEnd;
    if (msg_lineGet(&message, input.stream(), &line) != 0) return lines;
    if (message.needMoreData != 0) {
      EXPECT_EQ(line, &nothing) << "a line was handed out although more is needed";
      clearerr(input.stream());
      input.release();
      continue;
    }
    EXPECT_EQ(line, message.buffer + start);
    EXPECT_EQ(message.lineStart, message.fill);
    EXPECT_EQ(message.lineEnd, message.fill);
    EXPECT_LE(message.fill, message.bufferSize);
    lines.emplace_back(line);
  }
  ADD_FAILURE() << "no end";
  return lines;
}

TEST_P(MessageLineGet, AtOnce) {
  ScriptInput input(GetParam().wire);
  EXPECT_EQ(linesOf(input), GetParam().lines);
}

TEST_P(MessageLineGet, InTwoPiecesCutAnywhere) {
  const std::string_view wire = GetParam().wire;
  for (size_t cut = 0; cut <= wire.size(); ++cut) {
    ScriptInput input;
    input.bytes(wire.substr(0, cut)).hold().bytes(wire.substr(cut));
    EXPECT_EQ(linesOf(input), GetParam().lines) << "cut at octet " << cut;
  }
}

TEST_P(MessageLineGet, OctetByOctet) {
  ScriptInput input;
  input.trickle(GetParam().wire);
  EXPECT_EQ(linesOf(input), GetParam().lines);
}

using namespace std::string_literals;

INSTANTIATE_TEST_SUITE_P(
    Table, MessageLineGet,
    ::testing::Values(LineCase{"Ended", "Host: a\r\n", {"Host: a"}},
                      LineCase{"BareLineFeedTakesTheLastCharacter", "Host: a\n", {"Host: "}},
                      LineCase{"Several", "GET / HTTP/1.1\r\nHost: a\r\n\r\n", {"GET / HTTP/1.1", "Host: a", ""}},
                      LineCase{"Empty", "\r\n", {""}}, LineCase{"LineFeedAlone", "\n", {""}},
                      LineCase{"LineFeedAloneBehindALine", "a\r\n\nb\r\n", {"a", "", "b"}},
                      LineCase{"LineFeedsAlone", "\n\n\nabc\r\n", {"", "", "", "abc"}},
                      LineCase{"OneCharacterAndABareLineFeed", "a\nb\r\n", {"", "b"}},
                      LineCase{"CarriageReturnInside", "a\rb\r\n", {"a\rb"}},
                      LineCase{"TwoCarriageReturns", "a\r\r\n", {"a\r"}},
                      LineCase{"TabIsKept", "a\tb\t\r\n", {"a\tb\t"}}, LineCase{"NulIsDropped", "a\0b\0\r\n"s, {"ab"}},
                      LineCase{"ControlsAreDropped",
                               "\x01\x02\x03\x04\x05\x06\x07\x08"
                               "a\x0b\x0c\x0e\x0f\x10\x11\x12\x13\x14\x15\x16\x17\x18\x19\x1a\x1b\x1c\x1d\x1e\x1f"
                               "b\r\n",
                               {"ab"}},
                      LineCase{"ControlBetweenTheLineEnds", "ab\r\x01\n", {"ab"}},
                      LineCase{"ControlBeforeABareLineFeed", "ab\x01\n", {"a"}},
                      LineCase{"DeleteAndHighBytesAreKept", "\x7f\x80\xa0\xfe\xff\r\n", {"\x7f\x80\xa0\xfe\xff"}},
                      LineCase{"EndInALine", "a\r\nHost: b", {"a"}}, LineCase{"EndBehindTheCarriageReturn", "a\r", {}},
                      LineCase{"Nothing", "", {}}),
    [](const auto& row) { return row.param.name; });

struct LineSizeCase {
  const char* name;
  size_t wire;  // with its line end
  uint32_t size;
};
void PrintTo(const LineSizeCase& row, std::ostream* out) { *out << row.name; }

class MessageLineSize : public ::testing::TestWithParam<LineSizeCase> {};

TEST_P(MessageLineSize, GrowsBy512WhenFull) {
  const std::string text = pattern(GetParam().wire - 2);
  for (const bool held : {false, true}) {
    SCOPED_TRACE(held);
    ScriptInput input;
    if (held) {
      input.trickle(text + "\r\n");
    } else {
      input.bytes(text + "\r\n");
    }
    const RequestPtr request = newRequest();
    char* line = nullptr;
    do {
      clearerr(input.stream());
      input.release();
      ASSERT_EQ(msg_lineGet(&request->message, input.stream(), &line), 0);
    } while (request->message.needMoreData != 0);
    EXPECT_EQ(request->message.bufferSize, GetParam().size);
    EXPECT_EQ(line, text);
  }
}

INSTANTIATE_TEST_SUITE_P(Table, MessageLineSize,
                         ::testing::Values(LineSizeCase{"Shortest", 2, 512}, LineSizeCase{"OneLeft", 511, 512},
                                           LineSizeCase{"JustFull", 512, 512}, LineSizeCase{"OneMore", 513, 1024},
                                           LineSizeCase{"LineOf600", 602, 1024}, LineSizeCase{"TwiceFull", 1024, 1024},
                                           LineSizeCase{"TwiceAndOne", 1025, 1536}),
                         [](const auto& row) { return row.param.name; });

TEST(MessageLineRead, FirstReadAllocates512EvenWithoutABytes) {
  ScriptInput input;
  input.hold();
  const RequestPtr request = newRequest();
  char* line = nullptr;
  EXPECT_EQ(msg_lineGet(&request->message, input.stream(), &line), 0);
  EXPECT_EQ(request->message.bufferSize, 512u);
  EXPECT_EQ(request->message.fill, 0u);
}

TEST(MessageLineRead, ALineBehindAFullBufferGrowsIt) {
  ScriptInput input;
  input.bytes(pattern(510) + "\r\n").hold();
  const RequestPtr request = newRequest();
  char* line = nullptr;
  ASSERT_EQ(msg_lineGet(&request->message, input.stream(), &line), 0);
  ASSERT_EQ(request->message.bufferSize, 512u);
  ASSERT_EQ(msg_lineGet(&request->message, input.stream(), &line), 0);
  EXPECT_EQ(request->message.needMoreData, 1);
  EXPECT_EQ(request->message.bufferSize, 1024u);
  EXPECT_EQ(std::string(request->message.buffer), pattern(510));
}

TEST(MessageLineRead, WouldBlockSetsNeedMoreDataAndTheNextCallClearsIt) {
  ScriptInput input;
  input.bytes("Host: ").hold().bytes("a\r\n");
  const RequestPtr request = newRequest();
  HttpMessage& message = request->message;
  char* line = nullptr;
  TraceCapture trace{"http-message"};
  EXPECT_EQ(msg_lineGet(&message, input.stream(), &line), 0);
  EXPECT_EQ(line, nullptr);
  EXPECT_EQ(message.needMoreData, 1);
  EXPECT_EQ(message.fill, 6u);
  EXPECT_EQ(message.lineEnd, 0u);
  EXPECT_EQ(message.lineStart, 0u);
  EXPECT_EQ(message.state, 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[i]growing message buffer",
                                      "http-me[i]message is not complete and we need more data"}));

  clearerr(input.stream());
  input.release();
  EXPECT_EQ(msg_lineGet(&message, input.stream(), &line), 0);
  EXPECT_EQ(message.needMoreData, 0);
  EXPECT_STREQ(line, "Host: a");
  EXPECT_EQ(message.lineEnd, 9u);
}

TEST(MessageLineRead, EndOfStreamIsTracedWithItsDescriptor) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ASSERT_EQ(write(ends[1], "Host: a", 7), 7);
  close(ends[1]);
  FILE* const stream = fdopen(ends[0], "r");
  ASSERT_NE(stream, nullptr);

  const RequestPtr request = newRequest();
  char* line = nullptr;
  TraceCapture trace{"http-message"};
  errno = EAGAIN;
  EXPECT_EQ(msg_lineGet(&request->message, stream, &line), -1);
  EXPECT_EQ(line, nullptr);
  EXPECT_EQ(request->message.needMoreData, 0);
  EXPECT_EQ(request->message.state, 0);
  EXPECT_EQ(trace.said(),
            TraceLines({"http-me[i]growing message buffer", "http-me[i]read EOF on fd " + std::to_string(ends[0])}));
  fclose(stream);
}

TEST(MessageLineRead, EndOfStreamAtOnceAndAgain) {
  ScriptInput input;
  input.staleErrno(EAGAIN);
  const RequestPtr request = newRequest();
  char* line = nullptr;
  for (int call = 0; call < 3; ++call) {
    errno = EAGAIN;
    EXPECT_EQ(msg_lineGet(&request->message, input.stream(), &line), -1);
    EXPECT_EQ(request->message.needMoreData, 0);
  }
}

TEST(MessageLineRead, ReadErrorFailsTheMessage) {
  ScriptInput input;
  input.bytes("Host").error(EIO);
  const RequestPtr request = newRequest();
  char* line = nullptr;
  TraceCapture trace;
  zel_error = 0;
  EXPECT_EQ(msg_lineGet(&request->message, input.stream(), &line), -1);
  EXPECT_EQ(line, nullptr);
  EXPECT_EQ(request->message.state, 5);
  EXPECT_EQ(request->message.needMoreData, 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to parse message (socket -1): Input/output error"}));
  EXPECT_EQ(zel_error, 0x10001u);
}

// --- what a failed read means ----------------------------------------------------------------------------------------

struct FailedReadCase {
  const char* name;
  int state;
  int error;
  int result;
  int needMoreData;
  int stateAfter;
  TraceLines said;
};
void PrintTo(const FailedReadCase& row, std::ostream* out) { *out << row.name; }

class MessageFailedRead : public ::testing::TestWithParam<FailedReadCase> {};

TEST_P(MessageFailedRead, IsJudgedByErrnoAndState) {
  const FailedReadCase& row = GetParam();
  for (const int before : {0, 1}) {
    SCOPED_TRACE(before);
    HttpMessage message{};
    message.state = row.state;
    message.needMoreData = before;
    TraceCapture trace{"http-message"};
    errno = row.error;
    EXPECT_EQ(msg_checkNeedMoreData(&message, row.error), row.result);
    EXPECT_EQ(message.needMoreData, row.needMoreData);
    EXPECT_EQ(message.state, row.stateAfter);
    EXPECT_EQ(trace.said(), row.said);
  }
}

const TraceLines kMoreData{"http-me[i]message is not complete and we need more data"};
const TraceLines kReset{"http-me[x]unable to parse message (socket -1): Connection reset by peer"};

INSTANTIATE_TEST_SUITE_P(
    Table, MessageFailedRead,
    ::testing::Values(
        FailedReadCase{"WouldBlockInTheFirstLine", 0, EAGAIN, 0, 1, 0, kMoreData},
        FailedReadCase{"WouldBlockInTheHeaders", 1, EAGAIN, 0, 1, 1, kMoreData},
        FailedReadCase{"WouldBlockInTheBody", 2, EAGAIN, 0, 1, 2, kMoreData},
        FailedReadCase{"WouldBlockWhenDone", 3, EAGAIN, 0, 0, 3, {}},
        FailedReadCase{"WouldBlockWhenFailed", 5, EAGAIN, 0, 0, 5, {}},
        FailedReadCase{"ErrorInTheFirstLine", 0, ECONNRESET, -1, 0, 5, kReset},
        FailedReadCase{"ErrorInTheHeaders", 1, ECONNRESET, -1, 0, 5, kReset},
        FailedReadCase{"ErrorInTheBody", 2, ECONNRESET, -1, 0, 5, kReset},
        FailedReadCase{"ErrorWhenDone", 3, ECONNRESET, 0, 0, 3, {}},
        FailedReadCase{"ErrorWhenFailed", 5, ECONNRESET, 0, 0, 5, {}},
        FailedReadCase{"NoErrnoIsAnError", 2, 0, -1, 0, 5, {"http-me[x]unable to parse message (socket -1): Success"}}),
    [](const auto& row) { return row.param.name; });

TEST(MessageFailedReads, NameThePeersSocket) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  ZelConnection* const connection = connection_create();
  ASSERT_NE(connection, nullptr);
  ZelPeer* const peer = connection_adopt(connection, ends[0]);
  ASSERT_NE(peer, nullptr);

  HttpMessage message{};
  msg_setPeer(&message, peer);
  TraceCapture trace;
  errno = EPIPE;
  EXPECT_EQ(msg_checkNeedMoreData(&message, EPIPE), -1);
  EXPECT_EQ(trace.said(),
            TraceLines({"http-me[x]unable to parse message (socket " + std::to_string(ends[0]) + "): Broken pipe"}));

  message.state = 0;
  trace.clear();
  peer_close(peer);
  zel_error = 0;
  errno = EPIPE;
  EXPECT_EQ(msg_checkNeedMoreData(&message, EPIPE), -1);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to parse message (socket -1): Broken pipe"}));
  EXPECT_EQ(zel_error, 0x10001u);

  close(ends[1]);
  connection_destroy(connection);
  zel_loop_close();
}

// --- writing lines ---------------------------------------------------------------------------------------------------

struct LineSetCase {
  const char* name;
  std::vector<size_t> lengths;
  uint32_t size;
};
void PrintTo(const LineSetCase& row, std::ostream* out) { *out << row.name; }

class MessageLineSet : public ::testing::TestWithParam<LineSetCase> {};

TEST_P(MessageLineSet, AppendsAndGrowsToFit) {
  const RequestPtr request = newRequest();
  HttpMessage& message = request->message;
  uint32_t end = 0;
  for (const size_t length : GetParam().lengths) {
    const std::string text = pattern(length);
    ASSERT_EQ(lineSet(&message, "%s", text.c_str()), 0);
    EXPECT_EQ(message.lineStart, end);
    end += static_cast<uint32_t>(length) + 1;
    EXPECT_EQ(message.lineEnd, end);
    EXPECT_EQ(message.fill, end);
  }
  EXPECT_EQ(message.bufferSize, GetParam().size);
  const char* line = message.buffer;
  for (const size_t length : GetParam().lengths) {
    EXPECT_EQ(std::string(line), pattern(length));
    line += length + 1;
  }
}

INSTANTIATE_TEST_SUITE_P(Table, MessageLineSet,
                         ::testing::Values(LineSetCase{"Empty", {0}, 512}, LineSetCase{"Short", {15}, 512},
                                           LineSetCase{"JustFits", {511}, 512}, LineSetCase{"OneTooLong", {512}, 1025},
                                           LineSetCase{"LineOf600", {600}, 1113},
                                           LineSetCase{"BehindAFullBuffer", {511, 0}, 1024},
                                           LineSetCase{"LongBehindAFullBuffer", {511, 600}, 1625},
                                           LineSetCase{"JustFitsBehindAnother", {500, 10}, 512},
                                           LineSetCase{"OneTooLongBehindAnother", {500, 11}, 1024},
                                           LineSetCase{"LongBehindAnother", {500, 600}, 1113},
                                           LineSetCase{"Many", {100, 0, 1, 300, 107}, 1024},
                                           LineSetCase{"ManyThatJustFit", {100, 0, 1, 300, 106}, 512},
                                           LineSetCase{"VeryLong", {100000}, 100513}),
                         [](const auto& row) { return row.param.name; });

// What does not fit is formatted a second time.
TEST(MessageLineWrite, ArgumentsSurviveASecondFormatting) {
  const ReplyPtr reply = newReply();
  const std::string text = pattern(600);
  ASSERT_EQ(lineSet(&reply->message, "%d %s %s %u %.1f %c", -1, text.c_str(), "b", 3000000000u, 2.5, 'x'), 0);
  EXPECT_EQ(std::string(reply->message.buffer), "-1 " + text + " b 3000000000 2.5 x");
}

TEST(MessageLineWrite, WhatCannotBeFormattedIsRefused) {
  const RequestPtr request = newRequest();
  ASSERT_EQ(lineSet(&request->message, "%s", "first"), 0);
  TraceCapture trace;
  EXPECT_EQ(lineSet(&request->message, "%ls", L"\x7fffffff"), -1);
  EXPECT_EQ(trace.said(),
            TraceLines({"http-me[x]unable to set line: Invalid or incomplete multibyte or wide character"}));
  EXPECT_EQ(request->message.lineEnd, 6u);
  EXPECT_EQ(request->message.fill, 6u);
  EXPECT_STREQ(request->message.buffer, "first");
}

// --- a first line in front -------------------------------------------------------------------------------------------

struct FirstLineCase {
  const char* name;
  int state;
};
void PrintTo(const FirstLineCase& row, std::ostream* out) { *out << row.name; }

class MessageFirstLine : public ::testing::TestWithParam<FirstLineCase> {};

TEST_P(MessageFirstLine, GoesInFrontAndShiftsEverythingElse) {
  const ReplyPtr reply = newReply();
  HttpMessage& message = reply->message;
  ASSERT_EQ(msg_setHeaderLine(&message, "Server: kro"), 0);
  ASSERT_EQ(msg_setHeaderLine(&message, "X-Thing: %s", "a b"), 0);
  message.state = GetParam().state;
  const HttpMessage before = message;
  const ptrdiff_t firstHeader = offsetIn(before, before.firstHeader);
  const ptrdiff_t headersLimit = offsetIn(before, before.headersLimit);

  TraceCapture trace{"http-message"};
  EXPECT_EQ(lineSetFirst(&message, "HTTP/%u.%u %u %s", 1u, 1u, 404u, "Not Found"), 0);
  constexpr uint32_t kShift = sizeof("HTTP/1.1 404 Not Found");
  EXPECT_EQ(message.state, GetParam().state);
  EXPECT_EQ(message.bufferSize, before.bufferSize + kShift);
  EXPECT_EQ(message.lineEnd, before.lineEnd + kShift);
  EXPECT_EQ(message.fill, before.fill + kShift);
  EXPECT_EQ(message.headersEnd, before.headersEnd + kShift);
  EXPECT_EQ(offsetIn(message, message.firstHeader), firstHeader + static_cast<ptrdiff_t>(kShift));
  EXPECT_EQ(offsetIn(message, message.headersLimit), headersLimit + static_cast<ptrdiff_t>(kShift));
  EXPECT_EQ(message.lineStart, 2 * before.lineStart + kShift) << "it is counted twice";
  EXPECT_EQ(message.versionMajor, 1);
  EXPECT_EQ(message.versionMinor, 1);
  EXPECT_EQ(reply->statusCode, 404u);
  EXPECT_STREQ(reply->reason, "Not Found");
  EXPECT_EQ(headersOf(&message), std::vector<std::string>({"Server=kro", "X-Thing=a b"}));
  const TraceLines said = trace.said();
  ASSERT_FALSE(said.empty());
  EXPECT_EQ(said[0], "http-me[i]prepending message line");
  EXPECT_TRUE(trace.errors().empty());

  ASSERT_EQ(msg_setHeaderLine(&message, "Age: 1"), 0);
  EXPECT_EQ(message.lineStart, before.lineEnd + kShift) << "the next line sets it right";
  EXPECT_EQ(headersOf(&message), std::vector<std::string>({"Server=kro", "X-Thing=a b", "Age=1"}));
}

INSTANTIATE_TEST_SUITE_P(Table, MessageFirstLine,
                         ::testing::Values(FirstLineCase{"BeforeAnything", 0}, FirstLineCase{"InTheHeaders", 1},
                                           FirstLineCase{"InTheBody", 2}, FirstLineCase{"WhenDone", 3}),
                         [](const auto& row) { return row.param.name; });

TEST(MessageFirstLines, ARefusedOneShowsInTheStateOnly) {
  for (const char* const line : {"nonsense", "HTTP/1.1 200", "HTTP/0.1 200 OK", "GET / HTTP/1.1"}) {
    SCOPED_TRACE(line);
    const ReplyPtr reply = newReply();
    HttpMessage& message = reply->message;
    ASSERT_EQ(msg_setHeaderLine(&message, "Server: kro"), 0);
    const HttpMessage before = message;
    TraceCapture trace;
    EXPECT_EQ(lineSetFirst(&message, "%s", line), 0);
    EXPECT_EQ(message.state, 5);
    EXPECT_EQ(message.lineEnd, before.lineEnd);
    EXPECT_EQ(message.fill, before.fill);
    EXPECT_EQ(message.headersEnd, before.headersEnd);
    EXPECT_EQ(message.lineStart, before.lineStart);
    ASSERT_FALSE(trace.errors().empty());
    EXPECT_EQ(trace.errors().back(), "http-me[x]unable to parse status line");
    EXPECT_EQ(reply->statusCode, 0u);
    EXPECT_EQ(headersOf(&message), std::vector<std::string>({"Server=kro"}));
    ASSERT_EQ(msg_setHeaderLine(&message, "Vary: %s", std::string(1000, 'v').c_str()), 0);
    EXPECT_EQ(headersOf(&message), std::vector<std::string>({"Server=kro", "Vary=" + std::string(1000, 'v')}));
  }
}

TEST(MessageFirstLines, ARefusedOneLeavesNothingThatPointsIntoTheOldBuffer) {
  const ReplyPtr reply = newReply();
  ASSERT_EQ(msg_setStatusLine(&reply->message, "HTTP/1.1 200 Fine"), 0);
  ASSERT_EQ(lineSetFirst(&reply->message, "nonsense"), 0);
  EXPECT_EQ(reply->message.state, 5);
  if (reply->reason != nullptr) {
    EXPECT_LE(std::strlen(reply->reason), reply->message.bufferSize);
  }

  const RequestPtr request = newRequest();
  ASSERT_EQ(msg_setStatusLine(&request->message, "GET /path?query HTTP/1.1"), 0);
  ASSERT_EQ(lineSetFirst(&request->message, "nonsense"), 0);
  EXPECT_EQ(request->message.state, 5);
  if (request->uri.path != nullptr) {
    EXPECT_LE(std::strlen(request->uri.path), request->message.bufferSize);
  }
  if (request->uri.query != nullptr) {
    EXPECT_LE(std::strlen(request->uri.query), request->message.bufferSize);
  }
}

// The line that is read next begins where the last one that was written ends, twice.
TEST(MessageFirstLines, ALineReadBehindOneStaysInsideTheBuffer) {
  for (const size_t length : {1u, 10u, 400u, 5000u}) {
    SCOPED_TRACE(length);
    const ReplyPtr reply = newReply();
    HttpMessage& message = reply->message;
    ASSERT_EQ(msg_setHeaderLine(&message, "Server: %s", std::string(length, 's').c_str()), 0);
    ASSERT_EQ(msg_setHeaderLine(&message, "Vary: x"), 0);
    ASSERT_EQ(lineSetFirst(&message, "HTTP/1.1 200 OK"), 0);
    ScriptInput input("HTTP/1.1 200 OK\r\n\r\n");
    char* line = nullptr;
    ASSERT_EQ(msg_lineGet(&message, input.stream(), &line), 0);
    EXPECT_GE(line, message.buffer);
    EXPECT_LT(line, message.buffer + message.fill);
  }
}

TEST(MessageFirstLines, WhatCannotBeFormattedChangesNothing) {
  const ReplyPtr reply = newReply();
  HttpMessage& message = reply->message;
  ASSERT_EQ(msg_setHeaderLine(&message, "Server: kro"), 0);
  const HttpMessage before = message;
  TraceCapture trace;
  EXPECT_EQ(lineSetFirst(&message, "HTTP/1.1 200 %ls", L"\x7fffffff"), 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to set message first line: Invalid or incomplete multibyte or "
                                      "wide character"}));
  EXPECT_EQ(message.buffer, before.buffer);
  EXPECT_EQ(message.bufferSize, before.bufferSize);
  EXPECT_EQ(message.state, 0);
  EXPECT_EQ(message.lineEnd, before.lineEnd);
  EXPECT_EQ(headersOf(&message), std::vector<std::string>({"Server=kro"}));
}

TEST(MessageFirstLines, OneAfterTheOther) {
  const ReplyPtr reply = newReply();
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "Server: kro"), 0);
  std::vector<std::string> headers{"Server=kro"};
  for (unsigned code = 200; code < 260; ++code) {
    ASSERT_EQ(lineSetFirst(&reply->message, "HTTP/1.1 %u %s", code, pattern(code).c_str()), 0);
    EXPECT_EQ(reply->statusCode, code);
    EXPECT_EQ(reply->reason, pattern(code));
    EXPECT_EQ(headersOf(&reply->message), headers);
    ASSERT_EQ(msg_setHeaderLine(&reply->message, "X-%u: %u", code, code), 0);
    headers.push_back("X-" + std::to_string(code) + "=" + std::to_string(code));
  }
  EXPECT_EQ(headersOf(&reply->message), headers);
}

// --- taking the first line out ---------------------------------------------------------------------------------------

void expectUnchanged(const HttpMessage& message, const HttpMessage& before) {
  EXPECT_EQ(message.state, before.state);
  EXPECT_EQ(message.buffer, before.buffer);
  EXPECT_EQ(message.bufferSize, before.bufferSize);
  EXPECT_EQ(message.fill, before.fill);
  EXPECT_EQ(message.lineEnd, before.lineEnd);
  EXPECT_EQ(message.lineStart, before.lineStart);
  EXPECT_EQ(message.headersEnd, before.headersEnd);
  EXPECT_EQ(message.firstHeader, before.firstHeader);
  EXPECT_EQ(message.headersLimit, before.headersLimit);
}

TEST(MessageRemoveStatusLine, WithoutABuffer) {
  HttpMessage message{};
  EXPECT_EQ(msg_removeStatusLine(&message), 0);
  expectUnchanged(message, HttpMessage{});
}

TEST(MessageRemoveStatusLine, FindsNothingInAMessageThatWasWritten) {
  const ReplyPtr reply = newReply();
  ASSERT_EQ(msg_setStatusLine(&reply->message, "HTTP/1.1 200 OK"), 0);
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "Server: kro"), 0);
  const HttpMessage before = reply->message;
  EXPECT_EQ(msg_removeStatusLine(&reply->message), 0);
  expectUnchanged(reply->message, before);
  EXPECT_STREQ(reply->reason, "OK");
  EXPECT_EQ(headersOf(&reply->message), std::vector<std::string>({"Server=kro"}));
}

TEST(MessageRemoveStatusLine, FindsNothingInAMessageThatWasParsed) {
  ScriptInput input("GET /a?b HTTP/1.1\r\nHost: x\r\n\r\n");
  const RequestPtr request = newRequest();
  http_msgStreamSet(&request->message, input.stream());
  for (int call = 0; call < 3; ++call) ASSERT_EQ(http_msgParse(&request->message), 0);
  const HttpMessage before = request->message;
  EXPECT_EQ(msg_removeStatusLine(&request->message), 0);
  expectUnchanged(request->message, before);
  EXPECT_STREQ(request->uri.path, "/a");
  EXPECT_EQ(headersOf(&request->message), std::vector<std::string>({"Host=x"}));
}

// An unfinished line may fill the buffer to its last byte, without a NUL that ends the search.
TEST(MessageRemoveStatusLine, LooksAtTheBufferOnly) {
  ScriptInput input;
  input.bytes(pattern(511)).hold().bytes("x").hold();
  const RequestPtr request = newRequest();
  char* line = nullptr;
  ASSERT_EQ(msg_lineGet(&request->message, input.stream(), &line), 0);
  ASSERT_EQ(request->message.fill, 511u);
  request->message.buffer[request->message.fill++] = 'x';
  ASSERT_EQ(request->message.fill, request->message.bufferSize);
  const HttpMessage before = request->message;
  EXPECT_EQ(msg_removeStatusLine(&request->message), 0);
  expectUnchanged(request->message, before);
}

TEST(MessageRemoveStatusLine, CutsAtALineFeed) {
  for (const int state : {1, 5}) {
    SCOPED_TRACE(state);
    const ReplyPtr reply = newReply();
    HttpMessage& message = reply->message;
    ASSERT_EQ(lineSet(&message, "first\nsecond"), 0);  // 0 to 13
    ASSERT_EQ(lineSet(&message, "third"), 0);          // 13 to 19
    message.state = state;
    message.headersEnd = 19;
    message.firstHeader = message.buffer + 13;
    message.headersLimit = message.buffer + 19;

    EXPECT_EQ(msg_removeStatusLine(&message), 0);
    constexpr uint32_t kCut = sizeof("first\n") - 1;
    EXPECT_EQ(message.bufferSize, 512 - kCut);
    EXPECT_EQ(message.lineEnd, 19 - kCut + 1);
    EXPECT_EQ(message.fill, 19 - kCut + 1);
    EXPECT_EQ(message.headersEnd, 19 - kCut + 1);
    EXPECT_EQ(message.lineStart, 13 + 13 - kCut + 1);
    EXPECT_EQ(offsetIn(message, message.firstHeader), 13 - static_cast<ptrdiff_t>(kCut) + 1);
    EXPECT_EQ(offsetIn(message, message.headersLimit), 19 - static_cast<ptrdiff_t>(kCut) + 1);
    EXPECT_EQ(message.state, state);
    EXPECT_STREQ(message.firstHeader, "third") << "the bytes follow their offsets";
    EXPECT_STREQ(message.firstHeader - sizeof("second"), "second");
  }
}

// --- the small ones --------------------------------------------------------------------------------------------------

TEST(MessageAccessors, ReadAndStoreOneField) {
  HttpMessage message{};
  MemoryOutput stream;
  http_msgStreamSet(&message, stream.stream());
  EXPECT_EQ(message.stream, stream.stream());
  EXPECT_EQ(http_msgStream(&message), stream.stream());
  http_msgStreamSet(&message, nullptr);
  EXPECT_EQ(http_msgStream(&message), nullptr);

  http_msgModeSet(&message, HTTP_MSG_WRITING);
  EXPECT_EQ(message.mode, 2);
  http_msgModeSet(&message, HTTP_MSG_READING);
  EXPECT_EQ(message.mode, 1);

  ZelPeer* const peer = reinterpret_cast<ZelPeer*>(&message);
  msg_setPeer(&message, peer);
  EXPECT_EQ(message.peer, peer);
}

}  // namespace
