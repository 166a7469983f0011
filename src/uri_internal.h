// What the uri module offers to its neighbours and tests only.
#pragma once

#include <krohttp/uri.h>

// The next '&' of the query at or behind @p start, or null.
char* uri_nextAmper(const HttpUri* uri, char* start);
