// The end of a connection: what was said still arrives, and what was not read is not taken for a request.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "support/wire_server.h"

namespace {

// --- the last bytes of a reply arrive although input was left unread -------------------------------------------------

struct LastBytesCase {
  const char* name;
  std::string_view request;
  std::function<void(WireServerTest&, size_t bodySize)> prepare;
  unsigned status;
};
void PrintTo(const LastBytesCase& row, std::ostream* out) { *out << row.name; }

void answerRequests(WireServerTest& test, size_t bodySize) {
  test.onRequest = [=](HttpRequest*, HttpReply* reply) { return replyText(reply, 200, pattern(bodySize)); };
}
void refuseRequests(WireServerTest& test, size_t bodySize) {
  test.onRequest = [=](HttpRequest*, HttpReply* reply) {
    replyText(reply, 403, pattern(bodySize));
    return -1;
  };
}
void refuseBodies(WireServerTest& test, size_t bodySize) {
  test.onRequest = [](HttpRequest*, HttpReply*) { return 0; };
  test.onBody = [=](HttpRequest*, HttpReply* reply, FILE*) {
    replyText(reply, 413, pattern(bodySize));
    return -1;
  };
}
void answerErrors(WireServerTest& test, size_t bodySize) {
  test.onError = [=](HttpRequest*, HttpReply* reply) {
    http_replyVersionSet(reply, 1, 1);
    replyText(reply, 400, pattern(bodySize));
  };
}
void closeInRequest(WireServerTest& test, size_t bodySize) {
  test.onRequest = [=](HttpRequest* request, HttpReply* reply) {
    replyText(reply, 200, pattern(bodySize));
    peer_close(http_requestPeer(request));
    return 0;
  };
}
const LastBytesCase kLastBytes[] = {
    {"ConnectionClose", "GET /a HTTP/1.1\r\nConnection: close\r\n\r\n", answerRequests, 200},
    {"Http10", "GET /a HTTP/1.0\r\n\r\n", answerRequests, 200},
    {"RefusedRequest", "POST /a HTTP/1.1\r\nContent-Length: 99999999\r\n\r\n", refuseRequests, 403},
    {"RefusedBody", "POST /a HTTP/1.1\r\nContent-Length: 99999999\r\n\r\n", refuseBodies, 413},
    {"RefusedChunkedBody", "POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nFFFFFFF\r\n", refuseBodies, 413},
    {"BadFirstLine", "PATCH /a HTTP/1.1\r\n\r\n", answerErrors, 400},
    {"BadHeader", "GET /a HTTP/1.1\r\nHost\r\n\r\n", answerErrors, 400},
    {"ClosedByTheHandler", "GET /a HTTP/1.1\r\n\r\n", closeInRequest, 200},
};
class LastBytesTest : public WireServerTest, public ::testing::WithParamInterface<LastBytesCase> {};
INSTANTIATE_TEST_SUITE_P(Ending, LastBytesTest, ::testing::ValuesIn(kLastBytes),
                         [](const auto& parameter) { return parameter.param.name; });

// A client that reads while it writes.
TEST_P(LastBytesTest, ArriveWhileMoreIsSent) {
  constexpr size_t kBody = 100000;
  listen();
  GetParam().prepare(*this, kBody);
  TraceCapture trace;
  WireClient client(address());
  client.send(std::string(GetParam().request) + std::string(4 << 20, 'x'));
  ASSERT_TRUE(until([&] { return client.ended(); }));
  const auto replies = takeReplies(client.received());
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].status(), GetParam().status);
  EXPECT_TRUE(replies[0].body == pattern(kBody)) << replies[0].body.size();
  EXPECT_EQ(http().connectionCount, 0);
}

// A client that writes all it has and only then looks for the reply.
TEST_P(LastBytesTest, ArriveAfterAllHasBeenSent) {
  constexpr size_t kBody = 10000;
  listen();
  GetParam().prepare(*this, kBody);
  TraceCapture trace;
  WireClient client(address());
  client.readAtMost(0);
  client.send(std::string(GetParam().request) + std::string(4 << 20, 'x'));
  ASSERT_TRUE(until([&] { return client.allSent(); }));
  settle();
  client.readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return client.ended(); }));
  const auto replies = takeReplies(client.received());
  ASSERT_EQ(replies.size(), 1u) << client.received().size();
  EXPECT_EQ(replies[0].status(), GetParam().status);
  EXPECT_TRUE(replies[0].body == pattern(kBody)) << replies[0].body.size();
}

// Input that nobody reads comes in small pieces, some of it after the end.
TEST_P(LastBytesTest, ArriveInGoodOrderWhenLittleIsUnread) {
  constexpr size_t kBody = 300000;
  listen();
  GetParam().prepare(*this, kBody);
  TraceCapture trace;
  WireClient client(address(), {.receiveBuffer = 4096});
  client.readAtMost(5000);
  client.send(std::string(GetParam().request) + std::string(1000, 'x'));
  ASSERT_TRUE(until([&] { return client.receivedCount() > 20000; }));
  client.send(std::string(1000, 'y'));
  client.readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_FALSE(client.wasReset());
  const auto replies = takeReplies(client.received());
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_TRUE(replies[0].body == pattern(kBody)) << replies[0].body.size();
}

class EndingTest : public WireServerTest {};

// The server ends while replies are on their way.
TEST_F(EndingTest, StoppedServerStillSendsAll) {
  listen();
  const std::string large = pattern(3000000);
  onRequest = [&](HttpRequest*, HttpReply* reply) {
    http_serverStop(&http());
    return replyText(reply, 200, large);
  };
  WireClient client(address(), {.receiveBuffer = 4096});
  client.readAtMost(20000);
  client.send("GET /a HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_TRUE(client.received() == okReply(large)) << client.received().size();
  EXPECT_EQ(calls.back(), "stopped");
}

// A chunked reply that was begun and not completed lacks its last chunk, whoever ended the connection.
struct BegunCase {
  const char* name;
  std::function<void(WireClient&, HttpRequest*)> end;
  bool fails = false;  // the request handler does
};
void PrintTo(const BegunCase& row, std::ostream* out) { *out << row.name; }
const BegunCase kBegun[] = {
    {"DestroyedByTheApplication", [](WireClient&, HttpRequest* request) { peer_destroy(http_requestPeer(request)); }},
    {"ClosedByTheApplication", [](WireClient&, HttpRequest* request) { peer_close(http_requestPeer(request)); }},
    {"FinishedByTheClient", [](WireClient& client, HttpRequest*) { client.finish(); }},
    {"RefusedByTheHandler", [](WireClient&, HttpRequest*) {}, true},
};
class BegunTest : public WireServerTest, public ::testing::WithParamInterface<BegunCase> {};
INSTANTIATE_TEST_SUITE_P(Ending, BegunTest, ::testing::ValuesIn(kBegun),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(BegunTest, ReplyDoesNotLookComplete) {
  listen();
  HttpRequest* begun = nullptr;
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    http_replyStatusCodeSet(reply, 200, nullptr);
    http_replyHeaderValueSet(reply, "Transfer-Encoding", "chunked");
    http_replySend(reply);
    FILE* stream = http_replyBody(reply);
    EXPECT_GE(fputs("begun", stream), 0);
    EXPECT_EQ(fflush(stream), 0);
    begun = request;
    return GetParam().fails ? -1 : 0;
  };
  TraceCapture trace;
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  const std::string part = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nbegun\r\n";
  ASSERT_TRUE(until([&] { return client.received().size() >= part.size(); })) << client.received();
  GetParam().end(client, begun);
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), part);
  EXPECT_EQ(http().connectionCount, 0);
}

// --- a body that the application does not read to its end ------------------------------------------------------------

constexpr std::string_view kSmuggled = "GET /smuggled HTTP/1.1\r\nHost: x\r\n\r\n";

int closeTheBody(WireServerTest&, HttpRequest*, HttpReply* reply, FILE* stream) {
  std::array<char, 4> some;
  EXPECT_EQ(fread(some.data(), 1, some.size(), stream), some.size());
  EXPECT_EQ(fclose(stream), 0);
  return replyText(reply, 200, "early");
}
int closeTheBodyUnread(WireServerTest&, HttpRequest*, HttpReply* reply, FILE* stream) {
  EXPECT_EQ(fclose(stream), 0);
  return replyText(reply, 200, "early");
}
int completeTheRequest(WireServerTest&, HttpRequest* request, HttpReply* reply, FILE*) {
  EXPECT_EQ(http_requestDone(request), 0);
  return replyText(reply, 200, "early");
}
int answerAndClose(WireServerTest&, HttpRequest*, HttpReply* reply, FILE* stream) {
  EXPECT_EQ(replyText(reply, 200, "early"), 0);
  EXPECT_EQ(fclose(stream), 0);
  return 0;
}

std::string smugglingBody(size_t before) {
  return std::string(before, 'b') + std::string(kSmuggled) + std::string(kSmuggled);
}
std::string lengthHead(const std::string& body) {
  return "POST /a HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
}

struct EarlyWay {
  const char* name;
  int (*onBody)(WireServerTest&, HttpRequest*, HttpReply*, FILE*);
};
void PrintTo(const EarlyWay& row, std::ostream* out) { *out << row.name; }
constexpr EarlyWay kEarlyWays[] = {
    {"BodyClosed", closeTheBody},
    {"BodyClosedUnread", closeTheBodyUnread},
    {"RequestCompleted", completeTheRequest},
    {"AnsweredFirst", answerAndClose},
};
class EarlyTest : public WireServerTest, public ::testing::WithParamInterface<EarlyWay> {
 protected:
  // The body comes with the head, behind it, or in two parts; a whole request follows it.
  void expectNothingSmuggled(const std::string& head, const std::string& content) {
    listen();
    onBody = [this](HttpRequest* request, HttpReply* reply, FILE* stream) {
      return GetParam().onBody(*this, request, reply, stream);
    };
    onRequest = [](HttpRequest* request, HttpReply* reply) {
      return http_requestHasBody(request) ? 0 : replyText(reply, 200, http_requestPath(request));
    };
    TraceCapture trace;
    for (const size_t cut : {head.size() + 8, head.size() + content.size() / 2, head.size() + content.size()}) {
      SCOPED_TRACE("cut at octet " + std::to_string(cut));
      calls.clear();
      const std::string wire = head + content;
      WireClient client(address());
      client.send(wire.substr(0, cut));
      settle();
      client.send(wire.substr(cut)).send("GET /next HTTP/1.1\r\nConnection: close\r\n\r\n");
      client.finish();
      ASSERT_TRUE(until([&] { return client.ended() && http().connectionCount == 0; }));
      EXPECT_EQ(callsOf("request GET /smuggled"), 0u);
      // Either the rest was skipped and the next request served, or the connection has ended.
      const bool served = callsOf("request GET /next") > 0;
      EXPECT_EQ(client.received(), okReply("early") + (served ? okReply("/next") : ""));
      EXPECT_EQ(callsOf("request"), served ? 2u : 1u);
    }
  }
};
INSTANTIATE_TEST_SUITE_P(Ending, EarlyTest, ::testing::ValuesIn(kEarlyWays),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(EarlyTest, SmallBodyWithALength) {
  const std::string content = smugglingBody(20);
  expectNothingSmuggled(lengthHead(content), content);
}
TEST_P(EarlyTest, BodyOfMoreThanABlock) {
  const std::string content = smugglingBody(4096) + smugglingBody(8192);
  expectNothingSmuggled(lengthHead(content), content);
}
TEST_P(EarlyTest, LargeBody) {
  const std::string content = smugglingBody(200000);
  expectNothingSmuggled(lengthHead(content), content);
}
TEST_P(EarlyTest, BodyOfWholeBlocks) {  // what is left over is a whole number of requests
  std::string content;
  while (content.size() < 4096 * kSmuggled.size()) content += kSmuggled;
  expectNothingSmuggled(lengthHead(content), content);
}
TEST_P(EarlyTest, ChunkedBody) {
  expectNothingSmuggled("POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n", chunked(smugglingBody(20)));
}
TEST_P(EarlyTest, ChunkedBodyOfManyChunks) {
  expectNothingSmuggled("POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n",
                        chunked(smugglingBody(10) + smugglingBody(20000), kSmuggled.size()));
}
TEST_P(EarlyTest, MultipartBody) {
  const std::string content = smugglingBody(20);
  expectNothingSmuggled("POST /a HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=b\r\nContent-Length: " +
                            std::to_string(content.size()) + "\r\n\r\n",
                        content);
}

// A body that was read to its end before it was closed leaves the connection as it is.
TEST_F(EndingTest, BodyReadToItsEndAndClosedByTheApplicationKeepsTheConnection) {
  listen();
  onBody = [](HttpRequest* request, HttpReply* reply, FILE* stream) {
    readBody(stream);
    if (http_requestState(request) != HTTP_MSG_DONE) return 0;
    EXPECT_EQ(fclose(stream), 0);
    return replyText(reply, 200, "read");
  };
  WireClient client(address());
  for (int i = 0; i < 3; ++i) {
    client.send("POST /a HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello");
    client.send("POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n");
  }
  std::string expected;
  for (int i = 0; i < 6; ++i) expected += okReply("read");
  ASSERT_TRUE(until([&] { return client.received() == expected; })) << client.received();
  EXPECT_FALSE(client.ended());
}

// What has left is not the whole reply, and no event comes any more.
TEST_F(EndingTest, ReplyThatFailsAfterItsHeadHasLeftEndsTheConnection) {
  listen();
  onRequest = [this](HttpRequest*, HttpReply* reply) {
    http_replyStatusCodeSet(reply, 200, nullptr);
    http_replyHeaderValueSet(reply, "Transfer-Encoding", "gzip");
    EXPECT_EQ(http_replySend(reply), 0);
    later(50, [reply] {
      EXPECT_EQ(http_replyBody(reply), nullptr);
      EXPECT_EQ(http_replyDone(reply), 0);
    });
    return 0;
  };
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\n");
  EXPECT_EQ(callsOf("done"), 1u);
}

}  // namespace
