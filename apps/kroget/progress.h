// How far a body has got, drawn on the terminal when it takes a while.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "handles.h"

class Progress {
 public:
  // @param allowed  draw at all
  explicit Progress(bool allowed) : allowed_(allowed) {}
  ~Progress() { end(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // A body begins, of this length if that is known.
  void begin(std::optional<uint64_t> total);
  void add(uint64_t bytes) { done_ += bytes; }
  // Takes what was drawn off the terminal.
  void end();

 private:
  void draw();

  bool allowed_;
  bool drawn_ = false;
  std::optional<uint64_t> total_;
  uint64_t done_ = 0;
  std::chrono::steady_clock::time_point begun_;
  Timer timer_;
};

// Whether somebody looks on: standard output and standard error both are terminals.
bool progressIsWelcome();

// "42% [####------] 4.2 MiB of 10.0 MiB, 1.1 MiB/s, 0:05 left", at most @p width columns.
std::string progressLine(uint64_t done, std::optional<uint64_t> total, double seconds, size_t width);
