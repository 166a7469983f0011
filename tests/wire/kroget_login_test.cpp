// kroget's credentials and cookies: what it tells to whom, and what it keeps.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include "support/terminal.h"
#include "support/wire_kroget.h"

namespace {

const std::string kUsual = "User-Agent: kroget/" KROGET_VERSION "\r\nAccept: */*\r\n";

// A request as kroget writes it; the address of the target is written "{T}".
std::string request(const std::string& line, const std::string& more = "") {
  return line + " HTTP/1.1\r\nHost: {T}\r\n" + kUsual + more + "\r\n";
}

// A reply that asks for credentials by these header lines.
std::string challenge(const std::string& lines, const std::string& more = "") {
  return textReply(401, "Unauthorized", "who?", "1.1", lines + more);
}
std::string asking(const std::string& value) { return challenge("WWW-Authenticate: " + value + "\r\n"); }

// Refuses the first request of each connection in this way, and grants the next ones.
WireScript refusing(const std::string& reply) {
  return WireScript().request().send(reply).request().send(okReply("yes")).request().send(okReply("again"));
}

class KrogetLoginTest : public ::testing::Test {
 protected:
  void SetUp() override { alarm(100); }
  void TearDown() override { alarm(0); }

  std::vector<WireRequest> requests(size_t connection = 0) { return target.connection(connection).requests(); }
  std::string received(size_t connection = 0) {
    return replaced(target.connection(connection).received(), authority(target), "{T}");
  }

  WireTarget target;
  TemporaryFolder folder;
};

const Arguments kAsA = {"-u", "a:b", "{T}/x?y=1"};
const std::string kRefusal = "http://{T}/x?y=1: 401 Unauthorized: ";

// --- challenges ------------------------------------------------------------------------------------------------------

std::string hash(const std::string& one, const std::string& two, const std::string& three) {
  const std::unique_ptr<char, decltype(&free)> text(http_generateDigestHash(one.c_str(), two.c_str(), three.c_str()),
                                                    &free);
  return text.get();
}

// Digest parameters, as far as they do not differ from one table row to the next.
constexpr const char* kGetHash = "9c6cb22affa129a0ec3f2f5180429675";  // MD5 of "GET:/x?y=1"
const std::string kStart = R"(Digest username="a", realm="r", nonce="n", uri="/x?y=1")";
const std::string kOld = R"(, response="a7246c33c93289d01a9c6d75b99bc29f")";  // without qop
const std::string kBasic = "Basic YTpi";

// Replaces the cnonce by "{C}", and by "{R}" the response, if it is the right one for a:b, realm r, nonce n and
// qop=auth.
std::string withoutRandom(const std::string& line, const char* requestHash = kGetHash) {
  const std::regex pattern("cnonce=\"([A-Za-z0-9]{34})\"");
  std::smatch match;
  if (!std::regex_search(line, match, pattern)) return line;
  const std::string cnonce = match[1];
  const size_t count = line.find("nc=") + 3;
  const std::string right =
      hash(hash("a", "r", "b"), "n:" + line.substr(count, 8) + ":" + cnonce + ":auth", requestHash);
  return replaced(replaced(line, cnonce, "{C}"), right, "{R}");
}
const std::string kNew = R"(, qop=auth, nc=00000001, cnonce="{C}", response="{R}")";

struct ChallengeCase {
  const char* name;
  std::string lines;  // of the reply's head, without the line's end of the last one
  std::string authorization;
};
void PrintTo(const ChallengeCase& row, std::ostream* out) { *out << row.name; }
std::string www(const std::string& value) { return "WWW-Authenticate: " + value; }
const ChallengeCase kChallenges[] = {
    {"Basic", www(R"(Basic realm="r")"), kBasic},
    {"BasicWithoutRealm", www("Basic"), kBasic},
    {"BasicWithCharset", www(R"(Basic realm="r", charset="UTF-8")"), kBasic},
    {"SchemeInSmallLetters", www(R"(basic realm="r")"), kBasic},
    {"SchemeInCapitals", www(R"(DIGEST realm="r", nonce="n")"), kStart + kOld},
    {"NamesInCapitals", www(R"(Digest REALM="r", Nonce="n", QOP="auth")"), kStart + kNew},
    {"HeaderInSmallLetters", R"(www-authenticate: Digest realm="r", nonce="n")", kStart + kOld},
    {"NeitherQopNorOpaque", www(R"(Digest realm="r", nonce="n")"), kStart + kOld},
    {"Opaque", www(R"(Digest realm="r", nonce="n", opaque="o=p")"), kStart + kOld + R"(, opaque="o=p")"},
    {"EmptyOpaque", www(R"(Digest realm="r", nonce="n", opaque="")"), kStart + kOld + R"(, opaque="")"},
    {"OpaqueBeforeItsTurn", www(R"(Digest opaque="o", nonce="n", realm="r")"), kStart + kOld + R"(, opaque="o")"},
    {"Qop", www(R"(Digest realm="r", nonce="n", qop="auth")"), kStart + kNew},
    {"QopAndOpaque", www(R"(Digest realm="r", nonce="n", qop="auth", opaque="o")"), kStart + kNew + R"(, opaque="o")"},
    {"QopWithoutQuotes", www(R"(Digest realm="r", nonce="n", qop=auth)"), kStart + kNew},
    {"QopList", www(R"(Digest realm="r", nonce="n", qop="auth,auth-int")"), kStart + kNew},
    {"QopListWithBlanks", www(R"(Digest realm="r", nonce="n", qop="auth-int , AUTH")"), kStart + kNew},
    {"EmptyQop", www(R"(Digest realm="r", nonce="n", qop="")"), kStart + kOld},
    {"Algorithm", www(R"(Digest realm="r", nonce="n", algorithm=MD5)"), kStart + ", algorithm=MD5" + kOld},
    {"AlgorithmInQuotes", www(R"(Digest realm="r", nonce="n", algorithm="md5", qop="auth")"),
     kStart + ", algorithm=MD5" + kNew},
    {"UnknownParameters",
     www(R"(Digest realm="r", domain="/ /b", nonce="n", charset=UTF-8, userhash=false, stale=false)"), kStart + kOld},
    {"WithoutBlanks", www(R"(Digest realm="r",nonce="n",qop="auth")"), kStart + kNew},
    {"ManyBlanksAndTabs", www("Digest  realm =\t\"r\" ,\t nonce= \"n\" \t,qop =auth"), kStart + kNew},
    {"EmptyElements", www(R"(, ,Digest realm="r",, nonce="n", ,)"), kStart + kOld},
    {"RealmIsAToken", www("Digest realm=r, nonce=n"), kStart + kOld},
    {"FirstOfTwoParametersCounts", www(R"(Digest realm="r", realm="s", nonce="n", nonce="m")"), kStart + kOld},
    {"CommasAndEscapesInQuotes", www(R"(Digest realm="r \"x\", \\y", nonce="n,1", qop="")"),
     R"(Digest username="a", realm="r \"x\", \\y", nonce="n,1", uri="/x?y=1", response="a1d204394f5b86c3909f5773d5a298d6")"},
    {"SchemeInsideQuotes", www(R"(Basic realm="Digest realm=x, nonce=y")"), kBasic},
    {"BasicThenDigest", www(R"(Basic realm="r", Digest realm="r", nonce="n")"), kStart + kOld},
    {"DigestThenBasic", www(R"(Digest realm="r", nonce="n", Basic realm="r")"), kStart + kOld},
    {"NamesAloneThenDigest", www(R"(Negotiate, NTLM, Basic, Digest realm="r", nonce="n")"), kStart + kOld},
    {"Token68ThenBasic", www(R"(Negotiate YWJj+/-._~==, Basic realm="r")"), kBasic},
    {"Token68WithoutPadding", www(R"(Negotiate YWJj , Basic realm="r")"), kBasic},
    {"UnknownSchemeThenDigest", www(R"(Bearer realm="a, b", error="c", Digest realm="r", nonce="n")"), kStart + kOld},
    {"TwoHeaders", www(R"(Basic realm="r")") + "\r\n" + www(R"(Digest realm="r", nonce="n")"), kStart + kOld},
    {"MistakeInOneOfTwoHeaders", www("=") + "\r\n" + www(R"(Basic realm="r")"), kBasic},
    {"FirstOfTwoDigests", www(R"(Digest realm="r", nonce="n", Digest realm="s", nonce="m")"), kStart + kOld},
    {"Md5BehindOthers",
     www(R"(Digest realm="r", nonce="m", algorithm=SHA-256, Digest realm="r", nonce="n", algorithm=MD5)"),
     kStart + ", algorithm=MD5" + kOld},
    {"SessionVariantFallsBack", www(R"(Digest realm="r", nonce="n", algorithm=MD5-sess, Basic realm="r")"), kBasic},
    {"Sha256FallsBack", www(R"(Basic realm="r", Digest realm="r", nonce="n", algorithm="SHA-256")"), kBasic},
    {"IntegrityFallsBack", www(R"(Basic realm="r", Digest realm="r", nonce="n", qop="auth-int")"), kBasic},
    {"DigestWithoutNonceFallsBack", www(R"(Digest realm="r", Basic realm="r")"), kBasic},
    {"DigestWithoutRealmFallsBack", www(R"(Digest nonce="n", Basic realm="r")"), kBasic},
    {"MistakeBehindBasic", www(R"(Basic realm="r", Digest realm="r", nonce="n)"), kBasic},
    {"EscapeAtTheEnd", www("Basic realm=\"r\", Digest realm=\"r\", nonce=\"n\\"), kBasic},
    {"TextBehindAQuote", www(R"(Basic realm="r", Digest realm="r"x, nonce="n")"), kBasic},
    {"QuotesWithoutEscapes", www(R"(Basic realm="a "b", c")"), kBasic},
    {"ValueIsMissing", www(R"(Basic realm="r", Digest realm=, nonce="n")"), kBasic},
};
class KrogetChallengeTest : public KrogetLoginTest, public ::testing::WithParamInterface<ChallengeCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetChallengeTest, ::testing::ValuesIn(kChallenges),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetChallengeTest, IsAnsweredOnTheSameConnection) {
  target.always(refusing(challenge(GetParam().lines + "\r\n")));
  EXPECT_EQ(run(kAsA, &target), succeeded("yes"));
  ASSERT_EQ(target.count(), 1u);
  const std::string authorization = "Authorization: " + GetParam().authorization + "\r\n";
  EXPECT_EQ(withoutRandom(received()), request("GET /x?y=1") + request("GET /x?y=1", authorization));
}

struct UnansweredCase {
  const char* name;
  std::string lines;
  std::string why;
  Arguments arguments = {};
};
void PrintTo(const UnansweredCase& row, std::ostream* out) { *out << row.name; }
const std::string kDigest = www(R"(Digest realm="r", nonce="n")") + "\r\n";
const std::string kLong(600, 'l');
const UnansweredCase kUnanswered[] = {
    {"NoHeader", "", "the server does not say how to log in"},
    {"Mistake", www("\"") + "\r\n", "the server does not say how to log in"},
    {"ParameterWithoutScheme", www("realm=\"r\"") + "\r\n", "the server does not say how to log in"},
    {"Bearer", www("Bearer realm=\"r\"") + "\r\n", "kroget cannot answer Bearer"},
    {"Several", www("Negotiate, Digest realm=\"r\", nonce=\"n\", algorithm=SHA-256") + "\r\n",
     "kroget cannot answer Negotiate, Digest with SHA-256"},
    {"SessionVariant", www(R"(Digest realm="r", nonce="n", algorithm=MD5-sess)") + "\r\n",
     "kroget cannot answer Digest with MD5-sess"},
    {"Integrity", www(R"(Digest realm="r", nonce="n", qop="auth-int")") + "\r\n",
     "kroget cannot answer Digest with qop auth-int"},
    {"MistakeInDigest", www(R"(Digest realm="r", nonce="n", qop="auth)") + "\r\n",
     "kroget cannot answer Digest with a mistake in it"},
    {"MistakeInBearer", www("Bearer a=b c") + "\r\n", "kroget cannot answer Bearer"},
    {"EqualsBehindAScheme", www("Bearer =b") + "\r\n", "the server does not say how to log in"},
    {"NoNonce", www(R"(Digest realm="r")") + "\r\n", "kroget cannot answer Digest without realm or nonce"},
    {"Escaped", www("Digest realm=\"r\", nonce=\"n\", algorithm=\"\xc3\xbc\"") + "\r\n",
     "kroget cannot answer Digest with \\xc3\\xbc"},
    {"UnknownMethod", kDigest, "kroget cannot answer Digest for the method PATCH", {"-X", "PATCH"}},
    {"LongPassword", kDigest, "kroget cannot answer Digest with texts of this length", {"-u", "a:" + kLong}},
    {"LongNonce", www("Digest realm=\"r\", nonce=\"" + kLong + kLong + "\"") + "\r\n",
     "kroget cannot answer Digest with texts of this length"},
};
class KrogetUnansweredTest : public KrogetLoginTest, public ::testing::WithParamInterface<UnansweredCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetUnansweredTest, ::testing::ValuesIn(kUnanswered),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetUnansweredTest, IsToldInOneLine) {
  target.always(refusing(challenge(GetParam().lines)));
  Arguments arguments = {"{T}/x?y=1"};
  for (const std::string& argument : GetParam().arguments) arguments.push_back(argument);
  if (GetParam().arguments.empty() || GetParam().arguments[0] != "-u") arguments.insert(arguments.end(), {"-u", "a:b"});
  EXPECT_EQ(run(arguments, &target), failed(8, kRefusal + GetParam().why));
  EXPECT_EQ(target.requests(), 1u);
}

TEST_F(KrogetLoginTest, LongUrlsHaveNoDigest) {
  target.always(refusing(challenge(kDigest)));
  // "GET:/" and so many characters are hashed.
  const std::string longest(595, 'l');
  EXPECT_EQ(run({"-u", "a:b", "{T}/" + longest}, &target), succeeded("yes"));
  EXPECT_EQ(
      run({"-u", "a:b", "{T}/l" + longest}, &target),
      failed(8, "http://{T}/l" + longest + ": 401 Unauthorized: kroget cannot answer Digest for a URL of this length"));
}

// --- credentials -----------------------------------------------------------------------------------------------------

struct CredentialsCase {
  const char* name;
  Arguments arguments;
  std::string challenge;
  std::string authorization;
};
void PrintTo(const CredentialsCase& row, std::ostream* out) { *out << row.name; }
const CredentialsCase kCredentials[] = {
    {"Basic", {"-u", "Aladdin:open sesame", "{T}/x"}, "Basic", "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ=="},
    {"ColonsInThePassword", {"-u", "a:b:c", "{T}/x"}, "Basic", "Basic YTpiOmM="},
    {"EmptyPassword", {"-u", "a:", "{T}/x"}, "Basic", "Basic YTo="},
    {"EmptyUser", {"-u", ":b", "{T}/x"}, "Basic", "Basic OmI="},
    {"NotAscii", {"-u", "\xc3\xbc:\xc3\xb6", "{T}/x"}, "Basic", "Basic w7w6w7Y="},
    {"OfTheUrl", {"http://Aladdin:open%20sesame@{T}/x"}, "Basic", "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ=="},
    {"OfTheUrlComeFirst", {"-u", "a:b", "http://me:x@{T}/x"}, "Basic", "Basic bWU6eA=="},
    {"UserOfTheUrl", {"http://me@{T}/x"}, "Basic", "Basic bWU6"},
    {"FromLiterature",
     {"-u", "Mufasa:Circle Of Life", "{T}/dir/index.html"},
     R"(Digest realm="testrealm@host.com", nonce="dcd98b7102dd2f0e8b11d0f600bfb0c093")",
     R"(Digest username="Mufasa", realm="testrealm@host.com", nonce="dcd98b7102dd2f0e8b11d0f600bfb0c093", )"
     R"(uri="/dir/index.html", response="670fd8c2df070c60b045671b8b24ff02")"},
    {"QuotesInTheUser",
     {"-u", "a\"\\:b:c", "{T}/x?y=1"},
     R"(Digest realm="r", nonce="n")",
     R"(Digest username="a\"\\", realm="r", nonce="n", uri="/x?y=1", response="b27ea7a96544e9c1ca31a0fa7a79c788")"},
    {"ResponseInTheNames",
     {"-u", "response=\":b", "{T}/x?y=1"},
     R"(Digest realm="response=\"", nonce="response=", opaque="response=\"1\"")",
     R"(Digest username="response=\"", realm="response=\"", nonce="response=", uri="/x?y=1", response=")" +
         hash(hash("response=\"", "response=\"", "b"), "response=", kGetHash) + R"(", opaque="response=\"1\"")"},
};
class KrogetCredentialsTest : public KrogetLoginTest, public ::testing::WithParamInterface<CredentialsCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetCredentialsTest, ::testing::ValuesIn(kCredentials),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetCredentialsTest, AreTold) {
  target.always(refusing(asking(GetParam().challenge)));
  EXPECT_EQ(run(GetParam().arguments, &target), succeeded("yes"));
  EXPECT_EQ(requests().at(0).header("Authorization"), "");
  EXPECT_EQ(requests().at(1).header("Authorization"), GetParam().authorization);
}

TEST_F(KrogetLoginTest, NobodyLogsInUnasked) {
  target.always(answering(asking("Basic")));
  EXPECT_EQ(run({"{T}/"}, &target), succeeded("who?"));
  EXPECT_EQ(run({"--fail", "{T}/"}, &target), failed(8, "http://{T}/: 401 Unauthorized"));
  EXPECT_EQ(run({"-u", "a:b", "-H", "Authorization: x", "{T}/"}, &target), succeeded("who?"));
  EXPECT_EQ(run({"-u", "a:b", "-H", "Authorization:", "{T}/"}, &target), succeeded("who?"));
  EXPECT_EQ(target.requests(), 4u);
}

TEST_F(KrogetLoginTest, OtherRefusalsAreNoChallenges) {
  target.always(answering(textReply(403, "Forbidden", "no", "1.1", "WWW-Authenticate: Basic\r\n")));
  EXPECT_EQ(run(kAsA, &target), succeeded("no"));
  EXPECT_EQ(target.requests(), 1u);
}

TEST_F(KrogetLoginTest, ASecondRefusalIsTheLast) {
  const std::string path = folder.file("kept", "before");
  for (const char* scheme : {"Basic", "Digest realm=\"r\", nonce=\"n\"", "Digest realm=\"r\", nonce=\"n\", stale=FALSE",
                             "Basic stale=true"}) {
    target.always(answering(asking(scheme)));
    const size_t before = target.requests();
    EXPECT_EQ(run({"-u", "a:b", "-o", path, "{T}/x?y=1"}, &target), failed(8, kRefusal + "the credentials are refused"))
        << scheme;
    EXPECT_EQ(target.requests(), before + 2) << scheme;
  }
  EXPECT_EQ(contentOf(path), "before");
}

TEST_F(KrogetLoginTest, AStaleNonceIsReplaced) {
  target.always(WireScript()
                    .request()
                    .send(asking(R"(Digest realm="r", nonce="n")"))
                    .request()
                    .send(asking(R"(Digest realm="r", nonce="n2", stale=TRUE)"))
                    .request()
                    .send(okReply("yes")));
  EXPECT_EQ(run(kAsA, &target), succeeded("yes"));
  EXPECT_EQ(requests().at(1).header("Authorization"), kStart + kOld);
  EXPECT_EQ(requests().at(2).header("Authorization"),
            R"(Digest username="a", realm="r", nonce="n2", uri="/x?y=1", response="d38719a27b796ced2fbc6c4eabf109ce")");
}

TEST_F(KrogetLoginTest, NoncesThatAreAlwaysStaleEnd) {
  target.always(answering(asking(R"(Digest realm="r", nonce="n", stale="true")")));
  EXPECT_EQ(run(kAsA, &target), failed(8, kRefusal + "the credentials are refused"));
  EXPECT_EQ(target.requests(), 5u);
}

TEST_F(KrogetLoginTest, EachUseOfANonceIsCounted) {
  target.always(WireScript()
                    .request()
                    .send(asking(R"(Digest realm="r", nonce="n", qop="auth")"))
                    .request()
                    .send(okReply("yes"))
                    .repeat());
  EXPECT_EQ(run({"-u", "a:b", "{T}/x?y=1", "{T}/x?y=1"}, &target), succeeded("yesyes"));
  ASSERT_EQ(target.requests(), 4u);
  EXPECT_EQ(requests().at(2).header("Authorization"), "");
  EXPECT_EQ(withoutRandom(requests().at(1).header("Authorization")), kStart + kNew);
  EXPECT_EQ(withoutRandom(requests().at(3).header("Authorization")), kStart + replaced(kNew, "00000001", "00000002"));
}

TEST_F(KrogetLoginTest, AClosedConnectionIsReplaced) {
  target.next(WireScript().request().send(challenge("WWW-Authenticate: Basic\r\n", "Connection: close\r\n")).finish())
      .next(answering(okReply("yes")));
  EXPECT_EQ(run(kAsA, &target), succeeded("yes"));
  ASSERT_EQ(target.count(), 2u);
  EXPECT_EQ(received(0), request("GET /x?y=1"));
  EXPECT_EQ(received(1), request("GET /x?y=1", "Authorization: Basic YTpi\r\n"));
}

TEST_F(KrogetLoginTest, HeadsOfChallengesArePrinted) {
  const std::string reply = asking("Basic");
  target.always(refusing(reply));
  EXPECT_EQ(run({"-i", "-u", "a:b", "{T}/"}, &target), succeeded(reply.substr(0, reply.size() - 4) + okReply("yes")));
}

TEST_F(KrogetLoginTest, HeadIsAskedForTwice) {
  const std::string head = "HTTP/1.1 401 Unauthorized\r\nContent-Length: 9\r\nWWW-Authenticate: " +
                           std::string(R"(Digest realm="r", nonce="n", qop="auth")") + "\r\n\r\n";
  const std::string granted = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n";
  target.always(WireScript().request().send(head).request().send(granted));
  EXPECT_EQ(run({"-I", "-u", "a:b", "{T}/x"}, &target), succeeded(head + granted));
  EXPECT_EQ(withoutRandom(requests().at(1).header("Authorization"), "3ed1973bf6f0b3a624005b9c41d64a8b"),
            R"(Digest username="a", realm="r", nonce="n", uri="/x")" + kNew);
}

// --- bodies ----------------------------------------------------------------------------------------------------------

TEST_F(KrogetLoginTest, TextsAreSentAgain) {
  target.always(refusing(asking(R"(Digest realm="r", nonce="n", qop="auth")")));
  EXPECT_EQ(run({"-u", "a:b", "-d", "c=d", "{T}/x"}, &target), succeeded("yes"));
  ASSERT_EQ(target.requests(), 2u);
  EXPECT_EQ(requests().at(0).body, "c=d");
  EXPECT_EQ(requests().at(1).body, "c=d");
  EXPECT_EQ(withoutRandom(requests().at(1).header("Authorization"), "df0fb8554f39045cea275e20092da43d"),
            R"(Digest username="a", realm="r", nonce="n", uri="/x")" + kNew);
}

TEST_F(KrogetLoginTest, FilesAreReadAgain) {
  const std::string content = pattern(300000);
  const std::string path = folder.file("data", content);
  target.always(refusing(asking("Basic")));
  EXPECT_EQ(run({"-u", "a:b", "-T", path, "{T}/x"}, &target), succeeded("yes"));
  EXPECT_EQ(requests().at(0).body, content);
  EXPECT_EQ(requests().at(1).line, "PUT /x HTTP/1.1");
  EXPECT_EQ(requests().at(1).body, content);
}

// What the server does not wait for is not sent to its end.
TEST_F(KrogetLoginTest, AnEarlyChallengeStopsTheUpload) {
  // What it reads before it refuses is little; then it takes all.
  WireTarget slow(WireAddress::tcp(0), {.readAtMost = 1000});
  const auto lookAway = [](WireTargetConnection& connection) { connection.readAtMost(0); };
  const auto takeAll = [](WireTargetConnection& connection) { connection.readAtMost(SIZE_MAX); };
  slow.next(WireScript().head().call(lookAway).send(asking("Basic")))
      .next(WireScript().call(takeAll).request().send(okReply("yes")));
  const std::string content = pattern(20'000'000);
  EXPECT_EQ(run({"-u", "a:b", "-T", folder.file("data", content), "{T}/x"}, &slow), succeeded("yes"));
  ASSERT_EQ(slow.count(), 2u);
  EXPECT_LT(slow.connection(0).received().size(), content.size());
  const WireRequest second = slow.connection(1).requests().at(0);
  EXPECT_TRUE(second.body == content);
  EXPECT_EQ(second.header("Authorization"), kBasic);
}

TEST_F(KrogetLoginTest, StandardInputCannotBeSentAgain) {
  target.always(refusing(asking("Basic")));
  EXPECT_EQ(runInShell("echo once | \"$@\"", {"-u", "a:b", "-T", "-", "{T}/x?y=1"}, &target),
            failed(9, kRefusal + "standard input cannot be sent a second time"));
  EXPECT_EQ(target.requests(), 1u);
  // -d reads it whole.
  EXPECT_EQ(runInShell("echo kept | \"$@\"", {"-u", "a:b", "-d", "@-", "{T}/x"}, &target), succeeded("yes"));
  EXPECT_EQ(requests(1).at(1).body, "kept\n");
}

TEST_F(KrogetLoginTest, StandardInputThatWasNotReadIsSentOnce) {
  const std::string done = folder.at("done");
  target.next(WireScript().head().send(asking("Basic")))
      .next(WireScript()
                .head()
                .call([&](WireTargetConnection&) { folder.file("done", ""); })
                .request()
                .send(okReply("yes")));
  const std::string late = "( while [ ! -e '" + done + "' ]; do sleep 0.01; done; printf late ) | \"$@\"";
  EXPECT_EQ(runInShell(late, {"-u", "a:b", "-T", "-", "{T}/x"}, &target), succeeded("yes"));
  ASSERT_EQ(target.count(), 2u);
  EXPECT_EQ(requests(1).at(0).header("Authorization"), kBasic);
  EXPECT_EQ(requests(1).at(0).body, "late");
}

// --- redirects -------------------------------------------------------------------------------------------------------

std::string redirect(const std::string& location, const std::string& more = "") {
  return textReply(302, "Moved", "moved", "1.1", "Location: " + location + "\r\n" + more);
}

TEST_F(KrogetLoginTest, OthersAreToldNothing) {
  WireTarget other;
  other.always(answering(asking("Basic")));
  target.always(
      WireScript().request().send(asking("Basic")).request().send(redirect("http://" + authority(other) + "/")));
  EXPECT_EQ(run({"-L", "-u", "a:b", "{T}/"}, &target), succeeded("who?"));
  ASSERT_EQ(other.requests(), 1u);
  EXPECT_FALSE(other.connection(0).requests().at(0).has("Authorization"));
  EXPECT_EQ(requests().at(1).header("Authorization"), kBasic);
}

TEST_F(KrogetLoginTest, OtherNamesOfTheSameSocketAreToldNothing) {
  WireTarget local(WireAddress::local(folder.at("socket")));
  local.always(WireScript().request().send(redirect("http://b/")).request().send(asking("Basic")));
  EXPECT_EQ(run({"-L", "-u", "a:b", "--unix", folder.at("socket"), "http://a/"}), succeeded("who?"));
  EXPECT_EQ(local.requests(), 2u);
}

TEST_F(KrogetLoginTest, TheSameServerIsToldAgainWhenItAsks) {
  const std::string asked = asking(R"(Digest realm="r", nonce="n", qop="auth")");
  target.always(WireScript()
                    .request()
                    .send(asked)
                    .request()
                    .send(redirect("/y"))
                    .request()
                    .send(asked)
                    .request()
                    .send(okReply("there")));
  EXPECT_EQ(run({"-L", "-u", "a:b", "{T}/x?y=1"}, &target), succeeded("there"));
  const auto all = requests();
  ASSERT_EQ(all.size(), 4u);
  EXPECT_FALSE(all[2].has("Authorization"));
  EXPECT_EQ(withoutRandom(all[3].header("Authorization"), "6c00afacf8835c9c1d7fc213449a0756"),
            R"(Digest username="a", realm="r", nonce="n", uri="/y")" + replaced(kNew, "00000001", "00000002"));
}

// --- passwords that nobody sees --------------------------------------------------------------------------------------

// Waits for the program's end.
std::string outcomeOf(Terminal& terminal) {
  EXPECT_TRUE(wait([&] { return terminal.ended(); }));
  return terminal.outcome();
}

TEST_F(KrogetLoginTest, AMissingPasswordIsAskedFor) {
  target.always(refusing(asking("Basic")));
  Terminal terminal(commandLine({"-u", "me", "{T}/", "{T}/"}, &target));
  ASSERT_TRUE(wait([&] { return terminal.shows("Password of me: "); }));
  EXPECT_TRUE(wait([&] { return !terminal.echoes(); }));
  EXPECT_EQ(target.count(), 0u);
  terminal.type("se:cret\n");
  EXPECT_EQ(outcomeOf(terminal), "exit 0");
  EXPECT_EQ(terminal.screen(), "Password of me: \r\nyesagain");
  EXPECT_EQ(requests().at(1).header("Authorization"), "Basic bWU6c2U6Y3JldA==");
}

TEST_F(KrogetLoginTest, ThePasswordComesFromTheTerminalAndTheBodyFromStandardInput) {
  target.always(refusing(asking("Basic")));
  Arguments arguments = {"/bin/sh", "-c", "printf body | \"$@\"", "sh"};
  for (const std::string& word : commandLine({"-u", "me", "-d", "@-", "{T}/"}, &target)) arguments.push_back(word);
  Terminal terminal(arguments);
  ASSERT_TRUE(wait([&] { return terminal.shows("Password of me: "); }));
  EXPECT_TRUE(wait([&] { return !terminal.echoes(); }));
  terminal.type("x\n");
  EXPECT_EQ(outcomeOf(terminal), "exit 0");
  EXPECT_EQ(requests().at(1).header("Authorization"), "Basic bWU6eA==");
  EXPECT_EQ(requests().at(1).body, "body");
}

struct PromptCase {
  const char* name;
  std::string typed;
  std::string outcome;
  std::string shown;
};
void PrintTo(const PromptCase& row, std::ostream* out) { *out << row.name; }
const PromptCase kPrompts[] = {
    {"End", "\x04", "exit 2", "kroget: -u: no password was given\r\n"},
    {"Control", "a\x01z\n", "exit 2", "\r\nkroget: -u: there is a control character in the password\r\n"},
    {"Interrupt", "\x03", "signal 2", ""},
};
class KrogetPromptTest : public KrogetLoginTest, public ::testing::WithParamInterface<PromptCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetPromptTest, ::testing::ValuesIn(kPrompts),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetPromptTest, EndsBeforeAnythingIsSent) {
  Terminal terminal(commandLine({"-u", "me", "{T}/"}, &target));
  ASSERT_TRUE(wait([&] { return terminal.shows("Password of me: "); }));
  EXPECT_TRUE(wait([&] { return !terminal.echoes(); }));
  terminal.type(GetParam().typed);
  EXPECT_EQ(outcomeOf(terminal), GetParam().outcome);
  EXPECT_EQ(terminal.screen(), "Password of me: " + GetParam().shown);
  EXPECT_EQ(target.count(), 0u);
}

TEST_F(KrogetLoginTest, WithoutATerminalNobodyIsAsked) {
  EXPECT_EQ(runInShell("setsid -w \"$@\"", {"-u", "me", "{T}/"}, &target),
            failed(2, "-u: there is no terminal to ask for the password: give USER:PASSWORD"));
  EXPECT_EQ(target.count(), 0u);
}

struct HiddenCase {
  const char* name;
  Arguments arguments;
  std::string seen;  // blanks between the arguments
};
void PrintTo(const HiddenCase& row, std::ostream* out) { *out << row.name; }
const HiddenCase kHidden[] = {
    {"Apart", {"-u", "me:secret", "{T}/"}, "-u ********* {T}/"},
    {"Together", {"-ume:secret", "{T}/"}, "-u********* {T}/"},
    {"BehindAnotherOption", {"-vu", "me:secret", "{T}/"}, "-vu ********* {T}/"},
    {"Long", {"{T}/", "--user", "me:secret"}, "{T}/ --user *********"},
    {"LongWithEquals", {"--user=me:secret", "{T}/"}, "--user=********* {T}/"},
    {"Url", {"http://me:secret@{T}/@"}, "http://*********@{T}/@"},
    {"UrlWithoutScheme", {"me:s@cret@{T}"}, "*********@{T}"},
    {"SecondUrl", {"{T}/?a@b", "http://me:secret@{T}/"}, "{T}/?a@b http://*********@{T}/"},
};
class KrogetHiddenTest : public KrogetLoginTest, public ::testing::WithParamInterface<HiddenCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetHiddenTest, ::testing::ValuesIn(kHidden),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetHiddenTest, FromListsOfProcesses) {
  const std::string pid = folder.at("pid");
  Arguments line = {"/bin/sh", "-c", "echo $$ >'" + pid + "'; exec \"$@\"", "sh"};
  for (const std::string& word : commandLine(GetParam().arguments, &target)) line.push_back(word);
  ChildProcess process(line);
  ASSERT_TRUE(wait([&] { return target.count() == 1 && !target.connection(0).received().empty(); }));
  const std::string number = contentOf(pid);
  std::string seen = contentOf("/proc/" + number.substr(0, number.size() - 1) + "/cmdline");
  for (char& c : seen)
    if (c == '\0') c = ' ';
  EXPECT_EQ(replaced(seen, authority(target), "{T}"), KROGET " " + GetParam().seen + " ");
}

// --- cookies ---------------------------------------------------------------------------------------------------------

const std::string kJarStart =
    "# Netscape HTTP Cookie File\n# Written by kroget, and replaced as a whole each time.\n\n";

// All hosts are behind one Unix socket.
class KrogetCookieTest : public KrogetLoginTest {
 protected:
  KrogetCookieTest() : server(WireAddress::local(folder.at("socket"))) {}

  Arguments with(Arguments more) const {
    more.insert(more.begin(), {"--unix", folder.at("socket"), "-c", folder.at("jar")});
    return more;
  }
  // The lines of the jar behind its comments.
  std::string jar() const {
    const std::string content = contentOf(folder.at("jar"));
    EXPECT_EQ(content.substr(0, kJarStart.size()), kJarStart);
    return content.substr(std::min(kJarStart.size(), content.size()));
  }
  // The Cookie header of a request for this URL.
  std::string cookiesFor(const std::string& url) {
    const size_t before = server.count();
    EXPECT_EQ(run(with({url})).outcome, "exit 0");
    return server.connection(before).requests().at(0).header("Cookie");
  }

  WireTarget server;
};

std::string setting(const std::vector<std::string>& cookies) {
  std::string lines;
  for (const std::string& cookie : cookies) lines += "Set-Cookie: " + cookie + "\r\n";
  return textReply(200, "OK", "yes", "1.1", lines);
}

// Far in the future.
const std::string kDate = "Expires=Wed, 09 Jun 2088 10:18:14 GMT";
const std::string kExpiry = "3737614694";

struct SetCookieCase {
  const char* name;
  std::string url;
  std::vector<std::string> cookies;
  std::string jar;
  std::string next = "";    // another URL
  std::string cookie = "";  // what is sent there
};
void PrintTo(const SetCookieCase& row, std::ostream* out) { *out << row.name; }
const std::string kA = "http://www.example.com/";
const std::string kALine = "www.example.com\tFALSE\t/\tFALSE\t0\ta\t1\n";
const SetCookieCase kSetCookies[] = {
    {"Session", kA, {"a=1"}, kALine, kA, "a=1"},
    {"SlashInTheName",
     kA,
     {"kro/sessid=ab+/c=; path=/; HttpOnly; SameSite=Lax"},
     "#HttpOnly_www.example.com\tFALSE\t/\tFALSE\t0\tkro/sessid\tab+/c=\n",
     kA,
     "kro/sessid=ab+/c="},
    {"EmptyValue", kA, {"a="}, "www.example.com\tFALSE\t/\tFALSE\t0\ta\t\n", kA, "a="},
    {"BlanksAround",
     kA,
     {" a = 1 2 ; Path = /b "},
     "www.example.com\tFALSE\t/b\tFALSE\t0\ta\t1 2\n",
     kA + "b",
     "a=1 2"},
    {"QuotesStay", kA, {"a=\"1, 2\""}, "www.example.com\tFALSE\t/\tFALSE\t0\ta\t\"1, 2\"\n", kA, "a=\"1, 2\""},
    {"NoPair", kA, {"a", "; a=1", "Path=/"}, "www.example.com\tFALSE\t/\tFALSE\t0\tPath\t/\n", kA, "Path=/"},
    {"NoName", kA, {"=1"}, "", kA, ""},
    {"TabInTheValue", kA, {"a=1\t2"}, "", kA, ""},
    {"Largest",
     kA,
     {"a=" + std::string(4095, 'x')},
     "www.example.com\tFALSE\t/\tFALSE\t0\ta\t" + std::string(4095, 'x') + "\n",
     kA,
     "a=" + std::string(4095, 'x')},
    {"TooLarge", kA, {"a=" + std::string(4096, 'x')}, "", kA, ""},
    {"UnknownAttributes", kA, {"a=1; SameSite=None; Priority=High; x; =; Version=1"}, kALine, kA, "a=1"},
    // Domains.
    {"HostOnly", kA, {"a=1"}, kALine, "http://x.www.example.com/", ""},
    {"HostsAreCompared", kA, {"a=1"}, kALine, "http://ww.example.com/", ""},
    {"CaseOfTheHost", "http://WWW.Example.com/", {"a=1"}, kALine, "http://www.EXAMPLE.com/", "a=1"},
    {"PortsDoNotMatter", "http://www.example.com:81/", {"a=1"}, kALine, "http://www.example.com:82/", "a=1"},
    {"Domain",
     kA,
     {"a=1; Domain=example.com"},
     ".example.com\tTRUE\t/\tFALSE\t0\ta\t1\n",
     "http://x.y.example.com/",
     "a=1"},
    {"DomainWithDotInCapitals",
     kA,
     {"a=1; DOMAIN=.EXAMPLE.com"},
     ".example.com\tTRUE\t/\tFALSE\t0\ta\t1\n",
     "http://example.com/",
     "a=1"},
    {"DomainIsTheHost",
     kA,
     {"a=1; Domain=www.example.com"},
     ".www.example.com\tTRUE\t/\tFALSE\t0\ta\t1\n",
     "http://x.www.example.com/",
     "a=1"},
    {"DomainIsNoSuffixOfAName",
     kA,
     {"a=1; Domain=example.com"},
     ".example.com\tTRUE\t/\tFALSE\t0\ta\t1\n",
     "http://badexample.com/",
     ""},
    {"EmptyDomain", kA, {"a=1; Domain="}, kALine, "http://x.www.example.com/", ""},
    {"LastDomainCounts",
     kA,
     {"a=1; Domain=other.com; Domain=example.com"},
     ".example.com\tTRUE\t/\tFALSE\t0\ta\t1\n",
     "http://example.com/",
     "a=1"},
    {"OtherDomain", kA, {"a=1; Domain=example.org"}, "", "http://example.org/", ""},
    {"DomainBelow", kA, {"a=1; Domain=x.www.example.com"}, "", "http://x.www.example.com/", ""},
    {"PartOfAName", kA, {"a=1; Domain=ample.com"}, "", kA, ""},
    {"TopLevelDomain", kA, {"a=1; Domain=com", "b=1; Domain=.com", "c=1; Domain=com."}, "", kA, ""},
    {"TopLevelDomainWithDot", "http://example.com./", {"a=1; Domain=com."}, "", "http://example.com./", ""},
    {"SingleName",
     "http://device/",
     {"a=1; Domain=device"},
     "device\tFALSE\t/\tFALSE\t0\ta\t1\n",
     "http://x.device/",
     ""},
    {"Address",
     "http://127.0.0.1/",
     {"a=1; Domain=127.0.0.1"},
     "127.0.0.1\tFALSE\t/\tFALSE\t0\ta\t1\n",
     "http://127.0.0.1/",
     "a=1"},
    {"PartOfAnAddress", "http://127.0.0.1/", {"a=1; Domain=0.0.1"}, "", "http://127.0.0.1/", ""},
    {"AddressOfSix", "http://[::1]/", {"a=1"}, "::1\tFALSE\t/\tFALSE\t0\ta\t1\n", "http://[::1]/", "a=1"},
    // Paths.
    {"DefaultPath", kA + "p/q/r?s/t", {"a=1"}, "www.example.com\tFALSE\t/p/q\tFALSE\t0\ta\t1\n", kA + "p/q/z", "a=1"},
    {"DefaultPathOfAFile", kA + "p", {"a=1"}, kALine, kA + "q", "a=1"},
    {"DefaultPathOfAFolder", kA + "p/", {"a=1"}, "www.example.com\tFALSE\t/p\tFALSE\t0\ta\t1\n", kA + "p", "a=1"},
    {"PathWithoutSlash", kA + "p/q", {"a=1; Path=x"}, "www.example.com\tFALSE\t/p\tFALSE\t0\ta\t1\n", kA + "x", ""},
    {"EmptyPath", kA + "p/q", {"a=1; Path="}, "www.example.com\tFALSE\t/p\tFALSE\t0\ta\t1\n", kA + "p/", "a=1"},
    {"LastPathCounts", kA, {"a=1; Path=/x; Path=/y"}, "www.example.com\tFALSE\t/y\tFALSE\t0\ta\t1\n", kA + "x", ""},
    {"PathItself", kA, {"a=1; Path=/p"}, "www.example.com\tFALSE\t/p\tFALSE\t0\ta\t1\n", kA + "p?q", "a=1"},
    {"PathBelow", kA, {"a=1; Path=/p"}, "www.example.com\tFALSE\t/p\tFALSE\t0\ta\t1\n", kA + "p/q", "a=1"},
    {"PathIsNoPrefixOfAName", kA, {"a=1; Path=/p"}, "www.example.com\tFALSE\t/p\tFALSE\t0\ta\t1\n", kA + "pq", ""},
    {"PathWithSlash", kA, {"a=1; Path=/p/"}, "www.example.com\tFALSE\t/p/\tFALSE\t0\ta\t1\n", kA + "p/q", "a=1"},
    {"PathAboveOne", kA, {"a=1; Path=/p/"}, "www.example.com\tFALSE\t/p/\tFALSE\t0\ta\t1\n", kA + "p", ""},
    {"CaseOfThePath", kA, {"a=1; Path=/p"}, "www.example.com\tFALSE\t/p\tFALSE\t0\ta\t1\n", kA + "P", ""},
    // Security.
    {"SecureIsKeptAndNotSent", kA, {"a=1; secure"}, "www.example.com\tFALSE\t/\tTRUE\t0\ta\t1\n", kA, ""},
    {"SecureOnThisHost",
     "http://localhost/",
     {"a=1; Secure"},
     "localhost\tFALSE\t/\tTRUE\t0\ta\t1\n",
     "http://localhost/",
     ""},
    {"SecureStays", kA, {"a=1; Secure", "a=2", "a=3; Max-Age=0"}, "www.example.com\tFALSE\t/\tTRUE\t0\ta\t1\n", kA, ""},
    // Life.
    {"Expires", kA, {"a=1; " + kDate}, "www.example.com\tFALSE\t/\tFALSE\t" + kExpiry + "\ta\t1\n", kA, "a=1"},
    {"Expired", kA, {"a=1; Expires=Thu, 01 Jan 1970 00:00:00 GMT"}, "", kA, ""},
    {"ExpiredBeforeTheEpoch", kA, {"a=1; Expires=Thu, 01 Jan 1601 00:00:00 GMT"}, "", kA, ""},
    {"MaxAgeZero", kA, {"a=1; Max-Age=0; " + kDate}, "", kA, ""},
    {"MaxAgeNegative", kA, {"a=1; " + kDate + "; max-age=-5"}, "", kA, ""},
    {"MaxAgeIsNoNumber",
     kA,
     {"a=1; Max-Age=1x; " + kDate + "; Max-Age=; Max-Age=-; Max-Age=+1"},
     "www.example.com\tFALSE\t/\tFALSE\t" + kExpiry + "\ta\t1\n",
     kA,
     "a=1"},
    {"Removed", kA, {"a=1", "b=2", "a=; Max-Age=0"}, "www.example.com\tFALSE\t/\tFALSE\t0\tb\t2\n", kA, "b=2"},
    {"RemovedByDate",
     kA,
     {"a=1", "b=2", "a=; Expires=Thu, 01-Jan-1970 00:00:00 GMT"},
     "www.example.com\tFALSE\t/\tFALSE\t0\tb\t2\n",
     kA,
     "b=2"},
    {"OtherPathIsNotRemoved", kA, {"a=1", "a=; Path=/x; Max-Age=0"}, kALine, kA, "a=1"},
    // Several.
    {"Replaced",
     kA,
     {"a=0", "b=2", "a=1; HttpOnly"},
     "#HttpOnly_www.example.com\tFALSE\t/\tFALSE\t0\ta\t1\nwww.example.com\tFALSE\t/\tFALSE\t0\tb\t2\n",
     kA,
     "a=1; b=2"},
    {"CaseOfTheName", kA, {"a=1", "A=2"}, kALine + "www.example.com\tFALSE\t/\tFALSE\t0\tA\t2\n", kA, "a=1; A=2"},
    {"LongerPathsFirst",
     kA,
     {"a=1", "b=2; Path=/p", "a=3; Path=/p", "c=4; Path=/p/q"},
     kALine + "www.example.com\tFALSE\t/p\tFALSE\t0\tb\t2\nwww.example.com\tFALSE\t/p\tFALSE\t0\ta\t3\n"
              "www.example.com\tFALSE\t/p/q\tFALSE\t0\tc\t4\n",
     kA + "p/q/r",
     "c=4; b=2; a=3; a=1"},
    {"HostAndDomain",
     kA,
     {"a=1", "a=2; Domain=www.example.com"},
     kALine + ".www.example.com\tTRUE\t/\tFALSE\t0\ta\t2\n",
     kA,
     "a=1; a=2"},
};
class KrogetSetCookieTest : public KrogetCookieTest, public ::testing::WithParamInterface<SetCookieCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetSetCookieTest, ::testing::ValuesIn(kSetCookies),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetSetCookieTest, IsKeptAndSent) {
  server.next(answering(setting(GetParam().cookies))).always(answering(okReply("yes")));
  EXPECT_EQ(run(with({GetParam().url})), succeeded("yes"));
  EXPECT_EQ(jar(), GetParam().jar);
  // In the same run as in the next one.
  EXPECT_EQ(cookiesFor(GetParam().next), GetParam().cookie);
  EXPECT_EQ(jar(), GetParam().jar);
  unlink(folder.at("jar").c_str());
  const size_t before = server.count();
  server.next(WireScript().request().send(setting(GetParam().cookies)).request().send(okReply("yes")));
  EXPECT_EQ(run(with({GetParam().url, GetParam().next})), succeeded("yesyes"));
  EXPECT_EQ(server.connection(before).requests().at(1).header("Cookie"), GetParam().cookie);
}

TEST_F(KrogetCookieTest, MaxAgeCountsFromNow) {
  server.always(answering(setting({"a=1; Max-Age=1000; " + kDate, "b=2; Max-Age=99999999999999999999"})));
  const time_t before = time(nullptr);
  EXPECT_EQ(run(with({kA})), succeeded("yes"));
  const time_t after = time(nullptr);
  std::smatch match;
  const std::string lines = jar();
  ASSERT_TRUE(std::regex_match(lines, match, std::regex("[^\n]*\t([0-9]+)\ta\t1\n[^\n]*\t([0-9]+)\tb\t2\n"))) << lines;
  EXPECT_GE(std::stoll(match[1]), before + 1000);
  EXPECT_LE(std::stoll(match[1]), after + 1000);
  EXPECT_GE(std::stoll(match[2]), before + 100LL * 365 * 24 * 60 * 60);
}

struct CookieDateCase {
  const char* name;
  std::string text;
  std::string expiry;
};
void PrintTo(const CookieDateCase& row, std::ostream* out) { *out << row.name; }
const CookieDateCase kDates[] = {
    {"Usual", "Wed, 09 Jun 2088 10:18:14 GMT", kExpiry},
    {"WithDashes", "Wed, 09-Jun-2088 10:18:14 GMT", kExpiry},
    {"OfTheLibrary", "Wed, 09-Jun-2088 10:18:14", kExpiry},
    {"OfTheCLibrary", "Wed Jun  9 10:18:14 2088", kExpiry},
    {"ShortYear", "Wednesday, 09-Jun-68 10:18:14 GMT", "3106462694"},
    {"LongestShortYear", "Wed, 09-Jun-69 10:18:14 GMT", "3137998694"},
    {"OtherZonesAreNotRead", "Wed, 09 Jun 2088 10:18:14 +0200", kExpiry},
    {"CapitalsAndLongNames", "WEDNESDAY 9 JUNE 2088 10:18:14", kExpiry},
    {"OtherOrder", "10:18:14 2088 9 june", kExpiry},
    {"ShortTime", "09 Jun 2088 1:2:3", "3737581323"},
    {"LeapDay", "29 Feb 2088 00:00:00", "3728851200"},
    {"NoSuchDay", "30 Feb 2088 00:00:00", "0"},
    {"NoLeapYear", "29 Feb 2087 00:00:00", "0"},
    {"DayZero", "00 Jun 2088 10:18:14", "0"},
    {"Day32", "32 Jun 2088 10:18:14", "0"},
    {"NoSuchMonth", "09 Jux 2088 10:18:14", "0"},
    {"Hour24", "09 Jun 2088 24:18:14", "0"},
    {"Minute60", "09 Jun 2088 10:60:14", "0"},
    {"Second60", "09 Jun 2088 10:18:60", "0"},
    {"NoTime", "09 Jun 2088", "0"},
    {"HalfATime", "09 Jun 2088 10:18", "0"},
    {"NoYear", "09 Jun 10:18:14", "0"},
    {"LongYear", "09 Jun 20888 10:18:14", "0"},
    {"Empty", "", "0"},
    {"Number", "99999999999999999999", "0"},
};
class KrogetCookieDateTest : public KrogetCookieTest, public ::testing::WithParamInterface<CookieDateCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetCookieDateTest, ::testing::ValuesIn(kDates),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetCookieDateTest, IsReadAsGmt) {
  server.always(answering(setting({"a=1; Expires=" + GetParam().text})));
  setenv("TZ", "XXX5", 1);
  EXPECT_EQ(run(with({kA})), succeeded("yes"));
  unsetenv("TZ");
  EXPECT_EQ(jar(), "www.example.com\tFALSE\t/\tFALSE\t" + GetParam().expiry + "\ta\t1\n");
}

TEST_F(KrogetCookieTest, ACookieOfOnesOwnComesFirst) {
  folder.file("jar", kALine);
  server.always(answering(okReply("yes")));
  EXPECT_EQ(run(with({"-H", "Cookie: x=y", kA})), succeeded("yes"));
  EXPECT_EQ(server.connection(0).requests().at(0).header("Cookie"), "x=y");
}

TEST_F(KrogetCookieTest, WithoutAJarNothingIsKept) {
  server.always(WireScript().request().send(setting({"a=1"})).repeat());
  EXPECT_EQ(run({"--unix", folder.at("socket"), kA, kA}), succeeded("yesyes"));
  EXPECT_FALSE(server.connection(0).requests().at(1).has("Cookie"));
}

TEST_F(KrogetCookieTest, RedirectsSetAndGetThem) {
  server.always(WireScript()
                    .request()
                    .send(redirect("/b", "Set-Cookie: a=1\r\nSet-Cookie: b=2; Domain=example.com\r\n"))
                    .request()
                    .send(redirect("http://example.com/c", "Set-Cookie: c=3; Path=/c; Domain=example.com\r\n"))
                    .request()
                    .send(redirect("http://example.org/d", "Set-Cookie: d=4\r\n"))
                    .request()
                    .send(setting({"e=5; Domain=example.com"})));
  EXPECT_EQ(run(with({"-L", kA + "a", "-H", "Cookie: own"})), succeeded("yes"));
  EXPECT_EQ(jar(), kALine +
                       ".example.com\tTRUE\t/\tFALSE\t0\tb\t2\n.example.com\tTRUE\t/c\tFALSE\t0\tc\t3\n"
                       "example.com\tFALSE\t/\tFALSE\t0\td\t4\n");
  const std::vector<WireRequest> all = server.connection(0).requests();
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[0].header("Cookie"), "own");
  EXPECT_EQ(all[1].header("Cookie"), "own");
  // What -H says is for the first host.
  EXPECT_EQ(all[2].header("Cookie"), "c=3; b=2");
  EXPECT_EQ(all[3].header("Cookie"), "");
}

TEST_F(KrogetCookieTest, ChallengesSetThem) {
  server.always(refusing(challenge("WWW-Authenticate: Basic\r\n", "Set-Cookie: a=1\r\n")));
  EXPECT_EQ(run(with({"-u", "a:b", kA})), succeeded("yes"));
  EXPECT_EQ(server.connection(0).received(), "GET / HTTP/1.1\r\nHost: www.example.com\r\n" + kUsual +
                                                 "\r\nGET / HTTP/1.1\r\nHost: www.example.com\r\n" + kUsual +
                                                 "Authorization: Basic YTpi\r\nCookie: a=1\r\n\r\n");
}

// --- the jar ---------------------------------------------------------------------------------------------------------

struct JarLineCase {
  const char* name;
  std::string content;
  std::string cookie;  // sent to www.example.com
};
void PrintTo(const JarLineCase& row, std::ostream* out) { *out << row.name; }
const JarLineCase kJarLines[] = {
    {"Empty", "", ""},
    {"Comments", "# a\n#b\tc\n\n#HttpOnlywww.example.com\tFALSE\t/\tFALSE\t0\ta\t1\n", ""},
    {"HostOnly", kALine, "a=1"},
    {"NoLineEnd", kALine.substr(0, kALine.size() - 1), "a=1"},
    {"LineEndsOfOthers", "# x\r\nwww.example.com\tFALSE\t/\tFALSE\t0\ta\t1\r\n", "a=1"},
    {"HttpOnly", "#HttpOnly_www.example.com\tFALSE\t/\tFALSE\t0\ta\t1\n", "a=1"},
    {"Domain", ".example.com\tTRUE\t/\tFALSE\t0\ta\t1\n", "a=1"},
    {"DomainWithoutDot", "example.com\tTRUE\t/\tFALSE\t0\ta\t1\n", "a=1"},
    {"HostWithDot", ".www.example.com\tFALSE\t/\tFALSE\t0\ta\t1\n", "a=1"},
    {"Capitals", "WWW.Example.COM\tfalse\t/\tFalse\t0\ta\t1\n", "a=1"},
    {"OtherHost", "example.com\tFALSE\t/\tFALSE\t0\ta\t1\n", ""},
    {"Secure", "www.example.com\tFALSE\t/\tTRUE\t0\ta\t1\n", ""},
    {"Future", "www.example.com\tFALSE\t/\tFALSE\t" + kExpiry + "\ta\t1\n", "a=1"},
    {"Past", "www.example.com\tFALSE\t/\tFALSE\t1000000000\ta\t1\n", ""},
    {"EmptyValue", "www.example.com\tFALSE\t/\tFALSE\t0\ta\t\n", "a="},
    {"ValueIsMissing", "www.example.com\tFALSE\t/\tFALSE\t0\ta\n", "a="},
    {"LastOneCounts", "www.example.com\tFALSE\t/\tFALSE\t0\ta\t0\n" + kALine, "a=1"},
    {"NotAscii", "www.example.com\tFALSE\t/\tFALSE\t0\ta\t\xc3\xbc\n", "a=\xc3\xbc"},
};
class KrogetJarLineTest : public KrogetCookieTest, public ::testing::WithParamInterface<JarLineCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetJarLineTest, ::testing::ValuesIn(kJarLines),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetJarLineTest, IsRead) {
  folder.file("jar", GetParam().content);
  server.always(answering(okReply("yes")));
  EXPECT_EQ(cookiesFor(kA), GetParam().cookie);
}

struct JarErrorCase {
  const char* name;
  std::string line;
  std::string why;
};
void PrintTo(const JarErrorCase& row, std::ostream* out) { *out << row.name; }
const JarErrorCase kJarErrors[] = {
    {"Text", "hello", "a cookie has 7 fields with tabs in between"},
    {"FewFields", "x.com\tFALSE\t/\tFALSE\t0", "a cookie has 7 fields with tabs in between"},
    {"ManyFields", "x.com\tFALSE\t/\tFALSE\t0\ta\t1\t2", "a cookie has 7 fields with tabs in between"},
    {"Blanks", "x.com FALSE / FALSE 0 a 1", "a cookie has 7 fields with tabs in between"},
    {"NoDomain", "\tFALSE\t/\tFALSE\t0\ta\t1", "there is no domain"},
    {"DotAlone", ".\tTRUE\t/\tFALSE\t0\ta\t1", "there is no domain"},
    {"NoDomainBehindHttpOnly", "#HttpOnly_\tTRUE\t/\tFALSE\t0\ta\t1", "there is no domain"},
    {"SecondField", "x.com\tYES\t/\tFALSE\t0\ta\t1", "the second field is neither TRUE nor FALSE"},
    {"Path", "x.com\tFALSE\tx\tFALSE\t0\ta\t1", "the path does not begin with a slash"},
    {"FourthField", "x.com\tFALSE\t/\t\t0\ta\t1", "the fourth field is neither TRUE nor FALSE"},
    {"NoExpiry", "x.com\tFALSE\t/\tFALSE\t\ta\t1", "the expiry is no number"},
    {"NegativeExpiry", "x.com\tFALSE\t/\tFALSE\t-1\ta\t1", "the expiry is no number"},
    {"HugeExpiry", "x.com\tFALSE\t/\tFALSE\t1234567890123456789\ta\t1", "the expiry is no number"},
    {"NoName", "x.com\tFALSE\t/\tFALSE\t0\t\t1", "there is no name"},
    {"Control", "x.com\tFALSE\t/\tFALSE\t0\ta\t1\x01", "there is a control character in it"},
    {"CarriageReturn", "x.com\tFALSE\t/\tFALSE\t0\ta\t1\r2", "there is a control character in it"},
    {"Semicolon", "x.com\tFALSE\t/\tFALSE\t0\ta\t1; b=2", "there is a semicolon in it"},
};
class KrogetJarErrorTest : public KrogetCookieTest, public ::testing::WithParamInterface<JarErrorCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetJarErrorTest, ::testing::ValuesIn(kJarErrors),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetJarErrorTest, IsToldWithItsLine) {
  const std::string content = "# Netscape HTTP Cookie File\n" + kALine + GetParam().line + "\n" + kALine;
  const std::string path = folder.file("jar", content);
  EXPECT_EQ(run(with({kA})), failed(9, path + ":3: " + GetParam().why));
  EXPECT_EQ(contentOf(path), content);
  EXPECT_EQ(server.count(), 0u);
}

TEST_F(KrogetCookieTest, JarsThatCannotBeRead) {
  folder.folder("jar");
  EXPECT_EQ(run(with({kA})), failed(9, "cannot read " + folder.at("jar") + ": it is no regular file"));
  EXPECT_EQ(run({"-c", "/dev/null", "{T}/"}, &target), failed(9, "cannot read /dev/null: it is no regular file"));
  const std::string pipe = folder.at("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(run({"-c", pipe, "{T}/"}, &target), failed(9, "cannot read " + pipe + ": it is no regular file"));
  const std::string below = folder.file("file", "") + "/jar";
  EXPECT_EQ(run({"-c", below, "{T}/"}, &target), failed(9, "cannot read " + below + ": Not a directory"));
  EXPECT_EQ(target.count() + server.count(), 0u);
}

TEST_F(KrogetCookieTest, JarsThatCannotBeWritten) {
  target.always(answering(setting({"a=1"})));
  const std::string path = folder.at("none/jar");
  EXPECT_EQ(run({"-c", path, "{T}/"}, &target),
            failed(9, "cannot write " + path + ": No such file or directory", "yes"));
  // The first failure counts.
  const Ended ended = run({"-c", path, "--fail", "{T}/", "http://[::1]:1/"}, &target);
  EXPECT_EQ(ended.outcome, "exit 4");
  EXPECT_EQ(linesOf(ended.errors).size(), 2u);
}

TEST_F(KrogetCookieTest, AJarIsReplacedAsAWhole) {
  server.always(answering(setting({"a=1"})));
  folder.folder("d");
  const std::string behind = folder.file("d/jar", "# old\n");
  chmod(behind.c_str(), 0644);
  ASSERT_EQ(link(behind.c_str(), folder.at("old").c_str()), 0);
  ASSERT_EQ(symlink("d/jar", folder.at("jar").c_str()), 0);
  EXPECT_EQ(run(with({kA})), succeeded("yes"));
  struct stat status {};
  ASSERT_EQ(lstat(behind.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
  ASSERT_EQ(lstat(folder.at("jar").c_str(), &status), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
  EXPECT_EQ(contentOf(behind), kJarStart + kALine);
  EXPECT_EQ(contentOf(folder.at("old")), "# old\n");
  EXPECT_EQ(namesIn(folder.at("d")), Arguments{"jar"});
}

TEST_F(KrogetCookieTest, WhatCameBeforeAFailureIsKept) {
  server.always(WireScript().request().send(setting({"a=1"})).request().send("nonsense\r\n\r\n"));
  EXPECT_EQ(run(with({kA, kA})).outcome, "exit 7");
  EXPECT_EQ(jar(), kALine);
}

TEST_F(KrogetCookieTest, WhatCameBeforeASignalIsKept) {
  server.always(WireScript().request().send(setting({"a=1"})));
  ChildProcess process(commandLine(with({kA, kA})));
  ASSERT_TRUE(wait([&] { return server.count() == 1 && server.connection(0).requests().size() == 2; }));
  process.signal(SIGTERM);
  EXPECT_EQ(waitFor(process, nullptr).outcome, "signal 15");
  EXPECT_EQ(jar(), kALine);
}

// --- with the daemon -------------------------------------------------------------------------------------------------

class KrogetDaemonLoginTest : public KrogetLoginTest {
 protected:
  void SetUp() override {
    KrogetLoginTest::SetUp();
    folder.file("users", "al\xc3\xafs:Device:" + hash("al\xc3\xafs", "Device", kPassword) + "\n");
    folder.file("root/private/index.html", "secret");
    daemon = std::make_unique<Daemon>(Arguments{"--listen", "127.0.0.1:0", "--demo", "--root", folder.at("root"),
                                                "--auth-file", folder.at("users"), "--protect", "/hello=basic",
                                                "--protect", "/echo=digest", "--protect", "/private=session"});
  }
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(daemon->address().port) + path;
  }
  // A failure, with the address written "{D}".
  Ended ask(Arguments arguments) const {
    Ended ended = run(arguments);
    ended.errors = replaced(ended.errors, url(""), "{D}");
    return ended;
  }

  static constexpr const char* kPassword = "pa:ss w\xc3\xb6rd+%&";
  const std::string kUser = std::string("al\xc3\xafs:") + kPassword;
  std::unique_ptr<Daemon> daemon;
};

TEST_F(KrogetDaemonLoginTest, Basic) {
  EXPECT_EQ(run({"-u", kUser, url("/hello?a=b")}), succeeded("Hello, world!"));
  EXPECT_EQ(ask({"-u", "me:x", url("/hello")}), failed(8, "{D}/hello: 401 Unauthorized: the credentials are refused"));
}

TEST_F(KrogetDaemonLoginTest, Digest) {
  EXPECT_EQ(run({"-u", kUser, "-d", "body", url("/echo?a=b&c=%20d%2f")}), succeeded("body"));
  const std::string content = pattern(300000);
  EXPECT_EQ(run({"-u", kUser, "-T", folder.file("data", content), "-X", "POST", url("/echo")}), succeeded(content));
  EXPECT_EQ(ask({"-u", "me:x", "-d", "body", url("/echo")}),
            failed(8, "{D}/echo: 401 Unauthorized: the credentials are refused"));
}

TEST_F(KrogetDaemonLoginTest, Session) {
  const Arguments jar = {"-c", folder.at("jar")};
  const auto with = [&](Arguments more) {
    more.insert(more.begin(), jar.begin(), jar.end());
    return more;
  };
  const std::string form = "username=al%C3%AFs&password=pa%3Ass+w%C3%B6rd%2B%25%26&next=/private/";
  EXPECT_EQ(run(with({"-L", "-d", form, url("/login")})), succeeded("secret"));
  const std::string kept = contentOf(folder.at("jar")).substr(kJarStart.size());
  EXPECT_TRUE(std::regex_match(
      kept, std::regex("#HttpOnly_127\\.0\\.0\\.1\tFALSE\t/\tFALSE\t0\tkro/sessid\t[A-Za-z0-9+/]{24}\n")))
      << kept;
  EXPECT_EQ(run(with({url("/private/")})), succeeded("secret"));
  EXPECT_EQ(run({"--fail", url("/private/")}).outcome, "exit 8");
  // The end of the session takes the cookie back.
  EXPECT_EQ(run(with({"--fail", "-X", "POST", url("/logout")})).outcome, "exit 0");
  EXPECT_EQ(contentOf(folder.at("jar")), kJarStart);
  EXPECT_EQ(run(with({"--fail", url("/private/")})).outcome, "exit 8");
}

}  // namespace
