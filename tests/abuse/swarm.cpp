#include "swarm.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr size_t kBlock = 65536;
// Connections from one address: well below the number of ports that a system hands out.
constexpr unsigned kClientsPerAddress = 4000;
constexpr unsigned kAddresses = 200;

void setOption(int fd, int level, int option, int value) {
  EXPECT_EQ(setsockopt(fd, level, option, &value, sizeof value), 0) << strerror(errno);
}

sockaddr_in loopback(unsigned host, unsigned port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl((127u << 24) + host);
  return address;
}

}  // namespace

// --- a client --------------------------------------------------------------------------------------------------------

Client::Client(Swarm* swarm, Options options) : swarm_(swarm), reads_(options.reads) {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  EXPECT_GE(fd_, 0) << strerror(errno);
  if (options.receiveBuffer > 0) setOption(fd_, SOL_SOCKET, SO_RCVBUF, options.receiveBuffer);
  setOption(fd_, IPPROTO_TCP, TCP_NODELAY, 1);
  setOption(fd_, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1);
  const unsigned host = 1 + (swarm->made_++ / kClientsPerAddress % kAddresses << 8);
  const sockaddr_in from = loopback(options.host != 0 ? options.host : host, 0);
  EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&from), sizeof from), 0) << strerror(errno);
  const sockaddr_in to = loopback(1, options.port != 0 ? options.port : swarm->port_);
  const int result = ::connect(fd_, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  EXPECT_TRUE(result == 0 || errno == EINPROGRESS) << strerror(errno);
  epoll_event event{};
  event.events = watched_ = EPOLLOUT;
  event.data.ptr = this;
  EXPECT_EQ(epoll_ctl(swarm->epoll_, EPOLL_CTL_ADD, fd_, &event), 0) << strerror(errno);
}

Client::~Client() { close(); }

void Client::send(std::string_view bytes) {
  if (over()) return;
  output_.append(bytes);
  write();
}

void Client::finish() {
  finishing_ = true;
  if (!over()) write();
}

void Client::leave() { close(); }

void Client::reset() {
  if (over()) return;
  const linger hard = {1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  close();
}

void Client::setReading(bool reads) {
  reads_ = reads;
  watch();
}

void Client::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void Client::watch() {
  if (over()) return;
  const bool waits = !connected_ || !allSent() || endless;
  const uint32_t wanted = (waits ? EPOLLOUT : 0u) | (reads_ && connected_ ? EPOLLIN : 0u);
  if (wanted == watched_) return;
  epoll_event event{};
  event.events = watched_ = wanted;
  event.data.ptr = this;
  epoll_ctl(swarm_->epoll_, EPOLL_CTL_MOD, fd_, &event);
}

void Client::end(bool byReset) {
  ended_ = true;
  reset_ = byReset;
  close();
  if (onEnded) onEnded();
}

void Client::handleConnected() {
  int error = 0;
  socklen_t length = sizeof error;
  getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length);
  if (error != 0) return end(true);
  connected_ = true;
  watch();
  if (onConnected) onConnected();
}

void Client::handle(uint32_t events) {
  if (!connected_) handleConnected();
  // What the server says comes before what else there is to tell it.
  if (!over() && reads_ && (events & (EPOLLIN | EPOLLHUP | EPOLLERR))) read();
  if (!over() && !reads_ && (events & (EPOLLHUP | EPOLLERR))) return end(true);
  if (!over() && (events & EPOLLOUT)) write();
}

// False when the socket takes no more.
bool Client::writeSome() {
  const ssize_t count = ::send(fd_, output_.data() + sent_, output_.size() - sent_, MSG_NOSIGNAL);
  if (count < 0 && errno == EAGAIN) return false;
  if (count < 0) {
    // The server has gone; what it said before is still to be read.
    output_.clear();
    sent_ = 0;
    endless = nullptr;
    return false;
  }
  sent_ += static_cast<size_t>(count);
  if (!allSent()) return false;
  output_.clear();
  sent_ = 0;
  return true;
}

void Client::write() {
  if (!connected_) return;
  constexpr int kMostAtOnce = 4;
  for (int i = 0; i < kMostAtOnce; ++i) {
    if (allSent() && endless) output_ = endless();
    if (allSent() || !writeSome()) break;
  }
  if (allSent() && !endless && std::exchange(finishing_, false)) shutdown(fd_, SHUT_WR);
  watch();
}

void Client::read() {
  thread_local std::array<char, kBlock> buffer;
  const ssize_t count = recv(fd_, buffer.data(), std::min(buffer.size(), readAtMost_), 0);
  if (count < 0 && errno == EAGAIN) return;
  if (count <= 0) return end(count < 0);
  receivedCount_ += static_cast<uint64_t>(count);
  if (keeps_) received_.append(buffer.data(), static_cast<size_t>(count));
  if (onReceived) onReceived();
}

// --- all of them -----------------------------------------------------------------------------------------------------

Swarm::Swarm(unsigned port) : port_(port), epoll_(epoll_create1(EPOLL_CLOEXEC)) { EXPECT_GE(epoll_, 0); }

Swarm::~Swarm() {
  clients_.clear();
  dropped_.clear();
  ::close(epoll_);
}

Client* Swarm::connect(Client::Options options) {
  auto client = std::make_unique<Client>(this, options);
  Client* const pointer = client.get();
  clients_.emplace(pointer, std::move(client));
  return pointer;
}

void Swarm::drop(Client* client) {
  const auto found = clients_.find(client);
  if (found == clients_.end()) return;
  found->second->close();
  dropped_.push_back(std::move(found->second));
  clients_.erase(found);
}

void Swarm::dropAll() {
  while (!clients_.empty()) drop(clients_.begin()->first);
}

void Swarm::after(int milliseconds, std::function<void()> action) {
  actions_.emplace(Clock::now() + std::chrono::milliseconds(milliseconds), std::move(action));
}

void Swarm::runDue() {
  const auto now = Clock::now();
  while (!actions_.empty() && actions_.begin()->first <= now) {
    const auto action = std::move(actions_.begin()->second);
    actions_.erase(actions_.begin());
    action();
  }
}

void Swarm::turn(Clock::time_point until) {
  const auto now = Clock::now();
  if (!actions_.empty()) until = std::min(until, actions_.begin()->first);
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
  std::array<epoll_event, 512> events;
  const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()),
                               static_cast<int>(std::clamp<int64_t>(left, 0, 100)));
  for (int i = 0; i < count; ++i) {
    auto* const client = static_cast<Client*>(events[static_cast<size_t>(i)].data.ptr);
    if (!client->over()) client->handle(events[static_cast<size_t>(i)].events);
  }
  dropped_.clear();
  runDue();
  dropped_.clear();
}

bool Swarm::run(const std::function<bool()>& done, double seconds) {
  const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  while (!done()) {
    if (Clock::now() >= until) return false;
    turn(until);
  }
  return true;
}

void Swarm::runFor(double seconds) {
  run([] { return false; }, seconds);
}
