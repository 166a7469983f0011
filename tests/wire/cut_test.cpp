// The same bytes, cut at every octet: by the end of the stream, by a reset, by a pause.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_server.h"

namespace {

using Calls = std::vector<std::string>;

struct CutCase {
  const char* name;
  std::string_view wire;
  std::string_view body;      // what the body handler reads, "" without one
  bool endCompletes = false;  // the end of the stream inside the body ends the body
};
void PrintTo(const CutCase& row, std::ostream* out) { *out << row.name; }
constexpr CutCase kRequests[] = {
    {"Get", "GET /some/path?x=1 HTTP/1.1\r\nHost: example\r\nX-Long: abc def\r\n\r\n", ""},
    {"ContentLength", "POST /p HTTP/1.1\r\nHost: x\r\nContent-Length: 11\r\n\r\nhello world", "hello world", true},
    {"Chunked", "POST /p HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n006\r\n world\r\n0\r\n\r\n",
     "hello world"},
    {"Multipart",
     "POST /p HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=b\r\nContent-Length: 11\r\n\r\nhello world",
     "hello world"},
    {"EmptyBody", "POST /p HTTP/1.1\r\nContent-Length: 0\r\n\r\n", ""},
    {"EmptyChunked", "POST /p HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", ""},
};

class CutTest : public WireServerTest, public ::testing::WithParamInterface<CutCase> {
 protected:
  size_t headEnd() const { return GetParam().wire.find("\r\n\r\n") + 4; }
  size_t lineEnd() const { return GetParam().wire.find("\r\n") + 2; }
  // Answers when the body has been read, however many pieces it came in.
  void answerWithTheBody() {
    onRequest = [](HttpRequest* request, HttpReply* reply) {
      return http_requestState(request) == HTTP_MSG_DONE ? replyText(reply, 200, "") : 0;
    };
    onBody = [this](HttpRequest* request, HttpReply* reply, FILE* stream) {
      body += readBody(stream);
      return http_requestState(request) == HTTP_MSG_DONE ? replyText(reply, 200, body) : 0;
    };
  }
  // The application can tell it from a whole one by its Content-Length.
  void expectTheShortBody(const WireClient& client, size_t cut) {
    EXPECT_EQ(client.received(), okReply(GetParam().body.substr(0, cut - headEnd())));
    EXPECT_EQ(callsOf("done"), 1u);
    EXPECT_EQ(callsOf("error"), 0u);
  }
  void waitForTheEnd(WireClient& client, size_t cut) {
    client.finish();
    ASSERT_TRUE(until([&] { return client.ended() && http().connectionCount == 0; })) << "cut at octet " << cut;
    settle();
  }
};
INSTANTIATE_TEST_SUITE_P(Requests, CutTest, ::testing::ValuesIn(kRequests),
                         [](const auto& parameter) { return parameter.param.name; });

// The end comes together with the bytes before it.
TEST_P(CutTest, EndOfStreamAtEveryOctet) {
  const std::string_view wire = GetParam().wire;
  listen();
  answerWithTheBody();
  for (size_t cut = 0; cut < wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    calls.clear();
    body.clear();
    WireClient client(address());
    client.send(wire.substr(0, cut));
    waitForTheEnd(client, cut);
    EXPECT_FALSE(client.wasReset());
    EXPECT_EQ(callsOf("request"), cut < headEnd() ? 0u : 1u);
    if (cut >= headEnd() && GetParam().endCompletes) {
      expectTheShortBody(client, cut);
      continue;
    }
    EXPECT_EQ(client.received(), "");
    // The end inside the first line ends an idle connection; anywhere else it is told.
    EXPECT_EQ(callsOf("error"), cut < lineEnd() ? 0u : 1u);
    EXPECT_EQ(callsOf("done"), 0u);
  }
}

// The server has seen the bytes before the end comes.
TEST_P(CutTest, EndOfStreamAfterAPauseAtEveryOctet) {
  const std::string_view wire = GetParam().wire;
  listen();
  answerWithTheBody();
  for (size_t cut = 1; cut < wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    calls.clear();
    body.clear();
    WireClient client(address());
    client.send(wire.substr(0, cut));
    settle();
    EXPECT_EQ(callsOf("request"), cut < headEnd() ? 0u : 1u);
    EXPECT_EQ(callsOf("error"), 0u);
    waitForTheEnd(client, cut);
    if (cut >= headEnd() && GetParam().endCompletes) {
      expectTheShortBody(client, cut);
      continue;
    }
    EXPECT_EQ(client.received(), "");
    EXPECT_EQ(callsOf("error"), 1u);
    EXPECT_EQ(callsOf("done"), 0u);
  }
}

TEST_P(CutTest, ResetAtEveryOctet) {
  const std::string_view wire = GetParam().wire;
  listen();
  answerWithTheBody();
  for (size_t cut = 1; cut < wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    calls.clear();
    body.clear();
    WireClient client(address());
    client.send(wire.substr(0, cut));
    settle();
    client.reset();
    ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
    settle();
    EXPECT_EQ(callsOf("error"), 1u);
    EXPECT_EQ(callsOf("done"), 0u);
  }
}

// While the rest of a request is awaited the loop sleeps; when it comes all is as if it had come at once.
TEST_P(CutTest, PauseAtEveryOctet) {
  const std::string_view wire = GetParam().wire;
  const std::string_view expected = GetParam().body;
  listen();
  answerWithTheBody();
  WireClient client(address());
  for (size_t cut = 1; cut < wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    calls.clear();
    body.clear();
    client.take();
    client.send(wire.substr(0, cut));
    settle();
    const size_t callsBefore = calls.size();
    for (int turn = 0; turn < 10; ++turn) zel_loop_turn(0);
    EXPECT_EQ(calls.size(), callsBefore) << "a handler ran without new bytes";
    client.send(wire.substr(cut));
    ASSERT_TRUE(until([&] { return client.received() == okReply(expected); })) << client.received();
    settle();
    EXPECT_EQ(body, expected);
    EXPECT_EQ(callsOf("request"), 1u);
    EXPECT_EQ(callsOf("done"), 1u);
  }
  EXPECT_EQ(callsOf("error"), 0u);
  EXPECT_EQ(http().repliesSent, static_cast<int>(wire.size()) - 1);
}

TEST_P(CutTest, OneOctetAtATime) {
  const std::string_view wire = GetParam().wire;
  listenLocally();
  TraceCapture trace;  // the options of TCP do not hold here
  answerWithTheBody();
  WireClient client(address());
  for (const char& octet : wire) {
    client.send(std::string_view(&octet, 1));
    settle();
  }
  ASSERT_TRUE(until([&] { return client.received() == okReply(GetParam().body); })) << client.received();
  EXPECT_EQ(callsOf("request"), 1u);
}

// --- bodies that end with the connection -----------------------------------------------------------------------------

class BodyUntilCloseTest : public WireServerTest {};

// The client has finished sending but still reads: this is how such a request gets its reply.
TEST_F(BodyUntilCloseTest, IsAnsweredAtItsEnd) {
  listen();
  WireClient client(address());
  client.send("POST /p HTTP/1.1\r\nHost: x\r\n\r\nhello ");
  settle();
  client.send("world").finish();
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), okReply("hello world"));
  EXPECT_EQ(callsOf("done"), 1u);
  EXPECT_EQ(callsOf("error"), 0u);
}

TEST_F(BodyUntilCloseTest, IsAnsweredWhenAllComesAtOnce) {
  listen();
  WireClient client(address());
  client.send("POST /p HTTP/1.0\r\n\r\nhello world").finish();
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), textReply(200, "OK", "hello world", "1.0"));
}

TEST_F(BodyUntilCloseTest, NothingInItIsARequest) {
  listen();
  WireClient client(address());
  client.send("POST /p HTTP/1.1\r\n\r\nGET /x HTTP/1.1\r\n\r\n").finish();
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), okReply("GET /x HTTP/1.1\r\n\r\n"));
  EXPECT_EQ(callsOf("request"), 1u);
}

// --- bodies that are malformed ---------------------------------------------------------------------------------------

struct MalformedCase {
  const char* name;
  std::string_view body;
};
void PrintTo(const MalformedCase& row, std::ostream* out) { *out << row.name; }
constexpr MalformedCase kMalformed[] = {
    {"Extension", "5;x=1\r\nhello\r\n0\r\n\r\n"},     {"BadSize", "xyz\r\nhello\r\n0\r\n\r\n"},
    {"NoEndOfChunk", "5\r\nhelloworld\r\n0\r\n\r\n"}, {"Trailer", "5\r\nhello\r\n0\r\nX-Trailer: y\r\n\r\n"},
    {"NegativeSize", "-5\r\nhello\r\n0\r\n\r\n"},
};
class MalformedTest : public WireServerTest, public ::testing::WithParamInterface<MalformedCase> {};
INSTANTIATE_TEST_SUITE_P(Chunked, MalformedTest, ::testing::ValuesIn(kMalformed),
                         [](const auto& parameter) { return parameter.param.name; });

// Whatever the body handler makes of it, what follows is not taken for a request.
TEST_P(MalformedTest, EndsTheConnection) {
  listen();
  int error = 0;
  onBody = [&](HttpRequest*, HttpReply*, FILE* stream) {
    readBody(stream);
    if (!ferror(stream)) return 0;
    error = errno;
    return -1;
  };
  TraceCapture trace;
  WireClient client(address());
  client.send("POST /p HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n")
      .send(GetParam().body)
      .send("GET /next HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), "");
  EXPECT_EQ(callsOf("request"), 1u);
  EXPECT_EQ(callsOf("error"), 1u);
  EXPECT_EQ(error, EBADMSG);
}

TEST_P(MalformedTest, EndsTheConnectionOfAHandlerThatDoesNotLook) {
  listen();
  onBody = [](HttpRequest*, HttpReply*, FILE* stream) {
    readBody(stream);
    return 0;
  };
  TraceCapture trace;
  WireClient client(address());
  client.send("POST /p HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n")
      .send(GetParam().body)
      .send("GET /next HTTP/1.1\r\n\r\n");
  settle();
  client.finish();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(callsOf("request"), 1u);
}

class UnknownCodingTest : public WireServerTest {};

TEST_F(UnknownCodingTest, EndsTheConnection) {
  listen();
  TraceCapture trace;
  WireClient client(address());
  client.send("POST /p HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\nhelloGET /next HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(callsOf("request /next"), 0u);
  EXPECT_LE(callsOf("request"), 1u);
  EXPECT_TRUE(trace.has("http-bo[x]unknown transfer encoding"));
}

}  // namespace
