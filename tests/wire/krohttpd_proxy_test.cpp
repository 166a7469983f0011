// krohttpd --proxy from both sides: a browser in front, a scripted target behind.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_process.h"
#include "support/wire_target.h"

namespace {

using Arguments = std::vector<std::string>;

class KrohttpdProxyTest : public ::testing::Test {
 protected:
  void SetUp() override { alarm(100); }
  void TearDown() override { alarm(0); }

  Daemon& start(const Arguments& more = {}) {
    Arguments arguments = {"--listen", "127.0.0.1:0", "--proxy", "/=tcp:127.0.0.1:" + target_.port()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    daemon_ = std::make_unique<Daemon>(arguments);
    return *daemon_;
  }
  WireTarget& target() { return target_; }
  WireAddress address() const { return daemon_->address(); }

  template <typename Condition>
  static bool until(Condition condition) {
    return waitUntil([&] {
      WireTarget::pumpAll();
      return condition();
    });
  }
  // The only reply to bytes on a connection of its own, which ends with it.
  WireReply ask(std::string_view bytes) {
    WireClient browser(address());
    browser.send(bytes);
    EXPECT_TRUE(until([&] { return browser.ended(); })) << bytes;
    std::vector<WireReply> replies = takeReplies(browser.received(), true);
    EXPECT_EQ(replies.size(), 1u) << bytes;
    return replies.empty() ? WireReply{"HTTP/1.1 000 none", {}, "", ""} : replies[0];
  }

 private:
  WireTarget target_;
  std::unique_ptr<Daemon> daemon_;
};

const std::string kGet = "GET /a HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";

// --- which target ----------------------------------------------------------------------------------------------------

struct PrefixCase {
  const char* name;
  const char* path;
  const char* answer;  // what the chosen target says, or the status of krohttpd's own answer
};
void PrintTo(const PrefixCase& row, std::ostream* out) { *out << row.name; }
const PrefixCase kPrefixes[] = {
    {"Itself", "/api", "api"},
    {"Below", "/api/x", "api"},
    {"BelowWithQuery", "/api/x?a=/../b", "api"},
    {"LongerWins", "/api/deep/x", "deep"},
    {"NotInTheMiddleOfAName", "/apix", "404"},
    {"NotAnother", "/other", "404"},
    {"EndingInASlash", "/slash/x", "slash"},
    {"EndingInASlashNotItself", "/slash", "404"},
    {"Escaped", "/%61pi/x", "api"},
    {"LeadingUpwards", "/api/../other", "400"},
    {"LeadingUpwardsEscaped", "/api/%2e%2e/other", "400"},
    {"LeadingUpwardsAtTheEnd", "/api/..", "400"},
    {"DotsInAName", "/api/..a", "api"},
    {"LineEnd", "/api/%0d%0aX:%20y", "400"},
    {"Tab", "/api/%09", "400"},
    {"Delete", "/api/%7f", "400"},
};
class PrefixTest : public KrohttpdProxyTest, public ::testing::WithParamInterface<PrefixCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, PrefixTest, ::testing::ValuesIn(kPrefixes),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(PrefixTest, ChoosesTheTarget) {
  WireTarget api;
  WireTarget deep;
  WireTarget slash;
  api.always(WireScript().request().send(okReply("api")).leave());
  deep.always(WireScript().request().send(okReply("deep")).leave());
  slash.always(WireScript().request().send(okReply("slash")).leave());
  Daemon daemon({"--listen", "127.0.0.1:0", "--proxy", "/api=tcp:127.0.0.1:" + api.port(), "--proxy",
                 "/api/deep=tcp:127.0.0.1:" + deep.port(), "--proxy", "/slash/=tcp:127.0.0.1:" + slash.port()});
  WireClient browser(daemon.address());
  browser.send("GET " + std::string(GetParam().path) + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  const std::vector<WireReply> replies = takeReplies(browser.received(), true);
  ASSERT_EQ(replies.size(), 1u) << browser.received();
  const bool forwarded = replies[0].status() == 200;
  EXPECT_EQ(forwarded ? replies[0].body : std::to_string(replies[0].status()), GetParam().answer);
  EXPECT_EQ(api.count() + deep.count() + slash.count(), forwarded ? 1u : 0u);
}

// --- what the target gets --------------------------------------------------------------------------------------------

TEST_F(KrohttpdProxyTest, TheAddressOfTheBrowserIsAdded) {
  target().always(WireScript().request().send(okReply("hello")).leave());
  start();
  EXPECT_EQ(ask("GET /a HTTP/1.1\r\nHost: x\r\nX-Forwarded-For: 1.2.3.4\r\nConnection: close\r\n\r\n").body, "hello");
  EXPECT_EQ(target().last().requests().at(0).header("X-Forwarded-For"), "1.2.3.4 | 127.0.0.1");
}

TEST_F(KrohttpdProxyTest, Http10WithoutHostIsForwarded) {
  target().always(WireScript().request().send(okReply("hello")).leave());
  start();
  const WireReply reply = ask("GET /a HTTP/1.0\r\n\r\n");
  EXPECT_EQ(reply.statusLine, "HTTP/1.0 200 OK");
  EXPECT_EQ(reply.header("Connection"), "close");
  const auto requests = target().last().requests();
  EXPECT_EQ(requests.at(0).line, "GET /a HTTP/1.1");
  EXPECT_EQ(requests.at(0).header("Host"), "127.0.0.1");
}

TEST_F(KrohttpdProxyTest, PostWithoutLengthHasNoBody) {
  target().always(WireScript().request().send(okReply("hello")).leave());
  start();
  WireClient browser(address());
  browser.send("POST /a HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(until([&] { return browser.received() == okReply("hello"); })) << browser.received();
  EXPECT_EQ(target().last().requests().at(0).header("Content-Length"), "0");
}

TEST_F(KrohttpdProxyTest, BodiesThatAreTooLongAreNotForwarded) {
  start({"--limit", "body=100"});
  const WireReply reply = ask("POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 101\r\n\r\n");
  EXPECT_EQ(reply.status(), 413u);
  EXPECT_EQ(reply.header("Connection"), "close");
  EXPECT_EQ(target().count(), 0u);
}

TEST_F(KrohttpdProxyTest, BodiesThatCannotBeCountedAreRefused) {
  start();
  const WireReply reply = ask("POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 4294967296\r\n\r\n");
  EXPECT_EQ(reply.status(), 413u);
  EXPECT_EQ(reply.header("Connection"), "close");
  EXPECT_EQ(target().count(), 0u);
}

// --- requests whose end can be told in two ways ----------------------------------------------------------------------

// Whatever becomes of them: the target finds one request at most in what it gets, and not a second one inside it.
struct FramingCase {
  const char* name;
  std::string request;
};
void PrintTo(const FramingCase& row, std::ostream* out) { *out << row.name; }
const std::string kInside = "GET /inside HTTP/1.1\r\nHost: x\r\n\r\n";
const std::string kInsideSize = std::to_string(kInside.size());
const FramingCase kFramings[] = {
    {"WithoutLength", "POST /a HTTP/1.1\r\nHost: x\r\n\r\n" + kInside},
    {"WithoutLengthHttp10", "POST /a HTTP/1.0\r\nHost: x\r\n\r\n" + kInside},
    {"LengthAndChunked", "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: " + kInsideSize +
                             "\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + kInside},
    {"ChunkedAndLength",
     "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n" + chunked(kInside)},
    {"TwoLengths",
     "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: " + kInsideSize + "\r\nContent-Length: 0\r\n\r\n" + kInside},
    {"TwoLengthsTheOtherWay",
     "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\nContent-Length: " + kInsideSize + "\r\n\r\n" + kInside},
    {"LengthList", "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 0, " + kInsideSize + "\r\n\r\n" + kInside},
    {"LengthWithSign", "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: +" + kInsideSize + "\r\n\r\n" + kInside},
    {"LengthNegative", "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: -1\r\n\r\n" + kInside},
    {"BlankBeforeTheColon",
     "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\nTransfer-Encoding : "
     "chunked\r\n\r\n0\r\n\r\n" +
         kInside},
    {"BlankBeforeTheColonOfALength",
     "POST /a HTTP/1.1\r\nHost: x\r\nContent-Length : " + kInsideSize + "\r\n\r\n" + kInside},
    {"ChunkedInCapitals",
     "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: CHUNKED\r\nContent-Length: 5\r\n\r\n" + chunked(kInside)},
    {"TwoCodings", "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: gzip, chunked\r\n\r\n" + chunked(kInside)},
    {"TwoCodingHeaders",
     "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: identity\r\nTransfer-Encoding: "
     "chunked\r\nContent-Length: 5\r\n\r\n" +
         chunked(kInside)},
    {"UnknownCoding",
     "POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: xchunked\r\nContent-Length: 5\r\n\r\n0\r\n\r\n" + kInside},
    {"GetWithChunks", "GET /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked(kInside)},
    {"GetWithLength", "GET /a HTTP/1.1\r\nHost: x\r\nContent-Length: " + kInsideSize + "\r\n\r\n" + kInside},
    {"ContinuedHeader",
     "POST /a HTTP/1.1\r\nHost: x\r\nX-A: 1\r\n Transfer-Encoding: chunked\r\nContent-Length: "
     "5\r\n\r\n0\r\n\r\n" +
         kInside},
};
class FramingTest : public KrohttpdProxyTest, public ::testing::WithParamInterface<FramingCase> {
 protected:
  // One way at most to tell the end of the request.
  static void expectCertainEnd(const WireRequest& request) {
    size_t lengths = 0;
    for (const auto& [name, value] : request.headers) {
      EXPECT_EQ(name.find_first_of(" \t"), std::string::npos) << name;
      const bool length = strcasecmp(name.c_str(), "Content-Length") == 0;
      if (length) {
        EXPECT_EQ(value.find_first_not_of("0123456789"), std::string::npos) << value;
      }
      if (length || strcasecmp(name.c_str(), "Transfer-Encoding") == 0) ++lengths;
    }
    EXPECT_LE(lengths, 1u) << request.wire;
  }
};
INSTANTIATE_TEST_SUITE_P(Krohttpd, FramingTest, ::testing::ValuesIn(kFramings),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(FramingTest, TargetFindsOneRequest) {
  target().always(WireScript().request().send(okReply("hello")).leave());
  start();
  WireClient browser(address());
  browser.send(GetParam().request);
  // Some are answered, and some wait for more of their body.
  int looks = 0;
  ASSERT_TRUE(until([&] { return !browser.received().empty() || browser.ended() || ++looks > 50; }));
  browser.finish();
  ASSERT_TRUE(until([&] { return browser.ended(); }));
  for (size_t i = 0; i < target().count(); ++i) {
    const std::string& received = target().connection(i).received();
    if (received.empty()) continue;
    const auto requests = target().connection(i).requests();
    ASSERT_EQ(requests.size(), 1u) << received;
    expectCertainEnd(requests[0]);
  }
}

// --- replies ---------------------------------------------------------------------------------------------------------

struct ReplyCase {
  const char* name;
  std::string reply;
  unsigned status;   // of what the browser gets
  unsigned lenient;  // the same with --lenient
};
void PrintTo(const ReplyCase& row, std::ostream* out) { *out << row.name; }
const ReplyCase kReplies[] = {
    {"Plain", okReply("hello"), 200, 200},
    {"Chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked("hello"), 200, 200},
    {"LengthAndChunked", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked("abc"),
     502, 502},
    {"TwoLengths", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nContent-Length: 5\r\n\r\nhello", 502, 502},
    {"LengthOfNoDigits", "HTTP/1.1 200 OK\r\nContent-Length: 5x\r\n\r\nhello", 502, 502},
    {"BlankBeforeTheColon", "HTTP/1.1 200 OK\r\nContent-Length : 5\r\n\r\nhello", 502, 502},
    {"OtherProtocol", "HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\n\r\nbytes", 502, 502},
    {"NoHttp", "hello\r\n\r\n", 502, 504},
    {"UnknownCoding", "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\nhello", 502, 504},
    {"Nothing", "", 504, 504},
};
class ReplyTest : public KrohttpdProxyTest, public ::testing::WithParamInterface<ReplyCase> {};
INSTANTIATE_TEST_SUITE_P(KrohttpdProxy, ReplyTest, ::testing::ValuesIn(kReplies),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ReplyTest, HasACertainEndOrIsReplaced) {
  target().always(WireScript().request().send(GetParam().reply).leave());
  start();
  EXPECT_EQ(ask(kGet).status(), GetParam().status);
}

TEST_P(ReplyTest, HasACertainEndOrIsReplacedByALenientDaemonToo) {
  target().always(WireScript().request().send(GetParam().reply).leave());
  start({"--lenient"});
  EXPECT_EQ(ask(kGet).status(), GetParam().lenient);
}

// The browser asks for the end of the connection. What comes from the library instead of the target does not say so.
TEST_P(ReplyTest, SaysThatTheConnectionEnds) {
  target().always(WireScript().request().send(GetParam().reply).leave());
  start();
  const bool says = GetParam().status == 200 || GetParam().name == std::string_view("OtherProtocol");
  EXPECT_EQ(ask(kGet).header("Connection"), says ? "close" : "");
}

// Nothing says how long the form is, so there is none to wait for.
TEST_F(KrohttpdProxyTest, AFormWithoutALength) {
  const std::string reply = "HTTP/1.1 204 No Content\r\n\r\n";
  for (const char* mode : {"--demo", "--lenient"}) {
    target().always(WireScript().request().send(reply).finish());
    start({mode, "--proxy-timeout", "0"});
    WireClient browser(address());
    browser.send("POST / HTTP/1.1\r\nHost: x\r\nContent-Type: multipart/form-data; boundary=b\r\n\r\n");
    EXPECT_TRUE(until([&] { return browser.received() == reply; })) << mode;
    browser.send("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_TRUE(until([&] { return browser.received() == reply + reply; })) << mode;
  }
}

TEST_F(KrohttpdProxyTest, ATargetThatSaysNothingIsGivenUp) {
  target().always(WireScript().request());
  start({"--proxy-timeout", "1"});
  EXPECT_EQ(ask(kGet).status(), 504u);
}

struct UnreachableCase {
  const char* name;
  const char* target;
};
void PrintTo(const UnreachableCase& row, std::ostream* out) { *out << row.name; }
const UnreachableCase kUnreachable[] = {{"RefusingPort", "tcp:127.0.0.1:1"},
                                        {"NoSuchName", "tcp:no.such.host.invalid:80"},
                                        {"NoSuchPath", "ipc:/nonexistent/x"}};
class UnreachableTest : public KrohttpdProxyTest, public ::testing::WithParamInterface<UnreachableCase> {};
INSTANTIATE_TEST_SUITE_P(KrohttpdProxy, UnreachableTest, ::testing::ValuesIn(kUnreachable),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(UnreachableTest, IsAnswered) {
  start({"--proxy", std::string("/gone=") + GetParam().target});
  EXPECT_EQ(ask("GET /gone HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n").status(), 504u);
}

// --- the command line ------------------------------------------------------------------------------------------------

class WrongProxyTest : public ::testing::TestWithParam<const char*> {};
const std::string kLongPath = "/x=ipc:/" + std::string(107, 'a');
INSTANTIATE_TEST_SUITE_P(Krohttpd, WrongProxyTest,
                         ::testing::Values("", "x", "/x", "x=tcp:127.0.0.1:1", "/x=", "/x=tcp:", "/x=tcp:127.0.0.1",
                                           "/x=tcp:127.0.0.1:", "/x=tcp::80", "/x=tcp:127.0.0.1:65536", "/x=tcp:::1:80",
                                           "/x=tcp:[]:80", "/x=ipc:", "/x=udp:127.0.0.1:80", "/x=tcp:127.0.0.1:0",
                                           kLongPath.c_str()));

TEST_P(WrongProxyTest, IsToldInOneLine) {
  ChildProcess process(daemonCommand({"--proxy", GetParam()}));
  ASSERT_TRUE(waitUntil([&] { return process.ended(); }));
  EXPECT_EQ(process.outcome(), "exit 2");
  EXPECT_EQ(linesOf(process.errors()).size(), 1u) << process.errors();
  EXPECT_EQ(process.errors().rfind("krohttpd: --proxy: ", 0), 0u) << process.errors();
}

TEST(ProxyOption, IsTakenOnceForAPrefix) {
  ChildProcess process(daemonCommand({"--proxy", "/x=tcp:127.0.0.1:1", "--proxy", "/x=tcp:127.0.0.1:2"}));
  ASSERT_TRUE(waitUntil([&] { return process.ended(); }));
  EXPECT_EQ(process.outcome(), "exit 2");
  EXPECT_EQ(process.errors(), "krohttpd: --proxy: '/x' is there twice (see krohttpd --help)\n");
}

}  // namespace
