// Which request gets which answer.
#pragma once

#include <krohttp/krohttp.h>

#include <functional>

#include "options.h"
#include "users.h"

// What /status tells.
struct Counters {
  long connections = 0;
  long replies = 0;
  long uptime = 0;  // seconds
  uint64_t refused[HTTP_MSG_REFUSALS] = {};
};

// Prepares the routes for @p options; @p counters is asked at each /status. Forwarded requests go over @p connection.
// @p users must outlive the routes.
void routesSetUp(const Options& options, const Users& users, std::function<Counters()> counters,
                 ZelConnection* connection);

// The servers have been stopped: answers that wait go out now.
void routesStop();

// Ends what is under way.
void routesTearDown();

// Sets the handlers of @p server.
void routesInstall(HttpServer* server);
