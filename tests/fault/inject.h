// Makes one call of the C allocator or of the system fail, or move less than it was asked to.
//
// The test program defines these functions itself, in front of those of the C library: what the library, the platform,
// libuv and the C library call comes by here. Calls count, and fail, only within the scope of an Armed.
#pragma once

#include <initializer_list>

enum class Call {
  None,
  Allocate,
  Read,
  Write,
  Recv,
  Send,
  SendMsg,
  Accept,
  Socket,
  Connect,
  Bind,
  Listen,
  SetSockOpt,
  GetSockOpt,
  Shutdown,
  SendFile,
  Splice,
  Open,
  Stat,
  RealPath,
  Lseek,
  Fcntl,
  Poll,
  Close,
  EpollCreate,
  EpollCheck,
  EpollWait,
};

// In place of an errno: the call succeeds, and moves one byte at most.
constexpr int kOneByte = -1;

struct Fault {
  Call call = Call::None;
  int error = 0;
  unsigned nth = 0;      // from 1
  bool forGood = false;  // all later ones fail as well
};

// How often it has been called since setFault().
unsigned callsSeen();
// Whether a call has failed since setFault().
bool faultHit();
void setFault(const Fault& fault);

// Blocks of the C allocator that have not been freed.
long liveBlocks();

class Armed {
 public:
  Armed();
  ~Armed();
  Armed(const Armed&) = delete;
  Armed& operator=(const Armed&) = delete;
};

// What the test does itself inside of a handler.
class Spared {
 public:
  Spared();
  ~Spared();
  Spared(const Spared&) = delete;
  Spared& operator=(const Spared&) = delete;

 private:
  bool was_;
};
