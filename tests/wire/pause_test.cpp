// Pausing, resuming and temporizing requests.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_server.h"
#include "support/wire_traces.h"

namespace {

using Calls = std::vector<std::string>;

class PauseTest : public WireServerTest {
 protected:
  // Reads so many bytes with each call, nothing ahead of them, and keeps the request in request.
  void readInSteps(size_t step, std::function<void()> after) {
    onBody = [this, step, after](HttpRequest* request_, HttpReply* reply, FILE* stream) {
      request = request_;
      setvbuf(stream, nullptr, _IONBF, 0);
      std::string part(step, '\0');
      part.resize(fread(part.data(), 1, step, stream));
      body += part;
      if (http_requestState(request_) == HTTP_MSG_DONE) return replyText(reply, 200, body);
      after();
      return 0;
    };
  }
  HttpRequest* request = nullptr;
};

constexpr std::string_view kPost = "POST /a HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123456789";

// --- without a connection --------------------------------------------------------------------------------------------

TEST_F(PauseTest, RequestWithoutAPeerIsRefused) {
  struct Row {
    int (*operation)(HttpRequest*);
    const char* first;
  };
  const Row rows[] = {{http_serverPauseRequest, "http-se[n]pausing request"},
                      {http_serverResumeRequest, "http-se[n]resuming request"},
                      {http_serverTemporizeRequest, "http-se[n]pausing request"}};
  HttpRequest* own = http_requestCreate();
  for (const Row& row : rows) {
    for (const uint8_t paused : {HTTP_MSG_RUNNING, HTTP_MSG_PAUSED, HTTP_MSG_TEMPORIZED}) {
      own->message.paused = paused;
      TraceCapture trace{"http-server"};
      EXPECT_EQ(row.operation(own), -1);
      EXPECT_EQ(own->message.paused, paused);
      EXPECT_EQ(trace.said(), (TraceLines{row.first, "http-se[x]request is not being processed"}));
    }
  }
  http_requestDestroy(own);
}

TEST_F(PauseTest, PeerThatHasEndedRefuses) {
  listen();
  TraceLines lines;
  onError = [&](HttpRequest* ended, HttpReply*) {
    TraceCapture trace{"http-server"};
    ended->message.paused = HTTP_MSG_RUNNING;
    EXPECT_EQ(http_serverPauseRequest(ended), -1);
    EXPECT_EQ(ended->message.paused, HTTP_MSG_RUNNING);
    ended->message.paused = HTTP_MSG_PAUSED;
    EXPECT_EQ(http_serverResumeRequest(ended), -1);
    EXPECT_EQ(ended->message.paused, HTTP_MSG_PAUSED);
    lines = trace.said();
  };
  TraceCapture outer;
  WireClient client(address());
  client.send("GET / HTTP/1.1\r\nHost\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(lines, (TraceLines{"http-se[n]pausing request", "http-se[x]unable to pause request",
                               "http-se[n]resuming request", "http-se[x]unable to resume request"}));
}

// --- pause -----------------------------------------------------------------------------------------------------------

TEST_F(PauseTest, FromTheBodyHandlerUntilATimer) {
  listen();
  readInSteps(4, [this] { EXPECT_EQ(http_serverPauseRequest(request), 0); });
  WireClient client(address());
  TraceCapture trace{"http-server"};
  client.send(kPost);
  settle();
  EXPECT_EQ(callsOf("body"), 1u);
  EXPECT_EQ(body, "0123");
  EXPECT_EQ(request->message.paused, HTTP_MSG_PAUSED);
  EXPECT_EQ(serverLines(trace),
            joined({accepted(),
                    headRead(1),
                    {"[i]should handle body (#)", "[n]pausing request", "[i]request is paused, stop processing it"}}));
  const auto* connectionOfRequest = static_cast<HttpServerConnection*>(peer_userData(http_requestPeer(request)));
  EXPECT_EQ(connectionOfRequest->state, HTTP_SERVER_RECEIVING_REQUEST);
  EXPECT_NE(request->message.body, nullptr);

  client.send("GET /next HTTP/1.1\r\n\r\n");  // new bytes do not wake it either
  settle();
  EXPECT_EQ(callsOf("body"), 1u);

  // All that is missing has been read ahead: no new byte will come.
  later(2, [this] { EXPECT_EQ(http_serverResumeRequest(request), 0); });
  ASSERT_TRUE(until([&] { return callsOf("body") == 2; }));
  settle();
  EXPECT_EQ(callsOf("body"), 2u);
  EXPECT_EQ(body, "01234567");
  later(2, [this] { EXPECT_EQ(http_serverResumeRequest(request), 0); });
  ASSERT_TRUE(until([&] { return client.received() == okReply("0123456789") + okReply("/next"); }))
      << client.received();
  EXPECT_EQ(callsOf("body"), 3u);
}

TEST_F(PauseTest, ResumeRunsNothingInsideTheCall) {
  listen();
  readInSteps(4, [this] { http_serverPauseRequest(request); });
  WireClient client(address());
  client.send(kPost);
  settle();
  TraceCapture trace{"http-server"};
  EXPECT_EQ(http_serverResumeRequest(request), 0);
  EXPECT_EQ(trace.said(), (TraceLines{"http-se[n]resuming request"}));
  EXPECT_EQ(request->message.paused, HTTP_MSG_RUNNING);
  EXPECT_EQ(callsOf("body"), 1u);
  settle();
  EXPECT_EQ(callsOf("body"), 2u);
}

TEST_F(PauseTest, PausedAndResumedInOneHandlerGoesOn) {
  listen();
  readInSteps(4, [this] {
    EXPECT_EQ(http_serverPauseRequest(request), 0);
    EXPECT_EQ(http_serverResumeRequest(request), 0);
  });
  WireClient client(address());
  client.send(kPost);
  ASSERT_TRUE(until([&] { return client.received() == okReply("0123456789"); })) << client.received();
}

TEST_F(PauseTest, FromTheRequestHandler) {
  listen();
  onRequest = [&](HttpRequest* request_, HttpReply*) {
    request = request_;
    return http_serverPauseRequest(request_);
  };
  WireClient client(address());
  client.send(kPost);
  settle();
  EXPECT_EQ(calls, (Calls{"request POST /a"}));
  EXPECT_EQ(http_serverResumeRequest(request), 0);
  ASSERT_TRUE(until([&] { return client.received() == okReply("0123456789"); })) << client.received();
}

TEST_F(PauseTest, FromTheRequestHandlerOfARequestWithoutABody) {
  listen();
  onRequest = [&](HttpRequest* request_, HttpReply* reply) {
    request = request_;
    EXPECT_EQ(http_serverPauseRequest(request_), 0);
    return replyText(reply, 200, "paused");
  };
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  settle();
  EXPECT_EQ(callsOf("done"), 0u);
  EXPECT_EQ(http_serverResumeRequest(request), 0);
  client.send("\r\n");  // the next read event
  ASSERT_TRUE(until([&] { return callsOf("done") == 1; }));
  EXPECT_EQ(client.received(), okReply("paused"));
}

TEST_F(PauseTest, FromATimerBetweenTwoPartsOfTheBody) {
  listen();
  onBody = [&](HttpRequest* request_, HttpReply* reply, FILE* stream) {
    request = request_;
    body += readBody(stream);
    return http_requestState(request_) == HTTP_MSG_DONE ? replyText(reply, 200, body) : 0;
  };
  WireClient client(address());
  client.send(kPost.substr(0, kPost.size() - 5));
  settle();
  EXPECT_EQ(body, "01234");
  later(0, [this] { EXPECT_EQ(http_serverPauseRequest(request), 0); });
  settle();
  client.send(kPost.substr(kPost.size() - 5));
  settle();
  EXPECT_EQ(body, "01234");
  EXPECT_EQ(callsOf("body"), 1u);
  later(0, [this] { EXPECT_EQ(http_serverResumeRequest(request), 0); });
  ASSERT_TRUE(until([&] { return client.received() == okReply("0123456789"); })) << client.received();
}

// A connection that is not read slows its client down instead of taking everything in.
TEST_F(PauseTest, UnreadBodyStaysWithTheClient) {
  listen();
  const std::string large = pattern(20 << 20);
  bool hold = true;
  size_t read = 0;
  onBody = [&](HttpRequest* request_, HttpReply* reply, FILE* stream) {
    request = request_;
    read += readBody(stream).size();
    if (http_requestState(request_) == HTTP_MSG_DONE) return replyText(reply, 200, std::to_string(read));
    return hold ? http_serverPauseRequest(request_) : 0;
  };
  WireClient client(address());
  client.send("POST /a HTTP/1.1\r\nContent-Length: " + std::to_string(large.size()) + "\r\n\r\n" + large);
  settle();
  const size_t readWhilePaused = read;
  settle();
  EXPECT_EQ(read, readWhilePaused);
  EXPECT_FALSE(client.allSent());
  hold = false;
  EXPECT_EQ(http_serverResumeRequest(request), 0);
  ASSERT_TRUE(until([&] { return client.received() == okReply(std::to_string(large.size())); })) << client.received();
}

TEST_F(PauseTest, ClientThatResetsWhilePaused) {
  listen();
  readInSteps(4, [this] { http_serverPauseRequest(request); });
  TraceCapture trace;
  WireClient client(address());
  client.send(kPost);
  settle();
  client.reset();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(calls, (Calls{"request POST /a", "body", "error"}));
}

// Its bytes are still there, so it is read to its end once it is resumed.
TEST_F(PauseTest, ClientThatFinishesWhilePaused) {
  listen();
  readInSteps(4, [this] { http_serverPauseRequest(request); });
  WireClient client(address());
  client.send(kPost).finish();
  settle();
  ASSERT_EQ(http().connectionCount, 1);
  http_serverResumeRequest(request);
  settle();
  http_serverResumeRequest(request);
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), okReply("0123456789"));
}

// The byte is kept between two requests.
TEST_F(PauseTest, RequestThatIsNeverResumedKeepsItsConnectionPaused) {
  listen();
  onReplyDone = [&](HttpReply*, HttpRequest* request_) {
    request = request_;
    http_serverPauseRequest(request_);
  };
  WireClient client(address());
  client.send("GET /1 HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.received() == okReply("/1"); }));
  client.send("GET /2 HTTP/1.1\r\n\r\n");
  for (int turn = 0; turn < 50; ++turn) {
    WireClient::pumpAll();
    zel_loop_turn(0);
  }
  EXPECT_EQ(callsOf("request"), 1u);
  onReplyDone = nullptr;
  EXPECT_EQ(http_serverResumeRequest(request), 0);
  ASSERT_TRUE(until([&] { return client.received() == okReply("/1") + okReply("/2"); }));
}

// --- temporize -------------------------------------------------------------------------------------------------------

TEST_F(PauseTest, TemporizedGoesOnWithTheNextReadEvent) {
  listen();
  readInSteps(4, [this] { EXPECT_EQ(http_serverTemporizeRequest(request), 0); });
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send(kPost);
  ASSERT_TRUE(until([&] { return client.received() == okReply("0123456789"); })) << client.received();
  settle();
  EXPECT_EQ(callsOf("body"), 3u);
  EXPECT_EQ(
      serverLines(trace),
      joined({accepted(),
              headRead(1),
              {"[i]should handle body (#)", "[n]pausing request", "[i]request is paused, stop processing it"},
              {"[i]connection available for read (#)", "[i]should handle body (#)", "[n]pausing request",
               "[i]request is paused, stop processing it"},
              {"[i]connection available for read (#)", "[i]should handle body (#)", "[i]handled body state is now 3"},
              requestDone(okReply("0123456789").size(), 3),
              replyDone(),
              keptOpen()}));
}

TEST_F(PauseTest, TemporizedFromTheRequestHandler) {
  listen();
  onRequest = [&](HttpRequest* request_, HttpReply* reply) {
    EXPECT_EQ(http_serverTemporizeRequest(request_), 0);
    EXPECT_EQ(request_->message.paused, HTTP_MSG_TEMPORIZED);
    return http_requestHasBody(request_) ? 0 : replyText(reply, 200, http_requestPath(request_));
  };
  WireClient client(address());
  client.send(kPost);
  ASSERT_TRUE(until([&] { return client.received() == okReply("0123456789"); })) << client.received();
}

TEST_F(PauseTest, ClientThatLeavesWhileTemporized) {
  listen();
  readInSteps(4, [this] { http_serverTemporizeRequest(request); });
  TraceCapture trace;
  WireClient client(address());
  client.send("POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n4\r\n0123\r\n").leave();
  ASSERT_TRUE(until([&] { return callsOf("error") > 0; }));
  settle();
  EXPECT_EQ(callsOf("error"), 1u);
  EXPECT_EQ(http().connectionCount, 0);
  EXPECT_EQ(body, "0123");
}

}  // namespace
