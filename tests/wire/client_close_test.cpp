// The end of a client's connection: at any point, by either side, inside any handler.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <zel/error.h>

#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "client_support.h"

namespace {

using Calls = std::vector<std::string>;

class ClientCloseTest : public ClientTest {};

void expectDetached(const Party& party) {
  EXPECT_EQ(party.peer(), nullptr);
  for (const HttpMessage* message : {&party.request->message, &party.reply->message}) {
    EXPECT_EQ(message->peer, nullptr);
    EXPECT_EQ(message->stream, nullptr);
    EXPECT_EQ(message->body, nullptr);
  }
}

// --- in each state ---------------------------------------------------------------------------------------------------

// How far an exchange has come.
struct Stage {
  const char* name;
  bool asks;          // a complete request is made; otherwise its head only, where an exchange is begun at all
  std::string reply;  // sent when the request has arrived
  HttpClientState state;
  std::string before;  // the calls until here
  std::string after;   // those of the end
  HttpClientState finalState;
  TraceLines lines;  // of the end, when this side closes
};
void PrintTo(const Stage& row, std::ostream* out) { *out << row.name; }

const std::string kNothingCame = "[x]client closed the connection and we received nothing from it";
const std::string kComplete = "[x]client closed connection while receiving reply, assume reply is complete";
const std::string kClosed = "[i]connection closed";

const Stage kStages[] = {
    {"Idle",
     true,
     okReply("a"),
     HTTP_CLIENT_INIT,
     "header 200; body a; done; ready",
     "closed",
     HTTP_CLIENT_INIT,
     {kClosed}},
    {"Sending",
     false,
     "",
     HTTP_CLIENT_SENDING_REQUEST,
     "",
     "error; closed",
     HTTP_CLIENT_ERROR,
     {kClosed, kNothingCame}},
    {"Sent", true, "", HTTP_CLIENT_REQUEST_SENT, "", "error; closed", HTTP_CLIENT_ERROR, {kClosed, kNothingCame}},
    {"HeadBegun",
     true,
     "HTTP/1.1 200 OK\r\n",
     HTTP_CLIENT_RECEIVING_REPLY,
     "",
     "closed",
     HTTP_CLIENT_RECEIVING_REPLY,
     {kClosed}},
    {"InAHeader",
     true,
     "HTTP/1.1 200 OK\r\nServ",
     HTTP_CLIENT_RECEIVING_REPLY,
     "",
     "closed",
     HTTP_CLIENT_RECEIVING_REPLY,
     {kClosed}},
    {"LengthBegun",
     true,
     "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhel",
     HTTP_CLIENT_RECEIVING_REPLY,
     "header 200; body hel",
     "closed",
     HTTP_CLIENT_RECEIVING_REPLY,
     {kClosed}},
    {"ChunkBegun",
     true,
     "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhel",
     HTTP_CLIENT_RECEIVING_REPLY,
     "header 200; body hel",
     "closed",
     HTTP_CLIENT_RECEIVING_REPLY,
     {kClosed}},
    {"UntilCloseBegun",
     true,
     closeDelimited("hel"),
     HTTP_CLIENT_RECEIVING_REPLY,
     "header 200; body hel",
     "done; ready; closed",
     HTTP_CLIENT_INIT,
     {kClosed, kComplete, clientSwitched("RECEIVING_REPLY", "REPLY_RECEIVED"),
      "[i]connection available for read (socket # #)", clientSwitched("REPLY_RECEIVED", "REPLY_RECEIVED"),
      "[i]finished processing message", "[i]calling reply done handler", clientSwitched("REPLY_RECEIVED", "INIT"),
      "[i]calling ready handler"}},
};
class ClientStageTest : public ClientTest, public ::testing::WithParamInterface<Stage> {
 protected:
  // Brings an exchange as far as the row says.
  void advance(Party& party, WireTarget& target) {
    startOn(party, target);
    if (GetParam().asks) {
      party.ask();
      ASSERT_TRUE(until([&] { return target.count() == 1 && target.last().requests().size() == 1; }));
      target.last().send(GetParam().reply);
    } else {
      ASSERT_TRUE(party.begin(HTTP_METHOD_POST));
      http_requestHeaderValueSet(party.request, "Content-Length", "5");
      ASSERT_EQ(http_requestSend(party.request), 0);
      ASSERT_TRUE(until([&] { return target.count() == 1 && !target.last().received().empty(); }));
    }
    settle();
    ASSERT_EQ(party.state(), GetParam().state) << party.stateName();
    ASSERT_EQ(party.said(), GetParam().before);
    party.calls.clear();
  }
  // Consecutive calls of the body handler at the end read nothing and are left out.
  static std::string saidAtTheEnd(const Party& party) {
    std::string said = party.said();
    if (said.rfind("body ; ", 0) == 0) said.erase(0, 7);
    return said;
  }
  // What is called when the target has not ended the connection in order, as a body until close waits for.
  static std::string callsWhenCut() {
    const std::string calls = GetParam().after;
    return calls == "done; ready; closed" ? "done cut; ready; closed" : calls;
  }
};
INSTANTIATE_TEST_SUITE_P(Client, ClientStageTest, ::testing::ValuesIn(kStages),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ClientStageTest, ClosedByThisSide) {
  WireTarget target;
  Party party;
  advance(party, target);
  bool detached = false;
  party.onClosed = [&] {
    expectDetached(party);
    detached = true;
  };
  TraceCapture trace{"http-client"};
  peer_close(party.peer());
  EXPECT_TRUE(detached);
  EXPECT_EQ(clientLines(trace), GetParam().lines);
  EXPECT_EQ(saidAtTheEnd(party), callsWhenCut());
  EXPECT_EQ(party.state(), GetParam().finalState);
  expectDetached(party);

  // Nothing is left to stop.
  trace.clear();
  party.stop();
  EXPECT_EQ(clientLines(trace), (TraceLines{"[i]stopping client"}));
  settle();
  EXPECT_EQ(saidAtTheEnd(party), callsWhenCut());
}

TEST_P(ClientStageTest, ResetByTheTarget) {
  WireTarget target;
  Party party;
  advance(party, target);
  TraceCapture trace;
  target.last().reset();
  ASSERT_TRUE(until([&] { return party.has("closed"); })) << party.said();
  settle();
  EXPECT_EQ(party.count("closed"), 1u);
  EXPECT_EQ(saidAtTheEnd(party), callsWhenCut());
  expectDetached(party);
}

TEST_P(ClientStageTest, ConnectionDestroyed) {
  WireTarget target;
  Party party;
  ZelConnection* const own = connection_create();
  ZelPeer* const peer = connection_connectToTCP(own, "127.0.0.1", target.port().c_str(), 0);
  ASSERT_EQ(party.start(peer), 0);
  if (GetParam().asks) {
    party.ask();
    ASSERT_TRUE(until([&] { return target.count() == 1 && target.last().requests().size() == 1; }));
    target.last().send(GetParam().reply);
  } else {
    ASSERT_TRUE(party.begin(HTTP_METHOD_POST));
    http_requestHeaderValueSet(party.request, "Content-Length", "5");
    ASSERT_EQ(http_requestSend(party.request), 0);
  }
  settle();
  party.calls.clear();
  TraceCapture trace;
  connection_destroy(own);
  EXPECT_EQ(saidAtTheEnd(party), callsWhenCut());
  expectDetached(party);
}

TEST_P(ClientStageTest, Stopped) {
  WireTarget target;
  Party party;
  advance(party, target);
  TraceCapture trace{"http-client"};
  party.stop();
  EXPECT_EQ(clientLines(trace), (TraceLines{"[i]stopping client", "[i]removing client peer"}));
  expectDetached(party);
  party.stop();
  EXPECT_EQ(clientLines(trace), (TraceLines{"[i]stopping client", "[i]removing client peer", "[i]stopping client"}));
  ASSERT_TRUE(until([&] { return target.last().ended(); }));
  settle();
  EXPECT_EQ(party.said(), "");
}

TEST_P(ClientStageTest, MessagesDestroyedBeforeTheStop) {
  WireTarget target;
  Party party;
  advance(party, target);
  TraceCapture trace;
  party.freeMessages();
  party.stop();
  ASSERT_TRUE(until([&] { return target.last().ended(); }));
  EXPECT_EQ(party.said(), "");
}

TEST_P(ClientStageTest, MessagesDestroyedBehindTheStop) {
  WireTarget target;
  Party party;
  advance(party, target);
  TraceCapture trace;
  party.stop();
  settle();
  party.freeMessages();
  party.freeClient();
  ASSERT_TRUE(until([&] { return target.last().ended(); }));
  EXPECT_EQ(party.said(), "");
}

// Without its request and its reply an exchange cannot go on, whatever the target sends or does.
TEST_P(ClientStageTest, MessagesDestroyedUnderTheClient) {
  for (const bool sends : {true, false}) {
    WireTarget target;
    Party party;
    advance(party, target);
    TraceCapture trace;
    party.freeMessages();
    if (sends) target.last().send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
    settle();
    target.last().reset();
    settle();
    EXPECT_FALSE(party.has("header 200")) << party.said();
    EXPECT_FALSE(party.has("ready")) << party.said();
    EXPECT_LE(party.count("closed"), 1u) << party.said();
  }
}

// The client can be used again on another connection, wherever it was before.
TEST_P(ClientStageTest, StartedAgainAfterTheEnd) {
  for (const bool stopped : {true, false}) {
    WireTarget target;
    Party party;
    advance(party, target);
    TraceCapture trace;
    stopped ? party.stop() : peer_close(party.peer());
    settle();
    party.calls.clear();
    WireTarget other;
    other.always(WireScript().request().send(okReply("other")));
    startOn(party, other);
    http_requestReset(party.request);
    party.ask();
    ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
    EXPECT_EQ(party.said(), "header 200; body other; done; ready");
  }
}

// --- the end of what lasts until the end -----------------------------------------------------------------------------

TEST_F(ClientCloseTest, LastBytesOfABodyUntilCloseAreStillRead) {
  WireTarget target;
  target.always(WireScript().request().send(closeDelimited("hello")));
  Party party;
  std::string text;
  party.onBody = [&](FILE* stream) {
    setvbuf(stream, nullptr, _IONBF, 0);
    const int c = fgetc(stream);
    if (c == EOF) return 0;
    text += static_cast<char>(c);
    return http_clientPause(party.client);  // the rest stays with the connection
  };
  startOn(party, target);
  party.ask();
  ASSERT_TRUE(until([&] { return text == "h"; }));
  settle();
  EXPECT_EQ(text, "h");
  EXPECT_EQ(party.bodyCalls, 1u);
  party.onBody = [&](FILE* stream) {
    text += readBody(stream);
    return 0;
  };
  TraceCapture trace;
  peer_close(party.peer());
  EXPECT_EQ(text, "hello");
  EXPECT_EQ(party.said(), "header 200; body ; done cut; ready; closed");
  EXPECT_EQ(party.bodyCalls, 2u);
}

// Nobody reads, and so nobody but the end of the connection tells of it.
TEST_F(ClientCloseTest, ResetInAPauseCutsABodyUntilClose) {
  for (const bool before : {true, false}) {
    WireTarget target;
    target.always(WireScript().request().send(closeDelimited("hello")));
    Party party;
    if (before) party.onHeader = [&] { return http_clientPause(party.client); };
    party.onBody = [&](FILE* stream) {
      readBody(stream);
      return before ? 0 : http_clientPause(party.client);
    };
    startOn(party, target);
    party.ask();
    ASSERT_TRUE(until([&] { return party.has("header 200") && target.last().stalls(); }));
    settle();
    target.last().reset();
    ASSERT_TRUE(until([&] { return party.has("closed"); })) << party.said();
    EXPECT_EQ(party.count("done cut"), 1u) << party.said();
    EXPECT_EQ(party.count("done"), 0u);
  }
}

TEST_F(ClientCloseTest, BodyUntilCloseWhoseHandlerFailsAtTheEnd) {
  WireTarget target;
  target.always(WireScript().request().send(closeDelimited("hello")));
  Party party;
  startOn(party, target);
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("body hello"); }));
  party.onBody = [](FILE*) { return -1; };
  TraceCapture trace;
  peer_close(party.peer());
  EXPECT_EQ(party.calls.back(), "closed");
  EXPECT_EQ(party.count("closed"), 1u);
  expectDetached(party);
}

// What a reply was that came before, on another connection, says nothing about this one.
TEST_F(ClientCloseTest, HeadIsNotTakenForABodyUntilClose) {
  WireTarget first;
  first.always(WireScript().request().send(closeDelimited("hello")).leave());
  Party party;
  startOn(party, first);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  party.stop();
  party.calls.clear();
  WireTarget second;
  second.always(WireScript().request().send("HTTP/1.1 200 OK\r\nServer: t\r\n"));
  startOn(party, second);
  party.ask();
  ASSERT_TRUE(until([&] { return party.state() == HTTP_CLIENT_RECEIVING_REPLY; }));
  settle();
  trace.clear();
  peer_close(party.peer());
  EXPECT_EQ(party.said(), "closed");
  EXPECT_EQ(clientLines(trace), TraceLines());
  EXPECT_EQ(party.state(), HTTP_CLIENT_RECEIVING_REPLY);
}

TEST_F(ClientCloseTest, OtherCloseHandlersOfThePeerRunToo) {
  static int others;
  others = 0;
  WireTarget target;
  Party party;
  startOn(party, target);
  const auto other = [](ZelPeer*) {
    ++others;
    return true;
  };
  ASSERT_TRUE(peer_addCloseHandler(party.peer(), other));
  ASSERT_TRUE(peer_setEventHandler(party.peer(), PEER_EVENT_CLOSE, PEER_DIRECTION_NONE, other));
  party.ask();
  settle();
  peer_close(party.peer());
  EXPECT_EQ(others, 2);
  EXPECT_EQ(party.said(), "error; closed");
}

TEST_F(ClientCloseTest, StopLeavesOtherCloseHandlers) {
  static int others;
  others = 0;
  WireTarget target;
  Party party;
  startOn(party, target);
  ASSERT_TRUE(peer_addCloseHandler(party.peer(), [](ZelPeer*) {
    ++others;
    return true;
  }));
  party.ask();
  settle();
  party.stop();
  EXPECT_EQ(others, 1);
  EXPECT_EQ(party.said(), "");
}

// In these states there is nothing to tell but the end.
TEST_F(ClientCloseTest, StatesInWhichNothingIsLost) {
  for (const HttpClientState state :
       {HTTP_CLIENT_INIT, HTTP_CLIENT_REPLY_RECEIVED, HTTP_CLIENT_CLOSED, HTTP_CLIENT_ERROR}) {
    WireTarget target;
    Party party;
    startOn(party, target);
    party.ask();
    settle();
    party.client->state = state;
    TraceCapture trace{"http-client"};
    peer_close(party.peer());
    EXPECT_EQ(clientLines(trace), (TraceLines{kClosed})) << clientStateStrings[state];
    EXPECT_EQ(party.said(), "closed");
    EXPECT_EQ(party.state(), state);
    expectDetached(party);
  }
}

// Somebody else took the user data away: the client does not know the peer any more.
TEST_F(ClientCloseTest, PeerWithoutAContext) {
  static void* context;
  WireTarget target;
  Party party;
  startOn(party, target);
  party.ask();
  settle();
  ASSERT_TRUE(peer_setEventHandler(party.peer(), PEER_EVENT_CLOSE, PEER_DIRECTION_NONE, [](ZelPeer* peer) {
    context = peer_userData(peer);
    peer_setUserData(peer, nullptr);
    return true;
  }));
  ASSERT_TRUE(peer_addCloseHandler(party.peer(), [](ZelPeer* peer) {
    peer_setUserData(peer, context);
    return true;
  }));
  TraceCapture trace{"http-client"};
  peer_close(party.peer());
  EXPECT_EQ(clientLines(trace), (TraceLines{kClosed, "[i]everything has already been handled"}));
  EXPECT_EQ(party.said(), "");
  party.stop();
}

// --- connections that do not come about ------------------------------------------------------------------------------

TEST_F(ClientCloseTest, RefusedPort) {
  WireTarget target;
  target.refuse();
  for (const bool asks : {true, false}) {
    Party party;
    startOn(party, target);
    uint32_t reason = 0;
    party.onError = [&] { EXPECT_EQ(zel_error, static_cast<uint32_t>(ECONNREFUSED)); };
    party.onClosed = [&] { reason = zel_error; };
    TraceCapture trace;
    if (asks) party.ask();
    ASSERT_TRUE(until([&] { return party.has("closed"); })) << party.said();
    EXPECT_EQ(party.said(), asks ? "error; closed" : "closed");
    EXPECT_EQ(reason, static_cast<uint32_t>(ECONNREFUSED));
    EXPECT_EQ(party.state(), asks ? HTTP_CLIENT_ERROR : HTTP_CLIENT_INIT);
    EXPECT_EQ(party.peer(), nullptr);
  }
}

TEST_F(ClientCloseTest, MissingSocketPath) {
  const TemporaryFolder folder;
  Party party;
  ZelPeer* const peer = connection_connectToIPC(connection(), folder.at("socket").c_str());
  if (peer == nullptr) return;  // refused on the spot
  ASSERT_EQ(party.start(peer), 0);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("closed"); })) << party.said();
  EXPECT_EQ(party.said(), "error; closed");
}

// A connection that is kept for the next exchange and of no use any more is given up at once.
TEST_F(ClientCloseTest, IdleConnection) {
  struct Row {
    const char* name;
    void (*end)(WireTargetConnection&);
  };
  const Row rows[] = {
      {"leaves", [](WireTargetConnection& connection) { connection.leave(); }},
      {"finishes", [](WireTargetConnection& connection) { connection.finish(); }},
      {"resets", [](WireTargetConnection& connection) { connection.reset(); }},
      {"says what nobody asked for", [](WireTargetConnection& connection) { connection.send("x"); }},
  };
  const TemporaryFolder folder;
  for (const Row& row : rows) {
    for (const bool local : {false, true}) {
      WireTarget target(local ? WireAddress::local(folder.at(row.name)) : WireAddress::tcp(0));
      target.always(WireScript().request().send(okReply("a")));
      Party party;
      startOn(party, target);
      party.ask();
      ASSERT_TRUE(until([&] { return party.has("ready"); }));
      settle();
      EXPECT_NE(party.peer(), nullptr);
      TraceCapture trace{"http-client"};
      row.end(target.last());
      ASSERT_TRUE(until([&] { return party.has("closed"); })) << row.name;
      EXPECT_EQ(party.said(), "header 200; body a; done; ready; closed") << row.name;
      EXPECT_EQ(party.state(), HTTP_CLIENT_INIT);
      EXPECT_EQ(trace.count("http-cl" + kClosed), 1u);
      EXPECT_EQ(trace.errors(), TraceLines());
      expectDetached(party);
    }
  }
}

// The target has gone while the request was being made.
TEST_F(ClientCloseTest, KeptAliveConnectionThatTheTargetHasJustLeft) {
  const TemporaryFolder folder;
  for (const WireAddress& address : {WireAddress::tcp(0), WireAddress::local(folder.at("socket"))}) {
    WireTarget target(address);
    target.always(WireScript().request().send(okReply("a")));
    Party party;
    startOn(party, target);
    party.ask();
    ASSERT_TRUE(until([&] { return party.has("ready"); }));
    settle();
    TraceCapture trace;
    target.last().leave();
    party.ask();
    ASSERT_TRUE(until([&] { return party.has("closed"); })) << party.said();
    EXPECT_EQ(party.said(), "header 200; body a; done; ready; error; closed");
    EXPECT_EQ(party.state(), HTTP_CLIENT_ERROR);
  }
}

// --- inside handlers -------------------------------------------------------------------------------------------------

// A handler and how to come to it.
struct Inside {
  const char* name;
  std::string reply;  // "": none
  bool leaves;        // the target goes away behind it
  bool drained;       // the request is sent in parts
  bool closes;        // this side closes when all has settled
  std::function<void(Party&, std::function<void()>)> hook;
  const char* ended;  // the calls behind it when it ends the peer
};
void PrintTo(const Inside& row, std::ostream* out) { *out << row.name; }

void inHeader(Party& party, std::function<void()> work) {
  party.onHeader = [work] {
    work();
    return 0;
  };
}
void inFailingHeader(Party& party, std::function<void()> work) {
  party.onHeader = [work] {
    work();
    return -1;
  };
}
// Before anything is read.
void inBody(Party& party, std::function<void()> work) {
  party.onBody = [work](FILE*) {
    work();
    return 0;
  };
}
void inFailingBody(Party& party, std::function<void()> work) {
  party.onBody = [work](FILE*) {
    work();
    return -1;
  };
}
// When the end has been read.
void inBodyEnd(Party& party, std::function<void()> work) {
  party.onBody = [&party, work](FILE* stream) {
    readBody(stream);
    if (http_replyState(party.reply) == HTTP_MSG_DONE) work();
    return 0;
  };
}
void inDone(Party& party, std::function<void()> work) { party.onDone = std::move(work); }
void inReady(Party& party, std::function<void()> work) { party.onReady = std::move(work); }
void inError(Party& party, std::function<void()> work) { party.onError = std::move(work); }
void inClosed(Party& party, std::function<void()> work) { party.onClosed = std::move(work); }
void inDrained(Party& party, std::function<void()> work) { party.onDrained = std::move(work); }
// The last call of the body handler, made by the close handler.
void inBodyAtClose(Party& party, std::function<void()> work) {
  party.onBody = [&party, work](FILE* stream) {
    if (party.bodyCalls > 1) {
      work();
    } else {
      readBody(stream);
    }
    return 0;
  };
}

const Inside kInside[] = {
    {"Header", okReply("hello"), false, false, false, inHeader, "closed"},
    {"HeaderWithoutBody", emptyReply(), false, false, false, inHeader, "closed"},
    {"HeaderUntilClose", closeDelimited("hello"), true, false, false, inHeader, "body hello; done; ready; closed"},
    {"FailingHeader", okReply("hello"), false, false, false, inFailingHeader, "closed"},
    {"Body", okReply("hello"), false, false, false, inBody, "closed"},
    {"BodyChunked", chunkedReply("hello"), false, false, false, inBody, "closed"},
    {"BodyMultipart", multipartReply("hello"), false, false, false, inBody, "closed"},
    {"BodyUntilClose", closeDelimited("hello"), false, false, false, inBody, "done cut; ready; closed"},
    {"FailingBody", okReply("hello"), false, false, false, inFailingBody, "closed"},
    {"BodyEnd", okReply("hello"), false, false, false, inBodyEnd, "closed"},
    {"BodyEndChunked", chunkedReply("hello"), false, false, false, inBodyEnd, "closed"},
    {"BodyEndUntilClose", closeDelimited("hello"), true, false, false, inBodyEnd, "done; ready; closed"},
    {"BodyAtClose", closeDelimited("hello"), false, false, true, inBodyAtClose, "done cut; ready; closed"},
    {"Done", okReply("hello"), false, false, false, inDone, "closed"},
    {"DoneWithoutBody", emptyReply(), false, false, false, inDone, "closed"},
    {"DoneUntilClose", closeDelimited("hello"), true, false, false, inDone, "closed"},
    {"DoneAtClose", closeDelimited("hello"), false, false, true, inDone, "ready; closed"},
    {"Ready", okReply("hello"), false, false, false, inReady, "closed"},
    {"ReadyUntilClose", closeDelimited("hello"), true, false, false, inReady, "closed"},
    {"ReadyAtClose", closeDelimited("hello"), false, false, true, inReady, "closed"},
    {"ErrorByTheTarget", "", true, false, false, inError, "closed"},
    {"ErrorByThisSide", "", false, false, true, inError, "closed"},
    {"ClosedAfterAReply", okReply("hello"), false, false, true, inClosed, ""},
    {"ClosedUntilClose", closeDelimited("hello"), false, false, true, inClosed, ""},
    {"ClosedWithoutAReply", "", true, false, false, inClosed, ""},
    {"ClosedInTheMiddle", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhel", false, false, true, inClosed, ""},
    {"Drained", "", false, true, false, inDrained, "error; closed"},
};
class ClientInsideTest : public ClientTest, public ::testing::WithParamInterface<Inside> {
 protected:
  // Runs an exchange with work inside the row's handler, and a few turns more.
  // @return what was called behind it
  std::string callsBehind(const std::function<void(Party&)>& work) {
    WireTarget target;
    WireScript script = WireScript().head().send(GetParam().reply);
    target.always(GetParam().leaves ? script.leave() : script);
    auto party = std::make_unique<Party>();
    size_t before = 0;
    bool worked = false;
    GetParam().hook(*party, [&] {
      if (std::exchange(worked, true)) return;
      before = party->calls.size();
      work(*party);
    });
    if (GetParam().drained) party->client->requestDrainedHandler = Party::handleDrained;
    startOn(*party, target);
    ZelPeer* const peer = party->peer();
    TraceCapture trace;
    if (GetParam().drained) {
      EXPECT_TRUE(party->begin(HTTP_METHOD_POST));
      http_requestHeaderValueSet(party->request, "Transfer-Encoding", "chunked");
      EXPECT_EQ(http_requestSend(party->request), 0);
      party->write("begun");
    } else {
      party->ask();
    }
    if (GetParam().closes) {
      EXPECT_TRUE(until([&] {
        return target.count() == 1 && target.requests() + target.last().sentCount() >= GetParam().reply.size() &&
               !target.last().received().empty();
      }));
      settle();
      if (!worked) peer_close(peer);
    }
    EXPECT_TRUE(until([&] { return worked; })) << party->said();
    settle();
    std::string behind;
    for (size_t i = before; i < party->calls.size(); ++i) behind += (behind.empty() ? "" : "; ") + party->calls[i];
    ended_ = target.count() == 0 || target.last().ended() || target.last().left();
    party.reset();  // what is left is freed, once
    settle();
    return behind;
  }
  // The target has seen the end of the connection.
  bool ended_ = false;
};
INSTANTIATE_TEST_SUITE_P(Client, ClientInsideTest, ::testing::ValuesIn(kInside),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ClientInsideTest, Stop) {
  EXPECT_EQ(callsBehind([](Party& party) {
              party.stop();
              EXPECT_EQ(party.peer(), nullptr);
            }),
            "");
  EXPECT_TRUE(ended_);
}

TEST_P(ClientInsideTest, StopTwice) {
  EXPECT_EQ(callsBehind([](Party& party) {
              party.stop();
              party.stop();
            }),
            "");
}

TEST_P(ClientInsideTest, StopAndFreeTheClient) {
  EXPECT_EQ(callsBehind([](Party& party) { party.freeClient(); }), "");
  EXPECT_TRUE(ended_);
}

TEST_P(ClientInsideTest, StopAndFreeAll) {
  EXPECT_EQ(callsBehind([](Party& party) {
              party.freeClient();
              party.freeMessages();
            }),
            "");
  EXPECT_TRUE(ended_);
}

TEST_P(ClientInsideTest, FreeTheMessagesAndStop) {
  EXPECT_EQ(callsBehind([](Party& party) {
              party.freeMessages();
              party.freeClient();
            }),
            "");
  EXPECT_TRUE(ended_);
}

TEST_P(ClientInsideTest, FreeTheReplyAndStop) {
  EXPECT_EQ(callsBehind([](Party& party) {
              party.freeReply();
              party.stop();
            }),
            "");
}

TEST_P(ClientInsideTest, FreeTheRequestAndStop) {
  EXPECT_EQ(callsBehind([](Party& party) {
              party.freeRequest();
              party.stop();
            }),
            "");
}

// The connection cannot go on; it ends with the client's knowledge or waits to be stopped.
TEST_P(ClientInsideTest, FreeTheMessages) {
  const std::string behind = callsBehind([](Party& party) { party.freeMessages(); });
  EXPECT_TRUE(behind.empty() || behind == "closed") << behind;
}
TEST_P(ClientInsideTest, FreeTheRequest) {
  const std::string behind = callsBehind([](Party& party) { party.freeRequest(); });
  EXPECT_TRUE(behind.empty() || behind == "closed") << behind;
}
TEST_P(ClientInsideTest, FreeTheReply) {
  const std::string behind = callsBehind([](Party& party) { party.freeReply(); });
  EXPECT_TRUE(behind.empty() || behind == "closed") << behind;
}

TEST_P(ClientInsideTest, EndThePeer) {
  for (const bool destroys : {true, false}) {
    const std::string behind = callsBehind([&](Party& party) {
      if (party.peer() == nullptr) return;
      destroys ? peer_destroy(party.peer()) : peer_close(party.peer());
    });
    EXPECT_EQ(behind, GetParam().ended);
    EXPECT_TRUE(ended_);
  }
}

// A client that is stopped can be started anew on the spot, and that connection is not touched by the end of the other.
TEST_P(ClientInsideTest, StopAndStartAnew) {
  WireTarget other;
  other.always(WireScript().request().send(okReply("other")));
  Party* again = nullptr;
  bool answered = false;
  const std::string behind = callsBehind([&](Party& party) {
    again = &party;
    party.stop();
    party.onHeader = nullptr;
    party.onBody = nullptr;
    party.onDone = party.onReady = party.onError = party.onDrained = party.onClosed = nullptr;
    party.client->requestDrainedHandler = nullptr;
    startOn(party, other);
    http_requestReset(party.request);
    party.ask(HTTP_METHOD_GET, "/again");
    party.onReady = [&] { answered = true; };
  });
  EXPECT_EQ(behind, "header 200; body other; done; ready");
  EXPECT_TRUE(answered);
  EXPECT_EQ(other.count(), 1u);
}

// --- anew where it is offered ----------------------------------------------------------------------------------------

TEST_F(ClientCloseTest, StartedAnewInTheClosedHandler) {
  WireTarget target;
  target.next(WireScript().request().leave())
      .next(WireScript().request().send("HTTP/1.1 200 OK\r\nConte").leave())
      .next(WireScript().request().reset())
      .next(WireScript().request().send(okReply("at last")));
  Party party;
  party.onClosed = [&] {
    EXPECT_EQ(party.peer(), nullptr);
    startOn(party, target);
    http_requestReset(party.request);
    party.ask();
  };
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  settle();
  EXPECT_EQ(party.said(), "error; closed; closed; error; closed; header 200; body at last; done; ready");
  EXPECT_EQ(target.count(), 4u);
  party.onClosed = nullptr;
}

TEST_F(ClientCloseTest, StartedAnewInTheErrorHandler) {
  for (const bool stops : {true, false}) {
    WireTarget target;
    target.next(WireScript().request().leave()).always(WireScript().request().send(okReply("at last")));
    Party party;
    party.onError = [&] {
      if (stops) party.stop();
      startOn(party, target);
      http_requestReset(party.request);
      party.ask();
    };
    startOn(party, target);
    TraceCapture trace;
    party.ask();
    ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
    settle();
    // The new connection has not ended.
    EXPECT_EQ(party.said(), "error; header 200; body at last; done; ready") << stops;
    ASSERT_NE(party.peer(), nullptr);
    EXPECT_EQ(party.context()->client, party.client);
    EXPECT_EQ(target.open(), 1u);
  }
}

// --- at any time -----------------------------------------------------------------------------------------------------

struct MomentCase {
  const char* name;
  std::string reply;
  bool leaves;
};
void PrintTo(const MomentCase& row, std::ostream* out) { *out << row.name; }
const MomentCase kMoments[] = {{"Length", okReply("hello world"), false},
                               {"Chunked", chunkedReply("hello world", 3), false},
                               {"UntilClose", closeDelimited("hello world"), true},
                               {"Interim", replyWith("100 Continue", "") + okReply("hello"), false}};
class ClientMomentTest : public ClientTest, public ::testing::WithParamInterface<MomentCase> {};
INSTANTIATE_TEST_SUITE_P(Client, ClientMomentTest, ::testing::ValuesIn(kMoments),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ClientMomentTest, StoppedInBetweenTurns) {
  constexpr int kTurns = 40;
  for (int turns = 0; turns < kTurns; ++turns) {
    for (const bool messagesFirst : {true, false}) {
      WireTarget target;
      WireScript script = WireScript().request().pieces(GetParam().reply, 5);
      target.always(GetParam().leaves ? script.leave() : script);
      Party party;
      startOn(party, target);
      TraceCapture trace;
      party.post("upload");
      for (int turn = 0; turn < turns; ++turn) {
        WireTarget::pumpAll();
        zel_loop_turn(0);
      }
      const std::string before = party.said();
      if (messagesFirst) party.freeMessages();
      party.freeClient();
      party.freeMessages();
      settle();
      EXPECT_EQ(party.said(), before) << turns;
    }
  }
}

TEST_P(ClientMomentTest, PeerClosedInBetweenTurns) {
  constexpr int kTurns = 40;
  for (int turns = 0; turns < kTurns; ++turns) {
    WireTarget target;
    WireScript script = WireScript().request().pieces(GetParam().reply, 5);
    target.always(GetParam().leaves ? script.leave() : script);
    Party party;
    startOn(party, target);
    TraceCapture trace;
    party.post("upload");
    for (int turn = 0; turn < turns; ++turn) {
      WireTarget::pumpAll();
      zel_loop_turn(0);
    }
    if (party.peer() != nullptr) peer_close(party.peer());
    EXPECT_EQ(party.count("closed"), 1u) << turns << ": " << party.said();
    EXPECT_EQ(party.calls.back(), "closed");
    expectDetached(party);
    settle();
  }
}

// A body that was begun is not written to any more once the connection has gone.
TEST_F(ClientCloseTest, RequestBodyOpenAtTheEnd) {
  const char* const kHeaders[][2] = {{"Transfer-Encoding", "chunked"}, {"Content-Length", "99"}};
  for (const auto& header : kHeaders) {
    for (const bool stops : {true, false}) {
      WireTarget target;
      Party party;
      startOn(party, target);
      ASSERT_TRUE(party.begin(HTTP_METHOD_POST));
      http_requestHeaderValueSet(party.request, header[0], "%s", header[1]);
      ASSERT_EQ(http_requestSend(party.request), 0);
      party.write("begun");
      settle();
      TraceCapture trace;
      stops ? party.stop() : peer_close(party.peer());
      settle();
      expectDetached(party);
      EXPECT_EQ(party.said(), stops ? "" : "error; closed");
      ASSERT_TRUE(until([&] { return target.last().ended(); }));
      EXPECT_EQ(target.last().received().find("0\r\n\r\n"), std::string::npos);
      party.freeRequest();
    }
  }
}

// The reset of a target in the middle of a large upload.
TEST_F(ClientCloseTest, TargetThatLeavesDuringAnUpload) {
  for (const bool resets : {true, false}) {
    WireTarget target(WireAddress::tcp(0), {.receiveBuffer = 4096});
    Party party;
    startOn(party, target);
    TraceCapture trace;
    party.post(pattern(5 << 20));
    ASSERT_TRUE(until([&] { return target.count() == 1 && target.last().received().size() > 10000; }));
    resets ? target.last().reset() : target.last().leave();
    ASSERT_TRUE(until([&] { return party.has("closed"); })) << party.said();
    EXPECT_EQ(party.said(), "error; closed");
    EXPECT_EQ(party.state(), HTTP_CLIENT_ERROR);
    expectDetached(party);
  }
}

}  // namespace
