#include <gtest/gtest.h>
#include <krohttp/header.h>
#include <krohttp/reply.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "header_internal.h"
#include "support/trace_capture.h"

namespace {

constexpr const char* kNone = "(none)";
std::string orNone(const char* text) { return text == nullptr ? kNone : text; }

// A typed header read from text, cleaned up whatever the reading gave.
class Header {
 public:
  Header(int code, const char* text) {
    typed.code = code;
    result = http_hdrFactory(&typed, text);
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

// A reply to write headers into.
class Reply {
 public:
  Reply() : reply_(http_replyCreate()) {}
  ~Reply() { http_replyDestroy(reply_); }
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;

  int write(HttpHeader* header) { return http_hdrSerialize(header, &reply_->message); }

  // Every header as "Name: value".
  std::vector<std::string> headers() {
    std::vector<std::string> headers;
    const char* name = nullptr;
    const char* value = nullptr;
    http_replyHeadersReset(reply_);
    while (http_replyHeadersNext(reply_, &name, &value) == 0)
      headers.push_back(std::string(name) + ": " + orNone(value));
    return headers;
  }

  std::string value(const char* name) { return orNone(http_replyHeaderValue(reply_, name)); }
  HttpReply* get() { return reply_; }

 private:
  HttpReply* reply_;
};

using Lines = std::vector<std::string>;

// The only header of a reply that header was written into; "refused" when it was not, "nothing" when none is there.
std::string written(HttpHeader* header) {
  Reply reply;
  if (reply.write(header) != 0) return reply.headers().empty() ? "refused" : "refused, and written";
  const Lines headers = reply.headers();
  return headers.size() == 1 ? headers.front() : "nothing";
}

using Parameter = std::pair<std::string, std::string>;
using Parameters = std::vector<Parameter>;

Parameters parametersOf(const HttpHeaderParameter* list) {
  Parameters parameters;
  for (; list != nullptr; list = list->next) parameters.emplace_back(orNone(list->name), orNone(list->value));
  return parameters;
}

// ---- the registry --------------------------------------------------------------------------------------------------

// Codes whose meaning belongs to the cookie and authorization modules.
bool isElsewhere(int code) {
  return code == HTTP_HEADER_AUTHORIZATION || code == HTTP_HEADER_COOKIE || code == HTTP_HEADER_SET_COOKIE ||
         code == HTTP_HEADER_SET_COOKIE2 || code == HTTP_HEADER_WWW_AUTHENTICATE;
}

bool isTypedHere(int code) {
  return code == HTTP_HEADER_CONNECTION || code == HTTP_HEADER_CONTENT_DISPOSITION ||
         code == HTTP_HEADER_CONTENT_LENGTH || code == HTTP_HEADER_CONTENT_TYPE || code == HTTP_HEADER_DATE ||
         code == HTTP_HEADER_TRANSFER_ENCODING;
}

TEST(HeaderRegistry, HasAFactoryAndASerializerInEveryRow) {
  ASSERT_EQ(std::size(hdr_factories), 53U);
  ASSERT_EQ(std::size(hdr_serializers), 53U);
  ASSERT_EQ(std::size(hdr_frees), 53U);
  for (size_t code = 0; code < 53; ++code) {
    EXPECT_NE(hdr_factories[code], nullptr) << code;
    EXPECT_NE(hdr_serializers[code], nullptr) << code;
  }
}

TEST(HeaderRegistry, SixHeadersHaveRowsOfTheirOwn) {
  std::set<HttpHeaderFactory> factories;
  std::set<HttpHeaderSerializer> serializers;
  for (size_t code = 0; code < 53; ++code) {
    if (isElsewhere(static_cast<int>(code))) continue;
    if (isTypedHere(static_cast<int>(code))) {
      EXPECT_NE(hdr_factories[code], hdr_factories[0]) << code;
      EXPECT_NE(hdr_serializers[code], hdr_serializers[0]) << code;
      EXPECT_TRUE(factories.insert(hdr_factories[code]).second) << code;
      EXPECT_TRUE(serializers.insert(hdr_serializers[code]).second) << code;
    } else {
      EXPECT_EQ(hdr_factories[code], hdr_factories[0]) << code;
      EXPECT_EQ(hdr_serializers[code], hdr_serializers[0]) << code;
    }
  }
  EXPECT_EQ(factories.size(), 6U);
}

TEST(HeaderRegistry, OnlyHeadersWithParametersHaveSomethingToRelease) {
  for (int code = 0; code < 53; ++code) {
    if (isElsewhere(code)) continue;
    const bool hasParameters = code == HTTP_HEADER_CONTENT_DISPOSITION || code == HTTP_HEADER_CONTENT_TYPE;
    EXPECT_EQ(hdr_frees[code] != nullptr, hasParameters) << code;
  }
}

class HeaderCodeOutside : public testing::TestWithParam<int> {};

TEST_P(HeaderCodeOutside, IsRefusedByTheFactory) {
  HttpHeader header = {};
  header.code = GetParam();
  const TraceCapture trace;
  EXPECT_EQ(http_hdrFactory(&header, "text"), -1);
  EXPECT_EQ(trace.lines().size(), 1U);
  EXPECT_EQ(trace.countStarting("http-he[x]"), 1U);
  http_hdrCleanup(&header);
  EXPECT_EQ(header.code, 0);
  EXPECT_EQ(header.raw, nullptr);
}

TEST_P(HeaderCodeOutside, IsRefusedByTheSerializer) {
  Reply reply;
  HttpHeader header = {};
  header.code = GetParam();
  header.raw = strdup("text");
  const TraceCapture trace;
  EXPECT_EQ(reply.write(&header), -1);
  EXPECT_EQ(trace.lines().size(), 1U);
  EXPECT_EQ(trace.countStarting("http-he[x]"), 1U);
  EXPECT_EQ(reply.headers(), Lines{});
  free(header.raw);
}

TEST_P(HeaderCodeOutside, IsCleanedUpAllTheSame) {
  HttpHeader header = {};
  header.code = GetParam();
  header.raw = strdup("text");
  const TraceCapture trace;
  http_hdrCleanup(&header);
  EXPECT_EQ(header.code, 0);
  EXPECT_EQ(header.raw, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Codes, HeaderCodeOutside, testing::Values(-1, 53, 54, 255, 256, 52 + 256, INT_MAX, INT_MIN),
                         [](const auto& row) {
                           std::string name = std::to_string(row.param);
                           if (name.front() == '-') name.front() = 'N';
                           return "Code" + name;
                         });

TEST(HeaderFactory, AMissingTextIsRefusedWhateverTheCode) {
  for (int code = 0; code < 53; ++code) {
    const TraceCapture trace;
    Header header(code, nullptr);
    EXPECT_EQ(header.result, -1) << code;
    EXPECT_EQ(trace.lines().size(), 1U) << code;
    EXPECT_EQ(trace.countStarting("http-he[x]"), 1U) << code;
  }
}

TEST(HeaderFactory, WorksOnACopy) {
  const std::string text = "text/html; a=1; b=2";
  const Header header(HTTP_HEADER_CONTENT_TYPE, text.c_str());
  EXPECT_EQ(text, "text/html; a=1; b=2");
  EXPECT_NE(header.typed.raw, text.c_str());
  EXPECT_EQ(header.typed.contentType.mediaType, header.typed.raw);
  EXPECT_EQ(header.typed.contentType.subType, header.typed.raw + 5);
  EXPECT_EQ(header.typed.contentType.parameters->name, header.typed.raw + 16);
  EXPECT_EQ(header.typed.contentType.parameters->value, header.typed.raw + 18);
}

TEST(HeaderFactory, SaysNothingOfWhatIsWellFormed) {
  const std::pair<int, const char*> kTexts[] = {{HTTP_HEADER_HOST, "a"},
                                                {HTTP_HEADER_CUSTOM, "a"},
                                                {HTTP_HEADER_NONE, "a"},
                                                {HTTP_HEADER_CONNECTION, "close, x"},
                                                {HTTP_HEADER_CONTENT_DISPOSITION, "form-data; name=a"},
                                                {HTTP_HEADER_CONTENT_LENGTH, "abc"},
                                                {HTTP_HEADER_CONTENT_TYPE, "text/html; a=1"},
                                                {HTTP_HEADER_TRANSFER_ENCODING, "chunked"}};
  for (const auto& [code, text] : kTexts) {
    const TraceCapture trace;
    const Header header(code, text);
    EXPECT_EQ(header.result, 0) << text;
    EXPECT_EQ(trace.said(), TraceLines{}) << text;
  }
}

TEST(HeaderCleanup, MayBeRepeated) {
  HttpHeader header = {};
  header.code = HTTP_HEADER_CONTENT_TYPE;
  ASSERT_EQ(http_hdrFactory(&header, "text/html; a=1"), 0);
  http_hdrCleanup(&header);
  EXPECT_EQ(header.code, 0);
  EXPECT_EQ(header.raw, nullptr);
  http_hdrCleanup(&header);
  EXPECT_EQ(header.code, 0);
  EXPECT_EQ(header.raw, nullptr);
}

TEST(HeaderCleanup, OfAZeroedHeaderDoesNothing) {
  for (int code = 0; code < 53; ++code) {
    HttpHeader header = {};
    header.code = code;
    http_hdrCleanup(&header);
    EXPECT_EQ(header.code, 0);
  }
}

// Headers live on the stack: what the typed part held before does not count.
TEST(HeaderFactory, OverwritesTheTypedPart) {
  const std::pair<int, const char*> kTexts[] = {
      {HTTP_HEADER_CONTENT_TYPE, "text"},           {HTTP_HEADER_CONTENT_TYPE, "text/html"},
      {HTTP_HEADER_CONTENT_TYPE, "text/html;"},     {HTTP_HEADER_CONTENT_DISPOSITION, "inline"},
      {HTTP_HEADER_CONTENT_DISPOSITION, "inline;"},
  };
  for (const auto& [code, text] : kTexts) {
    const TraceCapture trace;
    HttpHeader header;
    memset(&header, 0xa5, sizeof header);
    header.code = code;
    http_hdrFactory(&header, text);
    EXPECT_EQ(code == HTTP_HEADER_CONTENT_TYPE ? header.contentType.parameters : header.contentDisposition.parameters,
              nullptr)
        << text;
    http_hdrCleanup(&header);
  }
  HttpHeader header;
  memset(&header, 0xa5, sizeof header);
  header.code = HTTP_HEADER_CONNECTION;
  EXPECT_EQ(http_hdrFactory(&header, "upgrade"), 0);
  EXPECT_EQ(header.connection.flags, 0U);
  http_hdrCleanup(&header);
}

TEST(HeaderSerializer, ShowsTheCodeFirst) {
  Reply reply;
  Header header(HTTP_HEADER_CONTENT_TYPE, "text/html; a=1; b=2");
  const TraceCapture trace{"http-header"};
  ASSERT_EQ(reply.write(&header.typed), 0);
  EXPECT_EQ(trace.said(), TraceLines({
                              "http-he[i]code = 18",
                              "http-he[i]setting hdrParameter b to 2",
                              "http-he[i]setting hdrParameter a to 1",
                          }));
}

TEST(HeaderSerializer, AddsBehindWhatIsThere) {
  Reply reply;
  Header type(HTTP_HEADER_CONTENT_TYPE, "text/html");
  Header length(HTTP_HEADER_CONTENT_LENGTH, "5");
  Header host(HTTP_HEADER_HOST, "a");
  EXPECT_EQ(reply.write(&type.typed), 0);
  EXPECT_EQ(reply.write(&length.typed), 0);
  EXPECT_EQ(reply.write(&host.typed), 0);
  EXPECT_EQ(reply.write(&type.typed), 0);
  EXPECT_EQ(reply.headers(),
            Lines({"Content-Type: text/html", "Content-Length: 5", "Host: a", "Content-Type: text/html"}));
}

// ---- generic headers -----------------------------------------------------------------------------------------------

TEST(GenericHeader, KeepsTheTextInEveryRow) {
  constexpr const char* kText = "a; b=\"c\", d  e";
  for (int code = 1; code < 53; ++code) {
    if (isTypedHere(code) || isElsewhere(code)) continue;
    Header header(code, kText);
    EXPECT_EQ(header.result, 0) << code;
    EXPECT_STREQ(header.typed.raw, kText) << code;
    EXPECT_EQ(header.typed.code, code);
    EXPECT_EQ(written(&header.typed), std::string(headerStrings[code]) + ": " + kText);
  }
}

TEST(GenericHeader, OfCodeZeroKeepsTheText) {
  const Header header(HTTP_HEADER_NONE, " text ");
  EXPECT_EQ(header.result, 0);
  EXPECT_STREQ(header.typed.raw, " text ");
}

TEST(GenericHeader, ACustomOneLosesItsName) {
  Reply reply;
  Header header(HTTP_HEADER_CUSTOM, "value");
  EXPECT_EQ(reply.write(&header.typed), 0);
  EXPECT_EQ(reply.headers(), Lines({"ZZZZ------CUSTOM: value"}));
  EXPECT_EQ(reply.value("zzzz------custom"), "value");
}

TEST(GenericHeader, KeepsPercentSignsAndHighOctets) {
  Header header(HTTP_HEADER_LOCATION, "/%41%s%n?\xc3\xa9");
  EXPECT_EQ(written(&header.typed), "Location: /%41%s%n?\xc3\xa9");
}

TEST(GenericHeader, AnEmptyTextIsReadButNotWritten) {
  for (const char* text : {"", " ", "\t "}) {
    Header header(HTTP_HEADER_HOST, text);
    EXPECT_EQ(header.result, 0);
    EXPECT_STREQ(header.typed.raw, text);
    const TraceCapture trace;
    EXPECT_EQ(written(&header.typed), "refused");
    EXPECT_EQ(trace.said(),
              TraceLines({"http-me[x]unable to read header line: parse error", "http-me[x]unable to store header"}));
  }
}

// ---- Content-Length ------------------------------------------------------------------------------------------------

struct LengthCase {
  const char* name;
  const char* text;
  uint64_t length;
};

constexpr LengthCase kLengths[] = {
    {"Zero", "0", 0},
    {"Number", "1234", 1234},
    {"BeyondThirtyTwoBits", "4294967296", 4294967296U},
    {"BeyondSixtyThreeBits", "9223372036854775808", 9223372036854775808U},
    {"Greatest", "18446744073709551615", UINT64_MAX},
    {"TooLarge", "18446744073709551616", UINT64_MAX},
    {"MuchTooLarge", "99999999999999999999999999", UINT64_MAX},
    {"Letters", "abc", 0},
    {"Empty", "", 0},
    {"LeadingBlanks", " \t42", 42},
    {"LeadingZeros", "0042", 42},
    {"Plus", "+42", 42},
    {"Minus", "-1", UINT64_MAX},
    {"TextBehind", "12abc", 12},
    {"BlanksBehind", "12  ", 12},
    {"List", "12, 13", 12},
    {"Hexadecimal", "0x10", 0},
    {"Fraction", "1.5", 1},
};

class ContentLengthHeader : public testing::TestWithParam<LengthCase> {};

TEST_P(ContentLengthHeader, IsReadAndWrittenAsANumber) {
  const TraceCapture trace;
  Header header(HTTP_HEADER_CONTENT_LENGTH, GetParam().text);
  EXPECT_EQ(header.result, 0);
  EXPECT_EQ(header.typed.contentLength.length, GetParam().length);
  EXPECT_STREQ(header.typed.raw, GetParam().text);
  EXPECT_EQ(written(&header.typed), "Content-Length: " + std::to_string(GetParam().length));
  EXPECT_EQ(trace.said(), TraceLines{});
}

INSTANTIATE_TEST_SUITE_P(Texts, ContentLengthHeader, testing::ValuesIn(kLengths),
                         [](const auto& row) { return row.param.name; });

TEST(ContentLengthWriting, NeedsNoText) {
  HttpHeader header = {};
  header.code = HTTP_HEADER_CONTENT_LENGTH;
  header.contentLength.length = UINT64_MAX;
  EXPECT_EQ(written(&header), "Content-Length: 18446744073709551615");
}

// ---- Content-Type --------------------------------------------------------------------------------------------------

struct TypeCase {
  const char* name;
  const char* text;
  const char* mediaType;
  const char* subType;
  Parameters parameters;  // as listed: the last one of the text first
  const char* line;
};

const TypeCase kTypes[] = {
    {"WithoutParameters", "text/html", "text", "html", {}, "Content-Type: text/html"},
    {"OneParameter",
     "text/html; charset=utf-8",
     "text",
     "html",
     {{"charset", "utf-8"}},
     "Content-Type: text/html; charset=utf-8"},
    {"TwoParametersAreReversed",
     "text/html; a=1; b=2",
     "text",
     "html",
     {{"b", "2"}, {"a", "1"}},
     "Content-Type: text/html; b=2; a=1"},
    {"ThreeParametersAreReversed",
     "a/b;x=1;y=2;z=3",
     "a",
     "b",
     {{"z", "3"}, {"y", "2"}, {"x", "1"}},
     "Content-Type: a/b; z=3; y=2; x=1"},
    {"BlankBehindTheSubtypeStays", "text/html ; x=1", "text", "html ", {{"x", "1"}}, "Content-Type: text/html ; x=1"},
    {"BlanksBeforeTheTypeAreNotTrimmed", " text/ html", " text", " html", {}, "Content-Type: text/ html"},
    {"SecondSlash", "a/b/c", "a", "b/c", {}, "Content-Type: a/b/c"},
    {"OnlySlash", "/", "", "", {}, "Content-Type: /"},
    {"SlashInAParameter", "text;x=/y", "text;x=", "y", {}, "Content-Type: text;x=/y"},
    {"Wildcards", "*/*", "*", "*", {}, "Content-Type: */*"},
    {"ParameterWithoutValue", "text/html; a", "text", "html", {{"a", kNone}}, "Content-Type: text/html; a=(null)"},
    {"ParametersWithoutValue",
     "text/html;a;b=;c",
     "text",
     "html",
     {{"c", kNone}, {"b", ""}, {"a", kNone}},
     "Content-Type: text/html; c=(null); b=; a=(null)"},
    {"BlankBehindTheSemicolon", "text/html; ", "text", "html", {{"", kNone}}, "Content-Type: text/html; =(null)"},
    {"TwoSemicolons", "text/html;;", "text", "html", {{"", kNone}}, "Content-Type: text/html; =(null)"},
    {"EmptyParameterInside",
     "a/b;x=1;;y=2",
     "a",
     "b",
     {{"y", "2"}, {"", kNone}, {"x", "1"}},
     "Content-Type: a/b; y=2; =(null); x=1"},
    {"SemicolonLast", "a/b;x=1;", "a", "b", {{"x", "1"}}, "Content-Type: a/b; x=1"},
    {"QuotesStayAndDoNotProtect",
     "a/b; x=\"1;2\"",
     "a",
     "b",
     {{"2\"", kNone}, {"x", "\"1"}},
     "Content-Type: a/b; 2\"=(null); x=\"1"},
    {"EqualsSignInTheValue",
     "multipart/form-data; boundary=a=b==",
     "multipart",
     "form-data",
     {{"boundary", "a=b=="}},
     "Content-Type: multipart/form-data; boundary=a=b=="},
    {"BlanksAroundTheEqualsSign", "a/b; x = 1", "a", "b", {{"x ", " 1"}}, "Content-Type: a/b; x = 1"},
    {"EmptyName", "a/b; =1", "a", "b", {{"", "1"}}, "Content-Type: a/b; =1"},
    {"PercentSigns", "%s/%n; %d=%s", "%s", "%n", {{"%d", "%s"}}, "Content-Type: %s/%n; %d=%s"},
};

class ContentTypeHeader : public testing::TestWithParam<TypeCase> {};

TEST_P(ContentTypeHeader, IsSplit) {
  const TraceCapture trace;
  const Header header(HTTP_HEADER_CONTENT_TYPE, GetParam().text);
  EXPECT_EQ(header.result, 0);
  EXPECT_STREQ(header.typed.contentType.mediaType, GetParam().mediaType);
  EXPECT_STREQ(header.typed.contentType.subType, GetParam().subType);
  EXPECT_EQ(parametersOf(header.typed.contentType.parameters), GetParam().parameters);
  EXPECT_EQ(trace.errors(), TraceLines{});
}

TEST_P(ContentTypeHeader, IsWritten) {
  const TraceCapture trace;
  Header header(HTTP_HEADER_CONTENT_TYPE, GetParam().text);
  EXPECT_EQ(written(&header.typed), GetParam().line);
  EXPECT_EQ(written(&header.typed), GetParam().line) << "a second time";
  EXPECT_EQ(trace.errors(), TraceLines{});
}

TEST_P(ContentTypeHeader, HasEachParameterUnderItsName) {
  const TraceCapture trace;
  const Header header(HTTP_HEADER_CONTENT_TYPE, GetParam().text);
  HttpHeaderParameter* const list = header.typed.contentType.parameters;
  for (const Parameter& parameter : GetParam().parameters)
    EXPECT_EQ(orNone(http_hdrGetParameter(list, parameter.first.c_str())), parameter.second);
  EXPECT_EQ(http_hdrGetParameter(list, "absent"), nullptr);
  HttpHeaderParameter unnamed = {};
  unnamed.next = list;
  EXPECT_EQ(http_hdrGetParameter(&unnamed, "absent"), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Texts, ContentTypeHeader, testing::ValuesIn(kTypes),
                         [](const auto& row) { return row.param.name; });

struct BadTypeCase {
  const char* name;
  const char* text;
  const char* trace;  // where it begins
};

class BadContentTypeHeader : public testing::TestWithParam<BadTypeCase> {};

TEST_P(BadContentTypeHeader, IsRefusedAndCleanedUp) {
  const TraceCapture trace;
  const Header header(HTTP_HEADER_CONTENT_TYPE, GetParam().text);
  EXPECT_EQ(header.result, -1);
  EXPECT_EQ(header.typed.contentType.parameters, nullptr);
  EXPECT_NE(header.typed.raw, nullptr);
  EXPECT_EQ(trace.lines().size(), 1U);
  EXPECT_EQ(trace.countStarting(GetParam().trace), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, BadContentTypeHeader,
    testing::Values(BadTypeCase{"NoSlash", "text", "http-he[x]unable to parse content type text"},
                    BadTypeCase{"NoSlashButParameters", "text; a=1",
                                "http-he[x]unable to parse content type text; a=1"},
                    BadTypeCase{"Empty", "", "http-he[x]unable to parse content type "},
                    BadTypeCase{"Blanks", "  ", "http-he[x]unable to parse content type   "},
                    BadTypeCase{"LoneSemicolon", "text/html;", "http-he[x]unable to parse key values "},
                    BadTypeCase{"LoneSemicolonBehindNothing", "/;", "http-he[x]unable to parse key values "}),
    [](const auto& row) { return row.param.name; });

TEST(ContentTypeParameters, AreFoundWithCase) {
  const Header header(HTTP_HEADER_CONTENT_TYPE, "text/html; charset=utf-8");
  HttpHeaderParameter* const list = header.typed.contentType.parameters;
  EXPECT_STREQ(http_hdrGetParameter(list, "charset"), "utf-8");
  EXPECT_EQ(http_hdrGetParameter(list, "Charset"), nullptr);
  EXPECT_EQ(http_hdrGetParameter(list, "charse"), nullptr);
  EXPECT_EQ(http_hdrGetParameter(list, "charsets"), nullptr);
  EXPECT_EQ(http_hdrGetParameter(list, ""), nullptr);
  EXPECT_EQ(http_hdrGetParameter(nullptr, "charset"), nullptr);
}

TEST(ContentTypeParameters, OfOneNameAreFoundInListOrder) {
  const Header header(HTTP_HEADER_CONTENT_TYPE, "text/html; a=1; b=x; a=2");
  EXPECT_STREQ(http_hdrGetParameter(header.typed.contentType.parameters, "a"), "2");
}

TEST(ContentTypeParameters, TenThousandAreReadAndWritten) {
  constexpr int kCount = 10000;
  std::string text = "a/b";
  std::string reversed;
  for (int number = 0; number < kCount; ++number) {
    const std::string parameter = "; n" + std::to_string(number) + "=" + std::to_string(number * 7);
    text += parameter;
    reversed.insert(0, parameter);
  }
  const TraceCapture trace;
  Header header(HTTP_HEADER_CONTENT_TYPE, text.c_str());
  ASSERT_EQ(header.result, 0);
  const Parameters parameters = parametersOf(header.typed.contentType.parameters);
  ASSERT_EQ(parameters.size(), static_cast<size_t>(kCount));
  EXPECT_EQ(parameters.front(), Parameter("n9999", "69993"));
  EXPECT_EQ(parameters.back(), Parameter("n0", "0"));
  EXPECT_STREQ(http_hdrGetParameter(header.typed.contentType.parameters, "n1"), "7");
  EXPECT_EQ(written(&header.typed), "Content-Type: a/b" + reversed);
  EXPECT_EQ(trace.said(), TraceLines{});
}

TEST(ContentTypeParameters, TenThousandWithoutValue) {
  const std::string text = "a/b" + std::string(10000, ';') + "x";
  const TraceCapture trace;
  const Header header(HTTP_HEADER_CONTENT_TYPE, text.c_str());
  ASSERT_EQ(header.result, 0);
  EXPECT_EQ(parametersOf(header.typed.contentType.parameters).size(), 10000U);
  EXPECT_EQ(trace.countStarting("http-ut[!]unable to parse cookie "), 10000U);
}

// ---- Content-Disposition -------------------------------------------------------------------------------------------

struct DispositionCase {
  const char* name;
  const char* text;
  const char* disposition;
  Parameters parameters;
  const char* line;
};

const DispositionCase kDispositions[] = {
    {"WithoutParameters", "inline", "inline", {}, "Content-Disposition: inline"},
    {"OneParameter",
     "form-data; name=\"x\"",
     "form-data",
     {{"name", "\"x\""}},
     "Content-Disposition: form-data; name=\"x\""},
    {"TwoParametersAreReversed",
     "form-data; name=\"x\"; filename=\"y.txt\"",
     "form-data",
     {{"filename", "\"y.txt\""}, {"name", "\"x\""}},
     "Content-Disposition: form-data; filename=\"y.txt\"; name=\"x\""},
    {"BlankBehindTheDispositionStays",
     "attachment ;a=1",
     "attachment ",
     {{"a", "1"}},
     "Content-Disposition: attachment ; a=1"},
    {"ParameterWithoutValue",
     "attachment;a",
     "attachment",
     {{"a", kNone}},
     "Content-Disposition: attachment; a=(null)"},
    {"OnlyParameters", ";a=1", "", {{"a", "1"}}, "Content-Disposition: ; a=1"},
    {"Slash", "a/b", "a/b", {}, "Content-Disposition: a/b"},
    {"Empty", "", "", {}, "refused"},
    {"PercentSigns", "%s; %n=%d", "%s", {{"%n", "%d"}}, "Content-Disposition: %s; %n=%d"},
};

class ContentDispositionHeader : public testing::TestWithParam<DispositionCase> {};

TEST_P(ContentDispositionHeader, IsSplitAndWritten) {
  const TraceCapture trace;
  Header header(HTTP_HEADER_CONTENT_DISPOSITION, GetParam().text);
  EXPECT_EQ(header.result, 0);
  EXPECT_STREQ(header.typed.contentDisposition.disposition, GetParam().disposition);
  EXPECT_EQ(header.typed.contentDisposition.disposition, header.typed.raw);
  EXPECT_EQ(parametersOf(header.typed.contentDisposition.parameters), GetParam().parameters);
  EXPECT_EQ(trace.errors(), TraceLines{});
  EXPECT_EQ(written(&header.typed), GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(Texts, ContentDispositionHeader, testing::ValuesIn(kDispositions),
                         [](const auto& row) { return row.param.name; });

TEST(ContentDispositionText, WithALoneSemicolonIsRefused) {
  for (const char* text : {"attachment;", ";"}) {
    const TraceCapture trace;
    const Header header(HTTP_HEADER_CONTENT_DISPOSITION, text);
    EXPECT_EQ(header.result, -1);
    EXPECT_EQ(header.typed.contentDisposition.parameters, nullptr);
    EXPECT_EQ(trace.lines().size(), 1U);
    EXPECT_EQ(trace.countStarting("http-he[x]unable to parse key values "), 1U);
  }
}

// ---- parameters by themselves --------------------------------------------------------------------------------------

TEST(HeaderParameters, OfNoTextAreRefused) {
  HttpHeaderParameter other = {};
  HttpHeaderParameter* list = &other;
  const TraceCapture trace;
  EXPECT_EQ(hdr_loadHdrParameters(nullptr, &list), nullptr);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(trace.said(), TraceLines({"http-he[x]cannot load parameter from NULL value"}));
}

TEST(HeaderParameters, OfAnEmptyTextAreNone) {
  HttpHeaderParameter other = {};
  HttpHeaderParameter* list = &other;
  char text[] = "";
  const TraceCapture trace;
  EXPECT_EQ(hdr_loadHdrParameters(text, &list), nullptr);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(trace.said(), TraceLines{});
}

TEST(HeaderParameters, AreListedTheLastFirstAndPointIntoTheText) {
  HttpHeaderParameter* list = nullptr;
  char text[] = " a=1; b";
  const TraceCapture trace;
  ASSERT_EQ(hdr_loadHdrParameters(text, &list), list);
  EXPECT_EQ(parametersOf(list), Parameters({{"b", kNone}, {"a", "1"}}));
  EXPECT_EQ(list->name, text + 6);
  EXPECT_EQ(list->next->name, text + 1);
  EXPECT_EQ(list->next->value, text + 3);
  hdr_freeHdrParameters(list);
}

TEST(HeaderParameters, AreSerializedInListOrder) {
  char names[] = "abc";
  char first[] = "n1", second[] = "n2", third[] = "n3", value[] = "v v";
  HttpHeaderParameter last = {third, names, nullptr};
  HttpHeaderParameter middle = {second, nullptr, &last};
  const HttpHeaderParameter list = {first, value, &middle};
  const TraceCapture trace{"http-header"};
  char* text = hdr_serializeHdrParameters(&list);
  EXPECT_STREQ(text, "n1=v v; n2=(null); n3=abc");
  free(text);
  EXPECT_EQ(trace.said(), TraceLines({
                              "http-he[i]setting hdrParameter n1 to v v",
                              "http-he[i]setting hdrParameter n2 to (null)",
                              "http-he[i]setting hdrParameter n3 to abc",
                          }));
}

TEST(HeaderParameters, OfAnEmptyListAreNoText) {
  const TraceCapture trace{"http-header"};
  EXPECT_EQ(hdr_serializeHdrParameters(nullptr), nullptr);
  EXPECT_EQ(trace.said(), TraceLines{});
  hdr_freeHdrParameters(nullptr);
}

// ---- Connection ----------------------------------------------------------------------------------------------------

struct ConnectionCase {
  const char* name;
  const char* text;
  unsigned flags;
};

constexpr ConnectionCase kConnections[] = {
    {"Close", "close", HTTP_CONNECTION_CLOSE},
    {"KeepAlive", "keep-alive", HTTP_CONNECTION_KEEP_ALIVE},
    {"Te", "TE", HTTP_CONNECTION_TE},
    {"CloseInCapitals", "CLOSE", HTTP_CONNECTION_CLOSE},
    {"KeepAliveInCapitals", "Keep-Alive", HTTP_CONNECTION_KEEP_ALIVE},
    {"TeInLowerCase", "te", HTTP_CONNECTION_TE},
    {"OthersAreIgnored", "Keep-Alive, Upgrade", HTTP_CONNECTION_KEEP_ALIVE},
    {"OnlyOthers", "Upgrade, HTTP2-Settings", 0},
    {"AllThree", "keep-alive, close, TE", 7},
    {"WithoutBlanks", "TE,close", 5},
    {"LeadingBlanks", " \t close,\t te", 5},
    {"TrailingBlankIsPartOfTheToken", "close ", 0},
    {"TrailingBlankBeforeTheComma", "close ,te", HTTP_CONNECTION_TE},
    {"TrailingTab", "keep-alive\t,close", HTTP_CONNECTION_CLOSE},
    {"EmptyTokens", ",,close,,te,", 5},
    {"BlankTokens", " , close, ", HTTP_CONNECTION_CLOSE},
    {"Repeated", "close, close", HTTP_CONNECTION_CLOSE},
    {"Prefix", "clos", 0},
    {"Longer", "closed, keep-alives, tee", 0},
    {"OtherSeparator", "close;te", 0},
    {"LeadingLineFeedIsNoBlank", "\nclose", 0},
    {"Empty", "", 0},
    {"OnlyCommas", ",,,", 0},
};

class ConnectionHeader : public testing::TestWithParam<ConnectionCase> {};

TEST_P(ConnectionHeader, SetsItsFlags) {
  const TraceCapture trace;
  const Header header(HTTP_HEADER_CONNECTION, GetParam().text);
  EXPECT_EQ(header.result, 0);
  EXPECT_EQ(header.typed.connection.flags, GetParam().flags);
  EXPECT_EQ(trace.said(), TraceLines{});
}

INSTANTIATE_TEST_SUITE_P(Texts, ConnectionHeader, testing::ValuesIn(kConnections),
                         [](const auto& row) { return row.param.name; });

struct WrittenConnectionCase {
  const char* name;
  unsigned flags;
  const char* value;
};

constexpr WrittenConnectionCase kWrittenConnections[] = {
    {"Close", 1, "close"},
    {"KeepAlive", 2, ", Keep-Alive"},
    {"CloseAndKeepAlive", 3, "close, Keep-Alive"},
    {"Te", 4, ", TE"},
    {"CloseAndTe", 5, "close, TE"},
    {"TeAndKeepAlive", 6, ", TEKeep-Alive"},
    {"AllThree", 7, "close, TEKeep-Alive"},
    {"OtherBitsAreIgnored", 0xfffffff8U | 1U, "close"},
};

class WrittenConnectionHeader : public testing::TestWithParam<WrittenConnectionCase> {};

TEST_P(WrittenConnectionHeader, HasItsSeparators) {
  HttpHeader header = {};
  header.code = HTTP_HEADER_CONNECTION;
  header.connection.flags = GetParam().flags;
  const TraceCapture trace;
  EXPECT_EQ(written(&header), std::string("Connection: ") + GetParam().value);
  EXPECT_EQ(trace.said(), TraceLines{});
}

INSTANTIATE_TEST_SUITE_P(Flags, WrittenConnectionHeader, testing::ValuesIn(kWrittenConnections),
                         [](const auto& row) { return row.param.name; });

TEST(ConnectionWriting, WithoutFlagsIsRefused) {
  for (const unsigned flags : {0U, 8U}) {
    HttpHeader header = {};
    header.code = HTTP_HEADER_CONNECTION;
    header.connection.flags = flags;
    const TraceCapture trace;
    EXPECT_EQ(written(&header), "refused");
    EXPECT_EQ(trace.said(),
              TraceLines({"http-me[x]unable to read header line: parse error", "http-me[x]unable to store header"}));
  }
}

// ---- Transfer-Encoding ---------------------------------------------------------------------------------------------

struct EncodingCase {
  const char* name;
  const char* text;
  bool chunked;
};

constexpr EncodingCase kEncodings[] = {
    {"Chunked", "chunked", true},        {"ChunkedInCapitals", "CHUNKED", true},
    {"ChunkedMixed", "Chunked", true},   {"Gzip", "gzip", false},
    {"List", "gzip, chunked", false},    {"TrailingBlank", "chunked ", false},
    {"LeadingBlank", " chunked", false}, {"Parameter", "chunked;q=1", false},
    {"Prefix", "chunke", false},         {"Longer", "chunkedd", false},
    {"Identity", "identity", false},     {"Empty", "", false},
};

class TransferEncodingHeader : public testing::TestWithParam<EncodingCase> {};

TEST_P(TransferEncodingHeader, IsChunkedOrUnknown) {
  const TraceCapture trace;
  HttpHeader header = {};
  header.code = HTTP_HEADER_TRANSFER_ENCODING;
  header.transferEncoding.chunked = !GetParam().chunked;
  EXPECT_EQ(http_hdrFactory(&header, GetParam().text), 0);
  EXPECT_EQ(header.transferEncoding.chunked, GetParam().chunked);
  const TraceLines unknown = {std::string("http-he[x]unknown transfer encoding: ") + GetParam().text};
  EXPECT_EQ(trace.said(), GetParam().chunked ? TraceLines{} : unknown);
  http_hdrCleanup(&header);
}

TEST_P(TransferEncodingHeader, IsWrittenOnlyWhenChunked) {
  TraceCapture trace;
  Header header(HTTP_HEADER_TRANSFER_ENCODING, GetParam().text);
  trace.clear();
  EXPECT_EQ(written(&header.typed), GetParam().chunked ? "Transfer-Encoding: chunked" : "refused");
  EXPECT_EQ(trace.said(), GetParam().chunked ? TraceLines{} : TraceLines({"http-he[x]unknown message encoding"}));
}

INSTANTIATE_TEST_SUITE_P(Texts, TransferEncodingHeader, testing::ValuesIn(kEncodings),
                         [](const auto& row) { return row.param.name; });

// ---- through a message and back ------------------------------------------------------------------------------------

TEST(HeaderRoundTrip, ATypedHeaderIsReadBackFromItsMessage) {
  Reply reply;
  const TraceCapture trace;
  const std::pair<int, const char*> kTexts[] = {{HTTP_HEADER_CONTENT_TYPE, "text/html; a=1; b=2"},
                                                {HTTP_HEADER_CONTENT_LENGTH, "18446744073709551615"},
                                                {HTTP_HEADER_CONNECTION, "close, te"},
                                                {HTTP_HEADER_TRANSFER_ENCODING, "chunked"},
                                                {HTTP_HEADER_CONTENT_DISPOSITION, "form-data; name=x"}};
  for (const auto& [code, text] : kTexts) {
    Header header(code, text);
    ASSERT_EQ(reply.write(&header.typed), 0) << text;
  }
  const auto readBack = [&](int code) {
    auto header = std::make_unique<HttpHeader>();
    header->code = code;
    EXPECT_EQ(http_replyHeader(reply.get(), header.get()), 0) << code;
    return header;
  };
  auto header = readBack(HTTP_HEADER_CONTENT_TYPE);
  EXPECT_EQ(parametersOf(header->contentType.parameters), Parameters({{"a", "1"}, {"b", "2"}})) << "reversed again";
  http_hdrCleanup(header.get());
  header = readBack(HTTP_HEADER_CONTENT_LENGTH);
  EXPECT_EQ(header->contentLength.length, UINT64_MAX);
  http_hdrCleanup(header.get());
  header = readBack(HTTP_HEADER_CONNECTION);
  EXPECT_EQ(header->connection.flags, 5U);
  http_hdrCleanup(header.get());
  header = readBack(HTTP_HEADER_TRANSFER_ENCODING);
  EXPECT_TRUE(header->transferEncoding.chunked);
  http_hdrCleanup(header.get());
  header = readBack(HTTP_HEADER_CONTENT_DISPOSITION);
  EXPECT_STREQ(http_hdrGetParameter(header->contentDisposition.parameters, "name"), "x");
  http_hdrCleanup(header.get());
  EXPECT_EQ(trace.said(), TraceLines{});
}

}  // namespace
