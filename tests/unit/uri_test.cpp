#include <gtest/gtest.h>
#include <krohttp/uri.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/trace_capture.h"
#include "uri_internal.h"

namespace {

using namespace std::string_literals;

using Pair = std::pair<std::string, std::string>;
using Pairs = std::vector<Pair>;

// A parsed target in memory that ends just behind its NUL.
class Target {
 public:
  explicit Target(std::string_view text) : size_(text.size()), bytes_(new char[text.size() + 1]) {
    memcpy(bytes_.get(), text.data(), text.size());
    bytes_[text.size()] = '\0';
    memset(&uri, 0xa5, sizeof uri);  // parsing clears what was there
    result = http_uriParse(&uri, bytes_.get());
  }

  // What is left of the iteration.
  Pairs rest() {
    Pairs pairs;
    char* name = nullptr;
    char* value = nullptr;
    while (http_uriNextParameter(&uri, &name, &value) == 0) {
      pairs.emplace_back(name, value);
      if (pairs.size() > size_ + 1) {
        ADD_FAILURE() << "the iteration does not end";
        return pairs;
      }
    }
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(value, nullptr);
    return pairs;
  }

  std::string serialized() {
    char* text = http_uriSerialize(&uri);
    if (text == nullptr) return "refused";
    std::string copy = text;
    free(text);
    return copy;
  }

  // All bytes of the query, NULs that decoding left behind included.
  std::string query() const { return std::string(uri.query, static_cast<size_t>(uri.queryLength)); }

  char* begin() const { return bytes_.get(); }

  HttpUri uri;
  int result;

 private:
  size_t size_;
  std::unique_ptr<char[]> bytes_;
};

// ---- parsing -------------------------------------------------------------------------------------------------------

struct ParseCase {
  const char* name;
  std::string_view target;
  std::string_view path;
  std::string_view query;
};

constexpr ParseCase kTargets[] = {
    {"Root", "/", "/", ""},
    {"Path", "/index.html", "/index.html", ""},
    {"PathAndQuery", "/a%20b?x=1&y=2", "/a b", "x=1&y=2"},
    {"EmptyQuery", "/p?", "/p", ""},
    {"QueryOfRoot", "/?q", "/", "q"},
    {"SecondQuestionMark", "/p?a?b?c", "/p", "a?b?c"},
    {"SlashInTheQuery", "/p?/a/b", "/p", "/a/b"},
    {"QueryStaysEncoded", "/p?%41%26=%3D", "/p", "%41%26=%3D"},
    {"AbsoluteTarget", "http://host:80/p?q", "//host:80/p", "q"},
    {"AbsoluteTargetWithoutPath", "http://host", "//host", ""},
    {"TextBeforeThePathIsIgnored", "abc/p", "/p", ""},
    {"QuestionMarkBeforeThePath", "a?b/c?d", "/c", "d"},
    {"Fragment", "/p#f?x", "/p#f", "x"},
    {"FragmentInTheQuery", "/p?x#f", "/p", "x#f"},
    {"DotsStay", "/../a/./b//c", "/../a/./b//c", ""},
    {"Blanks", "/a b", "/a b", ""},
    {"PlusStays", "/a+b?c+d", "/a+b", "c+d"},
    {"EncodedSlash", "/a%2Fb%2fc", "/a/b/c", ""},
    {"EncodedQuestionMark", "/a%3Fb?c", "/a?b", "c"},
    {"EncodedPercentSign", "/%25", "/%", ""},
    {"DecodedOnce", "/%2541", "/%41", ""},
    {"DecodedOnceAtTheEnd", "/%25%34%31", "/%41", ""},
    {"AllHexadecimalDigits", "/%41%4a%4A%5f%5F%7e%7E", "/AJJ__~~", ""},
    {"HighOctets", "/%C3%A9%ff\xe9", "/\xc3\xa9\xff\xe9", ""},
    {"ControlOctets", "/%01%0D%0A%7F", "/\x01\r\n\x7f", ""},
    {"PercentSignLast", "/a%", "/a%", ""},
    {"PercentSignLastButOne", "/a%4", "/a%4", ""},
    {"PercentSignLastButTwo", "/a%41", "/aA", ""},
    {"TwoPercentSignsLast", "/a%%", "/a%%", ""},
    {"OnlyPercentSign", "/%", "/%", ""},
    {"PercentSignBeforeTheQuery", "/a%?b", "/a%", "b"},
    {"PercentSignAndDigitBeforeTheQuery", "/a%4?1", "/a%4", "1"},
    {"PercentSignLastInTheQuery", "/a?b%", "/a", "b%"},
    {"EncodedNulEndsThePath", "/a%00b?c", "/a", "c"},
    {"NoHexadecimalDigitsEndThePath", "/a%zzb?c", "/a", "c"},
    {"PercentSignTwiceEndsThePath", "/a%%41b", "/a", ""},
    {"SecondDigitIsNone", "/a%4gb",
     "/a\x04"
     "b",
     ""},
    {"FirstDigitIsNone", "/a%g4b", "/a", ""},
    {"BlankAndDigit", "/a% 4b",
     "/a\x04"
     "b",
     ""},
    {"SignAndDigit", "/a%+4b",
     "/a\x04"
     "b",
     ""},
    {"MinusAndDigit", "/a%-1b",
     "/a\xff"
     "b",
     ""},
    {"HexadecimalPrefix", "/a%0xb", "/a", ""},
    {"HighOctetsBehindAPercentSign",
     "/a%\xff\xff"
     "b",
     "/a", ""},
};

class UriParse : public testing::TestWithParam<ParseCase> {};

TEST_P(UriParse, SplitsAndDecodes) {
  const TraceCapture trace;
  const Target target(GetParam().target);
  ASSERT_EQ(target.result, 0);
  EXPECT_EQ(std::string_view(target.uri.path), GetParam().path);
  EXPECT_EQ(std::string_view(target.uri.query), GetParam().query);
  EXPECT_EQ(target.uri.queryLength, static_cast<int>(GetParam().query.size()));
  EXPECT_EQ(target.uri.separator, nullptr);
  EXPECT_EQ(target.uri.parameterEnd, nullptr);
  EXPECT_EQ(target.uri.parameterName, nullptr);
  EXPECT_EQ(target.uri.parameterValue, nullptr);
  EXPECT_EQ(trace.said(), TraceLines{});
}

TEST_P(UriParse, StaysInTheCallersBuffer) {
  Target target(GetParam().target);
  ASSERT_EQ(target.result, 0);
  const size_t pathAt = GetParam().target.find('/');
  EXPECT_EQ(target.uri.path, target.begin() + pathAt);
  const size_t markAt = GetParam().target.find('?', pathAt);
  EXPECT_EQ(target.uri.query,
            target.begin() + (markAt == std::string_view::npos ? GetParam().target.size() : markAt + 1));
  EXPECT_EQ(http_uriQueryString(&target.uri), target.uri.query);
}

TEST_P(UriParse, ShowsThePathAsItCame) {
  const TraceCapture trace({"http-uri"}, KROTRACE_NOTICE);
  const Target target(GetParam().target);
  const std::string_view fromPath = GetParam().target.substr(GetParam().target.find('/'));
  EXPECT_EQ(trace.said(), TraceLines({"http-ur[n]url path: " + std::string(fromPath)}));
}

INSTANTIATE_TEST_SUITE_P(Targets, UriParse, testing::ValuesIn(kTargets),
                         [](const auto& row) { return row.param.name; });

struct RefusedCase {
  const char* name;
  const char* target;
};

class UriRefused : public testing::TestWithParam<RefusedCase> {};

TEST_P(UriRefused, HasNoPathAndNoParameters) {
  TraceCapture trace{"http-uri"};
  Target target(GetParam().target);
  EXPECT_EQ(target.result, -1);
  EXPECT_EQ(trace.said(), TraceLines({std::string("http-ur[x]invalid url ") + GetParam().target}));
  EXPECT_EQ(target.uri.path, nullptr);
  EXPECT_EQ(http_uriQueryString(&target.uri), nullptr);
  EXPECT_EQ(target.uri.queryLength, 0);
  EXPECT_EQ(target.rest(), Pairs{});
  http_uriResetParameterIterator(&target.uri);
  char unset = 'u';
  char* value = &unset;
  EXPECT_EQ(http_uriGetParameter(&target.uri, "x", &value), -1);
  EXPECT_EQ(value, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Targets, UriRefused,
                         testing::Values(RefusedCase{"Asterisk", "*"}, RefusedCase{"Empty", ""},
                                         RefusedCase{"Authority", "host:80"}, RefusedCase{"OnlyQuery", "?x=1&y=2"},
                                         RefusedCase{"EncodedSlash", "%2Fp"}, RefusedCase{"Backslash", "\\p"}),
                         [](const auto& row) { return row.param.name; });

TEST(Uri, AZeroedOneHasNoParameters) {
  HttpUri uri = {};
  char unset = 'u';
  char* name = &unset;
  char* value = &unset;
  EXPECT_EQ(http_uriNextParameter(&uri, &name, &value), -1);
  EXPECT_EQ(name, nullptr);
  EXPECT_EQ(value, nullptr);
  value = &unset;
  EXPECT_EQ(http_uriGetParameter(&uri, "x", &value), -1);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(http_uriQueryString(&uri), nullptr);
}

// A text of more than 2 GiB in 2 MiB of memory: a page, then the same mebibyte again and again.
class EndlessText {
 public:
  explicit EndlessText(std::string_view begin) {
    std::string mebibyte(kMebibyte, 'a');
    const int file = memfd_create("text", MFD_CLOEXEC);
    if (file < 0 || write(file, mebibyte.data(), kMebibyte) != static_cast<ssize_t>(kMebibyte)) abort();
    void* const reserved =
        mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (reserved == MAP_FAILED) abort();
    text_ = static_cast<char*>(reserved);
    for (size_t at = kMebibyte; at + kMebibyte < kSize; at += kMebibyte)
      if (mmap(text_ + at, kMebibyte, PROT_READ, MAP_PRIVATE | MAP_FIXED, file, 0) == MAP_FAILED) abort();
    close(file);
    memcpy(text_, mebibyte.data(), kMebibyte);
    memcpy(text_, begin.data(), begin.size());
  }
  ~EndlessText() { munmap(text_, kSize); }
  EndlessText(const EndlessText&) = delete;
  EndlessText& operator=(const EndlessText&) = delete;
  char* text() { return text_; }

 private:
  static constexpr size_t kMebibyte = 1 << 20;
  static constexpr size_t kSize = (size_t{2} << 30) + 3 * kMebibyte;
  char* text_;
};

// Its length would not fit into queryLength.
TEST(Uri, RefusesAQueryThatCannotBeCounted) {
  EndlessText target("/p?");
  HttpUri uri;
  TraceCapture trace;
  EXPECT_EQ(http_uriParse(&uri, target.text()), -1);
  EXPECT_EQ(trace.errors(), TraceLines({"http-ur[x]query is too long"}));
  EXPECT_EQ(uri.path, nullptr);
  EXPECT_EQ(uri.query, nullptr);
  EXPECT_EQ(uri.queryLength, 0);
}

// ---- serializing ---------------------------------------------------------------------------------------------------

struct SerializeCase {
  const char* name;
  std::string_view target;
  std::string_view text;
};

constexpr SerializeCase kSerialized[] = {
    {"Path", "/index.html", "/index.html"},
    {"PathAndQuery", "/a%20b?q=1", "/a%20b?q=1"},
    {"RawBlank", "/a b?q=1", "/a%20b?q=1"},
    {"EmptyQueryIsDropped", "/p?", "/p"},
    {"OneOctetOfQuery", "/p?q", "/p?q"},
    {"QueryIsWrittenAsReceived", "/p?%2f%41 #?=&%", "/p?%2f%41 #?=&%"},
    {"TheSixEncoded", "/%23%26%3D%25%3F%20", "/%23%26%3D%25%3F%20"},
    {"TheSixEncodedInLowerCase", "/%23%26%3d%25%3f%20", "/%23%26%3D%25%3F%20"},
    {"TheFourThatMayStandRaw", "/#&= ", "/%23%26%3D%20"},
    {"OthersAreCopied", "/%22%3C%3E%5B%5D%7B%7C%7D%5E%60;:@!$'()*+,~", "/\"<>[]{|}^`;:@!$'()*+,~"},
    {"ControlOctetsAreCopied", "/%01%09%0A%0D%7F", "/\x01\t\n\r\x7f"},
    {"HighOctetsAreCopied", "/%C3%A9", "/\xc3\xa9"},
    {"SlashesAreCopied", "/a%2Fb", "/a/b"},
    {"PercentSignLast", "/a%", "/a%25"},
    {"AbsoluteTarget", "http://host/p?q", "//host/p?q"},
};

class UriSerialize : public testing::TestWithParam<SerializeCase> {};

TEST_P(UriSerialize, EncodesThePath) {
  const TraceCapture trace;
  Target target(GetParam().target);
  EXPECT_EQ(target.serialized(), GetParam().text);
  EXPECT_EQ(trace.said(), TraceLines{});
}

TEST_P(UriSerialize, LeavesTheTargetAsItWas) {
  Target target(GetParam().target);
  const std::string path = target.uri.path;
  const std::string query = target.uri.query;
  const char* const pathAt = target.uri.path;
  target.serialized();
  EXPECT_EQ(target.uri.path, pathAt);
  EXPECT_EQ(target.uri.path, path);
  EXPECT_EQ(target.uri.query, query);
  EXPECT_EQ(target.uri.queryLength, static_cast<int>(query.size()));
  EXPECT_EQ(target.serialized(), GetParam().text) << "a second time";
}

TEST_P(UriSerialize, IsParsedBackToTheSame) {
  Target first(GetParam().target);
  Target second(first.serialized());
  EXPECT_STREQ(second.uri.path, first.uri.path);
  EXPECT_STREQ(second.uri.query, first.uri.query);
}

INSTANTIATE_TEST_SUITE_P(Targets, UriSerialize, testing::ValuesIn(kSerialized),
                         [](const auto& row) { return row.param.name; });

TEST(Uri, IsSerializedWholeAfterAReset) {
  Target target("/p?a%26=%3D1&b=2");
  target.rest();
  EXPECT_EQ(target.serialized(), "/p?a%26=%3D1&b=2");
  char* value = nullptr;
  ASSERT_EQ(http_uriGetParameter(&target.uri, "a&", &value), 0);
  http_uriResetParameterIterator(&target.uri);
  EXPECT_EQ(target.serialized(), "/p?a%26=%3D1&b=2");
}

// What came escaped in a request line leaves escaped: a bare blank would end the target.
TEST(Uri, IsWithoutBlanksAfterEachLookUp) {
  for (const char* const query : {"next=/x?q%20y", "next=b=c%20d", "next=x%20y#z&b=2", "next=x%20y%20z",
                                  "%20?=1&next=?%20", "next=a%20b%a", "next=%20%a", "next=%a%20%20%"}) {
    SCOPED_TRACE(query);
    Target target("/login?"s + query);
    char* value = nullptr;
    ASSERT_EQ(http_uriGetParameter(&target.uri, "next", &value), 0);
    const std::string wanted = value;
    for (const bool reset : {false, true}) {
      if (reset) http_uriResetParameterIterator(&target.uri);
      const std::string text = target.serialized();
      EXPECT_EQ(text.find(' '), std::string::npos) << text;
      Target again(text);
      ASSERT_EQ(http_uriGetParameter(&again.uri, "next", &value), 0);
      EXPECT_EQ(value, wanted) << text;
    }
  }
}

// The memory of the target may have been used for something else since.
TEST(Uri, IsSerializedUpToItsLengthWhateverStandsThereNow) {
  Target target("/a?x=1&y=2");
  memcpy(target.uri.query, "0123456", 7);
  target.uri.query[7] = '8';  // where the NUL was
  EXPECT_EQ(target.serialized(), "/a?0123456");
  target.uri.query[7] = '\0';
}

TEST(Uri, HasNoParameterWithoutAName) {
  Target target("/a?x=1");
  char* value = nullptr;
  EXPECT_EQ(http_uriGetParameter(&target.uri, nullptr, &value), -1);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(target.rest(), (Pairs{{"x", "1"}}));
}

// ---- iterating -----------------------------------------------------------------------------------------------------

struct QueryCase {
  const char* name;
  std::string_view query;
  Pairs pairs;
};

const QueryCase kQueries[] = {
    {"TwoParameters", "x=1&y=2", {{"x", "1"}, {"y", "2"}}},
    {"WithoutValue", "flag&k=", {{"flag", ""}, {"k", ""}}},
    {"WithoutValueLast", "k=1&flag", {{"k", "1"}, {"flag", ""}}},
    {"OneFlag", "flag", {{"flag", ""}}},
    {"Empty", "", {}},
    {"EqualsSignOnly", "=", {{"", ""}}},
    {"EmptyName", "=v", {{"", "v"}}},
    {"FirstEqualsSignCounts", "a=b=c", {{"a", "b=c"}}},
    {"EqualsSigns", "a===", {{"a", "=="}}},
    {"AmpersandLast", "x=1&", {{"x", "1"}, {"", ""}}},
    {"AmpersandFirst", "&x=1", {{"", ""}, {"x", "1"}}},
    {"AmpersandTwice", "x=1&&y=2", {{"x", "1"}, {"", ""}, {"y", "2"}}},
    {"OneAmpersand", "&", {{"", ""}, {"", ""}}},
    {"OnlyAmpersands", "&&&&", {{"", ""}, {"", ""}, {"", ""}, {"", ""}, {"", ""}}},
    {"EqualsSignsBetweenAmpersands", "=&=&=", {{"", ""}, {"", ""}, {"", ""}}},
    {"Repeated", "a=1&a=2&a=1", {{"a", "1"}, {"a", "2"}, {"a", "1"}}},
    {"PlusIsNoBlank", "a+b=c+d", {{"a+b", "c+d"}}},
    {"SemicolonSeparatesNothing", "a=1;b=2", {{"a", "1;b=2"}}},
    {"EncodedSpecials", "%26%3D%25=%23%3F%20", {{"&=%", "#? "}}},
    {"EncodedSpecialsInLowerCase", "%26%3d=%3f", {{"&=", "?"}}},
    {"EncodedAmpersandSeparatesNothing", "a%26b=c%26d&e=f", {{"a&b", "c&d"}, {"e", "f"}}},
    {"EncodedEqualsSignSeparatesNothing", "a%3Db=c%3Dd&e=f", {{"a=b", "c=d"}, {"e", "f"}}},
    {"EncodedEqualsSignWithoutValue", "a%3Db&c", {{"a=b", ""}, {"c", ""}}},
    {"EncodedPercentSign", "a%2541=b%2526&c=d", {{"a%41", "b%26"}, {"c", "d"}}},
    {"OtherEscapes", "%2F%41=%2f%42&c=%43", {{"/A", "/B"}, {"c", "C"}}},
    {"OtherEscapesInTheName", "a%2Fb=1&c=2", {{"a/b", "1"}, {"c", "2"}}},
    {"OtherEscapesInTheFlag", "%41%42&%43", {{"AB", ""}, {"C", ""}}},
    {"EveryByteEscaped", "%61%62%3D%63=%64%26%65&%66", {{"ab=c", "d&e"}, {"f", ""}}},
    {"UnescapedQuestionMarks", "x=a?b&y=b=c&z=##########", {{"x", "a?b"}, {"y", "b=c"}, {"z", "##########"}}},
    {"UnescapedInTheName", "?#? =1&b=2", {{"?#? ", "1"}, {"b", "2"}}},
    {"UnescapedInTheFlag", "??##  &b", {{"??##  ", ""}, {"b", ""}}},
    {"UnescapedBeforeEscaped", "?%26=?%26&b=2", {{"?&", "?&"}, {"b", "2"}}},
    {"UnescapedBehindEscaped", "%26?=%26?&b=2", {{"&?", "&?"}, {"b", "2"}}},
    {"UnescapedAmongEscaped", "##%3D##%3D##=??%26??%25??&b=2", {{"##=##=##", "??&??%??"}, {"b", "2"}}},
    {"UnescapedBesideOtherEscapes", "?%41?%41=?%2F?%26&b=2", {{"?A?A", "?/?&"}, {"b", "2"}}},
    {"UnescapedBeforeEscapedPercentSign", "x=?%25%26&y=#%25%3D&?%25%3D=1", {{"x", "?%&"}, {"y", "#%="}, {"?%=", "1"}}},
    {"EscapedPercentSignNearTheEnd", "x=%25a&y=%25&z=#%25a", {{"x", "%a"}, {"y", "%"}, {"z", "#%a"}}},
    {"EscapedPercentSignBeforeDigits", "x=?%2541&y=?%254", {{"x", "?%41"}, {"y", "?%4"}}},
    {"EscapedPercentSignBeforeAnUnescapedOne",
     "x=?%25#&y=?%25%23&z=##%25%20",
     {{"x", "?%#"}, {"y", "?%#"}, {"z", "##% "}}},
    {"BlanksStay", " a = b &  c", {{" a ", " b "}, {"  c", ""}}},
    {"PercentSignLast", "x=%", {{"x", "%"}}},
    {"PercentSignAndDigitLast", "x=%4", {{"x", "%4"}}},
    {"PercentSignBeforeTheAmpersand", "x=%&y=%2&z=1", {{"x", "%"}, {"y", "%2"}, {"z", "1"}}},
    {"PercentSignBeforeTheEqualsSign", "x%=41&y%4=1", {{"x%", "41"}, {"y%4", "1"}}},
    {"PercentSignInTheFlag", "x%&41", {{"x%", ""}, {"41", ""}}},
    {"EncodedPercentSignBeforeAHalfEscape", "x=%25%4&y=%25%", {{"x", "%%4"}, {"y", "%%"}}},
    {"OnlyPercentSigns", "%&%%&%=%%", {{"%", ""}, {"%%", ""}, {"%", "%%"}}},
    {"EncodedNulEndsNameAndValue", "a%00b=c%00d&e=f", {{"a", "c"}, {"e", "f"}}},
    {"NoDigitsEndNameAndValue", "a%zzb=c%zzd&e=f", {{"a", "c"}, {"e", "f"}}},
    {"EncodedNulFirst", "%00a=%00b&e=f", {{"", ""}, {"e", "f"}}},
    {"EscapesBehindAnEncodedNul", "a%00%26%3D=c%00%26%3D&e=f", {{"a", "c"}, {"e", "f"}}},
    {"OddEscapes", "%4g=% 4&%-1=%+4", {{"\x04", "\x04"}, {"\xff", "\x04"}}},
    {"HighOctets", "\xc3\xa9=%C3%A9", {{"\xc3\xa9", "\xc3\xa9"}}},
};

class UriQuery : public testing::TestWithParam<QueryCase> {
 protected:
  static std::string target() { return "/p?" + std::string(GetParam().query); }
};

TEST_P(UriQuery, GivesTheSameParametersInEveryPass) {
  Target uri(target());
  EXPECT_EQ(uri.rest(), GetParam().pairs) << "first pass";
  EXPECT_EQ(uri.rest(), GetParam().pairs) << "second pass: the end starts anew";
  http_uriResetParameterIterator(&uri.uri);
  EXPECT_EQ(uri.rest(), GetParam().pairs) << "after a reset";
  EXPECT_STREQ(uri.uri.path, "/p");
}

TEST_P(UriQuery, GivesTheSameParametersAfterAResetInTheMiddle) {
  for (size_t steps = 0; steps <= GetParam().pairs.size(); ++steps) {
    Target uri(target());
    char* name = nullptr;
    char* value = nullptr;
    for (size_t step = 0; step < steps; ++step) ASSERT_EQ(http_uriNextParameter(&uri.uri, &name, &value), 0);
    http_uriResetParameterIterator(&uri.uri);
    http_uriResetParameterIterator(&uri.uri);
    EXPECT_EQ(uri.rest(), GetParam().pairs) << "reset after step " << steps;
  }
}

// Whatever stands behind the query in the buffer (headers, for a request) belongs to somebody else.
TEST_P(UriQuery, LeavesTheBytesAroundItAlone) {
  const std::string text = target();
  const std::string behind = "=&?#% Host: a&b=c%26";
  std::vector<char> buffer(text.begin(), text.end());
  buffer.push_back('\0');
  buffer.insert(buffer.end(), behind.begin(), behind.end());
  HttpUri uri;
  ASSERT_EQ(http_uriParse(&uri, buffer.data()), 0);
  for (int pass = 0; pass < 3; ++pass) {
    char* name = nullptr;
    char* value = nullptr;
    Pairs pairs;
    while (http_uriNextParameter(&uri, &name, &value) == 0 && pairs.size() <= text.size()) {
      pairs.emplace_back(name, value);
      EXPECT_EQ(std::string_view(buffer.data(), 3), std::string_view("/p\0", 3));
      EXPECT_EQ(std::string_view(buffer.data() + text.size() + 1, behind.size()), behind);
      EXPECT_EQ(buffer[text.size()], '\0');
    }
    EXPECT_EQ(pairs, GetParam().pairs);
    EXPECT_EQ(std::string_view(buffer.data() + text.size() + 1, behind.size()), behind);
    EXPECT_EQ(buffer[text.size()], '\0');
  }
}

TEST_P(UriQuery, LooksUpTheFirstOfEachName) {
  Target uri(target());
  for (int round = 0; round < 2; ++round) {
    for (const Pair& wanted : GetParam().pairs) {
      const auto first = std::find_if(GetParam().pairs.begin(), GetParam().pairs.end(),
                                      [&](const Pair& pair) { return pair.first == wanted.first; });
      char* value = nullptr;
      ASSERT_EQ(http_uriGetParameter(&uri.uri, wanted.first.c_str(), &value), 0) << wanted.first;
      EXPECT_EQ(value, first->second) << wanted.first;
    }
    char unset = 'u';
    char* value = &unset;
    EXPECT_EQ(http_uriGetParameter(&uri.uri, "absent", &value), -1);
    EXPECT_EQ(value, nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(Queries, UriQuery, testing::ValuesIn(kQueries),
                         [](const auto& row) { return row.param.name; });

// What was escaped as we escape comes back octet by octet.
TEST(UriIterator, PutsTheQueryBackAsItWas) {
  for (const char* query :
       {"x=1&y=2", "flag&k=", "flag", "a=1&", "&", "&&=&=&", "%23%26%3D%25%3F%20=%23%26%3D%25%3F%20&b=2", "%26=%26",
        "a%26b&c%3Dd", "a+b=c/d;e:f", "%26", "%25=%2525&%2541", "\xc3\xa9=\xff", "x=%", "x=%4&y=%"}) {
    Target target(std::string("/p?") + query);
    ASSERT_EQ(target.query(), query);
    char* name = nullptr;
    char* value = nullptr;
    while (http_uriNextParameter(&target.uri, &name, &value) == 0) {
      Target probe(std::string("/p?") + query);
      const std::ptrdiff_t at = name - target.uri.query;
      while (http_uriNextParameter(&probe.uri, &name, &value) == 0 && name - probe.uri.query != at) continue;
      http_uriResetParameterIterator(&probe.uri);
      EXPECT_EQ(probe.query(), query) << "reset at " << at;
    }
    EXPECT_EQ(target.query(), query) << "at the end";
  }
}

// Only the six are escaped again: what was escaped without need comes back shorter, with a NUL behind it.
TEST(UriIterator, PutsOtherEscapesBackDecoded) {
  Target target("/p?a%2Fb=%2F&y=%41");
  target.rest();
  const std::string query = target.query();
  EXPECT_EQ(query.substr(0, 4), std::string("a/b\0", 4));
  EXPECT_EQ(query.substr(5, 3), std::string("=/\0", 3));
  EXPECT_EQ(query.substr(9, 5), std::string("&y=A\0", 5));
  EXPECT_EQ(target.uri.queryLength, 15);
}

TEST(UriIterator, EscapesInUpperCase) {
  Target target("/p?a%3db=%3f%3d%26");
  target.rest();
  EXPECT_EQ(target.query(), "a%3Db=%3F%3D%26");
}

TEST(UriIterator, CutsTheQueryWhileAParameterIsOut) {
  Target target("/p?a=1&flag&b%20=%20");
  HttpUri& uri = target.uri;
  char* const query = uri.query;
  char* name = nullptr;
  char* value = nullptr;

  ASSERT_EQ(http_uriNextParameter(&uri, &name, &value), 0);
  EXPECT_EQ(name, query);
  EXPECT_EQ(value, query + 2);
  EXPECT_EQ(target.query(), std::string("a\0001\0flag&b%20=%20", 17));
  EXPECT_EQ(uri.parameterName, name);
  EXPECT_EQ(uri.parameterValue, value);
  EXPECT_EQ(uri.separator, query + 1);
  EXPECT_EQ(uri.parameterEnd, query + 3);

  ASSERT_EQ(http_uriNextParameter(&uri, &name, &value), 0);
  EXPECT_EQ(name, query + 4);
  EXPECT_EQ(value, query + 8) << "the empty text at the parameter's end";
  EXPECT_EQ(target.query(), std::string("a=1&flag\0b%20=%20", 17));
  EXPECT_EQ(uri.separator, nullptr);
  EXPECT_EQ(uri.parameterEnd, query + 8);

  ASSERT_EQ(http_uriNextParameter(&uri, &name, &value), 0);
  EXPECT_STREQ(name, "b ");
  EXPECT_STREQ(value, " ");
  EXPECT_EQ(uri.separator, query + 13);
  EXPECT_EQ(uri.parameterEnd, query + 17);
  EXPECT_EQ(target.query().substr(0, 9), "a=1&flag&");

  EXPECT_EQ(http_uriNextParameter(&uri, &name, &value), -1);
  EXPECT_EQ(name, nullptr);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(target.query(), "a=1&flag&b%20=%20");
  EXPECT_EQ(uri.parameterName, nullptr);
  EXPECT_EQ(uri.parameterValue, nullptr);
  EXPECT_EQ(uri.separator, nullptr);
  EXPECT_EQ(uri.parameterEnd, nullptr);
}

TEST(UriIterator, AResetClearsItsPlace) {
  Target target("/p?a=1&b=2");
  char* name = nullptr;
  char* value = nullptr;
  ASSERT_EQ(http_uriNextParameter(&target.uri, &name, &value), 0);
  http_uriResetParameterIterator(&target.uri);
  EXPECT_EQ(target.uri.parameterName, nullptr);
  EXPECT_EQ(target.uri.parameterValue, nullptr);
  EXPECT_EQ(target.uri.separator, nullptr);
  EXPECT_EQ(target.uri.parameterEnd, nullptr);
  EXPECT_EQ(target.query(), "a=1&b=2");
  ASSERT_EQ(http_uriNextParameter(&target.uri, &name, &value), 0);
  EXPECT_STREQ(name, "a");
}

TEST(UriIterator, SaysNothing) {
  Target target("/p?a=1&flag&%26=%zz");
  const TraceCapture trace{"http-uri"};
  target.rest();
  char* value = nullptr;
  http_uriGetParameter(&target.uri, "absent", &value);
  EXPECT_EQ(trace.said(), TraceLines{});
}

// ---- looking up ----------------------------------------------------------------------------------------------------

struct LookupCase {
  const char* name;
  std::string_view target;
  const char* wanted;
  const char* value;  // null: there is none
};

constexpr LookupCase kLookups[] = {
    {"First", "/p?x=1&y=2", "x", "1"},
    {"Last", "/p?x=1&y=2", "y", "2"},
    {"Repeated", "/p?x=1&x=2", "x", "1"},
    {"Absent", "/p?x=1", "z", nullptr},
    {"OtherCase", "/p?x=1", "X", nullptr},
    {"CaseDecides", "/p?X=1&x=2", "x", "2"},
    {"Prefix", "/p?xy=1", "x", nullptr},
    {"LongerName", "/p?x=1", "xy", nullptr},
    {"ValueIsNoName", "/p?a=x", "x", nullptr},
    {"WithoutValue", "/p?flag", "flag", ""},
    {"Decoded", "/p?a%26b=c%3Dd", "a&b", "c=d"},
    {"NotByItsEscapes", "/p?a%26b=1", "a%26b", nullptr},
    {"EmptyName", "/p?a=1&=2", "", "2"},
    {"EmptyQuery", "/p?", "x", nullptr},
    {"NoQuery", "/p", "x", nullptr},
    {"EmptyNameInNoQuery", "/p", "", nullptr},
    {"InThePath", "/x=1?y=2", "x", nullptr},
};

class UriLookups : public testing::TestWithParam<LookupCase> {};

TEST_P(UriLookups, GivesTheDecodedValue) {
  Target target(GetParam().target);
  for (int round = 0; round < 3; ++round) {
    char unset = 'u';
    char* value = &unset;
    EXPECT_EQ(http_uriGetParameter(&target.uri, GetParam().wanted, &value), GetParam().value == nullptr ? -1 : 0);
    EXPECT_STREQ(value, GetParam().value);
  }
}

INSTANTIATE_TEST_SUITE_P(Lookups, UriLookups, testing::ValuesIn(kLookups),
                         [](const auto& row) { return row.param.name; });

TEST(UriLookup, StartsAnewDuringAnIteration) {
  Target target("/p?a=1&b=2&c=3");
  char* name = nullptr;
  char* value = nullptr;
  ASSERT_EQ(http_uriNextParameter(&target.uri, &name, &value), 0);
  ASSERT_EQ(http_uriNextParameter(&target.uri, &name, &value), 0);
  ASSERT_EQ(http_uriGetParameter(&target.uri, "a", &value), 0);
  EXPECT_STREQ(value, "1");
}

TEST(UriLookup, TheIterationGoesOnBehindWhatWasFound) {
  Target target("/p?a=1&b=2&c=3");
  char* value = nullptr;
  ASSERT_EQ(http_uriGetParameter(&target.uri, "b", &value), 0);
  EXPECT_EQ(target.query(), std::string("a=1&b\0002\0c=3", 11)) << "the query is left cut there";
  EXPECT_EQ(target.rest(), Pairs({{"c", "3"}}));
}

TEST(UriLookup, AMissLeavesTheQueryWhole) {
  Target target("/p?a=1&b=2");
  char* value = nullptr;
  EXPECT_EQ(http_uriGetParameter(&target.uri, "c", &value), -1);
  EXPECT_EQ(target.query(), "a=1&b=2");
}

TEST(UriLookup, NextAmperStaysWithinTheQuery) {
  std::string text = "/p?a&b";
  text += '\0';
  text += "&";
  Target target(text);
  char* const query = target.uri.query;
  EXPECT_EQ(uri_nextAmper(&target.uri, query), query + 1);
  EXPECT_EQ(uri_nextAmper(&target.uri, query + 1), query + 1) << "at the start counts";
  EXPECT_EQ(uri_nextAmper(&target.uri, query + 2), nullptr);
  EXPECT_EQ(uri_nextAmper(&target.uri, query + 3), nullptr) << "at the end of the query";
}

TEST(UriLookup, NextAmperLooksBeyondWhatDecodingCut) {
  Target target("/p?a%2F&b");
  http_uriResetParameterIterator(&target.uri);
  target.uri.query[1] = '\0';
  EXPECT_EQ(uri_nextAmper(&target.uri, target.uri.query), target.uri.query + 4);
}

// ---- hostile sizes and generated queries ---------------------------------------------------------------------------

TEST(UriSizes, SixtyKibibytesOfTarget) {
  constexpr size_t kHalf = 30 * 1024;
  std::string path = "/";
  while (path.size() < kHalf) path += "%41%20b";
  std::string query;
  Pairs pairs;
  while (query.size() < kHalf) {
    if (!query.empty()) query += '&';
    query += "n" + std::to_string(pairs.size()) + "=%26%3D?";
    pairs.emplace_back("n" + std::to_string(pairs.size()), "&=?");
  }
  Target target(path + "?" + query);
  ASSERT_EQ(target.result, 0);
  EXPECT_EQ(strlen(target.uri.path), 1 + (path.size() - 1) / 7 * 3);
  EXPECT_EQ(target.uri.queryLength, static_cast<int>(query.size()));
  EXPECT_EQ(target.rest(), pairs);
  EXPECT_EQ(target.rest(), pairs);
  char* value = nullptr;
  ASSERT_EQ(http_uriGetParameter(&target.uri, pairs.back().first.c_str(), &value), 0);
  EXPECT_STREQ(value, "&=?");
}

TEST(UriSizes, SixtyKibibytesOfOneParameter) {
  const std::string value(60 * 1024, '#');
  Target target("/p?v=" + value + "&w=1");
  const Pairs pairs = {{"v", value}, {"w", "1"}};
  EXPECT_EQ(target.rest(), pairs);
  EXPECT_EQ(target.rest(), pairs);
}

TEST(UriSizes, SixtyKibibytesOfAmpersands) {
  constexpr size_t kCount = 60 * 1024;
  Target target("/?" + std::string(kCount, '&'));
  for (int pass = 0; pass < 2; ++pass) {
    const Pairs pairs = target.rest();
    EXPECT_EQ(pairs.size(), kCount + 1);
    EXPECT_EQ(static_cast<size_t>(std::count(pairs.begin(), pairs.end(), Pair("", ""))), kCount + 1);
  }
  EXPECT_EQ(target.query(), std::string(kCount, '&'));
}

TEST(UriSizes, APathThatTriplesWhenItIsWritten) {
  const std::string blanks(60 * 1024, ' ');
  Target target("/" + blanks + "?q=1");
  std::string expected = "/";
  for (size_t blank = 0; blank < blanks.size(); ++blank) expected += "%20";
  EXPECT_EQ(target.serialized(), expected + "?q=1");
  EXPECT_EQ(target.uri.path, "/" + blanks);
  EXPECT_STREQ(target.uri.query, "q=1");
}

// Decodes as a reader of the rules would: one octet at a time, into new memory.
std::string decodedPiece(std::string_view piece) {
  std::string decoded;
  for (size_t at = 0; at < piece.size(); ++at) {
    if (piece[at] != '%' || piece.size() - at <= 2) {
      decoded += piece[at];
      continue;
    }
    const std::string digits(piece.substr(at + 1, 2));
    const char octet = static_cast<char>(strtol(digits.c_str(), nullptr, 16));
    if (octet == '\0') break;
    decoded += octet;
    at += 2;
  }
  return decoded;
}

Pairs parametersOf(std::string_view query) {
  Pairs pairs;
  if (query.empty()) return pairs;
  for (size_t start = 0;;) {
    const size_t end = std::min(query.find('&', start), query.size());
    const std::string_view piece = query.substr(start, end - start);
    const size_t separator = piece.find('=');
    const bool hasValue = separator != std::string_view::npos;
    pairs.emplace_back(decodedPiece(piece.substr(0, separator)),
                       hasValue ? decodedPiece(piece.substr(separator + 1)) : "");
    if (end == query.size()) return pairs;
    start = end + 1;
  }
}

class UriGenerated : public testing::TestWithParam<int> {
 protected:
  std::string next() {
    static constexpr std::string_view kPieces[] = {
        "a",   "b",   "=",   "=",   "&",   "&",   "?",   "#",   " ",    "%",     "%26",  "%3D", "%25",
        "%3f", "%23", "%20", "%41", "%2F", "%61", "%00", "%zz", "%4",   "%2541", "+",    "/",   "\xc3",
        "%FF", "4",   "1",   "%%",  "%3d", "%0A", "%-1", "% 4", "%25%", "????",  "%26#", "#%3D"};
    std::uniform_int_distribution<size_t> lengths(0, 24);
    std::uniform_int_distribution<size_t> pieces(0, std::size(kPieces) - 1);
    std::string query;
    for (size_t left = lengths(random_); left > 0; --left) query += kPieces[pieces(random_)];
    return query;
  }

  std::mt19937 random_{static_cast<unsigned>(GetParam())};
};

TEST_P(UriGenerated, GiveTheirParametersInEveryPassAndNothingElseChanges) {
  for (int round = 0; round < 4000; ++round) {
    const std::string query = next();
    const Pairs expected = parametersOf(query);
    Target target("/p?" + query);
    for (int pass = 1; pass <= 3; ++pass) ASSERT_EQ(target.rest(), expected) << query << " pass " << pass;
    ASSERT_STREQ(target.uri.path, "/p") << query;
    ASSERT_EQ(target.uri.queryLength, static_cast<int>(query.size()));
    for (const Pair& wanted : expected) {
      char* value = nullptr;
      ASSERT_EQ(http_uriGetParameter(&target.uri, wanted.first.c_str(), &value), 0) << query;
    }
    http_uriResetParameterIterator(&target.uri);
    ASSERT_EQ(target.rest(), expected) << query << " after lookups";
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, UriGenerated, testing::Values(1, 2, 3, 4, 5),
                         [](const auto& row) { return "Seed" + std::to_string(row.param); });

TEST(UriRoundTrip, AGeneratedPathIsParsedBackToTheSame) {
  std::mt19937 random(7);
  std::uniform_int_distribution<int> octets(1, 255);
  std::uniform_int_distribution<int> lengths(0, 40);
  for (int round = 0; round < 5000; ++round) {
    std::string path = "/";
    for (int left = lengths(random); left > 0; --left) {
      const bool special = left % 3 == 0;
      path += special ? "#&=% ?"[static_cast<size_t>(octets(random)) % 6] : static_cast<char>(octets(random));
    }
    std::string written;
    for (const char octet : path) {
      static constexpr char kDigits[] = "0123456789abcdef";
      const auto value = static_cast<unsigned char>(octet);
      written += octet == '/' ? std::string("/") : std::string({'%', kDigits[value >> 4], kDigits[value & 15]});
    }
    Target first(written);
    ASSERT_EQ(first.uri.path, path);
    Target second(first.serialized());
    ASSERT_EQ(second.uri.path, path) << written;
    ASSERT_STREQ(second.uri.query, "");
  }
}

}  // namespace
