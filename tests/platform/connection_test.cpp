// Listening and connecting.
#include <sys/resource.h>
#include <sys/stat.h>

#include <dlfcn.h>
#include <netdb.h>

#include <atomic>

#include "peer_support.h"

static std::atomic<bool> slowAnswers;

// The system's, with two more names: "two.test" has an address where nobody listens, and then 127.0.0.1; "slow.test"
// has none, which is told when slowAnswers is set.
extern "C" int getaddrinfo(const char* host, const char* port, const addrinfo* hints, addrinfo** found) {
  using Call = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
  static const Call real = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "getaddrinfo"));
  if (host && std::string_view(host) == "slow.test") {
    for (int i = 0; i < 300 && !slowAnswers; ++i) usleep(10000);
    slowAnswers = true;
    return EAI_NONAME;
  }
  if (!host || std::string_view(host) != "two.test") return real(host, port, hints, found);
  const int status = real("127.0.0.2", port, hints, found);
  return status ? status : real("127.0.0.1", port, hints, &(*found)->ai_next);
}

namespace {

class ConnectionTest : public LoopTest {
 protected:
  size_t living() const { return llist_count(connection_peers(connection_)); }

  // Accepts on listener; each accepted peer echoes.
  void echo(ZelPeer* listener) {
    server_.on(listener, PEER_EVENT_ACCEPT, [this](ZelPeer* peer) {
      EXPECT_EQ(peer_userData(peer), &server_) << "that of the listening peer";
      accepted_.push_back(peer);
      server_.on(peer, PEER_EVENT_DATA, [](ZelPeer* one) {
        const std::string text = readAll(peer_inStream(one));
        fwrite(text.data(), 1, text.size(), peer_outStream(one, PEER_STREAM_BUFFERED));
        return !feof(peer_inStream(one));
      });
      return true;
    });
  }
  void collect(ZelPeer* peer) {
    client_.on(peer, PEER_EVENT_DATA, [this](ZelPeer* one) {
      answer_ += readAll(peer_inStream(one));
      return !feof(peer_inStream(one));
    });
    client_.on(peer, PEER_EVENT_CLOSE, [](ZelPeer*) { return true; });
  }
  bool ended() const { return client_.count(PEER_EVENT_CLOSE) == 1; }
  static std::string portOf(ZelPeer* listener) { return std::to_string(peer_localPort(listener)); }

  TemporaryFolder folder_;
  Probe server_;
  Probe client_;
  std::vector<ZelPeer*> accepted_;
  std::string answer_;
};

struct TcpCase {
  const char* name;
  const char* listenOn;
  const char* connectTo;
  const char* seenAs;  // the address of the client, for the server
};

constexpr TcpCase kTcp[] = {
    {"Ipv4", "127.0.0.1", "127.0.0.1", "127.0.0.1"},
    {"Ipv6", "::1", "::1", "::1"},
    {"AllByIpv4", nullptr, "127.0.0.1", "127.0.0.1"},
    {"StarByIpv4", "*", "127.0.0.1", "127.0.0.1"},
    {"AllByIpv6", nullptr, "::1", "::1"},
    {"NameConnected", "127.0.0.1", "localhost", "127.0.0.1"},
    {"NameListened", "localhost", "localhost", nullptr},
    {"SecondAddress", "127.0.0.1", "two.test", "127.0.0.1"},
};

class TcpTest : public ConnectionTest, public ::testing::WithParamInterface<TcpCase> {};

TEST_P(TcpTest, BytesGoBothWays) {
  ZelPeer* listener = connection_listenOnTCP(connection_, GetParam().listenOn, "0");
  ASSERT_NE(listener, nullptr) << error_string(zel_error);
  EXPECT_STREQ(peer_address(listener), "");
  echo(listener);
  ZelPeer* peer = connection_connectToTCP(connection_, GetParam().connectTo, portOf(listener).c_str(), 0);
  ASSERT_NE(peer, nullptr) << error_string(zel_error);
  collect(peer);
  fputs("written while connecting", peer_outStream(peer, PEER_STREAM_BUFFERED));
  EXPECT_EQ(peer_bytesQueued(peer), 24u);
  ASSERT_TRUE(until([&] { return answer_ == "written while connecting"; }));
  ASSERT_EQ(accepted_.size(), 1u);
  EXPECT_EQ(peer_localPort(accepted_[0]), peer_localPort(listener));
  EXPECT_NE(peer_localPort(peer), 0u);
  if (GetParam().seenAs) {
    EXPECT_STREQ(peer_address(accepted_[0]), GetParam().seenAs);
  }
  EXPECT_EQ(fcntl(peer_socket(accepted_[0]), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
  EXPECT_EQ(fcntl(peer_socket(accepted_[0]), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(fcntl(peer_socket(peer), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(living(), 3u);
}

INSTANTIATE_TEST_SUITE_P(Platform, TcpTest, ::testing::ValuesIn(kTcp),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(ConnectionTest, LocalBytesGoBothWays) {
  const std::string path = folder_.file("socket");
  ZelPeer* listener = connection_listenOnIPC(connection_, path.c_str());
  ASSERT_NE(listener, nullptr) << error_string(zel_error);
  echo(listener);
  ZelPeer* peer = connection_connectToIPC(connection_, path.c_str());
  ASSERT_NE(peer, nullptr);
  collect(peer);
  fputs("locally", peer_outStream(peer, PEER_STREAM_BUFFERED));
  ASSERT_TRUE(until([&] { return answer_ == "locally"; }));
  EXPECT_STREQ(peer_address(peer), "unix");
  EXPECT_STREQ(peer_address(accepted_[0]), "unix");
  EXPECT_EQ(peer_localPort(listener), 0u);
  peer_destroy(listener);
  EXPECT_NE(access(path.c_str(), F_OK), 0) << "the file goes with the listening peer";
}

TEST_F(ConnectionTest, AStaleSocketFileIsReplaced) {
  const std::string path = folder_.file("stale");
  {
    Descriptor old(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(bind(old.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }
  EXPECT_NE(connection_listenOnIPC(connection_, path.c_str()), nullptr) << error_string(zel_error);
}

TEST_F(ConnectionTest, ASocketFileGoesAfterAChangeOfTheFolder) {
  const std::string path = folder_.file("relative");
  const Descriptor before(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(chdir(path.substr(0, path.rfind('/')).c_str()), 0);
  ZelPeer* listener = connection_listenOnIPC(connection_, "relative");
  ASSERT_EQ(fchdir(before.get()), 0);
  ASSERT_NE(listener, nullptr);
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  peer_destroy(listener);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_F(ConnectionTest, AnAddressInUseStaysInUse) {
  const std::string path = folder_.file("busy");
  ASSERT_NE(connection_listenOnIPC(connection_, path.c_str()), nullptr);
  EXPECT_EQ(connection_listenOnIPC(connection_, path.c_str()), nullptr);
  EXPECT_EQ(zel_error, static_cast<uint32_t>(EADDRINUSE));
  EXPECT_EQ(access(path.c_str(), F_OK), 0);

  const std::string plain = folder_.file("plain");
  Descriptor file(open(plain.c_str(), O_CREAT | O_WRONLY, 0600));
  EXPECT_EQ(connection_listenOnIPC(connection_, plain.c_str()), nullptr) << "no socket: not ours to remove";
  EXPECT_EQ(zel_error, static_cast<uint32_t>(EADDRINUSE));

  for (const char* host : {"127.0.0.1", static_cast<const char*>(nullptr)}) {
    ZelPeer* listener = connection_listenOnTCP(connection_, host, "0");
    ASSERT_NE(listener, nullptr);
    EXPECT_EQ(connection_listenOnTCP(connection_, host, portOf(listener).c_str()), nullptr);
    EXPECT_EQ(zel_error, static_cast<uint32_t>(EADDRINUSE));
    EXPECT_EQ(errno, EADDRINUSE);
  }
}

TEST_F(ConnectionTest, AFileThatTookThePlaceOfOursStays) {
  const std::string path = folder_.file("taken");
  ZelPeer* first = connection_listenOnIPC(connection_, path.c_str());
  ASSERT_NE(first, nullptr);
  ASSERT_EQ(unlink(path.c_str()), 0);
  ZelPeer* second = connection_listenOnIPC(connection_, path.c_str());
  ASSERT_NE(second, nullptr);
  peer_destroy(first);
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

// Arguments that are refused within the call.
struct BadCase {
  const char* name;
  enum Call { ListenTcp, ListenIpc, ConnectTcp, ConnectIpc } call;
  const char* host;
  const char* port;  // or the path
  uint32_t error;
};

constexpr char kPathOf108[] =
    "/tmp/aaaaaaaaaabbbbbbbbbbccccccccccddddddddddeeeeeeeeeeffffffffffgggggggggghhhhhhhhhhiiiiiiiiiijjjjjjjjjj123";
static_assert(sizeof(kPathOf108) - 1 == 108);

constexpr BadCase kBad[] = {
    {"ListenNoPort", BadCase::ListenTcp, "127.0.0.1", nullptr, ZEL_ERROR_ADDRESS},
    {"ListenEmptyPort", BadCase::ListenTcp, "127.0.0.1", "", ZEL_ERROR_ADDRESS},
    {"ListenPortTooHigh", BadCase::ListenTcp, "127.0.0.1", "65536", ZEL_ERROR_ADDRESS},
    {"ListenEverywherePortTooHigh", BadCase::ListenTcp, nullptr, "100000", ZEL_ERROR_ADDRESS},
    {"ListenUnknownService", BadCase::ListenTcp, "127.0.0.1", "no-such-service", ZEL_ERROR_ADDRESS},
    {"ListenForeignAddress", BadCase::ListenTcp, "192.0.2.1", "0", EADDRNOTAVAIL},
    {"ListenNoPath", BadCase::ListenIpc, nullptr, nullptr, ZEL_ERROR_ADDRESS},
    {"ListenEmptyPath", BadCase::ListenIpc, nullptr, "", ZEL_ERROR_ADDRESS},
    {"ListenLongPath", BadCase::ListenIpc, nullptr, kPathOf108, ZEL_ERROR_ADDRESS},
    {"ListenMissingFolder", BadCase::ListenIpc, nullptr, "/nonexistent/socket", ENOENT},
    {"ConnectNoHost", BadCase::ConnectTcp, nullptr, "80", ZEL_ERROR_ADDRESS},
    {"ConnectEmptyHost", BadCase::ConnectTcp, "", "80", ZEL_ERROR_ADDRESS},
    {"ConnectNoPort", BadCase::ConnectTcp, "127.0.0.1", nullptr, ZEL_ERROR_ADDRESS},
    {"ConnectPortTooHigh", BadCase::ConnectTcp, "127.0.0.1", "65536", ZEL_ERROR_ADDRESS},
    {"ConnectPortTooHighByName", BadCase::ConnectTcp, "localhost", "65536", ZEL_ERROR_ADDRESS},
    {"ConnectNoPath", BadCase::ConnectIpc, nullptr, nullptr, ZEL_ERROR_ADDRESS},
    {"ConnectEmptyPath", BadCase::ConnectIpc, nullptr, "", ZEL_ERROR_ADDRESS},
    {"ConnectLongPath", BadCase::ConnectIpc, nullptr, kPathOf108, ZEL_ERROR_ADDRESS},
};

class BadArgumentTest : public ConnectionTest, public ::testing::WithParamInterface<BadCase> {};

TEST_P(BadArgumentTest, IsRefusedWithinTheCall) {
  const BadCase& row = GetParam();
  for (ZelConnection* connection : {connection_, static_cast<ZelConnection*>(nullptr)}) {
    zel_error = 0;
    ZelPeer* peer = nullptr;
    switch (row.call) {
      case BadCase::ListenTcp:
        peer = connection_listenOnTCP(connection, row.host, row.port);
        break;
      case BadCase::ListenIpc:
        peer = connection_listenOnIPC(connection, row.port);
        break;
      case BadCase::ConnectTcp:
        peer = connection_connectToTCP(connection, row.host, row.port, 0);
        break;
      case BadCase::ConnectIpc:
        peer = connection_connectToIPC(connection, row.port);
        break;
    }
    EXPECT_EQ(peer, nullptr);
    EXPECT_EQ(living(), 0u);
    if (connection) {
      EXPECT_EQ(zel_error, row.error) << error_string(zel_error);
    } else {
      EXPECT_NE(zel_error, 0u);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Platform, BadArgumentTest, ::testing::ValuesIn(kBad),
                         [](const auto& row) { return std::string(row.param.name); });

// Failures that show only later: the call gives a peer, the loop ends it.
class FailingTest : public ConnectionTest {
 protected:
  void expectEnd(ZelPeer* peer, uint32_t error) {
    ASSERT_NE(peer, nullptr);
    collect(peer);
    fputs("nobody", peer_outStream(peer, PEER_STREAM_BUFFERED));
    uint32_t reason = 0;
    client_.on(peer, PEER_EVENT_CLOSE, [&](ZelPeer*) {
      reason = zel_error;
      return true;
    });
    EXPECT_EQ(client_.count(PEER_EVENT_CLOSE), 0u);
    ASSERT_TRUE(until([&] { return ended(); }));
    EXPECT_EQ(reason, error) << error_string(reason);
    EXPECT_EQ(client_.count(PEER_EVENT_DATA), 0u);
    EXPECT_EQ(living(), 0u);
    settle();
  }
  // A port that nobody listens on.
  std::string closedPort() {
    ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
    const std::string port = portOf(listener);
    peer_destroy(listener);
    return port;
  }
};

TEST_F(FailingTest, RefusedTcp) {
  expectEnd(connection_connectToTCP(connection_, "127.0.0.1", closedPort().c_str(), 0), ECONNREFUSED);
}

TEST_F(FailingTest, RefusedTcpOfEveryAddressOfAName) {
  expectEnd(connection_connectToTCP(connection_, "two.test", closedPort().c_str(), 0), ECONNREFUSED);
}

TEST_F(FailingTest, MissingPath) {
  expectEnd(connection_connectToIPC(connection_, folder_.file("missing").c_str()), ENOENT);
}

TEST_F(FailingTest, PathWithoutListener) {
  const std::string path = folder_.file("file");
  Descriptor file(open(path.c_str(), O_CREAT | O_WRONLY, 0600));
  expectEnd(connection_connectToIPC(connection_, path.c_str()), ECONNREFUSED);
}

// Labels have at most 63 characters, so that no server needs to be asked.
constexpr char kBadName[] = "this-label-is-longer-than-any-label-of-a-name-may-be-so-nobody-has-it.example";

TEST_F(FailingTest, UnknownName) {
  expectEnd(connection_connectToTCP(connection_, kBadName, "80", 0), ZEL_ERROR_RESOLVE);
}

TEST_F(FailingTest, NameThatIsNone) {
  expectEnd(connection_connectToTCP(connection_, std::string(300, 'a').c_str(), "80", 0), ZEL_ERROR_RESOLVE);
}

TEST_F(FailingTest, UnknownService) {
  expectEnd(connection_connectToTCP(connection_, "localhost", "no-such-service", 0), ZEL_ERROR_RESOLVE);
}

TEST_F(ConnectionTest, PeersMayEndWhileTheyConnect) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  for (const char* host : {"127.0.0.1", "localhost", "two.test", kBadName})
    for (const int turns : {0, 1, 2}) {
      ZelPeer* peer = connection_connectToTCP(connection_, host, portOf(listener).c_str(), 0);
      ASSERT_NE(peer, nullptr);
      bool failed = false;
      client_.on(peer, PEER_EVENT_CLOSE, [&](ZelPeer*) { return failed = true; });
      for (int turn = 0; turn < turns; ++turn) zel_loop_turn(0);
      if (!failed) peer_destroy(peer);
      EXPECT_TRUE(failed);
      settle();
    }
  EXPECT_EQ(living(), 1u);
}

TEST_F(ConnectionTest, LookUpsMayOutliveTheirPeers) {
  connection_connectToTCP(connection_, "localhost", "9", 0);
  connection_connectToTCP(connection_, kBadName, "9", 0);
  connection_destroy(std::exchange(connection_, nullptr));
  zel_loop_close();
}

TEST_F(ConnectionTest, ALookUpThatNobodyWaitsForDoesNotKeepTheLoopRunning) {
  for (const bool lingers : {false, true}) {
    slowAnswers = false;
    ZelPeer* peer = connection_connectToTCP(connection_, "slow.test", "9", 0);
    EXPECT_TRUE(zel_loop_turn(0));
    if (lingers) fputs("x", peer_outStream(peer, PEER_STREAM_BUFFERED));
    peer_destroy(peer);
    EXPECT_EQ(zel_loop_run(), 0);
    EXPECT_FALSE(slowAnswers.exchange(true));
    zel_loop_close();
  }
}

TEST_F(ConnectionTest, OutputOfAPeerThatEndsWhileConnectingIsDelivered) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  std::string got;
  server_.on(listener, PEER_EVENT_ACCEPT, [&](ZelPeer* peer) {
    server_.on(peer, PEER_EVENT_DATA, [&](ZelPeer* one) {
      got += readAll(peer_inStream(one));
      return !feof(peer_inStream(one));
    });
    return true;
  });
  for (const char* host : {"127.0.0.1", "two.test"}) {
    ZelPeer* peer = connection_connectToTCP(connection_, host, portOf(listener).c_str(), 0);
    fputs("fire and forget;", peer_outStream(peer, PEER_STREAM_BUFFERED));
    peer_destroy(peer);
  }
  ASSERT_TRUE(until([&] { return got == "fire and forget;fire and forget;"; }));
  ZelPeer* peer = connection_connectToTCP(connection_, "127.0.0.1", "1", 0);
  fputs("to nobody", peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  settle();
}

// A local socket whose backlog is full: connections to it are not made before it accepts.
class BacklogTest : public ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    path_ = folder_.file("full");
    listening_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path_.c_str());
    const sockaddr* generic = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(bind(listening_.get(), generic, sizeof(address)), 0);
    ASSERT_EQ(listen(listening_.get(), 0), 0);
    for (;;) {
      Descriptor filler(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      if (connect(filler.get(), generic, sizeof(address)) < 0) break;
      fillers_.push_back(std::move(filler));
    }
  }
  void TearDown() override {
    listening_.reset();
    fillers_.clear();
    served_.clear();
    ConnectionTest::TearDown();
  }
  // Accepts, and gives what all have sent so far.
  const std::string& serve() {
    Descriptor one(accept4(listening_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (one.get() >= 0) served_.push_back(std::move(one));
    for (const Descriptor& each : served_) got_ += received(each);
    return got_;
  }

  std::string path_;
  std::string got_;
  Descriptor listening_;
  std::vector<Descriptor> fillers_;
  std::vector<Descriptor> served_;
};

TEST_F(BacklogTest, OutputOfAnEndedPeerWaitsForItsConnection) {
  ZelPeer* peer = connection_connectToIPC(connection_, path_.c_str());
  fputs("at last", peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  for (int i = 0; i < 6; ++i) {
    settle();
    letTimePass(1000);
  }
  ASSERT_TRUE(until([&] { return serve().substr(0, 7) == "at last"; }));
}

TEST_F(BacklogTest, AConnectionThatIsNeverMadeIsGivenUp) {
  ZelPeer* peer = connection_connectToIPC(connection_, path_.c_str());
  fputs("to nobody", peer_outStream(peer, PEER_STREAM_BUFFERED));
  peer_destroy(peer);
  settle();
  EXPECT_GE(zel_loop_timeout(), 0);
  for (int i = 0; i < 50; ++i) {
    settle();
    letTimePass(1000);
  }
  settle();
  EXPECT_EQ(zel_loop_timeout(), -1);
}

TEST_F(BacklogTest, LocalConnectionsWait) {
  ZelPeer* patient = connection_connectToIPC(connection_, path_.c_str());
  ZelPeer* ended = connection_connectToIPC(connection_, path_.c_str());
  fputs("at last", peer_outStream(patient, PEER_STREAM_BUFFERED));
  settle();
  peer_destroy(ended);
  ASSERT_TRUE(until([&] { return serve() == "at last"; }));
}

TEST_F(ConnectionTest, WithoutAnAcceptHandlerConnectionsWait) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  other_ = connectTo(listener);
  EXPECT_FALSE(zel_loop_turn(0)) << "nothing could raise an event";
  echo(listener);
  ASSERT_TRUE(until([&] { return accepted_.size() == 1; }));
}

TEST_F(ConnectionTest, AnAcceptHandlerMayRefuse) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  server_.on(listener, PEER_EVENT_ACCEPT, [](ZelPeer* peer) {
    fputs("full", peer_outStream(peer, PEER_STREAM_BUFFERED));
    return false;
  });
  other_ = connectTo(listener);
  ASSERT_TRUE(until([&] { return server_.count(PEER_EVENT_ACCEPT) == 1; }));
  EXPECT_EQ(received(other_), "full<end>");
  EXPECT_EQ(living(), 1u);
}

TEST_F(ConnectionTest, AnAcceptHandlerMayEndTheListener) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  std::array<Descriptor, 3> others;
  for (Descriptor& other : others) other = connectTo(listener);
  server_.on(listener, PEER_EVENT_ACCEPT, [&](ZelPeer* peer) {
    peer_destroy(listener);
    fputs("you are the last", peer_outStream(peer, PEER_STREAM_BUFFERED));
    return true;
  });
  ASSERT_TRUE(until([&] { return server_.count(PEER_EVENT_ACCEPT) == 1; }));
  settle();
  EXPECT_EQ(server_.count(PEER_EVENT_ACCEPT), 1u);
  EXPECT_EQ(received(others[0]), "you are the last");
  EXPECT_EQ(received(others[1]), "<reset>");
  EXPECT_EQ(living(), 1u);
}

TEST_F(ConnectionTest, ListenersHaveACloseEvent) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  client_.on(listener, PEER_EVENT_CLOSE, [](ZelPeer*) { return true; });
  peer_destroy(listener);
  peer_destroy(listener);
  EXPECT_TRUE(ended());
  EXPECT_EQ(peer_localPort(listener), 0u);
}

TEST_F(ConnectionTest, ManyConnectionsAtOnce) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  echo(listener);
  std::array<Descriptor, 200> others;
  for (Descriptor& other : others) other = connectTo(listener);
  for (const Descriptor& other : others) sendText(other, std::to_string(other.get()));
  ASSERT_TRUE(until([&] { return accepted_.size() == others.size(); }));
  settle();
  for (const Descriptor& other : others) EXPECT_EQ(received(other), std::to_string(other.get()));
}

class ShortageTest : public ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    getrlimit(RLIMIT_NOFILE, &limit_);
  }
  void TearDown() override {
    allow(limit_.rlim_cur);
    ConnectionTest::TearDown();
  }
  void allow(rlim_t count) {
    rlimit limit = limit_;
    limit.rlim_cur = count;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  // From now on no descriptor can be had.
  void allowNoMore() {
    Descriptor probe(dup(other_.get()));
    allow(static_cast<rlim_t>(probe.get()));
  }
  rlimit limit_;
};

TEST_F(ShortageTest, ListeningWaitsForAFreeDescriptorWithoutSpinning) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  echo(listener);
  other_ = connectTo(listener);
  ASSERT_TRUE(until([&] { return accepted_.size() == 1; }));
  Descriptor waiting = connectTo(listener);
  Descriptor spare(dup(other_.get()));
  allowNoMore();
  for (int turn = 0; turn < 20; ++turn) zel_loop_turn(0);
  EXPECT_EQ(accepted_.size(), 1u);
  zel_loop_turn(0);
  pollfd loop = {zel_loop_descriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&loop, 1, 0), 0) << "the loop would never sleep";
  EXPECT_TRUE(zel_loop_turn(0));
  spare.reset();
  ASSERT_TRUE(until([&] { return accepted_.size() == 2; })) << "it is tried again now and then";
}

TEST_F(ShortageTest, ADescriptorThatIsFreedIsUsedAtOnce) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  echo(listener);
  other_ = connectTo(listener);
  ASSERT_TRUE(until([&] { return accepted_.size() == 1; }));
  Descriptor waiting = connectTo(listener);
  allowNoMore();
  settle();
  EXPECT_EQ(accepted_.size(), 1u);
  peer_destroy(accepted_[0]);  // nothing was written: its socket goes at once
  for (int turn = 0; turn < 3; ++turn) zel_loop_turn(0);
  EXPECT_EQ(accepted_.size(), 2u);
}

TEST_F(ShortageTest, LingeringPeersGoFirst) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  echo(listener);
  other_ = connectTo(listener);
  ASSERT_TRUE(until([&] { return accepted_.size() == 1; }));
  fputs("bye", peer_outStream(accepted_[0], PEER_STREAM_BUFFERED));
  peer_destroy(accepted_[0]);
  settle();
  Descriptor waiting = connectTo(listener);
  allowNoMore();
  for (int turn = 0; turn < 3; ++turn) zel_loop_turn(0);
  EXPECT_EQ(accepted_.size(), 2u);
  EXPECT_EQ(received(other_), "bye<end>");
}

TEST_F(ShortageTest, ConnectingWithoutDescriptorsFailsLater) {
  ZelPeer* listener = connection_listenOnTCP(connection_, "127.0.0.1", "0");
  const std::string port = portOf(listener);
  other_.reset(dup(0));
  allowNoMore();
  // The sanitizer needs descriptors to check calls of the fixture's members: none from here on.
  ZelPeer* peer = connection_connectToTCP(connection_, "127.0.0.1", port.c_str(), 0);
  ASSERT_NE(peer, nullptr);
  client_.on(peer, PEER_EVENT_CLOSE, [](ZelPeer*) {
    EXPECT_EQ(zel_error, static_cast<uint32_t>(EMFILE));
    return true;
  });
  for (int turn = 0; turn < 3; ++turn) zel_loop_turn(0);
  EXPECT_EQ(client_.count(PEER_EVENT_CLOSE), 1u);
  EXPECT_EQ(connection_listenOnTCP(connection_, "127.0.0.1", "0"), nullptr);
  EXPECT_EQ(zel_error, static_cast<uint32_t>(EMFILE));
}

TEST_F(ConnectionTest, OnlyStreamSocketsAreAdopted) {
  Descriptor file(open("/dev/null", O_RDONLY | O_CLOEXEC));
  Descriptor datagrams(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  for (const int fd : {file.get(), datagrams.get(), -1}) {
    zel_error = 0;
    EXPECT_EQ(connection_adopt(connection_, fd), nullptr);
    EXPECT_EQ(zel_error, ZEL_ERROR_ADDRESS);
  }
  EXPECT_EQ(connection_adopt(nullptr, file.get()), nullptr);
  EXPECT_EQ(living(), 0u);
}

TEST_F(ConnectionTest, AnAdoptedDescriptorIsNotInherited) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  other_.reset(ends[1]);
  ZelPeer* peer = connection_adopt(connection_, ends[0]);
  ASSERT_NE(peer, nullptr);
  EXPECT_EQ(fcntl(peer_socket(peer), F_GETFD), FD_CLOEXEC);
}

TEST_F(ConnectionTest, ADescriptorIsAdoptedOnce) {
  ZelPeer* peer = makePeer(&other_);
  zel_loop_turn(0);
  EXPECT_EQ(connection_adopt(connection_, peer_socket(peer)), nullptr);
  EXPECT_EQ(zel_error, static_cast<uint32_t>(EEXIST));
  EXPECT_EQ(living(), 1u);
  fputs("still there", peer_outStream(peer, PEER_STREAM_BUFFERED));
  settle();
  EXPECT_EQ(received(other_), "still there");
}

TEST_F(ConnectionTest, PeersKnowTheirConnection) {
  ZelPeer* peer = makePeer(&other_);
  EXPECT_EQ(peer_connection(peer), connection_);
  EXPECT_EQ(peer_connection(nullptr), nullptr);
  EXPECT_EQ(connection_peers(nullptr), nullptr);
  EXPECT_EQ(peer_userData(peer), nullptr);
  peer_setUserData(peer, this);
  EXPECT_EQ(peer_userData(peer), this);
  EXPECT_EQ(peer_userData(nullptr), nullptr);
  EXPECT_STREQ(peer_address(nullptr), "");
  EXPECT_EQ(peer_localPort(nullptr), 0u);
  errno = 7;
  zel_error = 0;
  EXPECT_EQ(peer_socket(nullptr), -1);
  EXPECT_EQ(zel_error, ZEL_ERROR_BAD_PEER);
  EXPECT_EQ(errno, 7);
}

TEST_F(ConnectionTest, ErrorsHaveTexts) {
  for (const uint32_t error : {0u, 1u, 111u, 0x10001u, 0x10002u, 0x10003u, 0x10004u, 0x10005u, 0xffffu, ~0u})
    EXPECT_STRNE(error_string(error), "") << error;
  EXPECT_STREQ(error_string(ENOENT), "No such file or directory");
}

}  // namespace
