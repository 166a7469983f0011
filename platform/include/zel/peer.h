/**
 * @file peer.h
 * Peers: the ends of stream connections, and listening sockets, on the event loop.
 *
 * A peer belongs to its connection. It ends by peer_close() or peer_destroy(), by a handler that returns
 * false, or when the other side vanishes while nothing reads; however it ends, its close handlers run
 * exactly once. A peer that has ended raises no event any more; its memory and its streams stay valid until
 * the end of the loop's turn.
 */
#ifndef ZEL_PEER_H
#define ZEL_PEER_H

#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>
#include <zel/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZelPeer ZelPeer;
typedef struct ZelConnection ZelConnection;

/** The events of a peer. */
enum ZelPeerEvent {
  PEER_EVENT_ACCEPT = 1,   /**< a connection came in on a listening peer; the handler gets the accepted peer */
  PEER_EVENT_DATA = 3,     /**< something can be read: bytes, buffered bytes, or the end */
  PEER_EVENT_WRITABLE = 4, /**< the socket takes data and nothing is queued */
  PEER_EVENT_DRAINED = 5,  /**< output that was written has all been handed to the socket */
  PEER_EVENT_CLOSE = 6     /**< the peer has ended */
};

/** The direction that goes with an event: in for 1 and 3, out for 4 and 5, none for 6. */
enum ZelPeerDirection { PEER_DIRECTION_NONE = 0, PEER_DIRECTION_IN = 1, PEER_DIRECTION_OUT = 2 };

/** Output modes, and what peer_outStream() is asked for. */
enum ZelPeerStream {
  PEER_STREAM_BUFFERED = 0, /**< output is queued and handed to the socket once per turn */
  PEER_STREAM_DIRECT = 1,   /**< output goes to the socket within the write */
  PEER_STREAM_CURRENT = 2   /**< (peer_outStream() only) whichever is in force */
};

/** Bits of peer_capabilities(). */
enum ZelPeerCapability { PEER_CAPABILITY_SENDFILE = 1 /**< the descriptor may be given to sendfile and splice */ };

/**
 * Handles one event.
 *
 * It may close or destroy any peer, its own too, and start or stop anything.
 * @return true when handled; false closes and destroys the peer (after event 1: the accepted one)
 */
typedef bool (*ZelPeerHandler)(ZelPeer *peer);

/**
 * How bytes get in and out of a peer: the place where another transport (TLS) is slotted in.
 * Each works as the system call it stands for, never blocks and never raises SIGPIPE.
 */
typedef struct ZelTransport {
  ssize_t (*read)(ZelPeer *peer, void *buffer, size_t length);        /**< as recv() */
  ssize_t (*write)(ZelPeer *peer, const void *buffer, size_t length); /**< as send() */
  ssize_t (*peek)(ZelPeer *peer, void *buffer, size_t length);        /**< as recv() with MSG_PEEK */
  unsigned capabilities;                                              /**< ZelPeerCapability bits */
} ZelTransport;

/**
 * Installs @p handler for @p event, in place of the one before; NULL removes it.
 * @param direction  the direction of that event (ZelPeerDirection)
 * @return true when it holds; false with zel_error for a peer that has ended or an unknown event
 */
ZEL_API bool peer_setEventHandler(ZelPeer *peer, int event, int direction, ZelPeerHandler handler);

/** Adds a handler that runs after that of event 6 when the peer ends; one already added is not added twice.
 * @return false with zel_error when the peer has ended or memory is short */
ZEL_API bool peer_addCloseHandler(ZelPeer *peer, ZelPeerHandler handler);

/** Takes an added close handler away. @return false when it was not there */
ZEL_API bool peer_removeCloseHandler(ZelPeer *peer, ZelPeerHandler handler);

/**
 * The stream to read from: never blocks (EAGAIN), end of file when the other side has finished.
 * @return owned by the peer, valid as long as it; NULL with zel_error for a listening or ended peer
 */
ZEL_API FILE *peer_inStream(ZelPeer *peer);

/**
 * The stream to write to, for @p type (ZelPeerStream).
 * In direct mode, what the socket does not take at once is kept, ahead of everything else, and errno is EAGAIN
 * although the write succeeded: no byte is ever lost or doubled.
 * @return as peer_inStream(); NULL with zel_error also when @p type names a mode that is not in force
 */
ZEL_API FILE *peer_outStream(ZelPeer *peer, int type);

/**
 * Looks at what would be read next, bytes buffered in the stream first, without taking it.
 * @return how many bytes were put into @p buffer (at least 1), 0 at the end, -1 with errno
 */
ZEL_API ssize_t peer_peek(ZelPeer *peer, void *buffer, size_t length);

/** Bytes written but not yet handed to the socket, those in the stream's own buffer included. */
ZEL_API size_t peer_bytesQueued(const ZelPeer *peer);

/** Switches between buffered and direct output. @return false when direct output is asked for while bytes are queued */
ZEL_API bool peer_setStreamType(ZelPeer *peer, int type);

/** What can be done with the peer's descriptor (ZelPeerCapability). */
ZEL_API unsigned peer_capabilities(const ZelPeer *peer);

/**
 * Replaces the transport; @p transport must outlive the peer. NULL restores the socket's own.
 * When the peer ends, what is queued is offered to it after the handler of event 6 and before the close handlers that
 * were added; it is not called any more once these have run.
 */
ZEL_API void peer_setTransport(ZelPeer *peer, const ZelTransport *transport);

/** The connection that the peer belongs to. */
ZEL_API ZelConnection *peer_connection(const ZelPeer *peer);

/** The socket, or -1 with zel_error ZEL_ERROR_BAD_PEER for NULL, for a peer that has failed or ended, and for one whose
 * host is still being looked up. errno is kept. */
ZEL_API int peer_socket(const ZelPeer *peer);

/** The address of the other side as text, "127.0.0.1" or "::1", "unix" for a Unix socket, "" when there is none.
 * Valid as long as the peer. */
ZEL_API const char *peer_address(ZelPeer *peer);

/** The port of the listening socket, or of this side's end; 0 for Unix sockets. */
ZEL_API unsigned peer_localPort(const ZelPeer *peer);

/** The application's pointer. An accepted peer starts with that of its listening peer. */
ZEL_API void *peer_userData(const ZelPeer *peer);
ZEL_API void peer_setUserData(ZelPeer *peer, void *userData);

/**
 * Ends the peer now: its close handlers run inside this call. Output written before, and by them, is still handed to
 * the socket, and unread input does not reset it away: the socket itself goes once the other side has finished, or
 * after two seconds or 256 KiB of further input. Ending a peer twice is harmless.
 */
ZEL_API void peer_close(ZelPeer *peer);

/** As peer_close(); the peer must not be used by the caller after it. NULL is allowed. */
ZEL_API void peer_destroy(ZelPeer *peer);

#ifdef __cplusplus
}
#endif
#endif
