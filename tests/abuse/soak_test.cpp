// krohttpd, and one that hands everything to it, among guests of all kinds for a while: what the undisturbed ones get
// is right to the last byte, nothing is left behind, and the memory does not grow.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "subject.h"
#include "swarm.h"

namespace {

constexpr size_t kGuests = 40;
constexpr const char* kRealm = "Device";

uint64_t seed() {
  const char* const text = getenv("KROHTTP_SOAK_SEED");
  return text != nullptr ? strtoull(text, nullptr, 10) : 1;
}

// The same numbers for the same seed.
class Random {
 public:
  Random(uint64_t first, uint64_t second) : engine_(first * 1000003 + second) {}
  // 0 to bound - 1.
  size_t below(size_t bound) { return static_cast<size_t>(engine_() % bound); }
  size_t between(size_t low, size_t high) { return low + below(high - low + 1); }
  bool oneIn(size_t chances) { return below(chances) == 0; }

 private:
  std::mt19937_64 engine_;
};

// --- what requests are made of ---------------------------------------------------------------------------------------

std::string hash(const EVP_MD* how, std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, how, nullptr);
  std::string hex;
  for (unsigned i = 0; i < length; ++i) {
    char two[3];
    snprintf(two, sizeof two, "%02x", digest[i]);
    hex += two;
  }
  return hex;
}

std::string md5(const std::string& text) { return hash(EVP_md5(), text); }

std::string base64(const std::string& text) {
  std::string out(4 * ((text.size() + 2) / 3) + 1, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), reinterpret_cast<const unsigned char*>(text.data()),
                      static_cast<int>(text.size()));
  out.resize(static_cast<size_t>(length));
  return out;
}

std::string request(const std::string& method, const std::string& target, const std::string& headers = "",
                    const std::string& version = "HTTP/1.1") {
  return method + " " + target + " " + version + "\r\nHost: x\r\n" + headers + "\r\n";
}

// With a body, counted or in chunks.
std::string post(Random* random, const std::string& target, const std::string& headers, std::string_view body) {
  if (random->oneIn(2))
    return request("POST", target, headers + "Content-Length: " + std::to_string(body.size()) + "\r\n") +
           std::string(body);
  return request("POST", target, headers + "Transfer-Encoding: chunked\r\n") +
         chunked(body, random->oneIn(4) ? random->between(1, 20) : random->between(100, 20000));
}

// The part of a header between name=" and ".
std::string parameter(const std::string& header, const std::string& name) {
  const size_t at = header.find(name + "=\"");
  if (at == std::string::npos) return "";
  const size_t from = at + name.size() + 2;
  return header.substr(from, header.find('"', from) - from);
}

// --- what a guest does on a connection -------------------------------------------------------------------------------

struct Plan;

struct Exchange {
  std::string wire;
  // Looks at the reply: "" or what is wrong with it; may add exchanges.
  std::function<std::string(const WireReply&, Plan*)> check;
  bool bodyless = false;
};

struct Plan {
  const char* name = "";
  std::deque<Exchange> exchanges;
  bool pipelined = false;
  bool pieces = false;  // sends in small ones
  bool slow = false;    // reads so
  bool guesses = false;
  // Leaves when so many bytes have gone, or have come.
  size_t leavesSent = SIZE_MAX;
  size_t leavesReceived = SIZE_MAX;
  bool resets = false;

  bool isDisturbed() const { return leavesSent != SIZE_MAX || leavesReceived != SIZE_MAX; }
};

std::string describe(const WireReply& reply) {
  return "'" + reply.head().substr(0, 200) + "' and " + std::to_string(reply.body.size()) + " bytes";
}

std::function<std::string(const WireReply&, Plan*)> expectReply(unsigned status, std::string body) {
  return [status, body](const WireReply& reply, Plan*) {
    return reply.status() == status && reply.body == body ? "" : "unexpected: " + describe(reply);
  };
}

std::function<std::string(const WireReply&, Plan*)> expectStatus(unsigned status, unsigned other = 0) {
  return [=](const WireReply& reply, Plan*) {
    return reply.status() == status || reply.status() == other ? "" : "unexpected: " + describe(reply);
  };
}

struct BrokenHead {
  const char* wire;
  unsigned status;
};
constexpr BrokenHead kBrokenHeads[] = {
    {"GET / HTTP/1.1\r\n\r\n", 400},
    {"GET / HTTP/1.1\r\nHost: x\r\nHost: y\r\n\r\n", 400},
    {"GET / HTTP/1.1\nHost: x\n\n", 400},
    {"GET / HTTP/2.7\r\nHost: x\r\n\r\n", 505},
    {"BREW / HTTP/1.1\r\nHost: x\r\n\r\n", 501},
    {"GET /a b HTTP/1.1\r\nHost: x\r\n\r\n", 400},
    {"GET / HTTP/1.1\r\nHost: x\r\nX : y\r\n\r\n", 400},
    {"GET / HTTP/1.1\r\nHost: x\r\nX: y\r\n z\r\n\r\n", 400},
    {"POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 400},
    {"POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 1x\r\n\r\ny", 400},
    {"POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: gzip\r\n\r\ny", 400},
};

// Makes plans for one guest.
class Planner {
 public:
  Planner(size_t guest, const TemporaryFolder* uploads)
      : random_(seed(), guest), uploads_(uploads), user_("guest" + std::to_string(guest)) {}

  static constexpr const char* kPlain = "<h1>plain</h1>";
  static std::string zipped() { return pattern(5000); }
  static std::string password(const std::string& user) { return "of-" + user; }
  static std::string userLine(size_t guest) {
    const std::string user = "guest" + std::to_string(guest);
    return user + ":" + kRealm + ":" + md5(user + ":" + kRealm + ":" + password(user)) + "\n";
  }

  Random& random() { return random_; }

  Plan next() {
    using Maker = void (Planner::*)(Plan*);
    static constexpr Maker kMakers[] = {&Planner::file,    &Planner::file,   &Planner::file,    &Planner::zippedFile,
                                        &Planner::head,    &Planner::echo,   &Planner::echo,    &Planner::expecting,
                                        &Planner::upload,  &Planner::upload, &Planner::basic,   &Planner::digest,
                                        &Planner::session, &Planner::pipe,   &Planner::pipe,    &Planner::broken,
                                        &Planner::slow,    &Planner::old,    &Planner::refused, &Planner::longLine};
    Plan plan;
    const bool guesses = random_.oneIn(60);
    (this->*(guesses ? &Planner::wrongPassword : kMakers[random_.below(std::size(kMakers))]))(&plan);
    plan.pieces = random_.oneIn(3);
    if (random_.oneIn(4)) disturb(&plan);
    return plan;
  }

 private:
  void disturb(Plan* plan) {
    plan->resets = random_.oneIn(2);
    const size_t length = plan->exchanges.front().wire.size();
    // Before all of the request has gone, so that nobody knows what became of it; else somewhere in the reply.
    if (random_.oneIn(2) || std::string_view(plan->name) == "upload")
      plan->leavesSent = random_.below(length);
    else
      plan->leavesReceived = random_.oneIn(2) ? random_.below(300) : random_.below(1 << 20);
  }

  Exchange page() {
    switch (random_.below(5)) {
      case 0:
        return {request("GET", "/hello"), expectReply(200, "Hello, world!")};
      case 1:
        return {request("GET", "/page.html"), expectZipped()};
      case 2:
        return {request("HEAD", "/"), expectLength(strlen(Subject::kIndex)), true};
      case 3: {
        const std::string body = pattern(random_.below(3000));
        return {post(&random_, "/echo", "", body), expectReply(200, body)};
      }
      default:
        return {request("GET", "/"), expectReply(200, Subject::kIndex)};
    }
  }
  static std::function<std::string(const WireReply&, Plan*)> expectZipped() {
    return [](const WireReply& reply, Plan*) {
      const bool right = reply.status() == 200 && reply.header("Content-Encoding") == "gzip" && reply.body == zipped();
      return right ? "" : "not the zipped file: " + describe(reply);
    };
  }
  static std::function<std::string(const WireReply&, Plan*)> expectLength(size_t length) {
    return [=](const WireReply& reply, Plan*) {
      const bool right = reply.status() == 200 && reply.header("Content-Length") == std::to_string(length);
      return right ? "" : "not the head of that file: " + describe(reply);
    };
  }

  void file(Plan* plan) {
    plan->name = "file";
    if (random_.oneIn(2)) plan->exchanges.push_back({request("GET", "/"), expectReply(200, Subject::kIndex)});
    plan->exchanges.push_back({request("GET", "/mebibyte"), expectReply(200, Subject::mebibyte())});
  }
  void slow(Plan* plan) {
    plan->name = "slow reader";
    plan->slow = true;
    plan->exchanges.push_back({request("GET", "/mebibyte"), expectReply(200, Subject::mebibyte())});
  }
  void zippedFile(Plan* plan) {
    plan->name = "zipped file";
    plan->exchanges.push_back({request("GET", "/page.html"), expectZipped()});
    plan->exchanges.push_back(
        {request("GET", "/page.html", "User-Agent: Mozilla/4.0 (compatible; MSIE 6.0)\r\n"), expectReply(200, kPlain)});
  }
  void head(Plan* plan) {
    plan->name = "head";
    plan->exchanges.push_back({request("HEAD", "/mebibyte"), expectLength(1 << 20), true});
    plan->exchanges.push_back({request("GET", "/hello"), expectReply(200, "Hello, world!")});
  }
  void echo(Plan* plan) {
    plan->name = "echo";
    const std::string body = pattern(random_.below(random_.oneIn(4) ? 1 << 20 : 20000));
    plan->exchanges.push_back({post(&random_, "/echo", "", body), expectReply(200, body)});
  }
  void expecting(Plan* plan) {
    plan->name = "100-continue";
    const std::string body = pattern(random_.between(1, 50000));
    plan->exchanges.push_back({post(&random_, "/echo", "Expect: 100-continue\r\n", body), expectReply(200, body)});
  }
  void old(Plan* plan) {
    plan->name = "HTTP/1.0";
    plan->exchanges.push_back({request("GET", "/", "", "HTTP/1.0"), expectReply(200, Subject::kIndex)});
  }
  void refused(Plan* plan) {
    plan->name = "refused";
    plan->exchanges.push_back({request("GET", "/nowhere"), expectStatus(404)});
    plan->exchanges.push_back({request("DELETE", "/hello"), expectStatus(405)});
  }
  void broken(Plan* plan) {
    plan->name = "broken head";
    const BrokenHead& head = kBrokenHeads[random_.below(std::size(kBrokenHeads))];
    plan->exchanges.push_back({head.wire, expectStatus(head.status)});
  }
  void longLine(Plan* plan) {
    plan->name = "long line";
    plan->exchanges.push_back({request("GET", "/" + std::string(9000, 'a')), expectStatus(414)});
  }
  void pipe(Plan* plan) {
    plan->name = "pipeline";
    plan->pipelined = true;
    for (size_t left = random_.between(2, 30); left > 0; --left) plan->exchanges.push_back(page());
  }

  void upload(Plan* plan) {
    plan->name = "upload";
    // Those that are stored are deleted; nothing may be left of the others.
    const std::string name = user_ + "-" + std::to_string(++uploadNumber_) + ".bin";
    const std::string content = pattern(random_.below(random_.oneIn(4) ? 1 << 20 : 50000));
    const std::string form = "--b-b\r\nContent-Disposition: form-data; name=\"f\"; filename=\"" + name +
                             "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + content + "\r\n--b-b--\r\n";
    const std::string expected = "{\"files\":[{\"name\":\"" + name + "\",\"bytes\":" + std::to_string(content.size()) +
                                 ",\"sha256\":\"" + hash(EVP_sha256(), content) + "\"}]}\n";
    plan->exchanges.push_back({post(&random_, "/upload", "Content-Type: multipart/form-data; boundary=b-b\r\n", form),
                               [this, name, expected](const WireReply& reply, Plan*) -> std::string {
                                 if (unlink(uploads_->at(name).c_str()) != 0)
                                   return "was not stored: " + describe(reply);
                                 return reply.status() == 200 && reply.body == expected
                                            ? ""
                                            : "'" + reply.body + "', not '" + expected + "'";
                               }});
  }

  std::string basicHeader(const std::string& secret) const {
    return "Authorization: Basic " + base64(user_ + ":" + secret) + "\r\n";
  }
  void basic(Plan* plan) {
    plan->name = "basic";
    plan->exchanges.push_back({request("GET", "/basic/a.txt"), expectStatus(401)});
    plan->exchanges.push_back(
        {request("GET", "/basic/a.txt", basicHeader(password(user_))), expectReply(200, "for users")});
  }
  void wrongPassword(Plan* plan) {
    plan->name = "wrong password";
    plan->guesses = true;
    plan->exchanges.push_back({request("GET", "/basic/a.txt", basicHeader("guessed")), expectStatus(401, 429)});
  }
  void digest(Plan* plan) {
    plan->name = "digest";
    plan->exchanges.push_back({request("GET", "/digest/a.txt"), [this](const WireReply& reply, Plan* more) {
                                 const std::string challenge = reply.header("WWW-Authenticate");
                                 more->exchanges.push_back(
                                     {request("GET", "/digest/a.txt", digestHeader("/digest/a.txt", challenge)),
                                      expectReply(200, "for users")});
                                 return reply.status() == 401 ? "" : "no challenge: " + describe(reply);
                               }});
  }
  std::string digestHeader(const std::string& target, const std::string& challenge) const {
    const std::string nonce = parameter(challenge, "nonce");
    const std::string response = md5(md5(user_ + ":" + kRealm + ":" + password(user_)) + ":" + nonce +
                                     ":00000001:abc:auth:" + md5("GET:" + target));
    return "Authorization: Digest username=\"" + user_ + "\", realm=\"" + kRealm + "\", nonce=\"" + nonce +
           "\", uri=\"" + target + "\", algorithm=MD5, qop=auth, nc=00000001, cnonce=\"abc\", response=\"" + response +
           "\", opaque=\"" + parameter(challenge, "opaque") + "\"\r\n";
  }
  void session(Plan* plan) {
    plan->name = "session";
    const std::string form = "username=" + user_ + "&password=" + password(user_) + "&next=/session/a.txt";
    const std::string type = "Content-Type: application/x-www-form-urlencoded\r\n";
    plan->exchanges.push_back(
        {post(&random_, "/login", type, form), [](const WireReply& reply, Plan* more) {
           const std::string set = reply.header("Set-Cookie");
           const std::string cookie = "Cookie: " + set.substr(0, set.find(';')) + "\r\n";
           more->exchanges.push_back({request("GET", "/session/a.txt", cookie), expectReply(200, "for users")});
           more->exchanges.push_back({request("POST", "/logout", cookie + "Content-Length: 0\r\n"), expectStatus(303)});
           more->exchanges.push_back({request("GET", "/session/a.txt", cookie), expectStatus(401)});
           return reply.status() == 303 ? "" : "no login: " + describe(reply);
         }});
  }

  Random random_;
  const TemporaryFolder* uploads_;
  std::string user_;
  size_t uploadNumber_ = 0;
};

// --- guests ----------------------------------------------------------------------------------------------------------

struct Tally {
  std::map<std::string, std::pair<size_t, size_t>> plans;  // undisturbed and disturbed
  size_t replies = 0;
  std::vector<std::string> failures;
  bool ending = false;
};

// Carries out one plan after the other, each on a connection of its own.
class Guest {
 public:
  Guest(Swarm* swarm, Planner planner, std::vector<unsigned> ports, Tally* tally)
      : swarm_(swarm), planner_(std::move(planner)), ports_(std::move(ports)), tally_(tally) {
    later(planner_.random().between(1, 100), [this] { begin(); });
  }

  bool done() const { return client_ == nullptr && tally_->ending; }

 private:
  static constexpr int kPatience = 60000;  // milliseconds for a plan
  static constexpr unsigned kGuessingHost = 0x10001;

  // For this plan only.
  void later(size_t milliseconds, std::function<void()> action) {
    swarm_->after(static_cast<int>(milliseconds), [this, number = number_, action = std::move(action)] {
      if (number == number_) action();
    });
  }

  void begin() {
    if (tally_->ending) return;
    plan_ = planner_.next();
    // Those who guess do so from an address of their own: they hold up whoever has the same one.
    port_ = ports_[plan_.guesses ? 0 : planner_.random().below(ports_.size())];
    client_ = swarm_->connect(
        {.port = port_, .receiveBuffer = plan_.slow ? 4096 : 0, .host = plan_.guesses ? kGuessingHost : 0});
    client_->onReceived = [this] { receive(false); };
    client_->onEnded = [this] { receive(true); };
    if (plan_.slow) client_->readAtMost(16384);
    pending_.clear();
    gone_ = 0;
    for (const Exchange& exchange : plan_.exchanges) {
      pending_ += exchange.wire;
      if (!plan_.pipelined) break;
    }
    later(kPatience, [this] { fail("takes too long"); });
    sendSome();
  }

  void sendSome() {
    if (client_ == nullptr || pending_.empty()) return;
    // However long it is, it does not take long.
    size_t piece = plan_.pieces ? planner_.random().between(1, 16 + pending_.size() / 8) : pending_.size();
    piece = std::min({piece, pending_.size(), plan_.leavesSent - gone_});
    client_->send(std::string_view(pending_).substr(0, piece));
    pending_.erase(0, piece);
    gone_ += piece;
    if (gone_ >= plan_.leavesSent) return later(planner_.random().below(10), [this] { leave(); });
    if (!pending_.empty()) later(planner_.random().below(4), [this] { sendSome(); });
  }

  void receive(bool ended) {
    if (client_->receivedCount() >= plan_.leavesReceived) return leave();
    takeReplies(ended);
    if (client_ == nullptr) return;
    if (ended) return plan_.isDisturbed() ? end() : fail("is ended early");
    if (!plan_.slow) return;
    client_->setReading(false);
    later(2, [this] { client_->setReading(true); });
  }

  void takeReplies(bool ended) {
    constexpr std::string_view kInterim = "HTTP/1.1 100 Continue\r\n\r\n";
    size_t at = 0;
    const std::string& received = client_->received();
    while (!plan_.exchanges.empty()) {
      if (received.compare(at, kInterim.size(), kInterim) == 0) at += kInterim.size();
      const auto reply = takeReply(std::string_view(received), &at, plan_.exchanges.front().bodyless, ended);
      if (!reply) break;
      if (!take(*reply)) return;
    }
    if (plan_.exchanges.empty()) return at == received.size() ? end() : fail("gets more than its replies");
    client_->drop(at);
  }

  // False when the plan has come to an end.
  bool take(const WireReply& reply) {
    const Exchange exchange = std::move(plan_.exchanges.front());
    plan_.exchanges.pop_front();
    const std::string problem = exchange.check(reply, &plan_);
    ++tally_->replies;
    if (!problem.empty()) {
      fail(problem);
      return false;
    }
    if (!plan_.pipelined && !plan_.exchanges.empty()) {
      pending_ += plan_.exchanges.front().wire;
      sendSome();
    }
    return client_ != nullptr;
  }

  void leave() {
    if (plan_.resets)
      client_->reset();
    else
      client_->leave();
    end();
  }

  void fail(const std::string& what) {
    constexpr size_t kMostKept = 10;
    if (tally_->failures.size() < kMostKept)
      tally_->failures.push_back(std::string(plan_.name) + (port_ == ports_[0] ? "" : ", proxied") +
                                 (plan_.pieces ? ", in pieces" : "") + (plan_.isDisturbed() ? ", disturbed" : "") +
                                 " " + what + "; sent " + std::to_string(gone_) + ", received " +
                                 std::to_string(client_->receivedCount()) + (client_->wasReset() ? ", reset" : ""));
    end();
  }

  void end() {
    auto& [undisturbed, disturbed] = tally_->plans[plan_.name];
    ++(plan_.isDisturbed() ? disturbed : undisturbed);
    swarm_->drop(client_);
    client_ = nullptr;
    ++number_;
    later(planner_.random().below(20), [this] { begin(); });
  }

  Swarm* swarm_;
  Planner planner_;
  std::vector<unsigned> ports_;
  Tally* tally_;
  Plan plan_;
  size_t number_ = 0;
  unsigned port_ = 0;
  Client* client_ = nullptr;
  std::string pending_;  // of what is to be sent
  size_t gone_ = 0;
};

// --- memory over time ------------------------------------------------------------------------------------------------

class Watched {
 public:
  Watched(const char* name, Subject* subject) : name_(name), subject_(subject) {}
  void look() {
    subject_->look();
    memory_.push_back(subject_->usage().memory);
  }
  // The most of the end is hardly more than that of the first third.
  void expectNoGrowth() const {
    const size_t count = memory_.size();
    ASSERT_GE(count, 6u);
    const long first = mostOf(count / 6, count / 3 + 1);
    const long last = mostOf(count - count / 6, count);
    const long margin = isSanitized() ? 24 * 1024 : 4 * 1024;
    printf("memory of %s: %ld KiB up to the first third, %ld at the end (up to %ld more is let pass)\n", name_, first,
           last, margin);
    EXPECT_LE(last, first + margin) << name_;
  }

 private:
  long mostOf(size_t from, size_t to) const {
    return *std::max_element(memory_.begin() + static_cast<std::ptrdiff_t>(from),
                             memory_.begin() + static_cast<std::ptrdiff_t>(to));
  }

  const char* name_;
  Subject* subject_;
  std::vector<long> memory_;
};

void makeSite(const TemporaryFolder& folder) {
  folder.file("root/page.html", Planner::kPlain);
  folder.file("root/page.html.gz", Planner::zipped());
  for (const char* name : {"root/basic/a.txt", "root/digest/a.txt", "root/session/a.txt"})
    folder.file(name, "for users");
}

std::string makeUsers(const TemporaryFolder& folder) {
  std::string lines;
  for (size_t i = 0; i < kGuests; ++i) lines += Planner::userLine(i);
  return folder.file("users", lines);
}

TEST(Soak, MixedTraffic) {
  alarm(SOAK_SECONDS + 115);
  printf("seed: %llu, %d seconds\n", static_cast<unsigned long long>(seed()), SOAK_SECONDS);
  TemporaryFolder folder;
  TemporaryFolder uploads;
  Subject origin({"--auth-file", makeUsers(folder), "--protect", "/basic=basic", "--protect", "/digest=digest",
                  "--protect", "/session=session", "--upload", "/upload=" + uploads.path()});
  makeSite(origin.folder());
  Subject front({"--proxy", "/=tcp:127.0.0.1:" + std::to_string(origin.port())}, {.site = false});
  front.begin();
  origin.begin();

  Swarm swarm(origin.port());
  Tally tally;
  std::vector<std::unique_ptr<Guest>> guests;
  for (size_t i = 0; i < kGuests; ++i)
    guests.push_back(std::make_unique<Guest>(
        &swarm, Planner(i, &uploads), std::vector<unsigned>{origin.port(), origin.port(), front.port()}, &tally));
  Watched watched[] = {{"the origin", &origin}, {"the front", &front}};
  for (int i = 0; i < 2 * SOAK_SECONDS; ++i) {
    swarm.runFor(0.5);
    for (Watched& one : watched) one.look();
  }
  tally.ending = true;
  EXPECT_TRUE(swarm.run(
      [&] { return std::all_of(guests.begin(), guests.end(), [](const auto& guest) { return guest->done(); }); }, 60));

  for (const auto& [name, counts] : tally.plans)
    printf("%-15s %6zu undisturbed, %6zu disturbed\n", name.c_str(), counts.first, counts.second);
  printf("replies: %zu\n", tally.replies);
  EXPECT_GT(tally.replies, kGuests);
  for (const std::string& failure : tally.failures) ADD_FAILURE() << failure;
  for (const Watched& one : watched) one.expectNoGrowth();
  printf("refused by the origin: %s\n", asText(origin.refused()).c_str());
  printf("the front:\n");
  front.expectSettled();
  printf("the origin:\n");
  origin.expectSettled();
  EXPECT_TRUE(std::filesystem::is_empty(uploads.path()));
  front.stop();
  origin.stop();
}

}  // namespace
