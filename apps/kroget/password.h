// Passwords of the command line: hidden from those who list processes, and asked for when they are missing.
#pragma once

#include <string>

#include "failure.h"

// Covers the end of every argument that is @p credentials, "user:password".
void hideCredentials(int argc, char** argv, const std::string& credentials);
// Covers the credentials in every argument that is @p url.
void hideUrlCredentials(int argc, char** argv, const std::string& url);

// Asks on the terminal for what is missing: "user" becomes "user:password".
Failure completeCredentials(std::string* credentials);
