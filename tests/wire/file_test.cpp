// Files and descriptors as reply bodies: which file is found, with which headers, and every byte of it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <krohttp/krohttp.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/wire_server.h"
#include "support/wire_traces.h"

namespace {

class FileTest : public WireServerTest {
 protected:
  void SetUp() override {
    WireServerTest::SetUp();
    // Serves the files below root; under /fd/ and /file/ the calls that serve no tree.
    onRequest = [this](HttpRequest* request, HttpReply* reply) {
      if (withoutSendfile) peer_setTransport(http_requestPeer(request), &plainTransport());
      if (descriptor) {
        EXPECT_EQ(http_replyStatusCodeSet(reply, 200, nullptr), 0);
        result = http_serverSendFd(reply, descriptor());
      } else {
        result = http_serverRequestSendFile(request, reply, root.c_str());
      }
      return 0;
    };
  }

  // The reply to one request, on a connection of its own. Other bytes on it are a failure.
  WireReply get(std::string_view target, std::string_view headers = "") {
    WireClient client(address());
    client.send("GET " + std::string(target) + " HTTP/1.1\r\n" + std::string(headers) + "Connection: close\r\n\r\n");
    EXPECT_TRUE(until([&] { return client.ended(); })) << target;
    const std::vector<WireReply> replies = takeReplies(client.received(), true);
    EXPECT_EQ(replies.size(), 1u) << target;
    return replies.empty() ? WireReply{"HTTP/1.1 000 none", {}, "", ""} : replies[0];
  }
  // Status, type, encoding and body in one line.
  static std::string summary(const WireReply& reply) {
    std::string text = std::to_string(reply.status());
    if (reply.status() != 200) return text;
    if (reply.has("Content-Type")) text += " type=" + reply.header("Content-Type");
    if (reply.has("Content-Encoding")) text += " encoding=" + reply.header("Content-Encoding");
    return text + " " + reply.body;
  }

  TemporaryFolder folder;
  std::string root = folder.path() + "/";
  std::function<int()> descriptor;
  bool withoutSendfile = false;
  int result = 99;
};

// --- content types ---------------------------------------------------------------------------------------------------

struct TypeCase {
  const char* name;
  const char* path;
  const char* type;  // nullptr for none
};
void PrintTo(const TypeCase& row, std::ostream* out) { *out << row.name; }
constexpr TypeCase kTypes[] = {
    {"Png", "a.png", "image/png"},
    {"Htm", "a.htm", "text/html; charset=utf-8"},
    {"Html", "a.html", "text/html; charset=utf-8"},
    {"Htmx", "a.htmx", "text/html; charset=utf-8"},
    {"Css", "a.css", "text/css; charset=utf-8"},
    {"Cssx", "a.cssx", "text/css; charset=utf-8"},
    {"Js", "a.js", "application/javascript; charset=utf-8"},
    {"Json", "a.json", "application/javascript; charset=utf-8"},
    {"Jsx", "a.jsx", "application/javascript; charset=utf-8"},
    {"Gif", "a.gif", "image/gif"},
    {"Jpg", "a.jpg", "image/jpeg"},
    {"Jpeg", "a.jpeg", nullptr},
    {"Jp", "a.jp", nullptr},
    {"UpperCase", "a.PNG", nullptr},
    {"Text", "a.txt", nullptr},
    {"Svg", "a.svg", nullptr},
    {"NoExtension", "a", nullptr},
    {"DotAtTheEnd", "a.", nullptr},
    {"LastDotDecides", "a.png.txt", nullptr},
    {"LastDotDecidesToo", "a.txt.png", "image/png"},
    {"SourceMap", "a.js.map", nullptr},
    {"HiddenFile", ".css", "text/css; charset=utf-8"},
    {"Gz", "a.gz", nullptr},
    {"TarGz", "a.tar.gz", nullptr},
    {"CssGzAskedForItself", "a.css.gz", "text/css; charset=utf-8"},
    {"CssGzGz", "a.css.gz.gz", nullptr},
    {"NotGz", "a.css.gzip", nullptr},
    {"InADottedFolder", "b.css/a", "text/css; charset=utf-8"},
    {"InADottedFolderWithType", "b.css/a.png", "image/png"},
    {"InAFolderWithAnotherDot", "b.png.d/a", nullptr},
    {"GzInADottedFolder", "b.html/a.gz", "text/html; charset=utf-8"},
};
class TypeTest : public FileTest, public ::testing::WithParamInterface<TypeCase> {};
INSTANTIATE_TEST_SUITE_P(File, TypeTest, ::testing::ValuesIn(kTypes),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(TypeTest, IsThatOfTheLastDot) {
  folder.file(GetParam().path, "content");
  listen();
  const WireReply reply = get("/" + std::string(GetParam().path));
  EXPECT_EQ(summary(reply),
            "200 " + (GetParam().type == nullptr ? "" : "type=" + std::string(GetParam().type) + " ") + "content");
  EXPECT_EQ(reply.header("Content-Length"), "7");
}

// --- which file ------------------------------------------------------------------------------------------------------

struct FindCase {
  const char* name;
  std::vector<std::string> files;  // each holds its own name
  const char* target;
  const char* headers;
  const char* summary;
};
void PrintTo(const FindCase& row, std::ostream* out) { *out << row.name; }
constexpr const char* kIe6 = "User-Agent: Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.1)\r\n";
constexpr const char* kIe7 = "User-Agent: Mozilla/4.0 (compatible; MSIE 7.0)\r\n";
const FindCase kFinds[] = {
    {"Plain", {"a.css"}, "/a.css", "", "200 type=text/css; charset=utf-8 a.css"},
    {"Missing", {}, "/a.css", "", "404"},
    {"QueryIsNotPartOfThePath", {"a.css"}, "/a.css?b.png", "", "200 type=text/css; charset=utf-8 a.css"},
    {"EncodedPath", {"a b.css"}, "/a%20b.css", "", "200 type=text/css; charset=utf-8 a b.css"},
    {"AbsoluteTarget", {"a.css"}, "http://x/a.css", "", "404"},

    {"Gzip", {"a.css", "a.css.gz"}, "/a.css", "", "200 type=text/css; charset=utf-8 encoding=gzip a.css.gz"},
    {"GzipOnly", {"a.css.gz"}, "/a.css", "", "200 type=text/css; charset=utf-8 encoding=gzip a.css.gz"},
    {"GzipForABrowser",
     {"a.css", "a.css.gz"},
     "/a.css",
     kIe7,
     "200 type=text/css; charset=utf-8 encoding=gzip a.css.gz"},
    {"NoGzipForIe6", {"a.css", "a.css.gz"}, "/a.css", kIe6, "200 type=text/css; charset=utf-8 a.css"},
    {"NothingButGzipForIe6", {"a.css.gz"}, "/a.css", kIe6, "404"},
    {"GzipAskedForItself", {"a.css.gz"}, "/a.css.gz", "", "200 type=text/css; charset=utf-8 a.css.gz"},
    {"GzipOfGzip", {"a.css.gz", "a.css.gz.gz"}, "/a.css.gz", "", "200 encoding=gzip a.css.gz.gz"},

    {"Index", {"index.html"}, "/", "", "200 type=text/html; charset=utf-8 index.html"},
    {"IndexForIe6", {"index.html"}, "/", kIe6, "200 type=text/html; charset=utf-8 index.html"},
    {"IndexGzipIsNotLookedForInAnOrdinaryFolder",
     {"index.html", "index.html.gz"},
     "/",
     "",
     "200 type=text/html; charset=utf-8 index.html"},
    {"NoIndexButItsGzip", {"index.html.gz"}, "/", "", "404"},
    {"NoIndex", {"a.css"}, "/", "", "404"},
    {"IndexOfAFolder", {"d/index.html"}, "/d", "", "200 type=text/html; charset=utf-8 d/index.html"},
    {"IndexOfAFolderWithSlash", {"d/index.html"}, "/d/", "", "200 type=text/html; charset=utf-8 d/index.html"},
    {"IndexOfAFolderBelow", {"d/e/index.html"}, "/d/e", "", "200 type=text/html; charset=utf-8 d/e/index.html"},
    {"IndexThatIsAFolder",
     {"d/index.html/index.html"},
     "/d",
     "",
     "200 type=text/html; charset=utf-8 d/index.html/index.html"},
    {"IndexGzipBelowAFolderNamedGz",
     {"d.gz/index.html.gz", "d/index.html"},
     "/d",
     "",
     "200 type=text/html; charset=utf-8 encoding=gzip d.gz/index.html.gz"},
    {"FolderNamedGzWithoutGzip",
     {"d.gz/index.html", "d/index.html"},
     "/d",
     "",
     "200 type=text/html; charset=utf-8 d/index.html"},
    {"FolderNamedGzOnly", {"d.gz/index.html"}, "/d", "", "404"},
    {"FolderNamedGzAskedForItself",
     {"d.gz/index.html"},
     "/d.gz",
     "",
     "200 type=text/html; charset=utf-8 d.gz/index.html"},
    {"FileAsAFolder", {"a.css"}, "/a.css/b", "", "404"},

    {"DotsInside", {"d/a.css"}, "/d/../d/./a.css", "", "200 type=text/css; charset=utf-8 d/a.css"},
    {"ControlCharacter", {"a.css"}, "/a%01.css", "", "400"},
    {"Newline", {"a.css"}, "/a.css%0A", "", "400"},
    {"Delete", {"a.css"}, "/a%7F.css", "", "400"},
    {"Latin1", {"a.css"}, "/a%E9.css", "", "400"},
    {"Utf8", {"a.css"}, "/a%C3%A9.css", "", "400"},
};
class FindTest : public FileTest, public ::testing::WithParamInterface<FindCase> {};
INSTANTIATE_TEST_SUITE_P(File, FindTest, ::testing::ValuesIn(kFinds),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(FindTest, ServesTheRightFile) {
  for (const std::string& name : GetParam().files) folder.file(name, name);
  listen();
  TraceCapture trace;
  const WireReply reply = get(GetParam().target, GetParam().headers);
  EXPECT_EQ(summary(reply), GetParam().summary);
  EXPECT_EQ(result, reply.status() == 200 ? 0 : -1);
  if (reply.status() != 200) {
    EXPECT_EQ(reply.wire, cannedReply(reply.status(), reply.status() == 404 ? "Not Found" : "Bad Request"));
  }
}

// --- outside the root ------------------------------------------------------------------------------------------------

class RootTest : public FileTest {
 protected:
  void SetUp() override {
    FileTest::SetUp();
    folder.file("secret.txt", "secret");
    folder.file("www/index.html", "index");
    folder.file("www/sub/a.css", "a");
    folder.file("www2/index.html", "sibling");
    root = folder.at("www/");
    listen();
  }
  std::string outside(const std::string& path) const {
    return "[x]trying to access a file out of the root dir (\"" + path + "\" is not in \"" + root + "\")";
  }
};

TEST_F(RootTest, DotsThatLeadOut) {
  for (const char* target :
       {"/../secret.txt", "/%2e%2e/secret.txt", "/%2E./secret.txt", "/..%2Fsecret.txt", "/sub/../../secret.txt",
        "/sub/%2e%2e/%2e%2e/secret.txt", "/./../secret.txt", "//../secret.txt", "/sub//..//../secret.txt"}) {
    TraceCapture trace{"http-server"};
    EXPECT_EQ(get(target).wire, cannedReply(404, "Not Found")) << target;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(trace.count("http-se" + outside(folder.at("secret.txt"))), 1u) << target;
  }
  TraceCapture trace;
  EXPECT_EQ(get("/../../../../../../../../etc/passwd").status(), 404u);
  EXPECT_EQ(get("/..").status(), 404u);
}

TEST_F(RootTest, LinksThatLeadOut) {
  ASSERT_EQ(symlink("../secret.txt", folder.at("www/link.txt").c_str()), 0);
  ASSERT_EQ(symlink("/etc", folder.at("www/etc").c_str()), 0);
  ASSERT_EQ(symlink("../secret.txt", folder.at("www/packed.css.gz").c_str()), 0);
  TraceCapture trace;
  EXPECT_EQ(get("/link.txt").wire, cannedReply(404, "Not Found"));
  EXPECT_EQ(get("/etc/passwd").wire, cannedReply(404, "Not Found"));
  EXPECT_EQ(get("/packed.css").wire, cannedReply(404, "Not Found"));
  EXPECT_EQ(trace.count("http-se" + outside(folder.at("secret.txt"))), 2u);
}

TEST_F(RootTest, LinksThatStayInside) {
  ASSERT_EQ(symlink("sub/a.css", folder.at("www/link").c_str()), 0);
  ASSERT_EQ(symlink("sub", folder.at("www/folder").c_str()), 0);
  EXPECT_EQ(summary(get("/link")), "200 type=text/css; charset=utf-8 a");
  EXPECT_EQ(summary(get("/folder/a.css")), "200 type=text/css; charset=utf-8 a");
}

TEST_F(RootTest, LinksThatLeadNowhere) {
  ASSERT_EQ(symlink("missing", folder.at("www/dangling").c_str()), 0);
  ASSERT_EQ(symlink("circle", folder.at("www/circle").c_str()), 0);
  TraceCapture trace;
  EXPECT_EQ(get("/dangling").wire, cannedReply(404, "Not Found"));
  EXPECT_EQ(get("/circle").wire, cannedReply(404, "Not Found"));
}

// The root is compared as text: with a slash at its end a sibling is not below it.
TEST_F(RootTest, SiblingOfTheRoot) {
  TraceCapture trace;
  EXPECT_EQ(get("/../www2/index.html").status(), 404u);
  root = folder.at("www");
  EXPECT_EQ(summary(get("/../www2/index.html")), "200 type=text/html; charset=utf-8 sibling");
  EXPECT_EQ(summary(get("/../www/index.html")), "200 type=text/html; charset=utf-8 index");
  EXPECT_EQ(get("/../secret.txt").status(), 404u);
}

TEST_F(RootTest, OtherKindsOfFiles) {
  ASSERT_EQ(mkfifo(folder.at("www/fifo").c_str(), 0644), 0);
  ASSERT_EQ(symlink("/dev/zero", folder.at("www/zero").c_str()), 0);
  const Descriptor socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un at = {};
  at.sun_family = AF_UNIX;
  folder.at("www/socket").copy(at.sun_path, sizeof(at.sun_path) - 1);
  ASSERT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&at), sizeof(at)), 0);
  for (const char* name : {"fifo", "zero", "socket"}) {
    TraceCapture trace{"http-server"};
    EXPECT_EQ(get("/" + std::string(name)).wire, cannedReply(404, "Not Found")) << name;
    EXPECT_EQ(trace.errors(), (TraceLines{"http-se[x]unable to find file " + root + "/" + name}));
  }
}

TEST_F(RootTest, PathsOfAnyLength) {
  TraceCapture trace;
  for (const size_t length : {200u, 255u, 256u, 4000u, 4080u, 4096u, 5000u, 20000u}) {
    const unsigned status = get("/" + std::string(length, 'a')).status();
    EXPECT_TRUE(status == 404 || status == 400) << length << ": " << status;
  }
  // A path that would name a file if it were cut at some length.
  std::string path = "/";
  while (path.size() < 5000) path += "./";
  EXPECT_NE(get(path + "index.html").status(), 0u);
}

TEST_F(RootTest, UnreadableFile) {
  const std::string path = folder.file("www/private.txt", "private");
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
  TraceCapture trace{"http-server"};
  setfsuid(65534);  // the superuser may read everything
  const WireReply reply = get("/private.txt");
  setfsuid(getuid());
  EXPECT_EQ(reply.wire, cannedReply(404, "Not Found"));
  EXPECT_EQ(result, -1);
  EXPECT_EQ(trace.errors(), (TraceLines{"http-se[x]unable to open path " + path + ": Permission denied",
                                        "http-se[x]unable to send file"}));
}

// The page that tells of the failure is neither compressed nor of the type of the file.
TEST_F(RootTest, UnreadableCompressedFile) {
  const std::string path = folder.file("www/private.css.gz", "private");
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
  TraceCapture trace;
  setfsuid(65534);
  const WireReply reply = get("/private.css");
  setfsuid(getuid());
  EXPECT_EQ(reply.status(), 404u);
  EXPECT_FALSE(reply.has("Content-Encoding"));
  EXPECT_EQ(reply.header("Content-Type"), "text/html");
}

TEST_F(RootTest, FilesThatComeAndGoAreServedWholeOrNotAtAll) {
  std::atomic<bool> stop = false;
  std::thread renaming([&] {
    while (!stop) {
      rename(folder.at("www/sub").c_str(), folder.at("www/gone").c_str());
      rename(folder.at("www/gone").c_str(), folder.at("www/sub").c_str());
    }
  });
  TraceCapture trace;
  for (int i = 0; i < 300; ++i) {
    const WireReply reply = get("/sub/a.css");
    EXPECT_TRUE((reply.status() == 200 && reply.body == "a") || reply.status() == 404 || reply.status() == 400)
        << reply.wire;
  }
  stop = true;
  renaming.join();
}

// --- traces ----------------------------------------------------------------------------------------------------------

TEST_F(RootTest, TracesOfAFile) {
  struct stat status = {};
  ASSERT_EQ(stat(folder.at("www/sub/a.css").c_str(), &status), 0);
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send("GET /sub/a.css HTTP/1.1\r\n\r\n");
  const std::string expected = "HTTP/1.1 200 OK\r\nContent-Type: text/css; charset=utf-8\r\nContent-Length: 1\r\n\r\na";
  ASSERT_TRUE(until([&] { return client.received() == expected; })) << client.received();
  settle();
  TraceLines lines = serverLines(trace);
  for (std::string& line : lines)
    if (line.rfind("[n]sending file descriptor ", 0) == 0) line = "[n]sending file descriptor *";
  EXPECT_EQ(lines, joined({accepted(),
                           headRead(0),
                           {"[n]sending static file", "[n]checking for availability of " + root + "/sub/a.css.gz",
                            "[n]checking for availability of " + root + "/sub/a.css",
                            "[n]sending file " + folder.at("www/sub/a.css"), "[n]sending file descriptor *",
                            "[n]fd is backed by a file (" + std::to_string(status.st_ino) + "), Content-Length: 1"},
                           requestDone(expected.size() - 1, 2),
                           {"[n]connection output buffer is empty (#)", "[n]reply header sent, sending body"},
                           {"[i]sending static file", "[n]detecting send method", "[n]trying send file",
                            "[n]using sendfile to send fd", "[n]static file sent"},
                           replyDone(),
                           keptOpen()}));
}

TEST_F(RootTest, TracesOfTheSearch) {
  folder.file("www/d.gz/x", "");
  folder.file("www/e.css.gz", "");
  struct Row {
    const char* target;
    const char* headers;
    TraceLines lines;
  };
  const std::string checking = "http-se[n]checking for availability of " + root;
  const Row rows[] = {
      {"/",
       "",
       {checking + "/.gz", checking + "/", "http-se[n]asking for a directory, checking for index.html",
        checking + "//index.html"}},
      {"/d",
       "",
       {checking + "/d.gz", "http-se[n]asking for a directory, checking for index.html.gz",
        checking + "/d.gz/index.html.gz", checking + "/d"}},
      {"/e.css", "", {checking + "/e.css.gz", "http-se[n]serving gzipped file"}},
      {"/e.css", kIe6, {"http-se[n]cannot serve gzipped file to ie6 (too buggy)", checking + "/e.css"}},
      {"/none", "", {checking + "/none.gz", checking + "/none"}},
  };
  for (const Row& row : rows) {
    TraceCapture trace{"http-server"};
    get(row.target, row.headers);
    const TraceLines said = trace.said();
    const auto from = std::find(said.begin(), said.end(), "http-se[n]sending static file") + 1;
    const auto to = std::find_if(from, said.end(), [](const std::string& line) {
      return line.rfind("http-se[n]sending file ", 0) == 0 || line.find("REQUEST_RECEIVED") != std::string::npos;
    });
    EXPECT_EQ(TraceLines(from, to), row.lines) << row.target << " " << row.headers;
  }
}

// --- the calls below -------------------------------------------------------------------------------------------------

TEST_F(RootTest, SendFileOfAMissingPath) {
  onRequest = [&](HttpRequest*, HttpReply* reply) {
    result = http_serverSendFile(reply, folder.at("missing").c_str());
    return 0;
  };
  TraceCapture trace{"http-server"};
  EXPECT_EQ(get("/").wire, cannedReply(404, "Not Found"));
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(trace.has("http-se[n]sending file " + folder.at("missing")));
  EXPECT_EQ(trace.errors(),
            (TraceLines{"http-se[x]unable to open path " + folder.at("missing") + ": No such file or directory"}));
}

TEST_F(RootTest, SendFileWithHeadersOfTheApplication) {
  onRequest = [&](HttpRequest*, HttpReply* reply) {
    http_replyStatusCodeSet(reply, 203, nullptr);
    http_replyHeaderValueSet(reply, "X-Own", "yes");
    result = http_serverSendFile(reply, folder.at("secret.txt").c_str());
    return 0;
  };
  EXPECT_EQ(get("/").wire,
            "HTTP/1.1 203 Non-Authoritative Information\r\nX-Own: yes\r\nContent-Length: 6\r\n\r\nsecret");
  EXPECT_EQ(result, 0);
}

// A file is sent from its beginning, wherever the descriptor stands, and belongs to the server.
TEST_F(RootTest, SendFdOfAFileInItsMiddle) {
  int fd = -1;
  descriptor = [&] {
    fd = open(folder.at("secret.txt").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(lseek(fd, 3, SEEK_SET), 3);
    return fd;
  };
  for (withoutSendfile = false;; withoutSendfile = true) {
    EXPECT_EQ(get("/").wire, "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nsecret");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    if (withoutSendfile) break;
  }
}

// --- sizes -----------------------------------------------------------------------------------------------------------

struct SizeCase {
  const char* name;
  size_t size;
  bool withoutSendfile;
};
void PrintTo(const SizeCase& row, std::ostream* out) { *out << row.name; }
constexpr SizeCase kSizes[] = {
    {"Empty", 0, false},         {"EmptyCopied", 0, true},
    {"One", 1, false},           {"OneCopied", 1, true},
    {"Step", 4096, false},       {"StepCopied", 4096, true},
    {"StepAndOne", 4097, false}, {"StepAndOneCopied", 4097, true},
    {"Large", 5000000, false},   {"LargeCopied", 5000000, true},
};
class SizeTest : public FileTest, public ::testing::WithParamInterface<SizeCase> {};
INSTANTIATE_TEST_SUITE_P(File, SizeTest, ::testing::ValuesIn(kSizes),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(SizeTest, ArrivesWholeAndTheConnectionStaysInStep) {
  withoutSendfile = GetParam().withoutSendfile;
  const std::string content = pattern(GetParam().size);
  folder.file("a", content);
  listen();
  TraceCapture trace{"http-server"};
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\nGET /a HTTP/1.1\r\n\r\n");
  const std::string once =
      "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(content.size()) + "\r\n\r\n" + content;
  ASSERT_TRUE(until([&] { return client.receivedCount() >= 2 * once.size(); })) << client.receivedCount();
  settle();
  EXPECT_TRUE(client.received() == once + once);
  EXPECT_EQ(callsOf("done"), 2u);
  EXPECT_FALSE(client.ended());
  EXPECT_TRUE(
      trace.has(withoutSendfile ? "http-se[n]using buffer copy to send fd" : "http-se[n]using sendfile to send fd"));
  EXPECT_EQ(trace.has("http-se[n]trying send file"), !withoutSendfile);
  EXPECT_EQ(trace.errors(), TraceLines{});
}

// The socket is full again and again, and taken from a little at a time.
TEST_P(SizeTest, ArrivesWholeAtASlowReader) {
  withoutSendfile = GetParam().withoutSendfile;
  const std::string content = pattern(GetParam().size);
  folder.file("a", content);
  listen();
  TraceCapture trace{"http-server"};
  WireClient client(address(), {.receiveBuffer = 4096});
  client.readAtMost(0);
  client.send("GET /a HTTP/1.1\r\n\r\nGET /a HTTP/1.1\r\nConnection: close\r\n\r\n");
  settle();
  const size_t linesWhileFull = trace.lines().size();
  for (int turn = 0; turn < 20; ++turn) zel_loop_turn(0);
  EXPECT_EQ(trace.lines().size(), linesWhileFull) << "something ran although the socket was full";

  client.readAtMost(50000);
  const std::string once =
      "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(content.size()) + "\r\n\r\n" + content;
  ASSERT_TRUE(until([&] { return client.ended(); })) << client.receivedCount();
  EXPECT_TRUE(client.received() == once + once) << client.receivedCount();
  EXPECT_FALSE(client.wasReset());
  if (content.size() > 1000000) {
    EXPECT_TRUE(trace.has("http-se[i]need to send more data for static file"));
  }
}

// Files of more than 4 GiB. Every byte is counted, some are looked at.

struct Mark {
  off_t at;
  std::string_view text;
};
constexpr off_t kHuge = (off_t{1} << 32) + 13;
constexpr Mark kMarks[] = {
    {0, "begin"}, {(off_t{1} << 31) - 2, "two gib"}, {(off_t{1} << 32) - 3, "four gib"}, {kHuge - 4, "last"}};

class HugeTest : public FileTest {
 protected:
  void SetUp() override {
    FileTest::SetUp();
    root = memory_.path() + "/";
    const Descriptor out(open(memory_.file("huge", "").c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(ftruncate(out.get(), kHuge), 0);
    for (const Mark& mark : kMarks)
      ASSERT_EQ(pwrite(out.get(), mark.text.data(), mark.text.size(), mark.at), static_cast<ssize_t>(mark.text.size()));
  }
  const TemporaryFolder memory_{access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp"};  // where holes cost nothing
  const std::string head_ = "HTTP/1.1 200 OK\r\nContent-Length: 4294967309\r\n\r\n";
};

TEST_F(HugeTest, IsAnnouncedWithItsSizeAndBegun) {
  constexpr size_t kEnough = 50 << 20;
  listen();
  std::string begin;
  WireClient client(address());
  client.readInto([&](std::string_view bytes) {
    if (begin.size() < 100) begin += bytes;
  });
  client.send("GET /huge HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(until([&] { return client.receivedCount() >= kEnough; }));
  EXPECT_EQ(begin.substr(0, head_.size() + 5), head_ + "begin");
  EXPECT_FALSE(client.ended());
}

// What the server writes is counted where it leaves the peer.
TEST_F(HugeTest, IsSentToItsLastByte) {
  static off_t written;
  static std::map<off_t, std::string> seen;
  written = -static_cast<off_t>(head_.size());
  seen.clear();
  static const ZelTransport swallowing = {
      plainTransport().read,
      [](ZelPeer*, const void* buffer, size_t length) {
        const std::string_view bytes(static_cast<const char*>(buffer), length);
        for (const Mark& mark : kMarks) {
          const off_t from = std::max(mark.at, written);
          const off_t to =
              std::min<off_t>(mark.at + static_cast<off_t>(mark.text.size()), written + static_cast<off_t>(length));
          if (from < to)
            seen[mark.at] += bytes.substr(static_cast<size_t>(from - written), static_cast<size_t>(to - from));
        }
        written += static_cast<off_t>(length);
        return static_cast<ssize_t>(length);
      },
      plainTransport().peek, 0};
  listen();
  onRequest = [&, send = onRequest](HttpRequest* request, HttpReply* reply) {
    peer_setTransport(http_requestPeer(request), &swallowing);
    return send(request, reply);
  };
  WireClient client(address());
  client.send("GET /huge HTTP/1.1\r\nConnection: close\r\n\r\n");
  EXPECT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(written, kHuge);
  for (const Mark& mark : kMarks) EXPECT_EQ(seen[mark.at], mark.text);
}

// --- sockets that take little at a time ------------------------------------------------------------------------------

struct TrickleCase {
  const char* name;
  size_t most;       // bytes taken at once
  unsigned refuses;  // every so many writes nothing is taken, 0 for never
};
void PrintTo(const TrickleCase& row, std::ostream* out) { *out << row.name; }
constexpr TrickleCase kTrickles[] = {
    {"OneOctet", 1, 0},
    {"OneOctetWithPauses", 1, 2},
    {"SevenOctetsWithPauses", 7, 3},
    {"AllWithPauses", SIZE_MAX, 2},
};
class TrickleTest : public FileTest, public ::testing::WithParamInterface<TrickleCase> {
 protected:
  static ssize_t writeSome(ZelPeer* peer, const void* buffer, size_t length) {
    static unsigned writes;
    if (GetParam().refuses != 0 && ++writes % GetParam().refuses == 0) {
      errno = EAGAIN;
      return -1;
    }
    return plainTransport().write(peer, buffer, std::min(length, GetParam().most));
  }
};
INSTANTIATE_TEST_SUITE_P(File, TrickleTest, ::testing::ValuesIn(kTrickles),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(TrickleTest, NoByteIsLostOrDoubled) {
  static const ZelTransport trickling = {plainTransport().read, writeSome, plainTransport().peek, 0};
  const std::string content = pattern(20000);
  folder.file("file", content);
  listen();
  onRequest = [&, send = onRequest](HttpRequest* request, HttpReply* reply) {
    peer_setTransport(http_requestPeer(request), &trickling);
    const std::string_view path = http_requestPath(request);
    if (path == "/text") return replyText(reply, 200, content);
    if (path == "/page") return http_replyWithDefault(reply, 404);
    return send(request, reply);
  };
  WireClient client(address());
  client.send(
      "GET /text HTTP/1.1\r\n\r\nGET /file HTTP/1.1\r\n\r\nGET /page HTTP/1.1\r\n\r\nGET /file HTTP/1.1\r\n\r\n"
      "GET /text HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); })) << client.receivedCount();
  EXPECT_TRUE(client.received() ==
              okReply(content) + okReply(content) + cannedReply(404, "Not Found") + okReply(content) + okReply(content))
      << client.receivedCount();
  EXPECT_EQ(callsOf("done"), 5u);
}

// --- files that change while they are sent ---------------------------------------------------------------------------

struct ChangeCase {
  const char* name;
  bool withoutSendfile;
};
void PrintTo(const ChangeCase& row, std::ostream* out) { *out << row.name; }
constexpr ChangeCase kChanges[] = {{"Sendfile", false}, {"Copied", true}};
class ChangeTest : public FileTest, public ::testing::WithParamInterface<ChangeCase> {
 protected:
  static constexpr size_t kSize = 8000000;
  const std::string content_ = pattern(kSize);
  const std::string head_ = "HTTP/1.1 200 OK\r\nContent-Length: 8000000\r\n\r\n";

  // A client that has got the first bytes of the file, which cannot all be on their way yet.
  std::unique_ptr<WireClient> begin() {
    withoutSendfile = GetParam().withoutSendfile;
    folder.file("a", content_);
    listen();
    auto client = std::make_unique<WireClient>(address(), WireClient::Options{.receiveBuffer = 4096});
    client->readAtMost(1000);
    client->send("GET /a HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(until([&] { return client->receivedCount() >= 3000; }));
    client->readAtMost(0);
    settle();
    return client;
  }
};
INSTANTIATE_TEST_SUITE_P(File, ChangeTest, ::testing::ValuesIn(kChanges),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(ChangeTest, GrowingFileIsSentAsAnnounced) {
  const auto client = begin();
  {
    const Descriptor out(open(folder.at("a").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    const std::string more(1000000, 'x');
    ASSERT_EQ(write(out.get(), more.data(), more.size()), static_cast<ssize_t>(more.size()));
  }
  folder.file("next", "next");
  client->send("GET /next HTTP/1.1\r\nConnection: close\r\n\r\n");
  client->readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return client->ended(); }));
  EXPECT_TRUE(client->received() == head_ + content_ + okReply("next"))
      << client->receivedCount() << " " << client->received().substr(std::min(client->receivedCount(), kSize));
}

TEST_P(ChangeTest, ShrinkingFileEndsTheConnectionShort) {
  const auto client = begin();
  ASSERT_EQ(truncate(folder.at("a").c_str(), 0), 0);
  client->send("GET /next HTTP/1.1\r\n\r\n");
  client->readAtMost(SIZE_MAX);
  TraceCapture trace;
  ASSERT_TRUE(until([&] { return client->ended(); }));
  EXPECT_LT(client->receivedCount(), kSize);
  EXPECT_TRUE(client->received() == (head_ + content_).substr(0, client->receivedCount()));
  EXPECT_EQ(callsOf("request"), 1u);
  EXPECT_EQ(callsOf("done"), 1u);
  EXPECT_TRUE(until([&] { return http().connectionCount == 0; }));
}

TEST_P(ChangeTest, RemovedFileIsSentWhole) {
  const auto client = begin();
  ASSERT_EQ(unlink(folder.at("a").c_str()), 0);
  client->readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return client->receivedCount() >= head_.size() + kSize; }));
  EXPECT_TRUE(client->received() == head_ + content_);
}

TEST_P(ChangeTest, ClientThatLeavesInTheMiddle) {
  const auto client = begin();
  TraceCapture trace;
  client->leave();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  settle();
  EXPECT_EQ(callsOf("done"), 1u);
  EXPECT_EQ(callsOf("error"), 0u);
  WireClient next(address());  // the process lives
  folder.file("next", "next");
  next.send("GET /next HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(until([&] { return next.received() == okReply("next"); }));
}

TEST_P(ChangeTest, ClientThatResetsInTheMiddle) {
  const auto client = begin();
  TraceCapture trace;
  client->reset();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(callsOf("done"), 1u);
}

TEST_P(ChangeTest, ServerThatStopsInTheMiddle) {
  const auto client = begin();
  http_serverStop(&http());
  client->readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return client->ended(); }));
  EXPECT_TRUE(client->received() == head_ + content_);
  ASSERT_TRUE(until([&] { return callsOf("stopped") > 0; }));
  EXPECT_EQ(calls.back(), "stopped");
}

// A request that comes while the file is being sent waits for its end.
TEST_P(ChangeTest, PipelinedRequestWaits) {
  const auto client = begin();
  client->send("GET /a HTTP/1.1\r\nConnection: close\r\n\r\n");
  settle();
  EXPECT_EQ(callsOf("request"), 1u);
  client->readAtMost(SIZE_MAX);
  ASSERT_TRUE(until([&] { return client->ended(); }));
  EXPECT_TRUE(client->received() == head_ + content_ + head_ + content_);
}

// --- pipes and sockets -----------------------------------------------------------------------------------------------

enum class Kind { Pipe, Socket };
struct StreamCase {
  const char* name;
  Kind kind;
  bool withoutSendfile;
  const char* method;
};
void PrintTo(const StreamCase& row, std::ostream* out) { *out << row.name; }
constexpr StreamCase kStreams[] = {
    {"Pipe", Kind::Pipe, false, "http-se[n]using splice to send fd"},
    {"PipeCopied", Kind::Pipe, true, "http-se[n]using buffer copy to send fd"},
    {"Socket", Kind::Socket, false, nullptr},
    {"SocketCopied", Kind::Socket, true, "http-se[n]using buffer copy to send fd"},
};
class StreamTest : public FileTest, public ::testing::WithParamInterface<StreamCase> {
 protected:
  void SetUp() override {
    FileTest::SetUp();
    withoutSendfile = GetParam().withoutSendfile;
    listen();
    int ends[2];
    if (GetParam().kind == Kind::Pipe) {
      ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    } else {
      ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    }
    writer.reset(ends[1]);
    fcntl(writer.get(), F_SETFL, O_NONBLOCK);
    descriptor = [fd = ends[0]] { return fd; };
  }
  void TearDown() override {
    writer.reset();
    FileTest::TearDown();
  }
  // Writes as much of content as fits.
  size_t feed(std::string_view content) {
    const ssize_t count = write(writer.get(), content.data(), content.size());
    return count < 0 ? 0 : static_cast<size_t>(count);
  }
  const std::string head_ = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n";
  Descriptor writer;
};
INSTANTIATE_TEST_SUITE_P(File, StreamTest, ::testing::ValuesIn(kStreams),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(StreamTest, IsSentToItsEndAndTheConnectionClosed) {
  TraceCapture trace{"http-server"};
  feed("from a stream");
  writer.reset();
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\nGET /b HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), head_ + "from a stream");
  EXPECT_FALSE(client.wasReset());
  EXPECT_EQ(callsOf("request"), 1u);
  EXPECT_EQ(callsOf("done"), 1u);
  EXPECT_TRUE(trace.has("http-se[n]fd is not backed by a file, will close connection on EOF"));
  if (GetParam().method != nullptr) {
    EXPECT_TRUE(trace.has(GetParam().method));
  }
}

TEST_P(StreamTest, EmptyStream) {
  writer.reset();
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), head_);
  EXPECT_EQ(callsOf("done"), 1u);
}

TEST_P(StreamTest, SlowStreamDoesNotKeepTheLoopBusy) {
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.received() == head_; })) << client.received();
  settle();
  feed("first");
  ASSERT_TRUE(until([&] { return client.received() == head_ + "first"; })) << client.received();
  settle();
  feed(" second");
  ASSERT_TRUE(until([&] { return client.received() == head_ + "first second"; })) << client.received();
  settle();
  writer.reset();
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), head_ + "first second");
  EXPECT_EQ(callsOf("done"), 1u);
}

// However slow it is, the processor is asked for little: so many turns of the loop have something to do.
TEST_P(StreamTest, SlowStreamCostsFewTurns) {
  constexpr int kTurns = 20;
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.received() == head_; }));
  settle();
  TraceCapture trace{"http-server"};
  int due = 0;
  for (int turn = 0; turn < kTurns; ++turn) {
    zel_loop_turn(0);
    due += loopIsDue() ? 1 : 0;
  }
  EXPECT_LE(due, kTurns / 4);
  EXPECT_LE(trace.countStarting("http-se[i]sending static file"), static_cast<size_t>(kTurns / 4));
}

// The timer that looks for more is the one that goes on with requests, too.
TEST_P(StreamTest, AnsweredBeforeTheRequestIsWhole) {
  onBody = [](HttpRequest* request, HttpReply*, FILE*) { return http_msgBodyDiscard(&request->message); };
  WireClient client(address());
  client.send("POST /a HTTP/1.1\r\nContent-Length: 6\r\n\r\nab");
  ASSERT_TRUE(until([&] { return client.received() == head_; })) << client.received();
  settle();
  client.send("cd");
  settle();
  feed("first");
  ASSERT_TRUE(until([&] { return client.received() == head_ + "first"; })) << client.received();
  settle();
  client.send("ef");
  settle();
  feed(" second");
  ASSERT_TRUE(until([&] { return client.received() == head_ + "first second"; })) << client.received();
  writer.reset();
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(callsOf("done"), 1u);
}

TEST_P(StreamTest, AnsweredWhileTheRequestIsPaused) {
  HttpRequest* paused = nullptr;
  const auto answer = std::exchange(onRequest, [](HttpRequest*, HttpReply*) { return 0; });
  onBody = [&](HttpRequest* request, HttpReply* reply, FILE*) {
    if (std::exchange(paused, request) == nullptr) {
      http_serverPauseRequest(request);
      return answer(request, reply);
    }
    http_msgBodyDiscard(&request->message);
    return 0;
  };
  WireClient client(address());
  client.send("POST /a HTTP/1.1\r\nContent-Length: 4\r\n\r\nabcd");
  ASSERT_TRUE(until([&] { return client.received() == head_; })) << client.received();
  settle();
  feed("first");
  ASSERT_TRUE(until([&] { return client.received() == head_ + "first"; })) << client.received();
  settle();
  http_serverResumeRequest(paused);
  settle();
  feed(" second");
  writer.reset();
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), head_ + "first second");
  EXPECT_EQ(callsOf("done"), 1u);
}

TEST_P(StreamTest, LargeStreamToASlowReader) {
  const std::string content = pattern(3000000);
  WireClient client(address(), {.receiveBuffer = 4096});
  client.readAtMost(40000);
  client.send("GET /a HTTP/1.1\r\n\r\n");
  size_t fed = 0;
  ASSERT_TRUE(until([&] {
    if (fed < content.size()) fed += feed(std::string_view(content).substr(fed));
    if (fed == content.size()) writer.reset();
    return client.ended();
  })) << fed
      << " fed, received " << client.receivedCount();
  EXPECT_TRUE(client.received() == head_ + content) << client.receivedCount();
}

TEST_P(StreamTest, ClientThatLeavesWhileTheStreamIsSilent) {
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.received() == head_; }));
  client.leave();
  ASSERT_TRUE(until([&] { return http().connectionCount == 0; }));
  EXPECT_EQ(callsOf("done"), 1u);
  settle();
  EXPECT_EQ(feed("nobody"), 0u) << "the server kept the descriptor";
}

TEST_P(StreamTest, ClientThatLeavesWhileTheStreamFlows) {
  TraceCapture trace;
  const std::string content = pattern(1 << 16);
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] {
    feed(content);
    return client.receivedCount() > 200000;
  }));
  client.leave();
  ASSERT_TRUE(until([&] {
    feed(content);
    return http().connectionCount == 0;
  }));
  EXPECT_EQ(callsOf("done"), 1u);
}

TEST_P(StreamTest, ServerThatStopsWaitsForTheEnd) {
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.received() == head_; }));
  http_serverStop(&http());
  settle();
  EXPECT_EQ(callsOf("stopped"), 0u);
  feed("last");
  writer.reset();
  ASSERT_TRUE(until([&] { return callsOf("stopped") > 0; }));
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), head_ + "last");
}

// --- descriptors that cannot be read ---------------------------------------------------------------------------------

TEST_F(FileTest, FolderAsADescriptor) {
  descriptor = [&] { return open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); };
  listen();
  TraceCapture trace;
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(), "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n");
  settle();
  EXPECT_EQ(http().connectionCount, 0);
}

TEST_F(FileTest, ClosedDescriptor) {
  descriptor = [] { return 9999; };
  listen();
  TraceCapture trace;
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(http().connectionCount, 0);
}

// --- files from other places than the request handler ----------------------------------------------------------------

TEST_F(FileTest, FromATimer) {
  const std::string content = pattern(100000);
  folder.file("a", content);
  listen();
  const auto send = onRequest;
  onRequest = [&](HttpRequest* request, HttpReply* reply) {
    later(5, [&, request, reply] { send(request, reply); });
    return 0;
  };
  WireClient client(address());
  client.send("GET /a HTTP/1.1\r\n\r\nGET /a HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_TRUE(client.received() == okReply(content) + okReply(content)) << client.receivedCount();
}

TEST_F(FileTest, FromTheBodyHandler) {
  const std::string content = pattern(100000);
  folder.file("a", content);
  listen();
  onBody = [send = onRequest](HttpRequest* request, HttpReply* reply, FILE* stream) {
    readBody(stream);
    return http_requestState(request) == HTTP_MSG_DONE ? send(request, reply) : 0;
  };
  onRequest = [](HttpRequest*, HttpReply*) { return 0; };
  WireClient client(address());
  client.send("POST /a HTTP/1.1\r\nContent-Length: 4\r\n\r\nab");
  settle();
  client.send("cdPOST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n1\r\nx\r\n0\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_TRUE(client.received() == okReply(content) + okReply(content)) << client.receivedCount();
}

// The file has left before the request has come in.
TEST_F(FileTest, WhileTheBodyIsStillToCome) {
  const std::string content = pattern(100000);
  folder.file("a", content);
  listen();
  onBody = [](HttpRequest*, HttpReply*, FILE* stream) {
    readBody(stream);
    return 0;
  };
  WireClient client(address());
  client.send("POST /a HTTP/1.1\r\nContent-Length: 4\r\n\r\nab");
  settle();
  client.send("cdGET /a HTTP/1.1\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_TRUE(client.received() == okReply(content) + okReply(content)) << client.receivedCount();
}

TEST_F(FileTest, Http10) {
  folder.file("a.html", "hello");
  listen();
  WireClient client(address());
  client.send("GET /a.html HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
  ASSERT_TRUE(until([&] { return client.ended(); }));
  EXPECT_EQ(client.received(),
            "HTTP/1.0 200 OK\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: 5\r\n\r\nhello");
}

TEST_F(FileTest, OverAUnixSocket) {
  const std::string content = pattern(2000000);
  folder.file("a", content);
  listenLocally();
  TraceCapture trace;
  for (withoutSendfile = false;; withoutSendfile = true) {
    WireClient client(address());
    client.readAtMost(100000);
    client.send("GET /a HTTP/1.1\r\nConnection: close\r\n\r\n");
    ASSERT_TRUE(until([&] { return client.ended(); }));
    EXPECT_TRUE(client.received() == okReply(content)) << client.receivedCount();
    if (withoutSendfile) break;
  }
}

}  // namespace
