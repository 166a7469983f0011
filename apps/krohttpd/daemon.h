// The life of krohttpd: listening, running, stopping in order.
#pragma once

#include "options.h"

// Serves until a signal ends it. Returns the exit status; failures to start are told in one line on stderr.
int daemonRun(const Options& options);
