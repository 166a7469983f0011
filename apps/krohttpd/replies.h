// What all replies of krohttpd have in common.
#pragma once

#include <krohttp/krohttp.h>

#include <string_view>

// Adds Date, Server, and Connection: close where the connection will not be kept. Returns 0 or -1.
int addCommonHeaders(HttpRequest* request, HttpReply* reply);

// Whether the connection closes after this request: HTTP/1.0 always, else when the client asks for it.
bool closesAfter(HttpRequest* request);

// Says that nobody keeps the reply. Returns 0 or -1.
int forbidStoring(HttpReply* reply);

// Adds Connection: close.
int announceClose(HttpReply* reply);

// Sends a complete reply with a body of known length; @p allow, when not null, becomes the Allow header. Returns 0 or
// -1.
int replyWithText(HttpRequest* request, HttpReply* reply, unsigned code, const char* contentType, std::string_view text,
                  const char* allow = nullptr);

// Sends a one-line page that names the status. Returns 0 or -1.
int replyWithStatus(HttpRequest* request, HttpReply* reply, unsigned code, const char* allow = nullptr);
