#include <gtest/gtest.h>
#include <krohttp/body.h>
#include <krohttp/message.h>
#include <krohttp/reply.h>
#include <krohttp/request.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/messages.h"
#include "support/script_stream.h"
#include "support/trace_capture.h"

namespace {

using namespace std::string_literals;

// A message to be read, of either type, on the heap in its exact size.
class Incoming {
 public:
  explicit Incoming(HttpMessageType type) {
    if (type == HTTP_MSG_REQUEST) {
      request_.reset(http_requestCreate());
    } else {
      reply_.reset(http_replyCreate());
    }
    http_msgModeSet(message(), HTTP_MSG_READING);
  }
  Incoming(HttpMessageType type, FILE* stream) : Incoming(type) { http_msgStreamSet(message(), stream); }

  HttpMessage* message() { return request_ ? &request_->message : &reply_->message; }
  HttpRequest* request() { return request_.get(); }
  HttpReply* reply() { return reply_.get(); }

  // What the head says: "done GET /a?b 1.1 [Host=x]", "body 404 Not Found 1.1 [A=b][C=d]".
  std::string describe() {
    std::string text = message()->state == HTTP_MSG_DONE   ? "done"
                       : message()->state == HTTP_MSG_BODY ? "body" + std::to_string(message()->bodyType)
                                                           : "state " + std::to_string(message()->state);
    if (request_) {
      text += " "s + http_requestMethodString(request()) + " " + http_requestPath(request());
      if (request_->uri.queryLength > 0) text += "?"s + http_uriQueryString(&request_->uri);
    } else {
      text += " " + std::to_string(reply_->statusCode) + " " + reply_->reason;
    }
    text += " " + std::to_string(message()->versionMajor) + "." + std::to_string(message()->versionMinor) + " ";
    const char* name = nullptr;
    const char* value = nullptr;
    http_msgHeadersReset(message());
    while (http_msgHeadersNext(message(), &name, &value) == 0) text += "["s + name + "=" + value + "]";
    return text;
  }

 private:
  RequestPtr request_;
  ReplyPtr reply_;
};

// What every message looks like whose head was refused, or ended early.
void expectReset(Incoming& incoming) {
  const HttpMessage& message = *incoming.message();
  EXPECT_EQ(message.state, 0);
  EXPECT_EQ(message.buffer, nullptr);
  EXPECT_EQ(message.bufferSize, 0u);
  EXPECT_EQ(message.fill, 0u);
  EXPECT_EQ(message.lineEnd, 0u);
  EXPECT_EQ(message.lineStart, 0u);
  EXPECT_EQ(message.headersEnd, 0u);
  EXPECT_EQ(message.firstHeader, nullptr);
  EXPECT_EQ(message.headersLimit, nullptr);
  EXPECT_EQ(message.versionMajor, 0);
  EXPECT_EQ(message.versionMinor, 0);
  if (incoming.request() != nullptr) {
    EXPECT_EQ(http_requestPath(incoming.request()), nullptr);
  } else {
    EXPECT_EQ(incoming.reply()->reason, nullptr);
  }
  const char* name = nullptr;
  const char* value = nullptr;
  EXPECT_EQ(http_msgHeadersNext(incoming.message(), &name, &value), -1);
  EXPECT_EQ(http_msgHeaderValue(incoming.message(), "Host"), nullptr);
}

const char* const kRefusals[] = {"accepted", "first line", "version", "method", "target", "header"};

// Parses until the head is complete or refused, and releases what is held each time more is needed.
std::string parse(Incoming& incoming, ScriptInput& input, int* lines = nullptr) {
  const SpinGuard guard;
  HttpMessage* const message = incoming.message();
  int taken = 0;
  for (int call = 0; call < 10000; ++call) {
    if (http_msgParse(message) != 0) {
      expectReset(incoming);
      EXPECT_LT(message->refusal, std::size(kRefusals));
      if (lines != nullptr) *lines = taken + 1;
      return message->refusal == HTTP_MSG_ACCEPTED ? "ended" : "refused: "s + kRefusals[message->refusal];
    }
    if (message->needMoreData != 0) {
      clearerr(input.stream());
      input.release();
      continue;
    }
    ++taken;
    if (message->state >= HTTP_MSG_BODY) {
      EXPECT_EQ(message->refusal, HTTP_MSG_ACCEPTED);
      if (lines != nullptr) *lines = taken;
      return incoming.describe();
    }
  }
  return "no end";
}

// --- heads -----------------------------------------------------------------------------------------------------------

struct HeadCase {
  const char* name;
  HttpMessageType type;
  std::string wire;
  std::string outcome;
};
void PrintTo(const HeadCase& row, std::ostream* out) { *out << row.name; }

class MessageHead : public ::testing::TestWithParam<HeadCase> {
  const TraceCapture quiet_;
};

// How many octets the parser has seen when it is through with this many lines.
size_t octetsOf(std::string_view wire, int lines) {
  size_t at = 0;
  for (; lines > 0 && at < wire.size(); --lines) at = wire.find('\n', at) + 1;
  return at;
}

TEST_P(MessageHead, AtOnce) {
  ScriptInput input(GetParam().wire);
  Incoming incoming(GetParam().type, input.stream());
  EXPECT_EQ(parse(incoming, input), GetParam().outcome);
  EXPECT_EQ(incoming.message()->type, GetParam().type);
}

TEST_P(MessageHead, SameOutcomeWhereverTheWireIsCut) {
  const std::string_view wire = GetParam().wire;
  for (size_t cut = 0; cut <= wire.size(); ++cut) {
    SCOPED_TRACE("cut at octet " + std::to_string(cut));
    ScriptInput input;
    input.bytes(wire.substr(0, cut)).hold().bytes(wire.substr(cut));
    Incoming incoming(GetParam().type, input.stream());
    EXPECT_EQ(parse(incoming, input), GetParam().outcome);
  }
}

TEST_P(MessageHead, SameOutcomeOctetByOctet) {
  ScriptInput input;
  input.trickle(GetParam().wire);
  Incoming incoming(GetParam().type, input.stream());
  EXPECT_EQ(parse(incoming, input), GetParam().outcome);
}

TEST_P(MessageHead, EndOfStreamAnywhereBeforeTheOutcomeEndsIt) {
  const std::string_view wire = GetParam().wire;
  int lines = 0;
  {
    ScriptInput input(wire);
    Incoming incoming(GetParam().type, input.stream());
    parse(incoming, input, &lines);
  }
  const size_t needed = octetsOf(wire, lines);
  for (size_t cut = 0; cut <= wire.size(); ++cut) {
    SCOPED_TRACE("end at octet " + std::to_string(cut));
    ScriptInput input(wire.substr(0, cut));
    input.staleErrno(EAGAIN);
    Incoming incoming(GetParam().type, input.stream());
    errno = EAGAIN;
    EXPECT_EQ(parse(incoming, input), cut < needed ? "ended" : GetParam().outcome);
  }
}

TEST_P(MessageHead, ReadErrorAnywhereBeforeTheOutcomeEndsIt) {
  const std::string_view wire = GetParam().wire;
  int lines = 0;
  {
    ScriptInput input(wire);
    Incoming incoming(GetParam().type, input.stream());
    parse(incoming, input, &lines);
  }
  for (size_t cut = 0; cut < octetsOf(wire, lines); ++cut) {
    SCOPED_TRACE("error at octet " + std::to_string(cut));
    ScriptInput input;
    input.bytes(wire.substr(0, cut)).error(ECONNRESET).bytes(wire.substr(cut));
    Incoming incoming(GetParam().type, input.stream());
    TraceCapture trace;
    EXPECT_EQ(parse(incoming, input), "ended");
    EXPECT_EQ(trace.errors(), TraceLines({"http-me[x]unable to parse message (socket -1): Connection reset by peer"}));
  }
}

TEST_P(MessageHead, AnObjectThatWasUsedBeforeTakesItAsWell) {
  ScriptInput input;
  Incoming incoming(GetParam().type, input.stream());
  const bool isRequest = GetParam().type == HTTP_MSG_REQUEST;
  input.bytes(isRequest ? "GET /first?x HTTP/1.0\r\nX-First: 1\r\nHost: first\r\n\r\n"
                        : "HTTP/1.0 404 Never There\r\nX-First: 1\r\nHost: first\r\n\r\n");
  input.hold().bytes(isRequest ? "nonsense\r\n" : "HTTP/1.1 200\r\n").hold().bytes(GetParam().wire);
  ASSERT_EQ(parse(incoming, input), isRequest ? "done GET /first?x 1.0 [X-First=1][Host=first]"
                                              : "body3 404 Never There 1.0 [X-First=1][Host=first]");
  http_msgReset(incoming.message());
  ASSERT_EQ(parse(incoming, input), "refused: first line");
  EXPECT_EQ(parse(incoming, input), GetParam().outcome);
}

constexpr HttpMessageType kRequest = HTTP_MSG_REQUEST;
constexpr HttpMessageType kReply = HTTP_MSG_REPLY;

INSTANTIATE_TEST_SUITE_P(
    Requests, MessageHead,
    ::testing::Values(
        HeadCase{"Plain", kRequest, "GET /index.html HTTP/1.1\r\n\r\n", "done GET /index.html 1.1 "},
        HeadCase{"WithHeaders", kRequest, "GET /a%20b?q=1&r HTTP/1.1\r\nHost: x\r\nX-Thing: a\r\n\r\n",
                 "done GET /a b?q=1&r 1.1 [Host=x][X-Thing=a]"},
        HeadCase{"OldVersion", kRequest, "HEAD / HTTP/1.0\r\n\r\n", "done HEAD / 1.0 "},
        HeadCase{"AnyWordBeforeTheSlash", kRequest, "GET / FOO/1.0\r\n\r\n", "done GET / 1.0 "},
        HeadCase{"NothingBeforeTheSlash", kRequest, "GET / /1.0\r\n\r\n", "done GET / 1.0 "},
        HeadCase{"MinorThatIsNoNumber", kRequest, "GET / HTTP/2.x\r\n\r\n", "done GET / 2.0 "},
        HeadCase{"VersionWithMoreBehind", kRequest, "GET / HTTP/1.1.7z\r\n\r\n", "done GET / 1.1 "},
        HeadCase{"VersionsHaveEightBits", kRequest, "GET / HTTP/257.258\r\n\r\n", "done GET / 1.2 "},
        HeadCase{"BlanksBeforeTheVersionNumber", kRequest, "GET / HTTP/ 1. 1\r\n\r\n", "done GET / 1.1 "},
        HeadCase{"BlanksInTheVersionWord", kRequest, "GET / x HTTP/1.1\r\n\r\n", "done GET / 1.1 "},
        HeadCase{"AbsoluteTarget", kRequest, "GET http://host/p HTTP/1.1\r\n\r\n", "done GET //host/p 1.1 "},
        HeadCase{"BareLineFeedTakesAnOctetOfTheVersion", kRequest, "GET / HTTP/1.11\nHost: xy\n\n",
                 "done GET / 1.1 [Host=x]"},
        HeadCase{"LargeHead", kRequest,
                 "GET /" + std::string(700, 'p') + " HTTP/1.1\r\nHost: " + std::string(600, 'h') +
                     "\r\nX-Y: " + std::string(1200, 'y') + "\r\n\r\n",
                 "done GET /" + std::string(700, 'p') + " 1.1 [Host=" + std::string(600, 'h') +
                     "][X-Y=" + std::string(1200, 'y') + "]"},

        HeadCase{"NothingButALineEnd", kRequest, "\r\n", "refused: first line"},
        HeadCase{"OneWord", kRequest, "GET\r\n", "refused: first line"},
        HeadCase{"TwoWords", kRequest, "GET /\r\n", "refused: first line"},
        HeadCase{"EmptyVersion", kRequest, "GET / \r\n", "refused: version"},
        HeadCase{"TwoBlanks", kRequest, "GET  / HTTP/1.1\r\n", "refused: version"},
        HeadCase{"VersionWithoutSlash", kRequest, "GET / HTTP1.1\r\n", "refused: version"},
        HeadCase{"VersionWithoutDot", kRequest, "GET / HTTP/1\r\n", "refused: version"},
        HeadCase{"MajorZero", kRequest, "GET / HTTP/0.9\r\n", "refused: version"},
        HeadCase{"MajorMissing", kRequest, "GET / HTTP/.1\r\n", "refused: version"},
        HeadCase{"MajorThatIsNoNumber", kRequest, "GET / HTTP/x.1\r\n", "refused: version"},
        HeadCase{"MajorZeroInEightBits", kRequest, "GET / HTTP/256.1\r\n", "refused: version"},
        HeadCase{"MethodInLowerCase", kRequest, "get / HTTP/1.1\r\n", "refused: method"},
        HeadCase{"MethodOutsideTheTable", kRequest, "PATCH / HTTP/1.1\r\n", "refused: method"},
        HeadCase{"MethodThatStandsForNone", kRequest, "AERROR / HTTP/1.1\r\n", "refused: method"},
        HeadCase{"NoMethod", kRequest, " / HTTP/1.1\r\n", "refused: method"},
        HeadCase{"TargetWithoutSlash", kRequest, "GET * HTTP/1.1\r\n", "refused: target"},
        HeadCase{"NoTarget", kRequest, "GET  HTTP/1.1\r\n", "refused: target"},
        HeadCase{"VersionIsReadFirst", kRequest, "FOO * HTTP/0.9\r\n", "refused: version"},
        HeadCase{"MethodIsReadBeforeTheTarget", kRequest, "FOO * HTTP/1.1\r\n", "refused: method"},
        HeadCase{"StatusLine", kRequest, "HTTP/1.1 200 OK\r\n\r\n", "refused: first line"},
        HeadCase{"MethodThatBeginsLikeAStatusLine", kRequest, "HTTPS / HTTP/1.1\r\n\r\n", "refused: first line"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Replies, MessageHead,
    ::testing::Values(HeadCase{"Plain", kReply, "HTTP/1.1 200 OK\r\n\r\n", "body3 200 OK 1.1 "},
                      HeadCase{"ReasonOfTwoWords", kReply, "HTTP/1.1 404 Not Found\r\nServer: kro\r\n\r\n",
                               "body3 404 Not Found 1.1 [Server=kro]"},
                      HeadCase{"EmptyReason", kReply, "HTTP/1.0 200 \r\n\r\n", "body3 200  1.0 "},
                      HeadCase{"BlanksAroundTheReason", kReply, "HTTP/1.0 200  a  b \r\n\r\n", "body3 200  a  b  1.0 "},
                      HeadCase{"StatusThatIsNoNumber", kReply, "HTTP/1.1 abc OK\r\n\r\n", "body3 0 OK 1.1 "},
                      HeadCase{"StatusWithMoreBehind", kReply, "HTTP/1.1 404x OK\r\n\r\n", "body3 404 OK 1.1 "},
                      HeadCase{"NoContent", kReply, "HTTP/1.1 204 No Content\r\n\r\n", "body3 204 No Content 1.1 "},
                      HeadCase{"NotModified", kReply, "HTTP/1.1 304 Not Modified\r\n\r\n",
                               "body3 304 Not Modified 1.1 "},
                      HeadCase{"BeginsLikeAStatusLine", kReply, "HTTPS/1.1 200 OK\r\n\r\n", "body3 200 OK 1.1 "},
                      HeadCase{"EmptyBody", kReply, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n",
                               "done 200 OK 1.1 [Content-Length=0]"},

                      HeadCase{"NoReason", kReply, "HTTP/1.1 200\r\n\r\n", "refused: first line"},
                      HeadCase{"OneWord", kReply, "HTTP/1.1\r\n", "refused: first line"},
                      HeadCase{"NothingButALineEnd", kReply, "\r\n", "refused: first line"},
                      HeadCase{"MajorZero", kReply, "HTTP/0.9 200 OK\r\n\r\n", "refused: version"},
                      HeadCase{"VersionWithoutDot", kReply, "HTTP/1 200 OK\r\n\r\n", "refused: version"},
                      HeadCase{"VersionWithoutSlash", kReply, "HTTP 200 OK\r\n\r\n", "refused: version"},
                      HeadCase{"RequestLine", kReply, "GET / HTTP/1.1\r\n\r\n", "refused: first line"},
                      HeadCase{"StatusLineInLowerCase", kReply, "http/1.1 200 OK\r\n\r\n", "refused: first line"}),
    [](const auto& row) { return row.param.name; });

HeadCase headerCase(const char* name, const std::string& lines, const std::string& outcome) {
  return {name, kRequest, "GET / HTTP/1.1\r\n" + lines + "\r\n",
          outcome == "refused" ? "refused: header" : "done GET / 1.1 " + outcome};
}

INSTANTIATE_TEST_SUITE_P(
    Headers, MessageHead,
    ::testing::Values(
        headerCase("AnyCaseOfAKnownName", "content-LENGTH:   0  \r\n", "[Content-Length=0]"),
        headerCase("TableSpelling", "etag: \"x\"\r\nwww-authenticate: y\r\n", "[ETAG=\"x\"][WWW-Authenticate=y]"),
        headerCase("CustomNameKeepsItsCase", "x-tHING: a\r\n", "[x-tHING=a]"),
        headerCase("NotMerged", "Set-Cookie: a=1\r\nHost: x\r\nset-cookie: b=2\r\n",
                   "[Set-Cookie=a=1][Host=x][Set-Cookie=b=2]"),
        headerCase("BlanksBeforeTheName", "  Host: x\r\n", "[Host=x]"),
        headerCase("TabsAround", "\tHost:\tx\t\r\n", "[Host=x]"),
        headerCase("NoBlankBehindTheColon", "Host:x\r\nX:y\r\n", "[Host=x][X=y]"),
        headerCase("BlankBeforeTheColon", "Host : x\r\n", "[Host =x]"),
        headerCase("BlanksInsideTheValue", "Host: a \t b\t \r\n", "[Host=a \t b]"),
        headerCase("ColonsInTheValue", "Host: a:80:\r\n", "[Host=a:80:]"),
        headerCase("ValueThatIsAColon", "Host::\r\nX::\r\n", "[Host=:][X=:]"),
        headerCase("NameThatIsAColon", ":: x\r\n", "[:=x]"),
        headerCase("NameThatBeginsWithAColon", ": a: x\r\n", "[: a=x]"),
        headerCase("OneCharacterEach", "X: y\r\nA:b\r\n", "[X=y][A=b]"),
        headerCase("HighBytes", "X-\xc3\xa4: \xff\x80\r\n", "[X-\xc3\xa4=\xff\x80]"),
        headerCase("PercentSigns", "X-%s%n%d: 100%\r\n", "[X-%s%n%d=100%]"),
        headerCase("FirstSentinelIsCustom", "AAAA-----ERROR: x\r\naaaa-----error: y\r\nHost: z\r\n",
                   "[AAAA-----ERROR=x][aaaa-----error=y][Host=z]"),
        headerCase("LastSentinelIsCustom", "ZZZZ------CUSTOM: x\r\nZzZz------Custom: y\r\nHost: z\r\n",
                   "[ZZZZ------CUSTOM=x][ZzZz------Custom=y][Host=z]"),
        headerCase("BareLineFeed", "X:ab\nHost: cd\nY: e\r\n", "[X=a][Host=c][Y=e]"),
        headerCase("ControlsAreDropped", "H\x01o\x02st: \x03x\r\n", "[Host=x]"),

        headerCase("NoColon", "Host\r\n", "refused"), headerCase("OneCharacter", "H\r\n", "refused"),
        headerCase("NoValue", "Accept:\r\n", "refused"), headerCase("BlankValue", "Accept: \t \r\n", "refused"),
        headerCase("ValueTakenByABareLineFeed", "Accept: x\n", "refused"), headerCase("NoName", ": x\r\n", "refused"),
        headerCase("OnlyBlanks", " \t \r\n", "refused"), headerCase("OneBlank", " \r\n", "refused"),
        headerCase("OneColon", ":\r\n", "refused"), headerCase("TwoColons", "::\r\n", "refused"),
        headerCase("Folded", "Host: x\r\n y\r\n", "refused"),
        headerCase("BehindAGoodOne", "Host: x\r\nX: y\r\nbad\r\n", "refused")),
    [](const auto& row) { return row.param.name; });

TEST(MessageParse, EveryKnownHeaderIsStoredUnderItsCode) {
  for (int code = 1; code < HTTP_HEADER_CUSTOM; ++code) {
    std::string name = prot_headerString(code);
    SCOPED_TRACE(name);
    for (const bool upper : {false, true}) {
      for (char& letter : name) letter = static_cast<char>(upper ? toupper(letter) : tolower(letter));
      ScriptInput input("HTTP/1.1 200 OK\r\n" + name + ": 1\r\nX: y\r\n\r\n");
      Incoming incoming(kReply, input.stream());
      ASSERT_EQ(http_msgParse(incoming.message()), 0);
      ASSERT_EQ(http_msgParse(incoming.message()), 0);
      ASSERT_EQ(http_msgParse(incoming.message()), 0);
      const HttpMessage& message = *incoming.message();
      const std::string entries(message.firstHeader, message.headersLimit);
      EXPECT_EQ(entries, static_cast<char>(code) + "1\0\x34X\0y\0"s);

      int found = 0;
      const char* foundName = nullptr;
      const char* value = nullptr;
      ASSERT_EQ(msg_headersNext(incoming.message(), &found, &foundName, &value), 0);
      EXPECT_EQ(found, code);
      EXPECT_STREQ(foundName, prot_headerString(code));
      EXPECT_STREQ(value, "1");
    }
  }
}

TEST(MessageParse, EntriesAreCompact) {
  ScriptInput input(
      "GET / HTTP/1.1\r\n content-length:   12  \r\nX-Thing: a\r\nSet-Cookie: a=1\r\nset-cookie: b=2\r\nY:z\r\n\r\n");
  Incoming incoming(kRequest, input.stream());
  for (int line = 0; line < 7; ++line) ASSERT_EQ(http_msgParse(incoming.message()), 0);
  const HttpMessage& message = *incoming.message();
  EXPECT_EQ(std::string(message.firstHeader, message.headersLimit),
            "\x0e"
            "12\0\x34X-Thing\0a\0\x29"
            "a=1\0\x29"
            "b=2\0\x34Y\0z\0"s);
  EXPECT_EQ(message.firstHeader, message.buffer + sizeof("GET / HTTP/1.1\r"));
  EXPECT_EQ(message.headersLimit, message.buffer + message.headersEnd);
}

// --- one call --------------------------------------------------------------------------------------------------------

TEST(MessageParse, TakesAtMostOneLineACall) {
  ScriptInput input("POST /p HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nabcGET");
  Incoming incoming(kRequest, input.stream());
  HttpMessage* const message = incoming.message();
  TraceCapture trace{"http-message"};

  EXPECT_EQ(http_msgParse(message), 0);
  EXPECT_EQ(message->state, 1);
  EXPECT_EQ(message->headersEnd, message->fill);
  EXPECT_EQ(message->firstHeader, message->buffer + message->fill);
  EXPECT_EQ(trace.said(),
            TraceLines({"http-me[i]growing message buffer", "http-me[i]parsing status line POST /p HTTP/1.1",
                        "http-me[n]next expected part is headers"}));
  trace.clear();

  EXPECT_EQ(http_msgParse(message), 0);
  EXPECT_EQ(message->state, 1);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[i]parsing header line Host: x"}));
  trace.clear();

  EXPECT_EQ(http_msgParse(message), 0);
  EXPECT_EQ(message->state, 1);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[i]parsing header line Content-Length: 3"}));
  trace.clear();

  EXPECT_EQ(http_msgParse(message), 0);
  EXPECT_EQ(message->state, 2);
  EXPECT_EQ(message->bodyType, HTTP_BODY_CONTENT_LENGTH);
  EXPECT_EQ(trace.said(KROTRACE_NOTICE), TraceLines({"http-me[n]next expected part is body"}));
  EXPECT_EQ(input.rest(), "abcGET") << "the body is not touched";
}

TEST(MessageParse, AHeadWithoutBodyIsDone) {
  ScriptInput input("GET / HTTP/1.1\r\n\r\n");
  Incoming incoming(kRequest, input.stream());
  TraceCapture trace{"http-message"};
  ASSERT_EQ(http_msgParse(incoming.message()), 0);
  trace.clear();
  EXPECT_EQ(http_msgParse(incoming.message()), 0);
  EXPECT_EQ(trace.said(KROTRACE_NOTICE), TraceLines({"http-me[n]message is done"}));
  EXPECT_EQ(incoming.message()->state, 3);
  EXPECT_EQ(incoming.message()->bodyType, 1);
}

TEST(MessageParse, SaysWhenItNeedsMore) {
  ScriptInput input;
  input.bytes("GET / HT").hold();
  Incoming incoming(kRequest, input.stream());
  TraceCapture trace{"http-message"};
  EXPECT_EQ(http_msgParse(incoming.message()), 0);
  EXPECT_EQ(incoming.message()->needMoreData, 1);
  EXPECT_EQ(incoming.message()->state, 0);
  EXPECT_EQ(trace.said(),
            TraceLines({"http-me[i]growing message buffer", "http-me[i]message is not complete and we need more data",
                        "http-me[i]unable to parse message: more data is needed"}));
}

TEST(MessageParse, ACompleteMessageIsNotParsedAgain) {
  for (const int state : {2, 3, 4}) {
    SCOPED_TRACE(state);
    ScriptInput input("GET / HTTP/1.1\r\n");
    Incoming incoming(kRequest, input.stream());
    incoming.message()->state = state;
    TraceCapture trace{"http-message"};
    EXPECT_EQ(http_msgParse(incoming.message()), -1);
    EXPECT_EQ(trace.said(), TraceLines({"http-me[i]message already parsed"}));
    EXPECT_EQ(incoming.message()->state, state);
    EXPECT_EQ(input.rest(), "GET / HTTP/1.1\r\n");
  }
}

TEST(MessageParse, AFailedMessageStaysFailed) {
  ScriptInput input("GET / HTTP/1.1\r\n");
  Incoming incoming(kRequest, input.stream());
  char line[] = "nonsense";
  ASSERT_EQ(msg_parseStatusLine(incoming.message(), line), -1);
  ASSERT_EQ(incoming.message()->state, 5);
  TraceCapture trace{"http-message"};
  EXPECT_EQ(http_msgParse(incoming.message()), -1);
  EXPECT_EQ(http_msgParse(incoming.message()), -1);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to parse message: already failed",
                                      "http-me[x]unable to parse message: already failed"}));
  EXPECT_EQ(incoming.message()->state, 5);
  EXPECT_EQ(input.rest(), "GET / HTTP/1.1\r\n");
}

TEST(MessageParse, AnUnknownStateIsRefused) {
  ScriptInput input("GET / HTTP/1.1\r\n");
  Incoming incoming(kRequest, input.stream());
  incoming.message()->state = -1;
  TraceCapture trace;
  EXPECT_EQ(http_msgParse(incoming.message()), -1);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unknown error"}));
}

TEST(MessageParse, RefusalsAreTraced) {
  const struct {
    const char* name;
    HttpMessageType type;
    std::string wire;
    TraceLines errors;
  } kRefused[] = {
      {"one word", kRequest, "GET\r\n", {"http-me[x]unable to read status line: parse error"}},
      {"two words", kRequest, "GET /\r\n", {"http-me[x]unable to read status line: parse error"}},
      {"status line", kRequest, "HTTP/1.1 200 OK\r\n", {"http-me[x]unable to read status line: parse error"}},
      {"request line", kReply, "GET / HTTP/1.1\r\n", {"http-me[x]unable to read status line: parse error"}},
      {"method", kRequest, "FOO / HTTP/1.1\r\n", {"http-re[x]unknown method: FOO"}},
      {"target", kRequest, "GET * HTTP/1.1\r\n", {"http-ur[x]invalid url *"}},
      {"header", kRequest, "GET / HTTP/1.1\r\nbad\r\n", {"http-me[x]unable to read header line: parse error"}},
      {"no value", kRequest, "GET / HTTP/1.1\r\nAccept:\r\n", {"http-me[x]unable to read header line: parse error"}},
      {"blanks", kRequest, "GET / HTTP/1.1\r\n  \r\n", {"http-me[x]unable to read header line: parse error"}},
  };
  for (const auto& row : kRefused) {
    SCOPED_TRACE(row.name);
    ScriptInput input(row.wire);
    Incoming incoming(row.type, input.stream());
    TraceCapture trace;
    parse(incoming, input);
    EXPECT_EQ(trace.said(), row.errors);
  }
}

// The iteration must not go on in a buffer that is gone.
TEST(MessageParse, ARefusalEndsARunningIteration) {
  ScriptInput input("GET / HTTP/1.1\r\nHost: x\r\nX: y\r\nbad\r\n");
  Incoming incoming(kRequest, input.stream());
  HttpMessage* const message = incoming.message();
  for (int line = 0; line < 3; ++line) ASSERT_EQ(http_msgParse(message), 0);
  const char* name = nullptr;
  const char* value = nullptr;
  ASSERT_EQ(http_msgHeadersNext(message, &name, &value), 0);
  ASSERT_EQ(http_msgParse(message), -1);
  EXPECT_EQ(http_msgHeadersNext(message, &name, &value), -1);
  EXPECT_EQ(http_msgHeadersNext(message, &name, &value), -1);
}

TEST(MessageParse, ARefusalDropsARunningParameterIteration) {
  ScriptInput input("GET /?a=b&c=d HTTP/1.1\r\nbad\r\n");
  Incoming incoming(kRequest, input.stream());
  ASSERT_EQ(http_msgParse(incoming.message()), 0);
  char* name = nullptr;
  char* value = nullptr;
  ASSERT_EQ(http_uriNextParameter(http_requestURI(incoming.request()), &name, &value), 0);
  ASSERT_EQ(http_msgParse(incoming.message()), -1);
  EXPECT_EQ(http_requestPath(incoming.request()), nullptr);
  http_uriResetParameterIterator(http_requestURI(incoming.request()));
  EXPECT_EQ(http_uriQueryString(http_requestURI(incoming.request())), nullptr);
}

// --- which body ------------------------------------------------------------------------------------------------------

struct BodyCase {
  const char* name;
  HttpMessageType type;
  std::string head;
  int state;
  int bodyType;
};
void PrintTo(const BodyCase& row, std::ostream* out) { *out << row.name; }

class MessageBodyKind : public ::testing::TestWithParam<BodyCase> {};

TEST_P(MessageBodyKind, IsKnownWhenTheHeadIsComplete) {
  ScriptInput input(GetParam().head + "\r\n");
  Incoming incoming(GetParam().type, input.stream());
  const TraceCapture trace;
  parse(incoming, input);
  EXPECT_EQ(incoming.message()->state, GetParam().state);
  EXPECT_EQ(incoming.message()->bodyType, GetParam().bodyType);
}

INSTANTIATE_TEST_SUITE_P(
    Table, MessageBodyKind,
    ::testing::Values(
        BodyCase{"Connect", kRequest, "CONNECT / HTTP/1.1\r\n", 2, 3},
        BodyCase{"Delete", kRequest, "DELETE / HTTP/1.1\r\n", 3, 1},
        BodyCase{"Get", kRequest, "GET / HTTP/1.1\r\n", 3, 1}, BodyCase{"Head", kRequest, "HEAD / HTTP/1.1\r\n", 3, 1},
        BodyCase{"Options", kRequest, "OPTIONS / HTTP/1.1\r\n", 3, 1},
        BodyCase{"Post", kRequest, "POST / HTTP/1.1\r\n", 2, 3}, BodyCase{"Put", kRequest, "PUT / HTTP/1.1\r\n", 2, 3},
        BodyCase{"Trace", kRequest, "TRACE / HTTP/1.1\r\n", 2, 3},
        BodyCase{"GetWithLength", kRequest, "GET / HTTP/1.1\r\nContent-Length: 1\r\n", 2, 2},
        BodyCase{"PostWithLengthZero", kRequest, "POST / HTTP/1.1\r\nContent-Length: 0\r\n", 3, 1},
        BodyCase{"GetChunked", kRequest, "GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n", 2, 4},
        BodyCase{"PostGzip", kRequest, "POST / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n", 2, 0},
        BodyCase{"Multipart", kRequest,
                 "POST / HTTP/1.1\r\nContent-Length: 0\r\nContent-Type: multipart/form-data; boundary=x\r\n", 2, 5},
        BodyCase{"Reply", kReply, "HTTP/1.1 200 OK\r\n", 2, 3},
        BodyCase{"NoContent", kReply, "HTTP/1.1 204 No Content\r\n", 2, 3},
        BodyCase{"NotModified", kReply, "HTTP/1.1 304 Not Modified\r\n", 2, 3},
        BodyCase{"ReplyWithLengthZero", kReply, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n", 3, 1}),
    [](const auto& row) { return row.param.name; });

TEST(MessageHasBody, AsksTheRequestOrTheReply) {
  const RequestPtr request(http_requestCreate());
  const bool kHasBody[HTTP_METHOD_COUNT] = {true, true, false, false, false, false, true, true, true};
  for (int method = 0; method < HTTP_METHOD_COUNT; ++method) {
    request->method = method;
    EXPECT_EQ(msg_hasBody(&request->message), kHasBody[method]) << method;
  }
  const ReplyPtr reply(http_replyCreate());
  for (const unsigned code : {0u, 100u, 200u, 204u, 304u, 404u}) {
    reply->statusCode = code;
    EXPECT_TRUE(msg_hasBody(&reply->message)) << code;
  }
}

TEST(MessageHasBody, OfAnotherTypeIsFalse) {
  for (const int type : {2, -1}) {
    HttpMessage message{};
    message.type = type;
    TraceCapture trace;
    EXPECT_FALSE(msg_hasBody(&message));
    EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unknown message type"}));
  }
}

// --- the first line --------------------------------------------------------------------------------------------------

TEST(MessageParseStatusLine, FillsTheRecordOfItsOwnTypeOnly) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    Incoming reply(kReply);
    reply.reply()->statusCode = 123;
    char requestLine[] = "GET /a-target-longer-than-the-record HTTP/1.1";
    TraceCapture trace;
    EXPECT_EQ(msg_parseStatusLine(reply.message(), requestLine), -1);
    EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to read status line: parse error"}));
    EXPECT_EQ(reply.message()->state, 5);
    EXPECT_EQ(reply.message()->type, HTTP_MSG_REPLY);
    EXPECT_EQ(reply.message()->refusal, HTTP_MSG_BAD_FIRST_LINE);
    EXPECT_EQ(reply.reply()->statusCode, 123u);
    EXPECT_EQ(reply.reply()->reason, nullptr);

    Incoming request(kRequest);
    request.request()->method = HTTP_METHOD_PUT;
    char statusLine[] = "HTTP/1.1 200 OK";
    trace.clear();
    EXPECT_EQ(msg_parseStatusLine(request.message(), statusLine), -1);
    EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to read status line: parse error"}));
    EXPECT_EQ(request.message()->state, 5);
    EXPECT_EQ(request.message()->type, HTTP_MSG_REQUEST);
    EXPECT_EQ(request.message()->refusal, HTTP_MSG_BAD_FIRST_LINE);
    EXPECT_EQ(request.request()->method, HTTP_METHOD_PUT);
    EXPECT_EQ(request.request()->uri.path, nullptr);
  }
}

struct VersionCase {
  const char* name;
  std::string word;
  int result;
  int major;
  int minor;
  TraceLines said;
};
void PrintTo(const VersionCase& row, std::ostream* out) { *out << row.name; }

class MessageVersion : public ::testing::TestWithParam<VersionCase> {};

TEST_P(MessageVersion, IsParsed) {
  const VersionCase& row = GetParam();
  std::string word = row.word;
  HttpMessage message{};
  TraceCapture trace;
  errno = 0;
  EXPECT_EQ(msg_parseVersion(&message, word.data()), row.result);
  if (row.result == 0) {
    EXPECT_EQ(message.versionMajor, row.major);
    EXPECT_EQ(message.versionMinor, row.minor);
  }
  EXPECT_EQ(trace.said(), row.said);
}

INSTANTIATE_TEST_SUITE_P(
    Table, MessageVersion,
    ::testing::Values(
        VersionCase{"OneOne", "HTTP/1.1", 0, 1, 1, {}}, VersionCase{"OneZero", "HTTP/1.0", 0, 1, 0, {}},
        VersionCase{"Two", "HTTP/2.x", 0, 2, 0, {}}, VersionCase{"OtherWord", "FOO/1.0", 0, 1, 0, {}},
        VersionCase{"NoWord", "/12.34", 0, 12, 34, {}}, VersionCase{"SecondSlash", "a/1/2.3", 0, 1, 3, {}},
        VersionCase{"NoMinor", "HTTP/1.", 0, 1, 0, {}}, VersionCase{"EightBits", "HTTP/511.512", 0, 255, 0, {}},
        VersionCase{"DotBeforeTheSlash", "H.T/1", -1, 0, 0, {"http-me[x]unable to parse http version H.T/1: Success"}},
        VersionCase{"NoSlash", "HTTP", -1, 0, 0, {"http-me[x]unable to parse http version HTTP: Success"}},
        VersionCase{"NoDot", "HTTP/1", -1, 0, 0, {"http-me[x]unable to parse http version HTTP/1: Success"}},
        VersionCase{"Empty", "", -1, 0, 0, {"http-me[x]unable to parse http version : Success"}},
        VersionCase{"MajorZero", "HTTP/0.9", -1, 0, 0, {"http-me[x]unable to parse http version HTTP/0: Success"}},
        VersionCase{"NoMajor", "HTTP/.9", -1, 0, 0, {"http-me[x]unable to parse http version HTTP/: Success"}}),
    [](const auto& row) { return row.param.name; });

// --- header lines, outgoing ------------------------------------------------------------------------------------------

TEST(MessageSetHeaderLine, StoresLikeAReceivedHeader) {
  const ReplyPtr reply(http_replyCreate());
  HttpMessage* const message = &reply->message;
  ASSERT_EQ(msg_setStatusLine(message, "HTTP/1.%d 200 OK", 1), 0);
  EXPECT_EQ(message->state, 1);
  EXPECT_EQ(msg_setHeaderLine(message, "%s: %s", "content-length", "12"), 0);
  EXPECT_EQ(msg_setHeaderLine(message, "X-Thing:%d", 7), 0);
  EXPECT_EQ(std::string(message->firstHeader, message->headersLimit),
            "\x0e"
            "12\0\x34X-Thing\0"
            "7\0"s);
  EXPECT_EQ(message->headersLimit, message->buffer + message->headersEnd);
}

TEST(MessageSetHeaderLine, RefusesWhatTheParserRefuses) {
  const struct {
    const char* line;
    TraceLines said;
  } kRefused[] = {
      {"Connection: ", {"http-me[x]unable to read header line: parse error", "http-me[x]unable to store header"}},
      {"nonsense", {"http-me[x]unable to read header line: parse error", "http-me[x]unable to store header"}},
      {"", {"http-me[x]unable to read header line: parse error", "http-me[x]unable to store header"}},
      {":x", {"http-me[x]unable to read header line: parse error", "http-me[x]unable to store header"}},
  };
  const ReplyPtr reply(http_replyCreate());
  ASSERT_EQ(msg_setStatusLine(&reply->message, "HTTP/1.1 200 OK"), 0);
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "Server: kro"), 0);
  for (const auto& row : kRefused) {
    SCOPED_TRACE(row.line);
    TraceCapture trace;
    EXPECT_EQ(msg_setHeaderLine(&reply->message, "%s", row.line), -1);
    EXPECT_EQ(trace.said(), row.said);
  }
  TraceCapture trace;
  EXPECT_EQ(msg_setHeaderLine(&reply->message, "X: %ls", L"\x7fffffff"), -1);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to set line: Invalid or incomplete multibyte or wide character",
                                      "http-me[x]unable to set header line"}));

  EXPECT_EQ(msg_setHeaderLine(&reply->message, "Age: 1"), 0);
  EXPECT_EQ(std::string(reply->message.firstHeader, reply->message.headersLimit),
            "\x28kro\0\x06"
            "1\0"s);
}

TEST(MessageSetStatusLine, IsRefusedWhenItCannotBeParsed) {
  const ReplyPtr reply(http_replyCreate());
  TraceCapture trace;
  EXPECT_EQ(msg_setStatusLine(&reply->message, "HTTP/1.1 200"), -1);
  EXPECT_EQ(trace.said(),
            TraceLines({"http-me[x]unable to read status line: parse error", "http-me[x]unable to add status line"}));
  EXPECT_EQ(reply->message.state, 5);
}

TEST(MessageSetStatusLine, IsRefusedWhenItCannotBeFormatted) {
  const ReplyPtr reply(http_replyCreate());
  TraceCapture trace;
  EXPECT_EQ(msg_setStatusLine(&reply->message, "HTTP/1.1 200 %ls", L"\x7fffffff"), -1);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to set line: Invalid or incomplete multibyte or wide character",
                                      "http-me[x]unable to add status line"}));
}

TEST(MessageSetStatusLine, BehindAnythingElseItGoesInFrontAndFailsInStateOnly) {
  const ReplyPtr reply(http_replyCreate());
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "Server: kro"), 0);
  EXPECT_EQ(msg_setStatusLine(&reply->message, "HTTP/1.1 200 OK"), 0);
  EXPECT_EQ(reply->message.state, 0) << "as before";
  EXPECT_EQ(reply->statusCode, 200u);
  EXPECT_EQ(msg_setStatusLine(&reply->message, "nonsense"), 0);
  EXPECT_EQ(reply->message.state, 5);
}

TEST(MessageSetStatusLine, BehindAHeaderThatWasRefused) {
  const ReplyPtr reply(http_replyCreate());
  HttpMessage* const message = &reply->message;
  {
    const TraceCapture quiet;
    ASSERT_EQ(msg_setHeaderLine(message, "Accept: "), -1);
  }
  ASSERT_EQ(msg_setStatusLine(message, "HTTP/1.1 200 OK"), 0);
  EXPECT_STREQ(reply->reason, "OK");
  const char* name = nullptr;
  const char* value = nullptr;
  EXPECT_EQ(http_msgHeadersNext(message, &name, &value), -1);
  ASSERT_EQ(msg_setHeaderLine(message, "Host: x"), 0);
  ASSERT_EQ(msg_setHeaderLine(message, "Y: z"), 0);
  ASSERT_EQ(http_msgHeadersNext(message, &name, &value), 0);
  EXPECT_STREQ(name, "Host");
  EXPECT_STREQ(value, "x");
  ASSERT_EQ(http_msgHeadersNext(message, &name, &value), 0);
  EXPECT_STREQ(name, "Y");
  EXPECT_STREQ(value, "z");
  EXPECT_EQ(http_msgHeadersNext(message, &name, &value), -1);
  EXPECT_STREQ(reply->reason, "OK");
}

TEST(MessageSetStatusLine, TwiceWithoutHeaders) {
  MemoryOutput output;
  const ReplyPtr reply(http_replyCreate());
  http_msgStreamSet(&reply->message, output.stream());
  ASSERT_EQ(msg_setStatusLine(&reply->message, "HTTP/1.1 200 OK"), 0);
  ASSERT_EQ(msg_setStatusLine(&reply->message, "HTTP/1.0 404 Not Found"), 0);
  EXPECT_EQ(reply->message.state, 1);
  EXPECT_EQ(reply->statusCode, 404u);
  EXPECT_STREQ(reply->reason, "Not Found");
  const char* name = nullptr;
  const char* value = nullptr;
  EXPECT_EQ(http_msgHeadersNext(&reply->message, &name, &value), -1);
  ASSERT_EQ(msg_setHeaderLine(&reply->message, "Host: x"), 0);
  ASSERT_EQ(msg_headersSend(&reply->message), 0);
  EXPECT_EQ(output.text(), "Host: x\r\n\r\n");
}

TEST(MessageParseHeaderLine, AcceptsAnEmptyValueWhenAllowed) {
  const char* const kLines[] = {"Accept:", "Accept: ", "Accept:\t ", "X:", "X: ", "X-Long-Name:  "};
  const ReplyPtr reply(http_replyCreate());
  HttpMessage* const message = &reply->message;
  for (const char* const line : kLines) {
    SCOPED_TRACE(line);
    std::string text = line;
    http_msgReset(message);
    ASSERT_EQ(msg_setStatusLine(message, "HTTP/1.1 200 OK"), 0);
    const uint32_t start = message->lineEnd;
    ASSERT_EQ(msg_growAndKeep(message, 0), 0);
    std::memcpy(message->buffer + start, line, text.size() + 1);
    message->fill = message->lineEnd = start + static_cast<uint32_t>(text.size()) + 1;
    TraceCapture trace{"http-message"};
    ASSERT_EQ(msg_parseHeaderLine(message, message->buffer + start, true), 0);
    EXPECT_EQ(trace.said(),
              TraceLines({"http-me[i]parsing header line " + text, "http-me[!]Adding http header without value"}));
    const char* name = nullptr;
    const char* value = nullptr;
    ASSERT_EQ(http_msgHeadersNext(message, &name, &value), 0);
    EXPECT_EQ(name, text.substr(0, text.find(':')));
    EXPECT_STREQ(value, "");
    EXPECT_EQ(http_msgHeadersNext(message, &name, &value), -1);
  }
}

// --- entries stay inside their own bytes -----------------------------------------------------------------------------

// A value of this length that begins and ends with something else than its neighbours.
std::string valueOf(size_t length) {
  std::string value(length, ' ');
  for (size_t at = 0; at < length; ++at) value[at] = static_cast<char>('0' + (at * 7 + length) % 70);
  return value;
}

const char* const kSweptNames[] = {"Host", "TE", "X", "X-Custom", "Content-Disposition"};

void expectInvariants(const HttpMessage& message) {
  EXPECT_LE(message.lineStart, message.lineEnd);
  EXPECT_LE(message.lineEnd, message.fill);
  EXPECT_LE(message.fill, message.bufferSize);
  EXPECT_LE(message.headersEnd, message.bufferSize);
  EXPECT_EQ(message.headersLimit, message.buffer + message.headersEnd);
}

std::string expectedName(const std::string& name) { return prot_headerString(prot_headerCode(name.c_str())); }

// The line ends between eight bytes before and eight behind each of the first two sizes of the buffer.
std::vector<size_t> sweptLengths(size_t before, size_t lineWithoutValue) {
  std::vector<size_t> lengths{1, 2, 3};
  for (const size_t size : {512u, 1024u}) {
    for (size_t end = size - 8; end <= size + 8; ++end) lengths.push_back(end - before - lineWithoutValue);
  }
  return lengths;
}

TEST(MessageEntries, ReceivedHeadersAreExactWhereverTheBufferEnds) {
  const std::string first = "GET / HTTP/1.1\r\nA:b\r\nAge: 1\r\n";
  for (const std::string name : kSweptNames) {
    for (const std::string separator : {": ", ":", ":   "}) {
      for (const size_t length : sweptLengths(first.size(), name.size() + separator.size() + 2)) {
        SCOPED_TRACE(name + separator + std::to_string(length));
        const std::string value = valueOf(length);
        ScriptInput input(first + name + separator + value + "\r\nVia: z\r\nB:c\r\n" + name + separator + value +
                          "\r\n\r\n");
        Incoming incoming(kRequest, input.stream());
        const std::string shown = prot_headerCode(name.c_str()) == HTTP_HEADER_CUSTOM ? name : expectedName(name);
        std::string expected = "done GET / 1.1 [A=b][Age=1]";
        expected += "[" + shown + "=" + value + "][Via=z][B=c][" + shown + "=" + value + "]";
        ASSERT_EQ(parse(incoming, input), expected);
        expectInvariants(*incoming.message());
      }
    }
  }
}

TEST(MessageEntries, WrittenHeadersAreExactWhereverTheBufferEnds) {
  const std::string first = "HTTP/1.1 200 OK";
  const size_t before = first.size() + 1 + sizeof("A:b") + sizeof("Age: 1");
  for (const std::string name : kSweptNames) {
    for (const std::string separator : {": ", ":", ":   "}) {
      for (const size_t length : sweptLengths(before, name.size() + separator.size() + 1)) {
        SCOPED_TRACE(name + separator + std::to_string(length));
        const std::string line = name + separator + valueOf(length);
        const ReplyPtr reply(http_replyCreate());
        HttpMessage* const message = &reply->message;
        ASSERT_EQ(msg_setStatusLine(message, "%s", first.c_str()), 0);
        std::string expected;
        for (const std::string& next : {"A:b"s, "Age: 1"s, line, "Via: z"s, "B:c"s, line, line, "C:d"s}) {
          ASSERT_EQ(msg_setHeaderLine(message, "%s", next.c_str()), 0);
          expectInvariants(*message);
          const size_t colon = next.find(':');
          const std::string nextName = next.substr(0, colon);
          const bool custom = prot_headerCode(nextName.c_str()) == HTTP_HEADER_CUSTOM;
          expected += "[" + (custom ? nextName : expectedName(nextName)) + "=" +
                      next.substr(next.find_first_not_of(' ', colon + 1)) + "]";
        }
        std::string found;
        const char* foundName = nullptr;
        const char* value = nullptr;
        while (http_msgHeadersNext(message, &foundName, &value) == 0) {
          found += "["s + foundName + "=" + value + "]";
        }
        ASSERT_EQ(found, expected);
        ASSERT_STREQ(reply->reason, "OK");
      }
    }
  }
}

// The entry of a custom header without a blank behind its colon is one byte longer than its line.
TEST(MessageEntries, ManyHeadersWithoutABlankDoNotCreepIntoTheirNeighbours) {
  const ReplyPtr reply(http_replyCreate());
  HttpMessage* const message = &reply->message;
  ASSERT_EQ(msg_setStatusLine(message, "HTTP/1.1 200 OK"), 0);
  std::string expected;
  for (int at = 0; at < 2000; ++at) {
    const char letter = static_cast<char>('a' + at % 26);
    ASSERT_EQ(msg_setHeaderLine(message, "%c:%d", letter, at), 0);
    expectInvariants(*message);
    expected += std::string(1, letter) + "=" + std::to_string(at) + ";";
  }
  std::string found;
  const char* name = nullptr;
  const char* value = nullptr;
  while (http_msgHeadersNext(message, &name, &value) == 0) found += name + "="s + value + ";";
  EXPECT_EQ(found, expected);
}

TEST(MessageEntries, EmptyValuesAreExactWhereverTheBufferEnds) {
  for (const std::string name : {"TE", "Host", "X", "X-Custom"}) {
    for (const std::string& line : {name + ":", name + ": "}) {
      for (size_t before = 490; before <= 512; ++before) {
        SCOPED_TRACE(line + std::to_string(before));
        const ReplyPtr reply(http_replyCreate());
        HttpMessage* const message = &reply->message;
        const std::string status = "HTTP/1.1 200 " + valueOf(before - 14);
        ASSERT_EQ(msg_setStatusLine(message, "%s", status.c_str()), 0);
        ASSERT_EQ(message->lineEnd, before);
        // What msg_setHeaderLine() does, with empty values allowed.
        if (message->bufferSize - message->lineEnd < line.size() + 1) {
          ASSERT_EQ(msg_growAndKeep(message, 0), 0);
        }
        std::memcpy(message->buffer + before, line.c_str(), line.size() + 1);
        message->lineStart = message->lineEnd;
        message->fill = message->lineEnd = static_cast<uint32_t>(before + line.size() + 1);
        const TraceCapture trace;
        ASSERT_EQ(msg_parseHeaderLine(message, message->buffer + before, true), 0);
        expectInvariants(*message);
        ASSERT_EQ(msg_setHeaderLine(message, "A: b"), 0);
        const char* foundName = nullptr;
        const char* value = nullptr;
        ASSERT_EQ(http_msgHeadersNext(message, &foundName, &value), 0);
        EXPECT_EQ(foundName, name);
        EXPECT_STREQ(value, "");
        ASSERT_EQ(http_msgHeadersNext(message, &foundName, &value), 0);
        EXPECT_STREQ(foundName, "A");
        EXPECT_STREQ(value, "b");
        EXPECT_EQ(http_msgHeadersNext(message, &foundName, &value), -1);
        EXPECT_EQ(reply->reason, valueOf(before - 14));
      }
    }
  }
}

// Headers may be set before the first line, on an object that was used before: its buffer is still there, with what
// was left in it.
TEST(MessageEntries, InABufferThatIsUsedAgain) {
  const ReplyPtr reply(http_replyCreate());
  HttpMessage* const message = &reply->message;
  for (const size_t length : {5u, 500u, 510u, 600u, 2000u, 40u, 5000u}) {
    SCOPED_TRACE(length);
    http_msgReset(message);
    http_msgHeadersReset(message);
    const std::string value = valueOf(length);
    ASSERT_EQ(msg_setHeaderLine(message, "X: %s", value.c_str()), 0);
    ASSERT_EQ(msg_setHeaderLine(message, "Host: %s", value.c_str()), 0);
    EXPECT_EQ(http_msgHeaderValue(message, "X"), value);
    EXPECT_EQ(http_msgHeaderValue(message, "Host"), value);
    ASSERT_EQ(msg_setStatusLine(message, "HTTP/1.1 200 %s", value.c_str()), 0);
    EXPECT_EQ(http_msgHeaderValue(message, "X"), value);
    EXPECT_EQ(http_msgHeaderValue(message, "Host"), value);
    EXPECT_EQ(reply->reason, value);
  }
}

}  // namespace
