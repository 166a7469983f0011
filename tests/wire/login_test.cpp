// krohttpd's logins from the outside: the file of users, what is protected and how, the login page, what failures cost.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <ostream>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "support/terminal.h"
#include "support/wire_process.h"

namespace {

using Arguments = std::vector<std::string>;

constexpr const char* kRealm = "Device";
constexpr const char* kPassword = "pa:ss w\xc3\xb6rd+%";

std::string ha1(const std::string& user, const std::string& password, const std::string& realm = kRealm) {
  const std::unique_ptr<char, decltype(&free)> hash(
      http_generateDigestHash(user.c_str(), realm.c_str(), password.c_str()), &free);
  return hash.get();
}

std::string userLine(const std::string& user, const std::string& password, const std::string& realm = kRealm) {
  return user + ":" + realm + ":" + ha1(user, password, realm) + "\n";
}

std::string readFile(const std::string& path) {
  std::string text(1 << 16, '\0');
  const Descriptor in(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const ssize_t count = read(in.get(), text.data(), text.size());
  text.resize(count < 0 ? 0 : static_cast<size_t>(count));
  return text;
}

// --- requests --------------------------------------------------------------------------------------------------------

std::string request(std::string_view method, std::string_view target, std::string_view headers = "",
                    std::string_view body = "") {
  std::string text =
      std::string(method) + " " + std::string(target) + " HTTP/1.1\r\nHost: x\r\n" + std::string(headers);
  if (!body.empty() || method == "POST") text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return text + "\r\n" + std::string(body);
}

std::string basic(const std::string& user, const std::string& password, const std::string& scheme = "Basic") {
  const std::string text = user + ":" + password;
  char* encoded = nullptr;
  EXPECT_EQ(http_base64Encode(text.data(), static_cast<unsigned>(text.size()), &encoded), 0);
  const std::unique_ptr<char, decltype(&free)> owned(encoded, &free);
  return "Authorization: " + scheme + " " + encoded + "\r\n";
}

// As a client makes it for a challenge that asks for "auth".
std::string digest(const std::string& user, const std::string& password, int method, const std::string& uri) {
  HttpHeader header{};
  header.code = HTTP_HEADER_AUTHORIZATION;
  header.authorization.scheme = HTTP_AUTH_DIGEST;
  header.authorization.username = strdup(user.c_str());
  header.authorization.password = strdup(ha1(user, password).c_str());
  header.authorization.method = method;
  header.authorization.realm = strdup(kRealm);
  header.authorization.nonce = strdup("nonce");
  header.authorization.uri = strdup(uri.c_str());
  header.authorization.qop = strdup("auth");
  const std::unique_ptr<HttpRequest, decltype(&http_requestDestroy)> message(http_requestCreate(),
                                                                             &http_requestDestroy);
  EXPECT_EQ(http_requestHeaderSet(message.get(), &header), 0);
  http_hdrCleanup(&header);
  const char* const value = http_requestHeaderValue(message.get(), "Authorization");
  EXPECT_NE(value, nullptr);
  return "Authorization: " + std::string(value != nullptr ? value : "") + "\r\n";
}

std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    std::array<char, 4> code;
    snprintf(code.data(), code.size(), "%%%02X", static_cast<unsigned char>(c));
    out += code.data();
  }
  return out;
}

std::string form(std::string_view user, std::string_view password, std::string_view next = "") {
  return "username=" + escaped(user) + "&password=" + escaped(password) +
         (next.empty() ? "" : "&next=" + escaped(next));
}

constexpr const char* kFormType = "Content-Type: application/x-www-form-urlencoded\r\n";

std::string login(std::string_view body, std::string_view headers = "") {
  return request("POST", "/login", kFormType + std::string(headers), body);
}

// --- a daemon with users ---------------------------------------------------------------------------------------------

class LoginTest : public ::testing::Test {
 protected:
  void SetUp() override {
    alarm(100);
    folder_.file("users", userLine("alice", kPassword) + userLine("bob", "b") + userLine("eve", "e", "Elsewhere"));
    folder_.file("root/index.html", "home");
    folder_.file("root/private/index.html", "secret");
    folder_.file("root/private/a.txt", "secret");
    folder_.file("root/privately.txt", "public");
    folder_.folder("root/empty");
  }
  void TearDown() override { alarm(0); }

  // With the users, the demonstration pages and some files.
  Arguments with(Arguments more) const {
    Arguments arguments = {"--listen",         "127.0.0.1:0", "--demo",           "--root",
                           folder_.at("root"), "--auth-file", folder_.at("users")};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  void start(Arguments more, size_t listeners = 1) { daemon_ = std::make_unique<Daemon>(with(more), listeners); }
  // Ends the daemon and gives back all that it has written.
  std::string finish() {
    daemon_->process().signal(SIGTERM);
    EXPECT_TRUE(waitUntil([&] { return daemon_->process().ended(); }));
    EXPECT_EQ(daemon_->process().outcome(), "exit 0");
    return daemon_->process().output() + daemon_->process().errors();
  }

  WireReply ask(std::string_view wire, size_t listener = 0) const {
    WireClient client(daemon_->address(listener));
    client.send(wire);
    EXPECT_TRUE(waitUntil([&] { return countReplies(client.received(), client.ended()) == 1; })) << wire;
    const std::vector<WireReply> replies = takeReplies(client.received(), client.ended());
    return replies.empty() ? WireReply{"HTTP/1.1 000 none", {}, "", ""} : replies[0];
  }
  // The Cookie header of a new session.
  std::string session(std::string_view user = "alice", std::string_view password = kPassword) const {
    return cookieOf(ask(login(form(user, password))));
  }
  static std::string cookieOf(const WireReply& reply) {
    EXPECT_EQ(reply.status(), 303u) << reply.wire;
    const std::string cookies = reply.header("Set-Cookie");
    const size_t at = cookies.rfind("kro/sessid=");
    return at == std::string::npos ? "" : "Cookie: " + cookies.substr(at, cookies.find(';', at) - at) + "\r\n";
  }
  // Uses up what costs nothing.
  void failThreeTimes() const {
    for (int i = 0; i < 3; ++i) EXPECT_EQ(ask(login(form("alice", "wrong"))).status(), 401u);
  }

  TemporaryFolder folder_;
  std::unique_ptr<Daemon> daemon_;
};

struct Ended {
  std::string outcome;
  std::string output;
  std::string errors;
};
Ended run(const Arguments& command) {
  ChildProcess process(command);
  EXPECT_TRUE(waitUntil([&] { return process.ended(); }));
  return {process.outcome(), process.output(), process.errors()};
}

// --- the command line ------------------------------------------------------------------------------------------------

struct OptionCase {
  const char* name;
  Arguments arguments;
};
void PrintTo(const OptionCase& row, std::ostream* out) { *out << row.name; }
const OptionCase kWrongOptions[] = {
    {"ProtectWithoutFile", {"--demo", "--protect", "/=basic"}},
    {"ProtectWithoutScheme", {"--demo", "--auth-file", "/dev/null", "--protect", "/"}},
    {"ProtectWithEmptyScheme", {"--demo", "--auth-file", "/dev/null", "--protect", "/="}},
    {"ProtectWithUnknownScheme", {"--demo", "--auth-file", "/dev/null", "--protect", "/=Basic"}},
    {"ProtectWithoutPrefix", {"--demo", "--auth-file", "/dev/null", "--protect", "=basic"}},
    {"ProtectRelative", {"--demo", "--auth-file", "/dev/null", "--protect", "a=basic"}},
    {"ProtectUpwards", {"--demo", "--auth-file", "/dev/null", "--protect", "/a/../b=basic"}},
    {"ProtectTwice", {"--demo", "--auth-file", "/dev/null", "--protect", "/a=basic", "--protect", "//a/.=digest"}},
    {"ProtectWithoutValue", {"--demo", "--auth-file", "/dev/null", "--protect"}},
    {"AuthFileWithoutValue", {"--demo", "--auth-file"}},
    {"AuthFileAlone", {"--auth-file", "/dev/null"}},
    {"TimeoutOfNoNumber", {"--demo", "--session-timeout", "soon"}},
    {"TimeoutNegative", {"--demo", "--session-timeout", "-1"}},
    {"TimeoutHuge", {"--demo", "--session-timeout", "31536001"}},
    {"AddUserWithoutValues", {"--add-user"}},
    {"AddUserWithTwo", {"--add-user", "/nonexistent/file", "user"}},
    {"AddUserWithFour", {"--add-user", "/nonexistent/file", "user", "realm", "password"}},
    {"AddUserAndMore", {"--add-user", "/nonexistent/file", "user", "realm", "--demo"}},
};
class LoginOptionTest : public ::testing::TestWithParam<OptionCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, LoginOptionTest, ::testing::ValuesIn(kWrongOptions),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(LoginOptionTest, IsToldInOneLine) {
  const Ended result = run(daemonCommand(GetParam().arguments));
  EXPECT_EQ(result.outcome, "exit 2");
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(linesOf(result.errors).size(), 1u) << result.errors;
  EXPECT_EQ(result.errors.rfind("krohttpd: ", 0), 0u) << result.errors;
}

// --- the file --------------------------------------------------------------------------------------------------------

constexpr const char* kHash = "0123456789abcdef0123456789abcdef";

struct FileCase {
  const char* name;
  std::string content;
  std::string complaint;  // behind the file's name
};
void PrintTo(const FileCase& row, std::ostream* out) { *out << row.name; }
const FileCase kMalformed[] = {
    {"Empty", "", ":0: no user up to the end of the file"},
    {"OnlyComments", "# a\n\n", ":2: no user up to the end of the file"},
    {"NoColon", "alice\n", ":1: not USER:REALM:HA1"},
    {"OneColon", std::string("alice:") + kHash + "\n", ":1: not USER:REALM:HA1"},
    {"ThreeColons", std::string("alice:r:") + kHash + ":x\n", ":1: HA1 is not 32 hexadecimal digits"},
    {"NoUser", std::string(":r:") + kHash + "\n", ":1: the user is empty"},
    {"NoRealm", std::string("alice::") + kHash + "\n", ":1: the realm is empty"},
    {"NoHash", "alice:r:\n", ":1: HA1 is not 32 hexadecimal digits"},
    {"ShortHash", "alice:r:0123456789abcdef0123456789abcde\n", ":1: HA1 is not 32 hexadecimal digits"},
    {"LongHash", std::string("alice:r:") + kHash + "0\n", ":1: HA1 is not 32 hexadecimal digits"},
    {"HashOfOtherLetters", "alice:r:0123456789abcdefg123456789abcdef\n", ":1: HA1 is not 32 hexadecimal digits"},
    {"CarriageReturn", std::string("alice:r:") + kHash + "\r\n", ":1: HA1 is not 32 hexadecimal digits"},
    {"ControlCharacter", std::string("al\tice:r:") + kHash + "\n", ":1: the user has a control character in it"},
    {"Nul", std::string("al\0ice:r:", 9) + kHash + "\n", ":1: the user has a control character in it"},
    {"QuoteInRealm", std::string("alice:a\"b:") + kHash + "\n", ":1: the realm has a quote or a backslash in it"},
    {"LongUser", std::string(201, 'a') + ":r:" + kHash + "\n", ":1: the user is longer than 200 bytes"},
    {"Twice", std::string("# users\n\nalice:r:") + kHash + "\nbob:r:" + kHash + "\nalice:r:" + kHash + "\n",
     ":5: the user has a line already"},
    {"LaterLine", std::string("alice:r:") + kHash + "\n \t\n#\nnonsense\n", ":4: not USER:REALM:HA1"},
};
class MalformedFileTest : public LoginTest, public ::testing::WithParamInterface<FileCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, MalformedFileTest, ::testing::ValuesIn(kMalformed),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(MalformedFileTest, IsToldWithFileAndLine) {
  const std::string path = folder_.file("users", GetParam().content);
  for (const Arguments& more : {Arguments{}, Arguments{"--protect", "/=basic"}}) {
    const Ended result = run(daemonCommand(with(more)));
    EXPECT_EQ(result.outcome, "exit 1");
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "krohttpd: " + path + GetParam().complaint + "\n");
  }
}

TEST_F(LoginTest, FileThatCannotBeRead) {
  for (const auto& [path, reason] :
       {std::pair<std::string, const char*>{"/nonexistent/users", "No such file or directory"},
        {folder_.path(), "Is a directory"}}) {
    const Ended result = run(daemonCommand({"--demo", "--auth-file", path}));
    EXPECT_EQ(result.outcome, "exit 1");
    EXPECT_EQ(result.errors, "krohttpd: cannot read " + path + ": " + reason + "\n");
  }
}

TEST_F(LoginTest, FileWithAllThatIsAllowed) {
  std::string upper = ha1("carol", "c");
  std::transform(upper.begin(), upper.end(), upper.begin(), toupper);
  folder_.file("users", "# users\n\n \t\ncarol:" + std::string(kRealm) + ":" + upper + "\n" +
                            userLine("carol", "other", "Elsewhere") + userLine("d. a-v_e@x", "d") +
                            userLine(std::string(200, 'u'), "u") + "no:newline:" + kHash);
  start({"--protect", "/hello=basic", "--protect", "/status=digest"});
  EXPECT_EQ(ask(request("GET", "/hello", basic("carol", "c"))).status(), 200u);
  EXPECT_EQ(ask(request("GET", "/hello", basic("d. a-v_e@x", "d"))).status(), 200u);
  EXPECT_EQ(ask(request("GET", "/hello", basic(std::string(200, 'u'), "u"))).status(), 200u);
  EXPECT_EQ(ask(request("GET", "/status", digest("carol", "c", HTTP_METHOD_GET, "/status"))).status(), 200u);
  EXPECT_EQ(ask(request("GET", "/hello")).header("WWW-Authenticate"), "Basic realm=\"Device\"");
}

// --- Basic -----------------------------------------------------------------------------------------------------------

struct CredentialsCase {
  const char* name;
  std::string headers;
  unsigned status;
};
void PrintTo(const CredentialsCase& row, std::ostream* out) { *out << row.name; }
const CredentialsCase kBasics[] = {
    {"Right", basic("alice", kPassword), 200},
    {"OtherUser", basic("bob", "b"), 200},
    {"WordOfTheFramework", basic("bob", "b", "Kro"), 200},
    {"HeaderOfTheFramework", "X-KRO-" + basic("bob", "b"), 200},
    {"HeaderOfTheFrameworkFirst", "X-KRO-" + basic("bob", "wrong") + basic("bob", "b"), 401},
    {"None", "", 401},
    {"WrongPassword", basic("alice", "wrong"), 401},
    {"PasswordOfAnother", basic("alice", "b"), 401},
    {"LongerPassword", basic("bob", "bb"), 401},
    {"EmptyPassword", basic("bob", ""), 401},
    {"NoUser", basic("", "b"), 401},
    {"UnknownUser", basic("mallory", "b"), 401},
    {"UserOfAnotherRealm", basic("eve", "e"), 401},
    {"OtherCase", basic("Bob", "b"), 401},
    {"HashForPassword", basic("bob", ha1("bob", "b")), 401},
    {"NoColon", "Authorization: Basic Ym9i\r\n", 401},
    {"NoBase64", "Authorization: Basic !!!!\r\n", 401},
    {"OnlyTheWord", "Authorization: Basic\r\n", 401},
    {"AnotherScheme", "Authorization: Bearer abc\r\n", 401},
    {"DigestInstead", digest("bob", "b", HTTP_METHOD_GET, "/hello"), 401},
    {"LongPassword", basic("bob", std::string(700, 'b')), 401},
};
class BasicTest : public LoginTest, public ::testing::WithParamInterface<CredentialsCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, BasicTest, ::testing::ValuesIn(kBasics),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(BasicTest, IsJudged) {
  start({"--protect", "/=basic"});
  const WireReply reply = ask(request("GET", "/hello", GetParam().headers));
  EXPECT_EQ(reply.status(), GetParam().status) << reply.wire;
  EXPECT_EQ(reply.header("WWW-Authenticate"), GetParam().status == 401 ? "Basic realm=\"Device\"" : "");
  EXPECT_EQ(reply.body == "Hello, world!", GetParam().status == 200) << reply.body;
  EXPECT_NE(reply.header("Date"), "");
}

// All characters that the library hashes count: with a longer password the end of it would not.
TEST_F(LoginTest, PasswordIsHashedWholeOrNotAtAll) {
  const std::string longest(600 - std::strlen("bob:Device:"), 'b');
  folder_.file("users", userLine("bob", longest));
  start({"--protect", "/=basic"});
  EXPECT_EQ(ask(request("GET", "/hello", basic("bob", longest))).status(), 200u);
  EXPECT_EQ(ask(request("GET", "/hello", basic("bob", longest + "x"))).status(), 401u);
}

TEST_F(LoginTest, EveryDigitOfTheHashCounts) {
  const std::string right = ha1("bob", "b");
  for (size_t at = 0; at < right.size(); ++at) {
    std::string hash = right;
    hash[at] = hash[at] == '0' ? '1' : '0';
    folder_.file("users", "bob:" + std::string(kRealm) + ":" + hash + "\n");
    start({"--protect", "/=basic"});
    EXPECT_EQ(ask(request("GET", "/hello", basic("bob", "b"))).status(), 401u) << at;
  }
}

// --- Digest ----------------------------------------------------------------------------------------------------------

struct DigestCase {
  const char* name;
  const char* method;
  const char* target;
  std::string headers;
  unsigned status;
};
void PrintTo(const DigestCase& row, std::ostream* out) { *out << row.name; }

std::string without(std::string text, const std::string& piece) {
  const size_t at = text.find(piece);
  EXPECT_NE(at, std::string::npos) << text;
  return text.erase(at, piece.size());
}
std::string aliceFor(const char* uri, int method = HTTP_METHOD_GET) { return digest("alice", kPassword, method, uri); }

const DigestCase kDigests[] = {
    {"Right", "GET", "/hello", aliceFor("/hello"), 200},
    {"WithQuery", "GET", "/hello?a=1&b=%20c", aliceFor("/hello?a=1&b=%20c"), 200},
    {"PathEscapedOtherwise", "GET", "/he%6cl%6F", aliceFor("/hell%6f"), 200},
    {"Post", "POST", "/echo", aliceFor("/echo", HTTP_METHOD_POST), 200},
    {"HeaderOfTheFramework", "GET", "/hello", "X-KRO-" + aliceFor("/hello"), 200},
    {"None", "GET", "/hello", "", 401},
    {"WrongPassword", "GET", "/hello", digest("alice", "wrong", HTTP_METHOD_GET, "/hello"), 401},
    {"UnknownUser", "GET", "/hello", digest("mallory", "b", HTTP_METHOD_GET, "/hello"), 401},
    {"UserOfAnotherRealm", "GET", "/hello", digest("eve", "e", HTTP_METHOD_GET, "/hello"), 401},
    {"OtherMethod", "POST", "/echo", aliceFor("/echo"), 401},
    {"BasicInstead", "GET", "/hello", basic("alice", kPassword), 401},
    {"OtherPath", "GET", "/hello", aliceFor("/status"), 400},
    {"OtherQuery", "GET", "/hello?a=1", aliceFor("/hello?a=2"), 400},
    {"QueryEscapedOtherwise", "GET", "/hello?a=1%26b", aliceFor("/hello?a=1&b"), 400},
    {"NoQuery", "GET", "/hello?a=1", aliceFor("/hello"), 400},
    {"QueryTooMany", "GET", "/hello", aliceFor("/hello?a=1"), 400},
    {"NoUri", "GET", "/hello", without(aliceFor("/hello"), "uri=\"/hello\", "), 400},
    {"EmptyUri", "GET", "/hello", without(aliceFor("/hello"), "/hello"), 400},
    {"UriWithoutPath", "GET", "/hello", aliceFor("*"), 400},
    {"WordOnly", "GET", "/hello", "Authorization: Digest x\r\n", 400},
    // The library's header for credentials is the one that is judged, so it is the one whose target counts.
    {"RightTargetInTheWrongHeader", "GET", "/hello", "X-KRO-" + aliceFor("/status") + aliceFor("/hello"), 400},
};
class DigestTest : public LoginTest, public ::testing::WithParamInterface<DigestCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, DigestTest, ::testing::ValuesIn(kDigests),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(DigestTest, IsJudged) {
  start({"--protect", "/=digest"});
  const WireReply reply = ask(request(GetParam().method, GetParam().target, GetParam().headers));
  EXPECT_EQ(reply.status(), GetParam().status) << reply.wire;
  const std::regex challenge(
      "Digest realm=\"Device\", nonce=\"[A-Za-z0-9]{34}\", opaque=\"[A-Za-z0-9]{32}\", "
      "algorithm=\"MD5\", qop=\"auth\"");
  if (GetParam().status == 401) {
    EXPECT_TRUE(std::regex_match(reply.header("WWW-Authenticate"), challenge)) << reply.wire;
  } else {
    EXPECT_FALSE(reply.has("WWW-Authenticate"));
  }
}

TEST_F(LoginTest, OneConnectionForQuestionAndAnswer) {
  start({"--protect", "/=digest"});
  WireClient client(daemon_->address());
  client.send(request("POST", "/echo"));
  ASSERT_TRUE(waitUntil([&] { return countReplies(client.received()) == 1; }));
  client.send(request("POST", "/echo", aliceFor("/echo", HTTP_METHOD_POST), "hello"));
  ASSERT_TRUE(waitUntil([&] { return countReplies(client.received()) == 2; }));
  client.send(request("GET", "/hello", aliceFor("/hello")));
  ASSERT_TRUE(waitUntil([&] { return countReplies(client.received()) == 3; }));
  const std::vector<WireReply> replies = takeReplies(client.received());
  EXPECT_EQ(replies[0].status(), 401u);
  EXPECT_EQ(replies[1].body, "hello");
  EXPECT_EQ(replies[2].body, "Hello, world!");
}

// What was to be posted is not taken for the next request.
TEST_F(LoginTest, RefusedBodyEndsTheConnection) {
  start({"--protect", "/=basic"});
  WireClient client(daemon_->address());
  client.send(request("POST", "/echo", "", request("GET", "/hello", basic("bob", "b"))));
  ASSERT_TRUE(waitUntil([&] { return client.ended(); }));
  const std::vector<WireReply> replies = takeReplies(client.received(), true);
  ASSERT_EQ(replies.size(), 1u) << client.received();
  EXPECT_EQ(replies[0].status(), 401u);
  EXPECT_EQ(replies[0].header("Connection"), "close");
}

// --- what is protected -----------------------------------------------------------------------------------------------

struct PathCase {
  const char* name;
  const char* target;
  unsigned status;  // without credentials
};
void PrintTo(const PathCase& row, std::ostream* out) { *out << row.name; }
const PathCase kPaths[] = {
    {"Folder", "/private", 401},
    {"FolderWithSlash", "/private/", 401},
    {"File", "/private/a.txt", 401},
    {"FileWithQuery", "/private/a.txt?x", 401},
    {"Missing", "/private/missing", 401},
    {"Escaped", "/%70rivate/a.txt", 401},
    {"EscapedSlash", "/private%2fa.txt", 401},
    {"EscapedLeadingSlash", "/%2fprivate/a.txt", 401},
    {"TwoSlashes", "//private/a.txt", 401},
    {"ManySlashes", "////private////a.txt", 401},
    {"Dot", "/./private/a.txt", 401},
    {"DotsBetweenSlashes", "/.//./private/./a.txt", 401},
    {"EscapedDot", "/%2e/private/a.txt", 401},
    {"TrailingDot", "/private/.", 401},
    {"TrailingDots", "/private/././", 401},
    {"WordBeforeThePath", "x/private/a.txt", 400},
    {"CutByNul", "/private/a.txt%00x", 400},
    {"CutByNoNumber", "/private/a.txt%zz", 400},
    {"CutAfterFolder", "/private%00/x", 400},
    {"Upwards", "/empty/../private/a.txt", 400},
    {"UpwardsEscaped", "/empty/%2e%2e/private/a.txt", 400},
    {"UpwardsEscapedSlash", "/empty/..%2fprivate/a.txt", 400},
    {"UpwardsHalfEscaped", "/empty/.%2E/private/a.txt", 400},
    {"UpwardsAtTheEnd", "/private/..", 400},
    {"UpwardsAfterNothing", "/../private/a.txt", 400},
    {"UpwardsElsewhere", "/empty/../hello", 400},
    {"Page", "/status", 401},
    {"PageWithSlash", "/status/", 401},
    {"IndexByItsFolder", "/indexed/", 401},
    {"IndexByItsFolderWithoutSlash", "/indexed", 401},
    {"Index", "/indexed/index.html", 401},
    {"IndexCompressed", "/indexed/index.html.gz", 401},
    {"IndexOfACompressedName", "/packed", 401},
    {"IndexThatIsAFolder", "/nested", 401},
    {"IndexThatIsAFolderByName", "/nested/index.html", 401},
    {"NameOfADotCompressed", "/dot/.", 401},
    {"FileByName", "/one.txt", 401},
    {"FileCompressed", "/one.txt.gz", 401},
    {"CompressedByOtherName", "/two.txt", 401},
    {"Forwarded", "/back/hello", 401},
    {"ForwardedItself", "/back", 401},
    {"ForwardedTwoSlashes", "/back//hello", 401},
    {"LongerWord", "/privately.txt", 200},
    {"OtherPage", "/hello", 200},
    {"Home", "/", 200},
    {"DotsInAName", "/..hello..", 404},
    {"DoublyEscaped", "/%2570rivate/a.txt", 404},
    {"OtherCase", "/Private/a.txt", 404},
    {"LoginPageWithoutSessions", "/login", 404},
};
class PathTest : public LoginTest, public ::testing::WithParamInterface<PathCase> {
 protected:
  void SetUp() override {
    LoginTest::SetUp();
    folder_.file("root/indexed/index.html", "secret");
    folder_.file("root/packed.gz/index.html.gz", "secret");
    folder_.file("root/nested/index.html/index.html", "secret");
    folder_.file("root/dot/..gz", "secret");
    folder_.file("root/one.txt.gz", "secret");
    folder_.file("root/two.txt.gz", "secret");
    back_ = std::make_unique<Daemon>(Arguments{"--listen", "127.0.0.1:0", "--demo"});
    start({"--protect", "/private/=basic",
           "--protect", "/status=basic",
           "--protect", "/indexed/index.html=basic",
           "--protect", "/packed.gz/index.html.gz=basic",
           "--protect", "/nested/index.html/index.html=basic",
           "--protect", "/dot/..gz=basic",
           "--protect", "/one.txt=basic",
           "--protect", "/two.txt.gz=basic",
           "--protect", "/back=basic",
           "--proxy",   "/back=tcp:127.0.0.1:" + std::to_string(back_->address().port)});
  }
  std::unique_ptr<Daemon> back_;
};
INSTANTIATE_TEST_SUITE_P(Krohttpd, PathTest, ::testing::ValuesIn(kPaths),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(PathTest, CannotBeGoneAround) {
  for (const char* method : {"GET", "OPTIONS", "POST", "DELETE"}) {
    const WireReply reply = ask(request(method, GetParam().target));
    EXPECT_EQ(reply.wire.find("secret"), std::string::npos) << reply.wire;
    if (GetParam().status == 401 || GetParam().status == 400) {
      EXPECT_EQ(reply.status(), GetParam().status) << method << " " << reply.wire;
    } else {
      EXPECT_NE(reply.status(), 401u) << method << " " << reply.wire;
    }
  }
  EXPECT_EQ(ask(request("GET", GetParam().target)).status(), GetParam().status);
}

// What a strict daemon refuses is cut short, or skipped, by a lenient one before it looks.
TEST_F(LoginTest, NorByWhatALenientDaemonTakes) {
  start({"--protect", "/private/=basic", "--lenient"});
  for (const char* target : {"x/private/a.txt", "/private/a.txt%00x", "/private/a.txt%zz", "/private%00/x"})
    EXPECT_EQ(ask(request("GET", target)).status(), 401u) << target;
  start({"--protect", "/=session", "--lenient"});
  EXPECT_EQ(ask(request("GET", "/%00")).status(), 401u);
}

// With credentials the same paths lead to what is there.
TEST_F(PathTest, OpenForUsers) {
  const std::string user = basic("bob", "b");
  EXPECT_EQ(ask(request("GET", "/private/", user)).body, "secret");
  EXPECT_EQ(ask(request("GET", "//private/./a.txt", user)).body, "secret");
  EXPECT_EQ(ask(request("GET", "/indexed/", user)).body, "secret");
  EXPECT_EQ(ask(request("GET", "/two.txt", user)).body, "secret");
  EXPECT_EQ(ask(request("GET", "/status", user)).status(), 200u);
  EXPECT_EQ(ask(request("GET", "/back/hello", user)).status(), 404u);  // the target is asked for the whole path
  EXPECT_EQ(ask(request("GET", "/private/../hello", user)).status(), 400u);
}

TEST_F(LoginTest, LongestPrefixWins) {
  folder_.file("root/private/shown/deep/a.txt", "deep");
  // Wherever it stands.
  start({"--protect", "/private/shown=basic", "--protect", "/private/shown/deep=session", "--protect",
         "/private=digest"});
  EXPECT_EQ(ask(request("GET", "/private/a.txt")).header("WWW-Authenticate").substr(0, 7), "Digest ");
  EXPECT_EQ(ask(request("GET", "/private/shown/")).header("WWW-Authenticate").substr(0, 6), "Basic ");
  EXPECT_EQ(ask(request("GET", "/private/shown/deep/a.txt")).header("WWW-Authenticate").substr(0, 7), "Cookie ");
  // One does not do for the other.
  EXPECT_EQ(ask(request("GET", "/private/a.txt", basic("bob", "b"))).status(), 401u);
  EXPECT_EQ(ask(request("GET", "/private/shown/deep/a.txt", basic("bob", "b"))).status(), 401u);
}

// Of the names of a file, too: that of its folder has the shorter one.
TEST_F(LoginTest, LongestPrefixOfAllNamesWins) {
  start({"--protect", "/private=basic", "--protect", "/private/index.html=digest", "--protect", "/privat=session"});
  EXPECT_EQ(ask(request("GET", "/private/")).header("WWW-Authenticate").substr(0, 7), "Digest ");
  EXPECT_EQ(ask(request("GET", "/private/a.txt")).header("WWW-Authenticate").substr(0, 6), "Basic ");
}

TEST_F(LoginTest, EverythingIsProtectedButTheLoginPage) {
  start({"--protect", "/=session"});
  for (const char* target : {"/", "/hello", "/missing", "//login", "/login/", "/logout/x", "/%20"})
    EXPECT_EQ(ask(request("GET", target)).status(), 401u) << target;
  EXPECT_EQ(ask(request("GET", "/%00")).status(), 400u);
  EXPECT_EQ(ask(request("GET", "/login")).status(), 200u);
  EXPECT_EQ(ask(request("GET", "/hello", session())).body, "Hello, world!");
}

// --- the login page --------------------------------------------------------------------------------------------------

class SessionTest : public LoginTest {
 protected:
  void SetUp() override {
    LoginTest::SetUp();
    start({"--protect", "/private=session", "--protect", "/echo=session"});
  }
};

TEST_F(SessionTest, PageNeedsNothingElse) {
  const WireReply page = ask(request("GET", "/login"));
  EXPECT_EQ(page.status(), 200u);
  EXPECT_EQ(page.header("Content-Type"), "text/html; charset=utf-8");
  EXPECT_EQ(page.header("Cache-Control"), "no-store");
  EXPECT_EQ(page.header("X-Frame-Options"), "DENY");
  EXPECT_NE(page.header("Content-Security-Policy").find("default-src 'none'"), std::string::npos);
  for (const char* piece :
       {"<html lang=\"en\">", "<form method=\"post\" action=\"/login\">", "<label for=\"username\">",
        "<label for=\"password\">", "autocomplete=\"username\"", "autocomplete=\"current-password\"", "autofocus",
        "<h1>Log in</h1>", "prefers-color-scheme: dark", "type=\"password\"", "<button type=\"submit\">", "Device"})
    EXPECT_NE(page.body.find(piece), std::string::npos) << piece;
  for (const char* piece : {"<script", "src=", "@import", "url(", "http://", "https://", "role=\"alert\""})
    EXPECT_EQ(page.body.find(piece), std::string::npos) << piece;
}

struct DemandCase {
  const char* name;
  std::string wire;
  const char* location;  // null: 401
};
void PrintTo(const DemandCase& row, std::ostream* out) { *out << row.name; }
constexpr const char* kBrowser = "Accept: text/html,application/xhtml+xml;q=0.9,*/*;q=0.8\r\n";
const DemandCase kDemands[] = {
    {"Page", request("GET", "/private/", kBrowser), "/login?next=/private/"},
    {"Head", request("HEAD", "/private/", kBrowser), "/login?next=/private/"},
    {"Query", request("GET", "/private/a.txt?x=1&y=%2F%20+", kBrowser),
     "/login?next=/private/a.txt%3Fx%3D1%26y%3D%252F%2520%2B"},
    {"SpecialCharacters", request("GET", "/private/%25%22%26%3f%23%20%0a%c3%b6", kBrowser),
     "/login?next=/private/%2525%2522%2526%253F%2523%2520%250A%25C3%25B6"},
    {"ManySlashes", request("GET", "//private/./a.txt", kBrowser), "/login?next=/private/a.txt"},
    {"QueryThatIsNoAddress", request("GET", "/private/?\\", kBrowser), "/login"},
    {"LongQuery", request("GET", "/private/?" + std::string(2500, 'x'), kBrowser), "/login"},
    {"ProgramThatTakesAll", request("GET", "/private/", "Accept: */*\r\n"), nullptr},
    {"ProgramThatSaysNothing", request("GET", "/private/"), nullptr},
    {"BrowserThatPosts", request("POST", "/echo", kBrowser, "x"), nullptr},
    {"StaleCookie", request("GET", "/private/", kBrowser + std::string("Cookie: kro/sessid=old\r\n")),
     "/login?next=/private/"},
};
class DemandTest : public SessionTest, public ::testing::WithParamInterface<DemandCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, DemandTest, ::testing::ValuesIn(kDemands),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(DemandTest, SendsBrowsersToThePage) {
  const WireReply reply = ask(GetParam().wire);
  EXPECT_EQ(reply.status(), GetParam().location != nullptr ? 303u : 401u) << reply.wire;
  EXPECT_EQ(reply.header("Location"), GetParam().location != nullptr ? GetParam().location : "");
  EXPECT_EQ(reply.header("Cache-Control"), "no-store");
  if (GetParam().location != nullptr) return;
  EXPECT_EQ(reply.header("WWW-Authenticate"), "Cookie realm=\"Device\", form-action=\"/login\"");
  EXPECT_EQ(reply.body, "Log in at /login first.\n");
}

TEST_F(SessionTest, FromThePageToWhatWasWanted) {
  const std::string wanted = "/private/a.txt?x=1&y=%20";
  const WireReply demand = ask(request("GET", wanted, kBrowser));
  const WireReply page = ask(request("GET", demand.header("Location")));
  EXPECT_NE(page.body.find("name=\"next\" value=\"/private/a.txt?x=1&amp;y=%20\""), std::string::npos) << page.body;
  const WireReply entered = ask(login(form("alice", kPassword, wanted)));
  EXPECT_EQ(entered.status(), 303u);
  EXPECT_EQ(entered.header("Location"), wanted);
  EXPECT_TRUE(std::regex_match(entered.header("Set-Cookie"),
                               std::regex("kro/sessid=[A-Za-z0-9+/]{24}; path=/; HttpOnly; SameSite=Lax")))
      << entered.wire;
  const WireReply shown = ask(request("GET", wanted, cookieOf(entered)));
  EXPECT_EQ(shown.body, "secret");
  EXPECT_EQ(shown.header("Cache-Control"), "no-store");
}

TEST_F(SessionTest, WrongPassword) {
  const WireReply reply = ask(login(form("\"><b>'&", "wr0ng-secret", "/private/")));
  EXPECT_EQ(reply.status(), 401u);
  EXPECT_FALSE(reply.has("Set-Cookie"));
  EXPECT_NE(reply.body.find("role=\"alert\">The user name or the password is wrong.<"), std::string::npos)
      << reply.body;
  EXPECT_NE(reply.body.find("value=\"&quot;&gt;&lt;b&gt;'&amp;\""), std::string::npos) << reply.body;
  EXPECT_NE(reply.body.find("name=\"next\" value=\"/private/\""), std::string::npos) << reply.body;
  EXPECT_NE(reply.body.find("aria-describedby=\"error\""), std::string::npos);
  EXPECT_EQ(reply.wire.find("wr0ng"), std::string::npos);
}

struct NextCase {
  const char* name;
  std::string next;
  bool followed;
};
void PrintTo(const NextCase& row, std::ostream* out) { *out << row.name; }
const NextCase kNexts[] = {
    {"Path", "/private/a.txt", true},
    {"Query", "/private/?a=/b&c=//d", true},
    {"Root", "/", true},
    {"Escapes", "/%0d%0ax%5c", true},
    {"Empty", "", false},
    {"Relative", "private/", false},
    {"OtherServer", "http://evil.example/", false},
    {"OtherHost", "//evil.example/", false},
    {"ThreeSlashes", "///evil.example/", false},
    {"Backslash", "/\\evil.example/", false},
    {"BackslashFirst", "\\/evil.example/", false},
    {"BackslashLater", "/a\\b", false},
    {"TabBetween", "/\t/evil.example/", false},
    {"NewlineBetween", "/\n/evil.example/", false},
    {"NewHeader", "/\r\nSet-Cookie: a=b", false},
    {"Blank", "/a b", false},
    {"BlankFirst", " /a", false},
    {"Delete", "/a\x7f", false},
    {"NotAscii", "/\xc3\xb6", false},
    {"Script", "javascript:alert(1)", false},
    {"Long", "/" + std::string(2048, 'a'), false},
};
class NextTest : public SessionTest, public ::testing::WithParamInterface<NextCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, NextTest, ::testing::ValuesIn(kNexts),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(NextTest, LeadsNowhereElse) {
  const NextCase& row = GetParam();
  const WireReply entered = ask(login(form("bob", "b") + "&next=" + escaped(row.next)));
  EXPECT_EQ(entered.status(), 303u) << entered.wire;
  EXPECT_EQ(entered.header("Location"), row.followed ? row.next : "/");
  // Neither does the page of those who are logged in, nor what the form keeps.
  const WireReply page = ask(request("GET", "/login?next=" + escaped(row.next), cookieOf(entered)));
  std::string link = "/";
  if (row.followed) link = std::regex_replace(row.next, std::regex("&"), "&amp;");
  EXPECT_NE(page.body.find("<a href=\"" + link + "\">"), std::string::npos) << page.body;
  const WireReply asked = ask(request("GET", "/login?next=" + escaped(row.next)));
  EXPECT_EQ(asked.body.find("name=\"next\"") != std::string::npos, row.followed) << asked.body;
}

// A form may have any byte in it; in an address this one ends the value.
TEST_F(SessionTest, TargetWithANul) {
  EXPECT_EQ(ask(login(form("bob", "b") + "&next=/a%00b")).header("Location"), "/");
  EXPECT_NE(ask(request("GET", "/login?next=/a%00//b")).body.find("value=\"/a\""), std::string::npos);
}

struct FormCase {
  const char* name;
  std::string wire;
  unsigned status;
};
void PrintTo(const FormCase& row, std::ostream* out) { *out << row.name; }
std::string formOf(size_t size) {
  std::string text = form("bob", "b") + "&x=";
  return text.append(size - text.size(), 'x');
}
std::string chunkedLogin(std::string_view body) {
  return "POST /login HTTP/1.1\r\nHost: x\r\n" + std::string(kFormType) + "Transfer-Encoding: chunked\r\n\r\n" +
         chunked(body, 100);
}
const FormCase kForms[] = {
    {"Right", login(form("bob", "b")), 303},
    {"InChunks", chunkedLogin(form("bob", "b")), 303},
    {"WithCharset",
     request("POST", "/login", "Content-Type: Application/X-WWW-Form-Urlencoded; charset=utf-8\r\n", form("bob", "b")),
     303},
    {"OtherFieldsBetween", login("a=b&password=b&&c&username=%62ob&d="), 303},
    {"PlusIsABlank", login("username=alice&password=pa%3ass+w%C3%B6rd%2b%"), 303},
    {"FirstOfTwo", login("username=bob&password=b&password=x"), 303},
    {"Largest", login(formOf(8192)), 303},
    {"LargestInChunks", chunkedLogin(formOf(8192)), 303},
    {"TooLarge", login(formOf(8193)), 413},
    {"TooLargeInChunks", chunkedLogin(formOf(8193)), 413},
    {"Empty", login(""), 401},
    {"NoLength", "POST /login HTTP/1.1\r\nHost: x\r\n" + std::string(kFormType) + "\r\n", 401},
    {"NoPassword", login("username=bob"), 401},
    {"NoUser", login("password=b"), 401},
    {"PasswordCutByNul", login("username=bob&password=b%00x"), 401},
    {"UserCutByNul", login("username=bob%00x&password=b"), 401},
    {"InTheAddress", request("POST", "/login?" + form("bob", "b"), kFormType, ""), 401},
    {"NoType", request("POST", "/login", "", form("bob", "b")), 415},
    {"OtherType", request("POST", "/login", "Content-Type: text/plain\r\n", form("bob", "b")), 415},
    {"LongerType", request("POST", "/login", "Content-Type: application/x-www-form-urlencodedx\r\n", form("bob", "b")),
     415},
    {"Multipart", request("POST", "/login", "Content-Type: multipart/form-data; boundary=x\r\n", form("bob", "b")),
     415},
    {"GetWithPassword", request("GET", "/login?" + form("bob", "b")), 200},
    {"Options", request("OPTIONS", "/login"), 200},
    {"Put", request("PUT", "/login", kFormType, form("bob", "b")), 405},
    {"GetLogout", request("GET", "/logout"), 405},
};
class FormTest : public SessionTest, public ::testing::WithParamInterface<FormCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, FormTest, ::testing::ValuesIn(kForms),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(FormTest, IsReadToItsEnd) {
  const WireReply reply = ask(GetParam().wire);
  EXPECT_EQ(reply.status(), GetParam().status) << reply.wire;
  EXPECT_EQ(reply.has("Set-Cookie"), GetParam().status == 303) << reply.wire;
  EXPECT_EQ(reply.has("Allow"), GetParam().name == std::string_view("Options") || GetParam().status == 405);
}

TEST_F(SessionTest, FormCutAnywhere) {
  const std::string wires[] = {login(form("bob", "b")), chunkedLogin(form("bob", "b"))};
  for (const std::string& wire : wires) {
    for (size_t cut = wire.find("\r\n\r\n"); cut < wire.size(); ++cut) {
      WireClient client(daemon_->address());
      client.send(wire.substr(0, cut));
      ask(request("GET", "/hello"));  // by then the first piece has been read
      EXPECT_EQ(client.received(), "") << cut;
      client.send(wire.substr(cut));
      ASSERT_TRUE(waitUntil([&] { return countReplies(client.received()) == 1; })) << cut;
      EXPECT_EQ(takeReplies(client.received())[0].status(), 303u) << cut;
    }
  }
}

TEST_F(SessionTest, FormThatIsNotFinished) {
  const std::string wire = login(form("bob", "b"));
  for (const bool inOrder : {true, false}) {
    WireClient client(daemon_->address());
    client.send(wire.substr(0, wire.size() - 1));
    ask(request("GET", "/hello"));
    if (inOrder) {
      client.finish();
      ASSERT_TRUE(waitUntil([&] { return client.ended(); }));
      EXPECT_EQ(client.received().find("Set-Cookie"), std::string::npos);
    } else {
      client.reset();
    }
    EXPECT_EQ(ask(request("GET", "/hello")).status(), 200u);
  }
}

// Both a wait for "100 Continue" and a second request behind the form work on one connection.
TEST_F(SessionTest, FormOnAConnectionThatIsKept) {
  const std::string body = form("bob", "b");
  WireClient client(daemon_->address());
  client.send("POST /login HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\n" + std::string(kFormType) +
              "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n");
  ASSERT_TRUE(waitUntil([&] { return client.received() == "HTTP/1.1 100 Continue\r\n\r\n"; })) << client.received();
  client.take();
  const std::string bodyless = " HTTP/1.1\r\nHost: x\r\n" + std::string(kFormType) + "\r\n";
  client.send(body + request("POST", "/logout") + "POST /logout" + bodyless + "POST /login" + bodyless +
              request("GET", "/login"));
  ASSERT_TRUE(waitUntil([&] { return countReplies(client.received()) == 5; })) << client.received();
  std::string statuses;
  for (const WireReply& reply : takeReplies(client.received())) statuses += std::to_string(reply.status()) + " ";
  EXPECT_EQ(statuses, "303 303 303 401 200 ");
}

// --- other sites -----------------------------------------------------------------------------------------------------

struct OriginCase {
  const char* name;
  const char* headers;
  bool trusted;
};
void PrintTo(const OriginCase& row, std::ostream* out) { *out << row.name; }
constexpr OriginCase kOrigins[] = {
    {"Nothing", "", true},
    {"SameOrigin", "Sec-Fetch-Site: same-origin\r\n", true},
    {"TheUser", "Sec-Fetch-Site: none\r\n", true},
    {"SameSite", "Sec-Fetch-Site: same-site\r\n", false},
    {"CrossSite", "Sec-Fetch-Site: cross-site\r\n", false},
    {"UnknownSite", "Sec-Fetch-Site: SAME-ORIGIN\r\n", false},
    {"Origin", "Origin: http://x\r\n", true},
    {"OriginOfAnotherCase", "Origin: http://X\r\n", true},
    {"OriginInFrontOfUs", "Origin: https://x\r\n", true},
    {"OtherOrigin", "Origin: http://y\r\n", false},
    {"OtherPort", "Origin: http://x:81\r\n", false},
    {"LongerOrigin", "Origin: http://x.evil.example\r\n", false},
    {"OriginThatEndsSo", "Origin: http://evil.x\r\n", false},
    {"NoOrigin", "Origin: null\r\n", false},
    {"SiteCountsMore", "Sec-Fetch-Site: same-origin\r\nOrigin: http://in-front\r\n", true},
    {"SiteCountsMoreAgain", "Sec-Fetch-Site: cross-site\r\nOrigin: http://x\r\n", false},
};
class OriginTest : public SessionTest, public ::testing::WithParamInterface<OriginCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, OriginTest, ::testing::ValuesIn(kOrigins),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(OriginTest, OtherSitesCannotUseTheBrowser) {
  const std::string cookie = session();
  const std::string headers = GetParam().headers + cookie;
  EXPECT_EQ(ask(login(form("bob", "b"), GetParam().headers)).status(), GetParam().trusted ? 303u : 403u);
  EXPECT_EQ(ask(request("POST", "/echo", headers, "x")).status(), GetParam().trusted ? 200u : 403u);
  EXPECT_EQ(ask(request("GET", "/private/", headers)).status(), 200u);  // a link may lead here
  EXPECT_EQ(ask(request("POST", "/logout", headers)).status(), GetParam().trusted ? 303u : 403u);
  EXPECT_EQ(ask(request("GET", "/private/", cookie)).status(), GetParam().trusted ? 401u : 200u);
}

// --- sessions --------------------------------------------------------------------------------------------------------

TEST_F(SessionTest, PageForThoseWhoAreLoggedIn) {
  const WireReply page = ask(request("GET", "/login?next=/private/", session()));
  EXPECT_EQ(page.status(), 200u);
  for (const char* piece :
       {"<strong>alice</strong>", "href=\"/private/\"", "<form method=\"post\" action=\"/logout\">", "Log out"})
    EXPECT_NE(page.body.find(piece), std::string::npos) << piece;
  EXPECT_EQ(page.body.find("password"), std::string::npos);
}

TEST_F(SessionTest, LoggingOut) {
  const std::string first = session();
  const std::string second = session();
  const WireReply reply = ask(request("POST", "/logout", first));
  EXPECT_EQ(reply.status(), 303u);
  EXPECT_EQ(reply.header("Location"), "/login");
  EXPECT_EQ(reply.header("Set-Cookie"),
            "kro/sessid=; expires=Thu, 01-Jan-1970 00:00:01 GMT; path=/; HttpOnly; SameSite=Lax");
  EXPECT_EQ(ask(request("GET", "/private/", first)).status(), 401u);
  EXPECT_EQ(ask(request("GET", "/private/", second)).status(), 200u);
  EXPECT_EQ(ask(request("POST", "/logout", first)).status(), 303u);
  EXPECT_EQ(ask(request("POST", "/logout")).status(), 303u);
  EXPECT_EQ(ask("POST /logout HTTP/1.1\r\nHost: x\r\n\r\n").status(), 303u);
}

TEST_F(SessionTest, CookiesThatAreNoSession) {
  const std::string cookie = session();
  const std::string id = cookie.substr(0, cookie.size() - 2);
  for (const std::string& wrong : {std::string("Cookie: kro/sessid\r\n"), std::string("Cookie: kro/sessid=\r\n"),
                                   id + "x\r\n", id.substr(0, id.size() - 1) + "\r\n",
                                   std::string("Cookie: sessid=") + id.substr(19) + "\r\n", id + "; kro/sessid=x\r\n"})
    EXPECT_EQ(ask(request("GET", "/private/", wrong)).status(), 401u) << wrong;
  EXPECT_EQ(ask(request("GET", "/private/", "Cookie: a=b; " + id.substr(8) + "; c\r\n")).status(), 200u);
}

// A cookie may have been put there by somebody else: what it opens is not handed on.
TEST_F(SessionTest, LoginAlwaysOpensASessionOfItsOwn) {
  const std::string planted = session("bob", "b");
  const WireReply wrong = ask(login(form("alice", "wrong"), planted));
  EXPECT_EQ(wrong.status(), 401u);
  EXPECT_EQ(ask(request("GET", "/private/", planted)).status(), 200u);  // it has changed nothing
  for (const auto& [user, password] : {std::pair{"alice", kPassword}, std::pair{"bob", "b"}}) {
    const std::string before = session("bob", "b");
    const std::string after = cookieOf(ask(login(form(user, password), before)));
    EXPECT_NE(after, before);
    EXPECT_EQ(ask(request("GET", "/private/", before)).status(), 401u);
    const WireReply page = ask(request("GET", "/login", after));
    EXPECT_NE(page.body.find("<strong>" + std::string(user)), std::string::npos) << page.body;
  }
  const std::string stale = "Cookie: kro/sessid=AAAAAAAAAAAAAAAAAAAAAAAA\r\n";
  EXPECT_EQ(ask(request("GET", "/private/", cookieOf(ask(login(form("bob", "b"), stale))))).status(), 200u);
}

TEST_F(SessionTest, UserHasSoManySessions) {
  const std::string other = session("alice");
  std::vector<std::string> cookies;
  for (int i = 0; i < 33; ++i) cookies.push_back(session("bob", "b"));
  EXPECT_EQ(ask(request("GET", "/private/", cookies[0])).status(), 401u);
  for (size_t i = 1; i < cookies.size(); ++i)
    EXPECT_EQ(ask(request("GET", "/private/", cookies[i])).status(), 200u) << i;
  EXPECT_EQ(ask(request("GET", "/private/", other)).status(), 200u);
}

TEST_F(LoginTest, SessionEndsWithoutActivity) {
  start({"--protect", "/private=session", "--session-timeout", "1"});
  const std::string cookie = session();
  EXPECT_EQ(ask(request("GET", "/private/", cookie)).status(), 200u);
  sleep(3);
  const WireReply reply = ask(request("GET", "/private/", kBrowser + cookie));
  EXPECT_EQ(reply.status(), 303u);
  EXPECT_EQ(reply.header("Set-Cookie").substr(0, 12), "kro/sessid=;");
}

TEST_F(LoginTest, SessionWithoutALimit) {
  start({"--protect", "/private=session", "--session-timeout", "0"});
  const std::string cookie = session();
  sleep(2);
  EXPECT_EQ(ask(request("GET", "/private/", cookie)).status(), 200u);
}

// --- what failures cost ----------------------------------------------------------------------------------------------

class AttemptTest : public LoginTest {
 protected:
  void SetUp() override {
    LoginTest::SetUp();
    start({"--listen", "unix:" + folder_.at("socket"), "--protect", "/private=session", "--protect", "/hello=basic",
           "--protect", "/status=digest", "--protect", "/echo=basic", "--access-log", folder_.at("log")},
          2);
  }
  // Sends what fails and comes back when the daemon has read it.
  std::unique_ptr<WireClient> fail(const std::string& wire = login(form("alice", "wrong"))) {
    auto client = std::make_unique<WireClient>(daemon_->address());
    client->send(wire);
    EXPECT_EQ(ask(request("GET", "/")).status(), 200u);
    return client;
  }
  // From now on failures cost more than a test takes to look at what waits.
  void failUntilItCosts() {
    failThreeTimes();
    for (int i = 0; i < 3; ++i) fail()->leave();
  }
  static bool replied(const WireClient& client) { return countReplies(client.received(), client.ended()) == 1; }
};

TEST_F(AttemptTest, AnswersWaitButOthersDoNot) {
  failUntilItCosts();
  const auto client = fail();
  EXPECT_EQ(client->received(), "");
  // Others, and those who know their password.
  EXPECT_EQ(ask(login(form("alice", "wrong")), 1).status(), 401u);
  EXPECT_EQ(ask(login(form("alice", kPassword))).status(), 303u);
  EXPECT_EQ(ask(request("GET", "/hello", basic("bob", "b"))).status(), 200u);
  EXPECT_EQ(ask(request("GET", "/hello")).status(), 401u);
  EXPECT_EQ(client->received(), "");
  ASSERT_TRUE(waitUntil([&] { return replied(*client); }));
  const WireReply reply = takeReplies(client->received())[0];
  EXPECT_EQ(reply.status(), 401u);
  EXPECT_NE(reply.body.find("role=\"alert\""), std::string::npos);
  client->take();
  client->send(login(form("alice", kPassword)));
  ASSERT_TRUE(waitUntil([&] { return replied(*client); }));
  EXPECT_EQ(takeReplies(client->received())[0].status(), 303u);
}

// A failure and a request behind it come while the daemon is held, so that it meets both at once. In which order it has
// answered them stands in its log: what waits, however short, is answered later.
TEST_F(AttemptTest, ThreeAreAnsweredAtOnce) {
  for (int i = 0; i < 4; ++i) {
    WireClient failing(daemon_->address());
    WireClient other(daemon_->address());
    for (WireClient* client : {&failing, &other}) {
      client->send(request("GET", "/"));
      ASSERT_TRUE(waitUntil([&] { return replied(*client); }));
      client->take();
    }
    daemon_->process().signal(SIGSTOP);
    siginfo_t held = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(daemon_->process().pid()), &held, WSTOPPED), 0);
    failing.send(login(form("alice", "wrong")));
    other.send(request("GET", "/private/a.txt"));
    EXPECT_TRUE(waitUntil([&] { return failing.allSent() && other.allSent(); }));
    daemon_->process().signal(SIGCONT);
    ASSERT_TRUE(waitUntil([&] { return replied(failing) && replied(other); }));
  }
  finish();
  std::string order;
  for (const std::string& line : linesOf(readFile(folder_.at("log")))) {
    if (line.find("\"POST /login") != std::string::npos) order += "failure ";
    if (line.find("\"GET /private") != std::string::npos) order += "other ";
  }
  EXPECT_EQ(order, "failure other failure other failure other other failure ");
}

TEST_F(AttemptTest, AllSchemesCountTogether) {
  const std::string wires[] = {login(form("alice", "wrong")), request("GET", "/hello", basic("alice", "wrong")),
                               request("GET", "/status", digest("alice", "wrong", HTTP_METHOD_GET, "/status"))};
  for (const std::string& wire : wires) EXPECT_EQ(ask(wire).status(), 401u);
  for (const std::string& wire : wires) fail(wire)->leave();
  const auto basicClient = fail(wires[1]);
  const auto digestClient = fail(wires[2]);
  EXPECT_EQ(basicClient->received() + digestClient->received(), "");
  ASSERT_TRUE(waitUntil([&] { return replied(*basicClient) && replied(*digestClient); }));
  EXPECT_EQ(takeReplies(basicClient->received())[0].header("WWW-Authenticate"), "Basic realm=\"Device\"");
  EXPECT_EQ(takeReplies(digestClient->received())[0].header("WWW-Authenticate").substr(0, 7), "Digest ");
}

// What says nothing about a password is no attempt.
TEST_F(AttemptTest, OtherRefusalsCostNothing) {
  const std::string free[] = {request("GET", "/hello"), request("GET", "/private/"),
                              request("GET", "/hello", "Authorization: Bearer x\r\n"),
                              request("GET", "/private/", "Cookie: kro/sessid=x\r\n"),
                              request("GET", "/status", digest("bob", "b", HTTP_METHOD_GET, "/other"))};
  for (int i = 0; i < 3; ++i)
    for (const std::string& wire : free) ask(wire);
  // Three are free, seven wait: one more may.
  std::vector<std::unique_ptr<WireClient>> clients;
  for (int i = 0; i < 10; ++i) clients.push_back(fail());
  EXPECT_EQ(ask(login(form("alice", kPassword))).status(), 303u);
}

TEST_F(AttemptTest, SoManyMayWait) {
  failUntilItCosts();
  std::vector<std::unique_ptr<WireClient>> clients;
  for (int i = 0; i < 8; ++i) clients.push_back(fail());
  for (const std::string& wire :
       {login(form("alice", "wrong")), login(form("alice", kPassword)), request("GET", "/hello", basic("bob", "b")),
        request("GET", "/status", aliceFor("/status"))}) {
    const WireReply reply = ask(wire);
    EXPECT_EQ(reply.statusLine, "HTTP/1.1 429 Too Many Requests") << wire;
    EXPECT_EQ(reply.header("Retry-After"), "8");
  }
  EXPECT_EQ(ask(request("GET", "/hello")).status(), 401u);
  EXPECT_EQ(ask(login(form("alice", kPassword)), 1).status(), 303u);
  clients.pop_back();
  ASSERT_TRUE(waitUntil([&] { return ask(login(form("alice", kPassword))).status() == 303; }));
}

TEST_F(AttemptTest, ClientMayLeave) {
  failThreeTimes();
  for (const std::string& wire :
       {login(form("alice", "wrong")), request("GET", "/hello", basic("alice", "wrong")),
        "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n" + basic("alice", "wrong") + "\r\nhello"}) {
    fail(wire)->leave();
    fail(wire)->reset();
  }
  const auto last = fail();
  last->leave();
  EXPECT_EQ(ask(request("GET", "/")).status(), 200u);
  sleep(2);  // the first timers would have been due
  EXPECT_EQ(ask(request("GET", "/")).status(), 200u);
}

// A body that nobody will read is not read while its refusal waits, and ends the connection afterwards.
TEST_F(AttemptTest, RequestWithABody) {
  constexpr size_t kSize = 40000000;
  failUntilItCosts();
  const auto client = fail("POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(kSize) + "\r\n" +
                           basic("alice", "wrong") + "\r\n");
  client->send(std::string(kSize, 'x'));
  EXPECT_EQ(client->received(), "");
  EXPECT_FALSE(client->allSent());
  ASSERT_TRUE(waitUntil([&] { return client->ended(); }));
  EXPECT_EQ(takeReplies(client->received(), true).at(0).status(), 401u);
  EXPECT_EQ(takeReplies(client->received(), true).at(0).header("Connection"), "close");
}

// One whose end is not worth looking for ends it at once.
TEST_F(AttemptTest, RequestWithABodyOfManyParts) {
  failUntilItCosts();
  const auto client = fail(
      "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 1000\r\nContent-Type: multipart/form-data; "
      "boundary=x\r\n" +
      basic("alice", "wrong") + "\r\nhello");
  EXPECT_EQ(client->received(), "");
  ASSERT_TRUE(waitUntil([&] { return client->ended(); }));
  EXPECT_EQ(takeReplies(client->received(), true).at(0).status(), 401u);
}

TEST_F(AttemptTest, StoppingWaitsForNobody) {
  failUntilItCosts();
  const auto page = fail();
  const auto basicClient = fail(request("GET", "/hello", basic("alice", "wrong")));
  const auto body = fail("POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n" + basic("alice", "wrong") + "\r\n");
  const std::string wire = login(form("alice", "wrong"));
  const auto unfinished = fail(wire.substr(0, wire.size() - 1));
  EXPECT_EQ(page->received() + basicClient->received() + body->received(), "");
  daemon_->process().signal(SIGTERM);
  ASSERT_TRUE(waitUntil([&] { return replied(*page) && replied(*basicClient) && replied(*body); }));
  body->send("hello");
  unfinished->send(wire.substr(wire.size() - 1));
  ASSERT_TRUE(waitUntil([&] { return page->ended() && basicClient->ended() && body->ended() && unfinished->ended(); }));
  ASSERT_TRUE(waitUntil([&] { return daemon_->process().ended(); }));
  EXPECT_EQ(daemon_->process().outcome(), "exit 0");
  for (const WireClient* client : {page.get(), basicClient.get(), body.get(), unfinished.get()})
    EXPECT_EQ(takeReplies(client->received(), true).at(0).status(), 401u);
}

TEST_F(AttemptTest, SecondSignalEndsWhatWaits) {
  failUntilItCosts();
  const auto client = fail();
  const auto unfinished = fail(login(form("alice", "wrong")).substr(0, 100));
  daemon_->process().signal(SIGTERM);
  ASSERT_TRUE(waitUntil([&] { return replied(*client); }));
  EXPECT_FALSE(daemon_->process().ended());
  daemon_->process().signal(SIGTERM);
  ASSERT_TRUE(waitUntil([&] { return daemon_->process().ended(); }));
  EXPECT_EQ(daemon_->process().outcome(), "exit 0");
}

// --- traces of what was entered --------------------------------------------------------------------------------------

TEST_F(LoginTest, UserIsInTheLogAndThePasswordIsNot) {
  folder_.file("users", userLine("a b\xc3\xb6", "s3cret-right") + userLine("-", "s3cret-right"));
  start({"--protect", "/hello=basic", "--protect", "/status=digest", "--protect", "/private=session", "--access-log",
         folder_.at("log")});
  const std::string user = "a b\xc3\xb6";
  ask(request("GET", "/hello", basic(user, "s3cret-right")));
  ask(request("GET", "/hello", basic(user, "s3cret-wrong")));
  ask(request("GET", "/status", digest("-", "s3cret-right", HTTP_METHOD_GET, "/status")));
  const std::string cookie = session(user, "s3cret-right");
  ask(request("GET", "/private/", cookie));
  ask(request("GET", "/"));
  ask(request("GET", "/login?username=u&password=s3cret-right"));
  ask(request("GET", "/login?next=/private/", cookie));
  ask(login(form(user, "s3cret-wrong")));
  const std::string written = finish();
  const std::string log = readFile(folder_.at("log"));
  std::vector<std::string> lines;
  for (const std::string& line : linesOf(log))
    lines.push_back(std::regex_replace(line, std::regex("^127\\.0\\.0\\.1 - |\\[[^\\]]*\\] | [0-9-]+$"), ""));
  const std::string shown = "a\\x20b\\xc3\\xb6 ";
  const std::vector<std::string> expected = {
      shown + "\"GET /hello HTTP/1.1\" 200",    "- \"GET /hello HTTP/1.1\" 401",
      "\\x2d \"GET /status HTTP/1.1\" 200",     shown + "\"POST /login HTTP/1.1\" 303",
      shown + "\"GET /private/ HTTP/1.1\" 200", "- \"GET / HTTP/1.1\" 200",
      "- \"GET /login HTTP/1.1\" 200",          shown + "\"GET /login HTTP/1.1\" 200",
      "- \"POST /login HTTP/1.1\" 401"};
  EXPECT_EQ(lines, expected) << log;
  EXPECT_EQ((log + written).find("s3cret"), std::string::npos) << log << written;
  EXPECT_EQ((log + written).find(ha1(user, "s3cret-right")), std::string::npos);
}

// The user of one request is not that of the next on its connection.
TEST_F(LoginTest, UserIsOfOneRequest) {
  start({"--protect", "/hello=basic", "--access-log", folder_.at("log")});
  WireClient client(daemon_->address());
  client.send(request("GET", "/hello", basic("bob", "b")) + request("GET", "/") + request("GET", "/hello"));
  ASSERT_TRUE(waitUntil([&] { return countReplies(client.received()) == 3; }));
  finish();
  const std::vector<std::string> lines = linesOf(readFile(folder_.at("log")));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].find(" - bob ["), 9u) << lines[0];
  EXPECT_EQ(lines[1].find(" - - ["), 9u) << lines[1];
  EXPECT_EQ(lines[2].find(" - - ["), 9u) << lines[2];
}

// --- adding users ----------------------------------------------------------------------------------------------------

class AddUserTest : public ::testing::Test {
 protected:
  void SetUp() override { alarm(100); }
  void TearDown() override { alarm(0); }

  // With input on standard input, which is no terminal.
  Ended add(const std::string& user, const std::string& realm, const std::string& input) {
    const std::string from = folder_.file("input", input);
    return run(
        {"/bin/sh", "-c", "exec \"$0\" --add-user \"$1\" \"$2\" \"$3\" <\"$4\"", KROHTTPD, path_, user, realm, from});
  }
  static mode_t modeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }
  // The names in the folder of the file.
  std::string names() const { return run({"/bin/ls", "-A", folder_.at("etc")}).output; }

  TemporaryFolder folder_;
  std::string path_ = folder_.folder("etc") + "/users";
};

TEST_F(AddUserTest, MakesTheFile) {
  const Ended result = add("alice", "My Device", std::string(kPassword) + "\nthe rest\n");
  EXPECT_EQ(result.outcome, "exit 0");
  EXPECT_EQ(result.output + result.errors, "");
  EXPECT_EQ(readFile(path_), userLine("alice", kPassword, "My Device"));
  EXPECT_EQ(modeOf(path_), 0600u);
  EXPECT_EQ(names(), "users\n");
}

TEST_F(AddUserTest, LineWithoutAnEnd) {
  EXPECT_EQ(add("alice", kRealm, "secret").outcome, "exit 0");
  EXPECT_EQ(readFile(path_), userLine("alice", "secret"));
}

TEST_F(AddUserTest, ReplacesOnlyTheLineOfTheUser) {
  const std::string before = "# people\n\n" + userLine("bob", "b") + userLine("alice", "old") + userLine("eve", "e");
  folder_.file("etc/users", before + userLine("alice", "x", "Elsewhere") + "#end");
  chmod(path_.c_str(), 0644);
  EXPECT_EQ(add("alice", kRealm, "new\n").outcome, "exit 0");
  const std::string after = "# people\n\n" + userLine("bob", "b") + userLine("alice", "new") + userLine("eve", "e") +
                            userLine("alice", "x", "Elsewhere") + "#end\n";
  EXPECT_EQ(readFile(path_), after);
  EXPECT_EQ(modeOf(path_), 0600u);
  EXPECT_EQ(add("carol", kRealm, "c\n").outcome, "exit 0");
  EXPECT_EQ(readFile(path_), after + userLine("carol", "c"));
  EXPECT_EQ(names(), "users\n");
}

TEST_F(AddUserTest, SaysThatTheRealmIsAnother) {
  folder_.file("etc/users", userLine("bob", "b"));
  const Ended result = add("alice", "Elsewhere", "a\n");
  EXPECT_EQ(result.outcome, "exit 0");
  EXPECT_EQ(result.errors,
            "krohttpd: the realm of " + path_ + " is that of its first line, 'Device': 'alice' cannot log in there\n");
  EXPECT_EQ(readFile(path_), userLine("bob", "b") + userLine("alice", "a", "Elsewhere"));
}

TEST_F(AddUserTest, FollowsALink) {
  folder_.file("real", userLine("bob", "b"));
  ASSERT_EQ(symlink("../real", path_.c_str()), 0);
  EXPECT_EQ(add("alice", kRealm, "a\n").outcome, "exit 0");
  EXPECT_EQ(readFile(folder_.at("real")), userLine("bob", "b") + userLine("alice", "a"));
  struct stat status = {};
  ASSERT_EQ(lstat(path_.c_str(), &status), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
}

struct AddCase {
  const char* name;
  std::string user;
  std::string realm;
  std::string input;
  const char* complaint;
};
void PrintTo(const AddCase& row, std::ostream* out) { *out << row.name; }
const AddCase kRefusedUsers[] = {
    {"ColonInUser", "a:b", "r", "p\n", "--add-user: the user name has a ':' in it"},
    {"ColonInRealm", "a", "r:s", "p\n", "--add-user: the realm has a ':' in it"},
    {"NewlineInUser", "a\nb", "r", "p\n", "--add-user: the user name has a control character in it"},
    {"ControlInRealm", "a", "r\x1b", "p\n", "--add-user: the realm has a control character in it"},
    {"DeleteInRealm", "a", "r\x7f", "p\n", "--add-user: the realm has a control character in it"},
    {"QuoteInRealm", "a", "r\"", "p\n", "--add-user: the realm has a quote or a backslash in it"},
    {"Comment", "#a", "r", "p\n", "--add-user: the user name begins a comment"},
    {"EmptyUser", "", "r", "p\n", "--add-user: the user name is empty"},
    {"EmptyRealm", "a", "", "p\n", "--add-user: the realm is empty"},
    {"NoPassword", "a", "r", "", "no password was given"},
    {"EmptyPassword", "a", "r", "\np\n", "no password was given"},
    {"NulInPassword", "a", "r", std::string("p\0q\n", 4), "the password has a NUL in it"},
    {"LongPassword", "a", "r", std::string(597, 'p') + "\n", "the password is too long"},
    {"HugePassword", "a", "r", std::string(100000, 'p') + "\n", "the password is too long"},
};
class RefusedUserTest : public AddUserTest, public ::testing::WithParamInterface<AddCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, RefusedUserTest, ::testing::ValuesIn(kRefusedUsers),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(RefusedUserTest, ChangesNothing) {
  const std::string before = userLine("bob", "b");
  folder_.file("etc/users", before);
  const Ended result = add(GetParam().user, GetParam().realm, GetParam().input);
  EXPECT_EQ(result.outcome, "exit 1");
  EXPECT_EQ(result.errors, std::string("krohttpd: ") + GetParam().complaint + "\n");
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(readFile(path_), before);
  EXPECT_EQ(names(), "users\n");
}

TEST_F(AddUserTest, LeavesAMalformedFileAlone) {
  folder_.file("etc/users", "nonsense\n");
  const Ended result = add("alice", kRealm, "a\n");
  EXPECT_EQ(result.outcome, "exit 1");
  EXPECT_EQ(result.errors, "krohttpd: " + path_ + ":1: not USER:REALM:HA1\n");
  EXPECT_EQ(readFile(path_), "nonsense\n");
}

TEST_F(AddUserTest, FileThatCannotBeWritten) {
  path_ = "/nonexistent/users";
  const Ended missing = add("alice", kRealm, "a\n");
  EXPECT_EQ(missing.outcome, "exit 1");
  EXPECT_EQ(missing.errors, "krohttpd: cannot write /nonexistent/users: No such file or directory\n");
  path_ = folder_.at("etc");
  const Ended directory = add("alice", kRealm, "a\n");
  EXPECT_EQ(directory.outcome, "exit 1");
  EXPECT_EQ(directory.errors, "krohttpd: cannot read " + path_ + ": Is a directory\n");
}

TEST_F(AddUserTest, FileWithoutAnEnd) {
  const Ended result = run({KROHTTPD, "--add-user", "/dev/zero", "alice", kRealm});
  EXPECT_EQ(result.outcome, "exit 1");
  EXPECT_EQ(result.errors, "krohttpd: cannot write /dev/zero: it is no regular file\n");
}

TEST_F(AddUserTest, DiskThatIsFull) {
  folder_.file("etc/users", userLine("bob", "b"));
  const Ended result =
      run({"/bin/sh", "-c", "trap '' XFSZ; ulimit -f 0; echo a | \"$0\" --add-user \"$1\" alice r", KROHTTPD, path_});
  EXPECT_EQ(result.outcome, "exit 1");
  EXPECT_EQ(result.errors, "krohttpd: cannot write " + path_ + ": File too large\n");
  EXPECT_EQ(readFile(path_), userLine("bob", "b"));
  EXPECT_EQ(names(), "users\n");
}

TEST_F(AddUserTest, AsksTwiceAndShowsNothing) {
  Terminal terminal({KROHTTPD, "--add-user", path_, "alice", kRealm});
  ASSERT_TRUE(waitUntil([&] { return terminal.shows("Password: "); }));
  EXPECT_FALSE(terminal.echoes());
  terminal.type("s3cret\n");
  ASSERT_TRUE(waitUntil([&] { return terminal.shows("The same again: "); })) << terminal.screen();
  EXPECT_FALSE(terminal.echoes());
  terminal.type("s3cret\n");
  ASSERT_TRUE(waitUntil([&] { return terminal.ended(); }));
  EXPECT_EQ(terminal.outcome(), "exit 0");
  EXPECT_EQ(terminal.screen(), "Password: \r\nThe same again: \r\n");
  EXPECT_TRUE(terminal.echoes());
  EXPECT_EQ(readFile(path_), userLine("alice", "s3cret"));
}

TEST_F(AddUserTest, AsksForTheSameTwice) {
  Terminal terminal({KROHTTPD, "--add-user", path_, "alice", kRealm});
  ASSERT_TRUE(waitUntil([&] { return terminal.shows("Password: "); }));
  terminal.type("s3cret\n");
  ASSERT_TRUE(waitUntil([&] { return terminal.shows("The same again: "); }));
  terminal.type("s3cret2\n");
  ASSERT_TRUE(waitUntil([&] { return terminal.ended(); }));
  EXPECT_EQ(terminal.outcome(), "exit 1");
  EXPECT_TRUE(terminal.shows("krohttpd: the passwords differ\r\n")) << terminal.screen();
  EXPECT_FALSE(terminal.shows("s3cret"));
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
}

TEST_F(AddUserTest, EndOfInputAtThePrompt) {
  Terminal terminal({KROHTTPD, "--add-user", path_, "alice", kRealm});
  ASSERT_TRUE(waitUntil([&] { return terminal.shows("Password: "); }));
  terminal.type("\x04");
  ASSERT_TRUE(waitUntil([&] { return terminal.ended(); }));
  EXPECT_EQ(terminal.outcome(), "exit 1");
  EXPECT_TRUE(terminal.shows("krohttpd: no password was given\r\n")) << terminal.screen();
  EXPECT_TRUE(terminal.echoes());
}

struct KeyCase {
  const char* name;
  int number;
  const char* key;  // null: a signal from elsewhere
};
void PrintTo(const KeyCase& row, std::ostream* out) { *out << row.name; }
constexpr KeyCase kKeys[] = {{"Interrupt", SIGINT, "\x03"},
                             {"Quit", SIGQUIT, "\x1c"},
                             {"Terminate", SIGTERM, nullptr},
                             {"HangUp", SIGHUP, nullptr}};
class PromptSignalTest : public AddUserTest, public ::testing::WithParamInterface<KeyCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, PromptSignalTest, ::testing::ValuesIn(kKeys),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(PromptSignalTest, RestoresTheTerminal) {
  for (const char* prompt : {"Password: ", "The same again: "}) {
    Terminal terminal({KROHTTPD, "--add-user", path_, "alice", kRealm});
    ASSERT_TRUE(waitUntil([&] { return terminal.shows("Password: "); }));
    if (prompt[0] == 'T') terminal.type("s3cret\n");
    ASSERT_TRUE(waitUntil([&] { return terminal.shows(prompt); }));
    EXPECT_FALSE(terminal.echoes());
    if (GetParam().key != nullptr) {
      terminal.type(GetParam().key);
    } else {
      terminal.signal(GetParam().number);
    }
    ASSERT_TRUE(waitUntil([&] { return terminal.ended(); }));
    EXPECT_EQ(terminal.outcome(), "signal " + std::to_string(GetParam().number));
    EXPECT_TRUE(terminal.echoes());
    EXPECT_EQ(names(), "");
  }
}

// Stopped and continued, it asks again; the terminal shows what is typed in between.
TEST_F(AddUserTest, StoppedAtThePrompt) {
  Terminal terminal({KROHTTPD, "--add-user", path_, "alice", kRealm});
  ASSERT_TRUE(waitUntil([&] { return terminal.shows("Password: "); }));
  // Its process group has no parent that could continue it, so the key for this would do nothing.
  terminal.signal(SIGTSTP);
  if (waitUntil([&] { return terminal.stopped(); }, 2)) {
    EXPECT_TRUE(terminal.echoes());
    terminal.signal(SIGCONT);
  }
  ASSERT_TRUE(waitUntil([&] { return terminal.shows("Password: Password: "); })) << terminal.screen();
  EXPECT_FALSE(terminal.echoes());
  terminal.type("s3cret\n");
  ASSERT_TRUE(waitUntil([&] { return terminal.shows("The same again: "); }));
  terminal.type("s3cret\n");
  ASSERT_TRUE(waitUntil([&] { return terminal.ended(); }));
  EXPECT_EQ(terminal.outcome(), "exit 0");
  EXPECT_EQ(readFile(path_), userLine("alice", "s3cret"));
}

// What was added can log in, by every scheme.
TEST_F(AddUserTest, IsKnownToTheDaemon) {
  EXPECT_EQ(add("alice", kRealm, std::string(kPassword) + "\n").outcome, "exit 0");
  Daemon daemon({"--listen", "127.0.0.1:0", "--demo", "--auth-file", path_, "--protect", "/hello=basic", "--protect",
                 "/status=digest", "--protect", "/x=session"});
  const std::map<std::string, unsigned> requests = {{request("GET", "/hello", basic("alice", kPassword)), 200},
                                                    {request("GET", "/status", aliceFor("/status")), 200},
                                                    {login(form("alice", kPassword)), 303}};
  for (const auto& [wire, status] : requests) {
    WireClient client(daemon.address());
    client.send(wire);
    ASSERT_TRUE(waitUntil([&] { return countReplies(client.received()) == 1; })) << wire;
    EXPECT_EQ(takeReplies(client.received())[0].status(), status) << wire;
  }
}

}  // namespace
