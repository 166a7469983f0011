// Clients of the wire tests: plain sockets that never block, fed with bytes and read byte by byte.
//
// A client sends what it was given as fast as the socket takes it and keeps what it receives. Nothing moves by itself:
// WireClient::pumpAll() lets every client that lives do what it can.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

// Where a server listens.
struct WireAddress {
  std::string host;  // numeric, IPv4 or IPv6; empty for a Unix socket
  unsigned port = 0;
  std::string path;

  static WireAddress tcp(unsigned port, std::string host = "127.0.0.1") { return {std::move(host), port, ""}; }
  static WireAddress local(std::string path) { return {"", 0, std::move(path)}; }
};

class WireClient {
 public:
  struct Options {
    int receiveBuffer = 0;  // bytes, 0 for the system's default: a small one makes the server wait
  };

  explicit WireClient(const WireAddress& address) : WireClient(address, Options{}) {}
  WireClient(const WireAddress& address, Options options) {
    all().push_back(this);
    connectTo(address, options);
  }
  ~WireClient() { all().erase(std::find(all().begin(), all().end(), this)); }
  WireClient(const WireClient&) = delete;
  WireClient& operator=(const WireClient&) = delete;

  // Queues bytes to be sent.
  WireClient& send(std::string_view bytes) {
    output_.append(bytes);
    pump();
    return *this;
  }
  // Finishes sending, once all that was queued has gone: the server reads the end of the stream.
  WireClient& finish() {
    finishing_ = true;
    pump();
    return *this;
  }
  // Goes away. What has arrived and was not read makes this a reset.
  void leave() { socket_.reset(); }
  // Goes away with a reset in any case.
  void reset() {
    const linger hard = {1, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    socket_.reset();
  }

  // Reads no more than this with each pump: 0 to look away, the default for all there is.
  void readAtMost(size_t bytes) { readAtMost_ = bytes; }
  // Gives what arrives to sink instead of keeping it.
  void readInto(std::function<void(std::string_view)> sink) { sink_ = std::move(sink); }

  const std::string& received() const { return received_; }
  size_t receivedCount() const { return receivedCount_; }
  // What has arrived so far; from now on received() starts anew.
  std::string take() { return std::exchange(received_, std::string()); }
  // The server has ended the connection, in good order or by a reset.
  bool ended() const { return end_ != Open; }
  bool wasReset() const { return end_ == Reset; }
  size_t sentCount() const { return sentCount_; }
  // All that was queued has been handed to the socket.
  bool allSent() const { return output_.size() == sent_; }
  int socket() const { return socket_.get(); }

  void pump() {
    if (socket_.get() < 0) return;
    pumpOutput();
    pumpInput();
  }
  static void pumpAll() {
    for (WireClient* client : all()) client->pump();
  }

 private:
  enum End { Open, Finished, Reset };

  static std::vector<WireClient*>& all() {
    static std::vector<WireClient*> clients;
    return clients;
  }

  void connectTo(const WireAddress& address, const Options& options) {
    sockaddr_storage storage = {};
    const socklen_t length = fill(address, &storage);
    socket_.reset(::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_GE(socket_.get(), 0) << strerror(errno);
    if (options.receiveBuffer > 0)
      setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &options.receiveBuffer, sizeof(options.receiveBuffer));
    // The connection is complete before it is accepted, so this does not wait for the loop.
    ASSERT_EQ(connect(socket_.get(), reinterpret_cast<sockaddr*>(&storage), length), 0) << strerror(errno);
    ASSERT_EQ(fcntl(socket_.get(), F_SETFL, O_NONBLOCK), 0);
    const int on = 1;  // every piece leaves at once, none waits for an acknowledgement of the one before
    if (address.path.empty()) setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  static socklen_t fill(const WireAddress& address, sockaddr_storage* storage) {
    if (!address.path.empty()) {
      auto* unixAddress = reinterpret_cast<sockaddr_un*>(storage);
      unixAddress->sun_family = AF_UNIX;
      address.path.copy(unixAddress->sun_path, sizeof(unixAddress->sun_path) - 1);
      return sizeof(*unixAddress);
    }
    if (address.host.find(':') != std::string::npos) {
      auto* v6 = reinterpret_cast<sockaddr_in6*>(storage);
      v6->sin6_family = AF_INET6;
      v6->sin6_port = htons(static_cast<uint16_t>(address.port));
      EXPECT_EQ(inet_pton(AF_INET6, address.host.c_str(), &v6->sin6_addr), 1);
      return sizeof(*v6);
    }
    auto* v4 = reinterpret_cast<sockaddr_in*>(storage);
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(address.port));
    EXPECT_EQ(inet_pton(AF_INET, address.host.c_str(), &v4->sin_addr), 1);
    return sizeof(*v4);
  }

  void pumpOutput() {
    while (sent_ < output_.size()) {
      const ssize_t count = ::send(socket_.get(), output_.data() + sent_, output_.size() - sent_, MSG_NOSIGNAL);
      if (count < 0 && errno == EAGAIN) return;
      if (count < 0) {  // the server has gone; what it said before is still to be read
        sent_ = output_.size();
        break;
      }
      sent_ += static_cast<size_t>(count);
      sentCount_ += static_cast<size_t>(count);
    }
    output_.clear();
    sent_ = 0;
    if (std::exchange(finishing_, false)) shutdown(socket_.get(), SHUT_WR);
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
      receivedCount_ += static_cast<size_t>(count);
      const std::string_view bytes(buffer.data(), static_cast<size_t>(count));
      if (sink_) {
        sink_(bytes);
      } else {
        received_.append(bytes);
      }
    }
  }

  Descriptor socket_;
  std::string output_;
  size_t sent_ = 0;  // of output_
  size_t sentCount_ = 0;
  bool finishing_ = false;
  size_t readAtMost_ = SIZE_MAX;
  std::function<void(std::string_view)> sink_;
  std::string received_;
  size_t receivedCount_ = 0;
  End end_ = Open;
};

// --- replies ---------------------------------------------------------------------------------------------------------

// One reply as it was received.
struct WireReply {
  std::string statusLine;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;  // decoded
  std::string wire;  // all its bytes

  unsigned status() const { return static_cast<unsigned>(atoi(statusLine.substr(9, 3).c_str())); }
  // The values of all headers of this name (given in the spelling that the library uses), joined with " | ".
  std::string header(std::string_view name) const {
    std::string values;
    for (const auto& [headerName, value] : headers)
      if (headerName == name) values += (values.empty() ? "" : " | ") + value;
    return values;
  }
  bool has(std::string_view name) const {
    return std::any_of(headers.begin(), headers.end(), [&](const auto& header) { return header.first == name; });
  }
  // Status line and headers, up to and with the empty line.
  std::string head() const { return wire.substr(0, wire.find("\r\n\r\n") + 4); }
};

namespace wire_detail {

inline std::optional<std::string> takeChunked(std::string_view bytes, size_t* at) {
  std::string body;
  while (true) {
    const size_t lineEnd = bytes.find("\r\n", *at);
    if (lineEnd == std::string_view::npos) return std::nullopt;
    const size_t size = strtoul(std::string(bytes.substr(*at, lineEnd - *at)).c_str(), nullptr, 16);
    const size_t dataAt = lineEnd + 2;
    if (bytes.size() < dataAt + size + 2 || bytes.substr(dataAt + size, 2) != "\r\n") return std::nullopt;
    body.append(bytes.substr(dataAt, size));
    *at = dataAt + size + 2;
    if (size == 0) return body;
  }
}

}  // namespace wire_detail

// The reply that begins at *at, which moves behind it; nothing when it is not complete.
// bodyless: it answers HEAD. ended: the connection has ended, which completes a reply without a length.
inline std::optional<WireReply> takeReply(std::string_view bytes, size_t* at, bool bodyless = false,
                                          bool ended = false) {
  const size_t headEnd = bytes.find("\r\n\r\n", *at);
  if (headEnd == std::string_view::npos) return std::nullopt;
  WireReply reply;
  size_t lineAt = *at;
  for (size_t line = 0; lineAt < headEnd + 2; ++line) {
    const size_t lineEnd = bytes.find("\r\n", lineAt);
    const std::string text(bytes.substr(lineAt, lineEnd - lineAt));
    const size_t colon = text.find(": ");
    if (line == 0) {
      reply.statusLine = text;
    } else if (colon == std::string::npos) {
      ADD_FAILURE() << "not a header line: " << text;
    } else {
      reply.headers.emplace_back(text.substr(0, colon), text.substr(colon + 2));
    }
    lineAt = lineEnd + 2;
  }
  size_t end = headEnd + 4;
  if (bodyless) {
    // nothing follows
  } else if (reply.header("Transfer-Encoding") == "chunked") {
    const auto body = wire_detail::takeChunked(bytes, &end);
    if (!body) return std::nullopt;
    reply.body = *body;
  } else if (reply.has("Content-Length")) {
    const size_t length = strtoull(reply.header("Content-Length").c_str(), nullptr, 10);
    if (bytes.size() - end < length) return std::nullopt;
    reply.body = bytes.substr(end, length);
    end += length;
  } else if (ended) {
    reply.body = bytes.substr(end);
    end = bytes.size();
  } else {
    return std::nullopt;
  }
  reply.wire = bytes.substr(*at, end - *at);
  *at = end;
  return reply;
}

// Every complete reply in bytes. What is left over becomes a reply with the status line "leftover".
inline std::vector<WireReply> takeReplies(std::string_view bytes, bool ended = false) {
  std::vector<WireReply> replies;
  size_t at = 0;
  while (auto reply = takeReply(bytes, &at, false, ended)) replies.push_back(std::move(*reply));
  if (at < bytes.size()) replies.push_back({"leftover", {}, std::string(bytes.substr(at)), ""});
  return replies;
}

// How many replies in bytes are complete.
inline size_t countReplies(std::string_view bytes, bool ended = false) {
  const std::vector<WireReply> replies = takeReplies(bytes, ended);
  return replies.size() - (!replies.empty() && replies.back().statusLine == "leftover" ? 1 : 0);
}

// --- bytes and folders -----------------------------------------------------------------------------------------------

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

// The same with chunked transfer coding, in chunks of the given size.
inline std::string chunked(std::string_view body, size_t chunk = SIZE_MAX) {
  std::string wire;
  std::array<char, 32> line;
  for (size_t at = 0; at < body.size(); at += std::min(chunk, body.size() - at)) {
    const std::string_view part = body.substr(at, chunk);
    snprintf(line.data(), line.size(), "%zX\r\n", part.size());
    wire.append(line.data()).append(part).append("\r\n");
  }
  return wire + "0\r\n\r\n";
}

// A folder that goes with the test, with all that is in it. Its path is resolved and has no dot in it.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::string& parent = "/tmp") {
    std::string name = parent + "/krohttp-wire-XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr) << strerror(errno);
    std::array<char, PATH_MAX> resolved;
    if (realpath(name.c_str(), resolved.data())) path_ = resolved.data();
  }
  ~TemporaryFolder() {
    if (path_.empty()) return;
    EXPECT_EQ(system(("rm -rf '" + path_ + "'").c_str()), 0);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string at(std::string_view name) const { return path_ + "/" + std::string(name); }
  // Makes a folder below this one, and those above it.
  std::string folder(std::string_view name) const {
    for (size_t slash = name.find('/'); slash != std::string_view::npos; slash = name.find('/', slash + 1))
      mkdir(at(name.substr(0, slash)).c_str(), 0755);
    mkdir(at(name).c_str(), 0755);
    return at(name);
  }
  // Writes a file, and makes the folders it is in.
  std::string file(std::string_view name, std::string_view content) const {
    if (const size_t slash = name.rfind('/'); slash != std::string_view::npos) folder(name.substr(0, slash));
    const Descriptor out(open(at(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    EXPECT_EQ(write(out.get(), content.data(), content.size()), static_cast<ssize_t>(content.size())) << name;
    return at(name);
  }

 private:
  std::string path_;
};
