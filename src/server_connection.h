// The connections of all servers, as the files of the server share them.
#pragma once

#include <krohttp/server.h>
#include <zel/timer.h>

#include <cstdint>

#include "server_internal.h"

// How a body, or what is sent, gets on, looked at once a second.
struct Progress {
  static constexpr uint32_t kParts = 10;  // of the time over which a rate is measured

  bool runs = false;
  uint32_t still = 0;           // seconds without progress
  uint64_t position = 0;        // bytes read, or taken by the client
  uint32_t moved[kParts] = {};  // bytes in each of the last parts, in a ring
  uint32_t part = 0;            // the one under way
  uint32_t partSeconds = 0;     // of it
  uint32_t partsDone = 0;
};

// What a connection is doing, for whoever looks at the time.
struct ConnectionClock {
  int phase = 0;
  uint32_t request = 0;  // which one of the connection
  uint32_t seconds = 0;  // in this phase
  Progress body;

  // Whatever the phase, and across the replies of a connection.
  Progress output;
  uint64_t left = 0;     // of the output at the last look
  uint64_t written = 0;  // a mark of what was added to it
};

// A connection with what only the server needs to know.
struct Connection : HttpServerConnection {
  bool corked;               // the socket takes TCP_CORK
  bool uncorked;             // until the next request everything leaves at once
  bool lagging;              // the reader could not take all of this reply at once
  bool standsStill;          // the body's handler has read nothing
  bool replyDoneTold;        // replyDoneHandler has been called for this reply
  bool sendsFile;            // the descriptor is a regular file's, which ends
  bool awaitsSource;         // the descriptor had nothing to send: a timer looks again
  uint64_t staticRemaining;  // bytes still to send of a regular file, as announced: it may grow or shrink meanwhile
  uint64_t staticSent;       // of any descriptor
  ZelTimer* later;           // runs goOnLater(), null until it is needed
  ReplyFollower* follower;   // writes the reply, null for the application
  uint8_t refusedFor;        // HttpMessageRefusal that ends the connection
  uint32_t requests;         // heads that were complete
  ConnectionClock clock;
  Connection* previous;  // all connections of all servers, oldest first
  Connection* next;
};

inline Connection* oldestConnection = nullptr;
inline Connection* newestConnection = nullptr;

// Walks all connections, whichever of them close meanwhile.
class Walk {
 public:
  Walk() : next_(oldestConnection), outer_(innermost) { innermost = this; }
  ~Walk() { innermost = outer_; }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  Connection* next() {
    Connection* const connection = next_;
    if (connection != nullptr) next_ = connection->next;
    return connection;
  }

  static void stepOver(const Connection* connection) {
    for (Walk* walk = innermost; walk != nullptr; walk = walk->outer_)
      if (walk->next_ == connection) walk->next_ = connection->next;
  }

 private:
  static inline Walk* innermost = nullptr;
  Connection* next_;
  Walk* outer_;
};

inline void linkConnection(Connection* connection) {
  connection->previous = newestConnection;
  (newestConnection != nullptr ? newestConnection->next : oldestConnection) = connection;
  newestConnection = connection;
}

inline void unlinkConnection(Connection* connection) {
  Walk::stepOver(connection);
  (connection->previous != nullptr ? connection->previous->next : oldestConnection) = connection->next;
  (connection->next != nullptr ? connection->next->previous : newestConnection) = connection->previous;
}

inline Connection* connectionOf(const ZelPeer* peer) {
  return static_cast<Connection*>(static_cast<HttpServerConnection*>(peer_userData(peer)));
}

inline ZelPeer* peerOf(Connection* connection) { return connection->request.message.peer; }

// --- the request cycle (server.cpp) ----------------------------------------------------------------------------------

// How long to leave alone what is ready all the time but does not get on.
inline constexpr unsigned kPauseMilliseconds = 10;

// Traces when request and reply are not the server's.
void srv_checkOwnership(const Connection* connection);

// Takes the connection up again without an event. False when there is no memory for that.
bool srv_startLater(Connection* connection, unsigned milliseconds);

// The handler of an output that is drained.
bool srv_handleWriteDone(ZelPeer* peer);

// --- files (server_files.cpp) ----------------------------------------------------------------------------------------

// The handlers of an output that is drained, and writable: what comes next of a reply that a descriptor yields.
bool srv_handleWriteFileReplyDone(ZelPeer* peer);
bool srv_handleWriteFile(ZelPeer* peer);

// A descriptor that has nothing to send now.
bool srv_isSourceEmpty(const Connection* connection);

// Closes the descriptor, and forgets it.
void srv_resetStatic(Connection* connection);

// --- limits (server_limits.cpp) --------------------------------------------------------------------------------------

// Counts @p reason. The caller ends the connection; the application may answer then, or srv_answerRefusal() does.
void srv_refuse(Connection* connection, uint8_t reason);
void srv_answerRefusal(Connection* connection);

// A message that is about to be read gets its limits.
void srv_limitRequest(Connection* connection);

// Whether @p server takes one more connection; one that it does not take is told so.
bool srv_admit(HttpServer* server, ZelPeer* peer);

// The head of a request is complete: the limits that show only then. False when it was refused.
bool srv_checkBody(Connection* connection);
void srv_countRequest(Connection* connection);

// The time is looked at as long as there are connections.
void srv_startSweeping(HttpServer* server);
void srv_stopSweeping(HttpServer* server);
