// Is the daemon well, and what should its operator look at? Judged from the daemon's answers alone.
#pragma once

#include <string>
#include <vector>

#include "ctl/inspect/answers.h"

struct Diagnosis {
  // Why the daemon takes no events; empty when it does. A health check goes by this.
  std::string trouble;
  // What else an operator should look at: one line each, safe for a terminal.
  std::vector<std::string> notes;
};

Diagnosis diagnose(const Answers& answers);

// The trouble that the daemon below `root` tells when it is asked now; empty when there is none, or when it does not
// answer within a second.
std::string trouble_told(const std::string& root);
