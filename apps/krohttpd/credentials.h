// What a request says about its user in the Authorization header.
#pragma once

#include <krohttp/krohttp.h>

#include <string>

#include "options.h"
#include "users.h"

enum class Credentials {
  kNone,         // none of this scheme
  kMisdirected,  // Digest: for another target, or it cannot be read for which
  kRefused,
  kAccepted
};

// Whether there is anything to judge.
bool hasCredentials(HttpRequest* request, AuthScheme scheme);

// Judges the credentials of @p request for Basic or Digest; @p user is set when they are accepted.
Credentials judgeCredentials(HttpRequest* request, AuthScheme scheme, const Users& users, std::string* user);
