/** @file connection.h Connections: groups of peers, made by listening and by connecting. */
#ifndef ZEL_CONNECTION_H
#define ZEL_CONNECTION_H

#include <stdbool.h>
#include <zel/export.h>
#include <zel/llist.h>
#include <zel/peer.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A new connection without peers, or NULL with zel_error. Owned by the caller. */
ZEL_API ZelConnection *connection_create(void);

/** Ends every peer of the connection (their close handlers run, and cannot make others in it) and frees it. NULL is
 * allowed. */
ZEL_API void connection_destroy(ZelConnection *connection);

/** The peers that have not ended, in order of their making; items are ZelPeer. Owned by the connection. */
ZEL_API ZelList *connection_peers(ZelConnection *connection);

/**
 * Listens on TCP.
 * @param host  a numeric IPv4 or IPv6 address, or a name (resolved on the spot, so better at start); NULL or "*": all
 * @param port  a decimal number or a service name; "0" lets the system choose (see peer_localPort())
 * @return the listening peer, owned by the connection, or NULL with zel_error (and errno where the system refused)
 */
ZEL_API ZelPeer *connection_listenOnTCP(ZelConnection *connection, const char *host, const char *port);

/**
 * Listens on a Unix stream socket at @p path, of at most 107 bytes. A socket file that nobody listens on any more is
 * replaced; the file is removed when the listening peer ends, unless another one has taken its place.
 * @return as connection_listenOnTCP()
 */
ZEL_API ZelPeer *connection_listenOnIPC(ZelConnection *connection, const char *path);

/**
 * Connects over TCP without blocking: names are resolved and addresses tried one after the other (IPv4 and IPv6)
 * while the loop runs. What is written meanwhile is queued. A connection that fails later ends in a close event;
 * zel_error gives the reason while its close handlers run.
 * @param flags  0; reserved
 * @return the peer, owned by the connection, or NULL with zel_error
 */
ZEL_API ZelPeer *connection_connectToTCP(ZelConnection *connection, const char *host, const char *port, int flags);

/** Connects to a Unix stream socket at @p path. @return as connection_connectToTCP() */
ZEL_API ZelPeer *connection_connectToIPC(ZelConnection *connection, const char *path);

/**
 * Makes a peer of a connected stream socket that the caller already has (a socket pair, an inherited descriptor).
 * @return the peer, which owns the descriptor from then on, or NULL with zel_error (the descriptor stays the caller's)
 */
ZEL_API ZelPeer *connection_adopt(ZelConnection *connection, int descriptor);

#ifdef __cplusplus
}
#endif
#endif
