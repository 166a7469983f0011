#include "subject.h"

#include <dirent.h>
#include <sys/resource.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>

namespace {

// Memory that the allocator keeps although nobody uses it. A sanitizer's gives back little of what it once needed, with
// its shadow; what nobody holds any more it tells when the daemon ends.
constexpr long kKeptMemory = 12 * 1024;
constexpr long kKeptMemorySanitized = 128 * 1024;

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

long field(const std::string& status, const std::string& name) {
  const size_t at = status.find(name + ":");
  return at == std::string::npos ? 0 : atol(status.c_str() + at + name.size() + 1);
}

double processorSeconds(pid_t pid) {
  const std::string text = readAll("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream fields(text.substr(std::min(text.rfind(')') + 1, text.size())));
  std::string word;
  long user = 0;
  long system = 0;
  for (int i = 0; i < 11; ++i) fields >> word;  // from the state to the faults
  fields >> user >> system;
  return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

size_t countDescriptors(pid_t pid) {
  DIR* const folder = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
  if (folder == nullptr) return 0;
  size_t count = 0;
  while (const dirent* const entry = readdir(folder)) count += entry->d_name[0] != '.';
  closedir(folder);
  return count;
}

}  // namespace

Usage usageOf(pid_t pid) {
  const std::string status = readAll("/proc/" + std::to_string(pid) + "/status");
  return {field(status, "VmRSS"), field(status, "VmHWM"), countDescriptors(pid), processorSeconds(pid)};
}

void resetPeak(pid_t pid) { std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << "5"; }

size_t raiseDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  constexpr rlim_t kEnough = 20000;
  limit.rlim_cur = std::min(limit.rlim_max, std::max(limit.rlim_cur, kEnough));
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0) << strerror(errno);
  return static_cast<size_t>(std::min(limit.rlim_cur, kEnough));
}

std::string asText(const Counts& counts) {
  std::string text;
  for (const auto& [name, count] : counts) text += (text.empty() ? "" : ", ") + name + " " + std::to_string(count);
  return text.empty() ? "nothing" : text;
}

bool isSanitized() {
#ifdef __SANITIZE_ADDRESS__
  return true;
#else
  return false;
#endif
}

const std::string& Subject::mebibyte() {
  static const std::string content = pattern(1 << 20);
  return content;
}

Subject::Subject(std::vector<std::string> arguments, Options options) {
  const size_t descriptors = options.descriptors != 0 ? options.descriptors : raiseDescriptors();
  std::vector<std::string> command = {"/bin/sh",
                                      "-c",
                                      "ulimit -S -n \"$0\"; log=$1; shift; exec \"$@\" 2>\"$log\"",
                                      std::to_string(descriptors),
                                      folder_.at("errors"),
                                      KROHTTPD,
                                      "--listen",
                                      "127.0.0.1:0"};
  if (options.site) {
    folder_.file("root/index.html", kIndex);
    folder_.file("root/mebibyte", mebibyte());
    command.insert(command.end(), {"--root", folder_.at("root"), "--demo"});
  }
  command.insert(command.end(), arguments.begin(), arguments.end());
  daemon_ = std::make_unique<Daemon>(Daemon::AsItIs{}, command);
}

Subject::~Subject() { stop(); }

std::string Subject::errors() const { return readAll(folder_.at("errors")); }

void Subject::begin() {
  for (int i = 0; i < 4; ++i) status();  // what is set up once is there now
  size_t fewest = SIZE_MAX;
  for (int i = 0; i < 300; ++i) {  // a connection that ends takes its time
    fewest = std::min(fewest, countDescriptors(pid()));
    poll(nullptr, 0, 1);
  }
  resetPeak(pid());
  before_ = usage();
  mostDescriptors_ = before_.descriptors = fewest;
}

void Subject::look() { mostDescriptors_ = std::max(mostDescriptors_, countDescriptors(pid())); }

std::string Subject::status() {
  WireClient client(daemon_->address());
  client.send("GET /status HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_TRUE(waitUntil([&] { return client.ended(); })) << "/status does not answer";
  size_t at = 0;
  const auto reply = takeReply(client.received(), &at, false, true);
  EXPECT_TRUE(reply && reply->status() == 200) << client.received();
  return reply ? reply->body : "";
}

Counts Subject::refused() {
  const std::string text = status();
  const size_t at = text.find("\"refused\":{");
  EXPECT_NE(at, std::string::npos) << text;
  Counts counts;
  if (at == std::string::npos) return counts;
  static const std::regex pair("\"([a-z-]+)\":([0-9]+)");
  const std::string list = text.substr(at + 11);
  for (std::sregex_iterator found(list.begin(), list.end(), pair), none; found != none; ++found)
    counts[(*found)[1]] = std::stoull((*found)[2]);
  return counts;
}

void Subject::expectReturned() {
  EXPECT_TRUE(waitUntil([&] { return countDescriptors(pid()) == before_.descriptors; }));
  const long margin = isSanitized() ? kKeptMemorySanitized : kKeptMemory;
  waitUntil([&] { return usage().memory <= before_.memory + margin; }, 15);
  const Usage after = usage();
  printf("memory: %ld KiB before, %ld at most, %ld afterwards (up to %ld more is let pass)\n", before_.memory,
         after.peakMemory, after.memory, margin);
  printf("descriptors: %zu before, %zu at most, %zu afterwards\n", before_.descriptors, mostDescriptors_,
         after.descriptors);
  printf("processor: %.2f s\n", after.seconds - before_.seconds);
  EXPECT_EQ(after.descriptors, before_.descriptors);
  EXPECT_LE(after.memory, before_.memory + margin);
}

void Subject::expectSettled() {
  expectReturned();
  EXPECT_NE(status().find("\"connections\":1,"), std::string::npos) << status();
}

void Subject::expectSettled(const Counts& expected) {
  expectSettled();
  const Counts counts = refused();
  printf("refused: %s\n", asText(counts).c_str());
  EXPECT_EQ(asText(counts), asText(expected));
}

void Subject::stop() {
  if (!daemon_) return;
  daemon_.reset();  // checks how it ended
  const std::string said = errors();
  for (const char* word : {"Sanitizer", "runtime error"})
    EXPECT_EQ(said.find(word), std::string::npos)
        << said.substr(said.find(word) - std::min<size_t>(said.find(word), 200), 8000);
}
