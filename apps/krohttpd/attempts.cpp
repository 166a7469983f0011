#include "attempts.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <unordered_map>

namespace {

constexpr unsigned kFree = 3;      // failures that are answered at once
constexpr time_t kForgotten = 60;  // seconds without a failure
constexpr size_t kMostSources = 1024;
constexpr unsigned kMostDoublings = 3;  // 1, 2, 4, 8 seconds

struct Record {
  unsigned failures = 0;
  time_t last = 0;
};

using Records = std::unordered_map<std::string, Record>;
Records records;

time_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec;
}

// Makes room for one more: what is out of date goes, or else who has been quiet for longest.
void makeRoom(time_t time) {
  if (records.size() < kMostSources) return;
  std::erase_if(records, [&](const auto& entry) { return time - entry.second.last >= kForgotten; });
  if (records.size() < kMostSources) return;
  records.erase(std::min_element(records.begin(), records.end(),
                                 [](const auto& a, const auto& b) { return a.second.last < b.second.last; }));
}

}  // namespace

std::string attemptSource(ZelPeer* peer) {
  const char* const address = peer_address(peer);
  in6_addr v6{};
  if (inet_pton(AF_INET6, address, &v6) != 1) return address;
  char text[INET6_ADDRSTRLEN] = {};
  if (IN6_IS_ADDR_V4MAPPED(&v6)) {
    inet_ntop(AF_INET, &v6.s6_addr[12], text, sizeof text);
  } else {
    std::memset(&v6.s6_addr[8], 0, 8);  // the rest of it is the client's to choose
    inet_ntop(AF_INET6, &v6, text, sizeof text);
  }
  return text;
}

unsigned attemptFailed(const std::string& source) {
  const time_t time = now();
  if (!records.contains(source)) makeRoom(time);
  Record& record = records[source];
  if (time - record.last >= kForgotten) record.failures = 0;
  record.last = time;
  if (++record.failures <= kFree) return 0;
  return 1000U << std::min(record.failures - kFree - 1, kMostDoublings);
}
