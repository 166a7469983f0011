// What handlers may do: be missing, end their own connection, stop the server, answer later.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_server.h"

namespace {

using Calls = std::vector<std::string>;

struct WireCase {
  const char* name;
  std::string_view wire;
};
void PrintTo(const WireCase& row, std::ostream* out) { *out << row.name; }
constexpr WireCase kWires[] = {
    {"Get", "GET /a HTTP/1.1\r\nHost: x\r\n\r\n"},
    {"GetClose", "GET /a HTTP/1.1\r\nConnection: close\r\n\r\n"},
    {"Get10", "GET /a HTTP/1.0\r\n\r\n"},
    {"PostLength", "POST /a HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello"},
    {"PostChunked", "POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"},
    {"PostShort", "POST /a HTTP/1.1\r\nContent-Length: 50\r\n\r\nhello"},
    {"PostUntilClose", "POST /a HTTP/1.1\r\n\r\nhello"},
    {"TwoGets", "GET /a HTTP/1.1\r\n\r\nGET /b HTTP/1.1\r\n\r\n"},
    {"PartOfAHead", "GET /a HTTP/1.1\r\nHo"},
    {"Refused", "PATCH /a HTTP/1.1\r\n\r\n"},
    {"RefusedHeader", "GET /a HTTP/1.1\r\nHost\r\n\r\n"},
    {"MalformedBody", "POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n"},
};

// --- handlers that are missing ---------------------------------------------------------------------------------------

class MissingHandlerTest : public WireServerTest, public ::testing::WithParamInterface<WireCase> {
 protected:
  // Runs the request with the handlers as they are, the client leaving in the given way.
  void run(const std::function<void(WireClient&)>& leave) {
    WireClient client(address());
    client.send(GetParam().wire);
    settle();
    leave(client);
    EXPECT_TRUE(until([&] { return http().connectionCount == 0; }));
    settle();
  }
};
INSTANTIATE_TEST_SUITE_P(Handlers, MissingHandlerTest, ::testing::ValuesIn(kWires),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(MissingHandlerTest, NothingBreaks) {
  constexpr int kHandlers = 4;
  listen();
  TraceCapture trace;
  for (unsigned missing = 1; missing < 1u << kHandlers; ++missing) {
    if (HasFailure()) break;
    SCOPED_TRACE("missing " + std::to_string(missing));
    const HttpServer before = http();
    if (missing & 1) http().requestHandler = nullptr;
    if (missing & 2) http().bodyHandler = nullptr;
    if (missing & 4) http().replyDoneHandler = nullptr;
    if (missing & 8) http().errorHandler = nullptr;
    run([](WireClient& client) { client.finish(); });
    run([](WireClient& client) { client.leave(); });
    run([](WireClient& client) { client.reset(); });
    http().requestHandler = before.requestHandler;
    http().bodyHandler = before.bodyHandler;
    http().replyDoneHandler = before.replyDoneHandler;
    http().errorHandler = before.errorHandler;
  }
}

TEST_P(MissingHandlerTest, NothingBreaksWhileTheReplyIsAwaited) {
  listen();
  onRequest = [](HttpRequest*, HttpReply*) { return 0; };
  onBody = [](HttpRequest*, HttpReply*, FILE* stream) {
    readBody(stream);
    return ferror(stream) && errno != EAGAIN ? -1 : 0;
  };
  http().replyDoneHandler = nullptr;
  http().errorHandler = nullptr;
  TraceCapture trace;
  run([](WireClient& client) { client.reset(); });
}

class HandlerTest : public WireServerTest {};

TEST_F(HandlerTest, BodyWithoutABodyHandlerIsReadAndDropped) {
  listen();
  http().bodyHandler = nullptr;
  onRequest = [](HttpRequest* request, HttpReply* reply) { return replyText(reply, 200, http_requestPath(request)); };
  const std::string large = pattern(300000);
  WireClient client(address());
  client.send("POST /1 HTTP/1.1\r\nContent-Length: " + std::to_string(large.size()) + "\r\n\r\n" + large)
      .send("POST /2 HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked(large, 777))
      .send("GET /3 HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.received() == okReply("/1") + okReply("/2") + okReply("/3"); }))
      << client.received();
}

TEST_F(HandlerTest, RequestIsAnsweredWithoutAReplyDoneHandler) {
  listen();
  http().replyDoneHandler = nullptr;
  WireClient client(address());
  client.send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), okReply("/1") + okReply("/2"));
}

// --- handlers that end their connection ------------------------------------------------------------------------------

enum class In { Request, Body, ReplyDone, Error };
enum class How { Destroy, Close, DestroyAndFail, AnswerAndDestroy };
struct EndCase {
  const char* name;
  In in;
  How how;
  Calls calls;
  std::string_view wire;
  std::string_view received;
};
void PrintTo(const EndCase& row, std::ostream* out) { *out << row.name; }
const std::string_view kPost = "POST /a HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello";
const std::string_view kTwo = "GET /a HTTP/1.1\r\n\r\nGET /b HTTP/1.1\r\n\r\n";
const std::string_view kReplyA = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n/a";
const EndCase kEnds[] = {
    {"RequestDestroys", In::Request, How::Destroy, {"request GET /a", "error"}, kTwo, ""},
    {"RequestCloses", In::Request, How::Close, {"request GET /a", "error"}, kTwo, ""},
    {"RequestDestroysAndFails", In::Request, How::DestroyAndFail, {"request GET /a", "error"}, kTwo, ""},
    {"RequestAnswersAndDestroys", In::Request, How::AnswerAndDestroy, {"request GET /a", "error"}, kTwo, kReplyA},
    {"RequestWithBodyDestroys", In::Request, How::Destroy, {"request POST /a", "error"}, kPost, ""},
    {"RequestWithBodyAnswersAndDestroys",
     In::Request,
     How::AnswerAndDestroy,
     {"request POST /a", "error"},
     kPost,
     kReplyA},
    {"BodyDestroys", In::Body, How::Destroy, {"request POST /a", "body", "error"}, kPost, ""},
    {"BodyCloses", In::Body, How::Close, {"request POST /a", "body", "error"}, kPost, ""},
    {"BodyDestroysAndFails", In::Body, How::DestroyAndFail, {"request POST /a", "body", "error"}, kPost, ""},
    {"BodyAnswersAndDestroys", In::Body, How::AnswerAndDestroy, {"request POST /a", "body", "error"}, kPost, kReplyA},
    {"ReplyDoneDestroys", In::ReplyDone, How::Destroy, {"request GET /a", "done 200"}, kTwo, kReplyA},
    {"ReplyDoneCloses", In::ReplyDone, How::Close, {"request GET /a", "done 200"}, kTwo, kReplyA},
    {"ErrorDestroys", In::Error, How::Destroy, {"error"}, "GET /a HTTP/1.1\r\nHost\r\n\r\n", ""},
    {"ErrorCloses", In::Error, How::Close, {"error"}, "PATCH /a HTTP/1.1\r\n\r\n", ""},
};
class EndTest : public WireServerTest, public ::testing::WithParamInterface<EndCase> {
 protected:
  int end(HttpMessage* message) {
    HttpReply* reply = &static_cast<HttpServerConnection*>(peer_userData(message->peer))->reply;
    if (GetParam().how == How::AnswerAndDestroy) replyText(reply, 200, "/a");
    if (GetParam().how == How::Close) {
      peer_close(message->peer);
    } else {
      peer_destroy(message->peer);
    }
    return GetParam().how == How::DestroyAndFail ? -1 : 0;
  }
};
INSTANTIATE_TEST_SUITE_P(Handlers, EndTest, ::testing::ValuesIn(kEnds),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(EndTest, OwnConnection) {
  const EndCase& row = GetParam();
  listen();
  const In in = row.in;
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    if (in == In::Request) return end(&request->message);
    return http_requestHasBody(request) ? 0 : replyText(reply, 200, "/a");
  };
  onBody = [&](HttpRequest* request, HttpReply*, FILE* stream) {
    if (in == In::Body) return end(&request->message);
    readBody(stream);
    return 0;
  };
  onReplyDone = [&](HttpReply*, HttpRequest* request) {
    if (in == In::ReplyDone) end(&request->message);
  };
  onError = [&](HttpRequest* request, HttpReply*) {
    if (in == In::Error) end(&request->message);
  };
  TraceCapture trace;
  WireClient client(address());
  client.send(row.wire);
  ASSERT_TRUE(until([&] { return client.ended(); }));
  settle();
  EXPECT_EQ(calls, row.calls);
  EXPECT_EQ(client.received(), row.received);
  EXPECT_EQ(http().connectionCount, 0);
}

TEST_F(HandlerTest, ConnectionEndedFromATimerWhileTheReplyIsAwaited) {
  listen();
  onRequest = [&](HttpRequest* request, HttpReply*) {
    later(1, [request] { peer_destroy(http_requestPeer(request)); });
    return 0;
  };
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(calls, (Calls{"request GET /a", "done 0"}));
}

TEST_F(HandlerTest, HandlerEndsAnotherConnection) {
  listen();
  ZelPeer* other = nullptr;
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    if (other == nullptr) {
      other = http_requestPeer(request);
      return 0;
    }
    peer_destroy(other);
    return replyText(reply, 200, "ended");
  };
  WireClient first(address());
  first.send("GET /a HTTP/1.1\r\n\r\n");
  settle();
  WireClient second(address());
  second.send("GET /b HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return first.ended() && second.received() == okReply("ended"); }));
  EXPECT_EQ(calls, (Calls{"request GET /a", "request GET /b", "done 0", "done 200"}));
  EXPECT_EQ(http().connectionCount, 1);
}

// --- handlers that stop the server -----------------------------------------------------------------------------------

struct StopCase {
  const char* name;
  In in;
  std::string_view wire;
  std::string_view received;
  Calls calls;
};
void PrintTo(const StopCase& row, std::ostream* out) { *out << row.name; }
const StopCase kStops[] = {
    {"Request", In::Request, kTwo, kReplyA, {"request GET /a", "done 200", "stopped"}},
    {"Body", In::Body, kPost, kReplyA, {"request POST /a", "body", "done 200", "stopped"}},
    {"ReplyDone", In::ReplyDone, kTwo, kReplyA, {"request GET /a", "done 200", "stopped"}},
    {"Error", In::Error, "GET /a HTTP/1.1\r\nHost\r\n\r\n", "", {"error", "stopped"}},
};
class StopTest : public WireServerTest, public ::testing::WithParamInterface<StopCase> {};
INSTANTIATE_TEST_SUITE_P(Handlers, StopTest, ::testing::ValuesIn(kStops),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(StopTest, FromInsideAHandler) {
  const StopCase& row = GetParam();
  listen();
  const auto stopIn = [&](In here) {
    if (row.in == here) http_serverStop(&http());
  };
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    stopIn(In::Request);
    return http_requestHasBody(request) ? 0 : replyText(reply, 200, "/a");
  };
  onBody = [&](HttpRequest*, HttpReply* reply, FILE* stream) {
    stopIn(In::Body);
    readBody(stream);
    return replyText(reply, 200, "/a");
  };
  onReplyDone = [&](HttpReply*, HttpRequest*) { stopIn(In::ReplyDone); };
  onError = [&](HttpRequest*, HttpReply*) { stopIn(In::Error); };
  TraceCapture trace;
  WireClient client(address());
  client.send(row.wire);
  ASSERT_TRUE(until([&] { return client.ended() && callsOf("stopped") > 0; }));
  settle();
  EXPECT_EQ(calls, row.calls);
  EXPECT_EQ(client.received(), row.received);
}

TEST_F(HandlerTest, StoppedHandlerMayStopAgain) {
  listen();
  onStopped = [&] { http_serverStop(&http()); };
  http_serverStop(&http());
  settle();
  EXPECT_EQ(calls, (Calls{"stopped"}));
}

TEST_F(HandlerTest, StoppedHandlerMayFreeTheServer) {
  static bool freed;
  freed = false;
  auto* own = static_cast<HttpServer*>(calloc(1, sizeof(HttpServer)));
  own->peer = connection_listenOnTCP(connection(), "127.0.0.1", "0");
  const WireAddress at = WireAddress::tcp(peer_localPort(own->peer));
  own->requestHandler = [](HttpRequest* request, HttpReply* reply) {
    http_serverStop(static_cast<HttpServer*>(http_requestOwner(request)));
    return replyText(reply, 200, "bye");
  };
  own->stoppedHandler = [](HttpServer* server) {
    free(server);
    freed = true;
  };
  ASSERT_EQ(http_serverStart(own), 0);
  WireClient client(at);
  client.send("GET / HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended() && freed; }));
  EXPECT_EQ(client.received(), okReply("bye"));
  settle();
}

// --- replies that come later -----------------------------------------------------------------------------------------

class LateTest : public WireServerTest {
 protected:
  // Runs each step from a timer of its own; all that a step writes has left before the next.
  void inSteps(std::vector<std::function<void(HttpRequest*, HttpReply*)>> steps) {
    steps_ = std::move(steps);
    onRequest = [this](HttpRequest* request, HttpReply* reply) {
      if (std::string_view(http_requestPath(request)) != "/late")
        return replyText(reply, 200, http_requestPath(request));
      next(0, request, reply);
      return 0;
    };
    listen();
  }

 private:
  void next(size_t step, HttpRequest* request, HttpReply* reply) {
    if (step == steps_.size()) return;
    later(5, [this, step, request, reply] {
      steps_[step](request, reply);
      next(step + 1, request, reply);
    });
  }
  std::vector<std::function<void(HttpRequest*, HttpReply*)>> steps_;
};

// Writes to the body and sends it off.
void put(HttpReply* reply, std::string_view bytes) {
  FILE* stream = http_replyBody(reply);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(fwrite(bytes.data(), 1, bytes.size(), stream), bytes.size());
  EXPECT_EQ(fflush(stream), 0);
}
void sendHead(HttpReply* reply, const char* name, const char* value) {
  EXPECT_EQ(http_replyStatusCodeSet(reply, 200, nullptr), 0);
  EXPECT_EQ(http_replyHeaderValueSet(reply, name, "%s", value), 0);
  EXPECT_EQ(http_replySend(reply), 0);
}
constexpr std::string_view kLateThenNext = "GET /late HTTP/1.1\r\n\r\nGET /next HTTP/1.1\r\n\r\n";

TEST_F(LateTest, WholeReply) {
  inSteps({[](HttpRequest*, HttpReply* reply) { replyText(reply, 200, "late"); }});
  WireClient client(address());
  client.send(kLateThenNext);
  ASSERT_TRUE(until([&] { return client.received() == okReply("late") + okReply("/next"); })) << client.received();
  settle();
  EXPECT_EQ(calls, (Calls{"request GET /late", "done 200", "request GET /next", "done 200"}));
}

TEST_F(LateTest, CannedReply) {
  inSteps({[](HttpRequest*, HttpReply* reply) { http_replyWithDefault(reply, 404); }});
  WireClient client(address());
  client.send(kLateThenNext);
  ASSERT_TRUE(until([&] { return client.received() == cannedReply(404, "Not Found") + okReply("/next"); }))
      << client.received();
}

TEST_F(LateTest, ContentLengthInPieces) {
  inSteps({[](HttpRequest*, HttpReply* reply) { sendHead(reply, "Content-Length", "11"); },
           [](HttpRequest*, HttpReply* reply) { put(reply, "hello"); },
           [](HttpRequest*, HttpReply* reply) { put(reply, " wor"); },
           [](HttpRequest*, HttpReply* reply) {
             put(reply, "ld");
             http_replyDone(reply);
           }});
  WireClient client(address());
  client.send(kLateThenNext);
  ASSERT_TRUE(until([&] { return client.received() == okReply("hello world") + okReply("/next"); }))
      << client.received();
  settle();
  EXPECT_EQ(calls, (Calls{"request GET /late", "done 200", "request GET /next", "done 200"}));
}

TEST_F(LateTest, ChunkedInPieces) {
  inSteps({[](HttpRequest*, HttpReply* reply) { sendHead(reply, "Transfer-Encoding", "chunked"); },
           [](HttpRequest*, HttpReply* reply) { put(reply, "hello"); },
           [](HttpRequest*, HttpReply* reply) { put(reply, " world"); },
           [](HttpRequest*, HttpReply* reply) { http_replyDone(reply); }});
  WireClient client(address());
  client.send(kLateThenNext);
  const std::string expected =
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n" + okReply("/next");
  ASSERT_TRUE(until([&] { return client.received() == expected; })) << client.received();
  settle();
  EXPECT_EQ(callsOf("done"), 2u);
}

TEST_F(LateTest, UntilCloseInPieces) {
  inSteps({[](HttpRequest*, HttpReply* reply) { sendHead(reply, "Connection", "close"); },
           [](HttpRequest*, HttpReply* reply) { put(reply, "hello"); },
           [](HttpRequest*, HttpReply* reply) {
             put(reply, " world");
             http_replyDone(reply);
           }});
  WireClient client(address());
  client.send("GET /late HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); })) << client.received();
  EXPECT_EQ(client.received(), "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nhello world");
  EXPECT_EQ(calls, (Calls{"request GET /late", "done 200"}));
}

// The last byte has left long before the reply is declared complete: no output tells the server of it.
TEST_F(LateTest, UntilCloseWithTheLastByteLongGone) {
  inSteps({[](HttpRequest*, HttpReply* reply) { sendHead(reply, "Connection", "close"); },
           [](HttpRequest*, HttpReply* reply) { put(reply, "hello world"); },
           [](HttpRequest*, HttpReply* reply) { EXPECT_EQ(peer_bytesQueued(http_replyPeer(reply)), 0u); },
           [](HttpRequest*, HttpReply* reply) { EXPECT_EQ(http_replyDone(reply), 0); }});
  WireClient client(address());
  client.send("GET /late HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); })) << client.received();
  EXPECT_EQ(client.received(), "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nhello world");
  EXPECT_EQ(calls, (Calls{"request GET /late", "done 200"}));
}

TEST_F(LateTest, HeadOnlyWithTheLastByteLongGone) {
  inSteps({[](HttpRequest*, HttpReply* reply) { sendHead(reply, "Content-Length", "0"); },
           [](HttpRequest*, HttpReply* reply) { EXPECT_EQ(http_replyDone(reply), 0); }});
  WireClient client(address());
  client.send(kLateThenNext);
  ASSERT_TRUE(until([&] { return client.received() == okReply("") + okReply("/next"); })) << client.received();
  settle();
  EXPECT_EQ(callsOf("done"), 2u);
}

TEST_F(LateTest, LargeReplyInPiecesToASlowReader) {
  const std::string piece = pattern(200000);
  std::vector<std::function<void(HttpRequest*, HttpReply*)>> steps = {
      [](HttpRequest*, HttpReply* reply) { sendHead(reply, "Transfer-Encoding", "chunked"); }};
  for (int i = 0; i < 20; ++i) steps.push_back([&](HttpRequest*, HttpReply* reply) { put(reply, piece); });
  steps.push_back([](HttpRequest*, HttpReply* reply) { http_replyDone(reply); });
  inSteps(steps);
  WireClient client(address(), {.receiveBuffer = 8192});
  client.readAtMost(30000);
  client.send(kLateThenNext);
  std::vector<WireReply> replies;
  ASSERT_TRUE(until([&] {
    return client.receivedCount() > 20 * piece.size() && (replies = takeReplies(client.received())).size() == 2 &&
           replies[1].statusLine != "leftover";
  }));
  std::string expected;
  for (int i = 0; i < 20; ++i) expected += piece;
  EXPECT_TRUE(replies[0].body == expected);
  EXPECT_EQ(replies[1].wire, okReply("/next"));
}

// Request with a body whose reply begins before the body has come, and ends after it.
TEST_F(LateTest, ReplyBeginsBeforeTheBodyHasCome) {
  listen();
  HttpReply* begun = nullptr;
  onRequest = [&](HttpRequest*, HttpReply* reply) {
    sendHead(reply, "Transfer-Encoding", "chunked");
    put(reply, "begun");
    begun = reply;
    return 0;
  };
  onBody = [](HttpRequest*, HttpReply*, FILE* stream) {
    readBody(stream);
    return 0;
  };
  const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nbegun\r\n";
  WireClient client(address());
  client.send("POST /a HTTP/1.1\r\nContent-Length: 5\r\n\r\nhe");
  ASSERT_TRUE(until([&] { return client.received() == head; })) << client.received();
  client.send("llo");
  settle();
  EXPECT_EQ(callsOf("done"), 0u);
  ASSERT_NE(begun, nullptr);
  put(begun, "ended");
  EXPECT_EQ(http_replyDone(begun), 0);
  ASSERT_TRUE(until([&] { return client.received() == head + "5\r\nended\r\n0\r\n\r\n"; })) << client.received();
  settle();
  EXPECT_EQ(callsOf("done"), 1u);
}

// --- handlers of bodies ----------------------------------------------------------------------------------------------

struct CatchUpCase {
  const char* name;
  std::string headers;
};
void PrintTo(const CatchUpCase& row, std::ostream* out) { *out << row.name; }
const CatchUpCase kCatchUps[] = {
    {"Length", "Content-Length: 100010\r\n\r\n"},
    {"Multipart", "Content-Type: multipart/x\r\nContent-Length: 100010\r\n\r\n"},
    {"Chunked", "Transfer-Encoding: chunked\r\n\r\n186AA\r\n"},
};
class CatchUpTest : public WireServerTest, public ::testing::WithParamInterface<CatchUpCase> {};
INSTANTIATE_TEST_SUITE_P(Handlers, CatchUpTest, ::testing::ValuesIn(kCatchUps),
                         [](const auto& parameter) { return parameter.param.name; });

// What a read did not find was there at the next one. A handler that is called again is told of its own reads only, and
// may leave what is there for later.
TEST_P(CatchUpTest, LeavesNoErrorToTheNextCall) {
  const std::string middle = pattern(100000);
  listen();
  TraceCapture trace;
  WireClient client(address());
  int bodyCalls = 0;
  bool reads = false;
  onBody = [&](HttpRequest* request, HttpReply* reply, FILE* stream) {
    EXPECT_EQ(ferror(stream), 0) << "call " << bodyCalls;
    if (++bodyCalls == 1) {
      body += readBody(stream);
      EXPECT_NE(ferror(stream), 0);
      client.send(middle);
      WireClient::pumpAll();
      EXPECT_TRUE(awaitInput(http_requestPeer(request)));
      body += static_cast<char>(fgetc(stream));
    }
    if (reads) body += readBody(stream);
    return http_requestState(request) == HTTP_MSG_DONE ? replyText(reply, 200, "all") : 0;
  };
  client.send("POST /a HTTP/1.1\r\n" + GetParam().headers + "12345");
  ASSERT_TRUE(until([&] { return bodyCalls > 2; }));
  EXPECT_EQ(body.size(), 6u);
  reads = true;
  client.send("67890\r\n0\r\n\r\n");
  EXPECT_TRUE(until([&] { return client.received().starts_with(okReply("all")); })) << client.received();
  EXPECT_TRUE(body == "12345" + middle + "67890");
}

// --- clients that vanish while the reply is being produced -----------------------------------------------------------

struct VanishCase {
  const char* name;
  const char* header;
  const char* value;
  bool resets;
};
void PrintTo(const VanishCase& row, std::ostream* out) { *out << row.name; }
constexpr VanishCase kVanishes[] = {
    {"LengthLeaves", "Content-Length", "10000000", false},
    {"LengthResets", "Content-Length", "10000000", true},
    {"ChunkedLeaves", "Transfer-Encoding", "chunked", false},
    {"ChunkedResets", "Transfer-Encoding", "chunked", true},
    {"CloseLeaves", "Connection", "close", false},
    {"CloseResets", "Connection", "close", true},
};
class VanishTest : public WireServerTest, public ::testing::WithParamInterface<VanishCase> {};
INSTANTIATE_TEST_SUITE_P(Handlers, VanishTest, ::testing::ValuesIn(kVanishes),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(VanishTest, ReplyDoneHandlerEndsTheProduction) {
  const VanishCase& row = GetParam();
  listen();
  const std::string piece = pattern(10000);
  bool producing = false;
  int pieces = 0;
  std::function<void(HttpReply*)> produce = [&](HttpReply* reply) {
    if (!producing) return;
    if (FILE* stream = http_replyBody(reply)) fwrite(piece.data(), 1, piece.size(), stream);
    if (++pieces < 900) later(0, [&, reply] { produce(reply); });
  };
  onRequest = [&](HttpRequest*, HttpReply* reply) {
    sendHead(reply, row.header, row.value);
    producing = true;
    later(0, [&, reply] { produce(reply); });
    return 0;
  };
  onReplyDone = [&](HttpReply*, HttpRequest*) { producing = false; };
  TraceCapture trace;
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.receivedCount() > 50000; }));
  if (row.resets) {
    client.reset();
  } else {
    client.leave();
  }
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  settle();
  EXPECT_EQ(calls, (Calls{"request GET /a", "done 200"}));
  EXPECT_FALSE(producing);
  EXPECT_LT(pieces, 900);
  WireClient next(address());
  onRequest = nullptr;
  next.send("GET /b HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(until([&] { return next.received() == okReply("/b"); }));
}

}  // namespace
