// The access log: a line per request in the Common Log Format.
#pragma once

#include <krohttp/krohttp.h>

#include <string>

// Opens the log; "-" is standard output. Returns false with errno.
bool accessLogOpen(const std::string& path);

// Notes one request and its reply. Does nothing without a log.
void accessLogWrite(HttpRequest* request, HttpReply* reply);

// Writes out what is buffered and closes the log.
void accessLogClose();
