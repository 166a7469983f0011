// krohttpd among clients that mean ill: it goes on to serve the others, keeps its memory and descriptors bounded, ends
// those clients by its limits and counts them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "subject.h"
#include "swarm.h"
#include "visitors.h"

namespace {

constexpr size_t kVisitors = 50;

class Abuse : public ::testing::Test {
 protected:
  void SetUp() override { alarm(115); }
  void TearDown() override { alarm(0); }
};

// How many clients there may be: each takes a descriptor here and one in the daemon, which gives half of its own.
size_t affordable(size_t wanted) {
  constexpr size_t kOthers = 200;
  const size_t descriptors = raiseDescriptors();
  const size_t most = descriptors > 4 * kOthers ? descriptors / 2 - kOthers : descriptors / 4;
  if (most >= wanted) return wanted;
  printf("descriptors are short: %zu clients instead of %zu\n", most, wanted);
  return most;
}

// Makes count clients, some at a time, so that the queue of the listening socket has room for all.
std::vector<Client*> gather(Swarm* swarm, size_t count, Client::Options options = {}) {
  constexpr size_t kAtOnce = 200;
  std::vector<Client*> clients;
  while (clients.size() < count) {
    const size_t from = clients.size();
    for (size_t i = from; i < std::min(count, from + kAtOnce); ++i) clients.push_back(swarm->connect(options));
    EXPECT_TRUE(swarm->run(
        [&] {
          return std::all_of(clients.begin() + static_cast<std::ptrdiff_t>(from), clients.end(),
                             [](const Client* client) { return client->connected(); });
        },
        20));
  }
  return clients;
}

size_t countEnded(const std::vector<Client*>& clients) {
  return static_cast<size_t>(
      std::count_if(clients.begin(), clients.end(), [](const Client* client) { return client->ended(); }));
}

// How many clients got this status, by status.
Counts answersOf(const std::vector<Client*>& clients) {
  Counts counts;
  for (const Client* client : clients) {
    const std::string& received = client->received();
    ++counts[received.starts_with("HTTP/1.1 ") ? received.substr(9, 3) : received.empty() ? "none" : "other"];
  }
  return counts;
}

// What the system holds for sockets that nobody has any more.
void printSockets() {
  std::ifstream in("/proc/net/sockstat");
  for (std::string line; std::getline(in, line);)
    if (line.starts_with("TCP:")) printf("%s\n", line.c_str());
}

// --- clients that take their time ------------------------------------------------------------------------------------

// Sends one byte of a head a second, for as long as it is listened to.
class Drip {
 public:
  Drip(Swarm* swarm, Client* client, int delay) : swarm_(swarm), client_(client) { wait(delay); }

 private:
  static constexpr std::string_view kHead = "GET / HTTP/1.1\r\nHost: x\r\nX-Slow: aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";

  void wait(int milliseconds) {
    swarm_->after(milliseconds, [this] { next(); });
  }
  void next() {
    if (client_->over() || client_->receivedCount() > 0) return;
    client_->send(kHead.substr(at_++ % kHead.size(), 1));
    wait(1000);
  }

  Swarm* swarm_;
  Client* client_;
  size_t at_ = 0;
};

std::vector<std::unique_ptr<Drip>> drip(Swarm* swarm, const std::vector<Client*>& clients) {
  std::vector<std::unique_ptr<Drip>> drips;
  for (size_t i = 0; i < clients.size(); ++i)
    drips.push_back(std::make_unique<Drip>(swarm, clients[i], static_cast<int>(i * 1000 / clients.size())));
  return drips;
}

TEST_F(Abuse, SlowHeads) {
  Subject subject({});
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  const std::vector<Client*> slow = gather(&swarm, affordable(2000));
  const auto drips = drip(&swarm, slow);
  swarm.runFor(7);
  subject.look();
  EXPECT_EQ(countEnded(slow), 0u);
  visitors.expectServed("among slow heads");
  swarm.dropAll();
  subject.expectSettled({});
}

TEST_F(Abuse, SlowHeadsWithALimit) {
  Subject subject({"--limit", "head-time=2"});
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  const std::vector<Client*> slow = gather(&swarm, affordable(2000));
  const auto drips = drip(&swarm, slow);
  swarm.runFor(1);
  subject.look();
  EXPECT_TRUE(swarm.run([&] { return countEnded(slow) == slow.size(); }, 20));
  EXPECT_EQ(asText(answersOf(slow)), asText({{"408", slow.size()}}));
  visitors.expectServed("among slow heads that are ended");
  swarm.dropAll();
  subject.expectSettled({{"slow-head", slow.size()}});
}

constexpr std::string_view kGetHello = "GET /hello HTTP/1.1\r\nHost: x\r\n\r\n";
constexpr std::string_view kGetMebibyte = "GET /mebibyte HTTP/1.1\r\nHost: x\r\n\r\n";
constexpr int kSmallBuffer = 4096;

// Their ends do not reach those who do not read: the daemon's counters tell of them.
void expectRefusals(Swarm* swarm, Subject* subject, uint64_t count) {
  constexpr int kLooks = 300;
  uint64_t refused = 0;
  for (int i = 0; i < kLooks && refused < count; ++i) {
    swarm->runFor(0.2);
    refused = 0;
    for (const auto& [reason, number] : subject->refused()) refused += number;
  }
  EXPECT_EQ(refused, count);
}

// The system's own buffers may take all of such a file: the daemon has sent its reply then, and the connection idles.
TEST_F(Abuse, UnreadReplies) {
  Subject subject({"--limit", "stall-time=3", "--limit", "idle-time=3"});
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  const std::vector<Client*> deaf = gather(&swarm, affordable(2000), {.receiveBuffer = kSmallBuffer, .reads = false});
  for (Client* client : deaf) client->send(kGetMebibyte);
  swarm.runFor(1);
  subject.look();
  printSockets();
  expectRefusals(&swarm, &subject, deaf.size());
  printSockets();
  visitors.expectServed("among unread replies");
  swarm.dropAll();
  subject.expectSettled();
  printSockets();
  Counts refused = subject.refused();
  printf("refused: %s\n", asText(refused).c_str());
  EXPECT_EQ(refused["stalled"] + refused["idle"], deaf.size());
}

// Nobody's buffers take all of these.
void expectLargeRepliesEnded(const std::vector<std::string>& limits, const char* reason) {
  Subject subject(limits);
  const std::string large = subject.folder().file("root/large", "");
  EXPECT_EQ(truncate(large.c_str(), 64 << 20), 0) << strerror(errno);
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  const std::vector<Client*> deaf = gather(&swarm, 200, {.receiveBuffer = kSmallBuffer, .reads = false});
  for (Client* client : deaf) client->send("GET /large HTTP/1.1\r\nHost: x\r\n\r\n");
  swarm.runFor(1);
  subject.look();
  expectRefusals(&swarm, &subject, deaf.size());
  visitors.expectServed("among large unread replies");
  swarm.dropAll();
  subject.expectSettled({{reason, deaf.size()}});
}

TEST_F(Abuse, LargeUnreadReplies) { expectLargeRepliesEnded({"--limit", "stall-time=3"}, "stalled"); }

TEST_F(Abuse, LargeUnreadRepliesByTheirRate) {
  expectLargeRepliesEnded({"--limit", "stall-time=0", "--limit", "rate-time=2"}, "slow");
}

// Takes a little at a time.
void sip(Swarm* swarm, Client* client, size_t bytes, int milliseconds) {
  client->readAtMost(bytes);
  client->onReceived = [=] {
    client->setReading(false);
    swarm->after(milliseconds, [=] { client->setReading(true); });
  };
}

// They take longer than a connection may idle or a reply may stall, while the system's buffers may have had all of the
// reply from the beginning: the daemon must not take that for either.
TEST_F(Abuse, SteadyReaders) {
  constexpr size_t kClients = 100;
  Subject subject({"--limit", "idle-time=3", "--limit", "stall-time=3"});
  const std::string content = pattern(400000);
  subject.folder().file("root/medium", content);
  subject.begin();
  Swarm swarm(subject.port());
  const std::vector<Client*> clients = gather(&swarm, kClients, {.receiveBuffer = 32768});
  for (Client* client : clients) {
    sip(&swarm, client, 4096, 100);
    client->send("GET /medium HTTP/1.1\r\nHost: x\r\n\r\n");
  }
  swarm.runFor(1);
  subject.look();
  EXPECT_TRUE(swarm.run([&] { return countEnded(clients) == kClients; }, 60));
  size_t whole = 0;
  for (const Client* client : clients) {
    size_t at = 0;
    const auto reply = takeReply(client->received(), &at);
    whole += reply && reply->body == content;
  }
  EXPECT_EQ(whole, kClients);
  swarm.dropAll();
  subject.expectSettled({{"idle", kClients}});
}

// Half of them have never asked for anything, the others for one page. @return how many there were
size_t idleUntilEnded(Subject* subject) {
  Swarm swarm(subject->port());
  Visitors visitors(subject->port(), kVisitors);
  const std::vector<Client*> idle = gather(&swarm, affordable(5000));
  for (size_t i = 0; i < idle.size(); i += 2) idle[i]->send(kGetHello);
  swarm.runFor(0.5);
  subject->look();
  EXPECT_TRUE(swarm.run([&] { return countEnded(idle) == idle.size(); }, 40));
  EXPECT_EQ(asText(answersOf(idle)), asText({{"200", (idle.size() + 1) / 2}, {"none", idle.size() / 2}}));
  visitors.expectServed("among idle connections");
  return idle.size();
}

TEST_F(Abuse, IdleConnections) {
  Subject subject({"--limit", "idle-time=4"});
  subject.begin();
  const size_t count = idleUntilEnded(&subject);
  subject.expectSettled({{"idle", count}});
  // What was needed once is enough for a second time.
  const long once = subject.usage().peakMemory;
  const size_t again = idleUntilEnded(&subject);
  subject.expectSettled({{"idle", count + again}});
  EXPECT_LT(subject.usage().peakMemory, once + (isSanitized() ? 16 : 1) * 1024);
}

// --- clients that leave ----------------------------------------------------------------------------------------------

// Connects, says something or nothing, and resets the connection, again and again.
class Resetting {
 public:
  Resetting(Swarm* swarm, size_t* left) : swarm_(swarm), left_(left) { next(); }

 private:
  void next() {
    client_ = nullptr;
    if (*left_ == 0) return;
    number_ = --*left_;
    client_ = swarm_->connect();
    client_->onConnected = [this] {
      static constexpr std::string_view kSaid[] = {"", "GET / HT", "GET / HTTP/1.1\r\nHost: x\r\n\r\n", kGetMebibyte};
      client_->send(kSaid[number_ % std::size(kSaid)]);
      // Some at once, others when the daemon has seen them, and may have ended them.
      if (number_ % 8 < 4) return leave();
      swarm_->after(5, [this, number = number_] {
        if (client_ != nullptr && number_ == number) leave();
      });
    };
    client_->onEnded = [this] { leave(); };
  }
  void leave() {
    client_->onEnded = nullptr;
    if (!client_->over()) client_->reset();
    swarm_->drop(client_);
    next();
  }

  Swarm* swarm_;
  size_t* left_;
  Client* client_ = nullptr;
  size_t number_ = 0;
};

TEST_F(Abuse, ResetFlood) {
  Subject subject({});
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  size_t left = 20000;
  std::vector<std::unique_ptr<Resetting>> flood;
  for (int i = 0; i < 200; ++i) flood.push_back(std::make_unique<Resetting>(&swarm, &left));
  EXPECT_TRUE(swarm.run([&] { return left < 10000; }, 60));
  subject.look();
  EXPECT_TRUE(swarm.run([&] { return left == 0 && swarm.size() == 0; }, 60));
  visitors.expectServed("in a flood of resets");
  swarm.dropAll();
  subject.expectSettled({});
}

// --- heads that are too large ----------------------------------------------------------------------------------------

struct EndlessHead {
  const char* status;
  const char* reason;
  std::string begin;
  std::string more;  // again and again
};

std::string repeated(std::string_view text, size_t length) {
  std::string all;
  while (all.size() < length) all += text;
  return all;
}

TEST_F(Abuse, EndlessHeads) {
  constexpr size_t kEach = 100;
  constexpr int kRounds = 5;
  const EndlessHead heads[] = {
      {"414", "long-line", "GET /", std::string(32768, 'a')},
      {"431", "large-head", "GET / HTTP/1.1\r\nHost: x\r\nX-Long: ", std::string(32768, 'b')},
      {"431", "many-headers", "GET / HTTP/1.1\r\nHost: x\r\n", repeated("X-Many: c\r\n", 32768)},
  };
  Subject subject({});
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  Counts expected;
  for (int round = 0; round < kRounds; ++round) {
    for (const EndlessHead& head : heads) {
      const std::vector<Client*> clients = gather(&swarm, kEach);
      for (Client* client : clients) {
        client->endless = [&head] { return std::string_view(head.more); };
        client->onReceived = [client] { client->stopEndless(); };
        client->send(head.begin);
      }
      EXPECT_TRUE(swarm.run([&] { return countEnded(clients) == clients.size(); }, 20)) << head.reason;
      EXPECT_EQ(asText(answersOf(clients)), asText({{head.status, kEach}})) << head.reason;
      expected[head.reason] += kEach;
      for (Client* client : clients) swarm.drop(client);
    }
    subject.look();
  }
  visitors.expectServed("among endless heads");
  swarm.dropAll();
  EXPECT_LT(subject.usage().peakMemory, subject.before().memory + (isSanitized() ? 200 : 16) * 1024);
  subject.expectSettled(expected);
}

// Nobody stops to send when the answer comes.
TEST_F(Abuse, EndlessHeadsThatNobodyStops) {
  constexpr size_t kClients = 200;
  Subject subject({});
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  const std::string more = std::string(65536, 'a');
  const std::vector<Client*> clients = gather(&swarm, kClients, {.reads = false});
  for (Client* client : clients) {
    client->endless = [&more] { return std::string_view(more); };
    client->send("GET /");
  }
  swarm.runFor(0.5);
  subject.look();
  EXPECT_TRUE(swarm.run([&] { return countEnded(clients) == clients.size(); }, 30));
  visitors.expectServed("among heads that go on");
  swarm.dropAll();
  EXPECT_LT(subject.usage().peakMemory, subject.before().memory + (isSanitized() ? 200 : 16) * 1024);
  subject.expectSettled({{"long-line", kClients}});
}

TEST_F(Abuse, TenThousandHeaders) {
  constexpr size_t kClients = 50;
  std::string lines;
  for (int i = 0; i < 10000; ++i) lines += "X-" + std::to_string(i) + ": a\r\n";
  for (const char* limit : {"headers=100", "headers=0"}) {
    Subject subject({"--limit", limit});
    subject.begin();
    Swarm swarm(subject.port());
    const std::vector<Client*> clients = gather(&swarm, kClients);
    for (Client* client : clients) client->send("GET /hello HTTP/1.1\r\nHost: x\r\n" + lines + "\r\n");
    EXPECT_TRUE(swarm.run([&] { return countEnded(clients) == clients.size(); }, 30));
    subject.look();
    EXPECT_EQ(asText(answersOf(clients)), asText({{"431", kClients}}));
    swarm.dropAll();
    subject.expectSettled({{std::string_view(limit) == "headers=0" ? "large-head" : "many-headers", kClients}});
  }
}

// Who wants no limit gets none, and pays for the headers in proportion to their number.
TEST_F(Abuse, TenThousandHeadersAllowed) {
  constexpr size_t kClients = 5;
  std::string lines;
  for (int i = 0; i < 10000; ++i) lines += "X-" + std::to_string(i) + ": a\r\n";
  Subject subject({"--limit", "headers=0", "--limit", "head=0"});
  subject.begin();
  Swarm swarm(subject.port());
  const std::vector<Client*> clients = gather(&swarm, kClients);
  for (Client* client : clients)
    client->send("GET /hello HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + lines + "\r\n");
  EXPECT_TRUE(swarm.run([&] { return countEnded(clients) == clients.size(); }, 60));
  EXPECT_EQ(asText(answersOf(clients)), asText({{"200", kClients}}));
  swarm.dropAll();
  subject.expectSettled({});
  EXPECT_LT(subject.usage().seconds - subject.before().seconds, isSanitized() ? 20 : 2);
}

// --- bodies and replies ----------------------------------------------------------------------------------------------

constexpr double kChunksSeconds = 10;  // of the processor, for 1 MiB in chunks of a byte

TEST_F(Abuse, ChunksOfAByteToEcho) {
  Subject subject({});
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  Client* const client = swarm.connect();
  client->send("POST /echo HTTP/1.1\r\nHost: x\r\nConnection: close\r\nTransfer-Encoding: chunked\r\n\r\n" +
               chunked(Subject::mebibyte(), 1));
  EXPECT_TRUE(swarm.run([&] { return client->ended(); }, 60));
  size_t at = 0;
  const auto reply = takeReply(client->received(), &at);
  ASSERT_TRUE(reply) << client->received().substr(0, 200);
  EXPECT_EQ(reply->status(), 200u);
  EXPECT_TRUE(reply->body == Subject::mebibyte());
  EXPECT_EQ(at, client->received().size());
  visitors.expectServed("beside chunks of a byte");
  swarm.dropAll();
  subject.expectSettled({});
  EXPECT_LT(subject.usage().seconds - subject.before().seconds, kChunksSeconds * (isSanitized() ? 4 : 1));
}

TEST_F(Abuse, ChunksOfAByteToUpload) {
  TemporaryFolder in;
  Subject subject({"--upload", "/upload=" + in.path()});
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  Client* const client = swarm.connect();
  const std::string form = "--b\r\nContent-Disposition: form-data; name=\"f\"; filename=\"m.bin\"\r\n\r\n" +
                           Subject::mebibyte() + "\r\n--b--\r\n";
  client->send(
      "POST /upload HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Type: multipart/form-data; boundary=b\r\n"
      "Transfer-Encoding: chunked\r\n\r\n" +
      chunked(form, 1));
  EXPECT_TRUE(swarm.run([&] { return client->ended(); }, 60));
  EXPECT_EQ(asText(answersOf({client})), "200 1");
  std::ifstream stored(in.at("m.bin"), std::ios::binary);
  std::ostringstream content;
  content << stored.rdbuf();
  EXPECT_TRUE(content.str() == Subject::mebibyte());
  visitors.expectServed("beside chunks of a byte");
  swarm.dropAll();
  subject.expectSettled({});
  EXPECT_LT(subject.usage().seconds - subject.before().seconds, kChunksSeconds * (isSanitized() ? 4 : 1));
}

// As fast as they can, and there is no end to it: others have their turn all the same.
TEST_F(Abuse, EndlessBodies) {
  Subject subject({});
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  const std::string more(65536, 'e');
  const std::vector<Client*> clients = gather(&swarm, 8);
  for (size_t i = 0; i < clients.size(); ++i) {
    if (i % 2 == 0) clients[i]->countOnly();
    clients[i]->endless = [&more] { return std::string_view(more); };
    clients[i]->send("POST " + std::string(i % 2 == 0 ? "/echo" : "/hello") +
                     " HTTP/1.1\r\nHost: x\r\nContent-Length: 4294967295\r\n\r\n");
  }
  swarm.runFor(3);
  subject.look();
  for (size_t i = 0; i < clients.size(); i += 2) {
    EXPECT_GT(clients[i]->receivedCount(), 1u << 20);
    EXPECT_TRUE(clients[i + 1]->received().starts_with("HTTP/1.1 405 ")) << clients[i + 1]->received();
  }
  for (Client* client : clients) client->reset();
  visitors.expectServed("among endless bodies");
  swarm.dropAll();
  subject.expectSettled({});
}

// Requests that nobody reads the replies of: @p wire again and again, ended when they stall.
void expectBoundedBacklog(const std::string& wire, long mostKiB) {
  constexpr size_t kClients = 200;
  Subject subject({"--limit", "stall-time=4"});
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  const std::vector<Client*> clients = gather(&swarm, kClients, {.receiveBuffer = kSmallBuffer, .reads = false});
  for (Client* client : clients) client->send(wire);
  swarm.runFor(2);
  subject.look();
  expectRefusals(&swarm, &subject, kClients);
  visitors.expectServed("beside a backlog");
  swarm.dropAll();
  EXPECT_LT(subject.usage().peakMemory, subject.before().memory + mostKiB * (isSanitized() ? 4 : 1));
  subject.expectSettled({{"stalled", kClients}});
}

TEST_F(Abuse, PipelinedFiles) { expectBoundedBacklog(repeated(kGetMebibyte, kGetMebibyte.size() * 3000), 16 * 1024); }

// The echo keeps 256 KiB of each, and a block.
TEST_F(Abuse, PipelinedEchoes) {
  expectBoundedBacklog("POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 20000000\r\n\r\n" + std::string(8000000, 'e'),
                       200 * 320 + 16 * 1024);
}

// Their answers are small: what is not read stays in the daemon's socket, and then the requests wait.
TEST_F(Abuse, PipelinedPages) {
  Subject subject({"--limit", "requests=0"});
  subject.begin();
  Swarm swarm(subject.port());
  constexpr size_t kClients = 100;
  constexpr size_t kRequests = 20000;
  const std::string requests = repeated(kGetHello, kGetHello.size() * kRequests);
  Visitors visitors(subject.port(), kVisitors);
  const std::vector<Client*> clients = gather(&swarm, kClients, {.receiveBuffer = kSmallBuffer, .reads = false});
  for (Client* client : clients) client->send(requests);
  swarm.runFor(3);
  subject.look();
  visitors.expectServed("beside pipelined pages");
  for (Client* client : clients) client->reset();
  swarm.dropAll();
  EXPECT_LT(subject.usage().peakMemory, subject.before().memory + (isSanitized() ? 200 : 16) * 1024);
  subject.expectSettled({});
}

// --- more clients than descriptors -----------------------------------------------------------------------------------

size_t countAnswered(const std::vector<Client*>& clients) {
  return static_cast<size_t>(
      std::count_if(clients.begin(), clients.end(), [](const Client* client) { return client->receivedCount() > 0; }));
}

// Half of the descriptors are for connections; the others are told that there are too many.
TEST_F(Abuse, FewDescriptors) {
  constexpr size_t kDescriptors = 32;
  constexpr size_t kClients = 100;
  Subject subject({}, {.descriptors = kDescriptors});
  subject.begin();
  Swarm swarm(subject.port());
  const std::vector<Client*> clients = gather(&swarm, kClients);
  for (Client* client : clients) client->send(kGetHello);
  EXPECT_TRUE(swarm.run([&] { return countAnswered(clients) == kClients; }, 20));
  subject.look();
  const Counts answers = answersOf(clients);
  printf("answers: %s\n", asText(answers).c_str());
  EXPECT_EQ(asText(answers), asText({{"200", kDescriptors / 2}, {"503", kClients - kDescriptors / 2}}));
  const double before = subject.usage().seconds;
  swarm.runFor(3);
  const double rest = subject.usage().seconds - before;
  printf("processor, while nothing happens for 3 s: %.2f s\n", rest);
  EXPECT_LT(rest, 0.5);
  swarm.dropAll();
  subject.expectSettled({{"many-connections", kClients - kDescriptors / 2}});
}

// Without that limit they wait, until there is a descriptor.
TEST_F(Abuse, NoDescriptors) {
  constexpr size_t kDescriptors = 32;
  constexpr size_t kClients = 100;
  Subject subject({"--limit", "connections=0"}, {.descriptors = kDescriptors});
  subject.begin();
  Swarm swarm(subject.port());
  const std::vector<Client*> clients = gather(&swarm, kClients);
  for (Client* client : clients) client->send(kGetHello);
  swarm.runFor(1);
  subject.look();
  const size_t first = countAnswered(clients);
  printf("%zu of %zu were answered at once\n", first, kClients);
  EXPECT_GE(first, kDescriptors / 2);
  EXPECT_LT(first, kDescriptors);
  const double before = subject.usage().seconds;
  swarm.runFor(3);
  const double rest = subject.usage().seconds - before;
  printf("processor, while all descriptors are taken for 3 s: %.2f s\n", rest);
  EXPECT_LT(rest, 0.5);
  EXPECT_EQ(countAnswered(clients), first);
  // Whoever has been answered makes room for others.
  for (Client* client : clients) client->onReceived = [client] { client->leave(); };
  for (Client* client : clients)
    if (client->receivedCount() > 0) client->leave();
  EXPECT_TRUE(swarm.run([&] { return countAnswered(clients) == kClients; }, 20));
  EXPECT_EQ(asText(answersOf(clients)), asText({{"200", kClients}}));
  swarm.dropAll();
  subject.expectSettled({});
}

// A connection that is there goes on to be served, with its files, as far as there are descriptors for them.
TEST_F(Abuse, NoDescriptorForAFile) {
  constexpr size_t kDescriptors = 32;
  Subject subject({"--limit", "connections=0"}, {.descriptors = kDescriptors});
  subject.begin();
  Swarm swarm(subject.port());
  const std::vector<Client*> clients = gather(&swarm, 100);
  swarm.runFor(0.5);
  subject.look();
  EXPECT_GE(subject.usage().descriptors, kDescriptors);
  clients[0]->send("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_TRUE(swarm.run([&] { return clients[0]->receivedCount() > 0; }, 20));
  printf("a file, with all descriptors taken: %s\n", asText(answersOf({clients[0]})).c_str());
  clients[0]->take();
  clients[0]->send(kGetHello);
  EXPECT_TRUE(swarm.run([&] { return clients[0]->receivedCount() > 0 && !clients[0]->received().empty(); }, 20));
  EXPECT_EQ(asText(answersOf({clients[0]})), "200 1");
  swarm.dropAll();
  subject.expectSettled({});
}

// --- the end ---------------------------------------------------------------------------------------------------------

TEST_F(Abuse, Termination) {
  Subject subject({});
  subject.begin();
  Swarm swarm(subject.port());
  Visitors visitors(subject.port(), kVisitors);
  const size_t each = affordable(1400) / 7;
  const std::string files = repeated(kGetMebibyte, kGetMebibyte.size() * 500);
  const std::string echo =
      "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 20000000\r\n\r\n" + std::string(1000000, 'e');
  const std::vector<Client*> slow = gather(&swarm, 2 * each);
  const auto drips = drip(&swarm, slow);
  for (Client* client : gather(&swarm, each, {.receiveBuffer = kSmallBuffer, .reads = false})) client->send(files);
  for (Client* client : gather(&swarm, each, {.receiveBuffer = kSmallBuffer, .reads = false})) client->send(echo);
  gather(&swarm, 2 * each);  // idle
  const std::string more = std::string(65536, 'a');
  for (Client* client : gather(&swarm, each / 4, {.reads = false})) {
    client->endless = [&more] { return std::string_view(more); };
    client->send("GET /");
  }
  size_t resets = 1000000;
  std::vector<std::unique_ptr<Resetting>> flood;
  for (int i = 0; i < 50; ++i) flood.push_back(std::make_unique<Resetting>(&swarm, &resets));
  // In the middle of its reply, and interested in the rest of it.
  Client* const reader = swarm.connect({.receiveBuffer = kSmallBuffer});
  reader->readAtMost(1024);
  reader->send("GET /mebibyte HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_TRUE(swarm.run([&] { return reader->receivedCount() > 10000; }, 20));
  reader->setReading(false);
  swarm.runFor(2);
  subject.look();
  printf("when it was asked to end: %zu descriptors, %ld KiB\n", subject.usage().descriptors, subject.usage().memory);

  resets = 0;
  visitors.allowEnd();
  subject.process().signal(SIGTERM);
  const auto asked = Swarm::Clock::now();
  reader->readAtMost(65536);
  reader->setReading(true);
  EXPECT_TRUE(swarm.run([&] { return subject.process().ended(); }, 20));
  printf("it took %.2f s\n", std::chrono::duration<double>(Swarm::Clock::now() - asked).count());
  EXPECT_EQ(subject.process().outcome(), "exit 0");
  EXPECT_TRUE(swarm.run([&] { return reader->ended(); }, 5));
  size_t at = 0;
  const auto reply = takeReply(reader->received(), &at);
  ASSERT_TRUE(reply) << "cut at " << reader->receivedCount();
  EXPECT_TRUE(reply->body == Subject::mebibyte());
  visitors.expectServed("up to the end");
}

}  // namespace
