// Requests that another site made a browser send.
#pragma once

#include <krohttp/krohttp.h>

// Whether the browser says that a page of another origin made it send @p request. What says nothing about that is no
// browser of today, or the user's own doing.
bool isFromElsewhere(HttpRequest* request);
