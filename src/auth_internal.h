// What the parts of the auth module and their tests share.
#pragma once

#include <krohttp/auth.h>

#include <string_view>

// The response that belongs to @p value, whose password is HA1; to be freed by the caller. Null when a field that it
// is computed from is missing, or memory is short (traced).
char* http_generateDigestCompleteHash(const auth_authorization* value);

// Compares in a time that does not tell where the two differ.
bool auth_equal(std::string_view a, std::string_view b);

// 0 when the response of @p value is the right one, else -1 (traced).
int http_digestAuthenticate(const auth_authorization* value);
