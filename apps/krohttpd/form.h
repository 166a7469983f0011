// The texts of forms and addresses: taken apart, escaped, judged.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// The decoded value of the first field called @p name of an application/x-www-form-urlencoded text.
std::optional<std::string> formField(std::string_view form, std::string_view name);

// "%XX" is a byte; a '%' without two digits stands for itself. A '+' becomes @p plus.
std::string percentDecoded(std::string_view text, char plus = '+');

// @p text with all but letters, digits and "-._~/" escaped: for a path, or a value in a query.
std::string escapedForUrl(std::string_view text);

// @p text for an element or an attribute in double quotes.
std::string escapedForHtml(std::string_view text);

// Whether a browser that is sent to @p target stays on this server: one '/' at the beginning, and neither a backslash,
// which is another '/' to browsers, nor what they drop or others could take for the end of a header line.
bool isLocalTarget(std::string_view target);
