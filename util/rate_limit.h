// For a log line that strangers can provoke: at most one a second, which then tells how many were left out.
//
//   if (const auto left_out = limit.allow()) elog(1, "evq: cannot accept a poster%s", left_out->text);
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>

#include "util/clock.h"

// How such a line ends: " (and 5 more)" when lines were left out since the last one, else nothing.
struct LeftOut {
  char text[40] = "";
};

// Plain memory without a destructor. Not shared between threads: its owner's lock guards it, if it has one.
class RateLimit {
 public:
  // Asks for a line. Returns its end, or nothing: then the line is counted as left out. `now_seconds` is a reading of a
  // steady clock; only tests give one.
  std::optional<LeftOut> allow(int64_t now_seconds = steady_ms() / 1000) {
    if (now_seconds == last_second) {
      ++refused;
      return {};
    }
    last_second = now_seconds;
    LeftOut left_out;
    if (refused > 0) snprintf(left_out.text, sizeof(left_out.text), " (and %d more)", refused);
    refused = 0;
    return left_out;
  }

 private:
  int64_t last_second = INT64_MIN;  // of the last line allowed
  int refused = 0;
};
