// Replies on a wire, told apart as their reader would.
#pragma once

#include <strings.h>

#include <cstdlib>
#include <string_view>
#include <vector>

#include "fuzz_support.h"

struct WireReplies {
  size_t finals = 0;        // that have a complete head, interim ones aside
  size_t completes = 0;     // that have come to their end, or last until the connection closes
  bool behindLast = false;  // there is something behind a reply that ends the connection
};

// The value of a header of a head, empty when there is none.
inline std::string_view headerOfHead(std::string_view head, std::string_view name) {
  for (size_t at = head.find("\r\n"); at != std::string_view::npos && at + 2 < head.size();) {
    const std::string_view line = head.substr(at + 2, head.find("\r\n", at + 2) - at - 2);
    if (line.size() > name.size() + 2 && line[name.size()] == ':' &&
        strncasecmp(line.data(), name.data(), name.size()) == 0)
      return line.substr(name.size() + 2);
    at = head.find("\r\n", at + 2);
  }
  return {};
}

// Takes a chunked body off. False when it is not complete.
inline bool takeChunks(std::string_view* wire) {
  while (true) {
    const size_t end = wire->find("\r\n");
    if (end == std::string_view::npos) return false;
    const std::string line(wire->substr(0, end));
    FUZZ_CHECK(!line.empty() && line.size() <= 8 && line.find_first_not_of("0123456789ABCDEF") == std::string::npos);
    const size_t size = strtoul(line.c_str(), nullptr, 16);
    wire->remove_prefix(end + 2);
    if (wire->size() < size + 2) return false;
    FUZZ_CHECK(wire->substr(size, 2) == "\r\n");
    wire->remove_prefix(size + 2);
    if (size == 0) return true;
  }
}

// For whoever looks at a reproducer: FUZZ_SHOW=1 shows what was on the wires.
inline const bool fuzzShows = getenv("FUZZ_SHOW") != nullptr;
inline void showWire(const char* what, std::string_view wire) {
  if (fuzzShows) fprintf(stderr, "--- %s\n%.*s\n---\n", what, static_cast<int>(wire.size()), wire.data());
}

// @param headRequests  which of the requests, in their order, are HEAD: their replies have no body
inline WireReplies readReplies(std::string_view wire, const std::vector<bool>& headRequests) {
  WireReplies replies;
  while (!wire.empty()) {
    constexpr std::string_view kBegin = "HTTP/";  // of the request's version, whichever that was
    FUZZ_CHECK(wire.substr(0, kBegin.size()) == kBegin.substr(0, wire.size()));
    const size_t end = wire.find("\r\n\r\n");
    if (end == std::string_view::npos) return replies;
    const std::string_view head = wire.substr(0, end + 2);
    wire.remove_prefix(end + 4);
    const int status = atoi(std::string(head.substr(head.find(' ') + 1, 3)).c_str());
    FUZZ_CHECK(status >= 100 && status < 600);
    if (status < 200) continue;
    const size_t index = replies.finals++;
    const bool bodyless = index < headRequests.size() && headRequests[index];
    const std::string_view length = headerOfHead(head, "Content-Length");
    if (bodyless || status == 204 || status == 304) {
    } else if (headerOfHead(head, "Transfer-Encoding") == "chunked") {
      if (!takeChunks(&wire)) return replies;
    } else if (!length.empty()) {
      const size_t size = strtoul(std::string(length).c_str(), nullptr, 10);
      if (wire.size() < size) return replies;
      wire.remove_prefix(size);
    } else {
      FUZZ_CHECK(headerOfHead(head, "Connection") == "close");
      wire = {};
    }
    ++replies.completes;
    if (headerOfHead(head, "Connection") == "close") replies.behindLast |= !wire.empty();
  }
  return replies;
}
