#include <gtest/gtest.h>
#include <krohttp/protocol.h>
#include <krohttp/uri.h>
#include <krohttp/utils.h>
#include <pty.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/trace_capture.h"

#define TRACE_ZONE "http-multipart"
#include "trace.h"

namespace {

using Lines = std::vector<std::string>;

// The lines as they come, level and text.
void keepLine(int level, const char* line, void* lines) {
  static_cast<Lines*>(lines)->push_back(std::to_string(level) + " " + line);
}

// Lines go to standard error again, and the zones of these tests are off, when this ends.
struct Restored {
  Restored() = default;
  ~Restored() {
    for (const char* zone : {"http", "http-uri", "http-utils", TRACE_ZONE}) kroTraceEnable(zone, -1);
    kroTraceToStderr();
  }
  Restored(const Restored&) = delete;
  Restored& operator=(const Restored&) = delete;
};

// One line of each of the library's levels, from its own modules.
void sayOneOfEach() {
  prot_parseDate("bogus");
  char list[] = "key";
  char *key = nullptr, *value = nullptr, *cursor = nullptr;
  utils_keyvalue(list, &key, &value, &cursor, ';');
  char target[] = "/p?q";
  HttpUri uri;
  http_uriParse(&uri, target);
}

void enableTheirZones() {
  kroTraceEnable("http", KROTRACE_INFO);
  kroTraceEnable("http-utils", KROTRACE_INFO);
  kroTraceEnable("http-uri", KROTRACE_INFO);
}

// The lines with the number at their end, which moves with every edit of the source, as N.
Lines withoutNumbers(Lines lines) {
  for (std::string& line : lines) {
    const size_t colon = line.rfind(':');
    const size_t end = colon == std::string::npos ? colon : line.find_first_not_of("0123456789", colon + 1);
    if (end != std::string::npos && end > colon + 1) line.replace(colon + 1, end - colon - 1, "N");
  }
  return lines;
}

TEST(TraceForm, APlainLineHasZoneMarkMessageAndPlace) {
  const Restored restored;
  Lines lines;
  kroTraceToFunction(keepLine, &lines);
  enableTheirZones();
  ASSERT_EQ(kroTraceType(), KROTRACE_TYPE_PLAIN);
  sayOneOfEach();
  EXPECT_EQ(withoutNumbers(lines),
            Lines({"100 http    - [x]unable to parse date bogus - (prot_parseDate@protocol.cpp:N)",
                   "200 http-ut - [!]unable to parse cookie key - (utils_keyvalue@utils.cpp:N)",
                   "400 http-ut - [i]found key value pair: key=(null) - (utils_keyvalue@utils.cpp:N)",
                   "300 http-ur - [n]url path: /p?q - (http_uriParse@uri.cpp:N)"}));
}

TEST(TraceForm, ALineInAFileIsPlain) {
  const Restored restored;
  std::string folder = std::filesystem::temp_directory_path() / "krohttp-trace-XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  const std::string path = folder + "/trace";
  ASSERT_TRUE(kroTraceToFile(path.c_str()));
  EXPECT_EQ(kroTraceType(), KROTRACE_TYPE_PLAIN);
  enableTheirZones();
  sayOneOfEach();
  kroTraceToStderr();  // closes the file

  std::ifstream file(path);
  Lines lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  std::filesystem::remove_all(folder);
  EXPECT_EQ(withoutNumbers(lines),
            Lines({"http    - [x]unable to parse date bogus - (prot_parseDate@protocol.cpp:N)",
                   "http-ut - [!]unable to parse cookie key - (utils_keyvalue@utils.cpp:N)",
                   "http-ut - [i]found key value pair: key=(null) - (utils_keyvalue@utils.cpp:N)",
                   "http-ur - [n]url path: /p?q - (http_uriParse@uri.cpp:N)"}));
}

// Runs say() in a child process whose standard error is output, and gives the kind of output that it saw.
template <typename Say>
int traceTypeOfChild(int output, Say say) {
  const pid_t child = fork();
  if (child == 0) {
    dup2(output, STDERR_FILENO);
    kroTraceToStderr();
    say();
    _exit(kroTraceType());
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What has been written to the other end of reader, without its line ends.
Lines linesFrom(int reader) {
  std::string text;
  char block[4096];
  for (ssize_t got = 0; (got = read(reader, block, sizeof block)) > 0;) text.append(block, static_cast<size_t>(got));
  Lines lines(1);
  for (const char letter : text) {
    if (letter == '\n') {
      lines.emplace_back();
    } else if (letter != '\r') {
      lines.back() += letter;
    }
  }
  EXPECT_EQ(lines.back(), "") << "the last line has no end";
  lines.pop_back();
  return lines;
}

TEST(TraceForm, ALineOnATerminalIsColoured) {
  int terminal = -1;
  int its = -1;
  ASSERT_EQ(openpty(&terminal, &its, nullptr, nullptr, nullptr), 0);
  const int type = traceTypeOfChild(its, [] {
    enableTheirZones();
    kroTraceEnable(TRACE_ZONE, KROTRACE_INFO);
    sayOneOfEach();
    TRACE_BROKEN("not mine");
  });
  close(its);
  const Lines lines = linesFrom(terminal);
  close(terminal);

  EXPECT_EQ(type, KROTRACE_TYPE_TERMINAL);
  // Only the mark of an error has a colour of its own.
  EXPECT_EQ(withoutNumbers(lines),
            Lines({"\033[34mhttp   \033[0m - \033[31;1m[x]\033[0m\033[1munable to parse date bogus"
                   "\033[0m - \033[36m(prot_parseDate@protocol.cpp:N)\033[0m",
                   "\033[34mhttp-ut\033[0m - [!]\033[1munable to parse cookie key"
                   "\033[0m - \033[36m(utils_keyvalue@utils.cpp:N)\033[0m",
                   "\033[34mhttp-ut\033[0m - [i]\033[1mfound key value pair: key=(null)"
                   "\033[0m - \033[36m(utils_keyvalue@utils.cpp:N)\033[0m",
                   "\033[34mhttp-ur\033[0m - [n]\033[1murl path: /p?q"
                   "\033[0m - \033[36m(http_uriParse@uri.cpp:N)\033[0m",
                   "\033[34mhttp-mu\033[0m - \033[31;1m[x]\033[0m\033[1mnot mine"
                   "\033[0m - \033[36m(operator()@trace_test.cpp:N)\033[0m"}));
}

TEST(TraceForm, ALineInAPipeIsPlain) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const int type = traceTypeOfChild(ends[1], [] { prot_parseDate("bogus"); });
  close(ends[1]);
  const Lines lines = linesFrom(ends[0]);
  close(ends[0]);
  EXPECT_EQ(type, KROTRACE_TYPE_PLAIN);
  EXPECT_EQ(withoutNumbers(lines),
            Lines({"http    - [x]unable to parse date bogus - (prot_parseDate@protocol.cpp:N)"}));
}

// ---- the macros by themselves --------------------------------------------------------------------------------------

TEST(TraceMacros, GiveLevelMarkAndPlace) {
  const Restored restored;
  Lines lines;
  kroTraceToFunction(keepLine, &lines);
  kroTraceEnable(TRACE_ZONE, KROTRACE_INFO);
  const int line = __LINE__ + 1;
  TRACE_BROKEN("broken");
  TRACE_ERROR("error %d of %s", 1, "two");
  TRACE_WARNING("warning %s", "%s %n %");
  TRACE_NOTICE("notice");
  TRACE_INFO("info %c", 'i');
  const auto place = [&](int offset) { return " - (TestBody@trace_test.cpp:" + std::to_string(line + offset) + ")"; };
  EXPECT_EQ(lines, Lines({
                       "0 http-mu - [x]broken" + place(0),
                       "100 http-mu - [x]error 1 of two" + place(1),
                       "200 http-mu - [!]warning %s %n %" + place(2),
                       "300 http-mu - [n]notice" + place(3),
                       "400 http-mu - [i]info i" + place(4),
                   }));
}

struct ZoneCase {
  const char* name;
  const char* zone;
  int level;
  const char* marks;  // of the lines that go out
};

constexpr ZoneCase kZones[] = {
    {"Info", TRACE_ZONE, KROTRACE_INFO, "xx!ni"},
    {"AboveInfo", TRACE_ZONE, 1000, "xx!ni"},
    {"Notice", TRACE_ZONE, KROTRACE_NOTICE, "xx!n"},
    {"BetweenNoticeAndInfo", TRACE_ZONE, 399, "xx!n"},
    {"BelowNotice", TRACE_ZONE, 299, "xx!"},
    {"Error", TRACE_ZONE, KROTRACE_ERROR, "xx!"},
    {"Off", TRACE_ZONE, -1, "xx!"},
    {"AnotherZone", "http-uri", KROTRACE_INFO, "xx!"},
    {"AZoneThatIsCutToTheSame", "http-mu", KROTRACE_INFO, "xx!"},
    {"ALongerName", TRACE_ZONE "s", KROTRACE_INFO, "xx!"},
    {"AnotherCase", "HTTP-MULTIPART", KROTRACE_INFO, "xx!"},
};

class TraceZone : public testing::TestWithParam<ZoneCase> {};

TEST_P(TraceZone, ShowsItsLinesAndNoOthers) {
  const Restored restored;
  Lines lines;
  kroTraceToFunction(keepLine, &lines);
  ASSERT_TRUE(kroTraceEnable(GetParam().zone, GetParam().level));
  TRACE_BROKEN("m");
  TRACE_ERROR("m");
  TRACE_WARNING("m");
  TRACE_NOTICE("m");
  TRACE_INFO("m");
  kroTraceEnable(GetParam().zone, -1);
  std::string marks;
  for (const std::string& line : lines) marks += line.at(line.find('[') + 1);
  EXPECT_EQ(marks, GetParam().marks);
}

INSTANTIATE_TEST_SUITE_P(Zones, TraceZone, testing::ValuesIn(kZones), [](const auto& row) { return row.param.name; });

TEST(TraceZones, AreSwitchedOneByOne) {
  const TraceCapture capture{"http-uri"};
  sayOneOfEach();
  EXPECT_EQ(capture.said(), TraceLines({"http[x]unable to parse date bogus", "http-ut[!]unable to parse cookie key",
                                        "http-ur[n]url path: /p?q"}));
}

TEST(TraceZones, EvaluateNothingWhileNoneIsOn) {
  const Restored restored;
  ASSERT_LT(kroTraceZonesLevel, KROTRACE_NOTICE);
  int evaluated = 0;
  TRACE_NOTICE("%d", ++evaluated);
  TRACE_INFO("%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  Lines lines;
  kroTraceToFunction(keepLine, &lines);
  TRACE_ERROR("%d", ++evaluated);
  TRACE_WARNING("%d", ++evaluated);
  EXPECT_EQ(evaluated, 2);
}

// ---- errno ---------------------------------------------------------------------------------------------------------

// A line may be the first thing that a failing call does: its caller still looks at errno.
void expectErrnoKept() {
  errno = E2BIG;
  TRACE_BROKEN("m");
  EXPECT_EQ(errno, E2BIG);
  TRACE_ERROR("m %m");
  EXPECT_EQ(errno, E2BIG);
  TRACE_WARNING("m");
  EXPECT_EQ(errno, E2BIG);
  TRACE_NOTICE("m");
  EXPECT_EQ(errno, E2BIG);
  TRACE_INFO("m %s", "text");
  EXPECT_EQ(errno, E2BIG);
}

TEST(TraceErrno, IsKeptWhenLinesGoToAFunction) {
  const Restored restored;
  kroTraceToFunction([](int, const char*, void*) { errno = EPERM; }, nullptr);
  kroTraceEnable(TRACE_ZONE, KROTRACE_INFO);
  expectErrnoKept();
}

TEST(TraceErrno, IsKeptWhenLinesGoNowhere) {
  const Restored restored;
  kroTraceToFunction(nullptr, nullptr);
  EXPECT_EQ(kroTraceType(), KROTRACE_TYPE_NONE);
  kroTraceEnable(TRACE_ZONE, KROTRACE_INFO);
  expectErrnoKept();
}

TEST(TraceErrno, IsKeptWhenLinesCannotBeWritten) {
  const Restored restored;
  ASSERT_TRUE(kroTraceToFile("/dev/full"));
  kroTraceEnable(TRACE_ZONE, KROTRACE_INFO);
  expectErrnoKept();
}

TEST(TraceErrno, IsKeptByLinesThatAreNotShown) {
  const TraceCapture capture;
  errno = E2BIG;
  TRACE_NOTICE("m");
  TRACE_INFO("m");
  EXPECT_EQ(errno, E2BIG);
  EXPECT_EQ(capture.said(), TraceLines{});
}

TEST(TraceErrno, IsNamedByTheLine) {
  const TraceCapture capture;
  errno = ENOENT;
  TRACE_ERROR("unable: %m");
  errno = EACCES;
  TRACE_WARNING("%s: %m", "unable");
  EXPECT_EQ(capture.said(), TraceLines({std::string("http-mu[x]unable: ") + strerror(ENOENT),
                                        std::string("http-mu[!]unable: ") + strerror(EACCES)}));
}

// ---- the capture itself --------------------------------------------------------------------------------------------

struct FormCase {
  const char* name;
  int level;
  const char* line;
  const char* brief;
};

constexpr FormCase kForms[] = {
    {"Error", 100, "http    - [x]m - (f@a.cpp:1)", "http[x]m"},
    {"CutZone", 300, "http-ur - [n]m m - (f@a.cpp:12)", "http-ur[n]m m"},
    {"EmptyMessage", 400, "http-ur - [i] - (f@a.cpp:12)", "http-ur[i]"},
    {"MessageLikeAPlace", 200, "http    - [!]m - (g@b.cpp:2) - (f@a.cpp:1)", "http[!]m - (g@b.cpp:2)"},
    {"MessageWithLineEnds", 100, "http    - [x]m\nm - (f@a.cpp:1)", "http[x]m\nm"},
    {"LevelZero", 0, "http    - [x]m - (f@a.cpp:1)", "http[x0]m"},
    {"WrongMark", 100, "http    - [!]m - (f@a.cpp:1)", nullptr},
    {"UnknownLevel", 150, "http    - [x]m - (f@a.cpp:1)", nullptr},
    {"UnpaddedZone", 100, "http - [x]m - (f@a.cpp:1)", nullptr},
    {"UncutZone", 300, "http-uri - [n]m - (f@a.cpp:1)", nullptr},
    {"BlankBehindTheMark", 100, "http    - [xx]m - (f@a.cpp:1)", nullptr},
    {"NoPlace", 100, "http    - [x]m", nullptr},
    {"NoFunction", 100, "http    - [x]m - (@a.cpp:1)", nullptr},
    {"NoFile", 100, "http    - [x]m - (f@:1)", nullptr},
    {"NoLine", 100, "http    - [x]m - (f@a.cpp:)", nullptr},
    {"LineZero", 100, "http    - [x]m - (f@a.cpp:0)", nullptr},
    {"LineIsNoNumber", 100, "http    - [x]m - (f@a.cpp:1x)", nullptr},
    {"WholePath", 100, "http    - [x]m - (f@/src/a.cpp:1)", nullptr},
    {"TextBehind", 100, "http    - [x]m - (f@a.cpp:1) ", nullptr},
    {"Coloured", 100, "\033[34mhttp   \033[0m - \033[31;1m[x]\033[0m\033[1mm\033[0m - \033[36m(f@a.cpp:1)\033[0m",
     nullptr},
    {"Empty", 100, "", nullptr},
};

class TraceLineForm : public testing::TestWithParam<FormCase> {};

TEST_P(TraceLineForm, IsToldApart) {
  const TraceLine line(GetParam().level, GetParam().line);
  EXPECT_EQ(line.wellFormed, GetParam().brief != nullptr);
  if (GetParam().brief != nullptr) {
    EXPECT_EQ(line.brief(), GetParam().brief);
  } else {
    EXPECT_EQ(line.brief(), "malformed: level " + std::to_string(GetParam().level) + ": " + GetParam().line);
  }
}

INSTANTIATE_TEST_SUITE_P(Lines, TraceLineForm, testing::ValuesIn(kForms),
                         [](const auto& row) { return row.param.name; });

TEST(TraceCaptureScope, TakesALineApart) {
  const TraceLine line(100, "http-ur - [x]invalid url * - (http_uriParse@uri.cpp:42)");
  EXPECT_EQ(line.zone, "http-ur");
  EXPECT_EQ(line.mark, 'x');
  EXPECT_EQ(line.message, "invalid url *");
  EXPECT_EQ(line.function, "http_uriParse");
  EXPECT_EQ(line.file, "uri.cpp");
  EXPECT_EQ(line.line, 42);
}

TEST(TraceCaptureScope, NestsAndLeavesNothingOn) {
  const TraceCapture outer;
  {
    const TraceCapture inner{TRACE_ZONE};
    TRACE_INFO("inner");
    EXPECT_EQ(inner.said(), TraceLines({"http-mu[i]inner"}));
  }
  TRACE_INFO("hidden");
  TRACE_ERROR("outer");
  EXPECT_EQ(outer.said(), TraceLines({"http-mu[x]outer"}));
  EXPECT_EQ(outer.said(KROTRACE_INFO), TraceLines{});
  EXPECT_TRUE(outer.has("http-mu[x]outer"));
  EXPECT_EQ(outer.count("http-mu[x]oute"), 0U);
  EXPECT_EQ(outer.countStarting("http-mu[x]oute"), 1U);
}

}  // namespace
