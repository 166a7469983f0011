// What a strict reader refuses, and the limits of a message: one reason each, one trace each, however the bytes arrive.
#include "strict.h"

#include <gtest/gtest.h>
#include <krohttp/reply.h>
#include <krohttp/request.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "support/messages.h"
#include "support/script_stream.h"
#include "support/trace_capture.h"

namespace {

using namespace std::string_literals;

// --- the functions ---------------------------------------------------------------------------------------------------

struct LineCase {
  const char* name;
  std::string line;
  int reason;
};
void PrintTo(const LineCase& row, std::ostream* out) { *out << row.name; }
std::string nameOf(const ::testing::TestParamInfo<LineCase>& parameter) { return parameter.param.name; }

// One trace for a refusal, none for what is accepted.
void expectTraced(const TraceCapture& trace, int reason) {
  EXPECT_EQ(trace.countStarting("http-st[x]message is refused: "), reason == HTTP_MSG_ACCEPTED ? 0u : 1u);
  EXPECT_EQ(trace.lines().size(), reason == HTTP_MSG_ACCEPTED ? 0u : 1u);
}

class StrictLine : public ::testing::TestWithParam<LineCase> {};
INSTANTIATE_TEST_SUITE_P(Strict, StrictLine,
                         ::testing::Values(LineCase{"Empty", "\r\n", HTTP_MSG_ACCEPTED},
                                           LineCase{"Text", "A: b\r\n", HTTP_MSG_ACCEPTED},
                                           LineCase{"Tab", "A:\tb\r\n", HTTP_MSG_ACCEPTED},
                                           LineCase{"HighBytes", "A: \x80\xC3\xFF\r\n", HTTP_MSG_ACCEPTED},
                                           LineCase{"LineFeedAlone", "\n", HTTP_MSG_BARE_LINE_END},
                                           LineCase{"NoCarriageReturn", "A: b\n", HTTP_MSG_BARE_LINE_END},
                                           LineCase{"CarriageReturnFirst", "\rA: b\r\n", HTTP_MSG_BARE_LINE_END},
                                           LineCase{"CarriageReturnInside", "A: \rb\r\n", HTTP_MSG_BARE_LINE_END},
                                           LineCase{"TwoCarriageReturns", "A: b\r\r\n", HTTP_MSG_BARE_LINE_END},
                                           LineCase{"Nul", "A: \0b\r\n"s, HTTP_MSG_CONTROL_BYTE},
                                           LineCase{"NulFirst", "\0\r\n"s, HTTP_MSG_CONTROL_BYTE},
                                           LineCase{"Escape", "A: \x1B[0m\r\n", HTTP_MSG_CONTROL_BYTE},
                                           LineCase{"Delete", "A: \x7F\r\n", HTTP_MSG_CONTROL_BYTE}),
                         nameOf);

TEST_P(StrictLine, Reason) {
  const TraceCapture trace;
  EXPECT_EQ(strict_line(GetParam().line), GetParam().reason);
  expectTraced(trace, GetParam().reason);
}

struct RequestLineCase {
  const char* name;
  std::string line;
  int reason;
  std::string authority = "";
};
void PrintTo(const RequestLineCase& row, std::ostream* out) { *out << row.name; }

const RequestLineCase kRequestLines[] = {
    {"Origin", "GET / HTTP/1.1", HTTP_MSG_ACCEPTED},
    {"Version10", "GET / HTTP/1.0", HTTP_MSG_ACCEPTED},
    {"UnknownToken", "BREW /pot HTTP/1.1", HTTP_MSG_ACCEPTED},
    {"EverySignOfAToken", "!#$%&'*+-.^_`|~09azAZ / HTTP/1.1", HTTP_MSG_ACCEPTED},
    {"Absolute", "GET http://host:80/a?b HTTP/1.1", HTTP_MSG_ACCEPTED, "host:80"},
    {"AbsoluteWithoutPath", "GET http://host HTTP/1.1", HTTP_MSG_ACCEPTED, "host"},
    {"AbsoluteWithQuery", "GET http://host?a HTTP/1.1", HTTP_MSG_ACCEPTED, "host"},
    {"AbsoluteWithFragment", "GET http://host#a HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"Fragment", "GET /a#b HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"FragmentInFrontOfThePath", "GET #/a HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"WordInFrontOfThePath", "GET x/a HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"QueryInFrontOfThePath", "GET ?q=/a HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"AsteriskInFrontOfThePath", "GET */a HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"SchemeWithoutAnAuthority", "GET http:/a HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"OtherSchemeWithoutAnAuthority", "GET mailto:a/b HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"PortInFrontOfThePath", "GET :80/a HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"UserInFrontOfThePath", "GET @host/a HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"NoScheme", "GET ://host/a HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"SchemeThatIsNone", "GET 1x://host/a HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"OtherScheme", "GET coap+tcp://host/a HTTP/1.1", HTTP_MSG_ACCEPTED, "host"},
    {"NoPath", "CONNECT host:80 HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"Escapes", "GET /%41%zA HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"EscapeOfOneDigit", "GET /%4 HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"EscapeWithoutDigits", "GET /a% HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"EscapeOfZero", "GET /a%00 HTTP/1.1", HTTP_MSG_BAD_TARGET},
    {"EscapesInOrder", "GET /%41%fF%0a%7e HTTP/1.1", HTTP_MSG_ACCEPTED},
    {"EscapesOfTheQuery", "GET /a?%zz%00% HTTP/1.1", HTTP_MSG_ACCEPTED},
    {"AbsoluteWithUser", "GET http://me@host/ HTTP/1.1", HTTP_MSG_ACCEPTED, "me@host"},
    {"AddressInAPath", "GET /http://host/ HTTP/1.1", HTTP_MSG_ACCEPTED},
    {"AddressInAQuery", "GET /?to=http://host/ HTTP/1.1", HTTP_MSG_ACCEPTED},
    {"Asterisk", "OPTIONS * HTTP/1.1", HTTP_MSG_ACCEPTED},
    {"Empty", "", HTTP_MSG_BAD_FIRST_LINE},
    {"OneWord", "GET", HTTP_MSG_BAD_FIRST_LINE},
    {"TwoWords", "GET /", HTTP_MSG_BAD_FIRST_LINE},
    {"FourWords", "GET / HTTP/1.1 x", HTTP_MSG_BAD_FIRST_LINE},
    {"TwoBlanksFirst", "GET  / HTTP/1.1", HTTP_MSG_BAD_FIRST_LINE},
    {"TwoBlanksLast", "GET /  HTTP/1.1", HTTP_MSG_BAD_FIRST_LINE},
    {"LeadingBlank", " GET / HTTP/1.1", HTTP_MSG_BAD_FIRST_LINE},
    {"TrailingBlank", "GET / HTTP/1.1 ", HTTP_MSG_BAD_FIRST_LINE},
    {"TrailingTab", "GET / HTTP/1.1\t", HTTP_MSG_BAD_FIRST_LINE},
    {"Tabs", "GET\t/\tHTTP/1.1", HTTP_MSG_BAD_FIRST_LINE},
    {"TabInTarget", "GET /\ta HTTP/1.1", HTTP_MSG_BAD_FIRST_LINE},
    {"SlashInMethod", "G/T / HTTP/1.1", HTTP_MSG_METHOD_NO_TOKEN},
    {"ColonInMethod", "GET: / HTTP/1.1", HTTP_MSG_METHOD_NO_TOKEN},
    {"QuotesInMethod", "\"GET\" / HTTP/1.1", HTTP_MSG_METHOD_NO_TOKEN},
    {"HighByteInMethod", "G\xC9T / HTTP/1.1", HTTP_MSG_METHOD_NO_TOKEN},
    {"Version12", "GET / HTTP/1.2", HTTP_MSG_OTHER_VERSION},
    {"Version19", "GET / HTTP/1.9", HTTP_MSG_OTHER_VERSION},
    {"Version09", "GET / HTTP/0.9", HTTP_MSG_OTHER_VERSION},
    {"Version20", "PRI * HTTP/2.0", HTTP_MSG_OTHER_VERSION},
    {"Version21", "GET / HTTP/2.1", HTTP_MSG_OTHER_VERSION},
    {"LowerCase", "GET / http/1.1", HTTP_MSG_BAD_VERSION},
    {"OtherProtocol", "GET / XTTP/1.1", HTTP_MSG_BAD_VERSION},
    {"NoMinor", "GET / HTTP/1", HTTP_MSG_BAD_VERSION},
    {"NoDigits", "GET / HTTP/", HTTP_MSG_BAD_VERSION},
    {"TwoDigits", "GET / HTTP/1.10", HTTP_MSG_BAD_VERSION},
    {"TwoDigitsFirst", "GET / HTTP/01.1", HTTP_MSG_BAD_VERSION},
    {"Comma", "GET / HTTP/1,1", HTTP_MSG_BAD_VERSION},
    {"Sign", "GET / HTTP/1.+", HTTP_MSG_BAD_VERSION},
    {"Letter", "GET / HTTP/1.1a", HTTP_MSG_BAD_VERSION},
};

class StrictRequestLine : public ::testing::TestWithParam<RequestLineCase> {};
INSTANTIATE_TEST_SUITE_P(Strict, StrictRequestLine, ::testing::ValuesIn(kRequestLines),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(StrictRequestLine, ReasonAndAuthority) {
  const TraceCapture trace;
  std::string_view authority;
  EXPECT_EQ(strict_requestLine(GetParam().line, &authority), GetParam().reason);
  EXPECT_EQ(authority, GetParam().authority);
  expectTraced(trace, GetParam().reason);
}

class StrictStatusLine : public ::testing::TestWithParam<LineCase> {};
INSTANTIATE_TEST_SUITE_P(Strict, StrictStatusLine,
                         ::testing::Values(LineCase{"Ok", "HTTP/1.1 200 OK", HTTP_MSG_ACCEPTED},
                                           LineCase{"Old", "HTTP/1.0 200 OK", HTTP_MSG_ACCEPTED},
                                           LineCase{"NoPhrase", "HTTP/1.1 200 ", HTTP_MSG_ACCEPTED},
                                           LineCase{"LongPhrase", "HTTP/1.1 404 Not Found at all", HTTP_MSG_ACCEPTED},
                                           LineCase{"Empty", "", HTTP_MSG_BAD_FIRST_LINE},
                                           LineCase{"VersionAlone", "HTTP/1.1", HTTP_MSG_BAD_FIRST_LINE},
                                           LineCase{"VersionAndBlank", "HTTP/1.1 ", HTTP_MSG_BAD_FIRST_LINE},
                                           LineCase{"NoBlankBehindTheCode", "HTTP/1.1 200", HTTP_MSG_BAD_FIRST_LINE},
                                           LineCase{"TwoDigits", "HTTP/1.1 20 OK", HTTP_MSG_BAD_FIRST_LINE},
                                           LineCase{"BelowAHundred", "HTTP/1.1 099 OK", HTTP_MSG_BAD_FIRST_LINE},
                                           LineCase{"FourDigits", "HTTP/1.1 2000 OK", HTTP_MSG_BAD_FIRST_LINE},
                                           LineCase{"NoDigits", "HTTP/1.1 2x0 OK", HTTP_MSG_BAD_FIRST_LINE},
                                           LineCase{"TwoBlanks", "HTTP/1.1  200 OK", HTTP_MSG_BAD_FIRST_LINE},
                                           LineCase{"Tab", "HTTP/1.1\t200 OK", HTTP_MSG_BAD_FIRST_LINE},
                                           LineCase{"Request", "GET / HTTP/1.1", HTTP_MSG_BAD_FIRST_LINE},
                                           LineCase{"LowerCase", "http/1.1 200 OK", HTTP_MSG_BAD_VERSION},
                                           LineCase{"Comma", "HTTP/1,1 200 OK", HTTP_MSG_BAD_VERSION},
                                           LineCase{"Version20", "HTTP/2.0 200 OK", HTTP_MSG_OTHER_VERSION},
                                           LineCase{"Version12", "HTTP/1.2 200 OK", HTTP_MSG_OTHER_VERSION}),
                         nameOf);

TEST_P(StrictStatusLine, Reason) {
  const TraceCapture trace;
  EXPECT_EQ(strict_statusLine(GetParam().line), GetParam().reason);
  expectTraced(trace, GetParam().reason);
}

class StrictHeaderLine : public ::testing::TestWithParam<LineCase> {};
INSTANTIATE_TEST_SUITE_P(
    Strict, StrictHeaderLine,
    ::testing::Values(
        LineCase{"Usual", "Host: x", HTTP_MSG_ACCEPTED}, LineCase{"NoBlank", "Host:x", HTTP_MSG_ACCEPTED},
        LineCase{"NoValue", "Host:", HTTP_MSG_ACCEPTED}, LineCase{"TwoColons", "Host: x:80", HTTP_MSG_ACCEPTED},
        LineCase{"EverySign", "!#$%&'*+-.^_`|~09azAZ: x", HTTP_MSG_ACCEPTED},
        LineCase{"NoColon", "Host", HTTP_MSG_BAD_HEADER}, LineCase{"NoColonButBlank", "Host x", HTTP_MSG_BAD_HEADER},
        LineCase{"BlankFirst", " Host: x", HTTP_MSG_FOLDED_LINE},
        LineCase{"TabFirst", "\tHost: x", HTTP_MSG_FOLDED_LINE}, LineCase{"BlankAlone", " ", HTTP_MSG_FOLDED_LINE},
        LineCase{"TabAlone", "\t", HTTP_MSG_FOLDED_LINE},
        LineCase{"BlankBeforeColon", "Host : x", HTTP_MSG_BLANK_BEFORE_COLON},
        LineCase{"TabBeforeColon", "Host\t: x", HTTP_MSG_BLANK_BEFORE_COLON},
        LineCase{"NoName", ": x", HTTP_MSG_BAD_NAME}, LineCase{"ColonAlone", ":", HTTP_MSG_BAD_NAME},
        LineCase{"BlankInName", "Ho st: x", HTTP_MSG_BAD_NAME}, LineCase{"TabInName", "Ho\tst: x", HTTP_MSG_BAD_NAME},
        LineCase{"SlashInName", "Ho/st: x", HTTP_MSG_BAD_NAME},
        LineCase{"QuotedName", "\"Host\": x", HTTP_MSG_BAD_NAME},
        LineCase{"HighByteInName", "H\xF6st: x", HTTP_MSG_BAD_NAME}),
    nameOf);

TEST_P(StrictHeaderLine, Reason) {
  const TraceCapture trace;
  EXPECT_EQ(strict_headerLine(GetParam().line), GetParam().reason);
  expectTraced(trace, GetParam().reason);
}

// --- the parser ------------------------------------------------------------------------------------------------------

// How the bytes arrive.
enum Arrival { kAtOnce, kOctetByOctet };
constexpr Arrival kArrivals[] = {kAtOnce, kOctetByOctet};

std::unique_ptr<ScriptInput> arriving(std::string_view wire, Arrival arrival) {
  auto input = std::make_unique<ScriptInput>();
  if (arrival == kAtOnce) {
    input->bytes(wire);
  } else {
    input->trickle(wire);
  }
  return input;
}

constexpr int kEnded = -1;

// Parses until the head is complete (HTTP_MSG_ACCEPTED), refused (its reason), or the stream is at its end (kEnded).
int parseHead(HttpMessage* message, ScriptInput& input) {
  const SpinGuard guard;
  http_msgModeSet(message, HTTP_MSG_READING);
  http_msgStreamSet(message, input.stream());
  while (message->state < HTTP_MSG_BODY) {
    if (http_msgParse(message) < 0) {
      EXPECT_EQ(message->state, HTTP_MSG_FIRST_LINE);
      EXPECT_EQ(message->buffer, nullptr);
      return message->refusal == HTTP_MSG_ACCEPTED ? kEnded : message->refusal;
    }
    if (message->needMoreData == 0) continue;
    clearerr(input.stream());
    input.release();
  }
  EXPECT_EQ(message->refusal, HTTP_MSG_ACCEPTED);
  return HTTP_MSG_ACCEPTED;
}

int strictlyParsed(std::string_view wire, Arrival arrival) {
  const auto input = arriving(wire, arrival);
  const RequestPtr request(http_requestCreate());
  request->message.strict = 1;
  return parseHead(&request->message, *input);
}

// --- every byte in every place ---------------------------------------------------------------------------------------

constexpr bool isControl(int byte) { return (byte < 32 && byte != '\t') || byte == 127; }
constexpr bool isLineEnd(int byte) { return byte == '\r' || byte == '\n'; }
constexpr bool isBlank(int byte) { return byte == ' ' || byte == '\t'; }
constexpr bool isDigit(int byte) { return byte >= '0' && byte <= '9'; }
bool isToken(int byte) {
  return isDigit(byte) || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte != 0 && "!#$%&'*+-.^_`|~"s.find(static_cast<char>(byte)) != std::string::npos);
}

// What stands in a place of its own, and what every byte means there but for line ends and control bytes.
struct PlaceCase {
  const char* name;
  std::string before;
  std::string after;
  int (*reason)(int byte);
};
void PrintTo(const PlaceCase& row, std::ostream* out) { *out << row.name; }

const PlaceCase kPlaces[] = {
    {"Method", "P", "T / HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n",
     [](int byte) -> int {
       if (byte == 'U') return HTTP_MSG_ACCEPTED;
       if (isBlank(byte)) return HTTP_MSG_BAD_FIRST_LINE;
       return isToken(byte) ? HTTP_MSG_BAD_METHOD : HTTP_MSG_METHOD_NO_TOKEN;
     }},
    {"FirstByte", "", "ET / HTTP/1.1\r\nHost: x\r\n\r\n",
     [](int byte) -> int {
       if (byte == 'G') return HTTP_MSG_ACCEPTED;
       if (isBlank(byte)) return HTTP_MSG_BAD_FIRST_LINE;
       return isToken(byte) ? HTTP_MSG_BAD_METHOD : HTTP_MSG_METHOD_NO_TOKEN;
     }},
    {"Target", "GET /a", "b HTTP/1.1\r\nHost: x\r\n\r\n",
     [](int byte) -> int {
       if (isBlank(byte)) return HTTP_MSG_BAD_FIRST_LINE;
       return byte == '#' || byte == '%' ? HTTP_MSG_BAD_TARGET : HTTP_MSG_ACCEPTED;
     }},
    {"Host", "GET / HTTP/1.1\r\nHost: x", "y\r\n\r\n",
     [](int byte) -> int {
       const bool isOne = byte < 0x80 && (std::isalnum(byte) || strchr("-._~%!$&'()*+,;=:[]", byte) != nullptr);
       return isOne ? HTTP_MSG_ACCEPTED : HTTP_MSG_BAD_HOST;
     }},
    {"MajorVersion", "GET / HTTP/", ".1\r\nHost: x\r\n\r\n",
     [](int byte) -> int {
       if (isBlank(byte)) return HTTP_MSG_BAD_FIRST_LINE;
       if (!isDigit(byte)) return HTTP_MSG_BAD_VERSION;
       return byte == '1' ? HTTP_MSG_ACCEPTED : HTTP_MSG_OTHER_VERSION;
     }},
    {"MinorVersion", "GET / HTTP/1.", "\r\nHost: x\r\n\r\n",
     [](int byte) -> int {
       if (isBlank(byte)) return HTTP_MSG_BAD_FIRST_LINE;
       if (!isDigit(byte)) return HTTP_MSG_BAD_VERSION;
       return byte <= '1' ? HTTP_MSG_ACCEPTED : HTTP_MSG_OTHER_VERSION;
     }},
    {"BehindTheVersion", "GET / HTTP/1.1", "\r\nHost: x\r\n\r\n",
     [](int byte) -> int { return isBlank(byte) ? HTTP_MSG_BAD_FIRST_LINE : HTTP_MSG_BAD_VERSION; }},
    {"FirstByteOfAHeader", "GET / HTTP/1.1\r\nHost: x\r\n", "Y: v\r\n\r\n",
     [](int byte) -> int {
       if (isBlank(byte)) return HTTP_MSG_FOLDED_LINE;
       return isToken(byte) ? HTTP_MSG_ACCEPTED : HTTP_MSG_BAD_NAME;
     }},
    {"Name", "GET / HTTP/1.1\r\nHost: x\r\nX", "Y: v\r\n\r\n",
     [](int byte) -> int { return isToken(byte) || byte == ':' ? HTTP_MSG_ACCEPTED : HTTP_MSG_BAD_NAME; }},
    {"BeforeTheColon", "GET / HTTP/1.1\r\nHost: x\r\nX", ": v\r\n\r\n",
     [](int byte) -> int {
       if (isBlank(byte)) return HTTP_MSG_BLANK_BEFORE_COLON;
       return isToken(byte) || byte == ':' ? HTTP_MSG_ACCEPTED : HTTP_MSG_BAD_NAME;
     }},
    {"BehindTheColon", "GET / HTTP/1.1\r\nHost: x\r\nX:", "v\r\n\r\n", [](int) -> int { return HTTP_MSG_ACCEPTED; }},
    {"Value", "GET / HTTP/1.1\r\nHost: x\r\nX: a", "c\r\n\r\n", [](int) -> int { return HTTP_MSG_ACCEPTED; }},
    {"EndOfValue", "GET / HTTP/1.1\r\nHost: x\r\nX: a", "\r\n\r\n", [](int) -> int { return HTTP_MSG_ACCEPTED; }},
    {"LineWithoutColon", "GET / HTTP/1.1\r\nHost: x\r\n", "\r\n\r\n",
     [](int byte) -> int {
       if (isBlank(byte)) return HTTP_MSG_FOLDED_LINE;
       return byte == ':' ? HTTP_MSG_BAD_NAME : HTTP_MSG_BAD_HEADER;
     }},
    {"ContentLength", "PUT / HTTP/1.1\r\nHost: x\r\nContent-Length: 1", "2\r\n\r\n",
     [](int byte) -> int { return isDigit(byte) ? HTTP_MSG_ACCEPTED : HTTP_MSG_BAD_LENGTH; }},
    {"FirstOfContentLength", "PUT / HTTP/1.1\r\nHost: x\r\nContent-Length:", "2\r\n\r\n",
     [](int byte) -> int { return isDigit(byte) || isBlank(byte) ? HTTP_MSG_ACCEPTED : HTTP_MSG_BAD_LENGTH; }},
    {"LastOfContentLength", "PUT / HTTP/1.1\r\nHost: x\r\nContent-Length: 2", "\r\n\r\n",
     [](int byte) -> int { return isDigit(byte) || isBlank(byte) ? HTTP_MSG_ACCEPTED : HTTP_MSG_BAD_LENGTH; }},
    {"TransferCoding", "PUT / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chun", "ed\r\n\r\n",
     [](int byte) -> int { return byte == 'k' || byte == 'K' ? HTTP_MSG_ACCEPTED : HTTP_MSG_BAD_CODING; }},
    {"BehindTransferCoding", "PUT / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked", "\r\n\r\n",
     [](int byte) -> int { return isBlank(byte) ? HTTP_MSG_ACCEPTED : HTTP_MSG_BAD_CODING; }},
};

class StrictPlace : public ::testing::TestWithParam<PlaceCase> {};
INSTANTIATE_TEST_SUITE_P(Strict, StrictPlace, ::testing::ValuesIn(kPlaces),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(StrictPlace, EveryByte) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string wire = GetParam().before + static_cast<char>(byte) + GetParam().after;
    const int expected = isLineEnd(byte)   ? HTTP_MSG_BARE_LINE_END
                         : isControl(byte) ? HTTP_MSG_CONTROL_BYTE
                                           : GetParam().reason(byte);
    for (const Arrival arrival : kArrivals) {
      SCOPED_TRACE("byte " + std::to_string(byte) + (arrival == kAtOnce ? "" : ", octet by octet"));
      const TraceCapture trace;
      EXPECT_EQ(strictlyParsed(wire, arrival), expected);
      // An unknown method is no matter of strictness.
      const bool strictly = expected != HTTP_MSG_ACCEPTED && expected != HTTP_MSG_BAD_METHOD;
      EXPECT_EQ(trace.countStarting("http-st[x]message is refused: "), strictly ? 1u : 0u);
    }
  }
}

TEST_P(StrictPlace, NoReasonOfTheirsWithoutStrictness) {
  for (int byte = 0; byte < 256; ++byte) {
    SCOPED_TRACE("byte " + std::to_string(byte));
    const TraceCapture trace;
    ScriptInput input(GetParam().before + static_cast<char>(byte) + GetParam().after);
    const RequestPtr request(http_requestCreate());
    EXPECT_LE(parseHead(&request->message, input), HTTP_MSG_BAD_HEADER);
    EXPECT_EQ(trace.countStarting("http-st["), 0u);
  }
}

TEST(StrictLineEnd, EveryByteInPlaceOfTheCarriageReturn) {
  for (const std::string before : {"GET / HTTP/1.1", "GET / HTTP/1.1\r\nHost: x", "GET / HTTP/1.1\r\nHost: x\r\n"})
    for (int byte = 0; byte < 256; ++byte)
      for (const Arrival arrival : kArrivals) {
        SCOPED_TRACE(before + " and byte " + std::to_string(byte));
        const TraceCapture trace;
        const std::string wire = before + static_cast<char>(byte) + "\nHost: x\r\n\r\n";
        if (byte == '\r') continue;
        EXPECT_EQ(strictlyParsed(wire, arrival), HTTP_MSG_BARE_LINE_END);
      }
}

TEST(StrictLineEnd, EveryByteInPlaceOfTheLineFeed) {
  for (const std::string before : {"GET / HTTP/1.1", "GET / HTTP/1.1\r\nHost: x", "GET / HTTP/1.1\r\nHost: x\r\n"})
    for (int byte = 0; byte < 256; ++byte)
      for (const Arrival arrival : kArrivals) {
        SCOPED_TRACE(before + " and byte " + std::to_string(byte));
        const TraceCapture trace;
        const std::string wire = before + "\r" + static_cast<char>(byte) + "\r\n\r\n";
        if (byte == '\n') continue;
        EXPECT_EQ(strictlyParsed(wire, arrival), HTTP_MSG_BARE_LINE_END);
      }
}

// --- heads -----------------------------------------------------------------------------------------------------------

struct HeadCase {
  const char* name;
  std::string wire;
  int reason;
};
void PrintTo(const HeadCase& row, std::ostream* out) { *out << row.name; }

std::string head(const std::string& headers, const std::string& line = "POST / HTTP/1.1") {
  return line + "\r\n" + headers + "\r\n";
}
std::string withHost(const std::string& headers, const std::string& line = "POST / HTTP/1.1") {
  return head("Host: x\r\n" + headers, line);
}

const HeadCase kHeads[] = {
    // how long the body is
    {"Length", withHost("Content-Length: 5\r\n"), HTTP_MSG_ACCEPTED},
    {"LengthZero", withHost("Content-Length: 0\r\n"), HTTP_MSG_ACCEPTED},
    {"LengthWithZeros", withHost("Content-Length: 0000000000000000000000000000005\r\n"), HTTP_MSG_ACCEPTED},
    {"LargestLength", withHost("Content-Length: 4294967295\r\n"), HTTP_MSG_ACCEPTED},
    {"LengthBeyond32Bits", withHost("Content-Length: 4294967296\r\n"), HTTP_MSG_LARGE_BODY},
    {"LengthOf64Bits", withHost("Content-Length: 18446744073709551615\r\n"), HTTP_MSG_LARGE_BODY},
    {"LengthBeyond64Bits", withHost("Content-Length: 18446744073709551616\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthOfAThousandDigits", withHost("Content-Length: " + std::string(1000, '9') + "\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthWithPlus", withHost("Content-Length: +5\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthWithMinus", withHost("Content-Length: -5\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthMinusZero", withHost("Content-Length: -0\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthHexadecimal", withHost("Content-Length: 0x5\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthWithFraction", withHost("Content-Length: 5.0\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthWithExponent", withHost("Content-Length: 5e0\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthWithBlank", withHost("Content-Length: 5 5\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthList", withHost("Content-Length: 5, 5\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthQuoted", withHost("Content-Length: \"5\"\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthNoNumber", withHost("Content-Length: five\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthInOtherDigits", withHost("Content-Length: \xD9\xA5\r\n"), HTTP_MSG_BAD_LENGTH},
    {"LengthEmpty", withHost("Content-Length:\r\n"), HTTP_MSG_BAD_HEADER},
    {"LengthTwice", withHost("Content-Length: 5\r\nContent-Length: 5\r\n"), HTTP_MSG_REPEATED_LENGTH},
    {"TwoLengths", withHost("Content-Length: 5\r\nContent-Length: 6\r\n"), HTTP_MSG_REPEATED_LENGTH},
    {"TwoLengthsInOtherCase", withHost("CONTENT-LENGTH: 5\r\ncontent-length: 6\r\n"), HTTP_MSG_REPEATED_LENGTH},
    {"TwoLengthsApart", withHost("content-length: 5\r\nA: b\r\nContent-Length: 5\r\n"), HTTP_MSG_REPEATED_LENGTH},
    {"BadLengthOfGet", withHost("Content-Length: x\r\n", "GET / HTTP/1.1"), HTTP_MSG_BAD_LENGTH},
    {"BadLengthOfOldRequest", withHost("Content-Length: x\r\n", "POST / HTTP/1.0"), HTTP_MSG_BAD_LENGTH},
    {"LengthAndCoding", withHost("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n"), HTTP_MSG_LENGTH_AND_CODING},
    {"CodingAndLength", withHost("Transfer-Encoding: chunked\r\nContent-Length: 5\r\n"), HTTP_MSG_LENGTH_AND_CODING},
    {"LengthZeroAndCoding", withHost("Content-Length: 0\r\nTransfer-Encoding: chunked\r\n"),
     HTTP_MSG_LENGTH_AND_CODING},
    {"LengthAndCodingOfOldRequest", withHost("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", "POST / HTTP/1.0"),
     HTTP_MSG_LENGTH_AND_CODING},
    {"LengthAndUnknownCoding", withHost("content-length: 5\r\ntransfer-encoding: x\r\n"), HTTP_MSG_LENGTH_AND_CODING},
    {"Chunked", withHost("Transfer-Encoding: chunked\r\n"), HTTP_MSG_ACCEPTED},
    {"ChunkedInOtherCase", withHost("TRANSFER-ENCODING: Chunked\r\n"), HTTP_MSG_ACCEPTED},
    {"ChunkedOfOldRequest", withHost("Transfer-Encoding: chunked\r\n", "POST / HTTP/1.0"), HTTP_MSG_BAD_CODING},
    {"ChunkedTwice", withHost("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n"), HTTP_MSG_BAD_CODING},
    {"ChunkedAndIdentity", withHost("Transfer-Encoding: chunked\r\nTransfer-Encoding: identity\r\n"),
     HTTP_MSG_BAD_CODING},
    {"Identity", withHost("Transfer-Encoding: identity\r\n"), HTTP_MSG_BAD_CODING},
    {"Gzip", withHost("Transfer-Encoding: gzip\r\n"), HTTP_MSG_BAD_CODING},
    {"GzipThenChunked", withHost("Transfer-Encoding: gzip, chunked\r\n"), HTTP_MSG_BAD_CODING},
    {"ChunkedThenGzip", withHost("Transfer-Encoding: chunked, gzip\r\n"), HTTP_MSG_BAD_CODING},
    {"ChunkedWithComma", withHost("Transfer-Encoding: chunked,\r\n"), HTTP_MSG_BAD_CODING},
    {"ChunkedWithParameter", withHost("Transfer-Encoding: chunked;q=1\r\n"), HTTP_MSG_BAD_CODING},
    {"ChunkedQuoted", withHost("Transfer-Encoding: \"chunked\"\r\n"), HTTP_MSG_BAD_CODING},
    {"ChunkedWithMore", withHost("Transfer-Encoding: xchunked\r\n"), HTTP_MSG_BAD_CODING},
    {"CodingEmpty", withHost("Transfer-Encoding:\r\n"), HTTP_MSG_BAD_HEADER},
    {"CodingBlankBeforeColon", withHost("Transfer-Encoding : chunked\r\n"), HTTP_MSG_BLANK_BEFORE_COLON},
    {"CodingFolded", withHost("Transfer-Encoding:\r\n chunked\r\n"), HTTP_MSG_BAD_HEADER},
    {"LengthFolded", withHost("A: b\r\n Content-Length: 5\r\n"), HTTP_MSG_FOLDED_LINE},
    {"FoldedValue", withHost("A: b\r\n\tc\r\n"), HTTP_MSG_FOLDED_LINE},
    {"FoldedFirstHeader", head(" A: b\r\nHost: x\r\n"), HTTP_MSG_FOLDED_LINE},

    // whom it is for
    {"NoHost", head("", "GET / HTTP/1.1"), HTTP_MSG_NO_HOST},
    {"NoHostInOldRequest", head("", "GET / HTTP/1.0"), HTTP_MSG_ACCEPTED},
    {"HostInOldRequest", head("Host: x\r\n", "GET / HTTP/1.0"), HTTP_MSG_ACCEPTED},
    {"HostTwice", head("Host: x\r\nHost: x\r\n", "GET / HTTP/1.1"), HTTP_MSG_REPEATED_HOST},
    {"HostTwiceInOtherCase", head("HOST: x\r\nhost: y\r\n", "GET / HTTP/1.1"), HTTP_MSG_REPEATED_HOST},
    {"HostTwiceInOldRequest", head("Host: x\r\nHost: y\r\n", "GET / HTTP/1.0"), HTTP_MSG_REPEATED_HOST},
    {"SameHost", head("Host: x\r\n", "GET http://x/ HTTP/1.1"), HTTP_MSG_ACCEPTED},
    {"SameHostInOtherCase", head("Host: EXAMPLE.org\r\n", "GET http://example.ORG/ HTTP/1.1"), HTTP_MSG_ACCEPTED},
    {"SameHostAndPort", head("Host: x:8080\r\n", "GET http://x:8080/a?b=c HTTP/1.1"), HTTP_MSG_ACCEPTED},
    {"SameHostWithEscapesBehind", head("Host: x\r\n", "GET http://x/%61%62%63%64 HTTP/1.1"), HTTP_MSG_ACCEPTED},
    {"SameHostWithEscapes", head("Host: a%2Db\r\n", "GET http://a%2Db/ HTTP/1.1"), HTTP_MSG_BAD_TARGET},
    {"SameHostAfterManyHeaders", head("A: " + std::string(3000, 'a') + "\r\nHost: x\r\n", "GET http://x/ HTTP/1.1"),
     HTTP_MSG_ACCEPTED},
    {"OtherHost", head("Host: y\r\n", "GET http://x/ HTTP/1.1"), HTTP_MSG_OTHER_HOST},
    {"OtherHostAfterManyHeaders", head("A: " + std::string(3000, 'a') + "\r\nHost: y\r\n", "GET http://x/ HTTP/1.1"),
     HTTP_MSG_OTHER_HOST},
    {"LongerHost", head("Host: xy\r\n", "GET http://x/ HTTP/1.1"), HTTP_MSG_OTHER_HOST},
    {"ShorterHost", head("Host: x\r\n", "GET http://xy/ HTTP/1.1"), HTTP_MSG_OTHER_HOST},
    {"OtherPort", head("Host: x:81\r\n", "GET http://x:80/ HTTP/1.1"), HTTP_MSG_OTHER_HOST},
    {"PortOnlyInTarget", head("Host: x\r\n", "GET http://x:80/ HTTP/1.1"), HTTP_MSG_OTHER_HOST},
    {"UserInTarget", head("Host: x\r\n", "GET http://x@y/ HTTP/1.1"), HTTP_MSG_OTHER_HOST},
    {"OtherHostInOldRequest", head("Host: y\r\n", "GET http://x/ HTTP/1.0"), HTTP_MSG_OTHER_HOST},
    {"AbsoluteWithoutHost", head("", "GET http://x/ HTTP/1.1"), HTTP_MSG_NO_HOST},
    {"AbsoluteWithoutHostInOldRequest", head("", "GET http://x/ HTTP/1.0"), HTTP_MSG_ACCEPTED},
    {"AbsoluteWithEmptyAuthority", head("Host: x\r\n", "GET http:///a HTTP/1.1"), HTTP_MSG_OTHER_HOST},
    {"EmptyHost", head("Host:\r\n", "GET / HTTP/1.1"), HTTP_MSG_BAD_HEADER},

    // what was refused before
    {"UnknownMethod", withHost("", "BREW / HTTP/1.1"), HTTP_MSG_BAD_METHOD},
    {"TargetWithoutSlash", withHost("", "GET a HTTP/1.1"), HTTP_MSG_BAD_TARGET},
    {"EmptyLineFirst", "\r\n" + withHost("", "GET / HTTP/1.1"), HTTP_MSG_BAD_FIRST_LINE},
    {"Reply", withHost("", "HTTP/1.1 200 OK"), HTTP_MSG_METHOD_NO_TOKEN},
    {"OnlyALineEnd", "\n", HTTP_MSG_BARE_LINE_END},
    {"NothingButNul", "\0\r\n"s, HTTP_MSG_CONTROL_BYTE},

    // ends early
    {"Nothing", "", kEnded},
    {"HalfALine", "GET / HT", kEnded},
    {"HalfABadLine", "G\0T / HT"s, kEnded},
    {"NoEmptyLine", "GET / HTTP/1.1\r\nHost: x\r\n", kEnded},
};

class StrictHead : public ::testing::TestWithParam<HeadCase> {};
INSTANTIATE_TEST_SUITE_P(Strict, StrictHead, ::testing::ValuesIn(kHeads),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(StrictHead, AtOnce) {
  const TraceCapture trace;
  EXPECT_EQ(strictlyParsed(GetParam().wire, kAtOnce), GetParam().reason);
  EXPECT_LE(trace.countStarting("http-st[x]message is refused: "), 1u);
  if (GetParam().reason >= HTTP_MSG_LENGTH_AND_CODING) {
    EXPECT_EQ(trace.countStarting("http-st[x]message is refused: "), 1u);
  }
}

TEST_P(StrictHead, OctetByOctet) {
  const TraceCapture trace;
  EXPECT_EQ(strictlyParsed(GetParam().wire, kOctetByOctet), GetParam().reason);
}

// Whatever is refused strictly has no reason of this kind otherwise.
TEST_P(StrictHead, WithoutStrictness) {
  const TraceCapture trace;
  ScriptInput input(GetParam().wire);
  const RequestPtr request(http_requestCreate());
  EXPECT_LE(parseHead(&request->message, input), HTTP_MSG_BAD_HEADER);
  EXPECT_EQ(trace.countStarting("http-st["), 0u);
}

// Replies are read by the same rules, but for the host.
const HeadCase kReplyHeads[] = {
    {"NoBody", "HTTP/1.1 204 No Content\r\n\r\n", HTTP_MSG_ACCEPTED},
    {"Length", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", HTTP_MSG_ACCEPTED},
    {"Old", "HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\n", HTTP_MSG_ACCEPTED},
    {"Chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", HTTP_MSG_ACCEPTED},
    {"UntilClose", "HTTP/1.1 200 OK\r\n\r\n", HTTP_MSG_ACCEPTED},
    {"TwoHosts", "HTTP/1.1 200 OK\r\nHost: x\r\nHost: y\r\nContent-Length: 0\r\n\r\n", HTTP_MSG_ACCEPTED},
    {"LengthAndCoding", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n",
     HTTP_MSG_LENGTH_AND_CODING},
    {"TwoLengths", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 5\r\n\r\n", HTTP_MSG_REPEATED_LENGTH},
    {"BadLength", "HTTP/1.1 200 OK\r\nContent-Length: 5x\r\n\r\n", HTTP_MSG_BAD_LENGTH},
    {"OldChunked", "HTTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", HTTP_MSG_BAD_CODING},
    {"OtherCoding", "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n", HTTP_MSG_BAD_CODING},
    {"BareLineFeed", "HTTP/1.1 200 OK\nContent-Length: 0\r\n\r\n", HTTP_MSG_BARE_LINE_END},
    {"ControlByteInPhrase", "HTTP/1.1 200 O\x01K\r\n\r\n", HTTP_MSG_CONTROL_BYTE},
    {"OtherVersion", "HTTP/2.0 200 OK\r\n\r\n", HTTP_MSG_OTHER_VERSION},
    {"CodeOfTwoDigits", "HTTP/1.1 20 OK\r\n\r\n", HTTP_MSG_BAD_FIRST_LINE},
    {"Request", "GET / HTTP/1.1\r\n\r\n", HTTP_MSG_BAD_FIRST_LINE},
    {"Folded", "HTTP/1.1 200 OK\r\nA: b\r\n c\r\n\r\n", HTTP_MSG_FOLDED_LINE},
    {"BlankBeforeColon", "HTTP/1.1 200 OK\r\nA : b\r\n\r\n", HTTP_MSG_BLANK_BEFORE_COLON},
};

class StrictReplyHead : public ::testing::TestWithParam<HeadCase> {};
INSTANTIATE_TEST_SUITE_P(Strict, StrictReplyHead, ::testing::ValuesIn(kReplyHeads),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(StrictReplyHead, HoweverItArrives) {
  for (const Arrival arrival : kArrivals) {
    const TraceCapture trace;
    const auto input = arriving(GetParam().wire, arrival);
    const ReplyPtr reply(http_replyCreate());
    reply->message.strict = 1;
    EXPECT_EQ(parseHead(&reply->message, *input), GetParam().reason);
    EXPECT_EQ(trace.countStarting("http-st[x]message is refused: "), GetParam().reason == HTTP_MSG_ACCEPTED ? 0u : 1u);
  }
}

// --- bodies ----------------------------------------------------------------------------------------------------------

struct Outcome {
  std::string body;
  int state = 0;
  int refusal = 0;
};

// Reads a body to its end, or to where it fails, and closes it.
Outcome readBody(HttpMessage* message, ScriptInput& input) {
  const SpinGuard guard;
  Outcome outcome;
  FILE* const body = http_msgBody(message);
  if (body == nullptr) {
    ADD_FAILURE() << "no body";
    return outcome;
  }
  std::array<char, 1000> block{};
  for (int reads = 0; reads < 100000; ++reads) {
    const size_t count = fread(block.data(), 1, block.size(), body);
    outcome.body.append(block.data(), count);
    if (count == block.size()) continue;
    if (message->state != HTTP_MSG_BODY || message->refusal != HTTP_MSG_ACCEPTED || !input.held()) break;
    clearerr(body);
    clearerr(input.stream());
    input.release();
  }
  outcome.state = message->state;
  outcome.refusal = message->refusal;
  fclose(body);
  return outcome;
}

struct ChunkCase {
  const char* name;
  std::string wire;
  std::string body;
  int reason;
};
void PrintTo(const ChunkCase& row, std::ostream* out) { *out << row.name; }

const ChunkCase kChunks[] = {
    {"None", "0\r\n\r\n", "", HTTP_MSG_ACCEPTED},
    {"One", "5\r\nhello\r\n0\r\n\r\n", "hello", HTTP_MSG_ACCEPTED},
    {"Two", "2\r\nhe\r\n3\r\nllo\r\n0\r\n\r\n", "hello", HTTP_MSG_ACCEPTED},
    {"LineEndsInside", "4\r\n\r\n\r\n\r\n0\r\n\r\n", "\r\n\r\n", HTTP_MSG_ACCEPTED},
    {"BothCases", "a\r\n0123456789\r\nA\r\n0123456789\r\n0\r\n\r\n", "01234567890123456789", HTTP_MSG_ACCEPTED},
    {"LeadingZeros", "0000000000000000000005\r\nhello\r\n000\r\n\r\n", "hello", HTTP_MSG_ACCEPTED},
    {"Beyond32Bits", "100000000\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"Beyond32BitsWithZeros", "000100000005\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"Beyond64Bits", "10000000000000005\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"AllOnes", "FFFFFFFFFFFFFFFF\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"SecondBeyond32Bits", "5\r\nhello\r\n100000005\r\nhello\r\n0\r\n\r\n", "hello", HTTP_MSG_BAD_CHUNK},
    {"TooManyZeros", std::string(300, '0') + "5\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"NoSize", "\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"NoSizeBehindAChunk", "5\r\nhello\r\n\r\n\r\n", "hello", HTTP_MSG_BAD_CHUNK},
    {"Extension", "5;a=b\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"ExtensionOfTheLast", "5\r\nhello\r\n0;a\r\n\r\n", "hello", HTTP_MSG_BAD_CHUNK},
    {"BlankBehind", "5 \r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"BlankBefore", " 5\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"TabBehind", "5\t\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"Prefix", "0x5\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"Plus", "+5\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"Minus", "-5\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"Nul", "5\0\r\nhello\r\n0\r\n\r\n"s, "", HTTP_MSG_BAD_CHUNK},
    {"BareLineFeed", "5\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"BareLineFeedBeforeDigits", "5\nabcde\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"BareCarriageReturn", "5\rhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"BareCarriageReturnBeforeDigits", "5\rabcde\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"TwoCarriageReturns", "5\r\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"LineFeedFirst", "\n5\r\nhello\r\n0\r\n\r\n", "", HTTP_MSG_BAD_CHUNK},
    {"DataTooLong", "5\r\nhello!\r\n0\r\n\r\n", "hello", HTTP_MSG_BAD_CHUNK},
    {"DataTooShort", "5\r\nhell\r\n0\r\n\r\n", "hell\r", HTTP_MSG_BAD_CHUNK},
    {"NoLineEndBehindData", "5\r\nhello0\r\n\r\n", "hello", HTTP_MSG_BAD_CHUNK},
    {"BareLineFeedBehindData", "5\r\nhello\n0\r\n\r\n", "hello", HTTP_MSG_BAD_CHUNK},
    {"BareCarriageReturnBehindData", "5\r\nhello\r0\r\n\r\n", "hello", HTTP_MSG_BAD_CHUNK},
    {"Trailer", "5\r\nhello\r\n0\r\nA: b\r\n\r\n", "hello", HTTP_MSG_BAD_CHUNK},
    {"BareLineFeedAtTheEnd", "5\r\nhello\r\n0\r\n\n", "hello", HTTP_MSG_BAD_CHUNK},
    {"NextRequestAtTheEnd", "5\r\nhello\r\n0\r\nGET / HTTP/1.1\r\n\r\n", "hello", HTTP_MSG_BAD_CHUNK},
};

const std::string kChunkedHead = "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n";

class StrictChunks : public ::testing::TestWithParam<ChunkCase> {};
INSTANTIATE_TEST_SUITE_P(Strict, StrictChunks, ::testing::ValuesIn(kChunks),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(StrictChunks, HoweverTheyArrive) {
  for (const Arrival arrival : kArrivals) {
    SCOPED_TRACE(arrival == kAtOnce ? "at once" : "octet by octet");
    const TraceCapture trace;
    const auto input = arriving(kChunkedHead + GetParam().wire, arrival);
    const RequestPtr request(http_requestCreate());
    request->message.strict = 1;
    ASSERT_EQ(parseHead(&request->message, *input), HTTP_MSG_ACCEPTED);
    const Outcome outcome = readBody(&request->message, *input);
    EXPECT_EQ(outcome.refusal, GetParam().reason);
    EXPECT_EQ(outcome.body, GetParam().body);
    EXPECT_EQ(outcome.state == HTTP_MSG_DONE, GetParam().reason == HTTP_MSG_ACCEPTED);
    EXPECT_EQ(trace.countStarting("http-bo[x]message is refused: "), GetParam().reason == HTTP_MSG_ACCEPTED ? 0u : 1u);
  }
}

TEST_P(StrictChunks, NoReasonWithoutStrictness) {
  const TraceCapture trace;
  ScriptInput input(kChunkedHead + GetParam().wire);
  const RequestPtr request(http_requestCreate());
  ASSERT_EQ(parseHead(&request->message, input), HTTP_MSG_ACCEPTED);
  EXPECT_EQ(readBody(&request->message, input).refusal, HTTP_MSG_ACCEPTED);
}

TEST(StrictChunkSize, EveryByteBehindTheSize) {
  for (int byte = 0; byte < 256; ++byte)
    for (const Arrival arrival : kArrivals) {
      SCOPED_TRACE("byte " + std::to_string(byte));
      const TraceCapture trace;
      const auto input = arriving(kChunkedHead + "0" + static_cast<char>(byte) + "\r\n", arrival);
      const RequestPtr request(http_requestCreate());
      request->message.strict = 1;
      ASSERT_EQ(parseHead(&request->message, *input), HTTP_MSG_ACCEPTED);
      const Outcome outcome = readBody(&request->message, *input);
      const bool isSize = isDigit(byte) || (byte >= 'a' && byte <= 'f') || (byte >= 'A' && byte <= 'F');
      EXPECT_EQ(outcome.refusal, isSize ? HTTP_MSG_ACCEPTED : HTTP_MSG_BAD_CHUNK);
    }
}

TEST(StrictChunkSize, EveryByteBehindTheData) {
  for (int byte = 0; byte < 256; ++byte)
    for (const std::string before : {"1\r\na", "1\r\na\r", "1\r\na\r\n0\r\n", "1\r\na\r\n0\r\n\r"}) {
      SCOPED_TRACE(before + " and byte " + std::to_string(byte));
      const bool afterCarriageReturn = before.back() == '\r';
      const TraceCapture trace;
      ScriptInput input(kChunkedHead + before + static_cast<char>(byte));
      const RequestPtr request(http_requestCreate());
      request->message.strict = 1;
      ASSERT_EQ(parseHead(&request->message, input), HTTP_MSG_ACCEPTED);
      const Outcome outcome = readBody(&request->message, input);
      EXPECT_EQ(outcome.body, "a");
      EXPECT_EQ(outcome.refusal, byte == (afterCarriageReturn ? '\n' : '\r') ? HTTP_MSG_ACCEPTED : HTTP_MSG_BAD_CHUNK);
    }
}

// --- limits ----------------------------------------------------------------------------------------------------------

struct LimitCase {
  const char* name;
  uint32_t HttpMessage::*limit;
  std::string (*wire)(size_t amount);  // a head that takes just this much of what is limited
  uint32_t least;
  int reason;
  const char* trace;
};
void PrintTo(const LimitCase& row, std::ostream* out) { *out << row.name; }

std::string filled(const std::string& before, const std::string& after, size_t size) {
  return before + std::string(size - before.size() - after.size(), 'a') + after;
}

const LimitCase kLimits[] = {
    {"RequestLine", &HttpMessage::lineLimit,
     [](size_t size) { return filled("GET /", " HTTP/1.1\r\n", size) + "Host: x\r\n\r\n"; }, 16, HTTP_MSG_LONG_LINE,
     "http-me[x]first line is longer than "},
    {"RequestLineBeforeLongHeaders", &HttpMessage::lineLimit,
     [](size_t size) {
       return filled("GET /", " HTTP/1.1\r\n", size) + "Host: x\r\n" + filled("A: ", "\r\n\r\n", 2 * size);
     },
     16, HTTP_MSG_LONG_LINE, "http-me[x]first line is longer than "},
    {"HeadInOneHeader", &HttpMessage::headLimit,
     [](size_t size) { return filled("GET / HTTP/1.1\r\nHost: x\r\nA: ", "\r\n\r\n", size); }, 33, HTTP_MSG_LARGE_HEAD,
     "http-me[x]head is longer than "},
    {"HeadInTheTarget", &HttpMessage::headLimit,
     [](size_t size) { return filled("GET /", " HTTP/1.1\r\nHost: x\r\n\r\n", size); }, 27, HTTP_MSG_LARGE_HEAD,
     "http-me[x]head is longer than "},
    {"HeadInShortHeaders", &HttpMessage::headLimit,
     [](size_t size) {
       std::string wire = "GET / HTTP/1.1\r\nHost: x\r\n";
       while (wire.size() + 12 < size) wire += "a:b\r\n";
       return filled(wire + "A: ", "\r\n\r\n", size);
     },
     42, HTTP_MSG_LARGE_HEAD, "http-me[x]head is longer than "},
    {"Headers", &HttpMessage::headerLimit,
     [](size_t count) {
       std::string wire = "GET / HTTP/1.1\r\nHost: x\r\n";
       for (size_t header = 1; header < count; ++header) wire += "A: b\r\n";
       return wire + "\r\n";
     },
     1, HTTP_MSG_MANY_HEADERS, "http-me[x]head has more than "},
};

class MessageLimit : public ::testing::TestWithParam<LimitCase> {};
INSTANTIATE_TEST_SUITE_P(Strict, MessageLimit, ::testing::ValuesIn(kLimits),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(MessageLimit, IsExact) {
  const auto& [name, limit, wire, least, reason, text] = GetParam();
  for (const uint32_t most : {least, least + 1, 100u, 511u, 512u, 513u, 1024u, 2000u})
    for (const bool strict : {false, true})
      for (const Arrival arrival : kArrivals)
        for (const uint32_t amount : {most - 1, most, most + 1, 2 * most}) {
          if (amount < least) continue;
          SCOPED_TRACE(std::to_string(amount) + " of " + std::to_string(most) + (strict ? ", strict" : ""));
          const TraceCapture trace;
          const auto input = arriving(wire(amount), arrival);
          const RequestPtr request(http_requestCreate());
          request->message.*limit = most;
          request->message.strict = strict;
          EXPECT_EQ(parseHead(&request->message, *input), amount <= most ? HTTP_MSG_ACCEPTED : reason);
          EXPECT_EQ(trace.countStarting(text), amount <= most ? 0u : 1u);
        }
}

TEST_P(MessageLimit, IsOffWhenZero) {
  const TraceCapture trace;
  ScriptInput input(GetParam().wire(20000));
  const RequestPtr request(http_requestCreate());
  EXPECT_EQ(parseHead(&request->message, input), HTTP_MSG_ACCEPTED);
}

// Nothing is kept of one message for the next.
TEST_P(MessageLimit, HoldsForEachMessage) {
  const auto& [name, limit, wire, least, reason, text] = GetParam();
  const TraceCapture trace;
  ScriptInput input(wire(60) + wire(60) + wire(61));
  const RequestPtr request(http_requestCreate());
  request->message.*limit = 60;
  EXPECT_EQ(parseHead(&request->message, input), HTTP_MSG_ACCEPTED);
  http_requestReset(request.get());
  EXPECT_EQ(parseHead(&request->message, input), HTTP_MSG_ACCEPTED);
  http_requestReset(request.get());
  EXPECT_EQ(parseHead(&request->message, input), reason);
}

// The byte that is too many is the last one that is taken: nobody waits for the end of the line.
TEST(MessageLimit, LineThatDoesNotEnd) {
  const TraceCapture trace;
  ScriptInput input;
  input.trickle("GET /" + std::string(1000, 'a'));
  const RequestPtr request(http_requestCreate());
  request->message.lineLimit = 100;
  EXPECT_EQ(parseHead(&request->message, input), HTTP_MSG_LONG_LINE);
  EXPECT_EQ(input.pending(), 1005u - 101u);
}

TEST(MessageLimit, HeaderThatDoesNotEnd) {
  const TraceCapture trace;
  ScriptInput input;
  input.trickle("GET / HTTP/1.1\r\nA: " + std::string(1000, 'a'));
  const RequestPtr request(http_requestCreate());
  request->message.headLimit = 100;
  EXPECT_EQ(parseHead(&request->message, input), HTTP_MSG_LARGE_HEAD);
  EXPECT_EQ(input.pending(), 1019u - 101u);
}

// Control bytes that are dropped are not kept, however many there are; strictly they count.
TEST(MessageLimit, LineOfControlBytes) {
  const TraceCapture trace;
  ScriptInput input;
  input.trickle(std::string(1000, '\x01'));
  const RequestPtr request(http_requestCreate());
  request->message.lineLimit = 100;
  request->message.strict = 1;
  EXPECT_EQ(parseHead(&request->message, input), HTTP_MSG_LONG_LINE);
}

struct BodyCase {
  const char* name;
  std::string (*wire)(const std::string& body);
};
void PrintTo(const BodyCase& row, std::ostream* out) { *out << row.name; }

std::string inChunks(const std::string& body, size_t size) {
  std::string wire;
  std::array<char, 16> line{};
  for (size_t at = 0; at < body.size(); at += size) {
    const std::string part = body.substr(at, size);
    snprintf(line.data(), line.size(), "%zx\r\n", part.size());
    wire += line.data() + part + "\r\n";
  }
  return wire + "0\r\n\r\n";
}

const BodyCase kBodies[] = {
    {"Length",
     [](const std::string& body) {
       return "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
     }},
    {"Multipart",
     [](const std::string& body) {
       return "POST / HTTP/1.1\r\nHost: x\r\nContent-Type: multipart/form-data; boundary=b\r\nContent-Length: " +
              std::to_string(body.size()) + "\r\n\r\n" + body;
     }},
    {"OneChunk", [](const std::string& body) { return kChunkedHead + inChunks(body, body.size()); }},
    {"ChunksOfOne", [](const std::string& body) { return kChunkedHead + inChunks(body, 1); }},
    {"Chunks", [](const std::string& body) { return kChunkedHead + inChunks(body, 100); }},
};

class BodyLimit : public ::testing::TestWithParam<BodyCase> {};
INSTANTIATE_TEST_SUITE_P(Strict, BodyLimit, ::testing::ValuesIn(kBodies),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(BodyLimit, IsExact) {
  for (const size_t most : {1u, 2u, 100u, 1000u, 1024u, 4096u, 5000u})
    for (const Arrival arrival : kArrivals)
      for (const size_t amount : {most - 1, most, most + 1, 3 * most}) {
        // A multipart body waits for what is on its way.
        const bool waits = GetParam().name == "Multipart"s;
        if (amount == 0 || (arrival == kOctetByOctet && (most > 1024 || waits))) continue;
        SCOPED_TRACE(std::to_string(amount) + " of " + std::to_string(most) + (arrival == kAtOnce ? "" : ", octets"));
        const TraceCapture trace;
        const std::string body(amount, 'b');
        const auto input = arriving(GetParam().wire(body), arrival);
        const RequestPtr request(http_requestCreate());
        request->message.bodyLimit = most;
        ASSERT_EQ(parseHead(&request->message, *input), HTTP_MSG_ACCEPTED);
        const Outcome outcome = readBody(&request->message, *input);
        EXPECT_EQ(outcome.refusal, amount <= most ? HTTP_MSG_ACCEPTED : HTTP_MSG_LARGE_BODY);
        EXPECT_EQ(outcome.state, amount <= most ? HTTP_MSG_DONE : HTTP_MSG_FAILED);
        EXPECT_LE(outcome.body.size(), most);
        if (amount <= most) {
          EXPECT_EQ(outcome.body, body);
        }
        EXPECT_EQ(trace.countStarting("http-bo[x]body is longer than "), amount <= most ? 0u : 1u);
      }
}

TEST_P(BodyLimit, IsOffWhenZero) {
  const TraceCapture trace;
  const std::string body(20000, 'b');
  ScriptInput input(GetParam().wire(body));
  const RequestPtr request(http_requestCreate());
  ASSERT_EQ(parseHead(&request->message, input), HTTP_MSG_ACCEPTED);
  const Outcome outcome = readBody(&request->message, input);
  EXPECT_EQ(outcome.body, body);
  EXPECT_EQ(outcome.state, HTTP_MSG_DONE);
}

TEST_P(BodyLimit, HoldsForEachMessage) {
  const TraceCapture trace;
  const std::string body(100, 'b');
  ScriptInput input(GetParam().wire(body) + GetParam().wire(body));
  const RequestPtr request(http_requestCreate());
  request->message.bodyLimit = 100;
  for (int message = 0; message < 2; ++message) {
    ASSERT_EQ(parseHead(&request->message, input), HTTP_MSG_ACCEPTED);
    EXPECT_EQ(readBody(&request->message, input).body, body);
    http_requestReset(request.get());
  }
}

// What is read a second time has not come a second time.
TEST(BodyLimit, BytesReadAgainCountOnce) {
  const TraceCapture trace;
  const std::string body(100, 'b');
  ScriptInput input(kBodies[1].wire(body));
  const RequestPtr request(http_requestCreate());
  request->message.bodyLimit = 100;
  ASSERT_EQ(parseHead(&request->message, input), HTTP_MSG_ACCEPTED);
  FILE* const stream = http_msgBody(&request->message);
  ASSERT_NE(stream, nullptr);
  setvbuf(stream, nullptr, _IONBF, 0);
  std::array<char, 100> block{};
  ASSERT_EQ(fread(block.data(), 1, 60, stream), 60u);
  ASSERT_EQ(fseek(stream, -50, SEEK_CUR), 0);
  EXPECT_EQ(fread(block.data(), 1, 90, stream), 90u);
  EXPECT_EQ(request->message.refusal, HTTP_MSG_ACCEPTED);
  fclose(stream);
}

// A body that is dropped counts as well.
TEST_P(BodyLimit, HoldsForWhatIsDropped) {
  const TraceCapture trace;
  for (const size_t amount : {1000u, 1001u}) {
    ScriptInput input(GetParam().wire(std::string(amount, 'b')));
    const RequestPtr request(http_requestCreate());
    request->message.bodyLimit = 1000;
    ASSERT_EQ(parseHead(&request->message, input), HTTP_MSG_ACCEPTED);
    EXPECT_EQ(http_msgBodyDiscard(&request->message), amount == 1000 ? 0 : -1);
    EXPECT_EQ(request->message.refusal, amount == 1000 ? HTTP_MSG_ACCEPTED : HTTP_MSG_LARGE_BODY);
  }
}

}  // namespace
