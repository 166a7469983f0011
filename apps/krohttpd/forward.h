// --proxy: hands the requests below a prefix to another process, and its replies back.
#pragma once

#include <krohttp/krohttp.h>
#include <zel/connection.h>

#include "options.h"

// Prepares forwarding for @p options, over @p connection.
void forwardSetUp(const Options& options, ZelConnection* connection);

// Ends what is under way.
void forwardTearDown();

// Where requests for @p path go: the target with the longest prefix, null when there is none.
const ProxyTarget* forwardTarget(const char* path);

// Begins to forward @p request. Returns 0, or -1 to drop the connection.
int forwardBegin(HttpRequest* request, HttpReply* reply, const ProxyTarget& target);

// Whether @p request is being forwarded.
bool isForwarding(HttpRequest* request);

// Forwards what has arrived of the body. Returns 0, or -1 to drop the connection.
int forwardBody(HttpRequest* request);

// Notes that the reply has left, and releases what the exchange of @p request holds, if any.
void forwardEnd(HttpRequest* request);
