// Content-Disposition of a form's part (RFC 7578 section 4.2, RFC 6266).
#pragma once

#include <optional>
#include <string>
#include <string_view>

// The file name that @p value gives, decoded: bytes as the client meant them, nothing to make a path of. Nothing when
// the part is no file.
std::optional<std::string> fileNameOf(std::string_view value);
