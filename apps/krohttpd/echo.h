// POST /echo: sends the body back as it comes, however long, a bounded piece of it in memory.
#pragma once

#include <krohttp/krohttp.h>

// Begins the reply. Returns 0, or -1 to drop the connection.
int echoBegin(HttpRequest* request, HttpReply* reply);

// Whether @p request is being echoed.
bool isEchoing(HttpRequest* request);

// Sends back what has arrived. Returns 0, or -1 to drop the connection.
int echoBody(HttpRequest* request, HttpReply* reply, FILE* body);

// Releases what the echo of @p request holds, if any.
void echoEnd(HttpRequest* request);
