// Connections that are kept for further requests.
#pragma once

#include <krohttp/client.h>

#include <memory>
#include <string>
#include <vector>

#include "failure.h"
#include "handles.h"

class Exchange;

// Where to connect to.
struct Place {
  std::string socket;  // a Unix socket; else TCP
  std::string host;
  std::string port;

  std::string text() const;
  bool operator==(const Place&) const = default;
};

// A connection with the library's client on it. It may be connecting still; how that ends shows in the exchange.
class Link : public HttpClient {
 public:
  explicit Link(Place place) : HttpClient{}, place_(std::move(place)) {}
  ~Link() { http_clientStop(this); }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  bool connect(ZelConnection* connection);
  const Place& place() const { return place_; }

  // The other side waits for a request: it has neither closed nor sent what nobody asked for.
  bool isIdle() const;
  // Why it could not be made; nothing when it was. For handlers that run when it ends.
  Failure connectFailure() const;

  Exchange* exchange = nullptr;  // the one under way
  bool used = false;             // an exchange was completed on it

 private:
  Place place_;
  ZelPeer* connected_ = nullptr;
};

// The connections that wait for another request.
class Links {
 public:
  explicit Links(ZelConnection* connection) : connection_(connection) {}

  // One that waits, or else a new one. Null, with @p failure, when none can be begun.
  std::unique_ptr<Link> take(const Place& place, Failure* failure);
  std::unique_ptr<Link> open(const Place& place, Failure* failure);
  void keep(std::unique_ptr<Link> link) { idle_.push_back(std::move(link)); }

 private:
  ZelConnection* connection_;
  std::vector<std::unique_ptr<Link>> idle_;
};
