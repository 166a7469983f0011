#include "limits.h"

#include <cstdint>
#include <cstdlib>

namespace {

// Of one of the two sizes.
struct Limit {
  const char* name;
  uint32_t HttpServerLimits::*value;
  uint64_t HttpServerLimits::*large;
  const char* meaning;
};

constexpr Limit kLimits[] = {
    {"line", &HttpServerLimits::lineBytes, nullptr, "bytes of a request line"},
    {"head", &HttpServerLimits::headBytes, nullptr, "bytes of a request's head"},
    {"headers", &HttpServerLimits::headers, nullptr, "headers of a request"},
    {"body", nullptr, &HttpServerLimits::bodyBytes, "bytes of a body"},
    {"head-time", &HttpServerLimits::headSeconds, nullptr, "seconds for a head"},
    {"stall-time", &HttpServerLimits::stallSeconds, nullptr, "seconds without progress"},
    {"rate", &HttpServerLimits::minimumRate, nullptr, "bytes a second of a body or a reply"},
    {"rate-time", &HttpServerLimits::rateSeconds, nullptr, "seconds over which the rate is measured"},
    {"idle-time", &HttpServerLimits::idleSeconds, nullptr, "seconds between requests"},
    {"paused-time", &HttpServerLimits::pausedSeconds, nullptr, "seconds in which a paused request must go on"},
    {"requests", &HttpServerLimits::requests, nullptr, "requests of a connection"},
    {"connections", &HttpServerLimits::connections, nullptr, "connections of an address that is listened on"},
};

uint64_t valueOf(const HttpServerLimits& limits, const Limit& limit) {
  return limit.value != nullptr ? limits.*limit.value : limits.*limit.large;
}

}  // namespace

HttpServerLimits defaultLimits() {
  HttpServerLimits limits;
  http_serverLimitsInitialize(&limits);
  return limits;
}

std::string changeLimit(HttpServerLimits* limits, const std::string& text) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos) return "'" + text + "' is not NAME=VALUE";
  const std::string name = text.substr(0, equals);
  const std::string value = text.substr(equals + 1);
  constexpr size_t kMostDigits = 10;
  if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos)
    return "'" + value + "' is no number";
  // A body too: its stream counts no more.
  const uint64_t number = value.size() > kMostDigits ? UINT64_MAX : std::strtoull(value.c_str(), nullptr, 10);
  if (number > UINT32_MAX) return "'" + value + "' is too large";
  for (const Limit& limit : kLimits) {
    if (name != limit.name) continue;
    if (limit.value != nullptr)
      limits->*limit.value = static_cast<uint32_t>(number);
    else
      limits->*limit.large = number;
    return "";
  }
  return "there is no limit '" + name + "'";
}

std::string describeLimits() {
  const HttpServerLimits limits = defaultLimits();
  std::string text;
  for (const Limit& limit : kLimits)
    text += (text.empty() ? "" : ", ") + std::string(limit.name) + " (" + std::to_string(valueOf(limits, limit)) + " " +
            limit.meaning + ")";
  return text;
}

std::string refusalsAsJson(const uint64_t (&refused)[HTTP_MSG_REFUSALS]) {
  std::string text;
  for (int reason = 1; reason < HTTP_MSG_REFUSALS; ++reason) {
    if (refused[reason] == 0) continue;
    text += (text.empty() ? "\"" : ",\"") + std::string(http_serverRefusalName(reason)) +
            "\":" + std::to_string(refused[reason]);
  }
  return "{" + text + "}";
}
