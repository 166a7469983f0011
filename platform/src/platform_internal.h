/** @file platform_internal.h What the parts of the platform know of each other. */
#ifndef ZEL_PLATFORM_INTERNAL_H
#define ZEL_PLATFORM_INTERNAL_H

#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <uv.h>
#include <zel/connection.h>
#include <zel/error.h>
#include <zel/llist.h>
#include <zel/loop.h>
#include <zel/peer.h>
#include <zel/timer.h>

#include <cerrno>
#include <cstdint>

#include "link.h"
#include "queue.h"

namespace zel {

/** Input and output buffers lent to a peer's streams while one of its handlers runs. */
constexpr size_t kStreamBufferSize = 16384;
/** How many of them stay in the pool. */
constexpr size_t kPooledBuffers = 8;
/** Rounds of flushing and buffered events in a turn, so that one busy peer cannot keep the others waiting. */
constexpr int kRoundsPerTurn = 16;
/** Connections taken from one listening socket in a turn. */
constexpr int kAcceptsPerTurn = 32;
/** How long an ended peer may take for its last bytes, and how long the other side may take to finish. */
constexpr uint64_t kLingerMilliseconds = 2000;
/** How often a connection that is not made yet is given that time again. */
constexpr uint8_t kLingerConnecting = 15;
/** How much further input an ended peer drops before its socket goes. */
constexpr size_t kLingerBytes = 256 * 1024;
/** How often listening is tried again while descriptors are short. */
constexpr uint64_t kAcceptRetryMilliseconds = 100;
/** How often a local connection is tried again while the other side's backlog is full. */
constexpr uint64_t kConnectRetryMilliseconds = 10;

struct CloseHandler {
  CloseHandler* next;
  ZelPeerHandler handler;
};

struct ConnectJob;

/** What only listening peers have. */
struct Listener {
  Link link; /**< in the loop's list of starved ones */
  ZelPeer* peer;
  dev_t device; /**< with the inode: tells the socket's file from one that replaced it */
  ino_t inode;
  char* path; /**< from the root: the working directory may change; NULL for TCP */
};

/** What a peer's socket is. */
enum class Socket : uint8_t { Connecting, Connected, Listening };

/** Who ended a peer: decides what becomes of its queued output. */
enum class Ending : uint8_t { Here, Vanished };

/** The slots of a peer's handlers. */
enum Slot : uint8_t { kOnAccept, kOnData, kOnWritable, kOnDrained, kOnClose, kSlots };

}  // namespace zel

struct ZelPeer {
  uv_poll_t poll; /**< open while `polled` */
  zel::Link link; /**< in one of the loop's lists: work, settled; once ended: ended, lingering */
  ZelConnection* connection;
  size_t serial; /**< place in the connection's list, 0 when not in it */
  void* userData;
  const ZelTransport* transport;
  FILE* in;
  FILE* out;
  char* inBuffer;  /**< lent to `in`, or NULL: it is unbuffered then */
  char* outBuffer; /**< lent to `out`, or NULL */
  ZelPeerHandler handlers[zel::kSlots];
  zel::CloseHandler* closeHandlers;
  zel::Queue output;
  union {
    zel::ConnectJob* connecting; /**< Socket::Connecting */
    zel::Listener* listener;     /**< Socket::Listening */
  };
  char* address;      /**< made when first asked for */
  uint64_t deadline;  /**< while lingering */
  uint32_t readTurn;  /**< the last turn in which the transport was read */
  uint32_t turnBytes; /**< and how much of it */
  uint32_t dropped;   /**< input bytes thrown away while lingering */
  uint32_t unsent;    /**< what the socket held back when its time was last set, while lingering */
  uint32_t reason;    /**< zel_error of a failure that its end will report */
  int fd;
  uint8_t remote[16]; /**< the other side's IP address */
  uint8_t remoteFamily;
  uint8_t looks;    /**< how often its time was up while it was connecting */
  uint8_t interest; /**< what the poll handle waits for */
  zel::Socket socket;
  bool polled : 1;
  bool direct : 1;
  bool ending : 1;      /**< its close handlers run or have run; no events any more */
  bool ended : 1;       /**< they have run: writes fail, reads find the end */
  bool heldByTurn : 1;  /**< its memory and streams stay until the end of the turn */
  bool released : 1;    /**< only the poll handle, which is closing, still needs the memory */
  bool failed : 1;      /**< to be ended by the loop */
  bool writeDead : 1;   /**< the socket refused output for good; what can be read is still offered */
  bool blocked : 1;     /**< the socket is full: wait until it takes data */
  bool wrote : 1;       /**< output was ever made */
  bool undrained : 1;   /**< output was made for which event 5 has not been raised */
  bool tryWritable : 1; /**< a handler of event 4 is new: ask the socket before waiting for it */
  bool tryRead : 1;     /**< a handler of event 3 is new, or a transport may hold input: do not wait for the socket */
  bool eof : 1;         /**< the end of the input has been seen */
  bool reset : 1;       /**< the other side is gone */
  bool broken : 1;      /**< so a write was told, and the socket tells but once: the input seems to have ended */
  bool hungUp : 1;      /**< it has closed both directions, and what it sent is still to be read */
  bool finished : 1;    /**< it has closed its direction, as the poll set told while nobody read */
};

struct ZelConnection {
  zel::Link link; /**< in the list of all connections */
  ZelList* peers;
  bool destroyed;
};

namespace zel {

struct Loop {
  uv_loop_t uv;
  uv_prepare_t prepare;
  uv_check_t check;
  uv_idle_t idle;         /**< active while work is left: the loop must not sleep */
  uv_timer_t limit;       /**< ends the wait of zel_loop_turn(milliseconds) */
  uv_timer_t lingerEnd;   /**< for the first of `lingering` */
  uv_timer_t acceptAgain; /**< runs while a listening peer is starved */
  Link work;              /**< peers to look at before the loop sleeps */
  Link settled;           /**< peers looked at whose interest may have changed */
  Link ended;             /**< peers that ended in this turn */
  Link lingering;         /**< ended peers whose socket is still open, by deadline */
  Link timers;            /**< every timer that was ever started on this loop */
  Link due;               /**< timers started with 0 ms */
  Link starved;           /**< listening peers that wait for a free descriptor */
  ZelPeer* current;       /**< whose handler runs */
  bool currentReads;      /**< it is a handler of event 3 */
  char* buffers[kPooledBuffers];
  size_t bufferCount;
  uint32_t turn;
  uint32_t unwaited; /**< look-ups on their way that nothing living waits for */
  uint32_t endings;  /**< close handlers of so many peers run */
  bool open;
  bool inTurn;
  bool inWait; /**< within libuv's part of the turn */
  bool stopped;
  bool closing;
};

extern Loop loop;
extern Link connections;

/** Sets zel_error. @return false, for the caller to return */
bool fail(uint32_t error);
/** Sets zel_error to errno. @return nullptr */
template <typename T = void>
T* failWithErrno() {
  fail(static_cast<uint32_t>(errno));
  return nullptr;
}

// loop.cpp
bool loop_open();                  /**< makes the loop if there is none; false with zel_error */
void loop_stayAwake();             /**< something is to be done before the loop may sleep */
void loop_markWork(ZelPeer* peer); /**< the peer is looked at before the loop sleeps */
uint64_t loop_now();               /**< in milliseconds */
/** Starts @p timer, which runs out at @p due, a time as loop_now() gives it. */
void loop_startTimer(uv_timer_t* timer, uv_timer_cb callback, uint64_t due);
char* loop_takeBuffer();
void loop_returnBuffer(char* buffer);

// peer.cpp
ZelPeer* peer_create(ZelConnection* connection, int fd, Socket socket);
bool peer_openPoll(ZelPeer* peer);                                    /**< false with zel_error; the descriptor stays */
bool peer_raise(ZelPeer* peer, ZelPeerHandler handler, bool reading); /**< false when the peer has ended */
void peer_step(ZelPeer* peer);
void peer_onPoll(uv_poll_t* handle, int status, int events);
void peer_failLater(ZelPeer* peer, uint32_t reason); /**< the loop ends it, with @p reason as zel_error */
void peer_applyInterest(ZelPeer* peer);
void peer_rememberRemote(ZelPeer* peer, const sockaddr* address, socklen_t length);

/** What a transport's function gives, called again after a signal. */
template <typename Call>
ssize_t retried(Call call) {
  ssize_t result;
  do result = call();
  while (result < 0 && errno == EINTR);
  return result;
}

// stream.cpp
extern const ZelTransport kSocketTransport;
void stream_lendInput(ZelPeer* peer);
void stream_takeInputBack(ZelPeer* peer);
void stream_lend(ZelPeer* peer, bool reading);
bool stream_takeBack(ZelPeer* peer); /**< false when output could not be kept */
void stream_dropOutput(ZelPeer* peer);
/** A transport that is not the socket's own may hold input that the socket does not tell of. */
void stream_askTransport(ZelPeer* peer);
size_t stream_unread(const ZelPeer* peer);
void stream_close(ZelPeer* peer);
enum class Flush { Done, Blocked, More, Dead };
Flush stream_flush(ZelPeer* peer);

// ending.cpp
void peer_end(ZelPeer* peer, Ending ending);
void peer_closeSocket(ZelPeer* peer);
void peer_endConnected(ZelPeer* peer); /**< an ended peer has got its connection */
void peer_releaseIfDone(ZelPeer* peer);
void peer_lingerEvent(ZelPeer* peer, bool failed, int events);
void peer_releaseEnded();
void peer_dropOldestLingering();
void peer_dropAllLingering();
void peer_lingerExpired(uv_timer_t* timer);

// connection.cpp
bool connection_isUsable(const ZelConnection* connection); /**< for new peers; makes the loop; false with zel_error */
void listener_accept(ZelPeer* peer);
void listener_free(ZelPeer* peer);
void listener_descriptorFreed();
void listener_acceptAgain(uv_timer_t* timer);

// connect.cpp
void connect_abandon(ZelPeer* peer);
void connect_unref(ZelPeer* peer);
bool socketAddress_ofPath(const char* path, sockaddr_un* address);
/** Addresses of stream sockets, as getaddrinfo() with AI_ @p flags finds them; NULL with zel_error. errno is 0 then. */
addrinfo* socketAddress_find(const char* host, const char* port, int flags);

// llist.cpp
size_t llist_appendSerial(ZelList* list, void* item); /**< 0 when memory is short */
bool llist_removeSerial(ZelList* list, size_t serial);

// timer.cpp
void timer_runDue();
void timer_detachAll();

}  // namespace zel
#endif
