#include <gtest/gtest.h>
#include <krohttp/utils.h>
#include <stdlib.h>
#include <string.h>

#include <climits>
#include <cstdint>
#include <ctime>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/trace_capture.h"

namespace {

struct FreeDeleter {
  void operator()(void* memory) const { free(memory); }
};
using Text = std::unique_ptr<char, FreeDeleter>;

// ---- key-value lists -----------------------------------------------------------------------------------------------

// A key and its value, "(none)" when there is none.
using Pair = std::pair<std::string, std::string>;
constexpr const char* kNone = "(none)";

// Cuts a copy of list that is exactly as large as it must be.
std::vector<Pair> cut(std::string_view list, char separator) {
  const std::unique_ptr<char[]> copy(new char[list.size() + 1]);
  memcpy(copy.get(), list.data(), list.size());
  copy[list.size()] = '\0';

  std::vector<Pair> pairs;
  char* key = nullptr;
  char* value = nullptr;
  char* cursor = nullptr;
  for (int more = utils_keyvalue(copy.get(), &key, &value, &cursor, separator); more != 0;
       more = utils_keyvalue(nullptr, &key, &value, &cursor, separator)) {
    EXPECT_EQ(more, 1);
    EXPECT_GE(key, copy.get());
    EXPECT_LE(key, copy.get() + list.size());
    pairs.emplace_back(key, value == nullptr ? kNone : value);
  }
  EXPECT_EQ(utils_keyvalue(nullptr, &key, &value, &cursor, separator), 0) << "the end stays the end";
  return pairs;
}

struct ListCase {
  const char* name;
  std::string_view list;
  char separator;
  std::vector<Pair> pairs;
};

const ListCase kLists[] = {
    {"TwoPairs", "a=1;b=2", ';', {{"a", "1"}, {"b", "2"}}},
    {"KeyWithoutValue", "a=1;  b", ';', {{"a", "1"}, {"b", kNone}}},
    {"FirstEqualsSignCounts", "a=b=c", ';', {{"a", "b=c"}}},
    {"OnlyKey", "a", ';', {{"a", kNone}}},
    {"EmptyValue", "a=", ';', {{"a", ""}}},
    {"EmptyKey", "=v", ';', {{"", "v"}}},
    {"OnlyEqualsSign", "=", ';', {{"", ""}}},
    {"OnlyEqualsSigns", "===", ';', {{"", "=="}}},
    {"EmptyList", "", ';', {}},
    {"EmptyToken", "a=1;;b=2", ';', {{"a", "1"}, {"", kNone}, {"b", "2"}}},
    {"SeparatorFirst", ";a=1", ';', {{"", kNone}, {"a", "1"}}},
    {"SeparatorLast", "a=1;", ';', {{"a", "1"}}},
    {"SeparatorLastWithABlank", "a=1; ", ';', {{"a", "1"}, {"", kNone}}},
    {"OnlySeparator", ";", ';', {{"", kNone}}},
    {"OnlySeparators", ";;;", ';', {{"", kNone}, {"", kNone}, {"", kNone}}},
    {"OnlyBlanks", " \t ", ';', {{"", kNone}}},
    {"BlanksBetweenSeparators", "; ;", ';', {{"", kNone}, {"", kNone}}},
    {"BlanksBeforeTheKey", "  a=1;\t \tb=2", ';', {{"a", "1"}, {"b", "2"}}},
    {"BlanksBehindTheKeyStay", "a =1;b\t=2", ';', {{"a ", "1"}, {"b\t", "2"}}},
    {"BlanksInTheValueStay", "a= 1 2 ;b=\t", ';', {{"a", " 1 2 "}, {"b", "\t"}}},
    {"BlankBeforeTheEqualsSign", " =1", ';', {{"", "1"}}},
    {"BlanksBehindAKeyWithoutValue", "a ; b ", ';', {{"a ", kNone}, {"b ", kNone}}},
    {"OtherWhitespaceIsNoBlank", "\va=1;\fb=2", ';', {{"\va", "1"}, {"\fb", "2"}}},
    {"NoBreakSpaceIsNoBlank",
     "\xa0"
     "a=1",
     ';',
     {{"\xa0"
       "a",
       "1"}}},
    {"QuotesDoNotProtect", "a=\"x;y\";b=2", ';', {{"a", "\"x"}, {"y\"", kNone}, {"b", "2"}}},
    {"QuotesStay", "a=\"x\"", ';', {{"a", "\"x\""}}},
    {"Comma", "a=1,b=2;c=3", ',', {{"a", "1"}, {"b", "2;c=3"}}},
    {"CommaWithBlank", "username=\"me\", realm=\"a b\"", ',', {{"username", "\"me\""}, {"realm", "\"a b\""}}},
    {"BlankAsSeparator", "a=1 b=2  c", ' ', {{"a", "1"}, {"b", "2"}, {"", kNone}, {"c", kNone}}},
    {"EqualsSignAsSeparator", "a=1", '=', {{"a", kNone}, {"1", kNone}}},
    {"NulAsSeparator", "a=1;b", '\0', {{"a", "1;b"}}},
    {"HighSeparator",
     "a=1\xff"
     "b=2",
     '\xff',
     {{"a", "1"}, {"b", "2"}}},
    {"HighOctets", "\xc3\xa9=\xff;\x80", ';', {{"\xc3\xa9", "\xff"}, {"\x80", kNone}}},
    {"PercentSigns", "%s%n=%d;%s", ';', {{"%s%n", "%d"}, {"%s", kNone}}},
};

class KeyValueList : public testing::TestWithParam<ListCase> {};

TEST_P(KeyValueList, IsCutIntoPairs) {
  const TraceCapture trace;
  EXPECT_EQ(cut(GetParam().list, GetParam().separator), GetParam().pairs);
}

TEST_P(KeyValueList, WarnsOfEveryKeyWithoutValueAndOfNothingElse) {
  const TraceCapture trace;
  size_t withoutValue = 0;
  for (const Pair& pair : cut(GetParam().list, GetParam().separator)) withoutValue += pair.second == kNone ? 1 : 0;
  EXPECT_EQ(trace.lines().size(), withoutValue);
  EXPECT_EQ(trace.countStarting("http-ut[!]unable to parse cookie "), withoutValue);
}

TEST_P(KeyValueList, ShowsEveryPairInItsZone) {
  const TraceCapture trace{"http-utils"};
  TraceLines expected;
  for (const Pair& pair : cut(GetParam().list, GetParam().separator)) {
    const std::string value = pair.second == kNone ? "(null)" : pair.second;
    expected.push_back("http-ut[i]found key value pair: " + pair.first + "=" + value);
  }
  EXPECT_EQ(trace.said(KROTRACE_INFO), expected);
}

INSTANTIATE_TEST_SUITE_P(Lists, KeyValueList, testing::ValuesIn(kLists),
                         [](const auto& row) { return row.param.name; });

TEST(KeyValue, AnEmptyListSetsOnlyKeyAndCursor) {
  char list[] = "";
  char untouched = 'u';
  char* key = nullptr;
  char* value = &untouched;
  char* cursor = nullptr;
  const TraceCapture trace{"http-utils"};
  EXPECT_EQ(utils_keyvalue(list, &key, &value, &cursor, ';'), 0);
  EXPECT_EQ(key, list);
  EXPECT_EQ(cursor, list);
  EXPECT_EQ(value, &untouched);
  EXPECT_EQ(trace.said(), TraceLines{});
}

TEST(KeyValue, TheEndLeavesTheLastValue) {
  char list[] = "a=1";
  char* key = nullptr;
  char* value = nullptr;
  char* cursor = nullptr;
  ASSERT_EQ(utils_keyvalue(list, &key, &value, &cursor, ';'), 1);
  EXPECT_EQ(utils_keyvalue(nullptr, &key, &value, &cursor, ';'), 0);
  EXPECT_EQ(key, list + 3);
  EXPECT_EQ(value, list + 2);
  EXPECT_EQ(cursor, list + 3);
}

TEST(KeyValue, PointsIntoTheListAndCutsItThere) {
  char list[] = " key=value;rest";
  char* key = nullptr;
  char* value = nullptr;
  char* cursor = nullptr;
  ASSERT_EQ(utils_keyvalue(list, &key, &value, &cursor, ';'), 1);
  EXPECT_EQ(key, list + 1);
  EXPECT_EQ(value, list + 5);
  EXPECT_EQ(cursor, list + 11);
  EXPECT_EQ(std::string_view(list, sizeof list), std::string_view(" key\0value\0rest", sizeof list));
}

TEST(KeyValue, WarnsWithTheTextOfThisCall) {
  char list[] = "  first;second;third=3";
  char* key = nullptr;
  char* value = nullptr;
  char* cursor = nullptr;
  const TraceCapture trace{"http-utils"};
  while (utils_keyvalue(key == nullptr ? list : nullptr, &key, &value, &cursor, ';') == 1) continue;
  EXPECT_EQ(trace.said(), TraceLines({
                              "http-ut[!]unable to parse cookie   first",
                              "http-ut[i]found key value pair: first=(null)",
                              "http-ut[!]unable to parse cookie (null)",
                              "http-ut[i]found key value pair: second=(null)",
                              "http-ut[i]found key value pair: third=3",
                          }));
}

TEST(KeyValue, ALineEndIsNoBlank) {
  EXPECT_EQ(cut("\na=1;\rb=2; \nc=\r\n", ';'), std::vector<Pair>({{"\na", "1"}, {"\rb", "2"}, {"\nc", "\r\n"}}));
}

TEST(KeyValue, TwoListsInTurnDoNotMix) {
  char one[] = "a=1;b=2";
  char two[] = "c=3,d=4";
  char *key = nullptr, *value = nullptr, *cursorOne = nullptr, *cursorTwo = nullptr;
  ASSERT_EQ(utils_keyvalue(one, &key, &value, &cursorOne, ';'), 1);
  ASSERT_EQ(utils_keyvalue(two, &key, &value, &cursorTwo, ','), 1);
  EXPECT_EQ(Pair(key, value), Pair("c", "3"));
  ASSERT_EQ(utils_keyvalue(nullptr, &key, &value, &cursorOne, ';'), 1);
  EXPECT_EQ(Pair(key, value), Pair("b", "2"));
  ASSERT_EQ(utils_keyvalue(nullptr, &key, &value, &cursorTwo, ','), 1);
  EXPECT_EQ(Pair(key, value), Pair("d", "4"));
  EXPECT_EQ(utils_keyvalue(nullptr, &key, &value, &cursorOne, ';'), 0);
  EXPECT_EQ(utils_keyvalue(nullptr, &key, &value, &cursorTwo, ','), 0);
}

TEST(KeyValue, ANewListTakesTheCursorOver) {
  char one[] = "a=1;b=2";
  char two[] = "c=3";
  char *key = nullptr, *value = nullptr, *cursor = nullptr;
  ASSERT_EQ(utils_keyvalue(one, &key, &value, &cursor, ';'), 1);
  ASSERT_EQ(utils_keyvalue(two, &key, &value, &cursor, ';'), 1);
  EXPECT_EQ(Pair(key, value), Pair("c", "3"));
  EXPECT_EQ(utils_keyvalue(nullptr, &key, &value, &cursor, ';'), 0);
}

// ---- base64 --------------------------------------------------------------------------------------------------------

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Encodes a copy that is exactly as large as bytes.
std::string encoded(std::string_view bytes) {
  const std::vector<char> exact(bytes.begin(), bytes.end());
  char* output = nullptr;
  if (http_base64Encode(exact.data(), static_cast<unsigned>(exact.size()), &output) != 0) return "refused";
  const Text owner(output);
  return output;
}

// What decoding gives: the text, with the zeros that fill it up to the length of the input.
struct Decoded {
  int result;
  bool hasOutput;
  std::string output;  // as many bytes as were given
};

Decoded decoded(std::string_view text) {
  const std::vector<char> exact(text.begin(), text.end());
  char unset = 'u';
  char* output = &unset;
  Decoded decoded = {};
  decoded.result = http_base64Decode(exact.data(), static_cast<unsigned>(exact.size()), &output);
  EXPECT_NE(output, &unset);
  decoded.hasOutput = output != nullptr;
  if (output != nullptr) decoded.output.assign(output, text.size());
  free(output);
  return decoded;
}

struct Base64Case {
  const char* name;
  std::string_view bytes;
  std::string_view text;
};

constexpr Base64Case kBase64[] = {
    {"Empty", "", ""},
    {"OneOctet", "f", "Zg=="},
    {"TwoOctets", "fo", "Zm8="},
    {"ThreeOctets", "foo", "Zm9v"},
    {"FourOctets", "foob", "Zm9vYg=="},
    {"FiveOctets", "fooba", "Zm9vYmE="},
    {"SixOctets", "foobar", "Zm9vYmFy"},
    {"LetterA", "a", "YQ=="},
    {"LettersAb", "ab", "YWI="},
    {"LettersAbc", "abc", "YWJj"},
    {"Credentials", "Aladdin:open sesame", "QWxhZGRpbjpvcGVuIHNlc2FtZQ=="},
    {"OneNul", std::string_view("\0", 1), "AA=="},
    {"TwoNuls", std::string_view("\0\0", 2), "AAA="},
    {"ThreeNuls", std::string_view("\0\0\0", 3), "AAAA"},
    {"NulInside", std::string_view("a\0b", 3), "YQBi"},
    {"AllOnes", "\xff\xff\xff", "////"},
    {"OneOctetOfOnes", "\xff", "/w=="},
    {"TwoOctetsOfOnes", "\xff\xff", "//8="},
    {"PlusSigns", "\xfb\xef\xbe", "++++"},
};

class Base64 : public testing::TestWithParam<Base64Case> {};

TEST_P(Base64, IsEncoded) { EXPECT_EQ(encoded(GetParam().bytes), GetParam().text); }

TEST_P(Base64, IsDecodedAndFilledWithZeros) {
  const Decoded back = decoded(GetParam().text);
  std::string expected(GetParam().bytes);
  expected.resize(GetParam().text.size());
  EXPECT_EQ(back.result, 0);
  EXPECT_TRUE(back.hasOutput);
  EXPECT_EQ(back.output, expected);
}

INSTANTIATE_TEST_SUITE_P(Vectors, Base64, testing::ValuesIn(kBase64), [](const auto& row) { return row.param.name; });

TEST(Base64Alphabet, IsTheStandardOneInBothDirections) {
  const Decoded bytes = decoded(kAlphabet);
  ASSERT_EQ(bytes.result, 0);
  EXPECT_EQ(encoded(std::string_view(bytes.output).substr(0, 48)), kAlphabet);
}

TEST(Base64Alphabet, EveryLetterHasItsValue) {
  for (size_t value = 0; value < kAlphabet.size(); ++value) {
    const char byte = static_cast<char>(value << 2);
    EXPECT_EQ(encoded(std::string_view(&byte, 1)), std::string(1, kAlphabet[value]) + "A==");
    EXPECT_EQ(decoded(std::string(1, kAlphabet[value]) + "A==").output, std::string({byte, 0, 0, 0}));
  }
}

TEST(Base64Alphabet, EveryOtherOctetEndsItsGroup) {
  for (int octet = 0; octet < 256; ++octet) {
    const char letter = static_cast<char>(octet);
    if (kAlphabet.find(letter) != std::string_view::npos) continue;
    const Decoded group = decoded(std::string("YW") + letter + "j");
    EXPECT_EQ(group.result, 0) << octet;
    EXPECT_EQ(group.output, std::string("a\0\0\0", 4)) << octet;
  }
}

TEST(Base64RoundTrip, EveryLength) {
  std::mt19937 random(64);
  std::uniform_int_distribution<int> octets(0, 255);
  for (size_t length = 0; length <= 64; ++length) {
    std::string bytes(length, '\0');
    for (int round = 0; round < 8; ++round) {
      const TraceCapture trace{"http-utils"};
      const std::string text = encoded(bytes);
      ASSERT_EQ(text.size(), (length + 2) / 3 * 4);
      const Decoded back = decoded(text);
      ASSERT_EQ(back.result, 0);
      std::string expected = bytes;
      expected.resize(text.size());
      EXPECT_EQ(back.output, expected) << text;
      EXPECT_EQ(trace.said(), TraceLines{});
      for (char& byte : bytes) byte = static_cast<char>(round == 0 ? 0xff : octets(random));
    }
  }
}

TEST(Base64RoundTrip, OneMebibyte) {
  std::string bytes(1 << 20, '\0');
  std::mt19937 random(20);
  for (char& byte : bytes) byte = static_cast<char>(random());
  const Decoded back = decoded(encoded(bytes));
  EXPECT_EQ(back.result, 0);
  EXPECT_TRUE(std::string_view(back.output).substr(0, bytes.size()) == bytes);
}

struct DecodeCase {
  const char* name;
  std::string_view text;
  int result;
  std::string_view output;  // without the zeros behind it
  TraceLines said;
};

const TraceLines kTruncated = {"http-ut[x]unable to decode base64 data: input seems to be truncated"};

const DecodeCase kDecodes[] = {
    {"OneLetter", "Y", -1, "", kTruncated},
    {"TwoLetters", "YQ", -1, "", kTruncated},
    {"ThreeLetters", "YWI", -1, "", kTruncated},
    {"FiveLetters", "YWJjY", -1, "", kTruncated},
    {"SixLetters", "YWJjYQ", -1, "", kTruncated},
    {"SevenLetters", "YWJjYWI", -1, "", kTruncated},
    {"TruncatedBehindAShortGroup", "YQ==YQ", -1, "", kTruncated},
    {"OneLetterPadded", "Y===", -1, "", {}},
    {"OneLetterPaddedOnce", "Y=", -1, "", {}},
    {"OneLetterPaddedBehindAGroup", "YWJjY===", -1, "", {}},
    {"OneSignOfPaddingMissing", "YQ=", 0, "a", {}},
    {"OneSignOfPaddingMissingBehindAGroup", "YWJjYQ=", 0, "abca", {}},
    {"OnlyPadding", "====", 0, "", {}},
    {"OneSignOfPadding", "=", 0, "", {}},
    {"PaddingEndsTheText", "YWJj====YWJj", 0, "abc", {}},
    {"DecodingGoesOnBehindPadding", "QQ==QQ==", 0, "AA", {}},
    {"DecodingGoesOnBehindALittlePadding", "YWI=YWI=", 0, "abab", {}},
    {"GroupsOfEveryLength", "YWJjYWI=YQ==YWJj", 0, "abcabaabc", {}},
    {"BadFirst", "!abc", 0, "", {}},
    {"BadSecond", "a!bc", -1, "", {}},
    {"BadThird", "YW!j", 0, "a", {}},
    {"BadFourth", "YWJ!", 0, "ab", {}},
    {"BadFirstOfTheNext", "YWJj!abcYWJj", 0, "abc", {}},
    {"BadSecondOfTheNext", "YWJja!bc", -1, "", {}},
    {"BadThirdOfTheNext", "YWJjYW!jYWJj", 0, "abcaabc", {}},
    {"BadFourthOfTheNext", "YWJjYWJ!YWJj", 0, "abcababc", {}},
    {"BadLineEnd", "YWJj\r\n", 0, "abc", {}},
    {"BadBlank", " YWJj", 0, "", {}},
    {"UrlAlphabetIsAnother", "-_-_", 0, "", {}},
    {"HighOctet", "YW\xffj", 0, "a", {}},
    {"NulFirst", std::string_view("\0YWJ", 4), 0, "", {}},
    {"NulThird", std::string_view("YW\0jYWJj", 8), 0, "aabc", {}},
    {"BitsBehindTheLastOctetAreDropped", "YR==", 0, "a", {}},
    {"MoreBitsBehindTheLastOctetAreDropped", "YWL=", 0, "ab", {}},
};

class Base64Text : public testing::TestWithParam<DecodeCase> {};

TEST_P(Base64Text, GivesTheTextOrNothing) {
  const TraceCapture trace{"http-utils"};
  const Decoded back = decoded(GetParam().text);
  EXPECT_EQ(back.result, GetParam().result);
  EXPECT_EQ(back.hasOutput, GetParam().result == 0);
  if (back.hasOutput) {
    std::string expected(GetParam().output);
    expected.resize(GetParam().text.size());
    EXPECT_EQ(back.output, expected);
  }
  EXPECT_EQ(trace.said(), GetParam().said);
}

INSTANTIATE_TEST_SUITE_P(Texts, Base64Text, testing::ValuesIn(kDecodes),
                         [](const auto& row) { return row.param.name; });

TEST(Base64Decode, NothingIsAnEmptyText) {
  char* output = nullptr;
  EXPECT_EQ(http_base64Decode("", 0, &output), 0);
  const Text owner(output);
  ASSERT_NE(output, nullptr);
  EXPECT_STREQ(output, "");
}

TEST(Base64Decode, ReadsNoFurtherThanTheLength) {
  char* output = nullptr;
  EXPECT_EQ(http_base64Decode("YWJjZGVm", 4, &output), 0);
  const Text owner(output);
  EXPECT_STREQ(output, "abc");
}

TEST(Base64Encode, ReadsNoFurtherThanTheLength) {
  char* output = nullptr;
  EXPECT_EQ(http_base64Encode("abcdef", 4, &output), 0);
  const Text owner(output);
  EXPECT_STREQ(output, "YWJjZA==");
}

// The result's length must be computed without wrapping: a wrapped one gives a buffer of a few bytes.
TEST(Base64Encode, ALengthWhoseResultIsTooLargeIsRefused) {
  for (const unsigned length : {UINT_MAX, UINT_MAX - 1, UINT_MAX - 2, UINT_MAX - 3, 0xC0000000U}) {
    char unset = 'u';
    char* output = &unset;
    const TraceCapture trace{"http-utils"};
    EXPECT_EQ(http_base64Encode("abc", length, &output), -1) << length;
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(trace.lines().size(), 1U);
    EXPECT_EQ(trace.errors().size(), 1U);
  }
}

TEST(Base64Decode, AGreatLengthStopsAtTheEndOfTheText) {
  char* output = nullptr;
  EXPECT_EQ(http_base64Decode("YWJj", 1U << 30, &output), 0);
  Text owner(output);
  EXPECT_STREQ(output, "abc");

  // Whether there is memory for the greatest is the machine's affair; nothing may wrap.
  const TraceCapture trace;
  if (http_base64Decode("YWJj", UINT_MAX, &output) == 0) {
    owner.reset(output);
    EXPECT_STREQ(output, "abc");
  } else {
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(trace.countStarting("http-ut[x]unable to decode base64 data: "), 1U);
  }
}

// ---- random strings ------------------------------------------------------------------------------------------------

constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ1234567890";

TEST(RandomString, HasItsLengthItsNulAndNothingBehind) {
  for (const unsigned length : {0U, 1U, 2U, 32U, 62U, 1000U}) {
    std::vector<char> buffer(length + 1 + 64, '~');
    EXPECT_EQ(http_generateRandomString(buffer.data(), length), 0);
    EXPECT_EQ(strlen(buffer.data()), length);
    EXPECT_EQ(std::string_view(buffer.data(), length).find_first_not_of(kLetters), std::string_view::npos);
    for (size_t at = length + 1; at < buffer.size(); ++at) ASSERT_EQ(buffer[at], '~') << "wrote at " << at;
  }
}

TEST(RandomString, FillsABufferThatIsJustLargeEnough) {
  const std::unique_ptr<char[]> buffer(new char[17]);
  EXPECT_EQ(http_generateRandomString(buffer.get(), 16), 0);
  EXPECT_EQ(strlen(buffer.get()), 16U);
}

TEST(RandomString, DiffersFromCallToCallWithinASecond) {
  std::set<std::string> seen;
  for (int call = 0; call < 100; ++call) {
    char text[33];
    ASSERT_EQ(http_generateRandomString(text, 32), 0);
    EXPECT_TRUE(seen.insert(text).second) << text;
  }
}

TEST(RandomString, UsesEveryLetter) {
  std::vector<char> text(10001);
  ASSERT_EQ(http_generateRandomString(text.data(), 10000), 0);
  EXPECT_EQ(std::set<char>(text.begin(), text.end() - 1), std::set<char>(kLetters.begin(), kLetters.end()));
}

std::string lettersOfSeed(unsigned seed, size_t length) {
  srand(seed);
  std::string text;
  while (text.size() < length) text += kLetters[static_cast<size_t>(rand()) % kLetters.size()];
  return text;
}

// Each call seeds anew, with the time and the number of the call.
TEST(RandomString, FollowsFromTheTimeAndTheNumberOfCalls) {
  char first[25];
  char second[25];
  time_t now = 0;
  do {  // again when a second begins in between
    now = time(nullptr);
    ASSERT_EQ(http_generateRandomString(first, 24), 0);
    ASSERT_EQ(http_generateRandomString(second, 24), 0);
  } while (time(nullptr) != now);

  // How many calls the process made before is not known here, only that they were few.
  unsigned calls = 0;
  while (calls < 100000 && lettersOfSeed(static_cast<unsigned>(now) + calls, 24) != first) ++calls;
  ASSERT_LT(calls, 100000U);
  EXPECT_EQ(lettersOfSeed(static_cast<unsigned>(now) + calls + 1, 24), second);
}

TEST(RandomString, WithoutABufferIsRefused) {
  for (const unsigned length : {0U, 16U}) {
    const TraceCapture trace{"http-utils"};
    EXPECT_EQ(http_generateRandomString(nullptr, length), -1);
    EXPECT_EQ(trace.said(), TraceLines({"http-ut[x]Invalid Parameters"}));
  }
}

TEST(RandomString, IsShownInItsZone) {
  char text[9];
  const TraceCapture trace{"http-utils"};
  ASSERT_EQ(http_generateRandomString(text, 8), 0);
  EXPECT_EQ(trace.said(), TraceLines({std::string("http-ut[i]GENERATED RANDOM STRING:") + text}));
}

}  // namespace
