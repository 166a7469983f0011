// What the login page looks like. It needs nothing but itself: no script, no other file.
#pragma once

#include <string>

// The headers that go with the pages: they are shown alone, load nothing, and are kept by nobody.
constexpr const char* kLoginPolicy =
    "default-src 'none'; style-src 'unsafe-inline'; img-src data:; form-action 'self'; base-uri 'none'; "
    "frame-ancestors 'none'";

// The form. @p next is where to go on; after a failure @p error says what is wrong, and @p name is what was entered.
std::string loginForm(const std::string& realm, const std::string& next, const std::string& name,
                      const std::string& error);

// What somebody who is logged in sees.
std::string loggedInPage(const std::string& realm, const std::string& next, const std::string& name);
