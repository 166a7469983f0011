// krohttpd from the outside: its command line, its pages, its log and how it ends.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <memory>
#include <ostream>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_process.h"

namespace {

using Arguments = std::vector<std::string>;

// --- the command line ------------------------------------------------------------------------------------------------

struct Ended {
  std::string outcome;
  std::string output;
  std::string errors;
};
Ended run(const Arguments& arguments) {
  ChildProcess process(daemonCommand(arguments));
  EXPECT_TRUE(waitUntil([&] { return process.ended(); }));
  return {process.outcome(), process.output(), process.errors()};
}

struct OptionCase {
  const char* name;
  Arguments arguments;
};
void PrintTo(const OptionCase& row, std::ostream* out) { *out << row.name; }
const OptionCase kWrong[] = {
    {"UnknownOption", {"--nope"}},
    {"UnknownShortOption", {"-x"}},
    {"Argument", {"--demo", "extra"}},
    {"NothingToServe", {}},
    {"NothingToServeButAnAddress", {"--listen", "127.0.0.1:0"}},
    {"ListenWithoutValue", {"--demo", "--listen"}},
    {"ListenWithoutPort", {"--demo", "--listen", "127.0.0.1"}},
    {"ListenWithEmptyPort", {"--demo", "--listen", "127.0.0.1:"}},
    {"ListenOnNoNumber", {"--demo", "--listen", "127.0.0.1:http-alt-x"}},
    {"ListenOnALargePort", {"--demo", "--listen", "127.0.0.1:65536"}},
    {"ListenOnAHugePort", {"--demo", "--listen", "127.0.0.1:4294967376"}},
    {"ListenOnANegativePort", {"--demo", "--listen", "127.0.0.1:-1"}},
    {"ListenOnAnOpenBracket", {"--demo", "--listen", "[::1:80"}},
    {"ListenOnClosedBracket", {"--demo", "--listen", "::1]:80"}},
    {"ListenOnEmptyBrackets", {"--demo", "--listen", "[]:80"}},
    {"ListenOnNoPath", {"--demo", "--listen", "unix:"}},
    {"RootWithoutValue", {"--root"}},
    {"RootThatIsMissing", {"--root", "/nonexistent"}},
    {"RootThatIsAFile", {"--root", "/etc/passwd"}},
    {"TraceWithoutZone", {"--demo", "--trace", ""}},
    {"TraceWithoutName", {"--demo", "--trace", "=info"}},
    {"TraceWithUnknownLevel", {"--demo", "--trace", "http-server=loud"}},
    {"TraceWithNumberAndMore", {"--demo", "--trace", "http-server=30x"}},
    {"AccessLogWithoutValue", {"--demo", "--access-log"}},
    {"AccessLogWithoutName", {"--demo", "--access-log", ""}},
    {"LimitWithoutValue", {"--demo", "--limit"}},
    {"LimitWithoutEquals", {"--demo", "--limit", "line"}},
    {"LimitOfNoNumber", {"--demo", "--limit", "line=8K"}},
    {"LimitOfNothing", {"--demo", "--limit", "line="}},
    {"LimitBelowZero", {"--demo", "--limit", "line=-1"}},
    {"LimitBeyond32Bits", {"--demo", "--limit", "body=4294967296"}},
    {"LimitThatIsHuge", {"--demo", "--limit", "body=99999999999999999999999"}},
    {"UnknownLimit", {"--demo", "--limit", "lines=1"}},
};
class WrongOptionTest : public ::testing::TestWithParam<OptionCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, WrongOptionTest, ::testing::ValuesIn(kWrong),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(WrongOptionTest, IsToldInOneLine) {
  const Ended result = run(GetParam().arguments);
  EXPECT_EQ(result.outcome, "exit 2");
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(linesOf(result.errors).size(), 1u) << result.errors;
  EXPECT_EQ(result.errors.rfind("krohttpd: ", 0), 0u) << result.errors;
}

class KrohttpdTest : public ::testing::Test {
 protected:
  void SetUp() override { alarm(100); }
  void TearDown() override { alarm(0); }

  // A daemon with the demonstration pages, and what else is given.
  static Arguments demo(Arguments more = {}) {
    Arguments arguments = {"--listen", "127.0.0.1:0", "--demo"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  // The replies to bytes on a connection of its own, which ends afterwards.
  static std::vector<WireReply> ask(const WireAddress& address, std::string_view bytes) {
    WireClient client(address);
    client.send(bytes).finish();
    EXPECT_TRUE(waitUntil([&] { return client.ended(); })) << bytes;
    EXPECT_FALSE(client.wasReset()) << bytes;
    return takeReplies(client.received(), true);
  }
  // The only reply.
  static WireReply askOne(const WireAddress& address, std::string_view bytes) {
    std::vector<WireReply> replies = ask(address, bytes);
    EXPECT_EQ(replies.size(), 1u) << bytes;
    return replies.empty() ? WireReply{"HTTP/1.1 000 none", {}, "", ""} : replies[0];
  }
  static std::string get(std::string_view target, std::string_view headers = "") {
    return "GET " + std::string(target) + " HTTP/1.1\r\nHost: x\r\n" + std::string(headers) +
           "Connection: close\r\n\r\n";
  }
  static std::string post(std::string_view target, std::string_view headers, std::string_view body) {
    return "POST " + std::string(target) + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + std::string(headers) +
           "\r\n" + std::string(body);
  }
};

TEST_F(KrohttpdTest, Version) {
  const Ended result = run({"--version"});
  EXPECT_EQ(result.outcome, "exit 0");
  EXPECT_EQ(result.output, "krohttpd " KROHTTPD_VERSION "\n");
  EXPECT_EQ(result.errors, "");
}

TEST_F(KrohttpdTest, Help) {
  for (const char* option : {"--help", "-h"}) {
    const Ended result = run({option});
    EXPECT_EQ(result.outcome, "exit 0");
    EXPECT_EQ(result.errors, "");
    for (const char* word : {"--listen", "--root", "--demo", "--access-log", "--trace", "--version", "--help"})
      EXPECT_NE(result.output.find(word), std::string::npos) << word;
  }
}

TEST_F(KrohttpdTest, AddressInUse) {
  Daemon first(demo());
  const std::string port = std::to_string(first.address().port);
  const Ended result = run({"--demo", "--listen", "127.0.0.1:0", "--listen", "127.0.0.1:" + port});
  EXPECT_EQ(result.outcome, "exit 1");
  EXPECT_EQ(linesOf(result.errors).size(), 1u) << result.errors;
  EXPECT_EQ(result.errors.rfind("krohttpd: ", 0), 0u) << result.errors;
  EXPECT_NE(result.errors.find(port), std::string::npos) << result.errors;
  EXPECT_NE(result.errors.find("Address already in use"), std::string::npos) << result.errors;
  EXPECT_EQ(askOne(first.address(), get("/hello")).status(), 200u);
}

TEST_F(KrohttpdTest, UnixSocketInUse) {
  TemporaryFolder folder;
  Daemon first({"--demo", "--listen", "unix:" + folder.at("socket")});
  const Ended result = run({"--demo", "--listen", "unix:" + folder.at("socket")});
  EXPECT_EQ(result.outcome, "exit 1");
  EXPECT_EQ(linesOf(result.errors).size(), 1u) << result.errors;
  EXPECT_EQ(askOne(first.address(), get("/hello")).status(), 200u);
}

TEST_F(KrohttpdTest, UnixSocketLeftByACrash) {
  TemporaryFolder folder;
  const Arguments arguments = {"--demo", "--listen", "unix:" + folder.at("socket")};
  {
    Daemon crashed(arguments);
    crashed.process().signal(SIGKILL);
    ASSERT_TRUE(waitUntil([&] { return crashed.process().ended(); }));
  }
  Daemon second(arguments);
  EXPECT_EQ(askOne(second.address(), get("/hello")).status(), 200u);
}

TEST_F(KrohttpdTest, AddressesThatCannotBeHad) {
  const Arguments addresses = {"192.0.2.1:0", "unix:/nonexistent/socket", "unix:/" + std::string(200, 'a')};
  for (const std::string& address : addresses) {
    const Ended result = run({"--demo", "--listen", address});
    EXPECT_EQ(result.outcome, "exit 1") << address;
    EXPECT_EQ(linesOf(result.errors).size(), 1u) << result.errors;
    const std::string_view place = std::string_view(address).substr(address.rfind("unix:", 0) == 0 ? 5 : 0);
    EXPECT_NE(result.errors.find(place), std::string::npos) << result.errors;
  }
}

TEST_F(KrohttpdTest, AccessLogThatCannotBeOpened) {
  const Ended result = run(demo({"--access-log", "/nonexistent/log"}));
  EXPECT_EQ(result.outcome, "exit 1");
  EXPECT_EQ(linesOf(result.errors).size(), 1u) << result.errors;
  EXPECT_NE(result.errors.find("/nonexistent/log"), std::string::npos) << result.errors;
}

// --- listening -------------------------------------------------------------------------------------------------------

TEST_F(KrohttpdTest, ListensInSeveralPlacesAtOnce) {
  TemporaryFolder folder;
  Daemon daemon({"--demo", "--listen", "127.0.0.1:0", "--listen", "[::1]:0", "--listen", "unix:" + folder.at("socket")},
                3);
  EXPECT_TRUE(std::regex_match(daemon.listener(0), std::regex("http://127\\.0\\.0\\.1:[1-9][0-9]*/")));
  EXPECT_TRUE(std::regex_match(daemon.listener(1), std::regex("http://\\[::1\\]:[1-9][0-9]*/")));
  EXPECT_EQ(daemon.listener(2), "unix:" + folder.at("socket"));
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(askOne(daemon.address(i), get("/hello")).body, "Hello, world!") << i;
  daemon.process().signal(SIGTERM);
  ASSERT_TRUE(waitUntil([&] { return daemon.process().ended(); }));
  EXPECT_EQ(daemon.process().outcome(), "exit 0");
  EXPECT_NE(access(folder.at("socket").c_str(), F_OK), 0) << "the socket was left behind";
}

// --- the pages -------------------------------------------------------------------------------------------------------

TEST_F(KrohttpdTest, Hello) {
  Daemon daemon(demo());
  const WireReply reply = askOne(daemon.address(), get("/hello"));
  EXPECT_EQ(reply.statusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(reply.header("Content-Length"), "13");
  EXPECT_EQ(reply.header("Content-Type"), "text/plain; charset=utf-8");
  EXPECT_EQ(reply.body, "Hello, world!");
}

TEST_F(KrohttpdTest, EveryReplyHasDateAndServer) {
  TemporaryFolder folder;
  folder.file("a.css", "a");
  Daemon daemon(demo({"--root", folder.path()}));
  const std::regex date(
      "(Mon|Tue|Wed|Thu|Fri|Sat|Sun), [0-3][0-9] (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [0-9]{4} "
      "[0-2][0-9]:[0-5][0-9]:[0-6][0-9] GMT");
  for (const std::string& request :
       {get("/hello"), get("/status"), get("/a.css"), get("/missing"), get("/%01"), post("/hello", "", ""),
        post("/echo", "Content-Length: 1\r\n", "x"), std::string("GET /hello HTTP/1.1\r\n\r\n"),
        std::string("PATCH / HTTP/1.1\r\n\r\n"), std::string("nonsense\r\n\r\n")}) {
    const WireReply reply = askOne(daemon.address(), request);
    EXPECT_TRUE(std::regex_match(reply.header("Date"), date)) << request << reply.wire;
    EXPECT_EQ(reply.header("Server"), "krohttpd/" KROHTTPD_VERSION) << request << reply.wire;
    tm time = {};
    ASSERT_NE(strptime(reply.header("Date").c_str(), "%a, %d %b %Y %H:%M:%S GMT", &time), nullptr);
    EXPECT_LT(std::abs(difftime(timegm(&time), std::time(nullptr))), 3600);
  }
}

TEST_F(KrohttpdTest, Status) {
  Daemon daemon(demo());
  WireClient idle(daemon.address());
  idle.send("GET /hello HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(waitUntil([&] { return countReplies(idle.received()) == 1; }));
  const WireReply reply = askOne(daemon.address(), get("/status"));
  EXPECT_EQ(reply.header("Content-Type"), "application/json");
  EXPECT_EQ(reply.header("Content-Length"), std::to_string(reply.body.size()));
  std::smatch values;
  const std::regex form("\\{\"version\":\"" KROHTTPD_VERSION
                        "\",\"connections\":([0-9]+),\"replies\":([0-9]+),\"uptime\":([0-9]+),\"memory\":([0-9]+),"
                        "\"refused\":\\{\\}\\}\\s*");
  ASSERT_TRUE(std::regex_match(reply.body, values, form)) << reply.body;
  EXPECT_EQ(values[1], "2");  // the idle one and this one
  EXPECT_EQ(values[2], "1");
  EXPECT_GT(atol(values[4].str().c_str()), 0);
}

struct LimitCase {
  const char* name;
  Arguments arguments;
  std::string wire;
  std::string replies;  // their statuses
};
void PrintTo(const LimitCase& row, std::ostream* out) { *out << row.name; }

const std::string kAgain = "GET /hello HTTP/1.1\r\nHost: x\r\n\r\n";
const std::string kPost = "POST /echo HTTP/1.1\r\nHost: x\r\n";
const LimitCase kLimits[] = {
    {"Line", {"--limit", "line=26"}, "GET /hello?1234 HTTP/1.1\r\nHost: x\r\n\r\n" + kAgain, "200 200"},
    {"LongLine", {"--limit", "line=25"}, "GET /hello?1234 HTTP/1.1\r\nHost: x\r\n\r\n" + kAgain, "414"},
    {"Head", {"--limit", "head=32"}, kAgain + kAgain, "200 200"},
    {"LargeHead", {"--limit", "head=31"}, kAgain + kAgain, "431"},
    {"Headers", {"--limit", "headers=1"}, kAgain + kAgain, "200 200"},
    {"ManyHeaders", {"--limit", "headers=1"}, "GET /hello HTTP/1.1\r\nHost: x\r\nA: b\r\n\r\n" + kAgain, "431"},
    {"Body", {"--limit", "body=5"}, kPost + "Content-Length: 5\r\n\r\nhello" + kAgain, "200 200"},
    {"LargeBody", {"--limit", "body=4"}, kPost + "Content-Length: 5\r\n\r\nhello" + kAgain, "413"},
    {"LargeBodyInChunks",
     {"--limit", "body=4"},
     kPost + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n" + kAgain,
     "413"},
    {"LargestBody", {"--limit", "body=4294967295"}, kPost + "Content-Length: 5\r\n\r\nhello" + kAgain, "200 200"},
    {"Requests", {"--limit", "requests=2"}, kAgain + kAgain + kAgain, "200 200"},
    {"ManyLimits", {"--limit", "requests=2", "--limit", "head=31"}, kAgain + kAgain, "431"},
    {"LimitAgain", {"--limit", "head=31", "--limit", "head=32"}, kAgain + kAgain, "200 200"},
    {"HeadTime", {"--limit", "head-time=1"}, kAgain + "GET /hello", "200 408"},
    {"StallTime", {"--limit", "stall-time=1"}, kAgain + kPost + "Content-Length: 5\r\n\r\n", "200 408"},
    {"Rate", {"--limit", "rate-time=1", "--limit", "rate=10"}, kAgain + kPost + "Content-Length: 5\r\n\r\n", "200 408"},
    {"IdleTime", {"--limit", "idle-time=1"}, kAgain, "200"},
};
class LimitOptionTest : public KrohttpdTest, public ::testing::WithParamInterface<LimitCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, LimitOptionTest, ::testing::ValuesIn(kLimits),
                         [](const auto& parameter) { return parameter.param.name; });

// The connection ends by itself, or it is ended when all is there that is expected.
TEST_P(LimitOptionTest, Holds) {
  Daemon daemon(demo(GetParam().arguments));
  WireClient client(daemon.address());
  client.send(GetParam().wire);
  const bool endsItself = GetParam().replies != "200 200" || GetParam().name == std::string_view("Requests");
  ASSERT_TRUE(waitUntil([&] { return endsItself ? client.ended() : countReplies(client.received()) == 2; }));
  std::string replies;
  for (const WireReply& reply : takeReplies(client.received(), true)) {
    replies += (replies.empty() ? "" : " ") + std::to_string(reply.status());
    if (reply.status() == 200) continue;
    const std::string told = reply.statusLine.substr(9);
    EXPECT_EQ(told.find("Unknown"), std::string::npos) << told;
    EXPECT_NE(reply.body.find("<h1>" + told + "</h1>"), std::string::npos) << reply.body;
  }
  EXPECT_EQ(replies, GetParam().replies);
}

// However much of the body still comes: what has been written must not wait in the socket for more.
TEST_F(KrohttpdTest, RefusalIsSeenByAClientThatGoesOnSending) {
  Daemon daemon(demo());
  WireClient client(daemon.address());
  client.send("POST /hello HTTP/1.1\r\nHost: x\r\nContent-Length: 4294967295\r\n\r\n");
  size_t sent = 0;
  ASSERT_TRUE(waitUntil([&] {
    if (client.allSent()) client.send(std::string(65536, 'x'));
    sent += 65536;
    return countReplies(client.received()) == 1;
  }));
  EXPECT_EQ(takeReplies(client.received()).at(0).status(), 405u);
  EXPECT_LT(sent, size_t{1} << 30);
}

TEST_F(KrohttpdTest, OneConnectionTooMany) {
  Daemon daemon(demo({"--limit", "connections=1"}));
  WireClient first(daemon.address());
  first.send(kAgain);
  ASSERT_TRUE(waitUntil([&] { return countReplies(first.received()) == 1; }));
  EXPECT_EQ(askOne(daemon.address(), kAgain).status(), 503u);
  first.leave();
  ASSERT_TRUE(waitUntil([&] { return askOne(daemon.address(), kAgain).status() == 200; }));
}

TEST_F(KrohttpdTest, StatusTellsWhatWasRefused) {
  Daemon daemon(demo({"--limit", "line=100"}));
  EXPECT_EQ(askOne(daemon.address(), "GET /hello HTTP/1.1\r\n\r\n").status(), 400u);
  EXPECT_EQ(askOne(daemon.address(), "GET /hello HTTP/3.0\r\n\r\n").status(), 505u);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(askOne(daemon.address(), get("/" + std::string(100, 'x'))).status(), 414u);
  const std::string counted = R"("refused":{"long-line":2,"no-host":1,"other-version":1}})";
  EXPECT_TRUE(askOne(daemon.address(), get("/status")).body.ends_with(counted + "\n"));
}

TEST_F(KrohttpdTest, LenientTakesWhatItCanGuess) {
  const std::string bare = "GET /hello HTTP/1.1\nHost: xy\n\n";
  EXPECT_EQ(askOne(Daemon(demo()).address(), bare).status(), 400u);
  Daemon daemon(demo({"--lenient"}));
  EXPECT_EQ(askOne(daemon.address(), "GET /hello HTTP/1.2\r\nHost: x\r\nConnection: close\r\n\r\n").status(), 200u);
}

struct EchoCase {
  const char* name;
  size_t size;
};
void PrintTo(const EchoCase& row, std::ostream* out) { *out << row.name; }
constexpr EchoCase kEchoes[] = {
    {"Empty", 0}, {"One", 1}, {"Block", 4096}, {"BlockAndOne", 4097}, {"Mebibyte", 1 << 20}};
class EchoTest : public KrohttpdTest, public ::testing::WithParamInterface<EchoCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, EchoTest, ::testing::ValuesIn(kEchoes),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(EchoTest, GivesBackWhatItGot) {
  const std::string content = pattern(GetParam().size);
  const std::string length = "Content-Length: " + std::to_string(content.size()) + "\r\n";
  const std::string type = "Content-Type: x/y; z=1\r\n";
  Daemon daemon(demo());
  struct Row {
    const char* name;
    std::string wire;
    const char* version;
  };
  const Row rows[] = {
      {"length", post("/echo", type + length, content), "HTTP/1.1"},
      {"chunked", post("/echo", type + "Transfer-Encoding: chunked\r\n", chunked(content, 10000)), "HTTP/1.1"},
      {"small chunks", post("/echo", type + "Transfer-Encoding: chunked\r\n", chunked(content, 1000)), "HTTP/1.1"},
      {"length, HTTP/1.0", "POST /echo HTTP/1.0\r\n" + type + length + "\r\n" + content, "HTTP/1.0"},
  };
  for (const Row& row : rows) {
    const WireReply reply = askOne(daemon.address(), row.wire);
    EXPECT_EQ(reply.statusLine, std::string(row.version) + " 200 OK") << row.name;
    if (!content.empty()) {
      EXPECT_EQ(reply.header("Content-Type"), "x/y; z=1") << row.name;
    }
    EXPECT_TRUE(reply.body == content) << row.name << ": " << reply.body.size();
    if (row.version == std::string_view("HTTP/1.0")) {
      EXPECT_FALSE(reply.has("Transfer-Encoding")) << row.name;
    }
  }
}

// Nothing tells of a body, so there is none to wait for.
TEST_F(KrohttpdTest, EchoWithoutALength) {
  Daemon daemon(demo());
  WireClient client(daemon.address());
  client.send("POST /echo HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(waitUntil([&] { return countReplies(client.received()) == 1; })) << client.received();
  EXPECT_EQ(takeReplies(client.received())[0].status(), 200u);
  EXPECT_EQ(takeReplies(client.received())[0].body, "");
}

// Written and read at different speeds, more than all buffers hold.
TEST_P(EchoTest, ToAClientThatReadsSlowly) {
  const std::string content = pattern(GetParam().size * 4);
  Daemon daemon(demo());
  WireClient client(daemon.address(), {.receiveBuffer = 4096});
  client.readAtMost(20000);
  client.send(post("/echo", "Content-Length: " + std::to_string(content.size()) + "\r\n", content));
  ASSERT_TRUE(waitUntil([&] { return client.ended(); })) << client.receivedCount();
  EXPECT_TRUE(takeReplies(client.received(), true).at(0).body == content);
}

// The client is made to wait: what it does not take back is not collected.
TEST_F(KrohttpdTest, EchoToAClientThatDoesNotRead) {
  const std::string content = pattern(64 << 20);
  Daemon daemon(demo());
  for (const bool inChunks : {false, true}) {
    WireClient client(daemon.address());
    client.readAtMost(0);
    if (inChunks) {
      client.send(post("/echo", "Transfer-Encoding: chunked\r\n", chunked(content, 100000)));
    } else {
      client.send(post("/echo", "Content-Length: " + std::to_string(content.size()) + "\r\n", content));
    }
    size_t before = 0;
    int still = 0;
    ASSERT_TRUE(waitUntil([&] {
      still = client.sentCount() == before ? still + 1 : 0;
      before = client.sentCount();
      return still > 100 || client.allSent();
    }));
    EXPECT_LT(client.sentCount(), content.size() / 2);
    client.readAtMost(SIZE_MAX);
    ASSERT_TRUE(waitUntil([&] { return client.ended(); }));
    const std::vector<WireReply> replies = takeReplies(client.received(), true);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_TRUE(replies[0].body == content) << replies[0].body.size();
  }
}

TEST_F(KrohttpdTest, EchoOfABodyThatBreaksOff) {
  Daemon daemon(demo());
  for (const char* body : {"xyz\r\n", "5\r\nhelloworld", "5\r\nhello\r\nxyz\r\n", "5\r\nhel", "5"}) {
    WireClient client(daemon.address());
    client.send(post("/echo", "Transfer-Encoding: chunked\r\n", body)).finish();
    ASSERT_TRUE(waitUntil([&] { return client.ended(); })) << body;
    // It cannot be taken for a whole one.
    for (const WireReply& reply : takeReplies(client.received()))
      EXPECT_TRUE(reply.statusLine == "leftover" || reply.status() == 400) << reply.wire;
  }
}

TEST_F(KrohttpdTest, EchoesInAPipeline) {
  Daemon daemon(demo());
  std::string wire;
  for (int i = 0; i < 50; ++i) {
    wire += "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(i) + "\r\n\r\n" +
            pattern(100).substr(0, i);
    wire +=
        "POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked(pattern(100).substr(0, i), 7);
  }
  WireClient client(daemon.address());
  client.send(wire);
  ASSERT_TRUE(waitUntil([&] { return countReplies(client.received()) == 100; })) << client.received().size();
  const std::vector<WireReply> replies = takeReplies(client.received());
  for (size_t i = 0; i < 100; ++i) EXPECT_EQ(replies[i].body, pattern(100).substr(0, i / 2)) << i;
}

TEST_F(KrohttpdTest, ExpectContinue) {
  Daemon daemon(demo());
  constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
  WireClient client(daemon.address());
  client.send("POST /echo HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 5\r\n\r\n");
  ASSERT_TRUE(waitUntil([&] { return client.received().rfind(kContinue, 0) == 0; })) << client.received();
  client.send("hello");
  ASSERT_TRUE(waitUntil([&] { return countReplies(client.received().substr(kContinue.size())) == 1; }));
  const std::string first = client.take();
  EXPECT_EQ(takeReplies(first.substr(kContinue.size())).at(0).body, "hello");

  // Case does not matter, and the next request on the connection gets one of its own.
  client.send("POST /echo HTTP/1.1\r\nHost: x\r\nexpect: 100-Continue\r\nTransfer-Encoding: chunked\r\n\r\n");
  ASSERT_TRUE(waitUntil([&] { return client.received().rfind(kContinue, 0) == 0; })) << client.received();
  client.send("5\r\nhello\r\n0\r\n\r\n");
  ASSERT_TRUE(waitUntil([&] { return countReplies(client.received().substr(kContinue.size())) == 1; }))
      << client.received();
  EXPECT_EQ(takeReplies(client.received().substr(kContinue.size())).at(0).body, "hello");
}

TEST_F(KrohttpdTest, ExpectContinueOfHttp10IsIgnored) {
  Daemon daemon(demo());
  WireClient client(daemon.address());
  client.send("POST /echo HTTP/1.0\r\nExpect: 100-continue\r\nContent-Length: 5\r\n\r\nhello");
  ASSERT_TRUE(waitUntil([&] { return client.ended(); }));
  EXPECT_EQ(client.received().rfind("HTTP/1.0 200 OK\r\n", 0), 0u) << client.received();
}

// Nobody is told to go on with a body that will not be looked at.
TEST_F(KrohttpdTest, ExpectContinueOfARefusedRequest) {
  Daemon daemon(demo());
  WireClient client(daemon.address());
  client.send("POST /hello HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 50000000\r\n\r\n");
  ASSERT_TRUE(waitUntil([&] { return countReplies(client.received()) == 1; })) << client.received();
  EXPECT_EQ(takeReplies(client.received())[0].status(), 405u);
}

// --- what is refused -------------------------------------------------------------------------------------------------

struct RefusedCase {
  const char* name;
  std::string wire;
  unsigned status;
  const char* allow = "";
};
void PrintTo(const RefusedCase& row, std::ostream* out) { *out << row.name; }
const RefusedCase kRefused[] = {
    {"PostHello", "POST /hello HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n", 405, "GET, HEAD, OPTIONS"},
    {"DeleteFile", "DELETE /a.css HTTP/1.1\r\nHost: x\r\n\r\n", 405, "GET, HEAD, OPTIONS"},
    {"PutFile", "PUT /a.css HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\nx", 405, "GET, HEAD, OPTIONS"},
    {"GetEcho", "GET /echo HTTP/1.1\r\nHost: x\r\n\r\n", 405, "POST, OPTIONS"},
    {"HeadEcho", "HEAD /echo HTTP/1.1\r\nHost: x\r\n\r\n", 405, "POST, OPTIONS"},
    {"PostStatus", "POST /status HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n", 405, "GET, HEAD, OPTIONS"},
    {"UnknownMethod", "PATCH /a.css HTTP/1.1\r\nHost: x\r\n\r\n", 501},
    {"LowerCaseMethod", "get /a.css HTTP/1.1\r\nHost: x\r\n\r\n", 501},
    {"NoHost", "GET /hello HTTP/1.1\r\n\r\n", 400},
    {"TwoHosts", "GET /hello HTTP/1.1\r\nHost: x\r\nHost: y\r\n\r\n", 400},
    {"TwoEqualHosts", "GET /hello HTTP/1.1\r\nHost: x\r\nhost: x\r\n\r\n", 400},
    {"NoHostWithABody", "POST /echo HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello", 400},
    {"NoVersion", "GET /hello\r\n\r\n", 400},
    {"NoWords", "hello\r\n\r\n", 400},
    {"HeaderWithoutColon", "GET /hello HTTP/1.1\r\nHost: x\r\nnonsense\r\n\r\n", 400},
    {"ControlCharacterInThePath", "GET /a%01b HTTP/1.1\r\nHost: x\r\n\r\n", 400},
    {"MissingFile", "GET /missing HTTP/1.1\r\nHost: x\r\n\r\n", 404},
    {"LeadingOut", "GET /../secret.txt HTTP/1.1\r\nHost: x\r\n\r\n", 404},
    {"LeadingOutEncoded", "GET /%2e%2e/secret.txt HTTP/1.1\r\nHost: x\r\n\r\n", 404},
    {"SiblingOfTheRoot", "GET /../root2/a.css HTTP/1.1\r\nHost: x\r\n\r\n", 404},
    {"LinkOut", "GET /link HTTP/1.1\r\nHost: x\r\n\r\n", 404},
};
class KrohttpdRefusedTest : public KrohttpdTest, public ::testing::WithParamInterface<RefusedCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, KrohttpdRefusedTest, ::testing::ValuesIn(kRefused),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrohttpdRefusedTest, WithItsStatus) {
  TemporaryFolder folder;
  folder.file("root/a.css", "a");
  folder.file("root2/a.css", "sibling");
  folder.file("secret.txt", "secret");
  ASSERT_EQ(symlink("../secret.txt", folder.at("root/link").c_str()), 0);
  Daemon daemon(demo({"--root", folder.at("root")}));
  WireClient client(daemon.address());
  client.send(GetParam().wire).finish();
  ASSERT_TRUE(waitUntil([&] { return client.ended(); }));
  size_t at = 0;
  const auto reply = takeReply(client.received(), &at, GetParam().wire.rfind("HEAD", 0) == 0, true);
  ASSERT_TRUE(reply) << client.received();
  EXPECT_EQ(reply->status(), GetParam().status);
  EXPECT_EQ(reply->header("Allow"), GetParam().allow);
  EXPECT_EQ(at, client.received().size()) << client.received();
  EXPECT_EQ(client.received().find("secret"), std::string::npos);
  EXPECT_EQ(askOne(daemon.address(), get("/hello")).status(), 200u);
}

TEST_F(KrohttpdTest, HostIsNotNeededInHttp10) {
  Daemon daemon(demo());
  EXPECT_EQ(askOne(daemon.address(), "GET /hello HTTP/1.0\r\n\r\n").statusLine, "HTTP/1.0 200 OK");
}

// Two ways to tell the length of one body: whoever sent it may mean the rest as a request of another client.
TEST_F(KrohttpdTest, AmbiguousLengthsEndTheConnection) {
  Daemon daemon(demo());
  const std::string smuggled = "GET /status HTTP/1.1\r\nHost: x\r\n\r\n";
  const std::string rows[] = {
      "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + smuggled,
      "POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n0\r\n\r\n" + smuggled,
      "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\nContent-Length: 6\r\n\r\nhello" + smuggled,
      "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 5x\r\n\r\nhello" + smuggled,
      "POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n" + smuggled,
      "POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\nTransfer-Encoding: gzip\r\n\r\n0\r\n\r\n" +
          smuggled,
  };
  for (const std::string& wire : rows) {
    WireClient client(daemon.address());
    client.send(wire).finish();
    ASSERT_TRUE(waitUntil([&] { return client.ended(); })) << wire;
    EXPECT_EQ(client.received().find("\"uptime\""), std::string::npos) << wire << client.received();
  }
}

// --- HEAD and OPTIONS ------------------------------------------------------------------------------------------------

TEST_F(KrohttpdTest, Head) {
  TemporaryFolder folder;
  folder.file("index.html", "index");
  folder.file("a.css.gz", "packed");
  Daemon daemon(demo({"--root", folder.path()}));
  const std::regex date("Date: [^\r]*\r\n");
  for (const char* target : {"/hello", "/", "/a.css", "/missing", "/%01"}) {
    WireClient client(daemon.address());
    client.send("HEAD " + std::string(target) + " HTTP/1.1\r\nHost: x\r\n\r\n" + get(target));
    ASSERT_TRUE(waitUntil([&] { return client.ended(); })) << target;
    size_t at = 0;
    const auto head = takeReply(client.received(), &at, true);
    ASSERT_TRUE(head) << target;
    const auto whole = takeReply(client.received(), &at, false, true);
    ASSERT_TRUE(whole) << target << "\n" << client.received();
    const auto plain = [&](const std::string& text) {
      std::string without = std::regex_replace(text, date, "");
      for (const std::string_view header : {"Connection: close\r\n"})
        if (const size_t found = without.find(header); found != std::string::npos) without.erase(found, header.size());
      return without;
    };
    EXPECT_EQ(plain(head->head()), plain(whole->head())) << target;
    EXPECT_EQ(at, client.received().size()) << target;
  }
}

TEST_F(KrohttpdTest, Options) {
  Daemon daemon(demo());
  const WireReply reply = askOne(daemon.address(), "OPTIONS /echo HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(reply.status() / 100, 2u);
  EXPECT_EQ(reply.header("Allow"), "POST, OPTIONS");
  EXPECT_EQ(reply.body, "");
}

// --- files -----------------------------------------------------------------------------------------------------------

TEST_F(KrohttpdTest, RootWithoutASlashAndRelative) {
  TemporaryFolder folder;
  folder.file("root/a.css", "a");
  folder.file("root2/a.css", "sibling");
  ASSERT_EQ(symlink("root", folder.at("link").c_str()), 0);
  for (const std::string& root :
       {folder.at("root"), folder.at("root/"), folder.at("root/../root"), folder.at("link")}) {
    Daemon daemon({"--listen", "127.0.0.1:0", "--root", root});
    EXPECT_EQ(askOne(daemon.address(), get("/a.css")).body, "a") << root;
    EXPECT_EQ(askOne(daemon.address(), get("/../root2/a.css")).status(), 404u) << root;
    EXPECT_EQ(askOne(daemon.address(), get("/hello")).status(), 404u) << "without --demo";
  }
}

TEST_F(KrohttpdTest, LargeFileToManyReadersOfWhomSomeLeave) {
  TemporaryFolder folder;
  const std::string content = pattern(5 << 20);
  folder.file("large", content);
  Daemon daemon({"--listen", "127.0.0.1:0", "--root", folder.path()});
  std::vector<std::unique_ptr<WireClient>> clients;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(std::make_unique<WireClient>(daemon.address(), WireClient::Options{.receiveBuffer = 16384}));
    clients.back()->send(get("/large"));
  }
  for (size_t i = 0; i < 4; ++i) {
    ASSERT_TRUE(waitUntil([&] { return clients[i]->receivedCount() > 100000; }));
    clients[i]->reset();
  }
  for (size_t i = 4; i < 8; ++i) {
    ASSERT_TRUE(waitUntil([&] { return clients[i]->ended(); }));
    EXPECT_TRUE(takeReplies(clients[i]->received()).at(0).body == content) << i;
  }
}

// --- the access log --------------------------------------------------------------------------------------------------

class AccessLogTest : public KrohttpdTest {
 protected:
  static constexpr const char* kForm =
      "(127\\.0\\.0\\.1|::1|unix) - - "
      "\\[[0-3][0-9]/[A-Z][a-z]{2}/[0-9]{4}:[0-9]{2}:[0-9]{2}:[0-9]{2} [+-][0-9]{4}\\] "
      "\"([^\"\\\\]|\\\\.)*\" [1-5][0-9]{2} ([0-9]+|-)";
  // The part of each line behind the date.
  static std::vector<std::string> requests(const std::string& log) {
    std::vector<std::string> lines;
    for (const std::string& line : linesOf(log)) {
      EXPECT_TRUE(std::regex_match(line, std::regex(kForm))) << line;
      lines.push_back(line.substr(line.find("] ") + 2));
    }
    return lines;
  }
  static std::string readFile(const std::string& path) {
    std::string text(1 << 16, '\0');
    const Descriptor in(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const ssize_t count = read(in.get(), text.data(), text.size());
    text.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return text;
  }
};

TEST_F(AccessLogTest, HasALineARequest) {
  TemporaryFolder folder;
  folder.file("root/a.css", "content");
  const std::string log = folder.at("log");
  {
    Daemon daemon(demo({"--root", folder.at("root"), "--access-log", log}));
    ask(daemon.address(), "GET /hello HTTP/1.1\r\nHost: x\r\n\r\nGET /a.css?b=c HTTP/1.1\r\nHost: x\r\n\r\n");
    ask(daemon.address(), get("/missing"));
    ask(daemon.address(), "GET /hello HTTP/1.0\r\n\r\n");
    ask(daemon.address(), post("/echo", "Content-Length: 4\r\n", "echo"));
    ask(daemon.address(), "PATCH /hello HTTP/1.1\r\nHost: x\r\n\r\n");
  }
  const std::vector<std::string> lines = requests(readFile(log));
  ASSERT_EQ(lines.size(), 6u) << readFile(log);
  EXPECT_EQ(lines[0], "\"GET /hello HTTP/1.1\" 200 13");
  EXPECT_EQ(lines[1], "\"GET /a.css?b=c HTTP/1.1\" 200 7");
  EXPECT_EQ(lines[2].substr(0, 28), "\"GET /missing HTTP/1.1\" 404 ");
  EXPECT_EQ(lines[3], "\"GET /hello HTTP/1.0\" 200 13");
  EXPECT_EQ(lines[4], "\"POST /echo HTTP/1.1\" 200 4");
  EXPECT_NE(lines[5].find("\" 501 "), std::string::npos) << lines[5];
}

TEST_F(AccessLogTest, IsAppendedTo) {
  TemporaryFolder folder;
  const std::string log = folder.file("log", "before\n");
  for (int i = 0; i < 2; ++i) {
    Daemon daemon(demo({"--access-log", log}));
    ask(daemon.address(), get("/hello"));
  }
  const std::vector<std::string> lines = linesOf(readFile(log));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "before");
}

// What a client writes can neither end a line nor a quoted text, nor send escapes to a terminal.
TEST_F(AccessLogTest, CannotBeForged) {
  TemporaryFolder folder;
  folder.folder("root");
  const std::string log = folder.at("log");
  {
    Daemon daemon(demo({"--root", folder.at("root"), "--access-log", log}));
    ask(daemon.address(), get("/a%0A127.0.0.1%20-%20-"));
    ask(daemon.address(), get("/a\"%22\\%5C"));
    ask(daemon.address(), get("/a%1B[31m\x1b[31m\x9b"));
    ask(daemon.address(), get("/a%0D%00b?c\"d"));
  }
  const std::string text = readFile(log);
  EXPECT_EQ(requests(text).size(), 4u) << text;
  for (const char c : text) EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~')) << static_cast<int>(c);
}

TEST_F(AccessLogTest, TellsOnceThatLinesAreLost) {
  Daemon daemon(demo({"--access-log", "/dev/full"}));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ask(daemon.address(), get("/hello")).at(0).status(), 200u);
  EXPECT_EQ(daemon.process().errors(), "krohttpd: cannot write to the access log: No space left on device\n");
}

TEST_F(AccessLogTest, OnStandardOutput) {
  Daemon daemon(demo({"--access-log", "-"}));
  ask(daemon.address(), get("/hello"));
  ASSERT_TRUE(waitUntil([&] { return linesOf(daemon.process().output()).size() == 2; })) << daemon.process().output();
  EXPECT_NE(daemon.process().output().find("\"GET /hello HTTP/1.1\" 200 13\n"), std::string::npos);
}

// --- traces ----------------------------------------------------------------------------------------------------------

TEST_F(KrohttpdTest, TracesGoToStandardErrorByZoneAndLevel) {
  struct Row {
    Arguments options;
    bool notice;
    bool info;
    bool otherZone;
  };
  const Row rows[] = {
      {{}, false, false, false},
      {{"--trace", "http-server"}, true, true, false},
      {{"--trace", "http-server=info"}, true, true, false},
      {{"--trace", "http-server=notice"}, true, false, false},
      {{"--trace", "http-server=300"}, true, false, false},
      {{"--trace", "http-server=400", "--trace", "http-message=info"}, true, true, true},
      {{"--trace", "*=info"}, true, true, true},
  };
  for (const Row& row : rows) {
    Daemon daemon(demo(row.options));
    ask(daemon.address(), get("/hello"));
    daemon.process().signal(SIGTERM);
    ASSERT_TRUE(waitUntil([&] { return daemon.process().ended(); }));
    const std::string& errors = daemon.process().errors();
    const auto has = [&](const char* text) { return errors.find(text) != std::string::npos; };
    EXPECT_EQ(has("http-se - [n]accepting connection ("), row.notice) << errors;
    EXPECT_EQ(has("http-se - [i]switch server state from INIT to ACCEPTED - ("), row.info) << errors;
    EXPECT_EQ(has("http-me - [i]parsing status line GET /hello HTTP/1.1 - ("), row.otherZone) << errors;
    EXPECT_EQ(errors.find('\033'), std::string::npos) << "colours are for terminals";
    if (!row.notice) {
      EXPECT_EQ(errors, "");
    }
  }
}

// --- the end ---------------------------------------------------------------------------------------------------------

struct SignalCase {
  const char* name;
  int number;
};
void PrintTo(const SignalCase& row, std::ostream* out) { *out << row.name; }
constexpr SignalCase kSignals[] = {{"Interrupt", SIGINT}, {"Terminate", SIGTERM}};
class SignalTest : public KrohttpdTest, public ::testing::WithParamInterface<SignalCase> {
 protected:
  static constexpr size_t kSize = 20 << 20;
  void SetUp() override {
    KrohttpdTest::SetUp();
    content_ = pattern(kSize);
    folder_.file("large", content_);
    daemon_ = std::make_unique<Daemon>(demo({"--root", folder_.path()}));
  }
  // A client to whom a file is on its way.
  std::unique_ptr<WireClient> begin() {
    auto client = std::make_unique<WireClient>(daemon_->address(), WireClient::Options{.receiveBuffer = 4096});
    client->readAtMost(1000);
    client->send("GET /large HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_TRUE(waitUntil([&] { return client->receivedCount() > 3000; }));
    client->readAtMost(0);
    return client;
  }
  bool refusesConnections() const {
    const Descriptor probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(daemon_->address().port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(probe.get(), reinterpret_cast<sockaddr*>(&to), sizeof(to)) < 0 && errno == ECONNREFUSED;
  }
  TemporaryFolder folder_;
  std::string content_;
  std::unique_ptr<Daemon> daemon_;
};
INSTANTIATE_TEST_SUITE_P(Krohttpd, SignalTest, ::testing::ValuesIn(kSignals),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(SignalTest, EndsAtOnceWhenIdle) {
  WireClient idle(daemon_->address());
  idle.send("GET /hello HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(waitUntil([&] { return countReplies(idle.received()) == 1; }));
  daemon_->process().signal(GetParam().number);
  ASSERT_TRUE(waitUntil([&] { return daemon_->process().ended() && idle.ended(); }));
  EXPECT_EQ(daemon_->process().outcome(), "exit 0");
  EXPECT_EQ(daemon_->process().errors(), "");
}

TEST_P(SignalTest, FinishesTheReplyUnderWay) {
  const auto client = begin();
  WireClient idle(daemon_->address());
  daemon_->process().signal(GetParam().number);
  ASSERT_TRUE(waitUntil([&] { return refusesConnections(); }));
  ASSERT_TRUE(waitUntil([&] { return idle.ended(); }));
  EXPECT_FALSE(daemon_->process().ended());
  client->readAtMost(SIZE_MAX);
  ASSERT_TRUE(waitUntil([&] { return client->ended() && daemon_->process().ended(); }));
  EXPECT_FALSE(client->wasReset());
  EXPECT_TRUE(takeReplies(client->received()).at(0).body == content_) << client->receivedCount();
  EXPECT_EQ(daemon_->process().outcome(), "exit 0");
}

TEST_P(SignalTest, FinishesTheRequestUnderWay) {
  WireClient client(daemon_->address());
  client.send("POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\nhello");
  // Its head has been read when another connection that came later has been served.
  askOne(daemon_->address(), get("/hello"));
  daemon_->process().signal(GetParam().number);
  ASSERT_TRUE(waitUntil([&] { return refusesConnections(); }));
  client.send("world");
  ASSERT_TRUE(waitUntil([&] { return client.ended() && daemon_->process().ended(); }));
  EXPECT_EQ(takeReplies(client.received(), true).at(0).body, "helloworld");
  EXPECT_EQ(daemon_->process().outcome(), "exit 0");
}

TEST_P(SignalTest, SecondSignalEndsItAtOnce) {
  const auto client = begin();
  daemon_->process().signal(GetParam().number);
  ASSERT_TRUE(waitUntil([&] { return refusesConnections(); }));
  EXPECT_FALSE(daemon_->process().ended());
  daemon_->process().signal(GetParam().number);
  ASSERT_TRUE(waitUntil([&] { return daemon_->process().ended(); }));
  client->readAtMost(SIZE_MAX);
  ASSERT_TRUE(waitUntil([&] { return client->ended(); }));
  EXPECT_LT(client->receivedCount(), kSize);
}

}  // namespace
