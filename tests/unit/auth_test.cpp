#include <gtest/gtest.h>
#include <krohttp/auth.h>
#include <krohttp/utils.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <string.h>

#include <climits>
#include <clocale>
#include <cstdint>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
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

// What the library computes with MD5, computed here with another interface.
std::string md5(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EXPECT_EQ(EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr), 1);
  EXPECT_EQ(length, 16U);
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

// A typed header read from text, cleaned up whatever the reading gave.
class Header {
 public:
  explicit Header(const std::string& text, int code = HTTP_HEADER_AUTHORIZATION) {
    typed.code = code;
    result = http_hdrFactory(&typed, text.c_str());
  }
  ~Header() {
    http_hdrCleanup(&typed);
    EXPECT_EQ(typed.code, 0);
    EXPECT_EQ(typed.raw, nullptr);
  }
  Header(const Header&) = delete;
  Header& operator=(const Header&) = delete;

  const auth_authorization& operator*() const { return typed.authorization; }

  HttpHeader typed = {};
  int result = 0;
};

// The fields of a digest header, none of them set at first.
struct Fields {
  const char* username = nullptr;
  const char* password = nullptr;
  int32_t method = HTTP_METHOD_GET;
  const char* realm = nullptr;
  const char* nonce = nullptr;
  const char* uri = nullptr;
  const char* qop = nullptr;
  const char* nc = nullptr;
  const char* cnonce = nullptr;
  const char* response = nullptr;
  const char* opaque = nullptr;
};

char* copy(const char* text) { return text == nullptr ? nullptr : strdup(text); }

// A header that an application has filled.
class Filled {
 public:
  explicit Filled(const Fields& fields, uint32_t scheme = HTTP_AUTH_DIGEST) {
    typed.code = HTTP_HEADER_AUTHORIZATION;
    auth_authorization& value = typed.authorization;
    value.scheme = scheme;
    value.username = copy(fields.username);
    value.password = copy(fields.password);
    value.method = fields.method;
    value.realm = copy(fields.realm);
    value.nonce = copy(fields.nonce);
    value.uri = copy(fields.uri);
    value.qop = copy(fields.qop);
    value.nc = copy(fields.nc);
    value.cnonce = copy(fields.cnonce);
    value.response = copy(fields.response);
    value.opaque = copy(fields.opaque);
  }
  ~Filled() { http_hdrCleanup(&typed); }
  Filled(const Filled&) = delete;
  Filled& operator=(const Filled&) = delete;

  const auth_authorization& operator*() const { return typed.authorization; }
  std::string hash() const { return orNone(Text(http_generateDigestCompleteHash(&typed.authorization)).get()); }

  HttpHeader typed = {};
};

// The only header of a message that header was written into; "refused" when it was not, "nothing" when none is there.
std::string written(HttpHeader* header) {
  const ReplyPtr reply(http_replyCreate());
  const int result = http_hdrSerialize(header, &reply->message);
  Lines headers;
  const char* name = nullptr;
  const char* value = nullptr;
  while (http_replyHeadersNext(reply.get(), &name, &value) == 0)
    headers.push_back(std::string(name) + ": " + orNone(value));
  if (result != 0) return headers.empty() ? "refused" : "refused, and written";
  return headers.size() == 1 ? headers.front() : headers.empty() ? "nothing" : "more than one";
}

// What stands between the quotes behind name, or up to the comma where there are none.
std::string parameter(const std::string& header, const std::string& name) {
  const size_t at = header.find(" " + name + "=");
  if (at == std::string::npos) return kNone;
  const size_t begin = at + name.size() + 2;
  if (header[begin] == '"') return header.substr(begin + 1, header.find('"', begin + 1) - begin - 1);
  return header.substr(begin, header.find(',', begin) - begin);
}

// A locale for the length of a scope; the one before stays where a machine does not have it.
class Locale {
 public:
  explicit Locale(const char* name) : before_(setlocale(LC_ALL, nullptr)) { setlocale(LC_ALL, name); }
  ~Locale() { setlocale(LC_ALL, before_.c_str()); }
  Locale(const Locale&) = delete;
  Locale& operator=(const Locale&) = delete;

 private:
  std::string before_;
};

// ---- the registry --------------------------------------------------------------------------------------------------

TEST(AuthorizationRegistry, TwoRowsAreOfThisModule) {
  for (const int code : {8, 51}) {
    EXPECT_EQ(hdr_factories[code], &auth_hdrFactoryAuthorization) << code;
    EXPECT_EQ(hdr_serializers[code], &auth_hdrSerializeAuthorization) << code;
    EXPECT_EQ(hdr_frees[code], &auth_hdrFreeAuthorization) << code;
  }
  EXPECT_STREQ(prot_headerString(8), "Authorization");
  EXPECT_STREQ(prot_headerString(51), "WWW-Authenticate");
}

TEST(AuthorizationFields, StandInTheirOrder) {
  const size_t kOffsets[] = {offsetof(auth_authorization, scheme),   offsetof(auth_authorization, username),
                             offsetof(auth_authorization, password), offsetof(auth_authorization, method),
                             offsetof(auth_authorization, realm),    offsetof(auth_authorization, nonce),
                             offsetof(auth_authorization, uri),      offsetof(auth_authorization, qop),
                             offsetof(auth_authorization, nc),       offsetof(auth_authorization, cnonce),
                             offsetof(auth_authorization, response), offsetof(auth_authorization, opaque)};
  for (size_t at = 1; at < std::size(kOffsets); ++at) EXPECT_LT(kOffsets[at - 1], kOffsets[at]) << at;
  static_assert(std::is_same_v<decltype(auth_authorization::scheme), uint32_t>);
  static_assert(std::is_same_v<decltype(auth_authorization::method), int32_t>);
  static_assert(HTTP_AUTH_BASIC == 0 && HTTP_AUTH_DIGEST == 1);
}

// ---- schemes -------------------------------------------------------------------------------------------------------

struct SchemeCase {
  const char* name;
  const char* text;
  bool known;
};
void PrintTo(const SchemeCase& row, std::ostream* out) { *out << row.name; }

class AuthorizationScheme : public testing::TestWithParam<SchemeCase> {};

// The comparison is that of the first letters, with case.
TEST_P(AuthorizationScheme, IsTheFirstLetters) {
  const TraceCapture trace;
  const Header header(GetParam().text);
  EXPECT_EQ(header.result, 0);
  EXPECT_EQ((*header).scheme, 0U);
  EXPECT_EQ(orNone((*header).username), GetParam().known ? "user" : kNone);
  EXPECT_EQ(orNone((*header).password), GetParam().known ? "pass" : kNone);
  EXPECT_EQ(trace.said(), TraceLines());
}

INSTANTIATE_TEST_SUITE_P(
    Table, AuthorizationScheme,
    testing::Values(
        SchemeCase{"Basic", "Basic dXNlcjpwYXNz", true}, SchemeCase{"Kro", "Kro dXNlcjpwYXNz", true},
        SchemeCase{"Basicx", "Basicx dXNlcjpwYXNz", true}, SchemeCase{"Krox", "Krox dXNlcjpwYXNz", true},
        SchemeCase{"BasicBasic", "BasicBasic dXNlcjpwYXNz", true},
        SchemeCase{"KroDigest", "KroDigest dXNlcjpwYXNz", true}, SchemeCase{"BasicComma", "Basic, dXNlcjpwYXNz", true},
        SchemeCase{"BasicTab", "Basic\t dXNlcjpwYXNz", true}, SchemeCase{"LowerBasic", "basic dXNlcjpwYXNz", false},
        SchemeCase{"UpperBasic", "BASIC dXNlcjpwYXNz", false}, SchemeCase{"LowerKro", "kro dXNlcjpwYXNz", false},
        SchemeCase{"UpperKro", "KRO dXNlcjpwYXNz", false}, SchemeCase{"ShortBasic", "Basi dXNlcjpwYXNz", false},
        SchemeCase{"ShortKro", "Kr dXNlcjpwYXNz", false}, SchemeCase{"Bearer", "Bearer dXNlcjpwYXNz", false},
        SchemeCase{"LowerDigest", "digest username=\"user\"", false},
        SchemeCase{"ShortDigest", "Diges username=\"user\"", false},
        SchemeCase{"BlankInFront", " Basic dXNlcjpwYXNz", false}, SchemeCase{"Bas", "Bas", false},
        SchemeCase{"K", "K", false}, SchemeCase{"D", "D", false}, SchemeCase{"Empty", "", false}),
    [](const auto& row) { return row.param.name; });

TEST(AuthorizationFactory, AnUnknownSchemeLeavesEverythingAsItWas) {
  HttpHeader expected;
  memset(&expected, 0xa5, sizeof expected);
  HttpHeader header = expected;
  char text[] = "Bearer abc";
  EXPECT_EQ(auth_hdrFactoryAuthorization(&header, text), 0);
  EXPECT_EQ(memcmp(&header, &expected, sizeof header), 0);
  EXPECT_STREQ(text, "Bearer abc");
}

TEST(AuthorizationFactory, ANullTextIsRefusedByTheRegistry) {
  for (const int code : {8, 51}) {
    HttpHeader header = {};
    header.code = code;
    const TraceCapture trace;
    EXPECT_EQ(http_hdrFactory(&header, nullptr), -1);
    EXPECT_EQ(trace.errors().size(), 1U);
    http_hdrCleanup(&header);
  }
}

// ---- Basic: reading ------------------------------------------------------------------------------------------------

struct BasicCase {
  const char* name;
  std::string text;  // behind the scheme word
  int result;
  std::string username;
  std::string password;
  TraceLines said;  // behind what is said of every header
};
void PrintTo(const BasicCase& row, std::ostream* out) { *out << row.name; }

constexpr const char* kServerSide = "http-au[i]Server authentification header";
constexpr const char* kClientSide = "http-au[i]Client authentification header";
constexpr const char* kNoColon = "http-au[x]no ':' found in string, this is not a valid base64 encoded string";
constexpr const char* kTruncated = "http-ut[x]unable to decode base64 data: input seems to be truncated";

BasicCase accepted(const char* name, const std::string& credentials, const std::string& username,
                   const std::string& password) {
  return {name, " " + base64(credentials), 0, username, password, {kServerSide}};
}

const BasicCase kBasics[] = {
    accepted("UserAndPassword", "user:pass", "user", "pass"),
    accepted("EmptyUser", ":pass", "", "pass"),
    accepted("EmptyPassword", "user:", "user", ""),
    accepted("BothEmpty", ":", "", ""),
    accepted("ColonsInThePassword", "user:a:b::c:", "user", "a:b::c:"),
    accepted("OnlyColons", ":::", "", "::"),
    accepted("HighOctets", "\xc3\xa9\xff:\x80\xfe\xc3\xbc", "\xc3\xa9\xff", "\x80\xfe\xc3\xbc"),
    accepted(
        "EveryOctetButNul",
        [] {
          std::string octets;
          for (int octet = 1; octet < 256; ++octet) octets += octet == ':' ? '.' : static_cast<char>(octet);
          return octets + ":" + octets;
        }(),
        [] {
          std::string octets;
          for (int octet = 1; octet < 256; ++octet) octets += octet == ':' ? '.' : static_cast<char>(octet);
          return octets;
        }(),
        [] {
          std::string octets;
          for (int octet = 1; octet < 256; ++octet) octets += octet == ':' ? '.' : static_cast<char>(octet);
          return octets;
        }()),
    accepted("BlanksAndPercentSigns", " %s %n: %d ", " %s %n", " %d "),
    accepted("LineEnds", "us\r\ner:pa\r\nss", "us\r\ner", "pa\r\nss"),
    accepted("NulInThePassword", "user:pa\0ss"s, "user", "pa"),
    accepted("NulBehindTheColon", "user:\0pass"s, "user", ""),
    accepted("LongUser", std::string(599, 'u') + ":" + std::string(601, 'p'), std::string(599, 'u'),
             std::string(601, 'p')),
    accepted("SixtyFourKilobytes", "user:" + std::string(49147, 'p'), "user", std::string(49147, 'p')),
    accepted("SixtyFourKilobytesOfUser", std::string(49151, 'u') + ":", std::string(49151, 'u'), ""),
    {"NulInTheUser", " " + base64("us\0er:pass"s), -1, kNone, kNone, {kServerSide, kNoColon}},
    {"NulFirst", " " + base64("\0:pass"s), -1, kNone, kNone, {kServerSide, kNoColon}},
    {"NoColon", " " + base64("userpass"), -1, kNone, kNone, {kServerSide, kNoColon}},
    {"NoColonInSixtyFourKilobytes", " " + base64(std::string(49152, 'x')), -1, kNone, kNone, {kServerSide, kNoColon}},
    {"NothingDecoded", " !!!!", -1, kNone, kNone, {kServerSide, kNoColon}},
    {"OneBadCharacter", " !", -1, kNone, kNone, {kServerSide, kNoColon}},
    {"NothingBehindTheBlank", " ", -1, kNone, kNone, {kServerSide, kNoColon}},
    {"TwoBlanks", "  dXNlcjpwYXNz", -1, kNone, kNone, {kServerSide, kNoColon}},
    {"TextBehind", " dXNlcjpwYXNz and more", 0, "user", "pass", {kServerSide}},
    {"PaddedTwice", " dXNlcg==OnBhc3M=", 0, "user", "pass", {kServerSide}},
    {"PasswordOutsideTheAlphabet", " dXNlcjpw*Xyz", 0, "user", "p", {kServerSide}},
    {"Truncated", " dXNlcjpwYXN", 0, kNone, kNone, {kTruncated, kClientSide}},
    {"TruncatedByThree", " dXNlcjpwY", 0, kNone, kNone, {kTruncated, kClientSide}},
    {"OneCharacter", " d", 0, kNone, kNone, {kTruncated, kClientSide}},
    {"OneCharacterOfAGroup", " d===", 0, kNone, kNone, {kClientSide}},
    {"SixtyFourKilobytesTruncated", " " + std::string(65535, 'x'), 0, kNone, kNone, {kTruncated, kClientSide}},
    {"ClearText", " user:pass", -1, kNone, kNone, {kServerSide, kNoColon}},
};

class BasicText : public testing::TestWithParam<BasicCase> {};

TEST_P(BasicText, IsRead) {
  const BasicCase& row = GetParam();
  for (const char* locale : {"C", "C.UTF-8"}) {
    const Locale scope(locale);
    for (const char* scheme : {"Basic", "Kro", "Basicx"}) {
      const std::string text = scheme + row.text;
      TraceCapture trace{"http-auth"};
      const Header header(text);
      EXPECT_EQ(header.result, row.result);
      EXPECT_EQ((*header).scheme, 0U);
      EXPECT_EQ(orNone((*header).username), row.username);
      EXPECT_EQ(orNone((*header).password), row.password);
      TraceLines expected = {"http-au[i]initializing authorization (" + text + ")",
                             "http-au[i]handling basic authorization (" + text + ")"};
      expected.insert(expected.end(), row.said.begin(), row.said.end());
      // A trace line is cut where it becomes too long.
      if (text.size() < 200) {
        EXPECT_EQ(trace.said(), expected);
      } else {
        EXPECT_EQ(trace.lines().size(), expected.size());
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Table, BasicText, testing::ValuesIn(kBasics), [](const auto& row) { return row.param.name; });

TEST(BasicFactory, WithoutABlankIsRefused) {
  for (const char* text : {"Basic", "Kro", "Basicx", "BasicdXNlcjpwYXNz", "Basic\tdXNlcjpwYXNz", "KrodXNlcjpwYXNz"}) {
    const TraceCapture trace;
    const Header header(text);
    EXPECT_EQ(header.result, -1) << text;
    EXPECT_EQ((*header).username, nullptr);
    EXPECT_EQ((*header).password, nullptr);
    EXPECT_EQ(trace.said(), TraceLines({"http-au[x]unable to parse basic Authorization header "s + text}));
  }
}

// Headers live on the stack: what the typed part held before does not count.
TEST(BasicFactory, OverwritesBothFields) {
  for (const char* text : {"Basic dXNlcjpwYXNz", "Basic dXNlcjp", "Basic !"}) {
    const TraceCapture quiet;
    HttpHeader header;
    memset(&header, 0xa5, sizeof header);
    header.code = HTTP_HEADER_AUTHORIZATION;
    http_hdrFactory(&header, text);
    EXPECT_EQ(header.authorization.scheme, 0U);
    http_hdrCleanup(&header);
  }
}

TEST(BasicFactory, KeepsTheRawText) {
  const Header header("Basic dXNlcjpwYXNz");
  EXPECT_STREQ(header.typed.raw, "Basic dXNlcjpwYXNz");
}

// ---- Basic: writing ------------------------------------------------------------------------------------------------

TEST(BasicSerializer, WritesWhatWasRead) {
  for (const char* text : {"Basic dXNlcjpwYXNz", "Kro dXNlcjpwYXNz", "Basicx dXNlcjpwYXNz", "Basic dXNlcjpwYXNz;x"}) {
    Header header(text);
    EXPECT_EQ(written(&header.typed), "Authorization: Basic dXNlcjpwYXNz") << text;
    EXPECT_EQ(written(&header.typed), "Authorization: Basic dXNlcjpwYXNz") << text;
  }
}

TEST(BasicSerializer, WritesWhatTheApplicationSet) {
  const struct {
    const char* name;
    std::string username;
    std::string password;
  } kRows[] = {{"plain", "user", "pass"},     {"both empty", "", ""},
               {"colons", "user", "a:b:"},    {"high octets", "\xc3\xa9", "\xff\x80"},
               {"no format", "%s%n", "%d%%"}, {"64 KiB", std::string(1000, 'u'), std::string(48000, 'p')}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    Fields fields;
    fields.username = row.username.c_str();
    fields.password = row.password.c_str();
    Filled header(fields, HTTP_AUTH_BASIC);
    const std::string line = written(&header.typed);
    EXPECT_EQ(line, "Authorization: Basic " + base64(row.username + ":" + row.password));
    const Header read(line.substr(15));
    EXPECT_EQ(orNone((*read).username), row.username);
    EXPECT_EQ(orNone((*read).password), row.password);
  }
}

TEST(BasicSerializer, AHeaderThatWasNotFilledIsNoNullString) {
  for (const bool withUser : {false, true}) {
    for (const bool withPassword : {false, true}) {
      if (withUser && withPassword) continue;
      Fields fields;
      if (withUser) fields.username = "user";
      if (withPassword) fields.password = "pass";
      Filled header(fields, HTTP_AUTH_BASIC);
      EXPECT_EQ(written(&header.typed),
                "Authorization: Basic " + base64((withUser ? "user:"s : ":"s) + (withPassword ? "pass" : "")));
    }
  }
}

// ---- Digest: reading -----------------------------------------------------------------------------------------------

// The fields that are set, as they stand in the structure: "realm=[r] nonce=[n]".
std::string fieldsOf(const auth_authorization& value) {
  std::string text;
  const auto add = [&](const char* name, const char* field) {
    if (field != nullptr) text += (text.empty() ? "" : " ") + std::string(name) + "=[" + field + "]";
  };
  add("username", value.username);
  add("password", value.password);
  add("realm", value.realm);
  add("nonce", value.nonce);
  add("uri", value.uri);
  add("qop", value.qop);
  add("nc", value.nc);
  add("cnonce", value.cnonce);
  add("response", value.response);
  add("opaque", value.opaque);
  return text;
}

struct DigestCase {
  const char* name;
  std::string text;
  std::string fields;
};
void PrintTo(const DigestCase& row, std::ostream* out) { *out << row.name; }

const DigestCase kDigests[] = {
    {"Everything",
     "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", nonce=\"dcd98b\", uri=\"/dir/index.html\", qop=auth, "
     "nc=00000001, cnonce=\"0a4f113b\", response=\"6629\", opaque=\"5ccc\"",
     "username=[Mufasa] realm=[testrealm@host.com] nonce=[dcd98b] uri=[/dir/index.html] qop=[auth] nc=[00000001] "
     "cnonce=[0a4f113b] response=[6629] opaque=[5ccc]"},
    {"AnyOrder", "Digest opaque=o,response=r,cnonce=c,nc=1,qop=q,uri=u,nonce=n,realm=R,username=U",
     "username=[U] realm=[R] nonce=[n] uri=[u] qop=[q] nc=[1] cnonce=[c] response=[r] opaque=[o]"},
    {"WordOnly", "Digest", ""},
    {"WordAndBlank", "Digest ", ""},
    {"OneWord", "Digest x", ""},
    {"WithoutBlank", "Digestrealm=\"r\"", "realm=[r]"},
    {"Tab", "Digest\trealm=\"r\",\t nonce=n", "realm=[r] nonce=[n]"},
    {"OtherWord", "DigestX realm=\"r\", nonce=n", "nonce=[n]"},
    {"UnknownKeys", "Digest algorithm=MD5, realm=r, charset=UTF-8, userhash=false, auth-param", "realm=[r]"},
    {"PasswordIsNoKey", "Digest password=\"p\", method=\"GET\", scheme=0, realm=r", "realm=[r]"},
    {"KeysInOtherCase", "Digest Username=a, REALM=b, Nonce=c, URI=d, Qop=e, NC=f, CNonce=g, Response=h, Opaque=i", ""},
    {"KeysCutShort", "Digest usernam=a, real=b, nonc=c, ur=d, qo=e, n=f, cnonc=g, respons=h, opaqu=i", ""},
    {"KeysContinued",
     "Digest username*=a, realms=b, nonces=c, uris=d, qops=e, ncs=f, cnonces=g, responses=h, opaques=i", ""},
    {"BlankBehindTheKey", "Digest realm =\"r\", nonce=n", "nonce=[n]"},
    {"BlankBeforeTheValue", "Digest realm= \"r\"", "realm=[ \"r\"]"},
    {"Unquoted", "Digest realm=a b c", "realm=[a b c]"},
    {"QuoteInside", "Digest realm=a\"b\"", "realm=[a\"b\"]"},
    {"EmptyQuotes", "Digest realm=\"\", nonce=n", "realm=[] nonce=[n]"},
    {"Empty", "Digest realm=, nonce=n", "realm=[] nonce=[n]"},
    {"TextBehindTheQuote", "Digest realm=\"r\"tail, nonce=\"n\" ", "realm=[r] nonce=[n]"},
    {"NestedQuotes", "Digest realm=\"a\"b\"c", "realm=[a\"b]"},
    {"DoubledQuotes", "Digest realm=\"\"r\"\"", "realm=[\"r\"]"},
    {"OnlyQuotes", "Digest realm=\"\"\", nonce=\"\"\"\"", "realm=[\"] nonce=[\"\"]"},
    {"NoEscapes", "Digest realm=\"a\\\"b\\\\\"", "realm=[a\\\"b\\\\]"},
    {"EqualsSigns", "Digest uri=\"/p?a=b&c==\", nonce=abc==", "nonce=[abc==] uri=[/p?a=b&c==]"},
    {"CommaCutsInsideQuotesToo", "Digest uri=\"/a,b\", nonce=n", "nonce=[n] uri=[]"},
    {"ListInQuotes", "Digest qop=\"auth,auth-int\", nonce=n", "nonce=[n] qop=[]"},
    {"EmptyPairs", "Digest ,,realm=r,,nonce=n,", "realm=[r] nonce=[n]"},
    {"RepeatedKeys", "Digest realm=\"a\", nonce=x, realm=\"bb\", nonce=\"\", realm=ccc", "realm=[ccc] nonce=[]"},
    {"HighOctets", "Digest username=\"\xc3\xa9\xff\", realm=\x80", "username=[\xc3\xa9\xff] realm=[\x80]"},
    {"PercentSigns", "Digest username=\"%s%n\", realm=%d", "username=[%s%n] realm=[%d]"},
    {"Semicolons", "Digest realm=\"a;b\";nonce=n", "realm=[a;b]"},
};

class DigestText : public testing::TestWithParam<DigestCase> {};

TEST_P(DigestText, IsRead) {
  for (const char* locale : {"C", "C.UTF-8"}) {
    const Locale scope(locale);
    for (const int code : {8, 51}) {
      const TraceCapture trace;
      const Header header(GetParam().text, code);
      EXPECT_EQ(header.result, 0);
      EXPECT_EQ((*header).scheme, 1U);
      EXPECT_EQ(fieldsOf(*header), GetParam().fields);
      EXPECT_EQ((*header).method, 0);
      EXPECT_EQ(header.typed.raw, GetParam().text) << "it is read from a copy";
      EXPECT_EQ(trace.errors(), TraceLines());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Table, DigestText, testing::ValuesIn(kDigests),
                         [](const auto& row) { return row.param.name; });

constexpr const char* kKeys[] = {"username", "realm", "nonce", "uri", "qop", "nc", "cnonce", "response", "opaque"};

class DigestKey : public testing::TestWithParam<const char*> {
 protected:
  const char* field(const auth_authorization& value) const {
    const char* const fields[] = {value.username, value.realm,  value.nonce,    value.uri,   value.qop,
                                  value.nc,       value.cnonce, value.response, value.opaque};
    for (size_t at = 0; at < std::size(kKeys); ++at) {
      if (kKeys[at] == std::string_view(GetParam())) return fields[at];
    }
    return nullptr;
  }
  std::string read(const std::string& value) const {
    const TraceCapture quiet;
    const Header header("Digest a=b, "s + GetParam() + "=" + value + ", c=d");
    EXPECT_EQ(header.result, 0);
    return orNone(field(*header));
  }
};

TEST_P(DigestKey, IsStoredInItsField) {
  EXPECT_EQ(read("\"v\""), "v");
  EXPECT_EQ(read("v"), "v");
  EXPECT_EQ(read("\"\""), "");
  EXPECT_EQ(read(""), "");
}

TEST_P(DigestKey, WithoutItsClosingQuoteIsEmpty) {
  for (const char* value : {"\"", "\"v", "\"v ", "\"a long value without its end"}) EXPECT_EQ(read(value), "") << value;
}

TEST_P(DigestKey, WithoutValueIsNotSet) {
  const TraceCapture quiet;
  const Header header("Digest a=b, "s + GetParam() + ", c=d");
  EXPECT_EQ(header.result, 0);
  EXPECT_EQ(fieldsOf(*header), "");
}

TEST_P(DigestKey, RepeatedCountsAsTheLast) {
  std::string text = "Digest a=b";
  for (int round = 0; round < 100; ++round) text += ", "s + GetParam() + "=\"" + std::to_string(round) + "\"";
  const Header header(text);
  EXPECT_EQ(orNone(field(*header)), "99");
}

// 600 characters are looked at, so a quoted value of 600 is one without its closing quote.
TEST_P(DigestKey, OfEveryLength) {
  for (const size_t length :
       {0U, 1U, 2U, 15U, 16U, 255U, 256U, 597U, 598U, 599U, 600U, 601U, 602U, 1199U, 1200U, 1201U, 70000U}) {
    const std::string value(length, 'v');
    EXPECT_EQ(read(value), value.substr(0, 600)) << length;
    EXPECT_EQ(read("\"" + value + "\""), length < 600 ? value : "") << length;
    EXPECT_EQ(read("\"" + value + "\"tail\"\n"), length + 5 < 600 ? value + "\"tail"
                                                 : length < 600   ? value
                                                                  : "")
        << length;
    EXPECT_EQ(read("\"" + value), "") << length;
    EXPECT_EQ(read("v" + value + "\""), ("v" + value + "\"").substr(0, 600)) << length;
    EXPECT_EQ(read("\"v\"" + value), "v") << length;
  }
}

INSTANTIATE_TEST_SUITE_P(Keys, DigestKey, testing::ValuesIn(kKeys),
                         [](const auto& row) { return std::string(row.param); });

TEST(DigestFactory, LeavesWhatTheTextDoesNotSay) {
  HttpHeader header = {};
  header.code = HTTP_HEADER_WWW_AUTHENTICATE;
  header.authorization.username = strdup("user");
  header.authorization.password = strdup("secret");
  header.authorization.method = 7;
  ASSERT_EQ(http_hdrFactory(&header, "Digest realm=r"), 0);
  EXPECT_EQ(fieldsOf(header.authorization), "username=[user] password=[secret] realm=[r]");
  EXPECT_EQ(header.authorization.method, 7);
  http_hdrCleanup(&header);
}

// Headers live on the stack: what these fields held before does not count.
TEST(DigestFactory, OverwritesItsEightFields) {
  HttpHeader header;
  memset(&header, 0xa5, sizeof header);
  header.code = HTTP_HEADER_AUTHORIZATION;
  header.authorization.username = header.authorization.password = nullptr;
  ASSERT_EQ(http_hdrFactory(&header, "Digest"), 0);
  EXPECT_EQ(fieldsOf(header.authorization), "");
  http_hdrCleanup(&header);
}

TEST(DigestFactory, IsTraced) {
  const TraceCapture trace{"http-auth"};
  const Header header("Digest realm=r");
  EXPECT_EQ(trace.said(), TraceLines({"http-au[i]initializing authorization (Digest realm=r)"}));
}

TEST(AuthorizationFree, AnUnknownSchemeFreesNothing) {
  for (const uint32_t scheme : {2U, 3U, UINT32_MAX}) {
    char username[] = "on the stack";
    HttpHeader header = {};
    header.code = HTTP_HEADER_AUTHORIZATION;
    auth_authorization& value = header.authorization;
    value.scheme = scheme;
    value.username = value.password = value.realm = value.nonce = value.opaque = username;
    http_hdrCleanup(&header);
    EXPECT_EQ(header.code, 0);
    EXPECT_STREQ(username, "on the stack");
  }
}

// Of a Basic header two fields are freed, of a Digest header all (the sanitizer knows).
TEST(AuthorizationFree, FreesByScheme) {
  char text[] = "on the stack";
  HttpHeader basic = {};
  basic.authorization.username = strdup("u");
  basic.authorization.password = strdup("p");
  basic.authorization.realm = basic.authorization.nonce = basic.authorization.uri = text;
  auth_hdrFreeAuthorization(&basic);

  HttpHeader digest = {};
  digest.authorization.scheme = 1;
  for (char** field :
       {&digest.authorization.username, &digest.authorization.password, &digest.authorization.realm,
        &digest.authorization.nonce, &digest.authorization.uri, &digest.authorization.qop, &digest.authorization.nc,
        &digest.authorization.cnonce, &digest.authorization.response, &digest.authorization.opaque}) {
    *field = strdup("v");
  }
  auth_hdrFreeAuthorization(&digest);
  EXPECT_STREQ(text, "on the stack");
}

// ---- HA1 -----------------------------------------------------------------------------------------------------------

std::string ha1(const std::string& user, const std::string& realm, const std::string& password) {
  return orNone(Text(http_generateDigestHash(user.c_str(), realm.c_str(), password.c_str())).get());
}

TEST(DigestHash, OfTheStandards) {
  EXPECT_EQ(ha1("Mufasa", "testrealm@host.com", "Circle Of Life"), "939e7578ed9e3c518a452acee763bce9");
  EXPECT_EQ(ha1("Mufasa", "http-auth@example.org", "Circle of Life"), "3d78807defe7de2157e2b0b6573a855f");
}

TEST(DigestHash, OfOddTexts) {
  EXPECT_EQ(ha1("", "", ""), md5("::"));
  EXPECT_EQ(ha1("a:b", "c:d", "e:f"), md5("a:b:c:d:e:f"));
  EXPECT_EQ(ha1("%s", "%n", "%d"), md5("%s:%n:%d"));
  EXPECT_EQ(ha1("\xc3\xa9", "\xff", "\x80"), md5("\xc3\xa9:\xff:\x80"));
}

// A digest callback is given no user name when the credentials have none, and may pass it on.
TEST(DigestHash, OfNothingIsNone) {
  const char* const kTexts[] = {nullptr, "text"};
  for (const char* user : kTexts) {
    for (const char* realm : kTexts) {
      for (const char* password : kTexts) {
        const Text hash(http_generateDigestHash(user, realm, password));
        EXPECT_EQ(hash == nullptr, user == nullptr || realm == nullptr || password == nullptr);
      }
    }
  }
}

// A hash of each first digit, so that leading zeros and high nibbles have been seen.
TEST(DigestHash, IsLowerCaseHexadecimal) {
  std::set<char> first;
  for (int number = 0; number < 200; ++number) {
    const std::string hash = ha1("user" + std::to_string(number), "r", "p");
    EXPECT_EQ(hash.size(), 32U);
    EXPECT_EQ(hash.find_first_not_of("0123456789abcdef"), std::string::npos) << hash;
    EXPECT_EQ(hash, md5("user" + std::to_string(number) + ":r:p"));
    first.insert(hash.front());
  }
  EXPECT_EQ(first.size(), 16U);
}

// Of the three together the first 600 characters count.
TEST(DigestHash, OfEveryLength) {
  constexpr size_t kLengths[] = {0,   1,   199, 200, 201, 297, 298, 299, 300,
                                 595, 596, 597, 598, 599, 600, 601, 602, 70000};
  for (const size_t user : kLengths) {
    for (const size_t realm : kLengths) {
      for (const size_t password : kLengths) {
        if (user == 70000 && realm == 70000 && password == 70000) continue;
        const std::string whole =
            std::string(user, 'u') + ":" + std::string(realm, 'r') + ":" + std::string(password, 'p');
        ASSERT_EQ(ha1(std::string(user, 'u'), std::string(realm, 'r'), std::string(password, 'p')),
                  md5(whole.substr(0, 600)))
            << user << " " << realm << " " << password;
      }
    }
  }
}

TEST(DigestHash, IsTracedWithThePasswordInItsZoneOnly) {
  TraceCapture trace;
  EXPECT_EQ(ha1("user", "realm", "secret"), md5("user:realm:secret"));
  EXPECT_EQ(trace.said(), TraceLines());
  trace.enable("http-auth");
  EXPECT_EQ(ha1("user", "realm", "secret"), md5("user:realm:secret"));
  EXPECT_EQ(trace.said(), TraceLines({"http-au[i]hash1=user:realm:secret"}));
}

// ---- the response --------------------------------------------------------------------------------------------------

Fields mufasa() {
  Fields fields;
  fields.username = "Mufasa";
  fields.password = "939e7578ed9e3c518a452acee763bce9";
  fields.realm = "testrealm@host.com";
  fields.nonce = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
  fields.uri = "/dir/index.html";
  fields.qop = "auth";
  fields.nc = "00000001";
  fields.cnonce = "0a4f113b";
  fields.response = "6629fae49393a05397450978507c4ef1";
  fields.opaque = "5ccc069c403ebaf9f0171e9517f40e41";
  return fields;
}

TEST(DigestResponse, OfTheStandards) {
  EXPECT_EQ(Filled(mufasa()).hash(), "6629fae49393a05397450978507c4ef1");

  Fields later = mufasa();
  later.password = "3d78807defe7de2157e2b0b6573a855f";
  later.nonce = "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v";
  later.cnonce = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";
  EXPECT_EQ(Filled(later).hash(), "8ca523f5e9506fed4657c9700eebdbec");
}

TEST(DigestResponse, WithoutQopLeavesTheCountOut) {
  const std::string ha2 = md5("GET:/dir/index.html");
  const std::string expected = md5(mufasa().password + ":"s + mufasa().nonce + ":" + ha2);
  EXPECT_EQ(expected, "670fd8c2df070c60b045671b8b24ff02");
  Fields fields = mufasa();
  fields.qop = nullptr;
  EXPECT_EQ(Filled(fields).hash(), expected);
  fields.nc = nullptr;
  EXPECT_EQ(Filled(fields).hash(), expected);
  fields.cnonce = nullptr;
  EXPECT_EQ(Filled(fields).hash(), expected);
}

TEST(DigestResponse, TakesQopAsItStands) {
  for (const char* qop : {"auth", "auth-int", "", "AUTH", "a:b"}) {
    Fields fields = mufasa();
    fields.qop = qop;
    EXPECT_EQ(Filled(fields).hash(), md5(fields.password + ":"s + fields.nonce + ":00000001:0a4f113b:" + qop + ":" +
                                         md5("GET:/dir/index.html")));
  }
}

TEST(DigestResponse, NamesTheMethod) {
  const struct {
    int32_t code;
    const char* name;
  } kMethods[] = {{-1, "ERROR"}, {0, "ERROR"},       {1, "CONNECT"},       {2, "DELETE"},
                  {3, "GET"},    {4, "HEAD"},        {5, "OPTIONS"},       {6, "POST"},
                  {7, "PUT"},    {8, "TRACE"},       {9, "COUNT"},         {10, "ERROR"},
                  {11, "ERROR"}, {256 + 3, "ERROR"}, {INT32_MIN, "ERROR"}, {INT32_MAX, "ERROR"}};
  for (const auto& method : kMethods) {
    Fields fields = mufasa();
    fields.method = method.code;
    fields.qop = nullptr;
    const TraceCapture trace{"http-auth"};
    EXPECT_EQ(Filled(fields).hash(),
              md5(fields.password + ":"s + fields.nonce + ":" + md5(method.name + ":/dir/index.html"s)))
        << method.code;
    EXPECT_TRUE(trace.has("http-au[i] ha2   = "s + method.name + ":/dir/index.html")) << method.code;
  }
}

TEST(DigestResponse, IsTraced) {
  const TraceCapture trace{"http-auth"};
  Filled(mufasa()).hash();
  EXPECT_EQ(trace.said(),
            TraceLines({"http-au[i] ha2   = GET:/dir/index.html",
                        "http-au[i] total = "
                        "939e7578ed9e3c518a452acee763bce9:dcd98b7102dd2f0e8b11d0f600bfb0c093:00000001:0a4f113b:auth:"
                        "39aff3a2bab6126f332b942af96d3366"}));
}

// Of method and uri the first 600 characters count; of the whole the first 1200, and of HA1 1199.
TEST(DigestResponse, OfEveryLength) {
  constexpr size_t kLengths[] = {0,    1,    2,    595,  596,  597,  599,  600,  601,
                                 1163, 1166, 1167, 1198, 1199, 1200, 1201, 70000};
  const std::string ends = ":00000001:0a4f113b:auth:";
  for (const size_t length : kLengths) {
    SCOPED_TRACE(length);
    const std::string text(length, 'x');

    Fields uri = mufasa();
    uri.uri = text.c_str();
    const std::string ha2 = md5(("GET:" + text).substr(0, 600));
    EXPECT_EQ(Filled(uri).hash(), md5(uri.password + ":"s + uri.nonce + ends + ha2));

    const std::string plain = md5("GET:/dir/index.html");
    Fields nonce = mufasa();
    nonce.nonce = text.c_str();
    EXPECT_EQ(Filled(nonce).hash(), md5((nonce.password + ":"s + text + ends + plain).substr(0, 1200)));

    Fields cnonce = mufasa();
    cnonce.cnonce = text.c_str();
    EXPECT_EQ(Filled(cnonce).hash(),
              md5((cnonce.password + ":"s + cnonce.nonce + ":00000001:" + text + ":auth:" + plain).substr(0, 1200)));

    Fields password = mufasa();
    password.password = text.c_str();
    EXPECT_EQ(Filled(password).hash(),
              md5((text.substr(0, 1199) + ":" + password.nonce + ends + plain).substr(0, 1200)));

    for (const char** field : {&nonce.nc, &nonce.qop}) *field = text.c_str();
    EXPECT_EQ(Filled(nonce).hash(),
              md5((nonce.password + ":"s + text + ":" + text + ":0a4f113b:" + text + ":" + plain).substr(0, 1200)));
  }
}

// Which of the fields are there: one bit each.
enum { kPassword = 1, kNonce = 2, kUri = 4, kQop = 8, kNc = 16, kCnonce = 32, kResponse = 64, kAll = 128 };

Fields fieldsIn(int mask) {
  Fields fields = mufasa();
  if ((mask & kPassword) == 0) fields.password = nullptr;
  if ((mask & kNonce) == 0) fields.nonce = nullptr;
  if ((mask & kUri) == 0) fields.uri = nullptr;
  if ((mask & kQop) == 0) fields.qop = nullptr;
  if ((mask & kNc) == 0) fields.nc = nullptr;
  if ((mask & kCnonce) == 0) fields.cnonce = nullptr;
  if ((mask & kResponse) == 0) fields.response = nullptr;
  return fields;
}

bool has(int mask, int fields) { return (mask & fields) == fields; }

TEST(DigestResponse, NeedsWhatItIsComputedFrom) {
  for (int mask = 0; mask < kAll; ++mask) {
    SCOPED_TRACE(mask);
    const Filled header(fieldsIn(mask));
    const bool complete = has(mask, kPassword | kNonce | kUri) && (!has(mask, kQop) || has(mask, kNc | kCnonce));
    const std::string expected =
        has(mask, kQop) ? "6629fae49393a05397450978507c4ef1" : "670fd8c2df070c60b045671b8b24ff02";
    const TraceCapture trace;
    EXPECT_EQ(header.hash(), complete ? expected : kNone);
    EXPECT_EQ(trace.errors().size(), complete ? 0U : 1U);
  }
}

TEST(DigestAuthenticate, NeedsWhatItIsComputedFrom) {
  for (int mask = 0; mask < kAll; ++mask) {
    SCOPED_TRACE(mask);
    Fields fields = fieldsIn(mask);
    if (!has(mask, kQop) && has(mask, kResponse)) fields.response = "670fd8c2df070c60b045671b8b24ff02";
    const Filled header(fields);
    const bool complete =
        has(mask, kPassword | kNonce | kUri | kResponse) && (!has(mask, kQop) || has(mask, kNc | kCnonce));
    const TraceCapture quiet;
    EXPECT_EQ(http_digestAuthenticate(&*header), complete ? 0 : -1);
  }
}

TEST(DigestAuthenticate, SaysWhetherItIsRight) {
  {
    TraceCapture trace{"http-auth"};
    EXPECT_EQ(http_digestAuthenticate(&*Filled(mufasa())), 0);
    EXPECT_EQ(trace.lines().size(), 3U);
    EXPECT_EQ(trace.said().back(), "http-au[i]DIGEST AUTH - AUTHENTICATION OK");
    EXPECT_EQ(trace.warnings(), TraceLines());
  }
  for (const char* response :
       {"6629FAE49393A05397450978507C4EF1", "6629fae49393a05397450978507c4ef", "6629fae49393a05397450978507c4ef11",
        "6629fae49393a05397450978507c4ef2", "7629fae49393a05397450978507c4ef1", " 6629fae49393a05397450978507c4ef1",
        "6629fae49393a05397450978507c4eF1", "", "670fd8c2df070c60b045671b8b24ff02"}) {
    Fields fields = mufasa();
    fields.response = response;
    const TraceCapture trace;
    EXPECT_EQ(http_digestAuthenticate(&*Filled(fields)), -1) << response;
    EXPECT_EQ(trace.said(), TraceLines({"http-au[!]DIGEST AUTH - Computed Result:6629fae49393a05397450978507c4ef1",
                                        "http-au[!]DIGEST AUTH - Transmitted Result:"s + response,
                                        "http-au[!]DIGEST AUTH - AUTHENTICATION NOK"}));
  }
}

TEST(AuthEqual, ComparesEveryOctet) {
  EXPECT_TRUE(auth_equal("", ""));
  EXPECT_TRUE(auth_equal("a", "a"));
  EXPECT_TRUE(auth_equal("a\0b"s, "a\0b"s));
  EXPECT_TRUE(auth_equal("\xff\x80", "\xff\x80"));
  EXPECT_FALSE(auth_equal("", "a"));
  EXPECT_FALSE(auth_equal("a", ""));
  EXPECT_FALSE(auth_equal("a", "A"));
  EXPECT_FALSE(auth_equal("a\0b"s, "a\0c"s));
  EXPECT_FALSE(auth_equal("a"s, "a\0"s));
  EXPECT_FALSE(auth_equal("a\0"s, "a"s));
  const std::string id = "0123456789abcdefghijklmn";
  for (size_t length = 0; length < id.size(); ++length) {
    EXPECT_FALSE(auth_equal(id, id.substr(0, length))) << length;
    EXPECT_FALSE(auth_equal(id.substr(0, length), id)) << length;
    for (int bit = 1; bit < 256; bit <<= 1) {
      std::string other = id;
      other[length] = static_cast<char>(other[length] ^ bit);
      EXPECT_FALSE(auth_equal(id, other)) << length << " " << bit;
    }
  }
  // Differences may not cancel out.
  EXPECT_FALSE(auth_equal("ab", "ba"));
  EXPECT_FALSE(auth_equal("aa", "bb"));
}

// ---- Digest: writing -----------------------------------------------------------------------------------------------

std::string digestLine(const Fields& fields, const std::string& nc, const std::string& cnonce,
                       const std::string& response) {
  return "Authorization: Digest username=\""s + fields.username + "\", realm=\"" + fields.realm +
         "\", algorithm=\"MD5\", nonce=\"" + fields.nonce + "\", uri=\"" + fields.uri + "\", qop=auth, nc=" + nc +
         ", cnonce=\"" + cnonce + "\", response=\"" + response + "\", opaque=\"" +
         (fields.opaque == nullptr ? "" : fields.opaque) + "\"";
}

void expectCnonce(const std::string& cnonce) {
  EXPECT_EQ(cnonce.size(), 34U);
  EXPECT_EQ(cnonce.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"),
            std::string::npos)
      << cnonce;
}

TEST(DigestSerializer, DrawsAClientNonceEachTime) {
  Fields fields = mufasa();
  fields.nc = fields.cnonce = nullptr;
  fields.response = "as received";
  Filled header(fields);
  std::set<std::string> seen;
  for (int round = 0; round < 20; ++round) {
    const std::string line = written(&header.typed);
    const std::string cnonce = parameter(line, "cnonce");
    expectCnonce(cnonce);
    EXPECT_TRUE(seen.insert(cnonce).second) << cnonce;
    EXPECT_EQ(line, digestLine(fields, "00000001", cnonce,
                               md5(fields.password + ":"s + fields.nonce + ":00000001:" + cnonce +
                                   ":auth:" + md5("GET:/dir/index.html"))));
    EXPECT_EQ(orNone((*header).cnonce), cnonce);
    EXPECT_EQ(orNone((*header).nc), "00000001");
    EXPECT_EQ(orNone((*header).response), "as received");
  }
}

TEST(DigestSerializer, KeepsACountThatIsThere) {
  Fields fields = mufasa();
  fields.nc = "000000ff";
  Filled header(fields);
  for (int round = 0; round < 2; ++round) {
    const std::string line = written(&header.typed);
    const std::string cnonce = parameter(line, "cnonce");
    EXPECT_NE(cnonce, "0a4f113b");
    EXPECT_EQ(line, digestLine(fields, "000000ff", cnonce,
                               md5(fields.password + ":"s + fields.nonce + ":000000ff:" + cnonce +
                                   ":auth:" + md5("GET:/dir/index.html"))));
    EXPECT_EQ(orNone((*header).nc), "000000ff");
  }
}

TEST(DigestSerializer, WritesQopAuthWhateverIsComputed) {
  for (const char* qop : {static_cast<const char*>(nullptr), "auth-int", ""}) {
    Fields fields = mufasa();
    fields.qop = qop;
    fields.method = HTTP_METHOD_POST;
    Filled header(fields);
    const std::string line = written(&header.typed);
    const std::string cnonce = parameter(line, "cnonce");
    expectCnonce(cnonce);
    const std::string counted = qop == nullptr ? "" : "00000001:" + cnonce + ":" + qop + ":";
    EXPECT_EQ(line,
              digestLine(fields, "00000001", cnonce,
                         md5(fields.password + ":"s + fields.nonce + ":" + counted + md5("POST:/dir/index.html"))));
  }
}

TEST(DigestSerializer, IsNoFormatAndHasNoEscapes) {
  Fields fields = mufasa();
  fields.username = "%s \"x\" \xff";
  fields.realm = "%n\\";
  fields.uri = "/%20?a=%41&b=%s";
  fields.opaque = "%d";
  Filled header(fields);
  const std::string line = written(&header.typed);
  const std::string cnonce = parameter(line, "cnonce");
  EXPECT_EQ(line, digestLine(fields, "00000001", cnonce,
                             md5(fields.password + ":"s + fields.nonce + ":00000001:" + cnonce +
                                 ":auth:" + md5("GET:/%20?a=%41&b=%s"))));
}

TEST(DigestSerializer, WritesLongValues) {
  for (const size_t length : {599U, 600U, 601U, 1200U, 70000U}) {
    const std::string text(length, 'x');
    Fields fields = mufasa();
    fields.username = fields.realm = fields.nonce = fields.uri = fields.opaque = text.c_str();
    Filled header(fields);
    const std::string line = written(&header.typed);
    const std::string cnonce = parameter(line, "cnonce");
    expectCnonce(cnonce);
    const std::string whole =
        fields.password + ":"s + text + ":00000001:" + cnonce + ":auth:" + md5(("GET:" + text).substr(0, 600));
    EXPECT_EQ(line, digestLine(fields, "00000001", cnonce, md5(whole.substr(0, 1200)))) << length;
  }
}

TEST(DigestSerializer, RefusesWhatLacksAField) {
  const char* Fields::*const kNeeded[] = {&Fields::username, &Fields::password, &Fields::realm, &Fields::nonce,
                                          &Fields::uri};
  for (int mask = 0; mask < 32; ++mask) {
    SCOPED_TRACE(mask);
    Fields fields = mufasa();
    for (size_t at = 0; at < std::size(kNeeded); ++at) {
      if ((mask >> at & 1) == 0) fields.*kNeeded[at] = nullptr;
    }
    Filled header(fields);
    const TraceCapture trace;
    const std::string line = written(&header.typed);
    EXPECT_EQ(line == "refused", mask != 31) << line;
    EXPECT_EQ(trace.errors().empty(), mask == 31);
  }
}

TEST(DigestSerializer, WritesAnEmptyOpaqueForNone) {
  Fields fields = mufasa();
  fields.opaque = nullptr;
  Filled header(fields);
  const std::string line = written(&header.typed);
  EXPECT_TRUE(line.ends_with(", opaque=\"\"")) << line;
}

TEST(AuthorizationSerializer, RefusesAnUnknownScheme) {
  for (const uint32_t scheme : {2U, 3U, 256U, UINT32_MAX}) {
    Filled header(mufasa());
    header.typed.authorization.scheme = scheme;
    EXPECT_EQ(written(&header.typed), "refused");
    header.typed.authorization.scheme = HTTP_AUTH_DIGEST;
  }
}

// What a client does with a challenge.
TEST(DigestSerializer, AnswersAChallenge) {
  HttpHeader header = {};
  header.code = HTTP_HEADER_WWW_AUTHENTICATE;
  ASSERT_EQ(http_hdrFactory(&header, "Digest realm=\"r\", nonce=\"n\", opaque=\"o\", algorithm=\"MD5\", qop=\"auth\""),
            0);
  header.authorization.username = strdup("user");
  header.authorization.password = http_generateDigestHash("user", header.authorization.realm, "secret");
  header.authorization.uri = strdup("/a?b=c");
  header.authorization.method = HTTP_METHOD_PUT;
  const std::string line = written(&header);
  http_hdrCleanup(&header);
  const std::string cnonce = parameter(line, "cnonce");
  EXPECT_EQ(line,
            "Authorization: Digest username=\"user\", realm=\"r\", algorithm=\"MD5\", nonce=\"n\", "
            "uri=\"/a?b=c\", qop=auth, nc=00000001, cnonce=\"" +
                cnonce + "\", response=\"" +
                md5(md5("user:r:secret") + ":n:00000001:" + cnonce + ":auth:" + md5("PUT:/a?b=c")) +
                "\", opaque=\"o\"");

  Header received(line.substr(15));
  received.typed.authorization.password = strdup(md5("user:r:secret").c_str());
  received.typed.authorization.method = HTTP_METHOD_PUT;
  EXPECT_EQ(http_digestAuthenticate(&*received), 0);
}

// ---- traces --------------------------------------------------------------------------------------------------------

TEST(AuthorizationTraces, KeepPasswordsUnlessTheZoneIsOn) {
  const TraceCapture trace;
  {
    Header header("Basic " + base64("user:TopSecret"));
    written(&header.typed);
    const Header refused("Basic " + base64("TopSecret"));
    const Header clear("Basic user:TopSecret");
  }
  {
    Fields fields = mufasa();
    fields.password = "TopSecret";
    fields.response = "no";
    Filled header(fields);
    http_digestAuthenticate(&*header);
    written(&header.typed);
  }
  ha1("user", "realm", "TopSecret");
  for (const TraceLine& line : trace.lines()) {
    EXPECT_EQ(line.text.find("TopSecret"), std::string::npos) << line.text;
    EXPECT_EQ(line.text.find(base64("user:TopSecret")), std::string::npos) << line.text;
  }
}

}  // namespace
