// What a client gets to see of a server that calls fail under.
#pragma once

#include <zel/loop.h>

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "fault/inject.h"
#include "support/wire_client.h"

// A reply: its head, and as much of its body as has come, decoded.
struct Piece {
  std::string text;
  bool whole = false;  // its own end has come

  friend bool operator==(const Piece& a, const Piece& b) { return a.text == b.text && a.whole == b.whole; }
};

struct Visit {
  std::vector<Piece> pieces;
  bool ended = false;    // the connection has
  bool stopped = false;  // the client had nothing to go on with
  bool hung = false;     // nothing more came
  bool held = false;     // the server kept the connection although the client had gone
  std::string offence;   // what no client may ever get
};

// Runs turns, in which calls may fail, until condition holds; clients send and receive meanwhile. The bound is for
// tests that fail.
template <typename Condition>
bool until(Condition condition, int seconds = 4) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (true) {
    WireClient::pumpAll();
    if (condition()) return true;
    if (std::chrono::steady_clock::now() > limit) return false;
    const Armed armed;
    zel_loop_turn(2);
  }
}

// What is drawn by chance, and the time, in text.
inline std::string masked(std::string text) {
  constexpr std::string_view kBefore[] = {"nonce=\"", "opaque=\"", "kro/sessid=", "Date: "};
  for (const std::string_view before : kBefore)
    for (size_t at = text.find(before); at != std::string::npos; at = text.find(before, at + 1))
      for (size_t i = at + before.size();
           i < text.size() && std::string_view("\";\r").find(text[i]) == std::string::npos; ++i)
        text[i] = '?';
  return text;
}

// The replies that bytes are, interim ones left out.
inline std::vector<Piece> piecesOf(std::string_view bytes) {
  std::vector<Piece> pieces;
  while (!bytes.empty()) {
    constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
    if (bytes.substr(0, kContinue.size()) == kContinue) {
      bytes.remove_prefix(kContinue.size());
      continue;
    }
    size_t end = 0;
    const auto reply = takeReply(bytes, &end);
    const size_t headEnd = bytes.find("\r\n\r\n");
    if (reply) {
      pieces.push_back({masked(reply->head() + reply->body), true});
    } else if (headEnd == std::string_view::npos) {
      pieces.push_back({masked(std::string(bytes)), false});
      break;
    } else {
      // What has come of the body.
      const std::string head(bytes.substr(0, headEnd + 4));
      std::string body;
      bytes.remove_prefix(headEnd + 4);
      if (head.find("Transfer-Encoding: chunked") == std::string::npos) {
        body = bytes;
      } else {
        while (!bytes.empty()) {
          const size_t lineEnd = bytes.find("\r\n");
          if (lineEnd == std::string_view::npos) break;
          const size_t size = strtoul(std::string(bytes.substr(0, lineEnd)).c_str(), nullptr, 16);
          body.append(bytes.substr(lineEnd + 2, size));
          bytes.remove_prefix(std::min(bytes.size(), lineEnd + 2 + size + 2));
        }
      }
      pieces.push_back({masked(head + body), false});
      break;
    }
    bytes.remove_prefix(end);
  }
  return pieces;
}
