// Uploads read part by part on a server's connections: paused, resumed, left, and with more requests behind them.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <list>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/multipart_bodies.h"
#include "support/wire_server.h"

// A body's own wait would stop the whole loop: it is counted. It still waits.
namespace {
int waits = 0;
}
extern "C" int usleep(useconds_t microseconds) {
  ++waits;
  const timespec time = {static_cast<time_t>(microseconds / 1000000), static_cast<long>(microseconds % 1000000) * 1000};
  return nanosleep(&time, nullptr);
}

namespace {

constexpr std::string_view kNext = "GET /next HTTP/1.1\r\n\r\n";

// What a complete upload is answered with.
std::string summary(const std::vector<MultipartPart>& parts) {
  std::string text;
  for (const MultipartPart& part : parts) {
    for (const auto& [name, value] : part.headers) text.append(name).append("=").append(value).append(";");
    text += part.content + "|";
  }
  return text;
}

class MultipartWire : public WireServerTest {
 public:
  struct Upload {
    HttpMultipart reader;  // first: the user data of a part is this
    MultipartWire* test;
    HttpRequest* request;
    HttpReply* reply;
    std::vector<MultipartPart> parts;
    size_t ends;
    bool ended;     // the last read met the end of its part
    bool live;      // the reader is prepared
    bool answered;  // the request may not be used any more
  };

 protected:
  void SetUp() override {
    WireServerTest::SetUp();
    waits = 0;
    onRequest = [this](HttpRequest* request, HttpReply* reply) {
      if (!http_requestHasBody(request)) return replyText(reply, 200, http_requestPath(request));
      uploads.push_back({});
      Upload* upload = &uploads.back();
      upload->test = this;
      upload->request = request;
      upload->reply = reply;
      if (http_msgMultipartInitialize(&upload->reader, &request->message, handlePart, handlePartBody) != 0) return -1;
      upload->live = true;
      return 0;
    };
    onBody = [this](HttpRequest* request, HttpReply*, FILE*) {
      Upload* upload = find(request);
      if (upload == nullptr) return -1;
      const int result = http_msgMultipartHandleRead(&upload->reader);
      return result < 0 ? onFailure(upload) : finishIfComplete(upload);
    };
    onFailure = [](Upload* upload) {
      release(upload);
      return -1;
    };
    onError = [this](HttpRequest* request, HttpReply*) {
      if (Upload* upload = find(request); upload != nullptr) release(upload);
    };
    inPart = [](Upload*) { return 0; };
    inBody = [](Upload* upload, FILE* stream) {
      while (readOnce(upload, stream, 4096) == 4096) {
      }
      return 0;
    };
  }
  void TearDown() override {
    EXPECT_EQ(waits, 0) << "the loop was stopped to wait for a body";
    for (const Upload& upload : uploads) EXPECT_FALSE(upload.live) << "a reader was never released";
    WireServerTest::TearDown();
  }

  std::list<Upload> uploads;
  std::function<int(Upload*)> inPart;
  std::function<int(Upload*, FILE*)> inBody;
  std::function<int(Upload*)> onFailure;

  // The upload under way for this request.
  Upload* find(HttpRequest* request) {
    for (Upload& upload : uploads)
      if (upload.live && upload.request == request) return &upload;
    return nullptr;
  }
  static void release(Upload* upload) {
    if (std::exchange(upload->live, false)) http_msgMultipartCleanup(&upload->reader);
    upload->answered = true;
  }
  static int finishIfComplete(Upload* upload) {
    if (!upload->live || upload->reader.state != HTTP_MULTIPART_DONE) return 0;
    if (http_requestState(upload->request) != HTTP_MSG_DONE) return 0;  // what follows the parts is still to come
    HttpReply* reply = upload->reply;
    const std::string text = summary(upload->parts) + std::to_string(upload->ends);
    release(upload);
    return replyText(reply, 200, text);
  }
  // One read of the part. @return its bytes
  static size_t readOnce(Upload* upload, FILE* stream, size_t size) {
    const size_t count = MultipartUpload::take(stream, size, &upload->parts.back().content);
    upload->ended = http_requestState(&upload->reader.part) == HTTP_MSG_DONE && count < size;
    if (upload->ended) ++upload->ends;
    return count;
  }

  // The two ways to go on, as an application would from outside the reader's handlers.
  static void resumeByServer(Upload* upload) { EXPECT_EQ(http_serverResumeRequest(upload->request), 0); }
  static void resumeByReader(Upload* upload) {
    EXPECT_EQ(http_msgMultipartResume(&upload->reader), 0);
    finishIfComplete(upload);
  }

  static std::string answer(const MultipartBody& sent) {
    return okReply(summary(sent.parts) + std::to_string(sent.parts.size()));
  }
  static MultipartBody smallBody() {
    MultipartBody sent;
    sent.parts = {{{{"Content-Disposition", "form-data; name=\"a\""}}, "first \r\n--XyY\r\r\n--Xy"},
                  {{{"A", "b"}}, ""},
                  {{}, "\r\n--Xythird"}};
    return sent;
  }
  static std::string wire(const MultipartBody& sent, Framing framing = Framing::kLength, uint64_t seed = 1) {
    Random random(seed);
    return framedRequest(sent, framing, random);
  }

 private:
  static Upload* of(HttpRequest* part) { return static_cast<Upload*>(http_requestUserData(part)); }
  static int handlePart(HttpRequest* part) {
    Upload* upload = of(part);
    MultipartPart noted;
    const char* name = nullptr;
    const char* value = nullptr;
    while (http_requestHeadersNext(part, &name, &value) == 0) noted.headers.emplace_back(name, value);
    upload->parts.push_back(noted);
    return upload->test->inPart(upload);
  }
  static int handlePartBody(HttpRequest* part, FILE* stream) {
    Upload* upload = of(part);
    return upload->test->inBody(upload, stream);
  }
};

// --- as it arrives ---------------------------------------------------------------------------------------------------

class MultipartFramed : public MultipartWire, public ::testing::WithParamInterface<Framing> {};
INSTANTIATE_TEST_SUITE_P(Multipart, MultipartFramed, ::testing::Values(Framing::kLength, Framing::kChunked),
                         [](const auto& row) { return row.param == Framing::kLength ? "Length" : "Chunked"; });

TEST_P(MultipartFramed, RequestsBehindTheUploadInTheSameSegment) {
  listen();
  const MultipartBody sent = smallBody();
  WireClient client(address());
  client.send(wire(sent, GetParam()) + std::string(kNext) + wire(sent, GetParam()) + std::string(kNext));
  const std::string expected = answer(sent) + okReply("/next") + answer(sent) + okReply("/next");
  ASSERT_TRUE(until([&] { return client.received().size() >= expected.size(); })) << client.received();
  EXPECT_EQ(client.received(), expected);
}

TEST_P(MultipartFramed, EpilogueIsNotTakenForARequest) {
  listen();
  MultipartBody sent = smallBody();
  sent.epilogue = "GET /epilogue HTTP/1.1\r\n\r\n";
  const std::string whole = wire(sent, GetParam());
  WireClient client(address());
  client.send(whole.substr(0, whole.size() - 20));
  settle();
  client.send(whole.substr(whole.size() - 20) + std::string(kNext));
  const std::string expected = answer(sent) + okReply("/next");
  ASSERT_TRUE(until([&] { return client.received().size() >= expected.size(); })) << client.received();
  settle();
  EXPECT_EQ(client.received(), expected);
}

TEST_P(MultipartFramed, CutAtEveryOctet) {
  listen();
  const MultipartBody sent = smallBody();
  const std::string whole = wire(sent, GetParam());
  WireClient client(address());
  for (size_t cut = 1; cut < whole.size(); ++cut) {
    client.send(whole.substr(0, cut));
    settle();
    EXPECT_EQ(client.received(), "");
    client.send(whole.substr(cut) + std::string(kNext));
    const std::string expected = answer(sent) + okReply("/next");
    ASSERT_TRUE(until([&] { return client.received().size() >= expected.size(); })) << cut << ": " << client.received();
    ASSERT_EQ(client.take(), expected) << cut;
  }
}

// What comes before a delimiter is handed out, and the begun delimiter waits for its rest.
TEST_P(MultipartFramed, DelimiterWhoseRestComesLate) {
  listen();
  MultipartBody sent;
  sent.parts = {{{}, "before"}, {{}, "behind"}};
  const std::string whole = wire(sent, GetParam(), 77);
  Random random(77);
  const std::string inOneChunk = framedRequest(sent, GetParam(), random, 100000);
  const size_t place = inOneChunk.find(sent.delimiter() + "\r\n\r\nbehind");
  ASSERT_NE(place, std::string::npos);
  WireClient client(address());
  for (size_t octets = 0; octets <= sent.delimiter().size(); ++octets) {
    client.send(inOneChunk.substr(0, place + octets));
    settle();
    ASSERT_FALSE(uploads.empty());
    ASSERT_EQ(uploads.back().parts.size(), 1u);
    EXPECT_EQ(uploads.back().parts[0].content, "before");
    EXPECT_EQ(uploads.back().ends, octets == sent.delimiter().size() ? 1u : 0u);
    client.send(inOneChunk.substr(place + octets));
    ASSERT_TRUE(until([&] { return client.received().size() >= answer(sent).size(); })) << octets;
    ASSERT_EQ(client.take(), answer(sent));
  }
}

TEST_P(MultipartFramed, ManyClientsAtOnce) {
  listen();
  const SpinGuard guard(100);
  struct Sender {
    std::unique_ptr<WireClient> client;
    Pieces pieces;
    std::string expected;
    size_t next = 0;
  };
  std::vector<Sender> senders;
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    Random random(seed);
    MultipartShape shape;
    shape.content = 30000;
    Sender sender;
    std::string all;
    for (int upload = 0; upload < 2; ++upload) {
      const MultipartBody sent = randomMultipart(random, shape);
      all += framedRequest(sent, GetParam(), random) + std::string(kNext);
      sender.expected += answer(sent) + okReply("/next");
    }
    sender.client = std::make_unique<WireClient>(address());
    sender.pieces = cutAtRandom(random, all, 30);
    senders.push_back(std::move(sender));
  }
  for (bool more = true; more;) {
    more = false;
    for (Sender& sender : senders) {
      if (sender.next == sender.pieces.size()) continue;
      sender.client->send(sender.pieces[sender.next++]);
      more = true;
    }
    zel_loop_turn(0);
  }
  for (size_t i = 0; i < senders.size(); ++i) {
    Sender& sender = senders[i];
    ASSERT_TRUE(until([&] { return sender.client->received().size() >= sender.expected.size(); })) << "seed " << i + 1;
    EXPECT_TRUE(sender.client->received() == sender.expected) << "seed " << i + 1;
  }
}

// --- pausing ---------------------------------------------------------------------------------------------------------

struct PauseCase {
  const char* name;
  enum Where { kPart, kBody, kBetween } where;
  bool byReader;  // http_msgMultipartResume(), else http_serverResumeRequest()
  Framing framing;
  bool moreBehind;  // the next request has arrived with it
};
void PrintTo(const PauseCase& row, std::ostream* out) { *out << row.name; }

class MultipartPause : public MultipartWire, public ::testing::WithParamInterface<PauseCase> {
 protected:
  void SetUp() override {
    MultipartWire::SetUp();
    const PauseCase row = GetParam();
    inPart = [this, row](Upload* upload) { return row.where == PauseCase::kPart ? pause(upload) : 0; };
    inBody = [this, row](Upload* upload, FILE* stream) {
      ++bodyCalls;
      const bool any = readOnce(upload, stream, 7) > 0 || upload->ended;
      const bool here = row.where == PauseCase::kBody ? any : row.where == PauseCase::kBetween && upload->ended;
      return here ? pause(upload) : 0;
    };
  }
  int pause(Upload* upload) {
    ++pauses;
    EXPECT_EQ(http_msgMultipartPause(&upload->reader), 0);
    EXPECT_EQ(upload->request->message.paused, HTTP_MSG_PAUSED);
    return 0;
  }
  void resume(Upload* upload) { GetParam().byReader ? resumeByReader(upload) : resumeByServer(upload); }
  std::string bytes(const MultipartBody& sent) {
    return wire(sent, GetParam().framing) + std::string(GetParam().moreBehind ? kNext : "");
  }
  std::string expected(const MultipartBody& sent) {
    return answer(sent) + (GetParam().moreBehind ? okReply("/next") : "");
  }

  size_t pauses = 0;
  size_t bodyCalls = 0;
};

#define PAUSE_ROWS(where, name)                                                      \
  {#name "ServerLength", PauseCase::where, false, Framing::kLength, false},          \
      {#name "ServerLengthMore", PauseCase::where, false, Framing::kLength, true},   \
      {#name "ServerChunked", PauseCase::where, false, Framing::kChunked, false},    \
      {#name "ServerChunkedMore", PauseCase::where, false, Framing::kChunked, true}, \
      {#name "ReaderLength", PauseCase::where, true, Framing::kLength, false},       \
      {#name "ReaderLengthMore", PauseCase::where, true, Framing::kLength, true},    \
      {#name "ReaderChunked", PauseCase::where, true, Framing::kChunked, false}, {   \
#name "ReaderChunkedMore", PauseCase::where, true, Framing::kChunked, true       \
  }
const PauseCase kPauses[] = {PAUSE_ROWS(kPart, InPart), PAUSE_ROWS(kBody, InBody), PAUSE_ROWS(kBetween, Between)};
INSTANTIATE_TEST_SUITE_P(Multipart, MultipartPause, ::testing::ValuesIn(kPauses),
                         [](const auto& row) { return row.param.name; });

// All has arrived before the first pause: no new byte wakes the connection.
TEST_P(MultipartPause, ResumedFromATimerEachTime) {
  listen();
  const MultipartBody sent = smallBody();
  WireClient client(address());
  client.send(bytes(sent));
  settle();
  for (size_t pass = 1; pass < 200 && client.received() == ""; ++pass) {
    ASSERT_EQ(uploads.size(), 1u);
    ASSERT_EQ(pauses, pass) << "paused once, and nothing happens until it is resumed";
    bool done = false;
    later(0, [&] {
      resume(&uploads.front());
      done = true;
    });
    ASSERT_TRUE(until([&] { return done; }));
    settle();
  }
  ASSERT_TRUE(until([&] { return client.received().size() >= expected(sent).size(); })) << client.received();
  EXPECT_EQ(client.received(), expected(sent));
  client.send(kNext);
  ASSERT_TRUE(until([&] { return client.received() == expected(sent) + okReply("/next"); })) << client.received();
}

TEST_P(MultipartPause, NewBytesDoNotWakeIt) {
  listen();
  const MultipartBody sent = smallBody();
  const std::string whole = bytes(sent);
  WireClient client(address());
  client.send(whole.substr(0, whole.find("first ") + 8));
  settle();
  const bool pausedYet = GetParam().where != PauseCase::kBetween;
  ASSERT_EQ(pauses, pausedYet ? 1u : 0u);
  const size_t callsBefore = bodyCalls;
  client.send(whole.substr(whole.find("first ") + 8));
  settle();
  EXPECT_EQ(pauses, 1u);
  if (pausedYet) {
    EXPECT_EQ(bodyCalls, callsBefore);
  }
  for (size_t pass = 0; pass < 200 && client.received() == ""; ++pass) {
    resume(&uploads.front());
    settle();
  }
  ASSERT_TRUE(until([&] { return client.received().size() >= expected(sent).size(); })) << client.received();
  EXPECT_EQ(client.received(), expected(sent));
}

TEST_P(MultipartPause, ResumedFromTheHandlerOfAnotherConnection) {
  listen();
  const MultipartBody sent = smallBody();
  const RequestHandler usual = onRequest;
  onRequest = [&, usual](HttpRequest* request, HttpReply* reply) {
    if (std::string_view(http_requestPath(request)) == "/resume") resume(&uploads.front());
    return usual(request, reply);
  };
  WireClient client(address());
  client.send(bytes(sent));
  settle();
  WireClient other(address());
  for (size_t pass = 0; pass < 200 && client.received() == ""; ++pass) {
    other.send("GET /resume HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(until([&] { return other.received() == okReply("/resume"); }));
    other.take();
    settle();
  }
  ASSERT_TRUE(until([&] { return client.received().size() >= expected(sent).size(); })) << client.received();
  EXPECT_EQ(client.received(), expected(sent));
}

TEST_P(MultipartPause, ResumedTwiceIsAsGoodAsOnce) {
  listen();
  const MultipartBody sent = smallBody();
  WireClient client(address());
  client.send(bytes(sent));
  settle();
  for (size_t pass = 0; pass < 200 && client.received() == ""; ++pass) {
    resume(&uploads.front());
    if (uploads.front().live) resume(&uploads.front());
    settle();
  }
  ASSERT_TRUE(until([&] { return client.received().size() >= expected(sent).size(); })) << client.received();
  EXPECT_EQ(client.received(), expected(sent));
}

TEST_P(MultipartPause, PausedAndResumedInsideTheHandlerGoesOn) {
  listen();
  const PauseCase row = GetParam();
  int depth = 0;
  const auto both = [&, row](Upload* upload) {
    EXPECT_EQ(++depth, 1);
    pause(upload);
    const size_t callsBefore = bodyCalls;
    EXPECT_EQ(row.byReader ? http_msgMultipartResume(&upload->reader) : http_serverResumeRequest(upload->request), 0);
    EXPECT_EQ(upload->request->message.paused, HTTP_MSG_RUNNING);
    EXPECT_EQ(bodyCalls, callsBefore) << "the handler was called inside itself";
    --depth;
    return 0;
  };
  inPart = [&, row](Upload* upload) { return row.where == PauseCase::kPart ? both(upload) : 0; };
  inBody = [&, row](Upload* upload, FILE* stream) {
    ++bodyCalls;
    readOnce(upload, stream, 7);
    const bool here = row.where == PauseCase::kBody || (row.where == PauseCase::kBetween && upload->ended);
    return here ? both(upload) : 0;
  };
  const MultipartBody sent = smallBody();
  WireClient client(address());
  client.send(bytes(sent));
  ASSERT_TRUE(until([&] { return client.received().size() >= expected(sent).size(); })) << client.received();
  EXPECT_EQ(client.received(), expected(sent));
  EXPECT_GT(pauses, 0u);
}

TEST_P(MultipartPause, NeverResumedAndTheClientResets) {
  listen();
  TraceCapture quiet;
  WireClient client(address());
  const std::string whole = bytes(smallBody());
  client.send(GetParam().moreBehind ? whole : whole.substr(0, whole.find("third")));
  settle();
  ASSERT_EQ(pauses, 1u);
  client.reset();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(callsOf("error"), 1u);
  EXPECT_FALSE(uploads.front().live);
}

// A client that has only finished sending is not noticed before it is read again.
TEST_P(MultipartPause, ClientThatLeavesIsNoticedOnceResumed) {
  listen();
  TraceCapture quiet;
  WireClient client(address());
  const std::string whole = bytes(smallBody());
  client.send(whole.substr(0, whole.find("third")));
  settle();
  ASSERT_EQ(pauses, 1u);
  client.leave();
  settle();
  for (size_t pass = 0; pass < 200 && http().connectionCount > 0; ++pass) {
    Upload* upload = &uploads.front();
    if (upload->live) {
      if (GetParam().byReader) {
        http_msgMultipartResume(&upload->reader);  // fails at the end that it reads
      } else {
        http_serverResumeRequest(upload->request);
      }
    }
    settle();
  }
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(callsOf("done"), 0u);
  EXPECT_FALSE(uploads.front().live);
}

// Once the server is stopped no handler tells of the end: what was kept for the request goes with its peer.
TEST_P(MultipartPause, ServerStopsAndThenTheClientResets) {
  listen();
  TraceCapture quiet;
  static std::list<Upload>* kept;
  kept = &uploads;
  const RequestHandler usual = onRequest;
  onRequest = [&, usual](HttpRequest* request, HttpReply* reply) {
    EXPECT_TRUE(peer_addCloseHandler(http_requestPeer(request), [](ZelPeer*) {
      for (Upload& upload : *kept) release(&upload);
      return true;
    }));
    return usual(request, reply);
  };
  WireClient client(address());
  client.send(bytes(smallBody()));
  settle();
  ASSERT_EQ(pauses, 1u);
  http_serverStop(&http());
  settle();
  EXPECT_EQ(callsOf("stopped"), 0u);
  client.reset();
  ASSERT_TRUE(until([&] { return callsOf("stopped") == 1; }));
  EXPECT_EQ(callsOf("error"), 0u);
  EXPECT_FALSE(uploads.front().live);
}

TEST_P(MultipartPause, ServerStopsAndTheUploadIsFinishedFirst) {
  listen();
  const MultipartBody sent = smallBody();
  WireClient client(address());
  client.send(wire(sent, GetParam().framing));
  settle();
  http_serverStop(&http());
  settle();
  for (size_t pass = 0; pass < 200 && client.received() == ""; ++pass) {
    resume(&uploads.front());
    settle();
  }
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), answer(sent));
  EXPECT_EQ(callsOf("stopped"), 1u);
}

TEST_P(MultipartPause, TemporizedGoesOnByItself) {
  listen();
  const PauseCase row = GetParam();
  const auto temporize = [&](Upload* upload) {
    ++pauses;
    return http_serverTemporizeRequest(upload->request);
  };
  inPart = [&, row](Upload* upload) { return row.where == PauseCase::kPart ? temporize(upload) : 0; };
  inBody = [&, row](Upload* upload, FILE* stream) {
    readOnce(upload, stream, 7);
    const bool here = row.where == PauseCase::kBody || (row.where == PauseCase::kBetween && upload->ended);
    return here ? temporize(upload) : 0;
  };
  const MultipartBody sent = smallBody();
  WireClient client(address());
  client.send(bytes(sent));
  ASSERT_TRUE(until([&] { return client.received().size() >= expected(sent).size(); })) << client.received();
  EXPECT_EQ(client.received(), expected(sent));
  EXPECT_GT(pauses, 0u);
  settle();
}

// --- ends ------------------------------------------------------------------------------------------------------------

TEST_P(MultipartFramed, ClientThatLeavesAnywhere) {
  listen();
  TraceCapture quiet;
  const std::string whole = wire(smallBody(), GetParam());
  size_t errors = 0;
  for (size_t cut = whole.find("\r\n\r\n") + 4; cut < whole.size(); cut += 3) {
    for (const bool hard : {false, true}) {
      const size_t before = uploads.size();
      WireClient client(address());
      client.send(whole.substr(0, cut));
      if (cut % 2 == 0) settle();
      if (hard) {
        client.reset();
      } else {
        client.leave();
      }
      ASSERT_TRUE(until([&] { return http().connectionCount == 0; })) << cut;
      if (uploads.size() > before) {
        EXPECT_FALSE(uploads.back().live) << cut;
      }
      errors = callsOf("error");
    }
  }
  EXPECT_GT(errors, 0u);
}

TEST_P(MultipartFramed, MalformedUploadCanBeAnswered) {
  listen();
  TraceCapture quiet;
  onFailure = [](Upload* upload) {
    HttpReply* reply = upload->reply;
    release(upload);
    replyText(reply, 400, "no");
    return -1;
  };
  MultipartBody sent = smallBody();
  std::string whole = wire(sent, GetParam());
  const size_t head = whole.find("\r\n\r\n") + 4;
  Random random(5);
  std::string broken = framedRequest(sent, GetParam(), random, 100000);
  broken.replace(broken.find("--XyZ\r\n"), 5, "--XYZ");
  ASSERT_GT(whole.size(), head);
  WireClient client(address());
  client.send(broken + std::string(kNext));
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(takeReplies(client.received()).at(0).status(), 400u);
  EXPECT_EQ(countReplies(client.received()), 1u);
}

TEST_P(MultipartFramed, HandlerThatGivesUpDropsTheConnection) {
  listen();
  TraceCapture quiet;
  inBody = [](Upload* upload, FILE* stream) {
    readOnce(upload, stream, 3);
    return -1;
  };
  WireClient client(address());
  client.send(wire(smallBody(), GetParam()) + std::string(kNext));
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), "");
  EXPECT_EQ(uploads.size(), 1u);
}

TEST_P(MultipartFramed, HandlerThatClosesItsConnection) {
  listen();
  TraceCapture quiet;
  for (const bool inPartHandler : {false, true}) {
    const auto leave = [](Upload* upload) {
      ZelPeer* const peer = http_requestPeer(upload->request);
      release(upload);
      peer_close(peer);
      return -1;
    };
    inPart = [=](Upload* upload) { return inPartHandler ? leave(upload) : 0; };
    inBody = [=](Upload* upload, FILE* stream) {
      readOnce(upload, stream, 3);
      return leave(upload);
    };
    onBody = [this](HttpRequest* request, HttpReply*, FILE*) {
      Upload* upload = find(request);
      if (upload == nullptr) return -1;
      http_msgMultipartHandleRead(&upload->reader);
      return upload->live ? finishIfComplete(upload) : -1;
    };
    WireClient client(address());
    client.send(wire(smallBody(), GetParam()) + std::string(kNext));
    ASSERT_TRUE(until([&] { return client.ended(); }));
    EXPECT_EQ(client.received(), "");
    EXPECT_EQ(http().connectionCount, 0);
  }
}

TEST_P(MultipartFramed, StopInsideAHandlerLetsTheUploadEnd) {
  listen();
  inPart = [this](Upload*) {
    http_serverStop(&http());
    return 0;
  };
  const MultipartBody sent = smallBody();
  WireClient client(address());
  client.send(wire(sent, GetParam()));
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), answer(sent));
  ASSERT_TRUE(until([&] { return callsOf("stopped") == 1; }));
}

TEST_P(MultipartFramed, RepliesBeforeTheEndAndReadsOn) {
  listen();
  const MultipartBody sent = smallBody();
  inPart = [](Upload* upload) { return upload->parts.size() == 2 ? replyText(upload->reply, 200, "early") : 0; };
  onBody = [this](HttpRequest* request, HttpReply*, FILE*) {
    Upload* upload = find(request);
    if (upload == nullptr) return 0;
    const int result = http_msgMultipartHandleRead(&upload->reader);
    if (upload->reader.state == HTTP_MULTIPART_DONE) release(upload);
    return result;
  };
  onReplyDone = [this](HttpReply*, HttpRequest* request) {
    if (Upload* upload = find(request); upload != nullptr) release(upload);
  };
  WireClient client(address());
  client.send(wire(sent, GetParam()) + std::string(kNext));
  ASSERT_TRUE(until([&] { return client.received() == okReply("early") + okReply("/next"); })) << client.received();
  EXPECT_EQ(uploads.front().parts, sent.parts);
}

// --- other bodies, paused --------------------------------------------------------------------------------------------

struct PlainCase {
  const char* name;
  std::string request;
};
void PrintTo(const PlainCase& row, std::ostream* out) { *out << row.name; }
class PausedBody : public WireServerTest, public ::testing::WithParamInterface<PlainCase> {};

constexpr std::string_view kTen = "0123456789";
const PlainCase kPlain[] = {
    {"Length", "POST /a HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123456789"},
    {"Chunked", "POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\n012\r\n7\r\n3456789\r\n0\r\n\r\n"},
    {"Multipart",
     "POST /a HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=b\r\nContent-Length: 10\r\n\r\n0123456789"},
};
INSTANTIATE_TEST_SUITE_P(Multipart, PausedBody, ::testing::ValuesIn(kPlain),
                         [](const auto& row) { return row.param.name; });

// Stdio has read ahead to the end of the body: what it holds is still handed out, a few bytes with each resume.
TEST_P(PausedBody, ReadInSmallStepsWithNothingNewArriving) {
  for (const bool moreBehind : {false, true}) {
    for (const size_t step : {1, 3, 4, 10}) {
      for (const bool temporize : {false, true}) {
        if (!http().peer) listen();
        std::string read;
        HttpRequest* paused = nullptr;
        onBody = [&](HttpRequest* request, HttpReply* reply, FILE* stream) {
          paused = nullptr;
          const size_t count = MultipartUpload::take(stream, step, &read);
          if (count < step || read.size() == kTen.size()) return replyText(reply, 200, read);
          if (temporize) return http_serverTemporizeRequest(request);
          paused = request;
          return http_serverPauseRequest(request);
        };
        WireClient client(address());
        client.send(GetParam().request + std::string(moreBehind ? kNext : ""));
        for (int pass = 0; pass < 50 && client.received() == ""; ++pass) {
          settle();
          if (paused != nullptr) http_serverResumeRequest(paused);
        }
        const std::string expected = okReply(kTen) + (moreBehind ? okReply("/next") : "");
        ASSERT_TRUE(until([&] { return client.received().size() >= expected.size(); }, 3))
            << "step " << step << (temporize ? ", temporized" : ", paused") << (moreBehind ? ", more behind" : "")
            << ": read " << read << ", received " << client.received();
        EXPECT_EQ(client.received(), expected);
      }
    }
  }
}

}  // namespace
