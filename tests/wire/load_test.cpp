// Many requests on one connection, many connections at once.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <malloc.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_server.h"

namespace {

class LoadTest : public WireServerTest {
 protected:
  void exchange(WireClient& client, std::string_view request, std::string_view reply) {
    client.take();
    client.send(request);
    ASSERT_TRUE(until([&] { return client.received().size() >= reply.size(); }));
    ASSERT_EQ(client.received(), reply);
  }
};

// Heap in use, of this process.
size_t heapInUse() { return mallinfo2().uordblks + mallinfo2().hblkhd; }

// The connection's memory is that of its largest request; what a request needs goes with it.
TEST_F(LoadTest, ThousandRequestsOnOneConnectionNeedTheMemoryOfOne) {
  listen();
  TemporaryFolder folder;
  folder.file("a.css", "a");
  const std::string root = folder.path() + "/";
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    const std::string_view path = http_requestPath(request);
    if (path == "/text") return replyText(reply, 200, "text");
    if (path == "/page") return http_replyWithDefault(reply, 404);
    if (path == "/a.css") return http_serverRequestSendFile(request, reply, root.c_str());
    return 0;
  };
  const std::string file = "HTTP/1.1 200 OK\r\nContent-Type: text/css; charset=utf-8\r\nContent-Length: 1\r\n\r\na";
  WireClient client(address());
  const auto round = [&] {
    calls.clear();
    exchange(client, "GET /text HTTP/1.1\r\nHost: x\r\n\r\n", okReply("text"));
    exchange(client, "GET /page HTTP/1.1\r\nHost: x\r\n\r\n", cannedReply(404, "Not Found"));
    exchange(client, "GET /a.css HTTP/1.1\r\nHost: x\r\n\r\n", file);
    exchange(client, "POST /p HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello", okReply("hello"));
    exchange(client, "POST /p HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", okReply("hello"));
  };
  for (int i = 0; i < 20 && !HasFatalFailure(); ++i) round();
  settle();
  const size_t before = heapInUse();
  for (int i = 0; i < 200 && !HasFatalFailure(); ++i) round();
  settle();
  EXPECT_LE(heapInUse(), before + 1024);
  EXPECT_EQ(http().repliesSent, 220 * 5);
  EXPECT_EQ(http().connectionCount, 1);

  calls.clear();
  client.leave();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(calls, std::vector<std::string>{});
}

TEST_F(LoadTest, ThousandConnectionsOneAfterTheOtherLeaveNothing) {
  listen();
  const auto visit = [&] {
    WireClient client(address());
    exchange(client, "GET /a HTTP/1.1\r\nConnection: close\r\n\r\n", okReply("/a"));
    ASSERT_TRUE(until([&] { return client.ended(); }));
    calls.clear();
  };
  for (int i = 0; i < 50 && !HasFatalFailure(); ++i) visit();
  settle();
  const size_t before = heapInUse();
  const size_t descriptors = openDescriptors().size();
  for (int i = 0; i < 1000 && !HasFatalFailure(); ++i) visit();
  settle();
  EXPECT_LE(heapInUse(), before + 4096);
  EXPECT_EQ(openDescriptors().size(), descriptors);
  EXPECT_EQ(http().connectionCount, 0);
}

// Every connection gets its own bytes, however they are mixed.
TEST_F(LoadTest, TwoHundredConnectionsWithInterleavedBytes) {
  constexpr size_t kConnections = 200;
  constexpr int kRequests = 4;
  listen();
  const std::string large = pattern(3000);
  struct Visitor {
    std::unique_ptr<WireClient> client;
    std::string wire;
    std::string expected;
    size_t sent = 0;
  };
  std::vector<Visitor> visitors(kConnections);
  for (size_t i = 0; i < kConnections; ++i) {
    for (int request = 0; request < kRequests; ++request) {
      const std::string own = std::to_string(i) + "/" + std::to_string(request) + large.substr(0, i * 7 % 3000);
      visitors[i].wire += request % 2 == 0
                              ? "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(own.size()) + "\r\n\r\n" + own
                              : "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked(own, 50 + i);
      visitors[i].expected += okReply(own);
    }
    visitors[i].client = std::make_unique<WireClient>(address());
  }
  onBody = [](HttpRequest* request, HttpReply* reply, FILE* stream) {
    auto* collected = static_cast<std::string*>(request->message.userData);
    if (collected == nullptr) {
      collected = new std::string;
      http_requestUserDataSet(request, collected);
    }
    *collected += readBody(stream);
    if (http_requestState(request) != HTTP_MSG_DONE) return 0;
    const int result = replyText(reply, 200, *collected);
    delete collected;
    http_requestUserDataSet(request, nullptr);
    return result;
  };
  size_t left = kConnections;
  for (size_t turn = 0; left > 0; ++turn) {
    left = 0;
    for (size_t i = 0; i < kConnections; ++i) {
      Visitor& visitor = visitors[i];
      const size_t count = std::min(visitor.wire.size() - visitor.sent, 1 + (i * 31 + turn * 17) % 250);
      visitor.client->send(std::string_view(visitor.wire).substr(visitor.sent, count));
      visitor.sent += count;
      if (visitor.sent < visitor.wire.size()) ++left;
    }
    zel_loop_turn(0);
  }
  for (Visitor& visitor : visitors)
    ASSERT_TRUE(until([&] { return visitor.client->received().size() >= visitor.expected.size(); }));
  for (size_t i = 0; i < kConnections; ++i) {
    EXPECT_TRUE(visitors[i].client->received() == visitors[i].expected) << "connection " << i;
    EXPECT_FALSE(visitors[i].client->ended());
  }
  EXPECT_EQ(http().connectionCount, static_cast<int>(kConnections));
  EXPECT_EQ(http().repliesSent, static_cast<int>(kConnections * kRequests));
  EXPECT_EQ(callsOf("error"), 0u);
  visitors.clear();
  EXPECT_TRUE(until([&] { return http().connectionCount == 0; }));
}

// More connections than are accepted in one turn.
TEST_F(LoadTest, FourHundredConnectionsAtOnce) {
  listen();
  std::vector<std::unique_ptr<WireClient>> clients;
  for (int i = 0; i < 400; ++i) {
    clients.push_back(std::make_unique<WireClient>(address()));
    clients.back()->send("GET /a HTTP/1.1\r\n\r\n");
    if (i % 50 == 0) zel_loop_turn(0);
  }
  for (const auto& client : clients) {
    ASSERT_TRUE(until([&] { return client->received() == okReply("/a"); }));
  }
  http_serverStop(&http());
  for (const auto& client : clients) {
    ASSERT_TRUE(until([&] { return client->ended(); }));
  }
  ASSERT_TRUE(until([&] { return callsOf("stopped") == 1; }));
}

}  // namespace
