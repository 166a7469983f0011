#include <gtest/gtest.h>
#include <krohttp/header.h>
#include <krohttp/protocol.h>
#include <krohttp/reply.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "protocol_internal.h"
#include "support/trace_capture.h"

namespace {

// ---- the tables ----------------------------------------------------------------------------------------------------

constexpr const char* kMethods[] = {"AERROR", "CONNECT", "DELETE", "GET", "HEAD", "OPTIONS", "POST", "PUT", "TRACE"};

struct Status {
  unsigned code;
  const char* text;
};
constexpr Status kStatuses[] = {
    {100, "Continue"},
    {101, "Switching Protocols"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-Authoritative Information"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {305, "Use Proxy"},
    {306, nullptr},
    {307, "Temporary Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Request Entity Too Large"},
    {414, "Request-URI Too Long"},
    {415, "Unnsuported Media Type"},
    {416, "Requested Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
};

constexpr const char* kHeaders[] = {
    "AAAA-----ERROR",
    "Accept",
    "Accept-Charset",
    "Accept-Encoding",
    "Accept-Language",
    "Accept-Ranges",
    "Age",
    "Allow",
    "Authorization",
    "Cache-Control",
    "Connection",
    "Content-Disposition",
    "Content-Encoding",
    "Content-Language",
    "Content-Length",
    "Content-Location",
    "Content-MD5",
    "Content-Range",
    "Content-Type",
    "Cookie",
    "Date",
    "ETAG",
    "Expect",
    "Expires",
    "From",
    "Host",
    "If-Match",
    "If-Modified-Since",
    "If-None-Match",
    "If-Range",
    "If-Unmodified-Since",
    "Last-Modified",
    "Location",
    "Max-Forwards",
    "Pragma",
    "Proxy-Authenticate",
    "Proxy-Authorization",
    "Range",
    "Referer",
    "Retry-After",
    "Server",
    "Set-Cookie",
    "Set-Cookie2",
    "TE",
    "Trailer",
    "Transfer-Encoding",
    "Upgrade",
    "User-Agent",
    "Vary",
    "Via",
    "Warning",
    "WWW-Authenticate",
    "ZZZZ------CUSTOM",
};

std::string inCase(std::string_view text, int (*convert)(int)) {
  std::string converted(text);
  for (char& letter : converted) letter = static_cast<char>(convert(static_cast<unsigned char>(letter)));
  return converted;
}

TEST(MethodTable, HasEveryRow) {
  ASSERT_EQ(std::size(methodStrings), 9U);
  for (int code = 0; code < 9; ++code) {
    EXPECT_STREQ(methodStrings[code], kMethods[code]) << code;
    EXPECT_EQ(prot_methodString(code), methodStrings[code]) << code;
  }
}

TEST(MethodTable, IsSortedForBisection) {
  for (size_t row = 1; row < std::size(methodStrings); ++row)
    EXPECT_LT(strcmp(methodStrings[row - 1], methodStrings[row]), 0) << row;
}

TEST(MethodTable, CodesOutsideGiveTheErrorRow) {
  for (const int code : {-1, 9, 10, 255, 256, INT_MAX, INT_MIN})
    EXPECT_STREQ(prot_methodString(code), "AERROR") << code;
}

TEST(MethodTable, EveryNameFindsItsCode) {
  for (int code = 0; code < 9; ++code) EXPECT_EQ(prot_methodCode(std::string(kMethods[code]).c_str()), code);
}

TEST(MethodTable, CodesAreTheEnumerators) {
  EXPECT_EQ(prot_methodCode("CONNECT"), HTTP_METHOD_CONNECT);
  EXPECT_EQ(prot_methodCode("DELETE"), HTTP_METHOD_DELETE);
  EXPECT_EQ(prot_methodCode("GET"), HTTP_METHOD_GET);
  EXPECT_EQ(prot_methodCode("HEAD"), HTTP_METHOD_HEAD);
  EXPECT_EQ(prot_methodCode("OPTIONS"), HTTP_METHOD_OPTIONS);
  EXPECT_EQ(prot_methodCode("POST"), HTTP_METHOD_POST);
  EXPECT_EQ(prot_methodCode("PUT"), HTTP_METHOD_PUT);
  EXPECT_EQ(prot_methodCode("TRACE"), HTTP_METHOD_TRACE);
}

TEST(MethodTable, OtherNamesAreUnknown) {
  for (const char* text : {"get", "Get", "PATCH", "", "G", "GE", "GETS", "GET ", " GET", "CONNECTED", "AERRO", "aerror",
                           "A", "ZZZ", "TRACE2", "M-SEARCH", "\xff"}) {
    EXPECT_EQ(prot_methodCode(text), 0) << text;
  }
  EXPECT_EQ(prot_methodCode(nullptr), 0);
}

TEST(StatusTable, HasEveryRow) {
  ASSERT_EQ(std::size(statusStrings), 41U);
  ASSERT_EQ(std::size(kStatuses), 41U);
  for (size_t row = 0; row < std::size(kStatuses); ++row) {
    EXPECT_STREQ(statusStrings[row], kStatuses[row].text) << kStatuses[row].code;
    EXPECT_EQ(prot_statusCodeHash(kStatuses[row].code), row) << kStatuses[row].code;
    EXPECT_EQ(prot_statusCodeString(kStatuses[row].code), statusStrings[row]) << kStatuses[row].code;
  }
}

struct StatusHashCase {
  const char* name;
  unsigned code;
  unsigned index;
  const char* text;
};

constexpr StatusHashCase kStatusHashes[] = {
    {"Zero", 0, 0, "Continue"},
    {"BelowTheClasses", 99, 0, "Continue"},
    {"BehindTheClasses", 600, 0, "Continue"},
    {"NoClass", 999, 0, "Continue"},
    {"NoClassWithARest", 642, 0, "Continue"},
    {"ANumberInThousands", 1200, 0, "Continue"},
    {"InANeighboursRows", 208, 10, "Moved Permanently"},
    {"InTheNextClass", 418, 35, "Internal Server Error"},
    {"FirstClassReachesTheSecond", 102, 2, "OK"},
    {"FirstClassReachesTheEnd", 140, 40, "HTTP Version Not Supported"},
    {"FirstClassBehindTheEnd", 141, 41, nullptr},
    {"FirstClassLast", 199, 99, nullptr},
    {"SecondClassReachesTheEnd", 238, 40, "HTTP Version Not Supported"},
    {"SecondClassBehindTheEnd", 239, 41, nullptr},
    {"SecondClassLast", 299, 101, nullptr},
    {"RowWithoutText", 306, 15, nullptr},
    {"SecondClassReachesTheRowWithoutText", 213, 15, nullptr},
    {"PermanentRedirect", 308, 17, "Bad Request"},
    {"ThirdClassBehindTheEnd", 332, 41, nullptr},
    {"ThirdClassLast", 399, 108, nullptr},
    {"FourthClassReachesTheEnd", 423, 40, "HTTP Version Not Supported"},
    {"FourthClassBehindTheEnd", 424, 41, nullptr},
    {"PreconditionRequired", 428, 45, nullptr},
    {"TooManyRequests", 429, 46, nullptr},
    {"HeaderFieldsTooLarge", 431, 48, nullptr},
    {"UnavailableForLegalReasons", 451, 68, nullptr},
    {"FourthClassLast", 499, 116, nullptr},
    {"FifthClassBehindTheEnd", 506, 41, nullptr},
    {"NetworkAuthenticationRequired", 511, 46, nullptr},
    {"FifthClassLast", 599, 134, nullptr},
    // The class is a number of 16 bits: one far above finds the class that it wraps to.
    {"NotYetWrapped", 65736, 0, "Continue"},
    {"WrappedToAClass", 1638604, 6, "No Content"},
    {"Greatest", UINT_MAX, 0, "Continue"},
};

class StatusHash : public testing::TestWithParam<StatusHashCase> {};

TEST_P(StatusHash, GivesIndexAndText) {
  EXPECT_EQ(prot_statusCodeHash(GetParam().code), GetParam().index);
  EXPECT_STREQ(prot_statusCodeString(GetParam().code), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Codes, StatusHash, testing::ValuesIn(kStatusHashes),
                         [](const auto& row) { return row.param.name; });

TEST(StatusTable, EveryCodeOfThreeDigitsStaysInsideTheTable) {
  constexpr unsigned kBases[] = {0, 0, 2, 9, 17, 35};
  for (unsigned code = 0; code < 1000; ++code) {
    const bool hasClass = code >= 100 && code < 600;
    const unsigned index = hasClass ? kBases[code / 100] + code % 100 : 0;
    EXPECT_EQ(prot_statusCodeHash(code), index) << code;
    EXPECT_STREQ(prot_statusCodeString(code), index < 41 ? kStatuses[index].text : nullptr) << code;
  }
}

struct StatusTextCase {
  const char* name;
  const char* text;
  int code;
};

constexpr StatusTextCase kStatusTexts[] = {
    {"Number", "404", 404},
    {"NumberAndPhrase", "200 OK", 200},
    {"NumberAndLetters", "200OK", 200},
    {"LeadingBlanks", " \t42", 42},
    {"LeadingZeros", "00200", 200},
    {"Plus", "+7", 7},
    {"Minus", "-5", -5},
    {"Phrase", "OK", 0},
    {"PhraseAndNumber", "OK 200", 0},
    {"Hexadecimal", "0x10", 0},
    {"Fraction", "3.9", 3},
    {"Empty", "", 0},
    {"Missing", nullptr, 0},
};

class StatusText : public testing::TestWithParam<StatusTextCase> {};

TEST_P(StatusText, IsReadAsANumber) { EXPECT_EQ(prot_statusCode(GetParam().text), GetParam().code); }

INSTANTIATE_TEST_SUITE_P(Texts, StatusText, testing::ValuesIn(kStatusTexts),
                         [](const auto& row) { return row.param.name; });

TEST(HeaderTable, HasEveryRow) {
  ASSERT_EQ(std::size(headerStrings), 53U);
  ASSERT_EQ(std::size(kHeaders), 53U);
  for (int code = 0; code < 53; ++code) {
    EXPECT_STREQ(headerStrings[code], kHeaders[code]) << code;
    EXPECT_EQ(prot_headerString(code), headerStrings[code]) << code;
  }
}

TEST(HeaderTable, IsSortedForBisection) {
  for (size_t row = 1; row < std::size(headerStrings); ++row)
    EXPECT_LT(strcasecmp(headerStrings[row - 1], headerStrings[row]), 0) << row;
}

TEST(HeaderTable, CodesOutsideGiveTheErrorRow) {
  for (const int code : {-1, 53, 54, 255, 256, INT_MAX, INT_MIN})
    EXPECT_STREQ(prot_headerString(code), "AAAA-----ERROR") << code;
}

TEST(HeaderTable, EveryNameFindsItsCodeInAnyCase) {
  for (int code = 0; code < 53; ++code) {
    const std::string name = kHeaders[code];
    EXPECT_EQ(prot_headerCode(name.c_str()), code) << name;
    EXPECT_EQ(prot_headerCode(inCase(name, tolower).c_str()), code) << name;
    EXPECT_EQ(prot_headerCode(inCase(name, toupper).c_str()), code) << name;
    EXPECT_EQ(prot_headerCodeOf(name), code) << name;
  }
}

TEST(HeaderTable, OtherNamesAreCustom) {
  for (const char* name : {"X-Custom",
                           "",
                           "A",
                           "Accep",
                           "Accept-",
                           "Accept2",
                           "Accept ",
                           " Accept",
                           "Content-Typ",
                           "Content-Types",
                           "ContentType",
                           "Content_Type",
                           "Host:",
                           "Set-Cookie3",
                           "zzzz",
                           "\xc3\xa9",
                           "AAAA-----ERRO",
                           "{",
                           "|x",
                           "\x7f",
                           "@",
                           "[",
                           "`",
                           "!",
                           "0",
                           "ZZZZ------CUSTOMS",
                           "Content-Security-Policy"}) {
    EXPECT_EQ(prot_headerCode(name), 52) << name;
    EXPECT_EQ(prot_headerCodeOf(name), 52) << name;
  }
  EXPECT_EQ(prot_headerCode(nullptr), 52);
}

TEST(HeaderTable, ANameNeedNotEndInNul) {
  const std::string_view line = "Content-Length: 12";
  EXPECT_EQ(prot_headerCodeOf(line.substr(0, 14)), HTTP_HEADER_CONTENT_LENGTH);
  EXPECT_EQ(prot_headerCodeOf(line.substr(0, 15)), HTTP_HEADER_CUSTOM);
  EXPECT_EQ(prot_headerCodeOf(line.substr(0, 13)), HTTP_HEADER_CUSTOM);
  const std::vector<char> exact = {'d', 'A', 'T', 'e'};
  EXPECT_EQ(prot_headerCodeOf(std::string_view(exact.data(), exact.size())), HTTP_HEADER_DATE);
}

TEST(HeaderTable, CodesAreTheEnumerators) {
  constexpr std::array<HttpHeaderCode, 53> kCodes = {
      HTTP_HEADER_NONE,
      HTTP_HEADER_ACCEPT,
      HTTP_HEADER_ACCEPT_CHARSET,
      HTTP_HEADER_ACCEPT_ENCODING,
      HTTP_HEADER_ACCEPT_LANGUAGE,
      HTTP_HEADER_ACCEPT_RANGES,
      HTTP_HEADER_AGE,
      HTTP_HEADER_ALLOW,
      HTTP_HEADER_AUTHORIZATION,
      HTTP_HEADER_CACHE_CONTROL,
      HTTP_HEADER_CONNECTION,
      HTTP_HEADER_CONTENT_DISPOSITION,
      HTTP_HEADER_CONTENT_ENCODING,
      HTTP_HEADER_CONTENT_LANGUAGE,
      HTTP_HEADER_CONTENT_LENGTH,
      HTTP_HEADER_CONTENT_LOCATION,
      HTTP_HEADER_CONTENT_MD5,
      HTTP_HEADER_CONTENT_RANGE,
      HTTP_HEADER_CONTENT_TYPE,
      HTTP_HEADER_COOKIE,
      HTTP_HEADER_DATE,
      HTTP_HEADER_ETAG,
      HTTP_HEADER_EXPECT,
      HTTP_HEADER_EXPIRES,
      HTTP_HEADER_FROM,
      HTTP_HEADER_HOST,
      HTTP_HEADER_IF_MATCH,
      HTTP_HEADER_IF_MODIFIED_SINCE,
      HTTP_HEADER_IF_NONE_MATCH,
      HTTP_HEADER_IF_RANGE,
      HTTP_HEADER_IF_UNMODIFIED_SINCE,
      HTTP_HEADER_LAST_MODIFIED,
      HTTP_HEADER_LOCATION,
      HTTP_HEADER_MAX_FORWARDS,
      HTTP_HEADER_PRAGMA,
      HTTP_HEADER_PROXY_AUTHENTICATE,
      HTTP_HEADER_PROXY_AUTHORIZATION,
      HTTP_HEADER_RANGE,
      HTTP_HEADER_REFERER,
      HTTP_HEADER_RETRY_AFTER,
      HTTP_HEADER_SERVER,
      HTTP_HEADER_SET_COOKIE,
      HTTP_HEADER_SET_COOKIE2,
      HTTP_HEADER_TE,
      HTTP_HEADER_TRAILER,
      HTTP_HEADER_TRANSFER_ENCODING,
      HTTP_HEADER_UPGRADE,
      HTTP_HEADER_USER_AGENT,
      HTTP_HEADER_VARY,
      HTTP_HEADER_VIA,
      HTTP_HEADER_WARNING,
      HTTP_HEADER_WWW_AUTHENTICATE,
      HTTP_HEADER_CUSTOM,
  };
  for (int code = 0; code < 53; ++code) EXPECT_EQ(kCodes[static_cast<size_t>(code)], code) << kHeaders[code];
}

// ---- dates ---------------------------------------------------------------------------------------------------------

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

// A locale in which Sunday is "Dim" and November "Xbr", for the length of a scope. Machines differ in the locales they
// have, so it is made here: the C library's own time names, with those two replaced.
class ForeignTimeNames {
 public:
  ForeignTimeNames() {
    std::string pattern = std::filesystem::temp_directory_path() / "krohttp-locale-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) return;
    folder_ = pattern;
    for (const char* source : {"/usr/lib/locale/C.utf8/LC_TIME", "/usr/lib/locale/C.UTF-8/LC_TIME"}) {
      std::ifstream file(source, std::ios::binary);
      std::string names((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      if (names.empty()) continue;
      replaceAll(names, std::string_view("Sun\0", 4), std::string_view("Dim\0", 4));
      replaceAll(names, std::string_view("Nov\0", 4), std::string_view("Xbr\0", 4));
      std::filesystem::create_directory(folder_ / "xx");
      std::ofstream(folder_ / "xx/LC_TIME", std::ios::binary) << names;
      break;
    }
    setenv("LOCPATH", folder_.c_str(), 1);
    setlocale(LC_TIME, "xx");
  }
  ~ForeignTimeNames() {
    setlocale(LC_TIME, "C");
    unsetenv("LOCPATH");
    if (!folder_.empty()) std::filesystem::remove_all(folder_);
  }
  ForeignTimeNames(const ForeignTimeNames&) = delete;
  ForeignTimeNames& operator=(const ForeignTimeNames&) = delete;

  // Whether the C library formats with these names now.
  static bool inForce() {
    const time_t sunday = 1794722999;
    struct tm parts = {};
    gmtime_r(&sunday, &parts);
    char text[32];
    return strftime(text, sizeof text, "%a %b", &parts) > 0 && std::string_view(text) == "Dim Xbr";
  }

 private:
  static void replaceAll(std::string& text, std::string_view what, std::string_view with) {
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at)) text.replace(at, 4, with);
  }
  std::filesystem::path folder_;
};

constexpr time_t kSunday = 1794722999;  // Sun, 15 Nov 2026 06:09:59 UTC
constexpr const char* kSundayText = "Sun, 15-Nov-2026 06:09:59 GMT";
constexpr time_t kUnrepresentable = INT64_MAX;  // its year does not fit in an int

struct DateCase {
  const char* name;
  const char* text;
  time_t date;
};

constexpr DateCase kDates[] = {
    {"Cookie", kSundayText, kSunday},
    {"WithoutZone", "Sun, 15-Nov-2026 06:09:59", kSunday},
    {"AnyTextBehindTheSeconds", "Sun, 15-Nov-2026 06:09:59 +0200; Path=/", kSunday},
    {"NamesInAnyCase", "SUN, 15-nov-2026 06:09:59 GMT", kSunday},
    {"FullNames", "Sunday, 15-November-2026 06:09:59 GMT", kSunday},
    {"DayOfWeekIsNotChecked", "Wed, 15-Nov-2026 06:09:59 GMT", kSunday},
    {"SingleDigits", "Thu, 1-Jan-1970 0:0:7 GMT", 7},
    {"Epoch", "Thu, 01-Jan-1970 00:00:00 GMT", 0},
    {"BeforeTheEpoch", "Wed, 31-Dec-1969 23:59:58 GMT", -2},
    {"SecondBeforeTheEpochIsNoFailure", "Wed, 31-Dec-1969 23:59:59 GMT", -1},
    {"LeapDay", "Thu, 29-Feb-2024 23:59:59 GMT", 1709251199},
    {"BehindTheMonth", "Tue, 31-Feb-2026 00:00:00 GMT", 1772496000},
    {"Century", "Sat, 01-Jan-2000 00:00:00 GMT", 946684800},
    {"LastOfFourDigits", "Fri, 31-Dec-9999 23:59:59 GMT", 253402300799},
    {"TwoDigitsAreTheYear", "Sun, 15-Nov-26 06:09:59 GMT", -61319181001},
};

class CookieDate : public testing::TestWithParam<DateCase> {};

TEST_P(CookieDate, IsReadWithoutATrace) {
  const LocalZone zone("UTC0");
  TraceCapture trace{"http"};
  EXPECT_EQ(prot_parseDate(GetParam().text), GetParam().date);
  EXPECT_EQ(trace.said(), TraceLines{});
}

TEST_P(CookieDate, IsTakenAsLocalTime) {
  {
    const LocalZone east("KRO-3");
    EXPECT_EQ(prot_parseDate(GetParam().text), GetParam().date - 3 * 3600);
  }
  const LocalZone west("KRO4:30");
  EXPECT_EQ(prot_parseDate(GetParam().text), GetParam().date + 4 * 3600 + 1800);
}

INSTANTIATE_TEST_SUITE_P(Texts, CookieDate, testing::ValuesIn(kDates), [](const auto& row) { return row.param.name; });

struct BadDateCase {
  const char* name;
  const char* text;
};

constexpr BadDateCase kBadDates[] = {
    {"Empty", ""},
    {"HeaderForm", "Sun, 15 Nov 2026 06:09:59 GMT"},
    {"HeaderFormWithNumericZone", "Sun, 15 Nov 2026 06:09:59 +0000"},
    {"Iso", "2026-11-15T06:09:59Z"},
    {"NoDayOfWeek", "15-Nov-2026 06:09:59 GMT"},
    {"NoComma", "Sun 15-Nov-2026 06:09:59 GMT"},
    {"UnknownDay", "Son, 15-Nov-2026 06:09:59 GMT"},
    {"UnknownMonth", "Sun, 15-Nev-2026 06:09:59 GMT"},
    {"MonthAsANumber", "Sun, 15-11-2026 06:09:59 GMT"},
    {"NoSeconds", "Sun, 15-Nov-2026 06:09 GMT"},
    {"DayOutOfRange", "Sun, 32-Nov-2026 06:09:59 GMT"},
    {"HourOutOfRange", "Sun, 15-Nov-2026 24:09:59 GMT"},
    {"MinuteOutOfRange", "Sun, 15-Nov-2026 06:60:59 GMT"},
    {"OnlyTheDate", "Sun, 15-Nov-2026"},
    {"PercentSigns", "%s%s%n, 15-Nov-2026"},
};

class BadCookieDate : public testing::TestWithParam<BadDateCase> {};

TEST_P(BadCookieDate, IsRefusedWithOneTrace) {
  TraceCapture trace{"http"};
  EXPECT_EQ(prot_parseDate(GetParam().text), -1);
  EXPECT_EQ(trace.said(), TraceLines({std::string("http[x]unable to parse date ") + GetParam().text}));
}

INSTANTIATE_TEST_SUITE_P(Texts, BadCookieDate, testing::ValuesIn(kBadDates),
                         [](const auto& row) { return row.param.name; });

// The daylight-saving flag is ours to choose, but the result may not depend on what the stack held.
TEST(DateParsing, ASummerDateHasOneMeaning) {
  const LocalZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  constexpr time_t kNoonInJuly = 1782907200;  // 12:00 UTC; 14:00 in summer time, 13:00 without
  const auto dirtyTheStack = [](int byte) {
    volatile char bytes[2048];
    for (volatile char& place : bytes) place = static_cast<char>(byte);
  };
  dirtyTheStack(0);
  const time_t first = prot_parseDate("Wed, 01-Jul-2026 12:00:00 GMT");
  EXPECT_TRUE(first == kNoonInJuly - 3600 || first == kNoonInJuly - 7200) << first;
  for (const int byte : {0x01, 0x7f, 0x80, 0xff}) {
    dirtyTheStack(byte);
    EXPECT_EQ(prot_parseDate("Wed, 01-Jul-2026 12:00:00 GMT"), first) << byte;
  }
}

TEST(DateParsing, KnowsTheEnglishNamesInEveryLocale) {
  const LocalZone zone("UTC0");
  const ForeignTimeNames names;
  ASSERT_TRUE(ForeignTimeNames::inForce());
  TraceCapture trace;
  EXPECT_EQ(prot_parseDate(kSundayText), kSunday);
  EXPECT_EQ(trace.said(), TraceLines{});
  EXPECT_EQ(prot_parseDate("Dim, 15-Xbr-2026 06:09:59 GMT"), -1);
}

TEST(DateParsing, TakesAnyFormatFromItsNeighbours) {
  const LocalZone zone("UTC0");
  TraceCapture trace{"http"};
  time_t date = 0;
  EXPECT_TRUE(prot_parseDateAs("2026-11-15 06:09:59", "%Y-%m-%d %H:%M:%S", &date));
  EXPECT_EQ(date, kSunday);
  EXPECT_FALSE(prot_parseDateAs("2026-11-15", "%Y-%m-%d %H:%M:%S", &date));
  EXPECT_EQ(trace.said(), TraceLines{});
}

struct WrittenDateCase {
  const char* name;
  time_t date;
  const char* text;
};

constexpr WrittenDateCase kWrittenDates[] = {
    {"Sunday", kSunday, kSundayText},
    {"Epoch", 0, "Thu, 01-Jan-1970 00:00:00 GMT"},
    {"BeforeTheEpoch", -1, "Wed, 31-Dec-1969 23:59:59 GMT"},
    {"LeapDay", 1709251199, "Thu, 29-Feb-2024 23:59:59 GMT"},
    {"Monday", 1794722999 + 86400, "Mon, 16-Nov-2026 06:09:59 GMT"},
    {"Tuesday", 1794722999 + 2 * 86400, "Tue, 17-Nov-2026 06:09:59 GMT"},
    {"LastOfFourDigits", 253402300799, "Fri, 31-Dec-9999 23:59:59 GMT"},
    {"FiveDigits", 253402300800, "Sat, 01-Jan-10000 00:00:00 GMT"},
};

class WrittenCookieDate : public testing::TestWithParam<WrittenDateCase> {};

TEST_P(WrittenCookieDate, IsInGmtWhateverTheLocalZone) {
  for (const char* local : {"UTC0", "KRO-3", "KRO4:30", "CET-1CEST,M3.5.0,M10.5.0/3"}) {
    const LocalZone zone(local);
    TraceCapture trace{"http"};
    char text[64];
    EXPECT_EQ(prot_serializeDate(GetParam().date, text, sizeof text), 0);
    EXPECT_STREQ(text, GetParam().text) << local;
    EXPECT_EQ(trace.said(), TraceLines{});
  }
}

TEST_P(WrittenCookieDate, GoesOntoAStreamAsItIs) {
  const LocalZone zone("KRO-3");
  char* text = nullptr;
  size_t length = 0;
  FILE* stream = open_memstream(&text, &length);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(prot_serializeDateToStream(GetParam().date, stream), 0);
  fclose(stream);
  EXPECT_EQ(std::string_view(text, length), GetParam().text);
  free(text);
}

TEST_P(WrittenCookieDate, FitsExactlyWithItsNul) {
  const size_t length = strlen(GetParam().text);
  const std::unique_ptr<char[]> exact(new char[length + 1]);
  EXPECT_EQ(prot_serializeDate(GetParam().date, exact.get(), length + 1), 0);
  EXPECT_STREQ(exact.get(), GetParam().text);

  TraceCapture trace{"http"};
  const std::unique_ptr<char[]> tooShort(new char[length]);
  EXPECT_EQ(prot_serializeDate(GetParam().date, tooShort.get(), length), -1);
  EXPECT_EQ(trace.lines().size(), 1U);
  EXPECT_EQ(trace.countStarting("http[x]unable to serialize date: "), 1U);
}

INSTANTIATE_TEST_SUITE_P(Dates, WrittenCookieDate, testing::ValuesIn(kWrittenDates),
                         [](const auto& row) { return row.param.name; });

struct DateSpaceCase {
  size_t size;
  int result;
};

void PrintTo(const DateSpaceCase& row, std::ostream* out) { *out << row.size; }

class CookieDateSpace : public testing::TestWithParam<DateSpaceCase> {};

TEST_P(CookieDateSpace, IsNeverOverrun) {
  const size_t size = GetParam().size;
  TraceCapture trace{"http"};
  std::vector<char> buffer(size + 64, '~');
  EXPECT_EQ(prot_serializeDate(kSunday, buffer.data(), size), GetParam().result);
  for (size_t at = size; at < buffer.size(); ++at) ASSERT_EQ(buffer[at], '~') << "wrote at " << at;
  EXPECT_EQ(trace.lines().size(), GetParam().result == 0 ? 0U : 1U);
  EXPECT_EQ(trace.countStarting("http[x]unable to serialize date: "), trace.lines().size());
}

INSTANTIATE_TEST_SUITE_P(Sizes, CookieDateSpace,
                         testing::Values(DateSpaceCase{0, -1}, DateSpaceCase{1, -1}, DateSpaceCase{10, -1},
                                         DateSpaceCase{29, -1}, DateSpaceCase{30, 0}, DateSpaceCase{31, 0}),
                         [](const auto& row) { return "Bytes" + std::to_string(row.param.size); });

TEST(DateWriting, ATimeWithoutAYearFails) {
  char text[64];
  for (const time_t date : {kUnrepresentable, time_t{INT64_MIN}}) {
    TraceCapture trace{"http"};
    EXPECT_EQ(prot_serializeDate(date, text, sizeof text), -1);
    EXPECT_EQ(trace.said(), TraceLines({std::string("http[x]unable to serialize date: ") + strerror(EOVERFLOW)}));
  }
}

TEST(DateWriting, ATimeWithoutAYearWritesNothingToAStream) {
  char* text = nullptr;
  size_t length = 0;
  FILE* stream = open_memstream(&text, &length);
  ASSERT_NE(stream, nullptr);
  TraceCapture trace{"http"};
  EXPECT_EQ(prot_serializeDateToStream(kUnrepresentable, stream), -1);
  fclose(stream);
  EXPECT_EQ(length, 0U);
  free(text);
  EXPECT_EQ(trace.said(), TraceLines({std::string("http[x]unable to serialize date: ") + strerror(EOVERFLOW)}));
}

TEST(DateWriting, AStreamThatRefusesFails) {
  FILE* stream = fopen("/dev/full", "w");
  ASSERT_NE(stream, nullptr);
  setvbuf(stream, nullptr, _IONBF, 0);
  TraceCapture trace{"http"};
  EXPECT_EQ(prot_serializeDateToStream(kSunday, stream), -1);
  EXPECT_EQ(trace.said(), TraceLines({std::string("http[x]unable to serialize date: ") + strerror(ENOSPC)}));
  fclose(stream);
}

TEST(DateWriting, AStreamForReadingFails) {
  char memory[] = "xxxxxxxx";
  FILE* stream = fmemopen(memory, sizeof memory, "r");
  ASSERT_NE(stream, nullptr);
  TraceCapture trace{"http"};
  EXPECT_EQ(prot_serializeDateToStream(kSunday, stream), -1);
  EXPECT_EQ(trace.said(), TraceLines({std::string("http[x]unable to serialize date: ") + strerror(EBADF)}));
  fclose(stream);
}

TEST(DateWriting, IsEnglishInEveryLocale) {
  const ForeignTimeNames names;
  ASSERT_TRUE(ForeignTimeNames::inForce());
  char text[64];
  EXPECT_EQ(prot_serializeDate(kSunday, text, sizeof text), 0);
  EXPECT_STREQ(text, kSundayText);
}

TEST(DateWriting, IsReadBackAsTheSameTime) {
  const LocalZone zone("UTC0");
  std::mt19937_64 random(20261115);
  std::uniform_int_distribution<time_t> dates(-2208988800, 253402300799);  // 1900 to 9999
  for (int round = 0; round < 2000; ++round) {
    const time_t date = dates(random);
    char text[64];
    ASSERT_EQ(prot_serializeDate(date, text, sizeof text), 0);
    ASSERT_EQ(prot_parseDate(text), date) << text;
  }
}

TEST(DateWriting, TakesAnyFormatFromItsNeighbours) {
  TraceCapture trace{"http"};
  char text[64];
  EXPECT_EQ(prot_formatDateAs(kSunday, "%Y-%m-%d %H:%M:%S", text, sizeof text), 19U);
  EXPECT_STREQ(text, "2026-11-15 06:09:59");
  EXPECT_EQ(prot_formatDateAs(kSunday, "%Y-%m-%d %H:%M:%S", text, 19), 0U);
  EXPECT_EQ(prot_formatDateAs(kUnrepresentable, "%Y", text, sizeof text), 0U);
  EXPECT_EQ(trace.said(), TraceLines{});
}

// ---- the Date header, whose form differs ---------------------------------------------------------------------------

struct ReplyDeleter {
  void operator()(HttpReply* reply) const { http_replyDestroy(reply); }
};

std::string writtenDateHeader(time_t date) {
  const std::unique_ptr<HttpReply, ReplyDeleter> reply(http_replyCreate());
  HttpHeader header = {};
  header.code = HTTP_HEADER_DATE;
  header.date.time = date;
  if (http_hdrSerialize(&header, &reply->message) != 0) return "refused";
  const char* value = http_replyHeaderValue(reply.get(), "Date");
  return value == nullptr ? "absent" : value;
}

TEST(DateHeader, IsWrittenWithItsNumericZone) {
  for (const char* local : {"UTC0", "KRO-3", "KRO4:30", "CET-1CEST,M3.5.0,M10.5.0/3"}) {
    const LocalZone zone(local);
    EXPECT_EQ(writtenDateHeader(0), "Thu, 01 Jan 1970 00:00:00 +0000") << local;
    EXPECT_EQ(writtenDateHeader(kSunday), "Sun, 15 Nov 2026 06:09:59 +0000") << local;
    EXPECT_EQ(writtenDateHeader(-1), "Wed, 31 Dec 1969 23:59:59 +0000") << local;
  }
}

TEST(DateHeader, IsWrittenInEnglishInEveryLocale) {
  const ForeignTimeNames names;
  ASSERT_TRUE(ForeignTimeNames::inForce());
  EXPECT_EQ(writtenDateHeader(kSunday), "Sun, 15 Nov 2026 06:09:59 +0000");
}

TEST(DateHeader, ATimeWithoutAYearIsNotWritten) {
  TraceCapture trace;
  EXPECT_EQ(writtenDateHeader(kUnrepresentable), "refused");
  EXPECT_EQ(trace.said(), TraceLines({"http-he[x]unable to serialize date (4294967295)"}));
  trace.clear();
  EXPECT_EQ(writtenDateHeader(INT64_MIN), "refused");
  EXPECT_EQ(trace.said(), TraceLines({"http-he[x]unable to serialize date (0)"}));
}

struct DateHeaderCase {
  const char* name;
  const char* text;
  time_t date;  // in UTC
};

constexpr DateHeaderCase kDateHeaders[] = {
    {"Epoch", "Thu, 01 Jan 1970 00:00:00 +0000", 0},
    {"Sunday", "Sun, 15 Nov 2026 06:09:59 +0000", kSunday},
    {"ZoneIsNotApplied", "Sun, 15 Nov 2026 06:09:59 +0530", kSunday},
    {"ZoneWestIsNotApplied", "Sun, 15 Nov 2026 06:09:59 -1100", kSunday},
    {"TextBehindTheZone", "Sun, 15 Nov 2026 06:09:59 +0000 (UTC)", kSunday},
};

class DateHeaderText : public testing::TestWithParam<DateHeaderCase> {};

TEST_P(DateHeaderText, IsTakenAsLocalTime) {
  struct Local {
    const char* zone;
    time_t offset;
  };
  for (const Local& local : {Local{"UTC0", 0}, Local{"KRO-3", -10800}, Local{"KRO4:30", 16200}}) {
    const LocalZone zone(local.zone);
    TraceCapture trace;
    HttpHeader header = {};
    header.code = HTTP_HEADER_DATE;
    EXPECT_EQ(http_hdrFactory(&header, GetParam().text), 0);
    EXPECT_EQ(header.date.time, GetParam().date + local.offset) << local.zone;
    EXPECT_STREQ(header.raw, GetParam().text);
    EXPECT_EQ(trace.said(), TraceLines{});
    http_hdrCleanup(&header);
  }
}

INSTANTIATE_TEST_SUITE_P(Texts, DateHeaderText, testing::ValuesIn(kDateHeaders),
                         [](const auto& row) { return row.param.name; });

TEST(DateHeader, IsReadInEnglishInEveryLocale) {
  const LocalZone zone("UTC0");
  const ForeignTimeNames names;
  ASSERT_TRUE(ForeignTimeNames::inForce());
  HttpHeader header = {};
  header.code = HTTP_HEADER_DATE;
  EXPECT_EQ(http_hdrFactory(&header, "Sun, 15 Nov 2026 06:09:59 +0000"), 0);
  EXPECT_EQ(header.date.time, kSunday);
  http_hdrCleanup(&header);
}

TEST(DateHeader, OtherFormsAreRefused) {
  for (const char* text : {"", "Sun, 15 Nov 2026 06:09:59", "Sun, 15 Nov 2026 06:09:59 GMT", kSundayText,
                           "Sunday, 15-Nov-26 06:09:59 GMT", "Sun Nov 15 06:09:59 2026", "Sun, 15 Nov 2026", "%s%n"}) {
    TraceCapture trace;
    HttpHeader header = {};
    header.code = HTTP_HEADER_DATE;
    EXPECT_EQ(http_hdrFactory(&header, text), -1) << text;
    EXPECT_EQ(trace.said(), TraceLines({std::string("http-he[x]unable to parse date \"") + text + "\""}));
    http_hdrCleanup(&header);
  }
}

}  // namespace
