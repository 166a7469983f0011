// Who is logged in by the login page.
#pragma once

#include <krohttp/krohttp.h>

#include <string>

#include "users.h"

// @p timeout is in seconds without activity, 0 for none; @p users must outlive the sessions.
void sessionsSetUp(unsigned timeout, const Users& users);
void sessionsTearDown();

// The user of the session of @p request, empty when there is none: then its cookie is taken back with @p reply.
std::string sessionUser(HttpRequest* request, HttpReply* reply);

// Opens a session, in place of the one the request has, and sends its cookie with @p reply. Returns false when name and
// password are not accepted.
bool sessionOpen(HttpRequest* request, HttpReply* reply, const std::string& name, const std::string& password);

// Ends the session of @p request, if any, and takes its cookie back with @p reply.
void sessionClose(HttpRequest* request, HttpReply* reply);
