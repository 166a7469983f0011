// The krohttpd that is abused: what it serves, what it costs, and what it counts.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/wire_process.h"

// What a process has.
struct Usage {
  long memory = 0;      // resident, KiB
  long peakMemory = 0;  // since the last resetPeak()
  size_t descriptors = 0;
  double seconds = 0;  // of the processor
};

Usage usageOf(pid_t pid);
void resetPeak(pid_t pid);

// As many descriptors as the system allows, for this process and those it starts.
size_t raiseDescriptors();

using Counts = std::map<std::string, uint64_t>;
std::string asText(const Counts& counts);

// A sanitized daemon keeps more, and takes longer.
bool isSanitized();

class Subject {
 public:
  struct Options {
    size_t descriptors = 0;  // 0 for as many as allowed
    bool site = true;        // a folder with an index and a file of 1 MiB, and the demonstration pages
  };

  static constexpr const char* kIndex = "<!DOCTYPE html><title>home</title>\n";
  static const std::string& mebibyte();

  explicit Subject(std::vector<std::string> arguments) : Subject(std::move(arguments), Options{}) {}
  Subject(std::vector<std::string> arguments, Options options);
  ~Subject();

  unsigned port() const { return daemon_->address().port; }
  pid_t pid() const { return daemon_->process().pid(); }
  const TemporaryFolder& folder() const { return folder_; }
  ChildProcess& process() const { return daemon_->process(); }
  Usage usage() const { return usageOf(pid()); }
  const Usage& before() const { return before_; }
  // What it has written to standard error.
  std::string errors() const;

  // Begins to measure: what was used up to now is the measure of what may be used afterwards.
  void begin();
  // Notes how many descriptors are open, for the report.
  void look();
  // Nobody is connected any more: prints what it took, and checks that all of it has come back and that /status answers
  // with exactly these refusals.
  void expectSettled(const Counts& refused);
  // The same, but for what was refused.
  void expectSettled();
  Counts refused();
  // Ends it: it must end well.
  void stop();

 private:
  std::string status();
  void expectReturned();

  TemporaryFolder folder_;
  std::unique_ptr<Daemon> daemon_;
  Usage before_;
  size_t mostDescriptors_ = 0;
};
