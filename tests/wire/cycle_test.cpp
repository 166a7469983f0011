// The cycle of a server connection: which handlers run, what is traced and in which order, what is on the wire.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <sys/resource.h>

#include <array>
#include <limits>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_server.h"
#include "support/wire_traces.h"

namespace {

using Calls = std::vector<std::string>;

constexpr std::string_view kGet = "GET /a HTTP/1.1\r\nHost: x\r\n\r\n";

class CycleTest : public WireServerTest {
 protected:
  // Sends bytes and waits for as many replies.
  std::vector<WireReply> exchange(WireClient& client, std::string_view bytes, size_t replies = 1) {
    client.take();
    client.send(bytes);
    EXPECT_TRUE(until([&] { return takeReplies(client.received(), client.ended()).size() >= replies; }));
    settle();
    return takeReplies(client.received(), client.ended());
  }
};

// --- traces and states -----------------------------------------------------------------------------------------------

TEST_F(CycleTest, GetThatIsKeptAliveAndLeft) {
  listen();
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send(kGet);
  ASSERT_TRUE(until([&] { return client.received() == okReply("/a"); })) << client.received();
  settle();
  client.leave();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));

  EXPECT_EQ(calls, (Calls{"request GET /a", "done 200"}));
  EXPECT_EQ(serverLines(trace), joined({accepted(), headRead(1), requestDone(okReply("/a").size(), 3), replyDone(),
                                        keptOpen(), closedByClient()}));
}

TEST_F(CycleTest, SecondRequestOnTheSameConnection) {
  listen();
  TraceCapture trace{"http-server"};
  WireClient client(address());
  exchange(client, kGet);
  trace.clear();
  exchange(client, "GET /b HTTP/1.1\r\nHost: x\r\nAccept: y\r\nX-Other: z\r\n\r\n");
  TraceLines lines = serverLines(trace);
  for (std::string& line : lines)
    if (const size_t at = line.find(" ("); at != std::string::npos && line.back() == ')') line.replace(at, 99, " (#)");

  EXPECT_EQ(calls, (Calls{"request GET /a", "done 200", "request GET /b", "done 200"}));
  EXPECT_EQ(client.received(), okReply("/b"));
  EXPECT_EQ(lines, joined({headRead(3), requestDone(okReply("/b").size(), 3), replyDone(), keptOpen()}));
  EXPECT_EQ(http().repliesSent, 2);
  EXPECT_EQ(http().connectionCount, 1);
}

struct BodyCase {
  const char* name;
  std::string wire;  // of the head and the body together
  int headers;
};
void PrintTo(const BodyCase& row, std::ostream* out) { *out << row.name; }
const BodyCase kBodies[] = {
    {"ContentLength", "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello", 2},
    {"Chunked", "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", 2},
    {"GetWithABody", "GET /a HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello", 1},
};
class BodyTest : public CycleTest, public ::testing::WithParamInterface<BodyCase> {};
INSTANTIATE_TEST_SUITE_P(Cycle, BodyTest, ::testing::ValuesIn(kBodies),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(BodyTest, WholeInOnePiece) {
  listen();
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send(GetParam().wire);
  ASSERT_TRUE(until([&] { return client.received() == okReply("hello"); })) << client.received();
  settle();

  const std::string method = GetParam().wire.substr(0, GetParam().wire.find(' '));
  EXPECT_EQ(calls, (Calls{"request " + method + " /a", "body", "done 200"}));
  EXPECT_EQ(serverLines(trace), joined({accepted(),
                                        headRead(GetParam().headers),
                                        {"[i]should handle body (#)", "[i]handled body state is now 3"},
                                        requestDone(okReply("hello").size(), 3),
                                        replyDone(),
                                        keptOpen()}));
}

TEST_P(BodyTest, HeadAndBodyInTwoPieces) {
  listen();
  TraceCapture trace{"http-server"};
  WireClient client(address());
  const size_t cut = GetParam().wire.find("\r\n\r\n") + 4;
  client.send(GetParam().wire.substr(0, cut));
  ASSERT_TRUE(until([&] { return !calls.empty(); }));
  settle();
  client.send(GetParam().wire.substr(cut));
  ASSERT_TRUE(until([&] { return client.received() == okReply("hello"); })) << client.received();
  settle();

  EXPECT_EQ(
      serverLines(trace),
      joined({accepted(),
              headRead(GetParam().headers),
              {"[i]should handle body (#)", "[i]handled body state is now 2", "[i]more data is needed"},
              {"[i]connection available for read (#)", "[i]should handle body (#)", "[i]handled body state is now 3"},
              requestDone(okReply("hello").size(), 3),
              replyDone(),
              keptOpen()}));
}

TEST_F(CycleTest, HeadInManyPieces) {
  listen();
  TraceCapture trace{"http-server"};
  WireClient client(address());
  for (const std::string_view piece : {"GET /", "a HTTP/1.1\r\nHo", "st: x\r\n", "\r\n"}) {
    client.send(piece);
    settle();
  }
  ASSERT_TRUE(until([&] { return client.received() == okReply("/a"); })) << client.received();
  settle();
  EXPECT_EQ(serverLines(trace),
            joined({accepted(),
                    {"[i]connection available for read (#)", switched("ACCEPTED", "RECEIVING_REQUEST"),
                     "[i]reading enveloppe (#)", "[i]more data is needed"},
                    {"[i]connection available for read (#)", "[i]reading enveloppe (#)", "[i]reading enveloppe (#)",
                     "[i]more data is needed"},
                    {"[i]connection available for read (#)", "[i]reading enveloppe (#)", "[i]reading enveloppe (#)",
                     "[i]more data is needed"},
                    {"[i]connection available for read (#)", "[i]reading enveloppe (#)"},
                    requestDone(okReply("/a").size(), 3),
                    replyDone(),
                    keptOpen()}));
}

// The reply is complete and has left before the request is: no event tells of its end any more.
TEST_F(CycleTest, ReplyThatHasLeftBeforeTheRequestIsDone) {
  listen();
  onRequest = [](HttpRequest*, HttpReply* reply) { return replyText(reply, 200, "early"); };
  onBody = [](HttpRequest*, HttpReply*, FILE* stream) {
    readBody(stream);
    return 0;
  };
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send("POST /a HTTP/1.1\r\nContent-Length: 5\r\n\r\n");
  settle();
  client.send("hello");
  ASSERT_TRUE(until([&] { return client.received() == okReply("early"); })) << client.received();
  settle();
  EXPECT_EQ(calls, (Calls{"request POST /a", "body", "body", "done 200"}));
  EXPECT_EQ(
      serverLines(trace),
      joined({accepted(),
              headRead(1),
              {"[i]should handle body (#)", "[i]handled body state is now 2", "[i]more data is needed"},
              {"[i]connection available for read (#)", "[i]should handle body (#)", "[i]handled body state is now 3"},
              requestDone(0, 3),
              {"[n]reply was already sent"},
              replyDone(),
              keptOpen()}));
}

// Broken invariants are told at the most severe level, and nothing else comes of them.
struct OwnerCase {
  const char* name;
  void (*tamper)(HttpRequest*, HttpReply*);
  TraceLines told;
};
void PrintTo(const OwnerCase& row, std::ostream* out) { *out << row.name; }
const char* const kReplyNotOwned = "[x0]reply is not owned by server";
const char* const kRequestNotOwned = "[x0]request is not owned by server";
const OwnerCase kOwners[] = {
    {"OwnersOfBothRight", [](HttpRequest*, HttpReply*) {}, {}},
    {"TypeOfTheReplyWrong",  // the check of the request looks at the reply's, too
     [](HttpRequest*, HttpReply* reply) { reply->message.ownerType = HTTP_MSG_OWNED_BY_CLIENT; },
     {kReplyNotOwned, kRequestNotOwned}},
    {"TypeOfTheRequestWrong",
     [](HttpRequest* request, HttpReply*) { request->message.ownerType = HTTP_MSG_OWNED_BY_CLIENT; },
     {}},
    {"OwnerOfTheRequestWrong",
     [](HttpRequest* request, HttpReply*) { request->message.owner = nullptr; },
     {kRequestNotOwned}},
};
class OwnerTest : public CycleTest, public ::testing::WithParamInterface<OwnerCase> {};
INSTANTIATE_TEST_SUITE_P(Cycle, OwnerTest, ::testing::ValuesIn(kOwners),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(OwnerTest, IsCheckedByEveryHandler) {
  listen();
  HttpRequest* tampered = nullptr;
  HttpReply* waiting = nullptr;
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    tampered = request;
    waiting = reply;
    return 0;
  };
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\nConnection: close\r\n\r\n");
  settle();
  ASSERT_NE(waiting, nullptr);
  GetParam().tamper(tampered, waiting);
  trace.clear();
  replyText(waiting, 200, "late");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), okReply("late"));
  TraceLines told;
  for (const std::string& line : serverLines(trace))
    if (line.rfind("[x", 0) == 0) told.push_back(line);
  EXPECT_EQ(told, joined({GetParam().told, GetParam().told}));  // output is empty, and closed
}

TEST_F(CycleTest, WrongStateIsToldAndCarriedOnWith) {
  listen();
  HttpReply* waiting = nullptr;
  onRequest = [&](HttpRequest*, HttpReply* reply) {
    waiting = reply;
    return 0;
  };
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send(kGet);
  settle();
  ASSERT_NE(waiting, nullptr);
  static_cast<HttpServerConnection*>(peer_userData(http_replyPeer(waiting)))->state = HTTP_SERVER_REQUEST_RECEIVED;
  replyText(waiting, 200, "late");
  ASSERT_TRUE(until([&] { return client.received() == okReply("late") && http().repliesSent == 1; }));
  EXPECT_EQ(trace.errors(), (TraceLines{"http-se[x]wrong server state: REQUEST_RECEIVED, should be SENDING_REPLY"}));
}

TEST_F(CycleTest, AcceptOnAUnixSocketTellsThatTcpOptionsDoNotHold) {
  listenLocally();
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send(kGet);
  ASSERT_TRUE(until([&] { return client.received() == okReply("/a"); })) << client.received();
  settle();
  EXPECT_EQ(serverLines(trace),
            joined({{"[n]accepting connection (#)", "[x]unable to enable TCP_NODELAY: Operation not supported",
                     "[x]unable to enable TCP_CORK: Operation not supported", switched("INIT", "ACCEPTED")},
                    headRead(1),
                    requestDone(okReply("/a").size(), 3),
                    replyDone(),
                    keptOpen()}));
}

TEST_F(CycleTest, TcpOptionsAreSetFromAcceptOn) {
  listen();
  int noDelay = 0;
  int cork = 0;
  int corkAfterReply = 0;
  const auto option = [](HttpRequest* request, int name) {
    int value = 0;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(peer_socket(http_requestPeer(request)), IPPROTO_TCP, name, &value, &length), 0);
    return value;
  };
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    noDelay = option(request, TCP_NODELAY);
    cork = option(request, TCP_CORK);
    return replyText(reply, 200, "");
  };
  onReplyDone = [&](HttpReply*, HttpRequest* request) { corkAfterReply = option(request, TCP_CORK); };
  WireClient client(address());
  exchange(client, kGet);
  EXPECT_NE(noDelay, 0);
  EXPECT_EQ(cork, 1);
  EXPECT_EQ(corkAfterReply, 1);
}

// --- keep or close ---------------------------------------------------------------------------------------------------

struct KeepCase {
  const char* name;
  const char* version;
  const char* requestHeaders;
  const char* replyConnection;  // nullptr for none
  bool keeps;
};
void PrintTo(const KeepCase& row, std::ostream* out) { *out << row.name; }
constexpr KeepCase kKeepCases[] = {
    {"Http11", "1.1", "", nullptr, true},
    {"Http11Close", "1.1", "Connection: close\r\n", nullptr, false},
    {"Http11CloseInAList", "1.1", "Connection: TE, close\r\n", nullptr, false},
    {"Http11KeepAlive", "1.1", "Connection: keep-alive\r\n", nullptr, true},
    {"Http11ReplyCloses", "1.1", "", "close", false},
    {"Http11ReplyKeepsAlive", "1.1", "", "keep-alive", true},
    {"Http11KeepAliveButReplyCloses", "1.1", "Connection: keep-alive\r\n", "close", false},
    {"Http10", "1.0", "", nullptr, false},
    {"Http10KeepAlive", "1.0", "Connection: keep-alive\r\n", nullptr, false},
    {"Http10ReplyKeepsAlive", "1.0", "Connection: keep-alive\r\n", "keep-alive", false},
    {"Http12", "1.2", "", nullptr, true},
    {"Http20", "2.0", "", nullptr, false},
};
class KeepTest : public CycleTest, public ::testing::WithParamInterface<KeepCase> {};
INSTANTIATE_TEST_SUITE_P(Cycle, KeepTest, ::testing::ValuesIn(kKeepCases),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KeepTest, KeepsOrCloses) {
  const KeepCase& row = GetParam();
  listen();
  std::vector<std::pair<std::string, std::string>> headers;
  std::string headerText;
  if (row.replyConnection != nullptr) {
    headers.emplace_back("Connection", row.replyConnection);
    headerText = std::string("Connection: ") + row.replyConnection + "\r\n";
  }
  onRequest = [&](HttpRequest*, HttpReply* reply) { return replyText(reply, 200, "hello", headers); };
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send("GET /a HTTP/" + std::string(row.version) + "\r\nHost: x\r\n" + row.requestHeaders + "\r\n");
  const std::string expected = textReply(200, "OK", "hello", row.version, headerText);
  ASSERT_TRUE(until([&] { return client.received() == expected && (row.keeps || client.ended()); }))
      << client.received();
  settle();
  EXPECT_EQ(client.ended(), !row.keeps);
  EXPECT_FALSE(client.wasReset());
  EXPECT_EQ(calls, (Calls{"request GET /a", "done 200"}));
  EXPECT_EQ(serverLines(trace),
            joined({accepted(), headRead(*row.requestHeaders != 0 ? 2 : 1), requestDone(expected.size(), 3),
                    replyDone(), row.keeps ? keptOpen() : closedByServer()}));
  EXPECT_EQ(http().connectionCount, row.keeps ? 1 : 0);
}

// --- pipelining ------------------------------------------------------------------------------------------------------

TEST_F(CycleTest, PipelinedRequestWaitsForTheReply) {
  listen();
  TraceCapture trace{"http-server"};
  HttpReply* waiting = nullptr;
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    if (waiting != nullptr) return replyText(reply, 200, http_requestPath(request));
    waiting = reply;
    return 0;
  };
  WireClient client(address());
  client.send(std::string(kGet) + "XYZ");
  settle();
  EXPECT_EQ(serverLines(trace),
            joined({accepted(),
                    headRead(1),
                    requestDone(0, 0),
                    {"[i]connection available for read (#)", "[n]client is pipelining request (X), make it wait"}}));
  EXPECT_EQ(calls, (Calls{"request GET /a"}));
  replyText(waiting, 200, "late");
  ASSERT_TRUE(until([&] { return client.received() == okReply("late"); })) << client.received();
}

// Requests with and without bodies, in one stream that is cut anywhere.
TEST_F(CycleTest, PipelinedRequestsAreAllAnsweredInOrderWhereverTheyAreCut) {
  listen();
  const std::string wire =
      "GET /1 HTTP/1.1\r\nHost: x\r\n\r\n"
      "POST /2 HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\ntwo"
      "POST /3 HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nth\r\n3\r\nree\r\n0\r\n\r\n"
      "HEAD /4 HTTP/1.1\r\nHost: x\r\n\r\n"
      "GET /5 HTTP/1.1\r\nHost: x\r\n\r\n";
  const std::string replies = okReply("/1") + okReply("two") + okReply("three") +
                              "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n" + okReply("/5");
  for (size_t cut = 0; cut < wire.size(); ++cut) {
    calls.clear();
    WireClient client(address());
    client.send(wire.substr(0, cut));
    settle();
    client.send(wire.substr(cut));
    ASSERT_TRUE(until([&] { return client.received() == replies; })) << "cut at octet " << cut << "\n"
                                                                     << client.received();
    settle();
    EXPECT_EQ(callsOf("request"), 5u);
    EXPECT_EQ(callsOf("done"), 5u);
    client.leave();
    ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
    EXPECT_EQ(callsOf("error"), 0u) << "cut at octet " << cut;
  }
}

TEST_F(CycleTest, ManyPipelinedRequestsInOneSegment) {
  listen();
  std::string wire;
  std::string replies;
  for (int i = 0; i < 500; ++i) {
    wire += "GET /" + std::to_string(i) + " HTTP/1.1\r\n\r\n";
    replies += okReply("/" + std::to_string(i));
  }
  WireClient client(address());
  client.send(wire);
  ASSERT_TRUE(until([&] { return client.received().size() >= replies.size(); }));
  settle();
  EXPECT_EQ(client.received(), replies);
  EXPECT_EQ(http().repliesSent, 500);
}

TEST_F(CycleTest, PipelinedRequestsWithLateReplies) {
  listen();
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    later(5, [request, reply] { replyText(reply, 200, http_requestPath(request)); });
    return 0;
  };
  WireClient client(address());
  client.send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\nGET /3 HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.received() == okReply("/1") + okReply("/2") + okReply("/3"); }))
      << client.received();
}

TEST_F(CycleTest, PipelinedRequestBehindTheLastOneIsDropped) {
  listen();
  WireClient client(address());
  client.send("GET /1 HTTP/1.1\r\nConnection: close\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), okReply("/1"));
  EXPECT_FALSE(client.wasReset());
  EXPECT_EQ(calls, (Calls{"request GET /1", "done 200"}));
}

// --- clients that leave ----------------------------------------------------------------------------------------------

TEST_F(CycleTest, ClientThatConnectsAndLeaves) {
  listen();
  TraceCapture trace{"http-server"};
  {
    WireClient client(address());
    settle();
    EXPECT_EQ(http().connectionCount, 1);
  }
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(calls, Calls{});
  EXPECT_EQ(serverLines(trace), joined({accepted(), closedByClient()}));
}

TEST_F(CycleTest, ClientThatConnectsAndResets) {
  listen();
  TraceCapture trace{"http-server"};
  WireClient client(address());
  settle();
  client.reset();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(calls, Calls{});
  TraceLines closed = closedByClient();
  closed.insert(closed.begin() + 1, "http-me[x]unable to parse message (socket #): Connection reset by peer");
  TraceLines lines = serverLines(trace);
  for (std::string& line : lines)
    if (const size_t at = line.find("(socket "); at != std::string::npos)
      line.replace(at, line.find(')', at) - at, "(socket #");
  EXPECT_EQ(lines, joined({accepted(), closed}));
}

TEST_F(CycleTest, ClientThatLeavesInTheHead) {
  listen();
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\nHos");
  settle();
  client.leave();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(calls, (Calls{"error"}));
  EXPECT_EQ(serverLines(trace),
            joined({accepted(),
                    {"[i]connection available for read (#)", switched("ACCEPTED", "RECEIVING_REQUEST"),
                     "[i]reading enveloppe (#)", "[i]more data is needed"},
                    {"[i]connection available for read (#)", "[i]reading enveloppe (#)", "[x]unable to parse request"},
                    {"[n]connection closed (#)", "[x]client closed connection while reading request"}}));
}

TEST_F(CycleTest, ClientThatLeavesWhileTheReplyIsAwaited) {
  listen();
  TraceCapture trace{"http-server"};
  onRequest = [](HttpRequest*, HttpReply*) { return 0; };
  WireClient client(address());
  client.send(kGet);
  settle();
  client.leave();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(calls, (Calls{"request GET /a", "done 0"}));
  EXPECT_EQ(http().repliesSent, 0);
  EXPECT_EQ(serverLines(trace), joined({accepted(),
                                        headRead(1),
                                        requestDone(0, 0),
                                        {"[i]connection available for read (#)", "[n]client closed the connection",
                                         "[n]connection closed (#)", "[n]client closed connection while sending reply",
                                         switched("SENDING_REPLY", "REPLY_SENT")}}));
}

// The end of one reply is not taken for that of the next.
TEST_F(CycleTest, ClientThatLeavesWhileItsSecondReplyIsAwaited) {
  listen();
  WireClient client(address());
  exchange(client, kGet);
  onRequest = [](HttpRequest*, HttpReply*) { return 0; };
  client.send("GET /b HTTP/1.1\r\n\r\n");
  settle();
  client.leave();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(callsOf("request"), 2u);
  EXPECT_EQ(callsOf("done"), 2u);
  EXPECT_EQ(http().repliesSent, 1);
}

// With a pipelined byte unread nothing looks at the socket; the end of the client is noticed all the same.
TEST_F(CycleTest, ClientThatLeavesBehindAPipelinedRequestWhileTheReplyIsAwaited) {
  listen();
  onRequest = [](HttpRequest*, HttpReply*) { return 0; };
  WireClient client(address());
  client.send(std::string(kGet) + "G");
  settle();
  client.reset();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(calls, (Calls{"request GET /a", "done 0"}));
}

TEST_F(CycleTest, ReplyToAClientThatHasFinishedSending) {
  listen();
  WireClient client(address());
  client.send(kGet).finish();
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), okReply("/a"));
  EXPECT_FALSE(client.wasReset());
  EXPECT_EQ(calls, (Calls{"request GET /a", "done 200"}));
}

// --- requests that are refused ---------------------------------------------------------------------------------------

struct RefusedCase {
  const char* name;
  const char* wire;
  const char* reason;  // the first error that is traced, whatever its zone
  int refusal;
  bool inHeaders;
};
void PrintTo(const RefusedCase& row, std::ostream* out) { *out << row.name; }
constexpr RefusedCase kRefused[] = {
    {"NoBlank", "GET\r\n\r\n", "http-me[x]unable to read status line: parse error", HTTP_MSG_BAD_FIRST_LINE, false},
    {"NoVersion", "GET /\r\n\r\n", "http-me[x]unable to read status line: parse error", HTTP_MSG_BAD_FIRST_LINE, false},
    {"OldVersion", "GET / HTTP/0.9\r\n\r\n", nullptr, HTTP_MSG_BAD_VERSION, false},
    {"UnknownMethod", "PATCH / HTTP/1.1\r\n\r\n", "http-re[x]unknown method: PATCH", HTTP_MSG_BAD_METHOD, false},
    {"LowerCaseMethod", "get / HTTP/1.1\r\n\r\n", "http-re[x]unknown method: get", HTTP_MSG_BAD_METHOD, false},
    {"NoSlash", "GET * HTTP/1.1\r\n\r\n", "http-ur[x]invalid url *", HTTP_MSG_BAD_TARGET, false},
    {"NoColon", "GET / HTTP/1.1\r\nHost\r\n\r\n", "http-me[x]unable to read header line: parse error",
     HTTP_MSG_BAD_HEADER, true},
    {"EmptyValue", "GET / HTTP/1.1\r\nHost:\r\n\r\n", "http-me[x]unable to read header line: parse error",
     HTTP_MSG_BAD_HEADER, true},
};
class RefusedTest : public CycleTest, public ::testing::WithParamInterface<RefusedCase> {};
INSTANTIATE_TEST_SUITE_P(Cycle, RefusedTest, ::testing::ValuesIn(kRefused),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(RefusedTest, ConnectionIsClosedAndTheErrorHandlerMayAnswer) {
  const RefusedCase& row = GetParam();
  listen();
  int refusal = -1;
  onError = [&](HttpRequest* request, HttpReply* reply) {
    refusal = request->message.refusal;
    http_replyVersionSet(reply, 1, 1);
    replyText(reply, 400, "no", {{"Connection", "close"}});
  };
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send(row.wire);
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), textReply(400, "Bad Request", "no", "1.1", "Connection: close\r\n"));
  EXPECT_FALSE(client.wasReset());
  EXPECT_EQ(calls, (Calls{"error"}));
  EXPECT_EQ(refusal, row.refusal);
  EXPECT_EQ(http().connectionCount, 0);
  if (row.reason != nullptr) {
    EXPECT_EQ(trace.errors().at(0), row.reason);
  }

  TraceLines own;
  for (const std::string& line : serverLines(trace))
    if (line[0] == '[') own.push_back(line);
  if (row.inHeaders) {
    EXPECT_EQ(own, joined({accepted(),
                           {"[i]connection available for read (#)", switched("ACCEPTED", "RECEIVING_REQUEST"),
                            "[i]reading enveloppe (#)", "[x]unable to parse request", "[n]connection closed (#)",
                            "[x]client closed connection while reading request"}}));
  } else {
    EXPECT_EQ(
        own, joined({accepted(),
                     {"[i]connection available for read (#)", switched("ACCEPTED", "ERROR"), "[n]connection closed (#)",
                      "[x]closed while in state ERROR", "[x]calling error handler"}}));
  }
}

TEST_F(CycleTest, RequestHandlerThatRefuses) {
  listen();
  onRequest = [](HttpRequest*, HttpReply* reply) {
    EXPECT_EQ(replyText(reply, 403, "no"), 0);
    return -1;
  };
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send(kGet);
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), textReply(403, "Forbidden", "no"));
  EXPECT_EQ(calls, (Calls{"request GET /a", "error"}));
  EXPECT_EQ(serverLines(trace),
            joined({accepted(),
                    headRead(1),
                    {"[n]connection closed (#)", "[x]client closed connection while reading request"}}));
}

TEST_F(CycleTest, BodyHandlerThatRefuses) {
  listen();
  onBody = [](HttpRequest*, HttpReply* reply, FILE*) {
    EXPECT_EQ(replyText(reply, 413, "no"), 0);
    return -1;
  };
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send("POST /a HTTP/1.1\r\nContent-Length: 5\r\n\r\nhel");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(takeReplies(client.received()).at(0).status(), 413u);
  EXPECT_EQ(calls, (Calls{"request POST /a", "body", "error"}));
  EXPECT_EQ(serverLines(trace), joined({accepted(),
                                        headRead(1),
                                        {"[i]should handle body (#)", "[i]handled body state is now 2",
                                         switched("RECEIVING_REQUEST", "REQUEST_RECEIVED"), "[n]connection closed (#)",
                                         "[x]closed while in state REQUEST_RECEIVED", "[x]calling error handler"}}));
}

// --- heads of any size -----------------------------------------------------------------------------------------------

TEST_F(CycleTest, HeadThatGrowsLeavesTheRequestAsItIs) {
  listen();
  std::string seen;
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    char* value = nullptr;
    EXPECT_EQ(http_uriGetParameter(http_requestURI(request), "q", &value), 0);
    seen = std::string(http_requestPath(request)) + " " + value + " " + http_requestHeaderValue(request, "X-First") +
           " " + http_requestHeaderValue(request, "X-Last");
    return replyText(reply, 200, "");
  };
  for (const size_t size : {100u, 511u, 512u, 513u, 5000u, 100000u}) {
    std::string head = "GET /some/path?q=parameter HTTP/1.1\r\nX-First: one\r\n";
    for (size_t i = 0; head.size() < size; ++i)
      head += "X-" + std::to_string(i) + ": " + std::string(i % 700, 'v') + " .\r\n";
    WireClient client(address());
    client.send(head).send("X-Last: last\r\n\r\n");
    ASSERT_TRUE(until([&] { return client.received() == okReply(""); })) << size;
    EXPECT_EQ(seen, "/some/path parameter one last") << size;
  }
}

// --- versions --------------------------------------------------------------------------------------------------------

TEST_F(CycleTest, ReplyHasTheVersionOfItsRequest) {
  listen();
  for (const char* version : {"1.0", "1.1", "1.7", "3.4"}) {
    WireClient client(address());
    client.send("GET /a HTTP/" + std::string(version) + "\r\n\r\n");
    ASSERT_TRUE(until([&] { return client.received() == textReply(200, "OK", "/a", version); })) << client.received();
  }
}

// --- accept ----------------------------------------------------------------------------------------------------------

TEST_F(CycleTest, StartFailsOnAPeerThatHasEnded) {
  listen();
  ZelPeer* peer = connection_listenOnTCP(connection(), "127.0.0.1", "0");
  HttpServer other = {};
  other.peer = peer;
  peer_close(peer);
  EXPECT_EQ(http_serverStart(&other), -1);
}

TEST_F(CycleTest, ConnectionThatCannotBeAcceptedForLackOfDescriptorsWaits) {
  listen();
  WireClient first(address());
  exchange(first, kGet);
  WireClient second(address());  // complete on its side, not accepted yet

  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  std::vector<Descriptor> hoard;
  rlimit lowered = before;
  lowered.rlim_cur = static_cast<rlim_t>(*openDescriptors().rbegin()) + 1;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
  while (true) {
    Descriptor next(dup(first.socket()));
    if (next.get() < 0) break;
    hoard.push_back(std::move(next));
  }
  second.send(kGet);
  for (int turn = 0; turn < 20; ++turn) {
    WireClient::pumpAll();
    zel_loop_turn(1);
  }
  EXPECT_EQ(second.received(), "");
  EXPECT_EQ(exchange(first, "GET /b HTTP/1.1\r\n\r\n").at(0).wire, okReply("/b"));

  hoard.clear();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_TRUE(until([&] { return second.received() == okReply("/a"); })) << second.received();
}

// --- stop ------------------------------------------------------------------------------------------------------------

TEST_F(CycleTest, StopWithoutConnections) {
  listen();
  http_serverStop(&http());
  EXPECT_EQ(http().peer, nullptr);
  EXPECT_EQ(http().stopped, 1u);
  EXPECT_EQ(calls, Calls{});  // from the loop only
  ASSERT_TRUE(until([&] { return !calls.empty(); }));
  settle();
  EXPECT_EQ(calls, (Calls{"stopped"}));
}

TEST_F(CycleTest, StoppedHandlerRunsOnceHoweverOftenTheServerIsStopped) {
  listen();
  http_serverStop(&http());
  http_serverStop(&http());
  settle();
  http_serverStop(&http());
  settle();
  EXPECT_EQ(calls, (Calls{"stopped"}));
}

// Also when it is stopped again while it stops, by what is told of the peers that end.
TEST_F(CycleTest, StoppedHandlerRunsOnceWhenACloseHandlerStopsToo) {
  static HttpServer* stopping;
  const ZelPeerHandler stop = [](ZelPeer*) {
    http_serverStop(stopping);
    return true;
  };
  for (const bool listener : {true, false}) {
    SCOPED_TRACE(listener ? "of the listening peer" : "of a connection");
    calls.clear();
    listen();
    stopping = &http();
    if (listener) peer_addCloseHandler(http().peer, stop);
    onRequest = [&](HttpRequest* request, HttpReply* reply) {
      if (!listener) peer_addCloseHandler(http_requestPeer(request), stop);
      return replyText(reply, 200, "kept");
    };
    WireClient client(address());
    exchange(client, kGet);
    http_serverStop(&http());
    EXPECT_EQ(http().peer, nullptr);
    ASSERT_TRUE(until([&] { return client.ended(); }));
    settle();
    EXPECT_EQ(callsOf("stopped"), 1u);
  }
}

TEST_F(CycleTest, RepliesAreCountedRoundTheEnd) {
  listen();
  http().repliesSent = std::numeric_limits<int32_t>::max();
  WireClient client(address());
  exchange(client, kGet);
  EXPECT_EQ(http().repliesSent, std::numeric_limits<int32_t>::min());
}

TEST_F(CycleTest, StopWithoutAStoppedHandler) {
  listen();
  http().stoppedHandler = nullptr;
  http_serverStop(&http());
  settle();
  EXPECT_EQ(calls, Calls{});
}

TEST_F(CycleTest, StopWithAnIdleConnection) {
  listen();
  TraceCapture trace{"http-server"};
  WireClient client(address());
  settle();
  http_serverStop(&http());
  EXPECT_EQ(http().connectionCount, 0);
  EXPECT_EQ(calls, Calls{});
  ASSERT_TRUE(until([&] { return client.ended(); }));
  settle();
  EXPECT_EQ(client.received(), "");
  EXPECT_EQ(calls, (Calls{"stopped"}));
  EXPECT_EQ(
      serverLines(trace),
      joined({accepted(),
              {"[n]closing client connection #", "[n]connection closed (#)", "[n]closing kept-alive connection"}}));
}

TEST_F(CycleTest, StopWithIdleKeptAliveAndBusyConnections) {
  listen();
  HttpReply* waiting = nullptr;
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    const std::string_view path = http_requestPath(request);
    if (path == "/late") waiting = reply;
    return path == "/r" || path == "/a" ? replyText(reply, 200, "now") : 0;
  };
  WireClient idle(address());
  WireClient kept(address());
  exchange(kept, kGet);
  WireClient reading(address());
  reading.send("GET /r HTTP/1.1\r\nHo");
  WireClient inBody(address());
  inBody.send("POST /p HTTP/1.1\r\nContent-Length: 5\r\n\r\nhe");
  WireClient sending(address());
  sending.send("GET /late HTTP/1.1\r\n\r\n");
  settle();
  EXPECT_EQ(http().connectionCount, 5);
  ASSERT_NE(waiting, nullptr);

  http_serverStop(&http());
  EXPECT_EQ(http().connectionCount, 3);
  ASSERT_TRUE(until([&] { return idle.ended() && kept.ended(); }));
  EXPECT_FALSE(reading.ended() || inBody.ended() || sending.ended());

  reading.send("st: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return reading.ended(); }));
  EXPECT_EQ(reading.received(), okReply("now"));
  inBody.send("llo");
  ASSERT_TRUE(until([&] { return inBody.ended(); }));
  EXPECT_EQ(inBody.received(), okReply("hello"));
  EXPECT_EQ(callsOf("stopped"), 0u);
  replyText(waiting, 200, "late");
  ASSERT_TRUE(until([&] { return sending.ended(); }));
  EXPECT_EQ(sending.received(), okReply("late"));
  ASSERT_TRUE(until([&] { return callsOf("stopped") > 0; }));
  settle();
  EXPECT_EQ(callsOf("stopped"), 1u);
  EXPECT_EQ(calls.back(), "stopped");
  EXPECT_EQ(callsOf("error"), 0u);
}

TEST_F(CycleTest, StoppedServerTracesOnlyTheCloseOfItsConnections) {
  listen();
  onRequest = [](HttpRequest*, HttpReply*) { return 0; };
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send(kGet);
  settle();
  http_serverStop(&http());
  trace.clear();
  client.leave();
  ASSERT_TRUE(until([&] { return callsOf("stopped") > 0; }));
  settle();
  EXPECT_EQ(calls, (Calls{"request GET /a", "stopped"}));
  EXPECT_EQ(trace.lines().size(), 3u);
  EXPECT_EQ(trace.countStarting("http-se[i]connection available for read ("), 1u);
  EXPECT_EQ(trace.count("http-se[n]client closed the connection"), 1u);
  EXPECT_EQ(trace.countStarting("http-se[n]connection closed ("), 1u);
}

TEST_F(CycleTest, NewClientsAreRefusedAfterStop) {
  listen();
  const unsigned port = address().port;
  http_serverStop(&http());
  settle();
  Descriptor late(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in to = {};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(port));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(late.get(), reinterpret_cast<sockaddr*>(&to), sizeof(to)), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
}

// Only connections of the server that stops are ended.
TEST_F(CycleTest, TwoServersInOneConnectionStopOneByOne) {
  listen();
  HttpServer second = http();
  second.peer = connection_listenOnTCP(connection(), "127.0.0.1", "0");
  second.stoppedHandler = nullptr;
  second.connectionCount = 0;
  ASSERT_NE(second.peer, nullptr);
  const WireAddress secondAddress = WireAddress::tcp(peer_localPort(second.peer));
  ASSERT_EQ(http_serverStart(&second), 0);
  WireClient ofFirst(address());
  WireClient ofSecond(secondAddress);
  settle();
  EXPECT_EQ(http().connectionCount, 1);
  EXPECT_EQ(second.connectionCount, 1);
  http_serverStop(&second);
  ASSERT_TRUE(until([&] { return ofSecond.ended(); }));
  EXPECT_EQ(second.connectionCount, 0);
  EXPECT_EQ(exchange(ofFirst, kGet).at(0).wire, okReply("/a"));
}

// A connection may hold peers that are not the server's.
TEST_F(CycleTest, StopLeavesOtherPeersAlone) {
  listen();
  std::array<uint64_t, 2> notAContext = {};
  int first[2];
  int second[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, first), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, second), 0);
  ZelPeer* withoutUserData = connection_adopt(connection(), first[0]);
  ZelPeer* withUserData = connection_adopt(connection(), second[0]);
  peer_setUserData(withUserData, notAContext.data());
  WireClient client(address());
  settle();
  http_serverStop(&http());
  ASSERT_TRUE(until([&] { return client.ended(); }));
  ASSERT_TRUE(until([&] { return callsOf("stopped") > 0; }));
  EXPECT_GE(peer_socket(withoutUserData), 0);
  EXPECT_GE(peer_socket(withUserData), 0);
  close(first[1]);
  close(second[1]);
}

TEST_F(CycleTest, ServerCanBeStartedAgain) {
  listen();
  http_serverStop(&http());
  ASSERT_TRUE(until([&] { return callsOf("stopped") > 0; }));
  listen();
  EXPECT_EQ(http().stopped, 0u);
  WireClient client(address());
  EXPECT_EQ(exchange(client, kGet).at(0).wire, okReply("/a"));
  http_serverStop(&http());
  settle();
  EXPECT_EQ(callsOf("stopped"), 2u);
}

}  // namespace
