#include <gtest/gtest.h>
#include <krohttp/cookie.h>
#include <krohttp/reply.h>
#include <krohttp/request.h>
#include <stdlib.h>
#include <string.h>

#include <climits>
#include <clocale>
#include <cstdint>
#include <ctime>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "support/messages.h"
#include "support/script_stream.h"
#include "support/trace_capture.h"

namespace {

using namespace std::string_literals;

using Lines = std::vector<std::string>;

constexpr const char* kNone = "(none)";
std::string orNone(const char* text) { return text == nullptr ? kNone : text; }

// A typed header read from text, cleaned up whatever the reading gave.
class Header {
 public:
  Header(int code, const std::string& text) {
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

  HttpHeader typed = {};
  int result = 0;
};

// A Set-Cookie header to be filled.
class SetCookie {
 public:
  SetCookie() { http_hdrSetCookieInitialize(&typed); }
  ~SetCookie() { http_hdrSetCookieCleanup(&typed); }
  SetCookie(const SetCookie&) = delete;
  SetCookie& operator=(const SetCookie&) = delete;

  HttpHeader typed;
};

Lines headersOf(HttpReply* reply) {
  Lines headers;
  const char* name = nullptr;
  const char* value = nullptr;
  http_replyHeadersReset(reply);
  while (headers.size() < 10000 && http_replyHeadersNext(reply, &name, &value) == 0)
    headers.push_back(std::string(name) + ": " + orNone(value));
  return headers;
}

// The only header of a reply that header was written into; "refused" when it was not, "nothing" when none is there.
std::string written(HttpHeader* header) {
  const ReplyPtr reply(http_replyCreate());
  const int result = http_hdrSerialize(header, &reply->message);
  const Lines headers = headersOf(reply.get());
  if (result != 0) return headers.empty() ? "refused" : "refused, and written";
  return headers.size() == 1 ? headers.front() : headers.empty() ? "nothing" : "more than one";
}

// The cookies of a list, in its order: "name=value", a name alone without a value.
Lines cookiesOf(const HttpHeader& header) {
  Lines cookies;
  for (const http_cookie* cookie = header.cookies; cookie != nullptr; cookie = cookie->next)
    cookies.push_back(orNone(cookie->name) + (cookie->value == nullptr ? "" : "="s + cookie->value));
  return cookies;
}

std::string attributesOf(const http_cookie& cookie) {
  std::string text;
  const auto add = [&](const std::string& attribute) { text += (text.empty() ? "" : "; ") + attribute; };
  if (cookie.domain != nullptr) add("domain="s + cookie.domain);
  if (cookie.comment != nullptr) add("comment="s + cookie.comment);
  if (cookie.commenturl != nullptr) add("commenturl="s + cookie.commenturl);
  if (cookie.discard != 0) add("discard " + std::to_string(cookie.discard));
  if (cookie.maxAge != 0) add("maxAge " + std::to_string(cookie.maxAge));
  if (cookie.secure != 0) add("secure " + std::to_string(cookie.secure));
  if (cookie.httponly != 0) add("httponly " + std::to_string(cookie.httponly));
  if (cookie.version != nullptr) add("version="s + cookie.version);
  if (cookie.expires > 0) add("expires " + std::to_string(cookie.expires));
  if (cookie.path != nullptr) add("path="s + cookie.path);
  return text;
}

// The attributes that every cookie of the list has; "differ" when they differ.
std::string attributesOf(const HttpHeader& header) {
  if (header.cookies == nullptr) return "";
  const std::string first = attributesOf(*header.cookies);
  for (const http_cookie* cookie = header.cookies; cookie != nullptr; cookie = cookie->next) {
    if (attributesOf(*cookie) != first) return "differ";
  }
  return first;
}

// A local time zone for the length of a scope; POSIX forms ("KRO-3" is three hours east) need no zone files.
class LocalZone {
 public:
  explicit LocalZone(const char* zone) {
    const char* before = getenv("TZ");
    hadZone_ = before != nullptr;
    if (hadZone_) before_ = before;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~LocalZone() {
    if (hadZone_) {
      setenv("TZ", before_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  LocalZone(const LocalZone&) = delete;
  LocalZone& operator=(const LocalZone&) = delete;

 private:
  bool hadZone_;
  std::string before_;
};

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
constexpr const char* kLocales[] = {"C", "C.UTF-8"};

// ---- the registry --------------------------------------------------------------------------------------------------

TEST(CookieRegistry, ThreeRowsAreOfThisModule) {
  EXPECT_EQ(hdr_factories[19], &cookie_hdrFactoryCookie);
  EXPECT_EQ(hdr_serializers[19], &cookie_hdrSerializeCookie);
  EXPECT_EQ(hdr_frees[19], &cookie_hdrFreeCookie);
  for (const int code : {41, 42}) {
    EXPECT_EQ(hdr_factories[code], &cookie_hdrFactorySetCookie) << code;
    EXPECT_EQ(hdr_serializers[code], &cookie_hdrSerializeSetCookie) << code;
    EXPECT_EQ(hdr_frees[code], &cookie_hdrFreeSetCookie) << code;
  }
  EXPECT_STREQ(prot_headerString(19), "Cookie");
  EXPECT_STREQ(prot_headerString(41), "Set-Cookie");
  EXPECT_STREQ(prot_headerString(42), "Set-Cookie2");
}

TEST(CookieRecord, FieldsStandInTheirOrder) {
  const size_t kOffsets[] = {
      offsetof(http_cookie, name),    offsetof(http_cookie, value),      offsetof(http_cookie, domain),
      offsetof(http_cookie, comment), offsetof(http_cookie, commenturl), offsetof(http_cookie, discard),
      offsetof(http_cookie, maxAge),  offsetof(http_cookie, secure),     offsetof(http_cookie, httponly),
      offsetof(http_cookie, version), offsetof(http_cookie, expires),    offsetof(http_cookie, path),
      offsetof(http_cookie, next)};
  for (size_t at = 1; at < std::size(kOffsets); ++at) EXPECT_LT(kOffsets[at - 1], kOffsets[at]) << at;
  static_assert(std::is_same_v<decltype(http_cookie::discard), uint8_t>);
  static_assert(std::is_same_v<decltype(http_cookie::secure), uint8_t>);
  static_assert(std::is_same_v<decltype(http_cookie::httponly), uint8_t>);
  static_assert(std::is_same_v<decltype(http_cookie::expires), int32_t>);
  static_assert(sizeof(http_cookie::maxAge) == 4);
}

TEST(CookieInitialize, GivesAnEmptyHeaderOfItsCode) {
  HttpHeader expected;
  memset(&expected, 0, sizeof expected);
  HttpHeader header;
  memset(&header, 0xa5, sizeof header);
  http_hdrCookieInitialize(&header);
  expected.code = 19;
  EXPECT_EQ(memcmp(&header, &expected, sizeof header), 0);
  http_hdrCookieCleanup(&header);
  EXPECT_EQ(header.code, 0);
  http_hdrCookieCleanup(&header);

  memset(&header, 0xa5, sizeof header);
  http_hdrSetCookieInitialize(&header);
  expected.code = 41;
  EXPECT_EQ(memcmp(&header, &expected, sizeof header), 0);
  http_hdrSetCookieCleanup(&header);
  EXPECT_EQ(header.code, 0);
  http_hdrSetCookieCleanup(&header);
}

// ---- reading Cookie ------------------------------------------------------------------------------------------------

// Every octet that a name (a token) or a value may have, RFC 6265 section 4.1.1.
constexpr const char* kToken = "!#$%&'*+-.^_`|~0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr const char* kValue =
    "!#$%&'()*+-./0123456789:<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[]^_`abcdefghijklmnopqrstuvwxyz{|}~";

struct CookieCase {
  const char* name;
  std::string text;
  Lines cookies;        // newest first
  std::string written;  // behind "Cookie: "
};
void PrintTo(const CookieCase& row, std::ostream* out) { *out << row.name; }

const CookieCase kCookies[] = {
    {"One", "a=1", {"a=1"}, "a=1"},
    {"Two", "a=1; b=2", {"b=2", "a=1"}, "b=2; a=1"},
    {"Three", "a=1; b=2; c=3", {"c=3", "b=2", "a=1"}, "c=3; b=2; a=1"},
    {"WithoutBlank", "a=1;b=2", {"b=2", "a=1"}, "b=2; a=1"},
    {"ManyBlanks", "a=1; \t b=2", {"b=2", "a=1"}, "b=2; a=1"},
    {"BlanksStayElsewhere", "a = 1 ; b=2\t", {"b=2\t", "a = 1 "}, "b=2\t; a = 1"},
    {"EmptyValue", "a=", {"a="}, "a="},
    {"EmptyName", "=1", {"=1"}, "=1"},
    {"EmptyBoth", "=", {"="}, "="},
    {"EqualsSignInTheValue", "a=b=c==; d==", {"d==", "a=b=c=="}, "d==; a=b=c=="},
    {"QuotedValue", "a=\"1\"", {"a=\"1\""}, "a=\"1\""},
    {"QuotesDoNotProtect", "a=\"1;b=2\"", {"b=2\"", "a=\"1"}, "b=2\"; a=\"1"},
    {"EveryOctetOfATokenInTheName", kToken + "=1"s, {kToken + "=1"s}, kToken + "=1"s},
    {"EveryOctetOfAValue", "a="s + kValue, {"a="s + kValue}, "a="s + kValue},
    {"CommaDoesNotCut", "a=1, b=2", {"a=1, b=2"}, "a=1, b=2"},
    {"Backslash", "a=\\\"1\\", {"a=\\\"1\\"}, "a=\\\"1\\"},
    {"HighOctets", "\xc3\xa9=\xff; \x80=1", {"\x80=1", "\xc3\xa9=\xff"}, "\x80=1; \xc3\xa9=\xff"},
    {"PercentSigns", "%s=%n; %d=%%", {"%d=%%", "%s=%n"}, "%d=%%; %s=%n"},
    {"SameNameTwice", "a=1; a=2", {"a=2", "a=1"}, "a=2; a=1"},
    {"SemicolonLast", "a=1;", {"a=1"}, "a=1"},
    {"AttributesAreCookies",
     "$Version=1; a=1; Path=/; secure=; expires=Sun, 15-Nov-2026 06:09:59 GMT; max-age=5",
     {"max-age=5", "expires=Sun, 15-Nov-2026 06:09:59 GMT", "secure=", "Path=/", "a=1", "$Version=1"},
     "max-age=5; expires=Sun, 15-Nov-2026 06:09:59 GMT; secure=; Path=/; a=1; $Version=1"},
};

class CookieText : public testing::TestWithParam<CookieCase> {};

TEST_P(CookieText, IsReadNewestFirstAndWrittenInThatOrder) {
  const CookieCase& row = GetParam();
  for (const char* locale : kLocales) {
    const Locale scope(locale);
    const TraceCapture trace;
    Header header(HTTP_HEADER_COOKIE, row.text);
    EXPECT_EQ(header.result, 0);
    EXPECT_EQ(cookiesOf(header.typed), row.cookies);
    EXPECT_EQ(attributesOf(header.typed), "");
    EXPECT_EQ(written(&header.typed), "Cookie: " + row.written);
    EXPECT_EQ(cookiesOf(header.typed), row.cookies) << "writing changes nothing";
    EXPECT_EQ(trace.said(), TraceLines());
  }
}

TEST_P(CookieText, IsNotCopied) {
  Header header(HTTP_HEADER_COOKIE, GetParam().text);
  const char* const begin = header.typed.raw;
  const char* const end = begin + GetParam().text.size();
  for (const http_cookie* cookie = header.typed.cookies; cookie != nullptr; cookie = cookie->next) {
    EXPECT_TRUE(cookie->name >= begin && cookie->name <= end) << cookie->name;
    EXPECT_TRUE(cookie->value > cookie->name && cookie->value <= end) << cookie->name;
  }
}

TEST_P(CookieText, IsReadWithoutTheRegistryToo) {
  std::string text = GetParam().text;
  HttpHeader header;
  http_hdrCookieInitialize(&header);
  EXPECT_EQ(cookie_hdrFactoryCookie(&header, text.data()), 0);
  EXPECT_EQ(cookiesOf(header), GetParam().cookies);
  cookie_hdrFreeCookie(&header);
}

INSTANTIATE_TEST_SUITE_P(Table, CookieText, testing::ValuesIn(kCookies),
                         [](const auto& row) { return row.param.name; });

TEST(CookieFactory, ANameWithoutValueIsACookieWithAWarning) {
  const struct {
    const char* text;
    Lines cookies;
    size_t warnings;
  } kRows[] = {
      {"a", {"a"}, 1}, {"a; b=1", {"b=1", "a"}, 1}, {"a=1;;b=2", {"b=2", "", "a=1"}, 1},
      {";", {""}, 1},  {"; ;", {"", ""}, 2},
  };
  for (const auto& row : kRows) {
    const TraceCapture trace;
    const Header header(HTTP_HEADER_COOKIE, row.text);
    EXPECT_EQ(header.result, 0) << row.text;
    EXPECT_EQ(cookiesOf(header.typed), row.cookies) << row.text;
    EXPECT_EQ(trace.lines().size(), row.warnings) << row.text;
    EXPECT_EQ(trace.countStarting("http-ut[!]unable to parse cookie "), row.warnings) << row.text;
  }
}

TEST(CookieFactory, AnEmptyTextHasNone) {
  const TraceCapture trace;
  const Header header(HTTP_HEADER_COOKIE, "");
  EXPECT_EQ(header.result, 0);
  EXPECT_EQ(header.typed.cookies, nullptr);
  EXPECT_EQ(trace.said(), TraceLines());
}

TEST(CookieFactory, IsTraced) {
  const TraceCapture trace{"http-cookie"};
  const Header header(HTTP_HEADER_COOKIE, "a=1; b=");
  EXPECT_EQ(trace.said(), TraceLines({
                              "http-co[i]loading cookies from a=1; b=",
                              "http-co[i]parsed cookie [a=1]",
                              "http-co[i]parsed cookie [b=]",
                          }));
}

TEST(CookieFactory, OverwritesTheTypedPart) {
  for (const int code : {19, 41, 42}) {
    for (const char* text : {"a=1", ""}) {
      HttpHeader header;
      memset(&header, 0xa5, sizeof header);
      header.code = code;
      EXPECT_EQ(http_hdrFactory(&header, text), 0);
      EXPECT_EQ(cookiesOf(header), *text == '\0' ? Lines() : Lines({"a=1"}));
      http_hdrCleanup(&header);
    }
  }
}

TEST(CookieFactory, ReadsAndWritesFiveThousandCookies) {
  constexpr int kCount = 5000;
  std::string text;
  std::string backwards;
  Lines cookies;
  for (int at = 0; at < kCount; ++at) {
    text += (at == 0 ? "" : "; ") + "name"s + std::to_string(at) + "=" + std::to_string(at);
    const int other = kCount - 1 - at;
    cookies.push_back("name" + std::to_string(other) + "=" + std::to_string(other));
    backwards += (at == 0 ? "" : "; ") + cookies.back();
  }
  {
    Header header(HTTP_HEADER_COOKIE, text);
    EXPECT_EQ(header.result, 0);
    EXPECT_EQ(cookiesOf(header.typed), cookies);
    EXPECT_STREQ(http_cookieGet(&header.typed, "name0"), "0");
    EXPECT_STREQ(http_cookieGet(&header.typed, "name4999"), "4999");
    EXPECT_EQ(written(&header.typed), "Cookie: " + backwards);
  }
  for (const int code : {41, 42}) {
    Header header(code, text + "; Path=/p");
    EXPECT_EQ(header.result, 0);
    EXPECT_EQ(cookiesOf(header.typed), cookies);
    EXPECT_EQ(attributesOf(header.typed), "path=/p");
    EXPECT_EQ(written(&header.typed), (code == 41 ? "Set-Cookie: " : "Set-Cookie2: ") + backwards + "; path=/p");
  }
}

TEST(CookieFactory, KeepsLongTexts) {
  for (const size_t length : {255U, 256U, 599U, 600U, 4096U, 70000U}) {
    const std::string name(length, 'n');
    const std::string value(length, 'v');
    Header header(HTTP_HEADER_COOKIE, name + "=" + value);
    EXPECT_STREQ(http_cookieGet(&header.typed, name.c_str()), value.c_str());
    EXPECT_EQ(written(&header.typed), "Cookie: " + name + "=" + value);
    Header set(HTTP_HEADER_SET_COOKIE, name + "=" + value + "; Domain=" + value + "; Path=" + name);
    EXPECT_EQ(written(&set.typed), "Set-Cookie: " + name + "=" + value + "; domain=" + value + "; path=" + name);
  }
}

// ---- writing Cookie ------------------------------------------------------------------------------------------------

TEST(CookieSerializer, IsTraced) {
  Header header(HTTP_HEADER_COOKIE, "a=1; b=2");
  const ReplyPtr reply(http_replyCreate());
  const TraceCapture trace{"http-cookie"};
  ASSERT_EQ(cookie_hdrSerializeCookie(&header.typed, &reply->message), 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-co[i]setting cookie b to 2", "http-co[i]setting cookie a to 1"}));
}

TEST(CookieSerializer, PassesThroughAClientsRequest) {
  ScriptOutput output;
  const RequestPtr request(http_requestCreate());
  http_requestModeSet(request.get(), HTTP_MSG_WRITING);
  http_requestStreamSet(request.get(), output.stream());
  http_requestVersionSet(request.get(), 1, 1);
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/"), 0);
  Header header(HTTP_HEADER_COOKIE, "a=%s; b=\"2\"");
  ASSERT_EQ(http_requestHeaderSet(request.get(), &header.typed), 0);
  ASSERT_EQ(http_requestHeaderSet(request.get(), &header.typed), 0);
  ASSERT_EQ(http_requestSend(request.get()), 0);
  EXPECT_EQ(output.bytes(), "GET / HTTP/1.1\r\nCookie: b=\"2\"; a=%s\r\nCookie: b=\"2\"; a=%s\r\n\r\n");
}

TEST(CookieSerializer, WritesAMissingValueAsAnEmptyOne) {
  const TraceCapture quiet;
  Header header(HTTP_HEADER_COOKIE, "a; b=1; c");
  EXPECT_EQ(written(&header.typed), "Cookie: c=; b=1; a=");
}

TEST(CookieSerializer, AnEmptyListGivesTheBareName) {
  HttpHeader header;
  http_hdrCookieInitialize(&header);
  const TraceCapture trace;
  EXPECT_EQ(written(&header), "Cookie: ");
  EXPECT_EQ(trace.said(), TraceLines({"http-me[!]Adding http header without value"}));
}

// ---- looking a cookie up -------------------------------------------------------------------------------------------

TEST(CookieGet, FindsTheOneThatCameLast) {
  const TraceCapture quiet;
  Header header(HTTP_HEADER_COOKIE, "a=1; b=2; a=3; A=4; ab=5; c=; d");
  const struct {
    const char* name;
    const char* value;
  } kRows[] = {{"a", "3"},     {"b", "2"},    {"A", "4"},      {"ab", "5"},     {"c", ""},        {"d", nullptr},
               {"B", nullptr}, {"", nullptr}, {"a ", nullptr}, {" a", nullptr}, {"a=1", nullptr}, {"e", nullptr}};
  for (const auto& row : kRows) {
    const TraceCapture trace;
    EXPECT_STREQ(http_cookieGet(&header.typed, row.name), row.value) << row.name;
    EXPECT_EQ(trace.said(), TraceLines()) << row.name;
  }
}

TEST(CookieGet, AMissingOneIsTraced) {
  Header header(HTTP_HEADER_COOKIE, "a=1; b=2");
  HttpHeader empty;
  http_hdrCookieInitialize(&empty);
  const TraceCapture trace{"http-cookie"};
  EXPECT_STREQ(http_cookieGet(&header.typed, "a"), "1");
  EXPECT_EQ(trace.said(), TraceLines());
  EXPECT_EQ(http_cookieGet(&header.typed, "c"), nullptr);
  EXPECT_EQ(http_cookieGet(&empty, "a"), nullptr);
  EXPECT_EQ(trace.said(), TraceLines({"http-co[i]unable to fetch cookie c", "http-co[i]unable to fetch cookie a"}));
}

TEST(CookieGet, AnEmptyNameIsAName) {
  Header header(HTTP_HEADER_COOKIE, "=1; a=2");
  EXPECT_STREQ(http_cookieGet(&header.typed, ""), "1");
}

TEST(CookieGet, FromARequest) {
  ScriptInput input("GET / HTTP/1.1\r\nHost: x\r\nCOOKIE:  a=1; b=x=y \r\nCookie: c=3\r\n\r\n");
  const RequestPtr request = incomingRequest(input.stream());
  HttpHeader header;
  http_hdrCookieInitialize(&header);
  ASSERT_EQ(http_requestHeader(request.get(), &header), 0);
  EXPECT_STREQ(http_cookieGet(&header, "a"), "1");
  EXPECT_STREQ(http_cookieGet(&header, "b"), "x=y");
  EXPECT_EQ(http_cookieGet(&header, "c"), nullptr) << "of two headers the first is read";
  http_hdrCookieCleanup(&header);
  EXPECT_EQ(header.code, 0);
}

TEST(CookieGet, ARequestWithoutLeavesNothingToRelease) {
  ScriptInput input("GET / HTTP/1.1\r\nSet-Cookie: a=1\r\n\r\n");
  const RequestPtr request = incomingRequest(input.stream());
  HttpHeader header;
  http_hdrCookieInitialize(&header);
  EXPECT_EQ(http_requestHeader(request.get(), &header), -1);
  EXPECT_EQ(http_cookieGet(&header, "a"), nullptr);
  http_hdrCookieCleanup(&header);
}

// ---- reading and writing Set-Cookie --------------------------------------------------------------------------------

struct SetCookieCase {
  const char* name;
  std::string text;
  Lines cookies;
  std::string attributes;
  std::string written;  // behind "Set-Cookie: "
};
void PrintTo(const SetCookieCase& row, std::ostream* out) { *out << row.name; }

const SetCookieCase kSetCookies[] = {
    {"Plain", "id=5", {"id=5"}, "", "id=5"},
    {"Empty", "id=", {"id="}, "", "id="},
    {"EmptyName", "=5", {"=5"}, "", "=5"},
    {"EqualsSignInTheValue", "id=a=b==", {"id=a=b=="}, "", "id=a=b=="},
    {"Quoted", "id=\"5\"", {"id=\"5\""}, "", "id=\"5\""},
    {"EveryOctetOfATokenInTheName", kToken + "=1"s, {kToken + "=1"s}, "", kToken + "=1"s},
    {"EveryOctetOfAValue", "a="s + kValue, {"a="s + kValue}, "", "a="s + kValue},
    {"HighOctetsAndPercentSigns",
     "\xc3\xa9%s=\xff%n; Path=/%d",
     {"\xc3\xa9%s=\xff%n"},
     "path=/%d",
     "\xc3\xa9%s=\xff%n; path=/%d"},
    {"Everything",
     "id=5; Domain=d; Comment=c; CommentURL=u; Discard; Max-Age=9; Secure; HttpOnly; Version=1; Path=/p; Port=80; "
     "Expires=Sun, 15-Nov-2026 06:09:59 GMT",
     {"id=5"},
     "domain=d; comment=c; commenturl=u; discard 1; maxAge 9; secure 1; httponly 1; version=1; expires 1794722999; "
     "path=/p",
     "id=5; expires=Sun, 15-Nov-2026 06:09:59 GMT; max-age=9; domain=d; path=/p; HttpOnly"},
    {"Domain", "id=5; Domain=example.com", {"id=5"}, "domain=example.com", "id=5; domain=example.com"},
    {"Path", "id=5; Path=/x", {"id=5"}, "path=/x", "id=5; path=/x"},
    {"PathWithEqualsSign", "id=5; Path=/x?a=b", {"id=5"}, "path=/x?a=b", "id=5; path=/x?a=b"},
    {"PathQuoted", "id=5; Path=\"/\"", {"id=5"}, "path=\"/\"", "id=5; path=\"/\""},
    {"PathEmpty", "id=5; Path=", {"id=5"}, "path=", "id=5; path="},
    {"SecureIsNotWritten",
     "id=5; Path=/x; Secure; HttpOnly",
     {"id=5"},
     "secure 1; httponly 1; path=/x",
     "id=5; path=/x; HttpOnly"},
    {"CommentIsNotWritten",
     "id=5; comment=c; commenturl=u; version=1; discard=",
     {"id=5"},
     "comment=c; commenturl=u; discard 1; version=1",
     "id=5"},
    {"FlagsWithValues",
     "id=5; Secure=no; HttpOnly=false; Discard=0",
     {"id=5"},
     "discard 1; secure 1; httponly 1",
     "id=5; HttpOnly"},
    {"UpperCase",
     "id=5; DOMAIN=D; PATH=/P; HTTPONLY; MAX-AGE=7; SECURE; COMMENT=C; COMMENTURL=U; VERSION=V; DISCARD; PORT=1",
     {"id=5"},
     "domain=D; comment=C; commenturl=U; discard 1; maxAge 7; secure 1; httponly 1; version=V; path=/P",
     "id=5; max-age=7; domain=D; path=/P; HttpOnly"},
    {"LowerCase",
     "id=5; domain=d; path=/; httponly; max-age=7; expires=Thu, 01-Jan-1970 00:00:01 GMT",
     {"id=5"},
     "domain=d; maxAge 7; httponly 1; expires 1; path=/",
     "id=5; expires=Thu, 01-Jan-1970 00:00:01 GMT; max-age=7; domain=d; path=/; HttpOnly"},
    {"MixedCase",
     "id=5; dOmAiN=d; pAtH=/; hTtPoNlY; mAx-aGe=7",
     {"id=5"},
     "domain=d; maxAge 7; httponly 1; path=/",
     "id=5; max-age=7; domain=d; path=/; HttpOnly"},
    {"PortIsIgnored", "id=5; Port=\"80\"; port", {"id=5"}, "", "id=5"},
    {"AttributesFirst", "Path=/; HttpOnly; id=5", {"id=5"}, "httponly 1; path=/", "id=5; path=/; HttpOnly"},
    {"AttributesBetween", "a=1; Path=/; b=2", {"b=2", "a=1"}, "path=/", "b=2; a=1; path=/"},
    {"AttributesOnly", "Path=/; Secure; HttpOnly", {}, "", ""},
    {"LastOfAnAttributeCounts",
     "id=5; Path=/a; Max-Age=1; Domain=d; Path=/b; Max-Age=2; Domain=e",
     {"id=5"},
     "domain=e; maxAge 2; path=/b",
     "id=5; max-age=2; domain=e; path=/b"},
    {"UnknownAttributeIsACookie",
     "id=5; SameSite=Lax; Path=/",
     {"SameSite=Lax", "id=5"},
     "path=/",
     "SameSite=Lax; id=5; path=/"},
    {"UnknownFlagIsACookieWithoutValue", "id=5; Partitioned", {"Partitioned", "id=5"}, "", "Partitioned=; id=5"},
    {"NameOfAnAttributeWithABlank",
     "id=5; Path =/; Domain\t=d",
     {"Domain\t=d", "Path =/", "id=5"},
     "",
     "Domain\t=d; Path =/; id=5"},
    {"NameBeginsLikeAnAttribute",
     "Paths=1; Pat=2; max-ages=3; httponlyx; expire=4",
     {"expire=4", "httponlyx", "max-ages=3", "Pat=2", "Paths=1"},
     "",
     "expire=4; httponlyx=; max-ages=3; Pat=2; Paths=1"},
    {"WithoutBlanks", "id=5;Path=/x;HttpOnly", {"id=5"}, "httponly 1; path=/x", "id=5; path=/x; HttpOnly"},
    {"ManyBlanks", "id=5; \t Path=/x ;\tHttpOnly", {"id=5"}, "httponly 1; path=/x ", "id=5; path=/x ; HttpOnly"},
    {"CommaDoesNotCut", "a=1, b=2", {"a=1, b=2"}, "", "a=1, b=2"},
    {"EmptyPairs", "id=5;;Path=/", {"", "id=5"}, "path=/", "=; id=5; path=/"},
    {"Nothing", "", {}, "", ""},
    {"MaxAgeZero", "id=5; Max-Age=0", {"id=5"}, "", "id=5"},
    {"MaxAgeIsNoNumber", "id=5; Max-Age=abc", {"id=5"}, "", "id=5"},
    {"MaxAgeEmpty", "id=5; Max-Age=", {"id=5"}, "", "id=5"},
    {"MaxAgeQuoted", "id=5; Max-Age=\"5\"", {"id=5"}, "", "id=5"},
    {"MaxAgeWithTail", "id=5; Max-Age= 12s", {"id=5"}, "maxAge 12", "id=5; max-age=12"},
    {"MaxAgeLargest", "id=5; Max-Age=2147483647", {"id=5"}, "maxAge 2147483647", "id=5; max-age=2147483647"},
    {"MaxAgeNegative", "id=5; Max-Age=-1", {"id=5"}, "maxAge -1", "id=5; max-age=4294967295"},
};

class SetCookieText : public testing::TestWithParam<SetCookieCase> {};

TEST_P(SetCookieText, IsReadAndWritten) {
  const SetCookieCase& row = GetParam();
  const LocalZone zone("UTC0");
  for (const char* locale : kLocales) {
    const Locale scope(locale);
    for (const int code : {41, 42}) {
      const TraceCapture trace;
      Header header(code, row.text);
      EXPECT_EQ(header.result, 0);
      EXPECT_EQ(cookiesOf(header.typed), row.cookies);
      EXPECT_EQ(attributesOf(header.typed), row.attributes);
      const std::string name = code == 41 ? "Set-Cookie: " : "Set-Cookie2: ";
      EXPECT_EQ(written(&header.typed), row.cookies.empty() ? "nothing" : name + row.written);
      EXPECT_EQ(trace.errors(), TraceLines());
    }
  }
}

TEST_P(SetCookieText, IsNotCopied) {
  const TraceCapture quiet;
  Header header(HTTP_HEADER_SET_COOKIE, GetParam().text);
  const char* const begin = header.typed.raw;
  const char* const end = begin + GetParam().text.size();
  for (const http_cookie* cookie = header.typed.cookies; cookie != nullptr; cookie = cookie->next) {
    for (const char* text : {cookie->name, cookie->value, cookie->domain, cookie->comment, cookie->commenturl,
                             cookie->version, cookie->path}) {
      EXPECT_TRUE(text == nullptr || (text >= begin && text <= end)) << text;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Table, SetCookieText, testing::ValuesIn(kSetCookies),
                         [](const auto& row) { return row.param.name; });

// What the text of a received message cannot show.
TEST(SetCookieFactory, AnAttributeWithoutValueIsAbsent) {
  for (const char* attribute : {"domain", "path", "comment", "commenturl", "version", "max-age", "expires", "port"}) {
    const TraceCapture trace;
    Header header(HTTP_HEADER_SET_COOKIE, "id=5; "s + attribute);
    EXPECT_EQ(header.result, 0) << attribute;
    EXPECT_EQ(cookiesOf(header.typed), Lines({"id=5"})) << attribute;
    EXPECT_EQ(attributesOf(header.typed), "") << attribute;
    EXPECT_EQ(written(&header.typed), "Set-Cookie: id=5") << attribute;
    EXPECT_EQ(trace.countStarting("http-ut[!]unable to parse cookie "), 1U) << attribute;
  }
}

TEST(SetCookieFactory, AMaxAgeThatDoesNotFitIsNotTakenForAnother) {
  for (const char* age : {"2147483648", "4294967296", "4294967297", "9223372036854775807", "99999999999999999999"}) {
    Header header(HTTP_HEADER_SET_COOKIE, "id=5; max-age="s + age);
    EXPECT_EQ(header.result, 0);
    ASSERT_NE(header.typed.cookies, nullptr);
    EXPECT_EQ(header.typed.cookies->maxAge, INT32_MAX) << age;
  }
  for (const char* age : {"-2147483649", "-4294967296", "-4294967295", "-99999999999999999999"}) {
    Header header(HTTP_HEADER_SET_COOKIE, "id=5; max-age="s + age);
    ASSERT_NE(header.typed.cookies, nullptr);
    EXPECT_EQ(header.typed.cookies->maxAge, INT32_MIN) << age;
  }
}

// ---- dates ---------------------------------------------------------------------------------------------------------

struct DateCase {
  const char* name;
  const char* zone;
  const char* text;
  int32_t expires;  // 0: absent
  const char* written;
};
void PrintTo(const DateCase& row, std::ostream* out) { *out << row.name; }

const DateCase kDates[] = {
    {"WithGmt", "UTC0", "Sun, 15-Nov-2026 06:09:59 GMT", 1794722999, "Sun, 15-Nov-2026 06:09:59 GMT"},
    {"WithoutGmt", "UTC0", "Sun, 15-Nov-2026 06:09:59", 1794722999, "Sun, 15-Nov-2026 06:09:59 GMT"},
    {"FirstSecond", "UTC0", "Thu, 01-Jan-1970 00:00:01 GMT", 1, "Thu, 01-Jan-1970 00:00:01 GMT"},
    {"Epoch", "UTC0", "Thu, 01-Jan-1970 00:00:00 GMT", 0, nullptr},
    {"SecondBeforeTheEpoch", "UTC0", "Wed, 31-Dec-1969 23:59:59 GMT", 0, nullptr},
    {"LongBeforeTheEpoch", "UTC0", "Mon, 01-Jan-1900 00:00:00 GMT", 0, nullptr},
    {"BeforeWhatFits", "UTC0", "Fri, 13-Dec-1901 20:45:51 GMT", 0, nullptr},
    {"FarBeforeWhatFits", "UTC0", "Tue, 01-Jan-1833 00:00:00 GMT", 0, nullptr},
    {"Last", "UTC0", "Tue, 19-Jan-2038 03:14:07 GMT", INT32_MAX, "Tue, 19-Jan-2038 03:14:07 GMT"},
    {"BehindTheLast", "UTC0", "Tue, 19-Jan-2038 03:14:08 GMT", INT32_MAX, "Tue, 19-Jan-2038 03:14:07 GMT"},
    {"FarBehindTheLast", "UTC0", "Fri, 31-Dec-9999 23:59:59 GMT", INT32_MAX, "Tue, 19-Jan-2038 03:14:07 GMT"},
    {"East", "KRO-3", "Sun, 15-Nov-2026 06:09:59 GMT", 1794722999 - 3 * 3600, "Sun, 15-Nov-2026 03:09:59 GMT"},
    {"West", "KRO5:30", "Sun, 15-Nov-2026 06:09:59 GMT", 1794722999 + 5 * 3600 + 1800, "Sun, 15-Nov-2026 11:39:59 GMT"},
    {"EastOfTheEpoch", "KRO-3", "Thu, 01-Jan-1970 03:00:01 GMT", 1, "Thu, 01-Jan-1970 00:00:01 GMT"},
    {"WestOfTheLast", "KRO3", "Tue, 19-Jan-2038 03:14:07 GMT", INT32_MAX, "Tue, 19-Jan-2038 03:14:07 GMT"},
};

class SetCookieDate : public testing::TestWithParam<DateCase> {};

TEST_P(SetCookieDate, IsReadInTheLocalZoneAndWrittenInGmt) {
  const DateCase& row = GetParam();
  const LocalZone zone(row.zone);
  for (const char* locale : kLocales) {
    const Locale scope(locale);
    const TraceCapture trace;
    Header header(HTTP_HEADER_SET_COOKIE, "id=5; Expires="s + row.text + "; Path=/");
    EXPECT_EQ(header.result, 0);
    ASSERT_EQ(cookiesOf(header.typed), Lines({"id=5"}));
    if (row.written == nullptr) {
      EXPECT_LT(header.typed.cookies->expires, 1);
      EXPECT_EQ(written(&header.typed), "Set-Cookie: id=5; path=/");
    } else {
      EXPECT_EQ(header.typed.cookies->expires, row.expires);
      EXPECT_EQ(written(&header.typed), "Set-Cookie: id=5; expires="s + row.written + "; path=/");
    }
    EXPECT_EQ(trace.said(), TraceLines());
  }
}

INSTANTIATE_TEST_SUITE_P(Table, SetCookieDate, testing::ValuesIn(kDates),
                         [](const auto& row) { return row.param.name; });

// Only the form with dashes is read.
TEST(SetCookieFactory, AnUnreadableDateIsAbsent) {
  for (const char* date :
       {"Sun, 15 Nov 2026 06:09:59 GMT", "Sunday, 15-Nov-26 06:09:59 GMT", "Sun Nov 15 06:09:59 2026", "0", "", "\"\"",
        "Sun, 15-Nov-2026", " Sun, 15-Nov-2026 06:09:59 GMT", "Sun, 32-Nov-2026 06:09:59 GMT",
        "Sun, 15-Dim-2026 06:09:59 GMT"}) {
    const LocalZone zone("UTC0");
    const TraceCapture trace;
    Header header(HTTP_HEADER_SET_COOKIE, "id=5; Expires="s + date + "; Path=/");
    EXPECT_EQ(header.result, 0) << date;
    ASSERT_NE(header.typed.cookies, nullptr);
    // Two digits are the year 26.
    EXPECT_LT(header.typed.cookies->expires, 1) << date;
    EXPECT_EQ(attributesOf(header.typed), "path=/") << date;
    EXPECT_EQ(written(&header.typed), "Set-Cookie: id=5; path=/") << date;
    if (strncmp(date, "Sunday", 6) != 0) {
      EXPECT_EQ(trace.said(), TraceLines({"http[x]unable to parse date "s + date})) << date;
    }
  }
}

TEST(SetCookieFactory, AnUnreadableDateTakesAnEarlierOneBack) {
  const LocalZone zone("UTC0");
  const TraceCapture trace;
  Header header(HTTP_HEADER_SET_COOKIE, "id=5; Expires=Sun, 15-Nov-2026 06:09:59 GMT; expires=never");
  EXPECT_EQ(attributesOf(header.typed), "");
}

// ---- filling Set-Cookie --------------------------------------------------------------------------------------------

TEST(CookieSet, PutsTheNewestFirst) {
  SetCookie header;
  EXPECT_EQ(http_cookieSet(&header.typed, "a", "1", nullptr, 0), 0);
  EXPECT_EQ(http_cookieSet(&header.typed, "b", "2", nullptr, 0), 0);
  EXPECT_EQ(header.typed.code, 41);
  EXPECT_EQ(cookiesOf(header.typed), Lines({"b=2", "a=1"}));
  EXPECT_EQ(written(&header.typed), "Set-Cookie: b=2; a=1");
}

TEST(CookieSet, CopiesNothing) {
  char name[] = "name";
  char value[] = "value";
  char path[] = "/path";
  SetCookie header;
  ASSERT_EQ(http_cookieSet(&header.typed, name, value, path, 7), 0);
  const http_cookie& cookie = *header.typed.cookies;
  EXPECT_EQ(cookie.name, name);
  EXPECT_EQ(cookie.value, value);
  EXPECT_EQ(cookie.path, path);
  EXPECT_EQ(cookie.expires, 7);
  EXPECT_EQ(cookie.next, nullptr);
  EXPECT_EQ(attributesOf(cookie), "expires 7; path=/path") << "the rest is absent";
}

struct SetCase {
  const char* name;
  const char* value;
  const char* path;
  int32_t expires;
  const char* written;  // behind "Set-Cookie: a="
};
void PrintTo(const SetCase& row, std::ostream* out) { *out << row.name; }

class CookieSetTable : public testing::TestWithParam<SetCase> {};

TEST_P(CookieSetTable, IsWritten) {
  const SetCase& row = GetParam();
  for (const char* zone : {"UTC0", "KRO-3", "KRO5:30"}) {
    const LocalZone scope(zone);
    SetCookie header;
    EXPECT_EQ(http_cookieSet(&header.typed, "a", row.value, row.path, row.expires), 0);
    EXPECT_EQ(written(&header.typed), "Set-Cookie: a="s + row.written);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, CookieSetTable,
    testing::Values(SetCase{"Plain", "1", nullptr, 0, "1"}, SetCase{"NoValue", nullptr, nullptr, 0, ""},
                    SetCase{"EmptyValue", "", nullptr, 0, ""}, SetCase{"Path", "1", "/x", 0, "1; path=/x"},
                    SetCase{"EmptyPath", "1", "", 0, "1; path="},
                    SetCase{"FirstSecond", "1", nullptr, 1, "1; expires=Thu, 01-Jan-1970 00:00:01 GMT"},
                    SetCase{"NoDate", "1", "/", -1, "1; path=/"},
                    SetCase{"NoDateAtAll", "1", "/", INT32_MIN, "1; path=/"},
                    SetCase{"Date", "1", "/", 1794722999, "1; expires=Sun, 15-Nov-2026 06:09:59 GMT; path=/"},
                    SetCase{"LastDate", "1", nullptr, INT32_MAX, "1; expires=Tue, 19-Jan-2038 03:14:07 GMT"},
                    SetCase{"Removed", nullptr, "/x", 1, "; expires=Thu, 01-Jan-1970 00:00:01 GMT; path=/x"},
                    SetCase{"EqualsSigns", "b=c==", nullptr, 0, "b=c=="},
                    SetCase{"Quotes", "\"b\"", nullptr, 0, "\"b\""},
                    SetCase{"NoFormat", "%s%n", "/%d", 0, "%s%n; path=/%d"}),
    [](const auto& row) { return row.param.name; });

TEST(CookieSet, TheAttributesOfTheLastCount) {
  SetCookie header;
  ASSERT_EQ(http_cookieSet(&header.typed, "a", "1", "/a", 1), 0);
  ASSERT_EQ(http_cookieSet(&header.typed, "b", "2", "/b", 1794722999), 0);
  EXPECT_EQ(written(&header.typed), "Set-Cookie: b=2; a=1; expires=Sun, 15-Nov-2026 06:09:59 GMT; path=/b");
  ASSERT_EQ(http_cookieSet(&header.typed, "c", nullptr, nullptr, 0), 0);
  EXPECT_EQ(written(&header.typed), "Set-Cookie: c=; b=2; a=1");
}

// The attributes of the first record are written, in their order, and no other.
TEST(SetCookieSerializer, WritesTheAttributesInTheirOrder) {
  SetCookie header;
  ASSERT_EQ(http_cookieSet(&header.typed, "a", "1", nullptr, 0), 0);
  ASSERT_EQ(http_cookieSet(&header.typed, "b", "2", nullptr, 0), 0);
  http_cookie& first = *header.typed.cookies;
  http_cookie& second = *first.next;
  second.domain = "not";
  second.maxAge = 8;
  second.httponly = 1;
  second.path = "/not";
  second.expires = 8;
  EXPECT_EQ(written(&header.typed), "Set-Cookie: b=2; a=1");
  first.httponly = 1;
  EXPECT_EQ(written(&header.typed), "Set-Cookie: b=2; a=1; HttpOnly");
  first.path = "/p";
  EXPECT_EQ(written(&header.typed), "Set-Cookie: b=2; a=1; path=/p; HttpOnly");
  first.domain = "d";
  EXPECT_EQ(written(&header.typed), "Set-Cookie: b=2; a=1; domain=d; path=/p; HttpOnly");
  first.maxAge = 60;
  EXPECT_EQ(written(&header.typed), "Set-Cookie: b=2; a=1; max-age=60; domain=d; path=/p; HttpOnly");
  first.expires = 1;
  EXPECT_EQ(written(&header.typed),
            "Set-Cookie: b=2; a=1; expires=Thu, 01-Jan-1970 00:00:01 GMT; max-age=60; domain=d; path=/p; HttpOnly");
  first.secure = first.discard = 1;
  first.comment = first.commenturl = first.version = "not";
  EXPECT_EQ(written(&header.typed),
            "Set-Cookie: b=2; a=1; expires=Thu, 01-Jan-1970 00:00:01 GMT; max-age=60; domain=d; path=/p; HttpOnly");
  first.maxAge = -2;
  first.expires = 0;
  first.httponly = 0;
  EXPECT_EQ(written(&header.typed), "Set-Cookie: b=2; a=1; max-age=4294967294; domain=d; path=/p");
}

TEST(SetCookieSerializer, AnEmptyListAddsNothing) {
  for (const int code : {41, 42}) {
    HttpHeader header = {};
    header.code = code;
    const TraceCapture trace;
    EXPECT_EQ(written(&header), "nothing") << code;
    EXPECT_EQ(trace.said(), TraceLines());
  }
}

TEST(CookieSet, IsTraced) {
  SetCookie header;
  const TraceCapture trace{"http-cookie"};
  ASSERT_EQ(http_cookieSet(&header.typed, "a", "1", "/", 5), 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-co[i]setting cookie a=1"}));
}

TEST(CookieSet, MakesAZeroedHeaderASetCookie) {
  HttpHeader header = {};
  ASSERT_EQ(http_cookieSet(&header, "a", "1", nullptr, 0), 0);
  EXPECT_EQ(header.code, 41);
  ASSERT_EQ(http_cookieSet(&header, "b", "2", nullptr, 0), 0);
  EXPECT_EQ(header.code, 41);
  EXPECT_EQ(cookiesOf(header), Lines({"b=2", "a=1"}));
  http_hdrCleanup(&header);
}

TEST(CookieSet, MakesAHeaderOfCodeZeroAnEmptyOneFirst) {
  HttpHeader header;
  memset(&header, 0xa5, sizeof header);
  header.code = 0;
  header.raw = nullptr;
  ASSERT_EQ(http_cookieSet(&header, "a", "1", nullptr, 0), 0);
  EXPECT_EQ(header.code, 41);
  EXPECT_EQ(cookiesOf(header), Lines({"a=1"}));
  http_hdrCleanup(&header);
}

TEST(CookieSet, KeepsTheCodeOfSetCookie2) {
  HttpHeader header = {};
  header.code = HTTP_HEADER_SET_COOKIE2;
  ASSERT_EQ(http_cookieSet(&header, "a", "1", nullptr, 0), 0);
  EXPECT_EQ(header.code, 42);
  EXPECT_EQ(written(&header), "Set-Cookie2: a=1");
  http_hdrCleanup(&header);
}

TEST(CookieSet, AddsToWhatWasRead) {
  const TraceCapture quiet;
  Header header(HTTP_HEADER_SET_COOKIE, "a=1; Path=/a; HttpOnly");
  ASSERT_EQ(http_cookieSet(&header.typed, "b", "2", "/b", 0), 0);
  EXPECT_EQ(written(&header.typed), "Set-Cookie: b=2; a=1; path=/b");
}

TEST(CookieRemove, SetsACookieThatHasExpired) {
  SetCookie header;
  {
    const TraceCapture trace{"http-cookie"};
    ASSERT_EQ(http_cookieRemove(&header.typed, "a"), 0);
    EXPECT_EQ(trace.countStarting("http-co[i]setting cookie a="), 1U);
    EXPECT_EQ(trace.lines().size(), 1U);
  }
  EXPECT_EQ(cookiesOf(header.typed), Lines({"a"}));
  EXPECT_EQ(header.typed.cookies->value, nullptr);
  EXPECT_EQ(attributesOf(header.typed), "expires 1");
  EXPECT_EQ(written(&header.typed), "Set-Cookie: a=; expires=Thu, 01-Jan-1970 00:00:01 GMT");

  HttpHeader zeroed = {};
  ASSERT_EQ(http_cookieRemove(&zeroed, "b"), 0);
  EXPECT_EQ(zeroed.code, 41);
  http_hdrSetCookieCleanup(&zeroed);
}

TEST(CookieCleanup, ReleasesTheRecordsOnly) {
  const std::unique_ptr<char, decltype(&free)> name(strdup("a"), &free);
  HttpHeader header;
  http_hdrSetCookieInitialize(&header);
  ASSERT_EQ(http_cookieSet(&header, name.get(), name.get(), name.get(), 0), 0);
  http_hdrSetCookieCleanup(&header);
  EXPECT_EQ(header.code, 0);
  EXPECT_EQ(header.raw, nullptr);
  EXPECT_STREQ(name.get(), "a");
  http_hdrSetCookieCleanup(&header);
}

// ---- in a message --------------------------------------------------------------------------------------------------

TEST(SetCookieInAReply, EachHeaderIsALineOfItsOwn) {
  ScriptOutput output;
  const ReplyPtr reply(http_replyCreate());
  http_replyModeSet(reply.get(), HTTP_MSG_WRITING);
  http_replyStreamSet(reply.get(), output.stream());
  http_replyVersionSet(reply.get(), 1, 1);
  ASSERT_EQ(http_replyStatusCodeSet(reply.get(), 200, nullptr), 0);
  SetCookie first;
  ASSERT_EQ(http_cookieSet(&first.typed, "lang", "en", "/", 0), 0);
  ASSERT_EQ(http_replyHeaderSet(reply.get(), &first.typed), 0);
  SetCookie second;
  ASSERT_EQ(http_cookieRemove(&second.typed, "old"), 0);
  ASSERT_EQ(http_replyHeaderSet(reply.get(), &second.typed), 0);
  SetCookie empty;
  ASSERT_EQ(http_replyHeaderSet(reply.get(), &empty.typed), 0);
  ASSERT_EQ(http_replySend(reply.get()), 0);
  EXPECT_EQ(output.bytes(),
            "HTTP/1.1 200 OK\r\n"
            "Set-Cookie: lang=en; path=/\r\n"
            "Set-Cookie: old=; expires=Thu, 01-Jan-1970 00:00:01 GMT\r\n"
            "\r\n");
}

TEST(SetCookieInAReply, IsReadByAClient) {
  ScriptInput input("HTTP/1.1 200 OK\r\nset-cookie: a=1; Path=/\r\nSet-Cookie: b=2\r\nContent-Length: 0\r\n\r\n");
  const ReplyPtr reply(http_replyCreate());
  http_replyModeSet(reply.get(), HTTP_MSG_READING);
  http_replyStreamSet(reply.get(), input.stream());
  while (http_replyState(reply.get()) < HTTP_MSG_BODY) ASSERT_EQ(http_replyParse(reply.get()), 0);
  HttpHeader header;
  http_hdrSetCookieInitialize(&header);
  ASSERT_EQ(http_replyHeader(reply.get(), &header), 0);
  EXPECT_EQ(cookiesOf(header), Lines({"a=1"}));
  EXPECT_EQ(attributesOf(header), "path=/");
  http_hdrSetCookieCleanup(&header);
}

}  // namespace
