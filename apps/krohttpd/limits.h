// What the daemon's servers put up with.
#pragma once

#include <krohttp/krohttp.h>

#include <string>

// The recommended limits.
HttpServerLimits defaultLimits();

// Changes one: "NAME=VALUE". Returns an empty text, or what is wrong with @p text.
std::string changeLimit(HttpServerLimits* limits, const std::string& text);

// The names with their defaults and meanings, in one line.
std::string describeLimits();

// A JSON object: how often each reason ended a request, of those that have.
std::string refusalsAsJson(const uint64_t (&refused)[HTTP_MSG_REFUSALS]);
