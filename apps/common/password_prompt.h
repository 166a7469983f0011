// Reading a password from a terminal that does not show it.
#pragma once

#include <optional>
#include <string>

// Asks with @p prompt on standard error and reads a line from @p terminal, without echo. A signal that comes meanwhile
// takes its effect once the terminal is as it was. Nothing at the end of the input.
std::optional<std::string> askPassword(const char* prompt, int terminal);

// Reads a line from standard input as it is. Nothing at the end of the input.
std::optional<std::string> readLine();
