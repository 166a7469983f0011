// The login page, and logging out: /login and /logout, there when a prefix is protected by sessions.
#pragma once

#include <krohttp/krohttp.h>

#include "options.h"
#include "users.h"

// Prepares the pages if @p options ask for them; @p users must outlive them.
void loginSetUp(const Options& options, const Users& users);
void loginTearDown();

// Whether @p path (may be null) is one of the pages.
bool isLoginPath(const char* path);

// Answers a request for one of the pages, or waits for its body. Returns 0, or -1 to drop the connection.
int loginBegin(HttpRequest* request, HttpReply* reply);

// Whether the body of @p request is a form that is being read.
bool isLoggingIn(HttpRequest* request);

// Reads what has arrived of the form. Returns 0, or -1 to drop the connection.
int loginBody(HttpRequest* request, HttpReply* reply, FILE* body);

// Forgets the form of @p request, if any.
void loginEnd(HttpRequest* request);

// Sends somebody without a session to the login page: a browser that asks for a page. Others are told by a short text.
// Returns 0, or -1 to drop the connection.
int loginDemand(HttpRequest* request, HttpReply* reply);
