// `zelvctl tail`: the events that the daemon handles, with what they cost, as they come.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "ctl/live/follow.h"

struct TailRequest {
  FollowRequest follow;
  std::vector<std::string> where;  // "FIELD=VALUE": all must hold
  uint64_t slow_us = 0;            // only events whose handlers took at least so long
  bool errors = false;             // only events of which a handler has failed
  bool json = false;
};

// Writes those events to `out`, a line each, without end. Throws as follow_events does, and Failure(Exit::usage) for a
// condition that is not FIELD=VALUE.
void print_tail(const TailRequest& request, FILE* out);
