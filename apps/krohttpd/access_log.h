// The access log: a line per request in the Common Log Format.
#pragma once

#include <krohttp/krohttp.h>

#include <string>

// Opens the log; "-" is standard output. Returns false with errno.
bool accessLogOpen(const std::string& path);

// Notes one request and its reply. Does nothing without a log.
// @p user is empty when nobody was authenticated; @p withQuery tells whether the target's query may be shown.
void accessLogWrite(HttpRequest* request, HttpReply* reply, const std::string& user, bool withQuery);

// Writes out what is buffered and closes the log.
void accessLogClose();
