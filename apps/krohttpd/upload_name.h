// Names under which uploaded files are stored.
#pragma once

#include <string>
#include <string_view>

// No stored file's name is longer, a number in it included.
constexpr size_t kLongestUploadName = 200;

// What @p name, which may be anything, becomes: its last component, without what leads elsewhere, hides the file or
// confuses who reads a listing; valid UTF-8, at most kLongestUploadName bytes, never empty.
std::string safeUploadName(std::string_view name);

// @p name with @p number in front of its extension, and still no longer than that.
std::string numberedUploadName(std::string_view name, unsigned number);
