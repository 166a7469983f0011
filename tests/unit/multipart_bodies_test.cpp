// Multipart bodies of every kind: what the reader hands out is what the sender put in, however it arrives and however
// it is read. KROHTTP_MULTIPART_SEEDS=10000 runs so many random bodies instead of a few.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "support/multipart_bodies.h"
#include "support/trace_capture.h"

namespace {

constexpr std::string_view kNext = "GET /next HTTP/1.1\r\n\r\n";
constexpr Arrival kInTheMidst[] = {Arrival::kAtNextLook, Arrival::kAfterTwoLooks};
constexpr Framing kFramings[] = {Framing::kLength, Framing::kChunked};

size_t seeds(size_t usual) {
  const char* const wanted = getenv("KROHTTP_MULTIPART_SEEDS");
  return wanted == nullptr ? usual : strtoul(wanted, nullptr, 10);
}

// The first difference, in a few words; nothing when there is none.
std::string difference(const MultipartBody& sent, const MultipartUpload& upload) {
  const std::vector<MultipartPart>& got = upload.received();
  for (size_t i = 0; i < std::min(sent.parts.size(), got.size()); ++i) {
    const MultipartPart& wanted = sent.parts[i];
    const std::string part = "part " + std::to_string(i);
    if (got[i].headers != wanted.headers) return part + ": headers differ";
    if (got[i].content != wanted.content) {
      size_t at = 0;
      while (at < std::min(got[i].content.size(), wanted.content.size()) && got[i].content[at] == wanted.content[at])
        ++at;
      return part + ": " + std::to_string(got[i].content.size()) + " of " + std::to_string(wanted.content.size()) +
             " bytes, the first difference at " + std::to_string(at);
    }
    if (upload.ends()[i] != 1) return part + ": its end was seen " + std::to_string(upload.ends()[i]) + " times";
  }
  if (got.size() != sent.parts.size())
    return std::to_string(got.size()) + " of " + std::to_string(sent.parts.size()) + " parts";
  return "";
}

// Reads body, which has another request behind it. @return what went wrong, nothing when all is well
std::string receive(const MultipartBody& body, MultipartUpload& upload) {
  const std::string outcome = upload.run();
  if (outcome != "complete") return outcome + "; " + difference(body, upload);
  if (const std::string different = difference(body, upload); !different.empty()) return different;
  upload.cleanup();
  if (const std::string behind = upload.behind(); behind != kNext)
    return "behind the body stand " + std::to_string(behind.size()) + " bytes";
  return "";
}

std::string transfer(const MultipartBody& body, const Pieces& pieces, const Appetite& appetite,
                     Arrival arrival = Arrival::kLater, bool opensBody = false) {
  MultipartUpload upload(pieces, arrival);
  upload.appetite = appetite;
  upload.opensBody = opensBody;
  return receive(body, upload);
}

std::string describe(const char* what, size_t number, Framing framing, const Appetite& appetite) {
  return std::string(what) + " " + std::to_string(number) + (framing == Framing::kLength ? ", length" : ", chunked") +
         ", read " + appetite.name;
}

// Two parts, an empty one between them, and every trap in a few bytes.
MultipartBody smallBody() {
  MultipartBody body;
  body.parts = {{{{"Content-Disposition", "form-data; name=\"a\""}}, "\r\n--Xy\r\r\n--XyZ"},
                {{{"A", "b"}}, ""},
                {{}, "one\r\n\r\n--X\r\n--XyY\r\n-"}};
  body.parts[0].content = "\r\n--Xy\r\r\n--Xy";
  body.epilogue = "\r\n--XyZ\r\nnot a part";
  return body;
}

class MultipartBodies : public ::testing::TestWithParam<Appetite> {
 private:
  SpinGuard guard_{100};
  TraceCapture quiet_;
};

INSTANTIATE_TEST_SUITE_P(Read, MultipartBodies, ::testing::ValuesIn(kAppetites),
                         [](const auto& row) { return row.param.name; });

TEST_P(MultipartBodies, SmallOneCutAtEveryOctet) {
  const MultipartBody body = smallBody();
  for (const Framing framing : kFramings) {
    for (const size_t chunk : {1, 3, 10, 1000}) {
      if (framing == Framing::kLength && chunk != 1) continue;
      Random random(1);
      const std::string wire = framedRequest(body, framing, random, chunk) + std::string(kNext);
      for (size_t at = 0; at <= wire.size(); ++at) {
        const std::string wrong = transfer(body, cutOnce(wire, at), GetParam());
        ASSERT_EQ(wrong, "") << describe("cut at octet", at, framing, GetParam()) << ", chunks of " << chunk;
      }
    }
  }
}

TEST_P(MultipartBodies, SmallOneInSteps) {
  const MultipartBody body = smallBody();
  for (const Framing framing : kFramings) {
    Random random(2);
    const std::string wire = framedRequest(body, framing, random) + std::string(kNext);
    for (size_t step = 1; step < 20; ++step)
      ASSERT_EQ(transfer(body, cutEvery(wire, step), GetParam()), "") << describe("step", step, framing, GetParam());
  }
}

// What a read did not find is there at the next one, in the same call of the handler: that was no failure.
TEST_P(MultipartBodies, SmallOneThatCatchesUpAtEveryOctet) {
  const MultipartBody body = smallBody();
  for (const bool opensBody : {false, true}) {
    for (const Framing framing : kFramings) {
      Random random(1);
      const std::string wire = framedRequest(body, framing, random, 10) + std::string(kNext);
      for (const Arrival arrival : kInTheMidst) {
        for (size_t at = 0; at <= wire.size(); ++at)
          ASSERT_EQ(transfer(body, cutOnce(wire, at), GetParam(), arrival, opensBody), "")
              << describe("cut at octet", at, framing, GetParam()) << (opensBody ? ", opened" : "");
        for (size_t step = 1; step < 20; ++step)
          ASSERT_EQ(transfer(body, cutEvery(wire, step), GetParam(), arrival, opensBody), "")
              << describe("step", step, framing, GetParam()) << (opensBody ? ", opened" : "");
      }
    }
  }
}

// A handler that takes so many blocks and returns may stop where stdio holds nothing any more, behind a read that found
// nothing and one that found all it wanted.
TEST(MultipartBodiesThatCatchUp, BehindWholeBlocks) {
  const TraceCapture quiet;
  const SpinGuard guard(100);
  MultipartBody body;
  body.parts = {{{{"A", "b"}}, std::string(300000, 'x')}};
  const size_t count = seeds(1500);
  for (size_t seed = 1; seed <= count; ++seed) {
    Random random(seed);
    const Framing framing = random.oneIn(3) ? Framing::kChunked : Framing::kLength;
    const std::string wire = framedRequest(body, framing, random, 100000) + std::string(kNext);
    const size_t unit = random.oneIn(2) ? 1024 : 4096;
    const size_t begin = random.oneIn(2) ? wire.find('x') : 0;
    Pieces pieces = {wire.substr(0, begin)};
    for (size_t at = begin; at < wire.size(); at += pieces.back().size())
      pieces.push_back(wire.substr(at, unit * random.between(1, 30)));
    MultipartUpload upload(pieces, kInTheMidst[random.below(2)]);
    upload.opensBody = random.oneIn(4);
    const size_t block = random.oneIn(2) ? 4096 : 65536;
    const size_t blocks = random.between(1, 6);
    upload.onBody = [&](HttpRequest* part, FILE* stream) {
      bool ended = false;
      for (size_t i = 0; i < blocks && !ended; ++i) ended = upload.readAs({"", Appetite::kOnce, block}, part, stream);
      if (ended) upload.noteEnd();
      return 0;
    };
    ASSERT_EQ(receive(body, upload), "") << "seed " << seed;
  }
}

// The delimiter stands at every place around what is read at once somewhere below.
TEST_P(MultipartBodies, DelimiterAroundTheEdgesOfBlocks) {
  const bool slow = GetParam().size == 1 || GetParam().way == Appetite::kCharacters;
  for (const size_t edge : {4096u, 8192u, 65536u}) {
    if (slow && edge > 8192) continue;
    for (const Framing framing : kFramings) {
      for (const bool ofThePart : {false, true}) {  // counted from its first byte, or from that of the body
        MultipartBody body;
        body.boundary = "Boundary";
        const size_t head = std::string_view("--Boundary\r\nA: b\r\n\r\n").size();
        const size_t around = body.delimiter().size() + 3;
        for (size_t at = edge - around; at <= edge + 3; at += edge > 8192 ? 2 : 1) {
          const size_t size = at - (ofThePart ? 0 : head);
          std::string content(size, 'x');
          if (at % 3 == 0) content.replace(size - 4, 4, "\r\n--");  // a beginning just before it
          body.parts = {{{{"A", "b"}}, content}, {{}, "second"}};
          Random random(at);
          const std::string wire = framedRequest(body, framing, random) + std::string(kNext);
          const size_t place = wire.find(body.delimiter() + "\r\n\r\nsecond");
          ASSERT_TRUE(place != std::string::npos || framing == Framing::kChunked);
          ASSERT_EQ(transfer(body, {wire}, GetParam()), "") << describe("delimiter at", at, framing, GetParam());
          const size_t cut = place == std::string::npos ? wire.size() - 60 : place + at % body.delimiter().size();
          ASSERT_EQ(transfer(body, cutOnce(wire, cut), GetParam()), "")
              << describe("delimiter at", at, framing, GetParam()) << ", cut at " << cut;
        }
      }
    }
  }
}

TEST_P(MultipartBodies, Random) {
  const size_t count = seeds(60);
  for (size_t seed = 1; seed <= count; ++seed) {
    Random random(seed * 1000 + GetParam().size + 100 * GetParam().way);
    MultipartShape shape;
    shape.text = GetParam().way == Appetite::kLines;
    if (random.oneIn(20)) shape.content = 200000;
    if (GetParam().size == 1) shape.content = std::min<size_t>(shape.content, 10000);
    const MultipartBody body = randomMultipart(random, shape);
    const Framing framing = random.oneIn(2) ? Framing::kLength : Framing::kChunked;
    const std::string wire = framedRequest(body, framing, random) + std::string(kNext);
    const Pieces pieces = wire.size() < 3000 && random.oneIn(2)
                              ? cutEvery(wire, random.between(1, 3))
                              : cutAtRandom(random, wire, random.oneIn(4) ? 0 : random.between(1, 60));
    ASSERT_EQ(transfer(body, pieces, GetParam()), "") << describe("seed", seed, framing, GetParam());
  }
}

TEST_P(MultipartBodies, BoundariesOf1To200Characters) {
  for (size_t length = 1; length <= 200; ++length) {
    Random random(length);
    MultipartShape shape;
    shape.boundary = length;
    shape.parts = 3;
    shape.content = 600;
    shape.text = GetParam().way == Appetite::kLines;
    const MultipartBody body = randomMultipart(random, shape);
    for (const Framing framing : kFramings) {
      const std::string wire = framedRequest(body, framing, random) + std::string(kNext);
      ASSERT_EQ(transfer(body, cutAtRandom(random, wire, 20), GetParam()), "")
          << describe("boundary", length, framing, GetParam());
    }
  }
}

TEST_P(MultipartBodies, UpTo500Parts) {
  for (const size_t parts : {1u, 2u, 17u, 100u, 500u}) {
    Random random(parts);
    MultipartShape shape;
    shape.parts = parts;
    shape.text = GetParam().way == Appetite::kLines;
    const MultipartBody body = randomMultipart(random, shape);
    for (const Framing framing : kFramings) {
      const std::string wire = framedRequest(body, framing, random) + std::string(kNext);
      ASSERT_EQ(transfer(body, cutAtRandom(random, wire, 30), GetParam()), "")
          << describe("parts", parts, framing, GetParam());
    }
  }
}

// Many beginnings of the delimiter in a row, and then the delimiter.
TEST_P(MultipartBodies, EveryBeginningBeforeEveryOther) {
  MultipartBody body;
  body.boundary = "-a--a";
  const std::string delimiter = body.delimiter();
  for (size_t first = 1; first < delimiter.size(); ++first)
    for (size_t second = 0; second < delimiter.size(); ++second)
      body.parts.push_back(
          {{{"A", "b"}},
           harmless(delimiter.substr(0, first) + delimiter.substr(0, second) + delimiter.substr(0, first), delimiter)});
  for (const Framing framing : kFramings) {
    Random random(3);
    const std::string wire = framedRequest(body, framing, random) + std::string(kNext);
    for (const size_t step : {1u, 2u, 5u, 13u, 100000u})
      ASSERT_EQ(transfer(body, cutEvery(wire, step), GetParam()), "") << describe("step", step, framing, GetParam());
  }
}

// The ways to read change from call to call.
TEST(MultipartBodiesReadInTurns, Random) {
  const TraceCapture quiet;
  const SpinGuard guard(100);
  const size_t count = seeds(200);
  for (size_t seed = 1; seed <= count; ++seed) {
    Random random(seed + 777);
    MultipartShape shape;
    shape.text = true;
    const MultipartBody body = randomMultipart(random, shape);
    const std::string wire = framedRequest(body, random.oneIn(2) ? Framing::kLength : Framing::kChunked, random);
    MultipartUpload upload(cutAtRandom(random, wire + std::string(kNext), random.below(80)));
    upload.onBody = [&](HttpRequest* part, FILE* stream) {
      const Appetite way = kAppetites[random.below(10)];  // all but a buffer of its own
      if (upload.readAs(way, part, stream)) upload.noteEnd();
      return 0;
    };
    ASSERT_EQ(receive(body, upload), "") << "seed " << seed;
  }
}

// An upload that never completes gives a failure at its end, whatever came before, and nothing but the sender's bytes.
TEST(MultipartBodiesThatEndEarly, AtEveryOctet) {
  const TraceCapture quiet;
  const MultipartBody body = smallBody();
  const std::string whole = body.wire();
  const size_t complete = whole.size() - body.epilogue.size();
  for (size_t length = 1; length < complete; ++length) {
    MultipartUpload upload({"POST / HTTP/1.1\r\nContent-Type: " + body.contentType() + "\r\nContent-Length: " +
                            std::to_string(length) + "\r\n\r\n" + whole.substr(0, length) + std::string(kNext)});
    EXPECT_EQ(upload.run(), "failed") << length;
    EXPECT_EQ(upload.reader()->state, HTTP_MULTIPART_FAILED) << length;
    for (size_t i = 0; i < upload.received().size(); ++i)
      EXPECT_TRUE(body.parts[i].content.starts_with(upload.received()[i].content)) << length;
    EXPECT_EQ(upload.behind(), kNext) << length;
  }
}

TEST(MultipartBodiesThatAreCut, AtEveryOctet) {  // the connection ends
  const TraceCapture quiet;
  const MultipartBody body = smallBody();
  for (const Framing framing : kFramings) {
    Random random(4);
    const std::string wire = framedRequest(body, framing, random, 9);
    const size_t head = wire.find("\r\n\r\n") + 4;
    for (size_t length = head; length < wire.size(); ++length) {
      MultipartUpload upload({wire.substr(0, length)});
      const std::string outcome = upload.run();
      // Behind the last delimiter the reader has what it wants; what is wrong then is the message.
      if (upload.reader()->state == HTTP_MULTIPART_DONE) continue;
      EXPECT_EQ(outcome, "failed") << length;
      EXPECT_EQ(upload.reader()->state, HTTP_MULTIPART_FAILED) << length;
    }
  }
}

}  // namespace
