// Limits a log line that strangers can provoke to one a second; the next one says how many were left out.
//
//   if (const auto left_out = limit.allow()) elog(1, "evq: cannot accept a poster%s", left_out->text);
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <utility>

#include "util/clock.h"

// The end of such a line: " (and 5 more)" when lines were left out since the last one, else empty.
struct LeftOut {
  LeftOut() = default;
  explicit LeftOut(int lines) {
    if (lines > 0) snprintf(text, sizeof(text), " (and %d more)", lines);
  }
  char text[40] = "";
};

// Trivially destructible. Not thread-safe: the owner guards it with its own lock, if it has one.
class RateLimit {
 public:
  // Asks for a line. Returns its end, or nothing: then the line counts as left out. `now_seconds` is a reading of a
  // steady clock; only tests pass one.
  std::optional<LeftOut> allow(int64_t now_seconds = steady_ms() / 1000) {
    if (now_seconds == last_second) {
      ++refused;
      return {};
    }
    last_second = now_seconds;
    return LeftOut(std::exchange(refused, 0));
  }

 private:
  int64_t last_second = INT64_MIN;  // of the last line allowed
  int refused = 0;
};
