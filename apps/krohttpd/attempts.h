// Who has failed to log in lately, and how long the next answer makes them wait.
#pragma once

#include <zel/peer.h>

#include <string>

// By what the clients behind @p peer are counted: the IPv4 address, the /64 network of an IPv6 address; all clients of
// Unix sockets are one.
std::string attemptSource(ZelPeer* peer);

// Notes a failure. Returns how many milliseconds its answer is to wait.
unsigned attemptFailed(const std::string& source);
