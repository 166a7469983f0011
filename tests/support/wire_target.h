// Targets of the wire tests: servers made of plain sockets, which do what their scripts say.
//
//   class RelayTest : public WireTargetTest {};
//   TEST_F(RelayTest, PassesOn) {
//     WireTarget target;                                      // 127.0.0.1, a port of the system's choice
//     target.always(WireScript().request().send(okReply("hello")).repeat());
//     ... connect to target.address() ...
//     EXPECT_TRUE(until([&] { return target.requests() == 1; }));
//     EXPECT_EQ(target.connection(0).received(), "GET / HTTP/1.1\r\n...");
//   }
//
// A target accepts any number of connections, in a row and at once; each keeps what it receives and has a script of its
// own. Without a script, or behind its end, a connection stalls: it reads, and does what the test tells it. Nothing
// moves by itself: WireTarget::pumpAll() lets every target that lives do what it can. The fixture WireTargetTest does
// so in until() and settle().
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <zel/loop.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/wire_client.h"
#include "support/wire_server.h"

// --- requests --------------------------------------------------------------------------------------------------------

// One request as a target received it.
struct WireRequest {
  std::string line;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;  // decoded
  std::string wire;  // all its bytes

  // The values of all headers of this name, whatever its case, joined with " | ".
  std::string header(const char* name) const {
    std::string values;
    for (const auto& [headerName, value] : headers)
      if (strcasecmp(headerName.c_str(), name) == 0) values += (values.empty() ? "" : " | ") + value;
    return values;
  }
  bool has(const char* name) const {
    return std::any_of(headers.begin(), headers.end(),
                       [&](const auto& header) { return strcasecmp(header.first.c_str(), name) == 0; });
  }
  // Request line and headers, up to and with the empty line.
  std::string head() const { return wire.substr(0, wire.find("\r\n\r\n") + 4); }
};

// The request that begins at *at, which moves behind it; nothing when it is not complete.
inline std::optional<WireRequest> takeRequest(std::string_view bytes, size_t* at) {
  const size_t headEnd = bytes.find("\r\n\r\n", *at);
  if (headEnd == std::string_view::npos) return std::nullopt;
  WireRequest request;
  size_t lineAt = *at;
  while (lineAt < headEnd + 2) {
    const size_t lineEnd = bytes.find("\r\n", lineAt);
    const std::string text(bytes.substr(lineAt, lineEnd - lineAt));
    const size_t colon = text.find(": ");
    if (lineAt == *at) {
      request.line = text;
    } else if (colon == std::string::npos) {
      ADD_FAILURE() << "not a header line: " << text;
    } else {
      request.headers.emplace_back(text.substr(0, colon), text.substr(colon + 2));
    }
    lineAt = lineEnd + 2;
  }
  size_t end = headEnd + 4;
  if (strcasecmp(request.header("Transfer-Encoding").c_str(), "chunked") == 0) {
    const auto body = wire_detail::takeChunked(bytes, &end);
    if (!body) return std::nullopt;
    request.body = *body;
  } else if (request.has("Content-Length")) {
    const size_t length = strtoull(request.header("Content-Length").c_str(), nullptr, 10);
    if (bytes.size() - end < length) return std::nullopt;
    request.body = bytes.substr(end, length);
    end += length;
  }
  request.wire = bytes.substr(*at, end - *at);
  *at = end;
  return request;
}

// Every complete request in bytes. What is left over becomes a request with the line "leftover".
inline std::vector<WireRequest> takeRequests(std::string_view bytes) {
  std::vector<WireRequest> requests;
  size_t at = 0;
  while (auto request = takeRequest(bytes, &at)) requests.push_back(std::move(*request));
  if (at < bytes.size()) requests.push_back({"leftover", {}, std::string(bytes.substr(at)), ""});
  return requests;
}

// --- scripts ---------------------------------------------------------------------------------------------------------

class WireTargetConnection;

// What a connection does, step by step: it waits, and it acts. A step begins when the one before is over.
class WireScript {
 public:
  // Waits for the next request, with its body.
  WireScript& request();
  // Waits for the head of the next request. Its body is still waited for by the next request().
  WireScript& head();
  // Waits until so many bytes have been received since the connection began.
  WireScript& received(size_t bytes);
  // Waits until this text is among what has been received.
  WireScript& text(std::string text);
  // Waits for so many turns of the loop.
  WireScript& turns(int count);
  WireScript& when(std::function<bool()> condition);

  // Sends; over when the socket has taken all.
  WireScript& send(std::string bytes);
  // Sends in pieces of this size, with a turn of the loop between them.
  WireScript& pieces(std::string_view bytes, size_t size);
  // Does anything; for scripts that depend on what was received.
  WireScript& call(std::function<void(WireTargetConnection&)> work);
  // Finishes sending: the other side reads the end of the stream, and can still send.
  WireScript& finish();
  // Goes away. What has arrived and was not read makes this a reset.
  WireScript& leave();
  // Goes away with a reset in any case.
  WireScript& reset();
  // Starts again with the first step.
  WireScript& repeat();

 private:
  friend class WireTargetConnection;
  // True when the step is over. It is asked with each pump until then; first: for the first time.
  using Step = std::function<bool(WireTargetConnection&, bool first)>;
  WireScript& add(Step step) {
    steps_.push_back(std::move(step));
    return *this;
  }
  std::vector<Step> steps_;
};

// One connection of a target. It lives as long as its target.
class WireTargetConnection {
 public:
  WireTargetConnection(Descriptor socket, WireScript script) : socket_(std::move(socket)), script_(std::move(script)) {}
  WireTargetConnection(const WireTargetConnection&) = delete;
  WireTargetConnection& operator=(const WireTargetConnection&) = delete;

  // Queues bytes to be sent.
  WireTargetConnection& send(std::string_view bytes) {
    output_.append(bytes);
    pumpOutput();
    return *this;
  }
  // Finishes sending, once all that was queued has gone.
  WireTargetConnection& finish() {
    finishing_ = true;
    pumpOutput();
    return *this;
  }
  // Goes away now. What has arrived and was not read makes this a reset.
  void leave() { socket_.reset(); }
  // Goes away with a reset in any case; what was sent and not read yet may be lost.
  void reset() {
    const linger hard = {1, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    socket_.reset();
  }

  // Reads no more than this with each pump: 0 to look away, the default for all there is.
  void readAtMost(size_t bytes) { readAtMost_ = bytes; }

  const std::string& received() const { return received_; }
  // The requests that have been received completely, and the begun one ("leftover").
  std::vector<WireRequest> requests() const { return takeRequests(received_); }
  // How many complete requests the script has waited for.
  size_t requestsTaken() const { return requestsTaken_; }
  // The other side has ended the connection, in good order or by a reset.
  bool ended() const { return end_ != Open; }
  bool wasReset() const { return end_ == Reset; }
  // This side has gone.
  bool left() const { return socket_.get() < 0; }
  bool allSent() const { return output_.size() == sent_; }
  size_t sentCount() const { return sentCount_; }
  int socket() const { return socket_.get(); }
  // The script is over, or waits for something that has not come.
  bool stalls() const { return left() || !busy_; }

  void pump() {
    if (left()) return;
    pumpOutput();
    pumpInput();
    pumpScript();
  }

 private:
  friend class WireScript;
  enum End { Open, Finished, Reset };

  void pumpOutput() {
    while (!left() && sent_ < output_.size()) {
      const ssize_t count = ::send(socket_.get(), output_.data() + sent_, output_.size() - sent_, MSG_NOSIGNAL);
      if (count < 0 && errno == EAGAIN) return;
      if (count < 0) break;  // the other side has gone
      sent_ += static_cast<size_t>(count);
      sentCount_ += static_cast<size_t>(count);
    }
    output_.clear();
    sent_ = 0;
    if (std::exchange(finishing_, false) && !left()) shutdown(socket_.get(), SHUT_WR);
  }
  void pumpInput() {
    static std::array<char, 1 << 16> buffer;
    size_t left = readAtMost_;
    while (end_ == Open && left > 0) {
      const ssize_t count = recv(socket_.get(), buffer.data(), std::min(buffer.size(), left), 0);
      if (count < 0 && errno == EAGAIN) return;
      if (count <= 0) {
        end_ = count == 0 ? Finished : Reset;
        return;
      }
      left -= static_cast<size_t>(count);
      received_.append(buffer.data(), static_cast<size_t>(count));
    }
  }
  void pumpScript() {
    busy_ = false;
    while (!left() && step_ < script_.steps_.size()) {
      if (!script_.steps_[step_](*this, std::exchange(first_, false))) return;
      busy_ = first_ = true;
      step_ = repeats_ ? 0 : step_ + 1;
      repeats_ = false;
    }
  }
  bool takeNextRequest() {
    if (!takeRequest(received_, &requestAt_)) return false;
    ++requestsTaken_;
    return true;
  }

  Descriptor socket_;
  WireScript script_;
  size_t step_ = 0;
  bool first_ = true;  // the step has not been asked yet
  bool busy_ = true;
  bool repeats_ = false;
  int turnsLeft_ = 0;
  std::string output_;
  size_t sent_ = 0;  // of output_
  size_t sentCount_ = 0;
  bool finishing_ = false;
  size_t readAtMost_ = SIZE_MAX;
  std::string received_;
  size_t requestAt_ = 0;  // where the next request begins
  size_t requestsTaken_ = 0;
  End end_ = Open;
};

inline WireScript& WireScript::request() {
  return add([](WireTargetConnection& connection, bool) { return connection.takeNextRequest(); });
}
inline WireScript& WireScript::head() {
  return add([](WireTargetConnection& connection, bool) {
    return connection.received_.find("\r\n\r\n", connection.requestAt_) != std::string::npos;
  });
}
inline WireScript& WireScript::received(size_t bytes) {
  return add([=](WireTargetConnection& connection, bool) { return connection.received_.size() >= bytes; });
}
inline WireScript& WireScript::text(std::string text) {
  return add([text = std::move(text)](WireTargetConnection& connection, bool) {
    return connection.received_.find(text) != std::string::npos;
  });
}
inline WireScript& WireScript::turns(int count) {
  return add([=](WireTargetConnection& connection, bool first) {
    if (first) connection.turnsLeft_ = count + 1;
    connection.busy_ = true;
    return --connection.turnsLeft_ <= 0;
  });
}
inline WireScript& WireScript::when(std::function<bool()> condition) {
  return add([condition = std::move(condition)](WireTargetConnection&, bool) { return condition(); });
}
inline WireScript& WireScript::send(std::string bytes) {
  return add([bytes = std::move(bytes)](WireTargetConnection& connection, bool first) {
    if (first) connection.send(bytes);
    return connection.allSent();
  });
}
inline WireScript& WireScript::pieces(std::string_view bytes, size_t size) {
  for (size_t at = 0; at < bytes.size(); at += size) {
    if (at > 0) turns(1);
    send(std::string(bytes.substr(at, size)));
  }
  return *this;
}
inline WireScript& WireScript::call(std::function<void(WireTargetConnection&)> work) {
  return add([work = std::move(work)](WireTargetConnection& connection, bool) {
    work(connection);
    return true;
  });
}
inline WireScript& WireScript::finish() {
  return call([](WireTargetConnection& connection) { connection.finish(); });
}
inline WireScript& WireScript::leave() {
  return call([](WireTargetConnection& connection) { connection.leave(); });
}
inline WireScript& WireScript::reset() {
  return call([](WireTargetConnection& connection) { connection.reset(); });
}
inline WireScript& WireScript::repeat() {
  return call([](WireTargetConnection& connection) { connection.repeats_ = true; });
}

// --- targets ---------------------------------------------------------------------------------------------------------

class WireTarget {
 public:
  struct Options {
    int receiveBuffer = 0;  // bytes, 0 for the system's default: a small one makes the other side wait
    int sendBuffer = 0;
    size_t readAtMost = SIZE_MAX;  // of each new connection, see WireTargetConnection::readAtMost()
  };

  // address: numeric, port 0 for one of the system's choice; or the path of a Unix socket.
  explicit WireTarget(const WireAddress& address = WireAddress::tcp(0)) : WireTarget(address, Options{}) {}
  WireTarget(const WireAddress& address, Options options) : address_(address), readAtMost_(options.readAtMost) {
    all().push_back(this);
    listen(options);
  }
  ~WireTarget() { all().erase(std::find(all().begin(), all().end(), this)); }
  WireTarget(const WireTarget&) = delete;
  WireTarget& operator=(const WireTarget&) = delete;

  // The script of the next connection that has none yet: the first call is for the first connection, and so on.
  WireTarget& next(WireScript script) {
    next_.push_back(std::move(script));
    return *this;
  }
  // The script of every connection that next() has none for.
  WireTarget& always(WireScript script) {
    always_ = std::move(script);
    return *this;
  }
  // Whether connections are accepted. Those that wait are complete for the other side; nobody reads from them.
  void accepting(bool accepting) { accepting_ = accepting; }
  // Stops listening: who connects from now on is refused. Connections that were accepted stay.
  void refuse() { listener_.reset(); }

  const WireAddress& address() const { return address_; }
  std::string host() const { return address_.host; }
  std::string port() const { return std::to_string(address_.port); }
  std::string path() const { return address_.path; }

  // The connections accepted so far, in their order; those that have ended are among them.
  size_t count() const { return connections_.size(); }
  WireTargetConnection& connection(size_t index) { return *connections_.at(index); }
  WireTargetConnection& last() { return *connections_.back(); }
  // How many complete requests the scripts have waited for, of all connections.
  size_t requests() const {
    size_t requests = 0;
    for (const auto& connection : connections_) requests += connection->requestsTaken();
    return requests;
  }
  // How many connections neither side has ended.
  size_t open() const {
    return static_cast<size_t>(std::count_if(connections_.begin(), connections_.end(), [](const auto& connection) {
      return !connection->ended() && !connection->left();
    }));
  }

  void pump() {
    accept();
    for (const auto& connection : connections_) connection->pump();
  }
  static void pumpAll() {
    for (WireTarget* target : all()) target->pump();
  }
  // Whether a script goes on without anything new having to come.
  static bool busy() {
    return std::any_of(all().begin(), all().end(), [](const WireTarget* target) {
      return std::any_of(target->connections_.begin(), target->connections_.end(),
                         [](const auto& connection) { return !connection->stalls(); });
    });
  }

 private:
  static std::vector<WireTarget*>& all() {
    static std::vector<WireTarget*> targets;
    return targets;
  }

  void listen(const Options& options) {
    sockaddr_storage storage = {};
    const socklen_t length = fill(&storage);
    listener_.reset(::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ASSERT_GE(listener_.get(), 0) << strerror(errno);
    // Set before connections come in, so that they have it from their beginning.
    if (options.receiveBuffer > 0)
      setsockopt(listener_.get(), SOL_SOCKET, SO_RCVBUF, &options.receiveBuffer, sizeof(options.receiveBuffer));
    if (options.sendBuffer > 0)
      setsockopt(listener_.get(), SOL_SOCKET, SO_SNDBUF, &options.sendBuffer, sizeof(options.sendBuffer));
    ASSERT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&storage), length), 0) << strerror(errno);
    ASSERT_EQ(::listen(listener_.get(), 64), 0) << strerror(errno);
    if (!address_.path.empty()) return;
    socklen_t room = sizeof(storage);
    ASSERT_EQ(getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&storage), &room), 0);
    address_.port = ntohs(storage.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port
                                                        : reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
  }
  socklen_t fill(sockaddr_storage* storage) const {
    if (!address_.path.empty()) {
      auto* unixAddress = reinterpret_cast<sockaddr_un*>(storage);
      unixAddress->sun_family = AF_UNIX;
      address_.path.copy(unixAddress->sun_path, sizeof(unixAddress->sun_path) - 1);
      return sizeof(*unixAddress);
    }
    if (address_.host.find(':') != std::string::npos) {
      auto* v6 = reinterpret_cast<sockaddr_in6*>(storage);
      v6->sin6_family = AF_INET6;
      v6->sin6_port = htons(static_cast<uint16_t>(address_.port));
      EXPECT_EQ(inet_pton(AF_INET6, address_.host.c_str(), &v6->sin6_addr), 1);
      return sizeof(*v6);
    }
    auto* v4 = reinterpret_cast<sockaddr_in*>(storage);
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(address_.port));
    EXPECT_EQ(inet_pton(AF_INET, address_.host.c_str(), &v4->sin_addr), 1);
    return sizeof(*v4);
  }
  void accept() {
    while (accepting_ && listener_.get() >= 0) {
      Descriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (socket.get() < 0) return;
      const int on = 1;  // every piece leaves at once, none waits for an acknowledgement of the one before
      if (address_.path.empty()) setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
      WireScript script = always_;
      if (!next_.empty()) {
        script = std::move(next_.front());
        next_.pop_front();
      }
      connections_.push_back(std::make_unique<WireTargetConnection>(std::move(socket), std::move(script)));
      connections_.back()->readAtMost(readAtMost_);
    }
  }

  WireAddress address_;
  size_t readAtMost_;
  Descriptor listener_;
  bool accepting_ = true;
  std::deque<WireScript> next_;
  WireScript always_;
  std::vector<std::unique_ptr<WireTargetConnection>> connections_;
};

// --- the fixture -----------------------------------------------------------------------------------------------------

// A test with targets, and with a server of the library where it needs one.
class WireTargetTest : public WireServerTest {
 protected:
  // As those of WireServerTest; targets do what they can meanwhile.
  template <typename Condition>
  static bool until(Condition condition, int seconds = 15) {
    return WireServerTest::until(
        [&] {
          WireTarget::pumpAll();
          return condition();
        },
        seconds);
  }
  static int settle() {
    constexpr int kLimit = 2000;
    constexpr int kQuietTurns = 4;
    int quiet = 0;
    for (int turn = 0; turn < kLimit; ++turn) {
      WireClient::pumpAll();
      WireTarget::pumpAll();
      quiet = loopIsDue() || WireTarget::busy() ? 0 : quiet + 1;
      if (quiet > kQuietTurns) return turn;
      zel_loop_turn(0);
    }
    ADD_FAILURE() << "the loop does not come to rest";
    return kLimit;
  }
};
