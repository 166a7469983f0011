// kroget from the outside: what it sends, what it makes of replies, and how it ends.
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_kroget.h"
#include "support/wire_process.h"
#include "support/wire_target.h"

namespace {

class KrogetTest : public ::testing::Test {
 protected:
  void SetUp() override { alarm(100); }
  void TearDown() override { alarm(0); }

  TemporaryFolder folder;
};

// --- the command line ------------------------------------------------------------------------------------------------

struct KrogetUsageCase {
  const char* name;
  Arguments arguments;
  std::string line;
};
void PrintTo(const KrogetUsageCase& row, std::ostream* out) { *out << row.name; }
const std::string kMany(300, 'a');
const KrogetUsageCase kUsage[] = {
    {"NoUrl", {}, "URL is required"},
    {"UnknownOption", {"--nope", "x"}, "there is no option '--nope'"},
    {"UnknownShortOption", {"x", "-q"}, "there is no option '-q'"},
    {"OptionWithoutValue", {"x", "-o"}, "--output: 1 required FILE missing"},
    {"EmptyUrl", {""}, "URL '': there is no host name"},
    {"Https", {"https://x/"}, "URL 'https://x/': https is not supported, only http is"},
    {"HttpsInCapitals", {"HTTPS://x/"}, "URL 'HTTPS://x/': https is not supported, only http is"},
    {"OtherScheme", {"ftp://x/"}, "URL 'ftp://x/': 'ftp' is not supported, only http is"},
    {"NoHost", {"http:///x"}, "URL 'http:///x': there is no host name"},
    {"NoHostButPort", {"http://:80/"}, "URL 'http://:80/': there is no host name"},
    {"OneSlash", {"http:/x"}, "URL 'http:/x': ':' is no port"},
    {"PortIsNoNumber", {"x:http"}, "URL 'x:http': ':http' is no port"},
    {"PortZero", {"x:0"}, "URL 'x:0': ':0' is no port"},
    {"PortTooLarge", {"x:65536"}, "URL 'x:65536': ':65536' is no port"},
    {"PortMuchTooLarge", {"x:4294967376"}, "URL 'x:4294967376': ':4294967376' is no port"},
    {"NegativePort", {"x:-1"}, "URL 'x:-1': ':-1' is no port"},
    {"BlankInHost", {"a b/"}, "URL 'a b/': 'a b' is no host name"},
    {"EscapeInHost", {"a%41/"}, "URL 'a%41/': 'a%41' is no host name"},
    {"NonAsciiHost",
     {"b\xc3\xbc"
      "cher/"},
     "URL 'b\\xc3\\xbccher/': 'b\\xc3\\xbccher' is no host name"},
    {"LongHost", {kMany}, "URL '" + kMany + "': '" + kMany + "' is no host name"},
    {"OpenBracket", {"http://[::1/"}, "URL 'http://[::1/': ']' is missing behind the IPv6 address"},
    {"NoAddressInBrackets", {"http://[1.2.3.4]/"}, "URL 'http://[1.2.3.4]/': '[1.2.3.4]' is no IPv6 address"},
    {"TextBehindBrackets", {"http://[::1]x/"}, "URL 'http://[::1]x/': 'x' is no port"},
    {"LineFeedInUrl", {"x/\nHost: y"}, "URL 'x/\\x0aHost: y': there is a control character in it"},
    {"CarriageReturnInUrl", {"x/?\r"}, "URL 'x/?\\x0d': there is a control character in it"},
    {"FirstControlInUrl", {"x/\x01"}, "URL 'x/\\x01': there is a control character in it"},
    {"TabInUrl", {"x/\t"}, "URL 'x/\\x09': there is a control character in it"},
    {"DeleteInUrl", {"x/\x7f"}, "URL 'x/\\x7f': there is a control character in it"},
    {"SecondUrlIsWrong", {"x", "https://y"}, "URL 'https://y': https is not supported, only http is"},
    {"HeaderWithoutColon", {"x", "-H", "abc"}, "-H 'abc': it is not 'Name: value'"},
    {"HeaderWithoutName", {"x", "-H", ": b"}, "-H ': b': the name is not one that a header may have"},
    {"BlankInHeaderName", {"x", "-H", "a b: c"}, "-H 'a b: c': the name is not one that a header may have"},
    {"LineFeedInHeader", {"x", "-H", "a: b\nc: d"}, "-H 'a: b\\x0ac: d': there is a control character in it"},
    {"FirstControlInHeader", {"x", "-H", "a: \x01"}, "-H 'a: \\x01': there is a control character in it"},
    {"CarriageReturnInHeader", {"x", "-H", "a: b\rc: d"}, "-H 'a: b\\x0dc: d': there is a control character in it"},
    {"ContentLength", {"x", "-H", "content-length: 5"}, "-H 'content-length: 5': kroget sets this header itself"},
    {"TransferEncoding", {"x", "-H", "Transfer-Encoding;"}, "-H 'Transfer-Encoding;': kroget sets this header itself"},
    {"MethodIsNoToken", {"x", "-X", "GET /"}, "-X: 'GET /' is no method that can be used"},
    {"MethodWithLineFeed", {"x", "-X", "G\nT"}, "-X: 'G\\x0aT' is no method that can be used"},
    {"NoMethod", {"x", "-X", ""}, "-X: give a method"},
    {"Connect", {"x", "-X", "CONNECT"}, "-X: 'CONNECT' is no method that can be used"},
    {"EmptyCredentials", {"x", "-u", ""}, "-u: give USER or USER:PASSWORD"},
    {"LineFeedInCredentials", {"x", "-u", "a:b\nc"}, "-u: there is a control character in it"},
    {"LineFeedInUrlCredentials",
     {"http://a:%0ab@x/"},
     "URL 'http://a:%0ab@x/': there is a control character in its credentials"},
    {"NoCookieJar", {"x", "-c", ""}, "-c: give a file"},
    {"NoTime", {"x", "--max-time", "0"}, "--max-time: give more than 0 seconds, and at most 4000000"},
    {"NegativeTime", {"x", "--max-time", "-1"}, "--max-time: give more than 0 seconds, and at most 4000000"},
    {"NoNumber", {"x", "--max-time", "nan"}, "--max-time: give more than 0 seconds, and at most 4000000"},
    {"TooMuchTime", {"x", "--max-time", "4000001"}, "--max-time: give more than 0 seconds, and at most 4000000"},
    {"DataAndFile", {"x", "-d", "a", "-T", "b"}, "-d and -T exclude each other"},
    {"HeadWithData", {"x", "-I", "-d", "a"}, "-I sends no body: leave -d and -T out"},
    {"HeadMethodWithFile", {"x", "-X", "HEAD", "-T", "a"}, "HEAD sends no body: leave -d and -T out"},
    {"HeadWithMethod", {"x", "-I", "-X", "GET"}, "-I is the method HEAD: leave -X out"},
    {"FewerOutputsThanUrls", {"x", "y", "-o", "a"}, "-o: give one for each URL, or none"},
    {"MoreOutputsThanUrls", {"x", "-o", "a", "-o", "b"}, "-o: give one for each URL, or none"},
    {"StandardInputToTwo", {"x", "y", "-T", "-"}, "-T -: standard input can be sent to one URL only"},
    {"NoSocketPath", {"x", "--unix", ""}, "--unix: give a path"},
    {"LongSocketPath", {"x", "--unix", std::string(108, 'a')}, "--unix: the path is too long for a socket"},
};
class KrogetUsageTest : public ::testing::TestWithParam<KrogetUsageCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetUsageTest, ::testing::ValuesIn(kUsage),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetUsageTest, IsToldInOneLine) {
  EXPECT_EQ(run(GetParam().arguments), failed(2, GetParam().line + " (see kroget --help)"));
}

TEST_F(KrogetTest, Version) { EXPECT_EQ(run({"--version"}), succeeded("kroget " KROGET_VERSION "\n")); }

TEST_F(KrogetTest, Help) {
  const Ended ended = run({"--help"});
  EXPECT_EQ(ended.outcome, "exit 0");
  EXPECT_EQ(ended.errors, "");
  for (const char* word : {"URL", "-X", "-H", "-d", "-T", "-o", "-i", "-I", "-L", "-u", "-c", "-f", "-v", "--unix",
                           "--max-time", "--version", "--help"})
    EXPECT_NE(ended.output.find(word), std::string::npos) << word;
}

// --- what is sent ----------------------------------------------------------------------------------------------------

const std::string kUsual = "User-Agent: kroget/" KROGET_VERSION "\r\nAccept: */*\r\n";
const std::string kForm = "Content-Type: application/x-www-form-urlencoded\r\n";

// The head of a request with the usual headers, and more behind them.
std::string request(const std::string& line, const std::string& more = "") {
  return line + " HTTP/1.1\r\nHost: {T}\r\n" + kUsual + more + "\r\n";
}

struct KrogetRequestCase {
  const char* name;
  Arguments arguments;
  std::string wire;
};
void PrintTo(const KrogetRequestCase& row, std::ostream* out) { *out << row.name; }
const KrogetRequestCase kRequests[] = {
    {"Get", {"http://{T}/"}, request("GET /")},
    {"SchemeInCapitals", {"HTTP://{T}/"}, request("GET /")},
    {"WithoutScheme", {"{T}/a"}, request("GET /a")},
    {"WithoutPath", {"{T}"}, request("GET /")},
    {"QueryWithoutPath", {"{T}?a=b"}, request("GET /?a=b")},
    {"FragmentIsDropped", {"{T}/a?b#c?d"}, request("GET /a?b")},
    {"FragmentWithoutPath", {"{T}#c"}, request("GET /")},
    {"UrlInQuery", {"{T}/?u=http://x/"}, request("GET /?u=http://x/")},
    {"EscapesStay", {"{T}/%41%2f%0d%0aX:%20y%00?%0A&=%"}, request("GET /%41%2f%0d%0aX:%20y%00?%0A&=%25")},
    {"PathIsSentAsGiven", {"{T}/a=b&c;d,e/../f//g"}, request("GET /a=b&c;d,e/../f//g")},
    {"OthersAreEscaped",
     {"{T}/a b\"<>\\^`{|}[]%zz\xc3\xbc"},
     request("GET /a%20b%22%3C%3E%5C%5E%60%7B%7C%7D%5B%5D%25zz%C3%BC")},
    {"Method", {"-X", "DELETE", "{T}/"}, request("DELETE /")},
    {"UnknownMethod", {"-X", "PURGE", "{T}/"}, request("PURGE /")},
    {"PostWithoutBody", {"-X", "POST", "{T}/"}, request("POST /", "Content-Length: 0\r\n")},
    {"Data", {"-d", "a=1&b=2", "{T}/"}, request("POST /", kForm + "Content-Length: 7\r\n") + "a=1&b=2"},
    {"EmptyData", {"-d", "", "{T}/"}, request("POST /", kForm + "Content-Length: 0\r\n")},
    {"DataWithMethod", {"-d", "x", "-X", "PATCH", "{T}/"}, request("PATCH /", kForm + "Content-Length: 1\r\n") + "x"},
    {"DataWithGet", {"-d", "x", "-X", "GET", "{T}/"}, request("GET /", kForm + "Content-Length: 1\r\n") + "x"},
    {"DataWithType",
     {"-d", "{}", "-H", "Content-Type: application/json", "{T}/"},
     request("POST /", "Content-Type: application/json\r\nContent-Length: 2\r\n") + "{}"},
    {"DataWithMultipartType",
     {"-d", "--x--", "-H", "Content-Type: multipart/mixed; boundary=x", "{T}/"},
     request("POST /", "Content-Type: multipart/mixed; boundary=x\r\nContent-Length: 5\r\n") + "--x--"},
    {"DataWithoutType", {"-d", "{}", "-H", "Content-Type:", "{T}/"}, request("POST /", "Content-Length: 2\r\n") + "{}"},
    {"Header",
     {"-H", "X-One: 1", "-H", "x-two:2", "-H", "X-One: 3", "{T}/"},
     request("GET /", "X-One: 1\r\nx-two: 2\r\nX-One: 3\r\n")},
    {"HeaderWithColonsAndBlanks", {"-H", "X: \t a:b  c \t", "{T}/"}, request("GET /", "X: a:b  c\r\n")},
    {"HeaderWithPercents", {"-H", "X%s%n: %s%n", "{T}/"}, request("GET /", "X%s%n: %s%n\r\n")},
    {"HeaderInPlace",
     {"-H", "accept: text/html", "{T}/"},
     "GET / HTTP/1.1\r\nHost: {T}\r\nUser-Agent: kroget/" KROGET_VERSION "\r\nAccept: text/html\r\n\r\n"},
    {"HeaderLeftOut", {"-H", "Accept:", "-H", "User-Agent: \t", "{T}/"}, "GET / HTTP/1.1\r\nHost: {T}\r\n\r\n"},
    {"EmptyHeader",
     {"-H", "X-Empty;", "-H", "Accept;", "{T}/"},
     "GET / HTTP/1.1\r\nHost: {T}\r\nUser-Agent: kroget/" KROGET_VERSION "\r\nX-Empty: \r\nAccept: \r\n\r\n"},
    {"OtherHost", {"-H", "Host: example.com", "{T}/"}, "GET / HTTP/1.1\r\nHost: example.com\r\n" + kUsual + "\r\n"},
    // They are told when the server asks for them.
    {"Credentials", {"-u", "Aladdin:open sesame", "{T}/"}, request("GET /")},
    {"CredentialsOfTheUrl", {"http://Aladdin:open%20sesame@{T}/"}, request("GET /")},
    {"AuthorizationOfOnesOwn",
     {"-u", "a:b", "-H", "Authorization: Bearer x", "{T}/"},
     request("GET /", "Authorization: Bearer x\r\n")},
};
class KrogetRequestTest : public ::testing::TestWithParam<KrogetRequestCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetRequestTest, ::testing::ValuesIn(kRequests),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetRequestTest, IsSentExactly) {
  WireTarget target;
  target.always(answering(okReply("yes")));
  EXPECT_EQ(run(GetParam().arguments, &target), succeeded("yes"));
  ASSERT_EQ(target.count(), 1u);
  EXPECT_EQ(replaced(target.connection(0).received(), authority(target), "{T}"), GetParam().wire);
}

TEST_F(KrogetTest, HeadIsPrinted) {
  WireTarget target;
  target.always(answering("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nX-A: b\r\n\r\n"));
  EXPECT_EQ(run({"-I", "{T}/"}, &target), succeeded("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nX-A: b\r\n\r\n"));
  EXPECT_EQ(run({"-X", "HEAD", "{T}/"}, &target), succeeded());
  EXPECT_EQ(replaced(target.connection(0).received(), authority(target), "{T}"), request("HEAD /"));
}

TEST_F(KrogetTest, HostWithIPv6Address) {
  WireTarget target(WireAddress::tcp(0, "::1"));
  target.always(answering(okReply("six")));
  const std::string host = "[::1]:" + target.port();
  EXPECT_EQ(run({"http://[0:0:0:0:0:0:0:1]:" + target.port() + "/"}), succeeded("six"));
  EXPECT_EQ(run({host}), succeeded("six"));
  EXPECT_EQ(target.connection(0).requests().at(0).header("Host"), host);
}

TEST_F(KrogetTest, HostNameIsLookedUp) {
  WireTarget target;
  target.always(answering(okReply("named")));
  EXPECT_EQ(run({"LocalHost:" + target.port()}), succeeded("named"));
  EXPECT_EQ(target.connection(0).requests().at(0).header("Host"), "localhost:" + target.port());
}

TEST_F(KrogetTest, UnixSocket) {
  WireTarget target(WireAddress::local(folder.at("socket")));
  target.always(answering(okReply("local")));
  EXPECT_EQ(run({"--unix", folder.at("socket"), "http://example.com/a", "other.example:8080/b"}),
            succeeded("locallocal"));
  ASSERT_EQ(target.count(), 1u);
  const std::vector<WireRequest> requests = target.connection(0).requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].header("Host"), "example.com");
  EXPECT_EQ(requests[1].header("Host"), "other.example:8080");
}

TEST_F(KrogetTest, DataFromFileAndStandardInput) {
  WireTarget target;
  target.always(answering(okReply("")));
  const std::string content("a\0\r\n@b", 6);
  const std::string path = folder.file("data", content);
  EXPECT_EQ(run({"-d", "@" + path, "{T}/"}, &target), succeeded());
  EXPECT_EQ(runInShell("\"$@\" < '" + path + "'", {"-d", "@-", "{T}/", "{T}/again"}, &target), succeeded());
  ASSERT_EQ(target.count(), 2u);
  EXPECT_EQ(target.connection(0).requests().at(0).body, content);
  ASSERT_EQ(target.connection(1).requests().size(), 2u);
  EXPECT_EQ(target.connection(1).requests()[1].body, content);
}

struct KrogetUploadCase {
  const char* name;
  size_t size;
  const char* command;  // with the file as "FILE"
  const char* source;
  bool chunked;
};
void PrintTo(const KrogetUploadCase& row, std::ostream* out) { *out << row.name; }
constexpr size_t kFiveMiB = 5 * 1024 * 1024;
const KrogetUploadCase kUploads[] = {
    {"EmptyFile", 0, "\"$@\"", "FILE", false},
    {"OneByteFile", 1, "\"$@\"", "FILE", false},
    {"FiveMiBFile", kFiveMiB, "\"$@\"", "FILE", false},
    {"EmptyInput", 0, "\"$@\" < FILE", "-", true},
    {"OneByteInput", 1, "\"$@\" < FILE", "-", true},
    {"FiveMiBInput", kFiveMiB, "\"$@\" < FILE", "-", true},
    {"FiveMiBPipe", kFiveMiB, "cat FILE | \"$@\"", "-", true},
    {"SlowPipe", 3, "(cat FILE; sleep 0.1; cat FILE) | \"$@\"", "-", true},
};
class KrogetUploadTest : public KrogetTest, public ::testing::WithParamInterface<KrogetUploadCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetUploadTest, ::testing::ValuesIn(kUploads),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetUploadTest, ArrivesWhole) {
  WireTarget target(WireAddress::tcp(0), {.receiveBuffer = 65536});
  target.always(answering(okReply("stored")));
  std::string content = pattern(GetParam().size);
  const std::string path = folder.file("data", content);
  if (std::string_view(GetParam().command).find("sleep") != std::string_view::npos) content += content;
  EXPECT_EQ(runInShell(replaced(GetParam().command, "FILE", path),
                       {"-T", replaced(GetParam().source, "FILE", path), "{T}/file", "-H", "X-Last: 1"}, &target),
            succeeded("stored"));
  ASSERT_EQ(target.count(), 1u);
  const std::vector<WireRequest> requests = target.connection(0).requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].line, "PUT /file HTTP/1.1");
  EXPECT_EQ(requests[0].header("Content-Length"), GetParam().chunked ? "" : std::to_string(content.size()));
  EXPECT_EQ(requests[0].header("Transfer-Encoding"), GetParam().chunked ? "chunked" : "");
  EXPECT_FALSE(requests[0].has("Expect"));
  EXPECT_TRUE(requests[0].body == content);
}

// --- what is made of replies -----------------------------------------------------------------------------------------

constexpr bool kCloses = true;

struct KrogetReplyCase {
  const char* name;
  std::string wire;
  bool closes;  // the target ends the connection behind it
  Arguments options;
  Ended ended;
};
void PrintTo(const KrogetReplyCase& row, std::ostream* out) { *out << row.name; }
const std::string kUrl = "http://{T}/x: ";
const std::string kNotFound = textReply(404, "Not Found", "none");
const KrogetReplyCase kReplies[] = {
    {"ContentLength", okReply("hello"), false, {}, succeeded("hello")},
    {"Empty", okReply(""), false, {}, succeeded()},
    {"NoContent", "HTTP/1.1 204 No Content\r\n\r\n", false, {}, succeeded()},
    {"NotModified", "HTTP/1.1 304 Not Modified\r\nContent-Length: 9\r\n\r\n", false, {}, succeeded()},
    {"Chunked",
     "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked("hello, world", 5),
     false,
     {},
     succeeded("hello, world")},
    {"ChunkedAndEmpty", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", false, {}, succeeded()},
    {"UntilClose", "HTTP/1.1 200 OK\r\n\r\nto the end", kCloses, {}, succeeded("to the end")},
    {"UntilCloseAndEmpty", "HTTP/1.1 200 OK\r\n\r\n", kCloses, {}, succeeded()},
    {"OldVersion", "HTTP/1.0 200 OK\r\n\r\nold", kCloses, {}, succeeded("old")},
    {"Multipart",
     textReply(200, "OK", "--x--", "1.1", "Content-Type: multipart/mixed; boundary=x\r\n"),
     false,
     {},
     succeeded("--x--")},
    {"Interim",
     "HTTP/1.1 103 Early Hints\r\nX: y\r\n\r\nHTTP/1.1 100 Continue\r\n\r\n" + okReply("then"),
     false,
     {"-i"},
     succeeded("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nthen")},
    {"SameLengthTwice",
     "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 2\r\n\r\nok",
     false,
     {},
     succeeded("ok")},
    {"Included", okReply("hello"), false, {"-i"}, succeeded("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello")},
    {"IncludedWithOddNames",
     "HTTP/1.1 299 What Ever\r\nconTENT-length: 2\r\nx-ODD:  a  b \r\n\r\nok",
     false,
     {"-i"},
     succeeded("HTTP/1.1 299 What Ever\r\nContent-Length: 2\r\nx-ODD: a  b\r\n\r\nok")},
    {"RedirectIsNotFollowed", textReply(302, "Found", "gone", "1.1", "Location: /y\r\n"), false, {}, succeeded("gone")},
    {"RedirectWithoutLocation", textReply(302, "Found", "gone"), false, {"-L"}, succeeded("gone")},
    {"ErrorStatus", kNotFound, false, {}, succeeded("none")},
    {"Fail", kNotFound, false, {"--fail"}, failed(8, kUrl + "404 Not Found")},
    {"FailShort", textReply(500, "Oh No", "none"), false, {"-f"}, failed(8, kUrl + "500 Oh No")},
    {"FailIncluded",
     kNotFound,
     false,
     {"-f", "-i"},
     failed(8, kUrl + "404 Not Found", "HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\n")},
    {"FailWithLargeBody",
     textReply(404, "Not Found", std::string(3 << 20, 'x')),
     false,
     {"-f"},
     failed(8, kUrl + "404 Not Found")},
    {"FailBelow400", textReply(399, "Odd", "fine"), false, {"-f"}, succeeded("fine")},
    {"ReasonIsEscaped", textReply(404, "N\xc3\xb6\x9b", ""), false, {"-f"}, failed(8, kUrl + "404 N\\xc3\\xb6\\x9b")},
    // Cut short.
    {"NoReply", "", kCloses, {}, failed(6, kUrl + "the connection ended before the reply was complete")},
    {"HalfAStatusLine",
     "HTTP/1.1 2",
     kCloses,
     {},
     failed(6, kUrl + "the connection ended before the reply was complete")},
    {"HalfAHead",
     "HTTP/1.1 200 OK\r\nContent-Le",
     kCloses,
     {},
     failed(6, kUrl + "the connection ended before the reply was complete")},
    {"HalfABody",
     "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello",
     kCloses,
     {},
     failed(6, kUrl + "the reply was cut short after 5 of 10 bytes", "hello")},
    {"NoBody",
     "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n",
     kCloses,
     {},
     failed(6, kUrl + "the reply was cut short after 0 of 10 bytes")},
    {"HalfAMultipartBody",
     "HTTP/1.1 200 OK\r\nContent-Type: multipart/x\r\nContent-Length: 10\r\n\r\nhello",
     kCloses,
     {},
     failed(6, kUrl + "the reply was cut short after 5 of 10 bytes", "hello")},
    {"HalfAChunk",
     "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nA\r\nhello",
     kCloses,
     {},
     failed(6, kUrl + "the reply was cut short after 5 bytes", "hello")},
    {"NoLastChunk",
     "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nh\r\n",
     kCloses,
     {},
     failed(6, kUrl + "the reply was cut short after 1 byte", "h")},
    {"BadChunkSize",
     "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nhi\r\nxyz\r\n",
     false,
     {},
     failed(6, kUrl + "the reply's chunks are malformed after 2 bytes", "hi")},
    {"BadChunkEnd",
     "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nhix\r\n",
     false,
     {},
     failed(6, kUrl + "the reply's chunks are malformed after 2 bytes", "hi")},
    // No HTTP.
    {"OtherProtocol", "SSH-2.0-OpenSSH_9.2\r\n", false, {}, failed(7, kUrl + "the reply is not HTTP")},
    {"Page", "<html><body>hello\r\n</body></html>\r\n", kCloses, {}, failed(7, kUrl + "the reply is not HTTP")},
    {"BadHeader", "HTTP/1.1 200 OK\r\nno colon here\r\n\r\n", false, {}, failed(7, kUrl + "the reply is not HTTP")},
    {"OtherVersion", "HTTP/2.0 200 OK\r\n\r\n", kCloses, {}, failed(7, kUrl + "the reply is not of HTTP/1")},
    {"VersionWithoutMinor", "HTTP/2 200 OK\r\n\r\n", kCloses, {}, failed(7, kUrl + "the reply is not HTTP")},
    {"StatusTooSmall", "HTTP/1.1 99 Odd\r\n\r\n", false, {}, failed(7, kUrl + "the reply has no valid status")},
    {"StatusTooLarge", "HTTP/1.1 600 Odd\r\n\r\n", false, {}, failed(7, kUrl + "the reply has no valid status")},
    {"StatusIsNoNumber", "HTTP/1.1 abc Odd\r\n\r\n", false, {}, failed(7, kUrl + "the reply has no valid status")},
    {"SwitchingProtocols",
     "HTTP/1.1 101 Switching Protocols\r\n\r\n",
     false,
     {},
     failed(7, kUrl + "the server switches to another protocol")},
    {"TwoLengths",
     "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 3\r\n\r\nok",
     false,
     {},
     failed(7, kUrl + "the length of the reply is not certain")},
    {"LengthAndChunks",
     "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
     false,
     {},
     failed(7, kUrl + "the length of the reply is not certain")},
    {"LengthIsNoNumber",
     "HTTP/1.1 200 OK\r\nContent-Length: two\r\n\r\n",
     false,
     {},
     failed(7, kUrl + "the length of the reply is not certain")},
    {"LengthIsNegative",
     "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n",
     false,
     {},
     failed(7, kUrl + "the length of the reply is not certain")},
    {"HugeLength",
     "HTTP/1.1 200 OK\r\nContent-Length: 4294967296\r\n\r\n",
     false,
     {},
     failed(7, kUrl + "the reply is larger than 4 GiB")},
    {"UnknownCoding",
     "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\n",
     false,
     {},
     failed(7, kUrl + "the reply has an unknown transfer coding")},
};
class KrogetReplyTest : public ::testing::TestWithParam<KrogetReplyCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetReplyTest, ::testing::ValuesIn(kReplies),
                         [](const auto& parameter) { return parameter.param.name; });

Arguments withUrl(Arguments options, const std::string& url = "{T}/x") {
  options.push_back(url);
  return options;
}

TEST_P(KrogetReplyTest, IsTakenOrTold) {
  WireScript script = WireScript().request().send(GetParam().wire);
  WireTarget target;
  target.always(GetParam().closes ? script.leave() : script);
  EXPECT_EQ(run(withUrl(GetParam().options), &target), GetParam().ended);
  EXPECT_EQ(target.count(), 1u);
}

std::vector<KrogetReplyCase> smallReplies() {
  std::vector<KrogetReplyCase> rows;
  std::copy_if(std::begin(kReplies), std::end(kReplies), std::back_inserter(rows),
               [](const KrogetReplyCase& row) { return row.wire.size() < 1000; });
  return rows;
}
class KrogetPiecesTest : public ::testing::TestWithParam<KrogetReplyCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetPiecesTest, ::testing::ValuesIn(smallReplies()),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetPiecesTest, ComeToTheSame) {
  WireScript script = WireScript().request().pieces(GetParam().wire, 1);
  WireTarget target;
  target.always(GetParam().closes ? script.leave() : script);
  EXPECT_EQ(run(withUrl(GetParam().options), &target), GetParam().ended);
}

TEST_F(KrogetTest, ResetIsNoEnd) {
  WireTarget target;
  bool arrived = false;
  target.always(WireScript().request().send("HTTP/1.1 200 OK\r\n\r\nhalf").when([&] { return arrived; }).reset());
  ChildProcess process(commandLine({"{T}/x"}, &target));
  EXPECT_TRUE(wait([&] { return process.output() == "half"; }));
  arrived = true;
  EXPECT_EQ(waitFor(process, &target), failed(6, kUrl + "the reply was cut short after 4 bytes", "half"));
}

TEST_F(KrogetTest, LargeReplies) {
  const std::string content = pattern(kFiveMiB);
  for (const std::string& reply :
       {okReply(content), "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked(content, 70000),
        "HTTP/1.1 200 OK\r\n\r\n" + content}) {
    WireTarget target;
    target.always(WireScript().request().send(reply).leave());
    const std::string path = folder.at("large");
    EXPECT_EQ(run({"{T}/", "-o", path}, &target), succeeded());
    EXPECT_TRUE(contentOf(path) == content) << reply.substr(0, 60);
  }
}

TEST_F(KrogetTest, SlowReaderOfStandardOutput) {
  // All kinds of bodies end while the pipe is full, with something left in every buffer on the way.
  const std::string content = pattern((1 << 20) + 12345);
  const std::string expected = std::to_string(content.size()) + "\n";
  for (const std::string& reply :
       {okReply(content), "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked(content, 3000),
        "HTTP/1.1 200 OK\r\n\r\n" + content}) {
    WireTarget target;
    target.always(WireScript().request().send(reply).leave());
    EXPECT_EQ(runInShell("\"$@\" | (sleep 0.3; wc -c)", {"{T}/"}, &target), succeeded(expected)) << reply.substr(0, 60);
  }
}

TEST_F(KrogetTest, LastBytesDoNotWaitForMore) {
  // The first block fills the pipe, the rest is kept. The server says nothing more: it must come all the same.
  const std::string content = pattern(65536 + 10);
  WireTarget target;
  target.always(WireScript().request().send("HTTP/1.1 200 OK\r\n\r\n" + content));
  ChildProcess process(commandLine({"{T}/x"}, &target));
  EXPECT_TRUE(wait([&] { return target.requests() == 1 && target.connection(0).allSent(); }));
  const auto enough = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
  EXPECT_TRUE(wait([&] { return std::chrono::steady_clock::now() > enough; }));
  EXPECT_TRUE(wait([&] { return process.output().size() == content.size(); }));
  EXPECT_TRUE(process.output() == content);
}

TEST_F(KrogetTest, EarlyRefusalStopsTheUpload) {
  WireTarget target(WireAddress::tcp(0), {.receiveBuffer = 8192});
  target.always(WireScript()
                    .head()
                    .call([](WireTargetConnection& connection) { connection.readAtMost(0); })
                    .send(textReply(413, "Content Too Large", "no", "1.1", "Connection: close\r\n")));
  const std::string path = folder.file("large", std::string(32 << 20, 'x'));
  EXPECT_EQ(run({"-T", path, "-f", "{T}/x"}, &target), failed(8, kUrl + "413 Content Too Large"));
  EXPECT_EQ(run({"-T", path, "{T}/x"}, &target), succeeded("no"));
}

// --- other failures --------------------------------------------------------------------------------------------------

TEST_F(KrogetTest, CannotResolve) {
  const std::string host(64, 'a');  // a label that no name can have: nobody is asked
  EXPECT_EQ(run({"http://" + host + ".test/"}), failed(3, "cannot resolve " + host + ".test"));
}

TEST_F(KrogetTest, CannotConnect) {
  WireTarget target;
  target.refuse();
  EXPECT_EQ(run({"{T}/"}, &target), failed(4, "cannot connect to {T}: Connection refused"));
  EXPECT_EQ(run({"-d", "x", "{T}/"}, &target), failed(4, "cannot connect to {T}: Connection refused"));
  EXPECT_EQ(run({"--unix", folder.at("none"), "x"}),
            failed(4, "cannot connect to " + folder.at("none") + ": No such file or directory"));
}

TEST_F(KrogetTest, TimeIsUp) {
  WireTarget target;
  EXPECT_EQ(run({"--max-time", "0.05", "{T}/x"}, &target), failed(5, kUrl + "timed out after 0.05 s"));
  target.always(WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello"));
  EXPECT_EQ(run({"--max-time", "0.2", "{T}/x"}, &target), failed(5, kUrl + "timed out after 0.2 s", "hello"));
  // In the middle of redirects, too.
  target.always(answering("HTTP/1.1 302 Found\r\nLocation: /x\r\nContent-Length: 5\r\n\r\n"));
  EXPECT_EQ(run({"--max-time", "0.1", "-L", "{T}/x"}, &target), failed(5, kUrl + "timed out after 0.1 s"));
}

TEST_F(KrogetTest, TimeIsUpWhileNobodyReads) {
  WireTarget target;
  target.always(answering(okReply(std::string(1 << 20, 'x'))));
  const Ended ended =
      runInShell("(\"$@\"; echo $? >&2) | (sleep 0.5; cat >/dev/null)", {"--max-time", "0.1", "{T}/x"}, &target);
  EXPECT_EQ(ended.errors, "kroget: " + kUrl + "timed out after 0.1 s\n5\n");
}

TEST_F(KrogetTest, TimeBeginsAnewWithEachUrl) {
  WireTarget target;
  target.next(WireScript()).always(answering(okReply("second")));
  EXPECT_EQ(run({"--max-time", "0.2", "{T}/x", "{T}/y"}, &target), failed(5, kUrl + "timed out after 0.2 s", "second"));
}

struct KrogetSignalCase {
  const char* name;
  int number;
};
void PrintTo(const KrogetSignalCase& row, std::ostream* out) { *out << row.name; }
class KrogetSignalTest : public KrogetTest, public ::testing::WithParamInterface<KrogetSignalCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetSignalTest,
                         ::testing::Values(KrogetSignalCase{"Interrupt", SIGINT},
                                           KrogetSignalCase{"Terminate", SIGTERM}),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetSignalTest, EndsItCleanly) {
  WireTarget target;
  target.always(WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello"));
  ChildProcess process(commandLine({"{T}/x", "{T}/y", "-o", folder.at("a"), "-o", folder.at("b")}, &target));
  const auto begun = [&] {  // the beginning of the body is in the temporary file
    const std::vector<std::string> names = namesIn(folder.path());
    return names.size() == 1 && std::filesystem::file_size(folder.at(names[0])) == 5;
  };
  EXPECT_TRUE(wait(begun));
  process.signal(GetParam().number);
  EXPECT_EQ(waitFor(process, &target), (Ended{"signal " + std::to_string(GetParam().number), "", ""}));
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>());
  EXPECT_EQ(target.requests(), 1u);
}

TEST_F(KrogetTest, ClosedStandardOutputEndsItQuietly) {
  WireTarget target;
  target.always(answering(okReply(std::string(1 << 20, 'x'))));
  EXPECT_EQ(runInShell("(\"$@\"; echo $? >&2) | true", {"{T}/"}, &target), (Ended{"exit 0", "", "9\n"}));
  EXPECT_EQ(runInShell("(\"$@\"; echo $? >&2) | head -c 3", {"{T}/"}, &target), (Ended{"exit 0", "xxx", "9\n"}));
}

TEST_F(KrogetTest, FullStandardOutput) {
  WireTarget target;
  target.always(answering(okReply("hello")));
  EXPECT_EQ(runInShell("\"$@\" > /dev/full", {"{T}/"}, &target),
            failed(9, "cannot write standard output: No space left on device"));
}

struct KrogetFileCase {
  const char* name;
  Arguments arguments;
  std::string line;
};
void PrintTo(const KrogetFileCase& row, std::ostream* out) { *out << row.name; }
const KrogetFileCase kFiles[] = {
    {"MissingFile", {"-T", "/nonexistent", "{T}/"}, "cannot read /nonexistent: No such file or directory"},
    {"Directory", {"-T", "/etc", "{T}/"}, "cannot read /etc: Is a directory"},
    {"MissingData", {"-d", "@/nonexistent", "{T}/"}, "cannot read /nonexistent: No such file or directory"},
    {"DataIsADirectory", {"-d", "@/etc", "{T}/"}, "cannot read /etc: Is a directory"},
    {"NoPlaceForOutput", {"-o", "/nonexistent/a", "{T}/"}, "cannot write /nonexistent/a: No such file or directory"},
    {"OutputIsADirectory", {"-o", "/tmp", "{T}/"}, "cannot write /tmp: Is a directory"},
    {"OutputIsFull", {"-o", "/dev/full", "{T}/"}, "cannot write /dev/full: No space left on device"},
};
class KrogetFileTest : public ::testing::TestWithParam<KrogetFileCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetFileTest, ::testing::ValuesIn(kFiles),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetFileTest, FailureIsTold) {
  WireTarget target;
  target.always(answering(okReply("hello")));
  EXPECT_EQ(run(GetParam().arguments, &target), failed(9, GetParam().line));
}

TEST_F(KrogetTest, UploadThatBecomesShorter) {
  WireTarget target(WireAddress::tcp(0), {.receiveBuffer = 65536});
  const std::string path = folder.file("large", "");
  ASSERT_EQ(truncate(path.c_str(), 256 << 20), 0);
  target.always(WireScript().head().call([&](WireTargetConnection&) { EXPECT_EQ(truncate(path.c_str(), 0), 0); }));
  EXPECT_EQ(run({"-T", path, "{T}/"}, &target),
            failed(9, "cannot read " + path + ": it became shorter while it was sent"));
}

TEST_F(KrogetTest, SeveralUrlsGoOnBehindAFailure) {
  WireTarget target;
  target.next(WireScript().request().send(kNotFound).request().leave()).always(answering(okReply("last")));
  const Ended ended = run({"-f", "-X", "PURGE", "{T}/x", "{T}/y", "{T}/z"}, &target);
  EXPECT_EQ(ended.outcome, "exit 8");
  EXPECT_EQ(ended.output, "last");
  EXPECT_EQ(
      ended.errors,
      "kroget: " + kUrl + "404 Not Found\nkroget: http://{T}/y: the connection ended before the reply was complete\n");
}

// --- files -----------------------------------------------------------------------------------------------------------

TEST_F(KrogetTest, OutputIsReplacedWhenItIsComplete) {
  WireTarget target;
  bool goOn = false;
  target.always(WireScript()
                    .request()
                    .send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello")
                    .when([&] { return goOn; })
                    .send("world"));
  const std::string path = folder.file("out", "before");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  ASSERT_EQ(symlink("out", folder.at("link").c_str()), 0);
  ChildProcess process(commandLine({"{T}/", "-o", folder.at("link")}, &target));
  EXPECT_TRUE(wait([&] { return namesIn(folder.path()).size() == 3; }));
  EXPECT_EQ(contentOf(path), "before");
  EXPECT_EQ(namesIn(folder.path())[0].rfind(".out.kroget-", 0), 0u) << namesIn(folder.path())[0];
  goOn = true;
  EXPECT_EQ(waitFor(process, &target), succeeded());
  EXPECT_EQ(contentOf(path), "helloworld");
  EXPECT_EQ(namesIn(folder.path()), (std::vector<std::string>{"link", "out"}));
  EXPECT_TRUE(std::filesystem::is_symlink(folder.at("link")));
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(KrogetTest, NewOutputHasTheUsualMode) {
  WireTarget target;
  target.always(answering(okReply("")));
  EXPECT_EQ(runInShell("umask 027; \"$@\"", {"{T}/", "-o", folder.at("new")}, &target), succeeded());
  struct stat status;
  ASSERT_EQ(stat(folder.at("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(KrogetTest, FailureLeavesTheOutputAlone) {
  WireTarget target;
  target.next(WireScript().request().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello").leave());
  target.always(answering(kNotFound));
  const std::string path = folder.file("out", "before");
  EXPECT_EQ(run({"{T}/x", "-o", path}, &target), failed(6, kUrl + "the reply was cut short after 5 of 10 bytes"));
  EXPECT_EQ(run({"{T}/x", "-f", "-o", path}, &target), failed(8, kUrl + "404 Not Found"));
  EXPECT_EQ(run({"{T}/x", "-f", "-o", folder.at("new")}, &target), failed(8, kUrl + "404 Not Found"));
  EXPECT_EQ(contentOf(path), "before");
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{"out"});
}

TEST_F(KrogetTest, OutputForEachUrl) {
  WireTarget target;
  target.always(
      WireScript().request().send(okReply("one")).request().send(okReply("two")).request().send(okReply("three")));
  EXPECT_EQ(run({"-i", "{T}/", "-o", folder.at("1"), "{T}/", "-o", "-", "{T}/", "-o", folder.at("3")}, &target),
            succeeded(okReply("two")));
  EXPECT_EQ(contentOf(folder.at("1")), okReply("one"));
  EXPECT_EQ(contentOf(folder.at("3")), okReply("three"));
}

// --- connections -----------------------------------------------------------------------------------------------------

struct KrogetReuseCase {
  const char* name;
  std::string first;  // what the first request is answered with
  bool closes;
  Arguments options;
  size_t connections;
};
void PrintTo(const KrogetReuseCase& row, std::ostream* out) { *out << row.name; }
const KrogetReuseCase kReuse[] = {
    {"ContentLength", okReply("a"), false, {}, 1},
    {"Empty", okReply(""), false, {}, 1},
    {"Chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked("a"), false, {}, 1},
    {"NoContent", "HTTP/1.1 204 No Content\r\n\r\n", false, {}, 1},
    {"Head", okReply(""), false, {"-I"}, 1},
    {"Data", okReply("a"), false, {"-d", "x"}, 1},
    {"FailureOfTheFirst", kNotFound, false, {"-f"}, 1},
    {"Redirect", "HTTP/1.1 302 Found\r\nLocation: /y\r\nContent-Length: 1\r\n\r\na", false, {"-L"}, 1},
    {"RedirectInChunks",
     "HTTP/1.1 302 Found\r\nLocation: /y\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\n\r\n",
     false,
     {"-L"},
     1},
    {"ConnectionClose", textReply(200, "OK", "a", "1.1", "Connection: close\r\n"), false, {}, 2},
    {"ConnectionCloseInAList", textReply(200, "OK", "a", "1.1", "Connection: x-a , Close\r\n"), false, {}, 2},
    {"OldVersion", textReply(200, "OK", "a", "1.0"), false, {}, 2},
    {"UntilClose", "HTTP/1.1 200 OK\r\n\r\na", true, {}, 2},
    {"ClosedBehindTheReply", okReply("a"), true, {}, 2},
    {"MoreThanTheReply", okReply("a") + okReply("forged"), false, {}, 2},
    {"AskedToClose", okReply("a"), false, {"-H", "Connection: close"}, 2},
    {"LargeBodyThatNobodyWants", textReply(404, "Not Found", std::string(3 << 20, 'x')), false, {"-f"}, 2},
    {"BodyThatNobodyWants", textReply(404, "Not Found", std::string(100000, 'x')), false, {"-f"}, 1},
};
class KrogetReuseTest : public ::testing::TestWithParam<KrogetReuseCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetReuseTest, ::testing::ValuesIn(kReuse),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetReuseTest, OpensAsManyConnectionsAsNeeded) {
  WireScript first = WireScript().request().send(GetParam().first);
  WireTarget target;
  target.next(GetParam().closes ? first.leave() : first.request().send(okReply("")).repeat());
  target.always(answering(okReply("")));
  Arguments arguments = withUrl(GetParam().options);
  // Bytes that come behind the reply, and its end, are there when the second request is made.
  arguments.push_back("{T}/y");
  const Ended ended = run(arguments, &target);
  EXPECT_EQ(linesOf(ended.errors).size(), ended.outcome == "exit 0" ? 0u : 1u) << ended.errors;
  EXPECT_EQ(target.count(), GetParam().connections);
  EXPECT_EQ(ended.output.find("forged"), std::string::npos);
}

TEST_F(KrogetTest, PostTakesANewConnectionWhenTheKeptOneIsClosed) {
  WireTarget target;
  // The end comes with the reply, in one segment.
  target.next(WireScript().request().call([](WireTargetConnection& connection) {
    const int on = 1;
    EXPECT_EQ(setsockopt(connection.socket(), IPPROTO_TCP, TCP_CORK, &on, sizeof on), 0);
    connection.send(okReply("a")).finish();
  }));
  target.always(answering(okReply("b")));
  EXPECT_EQ(run({"-d", "x", "{T}/x", "{T}/y"}, &target), succeeded("ab"));
  EXPECT_EQ(target.count(), 2u);
}

TEST_F(KrogetTest, EachHostHasItsConnection) {
  WireTarget one;
  WireTarget other;
  one.always(answering(okReply("1")));
  other.always(answering(okReply("2")));
  const std::string first = authority(one);
  const std::string second = authority(other);
  EXPECT_EQ(run({first, second, first, second, first}), succeeded("12121"));
  EXPECT_EQ(one.count(), 1u);
  EXPECT_EQ(other.count(), 1u);
}

// The server closes a kept connection at the very moment the next request arrives.
struct KrogetRaceCase {
  const char* name;
  Arguments options;
  bool repeated;
};
void PrintTo(const KrogetRaceCase& row, std::ostream* out) { *out << row.name; }
const KrogetRaceCase kRaces[] = {
    {"Get", {}, true},
    {"Head", {"-X", "HEAD"}, true},
    {"Delete", {"-X", "DELETE"}, true},
    {"PutWithFile", {"-T", "/etc/passwd"}, true},
    {"PutWithText", {"-X", "PUT", "-d", "x"}, true},
    {"Post", {"-d", "x"}, false},
    {"Patch", {"-X", "PATCH", "-d", "x"}, false},
    {"UnknownMethod", {"-X", "INCREASE"}, false},
};
class KrogetRaceTest : public ::testing::TestWithParam<KrogetRaceCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetRaceTest, ::testing::ValuesIn(kRaces),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetRaceTest, RepeatsWhatIsSafeToRepeat) {
  WireTarget target;
  target.next(WireScript().request().send(okReply("")).request().leave()).always(answering(okReply("")));
  Arguments arguments = withUrl(GetParam().options, "{T}/first");
  arguments.push_back("{T}/x");
  EXPECT_EQ(run(arguments, &target),
            GetParam().repeated ? succeeded() : failed(6, kUrl + "the connection ended before the reply was complete"));
  ASSERT_EQ(target.count(), GetParam().repeated ? 2u : 1u);
  if (GetParam().repeated) {
    EXPECT_EQ(target.connection(1).received(), target.connection(0).requests().at(1).wire);
  }
}

TEST_F(KrogetTest, ReplacesAKeptConnectionOnce) {
  WireTarget target;
  target.next(WireScript().request().send(okReply("")).request().leave()).always(WireScript().request().leave());
  EXPECT_EQ(run({"{T}/first", "{T}/x"}, &target),
            failed(6, kUrl + "the connection ended before the reply was complete"));
  EXPECT_EQ(target.count(), 2u);
}

// --- redirects -------------------------------------------------------------------------------------------------------

struct KrogetMethodCase {
  const char* name;
  unsigned status;
  Arguments options;
  std::string second;  // line and body of the second request
};
void PrintTo(const KrogetMethodCase& row, std::ostream* out) { *out << row.name; }
const KrogetMethodCase kMethods[] = {
    {"Get301", 301, {}, "GET "},
    {"Get302", 302, {}, "GET "},
    {"Get303", 303, {}, "GET "},
    {"Get307", 307, {}, "GET "},
    {"Get308", 308, {}, "GET "},
    {"Head303", 303, {"-I"}, "HEAD "},
    {"Post301", 301, {"-d", "abc"}, "GET "},
    {"Post302", 302, {"-d", "abc"}, "GET "},
    {"Post303", 303, {"-d", "abc"}, "GET "},
    {"Post307", 307, {"-d", "abc"}, "POST abc"},
    {"Post308", 308, {"-d", "abc"}, "POST abc"},
    {"Put301", 301, {"-X", "PUT", "-d", "abc"}, "PUT abc"},
    {"Put302", 302, {"-X", "PUT", "-d", "abc"}, "PUT abc"},
    {"Put303", 303, {"-X", "PUT", "-d", "abc"}, "GET "},
    {"Put308", 308, {"-X", "PUT", "-d", "abc"}, "PUT abc"},
    {"Delete303", 303, {"-X", "DELETE"}, "GET "},
    {"Delete302", 302, {"-X", "DELETE"}, "DELETE "},
};
class KrogetMethodTest : public ::testing::TestWithParam<KrogetMethodCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetMethodTest, ::testing::ValuesIn(kMethods),
                         [](const auto& parameter) { return parameter.param.name; });

std::string redirect(unsigned status, const std::string& location) {
  return textReply(status, "Moved", "moved", "1.1", "Location: " + location + "\r\n");
}
std::string headOfRedirect(unsigned status, const std::string& location) {
  const std::string reply = redirect(status, location);
  return reply.substr(0, reply.size() - 5);
}

TEST_P(KrogetMethodTest, ChangesWithTheRedirect) {
  const bool head = !GetParam().options.empty() && GetParam().options[0] == "-I";
  WireTarget target;
  target.always(WireScript()
                    .request()
                    .send(head ? headOfRedirect(GetParam().status, "/y") : redirect(GetParam().status, "/y"))
                    .request()
                    .send(okReply("")));
  Arguments options = GetParam().options;
  options.insert(options.end(), {"-L", "-H", "Content-Type: a/b", "-H", "Content-Language: en", "-H", "X: y"});
  const Ended ended = run(withUrl(options), &target);
  EXPECT_EQ(ended.outcome, "exit 0");
  EXPECT_EQ(ended.errors, "");
  ASSERT_EQ(target.requests(), 2u);
  const WireRequest second = target.connection(0).requests().at(1);
  EXPECT_EQ(replaced(second.line, "/y HTTP/1.1", "") + second.body, GetParam().second);
  EXPECT_EQ(second.header("X"), "y");
  // What tells about a body goes with it.
  const bool dropped = GetParam().second == "GET " && target.connection(0).requests().at(0).line != "GET /x HTTP/1.1";
  EXPECT_EQ(second.has("Content-Type"), !dropped);
  EXPECT_EQ(second.has("Content-Language"), !dropped);
  EXPECT_EQ(second.has("Content-Length"), !second.body.empty());
}

struct KrogetLocationCase {
  const char* name;
  std::string location;
  std::string target;  // of the second request; with a leading "!", the failure
};
void PrintTo(const KrogetLocationCase& row, std::ostream* out) { *out << row.name; }
const KrogetLocationCase kLocations[] = {
    {"Absolute", "http://{T}/p?q", "/p?q"},
    {"AbsoluteInCapitals", "HTTP://{T}/p", "/p"},
    {"WithoutScheme", "//{T}/p", "/p"},
    {"WithoutPath", "http://{T}", "/"},
    {"Path", "/p/q?r", "/p/q?r"},
    {"FragmentIsDropped", "/p#q", "/p"},
    {"OnlyAFragment", "#q", "/a/b/c?d"},
    {"Relative", "p", "/a/b/p"},
    {"RelativeWithQuery", "p?q/r", "/a/b/p?q/r"},
    {"Query", "?q", "/a/b/c?q"},
    {"Dot", ".", "/a/b/"},
    {"DotSlash", "./p", "/a/b/p"},
    {"DotDot", "..", "/a/"},
    {"DotDotSlash", "../p", "/a/p"},
    {"TooManyDots", "../../../p", "/p"},
    {"DotsInside", "p/./q/../r", "/a/b/p/r"},
    {"DotsInPath", "/./p/../q/.", "/q/"},
    {"DotsInQueryStay", "p?../q", "/a/b/p?../q"},
    {"EmptySegments", "/p//q", "/p//q"},
    {"ColonBehindASlash", "p/q:r", "/a/b/p/q:r"},
    {"OthersAreEscaped", "/p q\xc3\xbc\"%41%zz", "/p%20q%C3%BC%22%41%25zz"},
    {"Https", "https://{T}/", "!'https://{T}/': https is not supported, only http is"},
    {"Mail", "mailto:me", "!'mailto:me': 'mailto' is not supported, only http is"},
    {"File", "file:///etc/passwd", "!'file:///etc/passwd': 'file' is not supported, only http is"},
    {"NoHost", "http:///p", "!'http:///p': there is no host name"},
    {"NoSlashes", "http:p", "!'http:p': there is no host name"},
    {"BadPort", "//x:y/", "!'//x:y/': ':y' is no port"},
    {"Credentials", "http://a:b@{T}/", "!'http://a:b@{T}/': it brings credentials of its own"},
    {"Escaped", "//\xc3\xbc\x9b/", "!'//\\xc3\\xbc\\x9b/': '\\xc3\\xbc\\x9b' is no host name"},
};
class KrogetLocationTest : public ::testing::TestWithParam<KrogetLocationCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetLocationTest, ::testing::ValuesIn(kLocations),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetLocationTest, IsFollowedOrRefused) {
  WireTarget target;
  target.always(WireScript()
                    .request()
                    .send(redirect(302, replaced(GetParam().location, "{T}", authority(target))))
                    .request()
                    .send(okReply("there")));
  const Ended ended = run({"-L", "{T}/a/b/c?d"}, &target);
  if (GetParam().target[0] == '!') {
    EXPECT_EQ(ended, failed(10, "http://{T}/a/b/c?d: cannot follow the redirect to " + GetParam().target.substr(1)));
    EXPECT_EQ(target.requests(), 1u);
    return;
  }
  EXPECT_EQ(ended, succeeded("there"));
  EXPECT_EQ(target.connection(0).requests().at(1).line, "GET " + GetParam().target + " HTTP/1.1");
}

TEST_F(KrogetTest, TenRedirectsAndNoMore) {
  WireTarget target;
  WireScript script;
  for (int i = 0; i < 10; ++i) script.request().send(redirect(302, "/" + std::to_string(i)));
  target.next(WireScript(script).request().send(okReply("there"))).next(script.request().send(redirect(302, "/more")));
  EXPECT_EQ(run({"-L", "{T}/x"}, &target), succeeded("there"));
  EXPECT_EQ(run({"-L", "{T}/x"}, &target), failed(10, kUrl + "more than 10 redirects"));
  EXPECT_EQ(target.connection(1).requestsTaken(), 11u);
}

TEST_F(KrogetTest, HeadsOfRedirectsArePrinted) {
  WireTarget target;
  target.always(WireScript().request().send(redirect(302, "/y")).request().send(okReply("there")));
  EXPECT_EQ(run({"-L", "-i", "{T}/x"}, &target), succeeded(headOfRedirect(302, "/y") + okReply("there")));
}

TEST_F(KrogetTest, SecretsAreNotToldToOthers) {
  WireTarget other;
  WireTarget target;
  other.always(WireScript().request().send(redirect(307, "http://" + authority(target) + "/back")));
  target.always(WireScript()
                    .request()
                    .send(redirect(307, "/again"))
                    .request()
                    .send(redirect(307, "http://" + authority(other) + "/"))
                    .request()
                    .send(okReply("home")));
  const Arguments secrets = {"-H", "Cookie: c", "-H", "Host: h", "-H", "X: y", "-L", "-H", "authorization: Basic YTpi"};
  EXPECT_EQ(run(withUrl(secrets), &target), succeeded("home"));
  for (const WireRequest& request : target.last().requests()) {
    EXPECT_EQ(request.header("Authorization"), "Basic YTpi") << request.wire;
    EXPECT_EQ(request.header("Cookie"), "c") << request.wire;
    EXPECT_EQ(request.header("Host"), "h") << request.wire;
  }
  const WireRequest foreign = other.last().requests().at(0);
  EXPECT_FALSE(foreign.has("Authorization"));
  EXPECT_FALSE(foreign.has("Cookie"));
  EXPECT_EQ(foreign.header("Host"), authority(other));
  EXPECT_EQ(foreign.header("X"), "y");
}

TEST_F(KrogetTest, UploadsAreSentAgain) {
  WireTarget target;
  target.always(WireScript().request().send(redirect(307, "/y")).request().send(okReply("")));
  const std::string path = folder.file("data", pattern(100000));
  EXPECT_EQ(run({"-L", "-T", path, "{T}/x"}, &target), succeeded());
  EXPECT_TRUE(target.connection(0).requests().at(1).body == pattern(100000));
  EXPECT_EQ(runInShell("\"$@\" < '" + path + "'", {"-L", "-T", "-", "{T}/x"}, &target),
            failed(9, "cannot read standard input: it cannot be read a second time"));
}

// --- telling ---------------------------------------------------------------------------------------------------------

TEST_F(KrogetTest, VerboseTellsHeads) {
  WireTarget target;
  target.always(answering(textReply(200, "O\x9bK", "ok", "1.1", "X: \xc3\xbc\r\n")));
  const std::string sent =
      "> GET /x HTTP/1.1\n> Host: {T}\n> User-Agent: kroget/" KROGET_VERSION "\n> Accept: */*\n>\n";
  const std::string got = "< HTTP/1.1 200 O\\x9bK\n< X: \\xc3\\xbc\n< Content-Length: 2\n<\n";
  EXPECT_EQ(
      run({"-v", "{T}/x", "{T}/x"}, &target),
      (Ended{"exit 0", "okok", "* connecting to {T}\n" + sent + got + "* using the connection to {T}\n" + sent + got}));
}

// A process on a terminal.
class OnTerminal {
 public:
  // Standard error is the terminal, and standard output too unless it is /dev/null.
  OnTerminal(const Arguments& arguments, bool outputToo, unsigned short width = 80) {
    int master = -1;
    int terminal = -1;
    winsize size = {24, width, 0, 0};
    EXPECT_EQ(openpty(&master, &terminal, nullptr, nullptr, &size), 0);
    master_.reset(master);
    const Descriptor slave(terminal);
    fcntl(master, F_SETFL, O_NONBLOCK);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    pid_ = fork();
    if (pid_ != 0) return;
    dup2(outputToo ? terminal : open("/dev/null", O_WRONLY), STDOUT_FILENO);
    dup2(terminal, STDERR_FILENO);
    std::vector<char*> argv;
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  ~OnTerminal() {
    if (ended()) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;

  const std::string& shown() {
    std::array<char, 4096> buffer;
    ssize_t count;
    while ((count = ::read(master_.get(), buffer.data(), buffer.size())) > 0)
      shown_.append(buffer.data(), static_cast<size_t>(count));
    return shown_;
  }
  bool ended() {
    if (!ended_ && waitpid(pid_, &status_, WNOHANG) == pid_) ended_ = true;
    return ended_;
  }
  int exitStatus() const { return WEXITSTATUS(status_); }

 private:
  Descriptor master_;
  pid_t pid_ = -1;
  bool ended_ = false;
  int status_ = 0;
  std::string shown_;
};

constexpr std::string_view kErase = "\r\x1b[K";
constexpr std::string_view kEndOfLine = "\x1b[K";

struct KrogetProgressCase {
  const char* name;
  std::string wire;  // the beginning of the reply, which stays there for a while
  std::string rest;
  std::string bar;  // what the bar begins with
};
void PrintTo(const KrogetProgressCase& row, std::ostream* out) { *out << row.name; }
const KrogetProgressCase kProgress[] = {
    {"KnownLength", "HTTP/1.1 200 OK\r\nContent-Length: 4096\r\n\r\n" + std::string(1024, 'x'), std::string(3072, 'x'),
     "\r 25% [######------------------] 1.0 KiB of 4.0 KiB, "},
    {"UnknownLength", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n", "0\r\n\r\n", "\r3 B, "},
};
class KrogetProgressTest : public KrogetTest, public ::testing::WithParamInterface<KrogetProgressCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetProgressTest, ::testing::ValuesIn(kProgress),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetProgressTest, IsShownAndErased) {
  bool seen = false;
  WireTarget target;
  target.always(WireScript().request().send(GetParam().wire).when([&] { return seen; }).send(GetParam().rest));
  OnTerminal process(commandLine({"{T}/x", "-o", folder.at("out")}, &target), true);
  EXPECT_TRUE(wait([&] { return process.shown().find(kEndOfLine) != std::string::npos; }));
  EXPECT_EQ(process.shown().rfind(GetParam().bar, 0), 0u) << process.shown();
  seen = true;
  EXPECT_TRUE(wait([&] { return process.ended(); }));
  EXPECT_EQ(process.exitStatus(), 0);
  EXPECT_TRUE(process.shown().ends_with(kErase)) << process.shown();
}

TEST_F(KrogetTest, ProgressFitsTheTerminal) {
  WireTarget target;
  target.always(WireScript().request().send(kProgress[0].wire));
  OnTerminal process(commandLine({"{T}/x", "-o", folder.at("out")}, &target), true, 20);
  EXPECT_TRUE(wait([&] { return process.shown().find(kEndOfLine) != std::string::npos; }));
  EXPECT_EQ(process.shown().substr(0, process.shown().find(kEndOfLine)), "\r 25% [######-------");
}

TEST_F(KrogetTest, ProgressOfAnUpload) {
  bool seen = false;
  WireTarget target(WireAddress::tcp(0), {.receiveBuffer = 65536});
  target.always(WireScript()
                    .head()
                    .call([](WireTargetConnection& connection) { connection.readAtMost(0); })
                    .when([&] { return seen; })
                    .call([](WireTargetConnection& connection) { connection.readAtMost(SIZE_MAX); })
                    .request()
                    .send(okReply("")));
  OnTerminal process(commandLine({"{T}/x", "-T", folder.file("large", std::string(16 << 20, 'x'))}, &target), true);
  EXPECT_TRUE(wait([&] { return process.shown().find(kEndOfLine) != std::string::npos; }));
  EXPECT_NE(process.shown().find("MiB of 16.0 MiB, "), std::string::npos) << process.shown();
  EXPECT_NE(process.shown().find(" left\x1b[K"), std::string::npos) << process.shown();
  seen = true;
  EXPECT_TRUE(wait([&] { return process.ended(); }));
  EXPECT_EQ(process.exitStatus(), 0);
  EXPECT_TRUE(process.shown().ends_with(kErase)) << process.shown();
}

TEST_F(KrogetTest, FailureErasesTheBarFirst) {
  bool seen = false;
  WireTarget target;
  target.always(WireScript()
                    .request()
                    .send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello")
                    .when([&] { return seen; })
                    .leave());
  OnTerminal process(commandLine({"{T}/x", "-o", folder.at("out")}, &target), true);
  EXPECT_TRUE(wait([&] { return process.shown().find(kEndOfLine) != std::string::npos; }));
  seen = true;
  EXPECT_TRUE(wait([&] { return process.ended(); }));
  EXPECT_EQ(process.exitStatus(), 6);
  const std::string end = std::string(kErase) + "kroget: http://" + authority(target) +
                          "/x: the reply was cut short after 5 of 10 bytes\r\n";
  EXPECT_TRUE(process.shown().ends_with(end)) << process.shown();
}

// Where nobody looks on, or the body itself is on the screen, there is no bar however long it takes.
struct KrogetNoBarCase {
  const char* name;
  bool outputToo;
  bool file;
  const char* shown;
};
void PrintTo(const KrogetNoBarCase& row, std::ostream* out) { *out << row.name; }
const KrogetNoBarCase kNoBar[] = {
    {"BodyOnTheTerminal", true, false, "helloworld"},
    {"OutputElsewhere", false, false, ""},
    {"OutputElsewhereButFile", false, true, ""},
};
class KrogetNoBarTest : public KrogetTest, public ::testing::WithParamInterface<KrogetNoBarCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetNoBarTest, ::testing::ValuesIn(kNoBar),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetNoBarTest, ShowsNothing) {
  std::chrono::steady_clock::time_point enough;  // a bar would have been there long before
  WireTarget target;
  target.always(WireScript()
                    .request()
                    .send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello")
                    .call([&](WireTargetConnection&) {
                      enough = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
                    })
                    .when([&] { return std::chrono::steady_clock::now() > enough; })
                    .send("world"));
  Arguments arguments = {"{T}/x"};
  if (GetParam().file) arguments.insert(arguments.end(), {"-o", folder.at("out")});
  OnTerminal process(commandLine(arguments, &target), GetParam().outputToo);
  EXPECT_TRUE(wait([&] { return process.ended(); }));
  EXPECT_EQ(process.exitStatus(), 0);
  EXPECT_EQ(process.shown(), GetParam().shown);
}

// --- with the daemon -------------------------------------------------------------------------------------------------

TEST_F(KrogetTest, TalksToTheDaemon) {
  folder.file("root/data", pattern(kFiveMiB));
  Daemon daemon(
      {"--listen", "127.0.0.1:0", "--listen", "unix:" + folder.at("socket"), "--demo", "--root", folder.at("root")}, 2);
  const std::string url = "http://127.0.0.1:" + std::to_string(daemon.address(0).port);
  EXPECT_EQ(run({url + "/hello", url + "/hello"}), succeeded("Hello, world!Hello, world!"));
  EXPECT_EQ(run({"-d", "abc", url + "/echo"}), succeeded("abc"));
  EXPECT_EQ(run({url + "/data", "-o", folder.at("copy")}), succeeded());
  EXPECT_TRUE(contentOf(folder.at("copy")) == pattern(kFiveMiB));
  EXPECT_EQ(run({"--unix", folder.at("socket"), "x/hello"}), succeeded("Hello, world!"));
  // More than all buffers on the way hold: it comes back while it is sent.
  const std::string large = folder.file("large", pattern(24 << 20));
  EXPECT_EQ(run({"-X", "POST", "-T", large, url + "/echo", "-o", folder.at("copy")}), succeeded());
  EXPECT_TRUE(contentOf(folder.at("copy")) == pattern(24 << 20));
  EXPECT_EQ(run({"-f", url + "/none"}), failed(8, url + "/none: 404 Not Found"));
}

}  // namespace
