#include "link.h"

#include <zel/error.h>
#include <zel/peer.h>

#include <algorithm>
#include <cerrno>

namespace {

Failure cannotConnect(const Place& place, uint32_t error) {
  if (error == ZEL_ERROR_RESOLVE) return {kCannotResolve, "cannot resolve " + place.host};
  return {kCannotConnect, "cannot connect to " + place.text() + ": " + error_string(error)};
}

}  // namespace

std::string Place::text() const {
  if (!socket.empty()) return socket;
  return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + port;
}

bool Link::connect(ZelConnection* connection) {
  zel_error = ZEL_ERROR_NONE;
  connected_ = place_.socket.empty() ? connection_connectToTCP(connection, place_.host.c_str(), place_.port.c_str(), 0)
                                     : connection_connectToIPC(connection, place_.socket.c_str());
  return connected_ != nullptr && http_clientStart(this, connected_) == 0;
}

bool Link::isIdle() const {
  char byte;
  return peer != nullptr && state == HTTP_CLIENT_INIT && peer_peek(peer, &byte, 1) < 0 && errno == EAGAIN;
}

Failure Link::connectFailure() const {
  // A peer has the address of its other side from the moment it is connected.
  return *peer_address(connected_) != '\0' ? Failure() : cannotConnect(place_, zel_error);
}

std::unique_ptr<Link> Links::take(const Place& place, Failure* failure) {
  std::erase_if(idle_, [](const std::unique_ptr<Link>& link) { return !link->isIdle(); });
  const auto found = std::find_if(idle_.begin(), idle_.end(), [&](const auto& link) { return link->place() == place; });
  if (found == idle_.end()) return open(place, failure);
  std::unique_ptr<Link> link = std::move(*found);
  idle_.erase(found);
  return link;
}

std::unique_ptr<Link> Links::open(const Place& place, Failure* failure) {
  auto link = std::make_unique<Link>(place);
  if (link->connect(connection_)) return link;
  *failure = cannotConnect(place, zel_error);
  return nullptr;
}
