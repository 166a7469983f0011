#include <gtest/gtest.h>
#include <krohttp/auth.h>
#include <krohttp/utils.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <string.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "auth_internal.h"
#include "support/messages.h"
#include "support/script_stream.h"
#include "support/trace_capture.h"

namespace {

using namespace std::string_literals;

using Lines = std::vector<std::string>;

constexpr const char* kNone = "(none)";
std::string orNone(const char* text) { return text == nullptr ? kNone : text; }

struct FreeDeleter {
  void operator()(void* memory) const { free(memory); }
};
using Text = std::unique_ptr<char, FreeDeleter>;

// A request with this head, and its stream.
struct Received {
  explicit Received(const std::string& wire) : input(wire), request(incomingRequest(input.stream())) {}
  ScriptInput input;
  RequestPtr request;
};

std::string headOf(const std::string& headers, const std::string& line = "GET /dir/index.html HTTP/1.1") {
  return line + "\r\nHost: x\r\n" + headers + "\r\n";
}

// A reply to be written to this stream.
ReplyPtr outgoing(FILE* stream) {
  ReplyPtr reply(http_replyCreate());
  http_replyModeSet(reply.get(), HTTP_MSG_WRITING);
  http_replyStreamSet(reply.get(), stream);
  http_replyVersionSet(reply.get(), 1, 1);
  return reply;
}

std::string md5(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EXPECT_EQ(EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr), 1);
  std::string hex;
  for (unsigned at = 0; at < length; ++at) {
    hex += "0123456789abcdef"[digest[at] >> 4];
    hex += "0123456789abcdef"[digest[at] & 15];
  }
  return hex;
}

std::string base64(std::string_view bytes) {
  char* text = nullptr;
  EXPECT_EQ(http_base64Encode(bytes.data(), static_cast<unsigned>(bytes.size()), &text), 0);
  const Text owner(text);
  return orNone(text);
}

// An application's users: what its callbacks were asked, and what they answer.
struct Users {
  int basicResult = 0;
  int digestResult = 0;
  const char* ha1 = "939e7578ed9e3c518a452acee763bce9";
  Lines asked;

  static int basic(const char* username, const char* password, void* data) {
    auto* users = static_cast<Users*>(data);
    users->asked.push_back("basic " + orNone(username) + " " + orNone(password));
    return users->basicResult;
  }
  static int digest(const char* username, char** ha1, void* data) {
    auto* users = static_cast<Users*>(data);
    users->asked.push_back("digest " + orNone(username));
    EXPECT_EQ(*ha1, nullptr);
    if (users->ha1 != nullptr) *ha1 = strdup(users->ha1);
    return users->digestResult;
  }
  int check(HttpRequest* request) { return http_requestAuthenticate(request, basic, digest, this); }
};

constexpr const char* kMufasa =
    "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", "
    "uri=\"/dir/index.html\", qop=auth, nc=00000001, cnonce=\"0a4f113b\", "
    "response=\"6629fae49393a05397450978507c4ef1\", opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"";
constexpr const char* kUnableToFetch = "http-au[x]unable to fetch Authorization header";

// ---- are there credentials? ----------------------------------------------------------------------------------------

struct TryingCase {
  const char* name;
  std::string headers;
  int result;
};
void PrintTo(const TryingCase& row, std::ostream* out) { *out << row.name; }

class TryingToAuthenticate : public testing::TestWithParam<TryingCase> {};

TEST_P(TryingToAuthenticate, IsSeenInTheHeaders) {
  const Received received(headOf(GetParam().headers));
  const TraceCapture quiet;
  for (int round = 0; round < 2; ++round)
    EXPECT_EQ(http_requestTryingToAuthenticate(received.request.get()), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Table, TryingToAuthenticate,
    testing::Values(TryingCase{"None", "", 0}, TryingCase{"OtherHeaders", "Cookie: a=1\r\nX-Authorization: b\r\n", 0},
                    TryingCase{"ProxyAuthorization", "Proxy-Authorization: Basic dXNlcjpwYXNz\r\n", 0},
                    TryingCase{"Challenge", "WWW-Authenticate: Basic dXNlcjpwYXNz\r\n", 0},
                    TryingCase{"Basic", "Authorization: Basic dXNlcjpwYXNz\r\n", 1},
                    TryingCase{"Kro", "authorization: Kro dXNlcjpwYXNz\r\n", 1},
                    TryingCase{"Undecodable", "Authorization: Basic d\r\n", 1},
                    TryingCase{"WithoutBlank", "Authorization: Basic\r\n", 0},
                    TryingCase{"WithoutColon", "Authorization: Basic dXNlcg==\r\n", 0},
                    TryingCase{"Bearer", "Authorization: Bearer x\r\n", 1},
                    TryingCase{"Digest", "Authorization: "s + kMufasa + "\r\n", 1},
                    TryingCase{"DigestX", "Authorization: Digest x\r\n", 1},
                    TryingCase{"Custom", "X-KRO-Authorization: Basic dXNlcjpwYXNz\r\n", 1},
                    TryingCase{"CustomInLowerCase", "x-kro-authorization: Basic dXNlcjpwYXNz\r\n", 1},
                    TryingCase{"CustomOfAnyKind", "X-KRO-Authorization: ?\r\n", 1},
                    TryingCase{"CustomUnreadable", "X-KRO-Authorization: Basic\r\n", 1},
                    TryingCase{"CustomBehindUnreadable", "Authorization: Basic\r\nX-KRO-Authorization: Basic\r\n", 1},
                    TryingCase{"FirstOfTwoIsUnreadable",
                               "Authorization: Basic\r\nAuthorization: Basic dXNlcjpwYXNz\r\n", 0}),
    [](const auto& row) { return row.param.name; });

// ---- checking ------------------------------------------------------------------------------------------------------

struct CheckCase {
  const char* name;
  std::string headers;
  int result;
  Lines asked;
  TraceLines said;  // errors and warnings
};
void PrintTo(const CheckCase& row, std::ostream* out) { *out << row.name; }

class Authenticate : public testing::TestWithParam<CheckCase> {};

TEST_P(Authenticate, JudgesTheHeaders) {
  const CheckCase& row = GetParam();
  const Received received(headOf(row.headers));
  for (int round = 0; round < 2; ++round) {
    Users users;
    const TraceCapture trace;
    EXPECT_EQ(users.check(received.request.get()), row.result);
    EXPECT_EQ(users.asked, row.asked);
    EXPECT_EQ(trace.said(), row.said);
  }
}

const std::string kUser = "Authorization: Basic " + base64("user:pass") + "\r\n";
const std::string kOther = "X-KRO-Authorization: Basic " + base64("other:word") + "\r\n";

INSTANTIATE_TEST_SUITE_P(
    Table, Authenticate,
    testing::Values(
        CheckCase{"None", "", -1, {}, {kUnableToFetch}}, CheckCase{"Basic", kUser, 0, {"basic user pass"}, {}},
        CheckCase{"Kro", "Authorization: Kro dXNlcjpwYXNz\r\n", 0, {"basic user pass"}, {}},
        CheckCase{"Basicx", "Authorization: Basicx dXNlcjpwYXNz\r\n", 0, {"basic user pass"}, {}},
        CheckCase{"EmptyUserAndPassword", "Authorization: Basic Og==\r\n", 0, {"basic  "}, {}},
        CheckCase{"ColonsInThePassword", "Authorization: Basic " + base64("u:a:b:") + "\r\n", 0, {"basic u a:b:"}, {}},
        CheckCase{
            "HighOctets", "Authorization: Basic " + base64("\xc3\xa9:\xff") + "\r\n", 0, {"basic \xc3\xa9 \xff"}, {}},
        CheckCase{"WithoutBlank",
                  "Authorization: Basic\r\n",
                  -1,
                  {},
                  {"http-au[x]unable to parse basic Authorization header Basic", kUnableToFetch}},
        CheckCase{"WithoutColon",
                  "Authorization: Basic dXNlcg==\r\n",
                  -1,
                  {},
                  {"http-au[x]no ':' found in string, this is not a valid base64 encoded string", kUnableToFetch}},
        CheckCase{"NulInTheUser",
                  "Authorization: Basic " + base64("us\0er:pass"s) + "\r\n",
                  -1,
                  {},
                  {"http-au[x]no ':' found in string, this is not a valid base64 encoded string", kUnableToFetch}},
        CheckCase{
            "NulInThePassword", "Authorization: Basic " + base64("user:pa\0ss"s) + "\r\n", 0, {"basic user pa"}, {}},
        CheckCase{"Undecodable", "Authorization: Basic d===\r\n", 0, {"basic (none) (none)"}, {}},
        CheckCase{"Bearer", "Authorization: Bearer abc\r\n", 0, {"basic (none) (none)"}, {}},
        CheckCase{"BasicInLowerCase", "Authorization: basic dXNlcjpwYXNz\r\n", 0, {"basic (none) (none)"}, {}},
        CheckCase{"Digest", "Authorization: "s + kMufasa + "\r\n", 0, {"digest Mufasa"}, {}},
        CheckCase{"Custom", kOther, 0, {"basic other word"}, {}},
        CheckCase{"CustomInLowerCase", "x-kro-authorization: Kro dXNlcjpwYXNz\r\n", 0, {"basic user pass"}, {}},
        CheckCase{"CustomDigest", "X-KRO-Authorization: "s + kMufasa + "\r\n", 0, {"digest Mufasa"}, {}},
        CheckCase{"CustomBearer", "X-KRO-Authorization: Bearer\r\n", 0, {"basic (none) (none)"}, {}},
        CheckCase{"Both", kUser + kOther, 0, {"basic other word"}, {}},
        CheckCase{"BothTheOtherWayRound", kOther + kUser, 0, {"basic other word"}, {}},
        CheckCase{"CustomMalformed",
                  kUser + "X-KRO-Authorization: Basic\r\n",
                  -1,
                  {},
                  {"http-au[x]unable to parse basic Authorization header Basic", kUnableToFetch}},
        CheckCase{"CustomWithoutColon",
                  kUser + "X-KRO-Authorization: Basic dXNlcg==\r\n",
                  -1,
                  {},
                  {"http-au[x]no ':' found in string, this is not a valid base64 encoded string", kUnableToFetch}},
        CheckCase{"CustomOfUnknownScheme", kUser + "X-KRO-Authorization: Bearer\r\n", 0, {"basic (none) (none)"}, {}},
        CheckCase{"StandardMalformedBehindCustom", "Authorization: Basic\r\n" + kOther, 0, {"basic other word"}, {}},
        CheckCase{
            "FirstOfTwoCounts", kUser + "Authorization: Basic " + base64("b:c") + "\r\n", 0, {"basic user pass"}, {}},
        CheckCase{"DigestAndBasic", "Authorization: "s + kMufasa + "\r\n" + kOther, 0, {"basic other word"}, {}},
        CheckCase{"BasicAndDigest", kUser + "X-KRO-Authorization: " + kMufasa + "\r\n", 0, {"digest Mufasa"}, {}}),
    [](const auto& row) { return row.param.name; });

TEST(AuthenticateBasic, GivesWhatTheCallbackGave) {
  const Received received(headOf(kUser));
  for (const int result : {0, -1, -2, 1, 42, INT32_MIN, INT32_MAX}) {
    Users users;
    users.basicResult = result;
    EXPECT_EQ(users.check(received.request.get()), result);
    EXPECT_EQ(users.asked, Lines({"basic user pass"}));
  }
}

TEST(AuthenticateBasic, SixtyFourKilobytes) {
  const std::string password(49147, 'p');
  const Received received(headOf("Authorization: Basic " + base64("user:" + password) + "\r\n"));
  Users users;
  EXPECT_EQ(users.check(received.request.get()), 0);
  EXPECT_EQ(users.asked, Lines({"basic user " + password}));
}

TEST(Authenticate, PassesNoDataToo) {
  const Received received(headOf(kUser));
  EXPECT_EQ(http_requestAuthenticate(
                received.request.get(), [](const char*, const char*, void* data) { return data == nullptr ? 7 : 8; },
                nullptr, nullptr),
            7);
}

TEST(Authenticate, ACallbackThatIsMissingRefuses) {
  for (const std::string& headers : {kUser, "Authorization: Bearer x\r\n"s, "Authorization: Basic d===\r\n"s, kOther}) {
    const Received received(headOf(headers));
    Users users;
    const TraceCapture quiet;
    EXPECT_EQ(http_requestAuthenticate(received.request.get(), nullptr, Users::digest, &users), -1);
    EXPECT_EQ(users.asked, Lines());
  }
  const Received received(headOf("Authorization: "s + kMufasa + "\r\n"));
  Users users;
  const TraceCapture quiet;
  EXPECT_EQ(http_requestAuthenticate(received.request.get(), Users::basic, nullptr, &users), -1);
  EXPECT_EQ(users.asked, Lines());
}

// ---- Digest --------------------------------------------------------------------------------------------------------

TEST(AuthenticateDigest, TheStandardsExamples) {
  {
    const Received received(headOf("Authorization: "s + kMufasa + "\r\n"));
    Users users;
    EXPECT_EQ(users.check(received.request.get()), 0);
  }
  const Received received(headOf(
      "Authorization: Digest username=\"Mufasa\",realm=\"http-auth@example.org\",uri=\"/dir/index.html\","
      "algorithm=MD5,nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\",nc=00000001,"
      "cnonce=\"f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ\",qop=auth,"
      "response=\"8ca523f5e9506fed4657c9700eebdbec\",opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\"\r\n"));
  Users users;
  users.ha1 = "3d78807defe7de2157e2b0b6573a855f";
  EXPECT_EQ(users.check(received.request.get()), 0);
  EXPECT_EQ(users.asked, Lines({"digest Mufasa"}));
}

// A header with the right response of user:realm:secret.
struct Credentials {
  std::string method = "GET";
  std::string uri = "/dir/index.html";
  std::string qop = "auth";
  std::string nonce = "n";
  std::string nc = "00000001";
  std::string cnonce = "c";

  static std::string ha1() { return md5("user:realm:secret"); }
  std::string response() const {
    const std::string counted = qop.empty() ? "" : nc + ":" + cnonce + ":" + qop + ":";
    return md5(ha1() + ":" + nonce + ":" + counted + md5(method + ":" + uri));
  }
  std::string header() const {
    return "Authorization: Digest username=\"user\", realm=\"realm\", nonce=\"" + nonce + "\", uri=\"" + uri + "\"" +
           (qop.empty() ? "" : ", qop=" + qop + ", nc=" + nc + ", cnonce=\"" + cnonce + "\"") + ", response=\"" +
           response() + "\"\r\n";
  }
};

int checkSecret(const Received& received) {
  const std::string ha1 = Credentials::ha1();
  Users users;
  users.ha1 = ha1.c_str();
  const TraceCapture quiet;
  return users.check(received.request.get());
}

TEST(AuthenticateDigest, TakesTheRequestsMethod) {
  const char* const kMethods[] = {"CONNECT", "DELETE", "GET", "HEAD", "OPTIONS", "POST", "PUT", "TRACE"};
  for (const char* method : kMethods) {
    for (const char* hashed : kMethods) {
      Credentials credentials;
      credentials.method = hashed;
      const Received received(
          headOf(credentials.header() + "Content-Length: 0\r\n", method + " /dir/index.html HTTP/1.1"s));
      EXPECT_EQ(checkSecret(received), strcmp(method, hashed) == 0 ? 0 : -1) << method << " " << hashed;
    }
  }
}

TEST(AuthenticateDigest, WithAndWithoutQop) {
  for (const char* qop : {"", "auth", "auth-int"}) {
    Credentials credentials;
    credentials.qop = qop;
    EXPECT_EQ(checkSecret(Received(headOf(credentials.header()))), 0) << qop;
  }
}

// The uri is the client's word, and so are nonce and count: nothing is remembered.
TEST(AuthenticateDigest, KeepsNoRecord) {
  Credentials credentials;
  credentials.uri = "/somewhere/else?a=b&c==";
  credentials.nonce = "made up";
  credentials.nc = "ffffffff";
  const Received received(headOf(credentials.header()));
  for (int round = 0; round < 3; ++round) EXPECT_EQ(checkSecret(received), 0);
}

TEST(AuthenticateDigest, WithABodyAndAQuery) {
  Credentials credentials;
  credentials.method = "POST";
  credentials.uri = "/form?a=1&b=%20";
  const Received received(headOf(credentials.header() + "Content-Length: 5\r\n", "POST /form?a=1&b=%20 HTTP/1.1") +
                          "hello");
  EXPECT_EQ(checkSecret(received), 0);
  EXPECT_EQ(http_requestState(received.request.get()), HTTP_MSG_BODY);
  EXPECT_EQ(received.request->message.body, nullptr);
}

// Two requests of one connection, in the same object.
TEST(AuthenticateDigest, OnAConnectionThatIsKept) {
  Credentials first;
  Credentials second;
  second.method = "HEAD";
  second.nc = "00000002";
  Received received(headOf(first.header()) + headOf(second.header(), "HEAD /dir/index.html HTTP/1.1"));
  EXPECT_EQ(checkSecret(received), 0);
  http_requestReset(received.request.get());
  while (http_requestState(received.request.get()) < HTTP_MSG_BODY)
    ASSERT_EQ(http_requestParse(received.request.get()), 0);
  EXPECT_EQ(checkSecret(received), 0);
}

TEST(AuthenticateDigest, AWrongResponseIsRefused) {
  Credentials credentials;
  const std::string right = credentials.response();
  const std::string header = credentials.header();
  const size_t at = header.find(right);
  std::string upper = right;
  for (char& digit : upper) digit = static_cast<char>(toupper(static_cast<unsigned char>(digit)));
  ASSERT_NE(upper, right);
  for (const std::string& response : {upper, right.substr(1), right + "0", ""s, std::string(32, '0'), "x"s + right}) {
    const Received received(headOf(std::string(header).replace(at, right.size(), response)));
    const std::string ha1 = Credentials::ha1();
    Users users;
    users.ha1 = ha1.c_str();
    const TraceCapture trace;
    EXPECT_EQ(users.check(received.request.get()), -1) << response;
    EXPECT_EQ(trace.said(), TraceLines({"http-au[!]DIGEST AUTH - Computed Result:" + right,
                                        "http-au[!]DIGEST AUTH - Transmitted Result:" + response,
                                        "http-au[!]DIGEST AUTH - AUTHENTICATION NOK"}));
  }
}

TEST(AuthenticateDigest, AnUnknownUserIsRefusedWithoutAComparison) {
  const Received received(headOf("Authorization: "s + kMufasa + "\r\n"));
  for (const char* ha1 : {"939e7578ed9e3c518a452acee763bce9", static_cast<const char*>(nullptr)}) {
    Users users;
    users.digestResult = -1;
    users.ha1 = ha1;  // a secret that was stored all the same is released
    TraceCapture trace{"http-auth"};
    EXPECT_EQ(users.check(received.request.get()), -1);
    EXPECT_EQ(users.asked, Lines({"digest Mufasa"}));
    EXPECT_EQ(trace.count("http-au[x]Digest verifier failed"), 1U);
    EXPECT_EQ(trace.errors().size(), 1U);
    EXPECT_EQ(trace.countStarting("http-au[!]"), 0U);
    EXPECT_EQ(trace.countStarting("http-au[i] ha2"), 0U);
  }
}

TEST(AuthenticateDigest, ACallbackThatStoresNothingIsRefused) {
  for (const char* qop : {"", "auth"}) {
    Credentials credentials;
    credentials.qop = qop;
    const Received received(headOf(credentials.header()));
    Users users;
    users.ha1 = nullptr;
    const TraceCapture trace;
    EXPECT_EQ(users.check(received.request.get()), -1);
    EXPECT_EQ(users.asked, Lines({"digest user"}));
    EXPECT_FALSE(trace.said().empty());
  }
}

// Each field there or not: refused without what the response is computed from, and never read all the same.
TEST(AuthenticateDigest, NeedsWhatTheResponseIsComputedFrom) {
  enum { kUsername = 1, kNonce = 2, kUri = 4, kQop = 8, kNc = 16, kCnonce = 32, kResponse = 64, kAll = 128 };
  for (int mask = 0; mask < kAll; ++mask) {
    SCOPED_TRACE(mask);
    const bool withQop = (mask & kQop) != 0;
    Credentials credentials;
    if (!withQop) credentials.qop = "";
    std::string header = "Authorization: Digest x";
    if ((mask & kUsername) != 0) header += ", username=\"user\"";
    if ((mask & kNonce) != 0) header += ", nonce=\"n\"";
    if ((mask & kUri) != 0) header += ", uri=\"/dir/index.html\"";
    if (withQop) header += ", qop=auth";
    if ((mask & kNc) != 0) header += ", nc=00000001";
    if ((mask & kCnonce) != 0) header += ", cnonce=\"c\"";
    if ((mask & kResponse) != 0) header += ", response=\"" + credentials.response() + "\"";
    const Received received(headOf(header + "\r\n"));
    const std::string ha1 = Credentials::ha1();
    Users users;
    users.ha1 = ha1.c_str();
    const TraceCapture quiet;
    const int needed = kNonce | kUri | kResponse | (withQop ? kNc | kCnonce : 0);
    EXPECT_EQ(users.check(received.request.get()), (mask & needed) == needed ? 0 : -1);
    EXPECT_EQ(users.asked, Lines({(mask & kUsername) != 0 ? "digest user" : "digest (none)"}));
  }
}

TEST(AuthenticateDigest, FieldsOfEveryLength) {
  for (const size_t length : {1U, 598U, 599U, 600U, 601U, 70000U}) {
    for (const char* quote : {"\"", ""}) {
      const std::string text(length, 'x');
      const Received received(headOf("Authorization: Digest username="s + quote + text + quote + ", nonce=" + quote +
                                     text + quote + ", uri=" + quote + text + quote + ", qop=" + quote + text + quote +
                                     ", nc=" + quote + text + quote + ", cnonce=" + quote + text + quote +
                                     ", response=" + quote + text + quote + "\r\n"));
      Users users;
      const TraceCapture trace;
      EXPECT_EQ(users.check(received.request.get()), -1);
      const std::string kept = *quote == '\0' ? text.substr(0, 600) : length < 600 ? text : "";
      EXPECT_EQ(users.asked, Lines({"digest " + kept}));
      ASSERT_FALSE(trace.warnings().empty());
      EXPECT_EQ(trace.warnings().back(), "http-au[!]DIGEST AUTH - AUTHENTICATION NOK");
    }
  }
}

TEST(AuthenticateDigest, SaysThatItIsRight) {
  const Received received(headOf("Authorization: "s + kMufasa + "\r\n"));
  Users users;
  const TraceCapture trace{"http-auth"};
  EXPECT_EQ(users.check(received.request.get()), 0);
  EXPECT_EQ(trace.said().back(), "http-au[i]DIGEST AUTH - AUTHENTICATION OK");
}

TEST(Authenticate, PasswordsAreTracedInTheZoneOnly) {
  const TraceCapture trace;
  const Received basic(headOf("Authorization: Basic " + base64("user:TopSecret") + "\r\n"));
  const Received malformed(headOf("Authorization: Basic " + base64("TopSecret") + "\r\n"));
  for (const Received* received : {&basic, &malformed}) {
    Users users;
    users.basicResult = -1;
    users.check(received->request.get());
    http_requestTryingToAuthenticate(received->request.get());
  }
  for (const TraceLine& line : trace.lines()) {
    EXPECT_EQ(line.text.find("TopSecret"), std::string::npos) << line.text;
    EXPECT_EQ(line.text.find(base64("user:TopSecret")), std::string::npos) << line.text;
  }
}

// ---- asking for credentials ----------------------------------------------------------------------------------------

std::string challenged(const std::string& challenge) {
  return "HTTP/1.1 401 Unauthorized\r\n"
         "TE: chunked\r\n"
         "Transfer-Encoding: chunked\r\n"
         "Content-Type: text/html\r\n"
         "WWW-Authenticate: " +
         challenge +
         "\r\n"
         "\r\n"
         "5E\r\n"
         "<html><head><title>Unauthorized</title></head><body><h1>401 - Unauthorized</h1></body></html>\n\r\n"
         "0\r\n"
         "\r\n";
}

TEST(AskForBasic, IsSentWhole) {
  for (const char* realm : {"realm", "a b", "", "\"quoted\"", "%s%n%d", "\xc3\xa9"}) {
    ScriptOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    const TraceCapture trace;
    EXPECT_EQ(http_replyWithAuthBasicFailed(reply.get(), realm), 0);
    EXPECT_EQ(output.bytes(), challenged("Basic realm=\""s + realm + "\""));
    EXPECT_EQ(http_replyState(reply.get()), HTTP_MSG_DONE);
    EXPECT_EQ(http_replyStatusCode(reply.get()), 401U);
    EXPECT_EQ(reply->message.body, nullptr);
    EXPECT_EQ(trace.said(), TraceLines());
  }
}

TEST(AskForBasic, AgainBehindWhatTheApplicationSet) {
  MemoryOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyHeaderValueSet(reply.get(), "Set-Cookie", "a=1"), 0);
  ASSERT_EQ(http_replyWithAuthBasicFailed(reply.get(), "r"), 0);
  const std::string plain = challenged("Basic realm=\"r\"");
  const size_t line = plain.find("TE: ");
  EXPECT_EQ(output.text(), plain.substr(0, line) + "Set-Cookie: a=1\r\n" + plain.substr(line));
}

std::string between(const std::string& text, const std::string& before, const std::string& after) {
  const size_t at = text.find(before);
  if (at == std::string::npos) return kNone;
  const size_t begin = at + before.size();
  return text.substr(begin, text.find(after, begin) - begin);
}

TEST(AskForDigest, IsSentWholeWithAFreshNonceAndOpaque) {
  std::set<std::string> nonces;
  std::set<std::string> opaques;
  for (int round = 0; round < 50; ++round) {
    ScriptOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    const TraceCapture trace;
    EXPECT_EQ(http_replyWithAuthDigestFailed(reply.get(), "realm", "auth"), 0);
    const std::string nonce = between(output.bytes(), "nonce=\"", "\"");
    const std::string opaque = between(output.bytes(), "opaque=\"", "\"");
    EXPECT_EQ(nonce.size(), 34U);
    EXPECT_EQ(opaque.size(), 32U);
    for (const std::string& drawn : {nonce, opaque}) {
      EXPECT_EQ(drawn.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"),
                std::string::npos)
          << drawn;
    }
    EXPECT_NE(nonce.substr(0, 32), opaque);
    EXPECT_TRUE(nonces.insert(nonce).second) << nonce;
    EXPECT_TRUE(opaques.insert(opaque).second) << opaque;
    EXPECT_EQ(output.bytes(), challenged("Digest realm=\"realm\", nonce=\"" + nonce + "\", opaque=\"" + opaque +
                                         "\", algorithm=\"MD5\", qop=\"auth\""));
    EXPECT_EQ(http_replyState(reply.get()), HTTP_MSG_DONE);
    EXPECT_EQ(http_replyStatusCode(reply.get()), 401U);
    EXPECT_EQ(reply->message.body, nullptr);
    EXPECT_EQ(trace.said(), TraceLines());
  }
}

TEST(AskForDigest, RealmAndQopAreWrittenAsTheyStand) {
  for (const char* text : {"", "auth,auth-int", "%s%n", "\"", "\xc3\xa9"}) {
    ScriptOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    EXPECT_EQ(http_replyWithAuthDigestFailed(reply.get(), text, text), 0);
    const std::string nonce = between(output.bytes(), " nonce=\"", "\"");
    const std::string opaque = between(output.bytes(), " opaque=\"", "\"");
    EXPECT_EQ(output.bytes(), challenged("Digest realm=\""s + text + "\", nonce=\"" + nonce + "\", opaque=\"" + opaque +
                                         "\", algorithm=\"MD5\", qop=\"" + text + "\""));
  }
}

struct AskCase {
  const char* name;
  std::function<int(HttpReply*)> send;
};
void PrintTo(const AskCase& row, std::ostream* out) { *out << row.name; }

class Ask : public testing::TestWithParam<AskCase> {
 protected:
  // How long the whole reply is: what is drawn has always the same length.
  size_t length() const {
    ScriptOutput output;
    const ReplyPtr reply = outgoing(output.stream());
    EXPECT_EQ(GetParam().send(reply.get()), 0);
    return output.bytes().size();
  }
};

TEST_P(Ask, NeedsAVersion) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  http_replyVersionSet(reply.get(), 0, 0);
  const TraceCapture trace;
  EXPECT_EQ(GetParam().send(reply.get()), -1);
  EXPECT_EQ(trace.errors().back(), "http-au[x]unable to send default reply message");
  EXPECT_EQ(output.bytes(), "");
}

TEST_P(Ask, FailsWhereverTheHeadDoes) {
  const size_t whole = length();
  for (const int error : {EAGAIN, EPIPE}) {
    for (size_t at = 0; at < whole; ++at) {
      SCOPED_TRACE(at);
      ScriptOutput output;
      output.unbuffered().refuseAt(at, error);
      const ReplyPtr reply = outgoing(output.stream());
      const TraceCapture trace;
      const int result = GetParam().send(reply.get());
      EXPECT_EQ(output.bytes().size(), at);
      EXPECT_EQ(reply->message.body, nullptr);
      const size_t head = output.bytes().find("\r\n\r\n");
      if (head == std::string::npos) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(trace.errors().back(), "http-au[x]unable to send status code");
        EXPECT_EQ(http_replyState(reply.get()), HTTP_MSG_FAILED);
      }
    }
  }
}

TEST_P(Ask, FailsWhenThereIsNoBody) {
  ScriptOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  // A reply that must not have a body, as one to HEAD, is complete without.
  http_replyModeSet(reply.get(), 0);
  const TraceCapture trace;
  EXPECT_EQ(GetParam().send(reply.get()), -1);
  const TraceLines errors = trace.errors();
  ASSERT_GE(errors.size(), 1U);
  EXPECT_EQ(errors.back(), "http-au[x]unable to send reply body");
}

INSTANTIATE_TEST_SUITE_P(
    Both, Ask,
    testing::Values(AskCase{"Basic", [](HttpReply* reply) { return http_replyWithAuthBasicFailed(reply, "r"); }},
                    AskCase{"Digest",
                            [](HttpReply* reply) { return http_replyWithAuthDigestFailed(reply, "r", "auth"); }}),
    [](const auto& row) { return row.param.name; });

// What a server and a client say to each other.
TEST(Ask, ADigestChallengeIsAnsweredAndAccepted) {
  MemoryOutput output;
  const ReplyPtr reply = outgoing(output.stream());
  ASSERT_EQ(http_replyWithAuthDigestFailed(reply.get(), "realm", "auth"), 0);
  const std::string challenge = between(output.text(), "WWW-Authenticate: ", "\r\n");

  HttpHeader header = {};
  header.code = HTTP_HEADER_WWW_AUTHENTICATE;
  ASSERT_EQ(http_hdrFactory(&header, challenge.c_str()), 0);
  header.authorization.username = strdup("user");
  header.authorization.password = strdup(Credentials::ha1().c_str());
  header.authorization.uri = strdup("/dir/index.html");
  header.authorization.method = HTTP_METHOD_GET;

  MemoryOutput wire;
  const RequestPtr request(http_requestCreate());
  http_requestModeSet(request.get(), HTTP_MSG_WRITING);
  http_requestStreamSet(request.get(), wire.stream());
  http_requestVersionSet(request.get(), 1, 1);
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/dir/index.html"), 0);
  ASSERT_EQ(http_requestHeaderSet(request.get(), &header), 0);
  ASSERT_EQ(http_requestSend(request.get()), 0);
  http_hdrCleanup(&header);

  const Received received(wire.text());
  EXPECT_EQ(http_requestTryingToAuthenticate(received.request.get()), 1);
  EXPECT_EQ(checkSecret(received), 0);
}

}  // namespace
