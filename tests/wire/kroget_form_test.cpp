// Forms that kroget sends: their bytes on the wire, the files in them, and what is done when one has to be sent again.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "support/wire_kroget.h"

namespace {

// What is sent is written with "{T}" for the address of the target, "{B}" for the boundary and "{D}" for the folder.

const std::string kUsual = "User-Agent: kroget/" KROGET_VERSION "\r\nAccept: */*\r\n";

// One part of a form.
std::string part(const std::string& head, const std::string& content) {
  return "--{B}\r\nContent-Disposition: form-data; " + head + "\r\n\r\n" + content + "\r\n";
}
std::string field(const std::string& name, const std::string& value) { return part("name=\"" + name + "\"", value); }
std::string file(const std::string& filename, const std::string& type, const std::string& content) {
  return part("name=\"f\"; filename=\"" + filename + "\"\r\nContent-Type: " + type, content);
}
std::string form(const std::string& parts) { return parts + "--{B}--\r\n"; }

// The boundary that a request announces; empty when it is not one of kroget's.
std::string boundaryOf(const WireRequest& request) {
  static const std::regex pattern("multipart/form-data; boundary=(kroget-form-[0-9a-v]{32})");
  const std::string type = request.header("Content-Type");
  std::smatch match;
  EXPECT_TRUE(std::regex_match(type, match, pattern)) << type;
  return match[1];
}
std::string bodyOf(const WireRequest& request) { return replaced(request.body, boundaryOf(request), "{B}"); }

std::string redirect(unsigned status, const std::string& location) {
  return textReply(status, "Moved", "moved", "1.1", "Location: " + location + "\r\n");
}
std::string asking(const std::string& challenge) {
  return textReply(401, "Unauthorized", "who?", "1.1", "WWW-Authenticate: " + challenge + "\r\n");
}
const std::string kDigest = R"(Digest realm="r", nonce="n")";
const std::string kUrl = "http://{T}/x: ";

class KrogetFormTest : public ::testing::Test {
 protected:
  void SetUp() override { alarm(100); }
  void TearDown() override { alarm(0); }

  Arguments inFolder(Arguments arguments) const {
    for (std::string& argument : arguments) argument = replaced(argument, "{D}", folder.path());
    return arguments;
  }
  // What kroget makes of this, its forms going to {T}/x.
  Ended send(Arguments arguments) {
    arguments.push_back("{T}/x");
    return run(inFolder(arguments), &target);
  }
  // The same, in a shell command where "$@" is kroget.
  Ended sendInShell(const std::string& command, Arguments arguments) {
    arguments.push_back("{T}/x");
    return runInShell(replaced(command, "{D}", folder.path()), inFolder(arguments), &target);
  }
  std::vector<WireRequest> requests(size_t connection = 0) { return target.connection(connection).requests(); }
  // Everything the target has received on its only connection.
  std::string received() { return replaced(target.connection(0).received(), authority(target), "{T}"); }

  // Slow enough to be asked something before it has taken a large file.
  WireTarget target{WireAddress::tcp(0), {.receiveBuffer = 65536, .readAtMost = 65536}};
  TemporaryFolder folder;
};

// --- what is sent ----------------------------------------------------------------------------------------------------

const std::string kBinary("\0\r\n--\xff\n\r\x1a", 9);

struct FormCase {
  const char* name;
  Arguments arguments;
  std::string parts;
  std::string method = "POST";
};
void PrintTo(const FormCase& row, std::ostream* out) { *out << row.name; }
const FormCase kForms[] = {
    {"Field", {"-F", "a=b"}, field("a", "b")},
    {"LongOption", {"--form", "a=b"}, field("a", "b")},
    {"LongOptionInOneWord", {"--form=a=b"}, field("a", "b")},
    {"ShortOptionInOneWord", {"-Fa=b"}, field("a", "b")},
    {"FieldsInTheirOrder",
     {"-F", "b=1", "--form-string", "a=2", "-F", "c=3", "--form-string", "a=4"},
     field("b", "1") + field("a", "2") + field("c", "3") + field("a", "4")},
    {"EmptyValue", {"-F", "a="}, field("a", "")},
    {"EqualsInValue", {"-F", "a=b=c="}, field("a", "b=c=")},
    {"LineEndsInValue", {"-F", "a=\r\nb\n\r"}, field("a", "\r\nb\n\r")},
    {"Utf8InValue", {"-F", "a=\xc3\xbc\xf0\x9f\x98\x80"}, field("a", "\xc3\xbc\xf0\x9f\x98\x80")},
    {"QuotesInValue", {"-F", "a=\"b\\\"%22"}, field("a", "\"b\\\"%22")},
    {"ValueWithATypeIsText", {"-F", "a=b;type=c/d;filename=e"}, field("a", "b;type=c/d;filename=e")},
    {"MarksInsideAValue", {"-F", "a=b@c<d"}, field("a", "b@c<d")},
    {"BracketsAroundAll", {"-F", "[a=b]", "-F", "{c=d,e}"}, field("[a", "b]") + field("{c", "d,e}")},
    {"OptionAsValue", {"-F", "-a=b", "-F", "--c=d"}, field("-a", "b") + field("--c", "d")},
    {"StringWithMarks", {"--form-string", "a=@/etc", "--form-string", "b=<c"}, field("a", "@/etc") + field("b", "<c")},
    {"StringWithoutValue", {"--form-string", "a="}, field("a", "")},
    {"QuotesInName", {"-F", "\"a\"\"=b"}, field("%22a%22%22", "b")},
    {"LineEndsInName", {"-F", "a\r\nb\nc\r=d"}, field("a%0D%0Ab%0Ac%0D", "d")},
    {"Utf8InName", {"-F", "\xc3\xbc=b"}, field("\xc3\xbc", "b")},
    {"OthersInName", {"-F", "a%22\\'; x\t&=b"}, field("a%22\\'; x\t&", "b")},
    {"File", {"-F", "f=@{D}/note.txt"}, file("note.txt", "text/plain", "text")},
    {"FileWithoutSuffix", {"-F", "f=@{D}/data"}, file("data", "application/octet-stream", kBinary)},
    {"EmptyFile", {"-F", "f=@{D}/empty"}, file("empty", "application/octet-stream", "")},
    {"OtherField",
     {"-F", "g=@{D}/note.txt"},
     part("name=\"g\"; filename=\"note.txt\"\r\nContent-Type: text/plain", "text")},
    {"DotsInTheFolder", {"-F", "f=@{D}/a.txt/page"}, file("page", "application/octet-stream", "<p>")},
    {"SuffixAlone", {"-F", "f=@{D}/.png"}, file(".png", "image/png", "png")},
    {"FilesAndFields",
     {"-F", "a=1", "-F", "f=@{D}/note.txt", "-F", "f=@{D}/empty", "-F", "b=2", "-F", "f=@{D}/data"},
     field("a", "1") + file("note.txt", "text/plain", "text") + file("empty", "application/octet-stream", "") +
         field("b", "2") + file("data", "application/octet-stream", kBinary)},
    {"SameFileTwice",
     {"-F", "f=@{D}/note.txt", "-F", "f=@{D}/note.txt"},
     file("note.txt", "text/plain", "text") + file("note.txt", "text/plain", "text")},
    {"Type", {"-F", "f=@{D}/note.txt;type=a/b"}, file("note.txt", "a/b", "text")},
    {"TypeWithParameters",
     {"-F", "f=@{D}/note.txt;type=text/plain; charset=utf-8;x=\"y\""},
     file("note.txt", "text/plain; charset=utf-8;x=\"y\"", "text")},
    {"Filename", {"-F", "f=@{D}/data;filename=c/d.PnG"}, file("c/d.PnG", "image/png", kBinary)},
    {"FilenameWithoutSuffix", {"-F", "f=@{D}/note.txt;filename=x"}, file("x", "application/octet-stream", "text")},
    {"EmptyFilename", {"-F", "f=@{D}/note.txt;filename="}, file("", "application/octet-stream", "text")},
    {"TypeThenFilename", {"-F", "f=@{D}/data;type=a/b;filename=c.txt"}, file("c.txt", "a/b", kBinary)},
    {"FilenameThenType", {"-F", "f=@{D}/data;filename=c.txt;type=a/b"}, file("c.txt", "a/b", kBinary)},
    {"QuotesInFilename", {"-F", "f=@{D}/data;filename=a\"b"}, file("a%22b", "application/octet-stream", kBinary)},
    {"LineEndsInFilename",
     {"-F", "f=@{D}/data;filename=a\r\nX: b\n"},
     file("a%0D%0AX: b%0A", "application/octet-stream", kBinary)},
    {"OthersInFilename",
     {"-F", "f=@{D}/data;filename=\xc3\xbc;\\%22=.gz"},
     file("\xc3\xbc;\\%22=.gz", "application/gzip", kBinary)},
    {"OddPath", {"-F", "f=@{D}/o\"d\n\xc3\xbc;d.html"}, file("o%22d%0A\xc3\xbc;d.html", "text/html", "odd")},
    {"PathInQuotes",
     {"-F", "f=@\"{D}/a;type=b\\\"\\\\\\c\""},
     file("a;type=b%22\\\\c", "application/octet-stream", "q")},
    {"AllInQuotes",
     {"-F", R"(f=@"{D}/data";type="a/b;x=;filename=";filename="c;type=\"d\"")"},
     file("c;type=%22d%22", "a/b;x=;filename=", kBinary)},
    {"FieldFromFile", {"-F", "a=<{D}/note.txt"}, field("a", "text")},
    {"FieldFromEmptyFile", {"-F", "a=<{D}/empty"}, field("a", "")},
    {"FieldFromFileWithType",
     {"-F", "a=<{D}/note.txt;type=application/json"},
     part("name=\"a\"\r\nContent-Type: application/json", "text")},
    {"FieldFromFileWithFilename",
     {"-F", "f=<{D}/data;filename=x.txt"},
     part("name=\"f\"; filename=\"x.txt\"", kBinary)},
    {"Put", {"-F", "a=b", "-X", "PUT"}, field("a", "b"), "PUT"},
    {"OtherMethod", {"-X", "STORE", "-F", "a=b"}, field("a", "b"), "STORE"},
};
class KrogetFormBytesTest : public KrogetFormTest, public ::testing::WithParamInterface<FormCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetFormBytesTest, ::testing::ValuesIn(kForms),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetFormBytesTest, AreSentExactly) {
  folder.file("note.txt", "text");
  folder.file("data", kBinary);
  folder.file("empty", "");
  folder.file("a.txt/page", "<p>");
  folder.file(".png", "png");
  folder.file("o\"d\n\xc3\xbc;d.html", "odd");
  folder.file("a;type=b\"\\\\c", "q");
  target.always(answering(okReply("stored")));
  EXPECT_EQ(send(GetParam().arguments), succeeded("stored"));
  ASSERT_EQ(target.count(), 1u);
  const std::vector<WireRequest> all = requests();
  ASSERT_EQ(all.size(), 1u);
  const std::string boundary = boundaryOf(all[0]);
  const std::string body = replaced(form(GetParam().parts), "{B}", boundary);
  EXPECT_EQ(received(), GetParam().method + " /x HTTP/1.1\r\nHost: {T}\r\n" + kUsual +
                            "Content-Type: multipart/form-data; boundary=" + boundary +
                            "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

struct TypeCase {
  std::string suffix;
  std::string type;
};
const TypeCase kTypes[] = {
    {".bmp", "image/bmp"},
    {".css", "text/css"},
    {".csv", "text/csv"},
    {".gif", "image/gif"},
    {".gz", "application/gzip"},
    {".tar.gz", "application/gzip"},
    {".htm", "text/html"},
    {".html", "text/html"},
    {".HTML", "text/html"},
    {".jpeg", "image/jpeg"},
    {".jpg", "image/jpeg"},
    {".js", "text/javascript"},
    {".json", "application/json"},
    {".log", "text/plain"},
    {".md", "text/markdown"},
    {".mp3", "audio/mpeg"},
    {".mp4", "video/mp4"},
    {".pdf", "application/pdf"},
    {".png", "image/png"},
    {".svg", "image/svg+xml"},
    {".tar", "application/x-tar"},
    {".txt", "text/plain"},
    {".wav", "audio/wav"},
    {".webp", "image/webp"},
    {".xml", "application/xml"},
    {".zip", "application/zip"},
    {".zipp", "application/octet-stream"},
    {"txt", "application/octet-stream"},
    {".", "application/octet-stream"},
};

TEST_F(KrogetFormTest, TypesBySuffix) {
  Arguments arguments;
  std::string parts;
  for (const TypeCase& row : kTypes) {
    folder.file("x" + row.suffix, "");
    arguments.insert(arguments.end(), {"-F", "f=@{D}/x" + row.suffix});
    parts += file("x" + row.suffix, row.type, "");
  }
  target.always(answering(okReply("")));
  EXPECT_EQ(send(arguments), succeeded());
  EXPECT_EQ(bodyOf(requests().at(0)), form(parts));
}

// All sizes around those of the blocks that are read.
TEST_F(KrogetFormTest, FilesOfManySizes) {
  Arguments arguments;
  std::string parts;
  for (const size_t size : {1, 65535, 65536, 65537, 1 << 20, 131072, 3}) {
    const std::string name = std::to_string(size);
    folder.file(name, pattern(size));
    arguments.insert(arguments.end(), {"-F", "f=@{D}/" + name});
    parts += file(name, "application/octet-stream", pattern(size));
  }
  target.always(answering(okReply("")));
  EXPECT_EQ(send(arguments), succeeded());
  ASSERT_EQ(target.requests(), 1u);
  EXPECT_TRUE(bodyOf(requests().at(0)) == form(parts));
  EXPECT_EQ(requests().at(0).header("Content-Length"), std::to_string(requests().at(0).body.size()));
}

TEST_F(KrogetFormTest, BoundaryIsAnotherOneEachTime) {
  target.always(answering(okReply("")));
  EXPECT_EQ(send({"-F", "a=b"}), succeeded());
  EXPECT_EQ(send({"-F", "a=b"}), succeeded());
  EXPECT_NE(boundaryOf(requests(0).at(0)), boundaryOf(requests(1).at(0)));
}

TEST_F(KrogetFormTest, EachUrlGetsTheForm) {
  folder.file("note.txt", "text");
  target.always(answering(okReply("ok")));
  EXPECT_EQ(send({"-F", "f=@{D}/note.txt", "-F", "a=b", "{T}/y"}), succeeded("okok"));
  ASSERT_EQ(target.requests(), 2u);
  const std::string body = form(file("note.txt", "text/plain", "text") + field("a", "b"));
  EXPECT_EQ(bodyOf(requests().at(0)), body);
  EXPECT_EQ(bodyOf(requests().at(1)), body);
}

TEST_F(KrogetFormTest, VerboseTellsTheHeadAlone) {
  target.always(answering(okReply("")));
  Ended ended = send({"-v", "-F", "a=b"});
  const WireRequest sent = requests().at(0);
  ended.errors = replaced(ended.errors, boundaryOf(sent), "{B}");
  EXPECT_EQ(ended, (Ended{"exit 0", "",
                          "* connecting to {T}\n> POST /x HTTP/1.1\n> Host: {T}\n> User-Agent: kroget/" KROGET_VERSION
                          "\n> Accept: */*\n> Content-Type: multipart/form-data; boundary={B}\n> Content-Length: " +
                              std::to_string(sent.body.size()) + "\n>\n< HTTP/1.1 200 OK\n< Content-Length: 0\n<\n"}));
}

// --- files whose length nobody knows ---------------------------------------------------------------------------------

struct ChunkedCase {
  const char* name;
  const char* command;
  Arguments arguments;
  std::string parts;
};
void PrintTo(const ChunkedCase& row, std::ostream* out) { *out << row.name; }
const std::string kUnknown = "application/octet-stream";
const std::string kLarge = pattern(200000);
const ChunkedCase kChunked[] = {
    {"Pipe", "cat {D}/note.txt | \"$@\"", {"-F", "f=@-"}, file("-", kUnknown, "text")},
    {"LargePipe", "cat {D}/large | \"$@\"", {"-F", "f=@-"}, file("-", kUnknown, kLarge)},
    {"SlowPipe",
     "(cat {D}/note.txt; sleep 0.1; cat {D}/note.txt) | \"$@\"",
     {"-F", "f=@-"},
     file("-", kUnknown, "texttext")},
    {"LatePipe", "(sleep 0.1; cat {D}/note.txt) | \"$@\"", {"-F", "f=@-"}, file("-", kUnknown, "text")},
    {"EmptyPipe", "true | \"$@\"", {"-F", "f=@-"}, file("-", kUnknown, "")},
    {"StandardInput", "\"$@\" < {D}/note.txt", {"-F", "f=@-"}, file("-", kUnknown, "text")},
    {"NamedAndTyped",
     "cat {D}/note.txt | \"$@\"",
     {"-F", "f=@-;filename=a.csv", "-F", "g=b"},
     file("a.csv", "text/csv", "text") + field("g", "b")},
    {"FieldFromPipe", "cat {D}/note.txt | \"$@\"", {"-F", "a=<-"}, field("a", "text")},
    {"BetweenOthers",
     "cat {D}/large | \"$@\"",
     {"-F", "a=b", "-F", "f=@{D}/note.txt", "-F", "f=@-", "-F", "f=@{D}/large", "-F", "c=d"},
     field("a", "b") + file("note.txt", "text/plain", "text") + file("-", kUnknown, kLarge) +
         file("large", kUnknown, kLarge) + field("c", "d")},
    {"NamedPipe",
     "mkfifo {D}/fifo && (cat {D}/note.txt > {D}/fifo & \"$@\"; wait)",
     {"-F", "f=@{D}/fifo"},
     file("fifo", kUnknown, "text")},
    {"Device", "\"$@\"", {"-F", "f=@/dev/null"}, file("null", kUnknown, "")},
};
class KrogetChunkedFormTest : public KrogetFormTest, public ::testing::WithParamInterface<ChunkedCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetChunkedFormTest, ::testing::ValuesIn(kChunked),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetChunkedFormTest, ArrivesWhole) {
  folder.file("note.txt", "text");
  folder.file("large", kLarge);
  target.always(answering(okReply("stored")));
  EXPECT_EQ(sendInShell(GetParam().command, GetParam().arguments), succeeded("stored"));
  ASSERT_EQ(target.requests(), 1u);
  const WireRequest sent = requests().at(0);
  EXPECT_EQ(sent.line, "POST /x HTTP/1.1");
  EXPECT_EQ(sent.header("Transfer-Encoding"), "chunked");
  EXPECT_FALSE(sent.has("Content-Length"));
  EXPECT_TRUE(bodyOf(sent) == form(GetParam().parts)) << bodyOf(sent).substr(0, 2000);
}

// A source that is never silent for long, and never has much.
struct TrickleCase {
  const char* name;
  Arguments arguments;
};
void PrintTo(const TrickleCase& row, std::ostream* out) { *out << row.name; }
const TrickleCase kTrickles[] = {
    {"Form", {"-F", "f=@-"}},
    {"FieldBeforeIt", {"-F", "a=b", "-F", "f=@-"}},
    {"Upload", {"-T", "-"}},
};
class KrogetTrickleTest : public KrogetFormTest, public ::testing::WithParamInterface<TrickleCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetTrickleTest, ::testing::ValuesIn(kTrickles),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetTrickleTest, DoesNotWaitForMore) {
  target.always(WireScript()
                    .text("y\r\n")
                    .call([&](WireTargetConnection&) { folder.file("enough", ""); })
                    .request()
                    .send(okReply("")));
  EXPECT_EQ(sendInShell("while ! test -e {D}/enough; do printf y; sleep 0.005; done | \"$@\"", GetParam().arguments),
            succeeded());
}

TEST_P(KrogetTrickleTest, DoesNotKeepTimeFromBeingUp) {
  Arguments arguments = GetParam().arguments;
  arguments.insert(arguments.end(), {"--max-time", "0.2"});
  EXPECT_EQ(sendInShell("while printf y 2> /dev/null; do sleep 0.005; done | \"$@\"", arguments),
            failed(5, kUrl + "timed out after 0.2 s"));
}

// --- files that fail -------------------------------------------------------------------------------------------------

struct FormFileCase {
  const char* name;
  Arguments arguments;
  std::string line;
};
void PrintTo(const FormFileCase& row, std::ostream* out) { *out << row.name; }
const FormFileCase kFiles[] = {
    {"Missing", {"-F", "f=@/nonexistent"}, "/nonexistent: No such file or directory"},
    {"MissingField", {"-F", "f=</nonexistent"}, "/nonexistent: No such file or directory"},
    {"MissingBehindOthers",
     {"-F", "a=b", "-F", "f=@/etc/passwd", "-F", "f=@/nonexistent", "-F", "f=@/etc"},
     "/nonexistent: No such file or directory"},
    {"Directory", {"-F", "f=@/etc"}, "/etc: Is a directory"},
    {"DirectoryWithSlash", {"-F", "f=@/etc/"}, "/etc/: Is a directory"},
    {"OtherAttribute", {"-F", "f=@/nonexistent;headers=x"}, "/nonexistent;headers=x: No such file or directory"},
};
class KrogetFormFileTest : public KrogetFormTest, public ::testing::WithParamInterface<FormFileCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetFormFileTest, ::testing::ValuesIn(kFiles),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetFormFileTest, NothingIsSent) {
  EXPECT_EQ(send(GetParam().arguments), failed(9, "cannot read " + GetParam().line));
  target.pump();
  EXPECT_EQ(target.count(), 0u);
}

// A file that becomes shorter is no file of that length, however the end of the form is told.
struct ShorterCase {
  const char* name;
  const char* command;
  Arguments more;
};
void PrintTo(const ShorterCase& row, std::ostream* out) { *out << row.name; }
const ShorterCase kShorter[] = {
    {"WithLength", "\"$@\"", {}},
    {"InChunks", "\"$@\" < /dev/null", {"-F", "g=@-"}},
};
class KrogetShorterTest : public KrogetFormTest, public ::testing::WithParamInterface<ShorterCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetShorterTest, ::testing::ValuesIn(kShorter),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetShorterTest, IsAFailure) {
  const std::string path = folder.file("large", "");
  ASSERT_EQ(truncate(path.c_str(), 256 << 20), 0);
  target.always(WireScript().head().call([&](WireTargetConnection&) { EXPECT_EQ(truncate(path.c_str(), 0), 0); }));
  Arguments arguments = {"-F", "f=@{D}/large", "-F", "last=part"};
  arguments.insert(arguments.end(), GetParam().more.begin(), GetParam().more.end());
  EXPECT_EQ(sendInShell(GetParam().command, arguments),
            failed(9, "cannot read " + path + ": it became shorter while it was sent"));
  EXPECT_TRUE(wait([&] { return target.connection(0).ended(); }));
  // What has arrived does not pass for a form.
  const std::string& bytes = target.connection(0).received();
  EXPECT_EQ(bytes.find("last"), std::string::npos);
  EXPECT_FALSE(bytes.ends_with("\r\n0\r\n\r\n"));
  EXPECT_EQ(requests().at(0).line, "leftover");
}

TEST_F(KrogetFormTest, GrowthIsNotSent) {
  const std::string content = pattern(16 << 20);
  const std::string path = folder.file("large", content);
  target.always(WireScript()
                    .head()
                    .call([&](WireTargetConnection&) { std::ofstream(path, std::ios::app) << "more" << std::flush; })
                    .request()
                    .send(okReply("")));
  EXPECT_EQ(send({"-F", "f=@{D}/large", "-F", "a=b"}), succeeded());
  ASSERT_EQ(contentOf(path).size(), content.size() + 4);
  EXPECT_TRUE(bodyOf(requests().at(0)) == form(file("large", kUnknown, content) + field("a", "b")));
}

// --- again -----------------------------------------------------------------------------------------------------------

const std::string kHalfMiB = pattern(1 << 19);

struct RepeatCase {
  const char* name;
  std::string first;  // what the first request is answered with
  Arguments options;
  std::string second;  // line of the second request
  bool repeated;       // the form, too
};
void PrintTo(const RepeatCase& row, std::ostream* out) { *out << row.name; }
const RepeatCase kRepeats[] = {
    {"Digest", asking(kDigest), {"-u", "a:b"}, "POST /x HTTP/1.1", true},
    {"DigestWithQop", asking(kDigest + ", qop=\"auth\""), {"-u", "a:b"}, "POST /x HTTP/1.1", true},
    {"Basic", asking("Basic realm=\"r\""), {"-u", "a:b"}, "POST /x HTTP/1.1", true},
    {"DigestOfPut", asking(kDigest), {"-u", "a:b", "-X", "PUT"}, "PUT /x HTTP/1.1", true},
    {"Redirect301", redirect(301, "/y"), {"-L"}, "GET /y HTTP/1.1", false},
    {"Redirect302", redirect(302, "/y"), {"-L"}, "GET /y HTTP/1.1", false},
    {"Redirect303", redirect(303, "/y"), {"-L"}, "GET /y HTTP/1.1", false},
    {"Redirect307", redirect(307, "/y"), {"-L"}, "POST /y HTTP/1.1", true},
    {"Redirect308", redirect(308, "/y"), {"-L"}, "POST /y HTTP/1.1", true},
    {"Redirect302OfPut", redirect(302, "/y"), {"-L", "-X", "PUT"}, "PUT /y HTTP/1.1", true},
    {"Redirect303OfPut", redirect(303, "/y"), {"-L", "-X", "PUT"}, "GET /y HTTP/1.1", false},
};
class KrogetRepeatTest : public KrogetFormTest, public ::testing::WithParamInterface<RepeatCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetRepeatTest, ::testing::ValuesIn(kRepeats),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetRepeatTest, SendsTheFormAgainOrNot) {
  folder.file("half", kHalfMiB);
  folder.file("note.txt", "text");
  target.always(WireScript().request().send(GetParam().first).request().send(okReply("there")));
  Arguments arguments = {"-F", "f=@{D}/half", "-F", "a=b", "-F", "f=@{D}/note.txt"};
  arguments.insert(arguments.end(), GetParam().options.begin(), GetParam().options.end());
  EXPECT_EQ(send(arguments), succeeded("there"));
  ASSERT_EQ(target.requests(), 2u);
  const WireRequest first = requests().at(0);
  const WireRequest second = requests().at(1);
  EXPECT_TRUE(bodyOf(first) ==
              form(file("half", kUnknown, kHalfMiB) + field("a", "b") + file("note.txt", "text/plain", "text")));
  EXPECT_EQ(second.line, GetParam().second);
  EXPECT_TRUE(second.body == (GetParam().repeated ? first.body : ""));
  EXPECT_EQ(second.header("Content-Type"), GetParam().repeated ? first.header("Content-Type") : "");
  EXPECT_EQ(second.has("Content-Length"), GetParam().repeated);
  EXPECT_EQ(second.has("Authorization"), GetParam().options[0] == "-u");
}

// What was read from standard input is gone.
struct GoneCase {
  const char* name;
  std::string first;
  Arguments options;
  std::string line;
};
void PrintTo(const GoneCase& row, std::ostream* out) { *out << row.name; }
const GoneCase kGone[] = {
    {"Login", asking(kDigest), {"-u", "a:b"}, kUrl + "401 Unauthorized: standard input cannot be sent a second time"},
    {"Redirect", redirect(307, "/y"), {"-L"}, "cannot read standard input: it cannot be read a second time"},
};
class KrogetGoneTest : public KrogetFormTest, public ::testing::WithParamInterface<GoneCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetGoneTest, ::testing::ValuesIn(kGone),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetGoneTest, IsToldInOneLine) {
  folder.file("note.txt", "text");
  target.always(WireScript().request().send(GetParam().first).request().send(okReply("there")));
  Arguments arguments = {"-F", "f=@{D}/note.txt", "-F", "f=@-"};
  arguments.insert(arguments.end(), GetParam().options.begin(), GetParam().options.end());
  EXPECT_EQ(sendInShell("\"$@\" < {D}/note.txt", arguments), failed(9, GetParam().line));
  EXPECT_EQ(target.requests(), 1u);
}

TEST_F(KrogetFormTest, RedirectDropsWhatIsGone) {
  folder.file("note.txt", "text");
  target.always(WireScript().request().send(redirect(303, "/y")).request().send(okReply("there")));
  EXPECT_EQ(sendInShell("\"$@\" < {D}/note.txt", {"-L", "-F", "f=@-"}), succeeded("there"));
  EXPECT_EQ(requests().at(1).line, "GET /y HTTP/1.1");
}

TEST_F(KrogetFormTest, EarlyRefusalStopsIt) {
  target.always(WireScript()
                    .head()
                    .call([](WireTargetConnection& connection) { connection.readAtMost(0); })
                    .send(textReply(413, "Content Too Large", "no", "1.1", "Connection: close\r\n")));
  folder.file("large", std::string(32 << 20, 'x'));
  EXPECT_EQ(send({"-F", "f=@{D}/large", "-f"}), failed(8, kUrl + "413 Content Too Large"));
  EXPECT_EQ(send({"-F", "f=@{D}/large"}), succeeded("no"));
  EXPECT_LT(target.connection(0).received().size(), 32u << 20);
}

// The first file is in the middle, the second has not been begun.
TEST_F(KrogetFormTest, EarlyChallengeBeginsItAnew) {
  const std::string content = pattern(16 << 20);
  folder.file("large", content);
  folder.file("note.txt", "text");
  target.next(WireScript()
                  .head()
                  .call([](WireTargetConnection& connection) { connection.readAtMost(0); })
                  .send(textReply(401, "Unauthorized", "who?", "1.1",
                                  "WWW-Authenticate: " + kDigest + "\r\nConnection: close\r\n")));
  target.always(answering(okReply("yes")));
  EXPECT_EQ(send({"-u", "a:b", "-F", "f=@{D}/large", "-F", "f=@{D}/note.txt"}), succeeded("yes"));
  ASSERT_EQ(target.count(), 2u);
  EXPECT_TRUE(bodyOf(requests(1).at(0)) ==
              form(file("large", kUnknown, content) + file("note.txt", "text/plain", "text")));
}

// Standard input stands behind a large file: the refusal comes before anything of it was read.
TEST_F(KrogetFormTest, EarlyChallengeSparesStandardInput) {
  const std::string content = pattern(16 << 20);
  folder.file("large", content);
  folder.file("note.txt", "text");
  target.next(WireScript()
                  .head()
                  .call([](WireTargetConnection& connection) { connection.readAtMost(0); })
                  .send(textReply(401, "Unauthorized", "who?", "1.1",
                                  "WWW-Authenticate: " + kDigest + "\r\nConnection: close\r\n")));
  target.always(answering(okReply("yes")));
  EXPECT_EQ(sendInShell("\"$@\" < {D}/note.txt", {"-u", "a:b", "-F", "f=@{D}/large", "-F", "f=@-"}), succeeded("yes"));
  ASSERT_EQ(target.count(), 2u);
  EXPECT_EQ(requests(1).size(), 1u);
  EXPECT_TRUE(target.connection(1).received().ends_with("\r\n0\r\n\r\n"));
  EXPECT_NE(target.connection(1).received().find("filename=\"-\"\r\nContent-Type: application/octet-stream\r\n\r\n"),
            std::string::npos);
}

// A kept connection is closed at the very moment of the next request: only what is safe to repeat is repeated.
TEST_F(KrogetFormTest, KeptConnectionThatIsClosed) {
  folder.file("note.txt", "text");
  const std::string body = form(file("note.txt", "text/plain", "text"));
  target.next(WireScript().request().send(okReply("")).request().leave());
  target.next(answering(okReply("yes")));
  target.next(WireScript().request().send(okReply("")).request().leave());
  EXPECT_EQ(send({"-X", "PUT", "-F", "f=@{D}/note.txt", "{T}/first"}), succeeded("yes"));
  ASSERT_EQ(target.count(), 2u);
  EXPECT_EQ(bodyOf(requests(1).at(0)), body);
  EXPECT_EQ(send({"-F", "f=@{D}/note.txt", "{T}/first"}),
            failed(6, kUrl + "the connection ended before the reply was complete"));
  EXPECT_EQ(target.count(), 3u);
}

// --- the command line ------------------------------------------------------------------------------------------------

struct FormUsageCase {
  const char* name;
  Arguments arguments;
  std::string line;
};
void PrintTo(const FormUsageCase& row, std::ostream* out) { *out << row.name; }
const FormUsageCase kUsage[] = {
    {"NoValue", {"-F", "a"}, "-F 'a': it is not NAME=VALUE"},
    {"NoName", {"-F", "=a"}, "-F '=a': it is not NAME=VALUE"},
    {"NoNameButFile", {"-F", "@a"}, "-F '@a': it is not NAME=VALUE"},
    {"Empty", {"-F", ""}, "-F '': it is not NAME=VALUE"},
    {"ControlsAreEscaped", {"-F", "\x1b\n"}, "-F '\\x1b\\x0a': it is not NAME=VALUE"},
    {"StringWithoutValue", {"--form-string", "a"}, "--form-string 'a': it is not NAME=VALUE"},
    {"StringBehindAForm", {"-F", "a=b", "--form-string", "=b"}, "--form-string '=b': it is not NAME=VALUE"},
    {"NoFile", {"-F", "a=@"}, "-F 'a=@': there is no file in it"},
    {"NoFileButType", {"-F", "a=@;type=b/c"}, "-F 'a=@;type=b/c': there is no file in it"},
    {"NoFileInQuotes", {"-F", "a=<\"\""}, "-F 'a=<\"\"': there is no file in it"},
    {"OpenQuote", {"-F", "a=@\"b"}, "-F 'a=@\"b': a quote is missing at the end"},
    {"QuoteIsEscaped", {"-F", "a=@\"b\\\""}, "-F 'a=@\"b\\\"': a quote is missing at the end"},
    {"OpenQuoteOfFilename", {"-F", "a=@b;filename=\""}, "-F 'a=@b;filename=\"': a quote is missing at the end"},
    {"TextBehindQuotes", {"-F", "a=@\"b\"c"}, "-F 'a=@\"b\"c': neither ;type= nor ;filename= is 'c'"},
    {"OtherBehindQuotes",
     {"-F", "a=@\"b\";name=c"},
     "-F 'a=@\"b\";name=c': neither ;type= nor ;filename= is ';name=c'"},
    {"EmptyType", {"-F", "a=@b;type="}, "-F 'a=@b;type=': '' is no media type"},
    {"TypeWithoutSlash", {"-F", "a=@b;type=c"}, "-F 'a=@b;type=c': 'c' is no media type"},
    {"TypeWithoutSubtype", {"-F", "a=@b;type=c/"}, "-F 'a=@b;type=c/': 'c/' is no media type"},
    {"TypeWithoutMainType", {"-F", "a=@b;type=/c"}, "-F 'a=@b;type=/c': '/c' is no media type"},
    {"TypeWithTwoSlashes", {"-F", "a=@b;type=c/d/e"}, "-F 'a=@b;type=c/d/e': 'c/d/e' is no media type"},
    {"LineFeedInType",
     {"-F", "a=@b;type=c/d;\nX: y"},
     "-F 'a=@b;type=c/d;\\x0aX: y': 'c/d;\\x0aX: y' is no media type"},
    {"TwoTypes", {"-F", "a=@b;type=c/d;type=e/f"}, "-F 'a=@b;type=c/d;type=e/f': there are two types"},
    {"TwoFilenames", {"-F", "a=@b;filename=;filename=c"}, "-F 'a=@b;filename=;filename=c': there are two file names"},
    {"WithData", {"-F", "a=b", "-d", "c"}, "-F and -d exclude each other"},
    {"WithEmptyData", {"--form-string", "a=b", "-d", ""}, "-F and -d exclude each other"},
    {"WithUpload", {"-T", "c", "-F", "a=b"}, "-F and -T exclude each other"},
    {"WithHead", {"-I", "-F", "a=b"}, "-I sends no form: leave -F out"},
    {"WithGet", {"-X", "GET", "-F", "a=b"}, "GET sends no form: leave -F or -X out"},
    {"WithHeadMethod", {"-X", "HEAD", "-F", "a=b"}, "HEAD sends no form: leave -F or -X out"},
    {"WithType", {"-F", "a=b", "-H", "content-type: a/b"}, "-H 'Content-Type': a form has one of its own"},
    {"WithoutType", {"-F", "a=b", "-H", "Content-Type:"}, "-H 'Content-Type': a form has one of its own"},
    {"StandardInputTwice", {"-F", "a=@-", "-F", "b=<-"}, "-F: standard input can be sent only once"},
    {"StandardInputToTwo", {"-F", "a=@-", "y"}, "-F: standard input can be sent to one URL only"},
};
class KrogetFormUsageTest : public ::testing::TestWithParam<FormUsageCase> {};
INSTANTIATE_TEST_SUITE_P(Kroget, KrogetFormUsageTest, ::testing::ValuesIn(kUsage),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_P(KrogetFormUsageTest, IsToldInOneLine) {
  Arguments arguments = GetParam().arguments;
  arguments.push_back("x");
  EXPECT_EQ(run(arguments), failed(2, GetParam().line + " (see kroget --help)"));
}

// A value that looks like standard input is none.
TEST_F(KrogetFormTest, StringIsNoStandardInput) {
  target.always(answering(okReply("ok")));
  EXPECT_EQ(send({"--form-string", "a=@-", "--form-string", "b=-", "-F", "c=-", "{T}/y"}), succeeded("okok"));
  EXPECT_EQ(bodyOf(requests().at(1)), form(field("a", "@-") + field("b", "-") + field("c", "-")));
}

// --- memory ----------------------------------------------------------------------------------------------------------

// The most memory that the process has had, in KiB.
size_t peakOf(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string word;
  size_t peak = 0;
  while (status >> word)
    if (word == "VmHWM:") status >> peak;
  EXPECT_GT(peak, 0u);
  return peak;
}

TEST_F(KrogetFormTest, LargeFilesTakeNoMemory) {
  constexpr size_t kAllowed = 8 * 1024;  // KiB
  folder.file("small", "x");
  ASSERT_EQ(truncate(folder.file("large", "").c_str(), 64 << 20), 0);
  std::vector<size_t> peaks;
  for (const char* path : {"small", "large"}) {
    size_t peak = 0;
    pid_t pid = 0;
    target.next(
        WireScript().request().call([&](WireTargetConnection&) { peak = peakOf(pid); }).send(okReply("all of it")));
    ChildProcess process(commandLine(inFolder({"-F", std::string("f=@{D}/") + path, "{T}/x"}), &target));
    pid = process.pid();
    EXPECT_EQ(waitFor(process, &target), succeeded("all of it"));
    peaks.push_back(peak);
  }
  EXPECT_LT(peaks[1], peaks[0] + kAllowed);
}

// --- with the daemon -------------------------------------------------------------------------------------------------

class KrogetToDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override { alarm(100); }
  void TearDown() override { alarm(0); }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(daemon.address().port) + "/in"; }
  // What the daemon says of a file, by the program that everybody has.
  std::string told(const std::string& name, const std::string& path) const {
    const Ended ended = runInShell("sha256sum < \"$2\"", {path});
    return "{\"name\":\"" + name + "\",\"bytes\":" + std::to_string(std::filesystem::file_size(path)) +
           ",\"sha256\":\"" + ended.output.substr(0, 64) + "\"}";
  }
  std::string stored(const std::string& name) const { return folder.at("in/" + name); }

  TemporaryFolder folder;
  Daemon daemon{{"--listen", "127.0.0.1:0", "--upload", "/in=" + folder.folder("in")}};
};

TEST_F(KrogetToDaemonTest, FilesArriveWhole) {
  const std::string large = folder.file("large.bin", pattern(64 << 20));
  const std::string small = folder.file("small", "a\r\n--b\r\n");
  const std::string empty = folder.file("empty", "");
  EXPECT_EQ(run({"-f", "-F", "a=b", "-F", "f=@" + large, "-F", "f=@" + small, "-F", "g=@" + empty, url()}),
            succeeded("{\"files\":[" + told("large.bin", large) + "," + told("small", small) + "," +
                      told("empty", empty) + "]}\n"));
  EXPECT_TRUE(contentOf(stored("large.bin")) == pattern(64 << 20));
  EXPECT_EQ(contentOf(stored("small")), "a\r\n--b\r\n");
  EXPECT_EQ(namesIn(folder.at("in")), (std::vector<std::string>{"empty", "large.bin", "small"}));
}

TEST_F(KrogetToDaemonTest, PipeArrivesWhole) {
  const std::string large = folder.file("large.bin", pattern(5 << 20));
  EXPECT_EQ(runInShell("cat '" + large + "' | \"$@\"", {"-f", "-F", "f=@-;filename=piped", "-F", "a=b", url()}),
            succeeded("{\"files\":[" + told("piped", large) + "]}\n"));
  EXPECT_TRUE(contentOf(stored("piped")) == pattern(5 << 20));
}

TEST_F(KrogetToDaemonTest, NamesArriveAsTheyAre) {
  const std::string odd = folder.file("o\"d;=\xc3\xbc'$ d.txt", "odd");
  const Ended ended = run({"-f", "-F", "f=@" + odd, url()});
  EXPECT_EQ(ended.outcome, "exit 0") << ended.errors;
  EXPECT_EQ(namesIn(folder.at("in")).size(), 1u);
  EXPECT_EQ(contentOf(stored("o\"d;=\xc3\xbc'$ d.txt")), "odd") << ended.output;
}

}  // namespace
