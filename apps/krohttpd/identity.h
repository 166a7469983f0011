// Whose requests the ones under way are.
#pragma once

#include <krohttp/krohttp.h>

#include <string>

// Notes the user of @p request.
void identitySet(HttpRequest* request, const std::string& user);

// Empty when nobody has been authenticated.
std::string identityOf(HttpRequest* request);

// Forgets the user of @p request, if any.
void identityEnd(HttpRequest* request);
