// What a client sends, and what it wants.
#pragma once

#include <krohttp/krohttp.h>

#include <string_view>

// Whether the body of @p request is of this media type, whatever its parameters are.
bool isOfType(HttpRequest* request, std::string_view type);

// Whether the client is a browser that shows a page.
bool acceptsHtml(HttpRequest* request);
