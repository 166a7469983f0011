// How fast things move: pausing, handlers that take little or nothing, uploads and downloads larger than any buffer.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "client_support.h"

namespace {

class ClientFlowTest : public ClientTest {
 protected:
  // Reads so many bytes with each call, nothing ahead of them.
  static void readInSteps(Party& party, size_t step, std::function<void()> after = nullptr) {
    party.onBody = [&party, step, after](FILE* stream) {
      setvbuf(stream, nullptr, _IONBF, 0);
      std::string part(step, '\0');
      part.resize(fread(part.data(), 1, step, stream));
      party.body += part;
      if (after) after();
      return 0;
    };
  }
};

// --- without a connection --------------------------------------------------------------------------------------------

TEST_F(ClientFlowTest, PauseAndResumeWithoutAConnection) {
  Party party;
  EXPECT_EQ(http_clientPause(party.client), -1);
  EXPECT_EQ(http_clientResume(party.client), -1);
  WireTarget target;
  startOn(party, target);
  party.stop();
  EXPECT_EQ(http_clientPause(party.client), -1);
  EXPECT_EQ(http_clientResume(party.client), -1);
  startOn(party, target);
  party.ask();
  peer_close(party.peer());
  EXPECT_EQ(http_clientPause(party.client), -1);
  EXPECT_EQ(http_clientResume(party.client), -1);
}

// --- pausing ---------------------------------------------------------------------------------------------------------

struct PauseCase {
  const char* name;
  std::string reply;
  bool leaves;
  bool local;
};
void PrintTo(const PauseCase& row, std::ostream* out) { *out << row.name; }
const std::string kText = "0123456789";
const PauseCase kPauses[] = {
    {"Length", okReply(kText), false, false},
    {"Chunked", chunkedReply(kText, 3), false, false},
    {"UntilClose", closeDelimited(kText), true, false},
    {"LengthLocal", okReply(kText), false, true},
    {"LengthAndGone", okReply(kText), true, false},
    {"LengthAndGoneLocal", okReply(kText), true, true},
    {"ChunkedAndGoneLocal", chunkedReply(kText, 3), true, true},
    {"UntilCloseLocal", closeDelimited(kText), true, true},
};
class ClientPauseTest : public ClientFlowTest, public ::testing::WithParamInterface<PauseCase> {
 protected:
  WireAddress targetAddress() const {
    return GetParam().local ? WireAddress::local(folder_.at("socket")) : WireAddress::tcp(0);
  }
  static WireScript script() {
    WireScript script = WireScript().request().send(GetParam().reply);
    return GetParam().leaves ? script.leave() : script;
  }

 private:
  const TemporaryFolder folder_;
};
INSTANTIATE_TEST_SUITE_P(Client, ClientPauseTest, ::testing::ValuesIn(kPauses),
                         [](const auto& parameter) { return parameter.param.name; });

// All of the reply has been read ahead when the handler pauses: no new byte will come.
TEST_P(ClientPauseTest, FromTheBodyHandler) {
  WireTarget target(targetAddress());
  target.always(script());
  Party party;
  readInSteps(party, 4, [&] { EXPECT_EQ(http_clientPause(party.client), 0); });
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  for (size_t part = 1; !party.has("ready") && part < 10; ++part) {
    ASSERT_TRUE(until([&] { return party.bodyCalls == part || party.has("ready"); })) << party.said();
    settle();
    ASSERT_FALSE(party.has("closed") && !party.has("ready")) << party.body;
    EXPECT_LE(party.bodyCalls, part);
    if (party.has("ready")) break;
    EXPECT_EQ(party.state(), HTTP_CLIENT_RECEIVING_REPLY);
    const size_t before = party.bodyCalls;
    EXPECT_EQ(http_clientResume(party.client), 0);
    EXPECT_EQ(party.bodyCalls, before);  // nothing runs inside the call
  }
  EXPECT_EQ(party.body, kText);
  EXPECT_EQ(party.count("done"), 1u) << party.said();
}

TEST_P(ClientPauseTest, FromTheHeaderHandler) {
  WireTarget target(targetAddress());
  target.always(script());
  Party party;
  party.onHeader = [&] { return http_clientPause(party.client); };
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("header 200") && target.last().stalls(); }));
  settle();
  EXPECT_EQ(party.said(), "header 200");
  EXPECT_EQ(http_clientResume(party.client), 0);
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.body, kText);
}

// The pause begins before anything of the reply has come.
TEST_P(ClientPauseTest, BeforeTheReply) {
  WireTarget target(targetAddress());
  target.always(WireScript().request());
  Party party;
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return target.requests() == 1 && party.state() == HTTP_CLIENT_REQUEST_SENT; }));
  EXPECT_EQ(http_clientPause(party.client), 0);
  target.last().send(GetParam().reply);
  if (GetParam().leaves) target.last().leave();
  settle();
  EXPECT_EQ(party.said(), "");
  EXPECT_EQ(http_clientResume(party.client), 0);
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.body, kText);
}

TEST_P(ClientPauseTest, PausedAndResumedAtOnceGoesOn) {
  WireTarget target(targetAddress());
  target.always(script());
  Party party;
  readInSteps(party, 4, [&] {
    EXPECT_EQ(http_clientPause(party.client), 0);
    EXPECT_EQ(http_clientResume(party.client), 0);
  });
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.body, kText);
}

TEST_P(ClientPauseTest, StoppedWhilePaused) {
  WireTarget target(targetAddress());
  target.always(script());
  Party party;
  readInSteps(party, 4, [&] { http_clientPause(party.client); });
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.bodyCalls == 1; }));
  party.stop();
  settle();
  EXPECT_EQ(party.bodyCalls, 1u);
  EXPECT_EQ(party.said(), "header 200; body ");
}

// Pausing while the request is still being sent holds the reply back only.
TEST_F(ClientFlowTest, PausedWhileTheRequestIsSent) {
  WireTarget target;
  target.always(WireScript().request().send(okReply("a")));
  Party party;
  startOn(party, target);
  party.ask();
  EXPECT_EQ(http_clientPause(party.client), 0);
  ASSERT_TRUE(until([&] { return target.requests() == 1; }));
  settle();
  EXPECT_EQ(party.said(), "");
  EXPECT_EQ(http_clientResume(party.client), 0);
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.said(), "header 200; body a; done; ready");
}

// A pause does not outlast its exchange.
TEST_F(ClientFlowTest, PausedInTheDoneHandler) {
  WireTarget target;
  target.always(WireScript().request().send(okReply("a")).repeat());
  Party party;
  party.onDone = [&] { http_clientPause(party.client); };
  startOn(party, target);
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  party.ask();
  settle();
  if (party.count("ready") == 1) {
    EXPECT_EQ(http_clientResume(party.client), 0);
  }
  ASSERT_TRUE(until([&] { return party.count("ready") == 2; })) << party.said();
}

// Resuming what is not paused, in every state, changes nothing.
TEST_F(ClientFlowTest, ResumedWithoutAPause) {
  WireTarget target;
  Party party;
  startOn(party, target);
  http_clientResume(party.client);
  settle();
  ASSERT_TRUE(party.begin());
  http_clientResume(party.client);
  ASSERT_EQ(http_requestSend(party.request), 0);
  settle();
  ASSERT_EQ(party.state(), HTTP_CLIENT_SENDING_REQUEST);
  http_clientResume(party.client);
  TraceCapture trace;
  target.last().send(okReply("early"));  // nobody may read it yet
  settle();
  EXPECT_EQ(party.said(), "");
  ASSERT_EQ(http_requestDone(party.request), 0);
  EXPECT_EQ(http_clientRequestSent(party.client), 0);
  http_clientResume(party.client);
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.said(), "header 200; body early; done; ready");
  http_clientResume(party.client);
  settle();
  EXPECT_EQ(party.state(), HTTP_CLIENT_INIT);
  EXPECT_EQ(trace.said(), TraceLines());
}

// While nobody reads, the target waits.
TEST_F(ClientFlowTest, UnreadBodyStaysWithTheTarget) {
  const std::string large = pattern(20 << 20);
  WireTarget target;
  target.always(WireScript().request().send(okReply(large)));
  Party party;
  size_t read = 0;
  bool hold = true;
  bool same = true;
  party.onBody = [&](FILE* stream) {
    const std::string part = readBody(stream);
    same = same && large.compare(read, part.size(), part) == 0;
    read += part.size();
    return hold ? http_clientPause(party.client) : 0;
  };
  startOn(party, target);
  party.ask();
  ASSERT_TRUE(until([&] { return party.bodyCalls == 1; }));
  for (int i = 0; i < 20; ++i) settle();
  EXPECT_EQ(party.bodyCalls, 1u);
  EXPECT_LT(target.last().sentCount(), large.size() - (1 << 20));
  hold = false;
  EXPECT_EQ(http_clientResume(party.client), 0);
  ASSERT_TRUE(until([&] { return party.has("ready"); }));
  EXPECT_EQ(read, large.size());
  EXPECT_TRUE(same);
}

// --- handlers that read little ---------------------------------------------------------------------------------------

struct LazyCase {
  const char* name;
  std::string reply;
  bool leaves;
};
void PrintTo(const LazyCase& row, std::ostream* out) { *out << row.name; }
const LazyCase kLazy[] = {{"Length", okReply("hello"), false},
                          {"Chunked", chunkedReply("hello", 2), false},
                          {"Multipart", multipartReply("hello"), false},
                          {"UntilClose", closeDelimited("hello"), true}};
class ClientLazyTest : public ClientFlowTest, public ::testing::WithParamInterface<LazyCase> {};
INSTANTIATE_TEST_SUITE_P(Client, ClientLazyTest, ::testing::ValuesIn(kLazy),
                         [](const auto& parameter) { return parameter.param.name; });

// One that reads nothing is not called without end, keeps nobody else from running, and what it left is still there.
TEST_P(ClientLazyTest, HandlerThatReadsNothing) {
  WireTarget target;
  WireScript script = WireScript().request().send(GetParam().reply);
  target.always(GetParam().leaves ? script.leave() : script);
  Party party;
  bool reads = false;
  party.onBody = [&](FILE* stream) {
    if (reads) party.body += readBody(stream);
    return 0;
  };
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.bodyCalls > 0; }));
  constexpr size_t kTurns = 50;
  const size_t before = party.bodyCalls;
  for (size_t turn = 0; turn < kTurns; ++turn) zel_loop_turn(0);
  EXPECT_LE(party.bodyCalls - before, kTurns + 1);
  EXPECT_EQ(party.calls.back(), "body ");

  // Others go on meanwhile.
  WireTarget busy;
  busy.always(WireScript().request().send(okReply("a")));
  Party other;
  startOn(other, busy);
  other.ask();
  ASSERT_TRUE(until([&] { return other.has("ready"); }));

  reads = true;
  http_clientResume(party.client);
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.body, "hello");
}

// What a read did not find was there at the next one: nothing of that is left when the handler is called again, which
// may leave what is there for later.
TEST_F(ClientFlowTest, HandlerThatCatchesUp) {
  const std::string middle = pattern(100000);
  for (const bool chunked : {false, true}) {
    SCOPED_TRACE(chunked ? "chunked" : "length");
    bool awaited = false;
    bool reads = false;
    const std::string headers =
        chunked ? "Transfer-Encoding: chunked\r\n\r\n186AA\r\n" : "Content-Length: 100010\r\n\r\n";
    WireTarget target;
    target.always(WireScript()
                      .request()
                      .send("HTTP/1.1 200 OK\r\n" + headers + "12345")
                      .when([&] { return awaited; })
                      .send(middle)
                      .when([&] { return reads; })
                      .send(chunked ? "67890\r\n0\r\n\r\n" : "67890"));
    Party party;
    party.onBody = [&](FILE* stream) {
      EXPECT_EQ(ferror(stream), 0) << "call " << party.bodyCalls;
      if (party.bodyCalls == 1) {
        party.body += readBody(stream);
        EXPECT_NE(ferror(stream), 0);
        awaited = true;
        WireTarget::pumpAll();
        EXPECT_TRUE(awaitInput(party.peer()));
        party.body += static_cast<char>(fgetc(stream));
      }
      if (reads) party.body += readBody(stream);
      return 0;
    };
    startOn(party, target);
    TraceCapture trace;
    party.ask();
    ASSERT_TRUE(until([&] { return party.bodyCalls > 2; })) << party.said();
    EXPECT_EQ(party.body.size(), 6u);
    reads = true;
    ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
    EXPECT_TRUE(party.body == "12345" + middle + "67890");
  }
}

TEST_P(ClientLazyTest, HandlerThatReadsOneByteAtATime) {
  WireTarget target;
  WireScript script = WireScript().request().send(GetParam().reply);
  target.always(GetParam().leaves ? script.leave() : script);
  Party party;
  readInSteps(party, 1);
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.body, "hello");
  EXPECT_LE(party.bodyCalls, 20u);
}

// The body stream reads ahead: what it holds comes without new bytes from the connection.
TEST_P(ClientLazyTest, HandlerThatTakesOneCharacterOfABufferedStream) {
  WireTarget target;
  WireScript script = WireScript().request().send(GetParam().reply);
  target.always(GetParam().leaves ? script.leave() : script);
  Party party;
  party.onBody = [&](FILE* stream) {
    const int c = fgetc(stream);
    if (c != EOF) party.body += static_cast<char>(c);
    return 0;
  };
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  // The end of the body was reached inside the stream with the first character; the rest was the handler's to take.
  EXPECT_EQ(std::string("hello").compare(0, party.body.size(), party.body), 0);
  EXPECT_GE(party.body.size(), 1u);
}

// The first bytes of a body come late: the handler is not called for nothing, and an empty beginning is not an end.
TEST_P(ClientLazyTest, HandlerIsOnlyCalledForSomething) {
  WireTarget target;
  const size_t headEnd = GetParam().reply.find("\r\n\r\n") + 4;
  target.always(WireScript().request().send(GetParam().reply.substr(0, headEnd)));
  Party party;
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("header 200"); }));
  settle();
  // One that is not delimited by the end of the connection may be looked into right behind the head.
  EXPECT_LE(party.bodyCalls, GetParam().leaves ? 0u : 1u);
  EXPECT_EQ(party.body, "");
  for (size_t at = headEnd; at < GetParam().reply.size(); ++at) {
    const size_t before = party.bodyCalls;
    target.last().send(GetParam().reply.substr(at, 1));
    settle();
    EXPECT_LE(party.bodyCalls, before + 1) << at;
  }
  if (GetParam().leaves) target.last().leave();
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.body, "hello");
}

// --- large transfers -------------------------------------------------------------------------------------------------

struct LargeCase {
  const char* name;
  std::string (*reply)(std::string_view body);
  bool leaves;
  bool local;
};
void PrintTo(const LargeCase& row, std::ostream* out) { *out << row.name; }
std::string inSmallChunks(std::string_view body) { return chunkedReply(body, 1000); }
std::string inLargeChunks(std::string_view body) { return chunkedReply(body, 300000); }
const LargeCase kLarge[] = {{"Length", okReply, false, false},
                            {"SmallChunks", inSmallChunks, false, false},
                            {"LargeChunks", inLargeChunks, false, false},
                            {"Multipart", multipartReply, false, false},
                            {"UntilClose", closeDelimited, true, false},
                            {"LengthLocal", okReply, false, true},
                            {"LengthAndGoneLocal", okReply, true, true},
                            {"SmallChunksLocal", inSmallChunks, false, true},
                            {"UntilCloseLocal", closeDelimited, true, true}};
class ClientLargeTest : public ClientFlowTest, public ::testing::WithParamInterface<LargeCase> {
 protected:
  WireAddress targetAddress() const {
    return GetParam().local ? WireAddress::local(folder_.at("socket")) : WireAddress::tcp(0);
  }

 private:
  const TemporaryFolder folder_;
};
INSTANTIATE_TEST_SUITE_P(Client, ClientLargeTest, ::testing::ValuesIn(kLarge),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ClientLargeTest, Download) {
  const std::string large = pattern(3 << 20);
  WireTarget target(targetAddress());
  WireScript script = WireScript().request().send(GetParam().reply(large));
  target.always(GetParam().leaves ? script.leave() : script);
  Party party;
  party.onBody = [&](FILE* stream) {
    party.body += readBody(stream);
    return 0;
  };
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.body.size();
  EXPECT_TRUE(party.body == large) << party.body.size();
  EXPECT_EQ(party.count("done"), 1u);
}

// One that pauses with every call, and is resumed some turns later, when the target may have gone.
TEST_P(ClientLargeTest, DownloadWithPauses) {
  const std::string large = pattern(1 << 20);
  WireTarget target(targetAddress());
  WireScript script = WireScript().request().send(GetParam().reply(large));
  target.always(GetParam().leaves ? script.leave() : script);
  Party party;
  bool paused = false;
  party.onBody = [&](FILE* stream) {
    EXPECT_FALSE(paused);
    std::string part(50000, '\0');
    part.resize(fread(part.data(), 1, part.size(), stream));
    party.body += part;
    if (http_replyState(party.reply) == HTTP_MSG_BODY) paused = http_clientPause(party.client) == 0;
    return 0;
  };
  startOn(party, target);
  TraceCapture trace;
  party.ask();
  for (int i = 0; i < 1000 && !party.has("ready") && !party.has("closed"); ++i) {
    ASSERT_TRUE(until([&] { return paused || party.has("ready") || party.has("closed"); }));
    settle();
    if (paused && party.peer() != nullptr) {
      paused = false;
      http_clientResume(party.client);
    }
  }
  EXPECT_TRUE(party.body == large) << party.body.size();
  EXPECT_EQ(party.count("done"), 1u) << party.has("done cut");
}

struct UploadCase {
  const char* name;
  bool chunked;
  bool local;
};
void PrintTo(const UploadCase& row, std::ostream* out) { *out << row.name; }
const UploadCase kUploads[] = {
    {"Length", false, false}, {"Chunked", true, false}, {"LengthLocal", false, true}, {"ChunkedLocal", true, true}};
class ClientUploadTest : public ClientFlowTest, public ::testing::WithParamInterface<UploadCase> {
 protected:
  WireAddress targetAddress() const {
    return GetParam().local ? WireAddress::local(folder_.at("socket")) : WireAddress::tcp(0);
  }
  static void announce(Party& party, size_t length) {
    if (GetParam().chunked)
      http_requestHeaderValueSet(party.request, "Transfer-Encoding", "chunked");
    else
      http_requestHeaderValueSet(party.request, "Content-Length", "%zu", length);
  }

 private:
  const TemporaryFolder folder_;
};
INSTANTIATE_TEST_SUITE_P(Client, ClientUploadTest, ::testing::ValuesIn(kUploads),
                         [](const auto& parameter) { return parameter.param.name; });

// With the drained handler an upload never has more than one part of it in memory.
TEST_P(ClientUploadTest, StreamedInParts) {
  constexpr size_t kPart = 64 << 10;
  const std::string large = pattern(12 << 20);  // more than what sockets keep
  WireTarget target(targetAddress(), {.receiveBuffer = 16384});
  target.always(WireScript().request().send(okReply("thanks")));
  Party party;
  party.client->requestDrainedHandler = Party::handleDrained;
  size_t written = 0;
  size_t mostQueued = 0;
  party.onDrained = [&] {
    EXPECT_EQ(peer_bytesQueued(party.peer()), 0u);
    party.calls.pop_back();
    const size_t part = std::min(kPart, large.size() - written);
    if (part > 0) party.write(std::string_view(large).substr(written, part));
    written += part;
    mostQueued = std::max(mostQueued, peer_bytesQueued(party.peer()));
    if (written < large.size()) return;
    EXPECT_EQ(fclose(http_requestBody(party.request)), 0);
    EXPECT_EQ(http_requestDone(party.request), 0);
  };
  startOn(party, target);
  ASSERT_TRUE(party.begin(HTTP_METHOD_POST));
  announce(party, large.size());
  ASSERT_EQ(http_requestSend(party.request), 0);

  // While the target does not read, no more is asked for.
  ASSERT_TRUE(until([&] { return target.count() == 1; }));
  target.last().readAtMost(0);
  for (int i = 0; i < 10; ++i) settle();
  const size_t before = written;
  for (int i = 0; i < 10; ++i) settle();
  EXPECT_EQ(written, before);
  EXPECT_LT(written, large.size() - (1 << 20));
  target.last().readAtMost(SIZE_MAX);

  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.said(), "header 200; body thanks; done; ready");
  EXPECT_LE(mostQueued, 2 * kPart);
  const auto requests = target.last().requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_TRUE(requests[0].body == large) << requests[0].body.size();
}

// Without it everything can be written at once.
TEST_P(ClientUploadTest, WrittenAtOnce) {
  const std::string large = pattern(5 << 20);
  WireTarget target(targetAddress());
  target.always(WireScript().request().send(okReply("thanks")));
  Party party;
  startOn(party, target);
  ASSERT_TRUE(party.begin(HTTP_METHOD_POST));
  announce(party, large.size());
  ASSERT_EQ(http_requestSend(party.request), 0);
  party.write(large);
  ASSERT_EQ(fclose(http_requestBody(party.request)), 0);
  ASSERT_EQ(http_requestDone(party.request), 0);
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.said(), "header 200; body thanks; done; ready");
  EXPECT_TRUE(target.last().requests()[0].body == large);
}

// The application writes from elsewhere, with pauses in which everything has left.
TEST_P(ClientUploadTest, WrittenNowAndThen) {
  WireTarget target(targetAddress());
  target.always(WireScript().request().send(okReply("thanks")));
  Party party;
  startOn(party, target);
  ASSERT_TRUE(party.begin(HTTP_METHOD_POST));
  announce(party, 12);
  ASSERT_EQ(http_requestSend(party.request), 0);
  for (const char* part : {"part", "by", "part", ".."}) {
    settle();
    party.write(part);
  }
  settle();
  FILE* const stream = party.request->message.body;
  if (stream != nullptr) fclose(stream);
  ASSERT_EQ(http_requestDone(party.request), 0);
  settle();
  if (party.state() == HTTP_CLIENT_SENDING_REQUEST) {
    EXPECT_EQ(http_clientRequestSent(party.client), 0);
  }
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(target.last().requests()[0].body, "partbypart..");
}

// --- replies that come early -----------------------------------------------------------------------------------------

// An upload of which only the beginning has been sent, and a reply that does not wait for the rest.
class ClientEarlyTest : public ClientFlowTest {
 protected:
  void beginUpload(Party& party, WireTarget& target, bool takesEarlyReply) {
    party.client->takesEarlyReply = takesEarlyReply;
    startOn(party, target);
    ASSERT_TRUE(party.begin(HTTP_METHOD_POST));
    http_requestHeaderValueSet(party.request, "Content-Length", "10");
    ASSERT_EQ(http_requestSend(party.request), 0);
    party.write("01234");
    ASSERT_TRUE(
        until([&] { return target.count() == 1 && target.last().received().find("01234") != std::string::npos; }));
    settle();
  }
  static void finishUpload(Party& party) {
    party.write("56789");
    if (party.request->message.body != nullptr) fclose(party.request->message.body);
    ASSERT_EQ(http_requestDone(party.request), 0);
  }
};

// Nobody waits for the rest of the request any more, nor for that of a reply that has begun to come.
TEST_F(ClientEarlyTest, RequestDestroyedInTheDrainedHandler) {
  WireTarget target;
  Party party;
  party.client->takesEarlyReply = true;
  party.client->requestDrainedHandler = Party::handleDrained;
  bool destroyed = false;
  party.onDrained = [&] {
    if (destroyed || target.count() == 0 || target.last().received().find("01234") == std::string::npos) return;
    http_requestDestroy(party.request);
    party.request = nullptr;
    destroyed = true;
  };
  startOn(party, target);
  ASSERT_TRUE(party.begin(HTTP_METHOD_POST));
  http_requestHeaderValueSet(party.request, "Content-Length", "100000000");
  ASSERT_EQ(http_requestSend(party.request), 0);
  party.write("01234");
  ASSERT_TRUE(until([&] { return target.count() == 1; }));
  target.last().send("H");
  settle();
  party.write(std::string(10'000'000, 'x'));
  ASSERT_TRUE(until([&] { return destroyed; }));
  EXPECT_TRUE(until([&] { return target.last().ended() && party.has("closed"); })) << party.said();
}

// Outside of any handler, while a reply waits to be read.
TEST_F(ClientEarlyTest, MessageDestroyedBehindAnEarlyReply) {
  for (const bool isRequest : {true, false}) {
    WireTarget target;
    Party party;
    beginUpload(party, target, false);
    target.last().send("H");
    settle();
    if (isRequest) {
      http_requestDestroy(party.request);
      party.request = nullptr;
    } else {
      http_replyDestroy(party.reply);
      party.reply = nullptr;
    }
    EXPECT_TRUE(until([&] { return target.last().ended() && party.has("closed"); })) << party.said();
  }
}

TEST_F(ClientEarlyTest, WaitsForTheRequestAsARule) {
  WireTarget target;
  Party party;
  beginUpload(party, target, false);
  TraceCapture trace;
  target.last().send(textReply(413, "Payload Too Large", "no"));
  settle();
  EXPECT_EQ(party.said(), "");
  EXPECT_EQ(party.state(), HTTP_CLIENT_SENDING_REQUEST);
  finishUpload(party);
  ASSERT_TRUE(until([&] { return party.has("ready"); })) << party.said();
  EXPECT_EQ(party.said(), "header 413; body no; done; ready");
  EXPECT_EQ(trace.said(), TraceLines());
}

TEST_F(ClientEarlyTest, IsReadAndDoneWhenBothAreComplete) {
  for (const std::string& reply : {okReply("early"), chunkedReply("early", 2), emptyReply(),
                                   replyWith("100 Continue", "") + okReply("early"), replyWith("204 No Content", "")}) {
    WireTarget target;
    Party party;
    beginUpload(party, target, true);
    TraceCapture trace;
    target.last().send(reply);
    settle();
    ASSERT_FALSE(party.calls.empty()) << reply;
    EXPECT_EQ(party.calls[0].substr(0, 8), "header 2") << reply;
    EXPECT_EQ(party.body,
              reply.find("early") == std::string::npos && reply.find("ea") == std::string::npos ? "" : "early");
    EXPECT_FALSE(party.has("done")) << reply;
    EXPECT_FALSE(party.has("ready")) << reply;
    finishUpload(party);
    ASSERT_TRUE(until([&] { return party.has("ready"); })) << reply << party.said();
    settle();
    EXPECT_EQ(party.count("done"), 1u);
    EXPECT_FALSE(party.has("closed")) << reply;
    const auto requests = target.last().requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].body, "0123456789");
    // The connection takes the next request.
    target.last().send("");
    party.ask(HTTP_METHOD_GET, "/next");
    ASSERT_TRUE(until([&] { return target.last().requests().size() == 2; }));
    target.last().send(okReply("next"));
    ASSERT_TRUE(until([&] { return party.count("ready") == 2; })) << party.said();
    EXPECT_EQ(party.body, "next");
    EXPECT_EQ(trace.said(), TraceLines()) << reply;
  }
}

TEST_F(ClientEarlyTest, RefusalEndsTheSendingAndTheConnection) {
  for (const std::string& reply :
       {textReply(413, "Payload Too Large", "no"), textReply(500, "Internal Server Error", "no"),
        replyWith("100 Continue", "") + textReply(400, "Bad Request", "no")}) {
    WireTarget target;
    Party party;
    beginUpload(party, target, true);
    target.last().send(reply);
    TraceCapture trace;
    ASSERT_TRUE(until([&] { return party.has("closed"); })) << reply << party.said();
    settle();
    EXPECT_EQ(party.count("done"), 1u) << party.said();
    EXPECT_EQ(party.body, "no");
    EXPECT_EQ(party.calls.back(), "closed");
    EXPECT_FALSE(party.has("error")) << party.said();
    EXPECT_EQ(party.peer(), nullptr);
    ASSERT_TRUE(until([&] { return target.last().ended(); }));
    EXPECT_EQ(target.last().requests()[0].body.find("56789"), std::string::npos);
  }
}

// The end of the connection completes a body until close, whatever became of the request.
TEST_F(ClientEarlyTest, EndOfTheConnection) {
  struct Row {
    std::string reply;
    const char* calls;
  };
  const Row rows[] = {
      {"", "error; closed"},
      {"HTTP/1.1 200 OK\r\nServer: t\r\n", "error; closed"},  // not a head yet
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhel", "header 200; body hel; closed"}};
  for (const Row& row : rows) {
    for (const bool resets : {true, false}) {
      WireTarget target;
      Party party;
      beginUpload(party, target, true);
      TraceCapture trace;
      target.last().send(row.reply);
      settle();
      resets ? target.last().reset() : target.last().leave();
      ASSERT_TRUE(until([&] { return party.has("closed"); })) << row.reply << party.said();
      EXPECT_EQ(party.said(), row.calls) << row.reply;
    }
  }
}

// Stopping in the handlers of a reply that is early.
TEST_F(ClientEarlyTest, StoppedInAHandler) {
  for (const char* handler : {"header", "body", "done"}) {
    WireTarget target;
    Party party;
    beginUpload(party, target, true);
    const auto stop = [&] {
      party.freeClient();
      party.freeMessages();
    };
    if (handler == std::string("header"))
      party.onHeader = [&] {
        stop();
        return 0;
      };
    if (handler == std::string("body"))
      party.onBody = [&](FILE*) {
        stop();
        return 0;
      };
    if (handler == std::string("done")) party.onDone = stop;
    TraceCapture trace;
    target.last().send(textReply(413, "Payload Too Large", "no"));
    ASSERT_TRUE(until([&] { return target.last().ended(); })) << handler;
    settle();
    EXPECT_EQ(party.calls.back().substr(0, 4), std::string(handler).substr(0, 4));
  }
}

}  // namespace
