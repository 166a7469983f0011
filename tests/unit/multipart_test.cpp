#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/messages.h"
#include "support/multipart_bodies.h"
#include "support/script_stream.h"
#include "support/trace_capture.h"

// The body stream's own wait, counted. It still waits.
namespace {
int waits = 0;
}
extern "C" int usleep(useconds_t microseconds) {
  ++waits;
  const timespec time = {static_cast<time_t>(microseconds / 1000000), static_cast<long>(microseconds % 1000000) * 1000};
  return nanosleep(&time, nullptr);
}

namespace {

using namespace std::string_literals;

const std::string kType = "Content-Type: multipart/form-data; boundary=XyZ\r\n";
const std::string kFirst = "--XyZ\r\n";
const std::string kDelimiter = "\r\n--XyZ";
const std::string kEnd = kDelimiter + "--\r\n";
const std::string kNext = "GET /next HTTP/1.1\r\n\r\n";

// A request with this body, whatever it is.
std::string requestWith(const std::string& body, const std::string& type = kType) {
  return "POST /up HTTP/1.1\r\n" + type + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}
std::string chunkedWith(const std::string& body, size_t chunk = 5) {
  std::string request = "POST /up HTTP/1.1\r\n" + kType + "Transfer-Encoding: chunked\r\n\r\n";
  for (const std::string& piece : cutEvery(body, chunk)) {
    std::array<char, 32> line;
    snprintf(line.data(), line.size(), "%zX\r\n", piece.size());
    request.append(line.data()).append(piece).append("\r\n");
  }
  return request + "0\r\n\r\n";
}
std::string part(const std::string& content, const std::string& headers = "A: b\r\n") {
  return headers + "\r\n" + content;
}
// A body of these parts, each with the header A.
std::string bodyOf(const std::vector<std::string>& contents) {
  MultipartBody body;
  for (const std::string& content : contents) body.parts.push_back({{{"A", "b"}}, content});
  return body.wire();
}
std::vector<std::string> contentsOf(const MultipartUpload& upload) {
  std::vector<std::string> contents;
  for (const MultipartPart& received : upload.received()) contents.push_back(received.content);
  return contents;
}
using Texts = std::vector<std::string>;

// The reader's own lines; what depends on how often stdio asks at the end of a part is left out.
TraceLines readerLines(const TraceLines& said) {
  constexpr std::string_view kZone = "http-mu";
  TraceLines lines;
  for (const std::string& line : said) {
    if (line.compare(0, kZone.size(), kZone) != 0) continue;
    if (line == "http-mu[i]eof of body part reached") continue;
    lines.push_back(line.substr(kZone.size()));
  }
  return lines;
}
// Line ends as a trace line shows them.
std::string shown(const std::string& text) {
  std::string line;
  for (const char c : text) line += c == '\r' ? "\\r" : c == '\n' ? "\\n" : std::string(1, c);
  return line;
}
// The last error, whole.
std::string lastError(const TraceCapture& trace) {
  const TraceLines errors = trace.errors();
  return errors.empty() ? "none" : errors.back();
}
// What %m gave stands as "*".
TraceLines withoutReason(TraceLines lines) {
  constexpr std::string_view kBefore = "unable to read message boundary: ";
  for (std::string& line : lines)
    if (const size_t at = line.find(kBefore); at != std::string::npos) line = line.substr(0, at + kBefore.size()) + "*";
  return lines;
}

class Multipart : public ::testing::Test {
 private:
  SpinGuard guard_;
};

// --- preparing a reader ----------------------------------------------------------------------------------------------

struct PrepareCase {
  const char* name;
  std::string head;  // behind the request line
  const char* error;
  const char* method = "POST";
};
void PrintTo(const PrepareCase& row, std::ostream* out) { *out << row.name; }

class MultipartRefused : public Multipart, public ::testing::WithParamInterface<PrepareCase> {};

TEST_P(MultipartRefused, IsTracedAndNothingIsLeft) {
  MultipartUpload upload({GetParam().method + " /up HTTP/1.1\r\n"s + GetParam().head + "\r\n" + bodyOf({"x"})});
  TraceCapture trace{"http-multipart"};
  std::memset(static_cast<void*>(upload.reader()), 0xa5, sizeof(HttpMultipart));
  EXPECT_EQ(upload.begin(), -1);
  const TraceLines lines = readerLines(trace.said());
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines.front(), "[i]initializing multipart message");
  EXPECT_EQ(lines.back(), "[x]"s + GetParam().error);
  EXPECT_EQ(readerLines(trace.errors()).size(), 1u);
  EXPECT_EQ(upload.reader()->delimiter, nullptr);
  EXPECT_EQ(upload.reader()->scratch, nullptr);
  EXPECT_EQ(upload.partCalls() + upload.bodyCalls(), 0u);
  // To release what was never prepared does no harm.
  http_msgMultipartCleanup(upload.reader());
}

const PrepareCase kRefused[] = {
    {"NoContentType", "Content-Length: 27\r\n",
     "message is not a multipart message (could not find Content-Type header)"},
    {"OtherType", "Content-Type: text/plain; boundary=XyZ\r\nContent-Length: 27\r\n",
     "message is not a multipart message (text/plain)"},
    {"OtherCase", "Content-Type: Multipart/form-data; boundary=XyZ\r\nContent-Length: 27\r\n",
     "message is not a multipart message (Multipart/form-data)"},
    {"LongerType", "Content-Type: multiparty/form-data; boundary=XyZ\r\nContent-Length: 27\r\n",
     "message is not a multipart message (multiparty/form-data)"},
    {"NoBoundary", "Content-Type: multipart/mixed\r\nContent-Length: 27\r\n",
     "unable to find multipart message boundary"},
    {"OtherParameter", "Content-Type: multipart/mixed; charset=XyZ\r\nContent-Length: 27\r\n",
     "unable to find multipart message boundary"},
    {"BoundaryInOtherCase", "Content-Type: multipart/mixed; Boundary=XyZ\r\nContent-Length: 27\r\n",
     "unable to find multipart message boundary"},
    {"BoundaryWithoutValue", "Content-Type: multipart/mixed; boundary\r\nContent-Length: 27\r\n",
     "unable to find multipart message boundary"},
    {"NoBody", kType, "unable to get message stream", "GET"},
    {"UnknownCoding", kType + "Transfer-Encoding: gzip\r\n", "unable to get message stream"},
};
INSTANTIATE_TEST_SUITE_P(Table, MultipartRefused, ::testing::ValuesIn(kRefused),
                         [](const auto& row) { return row.param.name; });

TEST_F(Multipart, IsPreparedForTheFirstBoundary) {
  MultipartUpload upload({requestWith(bodyOf({"x"}))});
  TraceCapture trace{"http-multipart"};
  std::memset(static_cast<void*>(upload.reader()), 0xa5, sizeof(HttpMultipart));
  ASSERT_EQ(upload.begin(), 0);
  EXPECT_EQ(readerLines(trace.said()), (TraceLines{"[i]initializing multipart message", "[i]using boundary [XyZ]"}));
  const HttpMultipart* const reader = upload.reader();
  EXPECT_STREQ(reader->delimiter, "\r\n--XyZ");
  EXPECT_EQ(reader->delimiterLength, 7u);
  EXPECT_EQ(reader->state, HTTP_MULTIPART_INIT);
  EXPECT_NE(reader->scratch, nullptr);
  EXPECT_EQ(reader->message, &upload.request()->message);
  EXPECT_EQ(http_msgMultipartMessage(upload.reader()), &upload.request()->message);
  EXPECT_EQ(reader->input, http_requestBody(upload.request()));
  EXPECT_NE(reader->input, nullptr);
}

TEST_F(Multipart, SubtypeIsNotLookedAt) {
  for (const char* const subtype : {"form-data", "mixed", "related", "x-anything"}) {
    MultipartUpload upload(
        {requestWith(bodyOf({"x"}), "Content-Type: multipart/"s + subtype + "; charset=utf-8; boundary=XyZ\r\n")});
    EXPECT_EQ(upload.run(), "complete") << subtype;
    EXPECT_EQ(contentsOf(upload), Texts{"x"});
  }
}

// Quotes are not taken off: they are a part of the boundary.
TEST_F(Multipart, QuotesBelongToTheBoundary) {
  const std::string type = "Content-Type: multipart/mixed; boundary=\"XyZ\"\r\n";
  {
    MultipartUpload upload({requestWith(bodyOf({"x"}), type)});
    TraceCapture trace{"http-multipart"};
    EXPECT_EQ(upload.run(), "failed");
    EXPECT_TRUE(trace.has("http-mu[i]using boundary [\"XyZ\"]"));
    EXPECT_EQ(
        readerLines(trace.errors()),
        (TraceLines{"[x]" + shown("unable to read message boundary, we read \n[--XyZ\r\n] instead of \n[--\"XyZ\"]"),
                    "[x]unable to handle multipart message"}));
  }
  MultipartBody body;
  body.boundary = "\"XyZ\"";
  body.parts = {{{}, "x"}};
  MultipartUpload upload({requestWith(body.wire(), type)});
  EXPECT_EQ(upload.run(), "complete");
}

TEST_F(Multipart, BoundaryOfTheApplicationIsTaken) {
  for (const std::string type :
       {"Content-Type: multipart/mixed; boundary=\"XyZ\"\r\n", "Content-Type: text/plain\r\n", ""}) {
    MultipartUpload upload({requestWith(bodyOf({"x"}), type) + kNext});
    upload.boundary = "XyZ";
    EXPECT_EQ(upload.run(), "complete") << type;
    EXPECT_EQ(contentsOf(upload), Texts{"x"});
    EXPECT_EQ(upload.behind(), kNext);
  }
}

TEST_F(Multipart, FormWithoutALastLineEndFailsWithAllOfItsParts) {
  for (const size_t step : {1, 100000}) {
    MultipartUpload upload(cutEvery(requestWith(kFirst + part("x") + kDelimiter + "--"), step));
    EXPECT_EQ(upload.run(), "failed");
    EXPECT_EQ(contentsOf(upload), Texts{"x"});
    EXPECT_EQ(upload.reader()->complete, 1);
  }
  MultipartUpload upload({requestWith(kFirst + part("x") + kDelimiter + "-")});
  EXPECT_EQ(upload.run(), "failed");
  EXPECT_EQ(upload.reader()->complete, 0);
}

TEST_F(Multipart, NullHandlersDropEverything) {
  for (const bool parts : {false, true}) {
    for (const bool bodies : {false, true}) {
      MultipartUpload upload({requestWith(bodyOf({"first", "", std::string(20000, 'x')})) + kNext});
      ASSERT_EQ(upload.begin(), 0);
      upload.onPart = [](HttpRequest*) { return 0; };
      if (!parts) upload.reader()->partHandler = nullptr;
      if (!bodies) upload.reader()->bodyHandler = nullptr;
      if (!parts && bodies)
        upload.onBody = [](HttpRequest*, FILE* body) {
          while (fgetc(body) != EOF) {
          }
          return 0;
        };
      EXPECT_EQ(upload.goOn(), "complete");
      EXPECT_EQ(upload.partCalls(), parts ? 3u : 0u);
      EXPECT_EQ(upload.bodyCalls() > 0, bodies);
      EXPECT_EQ(upload.behind(), kNext);
    }
  }
}

// --- what is traced --------------------------------------------------------------------------------------------------

TEST_F(Multipart, TracesEachStep) {
  MultipartUpload upload({requestWith(bodyOf({"first", "second"}))});
  ASSERT_EQ(upload.begin(), 0);
  upload.input.release();
  TraceCapture trace{"http-multipart"};
  EXPECT_EQ(upload.handleRead(), 0);
  EXPECT_EQ(readerLines(trace.said()), (TraceLines{"[i]handling read (state is 0)",
                                                   "[i]handling first boundary",
                                                   "[i]read first boundary",
                                                   "[i]handling end of boundary",
                                                   "[i]preparing for next part",
                                                   "[i]handling headers",
                                                   "[i]part header has been read, calling part handler",
                                                   "[i]opening body",
                                                   "[i]handling part body",
                                                   "[i]Boundary found",
                                                   "[i]handling end of boundary",
                                                   "[i]preparing for next part",
                                                   "[i]handling headers",
                                                   "[i]part header has been read, calling part handler",
                                                   "[i]opening body",
                                                   "[i]handling part body",
                                                   "[i]Boundary found",
                                                   "[i]handling end of boundary",
                                                   "[i]finished parsing multipart message",
                                                   "[i]handling multipart end",
                                                   "[i]end of multipart message"}));
  EXPECT_EQ(contentsOf(upload), (Texts{"first", "second"}));

  trace.clear();
  EXPECT_EQ(upload.handleRead(), 0);
  EXPECT_EQ(readerLines(trace.said()), (TraceLines{"[i]handling read (state is 7)"}));
}

TEST_F(Multipart, TracesWhatItWaitsFor) {
  struct Row {
    const char* arrived;
    int state;
    const char* line;
  };
  const Row rows[] = {
      {"-", HTTP_MULTIPART_INIT, "[i]we need more data to read the full boundary"},
      {"--Xy", HTTP_MULTIPART_INIT, "[i]we need more data to read the full boundary"},
      {"--XyZ", HTTP_MULTIPART_BOUNDARY, "[i]read first boundary"},
      {"--XyZ\r", HTTP_MULTIPART_BOUNDARY, "[i]we need more data to read the end of the boundary"},
      {"--XyZ-", HTTP_MULTIPART_BOUNDARY, "[i]we need more data to read the end of the boundary"},
      {"--XyZ\r\nA: b\r\n\r\nhi\r\n--XyZ-", HTTP_MULTIPART_BOUNDARY,
       "[i]we need more data to read the end of the boundary"},
      {"--XyZ\r\n", HTTP_MULTIPART_HEADERS, "[i]handling headers"},
      {"--XyZ\r\nA: b\r\n", HTTP_MULTIPART_HEADERS, "[i]handling headers"},
      {"--XyZ\r\nA: b\r\n\r\nhi", HTTP_MULTIPART_BODY, "[i]handling part body"},
      {"--XyZ--", HTTP_MULTIPART_END, "[i]we need more data to read the end of the boundary"},
      {"--XyZ--\r", HTTP_MULTIPART_END, "[i]we need more data to read the end of the boundary"},
  };
  for (const Row& row : rows) {
    const std::string whole = requestWith(std::string(100, 'x'));
    MultipartUpload upload({whole.substr(0, whole.size() - 100) + row.arrived});
    ASSERT_EQ(upload.begin(), 0);
    TraceCapture trace{"http-multipart"};
    EXPECT_EQ(upload.handleRead(), 0) << row.arrived;
    EXPECT_EQ(upload.reader()->state, row.state) << row.arrived;
    EXPECT_EQ(http_requestNeedMoreData(upload.request()), 1) << row.arrived;
    ASSERT_FALSE(trace.said().empty());
    EXPECT_EQ(readerLines(trace.said()).back(), row.line) << row.arrived;
    EXPECT_EQ(readerLines(trace.errors()), TraceLines{}) << row.arrived;
  }
}

TEST_F(Multipart, GoesThroughItsStatesOctetByOctet) {
  struct Row {
    const char* octets;
    const char* states;  // after each of them; 5 counts as 4
  };
  const Row rows[] = {{"--XyZ", "00001"}, {"\r\n", "13"},  {"A: b\r\n", "333333"},
                      {"\r\n", "34"},     {"h\ri", "444"}, {"\r\n--XyZ", "4444441"},
                      {"\r\n", "13"},     {"\r\n", "34"},  {"\r\n--XyZ", "4444441"},
                      {"--", "16"},       {"\r\n", "67"},  {"epilogue", "77777777"}};
  for (const bool inChunks : {false, true}) {
    std::string octets;
    std::string expected;
    for (const Row& row : rows) {
      octets += row.octets;
      expected += row.states;
    }
    const std::string wire = inChunks ? chunkedWith(octets, 1) : requestWith(octets);
    const size_t head = wire.find("\r\n\r\n") + 4;
    Pieces pieces = {wire.substr(0, head)};
    const Pieces rest = inChunks ? cutEvery(wire.substr(head), 6) : cutEvery(wire.substr(head), 1);
    pieces.insert(pieces.end(), rest.begin(), rest.end());
    MultipartUpload upload(pieces);
    ASSERT_EQ(upload.begin(), 0);
    std::string states;
    for (size_t octet = 0; octet < octets.size(); ++octet) {
      upload.input.release();
      EXPECT_EQ(upload.handleRead(), 0);
      const int state = upload.reader()->state;
      states += std::to_string(state == HTTP_MULTIPART_GIVE_BACK ? HTTP_MULTIPART_BODY : state);
    }
    EXPECT_EQ(states, expected);
    EXPECT_EQ(contentsOf(upload), (Texts{"h\ri", ""}));
  }
}

// --- failures --------------------------------------------------------------------------------------------------------

struct FailureCase {
  const char* name;
  std::string body;
  TraceLines errors;  // "*" for a reason that the system names
  size_t parts = 0;   // whose heads were handed out
};
void PrintTo(const FailureCase& row, std::ostream* out) { *out << row.name; }

class MultipartFailure : public Multipart, public ::testing::WithParamInterface<FailureCase> {
 protected:
  void expectFailure(const Pieces& pieces) {
    const FailureCase& row = GetParam();
    MultipartUpload upload(pieces);
    ASSERT_EQ(upload.begin(), 0);
    TraceCapture trace{"http-multipart"};
    EXPECT_EQ(upload.goOn(), "failed");
    EXPECT_EQ(upload.reader()->state, HTTP_MULTIPART_FAILED);
    TraceLines expected = row.errors;
    expected.emplace_back("[x]unable to handle multipart message");
    EXPECT_EQ(withoutReason(readerLines(trace.errors())), expected);
    EXPECT_EQ(upload.partCalls(), row.parts);

    // It stays so, whatever arrives, and says so each time.
    trace.clear();
    const size_t calls = upload.bodyCalls();
    for (int again = 0; again < 2; ++again) {
      upload.input.release();
      EXPECT_EQ(upload.handleRead(), -1);
    }
    EXPECT_EQ(readerLines(trace.said()),
              (TraceLines{"[i]handling read (state is 8)", "[x]unable to handle multipart message",
                          "[i]handling read (state is 8)", "[x]unable to handle multipart message"}));
    EXPECT_EQ(upload.bodyCalls(), calls);
    EXPECT_EQ(upload.partCalls(), row.parts);
  }
};

TEST_P(MultipartFailure, InOnePiece) { expectFailure({requestWith(GetParam().body) + kNext}); }
TEST_P(MultipartFailure, OctetByOctet) { expectFailure(cutEvery(requestWith(GetParam().body), 1)); }
TEST_P(MultipartFailure, InChunks) { expectFailure({chunkedWith(GetParam().body)}); }
TEST_P(MultipartFailure, InChunksOctetByOctet) { expectFailure(cutEvery(chunkedWith(GetParam().body), 1)); }

TraceLines weRead(const std::string& read) {
  return {"[x]" + shown("unable to read message boundary, we read \n[" + read + "] instead of \n[--XyZ]")};
}
TraceLines unrecognized(const std::string& end) {
  return {"[x]unrecognized end of boundary string \"" + shown(end) + "\" (read 2 chars)"};
}
const TraceLines kEndedInBoundary = {"[x]unable to read message boundary: *"};
const TraceLines kBadHead = {"[x]unable to parse multipart part's header"};

const FailureCase kFailures[] = {
    {"WrongFirstLine", "hello world\r\n", weRead("hello")},
    {"OtherBoundary", "--xyz\r\nA: b\r\n\r\nx\r\n--xyz--\r\n", weRead("--xyz")},
    {"Preamble", "This is a message of parts.\r\n" + bodyOf({"x"}), weRead("This ")},
    {"EmptyLineFirst", "\r\n" + bodyOf({"x"}), weRead("\r\n--X")},
    {"PercentInTheFirstLine", "%s%n%d--XyZ\r\n", weRead("%s%n%")},
    {"UnknownEnd", "--XyZab", unrecognized("ab")},
    {"PercentEnd", "--XyZ%n", unrecognized("%n")},
    {"PaddedEnd", "--XyZ \r\nA: b\r\n\r\n", unrecognized(" \r")},
    {"LineFeedEnd", "--XyZ\nA: b\r\n\r\n", unrecognized("\nA")},
    {"ReturnOnly", "--XyZ\rA: b\r\n\r\n", unrecognized("\rA")},
    {"OneHyphen", "--XyZ-\r\n", unrecognized("-\r")},
    {"UnknownEndOfALaterOne", kFirst + part("x") + kDelimiter + "!?" + part("y") + kEnd, unrecognized("!?"), 1},
    {"LongerBoundaryInAPart", kFirst + part("x") + "\r\n--XyZzy\r\n" + kEnd, unrecognized("zy"), 1},
    {"EndsInTheFirstBoundary", "--Xy", kEndedInBoundary},
    {"EndsBehindTheFirstBoundary", "--XyZ", kEndedInBoundary},
    {"EndsInTheEndOfTheBoundary", "--XyZ\r", kEndedInBoundary},
    {"EndsBeforeTheHead", "--XyZ\r\n", kBadHead},
    {"EndsInALineOfTheHead", "--XyZ\r\nA: b", kBadHead},
    {"EndsInTheHead", "--XyZ\r\nA: b\r\n", kBadHead},
    {"EndsBeforeTheLastByteOfTheHead", "--XyZ\r\nA: b\r\n\r", kBadHead},
    {"EndsBehindALaterDelimiter", kFirst + part("x") + kDelimiter, kEndedInBoundary, 1},
    {"EndsInTheEndOfTheLastDelimiter", kFirst + part("x") + kDelimiter + "-", kEndedInBoundary, 1},
    {"NoLineEndBehindTheLast", kFirst + part("x") + kDelimiter + "--", kEndedInBoundary, 1},
    {"HalfALineEndBehindTheLast", kFirst + part("x") + kDelimiter + "--\r", kEndedInBoundary, 1},
    {"HeaderWithoutColon", kFirst + "nonsense\r\n\r\nx" + kEnd, kBadHead},
    {"HeaderWithoutName", kFirst + ": x\r\n\r\nx" + kEnd, kBadHead},
    {"SecondHeadMalformed", kFirst + part("x") + kDelimiter + "\r\nA: b\r\nnonsense\r\n\r\nx" + kEnd, kBadHead, 1},
};
INSTANTIATE_TEST_SUITE_P(Table, MultipartFailure, ::testing::ValuesIn(kFailures),
                         [](const auto& row) { return row.param.name; });

// The description names no message of its own here: the last line does not depend on it.
class MultipartEndInBody : public Multipart, public ::testing::WithParamInterface<Appetite> {};
INSTANTIATE_TEST_SUITE_P(Read, MultipartEndInBody, ::testing::ValuesIn(kAppetites),
                         [](const auto& row) { return row.param.name; });

TEST_P(MultipartEndInBody, Fails) {
  for (const std::string begun : {"", "hello", "hello\r", "\r\n--Xy", "hello\r\n--XyY", "\r\n--X\r\n--Xy"}) {
    for (const bool inChunks : {false, true}) {
      for (const size_t step : {1, 3, 100000}) {
        const std::string body = kFirst + part(begun);
        const std::string wire = inChunks ? chunkedWith(body) : requestWith(body) + kNext;
        MultipartUpload upload(cutEvery(wire, step));
        upload.appetite = GetParam();
        ASSERT_EQ(upload.begin(), 0);
        TraceCapture trace;
        EXPECT_EQ(upload.goOn(), "failed") << begun;
        EXPECT_EQ(upload.reader()->state, HTTP_MULTIPART_FAILED);
        EXPECT_EQ(lastError(trace), "http-mu[x]unable to handle multipart message");
        ASSERT_EQ(upload.received().size(), 1u);
        EXPECT_TRUE(begun.starts_with(contentsOf(upload)[0])) << begun << " gave " << contentsOf(upload)[0];
        EXPECT_EQ(upload.ends()[0], 0) << "a part without its delimiter is not complete";
        if (!inChunks) {
          EXPECT_EQ(upload.behind(), kNext);
        }
      }
    }
  }
}

TEST_F(Multipart, ReadErrorFails) {
  for (const std::string arrived : {"", "--Xy", "--XyZ", "--XyZ\r\nA", "--XyZ\r\nA: b\r\n\r\nx", "--XyZ--"}) {
    const std::string whole = requestWith(std::string(100, 'x'));
    MultipartUpload upload({});
    upload.input.bytes(whole.substr(0, whole.size() - 100) + arrived).error(EIO).bytes("x");
    ASSERT_EQ(upload.begin(), 0);
    TraceCapture trace;
    EXPECT_EQ(upload.goOn(), "failed") << arrived;
    EXPECT_EQ(upload.reader()->state, HTTP_MULTIPART_FAILED) << arrived;
    EXPECT_EQ(lastError(trace), "http-mu[x]unable to handle multipart message");
  }
}

TEST_F(Multipart, EmptyBodyFailsAndLeavesTheNextRequestAlone) {
  MultipartUpload upload({"POST /up HTTP/1.1\r\n" + kType + "Content-Length: 0\r\n\r\n" + kNext});
  const TraceCapture quiet;
  ASSERT_EQ(upload.begin(), 0);
  EXPECT_EQ(upload.goOn(), "failed");
  EXPECT_EQ(upload.partCalls(), 0u);
  EXPECT_EQ(upload.behind(), kNext);
}

// A CR in a boundary may be the beginning of the delimiter as well.
TEST_F(Multipart, BoundaryWithACarriageReturn) {
  struct Row {
    const char* boundary;
    const char* content;
  };
  static constexpr Row kRows[] = {{"a\rb", "DATA\r\n--a"},        {"a\rb", "DATA\r\n--a\r"},
                                  {"a\rb", "\r\r\n--a\r\r\n--a"}, {"a\rb", "\r\n--a\r\n--a\r"},
                                  {"\r\n--x", "DATA\r\n--"},      {"\r\n--x", "\r\n--\r\n-"},
                                  {"\r\r\n--\rb", "\r\n--\r"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(shown(std::string(row.boundary) + " " + row.content));
    const MultipartBody body = {row.boundary, {{{}, row.content}}, {}};
    for (const size_t piece : {1u, 3u, 1000u}) {
      MultipartUpload upload(cutEvery(requestWith(body.wire()), piece));
      upload.boundary = row.boundary;
      EXPECT_EQ(upload.run(), "complete");
      EXPECT_EQ(contentsOf(upload), Texts{row.content});
    }
  }
}

TEST_F(Multipart, PartHandlerGivesUp) {
  MultipartUpload upload({requestWith(bodyOf({"first", "second", "third"}))});
  upload.onPart = [&](HttpRequest*) { return upload.partCalls() == 2 ? -1 : 0; };
  TraceCapture trace;
  EXPECT_EQ(upload.run(), "failed");
  EXPECT_EQ(upload.reader()->state, HTTP_MULTIPART_FAILED);
  EXPECT_EQ(readerLines(trace.errors()),
            (TraceLines{"[x]part handler returned an error, aborting", "[x]unable to handle multipart message"}));
  EXPECT_EQ(contentsOf(upload), (Texts{"first", ""}));
  const size_t calls = upload.bodyCalls();
  EXPECT_EQ(upload.handleRead(), -1);
  EXPECT_EQ(upload.partCalls(), 2u);
  EXPECT_EQ(upload.bodyCalls(), calls);
}

TEST_F(Multipart, BodyHandlerGivesUp) {
  for (const bool reads : {false, true}) {
    MultipartUpload upload({requestWith(bodyOf({"first", "second", "third"}))});
    upload.onBody = [&](HttpRequest* it, FILE* body) {
      if (upload.partCalls() != 2 || reads) upload.readAs(upload.appetite, it, body);
      return upload.partCalls() == 2 ? -7 : 0;
    };
    TraceCapture trace;
    EXPECT_EQ(upload.run(), "failed");
    EXPECT_EQ(upload.reader()->state, HTTP_MULTIPART_FAILED) << "also when the part was complete";
    EXPECT_EQ(readerLines(trace.errors()), (TraceLines{"[x]part body handler returned an error, aborting",
                                                       "[x]unable to handle multipart message"}));
    const size_t calls = upload.bodyCalls();
    EXPECT_EQ(upload.handleRead(), -1);
    EXPECT_EQ(upload.partCalls(), 2u);
    EXPECT_EQ(upload.bodyCalls(), calls);
  }
}

TEST_F(Multipart, PositiveResultsAreNoFailure) {
  MultipartUpload upload({requestWith(bodyOf({"first", "second"}))});
  upload.onPart = [](HttpRequest*) { return 1; };
  upload.onBody = [&](HttpRequest* it, FILE* body) {
    upload.readAs(upload.appetite, it, body);
    return 2;
  };
  EXPECT_EQ(upload.run(), "complete");
  EXPECT_EQ(contentsOf(upload), (Texts{"first", "second"}));
}

// --- heads of parts --------------------------------------------------------------------------------------------------

struct HeadCase {
  const char* name;
  std::string head;
  std::vector<std::pair<std::string, std::string>> headers;
};
void PrintTo(const HeadCase& row, std::ostream* out) { *out << row.name; }

class MultipartHead : public Multipart, public ::testing::WithParamInterface<HeadCase> {};

TEST_P(MultipartHead, IsHandedOutAndTheContentIsAsItIs) {
  const std::string content = "line 1\nline 2\rline 3\r\n\r\n5\r\nhello\r\n0\r\n\r\n";
  for (const size_t step : {1, 7, 100000}) {
    const std::string wire =
        requestWith(kFirst + part(content, GetParam().head) + kDelimiter + "\r\n" + part("next") + kEnd);
    MultipartUpload upload(cutEvery(wire, step));
    EXPECT_EQ(upload.run(), "complete");
    ASSERT_EQ(upload.received().size(), 2u);
    EXPECT_EQ(upload.received()[0].headers, GetParam().headers);
    EXPECT_EQ(upload.received()[0].content, content);
    EXPECT_EQ(upload.received()[1], (MultipartPart{{{"A", "b"}}, "next"}));
  }
}

const HeadCase kHeads[] = {
    {"None", "", {}},
    {"Field", "Content-Disposition: form-data; name=\"a\"\r\n", {{"Content-Disposition", "form-data; name=\"a\""}}},
    {"File",
     "Content-Disposition: form-data; name=\"up\"; filename=\"a b;c.txt\"\r\nContent-Type: text/plain\r\n",
     {{"Content-Disposition", "form-data; name=\"up\"; filename=\"a b;c.txt\""}, {"Content-Type", "text/plain"}}},
    {"Utf8",
     "Content-Disposition: form-data; name=\"\xc3\xbcn\xc3\xaf\"; filename=\"\xe2\x82\xac \xf0\x9f\x98\x80.txt\"\r\n",
     {{"Content-Disposition",
       "form-data; name=\"\xc3\xbcn\xc3\xaf\"; filename=\"\xe2\x82\xac \xf0\x9f\x98\x80.txt\""}}},
    {"ExtendedFileName",
     "Content-Disposition: form-data; name=f; filename=\"naive.txt\"; filename*=UTF-8''na%C3%AFve%20file.txt\r\n",
     {{"Content-Disposition", "form-data; name=f; filename=\"naive.txt\"; filename*=UTF-8''na%C3%AFve%20file.txt"}}},
    {"EscapedLineEnd",
     "Content-Disposition: form-data; name=\"a%0D%0Ab%22c\"; filename=\"C:\\\\dir\\\\x.txt\"\r\n",
     {{"Content-Disposition", "form-data; name=\"a%0D%0Ab%22c\"; filename=\"C:\\\\dir\\\\x.txt\""}}},
    {"LowerCase", "content-disposition: form-data; name=a\r\n", {{"Content-Disposition", "form-data; name=a"}}},
    {"OwnHeader", "X-Checksum: 1234\r\n", {{"X-Checksum", "1234"}}},
    {"NoBlank", "X-A:b\r\n", {{"X-A", "b"}}},
    {"OwnLength", "Content-Length: 3\r\n", {{"Content-Length", "3"}}},
    {"OwnLengthOfZero", "Content-Length: 0\r\n", {{"Content-Length", "0"}}},
    {"OwnLengthTooLarge", "Content-Length: 99999999\r\n", {{"Content-Length", "99999999"}}},
    {"OwnCoding", "Transfer-Encoding: chunked\r\n", {{"Transfer-Encoding", "chunked"}}},
    {"UnknownCoding", "Transfer-Encoding: gzip\r\n", {{"Transfer-Encoding", "gzip"}}},
    {"TransferEncodingOfMail", "Content-Transfer-Encoding: binary\r\n", {{"Content-Transfer-Encoding", "binary"}}},
    {"PartsInside",
     "Content-Type: multipart/mixed; boundary=inner\r\nContent-Length: 0\r\n",
     {{"Content-Type", "multipart/mixed; boundary=inner"}, {"Content-Length", "0"}}},
    {"ExpectsNothing",
     "Expect: 100-continue\r\nConnection: close\r\n",
     {{"Expect", "100-continue"}, {"Connection", "close"}}},
    {"Long", "X-Long: " + std::string(100000, 'y') + "\r\n", {{"X-Long", std::string(100000, 'y')}}},
};
INSTANTIATE_TEST_SUITE_P(Table, MultipartHead, ::testing::ValuesIn(kHeads),
                         [](const auto& row) { return row.param.name; });

TEST_F(Multipart, PartHasTheReaderAndAState) {
  MultipartUpload upload({requestWith(bodyOf({"first", "", "third"}))});
  HttpRequest* parts = nullptr;
  upload.onPart = [&](HttpRequest* it) {
    parts = it;
    EXPECT_EQ(http_requestUserData(it), upload.reader());
    EXPECT_EQ(it, &upload.reader()->part);
    EXPECT_EQ(http_requestState(it), HTTP_MSG_BODY);
    EXPECT_STREQ(http_requestHeaderValue(it, "a"), "b");
    return 0;
  };
  upload.onBody = [&](HttpRequest* it, FILE* body) {
    EXPECT_EQ(it, parts);
    EXPECT_EQ(http_requestState(it), HTTP_MSG_BODY);
    EXPECT_EQ(http_requestUserData(it), upload.reader());
    EXPECT_EQ(it->message.body, body);
    EXPECT_STREQ(http_requestHeaderValue(it, "A"), "b") << "the head is still there";
    if (upload.readAs(upload.appetite, it, body)) upload.noteEnd();
    EXPECT_EQ(http_requestState(it), HTTP_MSG_DONE);
    EXPECT_EQ(fgetc(body), EOF) << "nothing of the next part";
    clearerr(body);
    TraceCapture trace{"http-multipart"};
    EXPECT_EQ(fgetc(body), EOF);
    EXPECT_EQ(trace.said(), TraceLines{"http-mu[i]eof of body part reached"});
    EXPECT_EQ(http_requestState(it), HTTP_MSG_DONE);
    return 0;
  };
  EXPECT_EQ(upload.run(), "complete");
  EXPECT_EQ(contentsOf(upload), (Texts{"first", "", "third"}));
  EXPECT_EQ(upload.ends(), (std::vector<int>{1, 1, 1}));
  EXPECT_EQ(upload.bodyCalls(), 3u);
}

// A head without an end is given up before it takes much.
TEST_F(Multipart, HeadWithoutAnEndIsGivenUp) {
  constexpr size_t kTotal = 2 << 20;
  constexpr size_t kEnough = 300 << 10;
  const std::string line = "X-Header: " + std::string(990, 'v') + "\r\n";
  std::string lines;
  while (lines.size() < kTotal) lines += line;
  for (const std::string& head : {std::string(kTotal, 'x'), "X: " + std::string(kTotal, 'x'), lines}) {
    for (const bool second : {false, true}) {
      const std::string wire =
          requestWith((second ? kFirst + part("x") + kDelimiter + "\r\n" : kFirst) + head + "\r\n\r\nx" + kEnd);
      MultipartUpload upload(cutEvery(wire, 1000));
      ASSERT_EQ(upload.begin(), 0);
      const TraceCapture quiet;
      uint32_t largest = 0;
      int result = 0;
      while (result == 0 && upload.input.held()) {
        upload.input.release();
        result = upload.handleRead();
        largest = std::max(largest, upload.reader()->part.message.bufferSize);
      }
      EXPECT_EQ(result, -1);
      EXPECT_EQ(upload.reader()->state, HTTP_MULTIPART_FAILED);
      EXPECT_EQ(upload.partCalls(), second ? 1u : 0u);
      EXPECT_LT(wire.size() - upload.input.pending(), kEnough);
      EXPECT_LT(largest, kEnough);
    }
  }
}

TEST_F(Multipart, HeadWithoutAnEndIsGivenUpThoughAllHasArrived) {
  const std::string wire = requestWith(kFirst + "X: " + std::string(2 << 20, 'x') + "\r\n\r\nx" + kEnd);
  MultipartUpload upload({wire});
  const TraceCapture quiet;
  EXPECT_EQ(upload.run(), "failed");
  EXPECT_EQ(upload.reader()->state, HTTP_MULTIPART_FAILED);
  EXPECT_LT(wire.size() - upload.input.pending(), 400u << 10);
}

// The limit is that of one head: many small ones are no large one.
TEST_F(Multipart, ManyHeadsAreNotOne) {
  MultipartBody body;
  for (int i = 0; i < 20; ++i) body.parts.push_back({{{"X", std::string(50000, 'x')}}, std::to_string(i)});
  MultipartUpload upload({requestWith(body.wire())});
  EXPECT_EQ(upload.run(), "complete");
  EXPECT_EQ(upload.received(), body.parts);
}

// --- bodies of parts -------------------------------------------------------------------------------------------------

TEST_F(Multipart, NoPartAtAll) {
  MultipartUpload upload({requestWith("--XyZ--\r\n") + kNext});
  EXPECT_EQ(upload.run(), "complete");
  EXPECT_EQ(upload.partCalls() + upload.bodyCalls(), 0u);
  EXPECT_EQ(upload.behind(), kNext);
}

TEST_F(Multipart, EmptyPartIsHandedOutToo) {
  for (const size_t step : {1, 100000}) {
    MultipartUpload upload(cutEvery(requestWith(bodyOf({"", "", ""})), step));
    EXPECT_EQ(upload.run(), "complete");
    EXPECT_EQ(contentsOf(upload), (Texts{"", "", ""}));
    EXPECT_EQ(upload.ends(), (std::vector<int>{1, 1, 1}));
  }
}

TEST_F(Multipart, EpilogueIsDropped) {
  for (const std::string& epilogue : {"x"s, "\r\n"s, bodyOf({"no part"}), "\r\n--XyZ\r\n"s, std::string(200000, 'e')}) {
    for (const bool inChunks : {false, true}) {
      for (const size_t step : {11, 10000000}) {
        const std::string body = bodyOf({"first"}) + epilogue;
        MultipartUpload upload(cutEvery((inChunks ? chunkedWith(body, 1000) : requestWith(body)) + kNext, step));
        EXPECT_EQ(upload.run(), "complete");
        EXPECT_EQ(contentsOf(upload), Texts{"first"});
        EXPECT_EQ(upload.behind(), kNext);
      }
    }
  }
}

// Other bytes than a line end behind the last delimiter are warned of, and dropped.
TEST_F(Multipart, OtherBytesBehindTheLastDelimiter) {
  for (const std::string rest : {"ab", "ab and more\r\n", " \r\n", "\n\n", "\r\r\n", "--\r\n"}) {
    for (const size_t step : {1, 100000}) {
      MultipartUpload upload(cutEvery(requestWith(kFirst + part("x") + kDelimiter + "--" + rest) + kNext, step));
      TraceCapture trace;
      EXPECT_EQ(upload.run(), "complete") << rest;
      EXPECT_EQ(readerLines(trace.said()), (TraceLines{"[!]unable to read EOL for in the message"})) << rest;
      EXPECT_EQ(contentsOf(upload), Texts{"x"});
      EXPECT_EQ(upload.behind(), kNext);
    }
  }
}

TEST_F(Multipart, FlagsAreClearedBeforeEachCall) {
  const std::string wire = requestWith(bodyOf({"first part", "", "third"}));
  for (const size_t step : {1, 3}) {
    MultipartUpload upload(cutEvery(wire, step));
    upload.onBody = [&](HttpRequest* it, FILE* body) {
      EXPECT_EQ(feof(body), 0);
      EXPECT_EQ(ferror(body), 0);
      EXPECT_EQ(feof(upload.reader()->input), 0);
      EXPECT_EQ(ferror(upload.reader()->input), 0);
      if (upload.readAs(upload.appetite, it, body)) upload.noteEnd();
      EXPECT_NE(feof(body), 0);
      EXPECT_EQ(ferror(body), 0) << "to wait is no error";
      return 0;
    };
    EXPECT_EQ(upload.run(), "complete");
    EXPECT_EQ(contentsOf(upload), (Texts{"first part", "", "third"}));
  }
}

// What cannot be the beginning of a delimiter is handed out at once.
TEST_F(Multipart, NothingIsHeldBackButABegunDelimiter) {
  struct Row {
    const char* arrived;
    const char* handedOut;
  };
  const Row rows[] = {{"", ""},
                      {"hello", "hello"},
                      {"hello\n", "hello\n"},
                      {"hello\r", "hello"},
                      {"\rx", "\rx"},
                      {"\r\r", "\r"},
                      {"a\r\n--Xyz", "a\r\n--Xyz"},
                      {"a\r\n--Xy", "a"},
                      {"\r\n--X\r\n", "\r\n--X"},
                      {"--XyZ", "--XyZ"}};
  for (const Row& row : rows) {
    for (const bool octets : {false, true}) {
      const std::string whole = requestWith(std::string(1000, 'x'));
      const std::string wire = whole.substr(0, whole.size() - 1000) + kFirst + part(row.arrived);
      MultipartUpload upload(octets ? cutEvery(wire, 1) : Pieces{wire});
      ASSERT_EQ(upload.begin(), 0);
      do {
        EXPECT_EQ(upload.handleRead(), 0);
        if (!upload.input.held() || upload.input.pending() == 0) break;
        upload.input.release();
      } while (true);
      EXPECT_EQ(contentsOf(upload), Texts{row.handedOut}) << row.arrived;
    }
  }
}

// No byte is read behind the delimiter: the connection has what follows the body, and the body what follows the part.
TEST_F(Multipart, ReadsNoFurtherThanTheDelimiter) {
  MultipartUpload upload({requestWith(bodyOf({"first", "second"})) + kNext});
  ASSERT_EQ(upload.begin(), 0);
  std::string behind;
  upload.onBody = [&](HttpRequest* it, FILE* body) {
    if (upload.readAs(upload.appetite, it, body)) upload.noteEnd();
    upload.request()->message.paused = HTTP_MSG_PAUSED;
    return 0;
  };
  EXPECT_EQ(upload.handleRead(), 0);
  std::array<char, 100> rest = {};
  const size_t count = fread(rest.data(), 1, rest.size(), upload.reader()->input);
  EXPECT_EQ(std::string(rest.data(), count), "\r\n" + part("second") + kEnd);
  EXPECT_EQ(upload.behind(), kNext);
}

TEST_F(Multipart, HandlerThatReadsNothingDoesNotSpinAndLosesNothing) {
  const Texts contents = {"first \r\n--XyY", "", "\r\n--Xythird"};
  for (const size_t step : {1, 5, 100000}) {
    MultipartUpload upload(cutEvery(requestWith(bodyOf(contents)) + kNext, step));
    ASSERT_EQ(upload.begin(), 0);
    size_t lazy = 3;  // calls that read nothing before each one that reads
    size_t idle = 0;
    upload.onBody = [&](HttpRequest* it, FILE* body) {
      if (idle++ % (lazy + 1) != lazy) return 0;
      if (upload.readAs({"", Appetite::kOnce, 4}, it, body)) upload.noteEnd();
      return 0;
    };
    size_t rounds = 0;
    while (upload.reader()->state != HTTP_MULTIPART_DONE && rounds < 10000) {
      const size_t before = upload.bodyCalls();
      ASSERT_EQ(upload.handleRead(), 0);
      EXPECT_LT(upload.bodyCalls() - before, 100u);
      if (upload.input.held() && rounds % 5 == 4) upload.input.release();
      ++rounds;
    }
    EXPECT_EQ(contentsOf(upload), contents);
    EXPECT_EQ(upload.ends(), (std::vector<int>{1, 1, 1}));
    while (upload.input.held()) upload.input.release();
    EXPECT_EQ(upload.behind(), kNext);
  }
}

TEST_F(Multipart, HandlerThatNeverReadsIsCalledOnceAtATime) {
  MultipartUpload upload({requestWith(bodyOf({"first", "second"}))});
  ASSERT_EQ(upload.begin(), 0);
  upload.onBody = [](HttpRequest*, FILE*) { return 0; };
  for (size_t call = 1; call <= 5; ++call) {
    EXPECT_EQ(upload.handleRead(), 0);
    EXPECT_EQ(upload.bodyCalls(), call);
    EXPECT_EQ(upload.partCalls(), 1u);
  }
  upload.onBody = nullptr;
  EXPECT_EQ(upload.goOn(), "complete");
  EXPECT_EQ(contentsOf(upload), (Texts{"first", "second"}));
}

// One byte with each call, where the delimiter has begun again and again: each call has made progress.
TEST_F(Multipart, SmallReadsOfWhatOnlyBeganLikeTheDelimiter) {
  for (const std::string content : {"\r\n--Xy!", "\r\n--Xy\r\n--Xy\r\r\n--X", "\r\r\r\r"}) {
    for (const size_t size : {1, 2, 5}) {
      MultipartUpload upload({requestWith(bodyOf({content, "next"}))});
      upload.appetite = {"", Appetite::kOnce, size};
      ASSERT_EQ(upload.begin(), 0);
      EXPECT_EQ(upload.handleRead(), 0);
      EXPECT_EQ(upload.reader()->state, HTTP_MULTIPART_DONE);
      EXPECT_EQ(contentsOf(upload), (Texts{content, "next"}));
      EXPECT_EQ(upload.ends(), (std::vector<int>{1, 1}));
    }
  }
}

TEST_F(Multipart, HandlerThatClosesTheStreamSkipsTheRest) {
  const Texts contents = {"first \r\n--XyY and more", "", "\r\n--Xyt\r\n--Xhird", std::string(20000, 'x'), "last"};
  for (const size_t readBefore : {0, 1, 3, 9, 100}) {
    for (const bool inChunks : {false, true}) {
      for (const size_t step : {1, 7, 100000}) {
        const std::string body = bodyOf(contents);
        MultipartUpload upload(cutEvery((inChunks ? chunkedWith(body, 1000) : requestWith(body)) + kNext, step));
        upload.onBody = [&](HttpRequest* it, FILE* stream) {
          if (upload.partCalls() == contents.size()) {
            if (upload.readAs(upload.appetite, it, stream)) upload.noteEnd();
            return 0;
          }
          EXPECT_EQ(upload.ends().back(), 0) << "called for a part that was closed";
          std::string read;
          if (readBefore > 0) MultipartUpload::take(stream, readBefore, &read);
          EXPECT_TRUE(contents[upload.partCalls() - 1].starts_with(read));
          EXPECT_EQ(fclose(stream), 0);
          EXPECT_EQ(http_requestState(it), HTTP_MSG_DONE);
          upload.noteEnd();
          return 0;
        };
        EXPECT_EQ(upload.run(), "complete");
        EXPECT_EQ(upload.partCalls(), contents.size());
        EXPECT_EQ(upload.bodyCalls() >= contents.size(), true);
        EXPECT_EQ(contentsOf(upload).back(), "last");
        EXPECT_EQ(upload.ends(), (std::vector<int>{1, 1, 1, 1, 1}));
        EXPECT_EQ(upload.behind(), kNext);
      }
    }
  }
}

TEST_F(Multipart, StreamClosedAtItsEndIsAsGood) {
  MultipartUpload upload({requestWith(bodyOf({"first", "", "third"}))});
  upload.onBody = [&](HttpRequest* it, FILE* body) {
    if (upload.readAs(upload.appetite, it, body)) {
      upload.noteEnd();
      EXPECT_EQ(fclose(body), 0);
    }
    return 0;
  };
  EXPECT_EQ(upload.run(), "complete");
  EXPECT_EQ(contentsOf(upload), (Texts{"first", "", "third"}));
  EXPECT_EQ(upload.ends(), (std::vector<int>{1, 1, 1}));
}

TEST_F(Multipart, DiscardingThePartIsAllowed) {
  MultipartUpload upload(cutEvery(requestWith(bodyOf({"first", "", std::string(9000, 'x')})) + kNext, 1000));
  upload.onBody = [&](HttpRequest* it, FILE*) { return http_requestBodyDiscard(it); };
  EXPECT_EQ(upload.run(), "complete");
  EXPECT_EQ(upload.partCalls(), 3u);
  EXPECT_EQ(upload.behind(), kNext);
}

// --- pausing ---------------------------------------------------------------------------------------------------------

TEST_F(Multipart, PausedRequestIsNotRead) {
  for (const uint8_t paused : {HTTP_MSG_PAUSED, HTTP_MSG_TEMPORIZED}) {
    MultipartUpload upload({requestWith(bodyOf({"first"}))});
    ASSERT_EQ(upload.begin(), 0);
    upload.request()->message.paused = paused;
    TraceCapture trace{"http-multipart"};
    EXPECT_EQ(upload.handleRead(), 0);
    EXPECT_EQ(readerLines(trace.said()), (TraceLines{"[i]handling read (state is 0)"}));
    EXPECT_EQ(upload.reader()->state, HTTP_MULTIPART_INIT);
    upload.request()->message.paused = HTTP_MSG_RUNNING;
    EXPECT_EQ(upload.goOn(), "complete");
    EXPECT_EQ(contentsOf(upload), Texts{"first"});
  }
}

TEST_F(Multipart, PausedInThePartHandler) {
  MultipartUpload upload({requestWith(bodyOf({"first", "second"}))});
  ASSERT_EQ(upload.begin(), 0);
  upload.onPart = [&](HttpRequest*) {
    upload.request()->message.paused = HTTP_MSG_PAUSED;
    return 0;
  };
  for (size_t number = 1; number <= 2; ++number) {
    EXPECT_EQ(upload.handleRead(), 0);
    EXPECT_EQ(upload.partCalls(), number);
    EXPECT_EQ(upload.bodyCalls(), number - 1);
    EXPECT_EQ(upload.handleRead(), 0);
    EXPECT_EQ(upload.bodyCalls(), number - 1);
    upload.request()->message.paused = HTTP_MSG_RUNNING;
  }
  EXPECT_EQ(upload.goOn(), "complete");
  EXPECT_EQ(contentsOf(upload), (Texts{"first", "second"}));
}

TEST_F(Multipart, PausedInTheBodyHandlerAfterEachRead) {
  const Texts contents = {"first \r\n--XyY", "", "\r\n--Xythird"};
  for (const size_t size : {1, 4, 4096}) {
    MultipartUpload upload({requestWith(bodyOf(contents)) + kNext});
    ASSERT_EQ(upload.begin(), 0);
    upload.onBody = [&](HttpRequest* it, FILE* body) {
      if (upload.readAs({"", Appetite::kOnce, size}, it, body)) upload.noteEnd();
      upload.request()->message.paused = HTTP_MSG_PAUSED;
      return 0;
    };
    for (size_t calls = 0; upload.reader()->state != HTTP_MULTIPART_DONE; ++calls) {
      ASSERT_EQ(upload.bodyCalls(), calls);
      ASSERT_LT(calls, 100u);
      upload.request()->message.paused = HTTP_MSG_RUNNING;
      ASSERT_EQ(upload.handleRead(), 0);
    }
    EXPECT_EQ(contentsOf(upload), contents);
    EXPECT_EQ(upload.ends(), (std::vector<int>{1, 1, 1}));
    EXPECT_EQ(upload.behind(), kNext);
  }
}

TEST_F(Multipart, CallsFromInsideItsHandlersDoNothing) {
  MultipartUpload upload({requestWith(bodyOf({"first", "second"}))});
  int depth = 0;
  size_t refused = 0;
  const auto again = [&] {
    ++depth;
    EXPECT_EQ(depth, 1);
    const size_t parts = upload.partCalls();
    const size_t bodies = upload.bodyCalls();
    EXPECT_EQ(http_msgMultipartHandleRead(upload.reader()), 0);
    EXPECT_EQ(upload.partCalls(), parts);
    EXPECT_EQ(upload.bodyCalls(), bodies);
    if (http_msgMultipartResume(upload.reader()) == -1) ++refused;  // not on a connection
    EXPECT_EQ(upload.bodyCalls(), bodies);
    --depth;
    return 0;
  };
  const TraceCapture quiet;
  upload.onPart = [&](HttpRequest*) { return again(); };
  upload.onBody = [&](HttpRequest* it, FILE* body) {
    again();
    if (upload.readAs({"", Appetite::kOnce, 4}, it, body)) upload.noteEnd();
    return again();
  };
  EXPECT_EQ(upload.run(), "complete");
  EXPECT_EQ(contentsOf(upload), (Texts{"first", "second"}));
  EXPECT_EQ(refused, upload.partCalls() + 2 * upload.bodyCalls());
}

TEST_F(Multipart, RequestWithoutAConnectionCannotBePaused) {
  MultipartUpload upload({requestWith(bodyOf({"first"}))});
  ASSERT_EQ(upload.begin(), 0);
  TraceCapture trace;
  EXPECT_EQ(http_msgMultipartPause(upload.reader()), -1);
  EXPECT_EQ(http_msgMultipartResume(upload.reader()), -1);
  EXPECT_EQ(trace.said(),
            (TraceLines{"http-se[x]request is not being processed", "http-se[x]request is not being processed"}));
  EXPECT_EQ(upload.partCalls(), 0u) << "a resume that fails reads nothing";
}

// A reply is taken apart as well, but cannot be paused.
TEST_F(Multipart, ReplyIsReadAndNotPaused) {
  const std::string body = bodyOf({"0123", "89"});
  ScriptInput input(
      "HTTP/1.1 206 Partial Content\r\nContent-Type: multipart/byteranges; boundary=XyZ\r\nContent-Length: " +
      std::to_string(body.size()) + "\r\n\r\n" + body + "HTTP/1.1 200 OK\r\n");
  const ReplyPtr reply(http_replyCreate());
  HttpMessage* const message = &reply->message;
  http_msgModeSet(message, HTTP_MSG_READING);
  http_msgStreamSet(message, input.stream());
  while (message->state < HTTP_MSG_BODY) ASSERT_EQ(http_msgParse(message), 0);
  static std::string contents;
  contents.clear();
  HttpMultipart reader = {};
  ASSERT_EQ(http_msgMultipartInitialize(&reader, message, nullptr,
                                        [](HttpRequest* it, FILE* stream) {
                                          for (int c = fgetc(stream); c != EOF; c = fgetc(stream))
                                            contents.push_back(static_cast<char>(c));
                                          if (http_requestState(it) == HTTP_MSG_DONE) contents += "|";
                                          return 0;
                                        }),
            0);
  const TraceCapture quiet;
  EXPECT_EQ(http_msgMultipartPause(&reader), -1);
  EXPECT_EQ(message->paused, HTTP_MSG_RUNNING);
  EXPECT_EQ(http_msgMultipartResume(&reader), -1);
  EXPECT_EQ(contents, "") << "a resume that fails reads nothing";
  EXPECT_EQ(http_msgMultipartHandleRead(&reader), 0);
  EXPECT_EQ(reader.state, HTTP_MULTIPART_DONE);
  EXPECT_EQ(contents, "0123|89|");
  http_msgMultipartCleanup(&reader);
  EXPECT_EQ(input.rest(), "HTTP/1.1 200 OK\r\n");
}

// --- cleaning up -----------------------------------------------------------------------------------------------------

TEST_F(Multipart, CleanupWhereverItStands) {
  const std::string body = bodyOf({"first \r\n--XyY", "", "\r\n--Xythird"});
  const std::string whole = requestWith(body);
  const size_t head = whole.size() - body.size();
  for (const size_t size : {0, 1, 4096}) {
    for (size_t arrived = 0; arrived <= body.size(); ++arrived) {
      for (const bool messageFirst : {false, true}) {
        MultipartUpload upload({whole.substr(0, head + arrived)});
        if (size > 0) upload.appetite = {"", Appetite::kOnce, size};
        if (size == 0) upload.onBody = [](HttpRequest*, FILE*) { return 0; };
        ASSERT_EQ(upload.begin(), 0);
        EXPECT_EQ(upload.handleRead(), 0) << arrived;
        // The message is not touched: it may have closed its body already.
        if (messageFirst) upload.destroyRequest();
        upload.cleanup();
        EXPECT_EQ(upload.reader()->delimiter, nullptr);
        EXPECT_EQ(upload.reader()->scratch, nullptr);
      }
    }
  }
}

TEST_F(Multipart, CleanupLeavesTheMessageToItsOwner) {
  MultipartUpload upload({requestWith(bodyOf({"first", "second"})) + kNext});
  ASSERT_EQ(upload.begin(), 0);
  upload.onPart = [&](HttpRequest*) {
    upload.request()->message.paused = HTTP_MSG_PAUSED;
    return 0;
  };
  EXPECT_EQ(upload.handleRead(), 0);
  upload.cleanup();
  EXPECT_EQ(http_requestBodyDiscard(upload.request()), 0);
  EXPECT_EQ(http_requestState(upload.request()), HTTP_MSG_DONE);
  EXPECT_EQ(upload.behind(), kNext);
}

TEST_F(Multipart, CleanupFromInsideTheHandlers) {
  enum Where { kPart, kBodyUnread, kBodyBegun, kBodyEnded, kBodyClosed };
  for (const Where where : {kPart, kBodyUnread, kBodyBegun, kBodyEnded, kBodyClosed}) {
    for (const size_t number : {1u, 2u}) {
      for (const int result : {0, -1}) {
        MultipartUpload upload({requestWith(bodyOf({"\r\n--Xyfirst", "second", "third"})) + kNext});
        ASSERT_EQ(upload.begin(), 0);
        upload.onPart = [&](HttpRequest*) {
          if (where != kPart || upload.partCalls() != number) return 0;
          upload.cleanup();
          return result;
        };
        upload.onBody = [&](HttpRequest* it, FILE* body) {
          const bool here = upload.partCalls() == number && where != kPart;
          if (!here || where == kBodyEnded) upload.readAs(upload.appetite, it, body);
          if (here && where == kBodyBegun) {
            EXPECT_EQ(fgetc(body), number == 1 ? '\r' : 's');
          }
          if (here && where == kBodyClosed) fclose(body);
          if (here) upload.cleanup();
          return here ? result : 0;
        };
        const TraceCapture quiet;
        const int outcome = upload.handleRead();
        EXPECT_TRUE(outcome == 0 || outcome == -1);
        if (result < 0) {
          EXPECT_EQ(outcome, -1);
        }
        EXPECT_EQ(upload.partCalls(), number) << "no handler runs behind it";
        EXPECT_EQ(upload.bodyCalls(), where == kPart ? number - 1 : number);
        EXPECT_EQ(upload.reader()->delimiter, nullptr);
        EXPECT_EQ(upload.reader()->scratch, nullptr);
        EXPECT_EQ(http_requestBodyDiscard(upload.request()), 0);
        EXPECT_EQ(upload.behind(), kNext);
      }
    }
  }
}

// One reader after the other on the same storage, as on a connection that is kept.
TEST_F(Multipart, StorageIsUsedAgain) {
  MultipartUpload upload({requestWith(bodyOf({"first"})) + requestWith(bodyOf({"second", "third"})) + kNext});
  EXPECT_EQ(upload.run(), "complete");
  upload.cleanup();
  EXPECT_EQ(http_requestDone(upload.request()), 0);
  http_requestReset(upload.request());
  EXPECT_EQ(upload.run(), "complete");
  EXPECT_EQ(contentsOf(upload), (Texts{"first", "second", "third"}));
  EXPECT_EQ(upload.behind(), kNext);
}

// --- waiting ---------------------------------------------------------------------------------------------------------

// A body that may be looked back into waits for bytes that are on their way; one that is taken apart never does.
TEST_F(Multipart, NeverWaitsInsideTheBody) {
  const std::string wire = requestWith(bodyOf({"first", "", std::string(5000, 'x'), "last"}));
  for (const Appetite& appetite : kAppetites) {
    for (const size_t step : {1, 100, 100000}) {
      waits = 0;
      MultipartUpload upload(cutEvery(wire, step));
      upload.appetite = appetite;
      EXPECT_EQ(upload.run(), "complete") << appetite.name;
      EXPECT_EQ(waits, 0) << appetite.name << ", in steps of " << step;
    }
  }
  waits = 0;  // the same body without a reader, to see that the count counts
  MultipartUpload plain({wire.substr(0, wire.size() - 100)});
  while (http_requestState(plain.request()) < HTTP_MSG_BODY) ASSERT_EQ(http_requestParse(plain.request()), 0);
  std::array<char, 10000> block;
  EXPECT_GT(fread(block.data(), 1, block.size(), http_requestBody(plain.request())), 0u);
  EXPECT_GT(waits, 0);
}

}  // namespace
