// Well-behaved clients: each asks for one page after the other, looks at every byte of the answer, and notes how long
// it took. They have a thread of their own, so that what others are busy with is not taken for the daemon's time.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "swarm.h"

class Visitors {
 public:
  Visitors(unsigned port, size_t count);
  ~Visitors();

  // Connections may end from now on, and answers may be cut; what arrives as a whole must be right all the same.
  void allowEnd() { mayEnd_ = true; }
  // Lets what is under way be answered, prints how long they waited, and checks that all answers were right.
  void expectServed(const char* when);

 private:
  struct Visitor;
  void run();
  bool finished() const;
  void connect(Visitor* visitor);
  void ask(Visitor* visitor);
  void receive(Visitor* visitor);
  void lost(Visitor* visitor);
  void wait(Visitor* visitor);
  void fail(const std::string& what);

  Swarm swarm_;
  std::vector<std::unique_ptr<Visitor>> visitors_;
  std::atomic<bool> finishing_ = false;
  std::atomic<bool> mayEnd_ = false;
  std::vector<double> seconds_;
  std::vector<std::string> failures_;
  size_t failed_ = 0;
  std::thread thread_;
};
