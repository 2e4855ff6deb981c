// How long the log waits for those who read it: a second in all within ten. The log's lock is held meanwhile, so this
// is how long the whole daemon may be held up.
#pragma once

#include <poll.h>

#include <cstdint>

#include "util/clock.h"

// Trivially destructible. Not thread-safe.
class LogPatience {
 public:
  // Waits until `fd` may take more. Returns false when the time is used up.
  bool wait_for(int fd) {
    const int64_t start = steady_ns();
    if (start - since_ns >= kSpanNs) {
      since_ns = start;
      waited_ns = 0;
    }
    const int64_t left_ms = (kWaitNs - waited_ns + 999999) / 1000000;
    if (left_ms <= 0) return false;
    pollfd wanted{fd, POLLOUT, 0};
    const int ready = poll(&wanted, 1, static_cast<int>(left_ms));
    waited_ns += steady_ns() - start;
    return ready != 0;
  }

 private:
  static constexpr int64_t kSpanNs = int64_t{10} * 1000000000;
  static constexpr int64_t kWaitNs = 1000000000;
  int64_t since_ns = -kSpanNs;
  int64_t waited_ns = 0;
};
