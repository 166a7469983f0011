// --protect: what only users may see.
#pragma once

#include <krohttp/krohttp.h>

#include "options.h"
#include "users.h"

// Prepares the protections of @p options; @p users must outlive them.
void protectionSetUp(const Options& options, const Users& users);

// Whether @p request may be answered. If not, it has been refused, or will be, and @p result is what its handler
// returns.
bool protectionAdmits(HttpRequest* request, HttpReply* reply, int* result);
