// krohttpd's uploads from the outside: what is stored under which name, what is refused and when, what is left behind.
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_process.h"

namespace {

using Arguments = std::vector<std::string>;
// Names and contents.
using Files = std::map<std::string, std::string>;

constexpr const char* kBoundary = "----a-Boundary_4711";
constexpr const char* kFormType = "Content-Type: multipart/form-data; boundary=----a-Boundary_4711\r\n";

// SHA-256, by the program that everybody has.
std::string sha256(const std::string& path) {
  setenv("FILE_TO_HASH", path.c_str(), 1);
  const std::unique_ptr<FILE, decltype(&pclose)> pipe(popen("sha256sum <\"$FILE_TO_HASH\"", "r"), &pclose);
  std::array<char, 65> digest{};
  EXPECT_EQ(fread(digest.data(), 1, 64, pipe.get()), 64u);
  return digest.data();
}

// --- forms -----------------------------------------------------------------------------------------------------------

std::string partWithHead(std::string_view head, std::string_view content) {
  return "--" + std::string(kBoundary) + "\r\n" + std::string(head) + "\r\n" + std::string(content) + "\r\n";
}

std::string part(std::string_view disposition, std::string_view content) {
  return partWithHead("Content-Disposition: " + std::string(disposition) + "\r\n", content);
}

std::string file(std::string_view name, std::string_view content) {
  return part("form-data; name=\"f\"; filename=\"" + std::string(name) + "\"", content);
}

std::string field(std::string_view name, std::string_view content) {
  return part("form-data; name=\"" + std::string(name) + "\"", content);
}

std::string form(std::string_view parts) { return std::string(parts) + "--" + kBoundary + "--\r\n"; }

std::string requestHead(std::string_view method, std::string_view headers, std::string_view path = "/upload") {
  return std::string(method) + " " + std::string(path) + " HTTP/1.1\r\nHost: x\r\n" + std::string(headers) + "\r\n";
}

std::string lengthOf(size_t length) { return "Content-Length: " + std::to_string(length) + "\r\n"; }

std::string post(std::string_view body, std::string_view headers = kFormType, std::string_view path = "/upload") {
  return requestHead("POST", std::string(headers) + lengthOf(body.size()), path) + std::string(body);
}

std::string postChunked(std::string_view body, size_t chunk) {
  return requestHead("POST", std::string(kFormType) + "Transfer-Encoding: chunked\r\n") + chunked(body, chunk);
}

// --- a daemon that takes uploads -------------------------------------------------------------------------------------

class UploadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    alarm(100);
    folder_.folder("in");
  }
  void TearDown() override { alarm(0); }

  Arguments with(const Arguments& more) const {
    Arguments arguments = {"--listen", "127.0.0.1:0", "--upload", "/upload=" + folder_.at("in")};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  void start(const Arguments& more = {}) { daemon_ = std::make_unique<Daemon>(with(more)); }

  WireReply ask(std::string_view wire, bool bodyless = false) const {
    WireClient client(daemon_->address());
    client.send(wire);
    return replyOf(client, bodyless);
  }
  static WireReply replyOf(const WireClient& client, bool bodyless = false) {
    std::optional<WireReply> reply;
    EXPECT_TRUE(waitUntil([&] {
      size_t at = 0;
      reply = takeReply(client.received(), &at, bodyless, client.ended());
      return reply || client.ended();
    })) << client.received();
    return reply ? *reply : WireReply{"HTTP/1.1 000 none", {}, "", ""};
  }

  static bool accepts(const WireAddress& address) {
    const Descriptor probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(address.port));
    inet_pton(AF_INET, address.host.c_str(), &to.sin_addr);
    return connect(probe.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0;
  }

  // All that is in the folder, hidden files too.
  Files stored(const std::string& name = "in") const {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.at(name)))
      files[entry.path().filename()] = contentOf(entry.path());
    return files;
  }
  static std::string contentOf(const std::string& path) {
    std::string text;
    std::array<char, 1 << 16> block;
    const Descriptor in(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    for (ssize_t count = 0; (count = read(in.get(), block.data(), block.size())) > 0;)
      text.append(block.data(), static_cast<size_t>(count));
    return text;
  }
  // How many files the daemon has open below the folder, nameless ones too.
  size_t openFiles() const {
    size_t count = 0;
    const std::string descriptors = "/proc/" + std::to_string(daemon_->process().pid()) + "/fd";
    std::error_code gone;  // closed meanwhile
    for (const auto& entry : std::filesystem::directory_iterator(descriptors))
      if (std::filesystem::read_symlink(entry.path(), gone).string().starts_with(folder_.path())) ++count;
    return count;
  }
  bool hasForgotten() const {
    return waitUntil([&] { return openFiles() == 0; });
  }
  // What is told of a file in the answer.
  std::string told(const std::string& name, const std::string& asJson = "") const {
    const std::string path = folder_.at("in/" + name);
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return "{\"name\":\"" + (asJson.empty() ? name : asJson) + "\",\"bytes\":" + std::to_string(status.st_size) +
           ",\"sha256\":\"" + sha256(path) + "\"}";
  }

  TemporaryFolder folder_;
  std::unique_ptr<Daemon> daemon_;
};

struct Ended {
  std::string outcome;
  std::string output;
  std::string errors;
};
Ended run(const Arguments& command) {
  ChildProcess process(command);
  EXPECT_TRUE(waitUntil([&] { return process.ended(); }));
  return {process.outcome(), process.output(), process.errors()};
}

// --- the command line ------------------------------------------------------------------------------------------------

struct OptionCase {
  const char* name;
  Arguments arguments;
  const char* complaint;
};
void PrintTo(const OptionCase& row, std::ostream* out) { *out << row.name; }
const OptionCase kWrongOptions[] = {
    {"NoDirectory", {"--upload", "/up"}, "--upload: '/up' is not PREFIX=DIR"},
    {"EmptyDirectory", {"--upload", "/up="}, "--upload: '/up=' is not PREFIX=DIR"},
    {"NoPrefix", {"--upload", "=/tmp"}, "--upload: '=/tmp' is not PREFIX=DIR"},
    {"Relative", {"--upload", "up=/tmp"}, "--upload: 'up=/tmp' is not PREFIX=DIR"},
    {"Upwards", {"--upload", "/a/../b=/tmp"}, "--upload: '/a/../b=/tmp' is not PREFIX=DIR"},
    {"Twice", {"--upload", "/a=/tmp", "--upload", "//a/./=/"}, "--upload: '/a' is there twice"},
    {"EmptyLimit", {"--upload", "/a=/tmp", "--max-upload="}, "--max-upload"},
    {"OnlyUnit", {"--upload", "/a=/tmp", "--max-upload", "M"}, "--max-upload: 'M' is no number of bytes"},
    {"UnknownUnit", {"--upload", "/a=/tmp", "--max-upload", "1T"}, "--max-upload: '1T' is no number of bytes"},
    {"SmallUnit", {"--upload", "/a=/tmp", "--max-upload", "1k"}, "--max-upload: '1k' is no number of bytes"},
    {"Negative", {"--upload", "/a=/tmp", "--max-upload", "-1"}, "--max-upload"},
    {"Fraction", {"--upload", "/a=/tmp", "--max-upload", "1.5M"}, "--max-upload: '1.5M' is no number of bytes"},
    {"Huge", {"--upload", "/a=/tmp", "--max-upload", "1234567890123456789"}, "is no number of bytes"},
    {"HugeWithUnit", {"--upload", "/a=/tmp", "--max-upload", "1234567890G"}, "is no number of bytes"},
};
class UploadOptionTest : public ::testing::TestWithParam<OptionCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, UploadOptionTest, ::testing::ValuesIn(kWrongOptions),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(UploadOptionTest, IsToldInOneLine) {
  const Ended result = run(daemonCommand(GetParam().arguments));
  EXPECT_EQ(result.outcome, "exit 2");
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(linesOf(result.errors).size(), 1u) << result.errors;
  EXPECT_EQ(result.errors.rfind("krohttpd: ", 0), 0u) << result.errors;
  EXPECT_NE(result.errors.find(GetParam().complaint), std::string::npos) << result.errors;
}

TEST_F(UploadTest, DirectoryThatIsMissing) {
  const std::string missing = folder_.at("missing");
  const Ended result = run(daemonCommand({"--listen", "127.0.0.1:0", "--upload", "/up=" + missing}));
  EXPECT_EQ(result.outcome, "exit 1");
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "krohttpd: cannot store files in " + missing + ": No such file or directory\n");
}

TEST_F(UploadTest, DirectoryThatIsAFile) {
  const std::string path = folder_.file("plain", "");
  const Ended result = run(daemonCommand({"--listen", "127.0.0.1:0", "--upload", "/up=" + path}));
  EXPECT_EQ(result.outcome, "exit 1");
  EXPECT_EQ(result.errors, "krohttpd: cannot store files in " + path + ": Not a directory\n");
}

TEST(UploadHelpTest, NamesTheOptions) {
  const Ended result = run(daemonCommand({"--help"}));
  EXPECT_NE(result.output.find("--upload PREFIX=DIR"), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("--max-upload BYTES"), std::string::npos) << result.output;
}

// --- names -----------------------------------------------------------------------------------------------------------

struct NameCase {
  const char* name;
  std::string disposition;  // behind "form-data; name=f; "
  std::string stored;
};
void PrintTo(const NameCase& row, std::ostream* out) { *out << row.name; }

std::string times(size_t count, const std::string& text) {
  std::string out;
  for (size_t i = 0; i < count; ++i) out += text;
  return out;
}

NameCase quoted(const char* name, const std::string& text, const std::string& stored) {
  return {name, "filename=\"" + text + "\"", stored};
}

const NameCase kNames[] = {
    quoted("Plain", "a.txt", "a.txt"),
    {"Token", "filename=a.txt", "a.txt"},
    {"OtherCase", "FileName=\"a.txt\"", "a.txt"},
    {"BlanksAround", "filename = \"a.txt\" ", "a.txt"},
    {"FirstOfTwo", "filename=\"a\"; filename=\"b\"", "a"},
    quoted("Blanks", "a b  c.txt", "a b  c.txt"),
    quoted("BlanksAtTheEnds", "  a.txt  ", "a.txt"),
    quoted("Semicolon", "a;b=c.txt", "a;b=c.txt"),
    quoted("Quote", R"(a\"b.txt)", "a\"b.txt"),
    quoted("QuoteEscaped", "a%22b.txt", "a\"b.txt"),
    {"QuoteUnclosed", "filename=\"a.txt", "a.txt"},
    quoted("NoExtension", "README", "README"),
    quoted("TwoExtensions", "a.tar.gz", "a.tar.gz"),
    quoted("DotAtTheEnd", "a.", "a."),

    quoted("Upwards", "../../etc/passwd", "passwd"),
    quoted("UpwardsEscaped", "..%2F..%2Fetc%2Fpasswd", "passwd"),
    quoted("UpwardsByBackslash", R"(..\..\etc\passwd)", "passwd"),
    quoted("UpwardsByEscapedBackslash", "..%5c..%5cpasswd", "passwd"),
    quoted("Absolute", "/etc/passwd", "passwd"),
    quoted("Directory", "a/b", "b"),
    quoted("DriveAndBackslashes", R"(C:\x\y.bin)", "y.bin"),
    quoted("DriveAndEscapedBackslashes", R"(C:\\x\\y.bin)", "y.bin"),
    quoted("Mixed", R"(a\b/c\d)", "d"),
    quoted("EscapedTwice", "a%252Fb", "a%2Fb"),
    quoted("SlashAtTheEnd", "a/", "upload"),
    quoted("BackslashAtTheEnd", R"(a\\)", "upload"),
    quoted("Dot", ".", "upload"),
    quoted("DotDot", "..", "upload"),
    quoted("ManyDots", ".....", "upload"),
    quoted("DotsAndBlanks", ". . .", "upload"),
    quoted("Empty", "", "upload"),
    quoted("Blank", "   ", "upload"),
    quoted("Hidden", ".profile", "profile"),
    quoted("HiddenTwice", "...a", "a"),
    quoted("HiddenBehindADirectory", "x/.a", "a"),
    quoted("DotsInside", "a..b", "a..b"),

    quoted("LineEnd", "a%0D%0Ab.txt", "a__b.txt"),
    quoted("Nul", "a%00b.txt", "a_b.txt"),
    quoted("Escape", "a%1B%5B31mb.txt", "a_[31mb.txt"),
    quoted("Delete", "a%7Fb", "a_b"),
    quoted("Tab", "a\tb", "a_b"),
    quoted("SecondControls", "a%C2%85b", "a_b"),
    quoted("RightToLeft", "a\xe2\x80\xaetxt.exe", "a_txt.exe"),
    quoted("LineSeparator",
           "a\xe2\x80\xa8"
           "b",
           "a_b"),
    quoted("OnlyControls", "%01%02", "__"),

    quoted("Utf8",
           "gr\xc3\xbc\xc3\x9f"
           "e \xe2\x82\xac \xf0\x9f\x98\x80.txt",
           "gr\xc3\xbc\xc3\x9f"
           "e \xe2\x82\xac \xf0\x9f\x98\x80.txt"),
    quoted("Utf8Escaped", "gr%C3%BC%c3%9fe.txt",
           "gr\xc3\xbc\xc3\x9f"
           "e.txt"),
    quoted("Latin1",
           "gr\xfc\xdf"
           "e.txt",
           "gr__e.txt"),
    quoted("Utf8Cut", "a\xe2\x82", "a__"),
    quoted("Utf8CutInside", "\xe2\x82z", "__z"),
    quoted("Overlong",
           "a\xc0\xaf"
           "b",
           "a__b"),
    quoted("OverlongOfThree",
           "a\xe0\x80\xaf"
           "b",
           "a___b"),
    quoted("Surrogate", "a\xed\xa0\x80z", "a___z"),
    quoted("BeyondUnicode", "a\xf4\x90\x80\x80z", "a____z"),
    quoted("LoneContinuation", "a\x80z", "a_z"),
    quoted("PercentAlone", "100%", "100%"),
    quoted("PercentWithoutDigits", "100%zz%4", "100%zz%4"),

    {"Extended", "filename*=UTF-8''na%C3%AFve%20plan.txt", "na\xc3\xafve plan.txt"},
    {"ExtendedWins", "filename=\"b.txt\"; filename*=UTF-8''a.txt", "a.txt"},
    {"ExtendedWinsInFront", "filename*=utf-8'en'a.txt; filename=\"b.txt\"", "a.txt"},
    {"ExtendedLatin1", "filename*=iso-8859-1''gr%FCn.txt", "gr\xc3\xbcn.txt"},
    {"ExtendedOfAnotherCharset", "filename*=KOI8-R''%C1; filename=\"b.txt\"", "b.txt"},
    {"ExtendedOfAnotherCharsetAlone", "filename*=KOI8-R''%C1", "upload"},
    {"ExtendedWithoutCharset", "filename*=a.txt; filename=b.txt", "b.txt"},
    {"ExtendedUpwards", "filename*=UTF-8''..%2f..%5C.a", "a"},
    {"ExtendedInvalid", "filename*=UTF-8''a%FFb", "a_b"},

    quoted("LongestName", times(196, "a") + ".txt", times(196, "a") + ".txt"),
    quoted("TooLongByOne", times(197, "a") + ".txt", times(196, "a") + ".txt"),
    quoted("TooLong", times(300, "a") + ".txt", times(196, "a") + ".txt"),
    quoted("TooLongWithoutExtension", times(300, "a"), times(200, "a")),
    quoted("TooLongExtension", "a." + times(300, "b"), "a." + times(198, "b")),
    quoted("LongestExtension", times(300, "a") + "." + times(31, "b"), times(168, "a") + "." + times(31, "b")),
    quoted("TooLongInUtf8", times(100, "\xe2\x82\xac") + ".txt", times(65, "\xe2\x82\xac") + ".txt"),
};
class UploadNameTest : public UploadTest, public ::testing::WithParamInterface<NameCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, UploadNameTest, ::testing::ValuesIn(kNames),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(UploadNameTest, IsMadeSafe) {
  start();
  const WireReply reply = ask(post(form(part("form-data; name=f; " + GetParam().disposition, "content"))));
  EXPECT_EQ(reply.status(), 200u) << reply.wire;
  EXPECT_EQ(stored(), (Files{{GetParam().stored, "content"}}));
  std::string asJson = GetParam().stored;
  for (size_t at = 0; (at = asJson.find('"', at)) != std::string::npos; at += 2) asJson.insert(at, "\\");
  EXPECT_EQ(reply.body, "{\"files\":[" + told(GetParam().stored, asJson) + "]}\n");
}

TEST_F(UploadTest, NumberIsAddedToATakenName) {
  start();
  folder_.file("in/a.tar.gz", "old");
  for (const char* const content : {"1", "2"}) {
    const WireReply reply = ask(post(form(file("a.tar.gz", content) + file("b", content) + file("b", content))));
    EXPECT_EQ(reply.status(), 200u) << reply.wire;
  }
  EXPECT_EQ(stored(), (Files{{"a.tar.gz", "old"},
                             {"a.tar-1.gz", "1"},
                             {"a.tar-2.gz", "2"},
                             {"b", "1"},
                             {"b-1", "1"},
                             {"b-2", "2"},
                             {"b-3", "2"}}));
}

// Neither a link nor a folder is followed or replaced.
TEST_F(UploadTest, NumberIsAddedToNamesOfOtherThings) {
  folder_.file("outside", "old");
  ASSERT_EQ(symlink("../outside", folder_.at("in/link").c_str()), 0);
  ASSERT_EQ(symlink("../nowhere", folder_.at("in/dangling").c_str()), 0);
  folder_.folder("in/folder");
  start();
  const WireReply reply = ask(post(form(file("link", "1") + file("dangling", "2") + file("folder", "3"))));
  EXPECT_EQ(reply.body, "{\"files\":[" + told("link-1") + "," + told("dangling-1") + "," + told("folder-1") + "]}\n");
  EXPECT_EQ(contentOf(folder_.at("outside")), "old");
  EXPECT_NE(access(folder_.at("nowhere").c_str(), F_OK), 0);
}

TEST_F(UploadTest, NumberLengthensNoName) {
  start();
  const std::string longest = times(196, "a") + ".txt";
  for (int i = 0; i < 11; ++i) EXPECT_EQ(ask(post(form(file(longest, "x")))).status(), 200u);
  const Files files = stored();
  EXPECT_EQ(files.size(), 11u);
  EXPECT_TRUE(files.contains(longest));
  EXPECT_TRUE(files.contains(times(194, "a") + "-1.txt"));
  EXPECT_TRUE(files.contains(times(193, "a") + "-10.txt"));
}

// --- what is stored --------------------------------------------------------------------------------------------------

struct StoredCase {
  const char* name;
  std::string wire;
  Files files;
};
void PrintTo(const StoredCase& row, std::ostream* out) { *out << row.name; }

std::string quotedBoundary() {
  return "Content-Type: multipart/form-data; charset=utf-8; boundary=\"" + std::string(kBoundary) + "\"\r\n";
}
std::string withoutLastLineEnd(std::string text) { return text.substr(0, text.size() - 2); }

const std::string kMixed = form(field("before", "x") + file("a", "") + file("b", "\r\n--\r\n") + field("between", "y") +
                                file("c", "3") + field("after", ""));
const Files kMixedFiles = {{"a", ""}, {"b", "\r\n--\r\n"}, {"c", "3"}};
const StoredCase kStored[] = {
    {"One", post(form(file("a", "content"))), {{"a", "content"}}},
    {"Empty", post(form(file("a", ""))), {{"a", ""}}},
    {"FieldsAndFiles", post(kMixed), kMixedFiles},
    {"Chunked", postChunked(kMixed, SIZE_MAX), kMixedFiles},
    {"InChunksOfOne", postChunked(kMixed, 1), kMixedFiles},
    {"NoFile", post(form(field("a", "b"))), {}},
    {"NoPart", post(form("")), {}},
    {"NothingChosen", post(form(file("", ""))), {}},
    {"NameWithoutContent", post(form(file("", "x"))), {{"upload", "x"}}},
    {"NoDisposition", post(form(partWithHead("Content-Type: text/plain\r\n", "x"))), {}},
    {"NotOfAForm", post(form(part("attachment; filename=a", "x"))), {{"a", "x"}}},
    {"AttributeThatOnlyLooksLikeIt", post(form(part("form-data; name=\"filename=b\"", "x"))), {}},
    {"BoundaryInQuotes", post(form(file("a", "x")), quotedBoundary()), {{"a", "x"}}},
    {"BoundaryInOtherCase",
     post(form(file("a", "x")), "Content-Type: multipart/form-data; Boundary=" + std::string(kBoundary) + "\r\n"),
     {{"a", "x"}}},
    {"NoLineEndBehindTheLastDelimiter", post(withoutLastLineEnd(form(file("a", "x")))), {{"a", "x"}}},
    {"NoLineEndBehindTheLastDelimiterInChunks", postChunked(withoutLastLineEnd(form(file("a", "x"))), 3), {{"a", "x"}}},
    {"TypeInOtherCase",
     post(form(file("a", "x")), "Content-Type: multipart/Form-Data; boundary=" + std::string(kBoundary) + "\r\n"),
     {{"a", "x"}}},
    {"TextBehindTheForm", post(form(file("a", "x")) + "and more"), {{"a", "x"}}},
    {"AlmostADelimiter",
     post(form(file("a", "\r\n------a-Boundary_471\r\n------a-Boundary_471x"))),
     {{"a", "\r\n------a-Boundary_471\r\n------a-Boundary_471x"}}},
    {"SlashBehindThePath", post(form(file("a", "x")), kFormType, "/upload/"), {{"a", "x"}}},
    {"QueryBehindThePath", post(form(file("a", "x")), kFormType, "/upload?x=y"), {{"a", "x"}}},
    {"PathWrittenAnotherWay", post(form(file("a", "x")), kFormType, "//./up%6coad"), {{"a", "x"}}},
};
class StoredUploadTest : public UploadTest, public ::testing::WithParamInterface<StoredCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, StoredUploadTest, ::testing::ValuesIn(kStored),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(StoredUploadTest, InOnePiece) {
  start();
  const WireReply reply = ask(GetParam().wire);
  EXPECT_EQ(reply.statusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(reply.header("Content-Type"), "application/json");
  EXPECT_EQ(reply.header("Cache-Control"), "no-store");
  EXPECT_FALSE(reply.has("Connection"));
  std::string json;
  for (const auto& [name, content] : GetParam().files) json += (json.empty() ? "" : ",") + told(name);
  EXPECT_EQ(reply.body, "{\"files\":[" + json + "]}\n");
  EXPECT_EQ(stored(), GetParam().files);
  EXPECT_TRUE(hasForgotten());
}

TEST_P(StoredUploadTest, ByteByByteAndAgainOnTheSameConnection) {
  start();
  WireClient client(daemon_->address());
  for (int i = 0; i < 2; ++i) {
    for (const char c : GetParam().wire) client.send({&c, 1});
    EXPECT_EQ(replyOf(client).status(), 200u);
    client.take();
  }
  EXPECT_EQ(stored().size(), 2 * GetParam().files.size());
  EXPECT_TRUE(hasForgotten());
}

TEST_F(UploadTest, SeveralPathsAndFolders) {
  folder_.folder("other");
  start({"--upload", "/x/y/=" + folder_.at("other"), "--demo"});
  EXPECT_EQ(ask(post(form(file("a", "1")))).status(), 200u);
  EXPECT_EQ(ask(post(form(file("b", "2")), kFormType, "/x/y")).status(), 200u);
  EXPECT_EQ(ask(post(form(file("c", "3")), kFormType, "/x")).status(), 405u);
  EXPECT_EQ(ask(post(form(file("c", "3")), kFormType, "/upload/c")).status(), 405u);
  EXPECT_EQ(ask(post(form(file("c", "3")), kFormType, "/uploads")).status(), 405u);
  EXPECT_EQ(stored(), (Files{{"a", "1"}}));
  EXPECT_EQ(stored("other"), (Files{{"b", "2"}}));
}

TEST_F(UploadTest, InHttp10TheConnectionCloses) {
  start();
  const std::string body = form(file("a", "x"));
  WireClient client(daemon_->address());
  client.send("POST /upload HTTP/1.0\r\n" + std::string(kFormType) + lengthOf(body.size()) + "\r\n" + body);
  EXPECT_EQ(replyOf(client).status(), 200u);
  EXPECT_TRUE(waitUntil([&] { return client.ended(); }));
  EXPECT_EQ(stored(), (Files{{"a", "x"}}));
}

TEST_F(UploadTest, ManyParts) {
  start();
  std::string parts;
  Files files;
  for (int i = 0; i < 900; ++i) {
    const std::string name = "f" + std::to_string(i);
    const bool isFile = i % 9 == 0;
    parts += isFile ? file(name, name) : field(name, name);
    if (isFile) files[name] = name;
  }
  EXPECT_EQ(files.size(), 100u);
  EXPECT_EQ(ask(post(form(parts))).status(), 200u);
  EXPECT_EQ(stored(), files);
}

// However many there are: connections need the others.
TEST_F(UploadTest, FilesOfAllClientsHaveAQuarterOfTheDescriptors) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit lowered = {80, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
  start();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  std::string parts;
  for (int i = 0; i < 20; ++i) parts += file("f" + std::to_string(i), "x");
  const std::string wire = post(form(parts + field("last", pattern(100))));
  WireClient first(daemon_->address());
  first.send(wire.substr(0, wire.size() - 50));
  ASSERT_TRUE(waitUntil([&] { return openFiles() == 20 + 1; })) << "and their directory";
  EXPECT_EQ(ask(post(form(file("b", "1")))).status(), 503u);
  EXPECT_EQ(ask(post(form(field("b", "1")))).status(), 200u);
  first.send(wire.substr(wire.size() - 50));
  EXPECT_EQ(replyOf(first).status(), 200u);
  EXPECT_EQ(ask(post(form(file("b", "1")))).status(), 200u);
  EXPECT_EQ(stored().size(), 21u);
}

// Larger than all that is buffered anywhere; in each way in which bodies are framed.
TEST_F(UploadTest, LargeFiles) {
  start();
  const std::string large = pattern(3'000'000);
  const std::string body = form(file("a", large) + field("b", pattern(60'000)) + file("c", large));
  EXPECT_EQ(ask(post(body)).status(), 200u);
  EXPECT_EQ(ask(postChunked(body, 100'000)).status(), 200u);
  const Files files = stored();
  EXPECT_EQ(files.size(), 4u);
  for (const auto& [name, content] : files) EXPECT_TRUE(content == large) << name;
}

TEST_F(UploadTest, TwoOfTheSameNameAtOnce) {
  start();
  const std::string first = post(form(file("a", pattern(100'000))));
  const std::string second = post(form(file("a", "2")));
  WireClient one(daemon_->address());
  WireClient two(daemon_->address());
  one.send(std::string_view(first).substr(0, 50'000));
  two.send(std::string_view(second).substr(0, second.size() - 5));
  EXPECT_TRUE(waitUntil([&] { return openFiles() == 4; })) << openFiles();
  EXPECT_EQ(stored(), Files{});
  two.send(std::string_view(second).substr(second.size() - 5));
  EXPECT_NE(replyOf(two).body.find("{\"name\":\"a\","), std::string::npos);
  one.send(std::string_view(first).substr(50'000));
  EXPECT_NE(replyOf(one).body.find("{\"name\":\"a-1\","), std::string::npos);
  EXPECT_EQ(stored(), (Files{{"a", "2"}, {"a-1", pattern(100'000)}}));
}

// Nothing shows before all of it is there.
TEST_F(UploadTest, FilesAppearAllTogether) {
  start();
  const std::string wire = post(form(file("a", "1") + file("b", pattern(100'000))));
  WireClient client(daemon_->address());
  client.send(std::string_view(wire).substr(0, 60'000));
  EXPECT_TRUE(waitUntil([&] { return openFiles() == 3; }));
  EXPECT_EQ(stored(), Files{});
  client.send(std::string_view(wire).substr(60'000));
  EXPECT_EQ(replyOf(client).status(), 200u);
  EXPECT_EQ(stored().size(), 2u);
}

TEST_F(UploadTest, ModeFollowsTheUmask) {
  const mode_t before = umask(027);
  start();
  umask(before);
  EXPECT_EQ(ask(post(form(file("a", "1")))).status(), 200u);
  struct stat status {};
  ASSERT_EQ(stat(folder_.at("in/a").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(status.st_nlink, 1u);
}

// --- what is refused -------------------------------------------------------------------------------------------------

struct RefusedCase {
  const char* name;
  std::string wire;
  unsigned status;
};
void PrintTo(const RefusedCase& row, std::ostream* out) { *out << row.name; }

std::string manyFiles(size_t count) {
  std::string parts;
  for (size_t i = 0; i < count; ++i) parts += file("f", "x");
  return form(parts);
}
std::string manyFields(size_t count) {
  std::string parts;
  for (size_t i = 0; i < count; ++i) parts += field("f", "x");
  return form(parts);
}
std::string from(std::string_view header) { return post(form(file("a", "x")), kFormType + std::string(header)); }

const std::string kGood = form(file("a", "x"));
const RefusedCase kRefused[] = {
    {"NoType", post(kGood, ""), 415},
    {"OtherType", post(kGood, "Content-Type: application/octet-stream\r\n"), 415},
    {"TypeOfOtherForms", post("a=b", "Content-Type: application/x-www-form-urlencoded\r\n"), 415},
    {"OtherMultipart", post(kGood, "Content-Type: multipart/mixed; boundary=" + std::string(kBoundary) + "\r\n"), 415},
    {"LongerType", post(kGood, "Content-Type: multipart/form-database; boundary=x\r\n"), 415},
    {"NoBoundary", post(kGood, "Content-Type: multipart/form-data\r\n"), 400},
    {"HalfALastDelimiter", post(kGood.substr(0, kGood.size() - 3)), 400},
    {"QuoteThatIsNotClosed",
     post(kGood, "Content-Type: multipart/form-data; boundary=\"" + std::string(kBoundary) + "\r\n"), 400},
    {"EndsAfterAFullTurn", post(file("a", pattern(262'144)).substr(0, file("a", pattern(262'144)).size() - 2)), 400},
    {"NoBody", post("", kFormType), 400},
    {"NoLength", requestHead("POST", kFormType), 400},
    {"NoFirstDelimiter", post("nonsense" + kGood), 400},
    {"OtherDelimiter", post(kGood, "Content-Type: multipart/form-data; boundary=x\r\n"), 400},
    {"HeadOfAPartWithoutColon", post(form(partWithHead("nonsense\r\n", "x"))), 400},
    {"HeadOfAPartThatNeverEnds", post("--" + std::string(kBoundary) + "\r\nA: " + pattern(1000)), 400},
    {"DelimiterThatGoesOn", post("--" + std::string(kBoundary) + "xx\r\n"), 400},
    {"NoLastDelimiter", post(file("a", "x")), 400},
    {"EndsInsideAFile", post(file("a", pattern(100'000)).substr(0, 90'000)), 400},
    {"EndsInsideADelimiter", post(file("a", "x") + "--" + std::string(kBoundary).substr(0, 8)), 400},
    {"EndsInChunks", postChunked(file("a", "x"), 7), 400},
    {"MalformedChunk",
     requestHead("POST", std::string(kFormType) + "Transfer-Encoding: chunked\r\n") + "5\r\n-----\r\nzz\r\n", 400},
    {"FilesInFrontOfWhatIsMalformed", post(file("a", "x") + file("b", "y") + partWithHead("nonsense\r\n", "x")), 400},
    {"TooManyFiles", post(manyFiles(101)), 413},
    {"TooManyParts", post(manyFields(1001)), 413},
    {"TooMuchBesideFiles", post(form(file("a", "x") + field("b", pattern(65'537)))), 413},
    {"BeyondWhatCanBeCounted", requestHead("POST", std::string(kFormType) + "Content-Length: 4294967296\r\n"), 413},
    {"FromAnotherSite", from("Sec-Fetch-Site: cross-site\r\n"), 403},
    {"FromTheSameSite", from("Sec-Fetch-Site: same-site\r\n"), 403},
    {"FromAnotherOrigin", from("Origin: http://y\r\n"), 403},
    {"Put", requestHead("PUT", kFormType + lengthOf(kGood.size())) + kGood, 405},
    {"Delete", requestHead("DELETE", ""), 405},
    {"Patch", requestHead("PATCH", kFormType + lengthOf(kGood.size())) + kGood, 501},
    {"OtherExpectation", from("Expect: a-miracle\r\n"), 417},
};
class RefusedUploadTest : public UploadTest, public ::testing::WithParamInterface<RefusedCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, RefusedUploadTest, ::testing::ValuesIn(kRefused),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(RefusedUploadTest, LeavesNothing) {
  start();
  const WireReply reply = ask(GetParam().wire);
  EXPECT_EQ(reply.status(), GetParam().status) << reply.wire;
  EXPECT_EQ(reply.header("Allow"), GetParam().status == 405 ? "GET, HEAD, POST, OPTIONS" : "");
  const bool hasNoBody = GetParam().wire.starts_with("DELETE") || GetParam().wire == requestHead("POST", kFormType);
  EXPECT_EQ(reply.header("Connection"), hasNoBody ? "" : "close");
  EXPECT_EQ(stored(), Files{});
  EXPECT_TRUE(hasForgotten());
  EXPECT_EQ(ask(post(kGood)).status(), 200u);
}

// What can be refused by its head is: before the client is told to send more, and without reading on.
struct HeadCase {
  const char* name;
  const char* method;
  std::string headers;
  unsigned status;
};
void PrintTo(const HeadCase& row, std::ostream* out) { *out << row.name; }
const std::string kExpectation = "Expect: 100-continue\r\n";
const HeadCase kHeads[] = {
    {"Type", "POST", "Content-Type: text/plain\r\nContent-Length: 1000000\r\n", 415},
    {"TypeChunked", "POST", "Content-Type: text/plain\r\nTransfer-Encoding: chunked\r\n", 415},
    {"Boundary", "POST", "Content-Type: multipart/form-data\r\nContent-Length: 1000000\r\n", 400},
    {"Length", "POST", kFormType + lengthOf(1'000'000 + 131'073), 413},
    {"LengthOfFourGigabytes", "POST", kFormType + std::string("Content-Length: 4000000000\r\n"), 413},
    {"Site", "POST", kFormType + std::string("Sec-Fetch-Site: cross-site\r\nContent-Length: 1000\r\n"), 403},
    {"Method", "PUT", kFormType + std::string("Content-Length: 1000000\r\n"), 405},
    {"MethodChunked", "PUT", kFormType + std::string("Transfer-Encoding: chunked\r\n"), 405},
};
class RefusedByHeadTest : public UploadTest, public ::testing::WithParamInterface<HeadCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, RefusedByHeadTest, ::testing::ValuesIn(kHeads),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(RefusedByHeadTest, BeforeTheBody) {
  start({"--max-upload", "1000000"});
  for (const std::string& expectation : {kExpectation, std::string()}) {
    WireClient client(daemon_->address());
    client.send(requestHead(GetParam().method, GetParam().headers + expectation));
    const WireReply reply = replyOf(client);
    EXPECT_EQ(reply.status(), GetParam().status) << reply.wire;
    EXPECT_EQ(reply.header("Connection"), "close");
    EXPECT_TRUE(waitUntil([&] { return client.ended(); }));
    EXPECT_FALSE(client.wasReset());
    EXPECT_EQ(client.received(), reply.wire);
  }
}

TEST_F(UploadTest, ClientsThatWaitAreToldToGoOn) {
  start();
  const std::string body = form(file("a", "x"));
  WireClient client(daemon_->address());
  client.send(requestHead("POST", kFormType + kExpectation + lengthOf(body.size())));
  EXPECT_TRUE(waitUntil([&] { return client.received() == "HTTP/1.1 100 Continue\r\n\r\n"; })) << client.received();
  client.take();
  client.send(body);
  EXPECT_EQ(replyOf(client).status(), 200u);
  EXPECT_EQ(stored(), (Files{{"a", "x"}}));
}

TEST_F(UploadTest, OptionsTellTheMethods) {
  start();
  const WireReply reply = ask(requestHead("OPTIONS", ""));
  EXPECT_EQ(reply.status(), 200u);
  EXPECT_EQ(reply.header("Allow"), "GET, HEAD, POST, OPTIONS");
}

TEST_F(UploadTest, RequestOfTheSameOriginIsServed) {
  start();
  EXPECT_EQ(ask(from("Sec-Fetch-Site: same-origin\r\nOrigin: http://y\r\n")).status(), 200u);
  EXPECT_EQ(ask(from("Origin: http://x\r\n")).status(), 200u);
}

// --- the limit -------------------------------------------------------------------------------------------------------

struct LimitCase {
  const char* name;
  const char* limit;
  size_t bytes;  // exactly as many
};
void PrintTo(const LimitCase& row, std::ostream* out) { *out << row.name; }
const LimitCase kLimits[] = {
    {"OneByte", "1", 1}, {"Bytes", "1000", 1000}, {"Kibibytes", "3K", 3 * 1024}, {"Mebibytes", "1M", 1024 * 1024}};
class UploadLimitTest : public UploadTest, public ::testing::WithParamInterface<LimitCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, UploadLimitTest, ::testing::ValuesIn(kLimits),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(UploadLimitTest, HoldsToTheByte) {
  start({"--max-upload", GetParam().limit});
  const std::string content = pattern(GetParam().bytes);
  const std::string exact = form(field("x", "more than the limit, but no file") + file("a", content));
  const std::string beyond = form(file("a", content + "x"));
  EXPECT_EQ(ask(post(beyond)).status(), 413u);
  EXPECT_EQ(ask(postChunked(beyond, 1000)).status(), 413u);
  EXPECT_EQ(stored(), Files{});
  EXPECT_EQ(ask(post(exact)).status(), 200u);
  EXPECT_EQ(ask(postChunked(exact, 1000)).status(), 200u);
  EXPECT_EQ(stored(), (Files{{"a", content}, {"a-1", content}}));
}

TEST_F(UploadTest, LimitIsForAllFilesTogether) {
  start({"--max-upload", "10"});
  const WireReply reply = ask(post(form(file("a", "12345") + file("b", "123456"))));
  EXPECT_EQ(reply.status(), 413u);
  EXPECT_EQ(reply.header("Connection"), "close");
  EXPECT_EQ(reply.body, "{\"error\":\"That is more than may be sent at once.\"}\n");
  EXPECT_EQ(stored(), Files{});
  EXPECT_EQ(ask(post(form(file("a", "12345") + file("b", "12345")))).status(), 200u);
}

TEST_F(UploadTest, LimitEndsWhatNeverEnds) {
  start({"--max-upload", "100K"});
  WireClient client(daemon_->address());
  client.send(requestHead("POST", std::string(kFormType) + "Transfer-Encoding: chunked\r\n"));
  const std::string head = "--" + std::string(kBoundary) + "\r\nContent-Disposition: form-data; filename=a\r\n\r\n";
  client.send(chunked(head).substr(0, chunked(head).size() - 5));
  const std::string block = chunked(pattern(10'000));
  for (int i = 0; i < 100 && !client.ended(); ++i) {
    client.send(std::string_view(block).substr(0, block.size() - 5));
    waitUntil([] { return true; });
  }
  EXPECT_EQ(replyOf(client).status(), 413u);
  EXPECT_TRUE(waitUntil([&] { return client.ended(); }));
  EXPECT_EQ(stored(), Files{});
  EXPECT_TRUE(hasForgotten());
}

TEST_F(UploadTest, NoLimitByDefaultAndByZero) {
  for (const Arguments& more : {Arguments{}, Arguments{"--max-upload", "0"}}) {
    start(more);
    EXPECT_EQ(ask(post(form(file("a", pattern(2'000'000))))).status(), 200u);
  }
}

// --- a disk that is full ---------------------------------------------------------------------------------------------

// No file may have more than 100000 bytes, as on a file system that takes no larger ones.
TEST_F(UploadTest, FileThatIsTooLargeForTheSystem) {
  start();
  const rlimit most = {100'000, 100'000};
  ASSERT_EQ(prlimit(daemon_->process().pid(), RLIMIT_FSIZE, &most, nullptr), 0) << strerror(errno);
  const WireReply reply = ask(post(form(file("small", "x") + file("a", pattern(100'001)))));
  EXPECT_EQ(reply.status(), 507u) << reply.wire;
  EXPECT_EQ(reply.header("Connection"), "close");
  EXPECT_EQ(reply.body, "{\"error\":\"There is no room left for the files.\"}\n");
  EXPECT_EQ(stored(), Files{});
  EXPECT_TRUE(hasForgotten());
  EXPECT_EQ(ask(post(form(file("a", pattern(100'000))))).status(), 200u);
}

// The daemon in a namespace of its own, where the folder is a file system of 1 MiB.
TEST_F(UploadTest, DiskThatIsFull) {
  const std::string in = folder_.at("in");
  const std::string script = "mount -t tmpfs -o size=1m none '" + in + "' && exec \"$@\"";
  Arguments command = {"/usr/bin/unshare", "--user", "--map-root-user", "--mount", "/bin/sh", "-c", script, "sh"};
  const Arguments daemon = daemonCommand(with({"--root", in}));
  command.insert(command.end(), daemon.begin(), daemon.end());
  daemon_ = std::make_unique<Daemon>(Daemon::AsItIs{}, command);
  EXPECT_EQ(ask(post(form(file("first", pattern(600'000))))).status(), 200u);
  EXPECT_EQ(ask(post(form(file("small", "x") + file("second", pattern(600'000))))).status(), 507u);
  EXPECT_EQ(ask(postChunked(form(file("second", pattern(600'000))), 5000)).status(), 507u);
  EXPECT_EQ(ask(requestHead("GET", "", "/small")).status(), 404u);
  // What was refused takes no room.
  EXPECT_EQ(ask(post(form(file("third", pattern(400'000))))).status(), 200u);
  EXPECT_EQ(ask(requestHead("GET", "", "/third")).body, pattern(400'000));
}

// Where files without a name cannot be given one, they have a hidden name meanwhile.
TEST_F(UploadTest, WithoutTheDescriptorsInProc) {
  const std::string script = "mount -t tmpfs none /proc/$$/fd && exec \"$@\"";
  Arguments command = {"/usr/bin/unshare", "--user", "--map-root-user", "--mount", "/bin/sh", "-c", script, "sh"};
  const Arguments daemon = daemonCommand(with({}));
  command.insert(command.end(), daemon.begin(), daemon.end());
  daemon_ = std::make_unique<Daemon>(Daemon::AsItIs{}, command);
  const std::string wire = post(form(file("a", "1") + file("a", pattern(100'000))));
  {
    WireClient client(daemon_->address());
    client.send(std::string_view(wire).substr(0, 60'000));
    EXPECT_TRUE(waitUntil([&] { return stored().size() == 2; }));
    for (const auto& [name, content] : stored()) EXPECT_TRUE(name.starts_with(".krohttpd-upload-")) << name;
  }
  EXPECT_TRUE(waitUntil([&] { return stored().empty(); }));
  EXPECT_EQ(ask(wire).status(), 200u);
  EXPECT_EQ(stored(), (Files{{"a", "1"}, {"a-1", pattern(100'000)}}));
  EXPECT_EQ(ask(post(file("b", "1") + file("c", "2"))).status(), 400u);
  EXPECT_EQ(stored().size(), 2u);
}

// The last of the files gets no name: the others lose theirs.
TEST_F(UploadTest, NamesThatAreAllTaken) {
  start();
  folder_.file("taken", "x");
  for (int number = 0; number <= 10'000; ++number) {
    const std::string name = number == 0 ? "in/a.txt" : "in/a-" + std::to_string(number) + ".txt";
    ASSERT_EQ(link(folder_.at("taken").c_str(), folder_.at(name).c_str()), 0) << strerror(errno);
  }
  EXPECT_EQ(ask(post(form(file("b", "1") + file("b", "2") + file("a.txt", "3")))).status(), 500u);
  EXPECT_NE(access(folder_.at("in/b").c_str(), F_OK), 0);
  EXPECT_NE(access(folder_.at("in/b-1").c_str(), F_OK), 0);
  ASSERT_EQ(unlink(folder_.at("in/a-10000.txt").c_str()), 0);
  EXPECT_EQ(ask(post(form(file("b", "1") + file("a.txt", "3")))).status(), 200u);
  EXPECT_EQ(contentOf(folder_.at("in/a-10000.txt")), "3");
}

TEST_F(UploadTest, FolderThatHasGone) {
  start();
  ASSERT_EQ(rmdir(folder_.at("in").c_str()), 0);
  const WireReply reply = ask(post(kGood));
  EXPECT_EQ(reply.status(), 500u);
  EXPECT_EQ(reply.body, "{\"error\":\"The files could not be stored.\"}\n");
  folder_.folder("in");
  EXPECT_EQ(ask(post(kGood)).status(), 200u);
}

// --- clients that leave, daemons that stop ---------------------------------------------------------------------------

struct LeavingCase {
  const char* name;
  std::string wire;
  size_t sent;  // bytes of it
  bool finish;  // the client ends its side in order, and waits
};
void PrintTo(const LeavingCase& row, std::ostream* out) { *out << row.name; }
const std::string kLeft = post(form(file("a", "1") + file("b", pattern(200'000)) + file("c", "3")));
const std::string kLeftChunked = postChunked(form(file("a", "1") + file("b", pattern(200'000)) + file("c", "3")), 999);
const std::string kLeftAndMore =
    post(form(file("a", "1") + file("b", pattern(200'000)) + file("c", "3")) + std::string(10, 'x'));
const LeavingCase kLeaving[] = {
    {"InsideAFile", kLeft, 100'000, false},
    {"InsideAFileInOrder", kLeft, 100'000, true},
    {"BeforeTheLastByte", kLeft, kLeft.size() - 1, false},
    {"BeforeTheLastByteInOrder", kLeft, kLeft.size() - 1, true},
    {"InsideAChunk", kLeftChunked, 100'000, false},
    {"InsideAChunkInOrder", kLeftChunked, 100'000, true},
    {"BehindTheForm", kLeftAndMore, kLeftAndMore.size() - 10, false},
    {"BehindTheFormInOrder", kLeftAndMore, kLeftAndMore.size() - 10, true},
    {"BeforeTheLastChunk", kLeftChunked, kLeftChunked.size() - 5, true},
};
class LeavingTest : public UploadTest, public ::testing::WithParamInterface<LeavingCase> {};
INSTANTIATE_TEST_SUITE_P(Krohttpd, LeavingTest, ::testing::ValuesIn(kLeaving),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(LeavingTest, LeavesNothing) {
  start();
  WireClient client(daemon_->address());
  client.send(std::string_view(GetParam().wire).substr(0, GetParam().sent));
  EXPECT_TRUE(waitUntil([&] { return client.allSent() && openFiles() >= 3; }));
  if (GetParam().finish) {
    client.finish();
    EXPECT_TRUE(waitUntil([&] { return client.ended(); }));
    EXPECT_EQ(client.received().find(" 200 "), std::string::npos) << client.received();
  } else {
    client.reset();
  }
  EXPECT_TRUE(hasForgotten());
  EXPECT_EQ(stored(), Files{});
  EXPECT_EQ(ask(post(kGood)).status(), 200u);
}

TEST_F(UploadTest, DaemonThatIsStoppedFinishesWhatIsSent) {
  start();
  const std::string wire = post(form(file("a", pattern(100'000))));
  WireClient client(daemon_->address());
  client.send(std::string_view(wire).substr(0, 50'000));
  EXPECT_TRUE(waitUntil([&] { return openFiles() == 2; }));
  daemon_->process().signal(SIGTERM);
  EXPECT_TRUE(waitUntil([&] { return !accepts(daemon_->address()); }));
  client.send(std::string_view(wire).substr(50'000));
  EXPECT_EQ(replyOf(client).status(), 200u);
  EXPECT_TRUE(waitUntil([&] { return daemon_->process().ended(); }));
  EXPECT_EQ(daemon_->process().outcome(), "exit 0");
  EXPECT_EQ(stored(), (Files{{"a", pattern(100'000)}}));
}

// A client that leaves is noticed although another one keeps the daemon from ending.
TEST_F(UploadTest, ClientThatLeavesAStoppedDaemon) {
  start();
  WireClient leaving(daemon_->address());
  leaving.send(std::string_view(kLeft).substr(0, 50'000));
  WireClient staying(daemon_->address());
  staying.send(std::string_view(kLeft).substr(0, 50'000));
  EXPECT_TRUE(waitUntil([&] { return openFiles() == 6; }));
  daemon_->process().signal(SIGTERM);
  EXPECT_TRUE(waitUntil([&] { return !accepts(daemon_->address()); }));
  leaving.reset();
  EXPECT_TRUE(waitUntil([&] { return openFiles() == 3; }));
  staying.send(std::string_view(kLeft).substr(50'000));
  EXPECT_EQ(replyOf(staying).status(), 200u);
  EXPECT_TRUE(waitUntil([&] { return daemon_->process().ended(); }));
  EXPECT_EQ(daemon_->process().outcome(), "exit 0");
  EXPECT_EQ(stored().size(), 3u);
}

// SIGTERM twice: it does not wait any more. SIGKILL: it cannot clean up, and need not.
TEST_F(UploadTest, DaemonThatEndsAtOnceLeavesNothing) {
  for (const std::vector<int>& signals : {std::vector<int>{SIGTERM, SIGINT}, std::vector<int>{SIGKILL}}) {
    start();
    WireClient client(daemon_->address());
    client.send(std::string_view(kLeft).substr(0, 50'000));
    EXPECT_TRUE(waitUntil([&] { return openFiles() == 3; }));
    for (const int signal : signals) daemon_->process().signal(signal);
    EXPECT_TRUE(waitUntil([&] { return daemon_->process().ended(); }));
    EXPECT_EQ(daemon_->process().outcome(), signals.size() == 2 ? "exit 0" : "signal 9");
    EXPECT_EQ(stored(), Files{});
  }
}

// --- who may ---------------------------------------------------------------------------------------------------------

class ProtectedUploadTest : public UploadTest, public ::testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    UploadTest::SetUp();
    const std::unique_ptr<char, decltype(&free)> hash(http_generateDigestHash("bob", "r", "b"), &free);
    folder_.file("users", std::string("bob:r:") + hash.get() + "\n");
    start({"--auth-file", folder_.at("users"), "--protect", std::string("/upload=") + GetParam()});
  }
};
INSTANTIATE_TEST_SUITE_P(Krohttpd, ProtectedUploadTest, ::testing::Values("basic", "digest", "session"),
                         [](const auto& parameter) { return std::string(parameter.param); });

TEST_P(ProtectedUploadTest, IsRefusedBeforeItsBody) {
  for (const char* const path : {"/upload", "/upload/", "//up%6coad"}) {
    for (const std::string& expectation : {kExpectation, std::string()}) {
      WireClient client(daemon_->address());
      client.send(requestHead("POST", kFormType + lengthOf(1'000'000) + expectation, path));
      const WireReply reply = replyOf(client);
      EXPECT_EQ(reply.status(), 401u) << reply.wire;
      EXPECT_EQ(reply.header("Connection"), "close");
      EXPECT_EQ(client.received(), reply.wire);
      EXPECT_TRUE(waitUntil([&] { return client.ended(); }));
    }
  }
  EXPECT_EQ(ask(post(kGood)).status(), 401u);
  EXPECT_EQ(ask(postChunked(kGood, 10)).status(), 401u);
  EXPECT_EQ(ask(requestHead("GET", "")).status(), 401u);
  EXPECT_EQ(stored(), Files{});
}

TEST_F(UploadTest, UsersMay) {
  const std::unique_ptr<char, decltype(&free)> hash(http_generateDigestHash("bob", "r", "b"), &free);
  folder_.file("users", std::string("bob:r:") + hash.get() + "\n");
  start({"--auth-file", folder_.at("users"), "--protect", "/upload=session", "--access-log", folder_.at("log")});
  const std::string login = "username=bob&password=b";
  const WireReply opened = ask(
      requestHead("POST", "Content-Type: application/x-www-form-urlencoded\r\n" + lengthOf(login.size()), "/login") +
      login);
  const std::string cookies = opened.header("Set-Cookie");
  ASSERT_NE(cookies.find("kro/sessid="), std::string::npos) << opened.wire;
  const std::string cookie = "Cookie: " + cookies.substr(cookies.rfind("kro/sessid="), cookies.find(';')) + "\r\n";
  EXPECT_EQ(ask(requestHead("GET", cookie)).status(), 200u);
  EXPECT_EQ(ask(post(kGood, kFormType + cookie)).status(), 200u);
  EXPECT_EQ(ask(post(kGood, kFormType + cookie + "Sec-Fetch-Site: cross-site\r\n")).status(), 403u);
  EXPECT_EQ(stored(), (Files{{"a", "x"}}));
  EXPECT_NE(contentOf(folder_.at("log")).find(" bob ["), std::string::npos);
}

// --- pages -----------------------------------------------------------------------------------------------------------

constexpr const char* kForBrowsers = "Accept: text/html,application/xhtml+xml,*/*;q=0.8\r\n";

TEST_F(UploadTest, FormIsShownAtThePath) {
  start({"--max-upload", "5M"});
  const WireReply reply = ask(requestHead("GET", ""));
  EXPECT_EQ(reply.status(), 200u);
  EXPECT_EQ(reply.header("Content-Type"), "text/html; charset=utf-8");
  for (const char* const text :
       {"<form id=\"upload\" method=\"post\" enctype=\"multipart/form-data\" data-limit=\"5242880\">",
        "<input id=\"files\" name=\"files\" type=\"file\" multiple", "<label for=\"files\">", "<style>", "<script>"})
    EXPECT_NE(reply.body.find(text), std::string::npos) << text;
  // All that it needs is in it, and nothing is loaded from anywhere.
  for (const char* const text : {"http-equiv", "upload.css", "upload.js", "favicon.png", "http://", "https://"})
    EXPECT_EQ(reply.body.find(text), std::string::npos) << text;
  const std::string policy = reply.header("Content-Security-Policy");
  EXPECT_EQ(policy.rfind("default-src 'none'; style-src 'sha256-", 0), 0u) << policy;
  EXPECT_EQ(policy.find("unsafe"), std::string::npos) << policy;

  const WireReply head = ask(requestHead("HEAD", ""), true);
  EXPECT_EQ(head.status(), 200u);
  EXPECT_EQ(head.header("Content-Length"), reply.header("Content-Length"));
}

TEST_F(UploadTest, BrowsersWithoutScriptsGetAPage) {
  start();
  const std::string headers = kFormType + std::string(kForBrowsers);
  const WireReply stored = ask(post(form(file("<a&b>%22.txt", "x")), headers));
  EXPECT_EQ(stored.status(), 200u);
  EXPECT_EQ(stored.header("Content-Type"), "text/html; charset=utf-8");
  EXPECT_NE(stored.body.find("<th scope=\"row\">&lt;a&amp;b&gt;&quot;.txt</th><td>1</td><td><code>" +
                             sha256(folder_.at("in/<a&b>\".txt")) + "</code></td>"),
            std::string::npos)
      << stored.body;
  const WireReply nothing = ask(post(form(file("", "")), headers));
  EXPECT_EQ(nothing.status(), 200u);
  EXPECT_NE(nothing.body.find("There was no file in the form."), std::string::npos);
  const WireReply refused = ask(post("nonsense", headers));
  EXPECT_EQ(refused.status(), 400u);
  EXPECT_NE(refused.body.find("role=\"alert\">The form could not be read to its end.</p>"), std::string::npos);
  EXPECT_NE(refused.header("Content-Security-Policy"), "");
}

// --- memory and others -----------------------------------------------------------------------------------------------

#ifndef __SANITIZE_ADDRESS__
long residentKibibytes(pid_t pid) {
  const std::unique_ptr<FILE, decltype(&fclose)> status(
      fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r"), &fclose);
  std::array<char, 256> line;
  while (fgets(line.data(), line.size(), status.get()) != nullptr)
    if (strncmp(line.data(), "VmRSS:", 6) == 0) return atol(line.data() + 6);
  return -1;
}

// 256 MiB in each way in which bodies are framed; a small one before, so that all code is there.
TEST_F(UploadTest, MemoryStaysFlat) {
  start();
  const std::string block = pattern(1 << 20);
  EXPECT_EQ(ask(post(form(file("a", block)))).status(), 200u);
  EXPECT_EQ(ask(postChunked(form(file("a", block)), 1 << 16)).status(), 200u);
  const long idle = residentKibibytes(daemon_->process().pid());
  constexpr size_t kBlocks = 256;
  const std::string open =
      "--" + std::string(kBoundary) + "\r\nContent-Disposition: form-data; name=f; filename=large\r\n\r\n";
  const std::string close = "\r\n--" + std::string(kBoundary) + "--\r\n";
  for (const bool inChunks : {false, true}) {
    WireClient client(daemon_->address());
    const auto send = [&](const std::string& bytes) {
      const std::string wire = chunked(bytes, 1 << 16);
      client.send(inChunks ? std::string_view(wire).substr(0, wire.size() - 5) : bytes);
    };
    const std::string framing =
        inChunks ? "Transfer-Encoding: chunked\r\n" : lengthOf(open.size() + kBlocks * block.size() + close.size());
    client.send(requestHead("POST", kFormType + framing));
    send(open);
    long most = 0;
    for (size_t i = 0; i < kBlocks; ++i) {
      send(block);
      ASSERT_TRUE(waitUntil([&] { return client.allSent(); }));
      most = std::max(most, residentKibibytes(daemon_->process().pid()));
    }
    send(close);
    if (inChunks) client.send("0\r\n\r\n");
    EXPECT_EQ(replyOf(client).status(), 200u);
    EXPECT_LE(most, idle + 1024);
  }
  struct stat status {};
  EXPECT_EQ(stat(folder_.at("in/large").c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 256 << 20);
  EXPECT_EQ(stat(folder_.at("in/large-1").c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 256 << 20);
}
#endif

// One that sends as fast as it can does not keep the others waiting until it is done.
TEST_F(UploadTest, OthersAreServedMeanwhile) {
  start({"--demo"});
  const std::string wire = post(form(file("a", pattern(64 << 20))));
  const pid_t sender = fork();
  if (sender == 0) {
    WireClient client(daemon_->address());
    fcntl(client.socket(), F_SETFL, 0);
    for (size_t at = 0; at < wire.size();) {
      const ssize_t count = ::send(client.socket(), wire.data() + at, wire.size() - at, MSG_NOSIGNAL);
      if (count <= 0) _exit(1);
      at += static_cast<size_t>(count);
    }
    std::array<char, 12> start;
    const bool stored = recv(client.socket(), start.data(), start.size(), MSG_WAITALL) == 12 &&
                        std::string_view(start.data(), 12) == "HTTP/1.1 200";
    _exit(stored ? 0 : 2);
  }
  EXPECT_TRUE(waitUntil([&] { return openFiles() == 2; }));
  int served = 0;
  int status = 0;
  while (waitpid(sender, &status, WNOHANG) == 0) {
    EXPECT_EQ(ask(requestHead("GET", "", "/hello")).body, "Hello, world!");
    ++served;
  }
  EXPECT_EQ(status, 0);
  EXPECT_GE(served, 3);
  EXPECT_EQ(stored().size(), 1u);
}

}  // namespace
