// The trace lines of a server connection, in a form that can be compared whole.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "support/trace_capture.h"

// Every line caught, without its zone if that is "http-server"; the descriptor of the connection accepted first stands
// as #, and that of the second as ##.
inline TraceLines serverLines(const TraceCapture& trace) {
  constexpr std::string_view kZone = "http-se";
  constexpr std::string_view kAccepting = "[n]accepting connection (";
  TraceLines lines;
  TraceLines descriptors;
  for (std::string line : trace.said()) {
    if (line.compare(0, kZone.size(), kZone) == 0) line.erase(0, kZone.size());
    if (line.compare(0, kAccepting.size(), kAccepting) == 0)
      descriptors.push_back(line.substr(kAccepting.size(), line.size() - kAccepting.size() - 1));
    for (size_t i = descriptors.size(); i-- > 0;) {
      const std::string mark(i + 1, '#');
      const std::string inBrackets = "(" + descriptors[i] + ")";
      const std::string atEnd = "closing client connection " + descriptors[i];
      if (const size_t at = line.find(inBrackets); at != std::string::npos)
        line.replace(at, inBrackets.size(), "(" + mark + ")");
      if (line.size() >= atEnd.size() && line.compare(line.size() - atEnd.size(), atEnd.size(), atEnd) == 0)
        line.replace(line.size() - descriptors[i].size(), descriptors[i].size(), mark);
    }
    lines.push_back(line);
  }
  return lines;
}

inline TraceLines joined(std::initializer_list<TraceLines> parts) {
  TraceLines lines;
  for (const TraceLines& part : parts) lines.insert(lines.end(), part.begin(), part.end());
  return lines;
}

inline std::string switched(std::string_view from, std::string_view to) {
  return "[i]switch server state from " + std::string(from) + " to " + std::string(to);
}

// The steps of a connection's life.

inline TraceLines accepted() { return {"[n]accepting connection (#)", switched("INIT", "ACCEPTED")}; }

// A whole head of so many header lines, in one read event.
inline TraceLines headRead(int headers) {
  TraceLines lines = {"[i]connection available for read (#)", switched("ACCEPTED", "RECEIVING_REQUEST")};
  lines.insert(lines.end(), static_cast<size_t>(headers) + 1, "[i]reading enveloppe (#)");
  return lines;
}

inline TraceLines requestDone(size_t queued, int replyState) {
  return {switched("RECEIVING_REQUEST", "REQUEST_RECEIVED"), "[n]finished processing message (#)",
          switched("REQUEST_RECEIVED", "SENDING_REPLY"),
          "[n]reply was already sent ? " + std::to_string(queued) + " " + std::to_string(replyState)};
}

// The last byte of the reply has left.
inline TraceLines replyDone() {
  return {"[n]connection output buffer is empty (#)", "[n]response sent", "[n]calling reply done handler",
          switched("SENDING_REPLY", "REPLY_SENT"), "[n]do we need to close connection ? "};
}
inline TraceLines keptOpen() { return {"[n]no, prepare to handle new request", switched("REPLY_SENT", "ACCEPTED")}; }
inline TraceLines closedByServer() {
  return {"[n]yes, closing connection", switched("REPLY_SENT", "CLOSED"), "[n]connection closed (#)",
          "[n]server was already closed"};
}
// The client has gone between two requests.
inline TraceLines closedByClient() {
  return {"[i]connection available for read (#)", "[n]keep-alive connection closed (#)", "[n]connection closed (#)",
          "[n]closing kept-alive connection"};
}
