#include <gtest/gtest.h>
#include <krohttp/body.h>
#include <krohttp/message.h>
#include <krohttp/request.h>

#include <cerrno>
#include <climits>
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

// A request to be written to this stream.
RequestPtr outgoing(FILE* stream) {
  RequestPtr request(http_requestCreate());
  http_requestModeSet(request.get(), HTTP_MSG_WRITING);
  http_requestStreamSet(request.get(), stream);
  http_requestVersionSet(request.get(), 1, 1);
  return request;
}

std::vector<std::string> headersOf(HttpRequest* request) {
  std::vector<std::string> headers;
  const char* name = nullptr;
  const char* value = nullptr;
  http_requestHeadersReset(request);
  while (headers.size() < 10000 && http_requestHeadersNext(request, &name, &value) == 0) {
    headers.push_back(std::string(name) + "=" + value);
  }
  return headers;
}

// --- lifecycle -------------------------------------------------------------------------------------------------------

TEST(RequestLifecycle, CreateGivesAnEmptyRequest) {
  const RequestPtr request(http_requestCreate());
  ASSERT_NE(request, nullptr);
  const HttpRequest empty{};
  EXPECT_EQ(std::memcmp(request.get(), &empty, sizeof empty), 0) << "a request is type 0, everything else is zeroed";
  EXPECT_EQ(http_requestState(request.get()), 0);
  EXPECT_EQ(request->message.type, HTTP_MSG_REQUEST);
  EXPECT_EQ(http_requestMethod(request.get()), 0);
  EXPECT_EQ(http_requestPath(request.get()), nullptr);
}

TEST(RequestLifecycle, InitializeMakesAnyMessageARequest) {
  HttpRequest request{};
  request.message.type = HTTP_MSG_REPLY;
  request.method = HTTP_METHOD_PUT;
  http_requestInitialize(&request);
  EXPECT_EQ(request.message.type, HTTP_MSG_REQUEST);
  EXPECT_EQ(request.method, HTTP_METHOD_PUT) << "nothing else is touched";
}

TEST(RequestLifecycle, CleanupReleasesTheMessage) {
  HttpRequest request{};
  http_requestInitialize(&request);
  http_requestVersionSet(&request, 1, 1);
  request.message.peer = reinterpret_cast<ZelPeer*>(&request);
  ASSERT_EQ(http_requestMethodSet(&request, HTTP_METHOD_GET, "/"), 0);
  http_requestCleanup(&request);
  EXPECT_EQ(request.message.peer, nullptr);
}

TEST(RequestLifecycle, ResetIsForTheNextRequestOfTheConnection) {
  ScriptInput input("POST /first?a=b HTTP/1.1\r\nHost: x\r\n\r\nGET /second HTTP/1.0\r\nVia: y\r\n\r\n");
  const RequestPtr request = incomingRequest(input.stream());
  EXPECT_STREQ(http_requestPath(request.get()), "/first");
  http_requestReset(request.get());
  EXPECT_EQ(http_requestState(request.get()), 0);
  EXPECT_EQ(http_requestStream(request.get()), input.stream());
  while (http_requestState(request.get()) < HTTP_MSG_BODY) ASSERT_EQ(http_requestParse(request.get()), 0);
  EXPECT_EQ(http_requestMethod(request.get()), HTTP_METHOD_GET);
  EXPECT_STREQ(http_requestPath(request.get()), "/second");
  EXPECT_STREQ(http_uriQueryString(http_requestURI(request.get())), "");
  EXPECT_EQ(headersOf(request.get()), std::vector<std::string>({"Via=y"}));
}

TEST(RequestLifecycle, DestroyTakesNothingToo) { http_requestDestroy(nullptr); }

TEST(RequestLifecycle, DestroyClosesABodyThatIsBeingTransferred) {
  ScriptOutput output;
  {
    const RequestPtr request = outgoing(output.stream());
    ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_POST, "/"), 0);
    ASSERT_EQ(http_requestHeaderValueSet(request.get(), "Transfer-Encoding", "chunked"), 0);
    ASSERT_EQ(http_requestSend(request.get()), 0);
    ASSERT_NE(http_requestBody(request.get()), nullptr);
    output.clear();
  }
  EXPECT_EQ(output.bytes(), "0\r\n\r\n");
}

// --- the request line ------------------------------------------------------------------------------------------------

struct LineCase {
  const char* name;
  int method;
  const char* uri;
  const char* path;
  const char* query;
  const char* wire;  // method and target
};
void PrintTo(const LineCase& row, std::ostream* out) { *out << row.name; }

class RequestLine : public ::testing::TestWithParam<LineCase> {};

TEST_P(RequestLine, IsSetAndSent) {
  const LineCase& row = GetParam();
  ScriptOutput output;
  const RequestPtr request = outgoing(output.stream());
  ASSERT_EQ(http_requestMethodSet(request.get(), row.method, row.uri), 0);
  EXPECT_EQ(http_requestState(request.get()), 1);
  EXPECT_EQ(http_requestMethod(request.get()), row.method);
  EXPECT_STREQ(http_requestPath(request.get()), row.path);
  EXPECT_STREQ(http_uriQueryString(http_requestURI(request.get())), row.query);
  for (int round = 0; round < 2; ++round) {
    output.clear();
    ASSERT_EQ(http_requestSend(request.get()), 0);
    EXPECT_EQ(http_requestState(request.get()), 2);
    EXPECT_EQ(output.bytes(), row.wire + " HTTP/1.1\r\n\r\n"s);
    EXPECT_STREQ(http_requestPath(request.get()), row.path) << "stays decoded";
    EXPECT_STREQ(http_uriQueryString(http_requestURI(request.get())), row.query);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, RequestLine,
    ::testing::Values(
        LineCase{"Connect", 1, "/", "/", "", "CONNECT /"}, LineCase{"Delete", 2, "/a", "/a", "", "DELETE /a"},
        LineCase{"Get", 3, "/", "/", "", "GET /"}, LineCase{"Head", 4, "/", "/", "", "HEAD /"},
        LineCase{"Options", 5, "/", "/", "", "OPTIONS /"}, LineCase{"Post", 6, "/", "/", "", "POST /"},
        LineCase{"Put", 7, "/", "/", "", "PUT /"}, LineCase{"Trace", 8, "/", "/", "", "TRACE /"},
        LineCase{"Query", 3, "/p?a=1&b=2", "/p", "a=1&b=2", "GET /p?a=1&b=2"},
        LineCase{"QueryIsSentAsItCame", 3, "/p?%20=%41&+", "/p", "%20=%41&+", "GET /p?%20=%41&+"},
        LineCase{"EmptyQueryIsNotSent", 3, "/p?", "/p", "", "GET /p"},
        LineCase{"QueryWithMoreMarks", 3, "/p?a?b", "/p", "a?b", "GET /p?a?b"},
        LineCase{"BlankInThePath", 3, "/a%20b?q=1", "/a b", "q=1", "GET /a%20b?q=1"},
        LineCase{"ManyBlanks", 3, "/%20%20%20%20%20%20?q=1", "/      ", "q=1", "GET /%20%20%20%20%20%20?q=1"},
        LineCase{"SixAreEncoded", 3, "/%23%26%3d%25%3f%20", "/#&=%? ", "", "GET /%23%26%3D%25%3F%20"},
        LineCase{"AlsoWhenTheyCameAsTheyAre", 3, "/a=b&c#d", "/a=b&c#d", "", "GET /a%3Db%26c%23d"},
        LineCase{"OthersAreNot", 3, "/%41%2fb+c%c3%a4", "/A/b+c\xc3\xa4", "", "GET /A/b+c\xc3\xa4"},
        LineCase{"NorControlBytes", 3, "/%01%1f%7f?%0d%0A", "/\x01\x1f\x7f", "%0d%0A", "GET /\x01\x1f\x7f?%0d%0A"},
        LineCase{"WhatStandsBeforeThePath", 3, "x/y", "/y", "", "GET /y"},
        LineCase{"Absolute", 3, "http://host/p", "//host/p", "", "GET //host/p"}),
    [](const auto& row) { return row.param.name; });

// What would end the line, and begin another request.
TEST(RequestSend, RefusesWhatEndsTheLineOrTheTarget) {
  for (const char* const uri : {"/a%0Db", "/a%0ab", "/%0d%0aX: y", "/%09", "/a%0bb", "/a%0cb", "/a?b\tc"}) {
    SCOPED_TRACE(uri);
    ScriptOutput output;
    const RequestPtr request = outgoing(output.stream());
    ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, uri), 0);
    TraceCapture trace;
    EXPECT_EQ(http_requestSend(request.get()), -1);
    EXPECT_EQ(http_requestState(request.get()), 5);
    EXPECT_EQ(output.bytes(), "");
    EXPECT_EQ(trace.errors().front(), "http-re[x]unable to send request line");
  }
}

TEST(RequestMethodSet, UsesTheVersion) {
  ScriptOutput output;
  const RequestPtr request = outgoing(output.stream());
  http_requestVersionSet(request.get(), 1, 0);
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/"), 0);
  EXPECT_EQ(request->message.versionMajor, 1);
  EXPECT_EQ(request->message.versionMinor, 0);
  ASSERT_EQ(http_requestSend(request.get()), 0);
  EXPECT_EQ(output.bytes(), "GET / HTTP/1.0\r\n\r\n");
}

TEST(RequestMethodSet, Refusals) {
  const struct {
    const char* name;
    int method;
    const char* uri;
    uint8_t major;
    const char* reason;
  } kRows[] = {
      {"no method", 0, "/", 1, "http-re[x]unknown method: AERROR"},
      {"no such method", 9, "/", 1, "http-re[x]unknown method: AERROR"},
      {"no path", HTTP_METHOD_OPTIONS, "*", 1, "http-ur[x]invalid url *"},
      {"version not set", HTTP_METHOD_GET, "/", 0, nullptr},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    MemoryOutput output;
    const RequestPtr request = outgoing(output.stream());
    http_requestVersionSet(request.get(), row.major, 0);
    TraceCapture trace;
    EXPECT_EQ(http_requestMethodSet(request.get(), row.method, row.uri), -1);
    const TraceLines said = trace.said();
    ASSERT_EQ(said.size(), 3u);
    if (row.reason != nullptr) {
      EXPECT_EQ(said[0], row.reason);
    } else {
      EXPECT_TRUE(said[0].starts_with("http-me[x]unable to parse http version HTTP/0")) << said[0];
    }
    EXPECT_EQ(said[1], "http-me[x]unable to add status line");
    EXPECT_EQ(said[2], "http-re[x]unable to set status line");
    EXPECT_EQ(http_requestState(request.get()), 5);
  }
}

TEST(RequestMethodSet, TwiceReplacesTheLine) {
  ScriptOutput output;
  const RequestPtr request = outgoing(output.stream());
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/first/and/long?with=query"), 0);
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_PUT, "/b%20c?d"), 0);
  EXPECT_EQ(http_requestMethod(request.get()), HTTP_METHOD_PUT);
  EXPECT_STREQ(http_requestPath(request.get()), "/b c");
  ASSERT_EQ(http_requestHeaderValueSet(request.get(), "Host", "x"), 0);
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_POST, "/e"), 0);
  ASSERT_EQ(http_requestHeaderValueSet(request.get(), "Via", "y"), 0);
  EXPECT_EQ(http_requestState(request.get()), 1);
  ASSERT_EQ(http_requestSend(request.get()), 0);
  EXPECT_EQ(output.bytes(), "POST /e HTTP/1.1\r\nHost: x\r\nVia: y\r\n\r\n");
}

TEST(RequestMethodSet, BehindHeaders) {
  ScriptOutput output;
  const RequestPtr request = outgoing(output.stream());
  ASSERT_EQ(http_requestHeaderValueSet(request.get(), "Host", "x"), 0);
  ASSERT_EQ(http_requestHeaderValueSet(request.get(), "X-Thing", "y"), 0);
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/a?b"), 0);
  ASSERT_EQ(http_requestSend(request.get()), 0);
  EXPECT_EQ(output.bytes(), "GET /a?b HTTP/1.1\r\nHost: x\r\nX-Thing: y\r\n\r\n");
}

TEST(RequestMethodSet, TakesTheRequestsOwnPath) {
  ScriptOutput output;
  const RequestPtr request = outgoing(output.stream());
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/some/path?query"), 0);
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_POST, http_requestPath(request.get())), 0);
  ASSERT_EQ(http_requestSend(request.get()), 0);
  EXPECT_EQ(output.bytes(), "POST /some/path HTTP/1.1\r\n\r\n");
}

TEST(RequestMethodSet, RefusedTheSecondTimeShowsInTheState) {
  for (const char* const uri : {"*", ""}) {
    MemoryOutput output;
    const RequestPtr request = outgoing(output.stream());
    ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/path?query"), 0);
    const TraceCapture quiet;
    http_requestMethodSet(request.get(), HTTP_METHOD_GET, uri);
    EXPECT_EQ(http_requestState(request.get()), 5);
    EXPECT_EQ(http_requestPath(request.get()), nullptr);
  }
}

// --- sending ---------------------------------------------------------------------------------------------------------

TEST(RequestSend, IsTraced) {
  MemoryOutput output;
  const RequestPtr request = outgoing(output.stream());
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/"), 0);
  TraceCapture trace{"http-request"};
  ASSERT_EQ(http_requestSend(request.get()), 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-re[i]sending request"}));
}

TEST(RequestSend, FailsWhereverTheStreamDoes) {
  const std::string first = "GET /a HTTP/1.1\r\n";
  const std::string wire = first + "Host: x\r\n\r\n";
  for (const bool buffered : {false, true}) {
    for (size_t at = 0; at < wire.size(); ++at) {
      SCOPED_TRACE(std::to_string(at) + (buffered ? " buffered" : ""));
      ScriptOutput output;
      output.refuseAt(at, EPIPE);
      if (!buffered) output.unbuffered();
      const RequestPtr request = outgoing(output.stream());
      ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/a"), 0);
      ASSERT_EQ(http_requestHeaderValueSet(request.get(), "Host", "x"), 0);
      TraceCapture trace;
      EXPECT_EQ(http_requestSend(request.get()), -1);
      if (buffered) {
        EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to send message: Broken pipe",
                                            "http-re[x]unable to send reply headers"}));
      } else if (at < first.size()) {
        EXPECT_EQ(trace.said(), TraceLines({"http-re[x]unable to send request line"}));
      } else {
        EXPECT_EQ(trace.said(), TraceLines({"http-me[x]unable to send message headers: Broken pipe",
                                            "http-re[x]unable to send reply headers"}));
      }
      EXPECT_EQ(http_requestState(request.get()), 5);
      EXPECT_EQ(output.bytes(), wire.substr(0, at));
    }
  }
}

TEST(RequestSend, NeedsATarget) {
  ScriptOutput output;
  const RequestPtr request = outgoing(output.stream());
  TraceCapture trace;
  EXPECT_EQ(http_requestSend(request.get()), -1);
  ASSERT_FALSE(trace.errors().empty());
  EXPECT_EQ(trace.errors().back(), "http-re[x]unable to serialize uri");
  EXPECT_EQ(http_requestState(request.get()), 5);
  fflush(output.stream());
  EXPECT_EQ(output.bytes(), "");
}

TEST(RequestSend, WithABody) {
  const struct {
    const char* name;
    const char* value;
    const char* wire;
  } kRows[] = {{"Content-Length", "5", "Content-Length: 5\r\n\r\nhello"},
               {"Transfer-Encoding", "chunked", "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"},
               {"X", "y", "X: y\r\n\r\nhello"}};
  for (const auto& row : kRows) {
    for (const bool closed : {false, true}) {
      ScriptOutput output;
      const RequestPtr request = outgoing(output.stream());
      ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_POST, "/"), 0);
      ASSERT_EQ(http_requestHeaderValueSet(request.get(), row.name, "%s", row.value), 0);
      ASSERT_EQ(http_requestSend(request.get()), 0);
      FILE* const body = http_requestBody(request.get());
      ASSERT_NE(body, nullptr);
      EXPECT_EQ(http_requestBody(request.get()), body);
      EXPECT_EQ(fputs("hello", body), 1);
      if (closed) {
        EXPECT_EQ(fclose(body), 0);
      }
      EXPECT_EQ(http_requestDone(request.get()), 0);
      EXPECT_EQ(http_requestState(request.get()), 3);
      EXPECT_EQ(output.bytes(), "POST / HTTP/1.1\r\n"s + row.wire);
    }
  }
}

TEST(RequestSend, WithoutABody) {
  ScriptOutput output;
  const RequestPtr request = outgoing(output.stream());
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/"), 0);
  ASSERT_EQ(http_requestSend(request.get()), 0);
  EXPECT_EQ(http_requestBody(request.get()), nullptr);
  EXPECT_EQ(http_requestState(request.get()), 2);
  EXPECT_EQ(http_requestDone(request.get()), 0);
  EXPECT_EQ(http_requestState(request.get()), 3);
  EXPECT_EQ(output.bytes(), "GET / HTTP/1.1\r\n\r\n");
}

// --- hooks -----------------------------------------------------------------------------------------------------------

TEST(RequestFactory, TakesMethodAndTarget) {
  for (int method = 1; method < HTTP_METHOD_COUNT; ++method) {
    HttpRequest request{};
    std::string text = prot_methodString(method);
    std::string target = "/a%20b?q=1";
    EXPECT_EQ(rq_factory(&request, text.data(), target.data()), 0);
    EXPECT_EQ(request.method, method);
    EXPECT_EQ(request.uri.path, target.data());
    EXPECT_STREQ(request.uri.path, "/a b");
    EXPECT_STREQ(request.uri.query, "q=1");
    EXPECT_EQ(request.uri.queryLength, 3);
    EXPECT_EQ(request.message.type, HTTP_MSG_REQUEST);
  }
}

TEST(RequestFactory, RefusesUnknownMethodsAndTargetsWithoutAPath) {
  const struct {
    const char* method;
    const char* target;
    const char* said;
  } kRows[] = {{"get", "/", "http-re[x]unknown method: get"}, {"PATCH", "/", "http-re[x]unknown method: PATCH"},
               {"FOO", "*", "http-re[x]unknown method: FOO"}, {"", "/", "http-re[x]unknown method: "},
               {"GET", "*", "http-ur[x]invalid url *"},       {"GET", "", "http-ur[x]invalid url "}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.said);
    HttpRequest request{};
    std::string method = row.method;
    std::string target = row.target;
    TraceCapture trace;
    EXPECT_EQ(rq_factory(&request, method.data(), target.data()), -1);
    EXPECT_EQ(trace.said(), TraceLines({row.said}));
  }
}

TEST(RequestHasBodyRule, IsByMethod) {
  const bool kExpected[HTTP_METHOD_COUNT] = {true, true, false, false, false, false, true, true, true};
  for (int method = 0; method < HTTP_METHOD_COUNT; ++method) {
    HttpRequest request{};
    request.method = method;
    EXPECT_EQ(rq_hasBody(&request), kExpected[method]) << method;
    EXPECT_EQ(http_requestHasBody(&request), kExpected[method] ? 1 : 0) << method;
  }
}

TEST(RequestGrow, MovesPathAndQuery) {
  MemoryOutput output;
  const RequestPtr request = outgoing(output.stream());
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/path?query"), 0);
  for (int step = 0; step < 30; ++step) {
    ASSERT_EQ(rq_grow(request.get(), 100000), 0);
    std::memset(request->message.buffer + request->message.fill, 'x', 1000);
    ASSERT_EQ(request->uri.path, request->message.buffer + sizeof("GET"));
    ASSERT_EQ(request->uri.query, request->message.buffer + sizeof("GET /path"));
    ASSERT_STREQ(http_requestPath(request.get()), "/path");
    ASSERT_STREQ(http_uriQueryString(http_requestURI(request.get())), "query");
  }
  EXPECT_EQ(request->message.bufferSize, 512u + 30 * 100000);
}

TEST(RequestGrow, LeavesNothingWhereThereIsNothing) {
  const RequestPtr request(http_requestCreate());
  ASSERT_EQ(rq_grow(request.get(), 0), 0);
  EXPECT_EQ(request->message.bufferSize, 512u);
  EXPECT_EQ(request->uri.path, nullptr);
  EXPECT_EQ(request->uri.query, nullptr);
}

TEST(RequestGrow, ThatFailsLeavesThePointers) {
  MemoryOutput output;
  const RequestPtr request = outgoing(output.stream());
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/path?query"), 0);
  const HttpUri before = request->uri;
  const TraceCapture quiet;
  EXPECT_EQ(rq_grow(request.get(), UINT_MAX), -1);
  EXPECT_EQ(request->uri.path, before.path);
  EXPECT_EQ(request->uri.query, before.query);
  EXPECT_STREQ(http_requestPath(request.get()), "/path");
}

TEST(RequestGrow, ByHeadersKeepsTheTarget) {
  ScriptOutput output;
  const RequestPtr request = outgoing(output.stream());
  ASSERT_EQ(http_requestMethodSet(request.get(), HTTP_METHOD_GET, "/path%20?query"), 0);
  std::string wire = "GET /path%20?query HTTP/1.1\r\n";
  for (int at = 0; at < 200; ++at) {
    const std::string value(static_cast<size_t>(at) * 5 + 1, static_cast<char>('a' + at % 26));
    ASSERT_EQ(http_requestHeaderValueSet(request.get(), "X", "%s", value.c_str()), 0);
    ASSERT_STREQ(http_requestPath(request.get()), "/path ");
    ASSERT_STREQ(http_uriQueryString(http_requestURI(request.get())), "query");
    wire += "X: " + value + "\r\n";
  }
  ASSERT_EQ(http_requestSend(request.get()), 0);
  EXPECT_EQ(output.bytes(), wire + "\r\n");
}

TEST(RequestGrow, ByHeadersThatArriveKeepsTheTarget) {
  const std::string value(3000, 'v');
  ScriptInput input("GET /path%20?query HTTP/1.1\r\nX: " + value + "\r\nY: " + value + "\r\n\r\n");
  const RequestPtr request = incomingRequest(input.stream());
  EXPECT_STREQ(http_requestPath(request.get()), "/path ");
  EXPECT_STREQ(http_uriQueryString(http_requestURI(request.get())), "query");
  EXPECT_EQ(headersOf(request.get()), std::vector<std::string>({"X=" + value, "Y=" + value}));
}

// --- accessors and forwarders ----------------------------------------------------------------------------------------

TEST(RequestAccessors, ReadAndStoreTheirField) {
  HttpRequest request{};
  request.message.state = 4;
  EXPECT_EQ(http_requestState(&request), 4);

  http_requestVersionSet(&request, 3, 9);
  EXPECT_EQ(request.message.versionMajor, 3);
  EXPECT_EQ(request.message.versionMinor, 9);
  EXPECT_EQ(http_requestVersion(&request), &request.message.versionMajor);
  EXPECT_EQ(http_requestVersion(&request)[0], 3);
  EXPECT_EQ(http_requestVersion(&request)[1], 9);

  for (int method = 0; method < HTTP_METHOD_COUNT; ++method) {
    request.method = method;
    EXPECT_EQ(http_requestMethod(&request), method);
    EXPECT_STREQ(http_requestMethodString(&request), prot_methodString(method));
  }

  char path[] = "/p";
  request.uri.path = path;
  EXPECT_EQ(http_requestURI(&request), &request.uri);
  EXPECT_EQ(http_requestPath(&request), path);

  http_requestUserDataSet(&request, path);
  EXPECT_EQ(request.message.userData, path);
  EXPECT_EQ(http_requestUserData(&request), path);
  request.message.owner = &request;
  EXPECT_EQ(http_requestOwner(&request), &request);

  ZelPeer* const peer = reinterpret_cast<ZelPeer*>(path);
  http_requestPeerSet(&request, peer);
  EXPECT_EQ(request.message.peer, peer);
  EXPECT_EQ(http_requestPeer(&request), peer);

  MemoryOutput stream;
  http_requestStreamSet(&request, stream.stream());
  EXPECT_EQ(request.message.stream, stream.stream());
  EXPECT_EQ(http_requestStream(&request), stream.stream());

  http_requestModeSet(&request, 2);
  EXPECT_EQ(request.message.mode, 2);

  for (const int flag : {0, 1, 8}) {
    request.message.needMoreData = flag;
    EXPECT_EQ(http_requestNeedMoreData(&request), flag != 0 ? 1 : 0);
  }
  for (const int type : {0, 3, 5}) {
    request.message.bodyType = type;
    EXPECT_EQ(http_requestBodyType(&request), type);
  }
}

TEST(RequestForwarders, OfHeaders) {
  MemoryOutput output;
  const RequestPtr request = outgoing(output.stream());
  HttpRequest* const it = request.get();
  ASSERT_EQ(http_requestMethodSet(it, HTTP_METHOD_PUT, "/"), 0);
  EXPECT_EQ(http_requestHeaderValueSet(it, "X-Thing", "%d-%s", 1, "a"), 0);
  EXPECT_EQ(http_requestHeaderValueSet(it, "a%%b", "c"), 0);
  TraceCapture trace;
  EXPECT_EQ(http_requestHeaderValueSet(it, "Accept", "%s", ""), -1);
  trace.clear();
  EXPECT_EQ(http_requestHeaderEmptySet(it, "Accept", "%s", ""), 0);
  EXPECT_EQ(trace.said(), TraceLines({"http-me[!]Adding http header without value"}));
  EXPECT_EQ(http_requestHeaderEmptySet(it, "Age", "%d", 5), 0);

  HttpHeader header{};
  header.code = HTTP_HEADER_CONTENT_LENGTH;
  EXPECT_EQ(http_requestHeader(it, &header), -1);
  header.contentLength.length = 7;
  EXPECT_EQ(http_requestHeaderSet(it, &header), 0);
  header.contentLength.length = 0;
  EXPECT_EQ(http_requestHeader(it, &header), 0);
  EXPECT_EQ(header.contentLength.length, 7u);
  http_hdrCleanup(&header);

  EXPECT_STREQ(http_requestHeaderValue(it, "x-thing"), "1-a");
  const char* name = nullptr;
  const char* value = nullptr;
  EXPECT_EQ(http_requestHeadersNext(it, &name, &value), 0);
  EXPECT_STREQ(name, "a%b");
  EXPECT_EQ(http_requestHeaderValue(it, "Host"), nullptr);
  EXPECT_EQ(headersOf(it), std::vector<std::string>({"X-Thing=1-a", "a%b=c", "Accept=", "Age=5", "Content-Length=7"}));
  EXPECT_EQ(http_requestHasBody(it), 1);
  EXPECT_EQ(http_requestHeaderValueSet(it, "Content-Type", "multipart/mixed"), 0);
  EXPECT_EQ(http_requestHasBody(it), 1) << "not the type";
}

TEST(RequestForwarders, OfAnIncomingBody) {
  ScriptInput input;
  input.bytes("PUT / HT").hold().bytes("TP/1.1\r\nContent-Length: 5\r\n\r\nhel").hold().bytes("loGET");
  const RequestPtr request(http_requestCreate());
  HttpRequest* const it = request.get();
  http_requestModeSet(it, HTTP_MSG_READING);
  http_requestStreamSet(it, input.stream());
  EXPECT_EQ(http_requestParse(it), 0);
  EXPECT_EQ(http_requestNeedMoreData(it), 1);
  clearerr(input.stream());
  input.release();
  while (http_requestState(it) < HTTP_MSG_BODY) ASSERT_EQ(http_requestParse(it), 0);
  EXPECT_EQ(http_requestNeedMoreData(it), 0);
  EXPECT_EQ(http_requestParse(it), -1);
  EXPECT_EQ(http_requestBodyType(it), HTTP_BODY_CONTENT_LENGTH);

  EXPECT_EQ(http_requestBodyDiscard(it), 0);
  EXPECT_EQ(http_requestState(it), 2);
  EXPECT_EQ(http_requestNeedMoreData(it), 1);
  EXPECT_NE(http_requestBody(it), nullptr);
  clearerr(input.stream());
  input.release();
  EXPECT_EQ(http_requestBodyDiscard(it), 0);
  EXPECT_EQ(http_requestState(it), 3);
  EXPECT_EQ(http_requestDone(it), 0);
  EXPECT_EQ(input.rest(), "GET");
}

}  // namespace
