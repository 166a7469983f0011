// The platform (zel/*.h) without sockets and without time of its own: what the other sides of the connections send and
// take, and how time passes, is said by whoever runs it. Linked in place of the bundled one.
//
//   ZelPeer* listening = memory_listen(connection);
//   std::shared_ptr<MemorySocket> browser = memory_connectTo(listening);
//   browser->send("GET / HTTP/1.1\r\n\r\n");
//   while (memory_turn()) {}
//   browser->received                                  what was sent to it
//
// What the contract leaves open is chosen by MemoryOptions.
#pragma once

#include <zel/connection.h>
#include <zel/loop.h>
#include <zel/peer.h>
#include <zel/timer.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct MemoryOptions {
  size_t streamBuffer = 4096;  // of the peers' streams, 0: none
  bool sendfile = false;       // descriptors may be given to sendfile() and splice()
};
extern MemoryOptions memoryOptions;

// The other side of a peer. It may outlive it.
class MemorySocket {
 public:
  void send(std::string_view bytes) { sent.append(bytes); }
  void finish() { finished = true; }
  void reset() { isReset = true; }
  // One of these, or neither, as a choice of 0 to 15 says.
  void end(unsigned choice) {
    if (choice < 8)
      finish();
    else if (choice > 12)
      reset();
  }
  // So many bytes more can be taken.
  void take(size_t bytes) { room = bytes > SIZE_MAX - room ? SIZE_MAX : room + bytes; }

  std::string received;
  bool closed = false;    // by the peer
  bool refused = false;   // (of one that is connecting) the connection cannot be made
  bool accepted = false;  // (the same) it has been made

  // For the platform.
  std::string_view unread() const { return std::string_view(sent).substr(read); }
  std::string sent;
  size_t read = 0;  // of it
  bool finished = false;
  bool isReset = false;
  size_t room = 0;
};

// A listening peer.
ZelPeer* memory_listen(ZelConnection* connection);
// Connects to it; its handler runs here. Null when it has ended, or has no handler.
std::shared_ptr<MemorySocket> memory_connectTo(ZelPeer* listening);
// The other side of a peer.
MemorySocket* memory_socketOf(const ZelPeer* peer);
// Those that connection_connectToTCP() and connection_connectToIPC() have made since the last call.
std::vector<std::shared_ptr<MemorySocket>> memory_takeConnecting();
// The next calls of these fail at once.
void memory_refuseConnecting(bool refuse);

// One turn of the loop: what is due now. @return whether anything happened
bool memory_turn();
void memory_passTime(unsigned milliseconds);
// Milliseconds until the next timer is due; -1 when none is running.
int64_t memory_nextTimer();

// For what must be gone in the end.
size_t memory_livePeers();
size_t memory_liveTimers();
