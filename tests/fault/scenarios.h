// What is done while calls fail: each scenario is a server, or more, and what a client does there.
#pragma once

#include <string>
#include <vector>

#include "fault/visit.h"

struct Scenario {
  const char* name;
  void (*open)();                    // nothing fails in here
  Visit (*visit)();                  // the same each time, but for what fails
  const char* statuses;              // of the replies when nothing fails
  std::vector<std::string> instead;  // replies that may come instead of any other, as Piece::text
  bool firstInstead = false;         // the first reply is one of these
  unsigned each = 120;               // so many calls of a kind fail one by one, of the later ones only some
};

const std::vector<Scenario>& scenarios();

// Ends all that open() has begun.
void closeSite();
