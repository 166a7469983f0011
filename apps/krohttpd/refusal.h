// Answers that do not wait for the request's body.
#pragma once

#include <krohttp/krohttp.h>

#include <functional>

// Sends an answer while the body of @p request may still be on its way. Nobody will read that body: it is dropped as it
// comes, and then the connection closes. One that is not worth waiting for, or whose end nobody knows, closes it at
// once. Returns 0, or -1 to drop the connection.
int answerEarly(HttpRequest* request, HttpReply* reply, const std::function<int()>& send);

// Tells, early, to try again later: so many answers to failed attempts wait already. Returns 0, or -1 to drop the
// connection.
int refuseAttempt(HttpRequest* request, HttpReply* reply);

// Sends a one-line page that names the status, early. Returns 0, or -1 to drop the connection.
int refuse(HttpRequest* request, HttpReply* reply, unsigned code, const char* allow = nullptr);
