// Texts: what may be shown, what may be sent.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Text that came from elsewhere, fit for a terminal: what is not printable ASCII becomes "\xHH".
std::string escaped(std::string_view text);

// Whether the two are the same but for the case of ASCII letters.
bool sameWord(std::string_view one, std::string_view other);

std::string lowerCase(std::string_view text);

// Without the blanks and tabs around it.
std::string_view trimmed(std::string_view text);

// RFC 9110 section 5.6.2.
bool isToken(std::string_view text);

// Whether there is a byte that ends or garbles a line.
bool hasControls(std::string_view text);

// Whether @p word is among the words of a list header (RFC 9110 section 5.6.1).
bool listHas(std::string_view list, std::string_view word);

// "512 B", "1.5 MiB".
std::string humanSize(uint64_t bytes);

// "0:07", "1:02:03".
std::string humanTime(uint64_t seconds);
