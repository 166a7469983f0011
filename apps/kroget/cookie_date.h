// Dates of cookies.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// Reads a date in any of the forms that servers use (RFC 6265 section 5.1.1), always as GMT. The library's own reading
// knows one of them and takes it for local time.
// @return seconds since the epoch; nothing when @p text has no date
std::optional<int64_t> parseCookieDate(std::string_view text);
