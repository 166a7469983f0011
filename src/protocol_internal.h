// What the protocol module offers to its neighbours only.
#pragma once

#include <cstddef>
#include <ctime>
#include <string_view>

// Reads @p text in a strptime() @p format, taken as local time. False when it does not match (not traced).
bool prot_parseDateAs(const char* text, const char* format, time_t* date);

// Writes @p date, in GMT, in a strftime() @p format. Returns the length, 0 on failure (not traced).
size_t prot_formatDateAs(time_t date, const char* format, char* buffer, size_t size);

// prot_headerCode() for a name that need not end in NUL.
int prot_headerCodeOf(std::string_view name);
