// Which request gets which answer.
#pragma once

#include <krohttp/krohttp.h>

#include <functional>

#include "options.h"

// What /status tells.
struct Counters {
  long connections = 0;
  long replies = 0;
  long uptime = 0;  // seconds
};

// Prepares the routes for @p options; @p counters is asked at each /status. Forwarded requests go over @p connection.
void routesSetUp(const Options& options, std::function<Counters()> counters, ZelConnection* connection);

// Ends what is under way.
void routesTearDown();

// Sets the handlers of @p server.
void routesInstall(HttpServer* server);
