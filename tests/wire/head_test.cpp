// HEAD: the head that GET would have, no body, and the connection stays in step, however the reply is made.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "support/wire_server.h"

namespace {

struct MakerCase {
  const char* name;
  std::function<int(WireServerTest&, HttpRequest*, HttpReply*, const std::string& root)> make;
  bool keeps;
};
void PrintTo(const MakerCase& row, std::ostream* out) { *out << row.name; }

int chunkedReply(HttpReply* reply) {
  http_replyStatusCodeSet(reply, 200, nullptr);
  http_replyHeaderValueSet(reply, "Transfer-Encoding", "chunked");
  http_replySend(reply);
  FILE* body = http_replyBody(reply);
  EXPECT_NE(body, nullptr);
  EXPECT_GE(fprintf(body, "some %s", "text"), 0);
  EXPECT_EQ(fflush(body), 0);
  EXPECT_GE(fputs(" and more", body), 0);
  EXPECT_EQ(fclose(body), 0);
  return http_replyDone(reply);
}

int replyUntilClose(HttpReply* reply) {
  http_replyStatusCodeSet(reply, 200, nullptr);
  http_replyHeaderValueSet(reply, "Connection", "close");
  http_replySend(reply);
  FILE* body = http_replyBody(reply);
  EXPECT_NE(body, nullptr);
  EXPECT_GE(fputs("until the end", body), 0);
  return http_replyDone(reply);
}

int sendPipe(HttpReply* reply) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  EXPECT_EQ(write(ends[1], "from a pipe", 11), 11);
  close(ends[1]);
  http_replyStatusCodeSet(reply, 200, nullptr);
  return http_serverSendFd(reply, ends[0]);
}

MakerCase file(const char* name, const char* path) {
  return {name,
          [path](WireServerTest&, HttpRequest*, HttpReply* reply, const std::string& root) {
            http_replyStatusCodeSet(reply, 200, nullptr);
            http_serverSendFile(reply, (root + path).c_str());
            return 0;
          },
          true};
}

const MakerCase kMakers[] = {
    {"Text",
     [](WireServerTest&, HttpRequest*, HttpReply* reply, const std::string&) { return replyText(reply, 200, "hello"); },
     true},
    {"LargeText",
     [](WireServerTest&, HttpRequest*, HttpReply* reply, const std::string&) {
       return replyText(reply, 200, pattern(500000));
     },
     true},
    {"EmptyText",
     [](WireServerTest&, HttpRequest*, HttpReply* reply, const std::string&) { return replyText(reply, 200, ""); },
     true},
    {"TextThatCloses",
     [](WireServerTest&, HttpRequest*, HttpReply* reply, const std::string&) {
       return replyText(reply, 200, "hello", {{"Connection", "close"}});
     },
     false},
    {"Default",
     [](WireServerTest&, HttpRequest*, HttpReply* reply, const std::string&) {
       return http_replyWithDefault(reply, 404);
     },
     true},
    {"DefaultWithBody",
     [](WireServerTest&, HttpRequest*, HttpReply* reply, const std::string&) {
       return http_replyWithDefaultAndBody(reply, 200, "<p>%s</p>", "hello");
     },
     true},
    {"Redirect",
     [](WireServerTest&, HttpRequest*, HttpReply* reply, const std::string&) {
       return http_replyWithRedirect(reply, 302, "/else/%s", "where");
     },
     true},
    {"Chunked", [](WireServerTest&, HttpRequest*, HttpReply* reply, const std::string&) { return chunkedReply(reply); },
     true},
    {"UntilClose",
     [](WireServerTest&, HttpRequest*, HttpReply* reply, const std::string&) { return replyUntilClose(reply); }, false},
    {"Pipe", [](WireServerTest&, HttpRequest*, HttpReply* reply, const std::string&) { return sendPipe(reply); },
     false},
    file("File", "page.html"),
    file("EmptyFile", "empty.css"),
    file("MissingFile", "missing.css"),
    {"RequestedFile",
     [](WireServerTest&, HttpRequest* request, HttpReply* reply, const std::string& root) {
       http_serverRequestSendFile(request, reply, root.c_str());
       return 0;
     },
     true},
};

class HeadTest : public WireServerTest, public ::testing::WithParamInterface<MakerCase> {
 protected:
  void SetUp() override {
    WireServerTest::SetUp();
    site_.file("page.html", pattern(100000));
    site_.file("empty.css", "");
    site_.file("style.css", "plain");
    site_.file("style.css.gz", "compressed");
    onRequest = [this](HttpRequest* request, HttpReply* reply) {
      if (std::string_view(http_requestPath(request)) == "/next") return replyText(reply, 200, "next");
      return GetParam().make(*this, request, reply, site_.path() + "/");
    };
  }
  TemporaryFolder site_;
};
INSTANTIATE_TEST_SUITE_P(Reply, HeadTest, ::testing::ValuesIn(kMakers),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(HeadTest, HasTheHeadOfGetAndNoBody) {
  listen();
  TraceCapture trace;
  WireClient get(address());
  get.send("GET /style.css HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return get.ended(); }));
  const WireReply whole = takeReplies(get.received(), true).at(0);
  ASSERT_NE(whole.status(), 0u);

  WireClient head(address());
  head.send("HEAD /style.css HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return head.ended(); }));
  EXPECT_EQ(head.received(), whole.head());
  EXPECT_EQ(callsOf("done"), 2u);
  EXPECT_EQ(callsOf("error"), 0u);
}

TEST_P(HeadTest, LeavesTheConnectionInStep) {
  listen();
  TraceCapture trace;
  WireClient client(address());
  client.send("HEAD /style.css HTTP/1.1\r\n\r\nGET /next HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_FALSE(client.wasReset());
  size_t at = 0;
  const auto first = takeReply(client.received(), &at, true);
  ASSERT_TRUE(first);
  EXPECT_EQ(client.received().substr(at), GetParam().keeps ? okReply("next") : "");
}

TEST_P(HeadTest, MadeFromATimer) {
  listen();
  onRequest = [this](HttpRequest* request, HttpReply* reply) {
    later(2, [=, this] { GetParam().make(*this, request, reply, site_.path() + "/"); });
    return 0;
  };
  TraceCapture trace;
  WireClient get(address());
  get.send("GET /style.css HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return get.ended(); }));
  WireClient head(address());
  head.send("HEAD /style.css HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return head.ended(); }));
  const auto whole = takeReplies(get.received(), true);
  ASSERT_FALSE(whole.empty());
  EXPECT_EQ(head.received(), whole[0].head());
}

// The mark of a HEAD request goes with it.
TEST_P(HeadTest, GetBehindHeadHasItsBody) {
  if (!GetParam().keeps) {
    listen();
    WireClient client(address());
    client.send("HEAD /style.css HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(until([&] { return client.ended(); }));
    return;
  }
  listen();
  TraceCapture trace;
  WireClient single(address());
  single.send("GET /style.css HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return single.ended(); }));
  const std::string whole = single.received();
  const std::string head = takeReplies(whole).at(0).head();

  WireClient client(address());
  client.send(
      "HEAD /style.css HTTP/1.1\r\n\r\nGET /style.css HTTP/1.1\r\n\r\n"
      "HEAD /style.css HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), head + whole + head);
}

}  // namespace
