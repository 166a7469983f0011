// Thousands of clients in one thread: sockets that never block, on epoll, and a clock for what they do later.
//
//   Swarm swarm(port);
//   Client* client = swarm.connect();
//   client->send("GET / HTTP/1.1\r\n...");
//   swarm.run([&] { return client->ended(); }, 10);
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

class Swarm;

class Client {
 public:
  struct Options {
    unsigned port = 0;      // another one than the swarm's
    int receiveBuffer = 0;  // bytes, 0 for the system's default
    bool reads = true;
    unsigned host = 0;  // connects from this address in 127.0.0.0/8
  };

  Client(Swarm* swarm, Options options);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Called when the connection is there, for bytes that have come, and when the server has ended the connection.
  std::function<void()> onConnected;
  std::function<void()> onReceived;
  std::function<void()> onEnded;
  // Gives what is sent next, for clients that never finish.
  std::function<std::string_view()> endless;

  void send(std::string_view bytes);
  // Closes the sending side, once all that was queued has gone.
  void finish();
  void leave();
  // Goes away with a reset, whatever was read.
  void reset();
  void setReading(bool reads);
  // Each look at the socket takes at most so many bytes.
  void readAtMost(size_t bytes) { readAtMost_ = bytes; }
  void stopEndless() { endless = nullptr; }

  bool connected() const { return connected_; }
  // By the server, in good order or by a reset.
  bool ended() const { return ended_; }
  bool wasReset() const { return reset_; }
  // Nothing will come any more: ended, or left by this side.
  bool over() const { return fd_ < 0; }
  bool allSent() const { return sent_ == output_.size(); }
  const std::string& received() const { return received_; }
  std::string take() { return std::exchange(received_, std::string()); }
  // Forgets the first bytes of what has come.
  void drop(size_t bytes) { received_.erase(0, bytes); }
  uint64_t receivedCount() const { return receivedCount_; }
  // What arrives is counted, not kept.
  void countOnly() { keeps_ = false; }

 private:
  friend class Swarm;
  void handle(uint32_t events);
  void handleConnected();
  void write();
  bool writeSome();
  void read();
  void end(bool byReset);
  void close();
  void watch();

  Swarm* swarm_;
  int fd_ = -1;
  uint32_t watched_ = 0;
  bool connected_ = false;
  bool reads_ = true;
  bool keeps_ = true;
  bool ended_ = false;
  bool reset_ = false;
  bool finishing_ = false;
  size_t readAtMost_ = SIZE_MAX;
  std::string output_;
  size_t sent_ = 0;
  std::string received_;
  uint64_t receivedCount_ = 0;
};

class Swarm {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Swarm(unsigned port);
  ~Swarm();
  Swarm(const Swarm&) = delete;
  Swarm& operator=(const Swarm&) = delete;

  // Clients live as long as the swarm, or until drop().
  Client* connect() { return connect(Client::Options{}); }
  Client* connect(Client::Options options);
  // The client goes away after the events that are being handled.
  void drop(Client* client);
  // Lets everybody go.
  void dropAll();
  size_t size() const { return clients_.size(); }

  // Runs @p action after a while, until the swarm ends.
  void after(int milliseconds, std::function<void()> action);
  // Lets the clients live until @p done, false when that took too long.
  bool run(const std::function<bool()>& done, double seconds);
  void runFor(double seconds);

 private:
  friend class Client;
  void turn(Clock::time_point until);
  void runDue();

  unsigned port_;
  int epoll_;
  unsigned made_ = 0;
  std::unordered_map<Client*, std::unique_ptr<Client>> clients_;
  std::vector<std::unique_ptr<Client>> dropped_;
  std::multimap<Clock::time_point, std::function<void()>> actions_;
};
