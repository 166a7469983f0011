// Exchanges of a client that go as they should: states, traces, the order of the handlers, bodies of every kind.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "client_support.h"

namespace {

using Calls = std::vector<std::string>;

class ClientCycleTest : public ClientTest {};

// --- the object ------------------------------------------------------------------------------------------------------

TEST(ClientStateTest, NamesOfTheStates) {
  const char* const kNames[] = {"INIT",           "SENDING_REQUEST", "REQUEST_SENT", "RECEIVING_REPLY",
                                "REPLY_RECEIVED", "CLOSED",          "ERROR"};
  ASSERT_EQ(HTTP_CLIENT_STATE_COUNT, 7);
  for (int state = 0; state < HTTP_CLIENT_STATE_COUNT; ++state) EXPECT_STREQ(clientStateStrings[state], kNames[state]);
  EXPECT_EQ(HTTP_CLIENT_INIT, 0);
  EXPECT_EQ(HTTP_CLIENT_SENDING_REQUEST, 1);
  EXPECT_EQ(HTTP_CLIENT_REQUEST_SENT, 2);
  EXPECT_EQ(HTTP_CLIENT_RECEIVING_REPLY, 3);
  EXPECT_EQ(HTTP_CLIENT_REPLY_RECEIVED, 4);
  EXPECT_EQ(HTTP_CLIENT_CLOSED, 5);
  EXPECT_EQ(HTTP_CLIENT_ERROR, 6);
}

// The order of the fields is what applications built against an older library rely on.
TEST(ClientStateTest, OrderOfTheFields) {
  EXPECT_EQ(sizeof(HttpClientState), 4u);
  EXPECT_EQ(offsetof(HttpClient, state), 0u);
  EXPECT_EQ(offsetof(HttpClient, peer), sizeof(void*));
  EXPECT_EQ(offsetof(HttpClient, userWords), 2 * sizeof(void*));
  EXPECT_EQ(sizeof(HttpClient::userWords), 12u);
  EXPECT_LT(offsetof(HttpClient, userWords), offsetof(HttpClient, replyHeaderHandler));
  EXPECT_EQ(offsetof(HttpClient, bodyHandler), offsetof(HttpClient, replyHeaderHandler) + sizeof(void*));
  EXPECT_EQ(offsetof(HttpClient, replyDoneHandler), offsetof(HttpClient, bodyHandler) + sizeof(void*));
  EXPECT_EQ(offsetof(HttpClient, errorHandler), offsetof(HttpClient, replyDoneHandler) + sizeof(void*));
  EXPECT_EQ(offsetof(HttpClient, readyHandler), offsetof(HttpClient, errorHandler) + sizeof(void*));
  EXPECT_EQ(offsetof(HttpClientConnection, client), 0u);
  EXPECT_EQ(offsetof(HttpClientConnection, request), sizeof(void*));
  EXPECT_EQ(offsetof(HttpClientConnection, reply), 2 * sizeof(void*));
  EXPECT_EQ(offsetof(HttpClientConnection, requestStream), 3 * sizeof(void*));
  EXPECT_EQ(offsetof(HttpClientConnection, replyStream), 4 * sizeof(void*));
}

// --- start and request -----------------------------------------------------------------------------------------------

TEST_F(ClientCycleTest, StartMakesAContextOfThePeersUserData) {
  WireTarget target;
  ZelPeer* const peer = connectTo(target.address());
  ASSERT_NE(peer, nullptr);
  Party party;
  party.client->state = HTTP_CLIENT_ERROR;
  TraceCapture trace{"http-client"};
  EXPECT_EQ(party.start(peer), 0);
  EXPECT_EQ(trace.said(), TraceLines());
  EXPECT_EQ(party.state(), HTTP_CLIENT_INIT);
  EXPECT_EQ(party.peer(), peer);
  const HttpClientConnection* const context = party.context();
  ASSERT_NE(context, nullptr);
  EXPECT_EQ(context->client, party.client);
  EXPECT_EQ(context->request, nullptr);
  EXPECT_EQ(context->reply, nullptr);
  EXPECT_EQ(context->requestStream, nullptr);
  EXPECT_EQ(context->replyStream, nullptr);
}

TEST_F(ClientCycleTest, StartOverwritesUserDataWithAWarning) {
  WireTarget target;
  ZelPeer* const peer = connectTo(target.address());
  int other = 0;
  peer_setUserData(peer, &other);
  Party party;
  TraceCapture trace{"http-client"};
  EXPECT_EQ(party.start(peer), 0);
  EXPECT_EQ(trace.said(), (TraceLines{"http-cl[!]overwriting peer user data"}));
  ASSERT_NE(party.context(), nullptr);
  EXPECT_EQ(party.context()->client, party.client);
}

TEST_F(ClientCycleTest, RequestAttachesBothMessages) {
  WireTarget target;
  Party party;
  startOn(party, target);
  TraceCapture trace{"http-client"};
  EXPECT_TRUE(party.begin());
  EXPECT_EQ(clientLines(trace), exchangeBegun());
  EXPECT_EQ(party.state(), HTTP_CLIENT_SENDING_REQUEST);

  const HttpClientConnection* const context = party.context();
  EXPECT_EQ(context->request, party.request);
  EXPECT_EQ(context->reply, party.reply);
  EXPECT_EQ(context->requestStream, peer_outStream(party.peer(), PEER_STREAM_BUFFERED));
  EXPECT_EQ(context->replyStream, peer_inStream(party.peer()));
  const HttpMessage& request = party.request->message;
  const HttpMessage& reply = party.reply->message;
  EXPECT_EQ(request.mode, HTTP_MSG_WRITING);
  EXPECT_EQ(reply.mode, HTTP_MSG_READING);
  for (const HttpMessage* message : {&request, &reply}) {
    EXPECT_EQ(message->owner, party.client);
    EXPECT_EQ(message->ownerType, HTTP_MSG_OWNED_BY_CLIENT);
    EXPECT_EQ(message->peer, party.peer());
  }
  EXPECT_EQ(request.stream, context->requestStream);
  EXPECT_EQ(reply.stream, context->replyStream);
  // The request is as it was built.
  EXPECT_EQ(http_requestMethod(party.request), HTTP_METHOD_GET);
  EXPECT_STREQ(http_requestHeaderValue(party.request, "host"), "x");
}

TEST_F(ClientCycleTest, RequestResetsTheReply) {
  WireTarget target;
  Party party;
  startOn(party, target);
  http_replyVersionSet(party.reply, 1, 1);
  ASSERT_EQ(http_replyStatusCodeSet(party.reply, 404, nullptr), 0);
  ASSERT_EQ(http_replyHeaderValueSet(party.reply, "Server", "old"), 0);
  party.reply->message.state = HTTP_MSG_FAILED;
  EXPECT_TRUE(party.begin());
  EXPECT_EQ(http_replyState(party.reply), HTTP_MSG_FIRST_LINE);
  EXPECT_EQ(http_replyHeaderValue(party.reply, "Server"), nullptr);
}

TEST_F(ClientCycleTest, RequestOnAnEndedPeerFails) {
  WireTarget target;
  ZelPeer* const peer = connectTo(target.address());
  Party party;
  ASSERT_EQ(party.start(peer), 0);
  peer_close(peer);  // before any exchange nothing of the client's is there to notice
  ASSERT_EQ(party.peer(), nullptr) << "a started client is told when its peer ends";
  TraceCapture trace{"http-client"};
  EXPECT_FALSE(party.begin());
  EXPECT_EQ(party.state(), HTTP_CLIENT_ERROR);
  EXPECT_EQ(trace.errors().size(), 1u) << ::testing::PrintToString(trace.said());
  EXPECT_EQ(trace.countStarting("http-cl[x]unable to open reply stream: "), 1u);
}

TEST_F(ClientCycleTest, RequestWithoutStreamsFails) {
  // A listening peer has no streams.
  ZelPeer* const peer = connection_listenOnTCP(connection(), "127.0.0.1", "0");
  Party party;
  ASSERT_EQ(party.start(peer), 0);
  TraceCapture trace{"http-client"};
  EXPECT_FALSE(party.begin());
  EXPECT_EQ(party.state(), HTTP_CLIENT_ERROR);
  TraceLines lines = clientLines(trace);
  ASSERT_EQ(lines.size(), 3u) << ::testing::PrintToString(lines);
  EXPECT_EQ(lines[0], "[i]making connection");
  EXPECT_EQ(lines[1].rfind("[x]unable to open reply stream: ", 0), 0u) << lines[1];
  EXPECT_EQ(lines[2], clientSwitched("INIT", "ERROR"));
  EXPECT_EQ(party.calls, Calls());
}

TEST_F(ClientCycleTest, RequestInTheMiddleOfAnExchangeIsTracedAndGoesOn) {
  WireTarget target;
  target.always(WireScript().request().send(okReply("a")).repeat());
  Party party;
  startOn(party, target);
  ASSERT_TRUE(party.begin());
  TraceCapture trace{"http-client"};
  EXPECT_TRUE(http_clientRequest(party.client, party.request, party.reply));
  EXPECT_EQ(clientLines(trace), (TraceLines{"[i]making connection", clientWrong("SENDING_REQUEST", "INIT"),
                                            clientSwitched("SENDING_REQUEST", "SENDING_REQUEST")}));
  ASSERT_EQ(http_requestSend(party.request), 0);
  ASSERT_EQ(http_requestDone(party.request), 0);
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(party.said(), "header 200; body a; done; ready");
}

// --- the whole exchange ----------------------------------------------------------------------------------------------

TEST_F(ClientCycleTest, TraceOfAnExchangeWithoutABody) {
  WireTarget target;
  target.always(WireScript().request().send(emptyReply()));
  Party party;
  startOn(party, target);
  TraceCapture trace{"http-client"};
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  settle();
  EXPECT_EQ(clientLines(trace),
            joinedLines({exchangeBegun(), requestLeft(), replyHead(1), replyFinished("RECEIVING_REPLY")}));
  EXPECT_EQ(trace.said().size(), clientLines(trace).size());
  EXPECT_EQ(party.said(), "header 200; done; ready");
  EXPECT_EQ(party.state(), HTTP_CLIENT_INIT);
  EXPECT_EQ(target.last().received(), "GET / HTTP/1.1\r\nHost: x\r\n\r\n");
}

TEST_F(ClientCycleTest, TraceOfAnExchangeWithABody) {
  WireTarget target;
  target.always(WireScript().request().send(okReply("hello")));
  Party party;
  startOn(party, target);
  TraceCapture trace{"http-client"};
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(clientLines(trace), joinedLines({exchangeBegun(), requestLeft(), replyHead(1), bodyHandled(3), bodyEnded(),
                                             replyFinished("REPLY_RECEIVED")}));
}

TEST_F(ClientCycleTest, TraceNamesBothDescriptors) {
  WireTarget target;
  target.always(WireScript().request().send(emptyReply()));
  Party party;
  startOn(party, target);
  party.ask();
  ASSERT_TRUE(until([&] { return target.count() == 1; }));
  const std::string line = "http-cl[i]connection available for read (socket " +
                           std::to_string(peer_socket(party.peer())) + " " +
                           std::to_string(fileno(http_replyStream(party.reply))) + ")";
  TraceCapture trace{"http-client"};
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(trace.count(line), 1u) << ::testing::PrintToString(trace.said());
}

TEST_F(ClientCycleTest, TraceOfABodyInTwoParts) {
  WireTarget target;
  Party party;
  startOn(party, target);
  TraceCapture trace{"http-client"};
  party.ask();
  ASSERT_TRUE(until([&] { return party.state() == HTTP_CLIENT_REQUEST_SENT; }));
  target.last().send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhel");
  settle();
  EXPECT_EQ(party.state(), HTTP_CLIENT_RECEIVING_REPLY);
  EXPECT_EQ(party.said(), "header 200; body hel");
  target.last().send("lo");
  settle();
  EXPECT_EQ(clientLines(trace), joinedLines({exchangeBegun(), requestLeft(), replyHead(1), bodyHandled(2), readable(),
                                             bodyHandled(3), bodyEnded(), replyFinished("REPLY_RECEIVED")}));
  EXPECT_EQ(party.said(), "header 200; body hello; done; ready");
  EXPECT_EQ(party.bodyCalls, 2u);
}

// What each handler finds.
TEST_F(ClientCycleTest, HandlersAndTheStateTheyFind) {
  struct Found {
    std::string handler;
    std::string client;
    int request;
    int reply;
    bool operator==(const Found& other) const {
      return handler == other.handler && client == other.client && request == other.request && reply == other.reply;
    }
  };
  WireTarget target;
  target.always(WireScript().request().send(okReply("hello")));
  Party party;
  std::vector<Found> found;
  const auto note = [&](const char* handler) {
    found.push_back({handler, party.stateName(), http_requestState(party.request), http_replyState(party.reply)});
  };
  party.onHeader = [&] {
    note("header");
    EXPECT_EQ(http_replyBodyType(party.reply), HTTP_BODY_CONTENT_LENGTH);
    EXPECT_STREQ(http_replyHeaderValue(party.reply, "content-length"), "5");
    return 0;
  };
  party.onBody = [&](FILE* stream) {
    note("body");
    EXPECT_EQ(readBody(stream), "hello");
    return 0;
  };
  party.onDone = [&] {
    note("done");
    EXPECT_EQ(http_replyStatusCode(party.reply), 200u);
    EXPECT_STREQ(http_replyHeaderValue(party.reply, "content-length"), "5");
    EXPECT_STREQ(http_requestHeaderValue(party.request, "host"), "x");
    EXPECT_EQ(party.reply->message.body, nullptr);
  };
  party.onReady = [&] {
    note("ready");
    EXPECT_EQ(http_replyHeaderValue(party.reply, "content-length"), nullptr);
    EXPECT_EQ(http_requestHeaderValue(party.request, "host"), nullptr);
  };
  startOn(party, target);
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  const Found kExpected[] = {{"header", "RECEIVING_REPLY", 3, 2},
                             {"body", "RECEIVING_REPLY", 3, 2},
                             {"done", "REPLY_RECEIVED", 3, 3},
                             {"ready", "INIT", 0, 0}};
  ASSERT_EQ(found.size(), 4u);
  for (size_t i = 0; i < found.size(); ++i)
    EXPECT_TRUE(found[i] == kExpected[i])
        << found[i].handler << " " << found[i].client << " " << found[i].request << " " << found[i].reply;
}

// --- replies of every kind -------------------------------------------------------------------------------------------

struct ReplyCase {
  const char* name;
  int method;
  std::string reply;
  bool leaves;  // the target goes away behind it
  std::string calls;
};
void PrintTo(const ReplyCase& row, std::ostream* out) { *out << row.name; }

const std::string kMultipart = "--b\r\nContent-Type: text/plain\r\n\r\nhello\r\n--b--\r\n";

const ReplyCase kReplies[] = {
    {"NoBody", HTTP_METHOD_GET, emptyReply(), false, "header 200; done; ready"},
    {"ContentLength", HTTP_METHOD_GET, okReply("hello"), false, "header 200; body hello; done; ready"},
    {"Chunked", HTTP_METHOD_GET, chunkedReply("hello"), false, "header 200; body hello; done; ready"},
    {"ManyChunks", HTTP_METHOD_GET, chunkedReply("hello world", 1), false, "header 200; body hello world; done; ready"},
    {"EmptyChunked", HTTP_METHOD_GET, chunkedReply(""), false, "header 200; body ; done; ready"},
    {"UntilClose", HTTP_METHOD_GET, closeDelimited("hello"), true, "header 200; body hello; done; ready; closed"},
    {"UntilCloseOld", HTTP_METHOD_GET, "HTTP/1.0 200 OK\r\nServer: t\r\n\r\nhello", true,
     "header 200; body hello; done; ready; closed"},
    {"EmptyUntilClose", HTTP_METHOD_GET, closeDelimited(""), true, "header 200; body ; done; ready; closed"},
    {"Multipart", HTTP_METHOD_GET, multipartReply(kMultipart), false,
     "header 200; body " + kMultipart + "; done; ready"},
    {"NotFound", HTTP_METHOD_GET, textReply(404, "Not Found", "no"), false, "header 404; body no; done; ready"},
    {"UnknownStatus", HTTP_METHOD_GET, textReply(799, "Odd", "no"), false, "header 799; body no; done; ready"},
    {"Redirect", HTTP_METHOD_GET, replyWith("302 Found", "Location: /b\r\nContent-Length: 0\r\n"), false,
     "header 302; done; ready"},
    {"PostReply", HTTP_METHOD_POST, okReply("hello"), false, "header 200; body hello; done; ready"},

    // No body follows the head of these, whatever it announces.
    {"Head", HTTP_METHOD_HEAD, replyWith("200 OK", "Content-Length: 5\r\n"), false, "header 200; done; ready"},
    {"HeadChunked", HTTP_METHOD_HEAD, replyWith("200 OK", "Transfer-Encoding: chunked\r\n"), false,
     "header 200; done; ready"},
    {"HeadUntilClose", HTTP_METHOD_HEAD, replyWith("200 OK", "Server: t\r\n"), false, "header 200; done; ready"},
    {"HeadMultipart", HTTP_METHOD_HEAD,
     replyWith("200 OK", "Content-Type: multipart/mixed; boundary=b\r\nContent-Length: 9\r\n"), false,
     "header 200; done; ready"},
    {"HeadNotFound", HTTP_METHOD_HEAD, replyWith("404 Not Found", "Content-Length: 5\r\n"), false,
     "header 404; done; ready"},
    {"NoContent", HTTP_METHOD_GET, replyWith("204 No Content", "Server: t\r\n"), false, "header 204; done; ready"},
    {"NoContentWithLength", HTTP_METHOD_GET, replyWith("204 No Content", "Content-Length: 5\r\n"), false,
     "header 204; done; ready"},
    {"NoContentChunked", HTTP_METHOD_GET, replyWith("204 No Content", "Transfer-Encoding: chunked\r\n"), false,
     "header 204; done; ready"},
    {"NotModified", HTTP_METHOD_GET, replyWith("304 Not Modified", "ETag: a\r\n"), false, "header 304; done; ready"},
    {"NotModifiedWithLength", HTTP_METHOD_GET, replyWith("304 Not Modified", "Content-Length: 5\r\n"), false,
     "header 304; done; ready"},
    {"NotModifiedToPost", HTTP_METHOD_POST, replyWith("304 Not Modified", "Server: t\r\n"), false,
     "header 304; done; ready"},

    // Interim replies are skipped, 101 is not one of them.
    {"Continue", HTTP_METHOD_GET, replyWith("100 Continue", "") + okReply("a"), false,
     "header 200; body a; done; ready"},
    {"Processing", HTTP_METHOD_GET, replyWith("102 Processing", "X: y\r\n") + okReply("a"), false,
     "header 200; body a; done; ready"},
    {"EarlyHints", HTTP_METHOD_GET, replyWith("103 Early Hints", "Link: </a>\r\nLink: </b>\r\n") + okReply("a"), false,
     "header 200; body a; done; ready"},
    {"LastInterim", HTTP_METHOD_GET, replyWith("199 Odd", "") + okReply("a"), false, "header 200; body a; done; ready"},
    {"SeveralInterim", HTTP_METHOD_GET,
     replyWith("100 Continue", "") + replyWith("102 Processing", "") + replyWith("103 Early Hints", "Link: </a>\r\n") +
         okReply("a"),
     false, "header 200; body a; done; ready"},
    {"InterimWithALength", HTTP_METHOD_GET, replyWith("100 Continue", "Content-Length: 5\r\n") + okReply("a"), false,
     "header 200; body a; done; ready"},
    {"InterimBeforeUntilClose", HTTP_METHOD_GET, replyWith("100 Continue", "") + closeDelimited("a"), true,
     "header 200; body a; done; ready; closed"},
    {"InterimBeforeNoContent", HTTP_METHOD_GET, replyWith("100 Continue", "") + replyWith("204 No Content", ""), false,
     "header 204; done; ready"},
    {"InterimToHead", HTTP_METHOD_HEAD,
     replyWith("103 Early Hints", "Link: </a>\r\n") + replyWith("200 OK", "Content-Length: 5\r\n"), false,
     "header 200; done; ready"},
    {"SwitchingProtocols", HTTP_METHOD_GET,
     replyWith("101 Switching Protocols", "Upgrade: x\r\nContent-Length: 3\r\n", "abc"), false,
     "header 101; body abc; done; ready"},
};

class ClientReplyTest : public ClientTest, public ::testing::WithParamInterface<ReplyCase> {
 protected:
  static void askFor(Party& party) {
    if (GetParam().method == HTTP_METHOD_POST)
      party.post("upload");
    else
      party.ask(GetParam().method);
  }
  // What is right for the reply when the connection stays.
  static std::string last() { return GetParam().leaves ? "closed" : "ready"; }
};
INSTANTIATE_TEST_SUITE_P(Client, ClientReplyTest, ::testing::ValuesIn(kReplies),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ClientReplyTest, InOnePiece) {
  WireTarget target;
  WireScript script = WireScript().request().send(GetParam().reply);
  target.always(GetParam().leaves ? script.leave() : script);
  Party party;
  startOn(party, target);
  TraceCapture trace;
  askFor(party);
  ASSERT_TRUE(until([&] { return party.has(last()); })) << party.said();
  settle();
  EXPECT_EQ(party.said(), GetParam().calls);
  EXPECT_EQ(party.state(), HTTP_CLIENT_INIT);
  if (!GetParam().leaves) {
    EXPECT_EQ(trace.said(), TraceLines());
  }
}

TEST_P(ClientReplyTest, OctetByOctetOverALocalSocket) {
  const TemporaryFolder folder;
  WireTarget target(WireAddress::local(folder.at("socket")));
  WireScript script = WireScript().request().pieces(GetParam().reply, 1);
  target.always(GetParam().leaves ? script.leave() : script);
  Party party;
  startOn(party, target);
  TraceCapture trace;
  askFor(party);
  ASSERT_TRUE(until([&] { return party.has(last()); })) << party.said();
  settle();
  EXPECT_EQ(party.said(), GetParam().calls);
  EXPECT_EQ(party.state(), HTTP_CLIENT_INIT);
}

// The target finishes its side only; the client reads the end.
TEST_P(ClientReplyTest, FollowedByTheEndOfTheStream) {
  WireTarget target;
  target.always(WireScript().request().send(GetParam().reply).finish());
  Party party;
  startOn(party, target);
  TraceCapture trace;
  askFor(party);
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  // Whether the end is noticed without anything to read for is left to the platform.
  const std::string expected = GetParam().calls.substr(0, GetParam().calls.rfind("ready") + 5);
  EXPECT_EQ(party.said().substr(0, expected.size()), expected);
  EXPECT_EQ(party.count("ready"), 1u);
}

// The connection takes the next request whatever kind the reply was; a POST first, so that nothing of it is left over.
TEST_P(ClientReplyTest, ThenAnotherOnTheSameConnection) {
  if (GetParam().leaves) return;
  WireTarget target;
  target.always(WireScript().request().send(GetParam().reply).request().send(okReply("next")));
  Party party;
  startOn(party, target);
  TraceCapture trace;
  askFor(party);
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  party.ask(HTTP_METHOD_GET, "/next");
  ASSERT_TRUE(until([&] { return party.count("ready") == 2; })) << party.said();
  EXPECT_EQ(party.said(), GetParam().calls + "; header 200; body next; done; ready");
  EXPECT_EQ(trace.said(), TraceLines());
  EXPECT_EQ(target.count(), 1u);
  EXPECT_EQ(target.last().requests().back().line, "GET /next HTTP/1.1");
}

// --- interim replies -------------------------------------------------------------------------------------------------

TEST_F(ClientCycleTest, InterimReplyIsTracedAndLeavesNothingBehind) {
  WireTarget target;
  target.always(
      WireScript().request().send(replyWith("103 Early Hints", "Link: </a>\r\nServer: early\r\n") + emptyReply()));
  Party party;
  party.onHeader = [&] {
    EXPECT_EQ(http_replyHeaderValue(party.reply, "Link"), nullptr);
    EXPECT_EQ(http_replyHeaderValue(party.reply, "Server"), nullptr);
    EXPECT_STREQ(http_replyHeaderValue(party.reply, "Content-Length"), "0");
    return 0;
  };
  startOn(party, target);
  party.ask();
  TraceCapture trace{"http-client"};
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(party.said(), "header 200; done; ready");
  size_t aboutIt = 0;
  for (const TraceLine& line : trace.lines())
    aboutIt += line.level == KROTRACE_INFO && line.message.find("103") != std::string::npos ? 1u : 0u;
  EXPECT_EQ(aboutIt, 1u) << ::testing::PrintToString(trace.said());
  EXPECT_EQ(trace.errors(), TraceLines());
}

// After an interim reply the wait goes on.
TEST_F(ClientCycleTest, ReplyLongAfterAnInterimOne) {
  WireTarget target;
  Party party;
  startOn(party, target);
  party.post("upload");
  ASSERT_TRUE(until([&] { return target.count() == 1 && target.last().requests().size() == 1; }));
  for (int i = 0; i < 5; ++i) {
    target.last().send(replyWith("102 Processing", ""));
    settle();
    EXPECT_EQ(party.said(), "");
  }
  target.last().send(okReply("a"));
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(party.said(), "header 200; body a; done; ready");
}

// Interim replies that come while the request is still being sent.
TEST_F(ClientCycleTest, ContinueBeforeTheBodyIsSent) {
  WireTarget target;
  target.always(WireScript().head().send(replyWith("100 Continue", "")).request().send(okReply("a")));
  Party party;
  startOn(party, target);
  ASSERT_TRUE(party.begin(HTTP_METHOD_POST));
  http_requestHeaderValueSet(party.request, "Expect", "100-continue");
  http_requestHeaderValueSet(party.request, "Content-Length", "6");
  ASSERT_EQ(http_requestSend(party.request), 0);
  settle();
  EXPECT_EQ(party.state(), HTTP_CLIENT_SENDING_REQUEST);
  party.write("upload");
  fclose(http_requestBody(party.request));
  ASSERT_EQ(http_requestDone(party.request), 0);
  // The last bytes of the body may leave with the loop's next turn, or have left already.
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(party.said(), "header 200; body a; done; ready");
  EXPECT_EQ(target.last().requests()[0].body, "upload");
}

// --- http_clientRequestSent ------------------------------------------------------------------------------------------

// Without output pending no event comes.
TEST_F(ClientCycleTest, RequestSentMovesOnWhatNoEventWill) {
  WireTarget target;
  target.always(WireScript().request().send(emptyReply()));
  Party party;
  startOn(party, target);
  ASSERT_TRUE(party.begin(HTTP_METHOD_POST));
  http_requestHeaderValueSet(party.request, "Content-Length", "5");
  ASSERT_EQ(http_requestSend(party.request), 0);
  TraceCapture trace{"http-client"};
  party.write("hello");
  party.request->message.state = HTTP_MSG_BODY;  // as a body of unknown length would be
  settle();
  EXPECT_EQ(clientLines(trace), (TraceLines{"[i]data written", "[i]rq state: 2"}));
  EXPECT_EQ(party.state(), HTTP_CLIENT_SENDING_REQUEST);
  trace.clear();
  fclose(http_requestBody(party.request));
  settle();
  EXPECT_EQ(clientLines(trace), TraceLines());
  EXPECT_EQ(party.state(), HTTP_CLIENT_SENDING_REQUEST);

  EXPECT_EQ(http_clientRequestSent(party.client), 0);
  EXPECT_EQ(clientLines(trace), requestLeft());
  EXPECT_EQ(party.state(), HTTP_CLIENT_REQUEST_SENT);
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(party.said(), "header 200; done; ready");
}

TEST_F(ClientCycleTest, RequestSentForcesTheRequestsState) {
  WireTarget target;
  Party party;
  startOn(party, target);
  ASSERT_TRUE(party.begin());
  ASSERT_EQ(http_requestSend(party.request), 0);
  EXPECT_EQ(http_requestState(party.request), HTTP_MSG_BODY);
  EXPECT_EQ(http_clientRequestSent(party.client), 0);
  EXPECT_EQ(http_requestState(party.request), HTTP_MSG_DONE);
  EXPECT_EQ(party.state(), HTTP_CLIENT_REQUEST_SENT);
}

TEST_F(ClientCycleTest, RequestSentInAnotherStateIsTracedAndGoesOn) {
  WireTarget target;
  target.always(WireScript().request().send(emptyReply()));
  Party party;
  startOn(party, target);
  party.ask();
  ASSERT_EQ(http_clientRequestSent(party.client), 0);
  TraceCapture trace{"http-client"};
  EXPECT_EQ(http_clientRequestSent(party.client), 0);
  EXPECT_EQ(clientLines(trace),
            (TraceLines{"[i]data written", clientWrong("REQUEST_SENT", "SENDING_REQUEST"), "[i]rq state: 3",
                        "[i]request sent", clientSwitched("REQUEST_SENT", "REQUEST_SENT")}));
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(party.said(), "header 200; done; ready");
}

TEST_F(ClientCycleTest, RequestSentWithoutAnExchange) {
  WireTarget target;
  Party party;
  EXPECT_EQ(http_clientRequestSent(party.client), -1);
  startOn(party, target);
  EXPECT_EQ(http_clientRequestSent(party.client), -1);
  party.stop();
  EXPECT_EQ(http_clientRequestSent(party.client), -1);
}

// --- the write-done step ---------------------------------------------------------------------------------------------

TEST_F(ClientCycleTest, FailedRequestEndsTheConnection) {
  WireTarget target;
  Party party;
  startOn(party, target);
  ASSERT_TRUE(party.begin());
  ASSERT_EQ(http_requestSend(party.request), 0);
  party.request->message.state = HTTP_MSG_FAILED;
  TraceCapture trace{"http-client"};
  settle();
  const TraceLines lines = clientLines(trace);
  EXPECT_EQ(TraceLines(lines.begin(), lines.begin() + static_cast<long>(std::min<size_t>(4, lines.size()))),
            (TraceLines{"[i]data written", "[i]rq state: 5", clientSwitched("SENDING_REQUEST", "ERROR"),
                        "[i]connection closed"}));
  EXPECT_EQ(party.state(), HTTP_CLIENT_ERROR);
  EXPECT_EQ(party.said(), "closed");
  EXPECT_EQ(party.peer(), nullptr);
  ASSERT_TRUE(until([&] { return target.last().ended(); }));
}

TEST_F(ClientCycleTest, RequestIsSentInSeveralParts) {
  WireTarget target;
  target.always(WireScript().request().send(emptyReply()));
  Party party;
  party.client->requestDrainedHandler = Party::handleDrained;
  startOn(party, target);
  ASSERT_TRUE(party.begin(HTTP_METHOD_POST));
  http_requestHeaderValueSet(party.request, "Transfer-Encoding", "chunked");
  ASSERT_EQ(http_requestSend(party.request), 0);
  int parts = 0;
  party.onDrained = [&] {
    EXPECT_EQ(party.state(), HTTP_CLIENT_SENDING_REQUEST);
    EXPECT_EQ(peer_bytesQueued(party.peer()), 0u);
    if (++parts <= 3) return party.write("part" + std::to_string(parts));
    fclose(http_requestBody(party.request));
    EXPECT_EQ(http_requestDone(party.request), 0);
  };
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.said(), "drained; drained; drained; drained; header 200; done; ready");
  EXPECT_EQ(target.last().requests()[0].body, "part1part2part3");
}

// A request that the handler completes without writing anything more still moves on.
TEST_F(ClientCycleTest, RequestCompletedInTheDrainedHandlerWithoutOutput) {
  WireTarget target;
  target.always(WireScript().request().send(emptyReply()));
  Party party;
  party.client->requestDrainedHandler = Party::handleDrained;
  startOn(party, target);
  ASSERT_TRUE(party.begin());
  ASSERT_EQ(http_requestSend(party.request), 0);
  party.onDrained = [&] { EXPECT_EQ(http_requestDone(party.request), 0); };
  settle();
  if (party.state() == HTTP_CLIENT_SENDING_REQUEST) {
    EXPECT_EQ(http_clientRequestSent(party.client), 0);
  }
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.said(), "drained; header 200; done; ready");
}

TEST_F(ClientCycleTest, DrainedHandlerIsNotCalledForARequestThatIsDone) {
  WireTarget target;
  target.always(WireScript().request().send(emptyReply()));
  Party party;
  party.client->requestDrainedHandler = Party::handleDrained;
  startOn(party, target);
  party.post("upload");
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(party.said(), "header 200; done; ready");
}

// --- ownership -------------------------------------------------------------------------------------------------------

struct OwnerCase {
  const char* name;
  std::function<void(Party&)> change;
  TraceLines fatal;
};
void PrintTo(const OwnerCase& row, std::ostream* out) { *out << row.name; }

const std::string kReplyNotOwned = "http-cl[x0]reply is not owned by client";
const std::string kRequestNotOwned = "http-cl[x0]request is not owned by client";
int elsewhere;
const OwnerCase kOwners[] = {
    {"AsItShouldBe", [](Party&) {}, {}},
    {"ReplysOwner", [](Party& party) { party.reply->message.owner = &elsewhere; }, {kReplyNotOwned}},
    {"RequestsOwner", [](Party& party) { party.request->message.owner = &elsewhere; }, {kRequestNotOwned}},
    // Both checks look at the reply's type, none at the request's.
    {"ReplysType",
     [](Party& party) { party.reply->message.ownerType = HTTP_MSG_OWNED_BY_SERVER; },
     {kReplyNotOwned, kRequestNotOwned}},
    {"RequestsType", [](Party& party) { party.request->message.ownerType = HTTP_MSG_OWNED_BY_SERVER; }, {}},
    {"BothOwners",
     [](Party& party) { party.reply->message.owner = party.request->message.owner = &elsewhere; },
     {kReplyNotOwned, kRequestNotOwned}},
};
class ClientOwnerTest : public ClientTest, public ::testing::WithParamInterface<OwnerCase> {};
INSTANTIATE_TEST_SUITE_P(Client, ClientOwnerTest, ::testing::ValuesIn(kOwners),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ClientOwnerTest, IsCheckedWhenTheRequestHasLeft) {
  WireTarget target;
  Party party;
  startOn(party, target);
  ASSERT_TRUE(party.begin());
  GetParam().change(party);
  ASSERT_EQ(http_requestSend(party.request), 0);
  ASSERT_EQ(http_requestDone(party.request), 0);
  TraceCapture trace;
  ASSERT_TRUE(until([&] { return party.state() == HTTP_CLIENT_REQUEST_SENT; }));
  EXPECT_EQ(trace.said(KROTRACE_FATAL), GetParam().fatal);
}

TEST_P(ClientOwnerTest, IsCheckedWhenTheReplyArrives) {
  WireTarget target;
  target.always(WireScript().request());
  Party party;
  startOn(party, target);
  party.ask();
  ASSERT_TRUE(until([&] { return party.state() == HTTP_CLIENT_REQUEST_SENT && target.requests() == 1; }));
  GetParam().change(party);
  TraceCapture trace;
  target.last().send(emptyReply());
  ASSERT_TRUE(until([&] { return party.has("ready"); }));  // the checks only trace
  EXPECT_EQ(trace.said(KROTRACE_FATAL), GetParam().fatal);
  EXPECT_EQ(party.said(), "header 200; done; ready");
}

TEST_P(ClientOwnerTest, IsCheckedWhenTheConnectionCloses) {
  WireTarget target;
  Party party;
  startOn(party, target);
  ASSERT_TRUE(party.begin());
  GetParam().change(party);
  TraceCapture trace;
  peer_close(party.peer());
  EXPECT_EQ(trace.said(KROTRACE_FATAL), GetParam().fatal);
  EXPECT_EQ(party.said(), "error; closed");
}

// --- handlers that are not there -------------------------------------------------------------------------------------

struct MissingCase {
  const char* name;
  void (*remove)(HttpClient*);
  const char* calls;
};
void PrintTo(const MissingCase& row, std::ostream* out) { *out << row.name; }
const MissingCase kMissing[] = {
    {"ReplyDone", [](HttpClient* client) { client->replyDoneHandler = nullptr; },
     "header 200; body hello; ready; closed"},
    {"Ready", [](HttpClient* client) { client->readyHandler = nullptr; }, "header 200; body hello; done; closed"},
    {"Closed", [](HttpClient* client) { client->closedHandler = nullptr; }, "header 200; body hello; done; ready"},
    {"Error", [](HttpClient* client) { client->errorHandler = nullptr; },
     "header 200; body hello; done; ready; closed"},
    {"AllButTheMandatory",
     [](HttpClient* client) {
       client->replyDoneHandler = client->readyHandler = client->errorHandler = nullptr;
       client->closedHandler = nullptr;
     },
     "header 200; body hello"},
};
class ClientMissingTest : public ClientTest, public ::testing::WithParamInterface<MissingCase> {};
INSTANTIATE_TEST_SUITE_P(Client, ClientMissingTest, ::testing::ValuesIn(kMissing),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ClientMissingTest, OptionalHandler) {
  WireTarget target;
  target.always(WireScript().request().send(okReply("hello")).turns(3).reset());
  Party party;
  GetParam().remove(party.client);
  startOn(party, target);
  TraceCapture trace{"http-client"};
  party.ask();
  ASSERT_TRUE(until([&] { return target.count() == 1 && target.last().left() && party.peer() == nullptr; }));
  EXPECT_EQ(party.said(), GetParam().calls);
  EXPECT_EQ(trace.has("http-cl[i]calling reply done handler"), party.client->replyDoneHandler != nullptr);
  EXPECT_EQ(trace.has("http-cl[i]calling ready handler"), party.client->readyHandler != nullptr);
}

TEST_P(ClientMissingTest, OfAConnectionThatEndsWithoutAReply) {
  WireTarget target;
  target.always(WireScript().request().leave());
  Party party;
  GetParam().remove(party.client);
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return target.count() == 1 && target.last().left() && party.peer() == nullptr; }));
  std::string expected = party.client->errorHandler == nullptr ? "" : "error";
  if (party.client->closedHandler != nullptr) expected += expected.empty() ? "closed" : "; closed";
  EXPECT_EQ(party.said(), expected);
  EXPECT_EQ(party.state(), HTTP_CLIENT_ERROR);
}

// A mandatory handler that is missing ends the connection instead of the process, or is done without.
TEST_F(ClientCycleTest, MissingMandatoryHandlersAreSafe) {
  for (const bool header : {true, false}) {
    for (const std::string& reply : {okReply("hello"), closeDelimited("hello"), chunkedReply("hello")}) {
      WireTarget target;
      target.always(WireScript().request().send(reply).turns(3).reset());
      Party party;
      (header ? (void)(party.client->replyHeaderHandler = nullptr) : (void)(party.client->bodyHandler = nullptr));
      startOn(party, target);
      TraceCapture trace;
      party.ask();
      ASSERT_TRUE(until([&] { return party.has("closed"); })) << reply << party.said();
      EXPECT_FALSE(party.has(header ? "header 200" : "body hello"));
      EXPECT_FALSE(party.has("error"));
    }
  }
}

TEST_F(ClientCycleTest, MissingBodyHandlerWhenThePeerIsClosed) {
  WireTarget target;
  target.always(WireScript().request().send(closeDelimited("")));
  Party party;
  party.client->bodyHandler = nullptr;
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("header 200"); }));
  if (party.peer() != nullptr) peer_close(party.peer());
  EXPECT_TRUE(party.has("closed"));
}

// --- handlers that fail ----------------------------------------------------------------------------------------------

TEST_F(ClientCycleTest, FailingHeaderHandlerEndsTheConnection) {
  struct Row {
    const char* name;
    std::string reply;
    bool untilClose;
  };
  const Row rows[] = {
      {"no body", emptyReply(), false}, {"length", okReply("hello"), false}, {"chunked", chunkedReply("hello"), false}};
  for (const Row& row : rows) {
    WireTarget target;
    target.always(WireScript().request().send(row.reply));
    Party party;
    party.onHeader = [] { return -1; };
    startOn(party, target);
    party.ask();
    ASSERT_TRUE(until([&] { return party.state() == HTTP_CLIENT_REQUEST_SENT; }));
    TraceCapture trace{"http-client"};
    ASSERT_TRUE(until([&] { return party.has("closed"); })) << row.name << ": " << party.said();
    EXPECT_EQ(party.said(), "header 200; closed") << row.name;
    EXPECT_EQ(party.state(), HTTP_CLIENT_RECEIVING_REPLY) << row.name;  // left where it was
    EXPECT_EQ(party.peer(), nullptr);
    EXPECT_EQ(clientLines(trace), joinedLines({replyHead(1), {"[i]connection closed"}})) << row.name;
    ASSERT_TRUE(until([&] { return target.last().ended(); }));
  }
}

TEST_F(ClientCycleTest, FailingBodyHandlerEndsTheConnection) {
  for (const std::string& reply : {okReply("hello"), chunkedReply("hello"), multipartReply("hello")}) {
    WireTarget target;
    target.always(WireScript().request().send(reply));
    Party party;
    party.onBody = [](FILE*) { return -1; };
    startOn(party, target);
    party.ask();
    TraceCapture trace{"http-client"};
    ASSERT_TRUE(until([&] { return party.has("closed"); })) << party.said();
    EXPECT_EQ(party.bodyCalls, 1u);
    EXPECT_EQ(party.said(), "header 200; body ; closed");
    EXPECT_EQ(party.state(), HTTP_CLIENT_REPLY_RECEIVED);
    EXPECT_TRUE(trace.has("http-cl" + clientSwitched("RECEIVING_REPLY", "REPLY_RECEIVED")));
    EXPECT_EQ(party.reply->message.body, nullptr);
    ASSERT_TRUE(until([&] { return target.last().ended(); }));
  }
}

TEST_F(ClientCycleTest, FailingBodyHandlerOfABodyUntilClose) {
  WireTarget target;
  target.always(WireScript().request().send(closeDelimited("hello")));
  Party party;
  party.onBody = [](FILE*) { return -1; };
  startOn(party, target);
  party.ask();
  TraceCapture trace;
  ASSERT_TRUE(until([&] { return party.has("closed"); })) << party.said();
  EXPECT_EQ(party.bodyCalls, 1u);
  EXPECT_EQ(party.said(), "header 200; body ; closed");
}

// A handler that closes the body itself has had enough of it, and the rest may not be taken for the next reply.
TEST_F(ClientCycleTest, BodyClosedByItsHandler) {
  WireTarget target;
  target.always(WireScript().request().send(okReply("hello")));
  Party party;
  party.onBody = [](FILE* stream) {
    EXPECT_EQ(fgetc(stream), 'h');
    fclose(stream);
    return 0;
  };
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("closed") || party.has("ready") || party.has("done cut"); }))
      << party.said();
  EXPECT_EQ(party.bodyCalls, 1u);
}

TEST_F(ClientCycleTest, BodyReadToItsEndAndClosedByItsHandler) {
  WireTarget target;
  target.always(WireScript().request().send(okReply("hello")).repeat());
  Party party;
  party.onBody = [](FILE* stream) {
    EXPECT_EQ(readBody(stream), "hello");
    fclose(stream);
    return 0;
  };
  startOn(party, target);
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  party.ask();
  ASSERT_TRUE(until([&] { return party.count("ready") == 2; })) << party.said();
  EXPECT_EQ(party.said(), "header 200; body ; done; ready; header 200; body ; done; ready");
}

TEST_F(ClientCycleTest, DiscardedBody) {
  for (const std::string& reply : {okReply("hello"), chunkedReply("hello", 2)}) {
    WireTarget target;
    target.always(WireScript().request().pieces(reply, 3).repeat());
    Party party;
    party.onBody = [&](FILE*) { return http_replyBodyDiscard(party.reply); };
    startOn(party, target);
    for (size_t exchange = 1; exchange <= 2; ++exchange) {
      party.ask();
      ASSERT_TRUE(until([&] { return party.count("ready") == exchange; })) << party.said();
    }
    EXPECT_EQ(party.said(), "header 200; body ; done; ready; header 200; body ; done; ready");
  }
}

// --- heads that are refused ------------------------------------------------------------------------------------------

TEST_F(ClientCycleTest, RefusedHeads) {
  struct Row {
    const char* reply;
    const char* calls;
    HttpClientState state;
  };
  const Row rows[] = {
      // The first line is refused: nothing of a reply has come.
      {"garbage\r\n\r\n", "error; closed", HTTP_CLIENT_ERROR},
      {"GET / HTTP/1.1\r\n\r\n", "error; closed", HTTP_CLIENT_ERROR},
      {"HTTP/1.1 200\r\n\r\n", "error; closed", HTTP_CLIENT_ERROR},
      // A header is.
      {"HTTP/1.1 200 OK\r\nno colon\r\n\r\n", "closed", HTTP_CLIENT_RECEIVING_REPLY},
      {"HTTP/1.1 200 OK\r\n: x\r\n\r\n", "closed", HTTP_CLIENT_RECEIVING_REPLY},
  };
  for (const Row& row : rows) {
    WireTarget target;
    target.always(WireScript().request().send(row.reply));
    Party party;
    startOn(party, target);
    TraceCapture trace;
    party.ask();
    ASSERT_TRUE(until([&] { return party.has("closed"); })) << row.reply;
    EXPECT_EQ(party.said(), row.calls) << row.reply;
    EXPECT_EQ(party.state(), row.state) << row.reply;
    EXPECT_EQ(party.peer(), nullptr);
  }
}

// A body that cannot be read as its head announces it.
TEST_F(ClientCycleTest, BodiesThatCannotBeRead) {
  struct Row {
    const char* name;
    std::string reply;
  };
  const Row rows[] = {
      {"unknown coding", replyWith("200 OK", "Transfer-Encoding: gzip\r\n", "xxxx")},
      {"bad chunk size", replyWith("200 OK", "Transfer-Encoding: chunked\r\n", "xyz\r\nhello\r\n")},
      {"chunk extension", replyWith("200 OK", "Transfer-Encoding: chunked\r\n", "5;x=1\r\nhello\r\n0\r\n\r\n")},
      {"no chunk end", replyWith("200 OK", "Transfer-Encoding: chunked\r\n", "5\r\nhelloworld")},
  };
  for (const Row& row : rows) {
    WireTarget target;
    target.always(WireScript().request().send(row.reply));
    Party party;
    startOn(party, target);
    TraceCapture trace;
    party.ask();
    ASSERT_TRUE(until([&] { return party.has("closed"); })) << row.name << ": " << party.said();
    EXPECT_EQ(party.calls.front(), "header 200") << row.name;
    EXPECT_FALSE(party.has("done")) << row.name << ": " << party.said();
    EXPECT_FALSE(party.has("ready")) << row.name << ": " << party.said();
    EXPECT_FALSE(party.has("error")) << row.name;
    EXPECT_LE(party.bodyCalls, 3u) << row.name;
    ASSERT_TRUE(until([&] { return target.last().ended(); }));
  }
}

// --- states that were not expected -----------------------------------------------------------------------------------

// They are traced, and the work goes on.
TEST_F(ClientCycleTest, UnexpectedStatesWhileReading) {
  struct Row {
    const char* first;  // sent; then the state is changed
    HttpClientState state;
    std::string second;  // sent then
    TraceLines lines;    // of the second read event
  };
  const TraceLines bodyStep = {"[i]should handle body", "[i]handled body state is now 3"};
  const Row rows[] = {
      {"", HTTP_CLIENT_CLOSED, emptyReply(),
       joinedLines({readable(),
                    {clientWrong("CLOSED", "REQUEST_SENT"), clientSwitched("CLOSED", "RECEIVING_REPLY"),
                     "[i]reading enveloppe", "[i]reading enveloppe"},
                    replyFinished("RECEIVING_REPLY")})},
      // A status line that comes in two parts counts as begun.
      {"HTTP/1.", HTTP_CLIENT_RECEIVING_REPLY, "1 200 OK\r\nContent-Length: 0\r\n\r\n",
       joinedLines(
           {readable(),
            {clientWrong("RECEIVING_REPLY", "REQUEST_SENT"), clientSwitched("RECEIVING_REPLY", "RECEIVING_REPLY"),
             "[i]reading enveloppe", "[i]reading enveloppe"},
            replyFinished("RECEIVING_REPLY")})},
      {"HTTP/1.1 200 OK\r\n", HTTP_CLIENT_ERROR, "Content-Length: 0\r\n\r\n",
       joinedLines({readable(),
                    {clientWrong("ERROR", "RECEIVING_REPLY"), "[i]reading enveloppe",
                     clientWrong("ERROR", "RECEIVING_REPLY"), "[i]reading enveloppe"},
                    replyFinished("ERROR")})},
      {"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\na", HTTP_CLIENT_INIT, "b",
       joinedLines({readable(),
                    {clientWrong("INIT", "RECEIVING_REPLY")},
                    bodyStep,
                    {clientSwitched("INIT", "REPLY_RECEIVED")},
                    replyFinished("REPLY_RECEIVED")})},
  };
  for (const Row& row : rows) {
    WireTarget target;
    Party party;
    startOn(party, target);
    party.ask();
    ASSERT_TRUE(until([&] { return party.state() == HTTP_CLIENT_REQUEST_SENT && target.count() == 1; }));
    target.last().send(row.first);
    settle();
    party.client->state = row.state;
    TraceCapture trace{"http-client"};
    target.last().send(row.second);
    settle();
    EXPECT_EQ(clientLines(trace), row.lines) << row.first;
    EXPECT_EQ(party.calls.back(), "ready") << row.first;
    EXPECT_EQ(party.state(), HTTP_CLIENT_INIT);
  }
}

TEST_F(ClientCycleTest, UnexpectedStateWhenTheRequestHasLeft) {
  WireTarget target;
  target.always(WireScript().request().send(emptyReply()));
  Party party;
  startOn(party, target);
  party.ask();
  party.client->state = HTTP_CLIENT_CLOSED;
  TraceCapture trace{"http-client"};
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(clientLines(trace),
            joinedLines({{"[i]data written", clientWrong("CLOSED", "SENDING_REQUEST"), "[i]rq state: 3",
                          "[i]request sent", clientSwitched("CLOSED", "REQUEST_SENT")},
                         replyHead(1),
                         replyFinished("RECEIVING_REPLY")}));
}

TEST_F(ClientCycleTest, RepliesInAStateThatIsNotRead) {
  for (const int state : {static_cast<int>(HTTP_MSG_ACKNOWLEDGED), static_cast<int>(HTTP_MSG_FAILED), 99}) {
    WireTarget target;
    target.always(WireScript().request());
    Party party;
    startOn(party, target);
    party.ask();
    ASSERT_TRUE(until([&] { return target.requests() == 1 && party.state() == HTTP_CLIENT_REQUEST_SENT; }));
    party.reply->message.state = state;
    TraceCapture trace{"http-client"};
    target.last().send("x");
    ASSERT_TRUE(until([&] { return party.has("closed"); }));
    EXPECT_EQ(clientLines(trace), joinedLines({readable(),
                                               {"[x]unknown state: " + std::to_string(state), "[i]connection closed",
                                                "[x]client closed the connection and we received nothing from it"}}));
    EXPECT_EQ(party.said(), "error; closed");
  }
}

// --- many exchanges --------------------------------------------------------------------------------------------------

TEST_F(ClientCycleTest, TwoHundredExchangesOnOneConnection) {
  constexpr size_t kExchanges = 200;
  WireTarget target;
  const std::string kinds[] = {okReply("hello"), chunkedReply("hello", 2), emptyReply(),
                               replyWith("100 Continue", "") + okReply("hello")};
  WireScript script;
  for (const std::string& reply : kinds) script.request().send(reply);
  target.always(script.repeat());
  Party party;
  size_t exchanges = 0;
  party.onReady = [&] {
    if (++exchanges < kExchanges) party.ask(HTTP_METHOD_GET, ("/" + std::to_string(exchanges)).c_str());
  };
  startOn(party, target);
  ZelPeer* const peer = party.peer();
  TraceCapture trace;
  party.ask(HTTP_METHOD_GET, "/0");
  ASSERT_TRUE(until([&] { return exchanges == kExchanges; })) << exchanges;
  settle();
  EXPECT_EQ(party.peer(), peer);
  EXPECT_EQ(target.count(), 1u);
  EXPECT_EQ(party.count("header 200"), kExchanges);
  EXPECT_EQ(party.count("body hello"), kExchanges * 3 / 4);
  EXPECT_EQ(party.count("done"), kExchanges);
  const auto requests = target.last().requests();
  ASSERT_EQ(requests.size(), kExchanges);
  for (size_t i = 0; i < kExchanges; ++i)
    EXPECT_EQ(requests[i].wire, "GET /" + std::to_string(i) + " HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(trace.said(), TraceLines());

  // However many exchanges there were, the end is told once.
  TraceCapture atTheEnd{"http-client"};
  target.last().reset();
  ASSERT_TRUE(until([&] { return party.peer() == nullptr; }));
  settle();
  EXPECT_EQ(atTheEnd.count("http-cl[i]connection closed"), 1u);
  EXPECT_EQ(party.count("closed"), 1u);
  EXPECT_EQ(party.count("error"), 0u);
}

// Requests with bodies one behind the other, begun in the ready handler.
TEST_F(ClientCycleTest, UploadsOneBehindTheOther) {
  constexpr size_t kExchanges = 20;
  WireTarget target;
  target.always(WireScript().request().send(okReply("x")).repeat());
  Party party;
  size_t exchanges = 0;
  party.onReady = [&] {
    if (++exchanges < kExchanges) party.post(std::string(exchanges * 100, 'u'));
  };
  startOn(party, target);
  party.post("");
  ASSERT_TRUE(until([&] { return exchanges == kExchanges; })) << party.said();
  const auto requests = target.last().requests();
  ASSERT_EQ(requests.size(), kExchanges);
  for (size_t i = 0; i < kExchanges; ++i) EXPECT_EQ(requests[i].body.size(), i * 100);
}

// Gives the messages of one application to another one.
void handOver(Party& from, Party& to) {
  to.freeMessages();
  to.request = std::exchange(from.request, nullptr);
  to.reply = std::exchange(from.reply, nullptr);
  http_requestUserDataSet(to.request, &to);
  http_replyUserDataSet(to.reply, &to);
}

// The request takes part in another exchange while the first client stays connected.
TEST_F(ClientCycleTest, MessagesAreReusedWithASecondClient) {
  WireTarget first;
  WireTarget second;
  first.always(WireScript().request().send(okReply("first")).repeat());
  second.always(WireScript().request().send(okReply("second")).repeat());
  Party one;
  Party two;
  startOn(one, first);
  startOn(two, second);
  one.ask();
  ASSERT_TRUE(until([&] { return one.has("ready"); }));

  handOver(one, two);
  two.ask(HTTP_METHOD_GET, "/again");
  EXPECT_EQ(two.request->message.owner, two.client);
  EXPECT_EQ(two.request->message.peer, two.peer());
  ASSERT_TRUE(until([&] { return two.has("ready"); }));
  EXPECT_EQ(two.body, "second");
  EXPECT_EQ(second.last().received(), "GET /again HTTP/1.1\r\nHost: x\r\n\r\n");

  // The first client's end does not touch what it no longer holds.
  TraceCapture trace;
  first.last().reset();
  ASSERT_TRUE(until([&] { return one.has("closed"); }));
  EXPECT_EQ(two.request->message.peer, two.peer());
  EXPECT_EQ(two.reply->message.peer, two.peer());
  EXPECT_NE(two.request->message.stream, nullptr);
  two.ask();
  ASSERT_TRUE(until([&] { return two.count("ready") == 2; }));
  EXPECT_EQ(two.said(), "header 200; body second; done; ready; header 200; body second; done; ready");
}

// The first client has forgotten them by then, or it would look at them when its connection ends.
TEST_F(ClientCycleTest, MessagesThatWereReusedMayBeDestroyed) {
  for (const bool stops : {true, false}) {
    SCOPED_TRACE(stops ? "the client stops" : "the server goes");
    WireTarget first;
    WireTarget second;
    first.always(WireScript().request().send(okReply("first")));
    second.always(WireScript().request().send(okReply("second")));
    Party one;
    Party two;
    startOn(one, first);
    startOn(two, second);
    one.ask();
    ASSERT_TRUE(until([&] { return one.has("ready"); }));
    handOver(one, two);
    two.ask();
    const auto* const context = static_cast<const HttpClientConnection*>(peer_userData(one.peer()));
    EXPECT_EQ(context->request, nullptr);
    EXPECT_EQ(context->reply, nullptr);
    ASSERT_TRUE(until([&] { return two.has("ready"); }));
    if (stops) {
      two.stop();
    } else {
      second.last().reset();
      ASSERT_TRUE(until([&] { return two.has("closed"); }));
    }
    two.freeMessages();
    first.last().reset();
    ASSERT_TRUE(until([&] { return one.has("closed"); }));
    EXPECT_EQ(one.said(), "header 200; body first; done; ready; closed");
  }
}

// Messages of an exchange under way: that one ends without them.
TEST_F(ClientCycleTest, MessagesTakenFromAnExchangeEndIt) {
  WireTarget first;
  WireTarget second;
  second.always(WireScript().request().send(okReply("second")));
  Party one;
  Party two;
  startOn(one, first);
  startOn(two, second);
  one.ask();
  ASSERT_TRUE(until([&] { return one.state() == HTTP_CLIENT_REQUEST_SENT; }));
  handOver(one, two);
  http_requestReset(two.request);
  two.ask();
  ASSERT_TRUE(until([&] { return two.has("ready"); }));
  EXPECT_EQ(two.said(), "header 200; body second; done; ready");
  const TraceCapture quiet;
  first.last().send(okReply("late"));
  ASSERT_TRUE(until([&] { return one.has("closed"); }));
  EXPECT_EQ(one.said(), "closed");
}

// The same while its exchange with the first client is under way: the client it is begun with last has it.
TEST_F(ClientCycleTest, MessagesAreTakenOverByASecondClient) {
  WireTarget first;
  WireTarget second;
  second.always(WireScript().request().send(okReply("second")));
  Party one;
  Party two;
  startOn(one, first);
  startOn(two, second);
  one.ask();
  ASSERT_TRUE(until([&] { return one.state() == HTTP_CLIENT_REQUEST_SENT; }));
  one.stop();
  handOver(one, two);
  http_requestReset(two.request);
  two.ask();
  ASSERT_TRUE(until([&] { return two.has("ready"); }));
  EXPECT_EQ(two.said(), "header 200; body second; done; ready");
}

// Several clients at once do not know of each other.
TEST_F(ClientCycleTest, ClientsSideBySide) {
  constexpr size_t kClients = 10;
  WireTarget target;
  target.always(WireScript()
                    .request()
                    .call([](WireTargetConnection& connection) {
                      connection.send(chunkedReply(connection.requests().back().line, 1));
                    })
                    .repeat());
  std::vector<std::unique_ptr<Party>> parties;
  for (size_t i = 0; i < kClients; ++i) {
    parties.push_back(std::make_unique<Party>());
    startOn(*parties.back(), target);
    parties.back()->ask(HTTP_METHOD_GET, ("/" + std::to_string(i)).c_str());
  }
  for (size_t i = 0; i < kClients; ++i) {
    Party& party = *parties[i];
    ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
    EXPECT_EQ(party.body, "GET /" + std::to_string(i) + " HTTP/1.1");
  }
}

// --- what does not belong to the reply -------------------------------------------------------------------------------

TEST_F(ClientCycleTest, GarbageBehindAReply) {
  const std::string garbage[] = {
      "x",         "\r\n\r\n",     std::string(1, '\0') + "\xff\xfe", "HTTP/1.1 200 OK\r\n\r\n", "HTTP/1",
      "0\r\n\r\n", pattern(100000)};
  for (const std::string& tail : garbage) {
    WireTarget target;
    target.always(WireScript().request().send(okReply("hello") + tail));
    Party party;
    startOn(party, target);
    TraceCapture trace;
    party.ask();
    ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
    settle();
    EXPECT_EQ(party.said().substr(0, 35), "header 200; body hello; done; ready");
    EXPECT_EQ(party.count("header 200"), 1u);
    // The next exchange may fail; it ends.
    if (party.peer() != nullptr) party.ask();
    target.last().reset();
    ASSERT_TRUE(until([&] { return party.peer() == nullptr; })) << party.said();
    EXPECT_EQ(party.count("closed"), 1u);
  }
}

// A reply that nobody asked for is left unread.
TEST_F(ClientCycleTest, ReplyWithoutARequest) {
  WireTarget target;
  Party party;
  startOn(party, target);
  ASSERT_TRUE(until([&] { return target.count() == 1; }));
  TraceCapture trace{"http-client"};
  target.last().send(okReply("early"));
  settle();
  EXPECT_EQ(clientLines(trace), TraceLines());
  EXPECT_EQ(party.said(), "");
  EXPECT_EQ(party.state(), HTTP_CLIENT_INIT);
}

// --- texts -----------------------------------------------------------------------------------------------------------

TEST_F(ClientCycleTest, HeadersPassUnchanged) {
  const std::string value = "%s%n%d 100%";
  WireTarget target;
  target.always(
      WireScript().request().send(replyWith("200 O%sK", "X-%n: " + value + "\r\nServer: %s\r\nContent-Length: 0\r\n")));
  Party party;
  party.onHeader = [&] {
    EXPECT_STREQ(http_replyHeaderValue(party.reply, "X-%n"), value.c_str());
    EXPECT_STREQ(http_replyHeaderValue(party.reply, "Server"), "%s");
    EXPECT_STREQ(party.reply->reason, "O%sK");
    return 0;
  };
  startOn(party, target);
  TraceCapture trace{"http-client"};
  party.ask(HTTP_METHOD_GET, "/%25s");
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(target.last().requests()[0].line, "GET /%25s HTTP/1.1");
}

TEST_F(ClientCycleTest, LongHead) {
  std::string headers;
  for (int i = 0; i < 200; ++i) headers += "X-" + std::to_string(i) + ": " + std::string(200, 'v') + "\r\n";
  WireTarget target;
  target.always(WireScript().request().send(replyWith("200 OK", headers + "Content-Length: 5\r\n", "hello")).repeat());
  Party party;
  party.onHeader = [&] {
    EXPECT_STREQ(http_replyHeaderValue(party.reply, "X-199"), std::string(200, 'v').c_str());
    return 0;
  };
  startOn(party, target);
  for (size_t i = 1; i <= 2; ++i) {
    party.ask();
    ASSERT_TRUE(until([&] { return party.count("ready") == i; }));
  }
  EXPECT_EQ(party.body, "hello");
}

}  // namespace
