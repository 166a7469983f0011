// --add-user: writes a user into the file that --auth-file reads.
#pragma once

#include "options.h"

// Asks for the password and writes the file. Returns the exit status; failures are told in one line on stderr.
int addUser(const NewUser& user);
