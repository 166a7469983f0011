#include "limits.h"

#include <cstdint>
#include <cstdlib>

namespace {

struct Limit {
  const char* name;
  uint32_t HttpServerLimits::*value;
  const char* meaning;
};

constexpr Limit kLimits[] = {
    {"line", &HttpServerLimits::lineBytes, "bytes of a request line"},
    {"head", &HttpServerLimits::headBytes, "bytes of a request's head"},
    {"headers", &HttpServerLimits::headers, "headers of a request"},
    {"head-time", &HttpServerLimits::headSeconds, "seconds for a head"},
    {"stall-time", &HttpServerLimits::stallSeconds, "seconds without progress"},
    {"rate", &HttpServerLimits::minimumRate, "bytes a second of a body or a reply"},
    {"rate-time", &HttpServerLimits::rateSeconds, "seconds over which the rate is measured"},
    {"idle-time", &HttpServerLimits::idleSeconds, "seconds between requests"},
    {"requests", &HttpServerLimits::requests, "requests of a connection"},
    {"connections", &HttpServerLimits::connections, "connections of an address that is listened on"},
};

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
  constexpr size_t kMostDigits = 9;
  if (value.empty() || value.size() > kMostDigits || value.find_first_not_of("0123456789") != std::string::npos)
    return "'" + value + "' is no number";
  for (const Limit& limit : kLimits) {
    if (name != limit.name) continue;
    limits->*limit.value = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
    return "";
  }
  return "there is no limit '" + name + "'";
}

std::string describeLimits() {
  const HttpServerLimits limits = defaultLimits();
  std::string text;
  for (const Limit& limit : kLimits)
    text += (text.empty() ? "" : ", ") + std::string(limit.name) + " (" + std::to_string(limits.*limit.value) + " " +
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
