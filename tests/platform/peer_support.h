// What the tests of the platform share: peers whose handlers are lambdas, and plain sockets at the other end.
#pragma once

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <zel/connection.h>
#include <zel/error.h>
#include <zel/loop.h>
#include <zel/peer.h>
#include <zel/timer.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

// Handles the events of one peer, or of several; is their user data.
class Probe {
 public:
  using Handler = std::function<bool(ZelPeer*)>;

  // Installs handler for event on peer; the log gets a line each time it runs.
  void on(ZelPeer* peer, int event, Handler handler) {
    peer_setUserData(peer, this);
    handlers_[event] = std::move(handler);
    EXPECT_TRUE(peer_setEventHandler(peer, event, directionOf(event), entry(event))) << "event " << event;
  }
  void off(ZelPeer* peer, int event) {
    EXPECT_TRUE(peer_setEventHandler(peer, event, directionOf(event), nullptr)) << "event " << event;
  }

  size_t count(int event) const {
    const auto found = counts_.find(event);
    return found == counts_.end() ? 0 : found->second;
  }

  static int directionOf(int event) {
    if (event == PEER_EVENT_ACCEPT || event == PEER_EVENT_DATA) return PEER_DIRECTION_IN;
    return event == PEER_EVENT_CLOSE ? PEER_DIRECTION_NONE : PEER_DIRECTION_OUT;
  }

 private:
  template <int kEvent>
  static bool handle(ZelPeer* peer) {
    Probe* probe = static_cast<Probe*>(peer_userData(peer));
    ++probe->counts_[kEvent];
    const Handler handler = probe->handlers_[kEvent];  // a copy: it may replace itself
    return handler(peer);
  }
  static ZelPeerHandler entry(int event) {
    switch (event) {
      case PEER_EVENT_ACCEPT:
        return handle<PEER_EVENT_ACCEPT>;
      case PEER_EVENT_DATA:
        return handle<PEER_EVENT_DATA>;
      case PEER_EVENT_WRITABLE:
        return handle<PEER_EVENT_WRITABLE>;
      case PEER_EVENT_DRAINED:
        return handle<PEER_EVENT_DRAINED>;
      default:
        return handle<PEER_EVENT_CLOSE>;
    }
  }

  std::map<int, Handler> handlers_;
  std::map<int, size_t> counts_;
};

// A descriptor that closes itself.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

inline void sendText(const Descriptor& socket, std::string_view text) {
  ASSERT_EQ(send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

// Puts the clock forward, for the whole program.
void letTimePass(long milliseconds);

// What has arrived, without waiting; "<end>" and "<reset>" stand for what they say.
inline std::string received(const Descriptor& socket, size_t limit = SIZE_MAX) {
  std::string text;
  std::array<char, 65536> buffer;
  while (text.size() < limit) {
    const ssize_t count = recv(socket.get(), buffer.data(), std::min(buffer.size(), limit - text.size()), MSG_DONTWAIT);
    if (count == 0) return text + "<end>";
    if (count < 0) return errno == EAGAIN ? text : text + "<reset>";
    text.append(buffer.data(), static_cast<size_t>(count));
  }
  return text;
}

// Everything that can be read from stream now.
inline std::string readAll(FILE* stream) {
  std::string text;
  int c;
  while ((c = getc_unlocked(stream)) != EOF) text.push_back(static_cast<char>(c));
  if (ferror_unlocked(stream)) clearerr_unlocked(stream);
  return text;
}

inline void resetOnClose(const Descriptor& socket) {
  const linger hard = {1, 0};
  ASSERT_EQ(setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)), 0);
}

// Bytes whose place can be told from their value.
inline std::string pattern(size_t length) {
  std::string text(length, '\0');
  uint32_t state = 12345;
  for (char& c : text) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return text;
}

// A folder that goes with the test.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    char name[] = "/tmp/zel-test-XXXXXX";
    if (mkdtemp(name)) path_ = name;
  }
  ~TemporaryFolder() {
    if (DIR* folder = opendir(path_.c_str())) {
      while (dirent* entry = readdir(folder)) unlinkat(dirfd(folder), entry->d_name, 0);
      closedir(folder);
    }
    rmdir(path_.c_str());
  }
  std::string file(const char* name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A loop and a connection for one test. Whatever the test did, no descriptor may be left behind.
class LoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zel_loop_turn(0);  // what lasts as long as the process is made by the first loop
    zel_loop_close();
    before_ = openDescriptors();
    connection_ = connection_create();
  }
  void TearDown() override {
    connection_destroy(connection_);
    zel_loop_close();
    other_.reset();
    EXPECT_EQ(openDescriptors(), before_);
  }

  // Runs turns until condition holds. The bound is for tests that fail.
  template <typename Condition>
  static bool until(Condition condition) {
    for (int turn = 0; turn < 20000; ++turn) {
      if (condition()) return true;
      zel_loop_turn(1);
    }
    return condition();
  }
  // Lets everything happen that can happen without further ado.
  static void settle() {
    for (int turn = 0; turn < 6; ++turn) zel_loop_turn(0);
  }

  // A peer on one end of a pair of Unix sockets; other is the other end.
  ZelPeer* makePeer(Descriptor* other) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    other->reset(ends[1]);
    ZelPeer* peer = connection_adopt(connection_, ends[0]);
    EXPECT_NE(peer, nullptr);
    return peer;
  }
  // The same, with TCP over the loopback interface.
  ZelPeer* makeTcpPeer(Descriptor* other) {
    Descriptor listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof(address);
    EXPECT_EQ(bind(listening.get(), generic, length), 0);
    EXPECT_EQ(listen(listening.get(), 1), 0);
    EXPECT_EQ(getsockname(listening.get(), generic, &length), 0);
    other->reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(other->get(), generic, length), 0);
    ZelPeer* peer = connection_adopt(connection_, accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_NE(peer, nullptr);
    return peer;
  }
  // A plain socket connected to a listening peer.
  static Descriptor connectTo(ZelPeer* listener) {
    Descriptor socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(peer_localPort(listener)));
    EXPECT_EQ(connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    return socket_;
  }

  static std::set<int> openDescriptors() {
    std::set<int> open;
    DIR* folder = opendir("/proc/self/fd");
    while (dirent* entry = readdir(folder))
      if (entry->d_name[0] != '.') open.insert(atoi(entry->d_name));
    open.erase(dirfd(folder));
    closedir(folder);
    return open;
  }

  ZelConnection* connection_ = nullptr;
  Descriptor other_;

 private:
  std::set<int> before_;
};
