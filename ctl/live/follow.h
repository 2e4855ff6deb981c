// Follows the daemon's events over its control socket: request `follow` of docs/control.md.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "ctl/control_client.h"

struct FollowRequest {
  std::string root;                // DEVICE_ROOT, or empty
  std::vector<std::string> names;  // patterns of names with "*" and "?"; none: all events
  std::string from;                // the id of an event: begin behind it; empty: with the next event
  bool reconnect = false;          // when the daemon goes away, wait for it and go on behind the last event
  // If any: called at the beginning, and after each 5 s without a line of the answer.
  std::function<void()> on_silence = {};
};

// Hands each event to `on_event`, a line `event` of the answer, until that returns false. Says on standard error which
// events are missing, and calls `on_gap` with their number, or a text when only the daemon's former run knew it. Throws
// Failure: Exit::unreachable when there is no daemon, when it goes away and we do not reconnect, when it refuses us the
// first time, or for good, and when `out`, which is only watched, is a pipe whose reader has gone; Exit::usage for
// patterns that cannot be asked for.
void follow_events(const FollowRequest& request, FILE* out,
                   const std::function<bool(const AnswerLine& event)>& on_event,
                   const std::function<void(const std::string& number)>& on_gap);
