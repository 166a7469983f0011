#include <fcntl.h>
#include <gtest/gtest.h>
#include <krotrace/krotrace.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// What would have gone to the system log.
std::vector<std::string> logged;
std::string logName;

}  // namespace

extern "C" void openlog(const char* name, int, int) { logName = name ? name : ""; }
extern "C" void closelog() {}
extern "C" void syslog(int priority, const char* format, ...) {
  char line[4096];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof(line), format, arguments);
  va_end(arguments);
  logged.push_back(std::to_string(priority) + " " + line);
}

namespace {

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/krotrace-test-XXXXXX";
    folder_ = mkdtemp(name);
    path_ = folder_ + "/trace";
    logged.clear();
    lines_.clear();
  }
  void TearDown() override {
    for (const char* zone : {"one", "two", "*"}) kroTraceEnable(zone, -1);
    kroTraceToStderr();
    unlink(path_.c_str());
    rmdir(folder_.c_str());
  }

  std::string file() const {
    std::string text;
    char buffer[4096];
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t count;
    while ((count = read(fd, buffer, sizeof(buffer))) > 0) text.append(buffer, static_cast<size_t>(count));
    close(fd);
    return text;
  }
  static void collect(int level, const char* line, void* test) {
    static_cast<TraceTest*>(test)->lines_.push_back(std::to_string(level) + " " + line);
  }
  void toLines() { kroTraceToFunction(collect, this); }

  std::string folder_;
  std::string path_;
  std::vector<std::string> lines_;
};

// Standard error is something else for the length of a scope.
class StderrIs {
 public:
  explicit StderrIs(int fd) : kept_(dup(STDERR_FILENO)) { dup2(fd, STDERR_FILENO); }
  ~StderrIs() {
    dup2(kept_, STDERR_FILENO);
    close(kept_);
  }

 private:
  int kept_;
};

TEST_F(TraceTest, WritesLinesToAFile) {
  ASSERT_TRUE(kroTraceToFile(path_.c_str()));
  EXPECT_EQ(kroTraceType(), KROTRACE_TYPE_PLAIN);
  kroTrace(KROTRACE_ERROR, "first %d", 1);
  kroTrace(KROTRACE_INFO, "second %s", "line");
  EXPECT_EQ(file(), "first 1\nsecond line\n");
  kroTraceToStderr();
  ASSERT_TRUE(kroTraceToFile(path_.c_str()));
  kroTrace(KROTRACE_ERROR, "appended");
  EXPECT_EQ(file(), "first 1\nsecond line\nappended\n");
  struct stat status;
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(TraceTest, AFileThatCannotBeOpenedChangesNothing) {
  toLines();
  errno = 0;
  EXPECT_FALSE(kroTraceToFile("/nonexistent/trace"));
  EXPECT_EQ(errno, ENOENT);
  kroTrace(KROTRACE_ERROR, "still here");
  EXPECT_EQ(lines_, (std::vector<std::string>{"100 still here"}));
}

struct LineCase {
  const char* name;
  std::string text;
  std::string shown;
};

const LineCase kLines[] = {
    {"Plain", "plain", "plain"},
    {"Empty", "", ""},
    {"LineEnd", "two\nlines", "two\\nlines"},
    {"CarriageReturn", "two\r\nlines\r", "two\\r\\nlines\\r"},
    {"OnlyLineEnds", "\n\n\r", "\\n\\n\\r"},
    {"Colours", "\033[31;1mx\033[0m\ttab", "\033[31;1mx\033[0m\ttab"},
    {"Long", std::string(5000, 'a'), std::string(5000, 'a')},
    {"LongWithLineEnds", std::string(3000, '\n'),
     [] {
       std::string text;
       for (int i = 0; i < 3000; ++i) text += "\\n";
       return text;
     }()},
    {"JustOnTheStack", std::string(1023, 'b'), std::string(1023, 'b')},
    {"JustNotOnTheStack", std::string(1024, 'c'), std::string(1024, 'c')},
    {"JustOnTheStackWithLineEnd", std::string(1021, 'd') + "\n", std::string(1021, 'd') + "\\n"},
    {"GrowsOffTheStack", std::string(1022, 'e') + "\n", std::string(1022, 'e') + "\\n"},
};

class TraceLineTest : public TraceTest, public ::testing::WithParamInterface<LineCase> {};

TEST_P(TraceLineTest, StaysOneLine) {
  ASSERT_TRUE(kroTraceToFile(path_.c_str()));
  kroTrace(KROTRACE_ERROR, "%s", GetParam().text.c_str());
  EXPECT_EQ(file(), GetParam().shown + "\n");
  toLines();
  kroTrace(KROTRACE_ERROR, "%s", GetParam().text.c_str());
  EXPECT_EQ(lines_, (std::vector<std::string>{"100 " + GetParam().shown}));
}

INSTANTIATE_TEST_SUITE_P(Platform, TraceLineTest, ::testing::ValuesIn(kLines),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(TraceTest, KeepsErrnoAndShowsIt) {
  toLines();
  kroTraceEnable("one", KROTRACE_INFO);
  errno = ENOENT;
  kroTrace(KROTRACE_ERROR, "%m");
  kroTraceZ("one", KROTRACE_INFO, "%m");
  kroTraceZ("two", KROTRACE_INFO, "%m");
  kroTrace(KROTRACE_ERROR, "%s %m", std::string(2000, 'x').c_str());
  kroTraceEnable("one", KROTRACE_NOTICE);
  EXPECT_FALSE(kroTraceEnable("", 1));
  EXPECT_FALSE(kroTraceEnable(nullptr, 1));
  kroTraceType();
  EXPECT_TRUE(kroTraceToFile(path_.c_str()));
  kroTrace(KROTRACE_ERROR, "%m");
  kroTraceToSyslog("test");
  kroTrace(KROTRACE_ERROR, "%m");
  kroTraceToStderr();
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(lines_, (std::vector<std::string>{"100 No such file or directory", "400 No such file or directory",
                                              "100 " + std::string(2000, 'x') + " No such file or directory"}));
  EXPECT_EQ(file(), "No such file or directory\n");
}

TEST_F(TraceTest, ZonesAreSwitchedOneByOne) {
  toLines();
  const auto traceAll = [&] {
    lines_.clear();
    for (const char* zone : {"one", "two", "three"})
      for (const int level : {KROTRACE_NOTICE, KROTRACE_INFO}) kroTraceZ(zone, level, "%s", zone);
    return lines_;
  };
  using Lines = std::vector<std::string>;
  EXPECT_EQ(kroTraceZonesLevel, -1);
  EXPECT_EQ(traceAll(), Lines());
  EXPECT_TRUE(kroTraceEnable("one", KROTRACE_INFO));
  EXPECT_EQ(kroTraceZonesLevel, KROTRACE_INFO);
  EXPECT_EQ(traceAll(), (Lines{"300 one", "400 one"}));
  EXPECT_TRUE(kroTraceEnable("two", KROTRACE_NOTICE));
  EXPECT_EQ(traceAll(), (Lines{"300 one", "400 one", "300 two"}));
  EXPECT_TRUE(kroTraceEnable("one", -5));
  EXPECT_EQ(kroTraceZonesLevel, KROTRACE_NOTICE);
  EXPECT_EQ(traceAll(), (Lines{"300 two"}));
  EXPECT_TRUE(kroTraceEnable("*", KROTRACE_INFO));
  EXPECT_EQ(traceAll(), (Lines{"300 two", "300 three", "400 three"})) << "those that were named stay as they were";
  EXPECT_TRUE(kroTraceEnable("two", -1));
  EXPECT_TRUE(kroTraceEnable("*", -1));
  EXPECT_EQ(kroTraceZonesLevel, -1);
  EXPECT_EQ(traceAll(), Lines());
  kroTraceZone(nullptr, 0, "no zone");
  EXPECT_EQ(lines_, Lines());
}

TEST_F(TraceTest, WhatIsOffIsNotEvaluated) {
  int evaluated = 0;
  kroTraceZ("one", KROTRACE_INFO, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  toLines();
  kroTraceEnable("one", KROTRACE_INFO);
  kroTraceZ("one", KROTRACE_INFO, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
}

TEST_F(TraceTest, StandardErrorGetsWholeLines) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  {
    const StderrIs redirected(ends[1]);
    kroTraceToStderr();
    EXPECT_EQ(kroTraceType(), KROTRACE_TYPE_PLAIN) << "a pipe is no terminal";
    kroTrace(KROTRACE_ERROR, "to %s", "stderr");
  }
  char buffer[64];
  EXPECT_EQ(std::string(buffer, static_cast<size_t>(read(ends[0], buffer, sizeof(buffer)))), "to stderr\n");
  close(ends[0]);
  close(ends[1]);
}

TEST_F(TraceTest, ALineThatWasCutEndsBeforeTheNextOne) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const std::string full(static_cast<size_t>(fcntl(ends[1], F_GETPIPE_SZ)) + 10000, 'x');
  std::string buffer(full.size() * 2, '\0');
  const auto readAway = [&] {
    const ssize_t count = read(ends[0], buffer.data(), buffer.size());
    return buffer.substr(0, count < 0 ? 0 : static_cast<size_t>(count));
  };
  {
    const StderrIs redirected(ends[1]);
    kroTraceToStderr();
    kroTrace(KROTRACE_ERROR, "%s", full.c_str());
    kroTrace(KROTRACE_ERROR, "lost");
    const std::string cut = readAway();
    EXPECT_LT(cut.size(), full.size());
    EXPECT_EQ(cut.find_first_not_of('x'), std::string::npos);
    kroTrace(KROTRACE_ERROR, "next");
    kroTrace(KROTRACE_ERROR, "and last");
    EXPECT_EQ(readAway(), "\nnext\nand last\n");
  }
  close(ends[0]);
  close(ends[1]);
}

TEST_F(TraceTest, OnlyATerminalIsColoured) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(terminal, 0);
  ASSERT_EQ(unlockpt(terminal), 0);
  const int other = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(other, 0);
  {
    const StderrIs redirected(other);
    kroTraceToStderr();
    EXPECT_EQ(kroTraceType(), KROTRACE_TYPE_TERMINAL);
    EXPECT_TRUE(kroTraceToFile(path_.c_str()));
    EXPECT_EQ(kroTraceType(), KROTRACE_TYPE_PLAIN);
  }
  close(other);
  close(terminal);
}

TEST_F(TraceTest, TheSystemLogGetsItsPriorities) {
  char name[] = "identity";
  kroTraceToSyslog(name);
  memset(name, '-', strlen(name));
  EXPECT_EQ(logName, "identity") << "copied";
  EXPECT_EQ(kroTraceType(), KROTRACE_TYPE_PLAIN);
  for (const int level : {0, 100, 200, 300, 400}) kroTrace(level, "100%% of %d", level);
  EXPECT_EQ(logged, (std::vector<std::string>{"2 100% of 0", "3 100% of 100", "4 100% of 200", "5 100% of 300",
                                              "6 100% of 400"}));
  kroTraceToSyslog(nullptr);
  kroTraceToSyslog("again");
  EXPECT_EQ(logName, "again");
}

TEST_F(TraceTest, WithoutAFunctionLinesAreDropped) {
  kroTraceToFunction(nullptr, nullptr);
  EXPECT_EQ(kroTraceType(), KROTRACE_TYPE_NONE);
  kroTrace(KROTRACE_ERROR, "nowhere");
  toLines();
  EXPECT_EQ(kroTraceType(), KROTRACE_TYPE_PLAIN);
}

TEST_F(TraceTest, ALineAboutALineEndsThere) {
  kroTraceToFunction(
      [](int, const char* line, void* lines) {
        static_cast<std::vector<std::string>*>(lines)->push_back(line);
        kroTrace(KROTRACE_ERROR, "traced while tracing");
      },
      &lines_);
  kroTrace(KROTRACE_ERROR, "line");
  kroTrace(KROTRACE_ERROR, "next");
  EXPECT_EQ(lines_, (std::vector<std::string>{"line", "next"}));
}

}  // namespace
